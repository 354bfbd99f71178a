/* The administrators' group. */
#include <errno.h>
#include <grp.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>

#include "core/internal.h"

static const char admin_group[] = "administrators";

/* Asks the name service with a buffer that grows until the record fits. ENOENT: no such record;
 * any other error is the service's. A service that cannot be reached leaves errno as it was,
 * so it is preset. */
static int find_user(const char *user, uid_t *uid, gid_t *gid) {
  struct passwd record, *found = NULL;
  int error = ERANGE;

  for (size_t size = 1024; error == ERANGE && size <= (1u << 24); size *= 4) {
    char *buffer = malloc(size);
    if (buffer == NULL) return ENOMEM;
    errno = EIO;
    error = getpwnam_r(user, &record, buffer, size, &found);
    if (error == 0 && found != NULL) {
      *uid = record.pw_uid;
      *gid = record.pw_gid;
    }
    free(buffer);
  }
  if (error == 0) return found == NULL ? ENOENT : 0;
  return error == ENOENT ? EIO : error; /* the service's own files are missing */
}

static int find_admin_group(gid_t *gid) {
  struct group record, *found = NULL;
  int error = ERANGE;

  for (size_t size = 1024; error == ERANGE && size <= (1u << 26); size *= 4) {
    char *buffer = malloc(size);
    if (buffer == NULL) return ENOMEM;
    errno = EIO;
    error = getgrnam_r(admin_group, &record, buffer, size, &found);
    if (error == 0 && found != NULL) *gid = record.gr_gid;
    free(buffer);
  }
  if (error == 0) return found == NULL ? ENOENT : 0;
  return error == ENOENT ? EIO : error; /* the service's own files are missing */
}

/* getgrouplist also sees nested groups of a domain, which no member list shows. */
static int is_in_group(const char *user, gid_t primary, gid_t group) {
  int room = 64;

  for (;;) {
    gid_t *groups = reallocarray(NULL, (size_t)room, sizeof *groups);
    if (groups == NULL) return -1;
    int count = room;
    if (getgrouplist(user, primary, groups, &count) >= 0) {
      int member = 0;
      for (int i = 0; i < count; i++)
        member |= groups[i] == group;
      free(groups);
      return member;
    }
    free(groups);
    if (room > 1 << 20) return -1;
    room = count > room ? count : room * 2;
  }
}

static int is_admin(const char *user) {
  uid_t uid;
  gid_t primary, group;

  int error = find_user(user, &uid, &primary);
  if (error == ENOENT) {
    VEMO_FAIL_AS(ENOENT, VEMOERR_NO_USER);
    return -1;
  }
  if (error != 0) goto no_service;
  if (uid == 0) return 1;
  error = find_admin_group(&group);
  if (error == ENOENT) return 0;
  if (error != 0) goto no_service;
  const int member = is_in_group(user, primary, group);
  if (member < 0) {
    VEMO_FAIL(VEMOERR_NO_MEMORY);
  }
  return member;

no_service:
  VEMO_FAIL_AS(error, VEMOERR_NO_SERVICE);
  return -1;
}

struct answer {
  struct answer *next;
  int member;
  char user[];
};

static struct answer *answers;

int VLIBGroupIsAdminGroupMem(const char *user, int reserved) {
  (void)reserved;
  if (user == NULL || *user == '\0') {
    VEMO_FAIL_PARAM();
    return -1;
  }
  for (const struct answer *known = answers; known != NULL; known = known->next) {
    if (strcmp(known->user, user) == 0) return known->member;
  }
  const int member = is_admin(user);
  if (member < 0) return -1;
  struct answer *answer = malloc(sizeof *answer + strlen(user) + 1);
  if (answer != NULL) {
    answer->next = answers;
    answer->member = member;
    memcpy(answer->user, user, strlen(user) + 1);
    answers = answer;
  }
  return member;
}
