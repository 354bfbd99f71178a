/// \file working_directory.h
/// The working directory of the process, changed for a scope.
#ifndef ZEM_COMMON_WORKING_DIRECTORY_H
#define ZEM_COMMON_WORKING_DIRECTORY_H

#include <fcntl.h>
#include <unistd.h>

#include "common/descriptor.h"

namespace zem {

/// Makes `path` the working directory and goes back at the end of the scope. What
/// cannot be changed stays as it is: ask `changed()` where that matters. The way back is a
/// descriptor, so it works when the directory was moved or removed meanwhile.
class WorkingDirectory {
 public:
  explicit WorkingDirectory(const char* path)
      : before_(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC)), changed_(chdir(path) == 0) {}
  ~WorkingDirectory() {
    if (!before_) return;
    [[maybe_unused]] const int result = fchdir(before_.get());
  }
  WorkingDirectory(const WorkingDirectory&) = delete;
  WorkingDirectory& operator=(const WorkingDirectory&) = delete;

  /// Whether `path` could be entered.
  bool changed() const { return changed_; }

 private:
  Descriptor before_;
  bool changed_;
};

}  // namespace zem

#endif  // ZEM_COMMON_WORKING_DIRECTORY_H
