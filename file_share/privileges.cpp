// What users may do in shares, and as whom the process acts.

#include <dirent.h>
#include <grp.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <vemo/cgi.h>
#include <vemo/core.h>
#include <vemo/fs.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/log.h"
#include "file_share/names.h"
#include "file_share/records.h"
#include "file_share/webman_file_share.h"

// Who acts as whom is for the authorization log.
#define ZEM_LOG_IDENTITY(format, ...) \
  syslog(LOG_AUTH | LOG_ERR, format, zem::kFileShareSource, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

namespace {

using zem::kFileShareSource;

constexpr int kNoListing = VEMOSHARE_NO_LIST;
// What may not be listed may not be downloaded either.
constexpr int kNoDownloading = VEMOSHARE_NO_LIST | VEMOSHARE_NO_DOWNLOAD;

constexpr int kFat = 0;
constexpr int kWithoutOwners = 12;

constexpr unsigned kUmaskKept = ~0U;

WEBFM_SHARE_PRIVILEGE PrivilegeOf(int value) {
  switch (value) {
    case VEMOSHARE_PRIV_RO:
      return WEBFM_SHARE_PRIVILEGE_RO;
    case VEMOSHARE_PRIV_RW:
      return WEBFM_SHARE_PRIVILEGE_RW;
    default:
      return WEBFM_SHARE_PRIVILEGE_NONE;
  }
}

// The code for the errno of entering or opening a directory.
WEBFMERR EnterError(int error) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
      return WEBFMERR_NOT_FOUND;
    case EPERM:
    case EACCES:
      return WEBFMERR_NO_PERMISSION;
    default:
      return WEBFMERR_OTHER;
  }
}

// Whether the user has access and none of the share's restrictions `mask`. False, and why is
// logged and stands in `*known`, when that is not so or cannot be told.
bool IsAllowed(const std::string& user, const std::string& reserved, const std::string& path,
               int mask, bool* known) {
  WEBFM_SHARE_PRIVILEGE privilege = WEBFM_SHARE_PRIVILEGE_NONE;
  int restrictions = 0;
  *known = WebmanFileShare::WfmLibGetPrivilege(path.c_str(), user.c_str(), reserved.c_str(),
                                               &privilege, &restrictions) == 0;
  if (!*known) {
    // The word is misspelt, and log filters match it so.
    ZEM_LOG("%s:%d Gailed to check privilege of path %s, reason=[%d] ", kFileShareSource,
            path.c_str(), WebmanFileShare::WfmLibGetErr());
    return false;
  }
  return privilege != WEBFM_SHARE_PRIVILEGE_NONE && (restrictions & mask) == 0;
}

// Whether the file system under the file keeps no owners that a user could be given.
bool HasNoOwners(int type) {
  return type == kFat || type == kWithoutOwners || VEMOFSIsRemoteFS(type) == 1 ||
         VEMOFSIsImageFS(type) == 1;
}

}  // namespace

int WebmanFileShare::WfmLibGetPrivilege(const char* path, const char* user,
                                        [[maybe_unused]] const char* reserved,
                                        WEBFM_SHARE_PRIVILEGE* priv, int* restrictions) {
  // Asked before the arguments are looked at, and judged last.
  const int administrator = VLIBGroupIsAdminGroupMem(user, 0);
  const int error = VLIBCErrGet();
  const char* error_file = VLIBCErrorGetFile();
  const int error_line = VLIBCErrorGetLine();
  WfmLibSetErr(WEBFMERR_NONE);
  if (path == nullptr || user == nullptr || priv == nullptr) {
    // Not the code for a bad parameter: programs show this one as a bad path.
    WfmLibSetErr(WEBFMERR_PATH);
    ZEM_LOG("%s(%d): bad parameter!", kFileShareSource);
    return -1;
  }
  const zem::Text name(WfmLibGetTokOfPath(path, TRUE), std::free);
  if (name == nullptr) {
    WfmLibSetErr(WEBFMERR_PATH);
    ZEM_LOG("%s(%d): WfmLibGetTokOfPath %s fail", kFileShareSource, path);
    return -1;
  }
  const zem::Share share = zem::FindShare(name.get());
  if (share == nullptr) {
    WfmLibSetErr(WEBFMERR_NOT_FOUND);
    ZEM_LOG("%s(%d): VEMOShareGet %s fail", kFileShareSource, name.get());
    return -1;
  }
  *priv = PrivilegeOf(VEMOShareUserPrivGet(user, share.get()));
  if (restrictions != nullptr) *restrictions = 0;
  if (administrator == -1) {
    ZEM_LOG("%s:%d VLIBGroupIsAdminGroupMem(%s) failed. " ZEM_LOG_PLATFORM_FORMAT, kFileShareSource,
            user, static_cast<unsigned>(error), error_file, error_line);
    return -1;
  }
  if (administrator != 1 && restrictions != nullptr) *restrictions = share->restrictions;
  return 0;
}

int WebmanFileShare::WfmLibHasPrivilege(const char* path, const char* user, const char* reserved,
                                        WEBFM_SHARE_PRIVILEGE want) {
  WfmLibSetErr(WEBFMERR_NONE);
  if (path == nullptr || user == nullptr) {
    WfmLibSetErr(WEBFMERR_PATH);
    ZEM_LOG("%s(%d): bad parameter! username=%s, path=%s", kFileShareSource,
            user == nullptr ? "(null)" : user, path == nullptr ? "(null)" : path);
    return -1;
  }
  WEBFM_SHARE_PRIVILEGE privilege = WEBFM_SHARE_PRIVILEGE_NONE;
  int restrictions = 0;
  if (WfmLibGetPrivilege(path, user, reserved, &privilege, &restrictions) != 0) {
    ZEM_LOG("%s(%d): failed to get privilege of %s at %s", kFileShareSource, user, path);
    return -1;
  }
  return privilege == want;
}

bool WebmanFileShare::CheckShareListPrivilege(const std::string& user, const std::string& reserved,
                                              const std::string& path) {
  if (path.empty()) return false;
  if (IsDirUserHome(path, nullptr)) return true;
  bool known = false;
  if (IsAllowed(user, reserved, path, kNoListing, &known)) return true;
  if (known) ZEM_LOG("%s:%d No privilege in path %s", kFileShareSource, path.c_str());
  return false;
}

bool WebmanFileShare::CheckShareDownloadPrivilege(const std::string& user,
                                                  const std::string& reserved,
                                                  const std::string& path) {
  if (path.empty()) {
    WfmLibSetErr(WEBFMERR_BAD_PARAMETER);
    return false;
  }
  if (IsDirUserHome(path, nullptr)) return true;
  bool known = false;
  if (IsAllowed(user, reserved, path, kNoDownloading, &known)) return true;
  if (!known) return false;
  WfmLibSetErr(WEBFMERR_NO_PERMISSION);
  ZEM_LOG("%s:%d No privilege in path %s", kFileShareSource, path.c_str());
  return false;
}

bool WebmanFileShare::CheckDirListPrivilege(const char* path) {
  if (path == nullptr) return false;
  WfmLibSetErr(WEBFMERR_NONE);
  // Programs go on in the directory that they have checked.
  if (chdir(path) != 0) {
    const int error = errno;
    WfmLibSetErr(EnterError(error));
    ZEM_LOG("%s:%d Failed to chdir %s. [%s]", kFileShareSource, path, std::strerror(error));
    return false;
  }
  DIR* directory = opendir(path);
  if (directory == nullptr) {
    const int error = errno;
    WfmLibSetErr(EnterError(error));
    ZEM_LOG("%s:%d Failed to opendir %s. [%s]", kFileShareSource, path, std::strerror(error));
    return false;
  }
  closedir(directory);
  return true;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): programs are linked to it so
bool WebmanFileShare::IsEncryptShare(std::string share, bool& encrypted) {
  encrypted = false;
  if (IsDirUserHome(share, nullptr)) return true;
  const zem::Share record = zem::FindShare(share.c_str());
  if (record == nullptr) {
    ZEM_LOG("%s:%d VEMOShareGet fail %s", kFileShareSource, share.c_str());
    WfmLibSetErr(WEBFMERR_NOT_FOUND);
    return false;
  }
  encrypted = (record->status & VEMOSHARE_STATUS_ENCRYPTED) != 0;
  return true;
}

bool WebmanFileShare::WfmLibCheckEncryptShare(std::string share, bool& encrypted) {
  return IsEncryptShare(std::move(share), encrypted);
}

bool WebmanFileShare::WfmLibIsHideUnreadable(_tag_VEMOSHARE* share) {
  if (geteuid() == 0) return false;
  int hide = 0;
  if (VLIBShareHideUnreadableGet(share, &hide) < 0) {
    ZEM_LOG("%s:%d Failed to get hide unreadable %x, %s", kFileShareSource,
            static_cast<unsigned>(VLIBCErrGet()), std::strerror(errno));
    return false;
  }
  return hide != 0;
}

int WebmanFileShare::WfmLibChown2Admin(const char* file, const char* user) {
  if (file == nullptr) {
    ZEM_LOG("%s(%d) bad parameter", kFileShareSource);
    return -1;
  }
  const int type = VEMOGetFSType(file, 0);
  if (type < 0) {
    // The function first and the source third, as log filters match it.
    ZEM_LOG("%s:%d(%s) : failed to get file-system type dir = %s", "WfmLibChown2Admin",
            kFileShareSource, file);
    return -1;
  }
  if (HasNoOwners(type)) return 0;
  const zem::User record = zem::FindUser(user);
  if (record == nullptr) return -1;
  // Files of shares lie where users can put links: theirs must not give them what these lead
  // to.
  if (lchown(file, record->uid, record->gid) != 0) {
    ZEM_LOG("%s(%d) change %s owner to admin fail(%s)", kFileShareSource, file,
            std::strerror(errno));
    return -1;
  }
  return 0;
}

int WebmanFileShare::WfmLibUGIDSet(const char* sid, const char* user) {
  if (sid == nullptr || user == nullptr) {
    ZEM_LOG_IDENTITY("%s(%d) bad parameter");
    WfmLibSetErr(WEBFMERR_BAD_PARAMETER);
    return -1;
  }
  const gid_t group = VemoCgiGIDGet(sid, user);
  if (group == static_cast<gid_t>(-1)) {
    ZEM_LOG_IDENTITY("%s(%d) failed to get GID for user=%s, sid=%s", user, sid);
    return -1;
  }
  if (initgroups(user, group) != 0) {
    ZEM_LOG_IDENTITY("%s(%d) failed to initgroup for user=%s, sid=%s", user, sid);
  }
  // The group first: a user who is not root cannot change it.
  if (VemoCgiEGidSet(sid, user) < 0) {
    ZEM_LOG_IDENTITY("%s(%d) failed to set GID for user=%s, sid=%s", user, sid);
    return -1;
  }
  if (VemoCgiEUidSet(sid, user) < 0) {
    ZEM_LOG_IDENTITY("%s(%d) failed to set UID for user=%s, sid=%s", user, sid);
    return -1;
  }
  return 0;
}

unsigned WebmanFileShare::WfmLibUmask() {
  if (VLIBCFileCheckKeyValue(zem::kSystemConfiguration, "webfm_use_unix_perm", "yes", 0) == 1) {
    return kUmaskKept;
  }
  return umask(0);
}

void WebmanFileShare::WfmLibRestoreUmask(unsigned mask) {
  if (mask != kUmaskKept) umask(mask);
}

unsigned WebmanFileShare::WfmLibGetUmask() {
  const mode_t mask = umask(0);
  umask(mask);
  return mask;
}

int WebmanFileShare::GetPrivilege(unsigned mode) {
  return static_cast<int>((mode >> 6 & 7) * 100 + (mode >> 3 & 7) * 10 + (mode & 7));
}
