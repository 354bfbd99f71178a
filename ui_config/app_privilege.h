/// \file app_privilege.h
/// Who may use which application of the desktop.
#ifndef ZEM_UI_CONFIG_APP_PRIVILEGE_H
#define ZEM_UI_CONFIG_APP_PRIVILEGE_H

#include <json/value.h>
#include <webutils/export.h>

#include <map>
#include <string>

namespace VEMO::KTR {

/// Answers whether users may use applications. Applications that their modules declare
/// grantable are allowed by the platform's store of grants, to everybody as it says, to
/// administrators too; all others are for administrators alone.
///
/// Making one reads the configuration of every module and package: make it once, and ask
/// it as often as needed. Nothing is logged; what cannot be told counts as no.
class ZEM_EXPORT AppPrivilege {
 public:
  AppPrivilege();
  ~AppPrivilege();
  AppPrivilege(const AppPrivilege&) = delete;
  AppPrivilege& operator=(const AppPrivilege&) = delete;

  /// Whether the user is an administrator; asked once for each name.
  bool IsAdminUser(const std::string& user);

  /// Whether the user may use the application.
  /// \param user a name with a backslash or an "@" is an account of a domain.
  /// \param application the id of its entry in the registry.
  /// \param address where the user comes from, for grants that depend on it: passed on
  ///     to the platform as it is.
  bool IsUserHasAppPriv(const std::string& user, const std::string& application,
                        const std::string& address);

 private:
  Json::Value grantableApps;
  std::map<std::string, bool> adminCache;
};

}  // namespace VEMO::KTR

#endif  // ZEM_UI_CONFIG_APP_PRIVILEGE_H
