#ifndef VEMO_USER_H
#define VEMO_USER_H
#include <vemo/types.h>
VEMO_BEGIN
enum vemo_user_kind { VEMOUSER_LOCAL = 1, VEMOUSER_DOMAIN = 2, VEMOUSER_DIRECTORY = 4 };
typedef struct _tag_VEMOUSER {
  char *name;
  char *home;
  uid_t uid;
  gid_t gid;
  enum vemo_user_kind kind;
} VEMOUSER;
int VEMOUserGet(const char *name, VEMOUSER **user); /* 0; -1 and *user = NULL */
void VEMOUserFree(VEMOUSER *user);
int VEMOUserLoginNameConvert(const char *typed, char *buffer,
                             int size);                            /* 1 converted, 0 as it is, -1 */
int VLIBUserRealNameGet(const char *name, char *buffer, int size); /* 0; -1 */
int VEMOUserPreferenceDirGet(const char *user, char *buffer, int size);   /* 0 exactly; -1 */
int VEMOGroupPreferenceDirGet(const char *group, char *buffer, int size); /* 0; -1 */
BOOL VEMOServiceUserHomeIsEnabled(enum vemo_user_kind kind);
VEMO_END
#endif
