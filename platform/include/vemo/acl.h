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
int VEMOACLPermGet(const char *path, int *mask, int reserved); /* 0; -1, reason in the error slot */
VEMO_END
#endif
