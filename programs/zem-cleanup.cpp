// zem-cleanup: removes what uploads left that nobody went on with; run by a timer, as root.
//
//   zem-cleanup [--hours N]
//
// Growing files in the spool directories of the mounted volumes ("/volumeN/@tmp/slice-...") to
// which nothing was added for a day (or N hours), nameless uploads' leftovers there
// (".#up...."), and records of slices whose file is gone or that are as old. A file that an
// upload holds just now is left alone. Links are not followed, and nothing else is touched.
//
// Prints what was removed. Exit status: 0; 2 it was called wrongly.
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vemo/core.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "common/descriptor.h"

namespace {

constexpr char kRegistry[] = "/tmp/slice_file_id";
constexpr time_t kHour = 3600;

using Folder = std::unique_ptr<DIR, int (*)(DIR*)>;

std::vector<std::string> NamesIn(int folder) {
  std::vector<std::string> names;
  const Folder opened(fdopendir(dup(folder)), closedir);
  while (opened != nullptr) {
    const dirent* entry = readdir(opened.get());
    if (entry == nullptr) break;
    names.emplace_back(entry->d_name);
  }
  return names;
}

bool BeginsWith(const std::string& text, const char* prefix) {
  return text.compare(0, std::strlen(prefix), prefix) == 0;
}

// A folder that is no link.
zem::Descriptor OpenFolder(int parent, const char* name) {
  return zem::Descriptor(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

void Tell(const std::string& folder, const std::string& name) {
  std::printf("%s/%s\n", folder.c_str(), name.c_str());
}

// --- Growing files ---

bool IsLeftover(const std::string& name) {
  return BeginsWith(name, "slice-") || BeginsWith(name, ".#up.");
}

// Whoever adds to a file holds its lock: one that is held is left alone, however old.
void RemoveOld(int folder, const std::string& path, const std::string& name, time_t before) {
  const zem::Descriptor file(
      openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status;
  if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return;
  if (status.st_mtime > before || flock(file.get(), LOCK_EX | LOCK_NB) != 0) return;
  // Under the lock once more: it may have grown in between.
  if (fstat(file.get(), &status) != 0 || status.st_mtime > before) return;
  if (unlinkat(folder, name.c_str(), 0) == 0) Tell(path, name);
}

void CleanVolume(const std::string& volume, time_t before) {
  const zem::Descriptor root = OpenFolder(AT_FDCWD, volume.c_str());
  const zem::Descriptor spool = root ? OpenFolder(root.get(), "@tmp") : zem::Descriptor();
  if (!spool) return;
  for (const std::string& name : NamesIn(spool.get())) {
    if (IsLeftover(name)) RemoveOld(spool.get(), volume + "/@tmp", name, before);
  }
}

bool IsVolume(const std::string& name) {
  return BeginsWith(name, "volume") && name.size() > 6 &&
         name.find_first_not_of("0123456789", 6) == std::string::npos;
}

// --- Records ---

// A record goes with its file; one that names none is old enough or just being written.
bool IsDead(const std::string& record, const std::string& id, time_t before) {
  char path[4096] = "";
  struct stat status, file;
  if (lstat(record.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  VLIBCFileGetKeyValue(record.c_str(), id.c_str(), path, sizeof path);
  if (*path == '\0') return status.st_mtime <= before;
  return lstat(path, &file) != 0 && errno == ENOENT;
}

void CleanRegistry(time_t before) {
  struct stat status;
  const zem::Descriptor registry = OpenFolder(AT_FDCWD, kRegistry);
  // Somebody else's folder under this name holds nothing of ours.
  if (!registry || fstat(registry.get(), &status) != 0 || status.st_uid != 0) return;
  for (const std::string& name : NamesIn(registry.get())) {
    if (name == "." || name == ".." || name.find('=') != std::string::npos) continue;
    if (IsDead(std::string(kRegistry) + "/" + name, name, before) &&
        unlinkat(registry.get(), name.c_str(), 0) == 0) {
      Tell(kRegistry, name);
    }
  }
}

}  // namespace

int main(int count, char** values) {
  long hours = 24;
  if (count == 3 && std::strcmp(values[1], "--hours") == 0) {
    char* end;
    hours = std::strtol(values[2], &end, 10);
    if (*values[2] == '\0' || *end != '\0' || hours < 0 || hours > 100000) count = -1;
  } else if (count != 1) {
    count = -1;
  }
  if (count < 0) {
    std::fputs("usage: zem-cleanup [--hours N]\n", stderr);
    return 2;
  }
  const time_t before = std::time(nullptr) - hours * kHour;
  const zem::Descriptor root = OpenFolder(AT_FDCWD, "/");
  for (const std::string& name : NamesIn(root.get())) {
    if (IsVolume(name)) CleanVolume("/" + name, before);
  }
  CleanRegistry(before);
  return 0;
}
