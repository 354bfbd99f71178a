/* Texts compared without regard to case. */
#include <dlfcn.h>
#include <stdint.h>

#include "core/internal.h"

enum {
  FOLDED_MAX = 4,         /* code points that one folds to; Unicode has 3 */
  CASE_FOLD = 1 << 10,    /* UTF8PROC_CASEFOLD */
  INVALID_BASE = 0x110000 /* beyond all code points: a byte that is no UTF-8 (RFC 3629) */
};

typedef ptrdiff_t fold_function(int32_t, int32_t *, ptrdiff_t, int, int *);

/* Opened at the first name that is not ASCII; without the library those names are compared
 * by their code points. */
static fold_function *find_fold(void) {
  static fold_function *fold;
  static int looked;

  if (looked) return fold;
  looked = 1;
  const int kept = errno;
  void *library = dlopen("libutf8proc.so.2", RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (library == NULL || vemo_find_function(library, "utf8proc_decompose_char", &fold) != 0) {
    fold = NULL;
  }
  errno = kept;
  return fold;
}

static int is_continuation(unsigned char byte) {
  return (byte & 0xC0) == 0x80;
}

/* The length of the well-formed sequence at `text`, its code point in `*point`; 0. It reads no
 * byte behind a NUL byte, which is no continuation. */
static int decode(const unsigned char *text, int32_t *point) {
  const unsigned char first = text[0];
  const int length = first < 0x80 ? 1 : first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  static const int32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};

  if (length == 0 || first > 0xF4) return 0;
  int32_t value = length == 1 ? first : first & (0x7F >> length);
  for (int i = 1; i < length; i++) {
    if (!is_continuation(text[i])) return 0;
    value = value << 6 | (text[i] & 0x3F);
  }
  if (value < smallest[length] || value > 0x10FFFF) return 0;
  if (value >= 0xD800 && value <= 0xDFFF) return 0;
  *point = value;
  return length;
}

/* A text as folded code points, one after the other. */
struct reader {
  const unsigned char *next;
  int32_t folded[FOLDED_MAX];
  int count, used;
};

static int32_t lower(int32_t byte) {
  return byte >= 'A' && byte <= 'Z' ? byte + ('a' - 'A') : byte;
}

/* 0 at the end. */
static int32_t read_point(struct reader *reader) {
  int32_t point;

  if (reader->used < reader->count) return reader->folded[reader->used++];
  if (*reader->next < 0x80) return *reader->next == 0 ? 0 : lower(*reader->next++);
  const int length = decode(reader->next, &point);
  if (length == 0) return INVALID_BASE + *reader->next++;
  reader->next += length;
  fold_function *fold = find_fold();
  if (fold == NULL) return point;
  int boundary = 0;
  const ptrdiff_t count = fold(point, reader->folded, FOLDED_MAX, CASE_FOLD, &boundary);
  if (count < 1 || count > FOLDED_MAX) return point;
  reader->count = (int)count;
  reader->used = 1;
  return reader->folded[0];
}

int VLIBCUnicodeUTF8StrCaseCmp(const char *a, const char *b) {
  const unsigned char *left = (const unsigned char *)(a == NULL ? "" : a);
  const unsigned char *right = (const unsigned char *)(b == NULL ? "" : b);

  for (; *left < 0x80 && *right < 0x80; left++, right++) {
    const int32_t difference = lower(*left) - lower(*right);
    if (difference != 0) return difference;
    if (*left == 0) return 0;
  }
  struct reader readers[2] = {{.next = left}, {.next = right}};
  for (;;) {
    const int32_t x = read_point(&readers[0]), y = read_point(&readers[1]);
    if (x != y) return x < y ? -1 : 1;
    if (x == 0) return 0;
  }
}
