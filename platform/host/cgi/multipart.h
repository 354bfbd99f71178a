/*
 * multipart.h - a reader of multipart/form-data (RFC 7578, RFC 2046) that is fed with pieces
 * of any size and keeps nothing but the header of the current part.
 */
#ifndef VEMO_HOST_CGI_MULTIPART_H
#define VEMO_HOST_CGI_MULTIPART_H

#include <stddef.h>

#include <vemo/types.h>

VEMO_BEGIN

enum {
  VEMO_BOUNDARY_LIMIT = 70,           /* bytes, RFC 2046, section 5.1.1 */
  VEMO_PART_HEADER_LIMIT = 16 * 1024, /* bytes of all header lines of a part */
  VEMO_PART_NAME_LIMIT = 1024,        /* bytes of a field's name */
  VEMO_FILE_NAME_LIMIT = 255,         /* bytes of a file's name */
  VEMO_PART_LIMIT = 1000,             /* parts of a body */
  VEMO_MULTIPART_BROKEN = -20         /* what the reader itself refuses; as VemoCgiLoadUploadData */
};

/* What the header of a part says. */
struct vemo_part {
  char name[VEMO_PART_NAME_LIMIT + 1];
  char file_name[VEMO_FILE_NAME_LIMIT + 1]; /* without directories; "": no file was chosen */
  int is_file;
};

/* Called in this order for each part. A negative result ends the reading with it. */
struct vemo_multipart_events {
  int (*begin)(void *data, const struct vemo_part *part);
  int (*content)(void *data, const char *bytes, size_t size); /* size is never 0 */
  int (*end)(void *data);
};

struct vemo_multipart {
  const struct vemo_multipart_events *events;
  void *data;
  int state, tail, parts;
  size_t matched;  /* bytes of the delimiter that have been seen */
  size_t imagined; /* how many of these belong to what stands before, or to nothing */
  size_t delimiter_size, header_used;
  char delimiter[4 + VEMO_BOUNDARY_LIMIT];
  char header[VEMO_PART_HEADER_LIMIT];
  struct vemo_part part;
};

/* Copies the boundary that a content type names. Its length, 1 to 70; 0: it is not
 * multipart/form-data, or its boundary is missing or malformed. */
size_t vemo_multipart_boundary(const char *content_type, char boundary[VEMO_BOUNDARY_LIMIT + 1]);

/* Prepares the reader; `events` and `data` are borrowed. */
void vemo_multipart_start(struct vemo_multipart *reader, const char *boundary,
                          const struct vemo_multipart_events *events, void *data);

/* Takes the next piece. 0; VEMO_MULTIPART_BROKEN; what an event has returned. After a
 * negative result the reader must not be fed any more. */
int vemo_multipart_feed(struct vemo_multipart *reader, const char *bytes, size_t size);

/* Whether the closing delimiter has been read. What comes after it is ignored. */
int vemo_multipart_is_closed(const struct vemo_multipart *reader);

/* Reads the header lines of a part; `text` ends with an empty line and is changed. 0; -1:
 * malformed, no form-data, or a name that is refused. */
int vemo_part_parse(char *text, size_t size, struct vemo_part *part);

VEMO_END
#endif
