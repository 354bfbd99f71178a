// groupsettings.cgi: the settings that the administrators share, for administrators. Its
// actions and parameters: settings_form.h, and
//
//   GET  action=get    when they were changed last, so that a window that stays open asks
//                      again only then: {"mtime": seconds since the epoch, 0 for never}
#include "programs/program.h"
#include "programs/settings_form.h"

namespace {

constexpr char kGroup[] = "administrators";

class GroupSettings : public program::SettingsForm {
 public:
  bool Authenticate() override {
    return request().IsAuthorized(nullptr, VEMOCGI_PRIV_ADMIN, VEMOCGI_POS_DESKTOP);
  }

 protected:
  bool Begin() override { return true; }
  bool LoadDocument(Json::Value& settings) override {
    return request().loadGroupJsonSettings(settings);
  }
  bool SaveDocument(Json::Value& settings) override {
    return request().saveGroupJsonSettings(settings);
  }
  std::string Directory() override { return request().GetGroupPreferenceDir(kGroup); }

  bool Other(const std::string& action) override {
    if (action != "get") return SettingsForm::Other(action);
    unsigned long long mtime = 0;
    request().getGrpJsonSettingMtime(kGroup, mtime);
    Json::Value data(Json::objectValue);
    data["mtime"] = Json::UInt64(mtime);
    ReportSuccess(data);
    return true;
  }
};

}  // namespace

int main() {
  GroupSettings form;
  form.Process();
  return 0;
}
