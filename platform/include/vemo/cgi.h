#ifndef VEMO_CGI_H
#define VEMO_CGI_H
#include <time.h>
#include <vemo/core.h>
#include <vemo/types.h>
VEMO_BEGIN
struct json_object; /* JSON-C; the header does not need JSON-C's */

typedef struct _tag_vemo_cgi { /* complete type: WebMan and VemoConf own one, StringBundle is one */
  const char *session_file;    /* NULL while there is no session; owned by the context */
  const char *lock_file;
  int skip_check_ip;
  VEMOSZHASH *texts;            /* loaded texts, by key; StringBundle writes into it */
  struct vemo_cgi_state *state; /* everything else, private */
} VEMOCGI;

/* 1. context */
int VemoCgiInit(const char *text_dir, VEMOCGI *ctx);
void VemoCgiFree(VEMOCGI *ctx);

/* 2. input */
char *VemoCgiGetParamLine(VEMOCGI *ctx); /* malloc; caller frees; NULL: none */
int VemoCgiParseCGIParam(VEMOCGI *ctx, const char *line);
const char *VemoCgiGetCGIParam(VEMOCGI *ctx, const char *name, const char *dflt);
int VemoCgiSetCGIParam(VEMOCGI *ctx, const char *name, const char *value);
const char *VemoCgiGetRequestParam(VEMOCGI *ctx, const char *name, const char *dflt);
int VemoCgiLoadInCookies(VEMOCGI *ctx);
const char *VemoCgiGetInCookies(VEMOCGI *ctx, const char *name, const char *dflt);
int VemoCgiURLEncode(const char *text, char *buffer, int max_chars);

/* 3. output: non-zero = accepted, 0 = refused */
int VemoCgiSetHTTPHeader(VEMOCGI *ctx, const char *name, const char *value);
int VemoCgiPrintHTTPHeader(VEMOCGI *ctx);
int VemoCgiRedirect(VEMOCGI *ctx, const char *url);
int VemoCgiSetCookies(VEMOCGI *ctx, const char *name, const char *value, time_t expires,
                      const char *path, const char *domain, int flags);

/* 4. language, texts, configuration values */
const char *VemoCgiGetLang(VEMOCGI *ctx); /* never NULL */
int VemoCgiLoadText(VEMOCGI *ctx, ...) VEMO_SENTINEL;
const char *VemoCgiGetText(VEMOCGI *ctx, const char *key, const char *selector); /* never NULL */
const char *VemoCgiGetEncodeText(VEMOCGI *ctx, const char *key,
                                 const char *selector); /* never NULL */
int VemoCgiLoadInfo(VEMOCGI *ctx);
const char *VemoCgiGetInfo(VEMOCGI *ctx, const char *key, const char *dflt);
const char *VemoCgiGetDef(VEMOCGI *ctx, const char *key, const char *dflt);

/* 5. login, session, authorization */
enum _tag_cgi_position { VEMOCGI_POS_ANY = 0, VEMOCGI_POS_DESKTOP = 1, VEMOCGI_POS_SHARING = 2 };
enum { VEMOCGI_PRIV_NONE = 0, VEMOCGI_PRIV_USER = 1, VEMOCGI_PRIV_ADMIN = 2 };
enum { VEMOCGI_OPT_TOKEN = 2 };     /* VemoCgiGetOption: the anti-forgery token */
enum { VEMOCGI_COOKIE_SCRIPT = 1 }; /* VemoCgiSetCookies: scripts of the page may read it */
enum CURRENT_USER_INDEX {
  CURRENT_USER_BY_HANDLE = 0, /* name = the session's public handle */
  CURRENT_USER_BY_NAME = 1,   /* every session of the account */
  CURRENT_USER_BY_ADDR = 2,   /* every session from the address */
  CURRENT_USER_OTHERS = 3     /* every session of the account but this request's */
};
struct _tag_login_params {
  const char
      *user; /* FIRST. in: as typed; after result 1: the account's name, owned by the context */
  const char *password;
  const char *address; /* NULL: REMOTE_ADDR */
  enum _tag_cgi_position position;
  BOOL remember;     /* the cookie outlives the browser */
  const char *nonce; /* single sign-on: the nonce the token must carry; NULL: not compared */
};
struct _tag_cgi_auth_request {
  int privilege;
  BOOL passive;
};
int VemoCgiLogin(VEMOCGI *ctx, char *reason, int reason_size, struct _tag_login_params *params);
int VemoCgiLoginWithOTPAuth(VEMOCGI *ctx, char *reason, int reason_size,
                            struct _tag_login_params *params, const char *code);
int VemoCgiLoginWithAzureSSOAuth(VEMOCGI *ctx, char *reason, int reason_size,
                                 struct _tag_login_params *params, const char *token,
                                 BOOL nonce_required, int reserved);
int VemoCgiLoginWithOIDCSSOAuth(VEMOCGI *ctx, char *reason, int reason_size,
                                struct _tag_login_params *params, const char *token,
                                BOOL nonce_required, int reserved);
int VemoCgiLoginNoAuth(VEMOCGI *ctx, char *reason, int reason_size,
                       struct _tag_login_params *params);
int VemoCgiTestLogin(struct _tag_login_params *params, const char *code);
int VemoCgiLogout(VEMOCGI *ctx, const char *user);
int VemoCgiIsAuthorized(VEMOCGI *ctx, char *user, int user_size,
                        const struct _tag_cgi_auth_request *request,
                        enum _tag_cgi_position position);
const char *VemoCgiGetOption(VEMOCGI *ctx, int option, const char *dflt);
int VemoCgiIsTokenEnable(VEMOCGI *ctx);
int VemoCgiGetSessPath(VEMOCGI *ctx, char *buffer, int size);
int VemoCgiRemoveSessionByIndex(VEMOCGI *ctx, enum CURRENT_USER_INDEX index, const char *name);
int VemoCgiRemoveSessionByFunc(VEMOCGI *ctx, BOOL (*match)(struct json_object *record, void *data),
                               void *data);

/* 6. identity of the session's user */
gid_t VemoCgiGIDGet(const char *session, const char *user); /* (gid_t)-1: none */
uid_t VemoCgiUIDGet(const char *session, const char *user);
int VemoCgiGidSet(const char *session, const char *user); /* real, effective and saved; 0 or -1 */
int VemoCgiUidSet(const char *session, const char *user);
int VemoCgiEGidSet(const char *session, const char *user); /* effective only; 0 or -1 */
int VemoCgiEUidSet(const char *session, const char *user);

/* 7. uploads */
typedef struct _tag_upload_progress {
  unsigned long long done, total;
  int state;
} VEMOUPLOADPROGRESS;
typedef void (*VEMOUPLOADCALLBACK)(unsigned long long done, unsigned long long total);
typedef long long (*VEMOUPLOADKEEP)(void); /* size to keep; negative: all */
int VemoCgiIsUploadRequest(VEMOCGI *ctx);
int VemoCgiIsSliceUploadRequest(VEMOCGI *ctx);
int VemoCgiIsSliceUploadFinish(VEMOCGI *ctx);
const char *VemoCgiSliceUploadTmpFile(void);
int VemoCgiLoadUploadData(VEMOCGI *ctx, const char *path, int reserved);
int VemoCgiLoadUploadParams(VEMOCGI *ctx, VEMOUPLOADCALLBACK callback,
                            VEMOUPLOADPROGRESS *progress);
int VemoCgiLoadUploadFile(VEMOCGI *ctx, const char *dest, VEMOUPLOADCALLBACK callback,
                          VEMOUPLOADPROGRESS *progress);
int VemoCgiLoadUploadFileBW(VEMOCGI *ctx, const char *dest, VEMOUPLOADCALLBACK callback,
                            VEMOUPLOADPROGRESS *progress, const char *limit);
int VemoCgiLoadUploadFileNoTruncate(VEMOCGI *ctx, const char *dest, VEMOUPLOADCALLBACK callback,
                                    VEMOUPLOADPROGRESS *progress, VEMOUPLOADKEEP keep);
long long VemoCgiGetUploadFileSize(VEMOCGI *ctx); /* -1: no file part */
int VemoCgiRecvHup(VEMOCGI *ctx);
VEMO_END
#endif
