/* Spool directories: where uploads wait on a volume. */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cgi/upload.h"

static const char volume_prefix[] = "/volume";
static const char spool_name[] = "/@tmp";

/* The length of "/volume<N>" at the start of the path; 0. */
static size_t volume_size(const char *path) {
  const size_t prefix = sizeof volume_prefix - 1;

  if (strncmp(path, volume_prefix, prefix) != 0) return 0;
  const size_t digits = strspn(path + prefix, "0123456789");
  return digits == 0 || digits > 9 ? 0 : prefix + digits;
}

int vemo_spool_is_of_volume(const char *path, const char **name) {
  const size_t volume = volume_size(path);
  const size_t spool = volume + sizeof spool_name - 1;

  if (volume == 0 || strncmp(path + volume, spool_name, sizeof spool_name - 1) != 0) return 0;
  if (name == NULL) return path[spool] == '\0';
  *name = path + spool + 1;
  return path[spool] == '/' && **name != '\0' && strchr(*name, '/') == NULL;
}

/* A volume that is not mounted leaves an empty directory, which must not be filled. */
static int is_mounted(const char *path) {
  char volume[32];
  struct statx status;

  snprintf(volume, sizeof volume, "%.*s", (int)volume_size(path), path);
  return statx(AT_FDCWD, volume, AT_SYMLINK_NOFOLLOW | AT_STATX_DONT_SYNC, 0, &status) == 0 &&
         (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

static int open_directory(const char *path) {
  return open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

/* The mode of /tmp: what programs do as a user lands here too. */
static int make_directory(const char *path) {
  uid_t before;

  if (vemo_root_begin(&before) != 0) return -1;
  const int made = mkdir(path, 0700) == 0;
  int fd = made || errno == EEXIST ? open_directory(path) : -1;
  if (made && fd >= 0 && fchmod(fd, 01777) != 0) {
    const int error = errno;
    close(fd);
    errno = error;
    fd = -1;
  }
  vemo_root_end(before);
  return fd;
}

int vemo_spool_open(const char *path) {
  struct stat status;

  const int of_volume = vemo_spool_is_of_volume(path, NULL);
  if (of_volume && !is_mounted(path)) {
    VEMO_FAIL_AS(ENOENT, VEMOERR_NO_VOLUME);
    return VEMO_UPLOAD_NO_VOLUME;
  }
  int fd = open_directory(path);
  if (fd < 0 && errno == ENOENT) fd = make_directory(path);
  if (fd < 0) return VEMO_UPLOAD_FAIL_ERRNO();
  /* In somebody else's directory that somebody decides what a name stands for. */
  if (of_volume && (fstat(fd, &status) != 0 || status.st_uid != 0)) {
    close(fd);
    VEMO_FAIL_AS(EACCES, VEMOERR_PATH_REFUSED);
    return VEMO_UPLOAD_OTHER;
  }
  return fd;
}

int vemo_spool_file(int dir_fd) {
  char name[32], salt[24];
  unsigned char bits[16];

  const int fd = openat(dir_fd, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)) return fd;
  /* A file system without such files: the name goes at once, and the content is copied when
   * it is stored. */
  if (vemo_random(bits, sizeof bits) != 0) return -1;
  if (vemo_base64url(bits, sizeof bits, salt, sizeof salt) < 0) return -1;
  snprintf(name, sizeof name, ".#up.%s", salt);
  const int named = openat(dir_fd, name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (named >= 0) unlinkat(dir_fd, name, 0);
  return named;
}

static void each_of_volume(const char *volume,
                           void (*found)(const char *volume, const char *name,
                                         const struct stat *status, void *data),
                           void *data) {
  char path[64];
  const struct dirent *entry;
  struct stat status;

  snprintf(path, sizeof path, "%s%s", volume, spool_name);
  const int fd = is_mounted(volume) ? open_directory(path) : -1;
  DIR *directory = fd < 0 ? NULL : fdopendir(fd);
  if (directory == NULL) {
    if (fd >= 0) close(fd);
    return;
  }
  while ((entry = readdir(directory)) != NULL) {
    if (fstatat(fd, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(status.st_mode)) {
      found(volume, entry->d_name, &status, data);
    }
  }
  closedir(directory);
}

void vemo_spool_each(void (*found)(const char *volume, const char *name, const struct stat *status,
                                   void *data),
                     void *data) {
  const struct dirent *entry;
  char volume[32];

  DIR *root = opendir("/");
  if (root == NULL) return;
  while ((entry = readdir(root)) != NULL) {
    const int length = snprintf(volume, sizeof volume, "/%s", entry->d_name);
    if (length > 0 && (size_t)length < sizeof volume && volume_size(volume) == (size_t)length) {
      each_of_volume(volume, found, data);
    }
  }
  closedir(root);
}
