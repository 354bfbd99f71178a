/* Authorization, and what a session tells of itself. */
#include <json-c/json.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include "cgi/account.h"
#include "cgi/session.h"
#include "cgi/state.h"

enum verdict {
  AUTH_GOOD = 1,
  AUTH_FAULT = 0,
  AUTH_OVER = -1,
  AUTH_NO_PRIVILEGE = -2,
  AUTH_REPLACED = -3,
  AUTH_NONE = -5,
  AUTH_ADDRESS = -8
};

int VemoCgiIsTokenEnable(VEMOCGI *ctx) {
  (void)ctx;
  return !vemo_cgi_config_is("enable_token", "no", "yes");
}

/* A reading request may go without the token, unless it asks for an action that
 * is none of reading. */
static int needs_token(VEMOCGI *ctx) {
  if (!VemoCgiIsTokenEnable(ctx)) return 0;
  if (!vemo_cgi_is_reading()) return 1;
  const char *action = VemoCgiGetRequestParam(ctx, "action", NULL);
  return action != NULL && strcmp(action, "load") != 0 && strcmp(action, "list") != 0 &&
         strcmp(action, "get") != 0;
}

static int has_token(VEMOCGI *ctx, const struct vemo_cgi_session *session) {
  const char *token = getenv("HTTP_X_VEMO_TOKEN");

  if (token == NULL) token = VemoCgiGetRequestParam(ctx, "VemoToken", NULL);
  return vemo_equal_constant_time(session->token, token);
}

static int has_address(VEMOCGI *ctx, const struct vemo_cgi_session *session) {
  if (ctx->skip_check_ip || vemo_cgi_config_is("session_address", "off", "prefix")) return 1;
  const char *address = vemo_cgi_client_address(ctx);
  if (strcmp(address, session->address) == 0) return 1;
  return vemo_cgi_same_address(address, session->address,
                               vemo_cgi_config_is("session_address", "exact", "prefix"));
}

static int is_newer(const struct vemo_cgi_session *other, void *data) {
  struct vemo_cgi_session *session = data;

  if (strcmp(other->user, session->user) == 0 && other->created > session->created) {
    session->last_use = -1; /* found one */
    return 1;
  }
  return 0;
}

static int is_replaced(const struct vemo_cgi_session *session) {
  struct vemo_cgi_session asked = *session;

  if (!vemo_cgi_config_is("single_session", "yes", "no")) return 0;
  if (vemo_session_each(is_newer, &asked) != 0) return -1;
  return asked.last_use == -1;
}

static int judge_privilege(const struct vemo_cgi_session *session, int privilege) {
  if (privilege == VEMOCGI_PRIV_NONE || privilege == VEMOCGI_PRIV_USER) return AUTH_GOOD;
  if (privilege != VEMOCGI_PRIV_ADMIN) return AUTH_NO_PRIVILEGE;
  const int member = VLIBGroupIsAdminGroupMem(session->user, 0);
  return member < 0 ? AUTH_FAULT : (member == 1 ? AUTH_GOOD : AUTH_NO_PRIVILEGE);
}

static int judge(VEMOCGI *ctx, const struct vemo_cgi_session *session, int privilege,
                 enum _tag_cgi_position position) {
  if (vemo_session_is_over(session)) {
    vemo_session_remove(session->id);
    return AUTH_OVER;
  }
  const int usable = vemo_account_is_usable(session->user);
  if (usable < 0) return AUTH_FAULT;
  if (!usable) {
    vemo_session_remove(session->id);
    return AUTH_OVER;
  }
  if (!has_address(ctx, session)) return AUTH_ADDRESS;
  const int replaced = is_replaced(session);
  if (replaced != 0) return replaced < 0 ? AUTH_FAULT : AUTH_REPLACED;
  /* A session of the sharing portal is none of the desktop's. */
  if (session->position == VEMOCGI_POS_SHARING && position == VEMOCGI_POS_DESKTOP) return AUTH_NONE;
  const int verdict = judge_privilege(session, privilege);
  if (verdict != AUTH_GOOD) return verdict;
  return !needs_token(ctx) || has_token(ctx, session) ? AUTH_GOOD : AUTH_NONE;
}

static int refuse(VEMOCGI *ctx, const struct vemo_cgi_session *session, int verdict) {
  static const char *const why[] = {"the session store fails",    "no such session, or over",
                                    "no privilege",               "replaced by a newer login",
                                    "",                           "no session, or no token",
                                    "", "", "another client address"};

  syslog(LOG_AUTH | LOG_NOTICE, "request of user \"%s\" from %s refused: %s",
         session == NULL ? "" : session->user, vemo_cgi_client_address(ctx), why[-verdict]);
  return verdict;
}

int VemoCgiIsAuthorized(VEMOCGI *ctx, char *user, int user_size,
                        const struct _tag_cgi_auth_request *request,
                        enum _tag_cgi_position position) {
  int fault;

  if (!vemo_cgi_is_ready(ctx) || request == NULL || user == NULL || user_size < 1) {
    VEMO_FAIL(VEMOERR_BAD_PARAM);
    return AUTH_FAULT;
  }
  const char *id = VemoCgiGetInCookies(ctx, VEMO_SESSION_COOKIE, "");
  if (*id == '\0') return refuse(ctx, NULL, AUTH_NONE);
  const struct vemo_cgi_session *session = vemo_cgi_session(ctx, &fault);
  if (session == NULL) return refuse(ctx, NULL, fault ? AUTH_FAULT : AUTH_OVER);

  const int verdict = judge(ctx, session, request->privilege, position);
  if (verdict != AUTH_GOOD) return refuse(ctx, session, verdict);
  if (!request->passive) vemo_session_touch(session);
  snprintf(user, (size_t)user_size, "%s", session->user);
  return AUTH_GOOD;
}

const char *VemoCgiGetOption(VEMOCGI *ctx, int option, const char *dflt) {
  int fault;

  if (!vemo_cgi_is_ready(ctx) || option != VEMOCGI_OPT_TOKEN) return dflt;
  const struct vemo_cgi_session *session = vemo_cgi_session(ctx, &fault);
  if (session == NULL || vemo_session_is_over(session)) return dflt;
  const char *token = vemo_cgi_strdup(ctx, session->token);
  return token == NULL ? dflt : token;
}

int VemoCgiGetSessPath(VEMOCGI *ctx, char *buffer, int size) {
  if (ctx == NULL || ctx->session_file == NULL || buffer == NULL || size < 1) {
    VEMO_FAIL(VEMOERR_NOT_FOUND);
    return -1;
  }
  if (strlen(ctx->session_file) >= (size_t)size) {
    VEMO_FAIL(VEMOERR_TOO_LONG);
    return -1;
  }
  memcpy(buffer, ctx->session_file, strlen(ctx->session_file) + 1);
  return 0;
}

/* Which sessions to remove, and how many were. */
struct removal {
  enum CURRENT_USER_INDEX index;
  const char *name;
  const struct vemo_cgi_session *own;
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
      return strcmp(session->address, removal->name) == 0;
    case CURRENT_USER_OTHERS:
      return removal->own != NULL && strcmp(session->user, removal->own->user) == 0 &&
             strcmp(session->id, removal->own->id) != 0;
    default:
      return 0;
  }
}

static int remove_indexed(const struct vemo_cgi_session *session, void *data) {
  struct removal *removal = data;

  if (is_meant(session, removal)) removal->removed += vemo_session_remove(session->id) == 1;
  return 0;
}

int VemoCgiRemoveSessionByIndex(VEMOCGI *ctx, enum CURRENT_USER_INDEX index, const char *name) {
  int fault;
  struct removal removal = {.index = index, .name = name == NULL ? "" : name};

  if (!vemo_cgi_is_ready(ctx)) return 0;
  if (*removal.name == '\0' && index != CURRENT_USER_OTHERS) {
    VEMO_FAIL(VEMOERR_BAD_PARAM);
    return 0;
  }
  removal.own = vemo_cgi_session(ctx, &fault);
  vemo_session_each(remove_indexed, &removal);
  return removal.removed > 0;
}

static int remove_matched(const struct vemo_cgi_session *session, void *data) {
  struct removal *removal = data;
  struct json_object *record = vemo_session_public_record(session);

  if (record == NULL) return 0;
  const BOOL matched = removal->match(record, removal->data);
  json_object_put(record);
  if (matched) removal->removed += vemo_session_remove(session->id) == 1;
  return 0;
}

int VemoCgiRemoveSessionByFunc(VEMOCGI *ctx, BOOL (*match)(struct json_object *record, void *data),
                               void *data) {
  struct removal removal = {.match = match, .data = data};

  if (!vemo_cgi_is_ready(ctx) || match == NULL) {
    VEMO_FAIL(VEMOERR_BAD_PARAM);
    return -1;
  }
  return vemo_session_each(remove_matched, &removal) == 0 ? removal.removed : -1;
}
