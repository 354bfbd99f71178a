#include "programs/confinement.h"

#include <grp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <vemo/user.h>

#include <cerrno>
#include <cstring>

namespace program {
namespace {

constexpr int kTurns = 2;
constexpr int kTurnSeconds = 10;

struct Limit {
  __rlimit_resource resource;
  rlim_t value;
};

constexpr Limit kLimits[] = {
    {RLIMIT_AS, rlim_t{1} << 30},
    {RLIMIT_CPU, 30},
    {RLIMIT_FSIZE, rlim_t{64} << 20},
    {RLIMIT_CORE, 0},
    {RLIMIT_NOFILE, 64},
};

bool SetLimits() {
  for (const Limit& limit : kLimits) {
    const rlimit both = {limit.value, limit.value};
    if (setrlimit(limit.resource, &both) != 0) return false;
  }
  return true;
}

// Numbers of capabilities end where the kernel knows no further one.
bool DropCapabilitiesOfChildren() {
  for (unsigned long number = 0; prctl(PR_CAPBSET_READ, number, 0, 0, 0) >= 0; number++) {
    if (prctl(PR_CAPBSET_DROP, number, 0, 0, 0) != 0) return false;
  }
  return true;
}

}  // namespace

bool PrepareAppearanceState() {
  struct stat status;
  if (mkdir(kAppearanceState, 0700) != 0 && errno != EEXIST) return false;
  return lstat(kAppearanceState, &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == 0;
}

ToolTurn::ToolTurn() {
  // Both are looked at once; then a second is spent at each in turns.
  for (int attempt = 0; attempt < kTurns + kTurnSeconds && !taken(); attempt++) {
    const std::string path = kAppearanceState + ("/tool" + std::to_string(attempt % kTurns));
    turn_ = std::make_unique<Turn>(path, attempt < kTurns ? 0 : 1);
  }
}

bool ConfineTools() {
  if (unshare(CLONE_NEWNET) == 0 && SetLimits() && prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
      DropCapabilitiesOfChildren())
    return true;
  syslog(LOG_ERR, "appearance.cgi: no picture is worked on, its tool cannot be confined: %s",
         std::strerror(errno));
  return false;
}

bool ActAsAccount(const std::string& user) {
  VEMOUSER* account = nullptr;
  if (VEMOUserGet(user.c_str(), &account) != 0) return false;
  const uid_t uid = account->uid;
  const gid_t gid = account->gid;
  VEMOUserFree(account);
  const uid_t none = static_cast<uid_t>(-1);
  if (uid == none || gid == static_cast<gid_t>(-1)) return false;
  return initgroups(user.c_str(), gid) == 0 && setresgid(gid, gid, 0) == 0 &&
         setresuid(uid, uid, 0) == 0;
}

}  // namespace program
