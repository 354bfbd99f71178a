// The registry of shares: whatever the file says, shares are well formed and found again by
// their names and paths, and rights have a reason.
#include <sched.h>
#include <sys/mount.h>
#include <vemo/share.h>

#include <cstring>

#include "fuzz/input.h"

namespace {

// The file has a place of its own, which only this process sees.
bool CoverTheRealOne() {
  return unshare(CLONE_NEWNS) == 0 &&
         mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("none", "/etc/samba", "tmpfs", 0, nullptr) == 0;
}

bool IsPlainPath(const char* path) {
  const size_t size = strlen(path);
  const std::string parts = std::string(path) + "/";
  return *path == '/' && (size == 1 || path[size - 1] != '/') &&
         (size == 1 || parts.find("//") == std::string::npos) &&
         parts.find("/./") == std::string::npos && parts.find("/../") == std::string::npos;
}

void CheckRights(const VEMOSHARE* share) {
  static const char* const reasons[] = {"invalid users", "valid users", "read only",
                                        "read list",     "write list",  "homes"};
  for (const char* user : {"root", "alice"}) {
    char reason[32] = "";
    const int privilege = VEMOShareUserPrivReasonGet(user, share, reason, sizeof reason);
    if (privilege < 0) continue;  // no such account here
    fuzz::Require(privilege <= VEMOSHARE_PRIV_RW);
    bool known = false;
    for (const char* one : reasons)
      known |= strcmp(reason, one) == 0;
    fuzz::Require(known);
    fuzz::Require(VEMOShareUserPrivGet(user, share) == privilege);
  }
}

void CheckShare(const char* name, bool with_rights) {
  char at_name[4096], at_path[4096];
  VEMOSHARE* share = nullptr;
  fuzz::Require(VEMOShareGet(name, &share) == 0 && strcmp(share->name, name) == 0);
  fuzz::Require(IsPlainPath(share->path));
  fuzz::Require((share->status & ~unsigned{VEMOSHARE_STATUS_ENCRYPTED}) == 0);
  fuzz::Require(
      VEMOShareNamePathGet(share->path, at_name, sizeof at_name, at_path, sizeof at_path) == 0);
  fuzz::Require(strcmp(at_path, share->path) == 0);
  int hide = -1;
  fuzz::Require(VLIBShareHideUnreadableGet(share, &hide) == 0 && (hide == 0 || hide == 1));
  if (with_rights) CheckRights(share);
  VEMOShareFree(share);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool covered = CoverTheRealOne();
  fuzz::Require(covered);
  fuzz::WriteFile("/etc/samba/smb.conf", data, size, 0644);

  VLIBCErrSetEx(VEMOERR_NONE, "", 0);
  VEMOSZLIST* names = nullptr;
  const int count = VEMOShareEnum(&names);
  fuzz::Require(count >= 0 || VLIBCErrGet() == VEMOERR_FORMAT);
  for (int i = 0; i < count && i < 20; i++)
    CheckShare(VLIBCSzListGet(names, i), i < 3);
  VLIBCSzListFree(names);
  return 0;
}
