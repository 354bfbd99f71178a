#include "ui_config/js_config_parser.h"

#include <fcntl.h>
#include <unistd.h>
#include <webutils/cache.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "common/file.h"
#include "common/json.h"
#include "common/log.h"
#include "ui_config/module_walk.h"
#include "ui_config/names.h"

namespace VEMO::KTR {
namespace {

constexpr std::string_view kNoFile = ".url";  // entries that have no script
constexpr char kEnglish[] = "enu";

// Names from documents may hold NUL bytes, which end a path for the kernel.
bool IsReadable(const std::string& path) {
  if (path.find('\0') != std::string::npos) {
    errno = ENOENT;
    return false;
  }
  return faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) == 0;
}

// An empty list stands for no entries; tools that write configurations in other
// languages cannot tell the two apart.
bool MakeObject(Json::Value& value) {
  if (value.isArray() && value.empty()) value = Json::Value(Json::objectValue);
  return value.isObject();
}

void LogNoObject(const std::string& what) {
  ZEM_LOG("%s:%d Skip %s: Config is not an object.", zem::kJSConfigParserSource, what.c_str());
}

// A text as it stands, without a copy; empty for what is none.
std::string_view ViewOf(const Json::Value& value) {
  const char *begin, *end;
  if (!value.isString() || !value.getString(&begin, &end)) return {};
  return {begin, static_cast<size_t>(end - begin)};
}

bool IsApplication(const Json::Value& entry) {
  const std::string_view type = ViewOf(entry["type"]);
  return type == "standalone" || type == "app" || type == "common_lib";
}

}  // namespace

JSConfigParser::JSConfigParser() : language(kEnglish) {}

JSConfigParser::~JSConfigParser() = default;

void JSConfigParser::Parse(const char* application) {
  ParseModuleDir("webman");
  ParseThirdPartyDir("webman");
  ProcessCSSFiles(application);
  FilterAltPortStringFiles(application);
}

void JSConfigParser::ParsePathFromVemoman(const char* application) {
  ParseModuleDir("vemoman");
  ParseThirdPartyDir("vemoman");
  ProcessCSSFiles(application);
  FilterAltPortStringFiles(application);
}

void JSConfigParser::ParseModuleDir(const std::string& prefix) {
  zem::WalkModules(prefix, "modules",
                   [this](const std::string& path, const std::string&) { ParserJSConfig(path); });
}

bool JSConfigParser::ParserJSConfig(const std::string& directory) {
  const std::string sheet = directory + "/style.css", config = directory + "/config";
  zem::Descriptor file =
      debugMode ? zem::OpenRegularFile((config + ".debug").c_str()) : zem::Descriptor();
  const zem::Descriptor plain = file ? std::move(file) : zem::OpenRegularFile(config.c_str());
  std::string text, error;
  if (!plain || !zem::ReadAll(plain.get(), text)) return false;

  Json::Value document;
  if (!zem::ParseJsonInto(text.data(), text.size(), document, &error)) {
    ZEM_LOG("%s:%d %s: %s\n", zem::kJSConfigParserSource, config.c_str(), error.c_str());
    return false;
  }
  RegisterJS(directory, std::move(document));
  // The time of the configuration, not of the sheet: browsers fetch a module's sheet
  // again when its configuration has changed.
  if (IsReadable(sheet)) {
    cssFiles.append(sheet + "?v=" + WebUtils::GetModifyTime(config.c_str()));
  }
  return true;
}

void JSConfigParser::RegisterJS(const std::string& directory, Json::Value config) {
  if (!config.isObject()) {
    LogNoObject(directory);
    return;
  }
  for (auto section = config.begin(); section != config.end(); ++section)
    RegisterFile(directory, section.name(), *section);
}

void JSConfigParser::RegisterFile(const std::string& directory, const std::string& file,
                                  Json::Value& section) {
  const std::string path = directory + "/" + file;
  if (file != kNoFile && !IsReadable(path)) {
    ZEM_LOG("%s:%d Skip %s: %s.", zem::kJSConfigParserSource, path.c_str(), std::strerror(errno));
    return;
  }
  if (!MakeObject(section)) {
    LogNoObject(path);
    return;
  }
  for (auto entry = section.begin(); entry != section.end(); ++entry)
    RegisterEntry(directory, path, entry.name(), *entry);
}

void JSConfigParser::RegisterEntry(const std::string& directory, const std::string& path,
                                   const std::string& id, Json::Value& entry) {
  if (!MakeObject(entry)) {
    LogNoObject(id);
    return;
  }
  entry["jsBaseURL"] = directory;
  entry["jsID"] = id;
  const Json::Value& registered = jsConfigs[path][id] = std::move(entry);

  const std::string_view grant = ViewOf(registered["grantPrivilege"]);
  if (grant == "all" || grant == "local") grantableApps["local"].append(id);
  if (grant == "all" || grant == "domain") grantableApps["domain"].append(id);
  if (IsApplication(registered)) {
    appConfig[id] = registered;
    AddAdditionalCSSFiles(id);
  }
  RegisterTexts(directory, id, registered);
}

// Also for entries that are no applications: these are found among the applications with
// this one key, which the desktop's loader of texts looks for.
void JSConfigParser::RegisterTexts(const std::string& directory, const std::string& id,
                                   const Json::Value& entry) {
  const Json::Value& folder = entry["texts"];
  if (!folder.isString()) return;
  const std::string folders = directory + "/" + folder.asString() + "/";
  std::string file = folders + language;
  if (!IsReadable(file)) file = folders + kEnglish;
  texts[id] = file;
  appConfig[id]["string_file"] = file;
}

void JSConfigParser::Clear() {
  appConfig.clear();
  jsConfigs.clear();
  cssFiles.clear();
  texts.clear();
}

Json::Value JSConfigParser::GetJSConfigs() const { return jsConfigs; }
Json::Value JSConfigParser::GetAppConfig() const { return appConfig; }
Json::Value JSConfigParser::GetCSSFiles() const { return cssFiles; }
Json::Value JSConfigParser::GetTexts() const { return texts; }
Json::Value JSConfigParser::GetGrantableApps() const { return grantableApps; }

}  // namespace VEMO::KTR
