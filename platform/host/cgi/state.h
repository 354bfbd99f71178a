/*
 * state.h - the private half of a request context, shared by the sources of
 * the CGI framework.
 */
#ifndef VEMO_HOST_CGI_STATE_H
#define VEMO_HOST_CGI_STATE_H

#include <stddef.h>

#include <vemo/cgi.h>

struct vemo_cgi_block;    /* context.c: memory that lives as long as the context */
struct vemo_cgi_header;   /* output.c: a queued header line */
struct vemo_cgi_session;  /* session.c: the session of the current cookie, read once */

struct vemo_cgi_state {
  char *text_dir;                    /* directory that holds texts/<language>/strings */
  struct vemo_cgi_block *blocks;     /* everything handed out by pointer */

  VEMOSZHASH *params;                /* decoded parameters; NULL until there are some */
  VEMOSZHASH *query;                 /* QUERY_STRING decoded on demand; NULL until asked */
  VEMOSZHASH *cookies;               /* the cookies of HTTP_COOKIE as last loaded */

  struct vemo_cgi_header *headers;   /* queue, first to last */
  struct vemo_cgi_header **headers_end;
  int answered;                      /* headers were printed: nothing more may be */

  char language[4];                  /* "" until it was chosen */
  VEMOSZHASH *text_languages;        /* texts.c: what is loaded, for the cheap reload */
  int info_loaded;                   /* VemoCgiLoadInfo succeeded */

  struct vemo_cgi_session *session;  /* NULL until it was looked up */
};

/* Memory that lives as long as the context. NULL: no memory (recorded). */
void *vemo_cgi_alloc(VEMOCGI *ctx, size_t size);
const char *vemo_cgi_strdup(VEMOCGI *ctx, const char *text);

/* The value of a key of the current configuration (/etc/vemoinfo.conf), else
 * of the factory defaults, else `dflt`. Valid as long as the process. */
const char *vemo_cgi_config(const char *key, const char *dflt);

/* 1 when `id` has the form of a session id: 43 characters of base64url. */
int vemo_cgi_is_session_id(const char *id);

/* Forgets the session that was looked up, so that the next question reads the
 * session of the cookie that is loaded now. Called when the cookies change. */
void vemo_cgi_session_forget(VEMOCGI *ctx);

/* Makes `id` ("" for none) the request's session cookie: rewrites the
 * environment's HTTP_COOKIE, keeping the other cookies, and the loaded
 * cookies, and sets session_file and lock_file. 0; -1 no memory. */
int vemo_cgi_set_session_cookie(VEMOCGI *ctx, const char *id);

/* The client's address: REMOTE_ADDR, or what a trusted proxy says; an IPv4
 * address mapped into IPv6 is given as IPv4. "" when there is none. */
const char *vemo_cgi_client_address(VEMOCGI *ctx);

/* 1 when the request came over TLS (HTTPS, or a trusted proxy's word). */
int vemo_cgi_is_tls(VEMOCGI *ctx);

#endif
