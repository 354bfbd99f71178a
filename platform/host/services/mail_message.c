/* The message of a mail: a template filled in, and MIME around it. */
#include "services/mail.h"

#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <time.h>
#include <unistd.h>

#include "core/internal.h"

enum {
  LINE_LIMIT = 76,        /* RFC 2045, section 6.7, and RFC 2047, section 2 */
  WORD_BYTES = 39,        /* 52 characters of base64: with "Subject: " below the limit */
  PLACEHOLDER_LIMIT = 64, /* bytes between the percent signs */
  ADDRESS_LIMIT = 254     /* RFC 5321, section 4.5.3.1.3, less the angle brackets */
};

/* --- Texts that grow -------------------------------------------------------- */

static int make_room(struct vemo_text *text, size_t size) {
  if (text->failed) return 0;
  if (size <= text->capacity - text->size) return 1;
  size_t capacity = text->capacity == 0 ? 1024 : text->capacity;
  while (capacity - text->size < size)
    capacity *= 2;
  char *bytes = malloc(capacity);
  if (bytes == NULL) {
    text->failed = 1;
    return 0;
  }
  /* Not realloc(3): it would leave a copy behind. */
  if (text->bytes != NULL) {
    memcpy(bytes, text->bytes, text->size);
    explicit_bzero(text->bytes, text->size);
    free(text->bytes);
  }
  text->bytes = bytes;
  text->capacity = capacity;
  return 1;
}

void vemo_text_add(struct vemo_text *text, const void *bytes, size_t size) {
  if (size == 0 || !make_room(text, size)) return;
  memcpy(text->bytes + text->size, bytes, size);
  text->size += size;
}

void vemo_text_puts(struct vemo_text *text, const char *line) {
  vemo_text_add(text, line, strlen(line));
}

void vemo_text_free(struct vemo_text *text) {
  if (text->bytes != NULL) explicit_bzero(text->bytes, text->size);
  free(text->bytes);
  *text = (struct vemo_text){0};
}

/* --- Filling in --------------------------------------------------------------- */

static int is_key_character(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

/* The length of the placeholder at `at`, its percent signs included; 0 there is none. */
static size_t placeholder_size(const char *at, const char *end) {
  const char *c = at + 1;

  while (c < end && c - at <= PLACEHOLDER_LIMIT && is_key_character(*c))
    c++;
  return c < end && *c == '%' && c > at + 1 ? (size_t)(c - at) + 1 : 0;
}

static const char *value_of(const VEMOSZHASH *values, const char *at, size_t size) {
  char key[PLACEHOLDER_LIMIT + 3];

  if (values == NULL || size == 0 || size >= sizeof key) return NULL;
  memcpy(key, at, size);
  key[size] = '\0';
  return VLIBCSzHashGetValue(values, key);
}

/* One pass: what is filled in is not looked at again, and so a password that looks like a
 * placeholder arrives as it is. */
static void fill(const char *at, const char *end, const VEMOSZHASH *values,
                 struct vemo_text *filled) {
  while (at < end) {
    const char *percent = memchr(at, '%', (size_t)(end - at));
    if (percent == NULL) percent = end;
    vemo_text_add(filled, at, (size_t)(percent - at));
    at = percent;
    if (at == end) return;
    const size_t size = placeholder_size(at, end);
    const char *value = value_of(values, at, size);
    if (value == NULL) {
      vemo_text_add(filled, at++, 1);
      continue;
    }
    vemo_text_puts(filled, value);
    at += size;
  }
}

/* --- The subject ---------------------------------------------------------------- */

static void blank_controls(struct vemo_text *text) {
  for (size_t i = 0; i < text->size; i++) {
    if ((unsigned char)text->bytes[i] < 0x20 || text->bytes[i] == 0x7f) text->bytes[i] = ' ';
  }
}

/* Whether a header may carry the text as it stands. */
static int is_plain(const struct vemo_text *text) {
  for (size_t i = 0; i < text->size; i++) {
    if ((unsigned char)text->bytes[i] >= 0x80) return 0;
    if (text->bytes[i] == '=' && i + 1 < text->size && text->bytes[i + 1] == '?') return 0;
  }
  return text->size <= LINE_LIMIT - strlen("Subject: ");
}

static void add_base64(const unsigned char *bytes, size_t size, struct vemo_text *out) {
  static const char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

  for (size_t i = 0; i < size; i += 3) {
    const size_t left = size - i;
    const uint32_t group = (uint32_t)bytes[i] << 16 | (left > 1 ? (uint32_t)bytes[i + 1] << 8 : 0) |
                           (left > 2 ? bytes[i + 2] : 0);
    const char quad[4] = {digits[group >> 18], digits[group >> 12 & 63],
                          left > 1 ? digits[group >> 6 & 63] : '=',
                          left > 2 ? digits[group & 63] : '='};
    vemo_text_add(out, quad, sizeof quad);
  }
}

/* How much of the text goes into one encoded word: no character is torn (RFC 2047, section
 * 5). */
static size_t word_size(const unsigned char *bytes, size_t size) {
  if (size <= WORD_BYTES) return size;
  size_t taken = WORD_BYTES;
  while (taken > WORD_BYTES - 4 && (bytes[taken] & 0xc0) == 0x80)
    taken--;
  return taken;
}

static void add_subject(struct vemo_text *subject, struct vemo_text *message) {
  blank_controls(subject);
  vemo_text_puts(message, "Subject: ");
  if (is_plain(subject)) {
    vemo_text_add(message, subject->bytes, subject->size);
    vemo_text_puts(message, "\n");
    return;
  }
  const unsigned char *bytes = (const unsigned char *)subject->bytes;
  size_t at = 0;
  while (at < subject->size) {
    const size_t size = word_size(bytes + at, subject->size - at);
    vemo_text_puts(message, at == 0 ? "=?UTF-8?B?" : " =?UTF-8?B?");
    add_base64(bytes + at, size, message);
    vemo_text_puts(message, "?=\n");
    at += size;
  }
}

/* --- The text --------------------------------------------------------------------- */

static int is_literal(unsigned char c, const struct vemo_text *text, size_t next) {
  if (c == ' ' || c == '\t') return next < text->size && text->bytes[next] != '\n';
  return c > 0x20 && c < 0x7f && c != '=';
}

/* RFC 2045, section 6.7. A dot and "From " at the start of a line are encoded too: mailers
 * and mail boxes take them for something else. */
static void add_quoted_printable(const struct vemo_text *text, struct vemo_text *message) {
  size_t column = 0;

  for (size_t i = 0; i < text->size; i++) {
    const unsigned char c = (unsigned char)text->bytes[i];
    if (c == '\n') {
      vemo_text_puts(message, "\n");
      column = 0;
      continue;
    }
    const int literal = is_literal(c, text, i + 1) && !(column == 0 && (c == '.' || c == 'F'));
    const size_t width = literal ? 1 : 3;
    if (column + width > LINE_LIMIT - 1) {
      vemo_text_puts(message, "=\n");
      column = 0;
    }
    char code[4];
    snprintf(code, sizeof code, literal ? "%c" : "=%02X", c);
    vemo_text_puts(message, code);
    column += width;
  }
  if (column != 0) vemo_text_puts(message, "\n");
}

/* --- Headers ------------------------------------------------------------------------ */

/* Not setlocale's: RFC 5322, section 3.3, wants these names. */
static void add_date(struct vemo_text *message) {
  static const char days[][4] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static const char months[][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const time_t now = time(NULL);
  struct tm local;
  char line[80];

  localtime_r(&now, &local);
  const long minutes = labs(local.tm_gmtoff / 60);
  snprintf(line, sizeof line, "Date: %s, %d %s %d %02d:%02d:%02d %c%02ld%02ld\n",
           days[local.tm_wday], local.tm_mday, months[local.tm_mon], local.tm_year + 1900,
           local.tm_hour, local.tm_min, local.tm_sec, local.tm_gmtoff < 0 ? '-' : '+', minutes / 60,
           minutes % 60);
  vemo_text_puts(message, line);
}

static void add_message_id(const char *from, struct vemo_text *message) {
  unsigned char bytes[16];
  char id[32];
  const char *at = strrchr(from, '@');

  /* A mail without an id is a mail still: mailers add one. */
  if (vemo_random(bytes, sizeof bytes) != 0 ||
      vemo_base64url(bytes, sizeof bytes, id, sizeof id) < 0)
    return;
  vemo_text_puts(message, "Message-ID: <");
  vemo_text_puts(message, id);
  vemo_text_puts(message, at == NULL ? "@localhost" : at);
  vemo_text_puts(message, ">\n");
}

static void add_line(struct vemo_text *message, const char *name, const char *value) {
  vemo_text_puts(message, name);
  vemo_text_puts(message, value);
  vemo_text_puts(message, "\n");
}

/* The template's subject, which ends with its line; empty when there is none. */
static const char *find_subject(const char *at, const char *end, size_t *size) {
  static const char name[] = "Subject:";

  while (at < end && *at != '\n') {
    const char *line_end = memchr(at, '\n', (size_t)(end - at));
    if (line_end == NULL) line_end = end;
    if ((size_t)(line_end - at) >= sizeof name - 1 && strncasecmp(at, name, sizeof name - 1) == 0) {
      at += sizeof name - 1;
      while (at < line_end && (*at == ' ' || *at == '\t'))
        at++;
      *size = (size_t)(line_end - at);
      return at;
    }
    at = line_end == end ? end : line_end + 1;
  }
  *size = 0;
  return at;
}

/* What follows the empty line. */
static const char *find_text(const char *at, const char *end) {
  while (at < end && *at != '\n') {
    const char *line_end = memchr(at, '\n', (size_t)(end - at));
    if (line_end == NULL) return end;
    at = line_end + 1;
  }
  return at < end ? at + 1 : end;
}

int vemo_mail_compose(const struct vemo_mail *mail, struct vemo_text *message) {
  const char *end = mail->template_text + mail->template_size;
  struct vemo_text part = {0};
  size_t size;

  add_line(message, "From: ", mail->from);
  add_line(message, "To: ", mail->to);
  const char *subject = find_subject(mail->template_text, end, &size);
  fill(subject, subject + size, mail->values, &part);
  add_subject(&part, message);
  add_date(message);
  add_message_id(mail->from, message);
  vemo_text_puts(message,
                 "Auto-Submitted: auto-generated\n"
                 "MIME-Version: 1.0\n"
                 "Content-Type: text/plain; charset=UTF-8\n"
                 "Content-Transfer-Encoding: quoted-printable\n\n");
  int failed = part.failed;
  vemo_text_free(&part);
  fill(find_text(mail->template_text, end), end, mail->values, &part);
  add_quoted_printable(&part, message);
  failed = failed || part.failed || message->failed;
  vemo_text_free(&part);
  if (!failed) return 0;
  VEMO_FAIL(VEMOERR_NO_MEMORY);
  return -1;
}

int vemo_mail_is_address(const char *text) {
  const char *at = strrchr(text, '@');

  if (at == NULL || at == text || at[1] == '\0' || strlen(text) > ADDRESS_LIMIT) return 0;
  /* What comes first is not taken for an option, nor dots for what they are not. */
  if (*text == '-' || *text == '.' || at[-1] == '.' || strstr(text, "..") != NULL) return 0;
  for (const char *c = text; c < at; c++) {
    if (!is_key_character(*c) && !(*c >= 'a' && *c <= 'z') &&
        strchr("!#$%&'*+-/=?^`{|}~.", *c) == NULL)
      return 0;
  }
  for (const char *c = at + 1; *c != '\0'; c++) {
    if (*c == '_' ||
        (!is_key_character(*c) && !(*c >= 'a' && *c <= 'z') && strchr(".-", *c) == NULL))
      return 0;
  }
  return at[1] != '-' && at[1] != '.' && text[strlen(text) - 1] != '.';
}
