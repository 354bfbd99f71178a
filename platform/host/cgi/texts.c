/* Localized texts: string files, read once a process and again when they change. */
#include <errno.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include "cgi/state.h"

enum { FILE_LIMIT = 64 * 1024 * 1024 };

struct section {
  struct section *next;
  char *name;
  VEMOSZHASH *pairs;
};

/* A string file as it was last read, shared by all contexts. `sections` is NULL
 * when it could not be read. */
struct string_file {
  struct string_file *next;
  char *path;
  struct section *sections;
  struct vemo_stamp stamp;
  int missing;
  unsigned long generation; /* counts what was read, so that contexts see a change */
};

static struct string_file *files;

/* Which sections a context holds, in the order in which they were asked for. */
struct vemo_cgi_texts {
  const struct string_file *file;
  unsigned long generation;
  VEMOSZLIST *names;
  int count;
};

static void trim(char **text, size_t *size) {
  while (*size > 0 && strchr(" \t\r\n", **text) != NULL) {
    ++*text;
    --*size;
  }
  while (*size > 0 && strchr(" \t\r\n", (*text)[*size - 1]) != NULL)
    --*size;
  if (*size >= 2 && **text == '"' && (*text)[*size - 1] == '"') {
    ++*text;
    *size -= 2;
  }
}

static void free_section(struct section *section) {
  VLIBCSzHashFree(section->pairs);
  free(section->name);
  free(section);
}

/* A name that was used before starts afresh. */
static struct section *begin_section(struct string_file *file, const char *name, size_t size) {
  for (struct section **link = &file->sections; *link != NULL; link = &(*link)->next) {
    struct section *old = *link;
    if (strlen(old->name) != size || memcmp(old->name, name, size) != 0) continue;
    *link = old->next;
    free_section(old);
    break;
  }
  struct section *section = calloc(1, sizeof *section);
  if (section == NULL) return NULL;
  section->name = strndup(name, size);
  section->pairs = VLIBCSzHashAlloc(32);
  if (section->name == NULL || section->pairs == NULL) {
    free_section(section);
    return NULL;
  }
  section->next = file->sections;
  file->sections = section;
  return section;
}

static void parse_line(struct string_file *file, struct section **current, char *line,
                       size_t size) {
  if (size >= 3 && memcmp(line, "\xef\xbb\xbf", 3) == 0) {
    line += 3;
    size -= 3;
  }
  trim(&line, &size);
  if (size == 0 || *line == '#') return;
  if (*line == '[') {
    const char *close = memrchr(line, ']', size);
    if (close != NULL) *current = begin_section(file, line + 1, (size_t)(close - line) - 1);
    return;
  }
  char *equals = memchr(line, '=', size);
  if (equals == NULL || *current == NULL) return;
  char *key = line;
  char *value = equals + 1;
  size_t key_size = (size_t)(equals - line);
  size_t value_size = size - key_size - 1;
  trim(&key, &key_size);
  trim(&value, &value_size);
  vemo_hash_set((*current)->pairs, key, key_size, value, value_size, 0);
}

static void parse_text(struct string_file *file, char *text, size_t size) {
  struct section *current = NULL;

  for (char *end = text + size; text < end;) {
    char *feed = memchr(text, '\n', (size_t)(end - text));
    char *line_end = feed == NULL ? end : feed;
    /* A text is a C string: what stands behind a NUL byte is not seen. */
    parse_line(file, &current, text, strnlen(text, (size_t)(line_end - text)));
    text = line_end + 1;
  }
}

static void drop_sections(struct string_file *file) {
  while (file->sections != NULL) {
    struct section *next = file->sections->next;
    free_section(file->sections);
    file->sections = next;
  }
}

static void read_again(struct string_file *file) {
  struct stat status;
  size_t size;

  char *text = vemo_read_file(file->path, 0, FILE_LIMIT, &size, &status);
  file->generation++;
  file->missing = text == NULL;
  drop_sections(file);
  if (text == NULL) return;
  vemo_stamp_set(&file->stamp, &status);
  parse_text(file, text, size);
  free(text);
}

static struct string_file *open_file(const char *path) {
  struct string_file *file = files;
  struct stat status;

  while (file != NULL && strcmp(file->path, path) != 0)
    file = file->next;
  if (file == NULL) {
    file = calloc(1, sizeof *file);
    if (file == NULL || (file->path = strdup(path)) == NULL) {
      free(file);
      return NULL;
    }
    file->next = files;
    files = file;
    read_again(file);
    return file;
  }
  const int found = stat(path, &status) == 0;
  if (found ? !file->missing && vemo_stamp_matches(&file->stamp, &status) : file->missing) {
    return file;
  }
  read_again(file);
  return file;
}

static const struct section *find_section(const struct string_file *file, const char *name) {
  const struct section *section = file->sections;

  while (section != NULL && strcmp(section->name, name) != 0)
    section = section->next;
  return section;
}

static struct string_file *file_of(VEMOCGI *ctx, const char *language) {
  char path[4096];
  const int length =
      snprintf(path, sizeof path, "%s/texts/%s/strings", ctx->state->text_dir, language);

  return length < 0 || (size_t)length >= sizeof path ? NULL : open_file(path);
}

static int copy_pair(const char *key, const char *value, void *texts) {
  return vemo_hash_set(texts, key, strlen(key), value, strlen(value), 1);
}

/* Adds the context's sections of a file; what is there already stays. */
static void add_sections(VEMOCGI *ctx, const struct string_file *file) {
  const char *name;

  for (int i = 0; (name = VLIBCSzListGet(ctx->state->texts->names, i)) != NULL; i++) {
    const struct section *section = find_section(file, name);
    if (section != NULL) vemo_hash_each(section->pairs, copy_pair, ctx->texts);
  }
}

/* Fills the context's texts anew: the language's, then English for what is
 * missing there. Texts that were handed out stay valid. */
static void fill(VEMOCGI *ctx, const struct string_file *file, const char *language) {
  vemo_hash_forget(ctx->texts);
  add_sections(ctx, file);
  if (strcmp(language, "enu") != 0) {
    const struct string_file *english = file_of(ctx, "enu");
    if (english != NULL) add_sections(ctx, english);
  }
  ctx->state->texts->file = file;
  ctx->state->texts->generation = file->generation;
}

static int is_listed(const VEMOSZLIST *names, const char *name) {
  const char *listed;

  for (int i = 0; (listed = VLIBCSzListGet(names, i)) != NULL; i++) {
    if (strcmp(listed, name) == 0) return 1;
  }
  return 0;
}

static struct vemo_cgi_texts *texts_of(VEMOCGI *ctx) {
  if (ctx->state->texts != NULL) return ctx->state->texts;
  struct vemo_cgi_texts *texts = calloc(1, sizeof *texts);
  if (texts == NULL || (texts->names = VLIBCSzListAlloc(6)) == NULL) {
    free(texts);
    VEMO_FAIL(VEMOERR_NO_MEMORY);
    return NULL;
  }
  ctx->state->texts = texts;
  return texts;
}

int VemoCgiLoadText(VEMOCGI *ctx, ...) {
  int found = 0, added = 0;
  const char *name;
  va_list sections;

  if (!vemo_cgi_is_ready(ctx) || texts_of(ctx) == NULL) return 0;
  struct vemo_cgi_texts *texts = ctx->state->texts;
  const char *language = VemoCgiGetLang(ctx);
  const struct string_file *file = file_of(ctx, language);
  if (file == NULL) return 0;

  va_start(sections, ctx);
  while ((name = va_arg(sections, const char *)) != NULL) {
    found += find_section(file, name) != NULL;
    if (is_listed(texts->names, name)) continue;
    if (VLIBCSzListPush(&texts->names, name) == 0) added = 1;
  }
  va_end(sections);
  if (added || texts->file != file || texts->generation != file->generation) {
    fill(ctx, file, language);
  }
  return found;
}

void vemo_cgi_texts_free(VEMOCGI *ctx) {
  if (ctx->state->texts == NULL) return;
  VLIBCSzListFree(ctx->state->texts->names);
  free(ctx->state->texts);
  ctx->state->texts = NULL;
}

const char *VemoCgiGetText(VEMOCGI *ctx, const char *key, const char *selector) {
  const char *text = ctx == NULL ? NULL : VLIBCSzHashGetValue(ctx->texts, key);

  if (text == NULL) text = selector;
  return text == NULL ? "" : text;
}

/* What could end a string literal, or the script that it stands in. */
static const char *escape_of(const char *at, size_t *size, char *buffer) {
  *size = 1;
  switch (*at) {
    case '\\':
      return "\\\\";
    case '"':
      return "\\\"";
    case '\'':
      return "\\'";
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    default:
      break;
  }
  if (strncmp(at, "\xe2\x80\xa8", 3) == 0 || strncmp(at, "\xe2\x80\xa9", 3) == 0) {
    *size = 3;
    return at[2] == '\xa8' ? "\\u2028" : "\\u2029";
  }
  if (strchr("<>&", *at) == NULL && (unsigned char)*at >= 0x20) return NULL;
  sprintf(buffer, "\\u%04x", (unsigned char)*at);
  return buffer;
}

const char *VemoCgiGetEncodeText(VEMOCGI *ctx, const char *key, const char *selector) {
  const char *text = VemoCgiGetText(ctx, key, selector);
  char buffer[8];
  size_t used = 0;

  if (!vemo_cgi_is_ready(ctx)) return "";
  char *escaped = vemo_cgi_alloc(ctx, strlen(text) * 6 + 1);
  if (escaped == NULL) return "";
  while (*text != '\0') {
    size_t size;
    const char *escape = escape_of(text, &size, buffer);
    if (escape == NULL) {
      escaped[used++] = *text++;
      continue;
    }
    const size_t length = strlen(escape);
    memcpy(escaped + used, escape, length);
    used += length;
    text += size;
  }
  return escaped;
}
