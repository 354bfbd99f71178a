/* Uploads in slices: one growing file in a volume's spool directory, appended in place.
 *
 * Its name, "slice-<128 random bits>-<total size>", its owner and its size are all that has
 * to be known to go on, after a broken connection or a restart of anything.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "cgi/session.h"
#include "cgi/upload.h"

enum { ID_SIZE = 22, SIZE_DIGITS = 18, LOCK_WAITS = 200, LOCK_WAIT_MS = 10, OPEN_SLICES = 16 };

static const char name_prefix[] = "slice-";
static const char lock_file[] = "/run/vemo/upload.lock";

/* The growing file that this process has opened; its name is what later requests need. */
static char opened_path[PATH_MAX];

const char *VemoCgiSliceUploadTmpFile(void) {
  const char *given = vemo_cgi_env("VEMO_SLICE_TMP_FILE");

  if (*given != '\0') return given;
  return *opened_path == '\0' ? NULL : opened_path;
}

/* A number of a few digits; `*at` then stands behind it. */
static int read_number(const char **at, unsigned long long *number) {
  const size_t digits = strspn(*at, "0123456789");

  if (digits < 1 || digits > SIZE_DIGITS) return -1;
  *number = strtoull(*at, NULL, 10);
  *at += digits;
  return 0;
}

void vemo_slice_parse(struct vemo_slice *slice) {
  static const char unit[] = "bytes ";
  const char *at = vemo_cgi_env("HTTP_CONTENT_RANGE");

  slice->asked = *at != '\0';
  slice->valid = 0;
  if (strncmp(at, unit, sizeof unit - 1) != 0) return;
  at += sizeof unit - 1;
  if (read_number(&at, &slice->first) != 0 || *at++ != '-') return;
  if (read_number(&at, &slice->last) != 0 || *at++ != '/') return;
  if (read_number(&at, &slice->total) != 0 || *at != '\0') return;
  slice->valid = slice->first <= slice->last && slice->last < slice->total;
}

static int slice_of(VEMOCGI *ctx, struct vemo_slice *slice) {
  if (VemoCgiIsUploadRequest(ctx) != 1) return 0;
  vemo_slice_parse(slice);
  return slice->valid;
}

int VemoCgiIsSliceUploadRequest(VEMOCGI *ctx) {
  struct vemo_slice slice;

  return slice_of(ctx, &slice);
}

int VemoCgiIsSliceUploadFinish(VEMOCGI *ctx) {
  struct vemo_slice slice;

  return slice_of(ctx, &slice) && slice.last + 1 == slice.total;
}

long long vemo_slice_expected(const struct vemo_slice *slice) {
  return slice->known ? (long long)slice->expected : -1;
}

/* --- Names --- */

/* The total size that a slice file's name tells. 0; -1: it is no such name. */
static int parse_name(const char *name, unsigned long long *total) {
  static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  const char *at = name + sizeof name_prefix - 1;

  if (strncmp(name, name_prefix, sizeof name_prefix - 1) != 0) return -1;
  if (strnlen(at, ID_SIZE) < ID_SIZE || strspn(at, alphabet) < ID_SIZE) return -1;
  at += ID_SIZE;
  if (*at++ != '-' || read_number(&at, total) != 0) return -1;
  return *at == '\0' ? 0 : -1;
}

static int make_name(unsigned long long total, char *name, size_t size) {
  unsigned char bits[16];
  char id[ID_SIZE + 1];

  if (vemo_random(bits, sizeof bits) != 0) return -1;
  if (vemo_base64url(bits, sizeof bits, id, sizeof id) < 0) return -1;
  snprintf(name, size, "%s%s-%llu", name_prefix, id, total);
  return 0;
}

/* --- Whose, and how many --- */

static int refused(int error, int code, int result) {
  VEMO_FAIL_AS(error, code);
  return result;
}

static int find_owner(VEMOCGI *ctx, struct vemo_slice *slice) {
  int fault;

  const struct vemo_cgi_session *session = vemo_cgi_session(ctx, &fault);
  if (session == NULL) return refused(EACCES, VEMOERR_NO_PERM, VEMO_UPLOAD_OTHER);
  slice->uid = VemoCgiUIDGet(session->id, session->user);
  slice->gid = VemoCgiGIDGet(session->id, session->user);
  return slice->uid == (uid_t)-1 || slice->gid == (gid_t)-1 ? VEMO_UPLOAD_OTHER : 0;
}

struct usage {
  uid_t uid;
  const char *volume; /* with what follows it in the path */
  int count;
  unsigned long long promised; /* bytes that are still to come, on that volume */
};

static void count_usage(const char *volume, const char *name, const struct stat *status,
                        void *data) {
  struct usage *usage = data;
  const size_t size = strlen(volume);
  unsigned long long total;

  if (status->st_uid != usage->uid || parse_name(name, &total) != 0) return;
  usage->count++;
  if (strncmp(usage->volume, volume, size) != 0 || usage->volume[size] != '/') return;
  const unsigned long long there = (unsigned long long)status->st_size;
  if (there < total) usage->promised += total - there;
}

static int slice_limit(void) {
  const char *text = vemo_cgi_config("upload_slices", "");
  const size_t digits = strspn(text, "0123456789");

  return digits < 1 || digits > 4 || text[digits] != '\0' ? OPEN_SLICES : atoi(text);
}

/* Whether one more upload fits: into the number that a user may have open, and with what
 * that user's others still ask for into the volume. 0; a negative result. */
static int check_room(const struct vemo_slice *slice, const char *directory,
                      unsigned long long needed) {
  struct usage usage = {slice->uid, directory, 0, 0};
  struct statvfs room;

  if (fstatvfs(slice->dir_fd, &room) != 0) return VEMO_UPLOAD_FAIL_ERRNO();
  vemo_spool_each(count_usage, &usage);
  if (usage.count >= slice_limit()) return refused(EBUSY, VEMOERR_BUSY, VEMO_UPLOAD_OTHER);
  const unsigned long long free_bytes = (unsigned long long)room.f_bavail * room.f_frsize;
  if (usage.promised > free_bytes || needed > free_bytes - usage.promised) {
    return refused(ENOSPC, VEMOERR_VOLUME_FULL, VEMO_UPLOAD_FULL);
  }
  return 0;
}

/* --- Opening --- */

/* The file is the user's, also while an administrator's program acts as root. */
static int give_to_owner(const struct vemo_slice *slice) {
  uid_t before;

  if (geteuid() == slice->uid && getegid() == slice->gid) return 0;
  if (vemo_root_begin(&before) != 0) return VEMO_UPLOAD_OTHER;
  const int failed = fchown(slice->fd, slice->uid, slice->gid);
  vemo_root_end(before);
  return failed ? VEMO_UPLOAD_FAIL_ERRNO() : 0;
}

static int open_first(struct vemo_slice *slice, const char *directory) {
  /* An id that led to no file, or a place in a file that is not there: the client must
   * begin anew, and knows that from the answer. */
  if (*vemo_cgi_env("HTTP_X_TMP_FILE") != '\0' || slice->first != 0) {
    return refused(ENOENT, VEMOERR_NOT_FOUND, VEMO_UPLOAD_ORDER);
  }
  slice->fresh = 1;
  slice->dir_fd = vemo_spool_open(directory);
  if (slice->dir_fd < 0) return slice->dir_fd;
  const int result = check_room(slice, directory, slice->total);
  if (result < 0) return result;
  snprintf(slice->path, sizeof slice->path, "%s", directory);
  slice->fd = vemo_spool_file(slice->dir_fd);
  return slice->fd < 0 ? VEMO_UPLOAD_FAIL_ERRNO() : give_to_owner(slice);
}

/* A request that was cut off may still be ending. */
static int lock(int fd) {
  for (int i = 0; flock(fd, LOCK_EX | LOCK_NB) != 0; i++) {
    if (errno != EWOULDBLOCK || i == LOCK_WAITS) return -1;
    usleep(LOCK_WAIT_MS * 1000);
  }
  return 0;
}

static int open_growing(struct vemo_slice *slice, const char *path, const char *name) {
  const size_t size = (size_t)(name - path) - 1;
  char directory[PATH_MAX];

  if (strlen(path) >= sizeof slice->path) {
    return refused(ENAMETOOLONG, VEMOERR_PATH_REFUSED, VEMO_UPLOAD_OTHER);
  }
  snprintf(directory, sizeof directory, "%.*s", (int)size, path);
  snprintf(slice->path, sizeof slice->path, "%s", path);
  slice->dir_fd = vemo_spool_open(directory);
  if (slice->dir_fd < 0) return slice->dir_fd;
  slice->fd = openat(slice->dir_fd, name, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (slice->fd >= 0) return 0;
  /* Somebody else's upload looks like one that is not there. */
  if (errno == ENOENT || errno == EACCES) {
    return refused(errno, VEMOERR_NOT_FOUND, VEMO_UPLOAD_ORDER);
  }
  return refused(errno, VEMOERR_PATH_REFUSED, VEMO_UPLOAD_OTHER);
}

/* Whether the file is what a slice may be appended to. */
static int check_growing(struct vemo_slice *slice, const struct stat *status) {
  if (!S_ISREG(status->st_mode) || status->st_nlink > 1) {
    return refused(EACCES, VEMOERR_PATH_REFUSED, VEMO_UPLOAD_OTHER);
  }
  /* Another request has stored or removed it meanwhile. */
  if (status->st_uid != slice->uid || status->st_nlink == 0) {
    return refused(ENOENT, VEMOERR_NOT_FOUND, VEMO_UPLOAD_ORDER);
  }
  return 0;
}

static int go_on(struct vemo_slice *slice, const char *name) {
  unsigned long long total;
  struct stat status;

  if (fstat(slice->fd, &status) != 0) return VEMO_UPLOAD_FAIL_ERRNO();
  int result = check_growing(slice, &status);
  if (result < 0) return result;
  const int locked = lock(slice->fd);
  if (fstat(slice->fd, &status) != 0) return VEMO_UPLOAD_FAIL_ERRNO();
  if ((result = check_growing(slice, &status)) < 0) return result;
  if (parse_name(name, &total) != 0 || total == 0) {
    return refused(EACCES, VEMOERR_PATH_REFUSED, VEMO_UPLOAD_OTHER);
  }
  /* A file that is whole, but was not stored, asks for its last byte again: so the request
   * that ends an upload can always be repeated. */
  const unsigned long long there = (unsigned long long)status.st_size;
  slice->known = 1;
  slice->expected = there < total ? there : total - 1;
  if (locked != 0) return refused(EBUSY, VEMOERR_BUSY, VEMO_UPLOAD_ORDER);
  if (slice->total != total || slice->first != slice->expected) {
    return refused(EINVAL, VEMOERR_BAD_PARAM, VEMO_UPLOAD_ORDER);
  }
  if (ftruncate(slice->fd, (off_t)slice->first) != 0) return VEMO_UPLOAD_FAIL_ERRNO();
  if (lseek(slice->fd, (off_t)slice->first, SEEK_SET) < 0) return VEMO_UPLOAD_FAIL_ERRNO();
  slice->ready = 1;
  return 0;
}

int vemo_slice_open(VEMOCGI *ctx, struct vemo_upload *upload, const char *path) {
  struct vemo_slice *slice = &upload->slice;
  const char *name;

  const int owned = find_owner(ctx, slice);
  if (owned < 0) return owned;
  if (vemo_spool_is_of_volume(path, NULL)) return open_first(slice, path);
  if (!vemo_spool_is_of_volume(path, &name)) {
    return refused(EACCES, VEMOERR_PATH_REFUSED, VEMO_UPLOAD_OTHER);
  }
  const int result = open_growing(slice, path, name);
  return result < 0 ? result : go_on(slice, name);
}

/* --- Receiving --- */

int vemo_slice_content(struct vemo_upload *upload, const char *bytes, size_t size) {
  struct vemo_slice *slice = &upload->slice;

  if (size > slice->last + 1 - slice->expected) {
    return refused(EBADMSG, VEMOERR_FORMAT, VEMO_UPLOAD_BROKEN);
  }
  const int result = vemo_upload_write(slice->fd, bytes, size);
  if (result == 0) slice->expected += size;
  return result;
}

static int link_as_root(struct vemo_slice *slice, const char *name) {
  char link[32];

  snprintf(link, sizeof link, "/proc/self/fd/%d", slice->fd);
  if (mkdir("/run/vemo", 0755) != 0 && errno != EEXIST) return VEMO_UPLOAD_FAIL_ERRNO();
  const int held = open(lock_file, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (held < 0 || flock(held, LOCK_EX) != 0) {
    const int failed = VEMO_UPLOAD_FAIL_ERRNO();
    if (held >= 0) close(held);
    return failed;
  }
  /* Under the lock: of two first slices at once, each sees the other. */
  int result = check_room(slice, slice->path, slice->total - slice->expected);
  if (result == 0 && linkat(AT_FDCWD, link, slice->dir_fd, name, AT_SYMLINK_FOLLOW) != 0) {
    result = VEMO_UPLOAD_FAIL_ERRNO();
  }
  close(held);
  return result;
}

/* Gives the file its name, once the first slice is whole: of a first slice that breaks, the
 * client has no id, so nothing may be left. */
static int give_name(struct vemo_slice *slice) {
  char name[64];
  uid_t before;

  const size_t used = strlen(slice->path);
  if (make_name(slice->total, name, sizeof name) != 0) return VEMO_UPLOAD_OTHER;
  if (used + 1 + strlen(name) >= sizeof slice->path) return VEMO_UPLOAD_OTHER;
  if (vemo_root_begin(&before) != 0) return VEMO_UPLOAD_OTHER;
  const int result = link_as_root(slice, name);
  vemo_root_end(before);
  if (result < 0) return result;
  slice->path[used] = '/';
  memcpy(slice->path + used + 1, name, strlen(name) + 1);
  slice->fresh = 0;
  slice->known = 1;
  return 0;
}

/* What a client that went away has sent is kept; what a body that makes no sense held is not. */
static void settle(struct vemo_slice *slice, int result) {
  const int error = errno;
  struct stat status;

  if (result == VEMO_UPLOAD_BROKEN && ftruncate(slice->fd, (off_t)slice->first) != 0) {
    slice->known = 0;
  }
  if (fstat(slice->fd, &status) == 0) {
    const unsigned long long there = (unsigned long long)status.st_size;
    slice->expected = there < slice->total ? there : slice->total - 1;
  }
  errno = error;
}

int vemo_slice_close(struct vemo_upload *upload, int result) {
  struct vemo_slice *slice = &upload->slice;

  if (slice->fd < 0 || (!slice->fresh && !slice->ready)) return result;
  if (result == 0 && slice->expected != slice->last + 1) {
    result = refused(EBADMSG, VEMOERR_FORMAT, VEMO_UPLOAD_BROKEN);
  }
  if (slice->fresh && result == 0) result = give_name(slice);
  if (slice->fresh) return result;
  if (result < 0) {
    settle(slice, result);
  } else {
    snprintf(opened_path, sizeof opened_path, "%s", slice->path);
  }
  return result;
}
