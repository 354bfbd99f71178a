/* throttle.h - failed logins are counted, and too many of them make wait. */
#ifndef VEMO_HOST_CGI_THROTTLE_H
#define VEMO_HOST_CGI_THROTTLE_H

/* Whether a login as `user` from `address` may be tried now. 1, 0; -1: the
 * counters cannot be used, which is taken for no. */
int vemo_throttle_allows(const char *user, const char *address);

/* Counts a failure. */
void vemo_throttle_failed(const char *user, const char *address);

/* Notes a success: the address keeps a count of its own for this account from now
 * on, so that strangers cannot lock the owner out. */
void vemo_throttle_succeeded(const char *user, const char *address);

#endif
