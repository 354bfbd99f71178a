/* One-time codes. */
#include "cgi/otp.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "cgi/account.h"
#include "cgi/state.h"

#define OTP_DIR "/usr/vemo/etc/otp"

enum {
  STEP_SECONDS = 30,
  WINDOW_STEPS = 1, /* before and after: clocks differ, and people type */
  LOCK_SECONDS = 5,
  SECRET_MIN = 16,   /* characters: 80 bits */
  RECOVERY_MAX = 16, /* each costs the work of a hash */
  CODE_LIMIT = 64
};

struct oath_calls {
  int (*init)(void);
  int (*base32_decode)(const char *, size_t, char **, size_t *);
  int (*totp_validate3)(const char *, size_t, time_t, unsigned, time_t, size_t, int *, uint64_t *,
                        const char *);
};

static int open_oath(struct oath_calls *oath) {
  void *library = dlopen("liboath.so.0", RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);

  if (library == NULL || vemo_find_function(library, "oath_init", &oath->init) ||
      vemo_find_function(library, "oath_base32_decode", &oath->base32_decode) ||
      vemo_find_function(library, "oath_totp_validate3", &oath->totp_validate3) ||
      oath->init() != 0) {
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

/* 1 there, root's, without the rights of `forbidden`; 0 not there; -1. */
static int examine(const char *path, mode_t kind, mode_t forbidden, struct stat *status) {
  if (lstat(path, status) != 0) {
    if (errno == ENOENT) return 0;
    VEMO_FAIL_ERRNO();
    return -1;
  }
  if ((status->st_mode & S_IFMT) == kind && status->st_uid == 0 &&
      (status->st_mode & forbidden) == 0) {
    return 1;
  }
  errno = EACCES;
  VEMO_FAIL(VEMOERR_NO_PERM);
  return -1;
}

/* The account's file. A directory that others can write may have lost it. */
static int find_file(const char *user, char *path, size_t size, struct stat *status) {
  if (path_of(user, path, size) != 0) return -1;
  const int there = examine(OTP_DIR, S_IFDIR, 022, status);
  return there == 1 ? examine(path, S_IFREG, 077, status) : there;
}

int vemo_otp_enrolled(const char *user) {
  char path[512];
  struct stat status;
  uid_t before;

  if (vemo_root_begin(&before) != 0) return -1;
  const int result = find_file(user, path, sizeof path, &status);
  vemo_root_end(before);
  return result;
}

static int is_broken(void) {
  errno = EINVAL;
  VEMO_FAIL(VEMOERR_FORMAT);
  return -1;
}

/* 1, and the code's step, when it is right and later than the last used; 0; -1. */
static int match_code(const char *secret, const char *code, uint64_t last, uint64_t *step) {
  struct oath_calls oath;
  char *key = NULL;
  size_t key_size = 0;
  int position;

  if (strlen(secret) < SECRET_MIN) return is_broken();
  if (open_oath(&oath) != 0) return -1;
  if (oath.base32_decode(secret, strlen(secret), &key, &key_size) != 0) return is_broken();
  const int found = oath.totp_validate3(key, key_size, time(NULL), STEP_SECONDS, 0, WINDOW_STEPS,
                                        &position, step, code);
  explicit_bzero(key, key_size);
  free(key);
  return found >= 0 && *step > last;
}

/* Takes the hash that the code matches out of the list. 1; 0 there is none; -1. */
static int take_recovery_code(char *hashes, const char *code) {
  char *at = hashes + strspn(hashes, " ");

  for (int i = 0; *at != '\0' && i < RECOVERY_MAX; i++) {
    const size_t size = strcspn(at, " ");
    const size_t whole = size + strspn(at + size, " ");
    char *hash = strndup(at, size);
    if (hash == NULL) return -1;
    /* Only a hash with its method and salt: never a word as it is. */
    const int matches = *hash == '$' && vemo_password_matches(code, hash);
    free(hash);
    if (matches) {
      memmove(at, at + whole, strlen(at + whole) + 1);
      return 1;
    }
    at += whole;
  }
  return 0;
}

static int append_pair(const char *key, const char *value, void *data) {
  FILE *text = data;

  fprintf(text, "%s=\"", key);
  for (; *value != '\0'; value++) {
    if (*value == '"' || *value == '\\') putc('\\', text);
    putc(*value, text);
  }
  return fputs("\"\n", text) == EOF;
}

/* Stores the pairs with one of them changed. 0; -1, and everything as before. */
static int store(const char *path, VEMOSZHASH *pairs, const char *key, const char *value,
                 const struct stat *status) {
  char *text = NULL;
  size_t size = 0;

  if (vemo_hash_set(pairs, key, strlen(key), value, strlen(value), 0) != 0) return -1;
  FILE *stream = open_memstream(&text, &size);
  int failed = stream == NULL || vemo_hash_each(pairs, append_pair, stream) != 0;
  if (stream != NULL) failed |= fclose(stream) != 0;
  if (failed) {
    VEMO_FAIL(VEMOERR_NO_MEMORY);
  } else {
    /* The common writer's temporary name could be another account's. */
    failed = vemo_write_file_as(path, OTP_DIR "/.new", text, size, status->st_mode & 0777, 0,
                                status->st_gid) != 0;
  }
  if (text != NULL) explicit_bzero(text, size);
  free(text);
  return failed ? -1 : 0;
}

static const char *value_of(const VEMOSZHASH *pairs, const char *key) {
  const char *value = VLIBCSzHashGetValue(pairs, key);

  return value == NULL ? "" : value;
}

static int is_totp(const char *code) {
  return strlen(code) == 6 && strspn(code, "0123456789") == 6;
}

static int spend_totp(const char *path, VEMOSZHASH *pairs, const char *code,
                      const struct stat *status) {
  const char *used = value_of(pairs, "last");
  uint64_t step = 0;
  char text[32];

  /* A number that cannot be read must not make used codes new again. */
  if (strlen(used) > 18 || used[strspn(used, "0123456789")] != '\0') return is_broken();
  const int matches = match_code(value_of(pairs, "secret"), code, strtoull(used, NULL, 10), &step);
  if (matches != 1) return matches;
  snprintf(text, sizeof text, "%llu", (unsigned long long)step);
  return store(path, pairs, "last", text, status) == 0 ? 1 : -1;
}

static int spend_recovery_code(const char *path, VEMOSZHASH *pairs, const char *code,
                               const struct stat *status) {
  char *hashes = strdup(value_of(pairs, "recovery"));

  if (hashes == NULL) {
    VEMO_FAIL(VEMOERR_NO_MEMORY);
    return -1;
  }
  int result = take_recovery_code(hashes, code);
  if (result == 1 && store(path, pairs, "recovery", hashes, status) != 0) result = -1;
  free(hashes);
  return result;
}

/* Checks the code and stores that it is spent before anybody hears of it. */
static int spend(const char *path, const char *code, const struct stat *status) {
  VEMOSZHASH *pairs = VLIBCSzHashAlloc(8);
  int result = -1;

  if (pairs != NULL && VLIBCFileGetPair(path, pairs) >= 0) {
    result = is_totp(code) ? spend_totp(path, pairs, code, status)
                           : spend_recovery_code(path, pairs, code, status);
  }
  VLIBCSzHashFree(pairs);
  return result;
}

/* One lock for all accounts, root's alone: who could open it could hold it. */
static int lock_codes(int *fd) {
  static const char path[] = OTP_DIR "/.lock";

  const int made = open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600);
  if (made < 0) {
    VEMO_FAIL_ERRNO();
    return -1;
  }
  close(made);
  return VLIBCFileLockTimeByFile(path, 1, LOCK_SECONDS, fd) ? 0 : -1;
}

static int check_as_root(const char *user, const char *code) {
  char path[512];
  struct stat status;
  int fd;

  const int there = find_file(user, path, sizeof path, &status);
  if (there != 1) return there;
  if (VLIBCSigtermHold() != 0) return -1;
  int result = -1;
  if (lock_codes(&fd) == 0) {
    result = spend(path, code, &status);
    const int kept = errno;
    VLIBCFileUnlockByFile(fd);
    errno = kept;
  }
  VLIBCSigtermRelease();
  return result;
}

int vemo_otp_check(const char *user, const char *code) {
  uid_t before;

  if (code == NULL || *code == '\0' || strlen(code) > CODE_LIMIT) return 0;
  if (vemo_root_begin(&before) != 0) return -1;
  const int result = check_as_root(user, code);
  vemo_root_end(before);
  return result;
}
