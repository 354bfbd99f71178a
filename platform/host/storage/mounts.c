/* The kernel's table of mounts. */
#include "storage/mounts.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* Blanks and the like stand as octal numbers. */
static void decode(char *text) {
  char *to = text;

  for (const char *from = text; *from != '\0'; from++) {
    unsigned code;
    if (*from == '\\' && sscanf(from + 1, "%3o", &code) == 1) {
      *to++ = (char)code;
      from += 3;
    } else {
      *to++ = *from;
    }
  }
  *to = '\0';
}

static int parse(char *line, struct vemo_mount *mount) {
  char *rest = NULL;

  char *separator = strstr(line, " - ");
  if (separator == NULL) return -1;
  *separator = '\0';
  mount->type = strtok_r(separator + 3, " \n", &rest);
  const char *id = strtok_r(line, " ", &rest);
  for (int i = 0; i < 4 && id != NULL; i++)
    mount->point = strtok_r(NULL, " ", &rest);
  if (id == NULL || mount->point == NULL || mount->type == NULL) return -1;
  mount->id = strtoull(id, NULL, 10);
  decode(mount->point);
  return 0;
}

int vemo_each_mount(void (*seen)(const struct vemo_mount *mount, void *data), void *data) {
  char *line = NULL;
  size_t size = 0;

  FILE *table = fopen("/proc/self/mountinfo", "re");
  if (table == NULL) return -1;
  while (getline(&line, &size, table) > 0) {
    struct vemo_mount mount;
    if (parse(line, &mount) == 0) seen(&mount, data);
  }
  free(line);
  fclose(table);
  return 0;
}
