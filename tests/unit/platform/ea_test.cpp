// The platform's own names within a share, and its folders there.
#include <sys/stat.h>
#include <unistd.h>
#include <vemo/core.h>
#include <vemo/ea.h>

#include <string>

#include "cgi_accounts.h"

using namespace accounts;

namespace {

TEST(Hidden, NamesOfThePlatform) {
  for (const char* name : {"@eaDir", "@tmp", "lost+found"}) {
    EXPECT_TRUE(VEMOEAIsHiddenDir(name)) << name;
    EXPECT_TRUE(VEMOEAIsHiddenFile(name)) << name;
  }
  for (const char* name : {".", ".."}) {
    EXPECT_FALSE(VEMOEAIsHiddenDir(name)) << name;
    EXPECT_TRUE(VEMOEAIsHiddenFile(name)) << name;
  }
  for (const char* name :
       {static_cast<const char*>(nullptr), "", "@eadir", "@eaDir2", "x@eaDir", "...", ".x"}) {
    EXPECT_FALSE(VEMOEAIsHiddenDir(name));
    EXPECT_FALSE(VEMOEAIsHiddenFile(name));
  }
}

TEST(Hidden, FoldersAreMadeAsRoots) {
  Shell(
      "rm -rf /run/ea; mkdir -m 0777 /run/ea; echo x > /run/ea/file; mkdir -m 0700 /run/ea/there; "
      "ln -s /etc /run/ea/link; ln -s /nowhere /run/ea/dangling");
  umask(077);
  ASSERT_EQ(seteuid(65534), 0);
  EXPECT_EQ(VEMOEAMKDir(0, "/run/ea/@eaDir"), 0);
  EXPECT_EQ(geteuid(), 65534u);
  ASSERT_EQ(seteuid(0), 0);
  struct stat status;
  ASSERT_EQ(stat("/run/ea/@eaDir", &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0755u);
  EXPECT_EQ(status.st_uid, 0u);
  EXPECT_EQ(VEMOEAMKDir(0, "/run/ea/@eaDir"), 0);
  EXPECT_EQ(VEMOEAMKDir(0, "/run/ea/there/"), 0);
  EXPECT_EQ(VEMOEAMKDir(0, "/run/ea/there/@tmp//"), 0);
  ASSERT_EQ(stat("/run/ea/there", &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700u);  // one that is there stays as it is
  for (const auto& [path, code] : {std::pair{"/run/ea/file", VEMOERR_PATH_REFUSED},
                                   {"/run/ea/file/", VEMOERR_PATH_REFUSED},
                                   {"/run/ea/link", VEMOERR_PATH_REFUSED},
                                   {"/run/ea/link/", VEMOERR_PATH_REFUSED},
                                   {"/run/ea/link//", VEMOERR_PATH_REFUSED},
                                   {"/run/ea/dangling", VEMOERR_PATH_REFUSED},
                                   {"/proc/none", VEMOERR_NOT_FOUND},
                                   {"/run/ea/none/x", VEMOERR_NOT_FOUND}}) {
    EXPECT_EQ(VEMOEAMKDir(0, path), -1) << path;
    EXPECT_EQ(VLIBCErrGet(), code) << path;
  }
  EXPECT_EQ(VEMOEAMKDir(0, nullptr), -1);
  EXPECT_EQ(VEMOEAMKDir(0, ""), -1);
  const std::string longest(5000, 'x');
  EXPECT_EQ(VEMOEAMKDir(0, longest.c_str()), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_TOO_LONG);
  EXPECT_FALSE(Exists("/nowhere"));
}

TEST(Hidden, WithoutRightsOrRoomNothingIsMade) {
  Shell("mkdir -p /run/closed && mount -t tmpfs -o ro none /run/closed");
  EXPECT_EQ(VEMOEAMKDir(0, "/run/closed/@eaDir"), -1);
  EXPECT_EQ(errno, EROFS);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_PERM);
  Shell("umount /run/closed");
  ASSERT_EQ(setresuid(65534, 65534, 65534), 0);
  EXPECT_EQ(VEMOEAMKDir(0, "/tmp/@eaDir"), -1);  // it would not be root's
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_PERM);
  EXPECT_FALSE(Exists("/tmp/@eaDir"));
}

}  // namespace
