#include "common/json_file.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <vemo/core.h>

#include <cerrno>
#include <cstdio>

#include "common/file.h"
#include "common/json.h"

namespace zem {
namespace {

constexpr off_t kFileLimit = 64 << 20;  // bytes
constexpr char kTemporaryPrefix[] = ".#json.";

std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Where a temporary file can be renamed from: on the same file system.
std::string TemporaryDirectory(const std::string& directory) {
  struct stat own, parent;
  const std::string above = directory + "/..";
  const bool same = stat(directory.c_str(), &own) == 0 && stat(above.c_str(), &parent) == 0 &&
                    own.st_dev == parent.st_dev &&
                    faccessat(AT_FDCWD, above.c_str(), W_OK, AT_EACCESS) == 0;
  return same ? above : directory;
}

std::string TemporaryName(const std::string& directory) {
  unsigned long long random = 0;
  if (getrandom(&random, sizeof random, 0) != sizeof random) return "";
  char name[32];
  std::snprintf(name, sizeof name, "%s%016llx", kTemporaryPrefix, random);
  return directory + "/" + name;
}

mode_t ModeFor(const std::string& path) {
  struct stat status;
  if (lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode)) return status.st_mode & 07777;
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

bool WriteFile(const std::string& temporary, const std::string& text, mode_t mode) {
  const Descriptor file(
      open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  return file && fchmod(file.get(), mode) == 0 && WriteAll(file.get(), text) &&
         fsync(file.get()) == 0;
}

}  // namespace

bool JsonFromFile(Json::Value& value, const std::string& path) {
  const Descriptor file = OpenRegularFile(path.c_str());
  struct stat status;
  std::string text;
  if (!file || fstat(file.get(), &status) != 0 || status.st_size > kFileLimit) return false;
  return ReadAll(file.get(), text) &&
         ParseJson(text.data(), text.size(), JsonComments::kSkip, value);
}

bool JsonToFile(const Json::Value& value, const std::string& path) {
  const std::string text = StyledJson(value);
  if (text.empty() || path.find('\0') != std::string::npos) return false;
  const std::string temporary = TemporaryName(TemporaryDirectory(DirectoryOf(path)));
  if (temporary.empty()) return false;

  VLIBCSigtermHold();
  bool written = WriteFile(temporary, text, ModeFor(path));
  if (written) written = rename(temporary.c_str(), path.c_str()) == 0;
  if (!written) {
    const int kept = errno;
    unlink(temporary.c_str());
    errno = kept;
  }
  VLIBCSigtermRelease();
  return written;
}

}  // namespace zem
