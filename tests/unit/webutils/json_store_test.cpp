// The store of JSON documents: what is read and written, under which locks, and what
// counts as failure.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/value.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <webutils/json_store.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/syslog.h"

namespace {

using WebUtils::checkFileExist;
using WebUtils::LoadJsonFile;
using WebUtils::LockFile;
using WebUtils::ReadFileLines;
using WebUtils::SaveJsonFile;
using WebUtils::UnlockFile;

void Write(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

std::string Read(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

class JsonStore : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(system("rm -rf /run/store && mkdir /run/store"), 0);
    umask(022);
  }
  const std::string directory_ = "/run/store/";
  const std::string file_ = directory_ + "document";
};

// Whether another process would get the lock at once.
bool IsFree(const std::string& path, int kind) {
  const pid_t child = fork();
  if (child == 0) {
    const int fd = open(path.c_str(), O_RDONLY);
    _exit(flock(fd, kind | LOCK_NB) == 0 ? 0 : 1);
  }
  int status;
  waitpid(child, &status, 0);
  return status == 0;
}

TEST_F(JsonStore, LocksAreSharedOrExclusive) {
  Write(file_, "{}");
  const int shared = LockFile(file_.c_str(), false);
  ASSERT_GE(shared, 0);
  EXPECT_TRUE(IsFree(file_, LOCK_SH));
  EXPECT_FALSE(IsFree(file_, LOCK_EX));
  EXPECT_EQ(fcntl(shared, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  EXPECT_EQ(fcntl(shared, F_GETFL) & O_ACCMODE, O_RDONLY);
  UnlockFile(shared);
  EXPECT_EQ(fcntl(shared, F_GETFD), -1);
  EXPECT_TRUE(IsFree(file_, LOCK_EX));

  const int exclusive = LockFile(file_.c_str(), true);
  EXPECT_FALSE(IsFree(file_, LOCK_SH));
  UnlockFile(exclusive);
  EXPECT_TRUE(IsFree(file_, LOCK_EX));
}

TEST_F(JsonStore, ALockNeedsAFile) {
  EXPECT_LT(LockFile(file_.c_str(), true), 0);
  EXPECT_NE(access(file_.c_str(), F_OK), 0);  // and makes none
  EXPECT_LT(LockFile("", false), 0);
  EXPECT_LT(LockFile((directory_ + std::string(300, 'x')).c_str(), false), 0);
  UnlockFile(-1);
  UnlockFile(-2);
}

TEST_F(JsonStore, ALockIsWaitedFor) {
  Write(file_, "{}");
  const int held = LockFile(file_.c_str(), true);
  const pid_t child = fork();
  if (child == 0) {
    close(held);
    Json::Value value;
    _exit(LoadJsonFile(value, file_.c_str()) ? 0 : 1);
  }
  usleep(200000);
  int status;
  EXPECT_EQ(waitpid(child, &status, WNOHANG), 0);
  UnlockFile(held);
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_F(JsonStore, WhoWaitsForALockCanBeEnded) {
  Write(file_, "{\"old\":1}");
  const int held = LockFile(file_.c_str(), true);
  const pid_t child = fork();
  if (child == 0) {
    close(held);
    SaveJsonFile(Json::Value(1), file_.c_str());
    _exit(0);
  }
  usleep(100000);
  kill(child, SIGTERM);
  int status;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status));
  UnlockFile(held);
  EXPECT_EQ(Read(file_), "{\"old\":1}");
}

TEST_F(JsonStore, WhatIsSavedIsLoaded) {
  Json::Value object(Json::objectValue);
  object["b"] = 1;
  object["a"] = "x\n\"\xc3\xa9";
  object["c"] = Json::Value(Json::arrayValue);
  const struct {
    Json::Value value;
    std::string text;
  } rows[] = {
      {object, "{\"a\":\"x\\n\\\"\\u00e9\",\"b\":1,\"c\":[]}\n"},
      {Json::Value(), "null\n"},
      {Json::Value(true), "true\n"},
      {Json::Value(-7), "-7\n"},
      {Json::Value("text"), "\"text\"\n"},
      {Json::Value(Json::objectValue), "{}\n"},
  };
  for (const auto& row : rows) {
    EXPECT_TRUE(SaveJsonFile(row.value, file_.c_str()));
    EXPECT_EQ(Read(file_), row.text);
    Json::Value loaded("before");
    EXPECT_TRUE(LoadJsonFile(loaded, file_.c_str()));
    EXPECT_EQ(loaded, row.value);
  }
}

TEST_F(JsonStore, AFileIsRewrittenInPlace) {
  Write(file_, std::string(5000, ' '));
  chmod(file_.c_str(), 0640);
  ASSERT_EQ(chown(file_.c_str(), 1, 2), 0);
  struct stat before, after;
  stat(file_.c_str(), &before);
  const int other = open(file_.c_str(), O_RDONLY);
  EXPECT_TRUE(SaveJsonFile(Json::Value(1), file_.c_str()));
  stat(file_.c_str(), &after);
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_EQ(after.st_mode & 07777, 0640u);
  EXPECT_EQ(after.st_uid, 1u);
  EXPECT_EQ(after.st_gid, 2u);
  char text[10] = "";
  EXPECT_EQ(read(other, text, sizeof text), 2);
  EXPECT_STREQ(text, "1\n");
  EXPECT_EQ(system("test $(ls -A /run/store | wc -l) = 1"), 0);
}

TEST_F(JsonStore, ANewFileHasTheProcesssMode) {
  for (const mode_t mask : {0022, 0077, 0}) {
    unlink(file_.c_str());
    umask(mask);
    EXPECT_TRUE(SaveJsonFile(Json::Value(1), file_.c_str()));
    struct stat status;
    stat(file_.c_str(), &status);
    EXPECT_EQ(status.st_mode & 07777, 0666 & ~mask);
  }
}

TEST_F(JsonStore, WhatCannotBeOpenedIsAFailure) {
  Json::Value value("before");
  const std::string paths[] = {"",
                               directory_ + "none",
                               directory_ + "none/document",
                               directory_,
                               directory_ + std::string(300, 'x'),
                               "/dev/null/x"};
  for (const std::string& path : paths) {
    EXPECT_FALSE(LoadJsonFile(value, path.c_str())) << path;
    EXPECT_EQ(value, "before") << path;
    if (path == directory_ + "none") continue;
    EXPECT_FALSE(SaveJsonFile(value, path.c_str())) << path;
  }
  EXPECT_EQ(system("test $(ls -A /run/store | wc -l) = 0"), 0);
}

TEST_F(JsonStore, WhatIsNoJsonIsAFailure) {
  for (const std::string& text :
       {std::string(), std::string(" \n"), std::string("{"), std::string("x"), std::string("{]"),
        std::string("\0\0", 2), std::string("\xff\xfe{}"), std::string("\"abc")}) {
    Write(file_, text);
    Json::Value value;
    EXPECT_FALSE(LoadJsonFile(value, file_.c_str())) << text;
  }
  // What was built until then is kept.
  Write(file_, "{\"a\":1,\"b\":x}");
  Json::Value value;
  EXPECT_FALSE(LoadJsonFile(value, file_.c_str()));
  EXPECT_EQ(value["a"], 1);
}

TEST_F(JsonStore, CommentsAreAllowedAndDropped) {
  Write(file_, "// of the admin's\n{\"a\": /* one */ 1}");
  Json::Value value;
  EXPECT_TRUE(LoadJsonFile(value, file_.c_str()));
  EXPECT_FALSE(value.hasComment(Json::commentBefore));
  EXPECT_EQ(value["a"], 1);
}

TEST_F(JsonStore, DeepDocumentsAreRefused) {
  for (const auto& [levels, expected] :
       {std::pair{1000, true}, {1001, false}, {100000, false}, {3000000, false}}) {
    Write(file_, std::string(static_cast<size_t>(levels), '[') +
                     std::string(static_cast<size_t>(levels), ']'));
    Json::Value value;
    EXPECT_EQ(LoadJsonFile(value, file_.c_str()), expected) << levels;
  }
}

TEST_F(JsonStore, OnlyFilesAreReadAndNothingHangs) {
  ASSERT_EQ(mkfifo(file_.c_str(), 0600), 0);
  Json::Value value("before");
  EXPECT_FALSE(LoadJsonFile(value, file_.c_str()));
  EXPECT_EQ(value, "before");
  EXPECT_FALSE(SaveJsonFile(value, file_.c_str()));
  EXPECT_TRUE(ReadFileLines(file_).empty());
  EXPECT_FALSE(LoadJsonFile(value, "/dev/zero"));
  EXPECT_TRUE(SaveJsonFile(value, "/dev/null"));
}

TEST_F(JsonStore, LinksAreFollowed) {
  Write(directory_ + "target", "[1]");
  ASSERT_EQ(symlink("target", file_.c_str()), 0);
  Json::Value value;
  EXPECT_TRUE(LoadJsonFile(value, file_.c_str()));
  EXPECT_EQ(value[0], 1);
  EXPECT_TRUE(SaveJsonFile(Json::Value(2), file_.c_str()));
  EXPECT_EQ(Read(directory_ + "target"), "2\n");
  unlink((directory_ + "target").c_str());
  EXPECT_FALSE(LoadJsonFile(value, file_.c_str()));
  EXPECT_TRUE(SaveJsonFile(Json::Value(3), file_.c_str()));
  EXPECT_EQ(Read(directory_ + "target"), "3\n");
}

TEST_F(JsonStore, RootFollowsNoLinkOfAUsers) {
  Write("/run/secret", "[1]");
  ASSERT_EQ(symlink("/run/secret", file_.c_str()), 0);
  ASSERT_EQ(lchown(file_.c_str(), 65534, 65534), 0);
  chmod(directory_.c_str(), 0777);
  Json::Value value;
  EXPECT_FALSE(LoadJsonFile(value, file_.c_str()));
  EXPECT_FALSE(SaveJsonFile(value, file_.c_str()));
  EXPECT_LT(LockFile(file_.c_str(), true), 0);
  EXPECT_TRUE(ReadFileLines(file_).empty());
  EXPECT_EQ(Read("/run/secret"), "[1]");
  ASSERT_EQ(seteuid(65534), 0);
  EXPECT_TRUE(LoadJsonFile(value, file_.c_str()));  // the user's own rights decide
  EXPECT_FALSE(SaveJsonFile(value, file_.c_str()));
  ASSERT_EQ(seteuid(0), 0);
}

TEST_F(JsonStore, AFullDiskCutsAndSaysNothing) {
  ASSERT_EQ(mount("none", directory_.c_str(), "tmpfs", 0, "size=64k,nr_inodes=3"), 0);
  const Json::Value small("small"), large(std::string(200000, 'x'));
  EXPECT_TRUE(SaveJsonFile(small, file_.c_str()));
  EXPECT_TRUE(SaveJsonFile(large, file_.c_str()));
  Json::Value value;
  EXPECT_FALSE(LoadJsonFile(value, file_.c_str()));
  EXPECT_EQ(Read(file_).size(), 65536u);
  EXPECT_TRUE(SaveJsonFile(small, file_.c_str()));
  EXPECT_TRUE(LoadJsonFile(value, file_.c_str()));
  EXPECT_EQ(value, small);
  // No room for another name: nothing can be opened.
  EXPECT_TRUE(SaveJsonFile(small, (directory_ + "b").c_str()));
  EXPECT_FALSE(SaveJsonFile(small, (directory_ + "c").c_str()));
  umount(directory_.c_str());
}

TEST_F(JsonStore, AReadOnlyFileSystemIsAFailure) {
  Write(file_, "[1]");
  const std::string bind =
      "mount --bind /run/store /run/store && mount -o remount,ro,bind /run/store";
  ASSERT_EQ(system(bind.c_str()), 0);
  Json::Value value;
  EXPECT_TRUE(LoadJsonFile(value, file_.c_str()));
  EXPECT_FALSE(SaveJsonFile(Json::Value(2), file_.c_str()));
  EXPECT_FALSE(SaveJsonFile(Json::Value(2), (directory_ + "new").c_str()));
  EXPECT_EQ(Read(file_), "[1]");
  umount(directory_.c_str());
}

TEST_F(JsonStore, RightsAreTheProcesss) {
  Write(file_, "[1]");
  chmod(file_.c_str(), 0600);
  ASSERT_EQ(seteuid(65534), 0);
  Json::Value value;
  EXPECT_FALSE(LoadJsonFile(value, file_.c_str()));
  EXPECT_FALSE(SaveJsonFile(value, file_.c_str()));
  ASSERT_EQ(seteuid(0), 0);
  // A file that may be written but not read is written without a lock.
  chmod(file_.c_str(), 0222);
  ASSERT_EQ(seteuid(65534), 0);
  EXPECT_TRUE(SaveJsonFile(Json::Value(5), file_.c_str()));
  ASSERT_EQ(seteuid(0), 0);
  EXPECT_EQ(Read(file_), "5\n");
}

TEST_F(JsonStore, NothingIsLoggedAndNoDescriptorIsLeft) {
  support::Syslog log;
  const auto count = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  const auto before = count();
  Json::Value value;
  for (int i = 0; i < 50; i++) {
    LoadJsonFile(value, file_.c_str());
    SaveJsonFile(value, file_.c_str());
    LoadJsonFile(value, file_.c_str());
    SaveJsonFile(value, "/none/x");
    ReadFileLines(file_);
    unlink(file_.c_str());
  }
  EXPECT_EQ(count(), before);
  EXPECT_TRUE(log.Take().empty());
}

TEST_F(JsonStore, ATermSignalDoesNotCutAFile) {
  // Large enough for the signal to come in the middle.
  const Json::Value large(std::string(8 << 20, 'x'));
  SaveJsonFile(Json::Value("old"), file_.c_str());
  int whole = 0, ended = 0;
  for (int i = 0; i < 40; i++) {
    const pid_t child = fork();
    if (child == 0) {
      SaveJsonFile(large, file_.c_str());
      _exit(0);
    }
    usleep(static_cast<useconds_t>(i * 700));
    kill(child, SIGTERM);
    int status;
    waitpid(child, &status, 0);
    ended += WIFSIGNALED(status);
    Json::Value value;
    ASSERT_TRUE(LoadJsonFile(value, file_.c_str())) << i;
    whole += value == large || value == "old";
    EXPECT_TRUE(IsFree(file_, LOCK_EX));
  }
  EXPECT_EQ(whole, 40);
  EXPECT_GT(ended, 0);
}

TEST_F(JsonStore, TwentyProcessesNeverMeetAPartOfADocument) {
  SaveJsonFile(Json::Value(Json::arrayValue), file_.c_str());
  for (int i = 0; i < 20; i++) {
    if (fork() != 0) continue;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    Json::Value mine(Json::arrayValue);
    for (int n = 0; n < (i + 1) * 200; n++)
      mine.append(i);
    while (std::chrono::steady_clock::now() < end) {
      Json::Value value;
      if (!LoadJsonFile(value, file_.c_str()) || !value.isArray()) _exit(1);
      // Whole, and one process's: as many entries as its number says.
      if (!value.empty() &&
          (value.size() != (value[0].asUInt() + 1) * 200 || value[value.size() - 1] != value[0])) {
        _exit(2);
      }
      if (!SaveJsonFile(mine, file_.c_str())) _exit(3);
    }
    _exit(0);
  }
  for (int i = 0; i < 20; i++) {
    int status;
    EXPECT_GT(wait(&status), 0);
    EXPECT_EQ(status, 0);
  }
  EXPECT_TRUE(IsFree(file_, LOCK_EX));
}

TEST_F(JsonStore, LinesOfAFile) {
  const std::string a2046(2046, 'a'), a2047(2047, 'a'), a953(953, 'a');
  const struct {
    std::string text;
    std::vector<std::string> lines;
  } rows[] = {
      {"", {}},
      {"a\r\n\nb", {"a", "b"}},
      {"a", {"a"}},
      {"a\r", {"a\r"}},
      {"\r\n", {}},
      {"\r\r\n", {"\r"}},
      {"\r", {"\r"}},
      {"\n\n\n", {}},
      {" a \n", {" a "}},
      {"a\rb\n", {"a\rb"}},
      {a2047 + a953 + "\n", {a2047, a953}},
      {a2047 + a953 + "\r\n", {a2047, a953}},
      {a2047 + "\n", {a2047}},
      {a2046 + "\n", {a2046}},
      {a2046 + "\r\n", {a2046 + "\r"}},  // the line feed comes as the next piece
      {a2047 + a2047, {a2047, a2047}},
      {std::string("\0a\n", 3) + "b\n", {"b"}},
      {std::string("a\0b\nc", 5), {"a", "c"}},
  };
  for (const auto& row : rows) {
    Write(file_, row.text);
    EXPECT_EQ(ReadFileLines(file_), row.lines) << testing::PrintToString(row.text.substr(0, 20));
  }
  unlink(file_.c_str());
  EXPECT_TRUE(ReadFileLines(file_).empty());
  EXPECT_TRUE(ReadFileLines(directory_).empty());
}

TEST_F(JsonStore, AFileExistsWhenItHoldsSomething) {
  EXPECT_FALSE(checkFileExist(file_));
  Write(file_, "");
  EXPECT_FALSE(checkFileExist(file_));
  Write(file_, "x");
  EXPECT_TRUE(checkFileExist(file_));
  EXPECT_FALSE(checkFileExist(directory_));
  EXPECT_FALSE(checkFileExist("/dev/null"));
  EXPECT_FALSE(checkFileExist(""));
  ASSERT_EQ(symlink(file_.c_str(), (directory_ + "link").c_str()), 0);
  EXPECT_TRUE(checkFileExist(directory_ + "link"));
  unlink(file_.c_str());
  EXPECT_FALSE(checkFileExist(directory_ + "link"));
}

}  // namespace
