/*
 * vemo/share.h - shared folders. See vemo/core.h for the conventions.
 */
#ifndef VEMO_SHARE_H
#define VEMO_SHARE_H

#include <vemo/core.h>
#include <vemo/types.h>

VEMO_BEGIN

enum { VEMOSHARE_STATUS_ENCRYPTED = 2 };                   /* bit of `status` */
enum { VEMOSHARE_NO_LIST = 1, VEMOSHARE_NO_DOWNLOAD = 4 }; /* bits of `restrictions` */
enum { VEMOSHARE_PRIV_NONE = 0, VEMOSHARE_PRIV_RO = 1, VEMOSHARE_PRIV_RW = 2 };

typedef struct _tag_VEMOSHARE {
  char *name; /* as written in the configuration */
  char *path; /* absolute, no slash at the end */
  unsigned int status;
  int restrictions;
  struct vemo_share_state *state; /* private */
} VEMOSHARE;

/* The share of this name, without regard to ASCII case. 0, and the record in `*share`,
 * released with VEMOShareFree; -1 and NULL (VEMOERR_NO_SHARE; the registry cannot be read:
 * VEMOERR_NOT_FOUND, VEMOERR_NO_PERM, or VEMOERR_FORMAT where Samba refuses it too). The
 * virtual share "homes" is there while the home service is on. */
int VEMOShareGet(const char *name, VEMOSHARE **share);

void VEMOShareFree(VEMOSHARE *share); /* NULL allowed */

/* The share in which a real path lies: the one whose path is the longest prefix that ends
 * at a component. 0, and its name and path in the buffers (sizes in bytes, NUL included); -1
 * (VEMOERR_NO_SHARE; VEMOERR_PATH_REFUSED for a path with "." or ".." parts). */
int VEMOShareNamePathGet(const char *path, char *name, int name_size, char *share_path,
                         int share_path_size);

/* What the user may do in the share: VEMOSHARE_PRIV_NONE, _RO or _RW; -1 for an unknown user
 * (VEMOERR_NO_USER).
 *
 * Decided as Samba does (smb.conf(5)): "invalid users" have none; where there are "valid
 * users", others have none; "read only" is the rule, "read list" takes writing away, "write
 * list" gives it, and wins. "admin users" and guests change nothing here. In lists, "@name" is
 * a netgroup or a group, "+name" a group, "&name" a netgroup; "%S" is the share, "%U" the
 * user; local names may have this machine's name before them ("NAS\alice"). An entry that
 * cannot be told, by another variable or because a service fails, is held against the user.
 * Of the virtual share "homes", administrators have all, but for what the lists of [homes]
 * say, where "%S" is the user, and others nothing. */
int VEMOShareUserPrivGet(const char *user, const VEMOSHARE *share);

/* The same, and why: one of "invalid users", "valid users", "read only", "read list", "write
 * list", "homes", the setting that decided, in the buffer. */
int VEMOShareUserPrivReasonGet(const char *user, const VEMOSHARE *share, char *reason, int size);

/* The names of all shares, sorted without regard to case. Their number, and the list in
 * `*names`, released with VLIBCSzListFree; -1 and NULL (VEMOERR_NOT_FOUND, VEMOERR_FORMAT,
 * VEMOERR_NO_MEMORY). */
int VEMOShareEnum(VEMOSZLIST **names);

/* Where the platform keeps data of its own on a volume. 0; -1 when it is none any more
 * (VEMOERR_NO_VOLUME). */
int VEMOShareBinPathGet(const char *volume, char *buffer, int size);

/* Whether the share hides what a user cannot read: 1 or 0 in `*hide`. 0; -1, errno kept. */
int VLIBShareHideUnreadableGet(const VEMOSHARE *share, int *hide);

VEMO_END
#endif
