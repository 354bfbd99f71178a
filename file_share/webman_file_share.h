/// \file webman_file_share.h
/// Files in shared folders and homes: where they are, how they may be called, and who may
/// do what with them.
#ifndef ZEM_FILE_SHARE_WEBMAN_FILE_SHARE_H
#define ZEM_FILE_SHARE_WEBMAN_FILE_SHARE_H

#include <vemo/share.h>
#include <vemo/types.h>
#include <webman/vemo_conf.h>
#include <webutils/export.h>

#include <cstdint>
#include <string>
#include <vector>

/// Why an operation of `WebmanFileShare` failed. One value a process.
enum WEBFMERR : int {
  WEBFMERR_NONE = 0,
  WEBFMERR_BAD_PARAMETER = 1,  ///< an argument was null or empty
  WEBFMERR_PATH = 2,           ///< the path cannot be split, or leads nowhere
  WEBFMERR_NO_PERMISSION = 3,  ///< the system (EPERM, EACCES) or the share refuses
  WEBFMERR_NOT_FOUND = 6,      ///< no such share or directory (ENOENT, ENOTDIR)
  WEBFMERR_OTHER = 7           ///< any other error of the system
};

/// What a user may do in a share, in the platform's numbers.
enum WEBFM_SHARE_PRIVILEGE : int {
  WEBFM_SHARE_PRIVILEGE_NONE = VEMOSHARE_PRIV_NONE,
  WEBFM_SHARE_PRIVILEGE_RO = VEMOSHARE_PRIV_RO,
  WEBFM_SHARE_PRIVILEGE_RW = VEMOSHARE_PRIV_RW
};

/// A directory within another, as `WfmLibEnumSubDir` finds it.
struct _tag_SUBDIR_ENTRY_INFO_ {
  std::string name;  ///< as the directory holds it
  std::string path;  ///< the directory's path, "/" and the name
  int64_t size = 0;
  uint32_t mode = 0;  ///< kind and permission bits; 0 when it could not be examined
  int32_t mtime = 0;  ///< seconds since the epoch
  uint32_t uid = 0;
  uint32_t gid = 0;
  bool isMountPoint = false;
  /// Of a mount point: "iso", "remote", "remotefail" for a remote file system that does not
  /// answer, else "". The other attributes of one that does not answer mean nothing.
  std::string mountType;
};

/// The work of file managers in shared folders.
///
/// Users name files by *share paths*: "/photo/2020/a.jpg" is "2020/a.jpg" in the share
/// "photo", "/home/docs" is "docs" in the user's own home. A share path begins with exactly
/// one "/"; a *real path* is one of the system.
///
/// Most operations answer by their result and say why in a code of the process that
/// `WfmLibGetErr` reads: it is meaningful right after an operation that failed, and stays
/// until the next one sets it. Path and name checks record the platform's error instead
/// (`VLIBCErrGet`). Failures are logged to the system log at error priority as "file_share".
///
/// The code, the working directory and the umask belong to the process: use it from one
/// thread. Paths are cut at 4,095 bytes where an operation splits or enters them.
///
/// \code
///   WebmanFileShare share;
///   std::string file, name, volume, root;
///   if (!share.WfmFullPathGet("/photo/a.jpg", file, name, volume, root, user)) {
///     return share.WfmLibGetErr() == WEBFMERR_NOT_FOUND ? NotThere() : Failed();
///   }
/// \endcode
class ZEM_EXPORT WebmanFileShare {
 public:
  WebmanFileShare();
  ~WebmanFileShare();
  WebmanFileShare(const WebmanFileShare&) = delete;
  WebmanFileShare& operator=(const WebmanFileShare&) = delete;

  /// \name The code of the last failure
  /// @{
  static void WfmLibSetErr(WEBFMERR code);
  static WEBFMERR WfmLibGetErr();
  /// @}

  /// \name Paths
  /// @{

  /// A component of a share path; slashes before, between and after components count once.
  /// \param first TRUE: the first one, FALSE: the last.
  /// \return a text that the caller frees with free(); null for a null path, a path without
  ///     a "/" or without a component. The code is left alone.
  static char* WfmLibGetTokOfPath(const char* path, BOOL first);

  /// The canonical path of a directory, by the kernel's own rules: it is entered, and the
  /// working directory is as before afterwards.
  /// \param size of the buffer in bytes.
  /// \return false, and the buffer as it was, when the directory cannot be entered or its
  ///     path does not fit. The code is left alone.
  static bool WfmLibRealFullPathGet(const char* path, char* buf, int size);

  /// The canonical path of a user's home. \return false, `out` as it was, for an unknown user
  /// or a home that cannot be entered. The code is left alone.
  static bool WfmUserHomeFullPathGet(std::string& out, std::string user);

  /// Whether a directory is a home: "home", "/home" and what begins with "/home/" always
  /// are; "/homes/NAME" and what lies below is the home of the user NAME, case ignored. A
  /// domain or directory user's ("DOMAIN\name", "name@domain") stands in the account, and is
  /// made by this test when it is missing and the home service is on for that kind.
  /// \param dir the first component of a share path, a share path or a real path.
  /// \param user null: nothing below "/homes" is a home.
  static bool IsDirUserHome(const std::string& dir, const char* user);

  /// The real path behind a share path. What follows the first component is appended as it
  /// is: "..", links and doubled slashes are the caller's to check (`WfmCheckPath`).
  /// \param path must begin with one "/": without it the separator is lost.
  /// \param shareName the first component. \param sharePath where the share, or the home, is.
  /// \param volumePath `sharePath` up to its second "/".
  /// \return false with the code 1 (null or empty argument), 2 (no component, or no home) or
  ///     6 (no such share); `shareName` may be set by then.
  static bool WfmFullPathGet(const char* path, std::string& fullPath, std::string& shareName,
                             std::string& volumePath, std::string& sharePath, std::string user);

  /// The scratch directory of the share in which a real path lies, "@eaDir/@tmp" below the
  /// share's path, made when it is missing and given to user 0 with the mode 01777. A link
  /// in its place is not followed for that.
  /// \param size of the buffer in bytes; a longer path is cut.
  /// \return false with the code 1 (null argument, size 0) or 2 (in no share), or, with the
  ///     code as it was, when "@eaDir" cannot be made.
  static bool WfmLibGetShareEaDirTmpPath(const char* path, char* buf, unsigned size);
  /// @}

  /// \name Checks of paths and names
  /// The reason of a refusal is the platform's error code (`VLIBCErrGet`).
  /// @{

  /// Whether every component of a real path exists and is a directory or a regular file,
  /// and none is "." or "..": no link, device, socket or pipe on the whole way.
  /// \return 0; -1 with 0x0D00 (null or relative), 0x0600 (missing), 0x0300 (EACCES) or
  ///     0x8100 (anything else).
  static int WfmCheckPath(const char* path);

  /// Whether a name is free for users: not ".", "..", one that begins with "._", or one of
  /// the platform's own. \return false with 0x9A00. A null or empty name records 0x0D00 and
  /// still is acceptable: callers check for it on their own.
  static bool WfmCheckReservedName(const char* name);

  /// Whether a file in a directory may have this name, on the file system that is there.
  /// \param dir a real path.
  /// \return 0; -1 with 0x0D00 (null, or an empty name), 0x9A00 (reserved, or with ":" or
  ///     "/"), 0xA500 (on FAT: any of \ / : * ? " > < | CR LF), 0x0600, 0x0300 or 0x2700 (the
  ///     file system cannot be examined).
  static int WfmCheckFileName(const char* dir, char* name);

  /// Whether the file manager works on the file system under a real path. Only removable
  /// disks and cards are asked; a path on no volume is let through.
  static bool WfmLibFileSystemSupported(const char* path);
  /// @}

  /// \name Privileges
  /// `reserved` is passed along and decides nothing; null is fine where it is a pointer.
  /// @{

  /// What a user may do in the share of a share path.
  /// \param restrictions the share's restriction word: bit 0 forbids listing, bit 2
  ///     downloading; 0 for administrators. Null: it is not asked for.
  /// \return 0; -1 with the code 2 (null argument, or no component) or 6 (no such share), or,
  ///     with the code 0 and `*priv` set, when it cannot be told whether the user is an
  ///     administrator.
  static int WfmLibGetPrivilege(const char* path, const char* user, const char* reserved,
                                WEBFM_SHARE_PRIVILEGE* priv, int* restrictions);

  /// Whether a user's privilege is exactly `want`: 1, 0; -1 with a code as above. One who may
  /// write does not have the privilege to read by this test.
  static int WfmLibHasPrivilege(const char* path, const char* user, const char* reserved,
                                WEBFM_SHARE_PRIVILEGE want);

  /// Whether a user may list a share path. The own home always.
  static bool CheckShareListPrivilege(const std::string& user, const std::string& reserved,
                                      const std::string& path);

  /// Whether a user may download from a share path: not where listing is forbidden either.
  /// False with the code 1 (empty path), 3 (refused) or one of `WfmLibGetPrivilege`.
  static bool CheckShareDownloadPrivilege(const std::string& user, const std::string& reserved,
                                          const std::string& path);

  /// Whether the process, as the user that it is, can enter and read a directory. On success
  /// that is its working directory afterwards.
  /// \param path an absolute real path.
  /// \return false with the code 6, 3 or 7 by the system's error; null: false, no code.
  static bool CheckDirListPrivilege(const char* path);

  /// Whether a share is encrypted; a home never is. \return false with the code 6 when there
  /// is no such share. `encrypted` is set in any case.
  static bool IsEncryptShare(std::string share, bool& encrypted);
  /// The same.
  static bool WfmLibCheckEncryptShare(std::string share, bool& encrypted);

  /// Whether a share hides from the process what it cannot read. Never from user 0, and not
  /// when the platform cannot tell.
  static bool WfmLibIsHideUnreadable(_tag_VEMOSHARE* share);
  /// @}

  /// \name Identity and umask
  /// @{

  /// Gives a file to a user and the user's group. A link is given itself, not what it leads
  /// to. Nothing is done on file systems without owners, remote ones and images.
  /// \return 0; -1 for a null file, a file system that cannot be told, an unknown user, and
  ///     when the owner cannot be changed.
  static int WfmLibChown2Admin(const char* file, const char* user);

  /// Makes the process act as the user of a session: groups, effective group, effective
  /// user. Groups that cannot be set are logged only.
  /// \return 0; -1, and the process keeps what it has reached; with the code 1 for null.
  static int WfmLibUGIDSet(const char* sid, const char* user);

  /// Makes the umask 0. \return the one before; -1, and it stays as it is, when the key
  /// "webfm_use_unix_perm" of /etc/vemoinfo.conf is "yes".
  static unsigned WfmLibUmask();
  /// Puts a umask back; -1 changes nothing.
  static void WfmLibRestoreUmask(unsigned mask);
  /// The umask, which stays as it is.
  static unsigned WfmLibGetUmask();

  /// The permission bits of a mode as three decimal digits: 0755 is 755.
  static int GetPrivilege(unsigned mode);
  /// @}

  /// The directories in a directory, added to `out`, which is sorted by name afterwards, case
  /// ignored. Links to directories and the platform's own are left out. One that cannot be
  /// examined is left out too, unless a remote file system is mounted there: users are to see
  /// a share of another machine that is gone.
  /// \param dir a real path.
  /// \return false for an empty path; with the code 6, 3 or 7 by the system's error when the
  ///     directory cannot be opened. `out` is as it was then.
  static bool WfmLibEnumSubDir(std::string dir, std::vector<_tag_SUBDIR_ENTRY_INFO_>& out);

 private:
  VemoConf conf_;
};

#endif  // ZEM_FILE_SHARE_WEBMAN_FILE_SHARE_H
