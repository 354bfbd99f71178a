// registry.cgi: what the desktop consists of, in the caller's language.
//
//   GET [app=ID]    {"scripts": {path: {id: entry}}, "apps": {id: entry}, "styles": [url],
//                   "texts": {id: {section: {key: text}}}, "grantable": {"local": [id],
//                   "domain": [id]}, "language": code}
//                   With an id, or on a port that serves one application alone, the style
//                   sheets and texts of that one.
//
// The answer is the same for everybody who is logged in: who may use what is told by
// apps.cgi, and checked by each program. It is kept by browsers and asked for anew each time:
// its ETag changes with the address and with every byte of it, and an unchanged one is
// answered with 304.
#include <ui_config/js_config_parser.h>
#include <webutils/cache.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <string>

#include "common/json.h"
#include "programs/program.h"

namespace {

// FNV-1a, 64 bits. What it tells apart are states of our own files, so nobody has a reason to
// make two alike.
std::string DigestOf(const std::string& text) {
  std::uint64_t hash = 0xcbf29ce484222325;
  for (const char c : text)
    hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  char digits[17];
  std::snprintf(digits, sizeof digits, "%016" PRIx64, hash);
  return digits;
}

// What was not added to is null in the registry; clients get an empty one of its kind.
Json::Value OrEmpty(Json::Value value, Json::ValueType kind) {
  return value.isNull() ? Json::Value(kind) : value;
}

Json::Value RegistryFor(WebMan& request) {
  VEMO::KTR::JSConfigParser registry;
  registry.language = request.GetUILanguage();
  registry.debugMode = registry.InfoCheckValue("desktop_debug", "yes", false);
  registry.ParsePathFromVemoman(program::Field(request, "app").c_str());

  Json::Value data(Json::objectValue);
  data["scripts"] = OrEmpty(registry.GetJSConfigs(), Json::objectValue);
  data["apps"] = OrEmpty(registry.GetAppConfig(), Json::objectValue);
  data["styles"] = OrEmpty(registry.GetCSSFiles(), Json::arrayValue);
  data["texts"] = OrEmpty(registry.GetModuleTexts(), Json::objectValue);
  data["grantable"] = OrEmpty(registry.GetGrantableApps(), Json::objectValue);
  data["language"] = registry.language;
  return data;
}

}  // namespace

int main() {
  WebMan request(true);
  program::QueuePrivateHeaders(request);
  if (!request.IsAuthorized(nullptr, VEMOCGI_PRIV_USER, VEMOCGI_POS_DESKTOP)) return 0;
  Json::Value answer(Json::objectValue);
  answer["success"] = true;
  answer["data"] = RegistryFor(request);
  const std::string tag = WebUtils::CreateCGIETag() + "-" + DigestOf(zem::CompactJson(answer));
  if (WebUtils::OutputNotModifiedIfMatch(tag)) return 0;
  request.AddHeader("Cache-Control", "private, no-cache");
  request.AddHeader("Vary", "Cookie, Accept-Language");
  request.AddHeader("ETag", tag.c_str());
  request.WriteHeader("text/plain; charset=\"UTF-8\"");
  request.WriteBody(answer);
  return 0;
}
