/* Accounts and groups, with buffers that grow until the record fits. */
#include <errno.h>
#include <grp.h>
#include <pwd.h>
#include <stdlib.h>

#include "core/internal.h"

enum { FIRST_SIZE = 1024, LAST_SIZE = 1 << 26 };

/* What the service said, as 0, ENOENT or its own error. One that cannot be reached leaves
 * errno as it was, so it is preset before it is asked. */
static int outcome(int error, int found) {
  if (error == 0) return found ? 0 : ENOENT;
  return error == ENOENT ? EIO : error; /* the service's own files are missing */
}

int vemo_find_user(const char *name, struct passwd *record, char **buffer) {
  struct passwd *found = NULL;
  int error = ERANGE;

  *buffer = NULL;
  for (size_t size = FIRST_SIZE; error == ERANGE && size <= LAST_SIZE; size *= 4) {
    free(*buffer);
    *buffer = malloc(size);
    if (*buffer == NULL) return ENOMEM;
    errno = EIO;
    error = getpwnam_r(name, record, *buffer, size, &found);
  }
  error = outcome(error, found != NULL);
  if (error != 0) {
    free(*buffer);
    *buffer = NULL;
  }
  return error;
}

int vemo_find_group(const char *name, struct group *record, char **buffer) {
  struct group *found = NULL;
  int error = ERANGE;

  *buffer = NULL;
  for (size_t size = FIRST_SIZE; error == ERANGE && size <= LAST_SIZE; size *= 4) {
    free(*buffer);
    *buffer = malloc(size);
    if (*buffer == NULL) return ENOMEM;
    errno = EIO;
    error = getgrnam_r(name, record, *buffer, size, &found);
  }
  error = outcome(error, found != NULL);
  if (error != 0) {
    free(*buffer);
    *buffer = NULL;
  }
  return error;
}

/* getgrouplist also sees nested groups of a domain, which no member list shows. */
int vemo_is_in_group(const char *user, gid_t primary, gid_t group) {
  int count = 64, found = 0;

  for (;;) {
    const int room = count;
    gid_t *groups = malloc((size_t)room * sizeof *groups);
    if (groups == NULL) return -1;
    const int all = getgrouplist(user, primary, groups, &count) >= 0;
    for (int i = 0; all && i < count; i++)
      found |= groups[i] == group;
    free(groups);
    if (all) return found;
    if (count <= room) return -1;
  }
}
