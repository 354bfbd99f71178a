/* File locks with a time limit. */
#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <time.h>
#include <unistd.h>

#include "core/internal.h"

static long long milliseconds(void) {
  struct timespec now;

  clock_gettime(CLOCK_MONOTONIC, &now);
  return (long long)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

/* Tries until the deadline, at growing intervals. */
static int lock_until(int fd, int operation, long long deadline) {
  long pause = 1;

  while (flock(fd, operation | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) return -1;
    if (milliseconds() >= deadline) {
      errno = EWOULDBLOCK;
      return -1;
    }
    const struct timespec rest = {0, pause * 1000000};
    nanosleep(&rest, NULL);
    if (pause < 50) pause = pause * 2 > 50 ? 50 : pause * 2;
  }
  return 0;
}

/* A holder may have removed the file while this process waited: its lock is then
 * on a file without a name, and says nothing to those who come after. */
static int still_named(int fd, const char *path) {
  struct stat opened, named;

  return fstat(fd, &opened) == 0 && stat(path, &named) == 0 && opened.st_dev == named.st_dev &&
         opened.st_ino == named.st_ino;
}

BOOL VLIBCFileLockTimeByFile(const char *path, int exclusive, int seconds, int *fd) {
  if (fd != NULL) *fd = -1;
  if (path == NULL || *path == '\0' || fd == NULL) {
    VEMO_FAIL_PARAM();
    return FALSE;
  }
  const long long deadline = milliseconds() + (long long)seconds * 1000;
  int late = 0;
  for (;;) {
    const int file = open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644);
    if (file < 0) {
      VEMO_FAIL_ERRNO();
      return FALSE;
    }
    if (lock_until(file, exclusive ? LOCK_EX : LOCK_SH, deadline) != 0) {
      VEMO_FAIL(errno == EWOULDBLOCK ? VEMOERR_BUSY : VEMOERR_IO);
      const int kept = errno;
      close(file);
      errno = kept;
      return FALSE;
    }
    if (still_named(file, path)) {
      *fd = file;
      return TRUE;
    }
    close(file);
    /* Holders that keep replacing the file do not extend the time. */
    if (milliseconds() >= deadline && ++late > 1) {
      VEMO_FAIL_AS(EWOULDBLOCK, VEMOERR_BUSY);
      return FALSE;
    }
  }
}

void VLIBCFileUnlockByFile(int fd) {
  if (fd < 0) return;
  const int kept = errno;
  flock(fd, LOCK_UN);
  close(fd);
  errno = kept;
}
