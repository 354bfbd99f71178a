/// \file root_section.h
/// Work with the effective user and group 0.
#ifndef ZEM_COMMON_ROOT_SECTION_H
#define ZEM_COMMON_ROOT_SECTION_H

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>

namespace zem {

/// Makes group and user 0 the effective ones, in this order, and puts those before back at
/// the end of the scope, or earlier by `Leave`. Sections may stand within each other.
class RootSection {
 public:
  RootSection()
      : user_(geteuid()),
        group_(getegid()),
        entered_((group_ == 0 || setegid(0) == 0) && (user_ == 0 || seteuid(0) == 0)) {}
  ~RootSection() { Leave(); }
  RootSection(const RootSection&) = delete;
  RootSection& operator=(const RootSection&) = delete;

  /// Whether the process acts as root within.
  bool entered() const { return entered_; }
  /// The ids from before.
  uid_t user() const { return user_; }
  gid_t group() const { return group_; }

  /// Puts the ids back, the group first: it needs the user's right. \return false when
  /// they are not those from before then. Keeps errno.
  bool Leave() {
    const int kept = errno;
    const bool left = (getegid() == group_ || setegid(group_) == 0) &&
                      (geteuid() == user_ || seteuid(user_) == 0);
    errno = kept;
    return left;
  }

 private:
  uid_t user_;
  gid_t group_;
  bool entered_;
};

}  // namespace zem

#endif  // ZEM_COMMON_ROOT_SECTION_H
