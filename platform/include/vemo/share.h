#ifndef VEMO_SHARE_H
#define VEMO_SHARE_H
#include <vemo/types.h>
VEMO_BEGIN
enum { VEMOSHARE_STATUS_ENCRYPTED = 2 };
enum { VEMOSHARE_NO_LIST = 1, VEMOSHARE_NO_DOWNLOAD = 4 };
enum { VEMOSHARE_PRIV_NONE = 0, VEMOSHARE_PRIV_RO = 1, VEMOSHARE_PRIV_RW = 2 };
typedef struct _tag_VEMOSHARE {
  char *name;                     /* as written in the configuration */
  char *path;                     /* absolute, no trailing slash */
  unsigned int status;            /* bit 1 (value 2): encrypted */
  int restrictions;               /* bit 0: no listing, bit 2: no download */
  struct vemo_share_state *state; /* the section, private */
} VEMOSHARE;
int VEMOShareGet(const char *name, VEMOSHARE **share); /* 0; -1 and *share = NULL */
void VEMOShareFree(VEMOSHARE *share);                  /* NULL allowed */
int VEMOShareNamePathGet(const char *path, char *name, int name_size, char *share_path,
                         int share_path_size);
int VEMOShareUserPrivGet(const char *user, const VEMOSHARE *share);
int VEMOShareBinPathGet(const char *volume, char *buffer, int size);
int VLIBShareHideUnreadableGet(const VEMOSHARE *share, int *hide);
VEMO_END
#endif
