// What the programs for whole settings documents share: loading one, and changing
// members of it.
//
//   GET  action=load
//   POST action=apply, settings={...}, with the anti-forgery token
//
// The request is a form, where "settings" is JSON text, or a JSON document, where it is
// a member. What "settings" names replaces what is stored under that name, null removes
// it, and everything else stays: windows of the same user that save at the same time do
// not undo each other's work.
#ifndef ZEM_PROGRAMS_SETTINGS_FORM_H
#define ZEM_PROGRAMS_SETTINGS_FORM_H

#include <forms/server_form_handler.h>
#include <json/value.h>

#include <string>

namespace program {

class SettingsForm : public ServerFormHandler {
 public:
  SettingsForm();
  bool Process() override;

 protected:
  /// Prepares the process for the caller. False: an error was recorded.
  virtual bool Begin() = 0;
  /// Reads the document. False: there is none, and `settings` does not count.
  virtual bool LoadDocument(Json::Value& settings) = 0;
  virtual bool SaveDocument(Json::Value& settings) = 0;
  /// The directory of the document, where changes are lined up by a lock.
  virtual std::string Directory() = 0;
  /// Answers an action other than "load" and "apply".
  virtual bool Other(const std::string& action);

  bool Load() override;
  bool Apply() override;

 private:
  bool Change();
  bool Merge();
};

}  // namespace program

#endif  // ZEM_PROGRAMS_SETTINGS_FORM_H
