// The Windows network by its configuration, and becoming a user.
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vemo/core.h>
#include <vemo/credentials.h>
#include <vemo/user.h>
#include <vemo/wins.h>
#include <algorithm>

#include <functional>
#include <string>
#include <vector>

#include "cgi_accounts.h"

using namespace accounts;

namespace {

void Conf(const std::string& global) { Write("/etc/samba/smb.conf", "[global]\n" + global, 0644); }

TEST(Windows, MembershipIsTheConfigurations) {
  struct Row {
    const char* global;
    int joined, ads;
  };
  for (const Row& row : {Row{"", 0, 0},
                         {"security = user\n", 0, 0},
                         {"security = auto\n", 0, 0},
                         {"security = domain\n", 1, 0},
                         {"Security=ADS\n", 1, 1},
                         {"server role = member server\n", 1, 0},
                         {"server role = active directory domain controller\n", 1, 1},
                         {"server role = standalone server\n", 0, 0}}) {
    Conf(row.global);
    EXPECT_EQ(VEMOWinsIsJoined(), row.joined) << row.global;
    EXPECT_EQ(VEMOWinsADSJoined(), row.ads) << row.global;
  }
  Write("/etc/samba/smb.conf", "[share]\nsecurity = ads\npath = /x\n", 0644);
  EXPECT_EQ(VEMOWinsIsJoined(), 0);
  unlink("/etc/samba/smb.conf");
  EXPECT_EQ(VEMOWinsIsJoined(), 0);
}

TEST(Windows, TheWorkgroup) {
  char name[64];
  Conf("workgroup = CORP\n");
  EXPECT_EQ(VEMOWorkgroupGet(name, sizeof name), 4);
  EXPECT_STREQ(name, "CORP");
  EXPECT_EQ(VEMOWorkgroupGet(name, 3), 2);  // cut
  EXPECT_STREQ(name, "CO");
  Conf("");
  EXPECT_EQ(VEMOWorkgroupGet(name, sizeof name), 9);
  EXPECT_STREQ(name, "WORKGROUP");
  unlink("/etc/samba/smb.conf");
  EXPECT_EQ(VEMOWorkgroupGet(name, sizeof name), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NOT_FOUND);
  EXPECT_EQ(VEMOWorkgroupGet(nullptr, 3), -1);
  EXPECT_EQ(VEMOWorkgroupGet(name, 0), -1);
}

TEST(Windows, LongNamesBecomeShort) {
  Conf("security = ads\nrealm = CORP.EXAMPLE\nworkgroup = CORP\n");
  char name[64];
  EXPECT_EQ(VEMOWinsUserNameFqdn2Netbios("corp.example\\alice", name, sizeof name), 1);
  EXPECT_STREQ(name, "CORP\\alice");
  for (const char* other : {"CORP\\alice", "alice", "alice@corp.example", "\\alice"})
    EXPECT_EQ(VEMOWinsUserNameFqdn2Netbios(other, name, sizeof name), 0) << other;
  // Another domain is winbind's to know, which is not there.
  EXPECT_EQ(VEMOWinsUserNameFqdn2Netbios("other.example\\alice", name, sizeof name), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_SERVICE);
  EXPECT_EQ(VEMOWinsUserNameFqdn2Netbios("corp.example\\alice", name, 10), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_TOO_LONG);
  EXPECT_EQ(VEMOWinsUserNameFqdn2Netbios(nullptr, name, sizeof name), -1);
  EXPECT_EQ(
      VEMOWinsUserNameFqdn2Netbios((std::string(300, 'd') + ".x\\a").c_str(), name, sizeof name),
      -1);
}

TEST(Windows, LoginNamesOfTheOwnDomain) {
  Conf("security = ads\nrealm = CORP.EXAMPLE\nworkgroup = CORP\n");
  char name[64];
  EXPECT_EQ(VEMOUserLoginNameConvert("alice@corp.example", name, sizeof name), 1);
  EXPECT_STREQ(name, "CORP\\alice");
  EXPECT_EQ(VEMOUserLoginNameConvert("root", name, sizeof name), 1);
  EXPECT_STREQ(name, "root");
  for (const char* other : {"nobody-known", "alice@other.example", "@corp.example", "alice@"})
    EXPECT_EQ(VEMOUserLoginNameConvert(other, name, sizeof name), 0) << other;
  Conf("workgroup = CORP\nrealm = CORP.EXAMPLE\n");
  EXPECT_EQ(VEMOUserLoginNameConvert("alice@corp.example", name, sizeof name), 0);
  EXPECT_EQ(VEMOUserLoginNameConvert("root", name, 4), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_TOO_LONG);
}

TEST(Homes, AreOnByKindOfUser) {
  struct Row {
    const char* conf;
    int local, domain, directory;
  };
  for (const Row& row : {Row{"", 0, 0, 0},
                         {"userhome_enable=\"yes\"\n", 1, 1, 1},
                         {"userhome_enable=\"YES\"\nuserhome_enable_domain=\"no\"\n", 1, 0, 1},
                         {"userhome_enable_directory=\"yes\"\n", 0, 0, 1},
                         {"userhome_enable=\"no\"\nuserhome_enable_domain=\"yes\"\n", 0, 1, 0}}) {
    Configure(row.conf);
    EXPECT_EQ(VEMOServiceUserHomeIsEnabled(VEMOUSER_LOCAL), row.local) << row.conf;
    EXPECT_EQ(VEMOServiceUserHomeIsEnabled(VEMOUSER_DOMAIN), row.domain) << row.conf;
    EXPECT_EQ(VEMOServiceUserHomeIsEnabled(VEMOUSER_DIRECTORY), row.directory) << row.conf;
  }
}

// --- Becoming a user ---

// In a process of its own; every expectation that fails there makes it end with 1.
void InAnother(const std::function<bool()>& body) {
  const pid_t child = fork();
  if (child == 0) _exit(body() ? 0 : 1);
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

bool IdsAre(uid_t real, uid_t effective, uid_t saved, gid_t group, gid_t saved_group) {
  uid_t u[3];
  gid_t g[3];
  return getresuid(&u[0], &u[1], &u[2]) == 0 && getresgid(&g[0], &g[1], &g[2]) == 0 &&
         u[0] == real && u[1] == effective && u[2] == saved && g[0] == group && g[1] == group &&
         g[2] == saved_group;
}

std::vector<gid_t> Groups() {
  std::vector<gid_t> groups(static_cast<size_t>(getgroups(0, nullptr)));
  getgroups(static_cast<int>(groups.size()), groups.data());
  return groups;
}

class Credentials : public testing::Test {
 protected:
  void SetUp() override {
    Shell(
        "groupadd -g 7200 main; groupadd -g 7201 extra; useradd -M -u 7201 -g main -G extra one; "
        "useradd -M -u 7202 two");
  }
};

TEST_F(Credentials, AllIdsAndGroupsAreTheUsers) {
  InAnother([] {
    if (ResetCredentialsByName("one", FALSE) != 1 || !IdsAre(7201, 7201, 7201, 7200, 7200))
      return false;
    const auto groups = Groups();
    return std::find(groups.begin(), groups.end(), 7201u) != groups.end() && seteuid(0) != 0 &&
           ResetCredentialsByName("two", TRUE) == 0 && VLIBCErrGet() == VEMOERR_NO_PERM &&
           IdsAre(7201, 7201, 7201, 7200, 7200);
  });
}

TEST_F(Credentials, AReversibleOneCanBeReset) {
  InAnother([] {
    if (ResetCredentialsByName("one", TRUE) != 1 || !IdsAre(7201, 7201, 0, 7200, 0)) return false;
    if (ResetCredentialsByName("two", TRUE) != 1 || geteuid() != 7202) return false;
    const auto groups = Groups();
    if (std::find(groups.begin(), groups.end(), 7201u) != groups.end()) return false;
    return ResetCredentialsByName("root", TRUE) == 1 && IdsAre(0, 0, 0, 0, 0);
  });
}

TEST_F(Credentials, WhatFailsChangesNothing) {
  InAnother([] {
    for (const char* name : {static_cast<const char*>(nullptr), "", "nobody-known"}) {
      if (ResetCredentialsByName(name, TRUE) != 0 || !IdsAre(0, 0, 0, 0, 0)) return false;
    }
    return VLIBCErrGet() == VEMOERR_NO_USER;
  });
  InAnother([] {
    if (ResetCredentialsByName("one", TRUE) != 1) return false;
    const auto before = Groups();
    return ResetCredentialsByName("nobody-known", TRUE) == 0 && IdsAre(7201, 7201, 0, 7200, 0) &&
           Groups() == before;
  });
  InAnother([] {
    if (setresuid(7202, 7202, 7202) != 0) return false;
    return ResetCredentialsByName("one", TRUE) == 0 && VLIBCErrGet() == VEMOERR_NO_PERM &&
           geteuid() == 7202;
  });
}

}  // namespace
