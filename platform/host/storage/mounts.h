/* mounts.h - the kernel's table of mounts. Not installed. */
#ifndef VEMO_HOST_STORAGE_MOUNTS_H
#define VEMO_HOST_STORAGE_MOUNTS_H

/* One line of /proc/self/mountinfo (proc(5)). */
struct vemo_mount {
  unsigned long long id;
  char *point; /* octal numbers undone */
  char *type;
};

/* Calls `seen` with each mount, in the table's order: of several on one point the last counts.
 * No mount is touched. 0; -1 the table cannot be read. */
int vemo_each_mount(void (*seen)(const struct vemo_mount *mount, void *data), void *data);

#endif
