/* The state of an account. */
#include "cgi/account.h"

#include <dlfcn.h>
#include <errno.h>
#include <pwd.h>
#include <shadow.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "cgi/session.h"
#include "cgi/state.h"

/* 0 found, ENOENT, or another error of the name service. */
static int find_name(const char *user, char *name, size_t size) {
  struct passwd record;
  char *buffer;

  int error = vemo_find_user(user, &record, &buffer);
  if (error == 0) {
    const int length = snprintf(name, size, "%s", record.pw_name);
    if (length < 0 || (size_t)length >= size) error = ENOENT;
  }
  free(buffer);
  return error;
}

/* A day number as shadow(5) counts them; -1 is "never". */
static int has_passed(const struct spwd *record) {
  const long today = (long)(time(NULL) / 86400);

  if (record->sp_expire >= 0 && today >= record->sp_expire) return 1;
  /* The password is older than it may become, and the grace is over too. */
  return record->sp_lstchg > 0 && record->sp_max >= 0 && record->sp_inact >= 0 &&
         today > record->sp_lstchg + record->sp_max + record->sp_inact;
}

/* The password and the date of an account that is there. 1 good, 0 disabled. */
static int judge_shadow(const struct spwd *record, struct vemo_password *password) {
  const char *stored = record->sp_pwdp == NULL ? "" : record->sp_pwdp;
  const char *hash = stored + strspn(stored, "!");
  /* "!" and "*" alone are no lock: the account never had a password, and comes in
   * by single sign-on. */
  const int locked = *stored == '!' && *hash != '\0' && *hash != '*';

  password->unchecked = *stored == '\0' || *stored == '!' || *stored == '*';
  if (locked) snprintf(password->hash, sizeof password->hash, "%s", hash);
  return !locked && !has_passed(record);
}

static enum vemo_account shadow_state(const char *user, struct vemo_password *password) {
  struct spwd record, *found = NULL;
  char buffer[8192];

  const int error = getspnam_r(user, &record, buffer, sizeof buffer, &found);
  if (error != 0 && error != ENOENT && error != ESRCH) {
    errno = error;
    VEMO_FAIL(VEMOERR_NO_SERVICE);
    return VEMO_ACCOUNT_FAULT;
  }
  /* Accounts of a domain have no entry: their server decides. */
  if (found == NULL) return VEMO_ACCOUNT_GOOD;
  const int good = judge_shadow(&record, password);
  explicit_bzero(buffer, sizeof buffer);
  return good ? VEMO_ACCOUNT_GOOD : VEMO_ACCOUNT_DISABLED;
}

enum vemo_account vemo_account_state(const char *user, char *name, size_t name_size,
                                     struct vemo_password *password) {
  struct vemo_password unasked;
  uid_t before;

  if (password == NULL) password = &unasked;
  *password = (struct vemo_password){.unchecked = 1, .hash = ""};
  const int error = find_name(user, name, name_size);
  if (error != 0) {
    *name = '\0';
    errno = error;
    VEMO_FAIL(error == ENOENT ? VEMOERR_NO_USER : VEMOERR_NO_SERVICE);
    return error == ENOENT ? VEMO_ACCOUNT_UNKNOWN : VEMO_ACCOUNT_FAULT;
  }
  password->unchecked = 0;
  if (vemo_root_begin(&before) != 0) return VEMO_ACCOUNT_FAULT;
  const enum vemo_account state = shadow_state(name, password);
  vemo_root_end(before);
  explicit_bzero(&unasked, sizeof unasked);
  return state;
}

int vemo_account_is_usable(const char *user) {
  char name[VEMO_USER_NAME_LIMIT + 1];
  const enum vemo_account state = vemo_account_state(user, name, sizeof name, NULL);

  if (state == VEMO_ACCOUNT_FAULT) return -1;
  return state == VEMO_ACCOUNT_GOOD;
}

typedef char *(*crypt_function)(const char *password, const char *setting);
typedef char *(*salt_function)(const char *prefix, unsigned long cost, const char *bytes, int size);

int vemo_password_matches(const char *password, const char *hash) {
  void *library = dlopen("libcrypt.so.1", RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (library == NULL) return 0;
  const crypt_function hashed = (crypt_function)(uintptr_t)dlsym(library, "crypt");
  const salt_function new_salt = (salt_function)(uintptr_t)dlsym(library, "crypt_gensalt");
  if (hashed == NULL || new_salt == NULL) return 0;
  const int none = *hash == '\0';
  const char *setting = none ? new_salt(NULL, 0, NULL, 0) : hash;
  const char *result = setting == NULL ? NULL : hashed(password, setting);
  return !none && vemo_equal_constant_time(result, hash);
}
