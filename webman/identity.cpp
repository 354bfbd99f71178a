// The request object: the identity of the login user.

#include <grp.h>
#include <syslog.h>
#include <unistd.h>

#include "common/log.h"
#include "webman/names.h"
#include "webman/webman.h"

// Who acts as whom is for the authorization log.
#define ZEM_LOG_IDENTITY(format, ...) \
  syslog(LOG_AUTH | LOG_ERR, format, zem::kWebmanSource, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

int WebMan::SetEGid(const char* sessionId, const char* user) {
  if (sessionId == nullptr || user == nullptr) {
    ZEM_LOG_IDENTITY("%s(%d) bad parameter");
    return -1;
  }
  const gid_t group = VemoCgiGIDGet(sessionId, user);
  if (group == static_cast<gid_t>(-1)) return -1;
  [[maybe_unused]] const int result = setegid(group);
  return 0;
}

int WebMan::SetEUid(const char* sessionId, const char* user) {
  if (sessionId == nullptr || user == nullptr) {
    ZEM_LOG_IDENTITY("%s(%d) bad parameter");
    return -1;
  }
  const int member = VLIBGroupIsAdminGroupMem(user, 0);
  if (member < 0) {
    ZEM_LOG_IDENTITY("%s:%d VLIBGroupIsAdminGroupMem(%s) failed. " ZEM_LOG_PLATFORM_FORMAT, user,
                     ZEM_LOG_PLATFORM_ARGS);
    return -1;
  }
  uid_t id = 0;
  if (member != 1) id = VemoCgiUIDGet(sessionId, user);
  if (id == static_cast<uid_t>(-1)) return -1;
  [[maybe_unused]] const int result = seteuid(id);
  return 0;
}

int WebMan::SwitchIdentity(int (*setGroup)(const char*, const char*),
                           int (*setUser)(const char*, const char*)) {
  const char* id = GetSessionID();
  if (id == nullptr) {
    ZEM_LOG_IDENTITY("%s(%d) bad parameter");
    return -1;
  }
  const gid_t group = VemoCgiGIDGet(id, user_name_);
  if (group == static_cast<gid_t>(-1)) {
    ZEM_LOG_IDENTITY("%s(%d) failed to get GID for user=%s, sid=%s", user_name_, id);
    return -1;
  }
  if (initgroups(user_name_, group) != 0) {
    ZEM_LOG_IDENTITY("%s(%d) failed to initgroup for user=%s, sid=%s", user_name_, id);
  }
  // The group first: a user who is not root cannot change it.
  if (setGroup(id, user_name_) < 0) {
    ZEM_LOG_IDENTITY("%s(%d) failed to set GID for user=%s, sid=%s", user_name_, id);
    return -1;
  }
  if (setUser(id, user_name_) < 0) {
    ZEM_LOG_IDENTITY("%s(%d) failed to set UID for user=%s, sid=%s", user_name_, id);
    return -1;
  }
  return 0;
}

int WebMan::setEUGID() { return SwitchIdentity(SetEGid, SetEUid); }

int WebMan::setUGID() { return SwitchIdentity(VemoCgiGidSet, VemoCgiUidSet); }
