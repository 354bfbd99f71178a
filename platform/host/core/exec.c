/* Running programs: no shell, nothing of the request in their hands. */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/internal.h"

static char *const child_environment[] = {
    "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C", "HOME=/",
    "TMPDIR=/tmp", NULL};

/* The web server's program ignores SIGPIPE and may hold SIGTERM back: neither is
 * for the child. */
static int set_attributes(posix_spawnattr_t *attributes) {
  sigset_t all, none;

  sigemptyset(&none);
  sigemptyset(&all);
  /* The two between are the C library's own, and are left to it. */
  for (int number = 1; number <= SIGRTMAX; number++) {
    if (number < 32 || number >= SIGRTMIN) sigaddset(&all, number);
  }
  posix_spawnattr_setsigdefault(attributes, &all);
  posix_spawnattr_setsigmask(attributes, &none);
  return posix_spawnattr_setflags(attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
}

void vemo_want_exit_statuses(void) {
  struct sigaction action;

  if (sigaction(SIGCHLD, NULL, &action) != 0) return;
  if (action.sa_handler != SIG_IGN && (action.sa_flags & SA_NOCLDWAIT) == 0) return;
  if (action.sa_handler == SIG_IGN) action.sa_handler = SIG_DFL;
  action.sa_flags &= ~SA_NOCLDWAIT;
  sigaction(SIGCHLD, &action, NULL);
}

pid_t vemo_start(const char *program, char *const argv[], int in, int out) {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  pid_t child = -1;

  vemo_want_exit_statuses();
  int error = posix_spawn_file_actions_init(&actions);
  if (error != 0) goto failed;
  error = posix_spawnattr_init(&attributes);
  if (error != 0) goto failed_actions;
  error = set_attributes(&attributes);
  if (error == 0) {
    error = in < 0 ? posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0)
                   : posix_spawn_file_actions_adddup2(&actions, in, 0);
  }
  if (error == 0) {
    error = out < 0 ? posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0)
                    : posix_spawn_file_actions_adddup2(&actions, out, 1);
  }
  if (error == 0) error = posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  if (error == 0) {
    error = posix_spawn(&child, program, &actions, &attributes, argv, child_environment);
  }
  posix_spawnattr_destroy(&attributes);
failed_actions:
  posix_spawn_file_actions_destroy(&actions);
failed:
  if (error == 0) return child;
  errno = error;
  VEMO_FAIL(VEMOERR_IO);
  return -1;
}

int vemo_wait_for(pid_t child) {
  int status;

  while (waitpid(child, &status, 0) < 0) {
    if (errno == EINTR) continue;
    VEMO_FAIL(VEMOERR_IO);
    return -1;
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  errno = EINTR;
  VEMO_FAIL(VEMOERR_IO);
  return -1;
}

int VLIBCExecv(const char *program, char *const argv[]) {
  if (program == NULL || *program == '\0' || argv == NULL || argv[0] == NULL) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  const pid_t child = vemo_start(program, argv, -1, -1);
  return child < 0 ? -1 : vemo_wait_for(child);
}

/* The program and the arguments up to NULL; malloc'ed, the texts are not copied. */
static char **collect(const char *program, va_list list) {
  size_t count = 1;
  va_list counted;

  va_copy(counted, list);
  while (va_arg(counted, char *) != NULL)
    count++;
  va_end(counted);
  char **argv = calloc(count + 1, sizeof *argv);
  if (argv == NULL) {
    VEMO_FAIL(VEMOERR_NO_MEMORY);
    return NULL;
  }
  argv[0] = (char *)(uintptr_t)program;
  for (size_t i = 1; i < count; i++)
    argv[i] = va_arg(list, char *);
  return argv;
}

int VLIBCExec(const char *program, ...) {
  va_list list;

  if (program == NULL || *program == '\0') {
    VEMO_FAIL_PARAM();
    return -1;
  }
  va_start(list, program);
  char **argv = collect(program, list);
  va_end(list);
  if (argv == NULL) return -1;
  const int result = VLIBCExecv(program, argv);
  free(argv);
  return result;
}

/* Which stream belongs to which program. */
struct pipe {
  struct pipe *next;
  FILE *stream;
  pid_t child;
};

static struct pipe *pipes;

static FILE *start_piped(const char *program, char *const argv[], int reading, struct pipe *entry) {
  int ends[2];

  if (pipe2(ends, O_CLOEXEC) != 0) {
    VEMO_FAIL_ERRNO();
    return NULL;
  }
  const int ours = reading ? ends[0] : ends[1];
  const int theirs = reading ? ends[1] : ends[0];
  entry->child = vemo_start(program, argv, reading ? -1 : theirs, reading ? theirs : -1);
  int kept = errno;
  close(theirs);
  entry->stream = entry->child < 0 ? NULL : fdopen(ours, reading ? "r" : "w");
  if (entry->stream != NULL) return entry->stream;
  if (entry->child >= 0) kept = errno;
  close(ours);
  if (entry->child >= 0) vemo_wait_for(entry->child);
  VEMO_FAIL_AS(kept, VEMOERR_IO);
  return NULL;
}

FILE *VLIBCPopen(const char *program, const char *mode, ...) {
  va_list list;

  if (program == NULL || *program == '\0' || mode == NULL || (*mode != 'r' && *mode != 'w')) {
    VEMO_FAIL_PARAM();
    return NULL;
  }
  va_start(list, mode);
  char **argv = collect(program, list);
  va_end(list);
  struct pipe *entry = malloc(sizeof *entry);
  FILE *stream = NULL;
  if (entry == NULL) {
    VEMO_FAIL(VEMOERR_NO_MEMORY);
  } else if (argv != NULL) {
    stream = start_piped(program, argv, *mode == 'r', entry);
  }
  free(argv);
  if (stream == NULL) {
    free(entry);
    return NULL;
  }
  entry->next = pipes;
  pipes = entry;
  return stream;
}

int VLIBCPclose(FILE *stream) {
  struct pipe **link = &pipes;

  while (*link != NULL && (*link)->stream != stream)
    link = &(*link)->next;
  if (stream == NULL || *link == NULL) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  struct pipe *entry = *link;
  *link = entry->next;
  const pid_t child = entry->child;
  free(entry);
  /* Closed first: a program that still writes gets SIGPIPE and ends. */
  fclose(stream);
  return vemo_wait_for(child);
}
