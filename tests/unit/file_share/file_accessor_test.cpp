// Files in shares by share privilege and access control list: the rules, and what the kernel
// really lets each account do.
#include <dirent.h>
#include <fcntl.h>
#include <file_share/file_accessor.h>
#include <sys/stat.h>
#include <syslog.h>
#include <vemo/acl.h>

#include <cerrno>

#include "faults/faults.h"
#include "unit/file_share/shares.h"

using namespace shares;
using faults::hooks;
using VEMOPrivilege::FileAccessor;
using VEMOPrivilege::PrivilegeUtil;

namespace {

class Accessor : public WithLog {
 protected:
  void SetUp() override {
    Prepare();
    MakeVolume();
    AddUser("boss", "boss-pass", "-u 5002 -G administrators");
    AddUser("mona", "mona-pass", "-u 5001 -d /volume1/homes/mona");
    AddUser("rita", "rita-pass", "-u 5003");
    AddUser("stan", "stan-pass", "-u 5004");
    Shell("mkdir -p /volume1/files/dir /volume1/homes/mona; chmod 0777 /volume1/files");
    Write("/volume1/files/a", "text", 0644);
    WriteShares(
        "[files]\npath = /volume1/files\nread only = no\ninvalid users = stan\nread list = rita\n"
        "vemo:restrictions = 4\n");
    BeginLog();
  }

  static int Code() { return VLIBCErrGet(); }

  const FileAccessor accessor_;
};

TEST_F(Accessor, FullPaths) {
  EXPECT_EQ(accessor_.GetFullPath("/files/dir/x", "mona"), "/volume1/files/dir/x");
  EXPECT_EQ(accessor_.GetFullPath("/home/x", "mona"), "/volume1/homes/mona/x");
  EXPECT_EQ(Logged(), Texts{});
  EXPECT_EQ(accessor_.GetFullPath("/none/x", "mona"), "");
  EXPECT_EQ(Logged(), (Texts{"file_share:N VEMOShareGet fail",
                             "file_share:N Failed to get fullpath: /none/x"}));
  EXPECT_EQ(accessor_.GetFullPath("/files/x", ""), "");
  EXPECT_EQ(accessor_.GetFullPath("", "mona"), "");
  EXPECT_EQ(Logged(), (Texts{"file_share:N Failed to get fullpath: /files/x",
                             "file_share:N Failed to get fullpath: "}));
}

TEST_F(Accessor, TheInvertedSenseOfTheShare) {
  const struct {
    const char* user;
    int level;
  } rows[] = {{"mona", 2}, {"rita", 1}, {"stan", 0}};
  for (const auto& row : rows) {
    for (int want = 0; want < 3; want++) {
      EXPECT_EQ(accessor_.CheckSharePrivilege("/files/a", row.user, "",
                                              static_cast<WEBFM_SHARE_PRIVILEGE>(want)),
                want != row.level)
          << row.user << want;
    }
    EXPECT_EQ(accessor_.HasSharePrivilege("/files/a", row.user, ""), row.level != 0) << row.user;
  }
  // What cannot be determined counts as some access.
  Logged();
  for (const auto& [path, user] :
       {std::pair{"/none/a", "mona"}, {"/files/a", "ghost"}, {"files", "mona"}, {"", "mona"}}) {
    for (int want = 0; want < 3; want++) {
      EXPECT_TRUE(
          accessor_.CheckSharePrivilege(path, user, "", static_cast<WEBFM_SHARE_PRIVILEGE>(want)));
      Logged();
    }
    EXPECT_TRUE(accessor_.HasSharePrivilege(path, user, ""));
    Logged();
  }
}

TEST_F(Accessor, ArgumentsAreReordered) {
  EXPECT_TRUE(accessor_.HasShareListPrivilege("/files/a", "mona", "x"));
  EXPECT_FALSE(accessor_.HasShareDownloadPrivilege("/files/a", "mona", "x"));
  EXPECT_TRUE(accessor_.HasShareDownloadPrivilege("/files/a", "boss", "x"));
  EXPECT_FALSE(accessor_.HasShareListPrivilege("/files/a", "stan", "x"));
  EXPECT_TRUE(accessor_.HasShareListPrivilege("/home", "stan", "x"));
  EXPECT_TRUE(accessor_.HasShareDownloadPrivilege("/home", "stan", "x"));
  EXPECT_EQ(Logged(), Texts(2, "file_share:N No privilege in path /files/a"));
}

// What `ACLAccess` and `GetACLPrivilege` make of each reason why a list cannot be read.
TEST_F(Accessor, ReasonsOfFailures) {
  const std::string prefix = "file_share:N Failed to get the ACL Privilege: file = /f, ";
  const struct {
    int code, recorded;
    const char* word;
    bool silent;  // for the mask
  } rows[] = {{0x8400, 0x8400, "ERR_VOLUME_READ_ONLY", false},
              {0xD700, 0xD700, "ERR_VEMOACL_NOT_SUPPORT", true},
              {0x0300, 0x0300, "ERR_VEMOACL_NO_PERM", true},
              {0xD800, 0x0300, "ERR_VEMOACL_NO_PERM", true},
              {0x0600, 0x0600, "ERR_PATH_NOT_FOUND", true},
              {0xA000, 0x0600, "ERR_PATH_NOT_FOUND", false},
              {0x0400, 0x0400, "400", false},
              {0xBEEF, 0xBEEF, "BEEF", false}};
  for (const auto& row : rows) {
    hooks.VEMOACLPermGet = [&](const char* path, int* mask, int reserved) {
      EXPECT_STREQ(path, "/f");
      EXPECT_EQ(reserved, 0);
      *mask = 15;  // not to be taken
      VLIBCErrSetEx(row.code, "acl.c", 1);
      return -1;
    };
    EXPECT_FALSE(accessor_.ACLAccess("/f", 4));
    EXPECT_EQ(Code(), row.recorded) << std::hex << row.code;
    EXPECT_EQ(Logged(), Texts{prefix + "reason=[" + row.word + "]"});
    EXPECT_EQ(accessor_.GetACLPrivilege("/f"), 0x1FFF);
    EXPECT_EQ(Code(), row.code);
    char reason[64];
    std::snprintf(reason, sizeof reason, "euid = 0, reason=[%X]", row.code);
    EXPECT_EQ(Logged(), row.silent ? Texts{} : Texts{prefix + reason});
  }
  EXPECT_EQ(As("mona", [&] { std::printf("%x", accessor_.GetACLPrivilege("/f")); }), "1fff");
  EXPECT_EQ(Logged(), Texts{prefix + "euid = 5001, reason=[BEEF]"});
}

TEST_F(Accessor, EveryAskedRightIsNeeded) {
  for (int granted = 0; granted < 16; granted++) {
    for (int asked = 1; asked < 16; asked++) {
      hooks.VEMOACLPermGet = [granted](const char*, int* mask, int) {
        *mask = granted;
        return 0;
      };
      VLIBCErrSetEx(0x1234, "test", 1);
      EXPECT_EQ(accessor_.ACLAccess("/f", asked), (asked & ~granted) == 0) << granted << asked;
      EXPECT_EQ(Code(), (asked & ~granted) == 0 ? 0x1234 : 0x0300);
    }
    EXPECT_EQ(accessor_.GetACLPrivilege("/f"), granted);
  }
  // Higher rights are not looked at; nothing asked is nothing granted.
  EXPECT_TRUE(accessor_.ACLAccess("/f", 0x1FF0));
  hooks.VEMOACLPermGet = [](auto...) {
    ADD_FAILURE() << "asked for nothing";
    return 0;
  };
  EXPECT_FALSE(accessor_.ACLAccess("/f", 0));
  EXPECT_FALSE(accessor_.ACLAccess("", 4));
  EXPECT_EQ(Logged(), Texts{});
}

TEST_F(Accessor, ReadingOnlyIsNotWriting) {
  EXPECT_EQ(As("mona",
               [&] {
                 std::printf("%d ", accessor_.ACLAccess("/volume1/files/a", 4));
                 std::printf("%d", accessor_.ACLAccess("/volume1/files/a", 6));
                 std::printf(" %x", Code());
               }),
            "1 0 300");
  EXPECT_EQ(Logged(), Texts{});
}

TEST_F(Accessor, FilesThatAreNotThere) {
  EXPECT_FALSE(accessor_.ACLAccess("/volume1/files/none", 4));
  EXPECT_EQ(Code(), 0x0600);
  EXPECT_EQ(Logged(), Texts{"file_share:N Failed to get the ACL Privilege: file = "
                            "/volume1/files/none, reason=[ERR_PATH_NOT_FOUND]"});
  Shell("mkdir -m 0700 /volume1/closed; touch /volume1/closed/a");
  EXPECT_EQ(As("mona",
               [&] {
                 std::printf("%d", accessor_.ACLAccess("/volume1/closed/a", 4));
                 std::printf(" %x ", Code());
                 std::printf("%x", accessor_.GetACLPrivilege("/volume1/closed/a"));
               }),
            "0 300 1fff");
  EXPECT_EQ(Logged(), Texts{"file_share:N Failed to get the ACL Privilege: file = "
                            "/volume1/closed/a, reason=[ERR_VEMOACL_NO_PERM]"});
}

TEST_F(Accessor, AFileSystemWithoutLists) {
  Shell(
      "mkdir /volume1/files/ram && mount -t ramfs none /volume1/files/ram && "
      "touch /volume1/files/ram/a");
  // One shows what may be tried, the other decides: they differ, and the code tells why.
  EXPECT_EQ(accessor_.GetACLPrivilege("/volume1/files/ram/a"), 0x1FFF);
  EXPECT_EQ(Logged(), Texts{});
  EXPECT_FALSE(accessor_.ACLAccess("/volume1/files/ram/a", 4));
  EXPECT_EQ(Code(), 0xD700);
  EXPECT_EQ(Logged(), Texts{"file_share:N Failed to get the ACL Privilege: file = "
                            "/volume1/files/ram/a, reason=[ERR_VEMOACL_NOT_SUPPORT]"});
  EXPECT_FALSE(accessor_.HasPrivilege("/files/ram/a", "mona", "", 4));
  EXPECT_EQ(Code(), 0xD700);
}

TEST_F(Accessor, AReadOnlyFileSystemIsRead) {
  Shell("mount -o remount,ro /volume1");
  EXPECT_TRUE(accessor_.ACLAccess("/volume1/files/a", 4));
  EXPECT_TRUE(accessor_.ACLAccess("/volume1/files/dir", 5));
  EXPECT_FALSE(accessor_.ACLAccess("/volume1/files/a", 2));
  EXPECT_EQ(Code(), 0x0300);
  EXPECT_FALSE(accessor_.ACLAccess("/volume1/files/a", 8));
  EXPECT_EQ(Logged(), Texts{});
}

TEST_F(Accessor, ShareAndListTogether) {
  const auto ask = [&](const char* user, const char* path, int mask) {
    return As(user, [&] { std::printf("%d", accessor_.HasPrivilege(path, user, "", mask)); });
  };
  EXPECT_EQ(ask("mona", "/files/a", 4), "1");
  EXPECT_EQ(ask("mona", "/files/a", 2), "0");
  EXPECT_EQ(ask("mona", "/files/dir", 5), "1");
  EXPECT_EQ(ask("stan", "/files/a", 4), "0");  // the kernel would let him
  // A privilege to read in the share does not hold writing back here: the list decides.
  Shell("chmod 0666 /volume1/files/a");
  EXPECT_EQ(ask("rita", "/files/a", 2), "1");
  EXPECT_EQ(Logged(), Texts{});
  EXPECT_EQ(ask("mona", "/none/a", 4), "0");
  EXPECT_EQ(Logged(), (Texts{"file_share(N): VEMOShareGet none fail",
                             "file_share(N): failed to get privilege of mona at /none/a",
                             "file_share:N VEMOShareGet fail",
                             "file_share:N Failed to get fullpath: /none/a"}));
  Shell(
      "chown -R mona /volume1/homes/mona && touch /volume1/homes/mona/x && "
      "chmod 0600 /volume1/homes/mona/x; chown mona /volume1/homes/mona/x");
  EXPECT_EQ(ask("mona", "/home/x", 6), "1");
}

class Credentials : public Accessor {
 protected:
  static std::string Ids() {
    uid_t real, effective, saved;
    gid_t group, effective_group, saved_group;
    getresuid(&real, &effective, &saved);
    getresgid(&group, &effective_group, &saved_group);
    return std::to_string(real) + " " + std::to_string(effective) + " " + std::to_string(saved) +
           ", " + std::to_string(group) + " " + std::to_string(effective_group);
  }
  static std::string Set(const std::string& user, bool flag) {
    return InChild([&] {
      const int result = PrivilegeUtil::SetEUGID(user, flag);
      std::printf("%d: %s", result, Ids().c_str());
    });
  }
};

TEST_F(Credentials, OfUsersAndAdministrators) {
  const std::string group = std::to_string(getpwnam("mona")->pw_gid);
  EXPECT_EQ(Set("mona", true), "1: 5001 5001 0, " + group + " " + group);
  EXPECT_EQ(Set("mona", false), "1: 5001 5001 5001, " + group + " " + group);
  EXPECT_EQ(Set("boss", true), "1: 0 0 0, 0 0");
  EXPECT_EQ(Set("boss", false), "1: 0 0 0, 0 0");
  EXPECT_EQ(Logged(), Texts{});
  EXPECT_EQ(Set("ghost", true), "0: 0 0 0, 0 0");
  EXPECT_EQ(Logged(), Texts{"file_share:N VLIBGroupIsAdminGroupMem(ghost) failed."});
  EXPECT_EQ(facilities_, std::vector<int>{LOG_AUTH});
}

TEST_F(Credentials, AreTakenOneAfterTheOther) {
  EXPECT_EQ(InChild([] {
              std::printf("%d ", PrivilegeUtil::SetEUGID("mona", true));
              std::printf("%d ", PrivilegeUtil::SetEUGID("boss", true));
              std::printf("%s; ", Ids().c_str());
              std::printf("%d ", PrivilegeUtil::SetEUGID("mona", false));
              std::printf("%d", PrivilegeUtil::SetEUGID("boss", true));
            }),
            "1 1 0 0 0, 0 0; 1 0");
}

// --- Against reality -----------------------------------------------------------------------

// What the process can really do, by trying. Deleting is tried with a file that is made for
// it by root before.
bool CanOpen(const std::string& path, int flags) {
  const int fd = open(path.c_str(), flags | O_CLOEXEC | O_NONBLOCK);
  if (fd >= 0) close(fd);
  return fd >= 0;
}

bool CanList(const std::string& path) {
  DIR* directory = opendir(path.c_str());
  if (directory == nullptr) return false;
  closedir(directory);
  return access(path.c_str(), F_OK) == 0;
}

class Reality : public WithLog {
 protected:
  void SetUp() override {
    Prepare();
    MakeVolume();
    Shell("groupadd -g 7001 team; groupadd -g 7002 others");
    AddUser("boss", "boss-pass", "-u 5002 -G administrators");
    AddUser("mona", "mona-pass", "-u 5001 -G team");
    AddUser("rita", "rita-pass", "-u 5003");
    AddUser("stan", "stan-pass", "-u 5004 -G others");
    AddUser("dora", "dora-pass", "-u 5005 -G team");
    Shell("passwd -l dora");
    std::string text;
    for (const auto& [name, mode, options] : {
             std::tuple{"everyone", "0777", "read only = no\n"},
             {"readonly", "0755", "read only = yes\n"},
             {"team", "2770", "read only = no\nvalid users = @team boss\n"},
             {"mixed", "0775", "read only = no\nread list = rita\ninvalid users = stan\n"},
             {"hidden", "0700", "read only = no\nvalid users = boss\nhide unreadable = yes\n"},
             {"sticky", "1777", "read only = no\n"},
         }) {
      const std::string path = std::string("/volume1/") + name;
      text += Section(name, path, options);
      Shell("mkdir " + path + " && chgrp team " + path);
      Shell(std::string("chmod ").append(mode).append(" ").append(path));
      Fill(path);
    }
    WriteShares(text);
  }

  // Files and directories of several owners, modes and lists.
  static void Fill(const std::string& path) {
    Shell("cd " + path +
          "; for f in open mine group secret user masked; do echo x >$f; chmod 0644 $f; done; "
          "chmod 0666 open; chown mona mine; chmod 0600 mine; chgrp team group; chmod 0660 group; "
          "chmod 0600 secret; setfacl -m u:rita:rw- user; setfacl -m u::rw-,g::---,o::--- user; "
          "setfacl -m g:others:rwx,m::r-- masked; chmod o= masked; "
          "mkdir dir closed given defaults; chmod 0777 dir; chmod 0700 closed; touch dir/in "
          "closed/in; chmod 0700 given; setfacl -m u:stan:rwx,g:team:r-x given; touch given/in; "
          "setfacl -d -m u:rita:rw-,o::--- defaults; chmod 0777 defaults; touch defaults/in");
  }

  static inline const char* const kPaths[] = {
      "",        "/open",   "/mine",      "/group", "/secret",   "/user",     "/masked",     "/dir",
      "/dir/in", "/closed", "/closed/in", "/given", "/given/in", "/defaults", "/defaults/in"};

  // One line a path: what the library says of it.
  static std::string Library(const std::string& root) {
    const FileAccessor accessor;
    std::string lines;
    for (const char* path : kPaths) {
      lines += std::string(path) + ":";
      struct stat status;
      const bool directory = stat((root + path).c_str(), &status) == 0 && S_ISDIR(status.st_mode);
      for (const int right : directory ? std::vector{5, 3, 8} : std::vector{4, 2, 8}) {
        if (*path == '\0' && right == 8) continue;
        lines += accessor.ACLAccess(root + path, right) ? " yes" : " no";
      }
      lines += "\n";
    }
    return lines;
  }

  // The same by doing it. What is deleted is put aside and back by root's hand meanwhile.
  static std::string Kernel(const std::string& root) {
    std::string lines;
    for (const char* path : kPaths) {
      lines += std::string(path) + ":";
      const std::string full = root + path;
      struct stat status;
      if (stat(full.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
        lines += CanList(full) && access((full + "/.").c_str(), F_OK) == 0 ? " yes" : " no";
        const std::string probe = full + "/probe";
        const bool made = mkdir(probe.c_str(), 0700) == 0;
        if (made) rmdir(probe.c_str());
        lines += made ? " yes" : " no";
        if (*path != '\0') {
          // Never empty: a refusal by right comes before that of an empty directory.
          const bool may = rmdir(full.c_str()) == 0 || errno == ENOTEMPTY;
          lines += may ? " yes" : " no";
        }
      } else {
        lines += CanOpen(full, O_RDONLY) ? " yes" : " no";
        lines += CanOpen(full, O_WRONLY) ? " yes" : " no";
        const std::string aside = full + ".aside";
        const bool may = rename(full.c_str(), aside.c_str()) == 0;
        if (may && rename(aside.c_str(), full.c_str()) != 0) lines += " lost";
        lines += may ? " yes" : " no";
      }
      lines += "\n";
    }
    return lines;
  }
};

TEST_F(Reality, TheListsAreTheKernels) {
  for (const char* share : {"everyone", "readonly", "team", "mixed", "hidden", "sticky"}) {
    const std::string root = std::string("/volume1/") + share;
    for (const char* user : {"boss", "mona", "rita", "stan", "dora"}) {
      const auto as = [&](const std::function<std::string()>& ask) {
        return InChild([&] {
          if (PrivilegeUtil::SetEUGID(user, true) != 1) std::printf("not switched");
          std::printf("%s", ask().c_str());
        });
      };
      EXPECT_EQ(as([&] { return Library(root); }), as([&] { return Kernel(root); }))
          << user << " in " << share;
    }
  }
}

TEST_F(Reality, EntriesGrantAndMasksTakeAway) {
  const auto may = [](const char* user, const std::string& path, int right) {
    return As(user, [&] { std::printf("%d", FileAccessor().ACLAccess(path, right)); });
  };
  const std::string root = "/volume1/everyone/";
  EXPECT_EQ(may("rita", root + "user", 4), "1");  // by her entry
  EXPECT_EQ(may("stan", root + "user", 4), "0");
  EXPECT_EQ(may("stan", root + "masked", 4), "1");  // by his group's
  EXPECT_EQ(may("stan", root + "masked", 2), "0");  // the mask takes it away
  EXPECT_EQ(may("mona", root + "masked", 4), "0");
  EXPECT_EQ(may("stan", root + "given", 7), "1");
  EXPECT_EQ(may("mona", root + "given", 5), "1");
  EXPECT_EQ(may("mona", root + "given", 2), "0");
  EXPECT_EQ(may("rita", root + "given", 1), "0");
  EXPECT_EQ(may("rita", root + "defaults/in", 6), "1");  // made under a default entry
  EXPECT_EQ(may("stan", root + "defaults/in", 4), "0");
}

// The share decides first, the kernel second; every file is then really opened.
TEST_F(Reality, SharesAndFilesTogether) {
  const struct {
    const char *share, *boss, *mona, *rita, *stan, *dora;
  } rows[] = {
      {"everyone", "rw", "rw", "rw", "rw", "rw"}, {"readonly", "rw", "rw", "rw", "rw", "rw"},
      {"team", "rw", "rw", "", "", "rw"},         {"mixed", "rw", "rw", "rw", "", "rw"},
      {"hidden", "rw", "", "", "", ""},           {"sticky", "rw", "rw", "rw", "rw", "rw"}};
  for (const auto& row : rows) {
    const std::pair<const char*, const char*> users[] = {{"boss", row.boss},
                                                         {"mona", row.mona},
                                                         {"rita", row.rita},
                                                         {"stan", row.stan},
                                                         {"dora", row.dora}};
    for (const auto& [user, expected] : users) {
      const std::string path = std::string("/") + row.share + "/open";
      const std::string said = InChild([&, name = user] {
        const FileAccessor accessor;
        if (PrivilegeUtil::SetEUGID(name, true) != 1) return;
        for (const auto& [right, flags] : {std::pair{4, O_RDONLY}, {2, O_WRONLY}}) {
          const bool may = accessor.HasPrivilege(path, name, "", right);
          if (may) std::printf(right == 4 ? "r" : "w");
          // Nobody is promised what the kernel refuses.
          EXPECT_TRUE(!may || CanOpen("/volume1" + path, flags)) << name << path;
        }
      });
      EXPECT_EQ(said, expected) << user << " in " << row.share;
    }
  }
}

TEST_F(Reality, AnUnknownUserIsNobody) {
  EXPECT_EQ(InChild([] {
              std::printf("%d %d %d", PrivilegeUtil::SetEUGID("ghost", true),
                          WebmanFileShare::CheckShareListPrivilege("ghost", "", "/everyone"),
                          WebmanFileShare::CheckShareDownloadPrivilege("ghost", "", "/everyone"));
            }),
            "0 0 0");
}

// A disabled account cannot log in; that is where it is stopped, and shares do not know it.
TEST_F(Reality, ADisabledAccountIsStoppedAtTheLogin) {
  EXPECT_EQ(LogIn("dora", "dora-pass").result, -2);
  EXPECT_TRUE(WebmanFileShare::CheckShareListPrivilege("dora", "", "/team"));
}

}  // namespace
