/* ID tokens of single sign-on. */
#include "cgi/sso.h"

#include <cjose/cjose.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <json-c/json.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <syslog.h>
#include <time.h>

#include "cgi/state.h"

enum {
  TOKEN_LIMIT = 16384,
  FILE_LIMIT = 1 << 20,
  DEPTH = 16,        /* of claims and of files */
  LEEWAY = 60,       /* seconds that the provider's clock may differ */
  MODULUS_SIZE = 342 /* of 2048 bits in base64url */
};

struct cjose_calls {
  cjose_jws_t *(*import)(const char *, size_t, cjose_err *);
  bool (*verify)(cjose_jws_t *, const cjose_jwk_t *, cjose_err *);
  bool (*plaintext)(const cjose_jws_t *, uint8_t **, size_t *, cjose_err *);
  bool (*decode)(const char *, size_t, uint8_t **, size_t *, cjose_err *);
  void (*release)(cjose_jws_t *);
  cjose_jwk_t *(*key_import)(const char *, size_t, cjose_err *);
  bool (*key_release)(cjose_jwk_t *);
};

/* Why a token is refused: for the log, not for the client. */
static int refuse(const char *why) {
  syslog(LOG_AUTH | LOG_WARNING, "single sign-on refused: %s", why);
  errno = EACCES;
  VEMO_FAIL(VEMOERR_NO_PERM);
  return 0;
}

/* Why none can be checked; the error slot tells more. */
static int fault(const char *why) {
  const int kept = errno;

  syslog(LOG_AUTH | LOG_ERR, "single sign-on failed: %s", why);
  errno = kept;
  return -1;
}

static int open_cjose(struct cjose_calls *jose) {
  void *library = dlopen("libcjose.so.0", RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);

  if (library == NULL || vemo_find_function(library, "cjose_jws_import", &jose->import) ||
      vemo_find_function(library, "cjose_jws_verify", &jose->verify) ||
      vemo_find_function(library, "cjose_jws_get_plaintext", &jose->plaintext) ||
      vemo_find_function(library, "cjose_base64url_decode", &jose->decode) ||
      vemo_find_function(library, "cjose_jws_release", &jose->release) ||
      vemo_find_function(library, "cjose_jwk_import", &jose->key_import) ||
      vemo_find_function(library, "cjose_jwk_release", &jose->key_release)) {
    VEMO_FAIL(VEMOERR_NO_SERVICE);
    return -1;
  }
  return 0;
}

static struct json_object *parse(const char *text, size_t size) {
  struct json_tokener *reader = json_tokener_new_ex(DEPTH);
  if (reader == NULL) return NULL;
  json_tokener_set_flags(reader, JSON_TOKENER_STRICT | JSON_TOKENER_VALIDATE_UTF8);
  struct json_object *object = json_tokener_parse_ex(reader, text, (int)size);
  if (json_tokener_get_error(reader) != json_tokener_success ||
      json_tokener_get_parse_end(reader) != size ||
      !json_object_is_type(object, json_type_object)) {
    json_object_put(object);
    object = NULL;
  }
  json_tokener_free(reader);
  return object;
}

/* An object in a file of root's: who can write it decides who comes in. */
static struct json_object *read_object(const char *path, int flags) {
  struct json_object *object = NULL;
  struct stat status;
  size_t size;

  char *text = vemo_read_file(path, flags, FILE_LIMIT, &size, &status);
  if (text == NULL) return NULL;
  /* Blanks around the object are not the reader's. */
  while (size > 0 && strchr(" \t\r\n", text[size - 1]) != NULL)
    size--;
  if (status.st_uid != 0 || (status.st_mode & 022) != 0) {
    errno = EACCES;
    VEMO_FAIL(VEMOERR_NO_PERM);
  } else if ((object = parse(text, size)) == NULL) {
    errno = EINVAL;
    VEMO_FAIL(VEMOERR_FORMAT);
  }
  free(text);
  return object;
}

/* A text; NULL for another kind, or with a NUL byte, behind which all texts look
 * equal. */
static const char *text_in(struct json_object *value) {
  if (!json_object_is_type(value, json_type_string)) return NULL;
  const char *text = json_object_get_string(value);
  return strlen(text) == (size_t)json_object_get_string_len(value) ? text : NULL;
}

static const char *text_of(struct json_object *object, const char *name) {
  struct json_object *value;

  return json_object_object_get_ex(object, name, &value) ? text_in(value) : NULL;
}

static int has(struct json_object *object, const char *name) {
  return json_object_object_get_ex(object, name, NULL);
}

static int equals(const char *a, const char *b) {
  return a != NULL && b != NULL && strcmp(a, b) == 0;
}

/* Whether an array holds the text. */
static int holds(struct json_object *array, const char *text) {
  if (!json_object_is_type(array, json_type_array)) return 0;
  for (size_t i = 0; i < json_object_array_length(array); i++) {
    if (equals(text_in(json_object_array_get_idx(array, i)), text)) return 1;
  }
  return 0;
}

static int lists(struct json_object *object, const char *name, const char *text) {
  struct json_object *array;

  return json_object_object_get_ex(object, name, &array) && holds(array, text);
}

/* What the key itself says that it is for. */
static int is_meant_for(struct json_object *key, const char *algorithm) {
  if (has(key, "alg") && !equals(text_of(key, "alg"), algorithm)) return 0;
  if (has(key, "use") && !equals(text_of(key, "use"), "sig")) return 0;
  return !has(key, "key_ops") || lists(key, "key_ops", "verify");
}

/* The algorithms that a key of this kind is for. A public key never checks a
 * message authentication code: anybody could make one with it. */
static int fits(struct json_object *key, const char *algorithm) {
  static const char *const rsa[] = {"RS256", "RS384", "RS512", "PS256", "PS384", "PS512", NULL};
  const char *kind = text_of(key, "kty");

  if (algorithm == NULL || !is_meant_for(key, algorithm)) return 0;
  if (equals(kind, "RSA")) {
    const char *modulus = text_of(key, "n");
    if (modulus == NULL || strlen(modulus) < MODULUS_SIZE) return 0;
    for (int i = 0; rsa[i] != NULL; i++) {
      if (equals(rsa[i], algorithm)) return 1;
    }
    return 0;
  }
  if (!equals(kind, "EC")) return 0;
  const char *curve = text_of(key, "crv");
  return (equals(curve, "P-256") && equals(algorithm, "ES256")) ||
         (equals(curve, "P-384") && equals(algorithm, "ES384")) ||
         (equals(curve, "P-521") && equals(algorithm, "ES512"));
}

static int verified_by(const struct cjose_calls *jose, const char *token, struct json_object *key) {
  const char *text = json_object_to_json_string(key);
  cjose_err error;
  int verified = 0;

  cjose_jwk_t *imported = jose->key_import(text, strlen(text), &error);
  /* A token is imported anew for each key: a failed check spoils it. */
  cjose_jws_t *signed_token = jose->import(token, strlen(token), &error);
  if (imported != NULL && signed_token != NULL) {
    verified = jose->verify(signed_token, imported, &error);
  }
  if (signed_token != NULL) jose->release(signed_token);
  if (imported != NULL) jose->key_release(imported);
  return verified;
}

/* Header members that bring a key along, or that must be understood. */
static int has_foreign_member(struct json_object *header) {
  static const char *const names[] = {"jku", "jwk", "x5u", "x5c", "crit", "zip", "b64", NULL};

  for (int i = 0; names[i] != NULL; i++) {
    if (has(header, names[i])) return 1;
  }
  return 0;
}

/* An access token is of another type, and no login. */
static int is_login_type(struct json_object *header) {
  if (!has(header, "typ")) return 1;
  const char *type = text_of(header, "typ");
  return type != NULL && strcasecmp(type, "JWT") == 0;
}

static int check_signature(const struct cjose_calls *jose, const char *token,
                           struct json_object *header, struct json_object *keys) {
  const int named = has(header, "kid");
  const char *algorithm = text_of(header, "alg");
  const char *name = text_of(header, "kid");

  if (has_foreign_member(header)) return refuse("its head brings a key or a rule along");
  if (!is_login_type(header)) return refuse("a token of another type");
  if (!named && json_object_array_length(keys) != 1) return refuse("it names no key");
  for (size_t i = 0; i < json_object_array_length(keys); i++) {
    struct json_object *key = json_object_array_get_idx(keys, i);
    if (!json_object_is_type(key, json_type_object) || !fits(key, algorithm)) continue;
    if (named && !equals(text_of(key, "kid"), name)) continue;
    if (verified_by(jose, token, key)) return 1;
  }
  return refuse("no key of the key set has signed it");
}

/* 1 and a number of seconds; 0 there is none; -1 something else stands there. */
static int number_of(struct json_object *claims, const char *name, int64_t *number) {
  struct json_object *value;

  if (!json_object_object_get_ex(claims, name, &value)) return 0;
  if (!json_object_is_type(value, json_type_int) && !json_object_is_type(value, json_type_double)) {
    return -1;
  }
  const double seconds = json_object_get_double(value);
  if (!(seconds >= 0 && seconds < 1e15)) return -1; /* nor what is no number at all */
  *number = (int64_t)seconds;
  return 1;
}

static int check_times(struct json_object *claims) {
  const int64_t now = time(NULL);
  int64_t expires, begins, issued;

  if (number_of(claims, "exp", &expires) != 1 || number_of(claims, "iat", &issued) != 1) {
    return refuse("times are missing");
  }
  if (expires + LEEWAY <= now) return refuse("expired");
  if (issued > now + LEEWAY) return refuse("issued in the future");
  const int has_begin = number_of(claims, "nbf", &begins);
  if (has_begin < 0 || (has_begin == 1 && begins > now + LEEWAY)) return refuse("not valid yet");
  return 1;
}

static int check_audience(struct json_object *claims, const char *audience) {
  struct json_object *value;

  if (!json_object_object_get_ex(claims, "aud", &value)) return refuse("no audience");
  if (!equals(text_in(value), audience) && !holds(value, audience)) {
    return refuse("for another audience");
  }
  const int several =
      json_object_is_type(value, json_type_array) && json_object_array_length(value) > 1;
  if ((several || has(claims, "azp")) && !equals(text_of(claims, "azp"), audience)) {
    return refuse("for another party");
  }
  return 1;
}

static int check_issuer(struct json_object *config, struct json_object *claims) {
  static const char place[] = "{tenantid}";
  const char *issuer = text_of(config, "issuer");
  const char *tenant = text_of(claims, "tid");
  const char *at = strstr(issuer, place);
  char expected[1024];

  if (at != NULL || has(config, "tenants")) {
    if (tenant == NULL || *tenant == '\0' || !lists(config, "tenants", tenant)) {
      return refuse("from another tenant");
    }
  }
  const int length = at == NULL
                         ? snprintf(expected, sizeof expected, "%s", issuer)
                         : snprintf(expected, sizeof expected, "%.*s%s%s", (int)(at - issuer),
                                    issuer, tenant, at + sizeof place - 1);
  if (length < 0 || (size_t)length >= sizeof expected) return refuse("the issuer is too long");
  return equals(text_of(claims, "iss"), expected) ? 1 : refuse("from another issuer");
}

static int check_nonce(struct json_object *claims, const char *nonce, BOOL required) {
  const int given = nonce != NULL && *nonce != '\0';

  if (!given) return required ? refuse("a nonce is required") : 1;
  return vemo_equal_constant_time(text_of(claims, "nonce"), nonce) ? 1 : refuse("another nonce");
}

/* A name that the name service can be asked for: no path, no option, no record. */
static int is_plain_name(const char *name) {
  char part[256];

  if (name == NULL || *name == '-' || *name == '\0') return 0;
  if (strchr(name, ':') != NULL || *name == ' ' || name[strlen(name) - 1] == ' ') return 0;
  return vemo_name_part(name, part, sizeof part) == 0;
}

static int take_user(struct json_object *config, struct json_object *claims, char *user, int size) {
  const char *claim = has(config, "claim") ? text_of(config, "claim") : "preferred_username";
  const char *name = claim == NULL ? NULL : text_of(claims, claim);

  if (!is_plain_name(name)) return refuse("names no account");
  /* A name that was cut would be another account's. */
  if (strlen(name) >= (size_t)size) return refuse("the account's name is too long");
  memcpy(user, name, strlen(name) + 1);
  return 1;
}

/* RFC 8176: the provider says that it saw more than one factor. */
static int has_factors(struct json_object *claims) {
  return lists(claims, "amr", "mfa");
}

/* The members of the token's head: the library's own reader tells texts only. */
static struct json_object *header_of(const struct cjose_calls *jose, const char *token) {
  cjose_err error;
  uint8_t *text;
  size_t size;

  if (!jose->decode(token, strcspn(token, "."), &text, &size, &error)) return NULL;
  struct json_object *header = parse((const char *)text, size);
  free(text);
  return header;
}

static struct json_object *claims_of(const struct cjose_calls *jose, const char *token,
                                     struct json_object *keys) {
  struct json_object *claims = NULL;
  cjose_err error;
  uint8_t *text;
  size_t size;

  cjose_jws_t *parsed = jose->import(token, strlen(token), &error);
  struct json_object *header = parsed == NULL ? NULL : header_of(jose, token);
  if (header == NULL) {
    refuse("no signed token");
  } else if (check_signature(jose, token, header, keys)) {
    if (jose->plaintext(parsed, &text, &size, &error)) claims = parse((const char *)text, size);
    if (claims == NULL) refuse("no claims");
  }
  json_object_put(header);
  if (parsed != NULL) jose->release(parsed);
  return claims;
}

static int verify(struct json_object *config, struct json_object *keys, const char *token,
                  const char *nonce, BOOL required, char *user, int size, int *strong) {
  struct cjose_calls jose;

  if (open_cjose(&jose) != 0) return fault("its library is missing");
  struct json_object *claims = claims_of(&jose, token, keys);
  if (claims == NULL) return 0;
  const int good = check_times(claims) && check_issuer(config, claims) &&
                   check_audience(claims, text_of(config, "audience")) &&
                   check_nonce(claims, nonce, required) && take_user(config, claims, user, size);
  *strong = good && has_factors(claims);
  json_object_put(claims);
  return good;
}

/* A configuration that lacks something lets nobody in. */
static int is_complete(struct json_object *config) {
  const char *names[] = {"issuer", "audience", "keys"};

  for (size_t i = 0; i < sizeof names / sizeof names[0]; i++) {
    const char *text = text_of(config, names[i]);
    if (text == NULL || *text == '\0') return 0;
  }
  return *text_of(config, "keys") == '/';
}

/* The configuration and its key set, read as root. 0; -1. */
static int load(const char *config_file, struct json_object **config,
                struct json_object **key_set) {
  uid_t before;

  if (vemo_root_begin(&before) != 0) return -1;
  *config = read_object(config_file, O_NOFOLLOW);
  if (*config != NULL && !is_complete(*config)) {
    errno = EINVAL;
    VEMO_FAIL(VEMOERR_FORMAT);
  } else if (*config != NULL) {
    *key_set = read_object(text_of(*config, "keys"), 0);
  }
  vemo_root_end(before);
  return *key_set == NULL ? -1 : 0;
}

int vemo_sso_verify(const char *config_file, const char *token, const char *nonce,
                    BOOL nonce_required, char *user, int size, int *strong) {
  struct json_object *config = NULL, *key_set = NULL, *keys;
  int result;

  *strong = 0;
  if (size > 0) *user = '\0';
  if (token == NULL || *token == '\0' || strlen(token) > TOKEN_LIMIT) return refuse("no token");
  if (load(config_file, &config, &key_set) != 0) {
    result = fault("its configuration or its key set cannot be used");
  } else if (!json_object_object_get_ex(key_set, "keys", &keys) ||
             !json_object_is_type(keys, json_type_array)) {
    VEMO_FAIL(VEMOERR_FORMAT);
    result = fault("its key set holds no keys");
  } else {
    result = verify(config, keys, token, nonce, nonce_required, user, size, strong);
  }
  json_object_put(key_set);
  json_object_put(config);
  return result;
}
