// usersettings.cgi: the desktop settings of the caller, background tasks included, read
// and changed as the caller. Its actions and parameters: settings_form.h.
#include "programs/settings_form.h"

namespace {

class UserSettings : public program::SettingsForm {
 protected:
  // From here on files are checked for the caller; the library goes back to root for
  // the file that it keeps as root.
  bool Begin() override {
    if (request().setEUGID() == 0) return true;
    SetFormErrInfo("common", "error_system", 0);
    return false;
  }
  bool LoadDocument(Json::Value& settings) override {
    return request().loadUserJsonSettings(settings);
  }
  bool SaveDocument(Json::Value& settings) override {
    return request().saveUserJsonSettings(settings);
  }
  std::string Directory() override { return request().GetPreferenceDir(); }
};

}  // namespace

int main() {
  UserSettings form;
  form.Process();
  return 0;
}
