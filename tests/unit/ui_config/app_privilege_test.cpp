// Who may use which application: modules, grants in the real store, administrators.
#include <ui_config/app_privilege.h>
#include <vemo/core.h>

#include "faults/faults.h"
#include "unit/ui_config/tree.h"

using namespace tree;
using VEMO::KTR::AppPrivilege;

namespace {

constexpr char kStore[] = "/usr/vemo/etc/app_priv.db";

void Sql(const std::string& line) {
  EXPECT_EQ(system(("sqlite3 " + std::string(kStore) + " \"" + line + "\"").c_str()), 0) << line;
}

class Privileges : public Tree {
 protected:
  void SetUp() override {
    Tree::SetUp();
    Module("M", R"({".url": {"Local": {"grantPrivilege": "local"},
        "Domain": {"grantPrivilege": "domain"}, "All": {"grantPrivilege": "all"}, "None": {}}})");
    ASSERT_EQ(
        system("getent group administrators >/dev/null || groupadd administrators; "
               "groupadd family; useradd -M -G family mona; useradd -M -G administrators boss; "
               "mkdir -p /usr/vemo/etc; rm -f /usr/vemo/etc/app_priv.db; "
               "printf '%s\\n' 'CORP\\\\dora:x:7001:100::/:/bin/false' "
               "'carl@corp.example:x:7002:100::/:/bin/false' >> /etc/passwd"),
        0);
    Sql("CREATE TABLE grants(app TEXT NOT NULL, kind TEXT NOT NULL, name TEXT NOT NULL, "
        "cidr TEXT NOT NULL, PRIMARY KEY(app, kind, name, cidr))");
  }
  static void Grant(const std::string& app, const std::string& kind, const std::string& name,
                    const std::string& cidr = "") {
    Sql("INSERT INTO grants VALUES('" + app + "','" + kind + "','" + name + "','" + cidr + "')");
  }
};

TEST_F(Privileges, GrantableOnesAreTheStores) {
  Grant("Local", "user", "mona");
  AppPrivilege privilege;
  EXPECT_TRUE(privilege.IsUserHasAppPriv("mona", "Local", ""));
  EXPECT_FALSE(privilege.IsUserHasAppPriv("boss", "Local", ""));  // administrators too
  EXPECT_FALSE(privilege.IsUserHasAppPriv("mona", "All", ""));
}

TEST_F(Privileges, OthersAreForAdministrators) {
  Grant("None", "everyone", "");
  Grant("Domain", "everyone", "");
  AppPrivilege privilege;
  for (const char* application : {"None", "Domain", "unknown", "", "local"}) {
    EXPECT_TRUE(privilege.IsUserHasAppPriv("boss", application, "")) << application;
    EXPECT_FALSE(privilege.IsUserHasAppPriv("mona", application, "")) << application;
  }
}

TEST_F(Privileges, AccountsOfDomainsHaveTheirOwnList) {
  for (const char* application : {"Local", "Domain", "All"})
    Grant(application, "everyone", "");
  AppPrivilege privilege;
  for (const char* user : {"CORP\\dora", "carl@corp.example"}) {
    EXPECT_FALSE(privilege.IsUserHasAppPriv(user, "Local", "")) << user;
    EXPECT_TRUE(privilege.IsUserHasAppPriv(user, "Domain", "")) << user;
    EXPECT_TRUE(privilege.IsUserHasAppPriv(user, "All", "")) << user;
  }
  EXPECT_TRUE(privilege.IsUserHasAppPriv("mona", "All", ""));
}

TEST_F(Privileges, AdministratorsAreAskedForOnce) {
  int asked = 0;
  faults::hooks.VLIBGroupIsAdminGroupMem = [&](const char* user, int reserved) {
    asked++;
    EXPECT_EQ(reserved, 0);
    return std::string(user) == "yes" ? 1 : std::string(user) == "odd" ? 2 : -1;
  };
  AppPrivilege privilege;
  for (int i = 0; i < 3; i++) {
    EXPECT_TRUE(privilege.IsAdminUser("yes"));
    EXPECT_FALSE(privilege.IsAdminUser("odd"));  // 1 alone is membership
    EXPECT_FALSE(privilege.IsAdminUser("unknown"));
  }
  EXPECT_EQ(asked, 3);
}

TEST_F(Privileges, GrantsToGroupsAndToEverybody) {
  Grant("Local", "group", "family");
  Grant("All", "everyone", "");
  EXPECT_EQ(VLIBAppPrivUserHas("mona", "Local", ""), 1);
  EXPECT_EQ(VLIBAppPrivUserHas("boss", "Local", ""), 0);
  EXPECT_EQ(VLIBAppPrivUserHas("boss", "All", ""), 1);
  EXPECT_EQ(VLIBAppPrivUserHas("nobody-there", "Local", ""), 0);
  Grant("odd", "other", "mona");
  EXPECT_EQ(VLIBAppPrivUserHas("mona", "odd", ""), 0);
}

TEST_F(Privileges, GrantsByAddress) {
  const struct {
    const char *cidr, *address;
    int granted;
  } rows[] = {
      {"192.168.1.0/24", "192.168.1.7", 1},
      {"192.168.1.0/24", "192.168.2.7", 0},
      {"192.168.1.7", "192.168.1.7", 1},
      {"192.168.1.7", "192.168.1.8", 0},
      {"192.168.1.0/25", "192.168.1.127", 1},
      {"192.168.1.0/25", "192.168.1.128", 0},
      {"0.0.0.0/0", "8.8.8.8", 1},
      {"0.0.0.0/0", "2001:db8::1", 0},
      {"2001:db8::/32", "2001:db8:5::1", 1},
      {"2001:db8::/32", "2001:db9::1", 0},
      {"192.168.1.0/24", "::ffff:192.168.1.7", 1},
      {"::/0", "1.2.3.4", 1},
      {"192.168.1.0/33", "192.168.1.7", 0},
      {"192.168.1.0/x", "192.168.1.7", 0},
      {"192.168.1.0/", "192.168.1.7", 0},
      {"nonsense", "192.168.1.7", 0},
      {"192.168.1.0/24", "nonsense", 0},
      {"192.168.1.0/24", "", 1},
  };
  for (const auto& row : rows) {
    Sql("DELETE FROM grants");
    Grant("Local", "user", "mona", row.cidr);
    EXPECT_EQ(VLIBAppPrivUserHas("mona", "Local", row.address), row.granted)
        << row.cidr << " " << row.address;
    AppPrivilege privilege;
    EXPECT_EQ(privilege.IsUserHasAppPriv("mona", "Local", row.address), row.granted == 1);
  }
}

TEST_F(Privileges, TheStoreCanBeReadByTheUser) {
  Grant("Local", "user", "mona");
  chmod(kStore, 0644);
  ASSERT_EQ(seteuid(65534), 0);
  EXPECT_EQ(VLIBAppPrivUserHas("mona", "Local", ""), 1);
  ASSERT_EQ(seteuid(0), 0);
}

TEST_F(Privileges, WhatCannotBeReadGrantsNothing) {
  Grant("Local", "user", "mona");
  EXPECT_EQ(VLIBAppPrivUserHas("mona", "'; DROP TABLE grants; --", ""), 0);
  EXPECT_EQ(VLIBAppPrivUserHas("mona", "Local", ""), 1);
  Write(kStore, std::string(5000, 'x'));
  VLIBCErrSetEx(0, "", 0);
  EXPECT_EQ(VLIBAppPrivUserHas("mona", "Local", ""), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_SERVICE);
  AppPrivilege privilege;
  EXPECT_FALSE(privilege.IsUserHasAppPriv("mona", "Local", ""));
  unlink(kStore);
  EXPECT_EQ(VLIBAppPrivUserHas("mona", "Local", ""), 0);
  EXPECT_EQ(VLIBAppPrivUserHas("", "Local", ""), -1);
  EXPECT_EQ(VLIBAppPrivUserHas(nullptr, "Local", ""), -1);
  EXPECT_EQ(VLIBAppPrivUserHas("mona", nullptr, ""), -1);
  ASSERT_EQ(mkdir(kStore, 0755), 0);
  EXPECT_EQ(VLIBAppPrivUserHas("mona", "Local", ""), -1);
}

TEST_F(Privileges, TheListIsMadeOnce) {
  Grant("New", "everyone", "");
  AppPrivilege privilege;
  Module("N", R"({".url": {"New": {"grantPrivilege": "all"}}})");
  EXPECT_FALSE(privilege.IsUserHasAppPriv("mona", "New", ""));
  EXPECT_TRUE(AppPrivilege().IsUserHasAppPriv("mona", "New", ""));
}

}  // namespace
