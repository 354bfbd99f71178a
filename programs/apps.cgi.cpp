// apps.cgi: who may use which application.
//
//   GET  action=get      the caller's own: {"apps": [id], "admin": whether all others too}
//   GET  action=list     for administrators: [{"id", "title", "local", "domain",
//                        "grants": [{"kind", "name", "range"}]}], what can be granted, with
//                        grants of applications that are not there any more
//   POST action=grant    app=... kind=user|group|everyone [name=...] [range=...]
//   POST action=revoke   the same; both for administrators, with the token
//
// A range is an address or a network such as "192.168.1.0/24", from where the grant holds.
// Whether anything changed is told as {"changed": true|false}.
#include <ui_config/app_privilege.h>
#include <ui_config/js_config_parser.h>
#include <vemo/core.h>
#include <vemo/errors.h>

#include <cstdlib>
#include <map>
#include <string>

#include "programs/actions.h"
#include "programs/program.h"

namespace {

using program::Outcome;

const char* ClientAddress() {
  const char* address = std::getenv("REMOTE_ADDR");
  return address == nullptr ? "" : address;
}

VEMO::KTR::JSConfigParser& Registry(WebMan& request) {
  static VEMO::KTR::JSConfigParser registry;
  static bool parsed = false;
  if (!parsed) {
    registry.language = request.GetUILanguage();
    registry.ParsePathFromVemoman(nullptr);
    parsed = true;
  }
  return registry;
}

Outcome Get(WebMan& request) {
  const std::string user = request.GetLoginUserName();
  VEMO::KTR::AppPrivilege privilege;
  Outcome outcome;
  outcome.data["admin"] = privilege.IsAdminUser(user);
  outcome.data["apps"] = Json::Value(Json::arrayValue);
  const Json::Value apps = Registry(request).GetAppConfig();
  for (auto app = apps.begin(); app != apps.end(); ++app) {
    if (privilege.IsUserHasAppPriv(user, app.name(), ClientAddress())) {
      outcome.data["apps"].append(app.name());
    }
  }
  return outcome;
}

using Applications = std::map<std::string, Json::Value>;

Json::Value& EntryOf(Applications& list, const std::string& id) {
  Json::Value& entry = list[id];
  if (entry.isNull()) {
    entry["id"] = id;
    entry["title"] = id;
    entry["local"] = entry["domain"] = false;
    entry["grants"] = Json::Value(Json::arrayValue);
  }
  return entry;
}

void AddGrantable(WebMan& request, Applications& list) {
  const Json::Value grantable = Registry(request).GetGrantableApps();
  const Json::Value scripts = Registry(request).GetJSConfigs();
  for (const char* kind : {"local", "domain"}) {
    for (const Json::Value& id : grantable[kind])
      EntryOf(list, id.asString())[kind] = true;
  }
  for (const Json::Value& script : scripts) {
    for (auto entry = script.begin(); entry != script.end(); ++entry) {
      const auto found = list.find(entry.name());
      const Json::Value& title = (*entry)["title"];
      if (found != list.end() && title.isString()) found->second["title"] = title;
    }
  }
}

int AddGrant(const char* app, const char* kind, const char* name, const char* range, void* data) {
  Json::Value grant;
  grant["kind"] = kind;
  grant["name"] = name;
  grant["range"] = range;
  EntryOf(*static_cast<Applications*>(data), app)["grants"].append(grant);
  return 0;
}

Outcome List(WebMan& request) {
  Applications list;
  AddGrantable(request, list);
  if (VLIBAppPrivEnum(AddGrant, &list) < 0) return {"error_system"};
  Outcome outcome;
  outcome.data = Json::Value(Json::arrayValue);
  for (const auto& [id, entry] : list)
    outcome.data.append(entry);
  return outcome;
}

bool IsIn(const Json::Value& list, const std::string& id) {
  for (const Json::Value& entry : list) {
    if (entry.asString() == id) return true;
  }
  return false;
}

// A grant that could never count is refused: the platform would keep it, and nobody would
// know why it does nothing.
bool IsGrantable(WebMan& request, const std::string& app, const std::string& kind,
                 const std::string& name) {
  const Json::Value grantable = Registry(request).GetGrantableApps();
  const bool local = IsIn(grantable["local"], app);
  const bool domain = IsIn(grantable["domain"], app);
  if (kind != "user") return local || domain;
  return name.find_first_of("\\@") == std::string::npos ? local : domain;
}

const char* ErrorOf(int code) {
  switch (code) {
    case VEMOERR_BAD_PARAM:
      return "error_request";
    case VEMOERR_NO_USER:
      return "error_no_user";
    case VEMOERR_NO_GROUP:
      return "error_no_group";
    default:
      return "error_system";
  }
}

template <int (*Change)(const char* app, const char* kind, const char* name, const char* range)>
Outcome Do(WebMan& request) {
  const std::string app = program::Field(request, "app"), kind = program::Field(request, "kind"),
                    name = program::Field(request, "name"),
                    range = program::Field(request, "range");
  if (!program::IsUtf8(app.c_str()) || !program::IsUtf8(name.c_str())) return {"error_request"};
  if (Change == VLIBAppPrivGrant && !IsGrantable(request, app, kind, name)) {
    return {"error_not_grantable"};
  }
  const int changed = Change(app.c_str(), kind.c_str(), name.c_str(), range.c_str());
  if (changed < 0) return {ErrorOf(VLIBCErrGet())};
  Outcome outcome;
  outcome.data["changed"] = changed > 0;
  return outcome;
}

constexpr program::Action kActions[] = {
    {"get", VEMOCGI_PRIV_USER, false, Get},
    {"list", VEMOCGI_PRIV_ADMIN, false, List},
    {"grant", VEMOCGI_PRIV_ADMIN, true, Do<VLIBAppPrivGrant>},
    {"revoke", VEMOCGI_PRIV_ADMIN, true, Do<VLIBAppPrivRevoke>},
};

}  // namespace

int main() {
  WebMan request(true);
  program::Serve(request, kActions);
  return 0;
}
