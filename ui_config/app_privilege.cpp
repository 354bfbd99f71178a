#include "ui_config/app_privilege.h"

#include <ui_config/js_config_parser.h>
#include <vemo/core.h>

namespace VEMO::KTR {

AppPrivilege::AppPrivilege() {
  JSConfigParser parser;
  parser.Parse(nullptr);
  grantableApps = parser.GetGrantableApps();
}

AppPrivilege::~AppPrivilege() = default;

bool AppPrivilege::IsAdminUser(const std::string& user) {
  const auto [known, added] = adminCache.try_emplace(user, false);
  if (added) known->second = VLIBGroupIsAdminGroupMem(user.c_str(), 0) == 1;
  return known->second;
}

bool AppPrivilege::IsUserHasAppPriv(const std::string& user, const std::string& application,
                                    const std::string& address) {
  const bool domain = user.find_first_of("\\@") != std::string::npos;
  for (const Json::Value& id : grantableApps[domain ? "domain" : "local"]) {
    if (id == application) {
      return VLIBAppPrivUserHas(user.c_str(), application.c_str(), address.c_str()) == 1;
    }
  }
  return IsAdminUser(user);
}

}  // namespace VEMO::KTR
