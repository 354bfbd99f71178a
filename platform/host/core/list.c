/* Lists of strings. */
#include <stdlib.h>
#include <string.h>

#include "core/internal.h"

struct _tag_VEMOSZLIST {
  char **texts;
  int count;
  int room;
};

VEMOSZLIST *VLIBCSzListAlloc(int capacity) {
  VEMOSZLIST *list = calloc(1, sizeof *list);

  if (list == NULL) goto no_memory;
  list->room = capacity > 0 && capacity <= 65536 ? capacity : 16;
  list->texts = malloc((size_t)list->room * sizeof *list->texts);
  if (list->texts == NULL) goto no_memory;
  return list;

no_memory:
  free(list);
  VEMO_FAIL(VEMOERR_NO_MEMORY);
  return NULL;
}

const char *VLIBCSzListGet(const VEMOSZLIST *list, int index) {
  if (list == NULL || index < 0 || index >= list->count) return NULL;
  return list->texts[index];
}

void VLIBCSzListFree(VEMOSZLIST *list) {
  if (list == NULL) return;
  for (int i = 0; i < list->count; i++)
    free(list->texts[i]);
  free(list->texts);
  free(list);
}

static int push(VEMOSZLIST *list, const char *text, size_t size) {
  if (list->count == list->room) {
    char **grown = reallocarray(list->texts, (size_t)list->room * 2, sizeof *grown);
    if (grown == NULL) goto no_memory;
    list->texts = grown;
    list->room *= 2;
  }
  char *copy = strndup(text, size);
  if (copy == NULL) goto no_memory;
  list->texts[list->count++] = copy;
  return 0;

no_memory:
  VEMO_FAIL(VEMOERR_NO_MEMORY);
  return -1;
}

int VLIBCSzListPush(VEMOSZLIST **list, const char *text) {
  if (list == NULL || *list == NULL || text == NULL) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  return push(*list, text, strlen(text));
}

int VLIBCStrTok(const char *text, const char *delimiters, VEMOSZLIST *list) {
  int count = 0;

  if (text == NULL || delimiters == NULL || list == NULL) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  for (;;) {
    text += strspn(text, delimiters);
    const size_t size = strcspn(text, delimiters);
    if (size == 0) return count;
    if (push(list, text, size) != 0) return -1;
    text += size;
    count++;
  }
}
