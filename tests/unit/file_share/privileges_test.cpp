// What users may do in shares, and as whom the process acts.
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>

#include "faults/faults.h"
#include "unit/file_share/shares.h"

using namespace shares;
using faults::hooks;

namespace {

class Privileges : public WithLog {
 protected:
  void SetUp() override {
    Prepare();
    MakeVolume();
    AddUser("boss", "boss-pass", "-u 5002 -G administrators");
    AddUser("mona", "mona-pass", "-u 5001");
    AddUser("rita", "rita-pass", "-u 5003");
    AddUser("stan", "stan-pass", "-u 5004");
    Shell("mkdir -p /volume1/files");
    const std::string share =
        "path = /volume1/files\nread only = yes\nwrite list = mona boss\ninvalid users = stan\n";
    WriteShares("[files]\n" + share + "[nolist]\n" + share + "vemo:restrictions = 1\n[noload]\n" +
                share + "vemo:restrictions = 4\n[neither]\n" + share +
                "vemo:restrictions = 5\n[other]\n" + share + "vemo:restrictions = 2\n[secret]\n" +
                share + "vemo:encrypted = yes\n[hiding]\n" + share + "hide unreadable = yes\n");
    BeginLog();
  }

  // "result privilege restrictions, code".
  static std::string Get(const char* path, const char* user) {
    auto privilege = static_cast<WEBFM_SHARE_PRIVILEGE>(9);
    int restrictions = 9;
    WebmanFileShare::WfmLibSetErr(WEBFMERR_OTHER);
    const int result =
        WebmanFileShare::WfmLibGetPrivilege(path, user, nullptr, &privilege, &restrictions);
    return std::to_string(result) + " " + std::to_string(privilege) + " " +
           std::to_string(restrictions) + ", " + Code();
  }
  static std::string Code() { return std::to_string(WebmanFileShare::WfmLibGetErr()); }

  static int Has(const char* path, const char* user, int want) {
    WebmanFileShare::WfmLibSetErr(WEBFMERR_OTHER);
    return WebmanFileShare::WfmLibHasPrivilege(path, user, "",
                                               static_cast<WEBFM_SHARE_PRIVILEGE>(want));
  }

  static std::string List(const std::string& user, const std::string& path) {
    WebmanFileShare::WfmLibSetErr(WEBFMERR_OTHER);
    const bool may = WebmanFileShare::CheckShareListPrivilege(user, "x", path);
    return std::to_string(may) + ", " + Code();
  }
  static std::string Download(const std::string& user, const std::string& path) {
    WebmanFileShare::WfmLibSetErr(WEBFMERR_OTHER);
    const bool may = WebmanFileShare::CheckShareDownloadPrivilege(user, "x", path);
    return std::to_string(may) + ", " + Code();
  }
};

TEST_F(Privileges, OfUsersInShares) {
  const struct {
    const char *path, *user, *expected;
  } rows[] = {{"/files/a", "mona", "0 2 0, 0"},   {"/files", "rita", "0 1 0, 0"},
              {"files/", "stan", "0 0 0, 0"},     {"/FILES/x/y", "boss", "0 2 0, 0"},
              {"/nolist", "mona", "0 2 1, 0"},    {"/noload/a", "rita", "0 1 4, 0"},
              {"/neither/a", "stan", "0 0 5, 0"}, {"/other/a", "mona", "0 2 2, 0"},
              {"/nolist", "boss", "0 2 0, 0"},    {"/neither", "boss", "0 2 0, 0"}};
  for (const auto& row : rows)
    EXPECT_EQ(Get(row.path, row.user), row.expected) << row.user << " at " << row.path;
  EXPECT_EQ(Logged(), Texts{});
  // An answer of the platform that is no level of access is none.
  for (const int answer : {-1, 0, 1, 2, 3, 77}) {
    hooks.VEMOShareUserPrivGet = [answer](auto...) { return answer; };
    EXPECT_EQ(Get("/files", "mona"),
              answer == 1 || answer == 2 ? "0 " + std::to_string(answer) + " 0, 0" : "0 0 0, 0");
  }
}

TEST_F(Privileges, ThatCannotBeTold) {
  EXPECT_EQ(Get(nullptr, "mona"), "-1 9 9, 2");
  EXPECT_EQ(Get("/files", nullptr), "-1 9 9, 2");
  int restrictions = 9;
  EXPECT_EQ(WebmanFileShare::WfmLibGetPrivilege("/files", "mona", nullptr, nullptr, &restrictions),
            -1);
  EXPECT_EQ(Code(), "2");
  EXPECT_EQ(Logged(), Texts(3, "file_share(N): bad parameter!"));
  EXPECT_EQ(Get("files", "mona"), "-1 9 9, 2");
  EXPECT_EQ(Logged(), (Texts{"file_share(N) bad path name=files",
                             "file_share(N): WfmLibGetTokOfPath files fail"}));
  EXPECT_EQ(Get("/none/a", "mona"), "-1 9 9, 6");
  EXPECT_EQ(Logged(), Texts{"file_share(N): VEMOShareGet none fail"});
  EXPECT_EQ(Get("/home/a", "mona"), "-1 9 9, 6");  // a home is no share
  EXPECT_EQ(Logged(), Texts{"file_share(N): VEMOShareGet home fail"});
  // An unknown user: the privilege is set by then, and the code clear.
  EXPECT_EQ(Get("/nolist", "ghost"), "-1 0 0, 0");
  Texts lines = Logged();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_TRUE(std::regex_match(
      lines[0], std::regex("file_share:N VLIBGroupIsAdminGroupMem\\(ghost\\) failed\\. "
                           "\\[0x0800 [^ ]+\\.c:[0-9]+\\]")))
      << lines[0];
}

TEST_F(Privileges, TheAdministratorsAreAskedFirst) {
  int asked = 0;
  hooks.VLIBGroupIsAdminGroupMem = [&](const char* user, int reserved) {
    EXPECT_EQ(user, nullptr);
    EXPECT_EQ(reserved, 0);
    return ++asked;
  };
  EXPECT_EQ(Get(nullptr, nullptr), "-1 9 9, 2");
  EXPECT_EQ(asked, 1);
  // Its failure is reported as it was, whatever was asked of the platform since.
  hooks.VLIBGroupIsAdminGroupMem = [](auto...) {
    VLIBCErrSetEx(0x0C00, "groups.c", 12);
    return -1;
  };
  hooks.VEMOShareUserPrivGet = [](auto...) {
    VLIBCErrSetEx(0x0800, "share.c", 34);
    return 1;
  };
  Logged();
  EXPECT_EQ(Get("/nolist", "rita"), "-1 1 0, 0");
  EXPECT_EQ(Logged(),
            Texts{"file_share:N VLIBGroupIsAdminGroupMem(rita) failed. [0x0C00 groups.c:12]"});
}

TEST_F(Privileges, WithoutRestrictionsAskedFor) {
  auto privilege = WEBFM_SHARE_PRIVILEGE_NONE;
  EXPECT_EQ(WebmanFileShare::WfmLibGetPrivilege("/nolist", "mona", nullptr, &privilege, nullptr),
            0);
  EXPECT_EQ(privilege, WEBFM_SHARE_PRIVILEGE_RW);
}

TEST_F(Privileges, AreComparedExactly) {
  const struct {
    const char* user;
    int level;
  } rows[] = {{"mona", 2}, {"rita", 1}, {"stan", 0}, {"boss", 2}};
  for (const auto& row : rows) {
    for (int want = 0; want <= 3; want++) {
      EXPECT_EQ(Has("/nolist/a", row.user, want), row.level == want) << row.user << want;
      EXPECT_EQ(Code(), "0");
    }
  }
  EXPECT_EQ(Logged(), Texts{});
  EXPECT_EQ(Has(nullptr, "mona", 2), -1);
  EXPECT_EQ(Code(), "2");
  EXPECT_EQ(Has("/files", nullptr, 2), -1);
  EXPECT_EQ(Code(), "2");
  EXPECT_EQ(Has("/none", "mona", 2), -1);
  EXPECT_EQ(Code(), "6");
  EXPECT_EQ(Logged(), (Texts{"file_share(N): bad parameter! username=mona, path=(null)",
                             "file_share(N): bad parameter! username=(null), path=/files",
                             "file_share(N): VEMOShareGet none fail",
                             "file_share(N): failed to get privilege of mona at /none"}));
}

TEST_F(Privileges, ListingAndDownloading) {
  const struct {
    const char *share, *user;
    bool list, download;
  } rows[] = {
      {"files", "mona", true, true},     {"files", "rita", true, true},
      {"files", "stan", false, false},   {"files", "boss", true, true},
      {"nolist", "mona", false, false},  {"nolist", "rita", false, false},
      {"nolist", "boss", true, true},    {"noload", "mona", true, false},
      {"noload", "rita", true, false},   {"noload", "boss", true, true},
      {"neither", "mona", false, false}, {"neither", "boss", true, true},
      {"other", "mona", true, true},     {"other", "stan", false, false},
  };
  for (const auto& row : rows) {
    const std::string path = std::string("/") + row.share + "/a";
    const Texts refusal{"file_share:N No privilege in path " + path};
    // Listing leaves the code as it was cleared; downloading says why.
    EXPECT_EQ(List(row.user, path), row.list ? "1, 0" : "0, 0") << row.user << path;
    EXPECT_EQ(Logged(), row.list ? Texts{} : refusal);
    EXPECT_EQ(Download(row.user, path), row.download ? "1, 0" : "0, 3") << row.user << path;
    EXPECT_EQ(Logged(), row.download ? Texts{} : refusal);
  }
}

TEST_F(Privileges, ListingAndDownloadingElsewhere) {
  EXPECT_EQ(List("mona", ""), "0, 7");
  EXPECT_EQ(Download("mona", ""), "0, 1");
  hooks.VLIBGroupIsAdminGroupMem = [](auto...) {
    ADD_FAILURE() << "the home needs no look at shares";
    return -1;
  };
  for (const char* home : {"home", "/home", "/home/x"}) {
    EXPECT_EQ(List("ghost", home), "1, 7") << home;
    EXPECT_EQ(Download("ghost", home), "1, 7") << home;
  }
  hooks.VLIBGroupIsAdminGroupMem = nullptr;
  EXPECT_EQ(Logged(), Texts{});
  const struct {
    const char *user, *path, *code;
    Texts first;
  } rows[] = {
      {"mona", "/none/a", "6", {"file_share(N): VEMOShareGet none fail"}},
      {"mona",
       "none",
       "2",
       {"file_share(N) bad path name=none", "file_share(N): WfmLibGetTokOfPath none fail"}},
  };
  for (const auto& row : rows) {
    for (const auto& check : {List, Download}) {
      EXPECT_EQ(check(row.user, row.path), std::string("0, ") + row.code);
      Texts expected = row.first;
      expected.push_back(std::string("file_share:N Gailed to check privilege of path ") + row.path +
                         ", reason=[" + row.code + "] ");
      EXPECT_EQ(Logged(), expected);
    }
  }
  EXPECT_EQ(List("ghost", "/files"), "0, 0");
  EXPECT_EQ(Download("ghost", "/files"), "0, 0");
  const Texts lines = Logged();
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[1], "file_share:N Gailed to check privilege of path /files, reason=[0] ");
  EXPECT_EQ(lines[3], lines[1]);
}

std::string ListDirectory(const char* path) {
  WebmanFileShare::WfmLibSetErr(WEBFMERR_BAD_PARAMETER);
  const bool may = WebmanFileShare::CheckDirListPrivilege(path);
  char here[4096] = "";
  if (getcwd(here, sizeof here) == nullptr) return "none";
  return std::to_string(may) + ", " + std::to_string(WebmanFileShare::WfmLibGetErr()) + ", " + here;
}

TEST_F(Privileges, DirectoriesThatTheProcessCanList) {
  Shell(
      "cd /volume1/files; mkdir open; mkdir -m 0700 closed; mkdir -m 0711 enter; "
      "mkdir -m 0744 read; touch file; ln -s open link; ln -s loop loop");
  ASSERT_EQ(chdir("/volume1"), 0);
  EXPECT_EQ(ListDirectory(nullptr), "0, 1, /volume1");
  EXPECT_EQ(ListDirectory("/volume1/files/none"), "0, 6, /volume1");
  EXPECT_EQ(ListDirectory("/volume1/files/file"), "0, 6, /volume1");
  EXPECT_EQ(ListDirectory("/volume1/files/loop"), "0, 7, /volume1");
  EXPECT_EQ(ListDirectory(""), "0, 6, /volume1");
  const std::string message = "file_share:N Failed to chdir /volume1/files/";
  EXPECT_EQ(Logged(), (Texts{message + "none. [No such file or directory]",
                             message + "file. [Not a directory]",
                             message + "loop. [Too many levels of symbolic links]",
                             "file_share:N Failed to chdir . [No such file or directory]"}));
  // The process stays in the directory that it may list.
  EXPECT_EQ(ListDirectory("/volume1/files/closed"), "1, 0, /volume1/files/closed");
  EXPECT_EQ(ListDirectory("/volume1/files/link"), "1, 0, /volume1/files/open");
  EXPECT_EQ(Logged(), Texts{});

  ASSERT_EQ(chdir("/"), 0);
  EXPECT_EQ(
      As("mona",
         [] {
           for (const char* name : {"closed", "read", "open", "enter"})
             std::puts(ListDirectory((std::string("/volume1/files/") + name).c_str()).c_str());
         }),
      "0, 3, /\n0, 3, /\n1, 0, /volume1/files/open\n0, 3, /volume1/files/enter\n");
  EXPECT_EQ(Logged(),
            (Texts{message + "closed. [Permission denied]", message + "read. [Permission denied]",
                   "file_share:N Failed to opendir /volume1/files/enter. "
                   "[Permission denied]"}));
}

TEST_F(Privileges, EncryptedShares) {
  for (const auto& check :
       {WebmanFileShare::IsEncryptShare, WebmanFileShare::WfmLibCheckEncryptShare}) {
    for (const auto& [share, expected] : {std::pair{"secret", true},
                                          {"SECRET", true},
                                          {"files", false},
                                          {"home", false},
                                          {"/home/x", false}}) {
      bool encrypted = !expected;
      WebmanFileShare::WfmLibSetErr(WEBFMERR_OTHER);
      EXPECT_TRUE(check(share, encrypted)) << share;
      EXPECT_EQ(encrypted, expected) << share;
      EXPECT_EQ(Code(), "7");
    }
    bool encrypted = true;
    EXPECT_FALSE(check("none", encrypted));
    EXPECT_FALSE(encrypted);
    EXPECT_EQ(Code(), "6");
    EXPECT_FALSE(check("", encrypted));
    EXPECT_EQ(Logged(),
              (Texts{"file_share:N VEMOShareGet fail none", "file_share:N VEMOShareGet fail "}));
  }
}

TEST_F(Privileges, HiddenEntries) {
  const auto ask = [](const char* name) {
    VEMOSHARE* share = nullptr;
    EXPECT_EQ(VEMOShareGet(name, &share), 0);
    std::printf("%d ", WebmanFileShare::WfmLibIsHideUnreadable(share));
    VEMOShareFree(share);
  };
  EXPECT_EQ(InChild([&] { ask("hiding"), ask("files"); }), "0 0 ");  // root sees everything
  EXPECT_EQ(As("mona", [&] { ask("hiding"), ask("files"); }), "1 0 ");
  EXPECT_EQ(Logged(), Texts{});
  hooks.VLIBShareHideUnreadableGet = [](const VEMOSHARE*, int* hide) {
    *hide = 1;
    VLIBCErrSetEx(0x0A00, "share.c", 1);
    errno = EIO;
    return -1;
  };
  EXPECT_EQ(As("mona", [&] { ask("hiding"); }), "0 ");
  EXPECT_EQ(Logged(), Texts{"file_share:N Failed to get hide unreadable a00, Input/output error"});
  hooks.VLIBShareHideUnreadableGet = [](const VEMOSHARE*, int* hide) {
    *hide = 77;
    return 0;
  };
  EXPECT_EQ(As("mona", [&] { ask("files"); }), "1 ");
}

TEST_F(Privileges, FilesAreGivenToUsers) {
  const gid_t group = getpwnam("mona")->pw_gid;
  const std::string owner = "644 5001 " + std::to_string(group);
  Write("/volume1/files/a", "", 0644);
  EXPECT_EQ(WebmanFileShare::WfmLibChown2Admin("/volume1/files/a", "mona"), 0);
  EXPECT_EQ(Describe("/volume1/files/a"), owner);
  // A link itself, not what it leads to.
  Write("/volume1/files/b", "", 0600);
  Shell("ln -s b /volume1/files/link");
  EXPECT_EQ(WebmanFileShare::WfmLibChown2Admin("/volume1/files/link", "mona"), 0);
  EXPECT_EQ(Describe("/volume1/files/b"), "600 0 0");
  EXPECT_EQ(Logged(), Texts{});

  EXPECT_EQ(WebmanFileShare::WfmLibChown2Admin(nullptr, "mona"), -1);
  EXPECT_EQ(WebmanFileShare::WfmLibChown2Admin("/volume1/none", "mona"), -1);
  EXPECT_EQ(WebmanFileShare::WfmLibChown2Admin("/volume1/files/b", "ghost"), -1);
  EXPECT_EQ(WebmanFileShare::WfmLibChown2Admin("/volume1/files/b", nullptr), -1);
  EXPECT_EQ(Describe("/volume1/files/b"), "600 0 0");
  EXPECT_EQ(Logged(), (Texts{"file_share(N) bad parameter",
                             "WfmLibChown2Admin:N(file_share) : failed to get file-system type "
                             "dir = /volume1/none"}));
  Shell("mount -o remount,ro /volume1");
  EXPECT_EQ(WebmanFileShare::WfmLibChown2Admin("/volume1/files/b", "mona"), -1);
  EXPECT_EQ(Logged(), Texts{"file_share(N) change /volume1/files/b owner to admin "
                            "fail(Read-only file system)"});
}

TEST_F(Privileges, FilesWithoutOwnersAreLeftAlone) {
  Write("/volume1/files/a", "", 0644);
  for (int type = 0; type < 25; type++) {
    hooks.VEMOGetFSType = [type](auto...) { return type; };
    const bool none = type == 0 || type == 6 || type == 10 || type == 11 || type == 12 ||
                      type == 13 || type == 14;
    EXPECT_EQ(WebmanFileShare::WfmLibChown2Admin("/volume1/files/a", "mona"), 0) << type;
    EXPECT_EQ(Describe("/volume1/files/a").starts_with("644 0 0"), none) << type;
    ASSERT_EQ(chown("/volume1/files/a", 0, 0), 0);
    // The user is not even looked up.
    EXPECT_EQ(WebmanFileShare::WfmLibChown2Admin("/volume1/files/a", "ghost"), none ? 0 : -1);
  }
  EXPECT_EQ(Logged(), Texts{});
}

class UserOfASession : public Privileges {
 protected:
  void SetUp() override {
    Privileges::SetUp();
    Shell("groupadd -g 7002 writers; usermod -aG writers mona");
    id_ = LogIn("mona", "", {.no_auth = true}).id;
    boss_ = LogIn("boss", "", {.no_auth = true}).id;
    Logged();
  }

  // Result and ids, in a process of its own.
  static std::string Set(const char* sid, const char* user,
                         const std::function<void()>& before = {}) {
    return InChild([&] {
      if (before) before();
      WebmanFileShare::WfmLibSetErr(WEBFMERR_OTHER);
      const int result = WebmanFileShare::WfmLibUGIDSet(sid, user);
      gid_t groups[64];
      const int count = getgroups(64, groups);
      const bool writers = std::count(groups, groups + std::max(count, 0), 7002U) == 1;
      std::printf("%d, %d, uid %u %u gid %u %u, %d", result, WebmanFileShare::WfmLibGetErr(),
                  getuid(), geteuid(), getgid(), getegid(), writers);
    });
  }
  Texts Messages(const std::string& what, const std::string& user, const std::string& id) {
    return {"file_share(N) failed to " + what + " for user=" + user + ", sid=" + id};
  }
  std::string id_, boss_;
};

TEST_F(UserOfASession, BecomesWhoTheProcessIs) {
  const std::string group = std::to_string(getpwnam("mona")->pw_gid);
  EXPECT_EQ(Set(id_.c_str(), "mona"), "0, 7, uid 0 5001 gid 0 " + group + ", 1");
  EXPECT_EQ(Set(boss_.c_str(), "boss"),
            "0, 7, uid 0 0 gid 0 " + std::to_string(getpwnam("boss")->pw_gid) + ", 0");
  EXPECT_EQ(Logged(), Texts{});
}

TEST_F(UserOfASession, MustBeThatOfTheSession) {
  const std::string before = ", 0";
  EXPECT_EQ(Set(nullptr, "mona").substr(0, 21), "-1, 1, uid 0 0 gid 0 ");
  EXPECT_EQ(Set(id_.c_str(), nullptr).substr(0, 21), "-1, 1, uid 0 0 gid 0 ");
  EXPECT_EQ(Logged(), Texts(2, "file_share(N) bad parameter"));
  EXPECT_EQ(Set(id_.c_str(), "boss").substr(0, 23), "-1, 7, uid 0 0 gid 0 0,");
  EXPECT_EQ(Logged(), Messages("get GID", "boss", id_));
  EXPECT_EQ(Set("none", "mona").substr(0, 23), "-1, 7, uid 0 0 gid 0 0,");
  EXPECT_EQ(Logged(), Messages("get GID", "mona", "none"));
  for (const int facility : facilities_)
    EXPECT_EQ(facility, LOG_AUTH);
}

TEST_F(UserOfASession, IsReachedStepByStep) {
  const std::string group = std::to_string(getpwnam("mona")->pw_gid);
  hooks.VemoCgiEUidSet = [](auto...) { return -1; };
  EXPECT_EQ(Set(id_.c_str(), "mona"), "-1, 7, uid 0 0 gid 0 " + group + ", 1");
  EXPECT_EQ(Logged(), Messages("set UID", "mona", id_));
  hooks.VemoCgiEUidSet = [](auto...) {
    ADD_FAILURE() << "the user after the group failed";
    return -1;
  };
  hooks.VemoCgiEGidSet = [](auto...) { return -1; };
  EXPECT_EQ(Set(id_.c_str(), "mona"), "-1, 7, uid 0 0 gid 0 0, 1");
  EXPECT_EQ(Logged(), Messages("set GID", "mona", id_));
  // Groups that cannot be set stop nothing.
  hooks.VemoCgiEUidSet = hooks.VemoCgiEGidSet = [](auto...) { return 0; };
  hooks.VemoCgiGIDGet = [](auto...) { return 5001; };
  EXPECT_EQ(Set(id_.c_str(), "mona", [] { ASSERT_EQ(seteuid(65534), 0); }),
            "0, 7, uid 0 65534 gid 0 0, 0");
  EXPECT_EQ(Logged(), Messages("initgroup", "mona", id_));
}

TEST_F(Privileges, Umask) {
  constexpr unsigned kKept = ~0U;
  umask(027);
  EXPECT_EQ(WebmanFileShare::WfmLibGetUmask(), 027U);
  EXPECT_EQ(WebmanFileShare::WfmLibUmask(), 027U);
  EXPECT_EQ(WebmanFileShare::WfmLibGetUmask(), 0U);
  WebmanFileShare::WfmLibRestoreUmask(kKept);
  EXPECT_EQ(WebmanFileShare::WfmLibGetUmask(), 0U);
  WebmanFileShare::WfmLibRestoreUmask(027);
  EXPECT_EQ(WebmanFileShare::WfmLibGetUmask(), 027U);
  for (const auto& [value, kept] :
       {std::pair{"yes", true}, {"YES", true}, {"no", false}, {"", false}, {"1", false}}) {
    Configure(std::string("webfm_use_unix_perm=\"") + value + "\"\n");
    umask(027);
    EXPECT_EQ(WebmanFileShare::WfmLibUmask(), kept ? kKept : 027U) << value;
    EXPECT_EQ(umask(027), kept ? 027U : 0U) << value;
  }
  Shell("rm /etc/vemoinfo.conf");
  EXPECT_EQ(WebmanFileShare::WfmLibUmask(), 027U);
}

TEST_F(Privileges, ModesAsDigits) {
  for (const auto& [mode, digits] : {std::pair{0755U, 755},
                                     {0640U, 640},
                                     {0644U, 644},
                                     {0U, 0},
                                     {07U, 7},
                                     {07777U, 777},
                                     {0100750U, 750},
                                     {~0U, 777}})
    EXPECT_EQ(WebmanFileShare::GetPrivilege(mode), digits);
}

}  // namespace
