/*
 * The inner half of `sandbox`: puts namespaces and a copy-on-write root around one
 * command, and waits for it.
 *
 *     sandbox PROJECT LAYER STATE NETWORK COMMAND [ARGUMENT...]
 *
 * PROJECT is bound in at its own path; LAYER (or "") is a folder whose content lies
 * over the machine's root; STATE (or "") keeps what is changed; NETWORK is "host" or
 * "private". The status is the command's, 128 and the signal's number when it was
 * killed, 125 when there is no sandbox.
 */
#define _GNU_SOURCE
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

/* Where the new root is put together, in the private mount namespace. Folders that may
 * lie below it are opened before it is covered. */
#define BASE "/mnt"
#define ROOT BASE "/root"

enum { NO_SANDBOX = 125, NOT_EXECUTABLE = 126, NOT_FOUND = 127, LOOP_DEVICES = 32 };

struct options {
  const char* project;
  const char* layer;
  const char* state;
  int private_network;
  char** command;
};

/* What of it has been opened; -1: none. */
struct folders {
  int layer;
  int state;
};

/* Folders to bind in at their own paths. */
struct bind {
  char path[PATH_MAX];
  int folder;
};

static struct bind binds[4];
static size_t bind_count;

__attribute__((noreturn, format(printf, 1, 2))) static void fail(const char* format, ...) {
  va_list arguments;
  const char* reason = strerror(errno);

  va_start(arguments, format);
  fputs("sandbox: ", stderr);
  vfprintf(stderr, format, arguments);
  fprintf(stderr, ": %s\n", reason);
  va_end(arguments);
  fflush(stderr);
  _exit(NO_SANDBOX);
}

static int open_folder(const char* path) {
  int folder = open(path, O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (folder < 0) fail("%s", path);
  return folder;
}

/* A path that reaches an open folder whatever has been mounted over it since. */
static const char* by_descriptor(int folder, char* buffer, size_t size) {
  snprintf(buffer, size, "/proc/self/fd/%d", folder);
  return buffer;
}

static void make_folders(const char* path) {
  char part[PATH_MAX];

  snprintf(part, sizeof(part), "%s", path);
  for (char* slash = strchr(part + 1, '/');; slash = strchr(slash + 1, '/')) {
    if (slash != NULL) *slash = '\0';
    if (mkdir(part, 0755) != 0 && errno != EEXIST) fail("%s", part);
    if (slash == NULL) return;
    *slash = '/';
  }
}

static void add_bind(const char* path) {
  if (bind_count == sizeof(binds) / sizeof(binds[0])) return;
  for (size_t i = 0; i < bind_count; ++i) {
    if (strcmp(binds[i].path, path) == 0) return;
  }
  snprintf(binds[bind_count].path, sizeof(binds[0].path), "%s", path);
  binds[bind_count].folder = open_folder(path);
  ++bind_count;
}

/* A build folder outside of the project, when the path lies in one. */
static void add_build_folder(const char* path) {
  char folder[PATH_MAX];
  char cache[PATH_MAX + 16];

  if (realpath(path, folder) == NULL) return;
  for (char* slash = folder + strlen(folder); slash != NULL && slash != folder;
       slash = strrchr(folder, '/')) {
    *slash = '\0';
    snprintf(cache, sizeof(cache), "%s/CMakeCache.txt", folder);
    if (access(cache, F_OK) == 0) {
      add_bind(folder);
      return;
    }
  }
}

static void choose_binds(const struct options* options, const char* here) {
  const char* extra = getenv("SANDBOX_BIND");

  add_bind(options->project);
  if (extra != NULL && extra[0] == '/') add_bind(extra);
  add_build_folder(here);
  if (strchr(options->command[0], '/') != NULL) add_build_folder(options->command[0]);
}

static void mount_new(const char* type, const char* where, unsigned long flags,
                      const char* options) {
  if (mount(type, where, type, flags, options) != 0) fail("%s cannot be mounted", where);
}

/* Copies what lies in an open folder. */
static void copy_folder(int from, const char* to) {
  char source[64];
  int status;
  pid_t child = fork();

  if (child < 0) fail("fork");
  if (child == 0) {
    by_descriptor(from, source, sizeof(source));
    fcntl(from, F_SETFD, 0);
    strcat(source, "/.");
    execlp("cp", "cp", "-a", "-T", source, to, (char*)NULL);
    _exit(NOT_FOUND);
  }
  if (waitpid(child, &status, 0) != child || status != 0) {
    errno = EIO;
    fail("the layer cannot be copied");
  }
}

/* The copy-on-write root. A layer is copied: its folder lies within the machine's
 * root, and overlapping layers are refused. With a kept state it stays beneath what
 * is kept, so that newer programs and files are seen at the next start; without one
 * it goes straight into what is dropped at the end. */
static void mount_root(int layer, int state) {
  char upper[64] = BASE;
  char mount_options[256];
  const char* lower = "/";

  if (mkdir(ROOT, 0755) != 0) fail(ROOT);
  if (state >= 0) {
    by_descriptor(state, upper, sizeof(upper));
    if (layer >= 0) {
      copy_folder(layer, BASE "/layer");
      lower = BASE "/layer:/";
    }
  } else {
    if (mkdir(BASE "/work", 0700) != 0) fail(BASE "/work");
    if (layer >= 0) {
      copy_folder(layer, BASE "/upper");
    } else if (mkdir(BASE "/upper", 0755) != 0) {
      fail(BASE "/upper");
    }
  }
  snprintf(mount_options, sizeof(mount_options), "lowerdir=%s,upperdir=%s/upper,workdir=%s/work",
           lower, upper, upper);
  if (mount("overlay", ROOT, "overlay", 0, mount_options) != 0) {
    fail("an overlay file system is refused here");
  }
}

static void make_node(const char* name, mode_t mode, dev_t device) {
  char path[NAME_MAX + sizeof(ROOT "/dev/")];

  snprintf(path, sizeof(path), ROOT "/dev/%s", name);
  /* A container may not be allowed to make all of them. */
  if (mknod(path, mode, device) == 0) chmod(path, mode & 07777);
}

static void make_link(const char* target, const char* path) {
  if (symlink(target, path) != 0) fail("%s", path);
}

/* No /dev/log: a program that wants a system log makes it. */
static void make_devices(void) {
  static const char* const names[] = {"null", "zero",    "full", "random",
                                      "tty",  "urandom", "fuse", "loop-control"};
  struct stat status;
  char path[64];

  mount_new("tmpfs", ROOT "/dev", MS_NOSUID, "mode=0755");
  for (size_t i = 0; i < sizeof(names) / sizeof(names[0]); ++i) {
    snprintf(path, sizeof(path), "/dev/%s", names[i]);
    if (stat(path, &status) == 0) make_node(names[i], status.st_mode, status.st_rdev);
  }
  /* Loop devices that the kernel makes later do not come up here by themselves. */
  if (stat("/dev/loop-control", &status) == 0) {
    for (unsigned i = 0; i < LOOP_DEVICES; ++i) {
      snprintf(path, sizeof(path), "loop%u", i);
      make_node(path, S_IFBLK | 0660, makedev(7, i));
    }
  }
  if (mkdir(ROOT "/dev/pts", 0755) != 0 || mkdir(ROOT "/dev/shm", 0777) != 0) fail(ROOT "/dev");
  mount_new("devpts", ROOT "/dev/pts", MS_NOSUID | MS_NOEXEC,
            "newinstance,ptmxmode=0666,mode=0620");
  mount_new("tmpfs", ROOT "/dev/shm", MS_NOSUID | MS_NODEV, "mode=1777");
  make_link("pts/ptmx", ROOT "/dev/ptmx");
  make_link("/proc/self/fd", ROOT "/dev/fd");
  make_link("/proc/self/fd/0", ROOT "/dev/stdin");
  make_link("/proc/self/fd/1", ROOT "/dev/stdout");
  make_link("/proc/self/fd/2", ROOT "/dev/stderr");
}

static void mount_kernel(void) {
  const unsigned long flags = MS_NOSUID | MS_NODEV | MS_NOEXEC;

  mount_new("proc", ROOT "/proc", flags, NULL);
  if (mount("sysfs", ROOT "/sys", "sysfs", flags | MS_RDONLY, NULL) == 0) return;
  /* Inside of a container only the one that is there can be had. */
  if (mount("/sys", ROOT "/sys", NULL, MS_BIND | MS_REC, NULL) != 0) fail("/sys");
  (void)mount(NULL, ROOT "/sys", NULL, MS_BIND | MS_REMOUNT | MS_RDONLY | flags, NULL);
}

static void bind_folders(void) {
  char source[64];
  char target[PATH_MAX];

  for (size_t i = 0; i < bind_count; ++i) {
    int length = snprintf(target, sizeof(target), ROOT "%s", binds[i].path);
    if (length < 0 || (size_t)length >= sizeof(target)) fail("%s", binds[i].path);
    make_folders(target);
    if (mount(by_descriptor(binds[i].folder, source, sizeof(source)), target, NULL,
              MS_BIND | MS_REC, NULL) != 0) {
      fail("%s cannot be bound in", binds[i].path);
    }
  }
}

static void loopback_up(void) {
  struct ifreq request = {.ifr_name = "lo"};
  int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);

  if (descriptor < 0 || ioctl(descriptor, SIOCGIFFLAGS, &request) != 0) fail("lo");
  request.ifr_flags |= IFF_UP;
  if (ioctl(descriptor, SIOCSIFFLAGS, &request) != 0) fail("lo");
  close(descriptor);
}

static void build_root(const struct options* options, const char* here,
                       const struct folders* folders) {
  mode_t mask = umask(022);

  if (mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL) != 0) fail("mounts are refused here");
  mount_new("tmpfs", BASE, 0, "mode=0755");
  mount_root(folders->layer, folders->state);
  mount_new("tmpfs", ROOT "/run", MS_NOSUID | MS_NODEV, "mode=0755");
  mount_new("tmpfs", ROOT "/tmp", MS_NOSUID, "mode=1777");
  mount_kernel();
  make_devices();
  bind_folders();
  if (options->private_network) loopback_up();

  if (chdir(ROOT) != 0 || syscall(SYS_pivot_root, ".", ".") != 0 || umount2(".", MNT_DETACH) != 0 ||
      chdir("/") != 0) {
    fail("the root cannot be changed");
  }
  if (mkdir("/run/vemo", 0755) != 0 || mkdir("/run/lock", 0755) != 0) fail("/run");
  umask(mask);
  /* A working directory that is not seen in here is no reason to stop. */
  if (chdir(here) != 0) errno = 0;
}

static int status_of(int status) {
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

/* Waits for a child, reaps every other one, and hands on signals that somebody sent.
 * Those of the terminal reach the whole process group without us. */
static int wait_for(pid_t child, const sigset_t* signals) {
  siginfo_t info;
  int status;

  for (;;) {
    pid_t ended;
    while ((ended = waitpid(-1, &status, WNOHANG)) > 0) {
      if (ended == child) return status_of(status);
    }
    if (ended < 0 && errno == ECHILD) return NO_SANDBOX;
    if (sigwaitinfo(signals, &info) < 0) continue;
    if (info.si_signo != SIGCHLD && info.si_code <= 0) kill(child, info.si_signo);
  }
}

/* Process 1 of the sandbox: with it everything in there ends. */
__attribute__((noreturn)) static void run_inside(const struct options* options, const char* here,
                                                 const struct folders* folders, int parent,
                                                 const sigset_t* signals, const sigset_t* before) {
  struct pollfd alive = {.fd = parent, .events = POLLIN};
  pid_t child;

  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) fail("prctl");
  if (poll(&alive, 1, 0) != 0) _exit(NO_SANDBOX); /* the outer one is gone already */
  build_root(options, here, folders);

  child = fork();
  if (child < 0) fail("fork");
  if (child == 0) {
    sigprocmask(SIG_SETMASK, before, NULL);
    execvp(options->command[0], options->command);
    fprintf(stderr, "sandbox: %s: %s\n", options->command[0], strerror(errno));
    _exit(errno == ENOENT ? NOT_FOUND : NOT_EXECUTABLE);
  }
  _exit(wait_for(child, signals));
}

/* The kept state, locked: two sandboxes on one would damage it. */
static int open_state(const char* path) {
  char part[PATH_MAX];
  int lock;

  if (path[0] == '\0') return -1;
  snprintf(part, sizeof(part), "%s/upper", path);
  make_folders(part);
  snprintf(part, sizeof(part), "%s/work", path);
  make_folders(part);
  snprintf(part, sizeof(part), "%s/lock", path);
  lock = open(part, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (lock < 0) fail("%s", part);
  if (flock(lock, LOCK_EX | LOCK_NB) != 0) fail("%s is in use", path);
  return open_folder(path);
}

static void choose_signals(sigset_t* signals) {
  sigfillset(signals);
  /* Stopping at the terminal works as for every command. */
  sigdelset(signals, SIGTSTP);
  sigdelset(signals, SIGTTIN);
  sigdelset(signals, SIGTTOU);
  sigdelset(signals, SIGCONT);
}

int main(int argc, char** argv) {
  struct options options;
  sigset_t signals;
  sigset_t before;
  char here[PATH_MAX];
  int namespaces = CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWUTS | CLONE_NEWIPC;
  int parent[2];
  struct folders folders;
  pid_t child;

  if (argc < 6) {
    fputs("sandbox: started by the script of that name\n", stderr);
    return NO_SANDBOX;
  }
  options = (struct options){argv[1], argv[2], argv[3], strcmp(argv[4], "private") == 0, argv + 5};
  if (getcwd(here, sizeof(here)) == NULL) snprintf(here, sizeof(here), "/");

  choose_signals(&signals);
  if (sigprocmask(SIG_BLOCK, &signals, &before) != 0) fail("sigprocmask");
  if (pipe2(parent, O_CLOEXEC) != 0) fail("pipe");
  if (options.private_network) namespaces |= CLONE_NEWNET;
  if (unshare(namespaces) != 0) {
    fail("namespaces are refused here (it takes root, outside of an unprivileged container)");
  }
  /* Only what is opened in the new namespace can be bound in it. */
  choose_binds(&options, here);
  folders.layer = options.layer[0] != '\0' ? open_folder(options.layer) : -1;
  folders.state = open_state(options.state);
  child = fork();
  if (child < 0) fail("fork");
  if (child == 0) {
    close(parent[1]);
    run_inside(&options, here, &folders, parent[0], &signals, &before);
  }
  close(parent[0]);
  return wait_for(child, &signals);
}
