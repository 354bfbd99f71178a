// The directories in a directory.

#include <dirent.h>
#include <sys/stat.h>
#include <vemo/core.h>
#include <vemo/ea.h>
#include <vemo/fs.h>
#include <webutils/system_info.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "common/log.h"
#include "file_share/names.h"
#include "file_share/webman_file_share.h"

namespace {

using Entries = std::vector<_tag_SUBDIR_ENTRY_INFO_>;

WEBFMERR OpenError(int error) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
      return WEBFMERR_NOT_FOUND;
    case EACCES:
      return WEBFMERR_NO_PERMISSION;
    default:
      return WEBFMERR_OTHER;
  }
}

bool IsRemoteMount(const char* path) {
  const int type = VEMOFSIsInMountTable(path);
  return type != -1 && VEMOFSIsRemoteFS(type) == 1;
}

void AddUnreachable(const char* name, const std::string& path, Entries& out) {
  _tag_SUBDIR_ENTRY_INFO_& entry = out.emplace_back();
  entry.name = name;
  entry.path = path;
  entry.isMountPoint = true;
  entry.mountType = "remotefail";
}

void AddDirectory(const char* name, const std::string& path, const struct stat& status,
                  Entries& out) {
  _tag_SUBDIR_ENTRY_INFO_& entry = out.emplace_back();
  entry.name = name;
  entry.path = path;
  entry.size = status.st_size;
  entry.mode = status.st_mode;
  entry.mtime = static_cast<int32_t>(status.st_mtime);
  entry.uid = status.st_uid;
  entry.gid = status.st_gid;
  entry.isMountPoint = WebUtils::IsMountPoint(path);
  if (entry.isMountPoint) entry.mountType = WebUtils::getMountType(path);
}

void AddEntry(const char* name, const std::string& path, Entries& out) {
  struct stat status;
  if (lstat(path.c_str(), &status) != 0) {
    if (IsRemoteMount(path.c_str())) AddUnreachable(name, path, out);
  } else if (S_ISDIR(status.st_mode)) {
    AddDirectory(name, path, status, out);
  }
}

// What the directory itself says is something else is not examined.
bool MayBeDirectory(const dirent& entry) {
  return entry.d_type == DT_DIR || entry.d_type == DT_UNKNOWN;
}

}  // namespace

bool WebmanFileShare::WfmLibEnumSubDir(std::string dir, Entries& out) {
  if (dir.empty()) {
    ZEM_LOG("%s:%d Bad parameter", zem::kFileShareSource);
    return false;
  }
  WfmLibSetErr(WEBFMERR_NONE);
  std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(dir.c_str()), closedir);
  if (directory == nullptr) {
    WfmLibSetErr(OpenError(errno));
    return false;
  }
  dir += '/';
  const size_t prefix = dir.size();
  while (const dirent* entry = readdir(directory.get())) {
    if (!MayBeDirectory(*entry) || VEMOEAIsHiddenFile(entry->d_name)) continue;
    dir.replace(prefix, std::string::npos, entry->d_name);
    AddEntry(entry->d_name, dir, out);
  }
  directory.reset();
  std::sort(out.begin(), out.end(), [](const auto& a, const auto& b) {
    return VLIBCUnicodeUTF8StrCaseCmp(a.name.c_str(), b.name.c_str()) < 0;
  });
  return true;
}
