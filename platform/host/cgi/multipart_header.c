/* multipart/form-data: the header of a part (RFC 7578, section 4.2; RFC 2183; RFC 8187). */
#include <string.h>
#include <strings.h>

#include "cgi/multipart.h"

/* The text of a parameter while it is read. */
struct value {
  char text[4096];
  size_t size;
};

static int is_control(unsigned char c) {
  return c < 0x20 || c == 0x7f;
}

static int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

/* The length of the UTF-8 character (RFC 3629) and its number; 0: it is none. */
static size_t utf8_character(const char *text, unsigned *number) {
  const unsigned char *at = (const unsigned char *)text;
  const size_t size = *at < 0x80   ? 1
                      : *at < 0xc2 ? 0
                      : *at < 0xe0 ? 2
                      : *at < 0xf0 ? 3
                      : *at < 0xf5 ? 4
                                   : 0;

  if (size == 0) return 0;
  *number = size == 1 ? *at : *at & (0xffu >> (size + 1));
  for (size_t i = 1; i < size; i++) {
    if ((at[i] & 0xc0) != 0x80) return 0;
    *number = *number << 6 | (at[i] & 0x3fu);
  }
  static const unsigned least[] = {0, 0, 0x80, 0x800, 0x10000};
  if (*number < least[size] || *number > 0x10ffff) return 0;
  return *number >= 0xd800 && *number <= 0xdfff ? 0 : size;
}

/* Characters that reorder a text make a name look like another one. */
static int turns_direction(unsigned number) {
  return number == 0x061c || number == 0x200e || number == 0x200f ||
         (number >= 0x202a && number <= 0x202e) || (number >= 0x2066 && number <= 0x2069);
}

/* Whether the name of a file may be shown and stored. */
static int is_file_name(const char *name) {
  unsigned number = 0;

  if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) return 0;
  if (strlen(name) > VEMO_FILE_NAME_LIMIT) return 0;
  while (*name != '\0') {
    const size_t size = utf8_character(name, &number);
    if (size == 0 || number < 0x20 || (number >= 0x7f && number < 0xa0)) return 0;
    if (turns_direction(number)) return 0;
    name += size;
  }
  return 1;
}

/* Some clients send the path on their own machine: only its last component counts. */
static int take_file_name(const char *value, struct vemo_part *part) {
  const char *base = value;

  for (const char *at = value; *at != '\0'; at++) {
    if (*at == '/' || *at == '\\') base = at + 1;
  }
  if (*base == '\0' && *value != '\0') return -1;
  if (!is_file_name(base)) return -1;
  strcpy(part->file_name, base); /* it fits: is_file_name */
  part->is_file = 1;
  return 0;
}

static int put(struct value *value, char c) {
  if (value->size + 1 >= sizeof value->text) return -1;
  value->text[value->size++] = c;
  value->text[value->size] = '\0';
  return 0;
}

/* Reads a quoted string or a token; `*at` then stands behind it. Browsers write a quote
 * within as "%22" and leave other percent signs alone; a backslash stands for itself unless
 * a quote or a second one follows. */
static int read_value(const char **at, struct value *value) {
  value->size = 0;
  value->text[0] = '\0';
  if (**at != '"') {
    for (; **at != '\0' && strchr("; \t", **at) == NULL; ++*at) {
      if (put(value, **at) != 0) return -1;
    }
    return 0;
  }
  for (++*at; **at != '"'; ++*at) {
    char c = **at;
    if (c == '\0') return -1;
    if (c == '\\' && ((*at)[1] == '"' || (*at)[1] == '\\')) c = *++*at;
    if (strncmp(*at, "%22", 3) == 0) {
      c = '"';
      *at += 2;
    }
    if (put(value, c) != 0) return -1;
  }
  ++*at;
  return 0;
}

/* RFC 8187: UTF-8'LANGUAGE'TEXT, decoded in place. 1; 0: another character set; -1. */
static int decode_extended(struct value *value) {
  static const char charset[] = "UTF-8'";
  const char *from = strchr(value->text, '\'');

  if (from == NULL || (from = strchr(from + 1, '\'')) == NULL) return -1;
  if (strncasecmp(value->text, charset, sizeof charset - 1) != 0) return 0;
  char *to = value->text;
  for (from++; *from != '\0'; from++) {
    char c = *from;
    if (c == '%') {
      const int high = hex_value(from[1]);
      const int low = high < 0 ? -1 : hex_value(from[2]);
      if (low < 0 || high * 16 + low == 0) return -1;
      c = (char)(high * 16 + low);
      from += 2;
    }
    *to++ = c;
  }
  *to = '\0';
  return 1;
}

/* Which parameters have been seen. */
struct seen {
  int name, file_name, extended;
};

static int take_parameter(const char *attribute, size_t size, struct value *value,
                          struct seen *seen, struct vemo_part *part) {
  if (size == 4 && strncasecmp(attribute, "name", size) == 0) {
    if (seen->name++ || value->size == 0 || value->size > VEMO_PART_NAME_LIMIT) return -1;
    memcpy(part->name, value->text, value->size + 1);
    return 0;
  }
  if (size == 8 && strncasecmp(attribute, "filename", size) == 0) {
    if (seen->file_name++) return -1;
    return seen->extended ? 0 : take_file_name(value->text, part);
  }
  if (size == 9 && strncasecmp(attribute, "filename*", size) == 0) {
    const int decoded = decode_extended(value);
    if (seen->extended || decoded < 0) return -1;
    if (decoded == 0) return 0;
    seen->extended = 1;
    return take_file_name(value->text, part);
  }
  return 0;
}

static int take_disposition(const char *at, struct vemo_part *part) {
  static const char type[] = "form-data";
  struct seen seen = {0, 0, 0};
  struct value value;

  if (strncasecmp(at, type, sizeof type - 1) != 0) return -1;
  at += sizeof type - 1;
  for (;;) {
    at += strspn(at, " \t");
    if (*at == '\0') return seen.name ? 0 : -1;
    if (*at != ';') return -1;
    at += 1 + strspn(at + 1, " \t");
    if (*at == '\0') return seen.name ? 0 : -1;
    const char *attribute = at;
    const size_t size = strcspn(at, "=; \t\"");
    at += size;
    if (*at != '=' || size == 0) return -1;
    at++;
    if (read_value(&at, &value) != 0) return -1;
    if (take_parameter(attribute, size, &value, &seen, part) != 0) return -1;
  }
}

/* A part that is encoded would have to be decoded: RFC 7578, section 4.7, does away with it. */
static int is_plain_encoding(const char *value) {
  return strcasecmp(value, "7bit") == 0 || strcasecmp(value, "8bit") == 0 ||
         strcasecmp(value, "binary") == 0;
}

static int take_line(char *line, struct vemo_part *part, int *dispositions) {
  char *colon = strchr(line, ':');

  if (colon == NULL || colon == line) return -1;
  *colon = '\0';
  char *value = colon + 1 + strspn(colon + 1, " \t");
  for (size_t size = strlen(value); size > 0 && strchr(" \t", value[size - 1]) != NULL; size--) {
    value[size - 1] = '\0';
  }
  if (strcasecmp(line, "Content-Disposition") == 0) {
    return (*dispositions)++ > 0 ? -1 : take_disposition(value, part);
  }
  if (strcasecmp(line, "Content-Transfer-Encoding") == 0) return is_plain_encoding(value) ? 0 : -1;
  return 0;
}

/* Joins continued lines, and ends each line with a NUL byte in place of its CR. -1: a line
 * break that is none, or a control character. */
static int split_lines(char *text, size_t size) {
  for (size_t i = 0; i < size; i++) {
    if (text[i] == '\r') {
      if (i + 1 >= size || text[i + 1] != '\n') return -1;
      const int continued = i > 0 && i + 2 < size && (text[i + 2] == ' ' || text[i + 2] == '\t');
      text[i] = continued ? ' ' : '\0';
      text[i + 1] = continued ? ' ' : '\n';
      i++;
    } else if (is_control((unsigned char)text[i]) && text[i] != '\t') {
      return -1;
    }
  }
  return 0;
}

int vemo_part_parse(char *text, size_t size, struct vemo_part *part) {
  int dispositions = 0;

  part->name[0] = part->file_name[0] = '\0';
  part->is_file = 0;
  if (split_lines(text, size) != 0) return -1;
  for (char *line = text; line < text + size && *line != '\0';) {
    char *next = line + strlen(line) + 2; /* before the line is cut at its colon */
    if (take_line(line, part, &dispositions) != 0) return -1;
    line = next;
  }
  return dispositions == 1 ? 0 : -1;
}
