// The registry: style sheets and texts, all of them or those of one application.

#include <fcntl.h>
#include <unistd.h>
#include <webutils/cache.h>
#include <webutils/system_info.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <vector>

#include "common/working_directory.h"
#include "ui_config/js_config_parser.h"
#include "ui_config/localized_string_parser.h"
#include "ui_config/names.h"

namespace {

// The texts of a list; what is no text in it, or no list, is passed over.
std::vector<std::string> TextsOf(const Json::Value& list) {
  std::vector<std::string> texts;
  if (!list.isArray()) return texts;
  for (const Json::Value& element : list) {
    if (element.isString()) texts.push_back(element.asString());
  }
  return texts;
}

// An object's member, made when it is missing: callers of the registry see what was
// looked up, as null.
Json::Value& Lookup(Json::Value& object, const std::string& name) {
  if (!object.isObject()) object = Json::Value(Json::objectValue);
  return object[name];
}

bool HasMember(const Json::Value& object, const std::string& name) {
  return object.isObject() && object.isMember(name);
}

std::string TextOf(const Json::Value& value) { return value.isString() ? value.asString() : ""; }

std::string ApplicationOf(const char* application) {
  if (application != nullptr && *application != '\0') return application;
  const char* served = std::getenv("REWRITE_APP");
  return served == nullptr ? "" : served;
}

bool IsReadable(const std::string& path) {
  return path.find('\0') == std::string::npos &&
         faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) == 0;
}

}  // namespace

namespace VEMO::KTR {

void JSConfigParser::AddAdditionalCSSFiles(const std::string& id) {
  Json::Value& entry = Lookup(appConfig, id);
  if (entry.isNull()) return;
  const std::string base = TextOf(Lookup(entry, "jsBaseURL"));
  // In any case: the common part of the desktop knows the module's own sheet by this.
  Lookup(Lookup(entry, "css_file"), base + "/style.css") = true;

  for (const std::string& file : TextsOf(Lookup(entry, "additionalCSSFiles"))) {
    const std::string path = base + "/" + file;
    if (!IsReadable(path)) continue;
    entry["css_file"][path] = true;
    cssFiles.append(path + "?v=" + WebUtils::GetModifyTime(path.c_str()));
  }
}

void JSConfigParser::ProcessCSSFiles(const char* application) {
  const bool given = application != nullptr && *application != '\0';
  if (!given && std::getenv("REWRITE_APP") == nullptr) return;
  FilterAltPortCSSFiles(ApplicationOf(application));
}

void JSConfigParser::FilterAltPortCSSFiles(const std::string& application) {
  const Json::Value allowed = Lookup(Lookup(appConfig, application), "white_pkg_list");
  if (!allowed.isArray()) return;

  std::set<std::string> paths = {std::string(zem::kCommonSheet)};
  for (const std::string& id : TextsOf(allowed)) {
    const Json::Value& sheets = Lookup(Lookup(appConfig, id), "css_file");
    if (!sheets.isObject()) continue;
    const auto names = sheets.getMemberNames();
    paths.insert(names.begin(), names.end());
  }
  Json::Value kept(Json::arrayValue);
  for (const Json::Value& sheet : cssFiles) {
    const std::string text = TextOf(sheet), path = text.substr(0, text.rfind("?v="));
    if (HasMember(Lookup(Lookup(appConfig, application), "css_file"), path) ||
        paths.count(path) != 0) {
      kept.append(sheet);
    }
  }
  cssFiles.swap(kept);
}

void JSConfigParser::FilterAltPortStringFiles(const char* application) {
  const bool given = application != nullptr && *application != '\0';
  if (!given && std::getenv("REWRITE_APP") == nullptr) return;
  const std::string served = ApplicationOf(application);
  const Json::Value allowed = Lookup(Lookup(appConfig, served), "white_pkg_list");
  if (!allowed.isArray()) return;

  std::set<std::string> files;
  for (const std::string& id : TextsOf(allowed)) {
    const Json::Value& entry = Lookup(appConfig, id);
    if (HasMember(entry, "string_file")) files.insert(TextOf(entry["string_file"]));
  }
  Json::Value kept(Json::objectValue);
  for (auto entry = texts.begin(); entry != texts.end(); ++entry) {
    const std::string path = TextOf(*entry);
    if (path == TextOf(Lookup(Lookup(appConfig, served), "string_file")) ||
        files.count(path) != 0) {
      kept[entry.name()] = path;
    }
  }
  texts.swap(kept);
}

void JSConfigParser::ParseTexts(const std::string& prefix) {
  const zem::WorkingDirectory root(prefix == zem::kWebRootPrefix ? zem::kWebRoot
                                                                 : zem::kProgramRoot);
  for (auto entry = texts.begin(); entry != texts.end(); ++entry)
    moduleTexts[entry.name()] = LocalizedStringParser::ParseTexts(TextOf(*entry));
}

Json::Value JSConfigParser::GetModuleTexts() {
  if (moduleTexts.empty()) ParseTexts("vemoman");
  return moduleTexts;
}

}  // namespace VEMO::KTR

std::string GetPackageVersion(const Json::Value& document) {
  if (document.isObject()) {
    for (const Json::Value& member : document) {
      if (!member.isObject()) continue;
      for (const Json::Value& entry : member) {
        if (!HasMember(entry, "version")) continue;
        const Json::Value& version = entry["version"];
        if (!version.isArray() && !version.isObject()) return version.asString();
      }
    }
  }
  return WebUtils::GetVersion() + "-s" + WebUtils::GetSmallFixNum();
}
