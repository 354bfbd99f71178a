/* Ending the sessions of others. */
#include <json-c/json.h>
#include <string.h>

#include "cgi/session.h"
#include "cgi/state.h"

/* Which sessions to remove, and how many were. */
struct removal {
  enum CURRENT_USER_INDEX index;
  const char *name;
  const char *own; /* this request's id */
  BOOL (*match)(struct json_object *record, void *data);
  void *data;
  int removed;
};

static int is_meant(const struct vemo_cgi_session *session, const struct removal *removal) {
  char handle[32];

  switch (removal->index) {
    case CURRENT_USER_BY_HANDLE:
      vemo_session_handle(session->id, handle, sizeof handle);
      return strcmp(handle, removal->name) == 0;
    case CURRENT_USER_BY_NAME:
      return strcmp(session->user, removal->name) == 0;
    case CURRENT_USER_BY_ADDR:
      return vemo_cgi_same_address(session->address, removal->name, 1);
    case CURRENT_USER_OTHERS:
      return strcmp(session->user, removal->name) == 0 && strcmp(session->id, removal->own) != 0;
    default:
      return 0;
  }
}

static int remove_indexed(const struct vemo_cgi_session *session, struct json_object *record,
                          void *data) {
  struct removal *removal = data;

  (void)record;
  if (is_meant(session, removal)) removal->removed += vemo_session_remove(session->id) == 1;
  return 0;
}

/* Whose other sessions are meant when no account is named: this session's. */
static const char *own_account(VEMOCGI *ctx) {
  int fault;
  const struct vemo_cgi_session *session = vemo_cgi_session(ctx, &fault);
  const char *user = session == NULL ? NULL : vemo_cgi_strdup(ctx, session->user);

  return user == NULL ? "" : user;
}

int VemoCgiRemoveSessionByIndex(VEMOCGI *ctx, enum CURRENT_USER_INDEX index, const char *name) {
  struct removal removal = {.index = index, .name = name == NULL ? "" : name};

  if (!vemo_cgi_is_ready(ctx)) return 0;
  if (*removal.name == '\0' && index == CURRENT_USER_OTHERS) removal.name = own_account(ctx);
  if (*removal.name == '\0') {
    VEMO_FAIL(VEMOERR_BAD_PARAM);
    return 0;
  }
  removal.own = VemoCgiGetInCookies(ctx, VEMO_SESSION_COOKIE, "");
  vemo_session_each(remove_indexed, &removal);
  vemo_cgi_session_forget(ctx); /* it may have been among them */
  return removal.removed > 0;
}

static int remove_matched(const struct vemo_cgi_session *session, struct json_object *record,
                          void *data) {
  struct removal *removal = data;

  vemo_session_make_public(session, record);
  if (removal->match(record, removal->data)) {
    removal->removed += vemo_session_remove(session->id) == 1;
  }
  return 0;
}

int VemoCgiRemoveSessionByFunc(VEMOCGI *ctx, BOOL (*match)(struct json_object *record, void *data),
                               void *data) {
  struct removal removal = {.match = match, .data = data};

  if (!vemo_cgi_is_ready(ctx) || match == NULL) {
    VEMO_FAIL(VEMOERR_BAD_PARAM);
    return -1;
  }
  const int failed = vemo_session_each(remove_matched, &removal);
  vemo_cgi_session_forget(ctx);
  return failed ? -1 : removal.removed;
}
