/* ID tokens of single sign-on. */
#include "cgi/sso.h"

#include <cjose/cjose.h>
#include <dlfcn.h>
#include <json-c/json.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <time.h>

#include "cgi/state.h"

enum { TOKEN_LIMIT = 16384, FILE_LIMIT = 1 << 20, DEPTH = 16, LEEWAY = 60 };

struct cjose_calls {
  cjose_jws_t *(*import)(const char *, size_t, cjose_err *);
  bool (*verify)(cjose_jws_t *, const cjose_jwk_t *, cjose_err *);
  bool (*plaintext)(const cjose_jws_t *, uint8_t **, size_t *, cjose_err *);
  cjose_header_t *(*header)(cjose_jws_t *);
  const char *(*header_get)(cjose_header_t *, const char *, cjose_err *);
  char *(*header_get_raw)(cjose_header_t *, const char *, cjose_err *);
  void (*release)(cjose_jws_t *);
  cjose_jwk_t *(*key_import)(const char *, size_t, cjose_err *);
  bool (*key_release)(cjose_jwk_t *);
};

/* Why a token is refused: for the log, not for the client. */
static int refuse(const char *why) {
  syslog(LOG_AUTH | LOG_WARNING, "single sign-on refused: %s", why);
  return 0;
}

static int find(void *library, const char *name, void *function) {
  void *found = dlsym(library, name);

  memcpy(function, &found, sizeof found);
  return found == NULL;
}

static int open_cjose(struct cjose_calls *jose) {
  void *library = dlopen("libcjose.so.0", RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);

  if (library == NULL || find(library, "cjose_jws_import", &jose->import) ||
      find(library, "cjose_jws_verify", &jose->verify) ||
      find(library, "cjose_jws_get_plaintext", &jose->plaintext) ||
      find(library, "cjose_jws_get_protected", &jose->header) ||
      find(library, "cjose_header_get", &jose->header_get) ||
      find(library, "cjose_header_get_raw", &jose->header_get_raw) ||
      find(library, "cjose_jws_release", &jose->release) ||
      find(library, "cjose_jwk_import", &jose->key_import) ||
      find(library, "cjose_jwk_release", &jose->key_release)) {
    VEMO_FAIL(VEMOERR_NO_SERVICE);
    return -1;
  }
  return 0;
}

static struct json_object *parse(const char *text, size_t size) {
  struct json_tokener *reader = json_tokener_new_ex(DEPTH);
  if (reader == NULL) return NULL;
  struct json_object *object = json_tokener_parse_ex(reader, text, (int)size);
  if (json_tokener_get_error(reader) != json_tokener_success ||
      !json_object_is_type(object, json_type_object)) {
    json_object_put(object);
    object = NULL;
  }
  json_tokener_free(reader);
  return object;
}

static struct json_object *read_object(const char *path) {
  size_t size;
  char *text = vemo_read_file(path, 0, FILE_LIMIT, &size, NULL);

  if (text == NULL) return NULL;
  struct json_object *object = parse(text, size);
  free(text);
  if (object == NULL) VEMO_FAIL(VEMOERR_FORMAT);
  return object;
}

/* A text member; NULL when it is missing or of another kind. */
static const char *text_of(struct json_object *object, const char *name) {
  struct json_object *value;

  if (!json_object_object_get_ex(object, name, &value)) return NULL;
  if (!json_object_is_type(value, json_type_string)) return NULL;
  const char *text = json_object_get_string(value);
  /* A NUL byte within would make two texts look equal. */
  return strlen(text) == (size_t)json_object_get_string_len(value) ? text : NULL;
}

static int equals(const char *a, const char *b) {
  return a != NULL && b != NULL && strcmp(a, b) == 0;
}

/* The algorithms that a key of this kind is for. A public key never checks a
 * message authentication code: anybody could make one with it. */
static int fits(struct json_object *key, const char *algorithm) {
  static const char *const rsa[] = {"RS256", "RS384", "RS512", "PS256", "PS384", "PS512", NULL};
  const char *kind = text_of(key, "kty");
  const char *wanted = text_of(key, "alg");
  const char *use = text_of(key, "use");

  if (algorithm == NULL || (wanted != NULL && !equals(wanted, algorithm))) return 0;
  if (use != NULL && !equals(use, "sig")) return 0;
  if (equals(kind, "RSA")) {
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

/* Header members that tell where to find a key, or that must be understood. */
static int has_foreign_header(const struct cjose_calls *jose, cjose_header_t *header) {
  static const char *const names[] = {"jku", "jwk", "x5u", "x5c", "crit", "zip", NULL};

  for (int i = 0; names[i] != NULL; i++) {
    cjose_err error;
    char *raw = jose->header_get_raw(header, names[i], &error);
    const int present = raw != NULL;
    free(raw);
    if (present) return 1;
  }
  return 0;
}

static int check_signature(const struct cjose_calls *jose, const char *token,
                           cjose_header_t *header, struct json_object *key_set) {
  struct json_object *keys;
  cjose_err error;

  const char *algorithm = jose->header_get(header, "alg", &error);
  const char *name = jose->header_get(header, "kid", &error);
  if (has_foreign_header(jose, header)) return refuse("header names a key of its own");
  if (!json_object_object_get_ex(key_set, "keys", &keys) ||
      !json_object_is_type(keys, json_type_array)) {
    return refuse("no key set");
  }
  for (size_t i = 0; i < json_object_array_length(keys); i++) {
    struct json_object *key = json_object_array_get_idx(keys, i);
    if (!json_object_is_type(key, json_type_object) || !fits(key, algorithm)) continue;
    if (name != NULL && !equals(text_of(key, "kid"), name)) continue;
    if (verified_by(jose, token, key)) return 1;
  }
  return refuse("no key of the key set has signed it");
}

static int number_of(struct json_object *claims, const char *name, int64_t *number) {
  struct json_object *value;

  if (!json_object_object_get_ex(claims, name, &value)) return 0;
  if (!json_object_is_type(value, json_type_int) && !json_object_is_type(value, json_type_double)) {
    return -1;
  }
  *number = json_object_get_int64(value);
  return 1;
}

static int check_times(struct json_object *claims) {
  const int64_t now = time(NULL);
  int64_t expires, begins, issued;

  if (number_of(claims, "exp", &expires) != 1 || number_of(claims, "iat", &issued) != 1) {
    return refuse("times are missing");
  }
  if (expires < now - LEEWAY) return refuse("expired");
  if (issued > now + LEEWAY) return refuse("issued in the future");
  const int has_begin = number_of(claims, "nbf", &begins);
  if (has_begin < 0 || (has_begin == 1 && begins > now + LEEWAY)) return refuse("not valid yet");
  return 1;
}

static int check_audience(struct json_object *claims, const char *audience) {
  struct json_object *value;
  int found = 0;

  if (audience == NULL || !json_object_object_get_ex(claims, "aud", &value)) {
    return refuse("no audience");
  }
  size_t count = 1;
  if (json_object_is_type(value, json_type_array)) {
    count = json_object_array_length(value);
    for (size_t i = 0; i < count; i++) {
      struct json_object *one = json_object_array_get_idx(value, i);
      found |= json_object_is_type(one, json_type_string) &&
               equals(json_object_get_string(one), audience);
    }
  } else {
    found = equals(text_of(claims, "aud"), audience);
  }
  if (!found) return refuse("for another audience");
  const char *party = text_of(claims, "azp");
  const int has_party = json_object_object_get_ex(claims, "azp", &value);
  if ((count > 1 || has_party) && !equals(party, audience)) return refuse("for another party");
  return 1;
}

static int is_listed(struct json_object *config, const char *tenant) {
  struct json_object *tenants;

  if (!json_object_object_get_ex(config, "tenants", &tenants) ||
      !json_object_is_type(tenants, json_type_array)) {
    return 0;
  }
  for (size_t i = 0; i < json_object_array_length(tenants); i++) {
    struct json_object *one = json_object_array_get_idx(tenants, i);
    if (json_object_is_type(one, json_type_string) && equals(json_object_get_string(one), tenant)) {
      return 1;
    }
  }
  return 0;
}

static int check_issuer(struct json_object *config, struct json_object *claims) {
  static const char place[] = "{tenantid}";
  const char *issuer = text_of(config, "issuer");
  const char *tenant = text_of(claims, "tid");
  char expected[1024];

  if (issuer == NULL) return refuse("no issuer is configured");
  const char *at = strstr(issuer, place);
  if (at == NULL) {
    return equals(text_of(claims, "iss"), issuer) ? 1 : refuse("from another issuer");
  }
  if (tenant == NULL || !is_listed(config, tenant)) return refuse("from another tenant");
  const int length = snprintf(expected, sizeof expected, "%.*s%s%s", (int)(at - issuer), issuer,
                              tenant, at + sizeof place - 1);
  if (length < 0 || (size_t)length >= sizeof expected) return refuse("the issuer is too long");
  return equals(text_of(claims, "iss"), expected) ? 1 : refuse("from another issuer");
}

static int check_nonce(struct json_object *claims, const char *nonce, BOOL required) {
  const int given = nonce != NULL && *nonce != '\0';

  if (!given) return required ? refuse("a nonce is required") : 1;
  return vemo_equal_constant_time(text_of(claims, "nonce"), nonce) ? 1 : refuse("another nonce");
}

/* The account that the claim names: a plain name, no path, no option. */
static int take_user(struct json_object *config, struct json_object *claims, char *user, int size) {
  const char *claim = text_of(config, "claim");
  const char *name = text_of(claims, claim == NULL ? "preferred_username" : claim);
  char part[256];

  if (name == NULL || *name == '-' || vemo_name_part(name, part, sizeof part) != 0) {
    return refuse("names no account");
  }
  const int length = snprintf(user, (size_t)size, "%s", name);
  return length < 0 || length >= size ? refuse("the account's name is too long") : 1;
}

/* RFC 8176: the provider says that it saw more than one factor. */
static int has_factors(struct json_object *claims) {
  struct json_object *methods;

  if (!json_object_object_get_ex(claims, "amr", &methods) ||
      !json_object_is_type(methods, json_type_array)) {
    return 0;
  }
  for (size_t i = 0; i < json_object_array_length(methods); i++) {
    struct json_object *one = json_object_array_get_idx(methods, i);
    if (json_object_is_type(one, json_type_string) && equals(json_object_get_string(one), "mfa")) {
      return 1;
    }
  }
  return 0;
}

static struct json_object *claims_of(const struct cjose_calls *jose, const char *token,
                                     struct json_object *key_set) {
  struct json_object *claims = NULL;
  cjose_err error;
  uint8_t *text;
  size_t size;

  cjose_jws_t *parsed = jose->import(token, strlen(token), &error);
  if (parsed == NULL) {
    refuse("no signed token");
    return NULL;
  }
  if (check_signature(jose, token, jose->header(parsed), key_set) &&
      jose->plaintext(parsed, &text, &size, &error)) {
    claims = parse((const char *)text, size);
    if (claims == NULL) refuse("no claims");
  }
  jose->release(parsed);
  return claims;
}

static int verify(struct json_object *config, const char *token, const char *nonce, BOOL required,
                  char *user, int size, int *strong) {
  struct cjose_calls jose;
  const char *key_file = text_of(config, "keys");

  if (key_file == NULL || open_cjose(&jose) != 0) return -1;
  struct json_object *key_set = read_object(key_file);
  if (key_set == NULL) return -1;
  struct json_object *claims = claims_of(&jose, token, key_set);
  json_object_put(key_set);
  if (claims == NULL) return 0;
  const int good = check_times(claims) && check_issuer(config, claims) &&
                   check_audience(claims, text_of(config, "audience")) &&
                   check_nonce(claims, nonce, required) && take_user(config, claims, user, size);
  *strong = has_factors(claims);
  json_object_put(claims);
  return good;
}

int vemo_sso_verify(const char *config_file, const char *token, const char *nonce,
                    BOOL nonce_required, char *user, int size, int *strong) {
  *strong = 0;
  if (token == NULL || *token == '\0' || strlen(token) > TOKEN_LIMIT) return refuse("no token");
  struct json_object *config = read_object(config_file);
  if (config == NULL) {
    refuse("it is not configured");
    return -1;
  }
  const int result = verify(config, token, nonce, nonce_required, user, size, strong);
  json_object_put(config);
  return result;
}
