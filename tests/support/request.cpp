#include "support/request.h"

#include <gtest/gtest.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace support {
namespace {

int MemoryFile(std::string_view content) {
  const int fd = memfd_create("request", 0);
  if (fd < 0) std::abort();
  while (!content.empty()) {
    const ssize_t written = write(fd, content.data(), content.size());
    if (written <= 0) std::abort();
    content.remove_prefix(static_cast<size_t>(written));
  }
  lseek(fd, 0, SEEK_SET);
  return fd;
}

std::string ReadAll(int fd) {
  std::string text;
  char buffer[65536];
  lseek(fd, 0, SEEK_SET);
  for (ssize_t count; (count = read(fd, buffer, sizeof buffer)) > 0;) {
    text.append(buffer, static_cast<size_t>(count));
  }
  return text;
}

// Writes down what fails in the program's process, which the test would not hear of: the
// printer's lines would go into the answer, and the count ends with the process.
class Failures : public testing::EmptyTestEventListener {
 public:
  explicit Failures(int fd) : fd_(fd) {}
  void OnTestPartResult(const testing::TestPartResult& result) override {
    if (result.failed()) {
      dprintf(fd_, "%s:%d: %s\n", result.file_name() == nullptr ? "" : result.file_name(),
              result.line_number(), result.message());
    }
  }

 private:
  int fd_;
};

void ListenForFailures(int fd) {
  testing::TestEventListeners& listeners = testing::UnitTest::GetInstance()->listeners();
  delete listeners.Release(listeners.default_result_printer());
  listeners.Append(new Failures(fd));
}

[[noreturn]] void BeTheProgram(const Environment& environment, int in, int out, int failures,
                               const std::function<void()>& program) {
  alarm(30);
  ListenForFailures(failures);
  const char* path = getenv("PATH");
  const std::string kept = path == nullptr ? "/usr/sbin:/usr/bin:/sbin:/bin" : path;
  clearenv();
  setenv("PATH", kept.c_str(), 1);
  for (const auto& [name, value] : environment)
    setenv(name.c_str(), value.c_str(), 1);
  dup2(in, STDIN_FILENO);
  dup2(out, STDOUT_FILENO);
  close(in);
  close(out);
  program();
  std::exit(0);
}

void SplitAnswer(Answer& answer) {
  const size_t end = answer.output.find("\r\n\r\n");
  if (end == std::string::npos) {
    answer.body = answer.output;
    return;
  }
  answer.head = answer.output.substr(0, end + 2);
  answer.body = answer.output.substr(end + 4);
}

// Calls `found` with the value of each header line of this name.
void ForEachHeader(const std::string& head, std::string_view name,
                   const std::function<void(std::string_view)>& found) {
  for (size_t start = 0; start < head.size();) {
    const size_t end = head.find("\r\n", start);
    const std::string_view line = std::string_view(head).substr(start, end - start);
    const size_t colon = line.find(':');
    if (colon == name.size() && strncasecmp(line.data(), name.data(), colon) == 0) {
      std::string_view value = line.substr(colon + 1);
      while (!value.empty() && value.front() == ' ')
        value.remove_prefix(1);
      found(value);
    }
    start = end == std::string::npos ? head.size() : end + 2;
  }
}

}  // namespace

std::string Answer::Header(std::string_view name) const {
  std::string first;
  bool seen = false;
  ForEachHeader(head, name, [&](std::string_view value) {
    if (!seen) first = value;
    seen = true;
  });
  return first;
}

int Answer::CountHeader(std::string_view name) const {
  int count = 0;
  ForEachHeader(head, name, [&](std::string_view) { ++count; });
  return count;
}

Answer RunRequest(const Environment& environment, std::string_view body,
                  const std::function<void()>& program) {
  const int in = MemoryFile(body);
  const int out = MemoryFile("");
  const int failures = MemoryFile("");
  std::fflush(stdout);
  const pid_t child = fork();
  if (child < 0) std::abort();
  if (child == 0) BeTheProgram(environment, in, out, failures, program);

  int status = 0;
  waitpid(child, &status, 0);
  Answer answer;
  if (WIFEXITED(status)) answer.exit_status = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) answer.signal = WTERMSIG(status);
  answer.output = ReadAll(out);
  const std::string failed = ReadAll(failures);
  if (!failed.empty()) ADD_FAILURE() << "in the program:\n" << failed;
  for (const int fd : {in, out, failures})
    close(fd);
  SplitAnswer(answer);
  return answer;
}

Environment Get(const std::string& query) {
  return {{"REQUEST_METHOD", "GET"}, {"QUERY_STRING", query}, {"REMOTE_ADDR", "127.0.0.1"}};
}

Environment Post(std::string_view body) {
  return {{"REQUEST_METHOD", "POST"},
          {"CONTENT_TYPE", "application/x-www-form-urlencoded"},
          {"CONTENT_LENGTH", std::to_string(body.size())},
          {"REMOTE_ADDR", "127.0.0.1"}};
}

}  // namespace support
