// What the fuzz targets share: input as text, and input as a file.
#ifndef ZEM_TESTS_FUZZ_INPUT_H
#define ZEM_TESTS_FUZZ_INPUT_H

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace fuzz {

// A NUL-terminated copy in memory of exactly that size, so that a read past its
// end is seen.
inline std::string Text(const uint8_t* data, size_t size) {
  return std::string(reinterpret_cast<const char*>(data), size).c_str();
}

// Puts the input at `path`, which must lie in a folder that is ours.
inline void WriteFile(const std::string& path, const uint8_t* data, size_t size, mode_t mode) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size)) abort();
  close(fd);
}

// A folder of this process, removed by the sandbox with everything else.
inline const std::string& Folder() {
  static const std::string folder = [] {
    char name[] = "/tmp/fuzz.XXXXXX";
    if (mkdtemp(name) == nullptr) abort();
    return std::string(name);
  }();
  return folder;
}

inline void Require(bool holds) {
  if (!holds) abort();
}

}  // namespace fuzz

#endif  // ZEM_TESTS_FUZZ_INPUT_H
