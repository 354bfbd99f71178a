/* multipart/form-data: the parts of a body. */
#include "cgi/multipart.h"

#include <string.h>
#include <strings.h>

enum state { PREAMBLE, AFTER_DELIMITER, HEADER, CONTENT, EPILOGUE };
enum tail { TAIL_START, TAIL_DASH, TAIL_PADDING, TAIL_CR };

/* RFC 2046, section 5.1.1: bchars, of which a blank must not be the last. */
static int is_boundary(const char *text, size_t size) {
  static const char others[] = "'()+_,-./:=? ";

  if (size < 1 || size > VEMO_BOUNDARY_LIMIT || text[size - 1] == ' ') return 0;
  for (size_t i = 0; i < size; i++) {
    const char c = text[i];
    const int is_alphanumeric =
        (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    if (!is_alphanumeric && (c == '\0' || strchr(others, c) == NULL)) return 0;
  }
  return 1;
}

/* The end of a parameter's value; quoted ones end behind their quote. NULL: no end. */
static const char *value_end(const char *at) {
  if (*at != '"') return at + strcspn(at, "; \t");
  for (at++; *at != '"'; at++) {
    if (*at == '\\' && at[1] != '\0') at++;
    if (*at == '\0') return NULL;
  }
  return at + 1;
}

/* Copies a value without its quotes. Its length; 0: it is too long. */
static size_t copy_boundary(const char *at, const char *end, char *boundary) {
  const int quoted = *at == '"';
  size_t used = 0;

  if (quoted) at++, end--;
  for (; at < end; at++) {
    if (quoted && *at == '\\' && at + 1 < end) at++;
    if (used == VEMO_BOUNDARY_LIMIT) return 0;
    boundary[used++] = *at;
  }
  boundary[used] = '\0';
  return used;
}

size_t vemo_multipart_boundary(const char *content_type, char boundary[VEMO_BOUNDARY_LIMIT + 1]) {
  static const char type[] = "multipart/form-data";
  static const char attribute[] = "boundary=";
  const char *at = content_type + sizeof type - 1;

  boundary[0] = '\0';
  if (strncasecmp(content_type, type, sizeof type - 1) != 0) return 0;
  for (;;) {
    at += strspn(at, " \t");
    if (*at != ';') return 0;
    at += 1 + strspn(at + 1, " \t");
    const int is_it = strncasecmp(at, attribute, sizeof attribute - 1) == 0;
    at += strcspn(at, "=; \t");
    if (*at != '=') continue;
    const char *end = value_end(++at);
    if (end == NULL) return 0;
    if (is_it) {
      const size_t size = copy_boundary(at, end, boundary);
      return is_boundary(boundary, size) ? size : 0;
    }
    at = end;
  }
}

void vemo_multipart_start(struct vemo_multipart *reader, const char *boundary,
                          const struct vemo_multipart_events *events, void *data) {
  const size_t size = strnlen(boundary, VEMO_BOUNDARY_LIMIT);

  reader->events = events;
  reader->data = data;
  reader->state = PREAMBLE;
  reader->parts = 0;
  reader->header_used = 0;
  memcpy(reader->delimiter, "\r\n--", 4);
  memcpy(reader->delimiter + 4, boundary, size);
  reader->delimiter_size = 4 + size;
  /* The first delimiter may begin the body, without a line break before it. */
  reader->matched = reader->imagined = 2;
}

int vemo_multipart_is_closed(const struct vemo_multipart *reader) {
  return reader->state == EPILOGUE;
}

static int emit(struct vemo_multipart *reader, const char *bytes, size_t size) {
  if (reader->state != CONTENT || size == 0) return 0;
  return reader->events->content(reader->data, bytes, size);
}

static int delimiter_found(struct vemo_multipart *reader) {
  const int result = reader->state == CONTENT ? reader->events->end(reader->data) : 0;

  reader->state = AFTER_DELIMITER;
  reader->tail = TAIL_START;
  reader->matched = reader->imagined = 0;
  return result;
}

/* Goes on with a delimiter that began in an earlier piece. A delimiter holds one CR, its
 * first byte: what does not match is content, and nothing in it has to be looked at again. */
static int go_on_matching(struct vemo_multipart *reader, const char **at, const char *end) {
  while (*at < end && reader->matched < reader->delimiter_size) {
    if (**at == reader->delimiter[reader->matched]) {
      ++*at;
      reader->matched++;
      continue;
    }
    const size_t from = reader->imagined;
    const size_t size = reader->matched - from;
    reader->matched = reader->imagined = 0;
    return emit(reader, reader->delimiter + from, size);
  }
  return reader->matched == reader->delimiter_size ? delimiter_found(reader) : 0;
}

static int scan(struct vemo_multipart *reader, const char **at, const char *end) {
  const char *from = *at;

  if (reader->matched > 0) return go_on_matching(reader, at, end);
  for (const char *cr = from; (cr = memchr(cr, '\r', (size_t)(end - cr))) != NULL; cr++) {
    const size_t left = (size_t)(end - cr);
    if (left > 1 && cr[1] != '\n') continue; /* the most frequent case by far */
    const size_t size = left < reader->delimiter_size ? left : reader->delimiter_size;
    if (memcmp(cr, reader->delimiter, size) != 0) continue;
    *at = cr + size;
    reader->matched = size;
    const int result = emit(reader, from, (size_t)(cr - from));
    if (result < 0 || size < reader->delimiter_size) return result;
    return delimiter_found(reader);
  }
  *at = end;
  return emit(reader, from, (size_t)(end - from));
}

/* The rest of a delimiter's line: blanks, or the two dashes of the last one. */
static int after_delimiter(struct vemo_multipart *reader, char c) {
  if (reader->tail == TAIL_START && c == '-') {
    reader->tail = TAIL_DASH;
  } else if (reader->tail == TAIL_DASH) {
    if (c != '-') return VEMO_MULTIPART_BROKEN;
    reader->state = EPILOGUE;
  } else if (reader->tail == TAIL_CR) {
    if (c != '\n' || ++reader->parts > VEMO_PART_LIMIT) return VEMO_MULTIPART_BROKEN;
    reader->state = HEADER;
    reader->header_used = 0;
  } else if (c == ' ' || c == '\t') {
    reader->tail = TAIL_PADDING;
  } else if (c == '\r') {
    reader->tail = TAIL_CR;
  } else {
    return VEMO_MULTIPART_BROKEN;
  }
  return 0;
}

static int header_byte(struct vemo_multipart *reader, char c) {
  char *header = reader->header;

  if (reader->header_used == sizeof reader->header) return VEMO_MULTIPART_BROKEN;
  header[reader->header_used++] = c;
  const size_t used = reader->header_used;
  if (c != '\n' || used < 4 || memcmp(header + used - 4, "\r\n\r\n", 4) != 0) return 0;
  if (vemo_part_parse(header, used, &reader->part) != 0) return VEMO_MULTIPART_BROKEN;
  reader->state = CONTENT;
  /* The line break that ends the header may be the one before the next delimiter. */
  reader->matched = reader->imagined = 2;
  return reader->events->begin(reader->data, &reader->part);
}

int vemo_multipart_feed(struct vemo_multipart *reader, const char *bytes, size_t size) {
  const char *at = bytes;
  const char *end = bytes + size;

  while (at < end) {
    int result = 0;
    if (reader->state == EPILOGUE) return 0;
    if (reader->state == AFTER_DELIMITER) {
      result = after_delimiter(reader, *at++);
    } else if (reader->state == HEADER) {
      result = header_byte(reader, *at++);
    } else {
      result = scan(reader, &at, end);
    }
    if (result < 0) return result;
  }
  return 0;
}
