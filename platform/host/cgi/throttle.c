/* Counters of failed logins: one small locked file an address, and one for each
 * account together with an address. They make wait by refusing, never by a sleep:
 * that would hold a process for every guess. */
#include "cgi/throttle.h"

#include <arpa/inet.h>
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

/* The file is one line: "known", then the moments, all in decimal. */
struct counter {
  int known; /* the account has logged in from this address */
  int count;
  long long failures[FAILURES]; /* the latest ones, oldest first */
};

static void network_of(const char *address, char *buffer, size_t size) {
  unsigned char bytes[16];

  if (inet_pton(AF_INET6, address, bytes) == 1) {
    memset(bytes + 8, 0, 8);
    if (inet_ntop(AF_INET6, bytes, buffer, (socklen_t)size) != NULL) return;
  }
  snprintf(buffer, size, "%s", address);
}

static void path_of(const char *user, const char *address, char *buffer, size_t size) {
  char network[64], key[512];

  network_of(address, network, sizeof network);
  /* The address cannot hold a line feed, so no two keys are the same text. */
  snprintf(key, sizeof key, "%s\n%s", network, user);
  snprintf(buffer, size, COUNTER_DIR "/%s%016llx", *user == '\0' ? "a" : "u",
           (unsigned long long)vemo_hash_stable(key, strlen(key)));
}

/* The locked file; -1. */
static int open_counter(const char *user, const char *address, int flags) {
  char path[128];

  path_of(user, address, path, sizeof path);
  if (mkdir("/run/vemo", 0755) != 0 && errno != EEXIST) return -1;
  if (mkdir(COUNTER_DIR, 0700) != 0 && errno != EEXIST) return -1;
  const int fd = open(path, O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | flags, 0600);
  if (fd < 0 || flock(fd, LOCK_EX) == 0) return fd;
  close(fd);
  return -1;
}

static struct counter load(int fd) {
  struct counter counter = {0, 0, {0}};
  char text[512], *end;

  const ssize_t size = pread(fd, text, sizeof text - 1, 0);
  text[size < 0 ? 0 : size] = '\0';
  counter.known = (int)strtol(text, &end, 10);
  while (counter.count < FAILURES) {
    char *at = end;
    const long long moment = strtoll(at, &end, 10);
    if (end == at) break;
    counter.failures[counter.count++] = moment;
  }
  return counter;
}

static int store(int fd, const struct counter *counter) {
  char text[512];
  int size = snprintf(text, sizeof text, "%d", counter->known);

  for (int i = 0; i < counter->count; i++) {
    size += snprintf(text + size, sizeof text - (size_t)size, " %lld", counter->failures[i]);
  }
  VLIBCSigtermHold();
  const int done = ftruncate(fd, 0) == 0 && pwrite(fd, text, (size_t)size, 0) == size;
  VLIBCSigtermRelease();
  return done ? 0 : -1;
}

static int is_full(const struct counter *counter, long long now) {
  if (counter->count < FAILURES) return 0;
  const long long last = counter->failures[FAILURES - 1];
  /* A moment in the future is a clock that was set back. */
  return last - counter->failures[0] < WINDOW_SECONDS && now >= last && now - last < WAIT_SECONDS;
}

static void push(struct counter *counter, long long now) {
  if (counter->count == FAILURES) {
    memmove(counter->failures, counter->failures + 1, (FAILURES - 1) * sizeof counter->failures[0]);
    counter->count--;
  }
  counter->failures[counter->count++] = now;
}

/* Counts an attempt beforehand. 1; 0 too many; -1. */
static int take(const char *user, const char *address) {
  const long long now = time(NULL);
  const int fd = open_counter(user, address, O_CREAT);
  int result = 0;

  if (fd < 0) return -1;
  struct counter counter = load(fd);
  if (!is_full(&counter, now)) {
    push(&counter, now);
    result = store(fd, &counter) == 0 ? 1 : -1;
  }
  close(fd);
  return result;
}

/* Takes one attempt back, or with `succeeded` all of them. */
static void give_back(const char *user, const char *address, int succeeded) {
  const int fd = open_counter(user, address, O_CREAT);

  if (fd < 0) return;
  struct counter counter = load(fd);
  if (counter.count > 0) counter.count--;
  if (succeeded) {
    counter.count = 0;
    counter.known = 1;
  }
  store(fd, &counter);
  close(fd);
}

/* Never makes a file: names that are only asked for must not fill the directory. */
static int is_known(const char *user, const char *address) {
  const int fd = *user == '\0' ? -1 : open_counter(user, address, 0);

  if (fd < 0) return 0;
  const struct counter counter = load(fd);
  close(fd);
  return counter.known;
}

static int begin(const char *user, const char *address) {
  const int known = is_known(user, address);

  const int by_address = known ? 1 : take("", address);
  if (by_address != 1 || *user == '\0') return by_address;
  const int by_account = take(user, address);
  if (by_account != 1 && !known) give_back("", address, 0);
  return by_account;
}

int vemo_throttle_begin(const char *user, const char *address) {
  uid_t before;

  if (vemo_root_begin(&before) != 0) return -1;
  const int result = begin(user, address);
  if (result < 0) VEMO_FAIL_ERRNO();
  vemo_root_end(before);
  return result;
}

/* Guesses under ever new names must not fill the file system. */
static void sweep(void) {
  DIR *directory = opendir(COUNTER_DIR);
  const time_t now = time(NULL);
  const struct dirent *entry;
  struct stat status;
  int count = 0;

  if (directory == NULL) return;
  while ((entry = readdir(directory)) != NULL)
    count++;
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

void vemo_throttle_end(const char *user, const char *address, enum vemo_throttle_outcome outcome) {
  uid_t before;

  if (vemo_root_begin(&before) != 0) return;
  if (outcome == VEMO_THROTTLE_FAILURE) {
    sweep();
  } else {
    if (!is_known(user, address)) give_back("", address, 0);
    if (*user != '\0') give_back(user, address, outcome == VEMO_THROTTLE_SUCCESS);
  }
  vemo_root_end(before);
}
