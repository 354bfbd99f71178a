/*
 * mail.h - the message of a mail, apart from its sending. Not installed.
 */
#ifndef VEMO_HOST_SERVICES_MAIL_H
#define VEMO_HOST_SERVICES_MAIL_H

#include <stddef.h>

#include <vemo/core.h>

/* A text that grows. It is wiped when it moves and when it is released, for messages carry
 * passwords. */
struct vemo_text {
  char *bytes;
  size_t size, capacity;
  int failed; /* without memory: everything that was added since is lost */
};

void vemo_text_add(struct vemo_text *text, const void *bytes, size_t size);
void vemo_text_puts(struct vemo_text *text, const char *line);
void vemo_text_free(struct vemo_text *text);

struct vemo_mail {
  const char *from, *to;
  const char *template_text; /* header lines, an empty line, the text */
  size_t template_size;
  const VEMOSZHASH *values; /* NULL allowed */
};

/* Adds the whole message, lines ended by LF, to `message`. 0; -1 without memory. */
int vemo_mail_compose(const struct vemo_mail *mail, struct vemo_text *message);

/* Whether a text is an address that may stand in a header and on a command line. */
int vemo_mail_is_address(const char *text);

#endif
