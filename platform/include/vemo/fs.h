/*
 * vemo/fs.h - file systems and mounts. See vemo/core.h for the conventions.
 *
 * Codes of file systems: 0 vfat and exfat, 1 ext2, 2 ext3, 3 ext4, 4 any other local one, 5
 * hfsplus, 6 iso9660, squashfs, erofs, 7 ntfs, 8 xfs, 9 btrfs, 10 udf, 11 cifs, 12 unused, 13
 * nfs and other network ones, 14 network FUSE, 15 tmpfs, 18 zfs, 19 f2fs.
 */
#ifndef VEMO_FS_H
#define VEMO_FS_H

#include <vemo/types.h>

VEMO_BEGIN

/* The code of the file system in which the path lies. -1: it cannot be examined
 * (VEMOERR_NOT_FOUND, VEMOERR_NO_PERM, VEMOERR_FS_EXAMINE); the kernel's errno is kept.
 * `reserved` is 0. */
int VEMOGetFSType(const char *path, int reserved);

/* The code of the file system that is mounted at this very path; -1: it is no mount point.
 * Never touches the path, which may be of a server that is gone. */
int VEMOFSIsInMountTable(const char *path);

/* Whether the path is a mount point. 1, 0; -1 (VEMOERR_NOT_FOUND, VEMOERR_NO_PERM). */
int VEMOFSDirIsMntPoint(const char *path);

/* Whether a code is of a disc image (6, 10), or of a remote file system (11, 13, 14). 1, 0. */
int VEMOFSIsImageFS(int type);
int VEMOFSIsRemoteFS(int type);

/* Makes a directory and those above it that are missing. `force` 1: what is made gets the
 * owner and exactly the mode; 0: the mode less the umask. `first` is 0. What is there is not
 * changed. 0; -1, errno kept (VEMOERR_NO_PERM, VEMOERR_NOT_FOUND; VEMOERR_PATH_REFUSED for a
 * file or link in the way). */
int VEMOFSMkdirP(const char *path, int first, int force, uid_t uid, gid_t gid, mode_t mode);

VEMO_END
#endif
