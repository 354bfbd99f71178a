#ifndef VEMO_EA_H
#define VEMO_EA_H
#include <vemo/types.h>
VEMO_BEGIN
BOOL VEMOEAIsHiddenDir(const char *name);
BOOL VEMOEAIsHiddenFile(const char *name);
int VEMOEAMKDir(int reserved, const char *path); /* 0, also when it exists; -1 */
VEMO_END
#endif
