/* Random bytes, and texts that nobody must guess. */
#include <errno.h>
#include <string.h>
#include <sys/random.h>

#include "core/internal.h"

int vemo_random(void *buffer, size_t size) {
  unsigned char *bytes = buffer;

  while (size > 0) {
    const ssize_t got = getrandom(bytes, size, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      VEMO_FAIL(VEMOERR_INTERNAL);
      return -1;
    }
    bytes += got;
    size -= (size_t)got;
  }
  return 0;
}

int vemo_base64url(const void *data, size_t size, char *buffer, size_t buffer_size) {
  static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  const unsigned char *bytes = data;
  const size_t length = (size * 8 + 5) / 6;
  unsigned int bits = 0;
  int count = 0;
  size_t used = 0;

  if (length >= buffer_size) {
    VEMO_FAIL_AS(ENAMETOOLONG, VEMOERR_TOO_LONG);
    return -1;
  }
  for (size_t i = 0; i < size; i++) {
    bits = bits << 8 | bytes[i];
    for (count += 8; count >= 6; count -= 6)
      buffer[used++] = alphabet[bits >> (count - 6) & 63];
  }
  if (count > 0) buffer[used++] = alphabet[bits << (6 - count) & 63];
  buffer[used] = '\0';
  return (int)used;
}

int vemo_equal_constant_time(const char *a, const char *b) {
  if (a == NULL || b == NULL || *a == '\0') return 0;
  const size_t size = strlen(a);
  if (strlen(b) != size) return 0;
  volatile unsigned char difference = 0;
  for (size_t i = 0; i < size; i++)
    difference |= (unsigned char)(a[i] ^ b[i]);
  return difference == 0;
}
