/*
 * session.h - the session store: one JSON file a session, named by its id.
 *
 *   {"user", "addr", "created", "created_usec", "position", "token", "auth",
 *    "remember", "agent", "sso"}
 *
 * The last use is the file's modification time, set through an open descriptor:
 * a refresh never writes the record, and never brings back a session that a
 * logout removed meanwhile.
 */
#ifndef VEMO_HOST_CGI_SESSION_H
#define VEMO_HOST_CGI_SESSION_H

#include <time.h>

#include <vemo/cgi.h>

#define VEMO_SESSION_DIR "/run/vemo/session"
#define VEMO_SESSION_COOKIE "id"

enum {
  VEMO_SESSION_ID_SIZE = 43,         /* 256 random bits in base64url */
  VEMO_SESSION_ABSOLUTE = 24 * 3600, /* seconds that a session lives at most */
  VEMO_USER_NAME_LIMIT = 255         /* bytes of an account's name */
};

struct vemo_cgi_session {
  char id[VEMO_SESSION_ID_SIZE + 1];
  char user[VEMO_USER_NAME_LIMIT + 1];
  char address[64];
  char token[VEMO_SESSION_ID_SIZE + 1];
  long long created; /* microseconds since the epoch */
  time_t last_use;
  int position;
};

/* How a session is begun. */
struct vemo_session_start {
  const char *user;
  const char *address;
  const char *auth; /* "password", "otp", "oidc", "azure", "noauth" */
  const char *sso;  /* the provider of a single sign-on: "oidc", "azure"; else "" */
  int position;
  int remember;
};

/* Makes a session; its id in `id`. 0; -1. */
int vemo_session_create(const struct vemo_session_start *start, char id[VEMO_SESSION_ID_SIZE + 1]);

/* Reads a session. 1; 0: there is none that can be read as one; -1: the store
 * itself cannot be used. */
int vemo_session_read(const char *id, struct vemo_cgi_session *session);

/* Whether it has run out: by idling, or by its age. */
int vemo_session_is_over(const struct vemo_cgi_session *session);

/* Counts this moment as use. */
void vemo_session_touch(const struct vemo_cgi_session *session);

/* 1 removed; 0 there was none; -1. */
int vemo_session_remove(const char *id);

/* Called with a session and its record, which it may change; it ends the walk by
 * returning non-zero. */
typedef int (*vemo_session_found)(const struct vemo_cgi_session *session,
                                  struct json_object *record, void *data);

/* Calls `found` with every session that can be read and has not run out. 0; -1: the
 * store cannot be listed. */
int vemo_session_each(vemo_session_found found, void *data);

/* The session's name for people and programs that must not know the id. */
void vemo_session_handle(const char *id, char *buffer, size_t size);

/* Makes a record one that may be shown: without the token, with the "handle" and
 * the "last_use". The id is not in it anyway. */
void vemo_session_make_public(const struct vemo_cgi_session *session, struct json_object *record);

/* The session of the request's cookie, looked up once. NULL: none; `*fault` tells
 * whether the store cannot be used. */
struct vemo_cgi_session *vemo_cgi_session(VEMOCGI *ctx, int *fault);

#endif
