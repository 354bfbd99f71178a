#include "webman/vemo_conf.h"

#include <strings.h>

#include "common/number.h"

namespace {

using Lookup = const char* (*)(VEMOCGI*, const char*, const char*);

bool CheckValue(Lookup lookup, VEMOCGI* context, const char* key, const char* value,
                bool whenMissing) {
  if (key == nullptr || value == nullptr) return false;
  const char* stored = lookup(context, key, nullptr);
  if (stored == nullptr) return whenMissing;
  return strcasecmp(stored, value) == 0;
}

}  // namespace

VemoConf::VemoConf() {
  VemoCgiInit("", &context_);
  VemoCgiLoadInfo(&context_);
}

VemoConf::~VemoConf() { VemoCgiFree(&context_); }

const char* VemoConf::Info(const char* key, const char* defaultValue) {
  return VemoCgiGetInfo(&context_, key, defaultValue);
}

int VemoConf::InfoInt(const char* key, int defaultValue) {
  const char* stored = VemoCgiGetInfo(&context_, key, nullptr);
  return stored == nullptr ? defaultValue : zem::ClampedInt(stored);
}

const char* VemoConf::Def(const char* key, const char* defaultValue) {
  return VemoCgiGetDef(&context_, key, defaultValue);
}

bool VemoConf::InfoCheckValue(const char* key, const char* value, bool whenMissing) {
  return CheckValue(VemoCgiGetInfo, &context_, key, value, whenMissing);
}

bool VemoConf::DefCheckValue(const char* key, const char* value, bool whenMissing) {
  return CheckValue(VemoCgiGetDef, &context_, key, value, whenMissing);
}
