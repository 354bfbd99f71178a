// Share paths and what they stand for.

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vemo/core.h>
#include <vemo/ea.h>
#include <vemo/fs.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/descriptor.h"
#include "common/log.h"
#include "common/working_directory.h"
#include "file_share/names.h"
#include "file_share/records.h"
#include "file_share/webman_file_share.h"

namespace {

using zem::kFileShareSource;
using zem::kPathSize;

constexpr int kTokens = 1024;
constexpr mode_t kHomeMode = 0755;
constexpr mode_t kScratchMode = 01777;

constexpr char kHomes[] = "/homes";
constexpr char kHomesSlash[] = "/homes/";
constexpr size_t kHomesSize = sizeof kHomes - 1;

WEBFMERR error_code = WEBFMERR_NONE;

// Whether `dir` is `home` or lies below it, case ignored.
bool IsAtOrBelow(const std::string& dir, const std::string& home) {
  return strncasecmp(dir.c_str(), home.c_str(), home.size()) == 0 &&
         (dir.size() == home.size() || dir[home.size()] == '/');
}

bool IsDomainUser(const char* user) { return strpbrk(user, "\\@") != nullptr; }

// A domain user's home is where the account says. It is made here, because such users come
// without anybody having made them.
bool IsDomainUserHome(const std::string& dir, const char* name) {
  const zem::User user = zem::FindUser(name);
  if (user == nullptr) return false;
  if (VEMOServiceUserHomeIsEnabled(user->kind) &&
      VEMOFSMkdirP(user->home, 0, 1, user->uid, user->gid, kHomeMode) != 0) {
    return false;
  }
  const char* below = std::strstr(user->home, kHomesSlash);
  return below != nullptr && IsAtOrBelow(dir, below);
}

// Makes "@tmp" in the share's metadata, and gives it to everybody. What share users can
// put in its place, or in that of "@eaDir", is not followed: this runs as root.
void MakeScratchDirectory(const char* share_path) {
  const zem::Descriptor share(open(share_path, O_PATH | O_DIRECTORY | O_CLOEXEC));
  const zem::Descriptor metadata(
      openat(share.get(), zem::kEaDir, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!metadata) return;
  [[maybe_unused]] int ignored = mkdirat(metadata.get(), zem::kScratchDir, kScratchMode);
  const zem::Descriptor scratch(
      openat(metadata.get(), zem::kScratchDir, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!scratch) return;
  ignored = fchown(scratch.get(), 0, 0);
  ignored = fchmod(scratch.get(), kScratchMode);
}

}  // namespace

WebmanFileShare::WebmanFileShare() = default;

WebmanFileShare::~WebmanFileShare() = default;

void WebmanFileShare::WfmLibSetErr(WEBFMERR code) { error_code = code; }

WEBFMERR WebmanFileShare::WfmLibGetErr() { return error_code; }

char* WebmanFileShare::WfmLibGetTokOfPath(const char* path, BOOL first) {
  if (path == nullptr) {
    ZEM_LOG("%s(%d): bad parameter!", kFileShareSource);
    return nullptr;
  }
  const std::unique_ptr<VEMOSZLIST, void (*)(VEMOSZLIST*)> tokens(VLIBCSzListAlloc(kTokens),
                                                                  VLIBCSzListFree);
  if (tokens == nullptr) {
    ZEM_LOG("%s(%d): VLIBCSzListAlloc() failed!", kFileShareSource);
    return nullptr;
  }
  if (std::strchr(path, '/') == nullptr) {
    ZEM_LOG("%s(%d) bad path name=%s", kFileShareSource, path);
    return nullptr;
  }
  const std::string cut(path, strnlen(path, kPathSize - 1));
  const int count = VLIBCStrTok(cut.c_str(), "/", tokens.get());
  if (count <= 0) {
    ZEM_LOG("%s(%d) error path", kFileShareSource);
    return nullptr;
  }
  return strdup(VLIBCSzListGet(tokens.get(), first != FALSE ? 0 : count - 1));
}

bool WebmanFileShare::WfmLibRealFullPathGet(const char* path, char* buf, int size) {
  if (path == nullptr || buf == nullptr || size <= 0) return false;
  const zem::WorkingDirectory entered(path);
  if (!entered.changed()) return false;
  // Not straight into the caller's: what does not fit may have been written in part.
  char real[kPathSize];
  if (getcwd(real, sizeof real) == nullptr) return false;
  const size_t length = std::strlen(real);
  if (length >= static_cast<size_t>(size)) return false;
  std::memcpy(buf, real, length + 1);
  return true;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): programs are linked to it so
bool WebmanFileShare::WfmUserHomeFullPathGet(std::string& out, std::string user) {
  const zem::User record = zem::FindUser(user.c_str());
  if (record == nullptr) {
    ZEM_LOG("%s:%d Failed to get user (%s)", kFileShareSource, user.c_str());
    return false;
  }
  char real[kPathSize - 1];
  if (!WfmLibRealFullPathGet(record->home, real, sizeof real)) {
    ZEM_LOG("%s:%d Failed to get real path (%s)", kFileShareSource, record->home);
    return false;
  }
  out = real;
  return true;
}

bool WebmanFileShare::IsDirUserHome(const std::string& dir, const char* user) {
  if (dir == "home" || dir == "/home") return true;
  if (dir.compare(0, kHomesSize, kHomes) != 0) return dir.starts_with("/home/");
  if (user == nullptr) return false;
  if (!IsDomainUser(user)) return IsAtOrBelow(dir, std::string(kHomesSlash) + user);
  return IsDomainUserHome(dir, user);
}

bool WebmanFileShare::WfmFullPathGet(const char* path, std::string& fullPath,
                                     std::string& shareName, std::string& volumePath,
                                     std::string& sharePath, std::string user) {
  WfmLibSetErr(WEBFMERR_NONE);
  if (path == nullptr || *path == '\0' || user.empty()) {
    WfmLibSetErr(WEBFMERR_BAD_PARAMETER);
    return false;
  }
  const zem::Text share(WfmLibGetTokOfPath(path, TRUE), std::free);
  if (share == nullptr) {
    WfmLibSetErr(WEBFMERR_PATH);
    ZEM_LOG("%s:%d WfmLibGetTokOfPath fail", kFileShareSource);
    return false;
  }
  shareName = share.get();
  if (IsDirUserHome(shareName, nullptr)) {
    if (!WfmUserHomeFullPathGet(sharePath, std::move(user))) {
      WfmLibSetErr(WEBFMERR_PATH);
      ZEM_LOG("%s:%d WfmUserHomeFullPathGet fail", kFileShareSource);
      return false;
    }
  } else {
    const zem::Share record = zem::FindShare(share.get());
    if (record == nullptr) {
      ZEM_LOG("%s:%d VEMOShareGet fail", kFileShareSource);
      WfmLibSetErr(WEBFMERR_NOT_FOUND);
      return false;
    }
    sharePath = record->path;
  }
  // Counted, not searched: programs rely on what a path without its first "/" gives.
  fullPath = sharePath + (path + shareName.size() + 1);
  volumePath = sharePath.substr(0, sharePath.find('/', 1));
  return true;
}

bool WebmanFileShare::WfmLibGetShareEaDirTmpPath(const char* path, char* buf, unsigned size) {
  if (path == nullptr || buf == nullptr || size == 0) {
    WfmLibSetErr(WEBFMERR_BAD_PARAMETER);
    return false;
  }
  char name[kPathSize];
  char share_path[kPathSize];
  if (VEMOShareNamePathGet(path, name, sizeof name, share_path, sizeof share_path) < 0) {
    ZEM_LOG("%s:%d VEMOShareNamePathGet failed, path=%s, vemoerr=" ZEM_LOG_PLATFORM_FORMAT,
            kFileShareSource, path, ZEM_LOG_PLATFORM_ARGS);
    WfmLibSetErr(WEBFMERR_PATH);
    return false;
  }
  const std::string metadata = std::string(share_path) + "/" + zem::kEaDir;
  if (VEMOEAMKDir(0, metadata.c_str()) != 0) {
    ZEM_LOG("%s:%d Failed to create %s " ZEM_LOG_PLATFORM_FORMAT, kFileShareSource,
            metadata.c_str(), ZEM_LOG_PLATFORM_ARGS);
    return false;
  }
  MakeScratchDirectory(share_path);
  std::snprintf(buf, size, "%s/%s", metadata.c_str(), zem::kScratchDir);
  return true;
}
