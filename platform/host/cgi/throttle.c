/* Counters of failed logins: one small locked file an address, and one for each
 * account together with an address. A record makes wait, never a sleep: that would
 * hold a process for every guess. */
#include "cgi/throttle.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <time.h>
#include <unistd.h>

#include "cgi/state.h"

#define COUNTER_DIR "/run/vemo/login"

enum { FAILURES = 10, WINDOW_SECONDS = 300, WAIT_SECONDS = 300, SWEEP_ENTRIES = 2000 };

struct counter {
  long long first; /* when the window began */
  long long last;  /* the last failure */
  long count;
  int known; /* the account has logged in from this address */
};

static void path_of(const char *user, const char *address, char *buffer, size_t size) {
  char key[1024];

  /* The address cannot hold a line feed, so no two keys are the same text. */
  const int length = snprintf(key, sizeof key, "%s\n%s", address, user);
  const size_t used = length < 0 ? 0 : ((size_t)length < sizeof key ? (size_t)length : sizeof key - 1);
  snprintf(buffer, size, COUNTER_DIR "/%s%016llx", *user == '\0' ? "a" : "u",
           (unsigned long long)vemo_hash_stable(key, used));
}

static int open_counter(const char *path) {
  if (mkdir("/run/vemo", 0755) != 0 && errno != EEXIST) return -1;
  if (mkdir(COUNTER_DIR, 0700) != 0 && errno != EEXIST) return -1;
  const int fd = open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600);
  if (fd >= 0) flock(fd, LOCK_EX);
  return fd;
}

static struct counter load(int fd) {
  struct counter counter = {0, 0, 0, 0};
  char text[128];

  const ssize_t size = pread(fd, text, sizeof text - 1, 0);
  if (size <= 0) return counter;
  text[size] = '\0';
  char *at = text;
  counter.first = strtoll(at, &at, 10);
  counter.last = strtoll(at, &at, 10);
  counter.count = strtol(at, &at, 10);
  counter.known = (int)strtol(at, &at, 10);
  return counter;
}

static void store(int fd, const struct counter *counter) {
  char text[128];

  const int size = snprintf(text, sizeof text, "%lld %lld %ld %d\n", counter->first, counter->last,
                            counter->count, counter->known);
  VLIBCSigtermHold();
  if (ftruncate(fd, 0) != 0 || pwrite(fd, text, (size_t)size, 0) != size) VEMO_FAIL_ERRNO();
  VLIBCSigtermRelease();
}

static int is_full(const struct counter *counter, long long now) {
  return counter->count >= FAILURES && now - counter->last < WAIT_SECONDS;
}

/* The counter as it stands; -1 when it cannot be read. */
static int look(const char *user, const char *address, struct counter *counter) {
  char path[128];

  path_of(user, address, path, sizeof path);
  const int fd = open_counter(path);
  if (fd < 0) {
    VEMO_FAIL_ERRNO();
    return -1;
  }
  *counter = load(fd);
  close(fd);
  return 0;
}

int vemo_throttle_allows(const char *user, const char *address) {
  struct counter own, shared;
  const long long now = time(NULL);

  if (look(user, address, &own) != 0 || look("", address, &shared) != 0) return -1;
  if (is_full(&own, now)) return 0;
  return own.known || !is_full(&shared, now);
}

static void count_failure(const char *user, const char *address) {
  char path[128];
  const long long now = time(NULL);

  path_of(user, address, path, sizeof path);
  const int fd = open_counter(path);
  if (fd < 0) return;
  struct counter counter = load(fd);
  if (now - counter.first >= WINDOW_SECONDS || counter.count >= FAILURES) {
    counter.first = now;
    counter.count = 0;
  }
  counter.count++;
  counter.last = now;
  store(fd, &counter);
  close(fd);
}

/* Guesses under ever new names must not fill the file system. */
static void sweep(void) {
  DIR *directory = opendir(COUNTER_DIR);
  const time_t now = time(NULL);
  const struct dirent *entry;
  struct stat status;
  int count = 0;

  if (directory == NULL) return;
  while ((entry = readdir(directory)) != NULL) count++;
  rewinddir(directory);
  while (count > SWEEP_ENTRIES && (entry = readdir(directory)) != NULL) {
    if (*entry->d_name == '.') continue;
    if (fstatat(dirfd(directory), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        now - status.st_mtime > WINDOW_SECONDS + WAIT_SECONDS) {
      unlinkat(dirfd(directory), entry->d_name, 0);
    }
  }
  closedir(directory);
}

void vemo_throttle_failed(const char *user, const char *address) {
  struct counter own;

  count_failure(user, address);
  /* The owner's slips do not count against the neighbours. */
  if (look(user, address, &own) == 0 && !own.known) count_failure("", address);
  sweep();
}

void vemo_throttle_succeeded(const char *user, const char *address) {
  char path[128];

  path_of(user, address, path, sizeof path);
  const int fd = open_counter(path);
  if (fd < 0) return;
  const struct counter counter = {0, 0, 0, 1};
  store(fd, &counter);
  close(fd);
}
