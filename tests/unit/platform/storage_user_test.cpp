// Accounts and their preference directories.
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vemo/core.h>
#include <vemo/user.h>

#include "cgi_accounts.h"

using namespace accounts;

namespace {

const std::string kPreferences = "/usr/vemo/etc/preference/";

class Users : public testing::Test {
 protected:
  void SetUp() override {
    Shell("rm -rf /usr/vemo/etc/preference /usr/vemo/etc/preference_group; mkdir -p /usr/vemo/etc");
    AddUser("mona", "x", "-u 5001");
    // Accounts of domains are lines like all others to the name service.
    Shell(
        "printf '%s\\n' 'CORP\\dora:x:7001:100::/home/dora:/bin/false' "
        "'carl@corp.example:x:7002:100::/home/carl:/bin/false' 'Upper:x:7003:100::/:/bin/false' "
        ">> /etc/passwd");
  }
  static std::string Directory(const std::string& user, int size = 1024) {
    std::string buffer(static_cast<size_t>(size), 'x');
    VLIBCErrSetEx(0, "", 0);
    const int result = VEMOUserPreferenceDirGet(user.c_str(), buffer.data(), size);
    EXPECT_TRUE(result == 0 || (result == -1 && VLIBCErrGet() != 0)) << user;
    return result == 0 ? buffer.c_str() : "";
  }
};

struct Row {
  const char *typed, *name;
  enum vemo_user_kind kind;
};

TEST_F(Users, AreFoundByNameAndInLowerCase) {
  const Row rows[] = {{"mona", "mona", VEMOUSER_LOCAL},
                      {"MONA", "mona", VEMOUSER_LOCAL},
                      {"Upper", "Upper", VEMOUSER_LOCAL},
                      {"CORP\\dora", "CORP\\dora", VEMOUSER_DOMAIN},
                      {"carl@corp.example", "carl@corp.example", VEMOUSER_DIRECTORY},
                      {"Carl@CORP.example", "carl@corp.example", VEMOUSER_DIRECTORY},
                      {"root", "root", VEMOUSER_LOCAL}};
  for (const Row& row : rows) {
    VEMOUSER* user = nullptr;
    ASSERT_EQ(VEMOUserGet(row.typed, &user), 0) << row.typed;
    EXPECT_STREQ(user->name, row.name);
    EXPECT_EQ(user->kind, row.kind) << row.typed;
    VEMOUserFree(user);
  }
  VEMOUSER* user = nullptr;
  ASSERT_EQ(VEMOUserGet("mona", &user), 0);
  EXPECT_EQ(user->uid, 5001u);
  EXPECT_STREQ(user->home, "/home/mona");
  VEMOUserFree(user);
  VEMOUserFree(nullptr);
}

TEST_F(Users, UnknownOnesAreNone) {
  for (const char* name :
       {"", "nobody-there", "UPPER", "upper", "corp\\dora", "mona ", "../mona"}) {
    VEMOUSER* user = reinterpret_cast<VEMOUSER*>(1);
    VLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(VEMOUserGet(name, &user), -1) << name;
    EXPECT_EQ(user, nullptr);
    EXPECT_EQ(VLIBCErrGet(), *name == '\0' ? VEMOERR_BAD_PARAM : VEMOERR_NO_USER) << name;
  }
  EXPECT_EQ(VEMOUserGet(nullptr, nullptr), -1);
}

TEST_F(Users, TheRealNameIsLookedUpExactly) {
  char name[64];
  EXPECT_EQ(VLIBUserRealNameGet("mona", name, sizeof name), 0);
  EXPECT_STREQ(name, "mona");
  EXPECT_EQ(VLIBUserRealNameGet("Mona", name, sizeof name), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_USER);
  EXPECT_EQ(VLIBUserRealNameGet("mona", name, 5), 0);
  EXPECT_EQ(VLIBUserRealNameGet("mona", name, 4), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_TOO_LONG);
  EXPECT_EQ(VLIBUserRealNameGet("mona", nullptr, 4), -1);
  EXPECT_EQ(VLIBUserRealNameGet(nullptr, name, 4), -1);
}

TEST_F(Users, ADirectoryIsMadeOnFirstUse) {
  umask(0077);
  EXPECT_EQ(Directory("mona"), kPreferences + "mona");
  struct stat status;
  ASSERT_EQ(stat((kPreferences + "mona").c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 5001u);
  EXPECT_EQ(status.st_mode & 07777, 0700u);
  ASSERT_EQ(stat("/usr/vemo/etc/preference", &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0755u);
  Write(kPreferences + "mona/kept", "x");
  EXPECT_EQ(Directory("mona"), kPreferences + "mona");
  EXPECT_TRUE(Exists(kPreferences + "mona/kept"));
}

TEST_F(Users, NamesOfDomainsStayInside) {
  EXPECT_EQ(Directory("CORP\\dora"), kPreferences + "CORP%5Cdora");
  EXPECT_EQ(Directory("carl@corp.example"), kPreferences + "carl@corp.example");
  for (const char* name : {"..", ".", "../mona", "/", "a/b", "mo\nna"}) {
    Shell("printf '%s:x:7009:100::/:/bin/false\\n' '" + std::string(name) + "' >> /etc/passwd");
    EXPECT_EQ(Directory(name), "") << name;
  }
}

TEST_F(Users, UnknownOnesHaveNoDirectory) {
  EXPECT_EQ(Directory("nobody-there"), "");
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_USER);
  EXPECT_EQ(Directory(""), "");
  EXPECT_EQ(Directory(std::string(300, 'n')), "");
  EXPECT_FALSE(Exists("/usr/vemo/etc/preference"));
}

TEST_F(Users, APathThatDoesNotFitIsRefused) {
  EXPECT_NE(Directory("mona", 30), "");  // 29 bytes
  EXPECT_EQ(Directory("mona", 29), "");
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_TOO_LONG);
}

TEST_F(Users, AnAccountMadeAnewDoesNotInherit) {
  Directory("mona");
  Write(kPreferences + "mona/secret", "old");
  Shell("userdel mona");
  AddUser("mona", "x", "-u 5099");
  EXPECT_EQ(Directory("mona"), kPreferences + "mona");
  struct stat status;
  ASSERT_EQ(stat((kPreferences + "mona").c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 5099u);
  EXPECT_FALSE(Exists(kPreferences + "mona/secret"));
  Shell("grep -r old " + kPreferences + ".*.mona/secret");  // nothing is lost
}

TEST_F(Users, WhatElseStandsThereIsSetAside) {
  Shell("mkdir -p " + kPreferences + "; echo x > " + kPreferences + "mona");
  EXPECT_EQ(Directory("mona"), kPreferences + "mona");
  EXPECT_TRUE(std::filesystem::is_directory(kPreferences + "mona"));
  // Root's link to another place is the administrator's will.
  Shell("rm -rf " + kPreferences +
        "mona; install -d -o mona /run/elsewhere; ln -s /run/elsewhere " + kPreferences + "mona");
  EXPECT_EQ(Directory("mona"), kPreferences + "mona");
  EXPECT_TRUE(std::filesystem::is_symlink(kPreferences + "mona"));
}

TEST_F(Users, AsAUserItIsMadeAsRoot) {
  ASSERT_EQ(seteuid(5001), 0);
  EXPECT_EQ(Directory("mona"), kPreferences + "mona");
  EXPECT_EQ(geteuid(), 5001u);
  ASSERT_EQ(seteuid(0), 0);
  const pid_t child = fork();
  if (child == 0) {
    if (setuid(5001) != 0) _exit(1);
    // It is there; another cannot be made any more.
    if (Directory("mona").empty()) _exit(2);
    _exit(Directory("CORP\\dora").empty() && VLIBCErrGet() == VEMOERR_NO_PERM ? 0 : 3);
  }
  int status;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

TEST_F(Users, AReadOnlySystemIsAFailure) {
  Shell(
      "mkdir -p /usr/vemo/etc; mount --bind /usr/vemo /usr/vemo; mount -o remount,ro,bind "
      "/usr/vemo");
  EXPECT_EQ(Directory("mona"), "");
  Shell("umount /usr/vemo");
}

TEST_F(Users, GroupsHaveDirectoriesOfRoots) {
  char directory[1024];
  Shell("groupadd family");
  ASSERT_EQ(VEMOGroupPreferenceDirGet("family", directory, sizeof directory), 0);
  EXPECT_STREQ(directory, "/usr/vemo/etc/preference_group/family");
  struct stat status;
  ASSERT_EQ(stat(directory, &status), 0);
  EXPECT_EQ(status.st_uid, 0u);
  EXPECT_EQ(status.st_mode & 07777, 0700u);
  Shell("groupdel family");
  EXPECT_EQ(VEMOGroupPreferenceDirGet("family", directory, sizeof directory), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_GROUP);
  EXPECT_EQ(VEMOGroupPreferenceDirGet(nullptr, directory, sizeof directory), -1);
}

}  // namespace
