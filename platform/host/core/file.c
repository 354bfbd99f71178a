/* Files: whole reads, writes by rename, directories. */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "core/internal.h"

BOOL VLIBCFileExist(const char *path) {
  struct stat status;

  if (path == NULL || *path == '\0') {
    VEMO_FAIL_PARAM();
    return FALSE;
  }
  return lstat(path, &status) == 0;
}

BOOL VLIBCFileCheckDir(const char *path) {
  struct stat status;

  if (path == NULL || *path == '\0') {
    VEMO_FAIL_PARAM();
    return FALSE;
  }
  return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

/* Files that are being written are no entries yet. */
static int is_entry(const struct dirent *entry) {
  static const char temporary[] = ".#json.";

  return strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0 &&
         strncmp(entry->d_name, temporary, sizeof temporary - 1) != 0;
}

static int by_bytes(const struct dirent **a, const struct dirent **b) {
  return strcmp((*a)->d_name, (*b)->d_name);
}

int VLIBCFileEnumDir(const char *dir, int flags, VEMOSZLIST *names, int reserved) {
  struct dirent **entries;
  int failed = 0;

  (void)flags;
  (void)reserved;
  if (dir == NULL || *dir == '\0' || names == NULL) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  const int count = scandir(dir, &entries, is_entry, by_bytes);
  if (count < 0) {
    VEMO_FAIL_ERRNO();
    return -1;
  }
  for (int i = 0; i < count; i++) {
    if (!failed) failed = VLIBCSzListPush(&names, entries[i]->d_name);
    free(entries[i]);
  }
  free(entries);
  return failed ? -1 : count;
}

/* Reads up to `size` bytes; fewer only at the end of the file. */
static ssize_t read_all(int fd, char *buffer, size_t size) {
  size_t done = 0;

  while (done < size) {
    const ssize_t got = read(fd, buffer + done, size - done);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return -1;
    if (got == 0) break;
    done += (size_t)got;
  }
  return (ssize_t)done;
}

char *vemo_read_file(const char *path, int flags, size_t limit, size_t *size,
                     struct stat *status_out) {
  struct stat status;
  char *buffer = NULL;
  ssize_t got = -1;

  /* Without blocking: a FIFO in the place must not hold the request. */
  const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | flags);
  if (fd < 0) {
    VEMO_FAIL_ERRNO();
    return NULL;
  }
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) ||
      (unsigned long long)status.st_size > limit) {
    VEMO_FAIL_AS(EINVAL, VEMOERR_FORMAT);
  } else if ((buffer = malloc((size_t)status.st_size + 1)) == NULL) {
    VEMO_FAIL(VEMOERR_NO_MEMORY);
  } else if ((got = read_all(fd, buffer, (size_t)status.st_size)) < 0) {
    VEMO_FAIL_ERRNO();
  }
  const int kept = errno;
  close(fd);
  errno = kept;
  if (got < 0) {
    free(buffer);
    return NULL;
  }
  buffer[got] = '\0';
  *size = (size_t)got;
  if (status_out != NULL) *status_out = status;
  return buffer;
}

static int write_all(int fd, const char *data, size_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, data, size);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return -1;
    data += written;
    size -= (size_t)written;
  }
  return 0;
}

static void sync_directory_of(const char *path) {
  char directory[4096];
  const char *slash = strrchr(path, '/');
  const size_t size = slash == NULL ? 0 : (size_t)(slash - path);

  if (size >= sizeof directory) return;
  memcpy(directory, path, size);
  directory[size] = '\0';
  const int fd =
      open(slash == NULL ? "." : (size == 0 ? "/" : directory), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  fsync(fd);
  close(fd);
}

static void unlink_quietly(const char *path) {
  const int kept = errno;

  unlink(path);
  errno = kept;
}

static int write_temporary(const char *temporary, const void *data, size_t size, mode_t mode,
                           uid_t uid, gid_t gid) {
  const int fd = open(temporary, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);

  if (fd < 0) return -1;
  const int chowned =
      (uid == (uid_t)-1 && gid == (gid_t)-1) || geteuid() != 0 || fchown(fd, uid, gid) == 0;
  const int written =
      chowned && fchmod(fd, mode) == 0 && write_all(fd, data, size) == 0 && fsync(fd) == 0;
  const int kept = errno;
  const int closed = close(fd) == 0;
  if (written && closed) return 0;
  if (!written) errno = kept;
  unlink_quietly(temporary);
  return -1;
}

int vemo_write_file_as(const char *path, const char *temporary, const void *data, size_t size,
                       mode_t mode, uid_t uid, gid_t gid) {
  if (VLIBCSigtermHold() != 0) return -1;
  unlink(temporary); /* of a writer that was killed */
  int result = write_temporary(temporary, data, size, mode, uid, gid);
  if (result == 0 && rename(temporary, path) != 0) {
    unlink_quietly(temporary);
    result = -1;
  }
  if (result != 0) {
    VEMO_FAIL_ERRNO();
  } else {
    sync_directory_of(path);
  }
  const int kept = errno;
  VLIBCSigtermRelease();
  errno = kept;
  return result;
}

int vemo_write_file(const char *path, const void *data, size_t size, mode_t mode) {
  unsigned char salt[12];
  char name[24], temporary[4096];
  const char *slash = strrchr(path, '/');
  const int directory = slash == NULL ? 0 : (int)(slash - path) + 1;

  if (vemo_random(salt, sizeof salt) != 0) return -1;
  if (vemo_base64url(salt, sizeof salt, name, sizeof name) < 0) return -1;
  const int length = snprintf(temporary, sizeof temporary, "%.*s.#new.%s", directory, path, name);
  if (length < 0 || (size_t)length >= sizeof temporary) {
    VEMO_FAIL_AS(ENAMETOOLONG, VEMOERR_TOO_LONG);
    return -1;
  }
  return vemo_write_file_as(path, temporary, data, size, mode, (uid_t)-1, (gid_t)-1);
}
