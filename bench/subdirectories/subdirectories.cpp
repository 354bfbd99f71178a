// subdirectories time DIRECTORY ROUNDS: medians of interleaved rounds of the library and of
// the same work in plain C. subdirectories memory DIRECTORY library|plain: of one of them.
#include <file_share/webman_file_share.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "plain.h"

namespace {

long Library(const char* dir) {
  std::vector<_tag_SUBDIR_ENTRY_INFO_> entries;
  return WebmanFileShare::WfmLibEnumSubDir(dir, entries) ? static_cast<long>(entries.size()) : -1;
}

double Seconds(long (*list)(const char*), const char* dir, long* count) {
  const auto start = std::chrono::steady_clock::now();
  *count = list(dir);
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double Median(std::vector<double>& times) {
  std::nth_element(times.begin(), times.begin() + static_cast<long>(times.size() / 2), times.end());
  return times[times.size() / 2];
}

int Compare(const char* dir, int rounds) {
  std::vector<double> library, plain;
  long count = 0, same = 0;
  for (int i = 0; i < rounds; i++) {
    library.push_back(Seconds(Library, dir, &count));
    plain.push_back(Seconds(plain_subdirectories, dir, &same));
  }
  if (count < 0 || count != same) return 1;
  const double a = Median(library), b = Median(plain);
  std::printf("%ld directories: library %.2f ms, plain C %.2f ms, %.2f times\n", count, a * 1e3,
              b * 1e3, a / b);
  return 0;
}

// The most memory that the process has had, in KiB (proc(5)).
long PeakMemory() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmHWM:")) return std::atol(line.c_str() + sizeof "VmHWM:");
  }
  return -1;
}

int Alone(const char* part, const char* dir) {
  const long before = PeakMemory();
  const bool library = std::strcmp(part, "library") == 0;
  if ((library ? Library : plain_subdirectories)(dir) < 0) return 1;
  std::printf("  %s: %ld KiB of memory\n", part, PeakMemory() - before);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  if (std::strcmp(argv[1], "memory") == 0) return Alone(argv[3], argv[2]);
  return Compare(argv[2], std::atoi(argv[3]));
}
