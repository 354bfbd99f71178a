/* Names that become parts of paths. */
#include <string.h>

#include "core/internal.h"

enum { NAME_LIMIT = 255 }; /* bytes that a file name may have */

static int is_plain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         (c != '\0' && strchr("._@-", c) != NULL);
}

static int is_refused(const char *name) {
  if (name == NULL || *name == '\0' || strcmp(name, ".") == 0 || strcmp(name, "..") == 0) return 1;
  for (const char *c = name; *c != '\0'; c++) {
    if (*c == '/' || (unsigned char)*c < 0x20 || *c == 0x7f) return 1;
  }
  return 0;
}

int vemo_name_part(const char *name, char *buffer, size_t size) {
  static const char digits[] = "0123456789ABCDEF";
  size_t used = 0;

  if (is_refused(name)) {
    VEMO_FAIL_AS(EINVAL, VEMOERR_PATH_REFUSED);
    return -1;
  }
  for (const char *c = name; *c != '\0'; c++) {
    const int plain = is_plain(*c) && !(c == name && *c == '.');
    if (used + (plain ? 1 : 3) > NAME_LIMIT || used + (plain ? 1 : 3) >= size) {
      VEMO_FAIL_AS(ENAMETOOLONG, VEMOERR_TOO_LONG);
      return -1;
    }
    if (plain) {
      buffer[used++] = *c;
      continue;
    }
    buffer[used++] = '%';
    buffer[used++] = digits[(unsigned char)*c >> 4];
    buffer[used++] = digits[*c & 15];
  }
  buffer[used] = '\0';
  return 0;
}
