// The core library's files: key=value files, directories, locks, programs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vemo/core.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

#include "platform/host/core/internal.h"

namespace {

constexpr char kFile[] = "/tmp/test.conf";

void Write(const std::string& text, const char* path = kFile) {
  std::ofstream(path, std::ios::binary) << text;
}

std::string Read(const char* path = kFile) {
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

// "found value", "absent" or "failed".
std::string Get(const char* key, const char* path = kFile) {
  char buffer[100000] = "untouched";
  const int result = VLIBCFileGetKeyValue(path, key, buffer, sizeof buffer);
  if (result == 1) return std::string("found ") + buffer;
  EXPECT_STREQ(buffer, "untouched");
  return result == 0 ? "absent" : "failed";
}

struct GrammarRow {
  const char* text;
  const char* value;  // of the key "k"
};

TEST(KeyValue, Grammar) {
  const GrammarRow rows[] = {
      {"k=v", "found v"},
      {"k=v\n", "found v"},
      {"k=v\r\n", "found v"},
      {"  k  =  v  \n", "found v"},
      {"\tk\t=\tv\t\n", "found v"},
      {"k=\n", "found "},
      {"k=\"\"", "found "},
      {"k=\"v\"", "found v"},
      {"k='v'", "found v"},
      {"k=\"a b \"", "found a b "},
      {"k=\"a\\\"b\\\\c\\d\"", "found a\"b\\c\\d"},
      {"k='a\\\"b'", "found a\\\"b"},
      {"k=\"\"v\"\"", "found \"v\""},
      {"k=\"v'", "found \"v'"},
      {"k=\"", "found \""},
      {"k=a=b", "found a=b"},
      {"k=a # b ; c", "found a # b ; c"},
      {"#k=v\n", "absent"},
      {";k=v\n", "absent"},
      {"  # k=v\n", "absent"},
      {"[k=v]\n", "absent"},
      {"k\n", "absent"},
      {"=v\n", "absent"},
      {"", "absent"},
      {"\n\n\n", "absent"},
      {"K=v\n", "absent"},
      {"kk=v\n", "absent"},
      {"k=1\nk=2\n", "found 2"},
      {"\xef\xbb\xbfk=v\n", "found v"},
      {"a=b\n\xef\xbb\xbfk=v\n", "absent"},
      {"k=\xff\xfe\n", "found \xff\xfe"},
      {"a = \"b\nk=v\"\n", "found v\""},
  };
  for (const GrammarRow& row : rows) {
    Write(row.text);
    EXPECT_EQ(Get("k"), row.value) << row.text;
    VEMOSZHASH* pairs = VLIBCSzHashAlloc(4);
    EXPECT_GE(VLIBCFileGetPair(kFile, pairs), 0);
    const char* pair = VLIBCSzHashGetValue(pairs, "k");
    EXPECT_EQ(pair == nullptr ? "absent" : std::string("found ") + pair, row.value) << row.text;
    VLIBCSzHashFree(pairs);
  }
}

TEST(KeyValue, WhatIsNoSuchFileIsRefused) {
  EXPECT_EQ(Get("k", "/tmp/none"), "failed");
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NOT_FOUND);
  EXPECT_EQ(errno, ENOENT);
  Write(std::string("k=v\0\n", 5));
  EXPECT_EQ(Get("k"), "failed");
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_FORMAT);
  Write("k=" + std::string(65534, 'x') + "\n");
  EXPECT_EQ(Get("k").size(), 6 + 65534u);
  Write("k=" + std::string(65535, 'x') + "\n");
  EXPECT_EQ(Get("k"), "failed");
  EXPECT_EQ(Get("k", "/tmp"), "failed");
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_FORMAT);
  ASSERT_EQ(mkfifo("/tmp/fifo", 0600), 0);
  EXPECT_EQ(Get("k", "/tmp/fifo"), "failed");
}

TEST(KeyValue, ArgumentsThatAreMissing) {
  char buffer[4];
  Write("k=v");
  EXPECT_EQ(VLIBCFileGetKeyValue(nullptr, "k", buffer, 4), -1);
  EXPECT_EQ(VLIBCFileGetKeyValue(kFile, nullptr, buffer, 4), -1);
  EXPECT_EQ(VLIBCFileGetKeyValue(kFile, "", buffer, 4), -1);
  EXPECT_EQ(VLIBCFileGetKeyValue(kFile, "k", nullptr, 4), -1);
  EXPECT_EQ(VLIBCFileGetKeyValue(kFile, "k", buffer, 0), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_BAD_PARAM);
}

TEST(KeyValue, AValueIsCutToItsBuffer) {
  Write("k=12345678");
  char buffer[16];
  for (const int size : {1, 2, 8, 9, 16}) {
    memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(VLIBCFileGetKeyValue(kFile, "k", buffer, size), 1);
    EXPECT_EQ(std::string(buffer),
              std::string("12345678").substr(0, static_cast<size_t>(size) - 1));
    if (size < 16) {
      EXPECT_EQ(buffer[size], '#');
    }
  }
}

TEST(KeyValue, AChangeIsSeenAtOnce) {
  for (int i = 0; i < 50; ++i) {
    Write("k=" + std::to_string(10 + i));
    EXPECT_EQ(Get("k"), "found " + std::to_string(10 + i));
  }
}

TEST(KeyValue, ValuesAreComparedWithoutCase) {
  Write("k=YES");
  EXPECT_EQ(VLIBCFileCheckKeyValue(kFile, "k", "yes", 0), 1);
  EXPECT_EQ(VLIBCFileCheckKeyValue(kFile, "k", "no", 0), 0);
  EXPECT_EQ(VLIBCFileCheckKeyValue(kFile, "other", "", 0), 0);
  EXPECT_EQ(VLIBCFileCheckKeyValue("/tmp/none", "k", "yes", 0), -1);
  EXPECT_EQ(VLIBCFileCheckKeyValue(kFile, "k", nullptr, 0), -1);
}

TEST(KeyValue, PairsAreAddedToWhatIsThere) {
  Write("a=1\nb=2\na=3\n#c=4\n");
  VEMOSZHASH* pairs = VLIBCSzHashAlloc(1);
  VLIBCSzHashSetValue(pairs, "before", "kept");
  EXPECT_EQ(VLIBCFileGetPair(kFile, pairs), 3);
  EXPECT_STREQ(VLIBCSzHashGetValue(pairs, "a"), "3");
  EXPECT_STREQ(VLIBCSzHashGetValue(pairs, "before"), "kept");
  EXPECT_EQ(VLIBCFileGetPair("/tmp/none", pairs), -1);
  EXPECT_EQ(VLIBCFileGetPair("/tmp", pairs), -1);
  VLIBCSzHashFree(pairs);
}

TEST(KeyValueWriter, WhatIsWrittenIsReadBack) {
  const char* values[] = {"",    "v",        "a b", " a ",      "\"",       "\"a\"",
                          "'a'", "\\",       "a\\", "a\\\"b",   "#a",       "[a]",
                          "a=b", "\xc3\xa4", "\t",  "\xff\xfe", "a\x01\x1b"};
  for (const char* value : values) {
    ASSERT_EQ(VLIBCFileSetKeyValue(kFile, "k", value), 0) << value;
    EXPECT_EQ(Get("k"), std::string("found ") + value);
  }
}

TEST(KeyValueWriter, KeepsEverythingElse) {
  Write("# comment\n[section]\nk = 1\nother='x'\n\nk=2\nbroken line");
  ASSERT_EQ(VLIBCFileSetKeyValue(kFile, "k", "3"), 0);
  EXPECT_EQ(Read(), "# comment\n[section]\nk=\"3\"\nother='x'\n\nbroken line");
  ASSERT_EQ(VLIBCFileSetKeyValue(kFile, "new", "4"), 0);
  EXPECT_EQ(Read(), "# comment\n[section]\nk=\"3\"\nother='x'\n\nbroken line\nnew=\"4\"\n");
}

TEST(KeyValueWriter, RefusesWhatCouldNotBeReadBack) {
  Write("a=1\n");
  const char* keys[] = {"", "a b", "a=b", "#a", ";a", "[a", "a\n", "a\t", "\"a\"", "'a'", "a#b"};
  for (const char* key : keys) {
    EXPECT_EQ(VLIBCFileSetKeyValue(kFile, key, "v"), -1) << key;
    EXPECT_EQ(VLIBCErrGet(), VEMOERR_BAD_PARAM);
  }
  for (const char* value : {"a\nb", "a\rb", "\n"}) {
    EXPECT_EQ(VLIBCFileSetKeyValue(kFile, "k", value), -1);
  }
  EXPECT_EQ(VLIBCFileSetKeyValue(kFile, "k", std::string(40000, 'x').c_str()), -1);
  EXPECT_EQ(VLIBCFileSetKeyValue(kFile, "k", nullptr), -1);
  EXPECT_EQ(VLIBCFileSetKeyValue(kFile, nullptr, "v"), -1);
  EXPECT_EQ(VLIBCFileSetKeyValue("", "k", "v"), -1);
  EXPECT_EQ(Read(), "a=1\n");
}

TEST(KeyValueWriter, KeepsOwnerAndMode) {
  Write("a=1\n");
  ASSERT_EQ(chown(kFile, 12, 34), 0);
  ASSERT_EQ(chmod(kFile, 0640), 0);
  ASSERT_EQ(VLIBCFileSetKeyValue(kFile, "a", "2"), 0);
  struct stat status;
  ASSERT_EQ(stat(kFile, &status), 0);
  EXPECT_EQ(status.st_uid, 12u);
  EXPECT_EQ(status.st_gid, 34u);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
  ASSERT_EQ(VLIBCFileSetKeyValue("/tmp/new.conf", "a", "2"), 0);
  ASSERT_EQ(stat("/tmp/new.conf", &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST(KeyValueWriter, ALinkInThePlaceIsRefused) {
  Write("a=1\n", "/tmp/target");
  ASSERT_EQ(symlink("/tmp/target", kFile), 0);
  EXPECT_EQ(VLIBCFileSetKeyValue(kFile, "a", "2"), -1);
  EXPECT_EQ(Read("/tmp/target"), "a=1\n");
}

TEST(KeyValueWriter, AFullDiskChangesNothing) {
  ASSERT_EQ(mkdir("/tmp/small", 0755), 0);
  ASSERT_EQ(mount("small", "/tmp/small", "tmpfs", 0, "size=64k"), 0);
  Write("a=1\n", "/tmp/small/x.conf");
  ASSERT_NE(system("head -c 200000 /dev/zero > /tmp/small/filler 2>/dev/null"), 0);
  EXPECT_EQ(VLIBCFileSetKeyValue("/tmp/small/x.conf", "a", std::string(9000, 'x').c_str()), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(Read("/tmp/small/x.conf"), "a=1\n");
  EXPECT_NE(access("/tmp/small/x.conf.new", F_OK), 0);
}

TEST(KeyValueWriter, AReadOnlyFileSystemIsAFailure) {
  ASSERT_EQ(mkdir("/tmp/ro", 0755), 0);
  Write("a=1\n", "/tmp/ro/x.conf");
  ASSERT_EQ(mount("/tmp/ro", "/tmp/ro", nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(mount(nullptr, "/tmp/ro", nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(VLIBCFileSetKeyValue("/tmp/ro/x.conf", "a", "2"), -1);
  EXPECT_EQ(errno, EROFS);
}

pid_t Child(const std::function<void()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    work();
    _exit(0);
  }
  return child;
}

TEST(KeyValueWriter, ManyWritersLoseNothing) {
  std::vector<pid_t> children;
  for (int writer = 0; writer < 20; ++writer) {
    children.push_back(Child([writer] {
      for (int i = 0; i < 10; ++i) {
        const std::string key = "k" + std::to_string(writer) + "_" + std::to_string(i);
        if (VLIBCFileSetKeyValue(kFile, key.c_str(), "v") != 0) _exit(1);
      }
    }));
  }
  for (const pid_t child : children) {
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
  }
  VEMOSZHASH* pairs = VLIBCSzHashAlloc(300);
  EXPECT_EQ(VLIBCFileGetPair(kFile, pairs), 200);
  VLIBCSzHashFree(pairs);
}

TEST(KeyValueWriter, AKilledWriterLeavesAWholeFileAndNoLock) {
  ASSERT_EQ(VLIBCFileSetKeyValue(kFile, "first", std::string(20000, 'x').c_str()), 0);
  for (int i = 0; i < 100; ++i) {
    const pid_t child = Child([] {
      for (int turn = 0;; ++turn)
        VLIBCFileSetKeyValue(kFile, "k", std::to_string(turn).c_str());
    });
    std::this_thread::sleep_for(std::chrono::microseconds(500 + 137 * (i % 20)));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    ASSERT_EQ(Get("first").size(), 6 + 20000u);
  }
  EXPECT_EQ(VLIBCFileSetKeyValue(kFile, "last", "v"), 0);
}

TEST(InfoWriter, WritesTheSystemsConfiguration) {
  ASSERT_EQ(VLIBCINFOSetKeyValue("test_key", "v"), 0);
  EXPECT_EQ(Get("test_key", "/etc/vemoinfo.conf"), "found v");
}

// Files and directories.

TEST(Files, ALinkThatLeadsNowhereExists) {
  ASSERT_EQ(symlink("/nowhere", "/tmp/link"), 0);
  EXPECT_TRUE(VLIBCFileExist("/tmp/link"));
  EXPECT_TRUE(VLIBCFileExist("/tmp"));
  EXPECT_FALSE(VLIBCFileExist("/tmp/none"));
  EXPECT_FALSE(VLIBCFileExist(""));
  EXPECT_FALSE(VLIBCFileExist(nullptr));
  EXPECT_TRUE(VLIBCFileCheckDir("/tmp"));
  EXPECT_FALSE(VLIBCFileCheckDir("/tmp/link"));
  EXPECT_FALSE(VLIBCFileCheckDir("/etc/passwd"));
  EXPECT_FALSE(VLIBCFileCheckDir(nullptr));
  ASSERT_EQ(symlink("/etc", "/tmp/dir"), 0);
  EXPECT_TRUE(VLIBCFileCheckDir("/tmp/dir"));
}

TEST(Files, DirectoriesAreListedInTheOrderOfBytes) {
  ASSERT_EQ(system("mkdir /tmp/d && cd /tmp/d && touch b a Z .hidden '.#json.1' 'a b' && mkdir c"),
            0);
  VEMOSZLIST* names = VLIBCSzListAlloc(1);
  EXPECT_EQ(VLIBCFileEnumDir("/tmp/d", 0, names, 0), 6);
  const char* expected[] = {".hidden", "Z", "a", "a b", "b", "c"};
  for (int i = 0; i < 6; ++i)
    EXPECT_STREQ(VLIBCSzListGet(names, i), expected[i]);
  EXPECT_EQ(VLIBCFileEnumDir("/tmp/none", 0, names, 0), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NOT_FOUND);
  EXPECT_EQ(VLIBCFileEnumDir("/etc/passwd", 0, names, 0), -1);
  EXPECT_EQ(VLIBCFileEnumDir("/tmp/d", 0, nullptr, 0), -1);
  VLIBCSzListFree(names);
}

// Locks.

constexpr char kLock[] = "/tmp/lock";

TEST(Lock, IsExclusiveOrShared) {
  int first, second;
  ASSERT_TRUE(VLIBCFileLockTimeByFile(kLock, 1, 0, &first));
  EXPECT_FALSE(VLIBCFileLockTimeByFile(kLock, 1, 0, &second));
  EXPECT_EQ(second, -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_BUSY);
  VLIBCFileUnlockByFile(first);
  ASSERT_TRUE(VLIBCFileLockTimeByFile(kLock, 0, 0, &first));
  ASSERT_TRUE(VLIBCFileLockTimeByFile(kLock, 0, 0, &second));
  VLIBCFileUnlockByFile(first);
  VLIBCFileUnlockByFile(second);
  VLIBCFileUnlockByFile(-1);
}

TEST(Lock, WaitsNoLongerThanItSays) {
  int held, fd;
  ASSERT_TRUE(VLIBCFileLockTimeByFile(kLock, 1, 0, &held));
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_FALSE(VLIBCFileLockTimeByFile(kLock, 1, 1, &fd));
  const auto waited = std::chrono::steady_clock::now() - begun;
  EXPECT_GT(waited, std::chrono::milliseconds(950));
  EXPECT_LT(waited, std::chrono::milliseconds(2500));
}

TEST(Lock, AHolderThatIsKilledHoldsNothing) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = Child([&] {
    int fd;
    VLIBCFileLockTimeByFile(kLock, 1, 0, &fd);
    if (write(ready[1], "x", 1) == 1) pause();
  });
  char byte;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  int fd;
  EXPECT_TRUE(VLIBCFileLockTimeByFile(kLock, 1, 1, &fd));
}

TEST(Lock, WhatCannotBeOpenedIsRefused) {
  int fd = 5;
  EXPECT_FALSE(VLIBCFileLockTimeByFile("/nowhere/lock", 1, 0, &fd));
  EXPECT_EQ(fd, -1);
  EXPECT_FALSE(VLIBCFileLockTimeByFile(nullptr, 1, 0, &fd));
  ASSERT_EQ(symlink("/etc/passwd", "/tmp/link"), 0);
  EXPECT_FALSE(VLIBCFileLockTimeByFile("/tmp/link", 1, 0, &fd));
}

// Each process adds to a counter under the lock, and removes the lock's file while it
// holds it: two that are inside at once would lose a count.
TEST(Lock, AFileThatIsRemovedWhileHeldLetsOneIn) {
  Write("0", "/tmp/counter");
  std::vector<pid_t> children;
  for (int i = 0; i < 8; ++i) {
    children.push_back(Child([] {
      for (int turn = 0; turn < 100; ++turn) {
        int fd;
        if (!VLIBCFileLockTimeByFile(kLock, 1, 20, &fd)) _exit(1);
        const int count = std::stoi(Read("/tmp/counter"));
        Write(std::to_string(count + 1), "/tmp/counter");
        unlink(kLock);
        VLIBCFileUnlockByFile(fd);
      }
    }));
  }
  for (const pid_t child : children) {
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(Read("/tmp/counter"), "800");
}

// Programs.

void Script(const std::string& text) {
  Write("#!/bin/sh\n" + text + "\n", "/tmp/script");
  chmod("/tmp/script", 0755);
}

TEST(Exec, GivesTheExitStatus) {
  for (const int status : {0, 1, 7, 255}) {
    Script("exit " + std::to_string(status));
    EXPECT_EQ(VLIBCExec("/tmp/script", nullptr), status);
  }
  Script("kill -9 $$");
  EXPECT_EQ(VLIBCExec("/tmp/script", nullptr), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_IO);
  EXPECT_EQ(VLIBCExec("/tmp/none", nullptr), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(VLIBCExec("/etc/passwd", nullptr), -1);
  EXPECT_EQ(VLIBCExec(nullptr, nullptr), -1);
  EXPECT_EQ(VLIBCExec("", nullptr), -1);
}

TEST(Exec, ArgumentsAreGivenAsTheyAre) {
  Script("printf '[%s]' \"$0\" \"$@\" > /tmp/out");
  EXPECT_EQ(VLIBCExec("/tmp/script", "a b", "", "$(id)", ";", "-x", "*", nullptr), 0);
  EXPECT_EQ(Read("/tmp/out"), "[/tmp/script][a b][][$(id)][;][-x][*]");
  char name[] = "other-name", one[] = "1";
  char* argv[] = {name, one, nullptr};
  Write("#!/bin/sh\n", "/tmp/out");
  EXPECT_EQ(VLIBCExecv("/bin/true", argv), 0);
  EXPECT_EQ(VLIBCExecv("/bin/false", argv), 1);
  EXPECT_EQ(VLIBCExecv("/bin/true", nullptr), -1);
}

TEST(Exec, TheProgramHasNothingOfTheRequest) {
  setenv("HTTP_COOKIE", "secret", 1);
  signal(SIGPIPE, SIG_IGN);
  VLIBCSigtermHold();
  const int leaked = open("/etc/passwd", O_RDONLY);  // without close-on-exec
  ASSERT_GE(leaked, 0);
  Script(
      "env | sort > /tmp/env; ls -l /proc/self/fd > /tmp/fds; cat > /tmp/in; echo spoiled; "
      "grep -E '^Sig(Blk|Ign)' /proc/self/status > /tmp/signals");
  EXPECT_EQ(VLIBCExec("/tmp/script", nullptr), 0);
  VLIBCSigtermRelease();
  EXPECT_EQ(Read("/tmp/env").find("secret"), std::string::npos);
  EXPECT_NE(Read("/tmp/env").find("LC_ALL=C\n"), std::string::npos);
  EXPECT_NE(Read("/tmp/env").find("TMPDIR=/tmp\n"), std::string::npos);
  EXPECT_EQ(Read("/tmp/in"), "");
  EXPECT_EQ(Read("/tmp/fds").find("passwd"), std::string::npos);
  unsigned long long blocked = 1;
  unsigned long long ignored = 1;
  ASSERT_EQ(sscanf(Read("/tmp/signals").c_str(), "SigBlk: %llx SigIgn: %llx", &blocked, &ignored),
            2);
  EXPECT_EQ(blocked, 0u);
  EXPECT_EQ(ignored & 0x7fffffff, 0u);  // above are the C library's own
}

TEST(Popen, ReadsWhatTheProgramPrints) {
  Script("echo one; echo two; exit 3");
  FILE* stream = VLIBCPopen("/tmp/script", "r", nullptr);
  ASSERT_NE(stream, nullptr);
  char line[16];
  EXPECT_STREQ(fgets(line, sizeof line, stream), "one\n");
  EXPECT_STREQ(fgets(line, sizeof line, stream), "two\n");
  EXPECT_EQ(fgets(line, sizeof line, stream), nullptr);
  EXPECT_EQ(VLIBCPclose(stream), 3);
}

TEST(Popen, MayBeClosedEarly) {
  FILE* stream = VLIBCPopen("/usr/bin/yes", "r", nullptr);
  ASSERT_NE(stream, nullptr);
  char line[16];
  EXPECT_STREQ(fgets(line, sizeof line, stream), "y\n");
  EXPECT_EQ(VLIBCPclose(stream), -1);            // ended by SIGPIPE
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);  // nobody is left
}

TEST(Popen, WritesToAProgram) {
  Script("cat > /tmp/out");
  FILE* stream = VLIBCPopen("/tmp/script", "w", nullptr);
  ASSERT_NE(stream, nullptr);
  fputs("text", stream);
  EXPECT_EQ(VLIBCPclose(stream), 0);
  EXPECT_EQ(Read("/tmp/out"), "text");
}

TEST(Popen, SeveralAtOnceAreKeptApart) {
  Script("exit $1");
  FILE* five = VLIBCPopen("/tmp/script", "r", "5", nullptr);
  FILE* six = VLIBCPopen("/tmp/script", "r", "6", nullptr);
  EXPECT_EQ(VLIBCPclose(five), 5);
  EXPECT_EQ(VLIBCPclose(six), 6);
}

TEST(Popen, WhatIsNoStreamOfOursIsRefused) {
  EXPECT_EQ(VLIBCPclose(nullptr), -1);
  EXPECT_EQ(VLIBCPclose(stdin), -1);
  EXPECT_EQ(VLIBCPopen("/tmp/none", "r", nullptr), nullptr);
  EXPECT_EQ(VLIBCPopen("/bin/true", "x", nullptr), nullptr);
  EXPECT_EQ(VLIBCPopen(nullptr, "r", nullptr), nullptr);
}

}  // namespace
