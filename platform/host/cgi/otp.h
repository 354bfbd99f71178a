/*
 * otp.h - the second factor: time-based one-time codes (RFC 6238) and recovery
 * codes.
 *
 * An account's secrets stand in /usr/vemo/etc/otp/<account>, a key=value file of
 * root's with mode 0600:
 *
 *   secret="JBSWY3DPEHPK3PXP..."     base32 (RFC 4648), at least 16 characters
 *   last="57203412"                  the last 30-second step whose code was used
 *   recovery="$6$... $6$..."         hashes of crypt(5) of unused recovery codes
 */
#ifndef VEMO_HOST_CGI_OTP_H
#define VEMO_HOST_CGI_OTP_H

/* 1: the account has a second factor; 0: it has none; -1: that cannot be told,
 * which callers take for a refusal. */
int vemo_otp_enrolled(const char *user);

/* 1: the code is right, and spent from now on; 0: wrong, or used before; -1. */
int vemo_otp_check(const char *user, const char *code);

#endif
