/* The system configuration. */
#include <strings.h>

#include "cgi/state.h"

static const char info_file[] = "/etc/vemoinfo.conf";
static const char defaults_file[] = "/etc.defaults/vemoinfo.conf";

int VemoCgiLoadInfo(VEMOCGI *ctx) {
  if (!vemo_cgi_is_ready(ctx)) return 0;
  ctx->state->info = vemo_keyvalue_cached(info_file);
  ctx->state->defaults = vemo_keyvalue_cached(defaults_file);
  return ctx->state->info != NULL || ctx->state->defaults != NULL;
}

static const char *lookup(const VEMOSZHASH *pairs, const char *key, const char *dflt) {
  const char *value = VLIBCSzHashGetValue(pairs, key);

  return value == NULL ? dflt : value;
}

const char *VemoCgiGetInfo(VEMOCGI *ctx, const char *key, const char *dflt) {
  return vemo_cgi_is_ready(ctx) ? lookup(ctx->state->info, key, dflt) : dflt;
}

const char *VemoCgiGetDef(VEMOCGI *ctx, const char *key, const char *dflt) {
  return vemo_cgi_is_ready(ctx) ? lookup(ctx->state->defaults, key, dflt) : dflt;
}

const char *vemo_cgi_config(const char *key, const char *dflt) {
  const char *value = VLIBCSzHashGetValue(vemo_keyvalue_cached(info_file), key);

  if (value == NULL) value = VLIBCSzHashGetValue(vemo_keyvalue_cached(defaults_file), key);
  return value == NULL ? dflt : value;
}

int vemo_cgi_config_is(const char *key, const char *value, const char *dflt) {
  return strcasecmp(vemo_cgi_config(key, dflt), value) == 0;
}
