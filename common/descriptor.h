/// \file descriptor.h
/// A file descriptor that is closed at the end of its scope.
#ifndef ZEM_COMMON_DESCRIPTOR_H
#define ZEM_COMMON_DESCRIPTOR_H

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace zem {

class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ < 0) return;
    const int kept = errno;  // the caller may still report why it gave up
    close(fd_);
    errno = kept;
  }
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }

  explicit operator bool() const { return fd_ >= 0; }
  int get() const { return fd_; }

 private:
  int fd_;
};

}  // namespace zem

#endif  // ZEM_COMMON_DESCRIPTOR_H
