// The task manager: one document a user and name, where it lies, and what it survives.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vemo/errors.h>
#include <vemo/taskmgr.h>

#include <csignal>
#include <memory>

#include "common/json.h"
#include "unit/platform/cgi_accounts.h"

using namespace accounts;
using ::ZEM::Task;
using ::ZEM::TaskMgr;

namespace {

using Names = std::vector<std::string>;

Json::Value Parse(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(zem::ParseJson(text.data(), text.size(), zem::JsonComments::kSkip, value)) << text;
  return value;
}

std::string Text(const Json::Value& value) {
  std::string text = zem::CompactJson(value);
  if (!text.empty()) text.pop_back();
  return text;
}

// "absent", else the data and the flag.
std::string Stored(const char* user, const char* name) {
  const std::unique_ptr<Task> task(TaskMgr(user).getTask(name));
  return task == nullptr ? "absent" : Text(task->data) + " " + std::to_string(task->flag);
}

bool Save(const char* user, const char* name, const Json::Value& data, int flag = 1) {
  const std::unique_ptr<Task> task(TaskMgr(user).createTask(name));
  if (task == nullptr) return false;
  task->data = data;
  task->flag = flag;
  return task->saveData();
}

// Runs `program` in a process that has become the account for good.
int As(uid_t uid, gid_t gid, const std::function<int()>& program) {
  const pid_t child = fork();
  if (child == 0) {
    if (setresgid(gid, gid, gid) != 0 || setresuid(uid, uid, uid) != 0) _exit(99);
    _exit(program());
  }
  int status = -1;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class TaskManager : public testing::Test {
 protected:
  void SetUp() override {
    umask(022);
    Prepare();
    Shell("groupadd -g 7001 readers");
    AddUser("mona", "mona-pass", "-u 5001 -g 7001");
    AddUser("bert", "bert-pass", "-u 5003 -g 7001");
  }

  static void ClearError() {
    VLIBCErrSetEx(VEMOERR_NONE, "test", 0);
    errno = 0;
  }

  const std::string preferences_ = "/usr/vemo/etc/preference/mona";
  const std::string folder_ = preferences_ + "/module";
  const std::string file_ = folder_ + "/notes";
};

TEST_F(TaskManager, ADocumentIsWrittenReadAndRemoved) {
  TaskMgr manager("mona");
  EXPECT_FALSE(manager.hasTask("notes"));
  ClearError();
  EXPECT_EQ(manager.getTask("notes"), nullptr);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NOT_FOUND);

  const std::unique_ptr<Task> made(manager.createTask("notes"));
  ASSERT_NE(made, nullptr);
  EXPECT_TRUE(made->data.isNull());
  EXPECT_EQ(made->flag, 0);
  EXPECT_FALSE(manager.hasTask("notes"));  // not before it is saved
  made->data = Parse("{\"b\":[1,null,\"\xc3\xa4\"],\"a\":1.5}");
  made->flag = 7;
  EXPECT_TRUE(made->saveData());
  EXPECT_TRUE(manager.hasTask("notes"));
  EXPECT_EQ(Stored("mona", "notes"), Text(made->data) + " 7");

  const std::unique_ptr<Task> opened(manager.createTask("notes"));
  ASSERT_NE(opened, nullptr);
  EXPECT_EQ(opened->data, made->data);
  EXPECT_EQ(opened->flag, 7);

  EXPECT_TRUE(opened->remove());
  EXPECT_FALSE(manager.hasTask("notes"));
  EXPECT_TRUE(made->remove());    // gone already
  EXPECT_TRUE(made->saveData());  // and back
  EXPECT_TRUE(manager.hasTask("notes"));
}

TEST_F(TaskManager, TheFileIsTheUsersAndTheUsersAlone) {
  const long before = time(nullptr);
  ASSERT_TRUE(Save("mona", "notes", 5));
  struct stat status;
  ASSERT_EQ(lstat(file_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0600));
  EXPECT_EQ(status.st_uid, 5001u);
  EXPECT_EQ(status.st_gid, 7001u);
  ASSERT_EQ(lstat(folder_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | 0700));
  EXPECT_EQ(status.st_uid, 5001u);
  EXPECT_EQ(status.st_gid, 7001u);

  const Json::Value record = Parse(Read(file_));
  EXPECT_EQ(record.getMemberNames(), (Names{"data", "flag", "mtime", "name"}));
  EXPECT_EQ(record["data"], 5);
  EXPECT_EQ(record["flag"], 1);
  EXPECT_EQ(record["name"], "notes");
  EXPECT_GE(record["mtime"].asInt64(), before);
  EXPECT_LE(record["mtime"].asInt64(), time(nullptr));
}

TEST_F(TaskManager, NothingElseIsLeftBehind) {
  for (int i = 0; i < 10; i++)
    ASSERT_TRUE(Save("mona", "notes", i));
  Names entries;
  for (const auto& entry : std::filesystem::directory_iterator(folder_))
    entries.push_back(entry.path().filename());
  EXPECT_EQ(entries, Names{"notes"});
  EXPECT_EQ(geteuid(), 0u);  // whoever made the folder
  EXPECT_EQ(getegid(), 0u);
}

TEST_F(TaskManager, EachUserHasTheirOwn) {
  ASSERT_TRUE(Save("mona", "notes", 1));
  EXPECT_EQ(Stored("bert", "notes"), "absent");
  ASSERT_TRUE(Save("bert", "notes", 2));
  EXPECT_EQ(Stored("mona", "notes"), "1 1");
  EXPECT_EQ(Stored("bert", "notes"), "2 1");
}

TEST_F(TaskManager, TheUserWritesWhatRootWroteAndTheOtherWayRound) {
  ASSERT_TRUE(Save("mona", "notes", 1));
  EXPECT_EQ(As(5001, 7001,
               [] {
                 if (Stored("mona", "notes") != "1 1") return 1;
                 if (!TaskMgr("mona").hasTask("notes")) return 2;
                 return Save("mona", "notes", 2) && Save("mona", "more", 3) ? 0 : 3;
               }),
            0);
  EXPECT_EQ(Stored("mona", "notes"), "2 1");
  EXPECT_EQ(TaskMgr("mona").taskNames(), (Names{"more", "notes"}));
  ASSERT_TRUE(Save("mona", "more", 4));
  EXPECT_EQ(As(5001, 7001,
               [] {
                 const std::unique_ptr<Task> task(TaskMgr("mona").getTask("more"));
                 return task != nullptr && task->data == 4 && task->remove() ? 0 : 1;
               }),
            0);
  EXPECT_EQ(Stored("mona", "more"), "absent");
}

TEST_F(TaskManager, TheUserMakesTheFolderToo) {
  ASSERT_FALSE(TaskMgr("mona").hasTask("notes"));  // what only root can make
  ASSERT_FALSE(Exists(folder_));
  EXPECT_EQ(As(5001, 7001, [] { return Save("mona", "notes", 1) ? 0 : 1; }), 0);
  EXPECT_EQ(Stored("mona", "notes"), "1 1");
}

TEST_F(TaskManager, NobodyReachesAnothersDocuments) {
  ASSERT_TRUE(Save("mona", "notes", 1));
  EXPECT_EQ(As(5003, 7001,
               [] {
                 TaskMgr manager("mona");
                 if (manager.hasTask("notes")) return 1;
                 if (Stored("mona", "notes") != "absent") return 2;
                 if (VLIBCErrGet() != VEMOERR_NO_PERM) return 3;
                 if (Save("mona", "notes", 2)) return 4;
                 return manager.taskNames().empty() ? 0 : 5;
               }),
            0);
  EXPECT_EQ(Stored("mona", "notes"), "1 1");
}

TEST_F(TaskManager, AnUnknownUserIsRefused) {
  for (const char* user : {"nobody-there", "", ".", "..", "../mona", "mona/", "/etc", "mo\nna",
                           "MONA ", static_cast<const char*>(nullptr)}) {
    const std::string what = user == nullptr ? "null" : user;
    TaskMgr manager(user);
    EXPECT_FALSE(manager.hasTask("notes")) << what;
    ClearError();
    EXPECT_EQ(manager.getTask("notes"), nullptr) << what;
    EXPECT_NE(VLIBCErrGet(), VEMOERR_NONE) << what;
    ClearError();
    EXPECT_EQ(manager.createTask("notes"), nullptr) << what;
    EXPECT_NE(VLIBCErrGet(), VEMOERR_NONE) << what;
    EXPECT_TRUE(manager.taskNames().empty()) << what;
  }
}

TEST_F(TaskManager, DomainUsersHaveAFolderOfTheirOwn) {
  Shell(
      "printf '%s\\n' 'CORP\\carol:x:6001:7001::/:/bin/sh'"
      " 'dora@corp.example:x:6002:7001::/:/bin/sh' >> /etc/passwd");
  ASSERT_TRUE(Save("CORP\\carol", "notes", 1));
  ASSERT_TRUE(Save("dora@corp.example", "notes", 2));
  EXPECT_EQ(Stored("CORP\\carol", "notes"), "1 1");
  EXPECT_TRUE(Exists("/usr/vemo/etc/preference/CORP%5Ccarol/module/notes"));
  EXPECT_TRUE(Exists("/usr/vemo/etc/preference/dora@corp.example/module/notes"));
}

TEST_F(TaskManager, HostileNamesStayInTheFolderOrAreRefused) {
  const std::string longest(255, 'n'), too_long(256, 'n'), escaped(86, '\xff');
  const struct {
    std::string name, part;  // the file's name; "": refused
    int code = VEMOERR_PATH_REFUSED;
  } rows[] = {
      {"Desk.Notes_1-2@x", "Desk.Notes_1-2@x"},
      {"a b", "a%20b"},
      {".hidden", "%2Ehidden"},
      {".new", "%2Enew"},
      {"...", "%2E.."},
      {"CORP\\x", "CORP%5Cx"},
      {"%41", "%2541"},
      {"A", "A"},
      {"\xc3\xa4\xff", "%C3%A4%FF"},
      {"~root", "%7Eroot"},
      {"$(id)", "%24%28id%29"},
      {longest, longest},
      {"", ""},
      {".", ""},
      {"..", ""},
      {"/", ""},
      {"/etc/passwd", ""},
      {"../usersettings", ""},
      {"a/../../b", ""},
      {"a\nb", ""},
      {"a\x7f", ""},
      {too_long, "", VEMOERR_TOO_LONG},
      {std::string(300, 'n'), "", VEMOERR_TOO_LONG},
      {escaped, "", VEMOERR_TOO_LONG},
  };
  TaskMgr manager("mona");
  Names names;
  int n = 0;
  for (const auto& row : rows) {
    n++;
    const bool good = !row.part.empty();
    EXPECT_EQ(Save("mona", row.name.c_str(), n), good) << row.name;
    EXPECT_EQ(manager.hasTask(row.name.c_str()), good) << row.name;
    ClearError();
    EXPECT_EQ(Stored("mona", row.name.c_str()), good ? std::to_string(n) + " 1" : "absent");
    if (good) {
      EXPECT_TRUE(Exists(folder_ + "/" + row.part)) << row.name;
      names.push_back(row.name);
    } else {
      EXPECT_EQ(VLIBCErrGet(), row.code) << row.name;
    }
  }
  EXPECT_FALSE(manager.hasTask(nullptr));
  EXPECT_EQ(manager.getTask(nullptr), nullptr);
  EXPECT_EQ(manager.createTask(nullptr), nullptr);

  std::sort(names.begin(), names.end());
  EXPECT_EQ(manager.taskNames(), names);
  for (const auto& entry : std::filesystem::directory_iterator(preferences_))
    EXPECT_EQ(entry.path().filename(), "module");
}

// What else may stand in a document's place: what makes it, and whether it may be
// written over.
struct WrongRow {
  const char* what;
  std::string (*make)(const std::string& file);  // a shell line
  bool is_file, replaced;
};

std::string Put(const std::string& text, const std::string& file) {
  Write(file, text);
  return "chown mona " + file;
}

std::string Nested(int depth) {
  const size_t levels = static_cast<size_t>(depth);
  return "{\"data\":" + std::string(levels, '[') + std::string(levels, ']') + "}";
}

const WrongRow kWrong[] = {
    {"empty", [](const std::string& f) { return Put("", f); }, true, true},
    {"array", [](const std::string& f) { return Put("[1]", f); }, true, true},
    {"string", [](const std::string& f) { return Put("\"data\"", f); }, true, true},
    {"number", [](const std::string& f) { return Put("5", f); }, true, true},
    {"null", [](const std::string& f) { return Put("null", f); }, true, true},
    {"no data", [](const std::string& f) { return Put("{\"flag\":1}", f); }, true, true},
    {"cut", [](const std::string& f) { return Put("{\"data\":{\"a\":1", f); }, true, true},
    {"deep", [](const std::string& f) { return Put(Nested(2000), f); }, true, true},
    {"very deep", [](const std::string& f) { return Put(Nested(1000000), f); }, true, true},
    {"zeroes", [](const std::string& f) { return Put(std::string(5000, '\0'), f); }, true, true},
    {"huge", [](const std::string& f) { return "truncate -s 1T " + f + "; chown mona " + f; }, true,
     true},
    {"of another",
     [](const std::string& f) { return Put("{\"data\":1}", f) + "; chown bert " + f; }, false,
     true},
    {"root's", [](const std::string& f) { return Put("{\"data\":1}", f) + "; chown root " + f; },
     false, true},
    {"directory", [](const std::string& f) { return "mkdir " + f; }, false, false},
    {"FIFO", [](const std::string& f) { return "mkfifo " + f + "; chown mona " + f; }, false, true},
    {"link", [](const std::string& f) { return "ln -s /run/good " + f; }, false, true},
    {"dangling link", [](const std::string& f) { return "ln -s /run/none " + f; }, false, true},
    {"link to itself", [](const std::string& f) { return "ln -s " + f + " " + f; }, false, true},
    {"device", [](const std::string& f) { return "mknod " + f + " c 1 5; chown mona " + f; }, false,
     true},
};

TEST_F(TaskManager, WhatIsNoDocument) {
  Write("/run/good", "{\"data\":1}");
  Shell("chown mona /run/good");
  TaskMgr manager("mona");
  for (const WrongRow& row : kWrong) {
    ASSERT_TRUE(Save("mona", "other", 1));
    Shell("rm -rf " + file_);
    Shell(row.make(file_));
    alarm(20);
    EXPECT_EQ(manager.hasTask("notes"), row.is_file) << row.what;
    ClearError();
    EXPECT_EQ(manager.getTask("notes"), nullptr) << row.what;
    EXPECT_NE(VLIBCErrGet(), VEMOERR_NONE) << row.what;
    EXPECT_NE(errno, 0) << row.what;
    const std::unique_ptr<Task> task(manager.createTask("notes"));  // starts afresh
    ASSERT_NE(task, nullptr) << row.what;
    EXPECT_TRUE(task->data.isNull()) << row.what;
    task->data = "new";
    ClearError();
    EXPECT_EQ(task->saveData(), row.replaced) << row.what;
    EXPECT_EQ(VLIBCErrGet() == VEMOERR_NONE, row.replaced) << row.what;
    EXPECT_EQ(Stored("mona", "notes"), row.replaced ? "\"new\" 0" : "absent") << row.what;
    EXPECT_EQ(manager.taskNames(), row.replaced ? (Names{"notes", "other"}) : Names{"other"});
    EXPECT_FALSE(Exists(folder_ + "/.new")) << row.what;
    alarm(0);
  }
  EXPECT_EQ(Read("/run/good"), "{\"data\":1}");
  EXPECT_FALSE(Exists("/run/none"));
}

TEST_F(TaskManager, FlagsOfOtherKindsAreNone) {
  ASSERT_TRUE(Save("mona", "notes", 1));
  for (const char* flag : {"\"1\"", "[1]", "1e300", "99999999999", "null", "{}"}) {
    Put(std::string("{\"data\":2,\"flag\":") + flag + "}", file_);
    EXPECT_EQ(Stored("mona", "notes"), "2 0") << flag;
  }
  Put("{\"data\":2}", file_);
  EXPECT_EQ(Stored("mona", "notes"), "2 0");
  Put("{\"data\":2,\"flag\":-3}", file_);
  EXPECT_EQ(Stored("mona", "notes"), "2 -3");
}

TEST_F(TaskManager, WhatCouldNotBeReadBackIsNotWritten) {
  ASSERT_TRUE(Save("mona", "notes", "old"));
  for (const int depth : {10, 990, 1010, 5000}) {
    Json::Value data("leaf");
    for (int i = 0; i < depth; i++) {
      Json::Value outer(Json::arrayValue);
      outer.append(Json::Value()).swap(data);
      data.swap(outer);
    }
    ClearError();
    EXPECT_EQ(Save("mona", "notes", data), depth < 1000) << depth;
    EXPECT_EQ(VLIBCErrGet() == VEMOERR_FORMAT, depth > 1000) << depth;
    const std::string stored = Stored("mona", "notes");
    EXPECT_NE(stored, "absent") << depth;
  }
}

TEST_F(TaskManager, OtherThingsInTheFolderAreNoDocuments) {
  ASSERT_TRUE(Save("mona", "notes", 1));
  Shell("cd " + folder_ + " && mkdir dir && ln -s notes link && mkfifo fifo && touch root");
  for (const char* name : {".new", ".x", "%", "%4", "%zz", "%41", "%2f", "a b", "%00", "ok"})
    Shell("install -o mona /dev/null '" + folder_ + "/" + name + "'");
  // Only what could be asked for by its name, and as no other file is.
  EXPECT_EQ(TaskMgr("mona").taskNames(), (Names{"notes", "ok"}));
}

TEST_F(TaskManager, WhatTheUserPutsInTheFoldersPlaceLeadsRootNowhere) {
  ASSERT_FALSE(TaskMgr("mona").hasTask("notes"));  // makes the preferences
  const struct {
    const char* what;
    std::string line;
  } rows[] = {
      {"link", "ln -s /run/target " + folder_},
      {"dangling link", "ln -s /run/none " + folder_},
      {"file", "touch " + folder_ + "; chown mona " + folder_},
      {"FIFO", "mkfifo " + folder_ + "; chown mona " + folder_},
      {"root's folder", "mkdir " + folder_},
      {"another's folder", "mkdir " + folder_ + "; chown bert " + folder_},
  };
  Shell("mkdir -m 777 /run/target; echo '{\"data\":1}' > /run/target/notes");
  Shell("chown -R mona /run/target");
  for (const auto& row : rows) {
    Shell("rm -rf " + folder_ + "; " + row.line);
    struct stat before, after;
    ASSERT_EQ(lstat(folder_.c_str(), &before), 0) << row.what;
    alarm(20);
    TaskMgr manager("mona");
    EXPECT_FALSE(manager.hasTask("notes")) << row.what;
    EXPECT_EQ(manager.getTask("notes"), nullptr) << row.what;
    EXPECT_FALSE(Save("mona", "notes", 2)) << row.what;
    ClearError();
    EXPECT_EQ(manager.createTask("notes"), nullptr) << row.what;
    EXPECT_NE(VLIBCErrGet(), VEMOERR_NONE) << row.what;
    EXPECT_TRUE(manager.taskNames().empty()) << row.what;
    alarm(0);
    ASSERT_EQ(lstat(folder_.c_str(), &after), 0) << row.what;
    EXPECT_EQ(after.st_ino, before.st_ino) << row.what;
    EXPECT_EQ(after.st_uid, before.st_uid) << row.what;
  }
  EXPECT_EQ(Read("/run/target/notes"), "{\"data\":1}\n");
  Shell("rm -rf " + folder_);
  EXPECT_TRUE(Save("mona", "notes", 3));
}

TEST_F(TaskManager, RemovingNeedsNoFolder) {
  const std::unique_ptr<Task> task(TaskMgr("mona").createTask("notes"));
  ASSERT_NE(task, nullptr);
  Shell("rm -rf " + folder_);
  ClearError();
  EXPECT_TRUE(task->remove());
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NONE);
  Shell("userdel mona");
  EXPECT_FALSE(task->remove());
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_USER);
  EXPECT_FALSE(task->saveData());
}

TEST_F(TaskManager, WhatAKilledWriterLeftIsInNobodysWay) {
  ASSERT_TRUE(Save("mona", "notes", 1));
  Shell("echo half > " + folder_ + "/.new");
  EXPECT_TRUE(Save("mona", "notes", 2));
  EXPECT_EQ(Stored("mona", "notes"), "2 1");
  EXPECT_FALSE(Exists(folder_ + "/.new"));
}

TEST_F(TaskManager, ALinkPlantedAsTheTemporaryFileIsNotFollowed) {
  ASSERT_TRUE(Save("mona", "notes", 1));
  Write("/run/precious", "precious");
  Shell("ln -s /run/precious " + folder_ + "/.new");
  EXPECT_TRUE(Save("mona", "notes", 2));
  EXPECT_EQ(Read("/run/precious"), "precious");
  EXPECT_EQ(Stored("mona", "notes"), "2 1");
}

TEST_F(TaskManager, AFullDiskKeepsTheOldDocument) {
  ASSERT_FALSE(TaskMgr("mona").hasTask("notes"));
  ASSERT_EQ(mount("none", preferences_.c_str(), "tmpfs", 0, "size=64k,uid=5001,mode=700"), 0);
  const Json::Value small("small"), big(std::string(100000, 'x'));
  ASSERT_TRUE(Save("mona", "notes", small));
  ClearError();
  EXPECT_FALSE(Save("mona", "notes", big));
  EXPECT_NE(VLIBCErrGet(), VEMOERR_NONE);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_FALSE(Save("mona", "new", big));
  EXPECT_EQ(Stored("mona", "notes"), "\"small\" 1");
  EXPECT_EQ(TaskMgr("mona").taskNames(), Names{"notes"});
  EXPECT_FALSE(Exists(folder_ + "/.new"));
  EXPECT_TRUE(Save("mona", "notes", "again"));  // the room is free again
}

TEST_F(TaskManager, AReadOnlyFileSystemKeepsTheOldDocument) {
  ASSERT_TRUE(Save("mona", "notes", 1));
  const char* path = preferences_.c_str();
  ASSERT_EQ(mount(path, path, nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(mount(nullptr, path, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
  const std::unique_ptr<Task> task(TaskMgr("mona").getTask("notes"));
  ASSERT_NE(task, nullptr);
  task->data = 2;
  EXPECT_FALSE(task->saveData());
  EXPECT_EQ(errno, EROFS);
  EXPECT_FALSE(task->remove());
  EXPECT_EQ(errno, EROFS);
  EXPECT_NE(VLIBCErrGet(), VEMOERR_NONE);
  EXPECT_EQ(Stored("mona", "notes"), "1 1");
}

TEST_F(TaskManager, AWriterWaitsForAnother) {
  ASSERT_TRUE(Save("mona", "notes", 1));
  const int fd = open(folder_.c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  EXPECT_EQ(Stored("mona", "notes"), "1 1");  // a reader does not
  const pid_t child = fork();
  if (child == 0) _exit(Save("mona", "notes", 2) ? 0 : 1);
  usleep(200000);
  EXPECT_EQ(Stored("mona", "notes"), "1 1");
  flock(fd, LOCK_UN);
  int status;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(Stored("mona", "notes"), "2 1");

  // But not for ever: the user may hold it.
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  EXPECT_FALSE(Save("mona", "notes", 3));
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_BUSY);
  EXPECT_EQ(errno, EWOULDBLOCK);
}

TEST_F(TaskManager, TheRequestsEndWaitsForTheWrite) {
  ASSERT_TRUE(Save("mona", "notes", Json::Value(std::string(200000, 'a'))));
  for (int turn = 0; turn < 50; turn++) {
    const pid_t child = fork();
    if (child == 0) {
      signal(SIGTERM, SIG_DFL);
      for (int i = 0;; i++) {
        if (!Save("mona", "notes", Json::Value(std::string(200000, i % 2 != 0 ? 'a' : 'b')))) {
          _exit(1);
        }
      }
    }
    usleep(static_cast<useconds_t>(3000 + turn * 300));
    kill(child, SIGTERM);
    int status;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
    const std::unique_ptr<Task> task(TaskMgr("mona").getTask("notes"));
    ASSERT_NE(task, nullptr);
    ASSERT_EQ(task->data.asString().size(), 200000u);
    ASSERT_FALSE(Exists(folder_ + "/.new"));
  }
}

TEST_F(TaskManager, TwentyProcessesAtOnce) {
  // Nothing is there yet, so that the folder is made by all of them.
  constexpr int kProcesses = 20, kTurns = 15;
  std::vector<pid_t> children;
  for (int i = 0; i < kProcesses; i++) {
    const pid_t child = fork();
    if (child != 0) {
      children.push_back(child);
      continue;
    }
    // Every other one as the user, whose preferences root makes.
    while (!Exists(preferences_) && i % 2 != 0)
      usleep(1000);
    if (i % 2 != 0) {
      usleep(20000);
      if (setresgid(7001, 7001, 7001) != 0 || setresuid(5001, 5001, 5001) != 0) _exit(9);
    }
    const std::string own = "own" + std::to_string(i);
    for (int turn = 0; turn < kTurns; turn++) {
      Json::Value data(Json::arrayValue);
      for (int n = 0; n < (i + 1) * 100; n++)
        data.append(i);
      if (!Save("mona", "shared", data)) _exit(1);
      const std::unique_ptr<Task> task(TaskMgr("mona").getTask("shared"));
      if (task == nullptr) _exit(2);
      if (task->data.size() != (task->data[0].asUInt() + 1) * 100) _exit(3);
      if (!Save("mona", own.c_str(), turn)) _exit(4);
    }
    _exit(0);
  }
  for (const pid_t child : children) {
    int status;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
  }
  EXPECT_EQ(TaskMgr("mona").taskNames().size(), size_t{kProcesses + 1});
  for (int i = 0; i < kProcesses; i++) {
    EXPECT_EQ(Stored("mona", ("own" + std::to_string(i)).c_str()),
              std::to_string(kTurns - 1) + " 1");
  }
  EXPECT_FALSE(Exists(folder_ + "/.new"));
}

TEST_F(TaskManager, NoDescriptorIsLeftOpen) {
  const auto open_files = [] {
    int count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
      count++;
    return count;
  };
  Save("mona", "notes", 1);
  const int before = open_files();
  for (int i = 0; i < 10; i++) {
    TaskMgr manager("mona");
    Save("mona", "notes", i);
    Stored("mona", "notes");
    Stored("mona", "none");
    manager.hasTask("notes");
    manager.taskNames();
    Save("mona", "..", i);
    Stored("nobody-there", "notes");
  }
  EXPECT_EQ(open_files(), before);
}

}  // namespace
