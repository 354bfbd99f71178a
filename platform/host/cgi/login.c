/* Logins and logout. */
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "cgi/account.h"
#include "cgi/audit.h"
#include "cgi/otp.h"
#include "cgi/pam.h"
#include "cgi/session.h"
#include "cgi/sso.h"
#include "cgi/state.h"
#include "cgi/throttle.h"

enum { PASSWORD_LIMIT = 511, ADDRESS_LIMIT = 63 };

enum login_result {
  LOGIN_GOOD = 1,
  LOGIN_FAULT = 0,
  LOGIN_WRONG = -1,
  LOGIN_DISABLED = -2,
  LOGIN_CODE_NEEDED = -3,
  LOGIN_CODE_WRONG = -4,
  LOGIN_TOO_MANY = -5,
  LOGIN_TOKEN_REFUSED = -6
};

/* What one login is about. */
struct attempt {
  const char *typed;
  const char *password;
  const char *code; /* NULL: none was given */
  const char *address;
  char name[VEMO_USER_NAME_LIMIT + 1]; /* the account's own name, once it is known */
  const char *how;
  const char *sso; /* the provider; "" */
};

static const char *reason_of(int result) {
  switch (result) {
    case LOGIN_GOOD:
      return "";
    case LOGIN_WRONG:
      return "The user name or the password is wrong.";
    case LOGIN_DISABLED:
      return "The account is disabled or has expired.";
    case LOGIN_CODE_NEEDED:
      return "A one-time code is needed.";
    case LOGIN_CODE_WRONG:
      return "The one-time code is wrong or was used before.";
    case LOGIN_TOO_MANY:
      return "Too many failures: wait five minutes.";
    case LOGIN_TOKEN_REFUSED:
      return "The single sign-on was refused.";
    default:
      return "The login service failed.";
  }
}

static int finish(const struct attempt *attempt, int result, char *reason, int reason_size) {
  const char *text = reason_of(result);

  if (reason != NULL && reason_size > 0) snprintf(reason, (size_t)reason_size, "%s", text);
  vemo_audit_login(attempt->typed, attempt->address, attempt->how, result == LOGIN_GOOD,
                   result == LOGIN_GOOD ? "accepted" : text);
  return result;
}

/* Whether the password is the account's, at a cost that is the same for accounts
 * that are there, locked or not, and for those that are not. */
static int judge_password(struct attempt *attempt, enum vemo_account state,
                          const struct vemo_password *password) {
  const char *user = *attempt->name == '\0' ? attempt->typed : attempt->name;

  switch (vemo_pam_check(user, attempt->password, attempt->address)) {
    case VEMO_PAM_GOOD:
      return state == VEMO_ACCOUNT_GOOD ? LOGIN_GOOD : LOGIN_DISABLED;
    case VEMO_PAM_NO_ACCOUNT:
      return LOGIN_DISABLED;
    case VEMO_PAM_REFUSED:
      if (!password->unchecked) return LOGIN_WRONG;
      /* PAM has nothing to compare with here, and answers too soon: for a password it works
       * out two hashes, one of them to see whether it is empty. */
      vemo_password_matches("", "");
      /* Only the owner learns that an account is locked. */
      return vemo_password_matches(attempt->password, password->hash) ? LOGIN_DISABLED
                                                                      : LOGIN_WRONG;
    default:
      return LOGIN_FAULT;
  }
}

/* The second factor, asked only of those who gave the right password. */
static int judge_code(const struct attempt *attempt) {
  const int enrolled = vemo_otp_enrolled(attempt->name);
  const int given = attempt->code != NULL && *attempt->code != '\0';

  if (enrolled < 0) return LOGIN_FAULT;
  if (!given) return enrolled ? LOGIN_CODE_NEEDED : LOGIN_GOOD;
  if (!enrolled) return LOGIN_CODE_WRONG;
  const int spent = vemo_otp_check(attempt->name, attempt->code);
  return spent < 0 ? LOGIN_FAULT : (spent == 1 ? LOGIN_GOOD : LOGIN_CODE_WRONG);
}

static enum vemo_throttle_outcome outcome_of(int result) {
  if (result == LOGIN_GOOD) return VEMO_THROTTLE_SUCCESS;
  return result == LOGIN_WRONG || result == LOGIN_CODE_WRONG || result == LOGIN_TOKEN_REFUSED
             ? VEMO_THROTTLE_FAILURE
             : VEMO_THROTTLE_NEITHER;
}

static int is_askable(const struct attempt *attempt) {
  return attempt->typed != NULL && *attempt->typed != '\0' &&
         strlen(attempt->typed) <= VEMO_USER_NAME_LIMIT && attempt->password != NULL &&
         strlen(attempt->password) <= PASSWORD_LIMIT;
}

static int judge(struct attempt *attempt) {
  struct vemo_password password;

  if (!is_askable(attempt)) {
    VEMO_FAIL(VEMOERR_BAD_PARAM);
    return LOGIN_WRONG;
  }
  const enum vemo_account state =
      vemo_account_state(attempt->typed, attempt->name, sizeof attempt->name, &password);
  if (state == VEMO_ACCOUNT_FAULT) return LOGIN_FAULT;
  const char *counted = *attempt->name == '\0' ? attempt->typed : attempt->name;
  const int allowed = vemo_throttle_begin(counted, attempt->address);
  int result = allowed < 0 ? LOGIN_FAULT : LOGIN_TOO_MANY;
  if (allowed == 1) {
    result = judge_password(attempt, state, &password);
    if (result == LOGIN_GOOD) result = judge_code(attempt);
    vemo_throttle_end(counted, attempt->address, outcome_of(result));
  }
  explicit_bzero(&password, sizeof password);
  return result;
}

/* Makes the session and gives it to this request and its client. */
static int begin_session(VEMOCGI *ctx, const struct attempt *attempt,
                         struct _tag_login_params *params) {
  char id[VEMO_SESSION_ID_SIZE + 1], old[VEMO_SESSION_ID_SIZE + 2];
  const struct vemo_session_start start = {.user = attempt->name,
                                           .address = attempt->address,
                                           .auth = attempt->how,
                                           .sso = attempt->sso,
                                           .position = (int)params->position,
                                           .remember = params->remember};
  const time_t expires = params->remember ? time(NULL) + VEMO_SESSION_ABSOLUTE : 0;
  const char *user = vemo_cgi_strdup(ctx, attempt->name);

  if (ctx->state->cookies == NULL) VemoCgiLoadInCookies(ctx);
  snprintf(old, sizeof old, "%s", VemoCgiGetInCookies(ctx, VEMO_SESSION_COOKIE, ""));
  if (user == NULL || vemo_session_create(&start, id) != 0) return LOGIN_FAULT;
  if (VemoCgiSetCookies(ctx, VEMO_SESSION_COOKIE, id, expires, "/", NULL, 0) != 1 ||
      vemo_cgi_set_session_cookie(ctx, id) != 0) {
    vemo_session_remove(id);
    return LOGIN_FAULT;
  }
  /* The browser's old session ends: nobody holds it any more, or somebody else
   * planted it. */
  vemo_session_remove(old);
  params->user = user;
  return LOGIN_GOOD;
}

static struct attempt attempt_of(VEMOCGI *ctx, const struct _tag_login_params *params,
                                 const char *code, const char *how) {
  struct attempt attempt = {.typed = params->user,
                            .password = params->password,
                            .code = code,
                            .address = params->address,
                            .how = how,
                            .sso = ""};

  if (attempt.address == NULL) attempt.address = vemo_cgi_client_address(ctx);
  return attempt;
}

static int is_given(VEMOCGI *ctx, const struct _tag_login_params *params) {
  if (vemo_cgi_is_ready(ctx) && params != NULL &&
      (params->address == NULL || strlen(params->address) <= ADDRESS_LIMIT) &&
      params->position >= VEMOCGI_POS_ANY && params->position <= VEMOCGI_POS_SHARING) {
    return 1;
  }
  VEMO_FAIL(VEMOERR_BAD_PARAM);
  return 0;
}

static int login(VEMOCGI *ctx, char *reason, int reason_size, struct _tag_login_params *params,
                 const char *code, const char *how) {
  if (!is_given(ctx, params)) return LOGIN_FAULT;
  struct attempt attempt = attempt_of(ctx, params, code, how);
  int result = judge(&attempt);
  if (result == LOGIN_GOOD) result = begin_session(ctx, &attempt, params);
  return finish(&attempt, result, reason, reason_size);
}

int VemoCgiLogin(VEMOCGI *ctx, char *reason, int reason_size, struct _tag_login_params *params) {
  return login(ctx, reason, reason_size, params, NULL, "password");
}

int VemoCgiLoginWithOTPAuth(VEMOCGI *ctx, char *reason, int reason_size,
                            struct _tag_login_params *params, const char *code) {
  return login(ctx, reason, reason_size, params, code, "otp");
}

/* Whether an account that is known otherwise may be used. */
static int judge_account(struct attempt *attempt) {
  switch (vemo_account_state(attempt->typed, attempt->name, sizeof attempt->name, NULL)) {
    case VEMO_ACCOUNT_GOOD:
      return LOGIN_GOOD;
    case VEMO_ACCOUNT_UNKNOWN:
      return LOGIN_WRONG;
    case VEMO_ACCOUNT_DISABLED:
      return LOGIN_DISABLED;
    default:
      return LOGIN_FAULT;
  }
}

static int judge_token(struct attempt *attempt, const char *config_file, const char *token,
                       const char *nonce, BOOL nonce_required, char *user, int size) {
  int strong;
  const int verified =
      vemo_sso_verify(config_file, token, nonce, nonce_required, user, size, &strong);

  if (verified != 1) return verified < 0 ? LOGIN_FAULT : LOGIN_TOKEN_REFUSED;
  attempt->typed = user;
  const int result = judge_account(attempt);
  if (result != LOGIN_GOOD) return result == LOGIN_WRONG ? LOGIN_TOKEN_REFUSED : result;
  const int enrolled = vemo_otp_enrolled(attempt->name);
  if (enrolled < 0) return LOGIN_FAULT;
  /* No way in is weaker than the one that the account chose. */
  return enrolled && !strong ? LOGIN_CODE_NEEDED : LOGIN_GOOD;
}

static int login_by_token(VEMOCGI *ctx, char *reason, int reason_size,
                          struct _tag_login_params *params, const char *token, BOOL nonce_required,
                          const char *how, const char *config_file) {
  char user[VEMO_USER_NAME_LIMIT + 1] = "";

  if (!is_given(ctx, params)) return LOGIN_FAULT;
  struct attempt attempt = attempt_of(ctx, params, NULL, how);
  attempt.typed = NULL; /* the token names the account */
  attempt.sso = how;
  const int allowed = vemo_throttle_begin("", attempt.address);
  int result = allowed < 0 ? LOGIN_FAULT : LOGIN_TOO_MANY;
  if (allowed == 1) {
    result = judge_token(&attempt, config_file, token, params->nonce, nonce_required, user,
                         (int)sizeof user);
    vemo_throttle_end("", attempt.address, outcome_of(result));
  }
  if (result == LOGIN_GOOD) result = begin_session(ctx, &attempt, params);
  return finish(&attempt, result, reason, reason_size);
}

int VemoCgiLoginWithAzureSSOAuth(VEMOCGI *ctx, char *reason, int reason_size,
                                 struct _tag_login_params *params, const char *token,
                                 BOOL nonce_required, int reserved) {
  (void)reserved;
  return login_by_token(ctx, reason, reason_size, params, token, nonce_required, "azure",
                        "/usr/vemo/etc/sso/azure.json");
}

int VemoCgiLoginWithOIDCSSOAuth(VEMOCGI *ctx, char *reason, int reason_size,
                                struct _tag_login_params *params, const char *token,
                                BOOL nonce_required, int reserved) {
  (void)reserved;
  return login_by_token(ctx, reason, reason_size, params, token, nonce_required, "oidc",
                        "/usr/vemo/etc/sso/oidc.json");
}

int VemoCgiLoginNoAuth(VEMOCGI *ctx, char *reason, int reason_size,
                       struct _tag_login_params *params) {
  if (!is_given(ctx, params)) return LOGIN_FAULT;
  /* The program vouches for the user: only one that is root's may. */
  if (getuid() != 0) {
    VEMO_FAIL(VEMOERR_NO_PERM);
    return LOGIN_FAULT;
  }
  struct attempt attempt = attempt_of(ctx, params, NULL, "noauth");
  attempt.password = "";
  int result = is_askable(&attempt) ? judge_account(&attempt) : LOGIN_WRONG;
  if (result == LOGIN_GOOD) result = begin_session(ctx, &attempt, params);
  return finish(&attempt, result, reason, reason_size);
}

int VemoCgiTestLogin(struct _tag_login_params *params, const char *code) {
  VEMOCGI ctx; /* for the client's address only */
  int result = LOGIN_FAULT;

  if (VemoCgiInit("", &ctx) != 1) return LOGIN_FAULT;
  if (is_given(&ctx, params)) {
    struct attempt attempt = attempt_of(&ctx, params, code, "test");
    result = finish(&attempt, judge(&attempt), NULL, 0);
  }
  VemoCgiFree(&ctx);
  return result;
}

static int remove_older(const struct vemo_cgi_session *other, struct json_object *record,
                        void *data) {
  const struct vemo_cgi_session *ended = data;

  (void)record;
  if (strcmp(other->user, ended->user) == 0 && other->created < ended->created) {
    vemo_session_remove(other->id);
  }
  return 0;
}

/* The client forgets the id, and the rest of the request has none. */
static void drop_cookie(VEMOCGI *ctx) {
  /* 1 second after the epoch: long ago for every browser. */
  VemoCgiSetCookies(ctx, VEMO_SESSION_COOKIE, "", 1, "/", NULL, 0);
  vemo_cgi_set_session_cookie(ctx, "");
}

int VemoCgiLogout(VEMOCGI *ctx, const char *user) {
  int fault;

  if (!vemo_cgi_is_ready(ctx)) return 0;
  if (*VemoCgiGetInCookies(ctx, VEMO_SESSION_COOKIE, "") == '\0') return 0;
  vemo_cgi_session_forget(ctx);
  const struct vemo_cgi_session *session = vemo_cgi_session(ctx, &fault);
  if (session != NULL && user != NULL && *user != '\0' && strcmp(user, session->user) != 0) {
    VEMO_FAIL(VEMOERR_NO_PERM);
    return 0;
  }
  int removed = 0;
  if (session != NULL) {
    removed = vemo_session_remove(session->id) == 1;
    /* Those that this one replaced must not come back. */
    struct vemo_cgi_session ended = *session;
    if (vemo_cgi_config_is("single_session", "yes", "no")) vemo_session_each(remove_older, &ended);
  }
  if (!fault) drop_cookie(ctx);
  return removed;
}
