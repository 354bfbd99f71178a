// The directories in a directory.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <random>

#include "faults/faults.h"
#include "unit/file_share/shares.h"

using namespace shares;
using faults::hooks;

namespace {

using Entry = _tag_SUBDIR_ENTRY_INFO_;
using Entries = std::vector<Entry>;

class Subdirectories : public WithLog {
 protected:
  void SetUp() override {
    MakeVolume();
    ASSERT_EQ(chdir("/volume1"), 0);
    BeginLog();
  }

  // "result code", and the entries in `out`.
  static std::string List(const std::string& dir, Entries& out) {
    WebmanFileShare::WfmLibSetErr(WEBFMERR_BAD_PARAMETER);
    const bool result = WebmanFileShare::WfmLibEnumSubDir(dir, out);
    return std::to_string(result) + " " + std::to_string(WebmanFileShare::WfmLibGetErr());
  }

  static std::string Names(const Entries& entries) {
    std::string names;
    for (const Entry& entry : entries)
      names += (names.empty() ? "" : " ") + entry.name;
    return names;
  }

  // Their names after a listing that succeeds.
  static std::string NamesIn(const std::string& dir) {
    Entries out;
    EXPECT_EQ(List(dir, out), "1 0");
    return Names(out);
  }

  static const Entry& Find(const Entries& entries, const std::string& name) {
    static const Entry none{"none", "", 0, 0, 0, 0, 0, false, "none"};
    const auto found = std::find_if(entries.begin(), entries.end(),
                                    [&](const Entry& entry) { return entry.name == name; });
    return found == entries.end() ? none : *found;
  }
};

TEST_F(Subdirectories, AreSortedWithoutRegardToCase) {
  Shell("mkdir b A c");
  EXPECT_EQ(NamesIn("/volume1"), "A b c");
  Shell("mkdir Zoë zoE zOf Äpfel äpfelchen ÄPFE ß");
  // ß is ss, and letters with marks stand behind z.
  EXPECT_EQ(NamesIn("/volume1"), "A b c ß zoE zOf Zoë ÄPFE Äpfel äpfelchen");
}

TEST_F(Subdirectories, DirectoriesAloneAreListed) {
  Shell(
      "mkdir dir .hidden @eaDir @tmp lost+found @EADIR; touch file; ln -s dir link; "
      "mkfifo pipe; mknod device c 1 3");
  EXPECT_EQ(NamesIn("/volume1"), ".hidden @EADIR dir");
  Shell("mkdir empty");
  EXPECT_EQ(NamesIn("/volume1/empty"), "");
  EXPECT_EQ(Logged(), Texts{});
}

TEST_F(Subdirectories, EntriesOfUnknownKindAreExamined) {
  Shell("mkdir dir; touch file; ln -s dir link");
  hooks.readdir = [](DIR* directory) {
    dirent* entry = reinterpret_cast<dirent*>(readdir64(directory));  // not wrapped
    if (entry != nullptr) entry->d_type = DT_UNKNOWN;
    return entry;
  };
  EXPECT_EQ(NamesIn("/volume1"), "dir");
}

TEST_F(Subdirectories, Attributes) {
  Shell("mkdir dir; chmod 2751 dir; chown 5:6 dir; touch -d @1234567890 dir");
  Entries out;
  EXPECT_EQ(List("/volume1", out), "1 0");
  ASSERT_EQ(out.size(), 1U);
  struct stat status;
  ASSERT_EQ(lstat("dir", &status), 0);
  EXPECT_EQ(out[0].name, "dir");
  EXPECT_EQ(out[0].path, "/volume1/dir");
  EXPECT_EQ(out[0].size, status.st_size);
  EXPECT_EQ(out[0].mode, S_IFDIR | 02751U);
  EXPECT_EQ(out[0].mtime, 1234567890);
  EXPECT_EQ(out[0].uid, 5U);
  EXPECT_EQ(out[0].gid, 6U);
  EXPECT_FALSE(out[0].isMountPoint);
  EXPECT_EQ(out[0].mountType, "");
  // The path is made from what was given.
  out.clear();
  EXPECT_EQ(List("/volume1/", out), "1 0");
  EXPECT_EQ(out[0].path, "/volume1//dir");
  out.clear();
  EXPECT_EQ(List(".", out), "1 0");
  EXPECT_EQ(out[0].path, "./dir");
}

TEST_F(Subdirectories, AreAddedToWhatIsThere) {
  Shell("mkdir b a");
  Entries out;
  EXPECT_EQ(List("/volume1", out), "1 0");
  EXPECT_EQ(List("/volume1", out), "1 0");
  EXPECT_EQ(Names(out), "a a b b");
  Entry foreign;
  foreign.name = "AA";
  out.push_back(foreign);
  EXPECT_EQ(List("/volume1", out), "1 0");
  EXPECT_EQ(Names(out), "a a a AA b b b");
}

TEST_F(Subdirectories, ThatCannotBeListed) {
  Shell("touch file; ln -s loop loop; mkdir -m 0700 closed; mkdir -m 0755 dir");
  Entries out(1);
  out[0].name = "z";
  EXPECT_EQ(List("", out), "0 1");  // the code is left alone
  EXPECT_EQ(Logged(), Texts{"file_share:N Bad parameter"});
  EXPECT_EQ(List("/volume1/none", out), "0 6");
  EXPECT_EQ(List("/volume1/file", out), "0 6");
  EXPECT_EQ(List("/volume1/loop", out), "0 7");
  EXPECT_EQ(List("/" + std::string(300, 'x'), out), "0 7");
  EXPECT_EQ(As("nobody",
               [&] {
                 std::printf("%s, ", List("/volume1/closed", out).c_str());
                 std::printf("%s", List("/volume1/dir", out).c_str());
               }),
            "0 3, 1 0");
  EXPECT_EQ(Names(out), "z");
  EXPECT_EQ(Logged(), Texts{});
}

TEST_F(Subdirectories, EntriesThatCannotBeExaminedAreSkipped) {
  // A directory that may be read and not entered: its entries have names only.
  Shell("mkdir -p closed/in; chmod 0744 closed");
  EXPECT_EQ(As("nobody",
               [] {
                 Entries out;
                 std::printf("%s %zu", List("/volume1/closed", out).c_str(), out.size());
               }),
            "1 0 0");
}

TEST_F(Subdirectories, PathsAsLongAsThereAre) {
  std::string path = "/volume1";
  while (path.size() < 4000) {
    path += "/" + std::string(100, 'd');
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
  }
  const size_t rest = 4095 - path.size() - 1;  // a name with which the path is the longest
  ASSERT_EQ(mkdir((path + "/" + std::string(rest, 'x')).c_str(), 0755), 0);
  ASSERT_EQ(chdir(path.c_str()), 0);
  ASSERT_EQ(mkdir((std::string(rest, 'x') + "y").c_str(), 0755), 0);  // 4,096 bytes: no path
  Entries out;
  EXPECT_EQ(List(path, out), "1 0");
  ASSERT_EQ(out.size(), 1U);
  EXPECT_EQ(out[0].path.size(), 4095U);
}

TEST_F(Subdirectories, MountPoints) {
  Shell(
      "mkdir ram ro bound 'with blank'; mount -t ramfs none ram; "
      "mount -t tmpfs -o ro none ro; mount --bind /etc bound; mount -t tmpfs none 'with blank'");
  Entries out;
  EXPECT_EQ(List("/volume1", out), "1 0");
  EXPECT_EQ(Names(out), "bound ram ro with blank");
  for (const Entry& entry : out) {
    EXPECT_TRUE(entry.isMountPoint) << entry.name;
    EXPECT_EQ(entry.mountType, "") << entry.name;
  }
  EXPECT_EQ(Logged(), Texts{});
}

// A file system in user space from an image, by a server of this test's own.
class Served : public Subdirectories {
 protected:
  void SetUp() override {
    Subdirectories::SetUp();
    Shell("mkdir -p /run/content/in; mksquashfs /run/content /run/image -quiet -no-progress");
    if (system("test -e /dev/fuse || mknod -m 0666 /dev/fuse c 10 229") != 0) GTEST_SKIP();
  }
  void TearDown() override {
    if (server_ > 0) End();
  }

  void Serve(const std::string& options) {
    Shell("mkdir -p point other");
    server_ = fork();
    ASSERT_GE(server_, 0);
    if (server_ == 0) {
      execlp("squashfuse", "squashfuse", "-f", "-o", options.c_str(), "/run/image",
             "/volume1/point", static_cast<char*>(nullptr));
      _exit(127);
    }
    for (int i = 0; i < 200; i++) {
      struct stat status;
      if (stat("/volume1/point/in", &status) == 0) return;
      usleep(20000);
    }
    FAIL() << "the server does not answer";
  }
  void End() {
    kill(server_, SIGKILL);
    waitpid(server_, nullptr, 0);
    server_ = -1;
  }

  pid_t server_ = -1;
};

TEST_F(Served, Images) {
  Serve("ro");
  Entries out;
  EXPECT_EQ(List("/volume1", out), "1 0");
  EXPECT_EQ(Names(out), "other point");
  EXPECT_TRUE(Find(out, "point").isMountPoint);
  EXPECT_EQ(Find(out, "point").mountType, "iso");
}

TEST_F(Served, RemoteOnesThatAreGoneStayVisible) {
  Serve("subtype=sshfs,fsname=nas:/x");
  Entries out;
  EXPECT_EQ(List("/volume1", out), "1 0");
  EXPECT_TRUE(Find(out, "point").isMountPoint);
  EXPECT_EQ(Find(out, "point").mountType, "remote");
  EXPECT_NE(Find(out, "point").mode, 0U);

  End();
  sleep(3);  // what the kernel remembers of it has run out by then
  struct stat status;
  ASSERT_EQ(lstat("/volume1/point", &status), -1);
  out.clear();
  EXPECT_EQ(List("/volume1", out), "1 0");
  EXPECT_EQ(Names(out), "other point");
  const Entry& gone = Find(out, "point");
  EXPECT_EQ(gone.path, "/volume1/point");
  EXPECT_EQ(gone.mountType, "remotefail");
  EXPECT_EQ(gone.mode, 0U);
  EXPECT_EQ(gone.uid, 0U);
  EXPECT_EQ(Logged(), Texts{});
}

TEST_F(Served, LocalOnesThatAreGoneAreLeftOut) {
  Serve("subtype=somethinglocal");
  EXPECT_EQ(NamesIn("/volume1"), "other point");
  End();
  sleep(3);
  EXPECT_EQ(NamesIn("/volume1"), "other");
}

TEST_F(Subdirectories, NamesOfAnyBytesAreSorted) {
  std::mt19937 random(1);
  for (int i = 0; i < 2000; i++) {
    std::string name;
    const size_t size = 1 + random() % 12;
    while (name.size() < size) {
      // Mostly pieces of characters, where orders go wrong.
      const char pieces[] = "aAbB\xc3\xa4\x84\xff\xf0\x9f\xe2\x80\xed\xa0\xc0";
      const char byte = pieces[random() % (sizeof pieces - 1)];
      if (byte != '/') name += byte;
    }
    mkdir(name.c_str(), 0755);
  }
  Entries out;
  EXPECT_EQ(List("/volume1", out), "1 0");
  EXPECT_GT(out.size(), 1500U);
  for (size_t i = 1; i < out.size(); i++) {
    ASSERT_LE(VLIBCUnicodeUTF8StrCaseCmp(out[i - 1].name.c_str(), out[i].name.c_str()), 0) << i;
  }
}

TEST_F(Subdirectories, ThousandsTakeMemoryByTheEntry) {
  Shell("for i in $(seq 20000); do echo dir$i; done | xargs mkdir");
  size_t per_entry[2];
  size_t at = 0;
  for (const size_t count : {10000UL, 20000UL}) {
    if (count == 10000)
      Shell("mkdir /volume1/.away; mv dir1???? /volume1/.away");
    else
      Shell("mv .away/* .; rmdir .away");
    const std::string kilobytes = InChild([] {
      rusage before, after;
      getrusage(RUSAGE_SELF, &before);
      Entries out;
      EXPECT_EQ(List("/volume1", out), "1 0");
      getrusage(RUSAGE_SELF, &after);
      std::printf("%ld", after.ru_maxrss - before.ru_maxrss);
    });
    per_entry[at++] = std::stoul(kilobytes) * 1024 / count;
  }
  EXPECT_LT(per_entry[1], 1000U);
  EXPECT_LT(per_entry[1], per_entry[0] * 2 + 200);
}

TEST_F(Subdirectories, TheWorkingDirectoryAndUmaskStay) {
  Shell("mkdir -p a/b");
  umask(027);
  EXPECT_EQ(NamesIn("/volume1/a"), "b");
  EXPECT_EQ(umask(027), 027U);
  char here[64];
  EXPECT_STREQ(getcwd(here, sizeof here), "/volume1");
}

}  // namespace
