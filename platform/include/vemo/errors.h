/*
 * vemo/errors.h - the codes of the error slot.
 *
 * 16 bits, written as four hexadecimal digits. The codes from 0x0D00 on and
 * 0x0300, 0x0600 are the appliance's, and programs compare them; the others are
 * the host platform's own, to be printed, and nothing depends on them.
 */
#ifndef VEMO_ERRORS_H
#define VEMO_ERRORS_H
enum vemo_error {
  VEMOERR_NONE = 0x0000,
  VEMOERR_NO_PERM = 0x0300,         /* the caller may not */
  VEMOERR_NOT_FOUND = 0x0600,       /* no such file or entry */
  VEMOERR_BAD_PARAM = 0x0D00,       /* argument missing or malformed */
  VEMOERR_FS_EXAMINE = 0x2700,      /* a file system could not be examined */
  VEMOERR_VOLUME_FULL = 0x2900,     /* volumes are there, but too full */
  VEMOERR_CSP_FORMAT = 0x4000,      /* a policy document is malformed */
  VEMOERR_PATH_REFUSED = 0x8100,    /* a path leads where it must not */
  VEMOERR_NO_VOLUME = 0x8300,       /* there is no volume */
  VEMOERR_VOLUME_RO = 0x8400,       /* the volume is read-only */
  VEMOERR_NAME_RESERVED = 0x9A00,   /* the name is reserved */
  VEMOERR_PATH_GONE = 0xA000,       /* the path went away */
  VEMOERR_NAME_CHAR = 0xA500,       /* the name holds a character that is refused */
  VEMOERR_ACL_UNSUPPORTED = 0xD700, /* the file system knows no ACLs */
  VEMOERR_ACL_NO_PERM = 0xD800,     /* an ACL says no */
  VEMOERR_VOLUME_UNUSABLE = 0xDD00, /* volumes are there, but none usable */
  /* codes of the host platform */
  VEMOERR_INTERNAL = 0x0100,
  VEMOERR_NO_MEMORY = 0x0200,
  VEMOERR_IO = 0x0400,
  VEMOERR_FORMAT = 0x0500, /* a file the reader rejects */
  VEMOERR_BUSY = 0x0700,   /* a lock not granted in time */
  VEMOERR_NO_USER = 0x0800,
  VEMOERR_NO_GROUP = 0x0900,
  VEMOERR_NO_SHARE = 0x0A00,
  VEMOERR_TOO_LONG = 0x0B00,  /* a result that does not fit where cutting would be wrong */
  VEMOERR_NO_SERVICE = 0x0C00 /* winbind, mailer, database not to be had */
};
#endif
