/* throttle.h - failed logins are counted, and too many of them make wait: after 10
 * within 5 minutes, the next is allowed 5 minutes after the last.
 *
 * Counted are an address, and an account together with an address. Of an IPv6
 * address its /64 network counts, which is one customer's. An address from which
 * the account logged in before is judged by the latter alone, so that strangers
 * who share it cannot lock the owner out. */
#ifndef VEMO_HOST_CGI_THROTTLE_H
#define VEMO_HOST_CGI_THROTTLE_H

enum vemo_throttle_outcome {
  VEMO_THROTTLE_FAILURE = -1, /* a wrong guess */
  VEMO_THROTTLE_NEITHER = 0,  /* no guess and no login: nothing is counted */
  VEMO_THROTTLE_SUCCESS = 1
};

/* Whether a login as `user` ("": no account is named) from `address` may be tried
 * now. An attempt that is allowed counts as a failure until vemo_throttle_end
 * says otherwise, so that guesses sent at once are counted too. 1, 0; -1: the
 * counters cannot be used (recorded). */
int vemo_throttle_begin(const char *user, const char *address);

/* Tells how an attempt that was allowed went. */
void vemo_throttle_end(const char *user, const char *address, enum vemo_throttle_outcome outcome);

#endif
