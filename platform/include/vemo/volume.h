/*
 * vemo/volume.h - storage volumes. See vemo/core.h for the conventions.
 */
#ifndef VEMO_VOLUME_H
#define VEMO_VOLUME_H

#include <vemo/types.h>

VEMO_BEGIN

enum { VEMOVOLUME_INTERNAL = 1, VEMOVOLUME_REMOVABLE = 4, VEMOVOLUME_CARD = 8 };
enum { VEMOVOLUME_UNUSABLE = 1, VEMOVOLUME_FULL = 4 }; /* bits of VolumeAvailGet's reasons */

typedef struct _tag_VEMOVOLUME {
  char path[4096]; /* mount point */
  int kind;        /* must stay the second member */
} VEMOVOLUME;

/* The volume with most room among those with at least `kib` KiB free, with `writable` only
 * those that can be written. 1; 0 there is none, and why in `*reasons`, which is always
 * written (0 on success): VEMOVOLUME_FULL there are volumes but too full, VEMOVOLUME_UNUSABLE
 * there are but none can be used, 0 there are none; -1 they cannot be asked (VEMOERR_IO). */
int VolumeAvailGet(unsigned long long kib, VEMOVOLUME *volume, int *reasons, BOOL writable);

/* The volume in which the path lies. 1; 0 in none; -1 (VEMOERR_BAD_PARAM). */
int VolumePathParse(const char *path, VEMOVOLUME *volume);

VEMO_END
#endif
