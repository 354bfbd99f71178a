/* The platform's own names within a share. */
#include <vemo/ea.h>

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/internal.h"

BOOL VEMOEAIsHiddenDir(const char *name) {
  static const char *const names[] = {"@eaDir", "@tmp", "lost+found"};

  for (size_t i = 0; name != NULL && i < sizeof names / sizeof *names; i++) {
    if (strcmp(name, names[i]) == 0) return TRUE;
  }
  return FALSE;
}

BOOL VEMOEAIsHiddenFile(const char *name) {
  if (name != NULL && (strcmp(name, ".") == 0 || strcmp(name, "..") == 0)) return TRUE;
  return VEMOEAIsHiddenDir(name);
}

/* By the descriptor: a user of the share could put a link in its place. */
static int make(const char *path) {
  const int made = mkdir(path, 0700) == 0;
  if (!made && errno != EEXIST) return -1;
  const int fd = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return -1;
  const int result = !made || (fchown(fd, 0, 0) == 0 && fchmod(fd, 0755) == 0) ? 0 : -1;
  const int kept = errno;
  close(fd);
  errno = kept;
  return result;
}

int VEMOEAMKDir(int reserved, const char *path) {
  char bare[4096];
  uid_t before;

  (void)reserved;
  if (path == NULL || *path == '\0') {
    VEMO_FAIL_PARAM();
    return -1;
  }
  size_t size = strlen(path);
  if (size >= sizeof bare) {
    VEMO_FAIL_AS(ENAMETOOLONG, VEMOERR_TOO_LONG);
    return -1;
  }
  /* A slash at the end would lead through a link. */
  while (size > 1 && path[size - 1] == '/')
    size--;
  memcpy(bare, path, size);
  bare[size] = '\0';
  if (vemo_root_begin(&before) != 0) return -1;
  const int result = make(bare);
  if (result != 0) {
    const int error = errno;
    VEMO_FAIL_AS(error, error == ENOTDIR || error == ELOOP ? VEMOERR_PATH_REFUSED
                        : error == ENOENT                  ? VEMOERR_NOT_FOUND
                                                           : VEMOERR_NO_PERM);
  }
  vemo_root_end(before);
  return result;
}
