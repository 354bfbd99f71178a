#include "programs/settings_form.h"

#include <vemo/core.h>

#include "programs/program.h"
#include "programs/turn.h"

namespace program {
namespace {

constexpr char kLockName[] = "/settings.lock";

void MergeMembers(Json::Value& settings, const Json::Value& changes) {
  for (const std::string& name : changes.getMemberNames()) {
    if (changes[name].isNull()) {
      settings.removeMember(name);
    } else {
      settings[name] = changes[name];
    }
  }
}

}  // namespace

SettingsForm::SettingsForm() : ServerFormHandler(nullptr) { QueuePrivateHeaders(request()); }

bool SettingsForm::Process() {
  const std::string action = Field(request(), "action");
  if (!Authenticate()) return false;
  if (!Begin()) {
    ReportError();
    return false;
  }
  if (action == "load") return Load();
  return action == "apply" ? Apply() : Other(action);
}

bool SettingsForm::Other(const std::string&) {
  ReportFailMessage("common", "error_request", 0);
  return false;
}

bool SettingsForm::Load() {
  Json::Value settings(Json::objectValue);
  // Nobody has saved any yet, or what is there cannot be read: then it starts empty.
  LoadDocument(settings);
  ReportSuccess(settings.isObject() ? settings : Json::Value(Json::objectValue));
  return true;
}

bool SettingsForm::Merge() {
  Json::Value changes, settings(Json::objectValue);
  if (!Document(request(), "settings", changes) || !changes.isObject()) {
    SetFormErrInfo("common", "error_request", 0);
    return false;
  }
  if (!LoadDocument(settings) || !settings.isObject()) {
    // Of what cannot be read nothing is kept but what stands in files of its own.
    const Json::Value tasks = settings.isObject() ? settings["BackgroundTask"] : Json::Value();
    settings = Json::Value(Json::objectValue);
    if (!tasks.isNull()) settings["BackgroundTask"] = tasks;
  }
  MergeMembers(settings, changes);
  if (!FitsDocument(settings)) {
    SetFormErrInfo("common", "error_too_large", 0);
    return false;
  }
  if (SaveDocument(settings)) return true;
  SetFormErrInfo("common", "error_system", 0);
  return false;
}

// The store locks single loads and saves, and a first save not at all: what is read and
// written back needs a lock around both.
bool SettingsForm::Change() {
  if (!IsPost()) {
    SetFormErrInfo("common", "error_request", 0);  // GET changes nothing
    return false;
  }
  const Turn turn(Directory() + kLockName);
  if (turn.taken()) return Merge();
  SetFormErrInfo("common", VLIBCErrGet() == VEMOERR_BUSY ? "error_apply_occupied" : "error_system",
                 0);
  return false;
}

bool SettingsForm::Apply() {
  const bool changed = Change();
  if (changed) {
    ReportSuccess(Json::Value(Json::objectValue));
  } else {
    ReportError();
  }
  return changed;
}

}  // namespace program
