// Documents of users, one JSON file each in the folder "module" of the user's preferences:
//
//   {"data": ..., "flag": 1, "mtime": seconds, "name": "..."}
//
// The file's name is the document's as vemo_name_part writes it. Files are written beside
// and renamed, by one process at a time: a reader sees the old or the new one.
//
// The preferences are the user's own, who may put anything in any place of them at any
// moment, and root may be the one who asks: the folder is held open, and only what belongs
// to the user counts.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vemo/taskmgr.h>
#include <vemo/user.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <memory>

#include "common/descriptor.h"
#include "common/effective_user.h"
#include "common/json.h"
#include "core/internal.h"

namespace ZEM {
namespace {

constexpr size_t kFileLimit = 64 << 20;  // bytes
constexpr int kLockTries = 500;          // a hundredth of a second each

// Calls `body`; what it throws (there is no memory) becomes `failure`.
template <typename Result, typename Body>
Result Guarded(Result failure, Body body) {
  try {
    return body();
  } catch (const std::exception &) {
    VEMO_FAIL_AS(ENOMEM, VEMOERR_NO_MEMORY);
    return failure;
  }
}

class Folder {
 public:
  // \param make makes it when it is missing.
  Folder(const std::string &user, bool make) {
    if (!FindAccount(user.c_str())) return;
    char preferences[1024];
    if (VEMOUserPreferenceDirGet(user.c_str(), preferences, sizeof preferences) != 0) return;
    if (Open(preferences)) return;
    missing_ = errno == ENOENT;
    if (missing_ && !make) return;  // no failure yet: the caller knows what it means
    if (missing_ && Make(preferences) && Open(preferences)) return;
    VEMO_FAIL_ERRNO();
  }

  explicit operator bool() const {
    return static_cast<bool>(directory_);
  }
  // Whether the user has none yet.
  bool missing() const {
    return missing_;
  }
  int fd() const {
    return directory_.get();
  }
  uid_t uid() const {
    return account_.pw_uid;
  }
  gid_t gid() const {
    return account_.pw_gid;
  }
  // A path of an entry of this very folder, whatever its own path leads to by now.
  std::string PathOf(const std::string &entry) const {
    return "/proc/self/fd/" + std::to_string(fd()) + "/" + entry;
  }
  // Whether a file of the user stands there.
  bool Holds(const std::string &part) const {
    struct stat status;
    return fstatat(fd(), part.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISREG(status.st_mode) && status.st_uid == uid();
  }

 private:
  bool FindAccount(const char *user) {
    char *buffer = nullptr;
    const int error = vemo_find_user(user, &account_, &buffer);
    std::free(buffer);  // the numbers are all that is needed
    if (error != 0) VEMO_FAIL_AS(error, error == ENOENT ? VEMOERR_NO_USER : VEMOERR_NO_SERVICE);
    return error == 0;
  }

  bool Open(const std::string &preferences) {
    const std::string path = preferences + "/module";
    zem::Descriptor opened(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status;
    if (!opened || fstat(opened.get(), &status) != 0) return false;
    if (status.st_uid != uid()) {
      errno = EACCES;
      return false;
    }
    directory_ = std::move(opened);
    return true;
  }

  // As the user: root would have to give it away, and the user may put another one in its
  // place before that.
  bool Make(const std::string &preferences) const {
    const std::string path = preferences + "/module";
    if (geteuid() != 0) return mkdir(path.c_str(), 0700) == 0 || errno == EEXIST;

    const gid_t group = getegid();
    if (setegid(gid()) != 0) return false;
    bool made;
    {
      const zem::EffectiveUser user(uid());
      made = user.switched() && (mkdir(path.c_str(), 0700) == 0 || errno == EEXIST);
    }
    const int kept = errno;
    if (setegid(group) != 0) std::abort();
    errno = kept;
    return made;
  }

  passwd account_ = {};
  zem::Descriptor directory_;
  bool missing_ = false;
};

// The right to write into a folder, for a scope.
class Lock {
 public:
  explicit Lock(const Folder &folder) : fd_(folder.fd()) {
    for (int i = 0; !(held_ = flock(fd_, LOCK_EX | LOCK_NB) == 0); i++) {
      if (errno != EWOULDBLOCK || i == kLockTries) break;
      usleep(10000);
    }
    if (!held_) VEMO_FAIL_AS(errno, errno == EWOULDBLOCK ? VEMOERR_BUSY : VEMOERR_IO);
  }
  ~Lock() {
    const int kept = errno;
    if (held_) flock(fd_, LOCK_UN);
    errno = kept;
  }
  Lock(const Lock &) = delete;
  Lock &operator=(const Lock &) = delete;
  explicit operator bool() const {
    return held_;
  }

 private:
  int fd_;
  bool held_;
};

// The file's name for a document's. Empty: refused (recorded).
std::string PartOf(const char *name) {
  char part[256];
  return vemo_name_part(name, part, sizeof part) == 0 ? part : "";
}

// A file that can be read as a document. No link is followed.
bool Read(const Folder &folder, const std::string &part, Json::Value &record) {
  size_t size;
  struct stat status;
  char *text = vemo_read_file(folder.PathOf(part).c_str(), O_NOFOLLOW, kFileLimit, &size, &status);
  if (text == nullptr) return false;
  const bool own = status.st_uid == folder.uid();
  const bool read = own && zem::ParseJson(text, size, zem::JsonComments::kSkip, record) &&
                    record.isObject() && record.isMember("data");
  std::free(text);
  if (!own) {
    VEMO_FAIL_AS(EACCES, VEMOERR_NO_PERM);
  } else if (!read) {
    VEMO_FAIL_AS(EINVAL, VEMOERR_FORMAT);
  }
  return read;
}

// The file's text. Empty: it could not be read back (recorded), as a document that nests
// deeper than the reader goes.
std::string TextOf(const Json::Value &record) {
  Json::Value read;
  std::string text = zem::CompactJson(record);
  if (!text.empty() && text.size() <= kFileLimit &&
      zem::ParseJson(text.data(), text.size(), zem::JsonComments::kSkip, read)) {
    return text;
  }
  VEMO_FAIL_AS(EINVAL, VEMOERR_FORMAT);
  return {};
}

bool Write(const Folder &folder, const std::string &part, const std::string &text) {
  const Lock lock(folder);
  // No document's: those begin with no dot. What a killed writer left is written over.
  const std::string temporary = folder.PathOf(".new");
  return lock && vemo_write_file_as(folder.PathOf(part).c_str(), temporary.c_str(), text.data(),
                                    text.size(), 0600, folder.uid(), folder.gid()) == 0;
}

// What vemo_name_part wrote, as it was.
std::string NameOf(const char *part) {
  std::string name;
  for (; *part != '\0'; ++part) {
    if (*part == '%' && part[1] != '\0' && part[2] != '\0') {
      const char digits[] = {part[1], part[2], '\0'};
      name += static_cast<char>(std::strtol(digits, nullptr, 16));
      part += 2;
    } else {
      name += *part;
    }
  }
  return name;
}

}  // namespace

Task::Task(std::string user, std::string name) : user_(std::move(user)), name_(std::move(name)) {
}
Task::~Task() = default;

bool Task::saveData() {
  return Guarded(false, [this] {
    const std::string part = PartOf(name_.c_str());
    if (part.empty()) return false;
    Json::Value record(Json::objectValue);
    record["data"] = data;
    record["flag"] = flag;
    record["mtime"] = Json::Int64(time(nullptr));
    record["name"] = name_;
    const std::string text = TextOf(record);
    if (text.empty()) return false;
    const Folder folder(user_, true);
    return folder && Write(folder, part, text);
  });
}

bool Task::remove() {
  return Guarded(false, [this] {
    const std::string part = PartOf(name_.c_str());
    if (part.empty()) return false;
    const Folder folder(user_, false);
    if (!folder) return folder.missing();
    if (unlinkat(folder.fd(), part.c_str(), 0) == 0 || errno == ENOENT) return true;
    VEMO_FAIL_ERRNO();
    return false;
  });
}

TaskMgr::TaskMgr(const char *user) {
  // Without memory it is nobody's, and refuses everything.
  Guarded(0, [this, user] {
    if (user != nullptr) user_ = user;
    return 0;
  });
}
TaskMgr::~TaskMgr() = default;

bool TaskMgr::hasTask(const char *name) {
  return Guarded(false, [this, name] {
    const std::string part = PartOf(name);
    if (part.empty()) return false;
    const Folder folder(user_, false);
    return folder && folder.Holds(part) &&
           faccessat(folder.fd(), part.c_str(), R_OK, AT_EACCESS) == 0;
  });
}

Task *TaskMgr::getTask(const char *name) {
  return Guarded<Task *>(nullptr, [this, name]() -> Task * {
    Json::Value record;
    const std::string part = PartOf(name);
    if (part.empty()) return nullptr;
    const Folder folder(user_, false);
    if (folder.missing()) VEMO_FAIL_AS(ENOENT, VEMOERR_NOT_FOUND);
    if (!folder || !Read(folder, part, record)) return nullptr;
    Task *task = new Task(user_, name);
    task->data.swap(record["data"]);
    if (record["flag"].isInt()) task->flag = record["flag"].asInt();
    return task;
  });
}

Task *TaskMgr::createTask(const char *name) {
  if (Task *task = getTask(name); task != nullptr) return task;
  return Guarded<Task *>(nullptr, [this, name]() -> Task * {
    if (PartOf(name).empty() || !Folder(user_, true)) return nullptr;
    return new Task(user_, name);
  });
}

std::vector<std::string> TaskMgr::taskNames() {
  return Guarded(std::vector<std::string>(), [this] {
    std::vector<std::string> names;
    const Folder folder(user_, false);
    DIR *opened = folder ? opendir(folder.PathOf("").c_str()) : nullptr;
    if (opened == nullptr) return names;
    const std::unique_ptr<DIR, int (*)(DIR *)> directory(opened, closedir);
    while (const dirent *entry = readdir(opened)) {
      // Nothing that could not be asked for by its name.
      std::string name = NameOf(entry->d_name);
      if (PartOf(name.c_str()) == entry->d_name && folder.Holds(entry->d_name)) {
        names.push_back(std::move(name));
      }
    }
    std::sort(names.begin(), names.end());
    return names;
  });
}

}  // namespace ZEM
