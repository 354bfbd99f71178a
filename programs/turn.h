// A lock file that is held for a scope: what is read, changed and written back needs one
// around all three.
#ifndef ZEM_PROGRAMS_TURN_H
#define ZEM_PROGRAMS_TURN_H

#include <vemo/core.h>

#include <string>

namespace program {

class Turn {
 public:
  /// Waits for the lock, which is made when it is missing, for at most `seconds`.
  explicit Turn(const std::string& path, int seconds = 5) {
    taken_ = VLIBCFileLockTimeByFile(path.c_str(), 1, seconds, &descriptor_);
  }
  ~Turn() { VLIBCFileUnlockByFile(descriptor_); }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

  /// When not, VLIBCErrGet() tells why: VEMOERR_BUSY when somebody else holds it.
  bool taken() const { return taken_; }

 private:
  int descriptor_ = -1;
  bool taken_;
};

}  // namespace program

#endif  // ZEM_PROGRAMS_TURN_H
