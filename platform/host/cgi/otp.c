/* One-time codes. */
#include "cgi/otp.h"

#include <dlfcn.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "cgi/account.h"
#include "cgi/state.h"

#define OTP_DIR "/usr/vemo/etc/otp"

enum { STEP_SECONDS = 30, WINDOW_STEPS = 1, LOCK_SECONDS = 5, SECRET_MIN = 16 };

struct oath_calls {
  int (*init)(void);
  int (*base32_decode)(const char *, size_t, char **, size_t *);
  int (*totp_validate3)(const char *, size_t, time_t, unsigned, time_t, size_t, int *, uint64_t *,
                        const char *);
};

static int find(void *library, const char *name, void *function) {
  void *found = dlsym(library, name);

  memcpy(function, &found, sizeof found);
  return found == NULL;
}

static int open_oath(struct oath_calls *oath) {
  void *library = dlopen("liboath.so.0", RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);

  if (library == NULL || find(library, "oath_init", &oath->init) ||
      find(library, "oath_base32_decode", &oath->base32_decode) ||
      find(library, "oath_totp_validate3", &oath->totp_validate3) || oath->init() != 0) {
    VEMO_FAIL(VEMOERR_NO_SERVICE);
    return -1;
  }
  return 0;
}

static int path_of(const char *user, char *buffer, size_t size) {
  char part[256];

  if (vemo_name_part(user, part, sizeof part) != 0) return -1;
  const int length = snprintf(buffer, size, OTP_DIR "/%s", part);
  return length < 0 || (size_t)length >= size ? -1 : 0;
}

/* 1 there, and root's alone; 0 not there; -1 not to be trusted. */
static int examine(const char *path) {
  struct stat status;

  if (lstat(path, &status) != 0) {
    if (errno == ENOENT) return 0;
    VEMO_FAIL_ERRNO();
    return -1;
  }
  if (S_ISREG(status.st_mode) && status.st_uid == 0 && (status.st_mode & 077) == 0) return 1;
  VEMO_FAIL(VEMOERR_NO_PERM);
  return -1;
}

static int enrolled_as_root(const char *user) {
  char path[512];

  return path_of(user, path, sizeof path) != 0 ? -1 : examine(path);
}

int vemo_otp_enrolled(const char *user) {
  uid_t before;

  if (vemo_root_begin(&before) != 0) return -1;
  const int result = enrolled_as_root(user);
  vemo_root_end(before);
  return result;
}

/* The step of the code, when it is right and later than the last used. */
static int match_code(const char *secret, const char *code, uint64_t last, uint64_t *step) {
  struct oath_calls oath;
  char *key = NULL;
  size_t key_size = 0;
  int position;

  if (strlen(secret) < SECRET_MIN || open_oath(&oath) != 0) return -1;
  if (oath.base32_decode(secret, strlen(secret), &key, &key_size) != 0) {
    VEMO_FAIL(VEMOERR_FORMAT);
    return -1;
  }
  const int found = oath.totp_validate3(key, key_size, time(NULL), STEP_SECONDS, 0, WINDOW_STEPS,
                                        &position, step, code);
  explicit_bzero(key, key_size);
  free(key);
  return found >= 0 && *step > last;
}

/* Takes the hash that the code matches out of the list. 1 found; 0. */
static int take_recovery_code(char *hashes, const char *code) {
  for (char *at = hashes; *at != '\0';) {
    at += strspn(at, " ");
    const size_t size = strcspn(at, " ");
    char *hash = strndup(at, size);
    const int matches = hash != NULL && size > 0 && vemo_password_matches(code, hash);
    free(hash);
    if (matches) {
      memmove(at, at + size, strlen(at + size) + 1);
      return 1;
    }
    at += size;
  }
  return 0;
}

static const char *value_of(const VEMOSZHASH *pairs, const char *key) {
  const char *value = VLIBCSzHashGetValue(pairs, key);

  return value == NULL ? "" : value;
}

static int is_totp(const char *code) {
  return strlen(code) == 6 && strspn(code, "0123456789") == 6;
}

/* Checks the code and stores that it is spent before anybody hears of it. */
static int spend(const char *path, const VEMOSZHASH *pairs, const char *code) {
  const uint64_t last = strtoull(value_of(pairs, "last"), NULL, 10);
  uint64_t step = 0;
  char text[32];

  if (is_totp(code)) {
    const int matches = match_code(value_of(pairs, "secret"), code, last, &step);
    if (matches != 1) return matches;
    snprintf(text, sizeof text, "%llu", (unsigned long long)step);
    return VLIBCFileSetKeyValue(path, "last", text) == 0 ? 1 : -1;
  }
  char *hashes = strdup(value_of(pairs, "recovery"));
  if (hashes == NULL) return -1;
  int result = take_recovery_code(hashes, code);
  if (result == 1 && VLIBCFileSetKeyValue(path, "recovery", hashes) != 0) result = -1;
  free(hashes);
  return result;
}

static int check_as_root(const char *user, const char *code) {
  char path[512], lock[528];
  int fd;

  if (path_of(user, path, sizeof path) != 0) return -1;
  const int there = examine(path);
  if (there != 1) return there;
  snprintf(lock, sizeof lock, "%s.use", path);
  if (!VLIBCFileLockTimeByFile(lock, 1, LOCK_SECONDS, &fd)) return -1;
  VEMOSZHASH *pairs = VLIBCSzHashAlloc(8);
  int result = -1;
  if (pairs != NULL && VLIBCFileGetPair(path, pairs) >= 0) result = spend(path, pairs, code);
  VLIBCSzHashFree(pairs);
  VLIBCFileUnlockByFile(fd);
  return result;
}

int vemo_otp_check(const char *user, const char *code) {
  uid_t before;

  if (code == NULL || *code == '\0' || strlen(code) > 64) return 0;
  if (vemo_root_begin(&before) != 0) return -1;
  const int result = check_as_root(user, code);
  vemo_root_end(before);
  return result;
}
