/* The answer's header lines. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <time.h>

#include "cgi/state.h"

struct vemo_cgi_header {
  struct vemo_cgi_header *next;
  const char *name;
  const char *value;
};

static int is_token(const char *text) {
  if (text == NULL || *text == '\0') return 0;
  for (; *text != '\0'; text++) {
    if (*text <= 0x20 || *text == 0x7f || strchr("()<>@,;:\\\"/[]?={}", *text) != NULL) return 0;
  }
  return 1;
}

/* Nothing that ends a line or that a server or browser may take for an end. */
static int has_control(const char *text) {
  for (; *text != '\0'; text++) {
    if (((unsigned char)*text < 0x20 && *text != '\t') || *text == 0x7f) return 1;
  }
  return 0;
}

static int refuse(void) {
  VEMO_FAIL(VEMOERR_BAD_PARAM);
  return 0;
}

int VemoCgiSetHTTPHeader(VEMOCGI *ctx, const char *name, const char *value) {
  if (!vemo_cgi_is_ready(ctx)) return 0;
  if (!is_token(name) || value == NULL || has_control(value)) return refuse();

  const char *copy = vemo_cgi_strdup(ctx, value);
  if (copy == NULL) return 0;
  struct vemo_cgi_header **link = &ctx->state->headers;
  const int accumulates = strcasecmp(name, "Set-Cookie") == 0;
  for (; *link != NULL; link = &(*link)->next) {
    if (accumulates || strcasecmp((*link)->name, name) != 0) continue;
    (*link)->value = copy;
    return 1;
  }
  struct vemo_cgi_header *header = vemo_cgi_alloc(ctx, sizeof *header);
  if (header == NULL || (header->name = vemo_cgi_strdup(ctx, name)) == NULL) return 0;
  header->value = copy;
  *link = header;
  return 1;
}

/* Prints the queue behind what is printed already. */
static int print_queue(VEMOCGI *ctx) {
  const struct vemo_cgi_header *header = ctx->state->headers;

  ctx->state->headers = NULL;
  ctx->state->answered = 1;
  for (; header != NULL; header = header->next) {
    printf("%s: %s\r\n", header->name, header->value);
  }
  fputs("\r\n", stdout);
  if (fflush(stdout) == 0 && !ferror(stdout)) return 1;
  VEMO_FAIL(VEMOERR_IO);
  return 0;
}

int VemoCgiPrintHTTPHeader(VEMOCGI *ctx) {
  if (!vemo_cgi_is_ready(ctx)) return 0;
  /* A second head would stand in the body. */
  if (ctx->state->answered) return refuse();
  return print_queue(ctx);
}

int VemoCgiRedirect(VEMOCGI *ctx, const char *url) {
  if (!vemo_cgi_is_ready(ctx)) return 0;
  if (url == NULL || *url == '\0' || ctx->state->answered) return refuse();
  /* The headers queued before go with it: a login's cookie would be lost else. */
  if (!VemoCgiSetHTTPHeader(ctx, "Location", url)) return 0;
  fputs("Status: 302 Found\r\n", stdout);
  return print_queue(ctx);
}

/* RFC 6265, section 4.1.1: cookie-octet. */
static int is_cookie_value(const char *text) {
  if (text == NULL) return 0;
  for (; *text != '\0'; text++) {
    if (*text <= 0x20 || *text >= 0x7f || strchr("\",;\\", *text) != NULL) return 0;
  }
  return 1;
}

static int is_cookie_path(const char *text) {
  if (*text != '/') return 0;
  for (; *text != '\0'; text++) {
    if (*text < 0x20 || *text >= 0x7f || *text == ';') return 0;
  }
  return 1;
}

static int is_cookie_domain(const char *text) {
  return text[strspn(text, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-")] ==
         '\0';
}

int VemoCgiSetCookies(VEMOCGI *ctx, const char *name, const char *value, time_t expires,
                      const char *path, const char *domain, int flags) {
  char *line = NULL;
  char date[64] = "";

  if (!vemo_cgi_is_ready(ctx)) return 0;
  if (path == NULL || *path == '\0') path = "/";
  if (domain == NULL) domain = "";
  if (!is_token(name) || !is_cookie_value(value) || !is_cookie_path(path) ||
      !is_cookie_domain(domain)) {
    return refuse();
  }
  if (expires != 0) {
    struct tm parts;
    if (gmtime_r(&expires, &parts) == NULL) return refuse();
    strftime(date, sizeof date, "; Expires=%a, %d %b %Y %H:%M:%S GMT", &parts);
  }
  const int size = asprintf(&line, "%s=%s; Path=%s%s%s%s%s; SameSite=Lax%s", name, value, path,
                            *domain == '\0' ? "" : "; Domain=", domain, date,
                            (flags & VEMOCGI_COOKIE_SCRIPT) != 0 ? "" : "; HttpOnly",
                            vemo_cgi_is_tls(ctx) ? "; Secure" : "");
  if (size < 0) {
    VEMO_FAIL(VEMOERR_NO_MEMORY);
    return 0;
  }
  const int queued = VemoCgiSetHTTPHeader(ctx, "Set-Cookie", line);
  free(line);
  return queued != 0;
}
