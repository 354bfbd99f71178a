/* key=value files: the grammar and the readers. */
#include "core/keyvalue.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "core/internal.h"

static int is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f';
}

static void trim(const char **text, size_t *size) {
  while (*size > 0 && is_blank(**text)) {
    ++*text;
    --*size;
  }
  while (*size > 0 && is_blank((*text)[*size - 1]))
    --*size;
}

/* Drops one pair of quotes around the value. */
static void unquote(struct vemo_line *line) {
  if (line->value_size < 2) return;
  const char first = line->value[0];
  if ((first != '"' && first != '\'') || line->value[line->value_size - 1] != first) return;
  line->value++;
  line->value_size -= 2;
  line->escaped = first == '"' && memchr(line->value, '\\', line->value_size) != NULL;
}

int vemo_keyvalue_line(const char **at, const char *end, struct vemo_line *line) {
  if (*at >= end) return 0;
  const char *feed = memchr(*at, '\n', (size_t)(end - *at));
  const char *next = feed == NULL ? end : feed + 1;
  *line = (struct vemo_line){.text = *at, .size = (size_t)(next - *at)};
  *at = next;

  const char *text = line->text;
  size_t size = line->size - (feed == NULL ? 0 : 1);
  trim(&text, &size);
  if (size == 0 || strchr("#;[", *text) != NULL) return 1;
  const char *equals = memchr(text, '=', size);
  if (equals == NULL) return 1;

  line->key = text;
  line->key_size = (size_t)(equals - text);
  trim(&line->key, &line->key_size);
  line->value = equals + 1;
  line->value_size = size - (size_t)(equals + 1 - text);
  trim(&line->value, &line->value_size);
  unquote(line);
  if (line->key_size == 0) line->key = NULL;
  return 1;
}

static int is_readable(const char *text, size_t size) {
  const char *end = text + size;

  if (memchr(text, '\0', size) != NULL) return 0;
  for (const char *at = text; at < end;) {
    const char *feed = memchr(at, '\n', (size_t)(end - at));
    if ((feed == NULL ? end : feed) - at > VEMO_KEYVALUE_LINE) return 0;
    if (feed == NULL) break;
    at = feed + 1;
  }
  return 1;
}

char *vemo_keyvalue_text(const char *file, int flags, size_t *size, struct stat *status) {
  char *text = vemo_read_file(file, flags, VEMO_KEYVALUE_FILE, size, status);

  if (text == NULL) return NULL;
  if (!is_readable(text, *size)) {
    free(text);
    VEMO_FAIL_AS(EINVAL, VEMOERR_FORMAT);
    return NULL;
  }
  return text;
}

/* Within double quotes \" and \\ mean the character. */
static size_t unescape(char *value, size_t size) {
  size_t used = 0;

  for (size_t i = 0; i < size; i++) {
    if (value[i] == '\\' && i + 1 < size && (value[i + 1] == '"' || value[i + 1] == '\\')) i++;
    value[used++] = value[i];
  }
  return used;
}

/* Stores the pairs of a text, which is changed. The number of pairs; -1. */
static int store_pairs(char *text, size_t size, VEMOSZHASH *hash) {
  static const char mark[] = "\xef\xbb\xbf";
  const char *at = text;
  const char *end = text + size;
  struct vemo_line line;
  int count = 0;

  if (size >= 3 && memcmp(text, mark, 3) == 0) at += 3;
  while (vemo_keyvalue_line(&at, end, &line)) {
    if (line.key == NULL) continue;
    if (line.escaped) {
      line.value_size = unescape(text + (line.value - text), line.value_size);
    }
    if (vemo_hash_set(hash, line.key, line.key_size, line.value, line.value_size, 0) != 0) {
      return -1;
    }
    count++;
  }
  return count;
}

/* A file that was read, and what it looked like then. */
struct cached {
  struct cached *next;
  char *file;
  VEMOSZHASH *pairs;
  int count;
  struct vemo_stamp stamp;
  uint64_t sum;
};

static struct cached *cache;

/* What was replaced stays: its texts are in somebody's hands. */
static struct cached *retired;

static struct cached *find_cached(const char *file) {
  struct cached *entry = cache;

  while (entry != NULL && strcmp(entry->file, file) != 0)
    entry = entry->next;
  return entry;
}

static void free_cached(struct cached *entry) {
  free(entry->file);
  VLIBCSzHashFree(entry->pairs);
  free(entry);
}

static struct cached *read_entry(const char *file) {
  struct cached *entry = calloc(1, sizeof *entry);
  struct stat status;
  size_t size;
  char *text;

  if (entry == NULL) {
    VEMO_FAIL(VEMOERR_NO_MEMORY);
    return NULL;
  }
  text = vemo_keyvalue_text(file, 0, &size, &status);
  if (text == NULL) goto failed;
  vemo_stamp_set(&entry->stamp, &status);
  entry->sum = vemo_hash_bytes(text, size);
  entry->pairs = VLIBCSzHashAlloc(64);
  if (entry->pairs == NULL) goto failed;
  entry->file = strdup(file);
  if (entry->file == NULL) {
    VEMO_FAIL(VEMOERR_NO_MEMORY);
    goto failed;
  }
  entry->count = store_pairs(text, size, entry->pairs);
  if (entry->count < 0) goto failed;
  free(text);
  return entry;

failed:
  free(text);
  free_cached(entry);
  return NULL;
}

static struct cached *lookup(const char *file) {
  struct cached *entry = find_cached(file);
  struct stat status;

  if (entry != NULL && stat(file, &status) == 0 && vemo_stamp_matches(&entry->stamp, &status)) {
    return entry;
  }
  struct cached *now = read_entry(file);
  if (now == NULL) return NULL;
  if (entry != NULL && entry->sum == now->sum) {
    entry->stamp = now->stamp;
    free_cached(now);
    return entry;
  }
  if (entry != NULL) {
    struct cached **link = &cache;
    while (*link != entry)
      link = &(*link)->next;
    *link = entry->next;
    entry->next = retired;
    retired = entry;
  }
  now->next = cache;
  cache = now;
  return now;
}

const VEMOSZHASH *vemo_keyvalue_cached(const char *file) {
  const struct cached *entry = lookup(file);

  return entry == NULL ? NULL : entry->pairs;
}

int VLIBCFileGetKeyValue(const char *file, const char *key, char *buffer, int size) {
  if (file == NULL || *file == '\0' || key == NULL || *key == '\0' || buffer == NULL || size < 1) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  const VEMOSZHASH *pairs = vemo_keyvalue_cached(file);
  if (pairs == NULL) return -1;
  const char *value = VLIBCSzHashGetValue(pairs, key);
  if (value == NULL) return 0;
  const size_t length = strnlen(value, (size_t)size - 1);
  memcpy(buffer, value, length);
  buffer[length] = '\0';
  return 1;
}

int VLIBCFileCheckKeyValue(const char *file, const char *key, const char *value, int flags) {
  (void)flags;
  if (file == NULL || *file == '\0' || key == NULL || *key == '\0' || value == NULL) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  const VEMOSZHASH *pairs = vemo_keyvalue_cached(file);
  if (pairs == NULL) return -1;
  const char *stored = VLIBCSzHashGetValue(pairs, key);
  return stored != NULL && strcasecmp(stored, value) == 0;
}

int VLIBCFileGetPair(const char *file, VEMOSZHASH *hash) {
  size_t size;

  if (file == NULL || *file == '\0' || hash == NULL) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  char *text = vemo_keyvalue_text(file, 0, &size, NULL);
  if (text == NULL) return -1;
  const int count = store_pairs(text, size, hash);
  free(text);
  return count;
}
