/* Uploads: the body is received into the spool directory. */
#include "cgi/upload.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

enum { DRAIN_LIMIT = 8 * 1024 * 1024, DRAIN_MS = 2000, LENGTH_DIGITS = 18 };

int VemoCgiIsUploadRequest(VEMOCGI *ctx) {
  const char *method = vemo_cgi_env("REQUEST_METHOD");
  char boundary[VEMO_BOUNDARY_LIMIT + 1];

  (void)ctx;
  if (strcmp(method, "POST") != 0 && strcmp(method, "PUT") != 0) return 0;
  return vemo_multipart_boundary(vemo_cgi_env("CONTENT_TYPE"), boundary) > 0;
}

int vemo_upload_fail_errno(const char *file, int line) {
  switch (errno) {
    case ENOSPC:
    case EDQUOT:
      vemo_fail_as(errno, VEMOERR_VOLUME_FULL, file, line);
      return VEMO_UPLOAD_FULL;
    case EROFS:
    case EIO:
      vemo_fail_as(errno, VEMOERR_VOLUME_UNUSABLE, file, line);
      return VEMO_UPLOAD_UNUSABLE;
    default:
      vemo_fail_errno(file, line);
      return VEMO_UPLOAD_OTHER;
  }
}

int vemo_upload_write(int fd, const char *bytes, size_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, bytes, size);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return VEMO_UPLOAD_FAIL_ERRNO();
    bytes += written;
    size -= (size_t)written;
  }
  return 0;
}

static int broken(int code) {
  VEMO_FAIL_AS(EBADMSG, code);
  return VEMO_UPLOAD_BROKEN;
}

static int no_memory(void) {
  VEMO_FAIL_AS(ENOMEM, VEMOERR_NO_MEMORY);
  return VEMO_UPLOAD_OTHER;
}

/* --- The parts, as they come --- */

static int begin_file(struct vemo_upload *upload, const struct vemo_part *part) {
  struct vemo_upload_file *file = &upload->files[upload->file_count];

  /* A slice is of one file. */
  const int limit = upload->slice.asked ? 1 : VEMO_UPLOAD_FILE_LIMIT;
  if (upload->file_count == limit) return broken(VEMOERR_TOO_LONG);
  file->fd = -1;
  file->size = 0;
  file->part_name = strdup(part->name);
  file->name = strdup(part->file_name);
  upload->file_count++;
  upload->in_file = 1;
  if (file->part_name == NULL || file->name == NULL) return no_memory();
  if (upload->slice.asked) return 0;
  file->fd = vemo_spool_file(upload->dir_fd);
  return file->fd < 0 ? VEMO_UPLOAD_FAIL_ERRNO() : 0;
}

/* A file field in which no file was chosen comes without name and content. */
static int is_chosen(const struct vemo_part *part) {
  return part->is_file && *part->file_name != '\0';
}

static int begin_part(void *data, const struct vemo_part *part) {
  struct vemo_upload *upload = data;

  upload->in_file = 0;
  upload->value_used = 0;
  return is_chosen(part) ? begin_file(upload, part) : 0;
}

static int take_value(struct vemo_upload *upload, const char *bytes, size_t size) {
  if (upload->reader.part.is_file) return broken(VEMOERR_FORMAT); /* a file without a name */
  if (size > VEMO_UPLOAD_PARAM_BYTES - upload->param_bytes) return broken(VEMOERR_TOO_LONG);
  if (upload->value_room - upload->value_used < size + 1) {
    const size_t room = (upload->value_used + size + 1) * 2;
    char *grown = realloc(upload->value, room);
    if (grown == NULL) return no_memory();
    upload->value = grown;
    upload->value_room = room;
  }
  memcpy(upload->value + upload->value_used, bytes, size);
  upload->value_used += size;
  upload->param_bytes += size;
  return 0;
}

static int take_content(void *data, const char *bytes, size_t size) {
  struct vemo_upload *upload = data;

  if (!upload->in_file) return take_value(upload, bytes, size);
  if (upload->slice.asked) return vemo_slice_content(upload, bytes, size);
  struct vemo_upload_file *file = &upload->files[upload->file_count - 1];
  file->size += size;
  return vemo_upload_write(file->fd, bytes, size);
}

static int end_part(void *data) {
  struct vemo_upload *upload = data;
  const struct vemo_part *part = &upload->reader.part;

  if (upload->in_file || part->is_file) return 0;
  /* Programs read texts: a NUL byte would cut this one, and change its meaning. */
  if (upload->value_used > 0 && memchr(upload->value, '\0', upload->value_used) != NULL) return 0;
  if (vemo_hash_set(upload->params, part->name, strlen(part->name),
                    upload->value_used > 0 ? upload->value : "", upload->value_used, 1) != 0) {
    return no_memory();
  }
  upload->param_count++;
  return 0;
}

static const struct vemo_multipart_events events = {begin_part, take_content, end_part};

/* --- The body --- */

/* The length of the body; 0 when there is none, or it is no number. */
static unsigned long long body_length(void) {
  const char *text = vemo_cgi_env("CONTENT_LENGTH");
  const size_t digits = strspn(text, "0123456789");

  return text[digits] != '\0' || digits > LENGTH_DIGITS ? 0 : strtoull(text, NULL, 10);
}

/* The next piece of the body. Its size; a negative result. */
static ssize_t read_piece(struct vemo_upload *upload) {
  const size_t size =
      upload->left < sizeof upload->buffer ? (size_t)upload->left : sizeof upload->buffer;

  for (;;) {
    const ssize_t got = read(STDIN_FILENO, upload->buffer, size);
    if (got > 0) upload->left -= (size_t)got;
    if (got > 0) return got;
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 && errno != ECONNRESET && errno != EPIPE) {
      VEMO_FAIL_ERRNO();
      return VEMO_UPLOAD_OTHER;
    }
    VEMO_FAIL_AS(ECONNRESET, VEMOERR_IO);
    return VEMO_UPLOAD_GONE;
  }
}

static int receive_body(struct vemo_upload *upload, unsigned long long length) {
  struct vemo_pace pace;

  /* Pipes hold little; with a larger one the server and this process wait less. */
  fcntl(STDIN_FILENO, F_SETPIPE_SZ, 1024 * 1024);
  vemo_pace_begin(&pace, "default", &upload->start);
  while (upload->left > 0) {
    const ssize_t got = read_piece(upload);
    if (got < 0) return (int)got;
    const int result = vemo_multipart_feed(&upload->reader, upload->buffer, (size_t)got);
    if (result == VEMO_MULTIPART_BROKEN) return broken(VEMOERR_FORMAT);
    if (result < 0) return result;
    vemo_pace_wait(&pace, length - upload->left);
  }
  if (!vemo_multipart_is_closed(&upload->reader)) return broken(VEMOERR_FORMAT);
  return upload->slice.asked && upload->file_count != 1 ? broken(VEMOERR_FORMAT) : 0;
}

/* Reads a bounded rest of a body that is refused: the server can then keep the connection,
 * and the client gets to read why. Beyond that the server closes it. */
static void drain(struct vemo_upload *upload) {
  const int error = errno;
  size_t drained = 0;

  while (upload->left > 0 && drained < DRAIN_LIMIT) {
    struct pollfd input = {.fd = STDIN_FILENO, .events = POLLIN};
    if (poll(&input, 1, DRAIN_MS) != 1) break;
    const ssize_t got = read(STDIN_FILENO, upload->buffer, sizeof upload->buffer);
    if (got <= 0) break;
    drained += (size_t)got;
    upload->left -= (size_t)got < upload->left ? (size_t)got : upload->left;
  }
  errno = error;
}

/* A body that cannot fit is refused before it is sent. */
static int open_spool(struct vemo_upload *upload, const char *path, unsigned long long length) {
  struct statvfs room;

  upload->dir_fd = vemo_spool_open(path);
  if (upload->dir_fd < 0) return upload->dir_fd;
  if (fstatvfs(upload->dir_fd, &room) != 0) return VEMO_UPLOAD_FAIL_ERRNO();
  if ((room.f_flag & ST_RDONLY) != 0) {
    errno = EROFS;
    return VEMO_UPLOAD_FAIL_ERRNO();
  }
  if ((unsigned long long)room.f_bavail * room.f_frsize >= length) return 0;
  errno = ENOSPC;
  return VEMO_UPLOAD_FAIL_ERRNO();
}

static int receive(VEMOCGI *ctx, struct vemo_upload *upload, const char *path) {
  const unsigned long long length = body_length();

  upload->left = length;
  if (VemoCgiIsUploadRequest(ctx) != 1 || length == 0) return broken(VEMOERR_FORMAT);
  vemo_multipart_boundary(vemo_cgi_env("CONTENT_TYPE"), upload->boundary);
  vemo_multipart_start(&upload->reader, upload->boundary, &events, upload);
  vemo_slice_parse(&upload->slice);
  /* A part of a file must never be taken for the whole. */
  if (upload->slice.asked && !upload->slice.valid) return broken(VEMOERR_FORMAT);
  int result =
      upload->slice.asked ? vemo_slice_open(ctx, upload, path) : open_spool(upload, path, length);
  if (result >= 0) result = receive_body(upload, length);
  return upload->slice.asked ? vemo_slice_close(upload, result) : result;
}

static struct vemo_upload *new_upload(void) {
  struct vemo_upload *upload = malloc(sizeof *upload);

  if (upload == NULL) return NULL;
  /* The buffers are left alone: memory that is not touched is not used. */
  memset(upload, 0, offsetof(struct vemo_upload, reader));
  upload->dir_fd = upload->slice.fd = upload->slice.dir_fd = -1;
  upload->params = VLIBCSzHashAlloc(16);
  if (upload->params != NULL) return upload;
  free(upload);
  return NULL;
}

static void forget_files(struct vemo_upload *upload) {
  for (int i = 0; i < upload->file_count; i++) {
    if (upload->files[i].fd >= 0) close(upload->files[i].fd);
    free(upload->files[i].part_name);
    free(upload->files[i].name);
  }
  upload->file_count = upload->next_file = 0;
}

void vemo_upload_free(struct vemo_upload *upload) {
  if (upload == NULL) return;
  const int error = errno;
  forget_files(upload);
  if (upload->dir_fd >= 0) close(upload->dir_fd);
  if (upload->slice.fd >= 0) close(upload->slice.fd);
  if (upload->slice.dir_fd >= 0) close(upload->slice.dir_fd);
  VLIBCSzHashFree(upload->params);
  free(upload->value);
  free(upload);
  errno = error;
}

int VemoCgiLoadUploadData(VEMOCGI *ctx, const char *path, int reserved) {
  (void)reserved;
  if (!vemo_cgi_is_ready(ctx) || path == NULL || *path == '\0' || ctx->state->upload != NULL) {
    VEMO_FAIL_PARAM();
    return VEMO_UPLOAD_OTHER;
  }
  struct vemo_upload *upload = new_upload();
  if (upload == NULL) return no_memory();
  ctx->state->upload = upload;
  clock_gettime(CLOCK_MONOTONIC, &upload->start);
  /* A full quota of file sizes is an error of write(2), not the end of the process. */
  signal(SIGXFSZ, SIG_IGN);
  upload->result = receive(ctx, upload, path);
  if (upload->result < 0) {
    const int error = errno;
    forget_files(upload);
    errno = error;
    drain(upload);
  }
  return upload->result;
}

/* --- Parameters --- */

static int copy_param(const char *name, const char *value, void *data) {
  VEMOCGI *ctx = data;

  return VemoCgiGetCGIParam(ctx, name, NULL) == NULL && !VemoCgiSetCGIParam(ctx, name, value);
}

int VemoCgiLoadUploadParams(VEMOCGI *ctx, VEMOUPLOADCALLBACK callback,
                            VEMOUPLOADPROGRESS *progress) {
  if (!vemo_cgi_is_ready(ctx) || ctx->state->upload == NULL) {
    VEMO_FAIL_PARAM();
    return VEMO_UPLOAD_OTHER;
  }
  struct vemo_upload *upload = ctx->state->upload;
  if (upload->result < 0) return upload->result;
  if (vemo_hash_each(upload->params, copy_param, ctx) != 0) return no_memory();
  /* The first file of a field stands first; the others follow as they are stored. */
  for (int i = 0; i < upload->file_count; i++) {
    if (copy_param(upload->files[i].part_name, upload->files[i].name, ctx)) return no_memory();
  }
  const unsigned long long size = upload->param_bytes;
  if (progress != NULL) {
    progress->done = progress->total = size;
    progress->state = VEMOUPLOAD_DONE;
  }
  if (callback != NULL) callback(size, size);
  return upload->param_count;
}

/* --- The client --- */

static int has_events(int fd, short mask) {
  struct pollfd watched = {.fd = fd, .events = POLLRDHUP};

  return poll(&watched, 1, 0) == 1 && (watched.revents & mask) != 0;
}

int VemoCgiRecvHup(VEMOCGI *ctx) {
  struct stat status;

  if (!vemo_cgi_is_ready(ctx)) return 0;
  const struct vemo_upload *upload = ctx->state->upload;
  if (upload != NULL && upload->result == VEMO_UPLOAD_GONE) return 1;
  /* Nobody is left to read the answer. */
  if (has_events(STDOUT_FILENO, POLLERR)) return 1;
  /* The server ends the body's pipe with its last byte: that says nothing of the client. */
  if (fstat(STDIN_FILENO, &status) != 0) return 0;
  if (!S_ISSOCK(status.st_mode) && upload != NULL && upload->left == 0) return 0;
  return has_events(STDIN_FILENO, POLLHUP | POLLRDHUP | POLLERR);
}
