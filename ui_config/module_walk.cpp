#include "ui_config/module_walk.h"

#include <dirent.h>
#include <sys/stat.h>

#include <memory>

#include "common/working_directory.h"
#include "ui_config/names.h"

namespace zem {
namespace {

// Some file systems do not tell the kind with the name.
bool IsModule(const dirent& entry, DIR* folder) {
  const std::string_view name = entry.d_name;
  if (name == "." || name == "..") return false;
  if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_DIR || entry.d_type == DT_LNK;
  struct stat status;
  return fstatat(dirfd(folder), entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
         (S_ISDIR(status.st_mode) || S_ISLNK(status.st_mode));
}

}  // namespace

void WalkModules(const std::string& prefix, const char* folder,
                 const std::function<void(const std::string&, const std::string&)>& visit) {
  const bool web_root = prefix == kWebRootPrefix;
  const std::string directory = web_root ? std::string("webman/") + folder : folder;
  const WorkingDirectory root(web_root ? kWebRoot : kProgramRoot);
  const std::unique_ptr<DIR, int (*)(DIR*)> opened(opendir(directory.c_str()), closedir);
  if (opened == nullptr) return;
  while (const dirent* entry = readdir(opened.get())) {
    if (IsModule(*entry, opened.get())) visit(directory + "/" + entry->d_name, entry->d_name);
  }
}

}  // namespace zem
