/*
 * state.h - the private half of a request context, shared by the sources of
 * the CGI framework.
 */
#ifndef VEMO_HOST_CGI_STATE_H
#define VEMO_HOST_CGI_STATE_H

#include <stddef.h>

#include <vemo/cgi.h>

#include "core/internal.h"

struct vemo_cgi_header;  /* output.c: a queued header line */
struct vemo_cgi_texts;   /* texts.c: which sections are loaded, and from where */
struct vemo_cgi_session; /* session.h: the session of the current cookie, read once */
struct vemo_upload;      /* upload.h: the upload that was received */

struct vemo_cgi_state {
  char *text_dir;          /* holds texts/<language>/strings */
  struct vemo_arena arena; /* everything handed out by pointer */

  VEMOSZHASH *params;  /* decoded parameters; NULL until there are some */
  VEMOSZHASH *query;   /* QUERY_STRING decoded on demand; NULL until asked */
  VEMOSZHASH *cookies; /* the cookies of HTTP_COOKIE as last loaded */

  struct vemo_cgi_header *headers; /* queue, first to last */
  int answered;                    /* headers were printed: nothing more may be */

  char language[4]; /* "" until it was chosen */
  struct vemo_cgi_texts *texts;

  const VEMOSZHASH *info;     /* the current configuration; NULL until loaded */
  const VEMOSZHASH *defaults; /* the factory defaults; NULL until loaded */

  struct vemo_cgi_session *session; /* NULL until it was looked up */

  struct vemo_upload *upload; /* NULL until it was received */
};

/* Memory that lives as long as the context. NULL: no memory (recorded). */
void *vemo_cgi_alloc(VEMOCGI *ctx, size_t size);
const char *vemo_cgi_strdup(VEMOCGI *ctx, const char *text);

/* A context that VemoCgiInit has prepared. */
int vemo_cgi_is_ready(const VEMOCGI *ctx);

/* The value of a key of the current configuration, else of the factory defaults,
 * else `dflt`. Valid as long as the process. */
const char *vemo_cgi_config(const char *key, const char *dflt);

/* 1 when a yes/no key says yes. */
int vemo_cgi_config_is(const char *key, const char *value, const char *dflt);

/* An environment variable; "" when it is not set. */
const char *vemo_cgi_env(const char *name);

/* 1 for GET and HEAD, and where no method is given. */
int vemo_cgi_is_reading(void);

/* 1 when `id` has the form of a session id: 43 characters of base64url. */
int vemo_cgi_is_session_id(const char *id);

/* Makes `id` ("" for none) the request's session cookie: rewrites the
 * environment's HTTP_COOKIE, keeping the other cookies, and loads them. 0; -1. */
int vemo_cgi_set_session_cookie(VEMOCGI *ctx, const char *id);

/* Forgets the session that was looked up: the cookies have changed. */
void vemo_cgi_session_forget(VEMOCGI *ctx);

/* Releases what the texts hold. */
void vemo_cgi_texts_free(VEMOCGI *ctx);

/* The client's address: REMOTE_ADDR, or what a trusted proxy says; an IPv4
 * address within IPv6 is given as IPv4. "" when there is none. */
const char *vemo_cgi_client_address(VEMOCGI *ctx);

/* 1 when the request came over TLS (HTTPS, or a trusted proxy's word). */
int vemo_cgi_is_tls(VEMOCGI *ctx);

/* Whether two addresses are equal, or their networks are: /24 and /64. */
int vemo_cgi_same_address(const char *a, const char *b, int whole);

#endif
