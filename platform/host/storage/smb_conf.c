/* Reading smb.conf. */
#include "storage/smb_conf.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/internal.h"

#define CONFIGURATION "/etc/samba/smb.conf"

enum { SIZE_LIMIT = 16 << 20, FILE_LIMIT = 100, DEPTH_LIMIT = 20, NAME_LIMIT = 256 };

/* Everything that one reading leaves. */
struct reading {
  struct vemo_smb_conf conf; /* first: it is what callers hold */
  struct vemo_arena arena;
  struct vemo_smb_section *sections;
  size_t room;
  VEMOSZHASH *global;
  VEMOSZHASH **snapshots; /* of [global], one for each state that a section began in */
  size_t snapshot_count;
  int global_changed;
  size_t current; /* index of the section being read; SIZE_MAX: [global] */
  VEMOSZHASH *by_name;
  struct {
    char *path;
    int missing;
    struct vemo_stamp stamp;
  } files[FILE_LIMIT];
  size_t file_count;
  int failed;
};

/* --- Names and values ------------------------------------------------------------ */

static char lower(char c) {
  return c >= 'A' && c <= 'Z' ? (char)(c - 'A' + 'a') : c;
}

static int is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f';
}

/* In lower case and, for parameters, without blanks. 0; -1: too long for any that counts. */
static int fold(const char *text, size_t size, int with_blanks, char *folded) {
  size_t used = 0;

  for (size_t i = 0; i < size; i++) {
    if (!with_blanks && is_blank(text[i])) continue;
    if (used + 1 >= NAME_LIMIT) return -1;
    folded[used++] = lower(text[i]);
  }
  folded[used] = '\0';
  return used > 0 ? 0 : -1;
}

static void trim(const char **text, size_t *size) {
  while (*size > 0 && is_blank(**text))
    (*text)++, (*size)--;
  while (*size > 0 && is_blank((*text)[*size - 1]))
    (*size)--;
}

int vemo_smb_bool(const char *text, int otherwise) {
  static const char *const yes[] = {"yes", "true", "on", "1"};
  static const char *const no[] = {"no", "false", "off", "0"};

  for (size_t i = 0; text != NULL && i < sizeof yes / sizeof *yes; i++) {
    if (strcasecmp(text, yes[i]) == 0) return 1;
    if (strcasecmp(text, no[i]) == 0) return 0;
  }
  return otherwise;
}

/* One name for each of those that mean the same; with `*inverted` the value too. */
static const char *canonical(const char *name, int *inverted) {
  static const struct {
    const char *name, *canonical;
    int inverted;
  } synonyms[] = {{"directory", "path", 0},      {"writable", "readonly", 1},
                  {"writeable", "readonly", 1},  {"writeok", "readonly", 1},
                  {"printok", "printable", 0},   {"public", "guestok", 0},
                  {"browsable", "browseable", 0}};

  *inverted = 0;
  for (size_t i = 0; i < sizeof synonyms / sizeof *synonyms; i++) {
    if (strcmp(name, synonyms[i].name) != 0) continue;
    *inverted = synonyms[i].inverted;
    return synonyms[i].canonical;
  }
  return name;
}

/* --- Sections ---------------------------------------------------------------------- */

static VEMOSZHASH *target_of(struct reading *reading) {
  if (reading->current != SIZE_MAX) return reading->sections[reading->current].own;
  reading->global_changed = 1;
  return reading->global;
}

static int copy_pair(const char *key, const char *value, void *data) {
  VEMOSZHASH *to = data;

  /* What the section says itself stays; parametric options are no parameters there. */
  const int keep = strchr(key, ':') == NULL;
  return vemo_hash_set(to, key, strlen(key), value, strlen(value), keep);
}

/* [global] as it is now, for the sections that begin before it changes again. */
static VEMOSZHASH *snapshot(struct reading *reading) {
  if (!reading->global_changed && reading->snapshot_count > 0) {
    return reading->snapshots[reading->snapshot_count - 1];
  }
  VEMOSZHASH **longer = realloc(reading->snapshots, (reading->snapshot_count + 1) * sizeof *longer);
  if (longer == NULL) return NULL;
  reading->snapshots = longer;
  VEMOSZHASH *made = VLIBCSzHashAlloc((int)vemo_hash_size(reading->global));
  if (made == NULL) return NULL;
  longer[reading->snapshot_count++] = made;
  reading->global_changed = 0;
  return vemo_hash_each(reading->global, copy_pair, made) == 0 ? made : NULL;
}

static int make_room(struct reading *reading) {
  if (reading->conf.count < reading->room) return 0;
  const size_t room = reading->room == 0 ? 32 : reading->room * 2;
  struct vemo_smb_section *longer = realloc(reading->sections, room * sizeof *longer);
  if (longer == NULL) return -1;
  reading->sections = longer;
  reading->room = room;
  return 0;
}

static size_t find_section(const struct reading *reading, const char *folded) {
  const char *index = VLIBCSzHashGetValue(reading->by_name, folded);

  return index == NULL ? SIZE_MAX : (size_t)strtoull(index, NULL, 10);
}

static int add_section(struct reading *reading, const char *name, size_t size, const char *folded) {
  char index[24];

  if (make_room(reading) != 0) return -1;
  struct vemo_smb_section *section = &reading->sections[reading->conf.count];
  *section = (struct vemo_smb_section){.name = vemo_arena_copy(&reading->arena, name, size),
                                       .general = snapshot(reading),
                                       .global = reading->global,
                                       .own = VLIBCSzHashAlloc(8)};
  if (section->name == NULL || section->general == NULL || section->own == NULL) {
    VLIBCSzHashFree(section->own);
    return -1;
  }
  reading->current = reading->conf.count++;
  snprintf(index, sizeof index, "%zu", reading->current);
  return VLIBCSzHashSetValue(reading->by_name, folded, index);
}

/* Parametric options ("type:name") are given anew where a section is continued. */
static int forget_parametric(const char *key, const char *value, void *data) {
  (void)value;
  return strchr(key, ':') == NULL ? 0 : VLIBCSzHashSetValue(data, key, "");
}

/* Samba makes a section without a path unavailable where it ends, and copies that too. */
static int end_section(struct reading *reading) {
  if (reading->current == SIZE_MAX) return 0;
  struct vemo_smb_section *section = &reading->sections[reading->current];
  if (strcasecmp(section->name, "homes") == 0 || strcasecmp(section->name, "printers") == 0)
    return 0;
  const char *path = vemo_smb_value(section, "path");
  if (path != NULL && *path != '\0') return 0;
  return VLIBCSzHashSetValue(section->own, "available", "no");
}

/* Of a run of blanks the first one stays. The new size; SIZE_MAX: too long for a share. */
static size_t condense(const char *name, size_t size, char *condensed) {
  size_t used = 0;

  for (size_t i = 0; i < size; i++) {
    if (is_blank(name[i]) && i > 0 && is_blank(name[i - 1])) continue;
    if (used + 1 >= NAME_LIMIT) return SIZE_MAX;
    condensed[used++] = name[i];
  }
  return used;
}

static int begin_section(struct reading *reading, const char *header, size_t header_size) {
  char folded[NAME_LIMIT], name[NAME_LIMIT];

  const size_t size = condense(header, header_size, name);
  if (size == SIZE_MAX || fold(name, size, 1, folded) != 0) return 0;
  if (end_section(reading) != 0) return -1;
  if (strcmp(folded, "global") == 0 || strcmp(folded, "globals") == 0) {
    reading->current = SIZE_MAX;
    return 0;
  }
  const size_t found = find_section(reading, folded);
  if (found == SIZE_MAX) return add_section(reading, name, size, folded);
  reading->current = found;
  VEMOSZHASH *own = reading->sections[found].own;
  return vemo_hash_each(own, forget_parametric, own);
}

static int copy_section(struct reading *reading, const char *name) {
  char folded[NAME_LIMIT];

  if (reading->current == SIZE_MAX || fold(name, strlen(name), 1, folded) != 0) return 0;
  const size_t from = find_section(reading, folded);
  if (from == SIZE_MAX || from == reading->current) return 0;
  return vemo_hash_each(reading->sections[from].own, copy_pair,
                        reading->sections[reading->current].own);
}

/* --- Lines ---------------------------------------------------------------------------- */

static int read_file(struct reading *reading, const char *path, int depth);

/* "%h" is the host's name. 0; -1: a variable that depends on who asks, which nobody here
 * does. */
static int substitute(const char *text, char *buffer, size_t size) {
  char host[256] = "";
  size_t used = 0;

  gethostname(host, sizeof host - 1);
  for (const char *c = text; *c != '\0'; c++) {
    if (*c == '%' && c[1] != 'h') return -1;
    const char *piece = *c == '%' ? host : c;
    const size_t length = *c == '%' ? strlen(host) : 1;
    if (used + length >= size) return -1;
    memcpy(buffer + used, piece, length);
    used += length;
    if (*c == '%') c++;
  }
  buffer[used] = '\0';
  return 0;
}

static int include(struct reading *reading, const char *value, int depth) {
  char path[4096];

  /* What cannot be included is left out, as Samba does. */
  if (substitute(value, path, sizeof path) != 0 || path[0] != '/') return 0;
  if (depth >= DEPTH_LIMIT || reading->file_count >= FILE_LIMIT) return 0;
  return read_file(reading, path, depth + 1) == 0 || !reading->failed ? 0 : -1;
}

static int set_parameter(struct reading *reading, const char *name, size_t name_size,
                         const char *value, size_t value_size, int depth) {
  char folded[NAME_LIMIT];
  int inverted;

  if (fold(name, name_size, 0, folded) != 0) return 0;
  trim(&value, &value_size);
  const char *key = canonical(folded, &inverted);
  char *text = vemo_arena_copy(&reading->arena, value, value_size);
  if (text == NULL) return -1;
  if (strcmp(key, "include") == 0) return include(reading, text, depth);
  if (strcmp(key, "copy") == 0) return copy_section(reading, text);
  if (inverted) {
    const int yes = vemo_smb_bool(text, -1);
    if (yes < 0) return 0;
    return VLIBCSzHashSetValue(target_of(reading), key, yes ? "no" : "yes");
  }
  return VLIBCSzHashSetValue(target_of(reading), key, text);
}

static int read_line(struct reading *reading, const char *line, size_t size, int depth) {
  trim(&line, &size);
  if (size == 0 || *line == '#' || *line == ';') return 0;
  if (*line == '[') {
    const char *end = memchr(line, ']', size);
    return end == NULL ? 0 : begin_section(reading, line + 1, (size_t)(end - line - 1));
  }
  const char *equals = memchr(line, '=', size);
  if (equals == NULL) return 0;
  return set_parameter(reading, line, (size_t)(equals - line), equals + 1,
                       (size_t)(line + size - equals - 1), depth);
}

static int is_comment(const char *line, const char *end) {
  while (line < end && is_blank(*line))
    line++;
  return line < end && (*line == '#' || *line == ';');
}

/* Takes the next line off the text, lines that a backslash joins as one, within the text's
 * own memory. */
static size_t join_line(char *line, char *end, char **next) {
  char *out = line, *in = line;
  const int comment = is_comment(line, end);

  for (;;) {
    char *stop = memchr(in, '\n', (size_t)(end - in));
    if (stop == NULL) stop = end;
    size_t size = (size_t)(stop - in);
    if (size > 0 && in[size - 1] == '\r') size--;
    const int joined = !comment && size > 0 && in[size - 1] == '\\' && stop < end;
    if (joined) size--;
    memmove(out, in, size);
    out += size;
    in = stop < end ? stop + 1 : end;
    if (!joined) break;
  }
  *next = in;
  return (size_t)(out - line);
}

static int read_text(struct reading *reading, char *text, size_t size, int depth) {
  char *at = text, *end = text + size;

  if (size >= 3 && memcmp(text, "\xef\xbb\xbf", 3) == 0) at += 3;
  while (at < end) {
    char *line = at;
    const size_t length = join_line(line, end, &at);
    if (read_line(reading, line, length, depth) != 0) return -1;
  }
  return 0;
}

static int fail_memory(struct reading *reading) {
  reading->failed = 1;
  VEMO_FAIL_AS(ENOMEM, VEMOERR_NO_MEMORY);
  return -1;
}

static int read_file(struct reading *reading, const char *path, int depth) {
  const size_t index = reading->file_count++;
  struct stat status;
  size_t size;

  reading->files[index].path = vemo_arena_copy(&reading->arena, path, strlen(path));
  if (reading->files[index].path == NULL) return fail_memory(reading);
  char *text = vemo_read_file(path, 0, SIZE_LIMIT, &size, &status);
  reading->files[index].missing = text == NULL;
  if (text == NULL) return -1;
  vemo_stamp_set(&reading->files[index].stamp, &status);
  if (memchr(text, '\0', size) != NULL) {
    free(text);
    VEMO_FAIL_AS(EINVAL, VEMOERR_FORMAT);
    return -1;
  }
  const int failed = read_text(reading, text, size, depth);
  free(text);
  return failed ? fail_memory(reading) : 0;
}

/* --- Shares ------------------------------------------------------------------------------ */

const char *vemo_smb_value(const struct vemo_smb_section *section, const char *parameter) {
  const char *value = VLIBCSzHashGetValue(section->own, parameter);

  /* Parametric options have no defaults of their own: [global] is asked as it ended up. */
  if (strchr(parameter, ':') != NULL) {
    return value != NULL && *value != '\0' ? value
                                           : VLIBCSzHashGetValue(section->global, parameter);
  }
  return value != NULL ? value : VLIBCSzHashGetValue(section->general, parameter);
}

/* The path as the share has it: quotes around it, doubled slashes and those at the end do not
 * count, "%S" is the share's name. NULL: none that can be a share's. */
static const char *path_of(struct reading *reading, const struct vemo_smb_section *section) {
  const char *text = vemo_smb_value(section, "path");
  char path[4096];
  size_t used = 0;

  while (text != NULL && *text == '"')
    text++;
  if (text == NULL || *text != '/') return NULL;
  for (const char *c = text; *c != '\0'; c++) {
    const char *piece = c;
    size_t length = 1;
    if (*c == '%' && c[1] != 'S') return NULL;
    if (*c == '%') piece = section->name, length = strlen(section->name), c++;
    if (*c == '/' && used > 0 && path[used - 1] == '/') continue;
    if (used + length >= sizeof path) return NULL;
    memcpy(path + used, piece, length);
    used += length;
  }
  while (used > 1 && (path[used - 1] == '"' || path[used - 1] == '/'))
    used--;
  return vemo_arena_copy(&reading->arena, path, used);
}

static int is_share(const struct vemo_smb_section *section) {
  if (strcasecmp(section->name, "homes") == 0 || strcasecmp(section->name, "printers") == 0)
    return 0;
  return vemo_smb_bool(vemo_smb_value(section, "available"), 1) &&
         !vemo_smb_bool(vemo_smb_value(section, "printable"), 0);
}

static int by_name(const void *a, const void *b) {
  return strcasecmp((*(const struct vemo_smb_section *const *)a)->name,
                    (*(const struct vemo_smb_section *const *)b)->name);
}

/* Of shares with the same path the one whose name comes first stands first. */
static int by_path(const void *a, const void *b) {
  const int order = strcmp((*(const struct vemo_smb_section *const *)a)->path,
                           (*(const struct vemo_smb_section *const *)b)->path);

  return order != 0 ? order : by_name(a, b);
}

static int index_shares(struct reading *reading) {
  struct vemo_smb_conf *conf = &reading->conf;
  const size_t size = (conf->count + 1) * sizeof(void *);

  conf->sections = reading->sections;
  conf->global = reading->global;
  conf->shares_by_name = vemo_arena_alloc(&reading->arena, size);
  conf->shares_by_path = vemo_arena_alloc(&reading->arena, size);
  if (conf->shares_by_name == NULL || conf->shares_by_path == NULL) return -1;
  for (size_t i = 0; i < conf->count; i++) {
    struct vemo_smb_section *section = &reading->sections[i];
    if (strcasecmp(section->name, "homes") == 0) conf->homes = section;
    section->path = is_share(section) ? path_of(reading, section) : NULL;
    if (section->path == NULL) continue;
    conf->shares_by_name[conf->share_count] = section;
    conf->shares_by_path[conf->share_count++] = section;
  }
  qsort(conf->shares_by_name, conf->share_count, sizeof(void *), by_name);
  qsort(conf->shares_by_path, conf->share_count, sizeof(void *), by_path);
  return 0;
}

const struct vemo_smb_section *vemo_smb_share_named(const struct vemo_smb_conf *conf,
                                                    const char *name) {
  const struct vemo_smb_section wanted = {.name = name}, *key = &wanted;
  const struct vemo_smb_section **found =
      bsearch(&key, conf->shares_by_name, conf->share_count, sizeof(void *), by_name);

  return found == NULL ? NULL : *found;
}

const struct vemo_smb_section *vemo_smb_share_at(const struct vemo_smb_conf *conf,
                                                 const char *path) {
  size_t low = 0, high = conf->share_count;

  while (low < high) {
    const size_t middle = low + (high - low) / 2;
    if (strcmp(conf->shares_by_path[middle]->path, path) < 0)
      low = middle + 1;
    else
      high = middle;
  }
  return low < conf->share_count && strcmp(conf->shares_by_path[low]->path, path) == 0
             ? conf->shares_by_path[low]
             : NULL;
}

/* --- The reading of this process ------------------------------------------------------------ */

static void forget(struct reading *reading) {
  if (reading == NULL) return;
  for (size_t i = 0; i < reading->conf.count; i++)
    VLIBCSzHashFree(reading->sections[i].own);
  for (size_t i = 0; i < reading->snapshot_count; i++)
    VLIBCSzHashFree(reading->snapshots[i]);
  VLIBCSzHashFree(reading->global);
  VLIBCSzHashFree(reading->by_name);
  free(reading->snapshots);
  free(reading->sections);
  vemo_arena_free(&reading->arena);
  free(reading);
}

static struct reading *read_all(void) {
  struct reading *reading = calloc(1, sizeof *reading);

  if (reading == NULL) goto no_memory;
  reading->current = SIZE_MAX;
  reading->global = VLIBCSzHashAlloc(32);
  reading->by_name = VLIBCSzHashAlloc(32);
  if (reading->global == NULL || reading->by_name == NULL) goto no_memory;
  /* A process that has become the user reads it as root, where it still can. */
  const uid_t before = geteuid();
  const int as_root = before != 0 && seteuid(0) == 0;
  const int failed = read_file(reading, CONFIGURATION, 0);
  if (as_root) vemo_root_end(before);
  if (failed) goto failed;
  if (end_section(reading) != 0) goto no_memory;
  if (index_shares(reading) == 0) return reading;

no_memory:
  VEMO_FAIL_AS(ENOMEM, VEMOERR_NO_MEMORY);
failed:
  forget(reading);
  return NULL;
}

static int is_current(const struct reading *reading) {
  for (size_t i = 0; i < reading->file_count; i++) {
    struct stat status;
    const int missing = stat(reading->files[i].path, &status) != 0;
    if (missing != reading->files[i].missing) return 0;
    if (!missing && !vemo_stamp_matches(&reading->files[i].stamp, &status)) return 0;
  }
  return 1;
}

const struct vemo_smb_conf *vemo_smb_conf(void) {
  static struct reading *kept;

  if (kept != NULL && is_current(kept)) return &kept->conf;
  forget(kept);
  kept = read_all();
  return kept == NULL ? NULL : &kept->conf;
}

int vemo_smb_conf_global(const char *parameter, char *buffer, size_t size) {
  char folded[NAME_LIMIT];
  int inverted;
  const struct vemo_smb_conf *conf = vemo_smb_conf();

  if (conf == NULL) return -1;
  if (fold(parameter, strlen(parameter), 0, folded) != 0) return 0;
  const char *value = VLIBCSzHashGetValue(conf->global, canonical(folded, &inverted));
  if (value == NULL) return 0;
  snprintf(buffer, size, "%s", value);
  return 1;
}
