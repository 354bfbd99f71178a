/*
 * vemo/acl.h - what the effective identity may do with a file. See vemo/core.h for the
 * conventions.
 */
#ifndef VEMO_ACL_H
#define VEMO_ACL_H

#include <vemo/types.h>

VEMO_BEGIN

enum {
  VEMOACL_EXEC = 1,
  VEMOACL_WRITE = 2,
  VEMOACL_READ = 4,
  VEMOACL_DELETE = 8,
  VEMOACL_ALL = 0x1FFF
};

/* The access mask of the effective user and groups, ACL entries honoured. 0, and the mask in
 * `*mask`; -1: no such file (VEMOERR_NOT_FOUND), no way to it (VEMOERR_NO_PERM), a file system
 * without ACLs (VEMOERR_ACL_UNSUPPORTED), other (VEMOERR_IO). A read-only file system is no
 * failure: the mask is smaller. `reserved` is 0. */
int VEMOACLPermGet(const char *path, int *mask, int reserved);

VEMO_END
#endif
