// The registry of shares: whatever stands in smb.conf, shares are found by their names and
// paths, and rights are one of four answers.
#include <vemo/core.h>
#include <vemo/share.h>

#include <cstring>

#include "fuzz/input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::WriteFile("/etc/samba/smb.conf", data, size, 0644);
  VEMOSZLIST* names = nullptr;
  const int count = VEMOShareEnum(&names);
  for (int i = 0; i < count; i++) {
    const char* name = VLIBCSzListGet(names, i);
    VEMOSHARE* share = nullptr;
    fuzz::Require(VEMOShareGet(name, &share) == 0);
    fuzz::Require(strcasecmp(share->name, name) == 0 && share->path[0] == '/');
    const int privilege = VEMOShareUserPrivGet("root", share);
    fuzz::Require(privilege >= 0 && privilege <= 2);
    char found[4096], path[4096];
    const bool plain = strstr(share->path, "/.") == nullptr;
    if (plain && VEMOShareNamePathGet(share->path, found, sizeof found, path, sizeof path) == 0) {
      fuzz::Require(strcmp(path, share->path) == 0);
    }
    VEMOShareFree(share);
  }
  VLIBCSzListFree(names);
  return 0;
}
