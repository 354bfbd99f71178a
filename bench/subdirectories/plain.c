#define _GNU_SOURCE
#include "plain.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>

struct entry {
  char *name, *path;
  int64_t size;
  uint32_t mode, uid, gid;
  int32_t mtime;
  int is_mount;
};

static int by_name(const void* a, const void* b) {
  const struct entry *x = a, *y = b;

  return strcasecmp(x->name, y->name);
}

static int is_mount(const char* path) {
  struct statx status;

  return statx(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | AT_STATX_DONT_SYNC, 0,
               &status) == 0 &&
         (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

static int is_hidden(const char* name) {
  static const char* const hidden[] = {".", "..", "@eaDir", "@tmp", "lost+found"};

  for (size_t i = 0; i < sizeof hidden / sizeof hidden[0]; i++) {
    if (strcmp(name, hidden[i]) == 0) return 1;
  }
  return 0;
}

long plain_subdirectories(const char* dir) {
  struct entry* entries = NULL;
  size_t count = 0, capacity = 0;
  char path[4096];

  DIR* directory = opendir(dir);
  if (directory == NULL) return -1;
  for (const struct dirent* found; (found = readdir(directory)) != NULL;) {
    struct stat status;
    if (found->d_type != DT_DIR && found->d_type != DT_UNKNOWN) continue;
    if (is_hidden(found->d_name)) continue;
    snprintf(path, sizeof path, "%s/%s", dir, found->d_name);
    if (lstat(path, &status) != 0 || !S_ISDIR(status.st_mode)) continue;
    if (count == capacity) {
      capacity = capacity == 0 ? 16 : capacity * 2;
      entries = realloc(entries, capacity * sizeof *entries);
      if (entries == NULL) abort();
    }
    entries[count++] = (struct entry){
        .name = strdup(found->d_name),
        .path = strdup(path),
        .size = status.st_size,
        .mode = status.st_mode,
        .uid = status.st_uid,
        .gid = status.st_gid,
        .mtime = (int32_t)status.st_mtime,
        .is_mount = is_mount(path),
    };
  }
  closedir(directory);
  if (count > 0) qsort(entries, count, sizeof *entries, by_name);
  for (size_t i = 0; i < count; i++) {
    free(entries[i].name);
    free(entries[i].path);
  }
  free(entries);
  return (long)count;
}
