/* The request's cookies: the server's side of RFC 6265. */
#include <stdlib.h>
#include <string.h>

#include "cgi/session.h"
#include "cgi/state.h"

static int is_token_char(char c) {
  return c > 0x20 && c < 0x7f && strchr("()<>@,;:\\\"/[]?={}", c) == NULL;
}

/* Some servers join two Cookie headers by a comma: ", name=" begins a cookie. */
static int begins_cookie(const char *at) {
  if (at[0] != ',' || at[1] != ' ') return 0;
  const char *name = at + 2;
  const char *end = name;
  while (is_token_char(*end))
    end++;
  return end > name && *end == '=';
}

static size_t cookie_size(const char *text) {
  size_t size = 0;

  while (text[size] != '\0' && text[size] != ';' && !begins_cookie(text + size))
    size++;
  return size;
}

static void trim(const char **text, size_t *size) {
  while (*size > 0 && strchr(" \t", **text) != NULL) {
    ++*text;
    --*size;
  }
  while (*size > 0 && strchr(" \t", (*text)[*size - 1]) != NULL)
    --*size;
}

/* Calls `found` with each cookie of a header, until it returns non-zero. */
typedef int (*cookie_function)(const char *name, size_t name_size, const char *value,
                               size_t value_size, void *data);

static void for_each_cookie(const char *header, cookie_function found, void *data) {
  for (const char *at = header; *at != '\0';) {
    const char *pair = at;
    size_t size = cookie_size(at);
    at += size + (at[size] == '\0' ? 0 : 1);
    trim(&pair, &size);
    const char *equals = memchr(pair, '=', size);
    if (equals == NULL) continue;
    const char *value = equals + 1;
    size_t name_size = (size_t)(equals - pair);
    size_t value_size = size - name_size - 1;
    trim(&pair, &name_size);
    trim(&value, &value_size);
    if (found(pair, name_size, value, value_size, data)) return;
  }
}

static int store(const char *name, size_t name_size, const char *value, size_t value_size,
                 void *data) {
  return vemo_hash_set(data, name, name_size, value, value_size, 1) != 0;
}

/* Paths are made from an id of the right form only. */
static void set_session_paths(VEMOCGI *ctx) {
  const char *id = VLIBCSzHashGetValue(ctx->state->cookies, VEMO_SESSION_COOKIE);
  char path[128];

  ctx->session_file = NULL;
  ctx->lock_file = NULL;
  if (!vemo_cgi_is_session_id(id)) return;
  snprintf(path, sizeof path, "%s/%s", VEMO_SESSION_DIR, id);
  ctx->session_file = vemo_cgi_strdup(ctx, path);
  snprintf(path, sizeof path, "%s/%s.lock", VEMO_SESSION_DIR, id);
  ctx->lock_file = vemo_cgi_strdup(ctx, path);
}

int VemoCgiLoadInCookies(VEMOCGI *ctx) {
  if (!vemo_cgi_is_ready(ctx)) return 0;
  if (ctx->state->cookies == NULL) ctx->state->cookies = VLIBCSzHashAlloc(8);
  if (ctx->state->cookies == NULL) return 0;
  /* What was handed out of the old ones stays valid. */
  vemo_hash_forget(ctx->state->cookies);
  for_each_cookie(vemo_cgi_env("HTTP_COOKIE"), store, ctx->state->cookies);
  ctx->state->language[0] = '\0';
  vemo_cgi_session_forget(ctx);
  set_session_paths(ctx);
  return (int)vemo_hash_size(ctx->state->cookies);
}

const char *VemoCgiGetInCookies(VEMOCGI *ctx, const char *name, const char *dflt) {
  if (!vemo_cgi_is_ready(ctx)) return dflt;
  const char *value = VLIBCSzHashGetValue(ctx->state->cookies, name);
  return value == NULL ? dflt : value;
}

int vemo_cgi_is_session_id(const char *id) {
  static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

  return id != NULL && strlen(id) == VEMO_SESSION_ID_SIZE &&
         strspn(id, alphabet) == VEMO_SESSION_ID_SIZE;
}

/* A header that is built anew, without the session's cookie. */
struct rebuilt {
  char *text;
  size_t used;
};

static int keep_other(const char *name, size_t name_size, const char *value, size_t value_size,
                      void *data) {
  struct rebuilt *header = data;

  if (name_size == strlen(VEMO_SESSION_COOKIE) &&
      memcmp(name, VEMO_SESSION_COOKIE, name_size) == 0) {
    return 0;
  }
  header->used +=
      (size_t)sprintf(header->text + header->used, "%s%.*s=%.*s", header->used == 0 ? "" : "; ",
                      (int)name_size, name, (int)value_size, value);
  return 0;
}

int vemo_cgi_set_session_cookie(VEMOCGI *ctx, const char *id) {
  const char *old = vemo_cgi_env("HTTP_COOKIE");
  /* Each cookie gains a blank at most; the session's own comes on top. */
  struct rebuilt header = {malloc(strlen(old) * 2 + strlen(id) + 16), 0};

  if (header.text == NULL) {
    VEMO_FAIL(VEMOERR_NO_MEMORY);
    return -1;
  }
  header.text[0] = '\0';
  if (*id != '\0') {
    header.used = (size_t)sprintf(header.text, VEMO_SESSION_COOKIE "=%s", id);
  }
  for_each_cookie(old, keep_other, &header);
  const int failed = setenv("HTTP_COOKIE", header.text, 1);
  free(header.text);
  if (failed) {
    VEMO_FAIL(VEMOERR_NO_MEMORY);
    return -1;
  }
  VemoCgiLoadInCookies(ctx);
  return 0;
}
