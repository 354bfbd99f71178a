// Grants of applications: given, taken back, told.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vemo/core.h>

#include <string>
#include <vector>

#include "cgi_accounts.h"

using namespace accounts;

namespace {

constexpr char kStore[] = "/usr/vemo/etc/app_priv.db";

std::vector<std::string> All() {
  std::vector<std::string> list;
  EXPECT_GE(
      VLIBAppPrivEnum(
          [](const char* app, const char* kind, const char* name, const char* range, void* data) {
            static_cast<std::vector<std::string>*>(data)->push_back(std::string(app) + "|" + kind +
                                                                    "|" + name + "|" + range);
            return 0;
          },
          &list),
      0);
  return list;
}

using List = std::vector<std::string>;

class Grants : public testing::Test {
 protected:
  void SetUp() override {
    Shell("rm -f /usr/vemo/etc/app_priv.db; groupadd family; useradd -M -G family mona");
  }
};

TEST_F(Grants, NothingIsGrantedAndNoFileIsMadeByAsking) {
  EXPECT_EQ(VLIBAppPrivUserHas("mona", "App", ""), 0);
  EXPECT_TRUE(All().empty());
  EXPECT_NE(access(kStore, F_OK), 0);
}

TEST_F(Grants, AreGivenAndTakenBack) {
  EXPECT_EQ(VLIBAppPrivGrant("App", "user", "mona", ""), 1);
  EXPECT_EQ(VLIBAppPrivGrant("App", "user", "mona", nullptr), 0);  // it was so before
  EXPECT_EQ(VLIBAppPrivGrant("App", "group", "family", "192.168.1.0/24"), 1);
  EXPECT_EQ(VLIBAppPrivGrant("Other", "everyone", nullptr, "::1"), 1);
  EXPECT_EQ(All(),
            (List{"App|group|family|192.168.1.0/24", "App|user|mona|", "Other|everyone||::1"}));
  EXPECT_EQ(VLIBAppPrivUserHas("mona", "App", "10.0.0.1"), 1);
  EXPECT_EQ(VLIBAppPrivRevoke("App", "user", "mona", ""), 1);
  EXPECT_EQ(VLIBAppPrivRevoke("App", "user", "mona", ""), 0);
  EXPECT_EQ(VLIBAppPrivUserHas("mona", "App", "10.0.0.1"), 0);
  EXPECT_EQ(VLIBAppPrivUserHas("mona", "App", "192.168.1.9"), 1);
  EXPECT_EQ(VLIBAppPrivUserHas("root", "Other", "::1"), 1);
  EXPECT_EQ(VLIBAppPrivUserHas("root", "Other", "::2"), 0);
}

TEST_F(Grants, TheFileIsRootsAndReadByEverybody) {
  umask(077);
  ASSERT_EQ(VLIBAppPrivGrant("App", "user", "mona", ""), 1);
  struct stat status;
  ASSERT_EQ(stat(kStore, &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
  EXPECT_EQ(status.st_uid, 0u);
  EXPECT_EQ(umask(077), 077u);
  ASSERT_EQ(seteuid(65534), 0);
  EXPECT_EQ(VLIBAppPrivUserHas("mona", "App", ""), 1);
  // Still root inside: the change is made, and the identity is put back.
  EXPECT_EQ(VLIBAppPrivGrant("App", "everyone", "", ""), 1);
  EXPECT_EQ(geteuid(), 65534u);
  ASSERT_EQ(seteuid(0), 0);
}

TEST_F(Grants, OnlyRootGives) {
  const pid_t child = fork();
  if (child == 0) {
    if (setresuid(65534, 65534, 65534) != 0) _exit(2);
    const int result = VLIBAppPrivGrant("App", "user", "mona", "");
    _exit(result == -1 && VLIBCErrGet() == VEMOERR_NO_PERM ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

TEST_F(Grants, WhatIsNoGrant) {
  struct Row {
    const char *app, *kind, *name, *range;
    int code;
  };
  const std::string long_app(1024, 'a'), long_name(256, 'n');
  for (const Row& row : {Row{nullptr, "user", "mona", "", VEMOERR_BAD_PARAM},
                         {"", "user", "mona", "", VEMOERR_BAD_PARAM},
                         {long_app.c_str(), "user", "mona", "", VEMOERR_BAD_PARAM},
                         {"App", nullptr, "mona", "", VEMOERR_BAD_PARAM},
                         {"App", "", "mona", "", VEMOERR_BAD_PARAM},
                         {"App", "User", "mona", "", VEMOERR_BAD_PARAM},
                         {"App", "user", "", "", VEMOERR_BAD_PARAM},
                         {"App", "user", nullptr, "", VEMOERR_BAD_PARAM},
                         {"App", "group", "", "", VEMOERR_BAD_PARAM},
                         {"App", "everyone", "mona", "", VEMOERR_BAD_PARAM},
                         {"App", "user", long_name.c_str(), "", VEMOERR_BAD_PARAM},
                         {"App", "user", "mona", "x", VEMOERR_BAD_PARAM},
                         {"App", "user", "mona", "1.2.3.4/33", VEMOERR_BAD_PARAM},
                         {"App", "user", "mona", "1.2.3.4/", VEMOERR_BAD_PARAM},
                         {"App", "user", "mona", "1.2.3.4/-1", VEMOERR_BAD_PARAM},
                         {"App", "user", "mona", "1.2.3.4/+1", VEMOERR_BAD_PARAM},
                         {"App", "user", "mona", "::1/129", VEMOERR_BAD_PARAM},
                         {"App", "user", "nobody-known", "", VEMOERR_NO_USER},
                         {"App", "group", "nobody-known", "", VEMOERR_NO_GROUP},
                         {"App", "user", "'; drop table grants; --", "", VEMOERR_NO_USER}}) {
    EXPECT_EQ(VLIBAppPrivGrant(row.app, row.kind, row.name, row.range), -1);
    EXPECT_EQ(VLIBCErrGet(), row.code) << (row.name == nullptr ? "null" : row.name) << (row.range);
  }
  EXPECT_TRUE(All().empty());
}

TEST_F(Grants, NamesAreNeverStatements) {
  const char* name = "'; DROP TABLE grants; --";
  EXPECT_EQ(VLIBAppPrivGrant(name, "everyone", "", ""), 1);
  EXPECT_EQ(VLIBAppPrivUserHas("mona", name, ""), 1);
  EXPECT_EQ(VLIBAppPrivUserHas(name, name, ""), 1);
  EXPECT_EQ(VLIBAppPrivRevoke("x' OR '1'='1", "everyone", "", ""), 0);
  EXPECT_EQ(All().size(), 1u);
}

TEST_F(Grants, OfAccountsThatAreGoneCanBeTakenBack) {
  ASSERT_EQ(VLIBAppPrivGrant("App", "user", "mona", ""), 1);
  Shell("userdel mona");
  EXPECT_EQ(VLIBAppPrivRevoke("App", "user", "mona", ""), 1);
}

TEST_F(Grants, ABrokenDatabaseIsToldAndKept) {
  Write(kStore, "this is no database, but it is long enough to be looked at by the library\n");
  EXPECT_EQ(VLIBAppPrivGrant("App", "user", "mona", ""), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_SERVICE);
  EXPECT_EQ(VLIBAppPrivUserHas("mona", "App", ""), -1);
  EXPECT_EQ(VLIBAppPrivEnum([](auto...) { return 0; }, nullptr), -1);
  Shell("grep -q 'no database' /usr/vemo/etc/app_priv.db");
}

TEST_F(Grants, TheListingStopsWhenItIsTold) {
  for (const char* app : {"C", "A", "B"})
    ASSERT_EQ(VLIBAppPrivGrant(app, "everyone", "", ""), 1);
  std::string first;
  EXPECT_EQ(VLIBAppPrivEnum(
                [](const char* app, const char*, const char*, const char*, void* data) {
                  *static_cast<std::string*>(data) = app;
                  return 1;
                },
                &first),
            1);
  EXPECT_EQ(first, "A");
}

TEST_F(Grants, TwentyWritersLoseNothing) {
  for (int i = 0; i < 20; i++) {
    if (fork() == 0) {
      const int result = VLIBAppPrivGrant(("App" + std::to_string(i)).c_str(), "user", "mona", "");
      _exit(result == 1 ? 0 : 1);
    }
  }
  int status, failed = 0;
  while (wait(&status) > 0)
    failed += status != 0;
  EXPECT_EQ(failed, 0);
  EXPECT_EQ(All().size(), 20u);
}

}  // namespace
