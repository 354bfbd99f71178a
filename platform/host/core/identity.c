/* State that is root's, touched as root for the moment. */
#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

#include "core/internal.h"

int vemo_root_begin(uid_t *before) {
  *before = geteuid();
  if (*before == 0 || seteuid(0) == 0) return 0;
  VEMO_FAIL(VEMOERR_NO_PERM);
  return -1;
}

void vemo_root_end(uid_t before) {
  const int kept = errno;

  /* A process that cannot give root back must not go on as root. */
  if (before != 0 && seteuid(before) != 0) abort();
  errno = kept;
}
