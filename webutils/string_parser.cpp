#include "webutils/string_parser.h"

#include <vemo/core.h>

#include <cstdio>
#include <cstring>

#include "webutils/paths.h"

namespace VEMO::KTR {
namespace {

std::string GetConfValueOrDefault(const char* key, const std::string& defaultValue) {
  char buffer[1024] = "";
  if (VLIBCFileGetKeyValue(zem::kDefaultsFile, key, buffer, sizeof buffer) < 1) {
    std::memset(buffer, 0, sizeof buffer);
    const int length = std::snprintf(buffer, sizeof buffer, "%s", defaultValue.c_str());
    if (length < 0 || static_cast<size_t>(length) >= sizeof buffer) return defaultValue;
  }
  return buffer;
}

}  // namespace

std::string StringParser::ReplaceString(const std::string& text, const std::string& pattern,
                                        const std::string& value) {
  std::string result = text;
  if (pattern.empty()) return result;
  for (size_t at = 0; (at = result.find(pattern, at)) != std::string::npos; at += value.size()) {
    result.replace(at, pattern.size(), value);
  }
  return result;
}

std::string StringParser::ReplaceStringText(const std::string& text) {
  static const std::string product = GetConfValueOrDefault("product", "CrateServer");
  static const std::string os_name = GetConfValueOrDefault("os_name", "ZEM");

  std::string result = ReplaceString(text, "_CRATESERVER_", product);
  result = ReplaceString(result, "%CRATESERVER%", product);
  result = ReplaceString(result, "_OSNAME_", os_name);
  return ReplaceString(result, "%OSNAME%", os_name);
}

}  // namespace VEMO::KTR
