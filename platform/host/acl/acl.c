/* What the effective identity may do with a file: the kernel's own answers. */
#include <vemo/acl.h>

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "core/internal.h"

/* The rights beyond the four that the library asks for. */
enum {
  APPEND = 16,
  DELETE_CHILD = 32,
  READ_ATTRIBUTES = 64,
  READ_EXTENDED = 128,
  WRITE_ATTRIBUTES = 256,
  WRITE_EXTENDED = 512,
  READ_ACL = 1024,
  WRITE_ACL = 2048,
  TAKE_OWNERSHIP = 4096
};

static int fail_file(void) {
  const int error = errno;

  VEMO_FAIL_AS(error, error == ENOENT || error == ENOTDIR || error == ELOOP ? VEMOERR_NOT_FOUND
                      : error == EACCES                                     ? VEMOERR_NO_PERM
                                                                            : VEMOERR_IO);
  return -1;
}

/* access(2) would ask for the real user, who is root. */
static int may(const char *path, int how) {
  return faccessat(AT_FDCWD, path, how, AT_EACCESS) == 0;
}

/* The directory in which the last part stands. 0; -1: there is none, it is too long, or the part
 * is "." or "..", which nobody takes away. */
static int parent_of(const char *path, char *parent, size_t size) {
  size_t length = strlen(path);

  while (length > 0 && path[length - 1] == '/')
    length--;
  const size_t end = length;
  if (length == 0 || length >= size) return -1;
  while (length > 0 && path[length - 1] != '/')
    length--;
  if (end - length <= 2 && strncmp(path + length, "..", end - length) == 0) return -1;
  if (length == 0) {
    strcpy(parent, ".");
    return 0;
  }
  memcpy(parent, path, length);
  parent[length] = '\0';
  return 0;
}

/* What stands for itself: no mount point, not immutable, not in a directory that only grows,
 * and not somebody else's in one where everybody takes away only what is their own. */
static int may_delete(const char *path) {
  char parent[4096];
  struct statx file, directory;

  if (parent_of(path, parent, sizeof parent) != 0 || !may(parent, W_OK | X_OK)) return 0;
  if (statx(AT_FDCWD, parent, 0, STATX_UID | STATX_MODE, &directory) != 0 ||
      statx(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, STATX_UID, &file) != 0) {
    return 0;
  }
  const unsigned long long fixed = STATX_ATTR_MOUNT_ROOT | STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND;
  if ((file.stx_attributes & fixed) != 0) return 0;
  if ((directory.stx_attributes & STATX_ATTR_APPEND) != 0) return 0;
  const uid_t self = geteuid();
  return (directory.stx_mode & S_ISVTX) == 0 || self == 0 || self == file.stx_uid ||
         self == directory.stx_uid;
}

static int is_read_only(const char *path) {
  struct statvfs status;

  return statvfs(path, &status) == 0 && (status.f_flag & ST_RDONLY) != 0;
}

static int mask_of(const char *path, const struct stat *status) {
  const uid_t self = geteuid();
  const int owner = (self == 0 || self == status->st_uid) && !is_read_only(path);
  int mask = READ_ATTRIBUTES | READ_ACL;

  if (may(path, R_OK)) mask |= VEMOACL_READ | READ_EXTENDED;
  if (may(path, W_OK)) mask |= VEMOACL_WRITE | APPEND | WRITE_EXTENDED;
  if (may(path, X_OK)) mask |= VEMOACL_EXEC;
  if (may_delete(path)) mask |= VEMOACL_DELETE;
  if (S_ISDIR(status->st_mode) && may(path, W_OK | X_OK)) mask |= DELETE_CHILD;
  if (owner) mask |= WRITE_ATTRIBUTES | WRITE_ACL;
  if (owner && self == 0) mask |= TAKE_OWNERSHIP;
  return mask;
}

int VEMOACLPermGet(const char *path, int *mask, int reserved) {
  struct stat status;

  (void)reserved;
  if (path == NULL || mask == NULL) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  /* The empty path is one that is not there: stat(2) says so. */
  if (stat(path, &status) != 0) return fail_file();
  if (getxattr(path, "system.posix_acl_access", NULL, 0) < 0 && errno == EOPNOTSUPP) {
    VEMO_FAIL_AS(EOPNOTSUPP, VEMOERR_ACL_UNSUPPORTED);
    return -1;
  }
  *mask = mask_of(path, &status);
  return 0;
}
