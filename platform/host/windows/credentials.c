/* Becoming a user. */
#include <vemo/credentials.h>

#include <errno.h>
#include <grp.h>
#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include "core/internal.h"

struct identity {
  uid_t uid[3]; /* real, effective, saved */
  gid_t gid[3];
  gid_t *groups;
  int group_count;
};

static int remember(struct identity *was) {
  if (getresuid(&was->uid[0], &was->uid[1], &was->uid[2]) != 0 ||
      getresgid(&was->gid[0], &was->gid[1], &was->gid[2]) != 0) {
    return -1;
  }
  was->group_count = getgroups(0, NULL);
  if (was->group_count < 0) return -1;
  was->groups = calloc((size_t)was->group_count + 1, sizeof *was->groups);
  if (was->groups == NULL) return -1;
  was->group_count = getgroups(was->group_count, was->groups);
  return was->group_count < 0 ? -1 : 0;
}

/* A process that is half of each must not go on. */
static void go_back(const struct identity *was) {
  if ((geteuid() != 0 && seteuid(0) != 0) ||
      setgroups((size_t)was->group_count, was->groups) != 0 ||
      setresgid(was->gid[0], was->gid[1], was->gid[2]) != 0 ||
      setresuid(was->uid[0], was->uid[1], was->uid[2]) != 0) {
    abort();
  }
}

static int become(const struct passwd *account, BOOL reversible) {
  const uid_t saved_uid = reversible ? 0 : account->pw_uid;
  const gid_t saved_gid = reversible ? 0 : account->pw_gid;
  uid_t uid[3];
  gid_t gid[3];

  if (initgroups(account->pw_name, account->pw_gid) != 0 ||
      setresgid(account->pw_gid, account->pw_gid, saved_gid) != 0 ||
      setresuid(account->pw_uid, account->pw_uid, saved_uid) != 0) {
    return -1;
  }
  if (getresuid(&uid[0], &uid[1], &uid[2]) != 0 || getresgid(&gid[0], &gid[1], &gid[2]) != 0) {
    return -1;
  }
  const int is_so = uid[0] == account->pw_uid && uid[1] == account->pw_uid && uid[2] == saved_uid &&
                    gid[0] == account->pw_gid && gid[1] == account->pw_gid && gid[2] == saved_gid;
  return is_so ? 0 : -1;
}

static int change(const struct passwd *account, BOOL reversible) {
  struct identity was = {.groups = NULL};

  int done = 0;
  if (remember(&was) != 0) {
    VEMO_FAIL_AS(errno, VEMOERR_INTERNAL);
  } else if (geteuid() != 0 && seteuid(0) != 0) {
    VEMO_FAIL_AS(EPERM, VEMOERR_NO_PERM);
  } else if (become(account, reversible) == 0) {
    done = 1;
  } else {
    const int error = errno;
    go_back(&was);
    VEMO_FAIL_AS(error, VEMOERR_NO_PERM);
  }
  free(was.groups);
  return done;
}

int ResetCredentialsByName(const char *name, BOOL reversible) {
  struct passwd account;
  char *texts;

  if (name == NULL || *name == '\0') {
    VEMO_FAIL_PARAM();
    return 0;
  }
  const int error = vemo_find_user(name, &account, &texts);
  if (error != 0) {
    VEMO_FAIL_AS(error, error == ENOENT ? VEMOERR_NO_USER : VEMOERR_NO_SERVICE);
    return 0;
  }
  const int done = change(&account, reversible);
  free(texts);
  return done;
}
