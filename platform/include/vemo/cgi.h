/*
 * vemo/cgi.h - the CGI framework: one request, its context, parameters, cookies and
 * headers, the session behind it, localized texts and the system configuration.
 *
 * See vemo/core.h for the conventions of the whole boundary. What a function gives out
 * by pointer belongs to the context and is valid until VemoCgiFree; functions with a
 * default return that default's own pointer. Functions of the kinds "output" and
 * "session" return non-zero for success and 0 for a refusal, unless said otherwise.
 */
#ifndef VEMO_CGI_H
#define VEMO_CGI_H

#include <time.h>

#include <vemo/core.h>
#include <vemo/types.h>

VEMO_BEGIN

struct json_object; /* json-c's; this header does not need its */

/* The context of a request, owned by value by whoever makes one. */
typedef struct _tag_vemo_cgi {
  const char *session_file;     /* path of the session's file; NULL without a session */
  const char *lock_file;        /* path of its lock; NULL without a session */
  int skip_check_ip;            /* non-zero: the client's address is not compared */
  VEMOSZHASH *texts;            /* loaded texts, by key; a text may be replaced here */
  struct vemo_cgi_state *state; /* private */
} VEMOCGI;

/* --- 1. Context ------------------------------------------------------------- */

/* Prepares a context from uninitialised memory. It reads nothing of the request. The
 * process ignores SIGPIPE from then on, and its descriptors 0 to 2 are open. `text_dir`
 * holds the texts directory of a module ("" or NULL: "/usr/vemo/vemoman/webman"); it is
 * copied. 1; 0 without memory (VEMOERR_NO_MEMORY), and every other function then gives
 * its failure result. */
int VemoCgiInit(const char *text_dir, VEMOCGI *ctx);

/* Releases everything that the context gave out. Twice, or on a zeroed context, it does
 * nothing. */
void VemoCgiFree(VEMOCGI *ctx);

/* --- 2. Input --------------------------------------------------------------- */

/* The request's parameter line: the query string for GET and HEAD; for POST, PUT and
 * DELETE the body, exactly CONTENT_LENGTH bytes of it, or, when it is multipart/form-data,
 * the query string. malloc'ed; the caller frees it. NULL: there is none, or
 * (VEMOERR_FORMAT) the length is malformed or above 8 MiB, the body is short, or it holds
 * a NUL byte. The body can be read once. */
char *VemoCgiGetParamLine(VEMOCGI *ctx);

/* Decodes a line of URL-encoded parameters (application/x-www-form-urlencoded) into the
 * context: "+" is a blank, "%XX" a byte, a broken escape stays; a name or value with a NUL
 * byte is dropped; of a repeated name the first counts; no more than 10,000 are taken. The
 * number of parameters in the line. */
int VemoCgiParseCGIParam(VEMOCGI *ctx, const char *line);

/* A decoded parameter, or `dflt`. */
const char *VemoCgiGetCGIParam(VEMOCGI *ctx, const char *name, const char *dflt);

/* Sets a parameter. 1, 0. */
int VemoCgiSetCGIParam(VEMOCGI *ctx, const char *name, const char *value);

/* A decoded parameter, else one of the query string, also before parameters were loaded;
 * else `dflt`. Never reads the body. */
const char *VemoCgiGetRequestParam(VEMOCGI *ctx, const char *name, const char *dflt);

/* Reads the cookies of the environment's HTTP_COOKIE in place of those read before (RFC
 * 6265, the server's side; of a repeated name the first counts), and sets `session_file`
 * and `lock_file` when the cookie "id" has the form of a session id. Their number. */
int VemoCgiLoadInCookies(VEMOCGI *ctx);

/* A cookie's value as it was sent, or `dflt`. */
const char *VemoCgiGetInCookies(VEMOCGI *ctx, const char *name, const char *dflt);

/* Writes the percent-encoded text (RFC 3986, all but unreserved characters) and a NUL byte.
 * `max_chars` is the number of characters *without* the NUL byte: the buffer has one byte
 * more. What does not fit is left out, an escape wholly. The number of characters. */
int VemoCgiURLEncode(const char *text, char *buffer, int max_chars);

/* --- 3. Output: non-zero accepted, 0 refused --------------------------------- */

/* Queues a header line. The name must be a token (RFC 9110), the value free of control
 * characters but TAB (VEMOERR_BAD_PARAM). A line of the same name replaces the one queued
 * before; Set-Cookie lines accumulate. */
int VemoCgiSetHTTPHeader(VEMOCGI *ctx, const char *name, const char *value);

/* Prints the queued lines and the blank line, once: 0 and nothing printed when headers were
 * printed before; 0 when standard output fails (VEMOERR_IO). */
int VemoCgiPrintHTTPHeader(VEMOCGI *ctx);

/* Prints the answer 302 with this location and the lines that are queued. 0, and nothing
 * printed, for an empty URL or one with control characters. */
int VemoCgiRedirect(VEMOCGI *ctx, const char *url);

enum { VEMOCGI_COOKIE_SCRIPT = 1 }; /* scripts of the page may read the cookie */

/* Queues a Set-Cookie line: `expires` 0 for a cookie that ends with the browser, `path`
 * NULL or "" for "/", `domain` NULL for this host alone, `flags` 0 or
 * VEMOCGI_COOKIE_SCRIPT. Cookies are SameSite=Lax, HttpOnly unless the flag is set, and
 * Secure when the request came over TLS. 1 exactly on success; 0 for a name that is no
 * token, a value outside RFC 6265's cookie-octets, a malformed path or domain. */
int VemoCgiSetCookies(VEMOCGI *ctx, const char *name, const char *value, time_t expires,
                      const char *path, const char *domain, int flags);

/* --- 4. Language, texts, configuration values ---------------------------------- */

/* The language of the user interface: the cookie "lang", else the configuration key
 * "language" unless it is "def", else the best of Accept-Language, else "enu". Three
 * lower-case letters that have a texts directory; never NULL. */
const char *VemoCgiGetLang(VEMOCGI *ctx);

/* Loads the sections named up to the first NULL from texts/<language>/strings; keys that
 * are missing there come from "enu". Of a key that several sections have, the section named
 * first counts. Cheap when they are loaded and the file has not changed: one stat(2). The
 * number of sections found. */
int VemoCgiLoadText(VEMOCGI *ctx, ...) VEMO_SENTINEL;

/* The text of a key of the loaded sections, else `selector`, else "". Never NULL. */
const char *VemoCgiGetText(VEMOCGI *ctx, const char *key, const char *selector);

/* The same, escaped for a JavaScript string literal that stands in an HTML page. */
const char *VemoCgiGetEncodeText(VEMOCGI *ctx, const char *key, const char *selector);

/* Loads "/etc/vemoinfo.conf" and "/etc.defaults/vemoinfo.conf". 1; 0 when neither can be
 * read. */
int VemoCgiLoadInfo(VEMOCGI *ctx);

/* A current value, or a factory default; `dflt` when the key is missing or nothing was
 * loaded. The first does not fall back to the second. */
const char *VemoCgiGetInfo(VEMOCGI *ctx, const char *key, const char *dflt);
const char *VemoCgiGetDef(VEMOCGI *ctx, const char *key, const char *dflt);

/* --- 5. Login, session, authorization ------------------------------------------- */

/* Where in the interface a session belongs, and where a program runs. */
enum _tag_cgi_position { VEMOCGI_POS_ANY = 0, VEMOCGI_POS_DESKTOP = 1, VEMOCGI_POS_SHARING = 2 };

/* Who may run a program: any session, any logged-in user, administrators. */
enum { VEMOCGI_PRIV_NONE = 0, VEMOCGI_PRIV_USER = 1, VEMOCGI_PRIV_ADMIN = 2 };

enum { VEMOCGI_OPT_TOKEN = 2 }; /* VemoCgiGetOption: the anti-forgery token */

/* Which sessions VemoCgiRemoveSessionByIndex removes. */
enum CURRENT_USER_INDEX {
  CURRENT_USER_BY_HANDLE = 0, /* the one with this public handle */
  CURRENT_USER_BY_NAME = 1,   /* every one of the account */
  CURRENT_USER_BY_ADDR = 2,   /* every one from the address */
  CURRENT_USER_OTHERS = 3     /* every one of the account but this request's */
};

struct _tag_login_params {
  const char *user;                /* in: as typed; after the result 1: the account's name,
                                      owned by the context. Must stay the first member. */
  const char *password;            /* exactly as typed, at most 511 bytes */
  const char *address;             /* NULL: the client's */
  enum _tag_cgi_position position; /* where the session belongs */
  BOOL remember;                   /* the cookie outlives the browser */
  const char *nonce;               /* single sign-on: what the token must carry; NULL: not asked */
};

struct _tag_cgi_auth_request {
  int privilege;
  BOOL passive; /* a poll: it does not count as use of the session */
};

/* Logins. 1 success; 0 internal fault; -1 wrong name or password; -2 account disabled or
 * expired; -3 one-time code needed; -4 one-time code wrong or used before; -5 too many
 * failures; -6 token refused. `reason` (may be NULL with size 0) gets a short English text,
 * cut to `reason_size` bytes, which does not tell the cases of -1 apart. On success a new
 * session is made and the old one of this browser ended, the cookie "id" is queued, and
 * HTTP_COOKIE and the loaded cookies are rewritten, so that the rest of the request belongs
 * to the new session. Each attempt is logged, without secrets. */
int VemoCgiLogin(VEMOCGI *ctx, char *reason, int reason_size, struct _tag_login_params *params);
/* With a password and a one-time code (RFC 6238) or recovery code. */
int VemoCgiLoginWithOTPAuth(VEMOCGI *ctx, char *reason, int reason_size,
                            struct _tag_login_params *params, const char *code);
/* With an ID token (OpenID Connect Core 1.0). `reserved` is 0. */
int VemoCgiLoginWithAzureSSOAuth(VEMOCGI *ctx, char *reason, int reason_size,
                                 struct _tag_login_params *params, const char *token,
                                 BOOL nonce_required, int reserved);
int VemoCgiLoginWithOIDCSSOAuth(VEMOCGI *ctx, char *reason, int reason_size,
                                struct _tag_login_params *params, const char *token,
                                BOOL nonce_required, int reserved);
/* Without a proof of identity; needs the real user id 0. */
int VemoCgiLoginNoAuth(VEMOCGI *ctx, char *reason, int reason_size,
                       struct _tag_login_params *params);
/* The checks and counters of a login without a session; `params` is not changed. `code`: a
 * one-time code, or NULL. */
int VemoCgiTestLogin(struct _tag_login_params *params, const char *code);

/* Removes the session of this request when it is `user`'s, or `user` is empty, queues a
 * cookie that has run out and forgets the loaded one. 1; 0 there was none. */
int VemoCgiLogout(VEMOCGI *ctx, const char *user);

/* Whether the caller may go on. 1, and the user's name in `user`; 0 internal fault; -1 no
 * such session, or it has run out, or its account may not be used; -2 not enough privilege;
 * -3 replaced by a newer login; -5 no session id, a session of another place, or a wrong or
 * missing anti-forgery token; -8 another client address. Only a success writes `user`, whose
 * size in bytes counts the NUL byte. */
int VemoCgiIsAuthorized(VEMOCGI *ctx, char *user, int user_size,
                        const struct _tag_cgi_auth_request *request,
                        enum _tag_cgi_position position);

/* An option of the session of the loaded cookie, or `dflt`. */
const char *VemoCgiGetOption(VEMOCGI *ctx, int option, const char *dflt);

/* Whether requests must carry the token: the configuration key "enable_token" is not "no".
 * 1, 0. */
int VemoCgiIsTokenEnable(VEMOCGI *ctx);

/* The path of the session's file. 0; -1 without a session (VEMOERR_NOT_FOUND) and when it
 * does not fit (VEMOERR_TOO_LONG). */
int VemoCgiGetSessPath(VEMOCGI *ctx, char *buffer, int size);

/* Removes sessions. 1 when any was removed; 0. */
int VemoCgiRemoveSessionByIndex(VEMOCGI *ctx, enum CURRENT_USER_INDEX index, const char *name);

/* Calls `match` with a copy of each session's record, borrowed for the call: "handle" (its
 * public name in place of the id), "user", "addr", "created", "last_use" and what else the
 * store keeps, never the token. Removes those for which it returns TRUE. The number
 * removed; -1 when the sessions cannot be listed. */
int VemoCgiRemoveSessionByFunc(VEMOCGI *ctx, BOOL (*match)(struct json_object *record, void *data),
                               void *data);

/* --- 6. Identity of the session's user ------------------------------------------- */

/* The ids of the user, as the name service tells, when the session is there, has not run
 * out and belongs to that user; else -1, which must never reach a set*id call: there it
 * means "unchanged". */
gid_t VemoCgiGIDGet(const char *session, const char *user);
uid_t VemoCgiUIDGet(const char *session, const char *user);

/* Switch the real, effective and saved ids, for good; administrators become user 0. 0; -1. */
int VemoCgiGidSet(const char *session, const char *user);
int VemoCgiUidSet(const char *session, const char *user);

/* Switch the effective ids alone. 0; -1. */
int VemoCgiEGidSet(const char *session, const char *user);
int VemoCgiEUidSet(const char *session, const char *user);

/* --- 7. Uploads (multipart/form-data, RFC 7578) -------------------------------------
 *
 * A body is received once, in constant memory, by VemoCgiLoadUploadData: its files into files
 * without a name in a spool directory, its parameters (8 MiB in all) into memory. Nothing of
 * a body that is refused, cut off or never stored is left behind, even by a process that is
 * killed; the slices below are the one exception. Afterwards VemoCgiLoadUploadParams makes
 * the parameters readable, and each VemoCgiLoadUploadFile stores the next file.
 *
 * Refused as broken: a body without a closing delimiter, a part without a name, more than
 * 1,000 parts, 256 files or 16 KiB of header lines a part, and file names that hold control
 * characters or ones of text direction, are no UTF-8, "." or "..", or longer than 255 bytes.
 * Directories before a file's name are dropped.
 *
 * Slices. A request with "Content-Range: bytes FIRST-LAST/TOTAL" (RFC 9110, section 14.4)
 * carries that part of a file, as its one file. The first makes a growing file in a volume's
 * spool directory, mode 0600, owned by the session's user; the next are appended to it, and
 * with the last it can be stored. A growing file is opened only when it lies directly in a
 * volume's spool directory, is a regular file with one link and belongs to the session's
 * user, and by one request at a time. A user can have 16 of them (configuration key
 * "upload_slices"), no more than fit into the volume when they are whole. */

/* How far a transfer is. `state` is read when a file is stored, VEMOUPLOAD_NEW asks that a
 * file that is there is not replaced, and then written: set it anew for each file. */
enum {
  VEMOUPLOAD_NONE = 0,
  VEMOUPLOAD_RUNNING = 1,
  VEMOUPLOAD_DONE = 2,
  VEMOUPLOAD_FAILED = 3,
  VEMOUPLOAD_NEW = 4
};

typedef struct _tag_upload_progress {
  unsigned long long done, total; /* bytes */
  int state;
} VEMOUPLOADPROGRESS;

typedef void (*VEMOUPLOADCALLBACK)(unsigned long long done, unsigned long long total);
typedef long long (*VEMOUPLOADKEEP)(void); /* bytes to keep; negative: all */

/* Whether the request is an upload: POST or PUT with a multipart/form-data body whose boundary
 * has 1 to 70 of the characters of RFC 2046, section 5.1.1. 1, 0. */
int VemoCgiIsUploadRequest(VEMOCGI *ctx);

/* Whether it is a slice of one, and the last (LAST + 1 = TOTAL). 1, 0. */
int VemoCgiIsSliceUploadRequest(VEMOCGI *ctx);
int VemoCgiIsSliceUploadFinish(VEMOCGI *ctx);

/* The slice's growing file: the environment's VEMO_SLICE_TMP_FILE, or what this process has
 * made. NULL: none. */
const char *VemoCgiSliceUploadTmpFile(void);

/* Receives the body, once a context, into the directory `path` (made with the mode 01777 when
 * it is missing) or onto the slice's growing file `path`. A row "default" of
 * /etc/vemo/bandwidth.conf (KiB a second) limits the speed. 0, or
 *   -2  volume full, or too full for this body (VEMOERR_VOLUME_FULL);
 *   -9  other: no session for a slice (VEMOERR_NO_PERM), too many slices (VEMOERR_BUSY), a
 *       path that is none of ours (VEMOERR_PATH_REFUSED), called twice (VEMOERR_BAD_PARAM);
 *  -12  volume read-only or failing (VEMOERR_VOLUME_UNUSABLE);
 *  -13  no volume is mounted there (VEMOERR_NO_VOLUME);
 *  -20  broken body, or a malformed Content-Range (VEMOERR_FORMAT, VEMOERR_TOO_LONG); of a
 *       slice nothing is kept;
 *  -21  client gone before CONTENT_LENGTH bytes came (VEMOERR_IO); of a slice that goes on
 *       what came is kept;
 *  -22  slice out of order: no such upload (VEMOERR_NOT_FOUND), another place or another
 *       total than expected (VEMOERR_BAD_PARAM), another request is at it (VEMOERR_BUSY).
 *       VemoCgiGetUploadFileSize tells the place that is expected, -1: begin anew.
 * After a refusal up to 8 MiB of the rest are read and dropped. `reserved` is 0. */
int VemoCgiLoadUploadData(VEMOCGI *ctx, const char *path, int reserved);

/* Makes the parameters beside the files readable by VemoCgiGetCGIParam; those that are there
 * already stay, of a repeated name the first counts, one with a NUL byte is dropped. The
 * field of a file reads as the name of its next file that is not stored yet. The number of
 * parameters that came; negative as above. `callback` and `progress` may be NULL. */
int VemoCgiLoadUploadParams(VEMOCGI *ctx, VEMOUPLOADCALLBACK callback,
                            VEMOUPLOADPROGRESS *progress);

/* Stores the next file as `dest`, as the effective user: moved on the same file system, else
 * copied; whole or not at all; in place of a file that is there unless `progress->state` is
 * VEMOUPLOAD_NEW (-9 and EEXIST then). Owner, group, mode and access control list are those
 * of a file made there. `callback` is called as bytes are copied and at the end. 1 one file
 * stored; 0 there is no more, or the file is not whole yet; negative as above, and it may be
 * asked again with another `dest`. `limit` names a row of /etc/vemo/bandwidth.conf: the call
 * returns no sooner than the bytes of this request allow, counted from the start of
 * VemoCgiLoadUploadData; NULL, or no such row: no limit. */
int VemoCgiLoadUploadFile(VEMOCGI *ctx, const char *dest, VEMOUPLOADCALLBACK callback,
                          VEMOUPLOADPROGRESS *progress);
int VemoCgiLoadUploadFileBW(VEMOCGI *ctx, const char *dest, VEMOUPLOADCALLBACK callback,
                            VEMOUPLOADPROGRESS *progress, const char *limit);

/* Writes the next file over `dest` (made when missing; a link is refused) from its start and
 * leaves what stands behind; then `keep` (NULL: all) is asked to how many bytes the file is
 * cut. A failure leaves what was written. Results as above. */
int VemoCgiLoadUploadFileNoTruncate(VEMOCGI *ctx, const char *dest, VEMOUPLOADCALLBACK callback,
                                    VEMOUPLOADPROGRESS *progress, VEMOUPLOADKEEP keep);

/* The size in bytes of the file that is stored next; of a slice, how much of the file is
 * there, which is where the next slice begins. -1: there is none. */
long long VemoCgiGetUploadFileSize(VEMOCGI *ctx);

/* Whether the client has hung up, before all of the body came or the answer was read. 1, 0. */
int VemoCgiRecvHup(VEMOCGI *ctx);

VEMO_END
#endif
