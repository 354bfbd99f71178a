#include "file_share/file_accessor.h"

#include <syslog.h>
#include <unistd.h>
#include <vemo/acl.h>
#include <vemo/core.h>
#include <vemo/credentials.h>

#include "common/log.h"
#include "file_share/names.h"

namespace {

using zem::kFileShareSource;

/// The order in which rights are looked at.
constexpr int kRights[] = {VEMOACL_READ, VEMOACL_WRITE, VEMOACL_EXEC, VEMOACL_DELETE};

bool IsExpected(int code) {
  return code == VEMOERR_NO_PERM || code == VEMOERR_NOT_FOUND || code == VEMOERR_ACL_UNSUPPORTED ||
         code == VEMOERR_ACL_NO_PERM;
}

void LogReason(const std::string& file, const char* reason) {
  ZEM_LOG("%s:%d Failed to get the ACL Privilege: file = %s, reason=[%s]", kFileShareSource,
          file.c_str(), reason);
}

// Logs why a file's list could not be read, and records what callers tell apart.
void ReportRefusal(const std::string& file, int code) {
  switch (code) {
    case VEMOERR_VOLUME_RO:
      return LogReason(file, "ERR_VOLUME_READ_ONLY");
    case VEMOERR_ACL_UNSUPPORTED:
      return LogReason(file, "ERR_VEMOACL_NOT_SUPPORT");
    case VEMOERR_NO_PERM:
    case VEMOERR_ACL_NO_PERM:
      VLIBCErrSetEx(VEMOERR_NO_PERM, __FILE__, __LINE__);
      return LogReason(file, "ERR_VEMOACL_NO_PERM");
    case VEMOERR_NOT_FOUND:
    case VEMOERR_PATH_GONE:
      VLIBCErrSetEx(VEMOERR_NOT_FOUND, __FILE__, __LINE__);
      return LogReason(file, "ERR_PATH_NOT_FOUND");
    default:
      ZEM_LOG("%s:%d Failed to get the ACL Privilege: file = %s, reason=[%X]", kFileShareSource,
              file.c_str(), static_cast<unsigned>(code));
  }
}

}  // namespace

namespace VEMOPrivilege {

FileAccessor::FileAccessor() = default;

FileAccessor::~FileAccessor() = default;

std::string FileAccessor::GetFullPath(const std::string& path, const std::string& user) const {
  std::string full_path, share_name, volume_path, share_path;
  if (!share_.WfmFullPathGet(path.c_str(), full_path, share_name, volume_path, share_path, user)) {
    ZEM_LOG("%s:%d Failed to get fullpath: %s", kFileShareSource, path.c_str());
    return "";
  }
  return full_path;
}

bool FileAccessor::CheckSharePrivilege(const std::string& path, const std::string& user,
                                       const std::string& reserved,
                                       WEBFM_SHARE_PRIVILEGE want) const {
  // Programs ask for 0 and take the answer as "some access"; a failure counts as that, and
  // they fail at the path next.
  return share_.WfmLibHasPrivilege(path.c_str(), user.c_str(), reserved.c_str(), want) != 1;
}

bool FileAccessor::HasSharePrivilege(const std::string& path, const std::string& user,
                                     const std::string& reserved) const {
  return CheckSharePrivilege(path, user, reserved, WEBFM_SHARE_PRIVILEGE_NONE);
}

bool FileAccessor::HasShareListPrivilege(const std::string& path, const std::string& user,
                                         const std::string& reserved) const {
  return share_.CheckShareListPrivilege(user, reserved, path);
}

bool FileAccessor::HasShareDownloadPrivilege(const std::string& path, const std::string& user,
                                             const std::string& reserved) const {
  return share_.CheckShareDownloadPrivilege(user, reserved, path);
}

int FileAccessor::GetACLPrivilege(const std::string& file) const {
  int mask = 0;
  if (VEMOACLPermGet(file.c_str(), &mask, 0) >= 0) return mask;
  const int code = VLIBCErrGet();
  if (!IsExpected(code)) {
    ZEM_LOG("%s:%d Failed to get the ACL Privilege: file = %s, euid = %u, reason=[%X]",
            kFileShareSource, file.c_str(), geteuid(), static_cast<unsigned>(code));
  }
  return VEMOACL_ALL;
}

bool FileAccessor::ACLAccess(const std::string& file, int mask) const {
  if (file.empty() || mask == 0) return false;
  int granted = 0;
  if (VEMOACLPermGet(file.c_str(), &granted, 0) < 0) {
    ReportRefusal(file, VLIBCErrGet());
    return false;
  }
  for (const int right : kRights) {
    if ((mask & right) != 0 && (granted & right) == 0) {
      VLIBCErrSetEx(VEMOERR_NO_PERM, __FILE__, __LINE__);
      return false;
    }
  }
  return true;
}

bool FileAccessor::HasPrivilege(const std::string& path, const std::string& user,
                                const std::string& reserved, int mask) const {
  if (!CheckSharePrivilege(path, user, reserved, WEBFM_SHARE_PRIVILEGE_NONE)) return false;
  return ACLAccess(GetFullPath(path, user), mask);
}

int PrivilegeUtil::SetEUGID(const std::string& user, bool flag) {
  const int member = VLIBGroupIsAdminGroupMem(user.c_str(), 0);
  if (member < 0) {
    // Who acts as whom is for the authorization log.
    syslog(LOG_AUTH | LOG_ERR, "%s:%d VLIBGroupIsAdminGroupMem(%s) failed.", kFileShareSource,
           __LINE__, user.c_str());
    return 0;
  }
  if (member == 1) return ResetCredentialsByName("root", TRUE);
  return ResetCredentialsByName(user.c_str(), flag ? TRUE : FALSE);
}

}  // namespace VEMOPrivilege
