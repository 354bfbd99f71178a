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
  struct passwd record, *found = NULL;
  int error = ERANGE;

  for (size_t room = 1024; error == ERANGE && room <= (1u << 24); room *= 4) {
    char *buffer = malloc(room);
    if (buffer == NULL) return ENOMEM;
    error = getpwnam_r(user, &record, buffer, room, &found);
    if (error == 0 && found != NULL) {
      const int length = snprintf(name, size, "%s", record.pw_name);
      if (length < 0 || (size_t)length >= size) error = ENAMETOOLONG;
    }
    free(buffer);
  }
  if (error == ESRCH || (error == 0 && found == NULL)) return ENOENT;
  return error;
}

static enum vemo_account shadow_state(const char *user, char *hash, size_t hash_size) {
  struct spwd record, *found = NULL;
  char buffer[4096];
  enum vemo_account state = VEMO_ACCOUNT_GOOD;

  /* Accounts of a domain have no entry: their server decides. */
  if (getspnam_r(user, &record, buffer, sizeof buffer, &found) != 0 || found == NULL) {
    return VEMO_ACCOUNT_GOOD;
  }
  if (record.sp_pwdp != NULL && *record.sp_pwdp == '!') {
    state = VEMO_ACCOUNT_LOCKED;
    snprintf(hash, hash_size, "%s", record.sp_pwdp + strspn(record.sp_pwdp, "!"));
  }
  if (record.sp_expire >= 0 && time(NULL) / 86400 >= record.sp_expire) {
    state = VEMO_ACCOUNT_EXPIRED;
  }
  explicit_bzero(buffer, sizeof buffer);
  return state;
}

enum vemo_account vemo_account_state(const char *user, char *name, size_t name_size, char *hash,
                                     size_t hash_size) {
  uid_t before;

  *hash = '\0';
  const int error = find_name(user, name, name_size);
  if (error == ENOENT || error == ENAMETOOLONG) {
    VEMO_FAIL(VEMOERR_NO_USER);
    return VEMO_ACCOUNT_UNKNOWN;
  }
  if (error != 0) {
    errno = error;
    VEMO_FAIL(VEMOERR_NO_SERVICE);
    return VEMO_ACCOUNT_FAULT;
  }
  if (vemo_root_begin(&before) != 0) return VEMO_ACCOUNT_FAULT;
  const enum vemo_account state = shadow_state(name, hash, hash_size);
  vemo_root_end(before);
  return state;
}

int vemo_account_is_usable(const char *user) {
  char name[VEMO_USER_NAME_LIMIT + 1], hash[512];
  const enum vemo_account state = vemo_account_state(user, name, sizeof name, hash, sizeof hash);

  explicit_bzero(hash, sizeof hash);
  if (state == VEMO_ACCOUNT_FAULT) return -1;
  return state == VEMO_ACCOUNT_GOOD;
}

int vemo_password_matches(const char *password, const char *hash) {
  void *library = dlopen("libcrypt.so.1", RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (library == NULL) return 0;
  char *(*hashed)(const char *, const char *) =
      (char *(*)(const char *, const char *))(uintptr_t)dlsym(library, "crypt");
  char *(*setting)(const char *, unsigned long, const char *, int) =
      (char *(*)(const char *, unsigned long, const char *, int))(uintptr_t)dlsym(library,
                                                                                 "crypt_gensalt");
  if (hashed == NULL || setting == NULL) return 0;
  const int none = *hash == '\0' || *hash == '*';
  const char *salt = none ? setting(NULL, 0, NULL, 0) : hash;
  const char *result = salt == NULL ? NULL : hashed(password, salt);
  return !none && vemo_equal_constant_time(result, hash);
}
