/*
 * upload.h - the upload of a request: what has been received, and where it is kept until the
 * program stores it.
 */
#ifndef VEMO_HOST_CGI_UPLOAD_H
#define VEMO_HOST_CGI_UPLOAD_H

#include <limits.h>
#include <time.h>

#include "cgi/multipart.h"
#include "cgi/state.h"

/* Results, in the number space of VemoCgiLoadUploadData. */
enum {
  VEMO_UPLOAD_FULL = -2,
  VEMO_UPLOAD_OTHER = -9,
  VEMO_UPLOAD_UNUSABLE = -12,
  VEMO_UPLOAD_NO_VOLUME = -13,
  VEMO_UPLOAD_BROKEN = VEMO_MULTIPART_BROKEN,
  VEMO_UPLOAD_GONE = -21,
  VEMO_UPLOAD_ORDER = -22
};

enum {
  VEMO_UPLOAD_FILE_LIMIT = 256,              /* files of a body: each holds a descriptor */
  VEMO_UPLOAD_PARAM_BYTES = 8 * 1024 * 1024, /* of all parameters beside the files */
  VEMO_UPLOAD_BUFFER = 256 * 1024
};

struct vemo_upload_file {
  char *part_name, *name;
  int fd;
  unsigned long long size;
};

/* A slice: the bytes `first` to `last` of a file of `total` bytes, in RFC 9110's terms. */
struct vemo_slice {
  int asked, valid; /* the request says Content-Range; what it says makes sense */
  unsigned long long first, last, total;
  unsigned long long expected; /* the place of the next byte */
  int known;                   /* there is such an upload: `expected` counts */
  int fresh;                   /* the first one: the file has no name yet */
  int ready;                   /* the growing file is locked and checked */
  int fd, dir_fd;
  uid_t uid;
  gid_t gid;
  char path[PATH_MAX]; /* of the growing file */
};

/* Holds a transfer to a number of bytes a second. */
struct vemo_pace {
  unsigned long long rate; /* 0: as fast as it goes */
  struct timespec start;
};

struct vemo_upload {
  int result;              /* of receiving the body */
  unsigned long long left; /* bytes of the body that were not read */
  int dir_fd;              /* the spool directory; -1 for a slice that goes on */
  struct timespec start;

  VEMOSZHASH *params;
  int param_count;
  size_t param_bytes;
  char *value; /* of the parameter that is being read */
  size_t value_used, value_room;

  struct vemo_upload_file files[VEMO_UPLOAD_FILE_LIMIT];
  int file_count, next_file;
  int in_file; /* the current part is a file */

  struct vemo_slice slice;
  struct vemo_multipart reader;
  char boundary[VEMO_BOUNDARY_LIMIT + 1];
  char buffer[VEMO_UPLOAD_BUFFER];
};

void vemo_upload_free(struct vemo_upload *upload); /* NULL allowed */

/* Records the failure that errno stands for. The result that callers get for it. */
int vemo_upload_fail_errno(const char *file, int line);
#define VEMO_UPLOAD_FAIL_ERRNO() vemo_upload_fail_errno(__FILE__, __LINE__)

/* Writes everything. 0; a negative result. */
int vemo_upload_write(int fd, const char *bytes, size_t size);

/* --- Spool directories (spool.c) --- */

/* Opens a spool directory, which is made for everybody, each with own files, when it is
 * missing. Its descriptor; a negative result. */
int vemo_spool_open(const char *path);

/* Whether the path is a volume's spool directory, or, with `name`, of a file directly in
 * it; `*name` is the file's. */
int vemo_spool_is_of_volume(const char *path, const char **name);

/* Opens a new file without a name in the directory, for its effective owner alone. The
 * descriptor; -1 and errno. */
int vemo_spool_file(int dir_fd);

/* Calls `found` for each slice file of a volume's spool directory. */
void vemo_spool_each(void (*found)(const char *volume, const char *name, const struct stat *status,
                                   void *data),
                     void *data);

/* --- Slices (slices.c) --- */

/* Reads Content-Range: "bytes FIRST-LAST/TOTAL". */
void vemo_slice_parse(struct vemo_slice *slice);

/* Opens the file that the slice goes to: a new one in the spool directory `path`, or the
 * growing file `path`. 0; a negative result. */
int vemo_slice_open(VEMOCGI *ctx, struct vemo_upload *upload, const char *path);

/* Takes content of the slice. */
int vemo_slice_content(struct vemo_upload *upload, const char *bytes, size_t size);

/* Ends the slice with the result of receiving it. That result, or one of its own. */
int vemo_slice_close(struct vemo_upload *upload, int result);

/* The place of the byte that is asked next; -1: there is no such upload. */
long long vemo_slice_expected(const struct vemo_slice *slice);

/* --- Bandwidth (pace.c) --- */

/* Reads the row `name` of /etc/vemo/bandwidth.conf (NULL: no limit), counted from `start`. */
void vemo_pace_begin(struct vemo_pace *pace, const char *name, const struct timespec *start);

/* Waits until that many bytes are allowed to have passed. */
void vemo_pace_wait(const struct vemo_pace *pace, unsigned long long bytes);

#endif
