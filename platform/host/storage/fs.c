/* File systems and mounts, as the kernel tells them. */
#include <vemo/fs.h>

#include <errno.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include "core/internal.h"
#include "storage/mounts.h"

enum { FS_OTHER = 4, FS_NETWORK_FUSE = 14 };

/* The kernel's names of file systems. */
static const struct {
  const char *name;
  int code;
} by_name[] = {
    {"vfat", 0},
    {"msdos", 0},
    {"exfat", 0},
    {"fuse.fusefat", 0},
    {"fuse.exfat", 0},
    {"ext2", 1},
    {"ext3", 2},
    {"ext4", 3},
    {"fuse.ext4", 3},
    {"hfsplus", 5},
    {"iso9660", 6},
    {"squashfs", 6},
    {"erofs", 6},
    {"fuse.fuseiso", 6},
    {"fuse.squashfuse", 6},
    {"ntfs", 7},
    {"ntfs3", 7},
    {"fuseblk", 7},
    {"xfs", 8},
    {"btrfs", 9},
    {"udf", 10},
    {"cifs", 11},
    {"smb3", 11},
    {"nfs", 13},
    {"nfs4", 13},
    {"ceph", 13},
    {"9p", 13},
    {"afs", 13},
    {"fuse.sshfs", 14},
    {"fuse.davfs", 14},
    {"fuse.s3fs", 14},
    {"fuse.rclone", 14},
    {"fuse.glusterfs", 14},
    {"fuse.ceph-fuse", 14},
    {"fuse.curlftpfs", 14},
    {"fuse.smbnetfs", 14},
    {"tmpfs", 15},
    {"ramfs", 15},
    {"zfs", 18},
    {"f2fs", 19},
};

static int code_of(const char *name) {
  for (size_t i = 0; i < sizeof by_name / sizeof by_name[0]; i++) {
    if (strcmp(by_name[i].name, name) == 0) return by_name[i].code;
  }
  return FS_OTHER;
}

struct search {
  const char *point; /* NULL: by the number */
  unsigned long long id;
  int code; /* of the last that matches; -1 */
};

static void match(const struct vemo_mount *mount, void *data) {
  struct search *search = data;

  const int matches =
      search->point != NULL ? strcmp(mount->point, search->point) == 0 : mount->id == search->id;
  if (matches) search->code = code_of(mount->type);
}

static int find_mount(const char *point, unsigned long long id) {
  struct search search = {point, id, -1};

  return vemo_each_mount(match, &search) == 0 ? search.code : -1;
}

/* The numbers of statfs(2) that say all; -1 for those that several file systems share. */
static int code_of_magic(unsigned long magic) {
  switch (magic) {
    case XFS_SUPER_MAGIC:
      return 8;
    case BTRFS_SUPER_MAGIC:
      return 9;
    case TMPFS_MAGIC:
    case RAMFS_MAGIC:
      return 15;
    case SQUASHFS_MAGIC:
    case ISOFS_SUPER_MAGIC:
      return 6;
    case NFS_SUPER_MAGIC:
      return 13;
    case F2FS_SUPER_MAGIC:
      return 19;
    default:
      return -1;
  }
}

static int fail_examine(void) {
  const int error = errno;

  VEMO_FAIL_AS(error, error == ENOENT || error == ENOTDIR ? VEMOERR_NOT_FOUND
                      : error == EACCES                   ? VEMOERR_NO_PERM
                                                          : VEMOERR_FS_EXAMINE);
  return -1;
}

int VEMOGetFSType(const char *path, int reserved) {
  struct statfs status;
  struct statx extended;

  (void)reserved;
  if (path == NULL || *path == '\0') {
    VEMO_FAIL_PARAM();
    return -1;
  }
  if (statfs(path, &status) != 0) return fail_examine();
  const int code = code_of_magic((unsigned long)status.f_type);
  if (code >= 0) return code;
  /* By the mount's number: those of devices do not match everywhere. */
  if (statx(AT_FDCWD, path, AT_STATX_DONT_SYNC, STATX_MNT_ID, &extended) != 0) {
    return fail_examine();
  }
  const int found = find_mount(NULL, extended.stx_mnt_id);
  return found < 0 ? FS_OTHER : found;
}

int VEMOFSIsInMountTable(const char *path) {
  char point[4096];

  if (path == NULL || *path == '\0' || strlen(path) >= sizeof point) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  memcpy(point, path, strlen(path) + 1);
  for (size_t length = strlen(point); length > 1 && point[length - 1] == '/'; length--)
    point[length - 1] = '\0';
  return find_mount(point, 0);
}

int VEMOFSDirIsMntPoint(const char *path) {
  struct statx status;

  if (path == NULL || *path == '\0') {
    VEMO_FAIL_PARAM();
    return -1;
  }
  /* Nothing here waits for a server that is gone. */
  if (statx(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | AT_STATX_DONT_SYNC, 0,
            &status) != 0) {
    return fail_examine();
  }
  if ((status.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0) {
    return (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
  }
  return VEMOFSIsInMountTable(path) >= 0;
}

int VEMOFSIsImageFS(int type) {
  return type == 6 || type == 10;
}

int VEMOFSIsRemoteFS(int type) {
  return type == 11 || type == 13 || type == FS_NETWORK_FUSE;
}

/* Opens the directory `name` in `parent`, made when it is missing; its descriptor; -1. */
static int enter(int parent, const char *name, int force, uid_t uid, gid_t gid, mode_t mode) {
  const int made = mkdirat(parent, name, force ? 0700 : mode) == 0;
  if (!made && errno != EEXIST) return -1;
  /* What was made here is no link; links that were there before are the administrator's. */
  const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (made ? O_NOFOLLOW : O_PATH);
  const int fd = openat(parent, name, flags);
  if (fd < 0 || !made || !force) return fd;
  if ((geteuid() != 0 || fchown(fd, uid, gid) == 0) && fchmod(fd, mode) == 0) return fd;
  const int kept = errno;
  close(fd);
  errno = kept;
  return -1;
}

static int walk(char *path, int force, uid_t uid, gid_t gid, mode_t mode) {
  char *rest = NULL;
  int fd = open(*path == '/' ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC);

  for (const char *name = strtok_r(path, "/", &rest); name != NULL && fd >= 0;
       name = strtok_r(NULL, "/", &rest)) {
    const int next = enter(fd, name, force, uid, gid, mode);
    const int kept = errno;
    close(fd);
    errno = kept;
    fd = next;
  }
  if (fd < 0) return -1;
  close(fd);
  return 0;
}

int VEMOFSMkdirP(const char *path, int first, int force, uid_t uid, gid_t gid, mode_t mode) {
  char copy[4096];

  (void)first;
  if (path == NULL || *path == '\0') {
    VEMO_FAIL_PARAM();
    return -1;
  }
  if (strlen(path) >= sizeof copy) {
    VEMO_FAIL_AS(ENAMETOOLONG, VEMOERR_TOO_LONG);
    return -1;
  }
  memcpy(copy, path, strlen(path) + 1);
  if (walk(copy, force, uid, gid, mode) == 0) return 0;
  const int error = errno;
  VEMO_FAIL_AS(error, error == ENOTDIR || error == ELOOP ? VEMOERR_PATH_REFUSED
                      : error == ENOENT                  ? VEMOERR_NOT_FOUND
                                                         : VEMOERR_NO_PERM);
  return -1;
}
