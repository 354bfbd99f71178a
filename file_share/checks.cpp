// Whether paths and names may be used.

#include <sys/stat.h>
#include <vemo/core.h>
#include <vemo/ea.h>
#include <vemo/fs.h>
#include <vemo/volume.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string_view>

#include "common/log.h"
#include "file_share/names.h"
#include "file_share/records.h"
#include "file_share/webman_file_share.h"

namespace {

using zem::kFileShareSource;

// Its messages begin with its name and end their prefix with the source: the other way round
// than all others, and log filters have come to match that.
constexpr char kCheckPath[] = "WfmCheckPath";

// What FAT cannot store.
constexpr char kFatForbidden[] = "\\/:*?\"><|\r\n";
constexpr char kForbidden[] = ":/";
constexpr int kFat = 0;

// The file systems of removable media on which the file manager works.
constexpr int kSupported[] = {0, 1, 2, 3, 5, 7, 8, 9, 18, 19};

int Refuse(int code, int line) {
  VLIBCErrSetEx(code, __FILE__, line);
  return -1;
}

// 0 for a directory or regular file; a link is neither.
int CheckKind(const char* path) {
  struct stat status;
  if (lstat(path, &status) != 0) {
    if (errno == ENOENT) return Refuse(VEMOERR_NOT_FOUND, __LINE__);
    if (errno == EACCES) return Refuse(VEMOERR_NO_PERM, __LINE__);
    ZEM_LOG("%s(%d):%s failed to lstat %s, reason=%s", kCheckPath, kFileShareSource, path,
            std::strerror(errno));
    return Refuse(VEMOERR_PATH_REFUSED, __LINE__);
  }
  if (!S_ISDIR(status.st_mode) && !S_ISREG(status.st_mode)) {
    ZEM_LOG("%s(%d):%s Path is not regular file and directory:%s", kCheckPath, kFileShareSource,
            path);
    return Refuse(VEMOERR_PATH_REFUSED, __LINE__);
  }
  return 0;
}

// Takes the last component off. 0; -1 when it is a dot one.
int CutLast(char* path) {
  char* slash = std::strrchr(path, '/');
  if (slash == nullptr) {
    ZEM_LOG("%s(%d):%s failed to strrchr '/' for %s, reason=%s", kCheckPath, kFileShareSource, path,
            std::strerror(errno));
    return Refuse(VEMOERR_PATH_REFUSED, __LINE__);
  }
  const std::string_view last = slash + 1;
  if (last == "." || last == "..") {
    ZEM_LOG("%s(%d):%s Path contains '.' or '..', path = %s", kCheckPath, kFileShareSource, path);
    return Refuse(VEMOERR_PATH_REFUSED, __LINE__);
  }
  *slash = '\0';
  return 0;
}

int FileSystemError(int error) {
  switch (error) {
    case EIO:
    case ENOENT:
    case ENOTDIR:
      return VEMOERR_NOT_FOUND;
    case EACCES:
      return VEMOERR_NO_PERM;
    default:
      return VEMOERR_FS_EXAMINE;
  }
}

}  // namespace

int WebmanFileShare::WfmCheckPath(const char* path) {
  if (path == nullptr || *path != '/') return Refuse(VEMOERR_BAD_PARAM, __LINE__);
  const zem::Text copy(strdup(path), std::free);
  if (copy == nullptr) {
    const int error = errno;
    Refuse(VEMOERR_PATH_REFUSED, __LINE__);
    ZEM_LOG("%s(%d):%s strdup fail, error:%s", kCheckPath, kFileShareSource, std::strerror(error));
    return -1;
  }
  while (copy.get()[0] != '\0') {
    if (CheckKind(copy.get()) != 0 || CutLast(copy.get()) != 0) return -1;
  }
  return 0;
}

bool WebmanFileShare::WfmCheckReservedName(const char* name) {
  if (name == nullptr || *name == '\0') {
    // Acceptable all the same: programs check for it on their own, with a message of theirs.
    Refuse(VEMOERR_BAD_PARAM, __LINE__);
    return true;
  }
  const std::string_view text = name;
  if (text == "." || text == ".." || text.starts_with("._") || VEMOEAIsHiddenDir(name)) {
    Refuse(VEMOERR_NAME_RESERVED, __LINE__);
    return false;
  }
  return true;
}

int WebmanFileShare::WfmCheckFileName(const char* dir, char* name) {
  if (dir == nullptr || name == nullptr || *name == '\0') {
    return Refuse(VEMOERR_BAD_PARAM, __LINE__);
  }
  if (!WfmCheckReservedName(name)) return -1;
  const int type = VEMOGetFSType(dir, 0);
  if (type < 0) {
    const int error = errno;
    ZEM_LOG("%s:%d(%s) failed to statfs %s, reason=%s", kFileShareSource, "WfmCheckFileName", dir,
            std::strerror(error));
    return Refuse(FileSystemError(error), __LINE__);
  }
  if (type == kFat) {
    return std::strpbrk(name, kFatForbidden) == nullptr ? 0 : Refuse(VEMOERR_NAME_CHAR, __LINE__);
  }
  return std::strpbrk(name, kForbidden) == nullptr ? 0 : Refuse(VEMOERR_NAME_RESERVED, __LINE__);
}

bool WebmanFileShare::WfmLibFileSystemSupported(const char* path) {
  VEMOVOLUME volume;
  if (VolumePathParse(path, &volume) <= 0) {
    // Let through: what the platform does not know as a volume is nobody's stick.
    ZEM_LOG("%s:%d Bad parameters: %s", kFileShareSource, path);
    return true;
  }
  if (volume.kind != VEMOVOLUME_REMOVABLE && volume.kind != VEMOVOLUME_CARD) return true;
  const int type = VEMOGetFSType(path, 0);
  if (type < 0) {
    ZEM_LOG("%s:%d VEMOGetFSType got error", kFileShareSource);
    return false;
  }
  return std::find(std::begin(kSupported), std::end(kSupported), type) != std::end(kSupported);
}
