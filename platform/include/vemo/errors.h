#ifndef VEMO_ERRORS_H
#define VEMO_ERRORS_H
enum vemo_error {                     /* 16 bits, printed "[0x%04X %s:%d]" */
  VEMOERR_NONE            = 0x0000,
  VEMOERR_NO_PERM         = 0x0300,   /* name checks accessor */
  VEMOERR_NOT_FOUND       = 0x0600,   /* name checks accessor */
  VEMOERR_BAD_PARAM       = 0x0D00,   /* name checks */
  VEMOERR_FS_EXAMINE      = 0x2700,   /* name checks: the file system of a directory could not be examined */
  VEMOERR_VOLUME_FULL     = 0x2900,   /* upload, reason bit 4, answer -2 */
  VEMOERR_CSP_FORMAT      = 0x4000,   /* rule store Save */
  VEMOERR_PATH_REFUSED    = 0x8100,   /* name checks */
  VEMOERR_NO_VOLUME       = 0x8300,   /* upload, answer -13 */
  VEMOERR_VOLUME_RO       = 0x8400,   /* accessor */
  VEMOERR_NAME_RESERVED   = 0x9A00,   /* name checks */
  VEMOERR_PATH_GONE       = 0xA000,   /* accessor: treated as 0x0600 */
  VEMOERR_NAME_CHAR       = 0xA500,   /* name checks */
  VEMOERR_ACL_UNSUPPORTED = 0xD700,   /* accessor */
  VEMOERR_ACL_NO_PERM     = 0xD800,   /* accessor: treated as 0x0300 */
  VEMOERR_VOLUME_UNUSABLE = 0xDD00,   /* upload, reason bit 1, answer -12 */
  /* codes of our own; none of them is compared by the library */
  VEMOERR_INTERNAL        = 0x0100,
  VEMOERR_NO_MEMORY       = 0x0200,
  VEMOERR_IO              = 0x0400,
  VEMOERR_FORMAT          = 0x0500,   /* a file the reader rejects */
  VEMOERR_BUSY            = 0x0700,   /* a lock not granted in time */
  VEMOERR_NO_USER         = 0x0800,
  VEMOERR_NO_GROUP        = 0x0900,
  VEMOERR_NO_SHARE        = 0x0A00,
  VEMOERR_TOO_LONG        = 0x0B00,   /* a result that does not fit where cutting would be wrong */
  VEMOERR_NO_SERVICE      = 0x0C00    /* winbind, mailer, database not to be had */
};
#endif
