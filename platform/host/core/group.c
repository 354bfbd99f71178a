/* The administrators' group. */
#include <errno.h>
#include <grp.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>

#include "core/internal.h"

static const char admin_group[] = "administrators";

static int find_admin_group(gid_t *gid) {
  struct group record;
  char *buffer;

  const int error = vemo_find_group(admin_group, &record, &buffer);
  if (error == 0) *gid = record.gr_gid;
  free(buffer);
  return error;
}

static int is_admin(const char *user) {
  struct passwd record;
  char *buffer;
  gid_t group;

  int error = vemo_find_user(user, &record, &buffer);
  free(buffer); /* its numbers are all that is needed */
  if (error == ENOENT) {
    VEMO_FAIL_AS(ENOENT, VEMOERR_NO_USER);
    return -1;
  }
  if (error != 0) goto no_service;
  if (record.pw_uid == 0) return 1;
  error = find_admin_group(&group);
  if (error == ENOENT) return 0;
  if (error != 0) goto no_service;
  const int member = vemo_is_in_group(user, record.pw_gid, group);
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
