// spawn_times ROUNDS BODY PROGRAM...: the wall time of whole processes, each program
// once a round so that whatever else the machine does falls on all alike. Prints the
// median of each in microseconds, and its ratio to the first.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

extern char** environ;

namespace {

double Spawn(char* program, const char* body) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, body, O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  char* arguments[] = {program, nullptr};
  pid_t child = 0;
  const auto begun = std::chrono::steady_clock::now();
  if (posix_spawn(&child, program, &actions, nullptr, arguments, environ) != 0) {
    std::fprintf(stderr, "%s does not start\n", program);
    std::exit(1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  const auto ended = std::chrono::steady_clock::now();
  posix_spawn_file_actions_destroy(&actions);
  if (status != 0) {
    std::fprintf(stderr, "%s failed\n", program);
    std::exit(1);
  }
  return std::chrono::duration<double, std::micro>(ended - begun).count();
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 4) return 2;
  const int rounds = std::atoi(arguments[1]);
  std::vector<std::vector<double>> times(static_cast<size_t>(count) - 3);
  for (int round = 0; round < rounds; ++round) {
    for (size_t i = 0; i < times.size(); ++i) {
      times[i].push_back(Spawn(arguments[i + 3], arguments[2]));
    }
  }
  double first = 0;
  for (size_t i = 0; i < times.size(); ++i) {
    std::sort(times[i].begin(), times[i].end());
    const double median = times[i][times[i].size() / 2];
    if (i == 0) first = median;
    std::printf("%s %.0f %.2f\n", arguments[i + 3], median, median / first);
  }
}
