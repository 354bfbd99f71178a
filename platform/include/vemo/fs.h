#ifndef VEMO_FS_H
#define VEMO_FS_H
#include <vemo/types.h>
VEMO_BEGIN
int VEMOGetFSType(const char *path, int reserved); /* code >= 0; -1, errno kept */
int VEMOFSIsInMountTable(
    const char *path);                     /* code; -1: not a mount point. Never touches the path */
int VEMOFSDirIsMntPoint(const char *path); /* 1, 0, -1 */
int VEMOFSIsImageFS(int type);             /* 1, 0 */
int VEMOFSIsRemoteFS(int type);            /* 1, 0 */
int VEMOFSMkdirP(const char *path, int first, int force, uid_t uid, gid_t gid, mode_t mode);
VEMO_END
#endif
