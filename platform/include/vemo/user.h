/*
 * vemo/user.h - accounts, their preference directories and homes. See vemo/core.h for the
 * conventions.
 */
#ifndef VEMO_USER_H
#define VEMO_USER_H

#include <vemo/types.h>

VEMO_BEGIN

enum vemo_user_kind { VEMOUSER_LOCAL = 1, VEMOUSER_DOMAIN = 2, VEMOUSER_DIRECTORY = 4 };

typedef struct _tag_VEMOUSER {
  char *name;
  char *home;
  uid_t uid;
  gid_t gid; /* the primary group */
  enum vemo_user_kind kind;
} VEMOUSER;

/* The account of this name, or of the name in lower case. 0, and the record in `*user`,
 * released with VEMOUserFree; -1 and NULL (VEMOERR_NO_USER). */
int VEMOUserGet(const char *name, VEMOUSER **user);

void VEMOUserFree(VEMOUSER *user); /* NULL allowed */

/* The account's name for a name that was typed at a login. 1 converted; 0 as it is, the
 * buffer holds the typed name; -1 when it does not fit (VEMOERR_TOO_LONG). */
int VEMOUserLoginNameConvert(const char *typed, char *buffer, int size);

/* The name as the name service writes it, looked up exactly. 0; -1 (VEMOERR_NO_USER). */
int VLIBUserRealNameGet(const char *name, char *buffer, int size);

/* The directory of the user's preferences, made on first use: mode 0700, owned by the user.
 * 0 exactly; -1 (VEMOERR_NO_USER, VEMOERR_NO_PERM). */
int VEMOUserPreferenceDirGet(const char *user, char *buffer, int size);

/* The same for a group: mode 0700, root's. 0; -1 (VEMOERR_NO_GROUP). */
int VEMOGroupPreferenceDirGet(const char *group, char *buffer, int size);

/* Whether users of this kind have homes. */
BOOL VEMOServiceUserHomeIsEnabled(enum vemo_user_kind kind);

VEMO_END
#endif
