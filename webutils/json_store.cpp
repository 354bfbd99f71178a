#include "webutils/json_store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <vemo/core.h>

#include <cstdio>

#include "common/descriptor.h"
#include "common/file.h"
#include "common/json.h"

namespace {

constexpr mode_t kDefaultMode = 0666;  // less the umask

// Opens without waiting for the other side of a FIFO. Whoever may write a directory can
// put a link into it, so root follows none but its own; nobody else can make one that
// passes between the two looks.
int OpenFile(const char* path, int flags) {
  flags |= O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  const int fd = open(path, flags | O_NOFOLLOW, kDefaultMode);
  if (fd >= 0 || errno != ELOOP) return fd;

  struct stat link;
  if (geteuid() == 0 && (lstat(path, &link) != 0 || link.st_uid != 0)) return -1;
  return open(path, flags, kDefaultMode);
}

bool IsKind(int fd, mode_t kind) {
  struct stat status;
  return fstat(fd, &status) == 0 && (status.st_mode & S_IFMT) == kind;
}

class SigtermHeld {
 public:
  SigtermHeld() { VLIBCSigtermHold(); }
  ~SigtermHeld() { VLIBCSigtermRelease(); }
  SigtermHeld(const SigtermHeld&) = delete;
  SigtermHeld& operator=(const SigtermHeld&) = delete;
};

class FileLock {
 public:
  FileLock(const char* path, bool exclusive) : handle_(WebUtils::LockFile(path, exclusive)) {}
  ~FileLock() { WebUtils::UnlockFile(handle_); }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  int handle_;
};

}  // namespace

namespace WebUtils {

int LockFile(const char* path, bool exclusive) {
  const int fd = OpenFile(path, O_RDONLY);
  if (fd < 0) return fd;
  while (flock(fd, exclusive ? LOCK_EX : LOCK_SH) != 0 && errno == EINTR) {
  }
  return fd;
}

void UnlockFile(int handle) {
  if (handle < 0) return;
  flock(handle, LOCK_UN);
  close(handle);
}

bool LoadJsonFile(Json::Value& value, const char* path) {
  const FileLock lock(path, false);
  const zem::Descriptor file(OpenFile(path, O_RDONLY));
  std::string text;
  if (!file || !IsKind(file.get(), S_IFREG) || !zem::ReadAll(file.get(), text)) return false;
  return zem::ParseJsonInto(text.data(), text.size(), value);
}

bool SaveJsonFile(const Json::Value& value, const char* path) {
  const std::string text = zem::CompactJson(value);
  if (text.empty()) return false;
  const FileLock lock(path, true);  // of a new file: none
  // Not while it waits for the lock: a program that is told to end must be able to.
  const SigtermHeld whole;
  const zem::Descriptor file(OpenFile(path, O_WRONLY | O_CREAT | O_TRUNC));
  if (!file || IsKind(file.get(), S_IFIFO)) return false;
  zem::WriteAll(file.get(), text);
  return true;
}

std::vector<std::string> ReadFileLines(const std::string& path) {
  std::vector<std::string> lines;
  const int fd = OpenFile(path.c_str(), O_RDONLY);
  FILE* file = fd < 0 ? nullptr : fdopen(fd, "r");
  if (file == nullptr) {
    if (fd >= 0) close(fd);
    return lines;
  }
  char piece[2048];
  while (std::fgets(piece, sizeof piece, file) != nullptr) {
    std::string line = piece;
    if (!line.empty() && line.back() == '\n') {
      line.pop_back();
      if (!line.empty() && line.back() == '\r') line.pop_back();
    }
    if (!line.empty()) lines.push_back(line);
  }
  std::fclose(file);
  return lines;
}

bool checkFileExist(std::string path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0;
}

}  // namespace WebUtils
