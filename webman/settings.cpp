// The request object: settings of users and administrators, data of modules.

#include <sys/stat.h>
#include <vemo/taskmgr.h>
#include <vemo/user.h>
#include <webutils/json_store.h>

#include <cerrno>
#include <memory>

#include "common/effective_user.h"
#include "common/log.h"
#include "webman/names.h"
#include "webman/webman.h"

namespace {

constexpr char kTasks[] = "BackgroundTask";
constexpr char kTasksFile[] = "/bkgtask";
constexpr char kUserFile[] = "/usersettings";
constexpr char kGroupFile[] = "/groupsettings";
constexpr char kAdministrators[] = "administrators";
constexpr char kNoDirectory[] = "/tmp";
constexpr int kPathSize = 1024;

}  // namespace

std::string WebMan::GetPreferenceDir() {
  char directory[kPathSize];
  return VEMOUserPreferenceDirGet(user_name_, directory, sizeof directory) < 0 ? kNoDirectory
                                                                               : directory;
}

std::string WebMan::GetGroupPreferenceDir(const char* group) {
  char directory[kPathSize];
  return VEMOGroupPreferenceDirGet(group, directory, sizeof directory) < 0 ? kNoDirectory
                                                                           : directory;
}

bool WebMan::loadUserJsonSettings(Json::Value& settings) {
  const std::string directory = GetPreferenceDir();
  const bool loaded = WebUtils::LoadJsonFile(settings, (directory + kUserFile).c_str());

  // A list or a text has no members.
  if (!settings.isObject()) settings = Json::Value(Json::objectValue);
  settings[kTasks] = Json::Value(Json::objectValue);
  Json::Value tasks;
  if (WebUtils::LoadJsonFile(tasks, (directory + kTasksFile).c_str())) {
    settings[kTasks] = tasks;
  }
  return loaded;
}

bool WebMan::saveUserJsonSettings(Json::Value& settings) {
  const std::string directory = GetPreferenceDir();
  bool saved = true;
  if (settings.isObject() && settings.isMember(kTasks)) {
    saved = WebUtils::SaveJsonFile(settings[kTasks], (directory + kTasksFile).c_str());
    settings.removeMember(kTasks);
  }
  const zem::EffectiveUser root(0);
  return WebUtils::SaveJsonFile(settings, (directory + kUserFile).c_str()) && saved;
}

bool WebMan::loadGroupJsonSettings(Json::Value& settings) {
  return IsAdmin() && WebUtils::LoadJsonFile(
                          settings, (GetGroupPreferenceDir(kAdministrators) + kGroupFile).c_str());
}

bool WebMan::saveGroupJsonSettings(Json::Value& settings) {
  return IsAdmin() && WebUtils::SaveJsonFile(
                          settings, (GetGroupPreferenceDir(kAdministrators) + kGroupFile).c_str());
}

bool WebMan::getGrpJsonSettingMtime(const char* group, unsigned long long& mtime) {
  const std::string path = GetGroupPreferenceDir(group) + kGroupFile;
  struct stat status;
  if (stat(path.c_str(), &status) != 0) {
    if (errno != ENOENT) {
      ZEM_LOG("%s:%d Failed to stat file (%s)", zem::kWebmanSource, path.c_str());
    }
    return false;
  }
  mtime = static_cast<unsigned long long>(status.st_mtime);
  return true;
}

bool WebMan::IsModuleDataExist(const char* name) {
  return ::ZEM::TaskMgr(user_name_).hasTask(name);
}

bool WebMan::ReadModuleData(const char* name, Json::Value& data) {
  const std::unique_ptr<::ZEM::Task> task(::ZEM::TaskMgr(user_name_).getTask(name));
  if (task == nullptr) return false;
  data = task->data;
  return true;
}

bool WebMan::WriteModuleData(const char* name, Json::Value& data) {
  const std::unique_ptr<::ZEM::Task> task(::ZEM::TaskMgr(user_name_).createTask(name));
  if (task == nullptr) return false;
  task->data = data;
  task->flag = 1;  // a document to keep
  return task->saveData();
}

bool WebMan::RemoveModuleData(const char* name) {
  const std::unique_ptr<::ZEM::Task> task(::ZEM::TaskMgr(user_name_).getTask(name));
  return task != nullptr && task->remove();
}
