#include "webutils/system_info.h"

#include <sys/stat.h>
#include <vemo/core.h>
#include <vemo/fs.h>
#include <vemo/mail.h>
#include <webutils/string_bundle.h>

#include <cstdio>
#include <memory>

#include "common/log.h"
#include "webutils/paths.h"

namespace {

constexpr char kVersionFile[] = "/etc.defaults/VERSION";
constexpr int kHashCapacity = 512;

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

bool IsMountPoint(std::string path) {
  const int result = VEMOFSDirIsMntPoint(path.c_str());
  if (result < 0) {
    ZEM_LOG("%s:%d VEMOFSDirIsMntPoint(%s) fail" ZEM_LOG_PLATFORM_FORMAT, zem::kWebutilsSource,
            path.c_str(), ZEM_LOG_PLATFORM_ARGS);
  }
  return result == 1;
}

std::string getMountType(std::string path) {
  // The table first: a file system that does not answer is not asked.
  int type = VEMOFSIsInMountTable(path.c_str());
  if (type == -1) type = VEMOGetFSType(path.c_str(), 0);
  if (VEMOFSIsImageFS(type) == 1) return "iso";
  if (VEMOFSIsRemoteFS(type) != 1) return "";
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? "remote" : "remotefail";
}

void GetServiceEnabled(Json::Value&) {}

void SendUserInfoMail(const std::string& user, const std::string& password,
                      const std::string& recipient, const std::string& mailTemplate,
                      bool includePassword) {
  if (recipient.empty()) return;
  const std::unique_ptr<VEMOSZHASH, void (*)(VEMOSZHASH*)> values(VLIBCSzHashAlloc(kHashCapacity),
                                                                  VLIBCSzHashFree);
  if (values == nullptr) return;

  StringBundle texts("common", nullptr, nullptr, nullptr, nullptr, nullptr);
  VLIBCSzHashSetValue(values.get(), "%USER_NAME%", user.c_str());
  char shown[255];
  std::snprintf(shown, sizeof shown, "%s",
                !includePassword   ? "********"
                : password.empty() ? texts.Text("no_pw", "")
                                   : password.c_str());
  VLIBCSzHashSetValue(values.get(), "%PASSWD%", shown);
  explicit_bzero(shown, sizeof shown);
  VEMOMailSendMessageWithoutBlock(mailTemplate.c_str(), values.get(), recipient.c_str(), nullptr);
}

}  // namespace WebUtils
