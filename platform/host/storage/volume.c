/* Volumes: what is mounted at /volume1, /volume2 and so on. */
#include <vemo/volume.h>

#include <vemo/share.h>

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/statvfs.h>

#include "core/internal.h"
#include "storage/mounts.h"

/* The kinds, by the name of the mount point: nothing else on this system tells them. */
static const struct {
  const char *prefix;
  int kind;
} kinds[] = {{"/volume", VEMOVOLUME_INTERNAL},
             {"/removable", VEMOVOLUME_REMOVABLE},
             {"/card", VEMOVOLUME_CARD}};

/* The kind of a mount point, its number in `*number`; 0: it is none of a volume. */
static int kind_of(const char *point, unsigned long *number) {
  for (size_t i = 0; i < sizeof kinds / sizeof *kinds; i++) {
    const size_t size = strlen(kinds[i].prefix);
    if (strncmp(point, kinds[i].prefix, size) != 0) continue;
    const char *digits = point + size;
    if (*digits < '1' || *digits > '9' || strlen(digits) > 9) continue;
    if (strspn(digits, "0123456789") != strlen(digits)) continue;
    *number = strtoul(digits, NULL, 10);
    return kinds[i].kind;
  }
  return 0;
}

struct choice {
  unsigned long long wanted; /* KiB */
  BOOL writable;
  unsigned long long room; /* of the best so far, KiB */
  unsigned long number;
  VEMOVOLUME *volume;
  int found, reasons;
};

static void consider(const struct vemo_mount *mount, void *data) {
  struct choice *choice = data;
  struct statvfs status;
  unsigned long number;

  if (kind_of(mount->point, &number) != VEMOVOLUME_INTERNAL) return;
  if (statvfs(mount->point, &status) != 0 ||
      (choice->writable && (status.f_flag & ST_RDONLY) != 0)) {
    choice->reasons |= VEMOVOLUME_UNUSABLE;
    return;
  }
  const unsigned long long room =
      (unsigned long long)status.f_bavail * (unsigned long long)status.f_frsize / 1024;
  if (room < choice->wanted) {
    choice->reasons |= VEMOVOLUME_FULL;
    return;
  }
  const int better =
      !choice->found || room > choice->room || (room == choice->room && number < choice->number);
  if (!better) return;
  choice->found = 1;
  choice->room = room;
  choice->number = number;
  choice->volume->kind = VEMOVOLUME_INTERNAL;
  strcpy(choice->volume->path, mount->point);
}

int VolumeAvailGet(unsigned long long kib, VEMOVOLUME *volume, int *reasons, BOOL writable) {
  struct choice choice = {.wanted = kib, .writable = writable, .volume = volume};

  if (reasons != NULL) *reasons = 0;
  if (volume == NULL || reasons == NULL) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  *volume = (VEMOVOLUME){.path = ""};
  if (vemo_each_mount(consider, &choice) != 0) {
    VEMO_FAIL(VEMOERR_IO);
    return -1;
  }
  if (choice.found) return 1;
  *reasons = choice.reasons;
  return 0;
}

struct parsed {
  const char *point;
  int mounted;
};

static void see(const struct vemo_mount *mount, void *data) {
  struct parsed *parsed = data;

  if (strcmp(mount->point, parsed->point) == 0) parsed->mounted = 1;
}

/* 1 a mount stands at the point; 0; -1. */
static int is_mounted(const char *point) {
  struct parsed parsed = {point, 0};

  if (vemo_each_mount(see, &parsed) == 0) return parsed.mounted;
  VEMO_FAIL(VEMOERR_IO);
  return -1;
}

int VolumePathParse(const char *path, VEMOVOLUME *volume) {
  unsigned long number;

  if (path == NULL || *path != '/' || volume == NULL) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  *volume = (VEMOVOLUME){.path = ""};
  /* All their points stand in the root. */
  const size_t size = 1 + strcspn(path + 1, "/");
  if (size >= sizeof volume->path) return 0;
  memcpy(volume->path, path, size);
  volume->kind = kind_of(volume->path, &number);
  const int mounted = volume->kind == 0 ? 0 : is_mounted(volume->path);
  if (mounted == 1) return 1;
  *volume = (VEMOVOLUME){.path = ""};
  return mounted;
}

int VEMOShareBinPathGet(const char *volume, char *buffer, int size) {
  unsigned long number;

  if (volume == NULL || *volume == '\0' || buffer == NULL || size < 1) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  *buffer = '\0';
  if (kind_of(volume, &number) == 0 || is_mounted(volume) != 1) {
    VEMO_FAIL_AS(ENOENT, VEMOERR_NO_VOLUME);
    return -1;
  }
  if (strlen(volume) >= (size_t)size) {
    VEMO_FAIL_AS(ENAMETOOLONG, VEMOERR_TOO_LONG);
    return -1;
  }
  strcpy(buffer, volume);
  return 0;
}
