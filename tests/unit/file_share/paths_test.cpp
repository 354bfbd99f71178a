// Share paths, homes and the scratch directory of a share.
#include <fcntl.h>
#include <sys/stat.h>

#include <memory>

#include "faults/faults.h"
#include "unit/file_share/shares.h"

using namespace shares;
using faults::hooks;

namespace {

class Paths : public WithLog {
 protected:
  void SetUp() override {
    Prepare();
    MakeVolume();
    Shell("mkdir -p /volume1/photo/2020 /volume1/photo2 /volume1/inner/in /volume1/homes");
    WriteShares(
        "[Photo]\npath = /volume1/photo\n[photo2]\npath = /volume1/photo2\n"
        "[outer]\npath = /volume1/inner\n[nested]\npath = /volume1/inner/in\n"
        "[whole]\npath = /plain\n");
    BeginLog();
  }

  // The component, "null" when there is none; the code must stay.
  static std::string Token(const char* path, BOOL first) {
    WebmanFileShare::WfmLibSetErr(WEBFMERR_OTHER);
    const std::unique_ptr<char, void (*)(void*)> token(
        WebmanFileShare::WfmLibGetTokOfPath(path, first), free);
    EXPECT_EQ(WebmanFileShare::WfmLibGetErr(), WEBFMERR_OTHER);
    return token == nullptr ? "null" : token.get();
  }

  static std::string WorkingDirectory() {
    char path[4096];
    return getcwd(path, sizeof path) == nullptr ? "none" : path;
  }

  std::string full_, name_, volume_, root_;
  bool FullPath(const char* path, const std::string& user) {
    return WebmanFileShare::WfmFullPathGet(path, full_, name_, volume_, root_, user);
  }
};

TEST_F(Paths, TheCodeIsTheProcess) {
  WebmanFileShare one, other;
  EXPECT_EQ(one.WfmLibGetErr(), 0);
  for (const int code : {1, 2, 3, 6, 7, 0}) {
    one.WfmLibSetErr(static_cast<WEBFMERR>(code));
    EXPECT_EQ(other.WfmLibGetErr(), code);
  }
}

TEST_F(Paths, FirstAndLastComponent) {
  const struct {
    const char *path, *first, *last;
  } rows[] = {{"//photo//a/", "photo", "a"}, {"/photo", "photo", "photo"},
              {"photo/", "photo", "photo"},  {"a/b/c", "a", "c"},
              {"/./..", ".", ".."},          {"/ph oto/a\xff", "ph oto", "a\xff"}};
  for (const auto& row : rows) {
    EXPECT_EQ(Token(row.path, TRUE), row.first) << row.path;
    EXPECT_EQ(Token(row.path, FALSE), row.last) << row.path;
    EXPECT_EQ(Token(row.path, 2), row.first) << row.path;
  }
  EXPECT_EQ(Logged(), Texts{});
}

TEST_F(Paths, NoComponent) {
  EXPECT_EQ(Token(nullptr, TRUE), "null");
  EXPECT_EQ(Logged(), Texts{"file_share(N): bad parameter!"});
  EXPECT_EQ(Token("photo", TRUE), "null");
  EXPECT_EQ(Logged(), Texts{"file_share(N) bad path name=photo"});
  EXPECT_EQ(Token("", FALSE), "null");
  EXPECT_EQ(Logged(), Texts{"file_share(N) bad path name="});
  EXPECT_EQ(Token("///", FALSE), "null");
  EXPECT_EQ(Logged(), Texts{"file_share(N) error path"});
  hooks.VLIBCSzListAlloc = [](int capacity) {
    EXPECT_EQ(capacity, 1024);
    return nullptr;
  };
  EXPECT_EQ(Token("/photo", TRUE), "null");
  EXPECT_EQ(Logged(), Texts{"file_share(N): VLIBCSzListAlloc() failed!"});
}

TEST_F(Paths, ComponentsAreCutWithThePath) {
  for (const size_t size : {4094UL, 4095UL, 4096UL, 9000UL}) {
    const std::string path = "/x/" + std::string(size - 3, 'y');
    EXPECT_EQ(Token(path.c_str(), FALSE).size(), std::min(size, 4095UL) - 3) << size;
    EXPECT_EQ(Token(path.c_str(), TRUE), "x");
  }
  EXPECT_EQ(Token((std::string(4094, '/') + "a").c_str(), TRUE), "a");
  EXPECT_EQ(Token((std::string(4095, '/') + "a").c_str(), TRUE), "null");
  EXPECT_EQ(Logged(), Texts{"file_share(N) error path"});
}

TEST_F(Paths, RealPathsAreTheKernels) {
  Shell("ln -s photo/2020 /volume1/link");
  ASSERT_EQ(chdir("/volume1/photo"), 0);
  const struct {
    const char *path, *real;
  } rows[] = {{"/volume1/link", "/volume1/photo/2020"},
              {"/volume1/link/..", "/volume1/photo"},
              {"2020", "/volume1/photo/2020"},
              {"..//photo2/", "/volume1/photo2"},
              {"/", "/"}};
  for (const auto& row : rows) {
    char buffer[4096] = "before";
    EXPECT_TRUE(WebmanFileShare::WfmLibRealFullPathGet(row.path, buffer, sizeof buffer));
    EXPECT_STREQ(buffer, row.real);
    EXPECT_EQ(WorkingDirectory(), "/volume1/photo");
  }
  Write("/volume1/file", "");
  for (const char* path : {"/none", "/volume1/file", "", static_cast<const char*>(nullptr)}) {
    char buffer[4096] = "before";
    EXPECT_FALSE(WebmanFileShare::WfmLibRealFullPathGet(path, buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "before");
    EXPECT_EQ(WorkingDirectory(), "/volume1/photo");
  }
  EXPECT_EQ(Logged(), Texts{});
}

TEST_F(Paths, RealPathsThatDoNotFit) {
  const std::string real = "/volume1/photo/2020";
  char buffer[4096] = "before";
  const int size = static_cast<int>(real.size());
  for (const int small : {size, 1, 0, -1}) {
    EXPECT_FALSE(WebmanFileShare::WfmLibRealFullPathGet(real.c_str(), buffer, small));
    EXPECT_STREQ(buffer, "before");
  }
  EXPECT_TRUE(WebmanFileShare::WfmLibRealFullPathGet(real.c_str(), buffer, size + 1));
  EXPECT_EQ(buffer, real);
  EXPECT_FALSE(WebmanFileShare::WfmLibRealFullPathGet(real.c_str(), nullptr, size));

  // Deeper than any path: reached step by step, it has none.
  const std::string part(250, 'd');
  ASSERT_EQ(chdir("/volume1"), 0);
  for (int i = 0; i < 17; i++) {
    ASSERT_EQ(mkdir(part.c_str(), 0755), 0);
    ASSERT_EQ(chdir(part.c_str()), 0);
  }
  std::snprintf(buffer, sizeof buffer, "before");
  EXPECT_FALSE(WebmanFileShare::WfmLibRealFullPathGet(".", buffer, sizeof buffer));
  EXPECT_STREQ(buffer, "before");
  // From there into another one, and back again.
  EXPECT_TRUE(WebmanFileShare::WfmLibRealFullPathGet("/volume1", buffer, sizeof buffer));
  struct stat here, there;
  ASSERT_EQ(stat(".", &here), 0);
  EXPECT_EQ(stat("/volume1", &there), 0);
  EXPECT_NE(here.st_ino, there.st_ino);
}

TEST_F(Paths, RealPathsOfClosedDirectories) {
  Shell("mkdir -m 0700 /volume1/closed");
  EXPECT_EQ(As("alice",
               [] {
                 char buffer[64] = "before";
                 std::printf("%d %s",
                             WebmanFileShare::WfmLibRealFullPathGet("/volume1/closed", buffer,
                                                                    sizeof buffer),
                             buffer);
               }),
            "0 before");
}

TEST_F(Paths, HomesAreResolved) {
  Shell("mkdir -p /volume1/homes/real && ln -s real /volume1/homes/link");
  Shell("useradd -M -d /volume1/homes/link hal; useradd -M -d /volume1/homes/none nohome");
  Logged();
  std::string home = "before";
  EXPECT_TRUE(WebmanFileShare::WfmUserHomeFullPathGet(home, "hal"));
  EXPECT_EQ(home, "/volume1/homes/real");
  EXPECT_FALSE(WebmanFileShare::WfmUserHomeFullPathGet(home, "nohome"));
  EXPECT_FALSE(WebmanFileShare::WfmUserHomeFullPathGet(home, "ghost"));
  EXPECT_FALSE(WebmanFileShare::WfmUserHomeFullPathGet(home, ""));
  EXPECT_EQ(home, "/volume1/homes/real");
  EXPECT_EQ(Logged(), (Texts{"file_share:N Failed to get real path (/volume1/homes/none)",
                             "file_share:N Failed to get user (ghost)",
                             "file_share:N Failed to get user ()"}));
}

TEST_F(Paths, HomesAsLongAsTheyMayBe) {
  std::string home = "/volume1";
  for (const size_t size : {4093UL, 4094UL, 4095UL}) {
    while (home.size() + 102 < size) {
      home += "/" + std::string(100, 'd');
      ASSERT_EQ(mkdir(home.c_str(), 0755), 0);
    }
    const std::string deep = home + "/" + std::string(size - home.size() - 1, 'x');
    ASSERT_EQ(mkdir(deep.c_str(), 0755), 0);
    const std::string name = "deep" + std::to_string(size);
    ASSERT_EQ(symlink(deep.c_str(), ("/volume1/" + name).c_str()), 0);
    Shell(std::string("useradd -M -d /volume1/").append(name).append(" ").append(name));
    Logged();
    std::string real;
    EXPECT_EQ(WebmanFileShare::WfmUserHomeFullPathGet(real, name), size < 4095) << size;
    EXPECT_EQ(real, size < 4095 ? deep : "");
  }
}

TEST_F(Paths, WhatIsAHome) {
  const struct {
    const char *dir, *user;
    bool expected;
  } rows[] = {
      {"home", nullptr, true},
      {"/home", nullptr, true},
      {"/home/", nullptr, true},
      {"/home/x", nullptr, true},
      {"/home/../etc", nullptr, true},
      {"home/", nullptr, false},
      {"Home", nullptr, false},
      {"/Home/x", nullptr, false},
      {"/hom", nullptr, false},
      {"/homex", nullptr, false},
      {"", nullptr, false},
      {"photo", "alice", false},
      {"homes", "alice", false},
      {"/homes", nullptr, false},
      {"/homes/alice", nullptr, false},
      {"/homes", "alice", false},
      {"/homes/", "alice", false},
      {"/homes/alice", "alice", true},
      {"/homes/alice/", "alice", true},
      {"/homes/Alice/docs", "alice", true},
      {"/HOMES/alice", "alice", false},
      {"/homes/alicex", "alice", false},
      {"/homes/alic", "alice", false},
      {"/homesx/alice", "alice", false},
      {"/homes/alice", "ALICE", true},
      {"/homes/ghost/x", "ghost", true},  // a local name is not looked up
      {"/homes/CORP\\ghost", "CORP\\ghost", false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(WebmanFileShare::IsDirUserHome(row.dir, row.user), row.expected)
        << row.dir << " of " << (row.user == nullptr ? "nobody" : row.user);
  }
  EXPECT_EQ(Logged(), Texts{});
}

TEST_F(Paths, HomesOfDomainUsersAreMade) {
  AddDomainUser("CORP\\dana", 7101, "/volume1/homes/@DH-CORP/Dana");
  AddDomainUser("carol@corp.example", 7102, "/volume1/homes/carol");
  AddDomainUser("CORP\\eve", 7103, "/volume1/else/eve");
  AddDomainUser("CORP\\fred", 7104, "/volume1/homes/file/fred");
  Write("/volume1/homes/file", "");
  umask(0077);
  const char* dana = "/homes/@dh-corp/DANA/docs";

  // With the service off the home is compared, and not made.
  EXPECT_TRUE(WebmanFileShare::IsDirUserHome(dana, "CORP\\dana"));
  EXPECT_EQ(Describe("/volume1/homes/@DH-CORP"), "none");

  Configure("userhome_enable=\"yes\"\n");
  EXPECT_TRUE(WebmanFileShare::IsDirUserHome(dana, "CORP\\dana"));
  EXPECT_EQ(Describe("/volume1/homes/@DH-CORP/Dana"), "755 7101 7101");
  const struct {
    const char *dir, *user;
    bool expected;
  } rows[] = {
      {"/homes/@DH-CORP/Dana", "CORP\\dana", true},
      {"/homes/@DH-CORP/Danax", "CORP\\dana", false},
      {"/homes/@DH-CORP", "CORP\\dana", false},
      {"/homes/CORP\\dana", "CORP\\dana", false},
      {"/homes/carol/x", "carol@corp.example", true},
      {"/homes/carol@corp.example", "carol@corp.example", false},
      {"/homes/eve", "CORP\\eve", false},         // the account's home is not below homes
      {"/homes/file/fred", "CORP\\fred", false},  // it cannot be made
      {"/homes/ghost", "CORP\\ghost", false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(WebmanFileShare::IsDirUserHome(row.dir, row.user), row.expected) << row.dir;
  }
  EXPECT_EQ(Describe("/volume1/else/eve"), "755 7103 7103");
  EXPECT_EQ(Logged(), Texts{});
}

TEST_F(Paths, FullPathsInShares) {
  const struct {
    const char *path, *full, *name;
  } rows[] = {{"/photo/a.jpg", "/volume1/photo/a.jpg", "photo"},
              {"/photo", "/volume1/photo", "photo"},
              {"/photo/", "/volume1/photo/", "photo"},
              {"/PHOTO/x//y", "/volume1/photo/x//y", "PHOTO"},
              {"/photo/../x", "/volume1/photo/../x", "photo"},
              // Without its first slash, and with two of them: counted all the same.
              {"photo/a", "/volume1/photoa", "photo"},
              {"photo/", "/volume1/photo", "photo"},
              {"//photo/a", "/volume1/photoo/a", "photo"}};
  for (const auto& row : rows) {
    WebmanFileShare::WfmLibSetErr(WEBFMERR_OTHER);
    EXPECT_TRUE(FullPath(row.path, "alice")) << row.path;
    EXPECT_EQ(WebmanFileShare::WfmLibGetErr(), WEBFMERR_NONE);
    EXPECT_EQ(full_, row.full);
    EXPECT_EQ(name_, row.name);
    EXPECT_EQ(volume_, "/volume1");
    EXPECT_EQ(root_, "/volume1/photo");
  }
  EXPECT_TRUE(FullPath("/whole/a", "alice"));
  EXPECT_EQ(full_, "/plain/a");
  EXPECT_EQ(volume_, "/plain");  // no second slash
  // What is long stays whole.
  const std::string tail = "/" + std::string(5000, 't');
  EXPECT_TRUE(FullPath(("/photo" + tail).c_str(), "alice"));
  EXPECT_EQ(full_, "/volume1/photo" + tail);
  EXPECT_EQ(Logged(), Texts{});
}

TEST_F(Paths, FullPathsInHomes) {
  Shell("mkdir -p /volume1/homes/hal && ln -s homes/hal /volume1/link");
  Shell("useradd -M -d /volume1/link hal");
  Logged();
  EXPECT_TRUE(FullPath("/home/a", "hal"));
  EXPECT_EQ(full_, "/volume1/homes/hal/a");
  EXPECT_EQ(name_, "home");
  EXPECT_EQ(root_, "/volume1/homes/hal");
  EXPECT_EQ(volume_, "/volume1");
  EXPECT_EQ(WebmanFileShare::WfmLibGetErr(), WEBFMERR_NONE);
  EXPECT_FALSE(FullPath("/home/a", "ghost"));
  EXPECT_EQ(WebmanFileShare::WfmLibGetErr(), WEBFMERR_PATH);
  EXPECT_EQ(Logged(), (Texts{"file_share:N Failed to get user (ghost)",
                             "file_share:N WfmUserHomeFullPathGet fail"}));
}

TEST_F(Paths, FullPathsThatThereAreNot) {
  for (const auto& [path, user] :
       {std::pair<const char*, const char*>{nullptr, "alice"}, {"", "alice"}, {"/photo/a", ""}}) {
    WebmanFileShare::WfmLibSetErr(WEBFMERR_OTHER);
    EXPECT_FALSE(FullPath(path, user));
    EXPECT_EQ(WebmanFileShare::WfmLibGetErr(), WEBFMERR_BAD_PARAMETER);
  }
  EXPECT_EQ(Logged(), Texts{});
  for (const auto& [path, reason] :
       {std::pair{"photo", "bad path name=photo"}, {"//", "error path"}}) {
    EXPECT_FALSE(FullPath(path, "alice"));
    EXPECT_EQ(WebmanFileShare::WfmLibGetErr(), WEBFMERR_PATH);
    EXPECT_EQ(Logged(), (Texts{std::string("file_share(N) ") + reason,
                               "file_share:N WfmLibGetTokOfPath fail"}));
  }
  EXPECT_EQ(name_, "");
  EXPECT_FALSE(FullPath("/nosuch/a", "alice"));
  EXPECT_EQ(WebmanFileShare::WfmLibGetErr(), WEBFMERR_NOT_FOUND);
  EXPECT_EQ(Logged(), Texts{"file_share:N VEMOShareGet fail"});
  EXPECT_EQ(name_, "nosuch");
  EXPECT_EQ(root_ + full_ + volume_, "");
}

// Bytes that the process has read (proc(5)).
long BytesRead() {
  std::istringstream text(Read("/proc/self/io"));
  std::string name;
  long value = -1;
  text >> name >> value;
  return name == "rchar:" ? value : -1;
}

TEST_F(Paths, AThousandSharesAreReadOnce) {
  std::string text;
  for (int i = 0; i < 1000; i++) {
    const std::string name = "s" + std::to_string(i);
    text += Section(name, "/volume1/" + name);
  }
  WriteShares(text);
  usleep(200000);  // what has only just changed may change again unseen, and is read again
  EXPECT_TRUE(FullPath("/s999/a", "alice"));
  const long before = BytesRead();
  ASSERT_GT(before, static_cast<long>(text.size()));
  for (int i = 0; i < 1000; i++) {
    const std::string name = "s" + std::to_string(i);
    ASSERT_TRUE(FullPath(("/" + name + "/a").c_str(), "alice"));
    ASSERT_EQ(full_, "/volume1/" + name + "/a");
  }
  EXPECT_LT(BytesRead() - before, static_cast<long>(text.size()));
}

class Scratch : public Paths {
 protected:
  bool Get(const char* path) {
    WebmanFileShare::WfmLibSetErr(WEBFMERR_OTHER);
    return WebmanFileShare::WfmLibGetShareEaDirTmpPath(path, buffer_, sizeof buffer_);
  }
  char buffer_[4096] = "before";
};

TEST_F(Scratch, IsMadeForEverybody) {
  umask(0077);
  EXPECT_TRUE(Get("/volume1/photo/2020/none.jpg"));
  EXPECT_STREQ(buffer_, "/volume1/photo/@eaDir/@tmp");
  EXPECT_EQ(WebmanFileShare::WfmLibGetErr(), WEBFMERR_OTHER);
  EXPECT_EQ(Describe("/volume1/photo/@eaDir/@tmp"), "1777 0 0");
  EXPECT_EQ(umask(0077), 0077U);
  // Of the share's own root, of a nested share, of one whose name begins the same.
  EXPECT_TRUE(Get("/volume1/photo2"));
  EXPECT_STREQ(buffer_, "/volume1/photo2/@eaDir/@tmp");
  EXPECT_TRUE(Get("/volume1/inner/in/x"));
  EXPECT_STREQ(buffer_, "/volume1/inner/in/@eaDir/@tmp");
  EXPECT_TRUE(Get("/volume1/inner/other"));
  EXPECT_STREQ(buffer_, "/volume1/inner/@eaDir/@tmp");
  EXPECT_EQ(Logged(), Texts{});
}

TEST_F(Scratch, OneThatIsThereIsTakenOver) {
  Shell(
      "mkdir -p /volume1/photo/@eaDir/@tmp; chown 1:1 /volume1/photo/@eaDir/@tmp; "
      "chmod 0700 /volume1/photo/@eaDir/@tmp");
  EXPECT_TRUE(Get("/volume1/photo/a"));
  EXPECT_EQ(Describe("/volume1/photo/@eaDir/@tmp"), "1777 0 0");
}

TEST_F(Scratch, APlantedLinkLeadsNowhere) {
  Shell(
      "mkdir -m 0755 /volume1/target; chown 5:6 /volume1/target; mkdir /volume1/photo/@eaDir; "
      "ln -s ../../target /volume1/photo/@eaDir/@tmp");
  EXPECT_TRUE(Get("/volume1/photo/a"));
  EXPECT_EQ(Describe("/volume1/target"), "755 5 6");

  // In place of the directory above the scratch directory is not even looked for.
  Shell("rm -r /volume1/photo/@eaDir; ln -s ../target /volume1/photo/@eaDir");
  EXPECT_FALSE(Get("/volume1/photo/a"));
  EXPECT_EQ(WebmanFileShare::WfmLibGetErr(), WEBFMERR_OTHER);
  EXPECT_EQ(Logged(),
            Texts{"file_share:N Failed to create /volume1/photo/@eaDir " + PlatformError()});
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_PATH_REFUSED);
  EXPECT_EQ(Describe("/volume1/target/@tmp"), "none");
  EXPECT_EQ(Describe("/volume1/target"), "755 5 6");
}

TEST_F(Scratch, ALinkPlantedMeanwhileLeadsNowhere) {
  Shell("mkdir -m 0755 /volume1/target /volume1/target/@tmp; chown 5:6 /volume1/target/@tmp");
  hooks.VEMOEAMKDir = [](int, const char* path) {
    EXPECT_STREQ(path, "/volume1/photo/@eaDir");
    return symlink("../target", path);
  };
  EXPECT_TRUE(Get("/volume1/photo/a"));
  EXPECT_EQ(Describe("/volume1/target/@tmp"), "755 5 6");
}

TEST_F(Scratch, ThatCannotBeMadeIsNoFailure) {
  Shell(
      "mkdir /volume1/photo/@eaDir; touch /volume1/photo/@eaDir/@tmp; chmod 0600 "
      "/volume1/photo/@eaDir/@tmp");
  EXPECT_TRUE(Get("/volume1/photo/a"));
  EXPECT_EQ(Describe("/volume1/photo/@eaDir/@tmp"), "600 0 0");
  Shell("mount -o remount,ro /volume1");
  EXPECT_TRUE(Get("/volume1/photo/a"));
  EXPECT_FALSE(Get("/volume1/photo2/a"));
  EXPECT_EQ(Logged(),
            Texts{"file_share:N Failed to create /volume1/photo2/@eaDir " + PlatformError()});
}

TEST_F(Scratch, OutsideOfShares) {
  for (const char* path : {"/etc/passwd", "/volume1/photox/a", "/volume1", "relative"}) {
    EXPECT_FALSE(Get(path));
    EXPECT_EQ(WebmanFileShare::WfmLibGetErr(), WEBFMERR_PATH);
    EXPECT_EQ(Logged(), Texts{std::string("file_share:N VEMOShareNamePathGet failed, path=") +
                              path + ", vemoerr=" + PlatformError()});
  }
}

TEST_F(Scratch, ArgumentsAndSmallBuffers) {
  using S = WebmanFileShare;
  for (const auto& [path, buffer, size] :
       {std::tuple<const char*, char*, unsigned>{nullptr, buffer_, 9},
        {"/volume1/photo", nullptr, 9},
        {"/volume1/photo", buffer_, 0}}) {
    S::WfmLibSetErr(WEBFMERR_OTHER);
    EXPECT_FALSE(S::WfmLibGetShareEaDirTmpPath(path, buffer, size));
    EXPECT_EQ(S::WfmLibGetErr(), WEBFMERR_BAD_PARAMETER);
  }
  EXPECT_STREQ(buffer_, "before");
  EXPECT_TRUE(S::WfmLibGetShareEaDirTmpPath("/volume1/photo", buffer_, 9));
  EXPECT_STREQ(buffer_, "/volume1");
  EXPECT_TRUE(S::WfmLibGetShareEaDirTmpPath("/volume1/photo", buffer_, 1));
  EXPECT_STREQ(buffer_, "");
  EXPECT_EQ(Logged(), Texts{});
}

}  // namespace
