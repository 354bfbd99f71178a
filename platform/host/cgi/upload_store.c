/* Uploads: received files are moved to where programs want them. */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "cgi/upload.h"

enum { COPY_CHUNK = VEMO_UPLOAD_BUFFER };

/* A file on its way to `name` in the directory `dir_fd`. */
struct move {
  struct vemo_upload *upload;
  int dir_fd;
  char name[NAME_MAX + 1];
  int fd;                  /* what is moved */
  unsigned long long size; /* bytes */
  int exclusive;           /* a file that is there is not replaced */
  VEMOUPLOADCALLBACK callback;
  VEMOUPLOADPROGRESS *progress;
  struct vemo_pace pace;
};

static int recorded(int code) {
  VEMO_FAIL_AS(EINVAL, code);
  return VEMO_UPLOAD_OTHER;
}

static void report(const struct move *move, unsigned long long done, int state) {
  if (move->progress != NULL) {
    move->progress->done = done;
    move->progress->total = move->size;
    move->progress->state = state;
  }
  if (move->callback != NULL && state >= 0) move->callback(done, move->size);
}

/* --- What a new file of the directory would be like --- */

/* An access control list as the kernel hands it out: a version and entries. */
struct acl_entry {
  unsigned short tag, permissions;
  unsigned int id;
};

enum {
  ACL_HEADER = 4,
  ACL_USER_OBJ = 0x01,
  ACL_GROUP_OBJ = 0x04,
  ACL_MASK = 0x10,
  ACL_OTHER = 0x20
};

/* Gives the file the list that the directory has for new files, less the right to execute,
 * as open(2) with the mode 0666 would. 1; 0: the directory has none. */
static int inherit_list(int dir_fd, int fd) {
  char path[32];
  struct {
    char header[ACL_HEADER];
    struct acl_entry entries[512];
  } list;

  snprintf(path, sizeof path, "/proc/self/fd/%d", dir_fd);
  const ssize_t size = getxattr(path, "system.posix_acl_default", &list, sizeof list);
  if (size < ACL_HEADER) return 0;
  const size_t count = ((size_t)size - ACL_HEADER) / sizeof list.entries[0];
  int has_mask = 0;
  for (size_t i = 0; i < count; i++)
    has_mask |= list.entries[i].tag == ACL_MASK;
  for (size_t i = 0; i < count; i++) {
    const int tag = list.entries[i].tag;
    if (tag == ACL_USER_OBJ || tag == ACL_OTHER || tag == (has_mask ? ACL_MASK : ACL_GROUP_OBJ)) {
      list.entries[i].permissions &= 6;
    }
  }
  return fsetxattr(fd, "system.posix_acl_access", &list, (size_t)size, 0) == 0;
}

/* A received file is its receiver's alone. Where it goes it gets the owner, group and rights
 * of a file that the caller had made there. 0; a negative result. */
static int adopt(const struct move *move) {
  struct stat directory, file;
  uid_t before;

  if (fstat(move->dir_fd, &directory) != 0 || fstat(move->fd, &file) != 0) {
    return VEMO_UPLOAD_FAIL_ERRNO();
  }
  const uid_t uid = geteuid();
  const gid_t gid = (directory.st_mode & S_ISGID) != 0 ? directory.st_gid : getegid();
  const mode_t mask = umask(0);
  umask(mask);
  if (file.st_uid != uid || file.st_gid != gid) {
    int failed = vemo_root_begin(&before);
    if (failed == 0) {
      failed = fchown(move->fd, uid, gid);
      vemo_root_end(before);
    }
    /* A process that cannot be root any more keeps its own group. */
    if (failed && file.st_uid != uid) return VEMO_UPLOAD_FAIL_ERRNO();
  }
  if (inherit_list(move->dir_fd, move->fd)) return 0;
  return fchmod(move->fd, 0666 & ~mask) == 0 ? 0 : VEMO_UPLOAD_FAIL_ERRNO();
}

/* --- Names --- */

static int temporary_name(char *name, size_t size) {
  unsigned char bits[16];
  char salt[24];

  if (vemo_random(bits, sizeof bits) != 0) return -1;
  if (vemo_base64url(bits, sizeof bits, salt, sizeof salt) < 0) return -1;
  snprintf(name, size, ".#up.%s", salt);
  return 0;
}

static int rename_into_place(const struct move *move, int from_dir, const char *from) {
  return renameat2(from_dir, from, move->dir_fd, move->name,
                   move->exclusive ? RENAME_NOREPLACE : 0);
}

/* Links the open file; what is there already is replaced in one step. 0; -1 and errno. */
static int link_into_place(const struct move *move, int fd) {
  char link[32], name[48];

  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  if (linkat(AT_FDCWD, link, move->dir_fd, move->name, AT_SYMLINK_FOLLOW) == 0) return 0;
  if (errno != EEXIST || move->exclusive) return -1;
  if (VLIBCSigtermHold() != 0) return -1;
  int result = temporary_name(name, sizeof name);
  if (result == 0) result = linkat(AT_FDCWD, link, move->dir_fd, name, AT_SYMLINK_FOLLOW);
  if (result == 0 && (result = rename_into_place(move, move->dir_fd, name)) != 0) {
    const int error = errno;
    unlinkat(move->dir_fd, name, 0);
    errno = error;
  }
  const int error = errno;
  VLIBCSigtermRelease();
  errno = error;
  return result;
}

/* --- Copies, where a file cannot be moved --- */

static int copy_content(const struct move *move, int to) {
  char *buffer = move->upload->buffer;

  for (unsigned long long done = 0; done < move->size;) {
    const ssize_t got = pread(move->fd, buffer, COPY_CHUNK, (off_t)done);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return VEMO_UPLOAD_FAIL_ERRNO();
    if (got == 0) return recorded(VEMOERR_IO);
    const int result = vemo_upload_write(to, buffer, (size_t)got);
    if (result < 0) return result;
    done += (size_t)got;
    vemo_pace_wait(&move->pace, done);
    if (done < move->size) report(move, done, VEMOUPLOAD_RUNNING);
  }
  return 0;
}

/* Copies to a file with a name of its own, for file systems without files that have none. */
static int copy_named(struct move *move) {
  char name[48];

  if (temporary_name(name, sizeof name) != 0) return VEMO_UPLOAD_OTHER;
  const int to =
      openat(move->dir_fd, name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
  if (to < 0) return VEMO_UPLOAD_FAIL_ERRNO();
  int result = copy_content(move, to);
  if (result == 0 && rename_into_place(move, move->dir_fd, name) != 0) {
    result = VEMO_UPLOAD_FAIL_ERRNO();
  }
  const int error = errno;
  close(to);
  if (result < 0) unlinkat(move->dir_fd, name, 0);
  errno = error;
  return result;
}

static int copy_into_place(struct move *move) {
  const int to = openat(move->dir_fd, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0666);

  if (to < 0 && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL))
    return copy_named(move);
  if (to < 0) return VEMO_UPLOAD_FAIL_ERRNO();
  int result = copy_content(move, to);
  if (result == 0 && link_into_place(move, to) != 0) result = VEMO_UPLOAD_FAIL_ERRNO();
  const int error = errno;
  close(to);
  errno = error;
  return result;
}

/* --- Moves --- */

/* Whether the growing file's name is still that file's. */
static int is_still_ours(const struct vemo_slice *slice, const char *name) {
  struct stat named, opened;

  return fstatat(slice->dir_fd, name, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
         fstat(slice->fd, &opened) == 0 && named.st_dev == opened.st_dev &&
         named.st_ino == opened.st_ino;
}

/* The growing file of a move that failed waits as before. */
static void disown(const struct move *move) {
  const int error = errno;

  fremovexattr(move->fd, "system.posix_acl_access");
  if (fchmod(move->fd, 0600) != 0) VEMO_FAIL_ERRNO();
  errno = error;
}

static int rename_slice(struct move *move, const char *name) {
  const struct vemo_slice *slice = &move->upload->slice;

  /* An administrator's file is the administrator's until it has moved: under another owner it
   * could not be found again by a process that takes over from one that was killed. */
  const int late = slice->uid != geteuid();
  int result = late ? 0 : adopt(move);
  if (result == 0 && rename_into_place(move, slice->dir_fd, name) != 0) {
    return errno == EXDEV ? 1 : VEMO_UPLOAD_FAIL_ERRNO();
  }
  return result == 0 && late ? adopt(move) : result;
}

static int move_slice(struct move *move) {
  const struct vemo_slice *slice = &move->upload->slice;
  const char *name = strrchr(slice->path, '/') + 1;

  if (!is_still_ours(slice, name)) {
    VEMO_FAIL_AS(ENOENT, VEMOERR_NOT_FOUND);
    return VEMO_UPLOAD_OTHER;
  }
  int result = rename_slice(move, name);
  if (result == 1 && (result = copy_into_place(move)) == 0) unlinkat(slice->dir_fd, name, 0);
  if (result < 0) disown(move);
  return result;
}

static int move_whole(struct move *move) {
  const int result = adopt(move);

  if (result < 0) return result;
  if (link_into_place(move, move->fd) == 0) return 0;
  /* Another file system, or one where the spool's file cannot get a name. */
  if (errno == EXDEV || errno == ENOENT || errno == EPERM || errno == EOPNOTSUPP) {
    return copy_into_place(move);
  }
  return VEMO_UPLOAD_FAIL_ERRNO();
}

/* Opens the directory of `dest`, and takes its last component. 0; a negative result. */
static int open_destination(struct move *move, const char *dest) {
  const char *slash = strrchr(dest, '/');
  const char *name = slash == NULL ? dest : slash + 1;
  char directory[PATH_MAX];

  if (*name == '\0' || strcmp(name, ".") == 0 || strcmp(name, "..") == 0) {
    return recorded(VEMOERR_BAD_PARAM);
  }
  if (strlen(name) > NAME_MAX || strlen(dest) >= sizeof directory) {
    errno = ENAMETOOLONG;
    return VEMO_UPLOAD_FAIL_ERRNO();
  }
  strcpy(move->name, name);
  const int size = slash == NULL ? 1 : slash == dest ? 1 : (int)(slash - dest);
  snprintf(directory, sizeof directory, "%.*s", size, slash == NULL ? "." : dest);
  move->dir_fd = open(directory, O_PATH | O_DIRECTORY | O_CLOEXEC);
  return move->dir_fd < 0 ? VEMO_UPLOAD_FAIL_ERRNO() : 0;
}

static int replace(struct move *move, const char *dest) {
  int result = open_destination(move, dest);

  if (result < 0) return result;
  result = move->upload->slice.asked ? move_slice(move) : move_whole(move);
  const int error = errno;
  close(move->dir_fd);
  errno = error;
  return result;
}

/* Writes over the file that is there, and leaves what stands behind. */
static int overwrite(struct move *move, const char *dest, VEMOUPLOADKEEP keep) {
  struct stat status;

  const int to =
      open(dest, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666);
  if (to < 0) return VEMO_UPLOAD_FAIL_ERRNO();
  int result = fstat(to, &status) == 0 && S_ISREG(status.st_mode) ? copy_content(move, to)
                                                                  : recorded(VEMOERR_PATH_REFUSED);
  const long long kept = result == 0 && keep != NULL ? keep() : -1;
  if (kept >= 0 && ftruncate(to, (off_t)kept) != 0) result = VEMO_UPLOAD_FAIL_ERRNO();
  const int error = errno;
  if (close(to) != 0 && result == 0) {
    result = VEMO_UPLOAD_FAIL_ERRNO();
  } else {
    errno = error;
  }
  const struct vemo_slice *slice = &move->upload->slice;
  if (result == 0 && slice->asked) unlinkat(slice->dir_fd, strrchr(slice->path, '/') + 1, 0);
  return result;
}

/* --- The files, one after the other --- */

static struct vemo_upload *received(VEMOCGI *ctx, const char *dest) {
  if (vemo_cgi_is_ready(ctx) && ctx->state->upload != NULL && dest != NULL && *dest != '\0') {
    return ctx->state->upload;
  }
  VEMO_FAIL_PARAM();
  return NULL;
}

/* A slice that is not the last one has no file to store yet. */
static int has_next(const struct vemo_upload *upload) {
  if (upload->next_file == upload->file_count) return 0;
  return !upload->slice.asked || upload->slice.last + 1 == upload->slice.total;
}

/* The parameter of a field with several files names the one that comes next. */
static void name_next(VEMOCGI *ctx, struct vemo_upload *upload,
                      const struct vemo_upload_file *stored) {
  const char *shown = VemoCgiGetCGIParam(ctx, stored->part_name, "");

  if (strcmp(shown, stored->name) != 0) return;
  for (int i = upload->next_file; i < upload->file_count; i++) {
    if (strcmp(upload->files[i].part_name, stored->part_name) != 0) continue;
    VemoCgiSetCGIParam(ctx, stored->part_name, upload->files[i].name);
    return;
  }
}

static void finish(VEMOCGI *ctx, struct vemo_upload *upload) {
  struct vemo_upload_file *file = &upload->files[upload->next_file++];

  if (file->fd >= 0) close(file->fd);
  file->fd = -1;
  if (upload->slice.asked) upload->slice.known = 0;
  name_next(ctx, upload, file);
}

static struct move move_of(struct vemo_upload *upload, VEMOUPLOADCALLBACK callback,
                           VEMOUPLOADPROGRESS *progress, const char *limit) {
  const struct vemo_upload_file *file = &upload->files[upload->next_file];
  const int sliced = upload->slice.asked;
  struct move move = {.upload = upload, .dir_fd = -1, .callback = callback, .progress = progress};

  move.fd = sliced ? upload->slice.fd : file->fd;
  move.size = sliced ? upload->slice.total : file->size;
  move.exclusive = progress != NULL && progress->state == VEMOUPLOAD_NEW;
  vemo_pace_begin(&move.pace, limit, &upload->start);
  return move;
}

static int load_file(VEMOCGI *ctx, const char *dest, VEMOUPLOADCALLBACK callback,
                     VEMOUPLOADPROGRESS *progress, const char *limit, int in_place,
                     VEMOUPLOADKEEP keep) {
  struct vemo_upload *upload = received(ctx, dest);

  if (upload == NULL) return VEMO_UPLOAD_OTHER;
  if (upload->result < 0) return upload->result;
  if (!has_next(upload)) return 0;
  struct move move = move_of(upload, callback, progress, limit);
  const int result = in_place ? overwrite(&move, dest, keep) : replace(&move, dest);
  if (result < 0) {
    if (progress != NULL) progress->state = VEMOUPLOAD_FAILED;
    return result;
  }
  /* Moving takes no time: the limit holds for what was received, too. */
  vemo_pace_wait(&move.pace,
                 upload->slice.asked ? upload->slice.last + 1 - upload->slice.first : move.size);
  report(&move, move.size, VEMOUPLOAD_DONE);
  finish(ctx, upload);
  return 1;
}

int VemoCgiLoadUploadFile(VEMOCGI *ctx, const char *dest, VEMOUPLOADCALLBACK callback,
                          VEMOUPLOADPROGRESS *progress) {
  return load_file(ctx, dest, callback, progress, NULL, 0, NULL);
}

int VemoCgiLoadUploadFileBW(VEMOCGI *ctx, const char *dest, VEMOUPLOADCALLBACK callback,
                            VEMOUPLOADPROGRESS *progress, const char *limit) {
  return load_file(ctx, dest, callback, progress, limit, 0, NULL);
}

int VemoCgiLoadUploadFileNoTruncate(VEMOCGI *ctx, const char *dest, VEMOUPLOADCALLBACK callback,
                                    VEMOUPLOADPROGRESS *progress, VEMOUPLOADKEEP keep) {
  return load_file(ctx, dest, callback, progress, NULL, 1, keep);
}

long long VemoCgiGetUploadFileSize(VEMOCGI *ctx) {
  if (!vemo_cgi_is_ready(ctx) || ctx->state->upload == NULL) {
    VEMO_FAIL_PARAM();
    return -1;
  }
  const struct vemo_upload *upload = ctx->state->upload;
  if (upload->slice.asked) return vemo_slice_expected(&upload->slice);
  if (upload->result < 0 || upload->next_file == upload->file_count) return -1;
  return (long long)upload->files[upload->next_file].size;
}
