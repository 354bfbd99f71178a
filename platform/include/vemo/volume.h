#ifndef VEMO_VOLUME_H
#define VEMO_VOLUME_H
#include <vemo/types.h>
VEMO_BEGIN
enum { VEMOVOLUME_INTERNAL = 1, VEMOVOLUME_REMOVABLE = 4, VEMOVOLUME_CARD = 8 };
enum { VEMOVOLUME_UNUSABLE = 1, VEMOVOLUME_FULL = 4 }; /* reason bits of VolumeAvailGet */
typedef struct _tag_VEMOVOLUME {
  char path[4096]; /* mount point */
  int kind;        /* SECOND */
} VEMOVOLUME;
int VolumeAvailGet(unsigned long long kib, VEMOVOLUME *volume, int *reasons,
                   BOOL writable);                         /* 1, 0 none, -1 */
int VolumePathParse(const char *path, VEMOVOLUME *volume); /* 1; 0 no volume; -1 */
VEMO_END
#endif
