#include "common/file.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace zem {

Descriptor OpenRegularFile(const char* path, int flags) {
  Descriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | flags));
  struct stat status;
  if (!file || fstat(file.get(), &status) != 0) return Descriptor();
  if (!S_ISREG(status.st_mode)) {
    errno = EINVAL;
    return Descriptor();
  }
  return file;
}

bool ReadAll(int fd, std::string& text) {
  struct stat status;
  if (fstat(fd, &status) != 0) return false;

  // A byte more than it should be, to see the end without another turn.
  text.resize(static_cast<size_t>(status.st_size) + 1);
  size_t size = 0;
  for (;;) {
    const ssize_t got = read(fd, text.data() + size, text.size() - size);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) break;
    size += static_cast<size_t>(got);
    if (size == text.size()) text.resize(2 * size);
  }
  text.resize(size);
  return true;
}

bool WriteAll(int fd, const std::string& text) {
  size_t size = 0;
  while (size < text.size()) {
    const ssize_t put = write(fd, text.data() + size, text.size() - size);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    size += static_cast<size_t>(put);
  }
  return true;
}

}  // namespace zem
