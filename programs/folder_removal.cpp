#include "programs/folder_removal.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <vector>

#include "common/descriptor.h"

namespace program {
namespace {

constexpr int kDepthLimit = 200;

bool Remove(int folder, const char* name, bool whole, int depth, int& removed);

// The names first: what is removed while a folder is read may be missed or told twice.
bool Empty(int folder, int depth, int& removed) {
  if (depth >= kDepthLimit) {
    errno = ENAMETOOLONG;
    return false;
  }
  const std::unique_ptr<DIR, int (*)(DIR*)> opened(fdopendir(dup(folder)), closedir);
  if (opened == nullptr) return false;
  std::vector<std::string> names;
  while (const dirent* entry = readdir(opened.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  for (const std::string& name : names) {
    if (!Remove(folder, name.c_str(), true, depth + 1, removed)) return false;
  }
  return true;
}

bool IsMountPoint(int folder, const char* name) {
  struct statx status;
  return statx(folder, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | AT_STATX_DONT_SYNC, 0,
               &status) == 0 &&
         (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

bool RemoveFolder(int folder, const char* name, bool whole, int depth, int& removed) {
  if (unlinkat(folder, name, AT_REMOVEDIR) == 0) {
    removed++;
    return true;
  }
  if (!whole || (errno != ENOTEMPTY && errno != EEXIST)) return false;
  if (IsMountPoint(folder, name)) {
    errno = EBUSY;
    return false;
  }
  const zem::Descriptor inner(
      openat(folder, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!inner || !Empty(inner.get(), depth, removed)) return false;
  return RemoveFolder(folder, name, false, depth, removed);
}

bool Remove(int folder, const char* name, bool whole, int depth, int& removed) {
  if (unlinkat(folder, name, 0) == 0) {
    removed++;
    return true;
  }
  // unlink(2) of a folder: EISDIR here, EPERM by POSIX.
  struct stat status;
  const int kept = errno;
  if (fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return false;
  errno = kept;
  return S_ISDIR(status.st_mode) && RemoveFolder(folder, name, whole, depth, removed);
}

}  // namespace

bool RemoveEntry(int folder, const std::string& name, bool whole, int& removed) {
  return Remove(folder, name.c_str(), whole, 0, removed);
}

}  // namespace program
