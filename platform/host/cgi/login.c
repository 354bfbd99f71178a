/* Logins and logout. */
#include <json-c/json.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include "cgi/account.h"
#include "cgi/otp.h"
#include "cgi/pam.h"
#include "cgi/session.h"
#include "cgi/sso.h"
#include "cgi/state.h"
#include "cgi/throttle.h"

enum { PASSWORD_LIMIT = 511 };

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

/* A name as it may stand in the log: cut, and on one line. */
static void loggable(const char *text, char *buffer, size_t size) {
  size_t used = 0;

  for (; *text != '\0' && used + 5 < size; text++) {
    if ((unsigned char)*text >= 0x20 && *text != 0x7f && *text != '\\') {
      buffer[used++] = *text;
    } else {
      used += (size_t)snprintf(buffer + used, size - used, "\\x%02x", (unsigned char)*text);
    }
  }
  buffer[used] = '\0';
}

static int finish(const struct attempt *attempt, int result, char *reason, int reason_size) {
  char name[128];

  if (reason != NULL && reason_size > 0) {
    snprintf(reason, (size_t)reason_size, "%s", reason_of(result));
  }
  loggable(attempt->typed == NULL ? "" : attempt->typed, name, sizeof name);
  syslog(LOG_AUTH | (result == LOGIN_GOOD ? LOG_INFO : LOG_WARNING),
         "login of user \"%s\" from %s by %s: %s", name,
         *attempt->address == '\0' ? "nowhere" : attempt->address, attempt->how,
         result == LOGIN_GOOD ? "accepted" : reason_of(result));
  return result;
}

/* Whether the password is the account's, at a cost that is the same for accounts
 * that are there, locked or not, and for those that are not. */
static int judge_password(struct attempt *attempt) {
  char hash[512];
  const enum vemo_account state = vemo_account_state(attempt->typed, attempt->name,
                                                     sizeof attempt->name, hash, sizeof hash);
  const int known = state == VEMO_ACCOUNT_GOOD || state == VEMO_ACCOUNT_EXPIRED;
  int result;

  if (state == VEMO_ACCOUNT_FAULT) return LOGIN_FAULT;
  const enum vemo_pam pam = vemo_pam_check(attempt->typed, attempt->password, attempt->address);
  switch (pam) {
    case VEMO_PAM_GOOD:
      result = known ? LOGIN_GOOD : LOGIN_DISABLED;
      break;
    case VEMO_PAM_NO_ACCOUNT:
      result = LOGIN_DISABLED;
      break;
    case VEMO_PAM_REFUSED:
      /* PAM has nothing to compare with here, and answers too soon. */
      result = !known && vemo_password_matches(attempt->password, hash) ? LOGIN_DISABLED
                                                                        : LOGIN_WRONG;
      break;
    default:
      result = LOGIN_FAULT;
  }
  explicit_bzero(hash, sizeof hash);
  return result;
}

/* The second factor, asked only of those who gave the right password. */
static int judge_code(const struct attempt *attempt) {
  const int enrolled = vemo_otp_enrolled(attempt->name);

  if (enrolled < 0) return LOGIN_FAULT;
  if (attempt->code == NULL) return enrolled ? LOGIN_CODE_NEEDED : LOGIN_GOOD;
  if (!enrolled) return LOGIN_CODE_WRONG;
  const int spent = vemo_otp_check(attempt->name, attempt->code);
  return spent < 0 ? LOGIN_FAULT : (spent == 1 ? LOGIN_GOOD : LOGIN_CODE_WRONG);
}

static int is_askable(const struct attempt *attempt) {
  return attempt->typed != NULL && *attempt->typed != '\0' &&
         strlen(attempt->typed) <= VEMO_USER_NAME_LIMIT && attempt->password != NULL &&
         strlen(attempt->password) <= PASSWORD_LIMIT;
}

static int judge(struct attempt *attempt) {
  if (!is_askable(attempt)) return LOGIN_WRONG;
  const int allowed = vemo_throttle_allows(attempt->typed, attempt->address);
  if (allowed < 0) return LOGIN_FAULT;
  if (!allowed) return LOGIN_TOO_MANY;

  int result = judge_password(attempt);
  if (result == LOGIN_GOOD) result = judge_code(attempt);
  if (result == LOGIN_WRONG || result == LOGIN_CODE_WRONG) {
    vemo_throttle_failed(attempt->typed, attempt->address);
  } else if (result == LOGIN_GOOD) {
    vemo_throttle_succeeded(attempt->typed, attempt->address);
  }
  return result;
}

/* Makes the session and gives it to this request and its client. */
static int begin_session(VEMOCGI *ctx, const struct attempt *attempt,
                         struct _tag_login_params *params) {
  char id[VEMO_SESSION_ID_SIZE + 1];
  const struct vemo_session_start start = {attempt->name, attempt->address, attempt->how,
                                           (int)params->position, params->remember};
  const time_t expires = params->remember ? time(NULL) + VEMO_SESSION_ABSOLUTE : 0;
  const char *user = vemo_cgi_strdup(ctx, attempt->name);

  if (user == NULL || vemo_session_create(&start, id) != 0) return LOGIN_FAULT;
  if (VemoCgiSetCookies(ctx, VEMO_SESSION_COOKIE, id, expires, "/", NULL, 0) != 1) {
    vemo_session_remove(id);
    return LOGIN_FAULT;
  }
  /* The browser's old session ends: nobody holds it any more. */
  vemo_session_remove(VemoCgiGetInCookies(ctx, VEMO_SESSION_COOKIE, ""));
  if (vemo_cgi_set_session_cookie(ctx, id) != 0) return LOGIN_FAULT;
  params->user = user;
  return LOGIN_GOOD;
}

static struct attempt attempt_of(VEMOCGI *ctx, const struct _tag_login_params *params,
                                 const char *code, const char *how) {
  struct attempt attempt = {.code = code, .how = how, .address = ""};

  if (params == NULL) return attempt;
  attempt.typed = params->user;
  attempt.password = params->password;
  attempt.address = params->address != NULL ? params->address
                    : ctx != NULL           ? vemo_cgi_client_address(ctx)
                                            : vemo_cgi_env("REMOTE_ADDR");
  return attempt;
}

static int login(VEMOCGI *ctx, char *reason, int reason_size, struct _tag_login_params *params,
                 const char *code, const char *how) {
  if (!vemo_cgi_is_ready(ctx) || params == NULL) {
    VEMO_FAIL(VEMOERR_BAD_PARAM);
    return LOGIN_FAULT;
  }
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
  return login(ctx, reason, reason_size, params, code == NULL ? "" : code, "otp");
}

/* Whether an account that is known otherwise may be used. */
static int judge_account(struct attempt *attempt) {
  char hash[512];
  const enum vemo_account state = vemo_account_state(attempt->typed, attempt->name,
                                                     sizeof attempt->name, hash, sizeof hash);

  explicit_bzero(hash, sizeof hash);
  switch (state) {
    case VEMO_ACCOUNT_GOOD:
      return LOGIN_GOOD;
    case VEMO_ACCOUNT_UNKNOWN:
      return LOGIN_WRONG;
    case VEMO_ACCOUNT_FAULT:
      return LOGIN_FAULT;
    default:
      return LOGIN_DISABLED;
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

  if (!vemo_cgi_is_ready(ctx) || params == NULL) {
    VEMO_FAIL(VEMOERR_BAD_PARAM);
    return LOGIN_FAULT;
  }
  struct attempt attempt = attempt_of(ctx, params, NULL, how);
  attempt.typed = NULL;
  int result = judge_token(&attempt, config_file, token, params->nonce, nonce_required, user,
                           (int)sizeof user);
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
  if (!vemo_cgi_is_ready(ctx) || params == NULL || getuid() != 0) {
    VEMO_FAIL(VEMOERR_BAD_PARAM);
    return LOGIN_FAULT;
  }
  struct attempt attempt = attempt_of(ctx, params, NULL, "noauth");
  attempt.password = "";
  int result = is_askable(&attempt) ? judge_account(&attempt) : LOGIN_WRONG;
  if (result == LOGIN_GOOD) result = begin_session(ctx, &attempt, params);
  return finish(&attempt, result, reason, reason_size);
}

int VemoCgiTestLogin(struct _tag_login_params *params, const char *code) {
  struct attempt attempt = attempt_of(NULL, params, code, "test");

  return finish(&attempt, judge(&attempt), NULL, 0);
}

int VemoCgiLogout(VEMOCGI *ctx, const char *user) {
  int fault;

  if (!vemo_cgi_is_ready(ctx)) return 0;
  const struct vemo_cgi_session *session = vemo_cgi_session(ctx, &fault);
  if (session == NULL) return 0;
  if (user != NULL && *user != '\0' && strcmp(user, session->user) != 0) {
    VEMO_FAIL(VEMOERR_NO_PERM);
    return 0;
  }
  const int removed = vemo_session_remove(session->id) == 1;
  /* 1 second after the epoch: long ago for every browser. */
  VemoCgiSetCookies(ctx, VEMO_SESSION_COOKIE, "", 1, "/", NULL, 0);
  vemo_cgi_set_session_cookie(ctx, "");
  return removed;
}
