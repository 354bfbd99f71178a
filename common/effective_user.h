/// \file effective_user.h
/// The effective user of the process, changed for a scope.
#ifndef ZEM_COMMON_EFFECTIVE_USER_H
#define ZEM_COMMON_EFFECTIVE_USER_H

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace zem {

/// Makes `user` the effective user and puts the one before back at the end of the
/// scope. Only the effective id changes: groups stay, and the real and saved ids are
/// what allows the way back.
///
/// A process that may not switch goes on as it is, and nothing is put back: ask
/// `switched()` where that matters. One that cannot put the id back ends by abort():
/// it must not go on as root.
class EffectiveUser {
 public:
  explicit EffectiveUser(uid_t user) : before_(geteuid()), switched_(before_ == user) {
    if (switched_) return;
    // To the kernel an id of -1 means "as it is", and counts as success.
    switched_ = user != static_cast<uid_t>(-1) && seteuid(user) == 0;
  }
  ~EffectiveUser() {
    const int kept = errno;
    if (geteuid() != before_ && seteuid(before_) != 0) std::abort();
    errno = kept;
  }
  EffectiveUser(const EffectiveUser&) = delete;
  EffectiveUser& operator=(const EffectiveUser&) = delete;

  /// Whether the process acts as that user now.
  bool switched() const { return switched_; }

 private:
  uid_t before_;
  bool switched_;
};

}  // namespace zem

#endif  // ZEM_COMMON_EFFECTIVE_USER_H
