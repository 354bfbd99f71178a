// Where the share path of a request leads, and the way there: by descriptor, below the
// share's root, so that no link and no race leads out of it.
#ifndef ZEM_PROGRAMS_SHARE_PLACE_H
#define ZEM_PROGRAMS_SHARE_PLACE_H

#include <file_share/webman_file_share.h>
#include <sys/types.h>

#include <string>

#include "common/descriptor.h"

namespace program {

/// Whether a text is a share path: "/share/a/b", no empty part, no "." or "..", no slash at
/// the end, well-formed UTF-8 without control characters, at most 4,095 bytes in all and 255
/// in a part, and no part that is the platform's own.
bool IsSharePath(const std::string& path);

/// The key of the text that says what became of an operation of the system.
const char* ErrorKeyOf(int error);

class SharePlace {
 public:
  /// Finds the share or the home, and what the user may do there. As root.
  /// \return null; else the key of the error's text: shares that the user may not enter are
  ///     not there.
  const char* Find(const std::string& user, const std::string& path);

  /// Opens the root, as the identity that the process has now. \return as `Find`.
  const char* Enter();

  bool may_write() const { return privilege_ == WEBFM_SHARE_PRIVILEGE_RW; }
  bool may_list() const;
  bool may_download() const;
  /// Whether it is the share, or the home, itself.
  bool is_root() const { return relative_.empty(); }
  bool is_home() const { return is_home_; }
  /// Whether the share hides from the process what it cannot read.
  bool hides_unreadable() const;

  const std::string& path() const { return path_; }    ///< the share path
  const std::string& share() const { return share_; }  ///< its first part
  const std::string& root() const { return root_; }    ///< where the share is: a real path
  std::string real() const;                            ///< the real path
  std::string name() const;                            ///< the last part
  WEBFM_SHARE_PRIVILEGE privilege() const { return privilege_; }

  /// Opens the file itself, below the root and through no link. \return none, and errno.
  zem::Descriptor Open(int flags) const { return OpenBelow(relative_, flags); }
  /// Opens the directory in which it stands. Not for the root.
  zem::Descriptor OpenParent() const;
  /// Opens a new name in a directory, for `name()` of a place that is not there.
  const std::string& relative() const { return relative_; }

 private:
  const char* FindShare(const std::string& user);
  const char* FindHome(const std::string& user);
  zem::Descriptor OpenBelow(const std::string& relative, int flags) const;

  std::string path_, share_, root_, relative_, user_;
  bool is_home_ = false;
  WEBFM_SHARE_PRIVILEGE privilege_ = WEBFM_SHARE_PRIVILEGE_NONE;
  int restrictions_ = 0;
  zem::Descriptor descriptor_;
};

/// Whether a file in this directory may have the name, for a user who makes or renames one.
/// \param directory a descriptor of it. \return null, or the key of the error's text.
const char* CheckNewName(int directory, const std::string& name);

}  // namespace program

#endif  // ZEM_PROGRAMS_SHARE_PLACE_H
