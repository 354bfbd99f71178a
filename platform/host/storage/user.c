/* Accounts and their preference directories. */
#include <vemo/user.h>

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <time.h>
#include <unistd.h>

#include "core/internal.h"
#include "storage/domain.h"

#define SETTINGS "/etc/vemoinfo.conf"
#define USER_PREFERENCES "/usr/vemo/etc/preference"
#define GROUP_PREFERENCES "/usr/vemo/etc/preference_group"

static int fail_of(int error, int unknown) {
  VEMO_FAIL_AS(error, error == ENOENT ? unknown : VEMOERR_NO_SERVICE);
  return -1;
}

/* Copies a text whole. 0; -1. */
static int put(const char *text, char *buffer, int size) {
  const size_t length = strlen(text);

  if (length >= (size_t)size) {
    VEMO_FAIL_AS(ENAMETOOLONG, VEMOERR_TOO_LONG);
    return -1;
  }
  memcpy(buffer, text, length + 1);
  return 0;
}

static int is_bad(const char *name, const char *buffer, int size) {
  if (name != NULL && *name != '\0' && buffer != NULL && size > 0) return 0;
  VEMO_FAIL_PARAM();
  return 1;
}

/* By the name as it is, then in lower case (ASCII), as people write them. */
static int find_either(const char *name, struct passwd *record, char **buffer) {
  const int error = vemo_find_user(name, record, buffer);
  if (error != ENOENT) return error;

  char *lower = strdup(name);
  if (lower == NULL) return ENOMEM;
  int changed = 0;
  for (char *c = lower; *c != '\0'; c++) {
    if (*c < 'A' || *c > 'Z') continue;
    *c = (char)(*c - 'A' + 'a');
    changed = 1;
  }
  const int again = changed ? vemo_find_user(lower, record, buffer) : ENOENT;
  free(lower);
  return again;
}

static enum vemo_user_kind kind_of(const char *name) {
  if (strchr(name, '\\') != NULL) return VEMOUSER_DOMAIN;
  return strchr(name, '@') != NULL ? VEMOUSER_DIRECTORY : VEMOUSER_LOCAL;
}

int VEMOUserGet(const char *name, VEMOUSER **user) {
  struct passwd record;
  char *buffer;

  if (user == NULL) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  *user = NULL;
  if (name == NULL || *name == '\0') {
    VEMO_FAIL_PARAM();
    return -1;
  }
  const int error = find_either(name, &record, &buffer);
  if (error != 0) return fail_of(error, VEMOERR_NO_USER);
  VEMOUSER *made = calloc(1, sizeof *made);
  if (made != NULL) {
    *made = (VEMOUSER){.name = strdup(record.pw_name),
                       .home = strdup(record.pw_dir),
                       .uid = record.pw_uid,
                       .gid = record.pw_gid,
                       .kind = kind_of(record.pw_name)};
  }
  free(buffer);
  if (made == NULL || made->name == NULL || made->home == NULL) {
    VEMOUserFree(made);
    VEMO_FAIL(VEMOERR_NO_MEMORY);
    return -1;
  }
  *user = made;
  return 0;
}

void VEMOUserFree(VEMOUSER *user) {
  if (user == NULL) return;
  free(user->name);
  free(user->home);
  free(user);
}

int VLIBUserRealNameGet(const char *name, char *buffer, int size) {
  struct passwd record;
  char *texts;

  if (is_bad(name, buffer, size)) return -1;
  const int error = vemo_find_user(name, &record, &texts);
  if (error != 0) return fail_of(error, VEMOERR_NO_USER);
  const int result = put(record.pw_name, buffer, size);
  free(texts);
  return result;
}

/* A path in the directory for a name, no matter what the name holds. */
static int path_in(const char *directory, const char *name, char *buffer, int size) {
  char part[256];

  if (vemo_name_part(name, part, sizeof part) != 0) return -1;
  const int length = snprintf(buffer, (size_t)size, "%s/%s", directory, part);
  if (length > 0 && length < size) return 0;
  VEMO_FAIL_AS(ENAMETOOLONG, VEMOERR_TOO_LONG);
  return -1;
}

/* Makes a directory with this owner and mode. 0; -1, EEXIST: something stands there. */
static int make_directory(const char *path, uid_t uid, gid_t gid, mode_t mode) {
  if (mkdir(path, 0700) != 0) return -1;
  const int fd = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return -1;
  const int result = fchown(fd, uid, gid) == 0 && fchmod(fd, mode) == 0 ? 0 : -1;
  const int kept = errno;
  close(fd);
  errno = kept;
  return result;
}

static int is_owned_directory(const char *path, uid_t uid) {
  struct stat status;

  return stat(path, &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == uid;
}

/* What an account left that had this name before: it is not the new one's, and it is kept,
 * under a name that is no account's. */
static int set_aside(const char *path) {
  const char *part = strrchr(path, '/') + 1;
  char aside[1024];

  const int length = snprintf(aside, sizeof aside, "%.*s.%lld.%s", (int)(part - path), path,
                              (long long)time(NULL), part);
  if (length < 0 || (size_t)length >= sizeof aside) return -1;
  return rename(path, aside);
}

/* Callers that get no directory take one that everybody may write: a failure here must have
 * a reason that cannot be helped. */
static int make_preferences(const char *directory, const char *path, uid_t uid, gid_t gid) {
  uid_t before;

  /* It is there on most calls, also of processes that have become the user for good. */
  if (is_owned_directory(path, uid)) return 0;
  if (vemo_root_begin(&before) != 0) return -1;
  if (make_directory(directory, 0, 0, 0755) != 0 && errno != EEXIST) goto failed;
  if (is_owned_directory(path, uid) || make_directory(path, uid, gid, 0700) == 0) goto done;
  if (errno != EEXIST || is_owned_directory(path, uid)) goto failed;
  if (set_aside(path) != 0 || make_directory(path, uid, gid, 0700) != 0) goto failed;
done:
  vemo_root_end(before);
  return 0;

failed:
  VEMO_FAIL_ERRNO();
  vemo_root_end(before);
  return -1;
}

int VEMOUserPreferenceDirGet(const char *user, char *buffer, int size) {
  struct passwd record;
  char *texts;

  if (is_bad(user, buffer, size)) return -1;
  const int error = vemo_find_user(user, &record, &texts);
  if (error != 0) return fail_of(error, VEMOERR_NO_USER);
  const int named = path_in(USER_PREFERENCES, record.pw_name, buffer, size);
  free(texts);
  if (named != 0) return -1;
  return make_preferences(USER_PREFERENCES, buffer, record.pw_uid, record.pw_gid);
}

int VEMOGroupPreferenceDirGet(const char *group, char *buffer, int size) {
  struct group record;
  char *texts;

  if (is_bad(group, buffer, size)) return -1;
  const int error = vemo_find_group(group, &record, &texts);
  if (error != 0) return fail_of(error, VEMOERR_NO_GROUP);
  const int named = path_in(GROUP_PREFERENCES, record.gr_name, buffer, size);
  free(texts);
  return named != 0 ? -1 : make_preferences(GROUP_PREFERENCES, buffer, 0, 0);
}

/* "name@dns.domain" of a domain that this machine has joined, as "DOMAIN\name". 1; 0. */
static int convert_principal(const char *typed, char *buffer, int size) {
  char domain[64];

  const char *at = strrchr(typed, '@');
  if (at == NULL || at == typed || at[1] == '\0') return 0;
  /* Without a domain nobody is asked. */
  if (vemo_domain_joined() == VEMO_DOMAIN_NONE ||
      vemo_domain_short_name(at + 1, domain, sizeof domain) != 1) {
    return 0;
  }
  const int length = snprintf(buffer, (size_t)size, "%s\\%.*s", domain, (int)(at - typed), typed);
  if (length > 0 && length < size) return 1;
  VEMO_FAIL_AS(ENAMETOOLONG, VEMOERR_TOO_LONG);
  return -1;
}

int VEMOUserLoginNameConvert(const char *typed, char *buffer, int size) {
  struct passwd record;
  char *texts;

  if (is_bad(typed, buffer, size)) return -1;
  if (strlen(typed) >= (size_t)size) {
    VEMO_FAIL_AS(ENAMETOOLONG, VEMOERR_TOO_LONG);
    return -1;
  }
  const int error = vemo_find_user(typed, &record, &texts);
  if (error == 0) {
    free(texts);
    return put(typed, buffer, size) == 0 ? 1 : -1;
  }
  const int converted = convert_principal(typed, buffer, size);
  if (converted == 0) return put(typed, buffer, size); /* as it is */
  return converted;
}

BOOL VEMOServiceUserHomeIsEnabled(enum vemo_user_kind kind) {
  const char *key = kind == VEMOUSER_DOMAIN      ? "userhome_enable_domain"
                    : kind == VEMOUSER_DIRECTORY ? "userhome_enable_directory"
                                                 : "userhome_enable";
  char value[16];

  /* What is not said of domains holds as for local users. */
  if (VLIBCFileGetKeyValue(SETTINGS, key, value, sizeof value) == 1) {
    return strcasecmp(value, "yes") == 0;
  }
  return kind != VEMOUSER_LOCAL && VEMOServiceUserHomeIsEnabled(VEMOUSER_LOCAL);
}
