/* The language of the user interface. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "cgi/state.h"

static const char fallback[] = "enu";

/* Language tags (RFC 5646) and the codes of the texts directories, more special
 * tags first. */
static const struct {
  const char *tag;
  const char *code;
} languages[] = {
    {"zh-tw", "cht"}, {"zh-hk", "cht"}, {"zh-hant", "cht"}, {"zh", "chs"}, {"pt-br", "ptb"},
    {"pt", "ptg"},    {"en", "enu"},    {"de", "ger"},      {"ja", "jpn"}, {"fr", "fre"},
    {"it", "ita"},    {"es", "spn"},    {"ko", "krn"},      {"nl", "nld"}, {"da", "dan"},
    {"no", "nor"},    {"nb", "nor"},    {"sv", "sve"},      {"ru", "rus"}, {"pl", "plk"},
    {"hu", "hun"},    {"tr", "trk"},    {"cs", "csy"},      {"th", "tha"},
};

/* A code becomes part of a path: three letters, and a texts directory. */
static int is_available(VEMOCGI *ctx, const char *code) {
  char path[4096];

  if (code == NULL || strlen(code) != 3 || strspn(code, "abcdefghijklmnopqrstuvwxyz") != 3) {
    return 0;
  }
  const int length = snprintf(path, sizeof path, "%s/texts/%s", ctx->state->text_dir, code);
  return length > 0 && (size_t)length < sizeof path && VLIBCFileCheckDir(path);
}

static const char *code_of_tag(const char *tag, size_t size) {
  for (size_t i = 0; i < sizeof languages / sizeof *languages; i++) {
    const size_t length = strlen(languages[i].tag);
    if (size >= length && strncasecmp(tag, languages[i].tag, length) == 0 &&
        (size == length || tag[length] == '-')) {
      return languages[i].code;
    }
  }
  return NULL;
}

/* The weight of a range, in thousandths (RFC 9110, section 12.4.2). */
static long weight_of(const char *range, size_t size) {
  const char *parameter = memchr(range, ';', size);

  if (parameter == NULL) return 1000;
  parameter++;
  parameter += strspn(parameter, " \t");
  if (strncasecmp(parameter, "q=", 2) != 0) return 1000;
  const double weight = strtod(parameter + 2, NULL);
  return weight >= 1 ? 1000 : (weight > 0 ? (long)(weight * 1000) : 0);
}

static const char *accepted(VEMOCGI *ctx) {
  const char *best = NULL;
  long best_weight = 0;

  for (const char *at = vemo_cgi_env("HTTP_ACCEPT_LANGUAGE"); *at != '\0';) {
    at += strspn(at, ", \t");
    const size_t size = strcspn(at, ",");
    const char *code = code_of_tag(at, strcspn(at, ",; \t"));
    const long weight = weight_of(at, size);
    if (weight > best_weight && is_available(ctx, code)) {
      best = code;
      best_weight = weight;
    }
    at += size;
  }
  return best;
}

static const char *choose(VEMOCGI *ctx) {
  /* A context that was made for its texts alone has not read the cookies. */
  if (ctx->state->cookies == NULL) VemoCgiLoadInCookies(ctx);
  const char *code = VemoCgiGetInCookies(ctx, "lang", NULL);

  if (is_available(ctx, code)) return code;
  code = vemo_cgi_config("language", "def");
  if (strcmp(code, "def") != 0 && is_available(ctx, code)) return code;
  code = accepted(ctx);
  return code == NULL ? fallback : code;
}

const char *VemoCgiGetLang(VEMOCGI *ctx) {
  if (!vemo_cgi_is_ready(ctx)) return fallback;
  if (ctx->state->language[0] == '\0') memcpy(ctx->state->language, choose(ctx), 4);
  return ctx->state->language;
}
