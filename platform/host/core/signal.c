/* SIGTERM is held back while a file of state is written. */
#include <signal.h>

#include "core/internal.h"

static int holds;
static int was_blocked;

static void only_sigterm(sigset_t *set) {
  sigemptyset(set);
  sigaddset(set, SIGTERM);
}

int VLIBCSigtermHold(void) {
  sigset_t term, before;

  if (holds > 0) {
    holds++;
    return 0;
  }
  only_sigterm(&term);
  if (sigprocmask(SIG_BLOCK, &term, &before) != 0) {
    VEMO_FAIL(VEMOERR_INTERNAL);
    return -1;
  }
  was_blocked = sigismember(&before, SIGTERM);
  holds = 1;
  return 0;
}

void VLIBCSigtermRelease(void) {
  sigset_t term;

  if (holds == 0 || --holds > 0 || was_blocked) return;
  only_sigterm(&term);
  sigprocmask(SIG_UNBLOCK, &term, NULL);
}
