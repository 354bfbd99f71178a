/* The parameter line and its decoding. */
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include "cgi/state.h"

enum { LINE_LIMIT = 8 * 1024 * 1024, PARAM_LIMIT = 10000 };

static int has_body(const char *method) {
  return strcmp(method, "POST") == 0 || strcmp(method, "PUT") == 0 || strcmp(method, "DELETE") == 0;
}

static int is_multipart(void) {
  static const char type[] = "multipart/form-data";
  const char *content_type = vemo_cgi_env("CONTENT_TYPE");

  return strncasecmp(content_type, type, sizeof type - 1) == 0 &&
         strchr(";, \t", content_type[sizeof type - 1]) != NULL;
}

/* The length of the body; 0 when there is none; -1 when it is no number of the
 * right size. */
static long body_size(void) {
  const char *text = vemo_cgi_env("CONTENT_LENGTH");
  const size_t digits = strspn(text, "0123456789");

  if (text[digits] != '\0' || digits > 10) return -1;
  const long size = strtol(text, NULL, 10);
  return size > LINE_LIMIT ? -1 : size;
}

static int read_exactly(char *buffer, size_t size) {
  while (size > 0) {
    const ssize_t got = read(STDIN_FILENO, buffer, size);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return -1;
    buffer += got;
    size -= (size_t)got;
  }
  return 0;
}

static char *read_body(void) {
  const long size = body_size();

  if (size == 0) return NULL;
  if (size < 0) {
    VEMO_FAIL(VEMOERR_FORMAT);
    return NULL;
  }
  char *body = malloc((size_t)size + 1);
  if (body == NULL) {
    VEMO_FAIL(VEMOERR_NO_MEMORY);
    return NULL;
  }
  /* The line is a C string: a NUL byte would cut it and change its meaning. */
  if (read_exactly(body, (size_t)size) != 0 || memchr(body, '\0', (size_t)size) != NULL) {
    free(body);
    VEMO_FAIL(VEMOERR_FORMAT);
    return NULL;
  }
  body[size] = '\0';
  return body;
}

char *VemoCgiGetParamLine(VEMOCGI *ctx) {
  const char *method = vemo_cgi_env("REQUEST_METHOD");

  if (!vemo_cgi_is_ready(ctx)) return NULL;
  if (has_body(method) && !is_multipart()) return read_body();
  if (!has_body(method) && !vemo_cgi_is_reading()) return NULL;
  const char *query = vemo_cgi_env("QUERY_STRING");
  return *query == '\0' || strlen(query) > LINE_LIMIT ? NULL : strdup(query);
}

static int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

/* Decodes in place. The decoded size; -1 when a NUL byte came out. */
static long decode(char *text, size_t size) {
  size_t used = 0;

  for (size_t i = 0; i < size; i++) {
    char c = text[i];
    if (c == '+') {
      c = ' ';
    } else if (c == '%' && size - i > 2 && hex_value(text[i + 1]) >= 0 &&
               hex_value(text[i + 2]) >= 0) {
      c = (char)(hex_value(text[i + 1]) * 16 + hex_value(text[i + 2]));
      i += 2;
    }
    if (c == '\0') return -1;
    text[used++] = c;
  }
  return (long)used;
}

/* Stores one "name=value"; 1 stored or known already, 0 dropped, -1 no memory. */
static int store_pair(VEMOSZHASH *params, char *pair, size_t size) {
  char *equals = memchr(pair, '=', size);
  const size_t name_size = equals == NULL ? size : (size_t)(equals - pair);
  char *value = equals == NULL ? pair + size : equals + 1;

  const long name_used = decode(pair, name_size);
  const long value_used = decode(value, (size_t)(pair + size - value));
  if (name_used < 0 || value_used < 0) return 0;
  return vemo_hash_set(params, pair, (size_t)name_used, value, (size_t)value_used, 1) == 0 ? 1 : -1;
}

/* Decodes a line into the hash; of a repeated name the first wins. */
static int decode_line(const char *line, VEMOSZHASH *params) {
  char *copy = strdup(line);
  int count = 0;

  if (copy == NULL) {
    VEMO_FAIL(VEMOERR_NO_MEMORY);
    return 0;
  }
  for (char *at = copy; *at != '\0' && count < PARAM_LIMIT;) {
    const size_t size = strcspn(at, "&");
    char *next = at[size] == '\0' ? at + size : at + size + 1;
    if (size > 0) {
      const int stored = store_pair(params, at, size);
      if (stored < 0) break;
      count += stored;
    }
    at = next;
  }
  free(copy);
  return count;
}

static VEMOSZHASH *made(VEMOSZHASH **hash) {
  if (*hash == NULL) *hash = VLIBCSzHashAlloc(16);
  return *hash;
}

int VemoCgiParseCGIParam(VEMOCGI *ctx, const char *line) {
  if (!vemo_cgi_is_ready(ctx) || line == NULL) {
    VEMO_FAIL(VEMOERR_BAD_PARAM);
    return 0;
  }
  return made(&ctx->state->params) == NULL ? 0 : decode_line(line, ctx->state->params);
}

const char *VemoCgiGetCGIParam(VEMOCGI *ctx, const char *name, const char *dflt) {
  if (!vemo_cgi_is_ready(ctx)) return dflt;
  const char *value = VLIBCSzHashGetValue(ctx->state->params, name);
  return value == NULL ? dflt : value;
}

int VemoCgiSetCGIParam(VEMOCGI *ctx, const char *name, const char *value) {
  if (!vemo_cgi_is_ready(ctx) || made(&ctx->state->params) == NULL) return 0;
  return VLIBCSzHashSetValue(ctx->state->params, name, value) == 0;
}

const char *VemoCgiGetRequestParam(VEMOCGI *ctx, const char *name, const char *dflt) {
  const char *value = VemoCgiGetCGIParam(ctx, name, NULL);

  if (value != NULL || !vemo_cgi_is_ready(ctx)) return value == NULL ? dflt : value;
  if (ctx->state->query == NULL) {
    if (made(&ctx->state->query) == NULL) return dflt;
    decode_line(vemo_cgi_env("QUERY_STRING"), ctx->state->query);
  }
  value = VLIBCSzHashGetValue(ctx->state->query, name);
  return value == NULL ? dflt : value;
}

static int is_unreserved(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_' || c == '~';
}

int VemoCgiURLEncode(const char *text, char *buffer, int max_chars) {
  static const char digits[] = "0123456789ABCDEF";
  int used = 0;

  if (text == NULL || buffer == NULL || max_chars < 0) {
    VEMO_FAIL(VEMOERR_BAD_PARAM);
    return 0;
  }
  for (; *text != '\0'; text++) {
    if (used + (is_unreserved(*text) ? 1 : 3) > max_chars) break;
    if (is_unreserved(*text)) {
      buffer[used++] = *text;
      continue;
    }
    buffer[used++] = '%';
    buffer[used++] = digits[(unsigned char)*text >> 4];
    buffer[used++] = digits[*text & 15];
  }
  buffer[used] = '\0';
  return used;
}
