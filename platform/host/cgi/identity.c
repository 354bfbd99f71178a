/* The identity of a session's user. */
#include <errno.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "cgi/session.h"
#include "cgi/state.h"

/* An answer that was given: the session's file is root's, and cannot be read any more once
 * the process has become the user. */
struct known {
  struct known *next;
  char session[VEMO_SESSION_ID_SIZE + 1];
  char user[VEMO_USER_NAME_LIMIT + 1];
  uid_t uid;
  gid_t gid;
};

static struct known *answers;

static const struct known *recall(const char *session, const char *user) {
  for (const struct known *known = answers; known != NULL; known = known->next) {
    if (strcmp(known->session, session) == 0 && strcmp(known->user, user) == 0) return known;
  }
  return NULL;
}

/* Whether the session is that user's, and still goes on. */
static int is_of_user(const char *session, const char *user) {
  struct vemo_cgi_session record;

  const int found = vemo_session_read(session, &record);
  if (found < 0) return 0; /* recorded */
  if (found == 1 && !vemo_session_is_over(&record) && strcmp(record.user, user) == 0) return 1;
  VEMO_FAIL_AS(EACCES, VEMOERR_NO_PERM);
  return 0;
}

static struct known *look_up(const char *session, const char *user) {
  struct passwd record;
  char *buffer;

  if (!is_of_user(session, user)) return NULL;
  const int error = vemo_find_user(user, &record, &buffer);
  free(buffer); /* its numbers are all that is needed */
  if (error != 0) {
    VEMO_FAIL_AS(error, error == ENOENT ? VEMOERR_NO_USER : VEMOERR_NO_SERVICE);
    return NULL;
  }
  /* To callers it means that there is none, to the kernel "unchanged". */
  if (record.pw_uid == (uid_t)-1 || record.pw_gid == (gid_t)-1) {
    VEMO_FAIL_AS(EINVAL, VEMOERR_NO_USER);
    return NULL;
  }
  struct known *known = calloc(1, sizeof *known);
  if (known == NULL) {
    VEMO_FAIL(VEMOERR_NO_MEMORY);
    return NULL;
  }
  /* Both fit: they were equal to the record's. */
  snprintf(known->session, sizeof known->session, "%s", session);
  snprintf(known->user, sizeof known->user, "%s", user);
  known->uid = record.pw_uid;
  known->gid = record.pw_gid;
  known->next = answers;
  answers = known;
  return known;
}

static const struct known *identity_of(const char *session, const char *user) {
  if (session == NULL || user == NULL || *user == '\0' || strlen(session) != VEMO_SESSION_ID_SIZE ||
      strlen(user) > VEMO_USER_NAME_LIMIT) {
    VEMO_FAIL_PARAM();
    return NULL;
  }
  const struct known *known = recall(session, user);
  return known != NULL ? known : look_up(session, user);
}

gid_t VemoCgiGIDGet(const char *session, const char *user) {
  const struct known *known = identity_of(session, user);

  return known == NULL ? (gid_t)-1 : known->gid;
}

uid_t VemoCgiUIDGet(const char *session, const char *user) {
  const struct known *known = identity_of(session, user);

  return known == NULL ? (uid_t)-1 : known->uid;
}

static int refused(void) {
  VEMO_FAIL_AS(EPERM, VEMOERR_NO_PERM);
  return -1;
}

/* The id that a switch is to reach; -1 there is none. Administrators act as root. */
static uid_t target_of(const char *session, const char *user) {
  const uid_t uid = VemoCgiUIDGet(session, user);
  if (uid == (uid_t)-1) return uid;
  const int admin = VLIBGroupIsAdminGroupMem(user, 0);
  if (admin < 0) return (uid_t)-1;
  return admin == 1 ? 0 : uid;
}

int VemoCgiGidSet(const char *session, const char *user) {
  gid_t real, effective, saved;

  const gid_t gid = VemoCgiGIDGet(session, user);
  if (gid == (gid_t)-1) return -1;
  if (setresgid(gid, gid, gid) != 0 || getresgid(&real, &effective, &saved) != 0) return refused();
  return real == gid && effective == gid && saved == gid ? 0 : refused();
}

int VemoCgiUidSet(const char *session, const char *user) {
  uid_t real, effective, saved;

  const uid_t uid = target_of(session, user);
  if (uid == (uid_t)-1) return -1;
  if (setresuid(uid, uid, uid) != 0 || getresuid(&real, &effective, &saved) != 0) return refused();
  return real == uid && effective == uid && saved == uid ? 0 : refused();
}

int VemoCgiEGidSet(const char *session, const char *user) {
  const gid_t gid = VemoCgiGIDGet(session, user);

  if (gid == (gid_t)-1) return -1;
  return setegid(gid) == 0 && getegid() == gid ? 0 : refused();
}

int VemoCgiEUidSet(const char *session, const char *user) {
  const uid_t uid = target_of(session, user);

  if (uid == (uid_t)-1) return -1;
  return seteuid(uid) == 0 && geteuid() == uid ? 0 : refused();
}
