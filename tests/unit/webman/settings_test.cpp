// Settings of users and administrators and data of modules: which file, as whom, and
// what counts as failure.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vemo/user.h>
#include <webman/webman.h>

#include <chrono>

#include "common/json.h"
#include "faults/faults.h"
#include "support/syslog.h"
#include "unit/platform/cgi_accounts.h"

using namespace accounts;
using faults::hooks;

namespace {

Json::Value Parse(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(zem::ParseJson(text.data(), text.size(), zem::JsonComments::kSkip, value)) << text;
  return value;
}

std::string Text(const Json::Value& value) {
  std::string text = zem::CompactJson(value);
  text.pop_back();
  return text;
}

struct stat StatusOf(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status;
}

class Settings : public testing::Test {
 protected:
  void SetUp() override {
    umask(022);
    Prepare();
    AddUser("mona", "mona-pass", "-u 5001");
    AddUser("boss", "boss-pass", "-u 5002 -G administrators");
    Become("mona");
  }

  // The login user from here on.
  void Become(const std::string& user) {
    hooks.VemoCgiIsAuthorized = [user](VEMOCGI*, char* buffer, int size, auto...) {
      std::snprintf(buffer, static_cast<size_t>(size), "%s", user.c_str());
      return 1;
    };
    ASSERT_EQ(request_.CheckAuthorized(1, VEMOCGI_POS_DESKTOP, false), 1);
    directory_ = request_.GetPreferenceDir();
  }
  std::string File(const char* name) { return directory_ + "/" + name; }

  WebMan request_{false};
  std::string directory_;
};

TEST_F(Settings, EveryUserHasADirectory) {
  EXPECT_EQ(directory_.find("/tmp"), std::string::npos);
  const struct stat status = StatusOf(directory_);
  EXPECT_EQ(status.st_uid, 5001u);
  EXPECT_EQ(status.st_mode & 07777, 0700u);
  const std::string mine = directory_;
  Become("boss");
  EXPECT_NE(directory_, mine);
  EXPECT_NE(request_.GetGroupPreferenceDir("administrators"), "/tmp");
}

TEST_F(Settings, ThePathIsNeverEmpty) {
  Become("nobody-there");
  EXPECT_EQ(request_.GetPreferenceDir(), "/tmp");
  Become("");
  EXPECT_EQ(request_.GetPreferenceDir(), "/tmp");
  EXPECT_EQ(request_.GetGroupPreferenceDir("nobody-there"), "/tmp");
  EXPECT_EQ(request_.GetGroupPreferenceDir(nullptr), "/tmp");
}

TEST_F(Settings, NoNameLeavesTheFolderOfThePreferences) {
  for (const std::string name : {"../../../root", "/", ".", "..", "a\nb", "CORP\\alice"}) {
    Become(name);
    const bool inside = directory_.find("/..") == std::string::npos &&
                        directory_.rfind("/usr/vemo/etc/preference/", 0) == 0 &&
                        directory_.find('/', 25) == std::string::npos;
    EXPECT_TRUE(inside || directory_ == "/tmp") << name << ": " << directory_;
  }
}

TEST_F(Settings, WithoutAFileThereAreTasksAllTheSame) {
  Json::Value settings;
  EXPECT_FALSE(request_.loadUserJsonSettings(settings));
  EXPECT_EQ(Text(settings), "{\"BackgroundTask\":{}}");
  Write(File("bkgtask"), "{\"copy\":1}", 0644);
  EXPECT_FALSE(request_.loadUserJsonSettings(settings));
  EXPECT_EQ(Text(settings), "{\"BackgroundTask\":{\"copy\":1}}");
  // What the caller had stays beside them.
  Json::Value mine = Parse("{\"a\":1,\"BackgroundTask\":7}");
  EXPECT_FALSE(request_.loadUserJsonSettings(mine));
  EXPECT_EQ(Text(mine), "{\"BackgroundTask\":{\"copy\":1},\"a\":1}");
}

TEST_F(Settings, TheTasksComeFromTheirOwnFile) {
  Write(File("usersettings"), "{\"a\":1,\"BackgroundTask\":{\"old\":1}}", 0644);
  Json::Value settings;
  EXPECT_TRUE(request_.loadUserJsonSettings(settings));
  EXPECT_EQ(Text(settings), "{\"BackgroundTask\":{},\"a\":1}");
  for (const char* tasks : {"{\"x\":2}", "[1]", "null", "\"text\""}) {
    Write(File("bkgtask"), tasks, 0644);
    EXPECT_TRUE(request_.loadUserJsonSettings(settings));
    EXPECT_EQ(Text(settings), std::string("{\"BackgroundTask\":") + tasks + ",\"a\":1}");
  }
  Write(File("bkgtask"), "{", 0644);
  EXPECT_TRUE(request_.loadUserJsonSettings(settings));
  EXPECT_EQ(Text(settings), "{\"BackgroundTask\":{},\"a\":1}");
}

TEST_F(Settings, TheTasksAreSavedApart) {
  Json::Value settings = Parse("{\"a\":1,\"BackgroundTask\":{\"copy\":1}}");
  EXPECT_TRUE(request_.saveUserJsonSettings(settings));
  EXPECT_EQ(Text(settings), "{\"a\":1}");  // the caller's value loses the member
  EXPECT_EQ(Read(File("usersettings")), "{\"a\":1}\n");
  EXPECT_EQ(Read(File("bkgtask")), "{\"copy\":1}\n");
  settings = Parse("{\"b\":2}");
  EXPECT_TRUE(request_.saveUserJsonSettings(settings));
  EXPECT_EQ(Read(File("usersettings")), "{\"b\":2}\n");
  EXPECT_EQ(Read(File("bkgtask")), "{\"copy\":1}\n");  // untouched
  settings = Parse("{\"BackgroundTask\":null}");
  EXPECT_TRUE(request_.saveUserJsonSettings(settings));
  EXPECT_EQ(Read(File("usersettings")), "{}\n");
  EXPECT_EQ(Read(File("bkgtask")), "null\n");
}

TEST_F(Settings, OnlyTheSettingsAreWrittenAsRoot) {
  ASSERT_EQ(seteuid(5001), 0);
  Json::Value settings = Parse("{\"a\":1,\"BackgroundTask\":{}}");
  EXPECT_TRUE(request_.saveUserJsonSettings(settings));
  EXPECT_EQ(geteuid(), 5001u);
  ASSERT_EQ(seteuid(0), 0);
  EXPECT_EQ(StatusOf(File("usersettings")).st_uid, 0u);
  EXPECT_EQ(StatusOf(File("bkgtask")).st_uid, 5001u);
  EXPECT_EQ(StatusOf(File("usersettings")).st_mode & 07777, 0644u);
  ASSERT_EQ(seteuid(5001), 0);
  EXPECT_TRUE(request_.loadUserJsonSettings(settings));  // and the user can read them
  ASSERT_EQ(seteuid(0), 0);
}

TEST_F(Settings, EitherSaveThatFailsIsAFailure) {
  // The settings as root: a directory in their place.
  Shell("mkdir " + File("usersettings"));
  Json::Value settings = Parse("{\"a\":1,\"BackgroundTask\":{\"x\":1}}");
  EXPECT_FALSE(request_.saveUserJsonSettings(settings));
  EXPECT_EQ(Text(settings), "{\"a\":1}");
  EXPECT_EQ(Read(File("bkgtask")), "{\"x\":1}\n");
  // The tasks as the user: a file of root's. The settings are written all the same.
  Shell("rmdir " + File("usersettings") + "; rm " + File("bkgtask"));
  Write(File("bkgtask"), "{}", 0600);
  ASSERT_EQ(seteuid(5001), 0);
  settings = Parse("{\"a\":2,\"BackgroundTask\":{\"x\":1}}");
  EXPECT_FALSE(request_.saveUserJsonSettings(settings));
  ASSERT_EQ(seteuid(0), 0);
  EXPECT_EQ(Read(File("usersettings")), "{\"a\":2}\n");
  EXPECT_EQ(Read(File("bkgtask")), "{}");
}

TEST_F(Settings, AfterTheFinalSwitchTheUserWritesBoth) {
  const pid_t child = fork();
  if (child == 0) {
    if (setuid(5001) != 0) _exit(1);
    Json::Value settings = Parse("{\"a\":1,\"BackgroundTask\":{}}");
    _exit(request_.saveUserJsonSettings(settings) && geteuid() == 5001 ? 0 : 2);
  }
  int status;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(StatusOf(File("usersettings")).st_uid, 5001u);
}

TEST_F(Settings, DocumentsOfEveryOtherKind) {
  const struct {
    std::string text;
    bool loaded;
  } rows[] = {
      {"[1,2]", true},
      {"\"text\"", true},
      {"7", true},
      {"null", true},
      {"true", true},
      {"", false},
      {"{\"a\":", false},
      {"no json", false},
      {std::string(2000, '['), false},
      {std::string(100000, '['), false},
  };
  for (const auto& row : rows) {
    Write(File("usersettings"), row.text, 0644);
    Json::Value settings;
    EXPECT_EQ(request_.loadUserJsonSettings(settings), row.loaded) << row.text.substr(0, 20);
    EXPECT_TRUE(settings.isObject()) << row.text.substr(0, 20);
    EXPECT_EQ(Text(settings["BackgroundTask"]), "{}");
  }
  for (const char* kind : {"mkdir", "mkfifo", "ln -s /dev/zero", "ln -s /none"}) {
    Shell("rm -rf " + File("usersettings") + "; " + kind + " " + File("usersettings"));
    Json::Value settings;
    EXPECT_FALSE(request_.loadUserJsonSettings(settings)) << kind;
    EXPECT_EQ(Text(settings), "{\"BackgroundTask\":{}}") << kind;
  }
  Shell("rm " + File("usersettings"));
  for (const char* text : {"[1,2]", "\"text\"", "7", "null"}) {
    Json::Value settings = Parse(text);
    EXPECT_TRUE(request_.saveUserJsonSettings(settings));
    EXPECT_EQ(Text(settings), text);
    EXPECT_EQ(Read(File("usersettings")), std::string(text) + "\n");
  }
}

TEST_F(Settings, AUsersLinkLeadsRootNowhere) {
  Write("/run/victim", "precious", 0600);
  Shell("ln -s /run/victim " + File("usersettings") + "; chown -h mona " + File("usersettings"));
  Json::Value settings = Parse("{\"a\":1}");
  EXPECT_FALSE(request_.saveUserJsonSettings(settings));
  EXPECT_FALSE(request_.loadUserJsonSettings(settings));
  EXPECT_EQ(Read("/run/victim"), "precious");
}

TEST_F(Settings, GroupSettingsAreTheAdministrators) {
  const std::string file = request_.GetGroupPreferenceDir("administrators") + "/groupsettings";
  Json::Value settings = Parse("{\"a\":1}");
  EXPECT_FALSE(request_.saveGroupJsonSettings(settings));
  EXPECT_FALSE(Exists(file));
  Write(file, "{\"b\":2}", 0644);
  EXPECT_FALSE(request_.loadGroupJsonSettings(settings));
  EXPECT_EQ(Text(settings), "{\"a\":1}");

  Become("boss");
  EXPECT_TRUE(request_.loadGroupJsonSettings(settings));
  EXPECT_EQ(Text(settings), "{\"b\":2}");
  settings = Parse("{\"c\":3,\"BackgroundTask\":{}}");
  EXPECT_TRUE(request_.saveGroupJsonSettings(settings));
  EXPECT_EQ(Text(settings), "{\"BackgroundTask\":{},\"c\":3}");  // no file of its own here
  EXPECT_EQ(Read(file), "{\"BackgroundTask\":{},\"c\":3}\n");
  unlink(file.c_str());
  EXPECT_FALSE(request_.loadGroupJsonSettings(settings));
  EXPECT_EQ(Text(settings), "{\"BackgroundTask\":{},\"c\":3}");
}

TEST_F(Settings, WhoMayNotBeToldApartIsNoAdministrator) {
  support::Syslog log;
  Become("boss");
  hooks.VLIBGroupIsAdminGroupMem = [](auto...) { return -1; };
  Json::Value settings = Parse("{\"a\":1}");
  EXPECT_FALSE(request_.saveGroupJsonSettings(settings));
  EXPECT_FALSE(request_.loadGroupJsonSettings(settings));
  EXPECT_EQ(Text(settings), "{\"a\":1}");
}

TEST_F(Settings, TheTimeOfAGroupsSettings) {
  support::Syslog log;
  const std::string directory = request_.GetGroupPreferenceDir("administrators");
  const std::string file = directory + "/groupsettings";
  unsigned long long mtime = 7;
  EXPECT_FALSE(request_.getGrpJsonSettingMtime("administrators", mtime));
  EXPECT_EQ(mtime, 7u);
  EXPECT_TRUE(log.Take().empty());  // there is just none

  Write(file, "{}", 0644);
  Shell("touch -d @4294967299 " + file);
  EXPECT_TRUE(request_.getGrpJsonSettingMtime("administrators", mtime));
  EXPECT_EQ(mtime, 4294967299u);

  // A loop of links is another matter.
  Shell("rm " + file + "; ln -s groupsettings " + file);
  EXPECT_FALSE(request_.getGrpJsonSettingMtime("administrators", mtime));
  const auto texts = log.TakeTexts();
  ASSERT_EQ(texts.size(), 1u);
  EXPECT_EQ(texts[0].substr(0, 7), "webman:");
  EXPECT_EQ(texts[0].substr(texts[0].find(' ')), " Failed to stat file (" + file + ")");
}

TEST_F(Settings, ModuleDataIsKeptByName) {
  Json::Value data(5);
  EXPECT_FALSE(request_.IsModuleDataExist("notes"));
  EXPECT_FALSE(request_.ReadModuleData("notes", data));
  EXPECT_EQ(data, 5);
  EXPECT_FALSE(request_.RemoveModuleData("notes"));

  Json::Value notes = Parse("{\"a\":[1,2]}");
  EXPECT_TRUE(request_.WriteModuleData("notes", notes));
  EXPECT_EQ(Text(notes), "{\"a\":[1,2]}");
  EXPECT_TRUE(request_.IsModuleDataExist("notes"));
  EXPECT_TRUE(request_.ReadModuleData("notes", data));
  EXPECT_EQ(Text(data), "{\"a\":[1,2]}");
  EXPECT_FALSE(request_.IsModuleDataExist("other"));

  Become("boss");
  EXPECT_FALSE(request_.IsModuleDataExist("notes"));  // each user's own
  Become("mona");
  EXPECT_TRUE(request_.RemoveModuleData("notes"));
  EXPECT_FALSE(request_.RemoveModuleData("notes"));
  EXPECT_FALSE(request_.IsModuleDataExist("notes"));
}

TEST_F(Settings, ModuleDataOfEveryKind) {
  for (const char* text : {"null", "true", "-7", "\"text\"", "[]", "{}", "[{\"a\":null}]"}) {
    Json::Value data = Parse(text), read("before");
    EXPECT_TRUE(request_.WriteModuleData("any", data)) << text;
    EXPECT_TRUE(request_.ReadModuleData("any", read)) << text;
    EXPECT_EQ(Text(read), text);
  }
}

TEST_F(Settings, HostileModuleNamesLeaveNothingOutside) {
  const std::string names[] = {"/",
                               "..",
                               ".",
                               "",
                               "../../usersettings",
                               "a/b",
                               "a\nb",
                               std::string(255, 'n'),
                               std::string(300, 'n'),
                               "CORP\\x"};
  // Everything there is but the user's own folder.
  const std::string list =
      "find /usr/vemo/etc /tmp /etc /root | grep -v '^" + directory_ + "' | sort";
  Shell(list + " > /run/before");
  for (const std::string& name : names) {
    Json::Value data(1), read;
    const bool written = request_.WriteModuleData(name.c_str(), data);
    EXPECT_EQ(request_.IsModuleDataExist(name.c_str()), written) << name;
    EXPECT_EQ(request_.ReadModuleData(name.c_str(), read), written) << name;
  }
  Shell(list + " > /run/after; cmp /run/before /run/after");
  for (const std::string& name : names)
    request_.RemoveModuleData(name.c_str());
}

TEST_F(Settings, TwentyProcessesShareTheSettings) {
  const bool long_run = getenv("ZEM_TEST_LONG") != nullptr;
  Json::Value first(Json::objectValue);
  request_.saveUserJsonSettings(first);
  for (int i = 0; i < 20; i++) {
    if (fork() != 0) continue;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(long_run ? 60 : 3);
    Json::Value mine(Json::objectValue);
    for (int n = 0; n < (i + 1) * 50; n++)
      mine["m" + std::to_string(n)] = i;
    while (std::chrono::steady_clock::now() < end) {
      Json::Value settings, copy = mine;
      if (!request_.loadUserJsonSettings(settings)) _exit(1);
      settings.removeMember("BackgroundTask");
      if (!settings.empty() && settings.size() != (settings["m0"].asUInt() + 1) * 50) _exit(2);
      if (!request_.saveUserJsonSettings(copy)) _exit(3);
    }
    _exit(0);
  }
  for (int i = 0; i < 20; i++) {
    int status;
    EXPECT_GT(wait(&status), 0);
    EXPECT_EQ(status, 0);
  }
  const int fd = open(File("usersettings").c_str(), O_RDONLY);
  EXPECT_EQ(flock(fd, LOCK_EX | LOCK_NB), 0);
}

}  // namespace
