/*
 * otp.h - the second factor: time-based one-time codes (RFC 6238: SHA-1, six digits,
 * steps of 30 seconds from the epoch) and recovery codes.
 *
 * An account's secrets stand in /usr/vemo/etc/otp/<account>, a key=value file of
 * root's that nobody else may read (mode 0600 or less), and no link; the name as
 * vemo_name_part writes it. The directory is root's, and writable by nobody else.
 *
 *   secret="JBSWY3DPEHPK3PXP..."     base32 (RFC 4648), at least 16 characters
 *   last="57203412"                  the last step whose code was used; none as yet: left out
 *   recovery="$6$... $6$..."         hashes of crypt(5) of the unused recovery codes, with
 *                                    blanks between, 16 at most. Six digits are never taken
 *                                    for a recovery code.
 *
 * Other keys are kept; comments are lost when a code is used. Names that begin with a
 * dot are no account's: ".lock" is held while a code is used, ".new" becomes the file.
 */
#ifndef VEMO_HOST_CGI_OTP_H
#define VEMO_HOST_CGI_OTP_H

#include <vemo/types.h>

VEMO_BEGIN

/* Whether the account (its own name, as the name service writes it) has a second
 * factor. 1; 0; -1: that cannot be told, or its file is not to be trusted
 * (VEMOERR_NO_PERM), which callers take for a refusal. */
int vemo_otp_enrolled(const char *user);

/* Checks a code of at most 64 bytes, of this step, the one before or the one after,
 * and spends it: a code is accepted once, and neither is an older one afterwards.
 * 1: it is right, and that it is spent is on the disk; 0: wrong, used before, or the
 * account has no second factor; -1: a fault (recorded), and nothing is spent:
 * VEMOERR_FORMAT for a file that is broken, VEMOERR_BUSY when others hold it for
 * 5 seconds, VEMOERR_NO_SERVICE without liboath. */
int vemo_otp_check(const char *user, const char *code);

VEMO_END

#endif
