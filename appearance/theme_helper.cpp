#include "appearance/theme_helper.h"

#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>
#include <vemo/core.h>

#include <utility>

#include "appearance/names.h"
#include "common/json_file.h"
#include "common/log.h"

namespace {

constexpr int kThemeNameSize = 256;

// The member as a path; a text with a NUL byte would name another file.
bool PathIn(const Json::Value& mapping, const char* name, std::string& path) {
  const Json::Value& member = mapping[name];
  if (!member.isString()) return false;
  path = member.asString();
  return path.find('\0') == std::string::npos;
}

void Map(const std::string& source, const std::string& target) {
  if (unlink(target.c_str()) != 0) {
    ZEM_LOG("%s:%d unlink failed: %s", zem::kThemeSource, target.c_str());
  }
  struct stat status;
  if (stat(source.c_str(), &status) != 0) {
    ZEM_LOG("%s:%d link source %s does not exist.", zem::kThemeSource, source.c_str());
    return;
  }
  if (utime(source.c_str(), nullptr) != 0) {
    ZEM_LOG("%s:%d update utime failed: %s", zem::kThemeSource, source.c_str());
  }
  if (symlink(source.c_str(), target.c_str()) != 0) {
    ZEM_LOG("%s:%d symlink failed:%s to %s", zem::kThemeSource, source.c_str(), target.c_str());
  }
}

}  // namespace

namespace VEMO::KTR {

Json::Value ThemeGetter::GetThemeByKey(const std::string& key) {
  if (!document_.isObject()) return Json::Value();
  const Json::Value* member = document_.find(key.data(), key.data() + key.size());
  return member == nullptr ? Json::Value() : *member;
}

JsonThemeGetter::JsonThemeGetter(Json::Value document) { document_ = std::move(document); }

bool ThemeHelper::Parse() { return Parse(zem::kThemeFile); }

bool ThemeHelper::Parse(const std::string& path) {
  Clear();
  return zem::JsonFromFile(document_, path);
}

void ThemeHelper::Clear() { document_ = Json::Value(); }

JsonThemeGetter ThemeHelper::GetTheme(const std::string& theme) {
  return JsonThemeGetter(GetThemeByKey(theme));
}

void ThemeHelper::Action(const std::string& theme, const std::string& action) {
  const Json::Value steps = GetTheme(theme).GetThemeByKey(action);
  if (!steps.isObject() || !steps.isMember("mappings")) return;
  const Json::Value& mappings = steps["mappings"];
  if (!mappings.isArray()) {
    ZEM_LOG("%s:%d can not get mappings info", zem::kThemeSource);
    return;
  }
  for (const Json::Value& mapping : mappings) {
    std::string source, target;
    if (mapping.isObject() && PathIn(mapping, "source", source) &&
        PathIn(mapping, "target", target)) {
      Map(source, target);
    }
  }
}

}  // namespace VEMO::KTR

namespace WebUtils {

std::string getThemeCls() {
  char theme[kThemeNameSize];
  const int found = VLIBCFileGetKeyValue(zem::kSettingsFile, "theme", theme, sizeof theme);
  return found > 0 ? theme : "default";
}

}  // namespace WebUtils
