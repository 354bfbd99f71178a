/* Bandwidth limits of uploads. */
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "cgi/upload.h"

static const char limits_file[] = "/etc/vemo/bandwidth.conf";

void vemo_pace_begin(struct vemo_pace *pace, const char *name, const struct timespec *start) {
  const int error = errno;
  const char *text = name == NULL || *name == '\0'
                         ? NULL
                         : VLIBCSzHashGetValue(vemo_keyvalue_cached(limits_file), name);

  errno = error; /* a machine without limits has no such file */
  pace->start = *start;
  pace->rate = 0;
  if (text == NULL || *text == '\0') return;
  const size_t digits = strspn(text, "0123456789");
  if (text[digits] != '\0' || digits > 9) return;
  pace->rate = strtoull(text, NULL, 10) * 1024;
}

void vemo_pace_wait(const struct vemo_pace *pace, unsigned long long bytes) {
  if (pace->rate == 0) return;
  struct timespec until = pace->start;
  until.tv_sec += (time_t)(bytes / pace->rate);
  until.tv_nsec += (long)((double)(bytes % pace->rate) * 1e9 / (double)pace->rate);
  if (until.tv_nsec >= 1000000000) {
    until.tv_sec++;
    until.tv_nsec -= 1000000000;
  }
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, NULL) == EINTR)
    continue;
}
