// The registry: launchers of installed packages.

#include <fcntl.h>
#include <unistd.h>
#include <vemo/core.h>
#include <vemo/webserver.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/log.h"
#include "ui_config/js_config_parser.h"
#include "ui_config/module_walk.h"
#include "ui_config/names.h"

namespace {

constexpr int kPairCapacity = 1024;

using Pairs = std::unique_ptr<VEMOSZHASH, void (*)(VEMOSZHASH*)>;

// What tells the two kinds of launchers apart.
struct Launcher {
  const char* file;
  const char* id_prefix;
  const char* icons[2];
  bool may_be_embedded;
};

constexpr Launcher kMenu = {
    "/application.cfg", "VEMO.KTR._ThirdParty.App.", {"icon_16", "icon_32"}, true};
constexpr Launcher kShortcut = {
    "/desktop.cfg", "VEMO.KTR._ThirdParty.Desktop.", {"icon", nullptr}, false};

bool IsValue(const VEMOSZHASH* pairs, const char* key, const char* value) {
  const char* found = VLIBCSzHashGetValue(pairs, key);
  return found != nullptr && strcasecmp(found, value) == 0;
}

// The text of the language, else the one for all; null when there is neither.
const char* TextOf(const VEMOSZHASH* pairs, const char* key, const std::string& language) {
  char localized[1024];
  std::snprintf(localized, sizeof localized, "%s_%s", key, language.c_str());
  const char* text = VLIBCSzHashGetValue(pairs, localized);
  return text != nullptr ? text : VLIBCSzHashGetValue(pairs, key);
}

void CopyWhenGiven(const VEMOSZHASH* pairs, const char* key, Json::Value& entry) {
  const char* value = key == nullptr ? nullptr : VLIBCSzHashGetValue(pairs, key);
  if (value != nullptr) entry[key] = value;
}

}  // namespace

namespace VEMO::KTR {

void JSConfigParser::ParseThirdPartyDir(const std::string& prefix) {
  zem::WalkModules(prefix, "3rdparty", [this](const std::string& path, const std::string& name) {
    if (ParserJSConfig(path)) return;
    ParseThirdPartyAppConfig(path, name);
    ParseThirdPartyDesktopConfig(path, name);
  });
}

bool JSConfigParser::ParseThirdPartyAppConfig(const std::string& path, const std::string& name) {
  return ParseLauncher(false, path, name);
}

bool JSConfigParser::ParseThirdPartyDesktopConfig(const std::string& path,
                                                  const std::string& name) {
  return ParseLauncher(true, path, name);
}

bool JSConfigParser::ParseLauncher(bool desktop, const std::string& path, const std::string& name) {
  const Launcher& kind = desktop ? kShortcut : kMenu;
  const std::string file = path + kind.file;
  const Pairs hash(VLIBCSzHashAlloc(kPairCapacity), VLIBCSzHashFree);
  if (hash == nullptr) return false;
  if (faccessat(AT_FDCWD, file.c_str(), R_OK, AT_EACCESS) != 0) return false;
  VLIBCHashRemoveAll(hash.get());
  if (VLIBCFileGetPair(file.c_str(), hash.get()) < 0) {
    ZEM_LOG("%s:%d Failed to parse %s", zem::kJSConfigParserSource, file.c_str());
    return false;
  }

  const VEMOSZHASH* pairs = hash.get();
  Json::Value document(Json::objectValue);
  Json::Value& entry = document[".url"][kind.id_prefix + name];
  entry["allUsers"] = IsValue(pairs, "adminonly", "false");
  const char* title = TextOf(pairs, "text", language);
  if (title == nullptr) {
    ZEM_LOG("%s:%d %s: There is no text for the third party application.",
            zem::kJSConfigParserSource, file.c_str());
    title = "ThirdParty";
  }
  entry["title"] = title;
  const char* description = TextOf(pairs, "description", language);
  entry["desc"] = description == nullptr ? "" : description;
  for (const char* icon : kind.icons)
    CopyWhenGiven(pairs, icon, entry);
  CopyWhenGiven(pairs, "version", entry);
  entry["type"] = kind.may_be_embedded && IsValue(pairs, "type", "embedded") ? "legacy" : "url";
  entry["url"] =
      GetURL(VLIBCSzHashGetValue(pairs, "protocol"), VLIBCSzHashGetValue(pairs, "address"),
             VLIBCSzHashGetValue(pairs, "port"), VLIBCSzHashGetValue(pairs, "path"));
  RegisterJS(path, std::move(document));
  return true;
}

std::string JSConfigParser::GetURL(const char* protocol, const char* address, const char* port,
                                   const char* path) {
  vemow3::Engine engine;
  const vemow3::ZEM server(engine);
  const char* asked = std::getenv("HTTP_HOST");
  if (asked == nullptr) return "";
  const std::string host = asked;
  const size_t colon = host.find(':');
  const bool secure = std::getenv("HTTPS") != nullptr;

  std::string url = secure ? "https" : "http";
  if (protocol != nullptr &&
      (strcasecmp(protocol, "http") == 0 || strcasecmp(protocol, "https") == 0)) {
    url = protocol;
  }
  url += "://";
  url += address != nullptr ? std::string(address) : host.substr(0, colon);
  url += ":";
  if (port != nullptr) {
    url += port;
  } else if (colon != std::string::npos) {
    url += host.substr(colon + 1);
  } else {
    url += std::to_string(secure ? server.GetHttpsPort() : server.GetHttpPort());
  }
  return path == nullptr ? url : url + path;
}

}  // namespace VEMO::KTR
