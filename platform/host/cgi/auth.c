/* Authorization, and what a session tells of itself. */
#include <stdlib.h>
#include <string.h>

#include "cgi/account.h"
#include "cgi/audit.h"
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

/* A query string that could be a JSON object with an "action" in it. Browsers and
 * libraries never send a quote unescaped, so this is a program's doing. */
static int may_be_json(void) {
  const char *query = vemo_cgi_env("QUERY_STRING");

  return strchr(query, '"') != NULL && strchr(query, '{') != NULL;
}

/* A reading request may go without the token, unless it asks for an action that
 * is none of reading. The content type plays no part: it is the client's word. */
static int needs_token(VEMOCGI *ctx) {
  if (!VemoCgiIsTokenEnable(ctx)) return 0;
  if (!vemo_cgi_is_reading() || may_be_json()) return 1;
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
  return vemo_cgi_same_address(vemo_cgi_client_address(ctx), session->address,
                               vemo_cgi_config_is("session_address", "exact", "prefix"));
}

struct replacement {
  const struct vemo_cgi_session *session;
  int found;
};

static int is_newer(const struct vemo_cgi_session *other, struct json_object *record, void *data) {
  struct replacement *asked = data;

  (void)record;
  asked->found =
      strcmp(other->user, asked->session->user) == 0 && other->created > asked->session->created;
  return asked->found;
}

/* 1 when the account has logged in since; 0; -1. */
static int is_replaced(const struct vemo_cgi_session *session) {
  struct replacement asked = {session, 0};

  if (!vemo_cgi_config_is("single_session", "yes", "no")) return 0;
  return vemo_session_each(is_newer, &asked) != 0 ? -1 : asked.found;
}

static int judge_privilege(const struct vemo_cgi_session *session, int privilege) {
  if (privilege == VEMOCGI_PRIV_NONE || privilege == VEMOCGI_PRIV_USER) return AUTH_GOOD;
  if (privilege != VEMOCGI_PRIV_ADMIN) return AUTH_NO_PRIVILEGE;
  const int member = VLIBGroupIsAdminGroupMem(session->user, 0);
  return member < 0 ? AUTH_FAULT : (member == 1 ? AUTH_GOOD : AUTH_NO_PRIVILEGE);
}

/* Whether the session still lives. One that does not, or whose account may not use
 * the system any more, is gone for good: it does not come back with the account. */
static int judge_life(const struct vemo_cgi_session *session) {
  const int usable = vemo_session_is_over(session) ? 0 : vemo_account_is_usable(session->user);

  if (usable < 0) return AUTH_FAULT;
  if (usable) return AUTH_GOOD;
  vemo_session_remove(session->id);
  return AUTH_OVER;
}

static int judge(VEMOCGI *ctx, const struct vemo_cgi_session *session, int privilege,
                 enum _tag_cgi_position position, const char **why) {
  *why = "the session is over";
  int verdict = judge_life(session);
  if (verdict != AUTH_GOOD) return verdict;
  *why = "another client address";
  if (!has_address(ctx, session)) return AUTH_ADDRESS;
  *why = "replaced by a newer login";
  const int replaced = is_replaced(session);
  if (replaced != 0) return replaced < 0 ? AUTH_FAULT : AUTH_REPLACED;
  *why = "a sharing session on the desktop";
  if (session->position == VEMOCGI_POS_SHARING && position == VEMOCGI_POS_DESKTOP) return AUTH_NONE;
  *why = "no privilege";
  verdict = judge_privilege(session, privilege);
  if (verdict != AUTH_GOOD) return verdict;
  *why = "token missing or wrong";
  return !needs_token(ctx) || has_token(ctx, session) ? AUTH_GOOD : AUTH_NONE;
}

static int refuse(VEMOCGI *ctx, const char *user, int verdict, const char *why) {
  if (verdict == AUTH_FAULT) why = "the check failed";
  vemo_audit_request(user, vemo_cgi_client_address(ctx), why);
  return verdict;
}

int VemoCgiIsAuthorized(VEMOCGI *ctx, char *user, int user_size,
                        const struct _tag_cgi_auth_request *request,
                        enum _tag_cgi_position position) {
  const char *why;
  int fault;

  if (!vemo_cgi_is_ready(ctx) || request == NULL || user == NULL || user_size < 1) {
    VEMO_FAIL(VEMOERR_BAD_PARAM);
    return AUTH_FAULT;
  }
  /* Nobody has logged in: that is no attempt, and every first visit's answer. */
  if (*VemoCgiGetInCookies(ctx, VEMO_SESSION_COOKIE, "") == '\0') return AUTH_NONE;
  /* Another program may have ended it since the last look. */
  vemo_cgi_session_forget(ctx);
  const struct vemo_cgi_session *session = vemo_cgi_session(ctx, &fault);
  if (session == NULL) return refuse(ctx, "", fault ? AUTH_FAULT : AUTH_OVER, "no such session");

  const int verdict = judge(ctx, session, request->privilege, position, &why);
  if (verdict != AUTH_GOOD) return refuse(ctx, session->user, verdict, why);
  /* A cut name would be another account's. */
  if (strlen(session->user) >= (size_t)user_size) {
    VEMO_FAIL(VEMOERR_TOO_LONG);
    return AUTH_FAULT;
  }
  if (!request->passive) vemo_session_touch(session);
  memcpy(user, session->user, strlen(session->user) + 1);
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
