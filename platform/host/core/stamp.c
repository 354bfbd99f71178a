/* Whether a file is still as it was when it was read. */
#include <time.h>

#include "core/internal.h"

static int same_time(const struct timespec *a, const struct timespec *b) {
  return a->tv_sec == b->tv_sec && a->tv_nsec == b->tv_nsec;
}

void vemo_stamp_set(struct vemo_stamp *stamp, const struct stat *status) {
  struct timespec now;

  /* The clock of file times ticks every few milliseconds only. */
  clock_gettime(CLOCK_REALTIME, &now);
  stamp->status = *status;
  stamp->fresh = (now.tv_sec - status->st_ctim.tv_sec) * 1000LL +
                     (now.tv_nsec - status->st_ctim.tv_nsec) / 1000000 <
                 100;
}

int vemo_stamp_matches(const struct vemo_stamp *stamp, const struct stat *status) {
  const struct stat *was = &stamp->status;

  return !stamp->fresh && was->st_dev == status->st_dev && was->st_ino == status->st_ino &&
         was->st_size == status->st_size && same_time(&was->st_mtim, &status->st_mtim) &&
         same_time(&was->st_ctim, &status->st_ctim);
}
