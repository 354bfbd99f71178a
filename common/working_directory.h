/// \file working_directory.h
/// The working directory of the process, changed for a scope.
#ifndef ZEM_COMMON_WORKING_DIRECTORY_H
#define ZEM_COMMON_WORKING_DIRECTORY_H

#include <fcntl.h>
#include <unistd.h>

#include "common/descriptor.h"

namespace zem {

/// Makes `path` the working directory and goes back at the end of the scope. What
/// cannot be changed stays as it is. The way back is a descriptor, so it works when the
/// directory was moved or removed meanwhile.
class WorkingDirectory {
 public:
  explicit WorkingDirectory(const char* path)
      : before_(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC)) {
    Change(chdir(path));
  }
  ~WorkingDirectory() {
    if (before_) Change(fchdir(before_.get()));
  }
  WorkingDirectory(const WorkingDirectory&) = delete;
  WorkingDirectory& operator=(const WorkingDirectory&) = delete;

 private:
  static void Change(int) {}  // its result does not matter

  Descriptor before_;
};

}  // namespace zem

#endif  // ZEM_COMMON_WORKING_DIRECTORY_H
