/* The error slot: one a thread. */
#include <errno.h>

#include "core/internal.h"

static _Thread_local struct {
  int code;
  const char *file;
  int line;
} slot = {0, "", 0};

void VLIBCErrSetEx(int code, const char *file, int line) {
  slot.code = code;
  slot.file = file == NULL ? "" : file;
  slot.line = line;
}

int VLIBCErrGet(void) {
  return slot.code;
}

const char *VLIBCErrorGetFile(void) {
  return slot.file;
}

int VLIBCErrorGetLine(void) {
  return slot.line;
}

static int code_of_errno(int error) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
      return VEMOERR_NOT_FOUND;
    case EACCES:
    case EPERM:
      return VEMOERR_NO_PERM;
    case ELOOP:
      return VEMOERR_PATH_REFUSED;
    case ENOMEM:
      return VEMOERR_NO_MEMORY;
    default:
      return VEMOERR_IO;
  }
}

void vemo_fail_as(int error, int code, const char *file, int line) {
  VLIBCErrSetEx(code, file, line);
  errno = error;
}

void vemo_fail_errno(const char *file, int line) {
  VLIBCErrSetEx(code_of_errno(errno), file, line);
}
