#include "programs/share_place.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vemo/core.h>
#include <vemo/ea.h>
#include <vemo/user.h>

#include <cerrno>
#include <memory>

#include "programs/program.h"

namespace program {
namespace {

constexpr size_t kPathLimit = 4095;
constexpr size_t kNameLimit = 255;

bool IsName(const std::string& name) {
  if (name.empty() || name.size() > kNameLimit || name == "." || name == "..") return false;
  for (const char c : name) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f || c == '/') return false;
  }
  return !VEMOEAIsHiddenFile(name.c_str());
}

// Component by component, where the kernel has no openat2(2).
zem::Descriptor WalkBelow(int root, const std::string& relative, int flags) {
  zem::Descriptor at(openat(root, ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  size_t start = 0;
  while (at && start <= relative.size()) {
    const size_t end = std::min(relative.find('/', start), relative.size());
    const std::string part = relative.substr(start, end - start);
    const bool last = end == relative.size();
    const int how = last ? flags : O_PATH | O_DIRECTORY;
    at = zem::Descriptor(openat(at.get(), part.c_str(), how | O_NOFOLLOW | O_CLOEXEC));
    start = end + 1;
  }
  return at;
}

// Whether the links on the way are all root's: a share in a folder that users may change could
// have been replaced by a link of theirs.
bool HasOnlyRootsLinks(const std::string& path) {
  for (size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    struct stat status;
    if (lstat(path.substr(0, end).c_str(), &status) != 0) return false;
    if (S_ISLNK(status.st_mode) && status.st_uid != 0) {
      errno = ELOOP;
      return false;
    }
    if (end == std::string::npos) return true;
  }
}

}  // namespace

bool IsSharePath(const std::string& path) {
  if (path.size() < 2 || path.size() > kPathLimit || path.front() != '/') return false;
  if (!IsUtf8(path.c_str())) return false;
  size_t start = 1;
  while (start <= path.size()) {
    const size_t end = std::min(path.find('/', start), path.size());
    if (!IsName(path.substr(start, end - start))) return false;
    start = end + 1;
  }
  return true;
}

const char* ErrorKeyOf(int error) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
    case ELOOP:  // a link: it leads nowhere here
    case EXDEV:
      return "error_not_found";
    case EACCES:
    case EPERM:
      return "error_no_right";
    case EROFS:
      return "error_read_only";
    case ENOSPC:
    case EDQUOT:
      return "error_no_space";
    case EEXIST:
    case EISDIR:
      return "error_exists";
    case ENXIO:  // a socket
      return "error_no_file";
    case EBUSY:
      return "error_in_use";
    case ENOTEMPTY:
      return "error_not_empty";
    case ENAMETOOLONG:
    case EINVAL:
      return "error_name";
    default:
      return "error_system";
  }
}

const char* SharePlace::Find(const std::string& user, const std::string& path) {
  if (!IsSharePath(path)) return "error_path";
  path_ = path;
  user_ = user;
  const size_t end = path.find('/', 1);
  share_ = path.substr(1, end == std::string::npos ? end : end - 1);
  relative_ = end == std::string::npos ? "" : path.substr(end + 1);
  is_home_ = WebmanFileShare::IsDirUserHome(share_, nullptr);
  const char* error = is_home_ ? FindHome(user) : FindShare(user);
  if (error != nullptr) return error;
  std::string real, name, volume;
  if (!WebmanFileShare::WfmFullPathGet(path.c_str(), real, name, volume, root_, user)) {
    return "error_not_found";
  }
  return nullptr;
}

// A home is its owner's, while the home service is on.
const char* SharePlace::FindHome(const std::string& user) {
  VEMOUSER* account = nullptr;
  if (VEMOUserGet(user.c_str(), &account) != 0) return "error_not_found";
  const bool enabled = VEMOServiceUserHomeIsEnabled(account->kind);
  VEMOUserFree(account);
  privilege_ = WEBFM_SHARE_PRIVILEGE_RW;
  return enabled ? nullptr : "error_not_found";
}

const char* SharePlace::FindShare(const std::string& user) {
  const int found = WebmanFileShare::WfmLibGetPrivilege(path_.c_str(), user.c_str(), nullptr,
                                                        &privilege_, &restrictions_);
  // One who may not enter is not told that there is anything.
  return found != 0 || privilege_ == WEBFM_SHARE_PRIVILEGE_NONE ? "error_not_found" : nullptr;
}

const char* SharePlace::Enter() {
  open_how how = {};
  how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
  how.resolve = RESOLVE_NO_SYMLINKS;
  const long opened = syscall(SYS_openat2, AT_FDCWD, root_.c_str(), &how, sizeof how);
  if (opened >= 0) {
    descriptor_ = zem::Descriptor(static_cast<int>(opened));
  } else if (errno == ENOSYS || (errno == ELOOP && HasOnlyRootsLinks(root_))) {
    descriptor_ = zem::Descriptor(open(root_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  }
  return descriptor_ ? nullptr : ErrorKeyOf(errno);
}

bool SharePlace::may_list() const {
  return WebmanFileShare::CheckShareListPrivilege(user_, "", path_);
}

bool SharePlace::may_download() const {
  return WebmanFileShare::CheckShareDownloadPrivilege(user_, "", path_);
}

bool SharePlace::hides_unreadable() const {
  VEMOSHARE* share = nullptr;
  if (is_home_ || VEMOShareGet(share_.c_str(), &share) != 0) return false;
  const bool hides = WebmanFileShare::WfmLibIsHideUnreadable(share);
  VEMOShareFree(share);
  return hides;
}

std::string SharePlace::real() const { return is_root() ? root_ : root_ + "/" + relative_; }

std::string SharePlace::name() const { return path_.substr(path_.rfind('/') + 1); }

zem::Descriptor SharePlace::OpenParent() const {
  const size_t slash = relative_.rfind('/');
  return OpenBelow(slash == std::string::npos ? "" : relative_.substr(0, slash),
                   O_RDONLY | O_DIRECTORY);
}

zem::Descriptor SharePlace::OpenBelow(const std::string& relative, int flags) const {
  if (relative.empty()) {
    return zem::Descriptor(openat(descriptor_.get(), ".", flags | O_CLOEXEC));
  }
  open_how how = {};
  how.flags = static_cast<unsigned>(flags | O_CLOEXEC | O_NOFOLLOW);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  const long opened = syscall(SYS_openat2, descriptor_.get(), relative.c_str(), &how, sizeof how);
  if (opened >= 0) return zem::Descriptor(static_cast<int>(opened));
  if (errno != ENOSYS) return zem::Descriptor();
  return WalkBelow(descriptor_.get(), relative, flags);
}

const char* CheckNewName(int directory, const std::string& name) {
  if (!IsName(name) || !IsUtf8(name.c_str())) return "error_name";
  // The descriptor's own path: what stands under a name may be another folder by now.
  const std::string path = "/proc/self/fd/" + std::to_string(directory);
  std::string copy = name;
  if (WebmanFileShare::WfmCheckFileName(path.c_str(), copy.data()) == 0) return nullptr;
  return VLIBCErrGet() == VEMOERR_NO_PERM ? "error_no_right" : "error_name";
}

}  // namespace program
