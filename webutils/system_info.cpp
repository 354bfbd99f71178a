#include "webutils/system_info.h"

#include <vemo/core.h>

namespace {

constexpr char kVersionFile[] = "/etc.defaults/VERSION";

std::string VersionValue(const char* key, const char* otherwise) {
  char value[8];
  return VLIBCFileGetKeyValue(kVersionFile, key, value, sizeof value) < 1 ? otherwise : value;
}

}  // namespace

namespace WebUtils {

std::string GetVersion() {
  static const std::string version = VersionValue("buildnumber", "1");
  return version;
}

std::string GetSmallFixNum() {
  static const std::string number = VersionValue("smallfixnumber", "0");
  return number;
}

}  // namespace WebUtils
