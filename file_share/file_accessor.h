/// \file file_accessor.h
/// Checks of files in shares for programs that act as their user.
#ifndef ZEM_FILE_SHARE_FILE_ACCESSOR_H
#define ZEM_FILE_SHARE_FILE_ACCESSOR_H

#include <file_share/webman_file_share.h>
#include <webutils/export.h>

#include <string>

namespace VEMOPrivilege {

/// What may be done with a file: by the share in which it lies, and by its access control
/// list for the user that the process acts as.
///
/// Rights are the bits 4 read, 2 write, 1 execute or enter, and 8 delete. Paths are share
/// paths (`WebmanFileShare`) unless a real path is asked for. `reserved` decides nothing.
/// Failures are logged to the system log as "file_share".
///
/// \code
///   VEMOPrivilege::PrivilegeUtil::SetEUGID(user, true);
///   VEMOPrivilege::FileAccessor accessor;
///   if (!accessor.HasPrivilege("/photo/a.jpg", user, "", 4)) {
///     return VLIBCErrGet() == VEMOERR_NOT_FOUND ? NotThere() : Refused();
///   }
/// \endcode
class ZEM_EXPORT FileAccessor {
 public:
  FileAccessor();
  ~FileAccessor();
  FileAccessor(const FileAccessor&) = delete;
  FileAccessor& operator=(const FileAccessor&) = delete;

  /// The real path; "" when there is none.
  std::string GetFullPath(const std::string& path, const std::string& user) const;

  /// Mind the sense: true when the user's privilege in the share is *not* exactly `want`, or
  /// cannot be determined.
  bool CheckSharePrivilege(const std::string& path, const std::string& user,
                           const std::string& reserved, WEBFM_SHARE_PRIVILEGE want) const;

  /// Whether the user has some access to the share; true too when that cannot be determined.
  bool HasSharePrivilege(const std::string& path, const std::string& user,
                         const std::string& reserved) const;

  /// `WebmanFileShare::CheckShareListPrivilege`, with the path first.
  bool HasShareListPrivilege(const std::string& path, const std::string& user,
                             const std::string& reserved) const;

  /// `WebmanFileShare::CheckShareDownloadPrivilege`, with the path first.
  bool HasShareDownloadPrivilege(const std::string& path, const std::string& user,
                                 const std::string& reserved) const;

  /// The rights of the process on a file, as it is now.
  /// \param file a real path.
  /// \return all thirteen bits, 0x1FFF, when they cannot be told: this is for showing what
  ///     a user may try. `ACLAccess` decides.
  int GetACLPrivilege(const std::string& file) const;

  /// Whether the process has every right of `mask` on a file.
  /// \param file a real path.
  /// \return false for an empty path or mask; with the platform's error 0x0300 (refused) or
  ///     0x0600 (no such file), or the platform's own: 0xD700 means that the file system
  ///     knows no access control lists, and only the real open() tells.
  bool ACLAccess(const std::string& file, int mask) const;

  /// Whether the user has access to the share, and the process every right of `mask`.
  bool HasPrivilege(const std::string& path, const std::string& user, const std::string& reserved,
                    int mask) const;

 private:
  WebmanFileShare share_;
};

class ZEM_EXPORT PrivilegeUtil {
 public:
  /// Makes the process act as a user, an administrator as "root".
  /// \param flag true: it can be taken back; an administrator's always can.
  /// \return 1; 0, and nothing has changed, when the user cannot be found or switched to.
  static int SetEUGID(const std::string& user, bool flag);
};

}  // namespace VEMOPrivilege

#endif  // ZEM_FILE_SHARE_FILE_ACCESSOR_H
