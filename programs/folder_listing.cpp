#include "programs/folder_listing.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <vemo/core.h>
#include <vemo/ea.h>
#include <vemo/fs.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <set>
#include <vector>

#include "programs/program.h"

namespace program {
namespace {

struct Entry {
  std::string name;
  unsigned char type;  // of readdir(3)
  bool examined = false;
  struct stat status = {};
};

using Folder = std::unique_ptr<DIR, int (*)(DIR*)>;

Folder OpenFolder(const SharePlace& place) {
  zem::Descriptor opened = place.Open(O_RDONLY | O_DIRECTORY);
  const int copy = opened ? fcntl(opened.get(), F_DUPFD_CLOEXEC, 0) : -1;
  DIR* folder = copy < 0 ? nullptr : fdopendir(copy);
  if (copy >= 0 && folder == nullptr) close(copy);
  return {folder, closedir};
}

bool Examine(int folder, Entry& entry) {
  if (!entry.examined) {
    entry.examined = fstatat(folder, entry.name.c_str(), &entry.status, AT_SYMLINK_NOFOLLOW) == 0;
  }
  return entry.examined;
}

bool IsFolder(int folder, Entry& entry) {
  if (entry.type != DT_UNKNOWN) return entry.type == DT_DIR;
  return Examine(folder, entry) && S_ISDIR(entry.status.st_mode);
}

// The names that are shown; how many could not be.
int ReadNames(DIR* folder, bool hides_unreadable, std::vector<Entry>& entries) {
  int unlisted = 0;
  while (const dirent* found = readdir(folder)) {
    if (VEMOEAIsHiddenFile(found->d_name)) continue;
    if (hides_unreadable && found->d_type != DT_LNK &&
        faccessat(dirfd(folder), found->d_name, R_OK, AT_EACCESS) != 0) {
      continue;
    }
    if (!IsUtf8(found->d_name)) {
      unlisted++;
      continue;
    }
    entries.push_back({found->d_name, found->d_type});
  }
  return unlisted;
}

std::string ExtensionOf(const std::string& name) {
  const size_t dot = name.rfind('.');
  return dot == std::string::npos || dot == 0 ? "" : name.substr(dot + 1);
}

// Below 0: a stands before b, by what is asked for.
int Compare(const ListingOrder& order, const Entry& a, const Entry& b) {
  if (order.by == "size" && a.status.st_size != b.status.st_size) {
    return a.status.st_size < b.status.st_size ? -1 : 1;
  }
  if (order.by == "mtime" && a.status.st_mtime != b.status.st_mtime) {
    return a.status.st_mtime < b.status.st_mtime ? -1 : 1;
  }
  if (order.by == "type") {
    const int types =
        VLIBCUnicodeUTF8StrCaseCmp(ExtensionOf(a.name).c_str(), ExtensionOf(b.name).c_str());
    if (types != 0) return types;
  }
  const int names = VLIBCUnicodeUTF8StrCaseCmp(a.name.c_str(), b.name.c_str());
  return names != 0 ? names : a.name.compare(b.name);
}

void Sort(int folder, const ListingOrder& order, std::vector<Entry>& entries) {
  if (order.by == "size" || order.by == "mtime") {
    for (Entry& entry : entries)
      Examine(folder, entry);
  }
  const auto files = std::partition(entries.begin(), entries.end(),
                                    [&](Entry& entry) { return IsFolder(folder, entry); });
  const auto before = [&](const Entry& a, const Entry& b) {
    const int compared = Compare(order, a, b);
    return order.descending ? compared > 0 : compared < 0;
  };
  std::sort(entries.begin(), files, before);
  std::sort(files, entries.end(), before);
}

const char* TypeOf(mode_t mode) {
  if (S_ISDIR(mode)) return "folder";
  if (S_ISREG(mode)) return "file";
  return S_ISLNK(mode) ? "link" : "other";
}

}  // namespace

Json::Value DescribeEntry(const std::string& name, const struct stat& status) {
  Json::Value entry(Json::objectValue);
  entry["name"] = name;
  entry["type"] = TypeOf(status.st_mode);
  entry["size"] = static_cast<Json::Int64>(status.st_size);
  entry["mtime"] = static_cast<Json::Int64>(status.st_mtime);
  entry["mode"] = WebmanFileShare::GetPrivilege(status.st_mode);
  entry["uid"] = status.st_uid;
  entry["gid"] = status.st_gid;
  return entry;
}

bool ListFolder(const SharePlace& place, const ListingOrder& order, Json::Value& listing) {
  const Folder folder = OpenFolder(place);
  if (folder == nullptr) return false;
  std::vector<Entry> entries;
  const int unlisted = ReadNames(folder.get(), place.hides_unreadable(), entries);
  Sort(dirfd(folder.get()), order, entries);

  const auto total = static_cast<long>(entries.size());
  listing["total"] = static_cast<Json::Int64>(total);
  listing["offset"] = static_cast<Json::Int64>(order.offset);
  listing["unlisted"] = unlisted;
  listing["entries"] = Json::Value(Json::arrayValue);
  const long end = std::min(total, order.offset + order.limit);
  for (long i = order.offset; i < end; i++) {
    Entry& entry = entries[static_cast<size_t>(i)];
    if (!Examine(dirfd(folder.get()), entry)) continue;  // gone meanwhile
    listing["entries"].append(DescribeEntry(entry.name, entry.status));
  }
  return true;
}

bool ListFolders(const SharePlace& place, Json::Value& listing) {
  const Folder folder = OpenFolder(place);
  if (folder == nullptr) return false;
  // By the descriptor's own path: nobody can put a link in its place.
  const std::string path = "/proc/self/fd/" + std::to_string(dirfd(folder.get()));
  std::vector<_tag_SUBDIR_ENTRY_INFO_> found;
  if (!WebmanFileShare::WfmLibEnumSubDir(path, found)) return false;
  const bool hides = place.hides_unreadable();
  listing["folders"] = Json::Value(Json::arrayValue);
  std::set<std::string> seen;
  const auto add = [&](const _tag_SUBDIR_ENTRY_INFO_& entry) {
    seen.insert(entry.name);
    if (!IsUtf8(entry.name.c_str())) return;
    if (hides && faccessat(dirfd(folder.get()), entry.name.c_str(), R_OK, AT_EACCESS) != 0) return;
    Json::Value one(Json::objectValue);
    one["name"] = entry.name;
    one["mtime"] = entry.mtime;
    one["mode"] = WebmanFileShare::GetPrivilege(entry.mode);
    if (entry.isMountPoint || !entry.mountType.empty()) one["mount"] = entry.mountType;
    listing["folders"].append(one);
  };
  for (const auto& entry : found)
    add(entry);
  // A remote file system that does not answer is found by its real path alone.
  while (const dirent* entry = readdir(folder.get())) {
    if (seen.count(entry->d_name) != 0 || VEMOEAIsHiddenFile(entry->d_name)) continue;
    if (entry->d_type != DT_DIR && entry->d_type != DT_UNKNOWN) continue;
    const int type = VEMOFSIsInMountTable((place.real() + "/" + entry->d_name).c_str());
    if (type < 0 || VEMOFSIsRemoteFS(type) != 1) continue;
    _tag_SUBDIR_ENTRY_INFO_ dead;
    dead.name = entry->d_name;
    dead.mountType = "remotefail";
    add(dead);
  }
  return true;
}

}  // namespace program
