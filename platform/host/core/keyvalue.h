/* keyvalue.h - the grammar of key=value files, shared by reader and writer. */
#ifndef VEMO_HOST_CORE_KEYVALUE_H
#define VEMO_HOST_CORE_KEYVALUE_H

#include <stddef.h>

enum {
  VEMO_KEYVALUE_LINE = 65536,           /* longest line, in bytes */
  VEMO_KEYVALUE_FILE = 64 * 1024 * 1024 /* largest file, in bytes */
};

/* One line: where it stands in the file, and the pair in it (key NULL: none).
 * The value may still hold \" and \\ when it stood in double quotes. */
struct vemo_line {
  const char *text;
  size_t size; /* with its line feed */
  const char *key;
  size_t key_size;
  const char *value;
  size_t value_size;
  int escaped;
};

/* Reads the line at `*at` and moves `*at` behind it. 1; 0 at the end. */
int vemo_keyvalue_line(const char **at, const char *end, struct vemo_line *line);

/* The text of a file, checked: no NUL byte, no line that is too long. malloc'ed.
 * NULL on failure (recorded). */
struct stat;
char *vemo_keyvalue_text(const char *file, int flags, size_t *size, struct stat *status);

#endif
