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

enum {
  SIZE_LIMIT = 16 << 20,   /* bytes of all files */
  INCLUDE_LIMIT = 1 << 14, /* inclusions */
  DEPTH_LIMIT = 100,       /* of inclusions within each other, as Samba's */
  SECTION_LIMIT = 1 << 16,
  NAME_LIMIT = 1024 /* bytes of a name, with its NUL */
};

/* A file that the reading depends on. */
struct source {
  char *path;
  int missing;
  struct vemo_stamp stamp;
};

/* Everything that one reading leaves. */
struct reading {
  struct vemo_smb_conf conf; /* first: it is what callers hold */
  struct vemo_arena arena;
  struct vemo_smb_section *sections;
  size_t section_room;
  size_t current; /* index of the section being read; SIZE_MAX: [global] */
  const char *defaults[VEMO_SMB_PARAMETERS];
  VEMOSZHASH *global;
  VEMOSZHASH *by_name; /* index of a section */
  struct source *sources;
  size_t source_count, source_room;
  VEMOSZHASH *by_source; /* index of a file */
  size_t inclusions, bytes;
};

/* What this system does with the parameters that it knows. */
enum kind { TEXT, YES_NO, NO_YES, OPTION };

struct parameter {
  const char *name;
  enum vemo_smb_parameter index;
  enum kind kind;
};

/* --- Names and values ------------------------------------------------------------ */

static char lower(char c) {
  return c >= 'A' && c <= 'Z' ? (char)(c - 'A' + 'a') : c;
}

static int is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f';
}

/* In lower case and, for parameters, without blanks. 0; -1: too long for any that counts. */
static int fold(const char *text, size_t size, int with_blanks, char folded[NAME_LIMIT]) {
  size_t used = 0;

  for (size_t i = 0; i < size; i++) {
    if (!with_blanks && is_blank(text[i])) continue;
    if (used + 1 >= NAME_LIMIT) return -1;
    folded[used++] = lower(text[i]);
  }
  folded[used] = '\0';
  return 0;
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

static const struct parameter *find_parameter(const char *folded) {
  static const struct parameter known[] = {
      {"path", VEMO_SMB_PATH, TEXT},
      {"directory", VEMO_SMB_PATH, TEXT},
      {"readonly", VEMO_SMB_READ_ONLY, YES_NO},
      {"writable", VEMO_SMB_READ_ONLY, NO_YES},
      {"writeable", VEMO_SMB_READ_ONLY, NO_YES},
      {"writeok", VEMO_SMB_READ_ONLY, NO_YES},
      {"available", VEMO_SMB_AVAILABLE, YES_NO},
      {"printable", VEMO_SMB_PRINTABLE, YES_NO},
      {"printok", VEMO_SMB_PRINTABLE, YES_NO},
      {"hideunreadable", VEMO_SMB_HIDE_UNREADABLE, YES_NO},
      {"invalidusers", VEMO_SMB_INVALID_USERS, TEXT},
      {"validusers", VEMO_SMB_VALID_USERS, TEXT},
      {"readlist", VEMO_SMB_READ_LIST, TEXT},
      {"writelist", VEMO_SMB_WRITE_LIST, TEXT},
      {"vemo:restrictions", VEMO_SMB_RESTRICTIONS, OPTION},
      {"vemo:encrypted", VEMO_SMB_ENCRYPTED, OPTION},
  };

  for (size_t i = 0; i < sizeof known / sizeof *known; i++) {
    if (strcmp(folded, known[i].name) == 0) return &known[i];
  }
  return NULL;
}

/* What Samba refuses is refused here. */
static int refuse(void) {
  VEMO_FAIL_AS(EINVAL, VEMOERR_FORMAT);
  return -1;
}

static int fail_memory(void) {
  VEMO_FAIL_AS(ENOMEM, VEMOERR_NO_MEMORY);
  return -1;
}

/* Room for one more element. The array, moved perhaps; NULL. */
static void *make_room(void *array, size_t count, size_t *room, size_t size) {
  if (count < *room) return array;
  void *longer = reallocarray(array, *room == 0 ? 32 : *room * 2, size);
  if (longer == NULL) {
    fail_memory();
    return NULL;
  }
  *room = *room == 0 ? 32 : *room * 2;
  return longer;
}

static size_t index_of(const VEMOSZHASH *hash, const char *key) {
  const char *index = VLIBCSzHashGetValue(hash, key);

  return index == NULL ? SIZE_MAX : (size_t)strtoull(index, NULL, 10);
}

static int set_index(VEMOSZHASH *hash, const char *key, size_t index) {
  char text[24];

  snprintf(text, sizeof text, "%zu", index);
  return VLIBCSzHashSetValue(hash, key, text);
}

/* --- Sections ---------------------------------------------------------------------- */

static int is_special(const struct vemo_smb_section *section) {
  return strcasecmp(section->name, "homes") == 0 || strcasecmp(section->name, "printers") == 0;
}

static int add_section(struct reading *reading, const char *name, size_t size, const char *folded) {
  const size_t index = reading->conf.count;

  if (index >= SECTION_LIMIT) return refuse();
  struct vemo_smb_section *longer =
      make_room(reading->sections, index, &reading->section_room, sizeof *longer);
  if (longer == NULL) return -1;
  reading->sections = longer;
  struct vemo_smb_section *section = &longer[index];
  *section = (struct vemo_smb_section){.name = vemo_arena_copy(&reading->arena, name, size)};
  if (section->name == NULL) return -1;
  /* The defaults of this moment; options are asked of [global] as it ends up. */
  memcpy(section->values, reading->defaults, sizeof section->values);
  for (int i = VEMO_SMB_RESTRICTIONS; i < VEMO_SMB_PARAMETERS; i++)
    section->values[i] = NULL;
  reading->current = reading->conf.count++;
  return set_index(reading->by_name, folded, index);
}

/* Samba makes a section without a path unavailable where it ends, and copies that too. */
static void end_section(struct reading *reading) {
  if (reading->current == SIZE_MAX) return;
  struct vemo_smb_section *section = &reading->sections[reading->current];
  const char *path = section->values[VEMO_SMB_PATH];
  if (is_special(section) || (path != NULL && *path != '\0')) return;
  section->values[VEMO_SMB_AVAILABLE] = "no";
}

static int begin_section(struct reading *reading, const char *name, size_t size) {
  char folded[NAME_LIMIT], bare[NAME_LIMIT];

  if (size == 0 || fold(name, size, 1, folded) != 0) return refuse();
  end_section(reading);
  fold(name, size, 0, bare);
  if (strcmp(bare, "global") == 0 || strcmp(bare, "globals") == 0) {
    reading->current = SIZE_MAX;
    return 0;
  }
  reading->current = index_of(reading->by_name, folded);
  if (reading->current == SIZE_MAX) return add_section(reading, name, size, folded);
  /* Options are given anew where a section is continued. */
  struct vemo_smb_section *section = &reading->sections[reading->current];
  for (int i = VEMO_SMB_RESTRICTIONS; i < VEMO_SMB_PARAMETERS; i++)
    section->values[i] = NULL;
  return 0;
}

/* What the section says itself stays, options apart; all else comes from the other one, what
 * that had by default included. */
static int copy_section(struct reading *reading, const char *name) {
  char folded[NAME_LIMIT];

  if (reading->current == SIZE_MAX || fold(name, strlen(name), 1, folded) != 0) return refuse();
  const size_t from = index_of(reading->by_name, folded);
  if (from == SIZE_MAX || from == reading->current) return refuse();
  struct vemo_smb_section *section = &reading->sections[reading->current];
  for (int i = 0; i < VEMO_SMB_PARAMETERS; i++) {
    const char *value = reading->sections[from].values[i];
    const int option = i >= VEMO_SMB_RESTRICTIONS;
    if (option ? value != NULL : (section->own & 1u << i) == 0) section->values[i] = value;
  }
  return 0;
}

/* --- Settings -------------------------------------------------------------------------- */

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

/* What is not there is left out, as Samba does. */
static int include(struct reading *reading, const char *value, int depth) {
  char path[4096];

  if (substitute(value, path, sizeof path) != 0 || path[0] != '/') return 0;
  if (depth >= DEPTH_LIMIT || reading->inclusions++ >= INCLUDE_LIMIT) return refuse();
  return read_file(reading, path, depth + 1);
}

static int set_known(struct reading *reading, const struct parameter *parameter, const char *text) {
  const int in_global = reading->current == SIZE_MAX;
  struct vemo_smb_section *section = in_global ? NULL : &reading->sections[reading->current];

  if (parameter->kind == YES_NO || parameter->kind == NO_YES) {
    const int yes = vemo_smb_bool(text, -1);
    if (yes < 0) return refuse();
    text = yes == (parameter->kind == YES_NO) ? "yes" : "no";
  }
  (in_global ? reading->defaults : section->values)[parameter->index] = text;
  if (!in_global) section->own |= 1u << parameter->index;
  return 0;
}

static int set_parameter(struct reading *reading, const char *name, size_t name_size,
                         const char *value, size_t value_size, int depth) {
  char folded[NAME_LIMIT];

  trim(&name, &name_size);
  trim(&value, &value_size);
  if (name_size == 0) return refuse();
  if (fold(name, name_size, 0, folded) != 0) return 0; /* nothing known is called so */
  const struct parameter *parameter = find_parameter(folded);
  const int including = strcmp(folded, "include") == 0, copying = strcmp(folded, "copy") == 0;
  if (parameter == NULL && !including && !copying && reading->current != SIZE_MAX) return 0;
  const char *text = vemo_arena_copy(&reading->arena, value, value_size);
  if (text == NULL) return -1;
  if (including) return include(reading, text, depth);
  if (copying) return copy_section(reading, text);
  if (parameter != NULL && set_known(reading, parameter, text) != 0) return -1;
  if (reading->current != SIZE_MAX) return 0;
  return VLIBCSzHashSetValue(reading->global, folded, text);
}

/* --- Lines ---------------------------------------------------------------------------- */

static int read_line(struct reading *reading, const char *line, size_t size, int depth) {
  if (size == 0) return 0;
  if (*line == '[') {
    const char *end = memchr(line, ']', size);
    return end == NULL ? refuse() : begin_section(reading, line + 1, (size_t)(end - line - 1));
  }
  const char *equals = memchr(line, '=', size);
  if (equals == NULL) return 0;
  return set_parameter(reading, line, (size_t)(equals - line), equals + 1,
                       (size_t)(line + size - equals - 1), depth);
}

/* Takes the next line off the text, lines that a backslash joins as one, within the text's own
 * memory; comments are empty ones. Its size, without blanks at its ends, and of a run of
 * blanks the first one. */
static size_t take_line(char **at, char *end) {
  char *line = *at, *out = line, *in = line;
  int joined;

  while (in < end && is_blank(*in))
    in++;
  const int comment = in < end && (*in == '#' || *in == ';');
  do {
    char *stop = memchr(in, '\n', (size_t)(end - in));
    const int last = stop == NULL;
    if (last) stop = end;
    const char *piece_end = stop;
    while (piece_end > in && is_blank(piece_end[-1]))
      piece_end--;
    joined = !comment && !last && piece_end > in && piece_end[-1] == '\\';
    if (joined) piece_end--;
    for (; in < piece_end; in++) {
      if (is_blank(*in) && (out == line || is_blank(out[-1]))) continue;
      *out++ = *in;
    }
    in = last ? end : stop + 1;
  } while (joined);
  *at = in;
  while (out > line && is_blank(out[-1]))
    out--;
  return comment ? 0 : (size_t)(out - line);
}

static int read_text(struct reading *reading, char *text, size_t size, int depth) {
  char *end = text + size;

  for (char *at = text; at < end;) {
    const char *line = at;
    const size_t length = take_line(&at, end);
    if (read_line(reading, line, length, depth) != 0) return -1;
  }
  return 0;
}

/* --- Files ------------------------------------------------------------------------------ */

/* What the file looks like, so that a change is seen. Its place in the list; NULL. */
static struct source *note_source(struct reading *reading, const char *path) {
  const size_t found = index_of(reading->by_source, path);
  const size_t index = reading->source_count;

  if (found != SIZE_MAX) return &reading->sources[found];
  struct source *longer = make_room(reading->sources, index, &reading->source_room, sizeof *longer);
  if (longer == NULL) return NULL;
  reading->sources = longer;
  longer[index] = (struct source){.path = vemo_arena_copy(&reading->arena, path, strlen(path))};
  if (longer[index].path == NULL || set_index(reading->by_source, path, index) != 0) return NULL;
  reading->source_count++;
  return &longer[index];
}

/* 1 there is no file to include; 0; -1. */
static int is_absent(const char *path, struct source *source) {
  struct stat status;

  if (stat(path, &status) == 0) {
    if (!S_ISDIR(status.st_mode)) return 0;
    vemo_stamp_set(&source->stamp, &status);
    return 1;
  }
  source->missing = 1;
  /* No file can have such a path. */
  if (errno == ENOENT || errno == ENOTDIR || errno == ENAMETOOLONG || errno == ELOOP) return 1;
  VEMO_FAIL_ERRNO();
  return -1;
}

static int read_file(struct reading *reading, const char *path, int depth) {
  struct stat status;
  size_t size;

  struct source *source = note_source(reading, path);
  if (source == NULL) return -1;
  const int absent = depth == 0 ? 0 : is_absent(path, source);
  if (absent != 0) return absent < 0 ? -1 : 0;
  /* One that is there and cannot be read may forbid what the others allow. */
  char *text = vemo_read_file(path, 0, SIZE_LIMIT - reading->bytes, &size, &status);
  if (text == NULL) return -1;
  vemo_stamp_set(&source->stamp, &status);
  reading->bytes += size;
  const int result =
      memchr(text, '\0', size) != NULL ? refuse() : read_text(reading, text, size, depth);
  free(text);
  return result;
}

/* --- Shares ------------------------------------------------------------------------------ */

/* Appends to a path, without slashes after one another. 0; -1: it is too long. */
static int append(char *path, size_t size, size_t *used, const char *piece, size_t length) {
  for (size_t i = 0; i < length; i++) {
    if (piece[i] == '/' && *used > 0 && path[*used - 1] == '/') continue;
    if (*used + 1 >= size) return -1;
    path[(*used)++] = piece[i];
  }
  path[*used] = '\0';
  return 0;
}

/* Takes "." and ".." out, as Samba does, and the slash at the end. */
static void resolve_dots(char *path) {
  char *out = path;

  for (const char *in = path; *in == '/';) {
    const size_t length = 1 + strcspn(in + 1, "/");
    const int up = length == 3 && in[1] == '.' && in[2] == '.';
    if (up) {
      while (out > path && *--out != '/')
        continue;
    } else if (length > 1 && !(length == 2 && in[1] == '.')) {
      memmove(out, in, length);
      out += length;
    }
    in += length;
  }
  if (out == path) *out++ = '/';
  *out = '\0';
}

/* The path as the share has it: quotes around it do not count, "%S" is the share's name. NULL:
 * none that can be a share's. */
static const char *path_of(struct reading *reading, const struct vemo_smb_section *section) {
  const char *text = section->values[VEMO_SMB_PATH];
  char path[4096];
  size_t used = 0;

  while (text != NULL && *text == '"')
    text++;
  if (text == NULL || *text != '/') return NULL;
  for (const char *c = text; *c != '\0'; c++) {
    const int is_name = *c == '%' && c[1] == 'S';
    if (*c == '%' && !is_name) return NULL;
    const char *piece = is_name ? section->name : c;
    if (append(path, sizeof path, &used, piece, is_name ? strlen(piece) : 1) != 0) return NULL;
    c += is_name;
  }
  while (used > 1 && path[used - 1] == '"')
    path[--used] = '\0';
  resolve_dots(path);
  return vemo_arena_copy(&reading->arena, path, strlen(path));
}

static int is_share(const struct vemo_smb_section *section) {
  return !is_special(section) && vemo_smb_bool(section->values[VEMO_SMB_AVAILABLE], 1) &&
         !vemo_smb_bool(section->values[VEMO_SMB_PRINTABLE], 0);
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
    for (int j = VEMO_SMB_RESTRICTIONS; j < VEMO_SMB_PARAMETERS; j++) {
      const char *own = section->values[j];
      if (own == NULL || *own == '\0') section->values[j] = reading->defaults[j];
    }
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
  const int kept = errno;

  if (reading == NULL) return;
  VLIBCSzHashFree(reading->global);
  VLIBCSzHashFree(reading->by_name);
  VLIBCSzHashFree(reading->by_source);
  free(reading->sources);
  free(reading->sections);
  vemo_arena_free(&reading->arena);
  free(reading);
  errno = kept;
}

static struct reading *new_reading(void) {
  struct reading *reading = calloc(1, sizeof *reading);

  if (reading == NULL) {
    fail_memory();
    return NULL;
  }
  reading->current = SIZE_MAX;
  reading->global = VLIBCSzHashAlloc(32);
  reading->by_name = VLIBCSzHashAlloc(32);
  reading->by_source = VLIBCSzHashAlloc(4);
  if (reading->global != NULL && reading->by_name != NULL && reading->by_source != NULL) {
    return reading;
  }
  forget(reading);
  return NULL;
}

static struct reading *read_all(void) {
  struct reading *reading = new_reading();

  if (reading == NULL) return NULL;
  /* A process that has become the user reads it as root, where it still can. */
  const uid_t before = geteuid();
  const int as_root = before != 0 && seteuid(0) == 0;
  const int failed = read_file(reading, CONFIGURATION, 0);
  if (as_root) vemo_root_end(before);
  end_section(reading);
  if (!failed && index_shares(reading) == 0) return reading;
  forget(reading);
  return NULL;
}

static int is_current(const struct reading *reading) {
  for (size_t i = 0; i < reading->source_count; i++) {
    const struct source *source = &reading->sources[i];
    struct stat status;
    const int missing = stat(source->path, &status) != 0;
    if (missing != source->missing) return 0;
    if (!missing && !vemo_stamp_matches(&source->stamp, &status)) return 0;
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

  const struct vemo_smb_conf *conf = vemo_smb_conf();
  if (conf == NULL) return -1;
  if (fold(parameter, strlen(parameter), 0, folded) != 0) return 0;
  const char *value = VLIBCSzHashGetValue(conf->global, folded);
  if (value == NULL) return 0;
  snprintf(buffer, size, "%s", value);
  return 1;
}
