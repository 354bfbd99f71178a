// File systems and mounts: real ones, and the tables of those that this kernel may not know.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vemo/core.h>
#include <vemo/fs.h>

#include "cgi_accounts.h"

using namespace accounts;

namespace {

class FileSystems : public testing::Test {
 protected:
  void SetUp() override { Shell("mkdir -p /run/mnt /run/mnt2"); }
  void TearDown() override { Shell("umount -l /run/mnt2; umount -l /run/mnt; true"); }
};

TEST_F(FileSystems, AreToldByTheirCode) {
  Shell("mount -t tmpfs none /run/mnt");
  EXPECT_EQ(VEMOGetFSType("/run/mnt", 0), 15);
  EXPECT_EQ(VEMOFSIsInMountTable("/run/mnt"), 15);
  EXPECT_EQ(VEMOGetFSType("/", 0), 4);  // the sandbox's own is an overlay
  Shell("umount /run/mnt");
  for (const auto& [make, type, code] : {std::tuple{"mkfs.ext4 -q", "ext4", 3},
                                         {"mkfs.ext3 -q", "ext3", 2},
                                         {"mkfs.ext2 -q", "ext2", 1}}) {
    Shell(std::string("truncate -s 8M /run/image && ") + make + " -F /run/image");
    if (system((std::string("mount -o loop -t ") + type + " /run/image /run/mnt 2>/dev/null")
                   .c_str()) != 0) {
      continue;  // a kernel without it, or without loop devices
    }
    EXPECT_EQ(VEMOGetFSType("/run/mnt", 0), code);
    EXPECT_EQ(VEMOFSIsInMountTable("/run/mnt"), code);
    Write("/run/mnt/file", "x");
    EXPECT_EQ(VEMOGetFSType("/run/mnt/file", 0), code);
    Shell("umount /run/mnt");
  }
}

TEST_F(FileSystems, WhatCannotBeExaminedKeepsItsReason) {
  const struct {
    std::string path;
    int error, code;
  } rows[] = {{"/none", ENOENT, VEMOERR_NOT_FOUND},
              {"/etc/passwd/x", ENOTDIR, VEMOERR_NOT_FOUND},
              {"/run/" + std::string(300, 'x'), ENAMETOOLONG, VEMOERR_FS_EXAMINE}};
  for (const auto& row : rows) {
    EXPECT_EQ(VEMOGetFSType(row.path.c_str(), 0), -1) << row.path;
    EXPECT_EQ(errno, row.error) << row.path;
    EXPECT_EQ(VLIBCErrGet(), row.code) << row.path;
  }
  Shell("ln -sfn loop /run/loop");
  EXPECT_EQ(VEMOGetFSType("/run/loop", 0), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_FS_EXAMINE);
  Shell("mkdir -p /run/closed/in; chmod 0700 /run/closed");
  ASSERT_EQ(seteuid(65534), 0);
  EXPECT_EQ(VEMOGetFSType("/run/closed/in", 0), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_PERM);
  ASSERT_EQ(seteuid(0), 0);
  EXPECT_EQ(VEMOGetFSType(nullptr, 0), -1);
  EXPECT_EQ(VEMOGetFSType("", 0), -1);
}

TEST_F(FileSystems, MountPointsAreExact) {
  Shell(
      "mkdir -p '/run/a b'; mount -t tmpfs none '/run/a b'; mount -t tmpfs none /run/mnt; "
      "mkdir /run/mnt/in; mount --bind /etc /run/mnt2");
  EXPECT_EQ(VEMOFSIsInMountTable("/run/a b"), 15);  // a blank stands as a number in the table
  EXPECT_EQ(VEMOFSIsInMountTable("/run/mnt/"), 15);
  EXPECT_EQ(VEMOFSIsInMountTable("/run/mnt//"), 15);
  EXPECT_EQ(VEMOFSIsInMountTable("/run/mnt2"), 4);
  for (const char* path : {"/run/mnt/in", "/run/m", "/none", "", "run/mnt"})
    EXPECT_EQ(VEMOFSIsInMountTable(path), -1) << path;
  EXPECT_EQ(VEMOFSIsInMountTable(nullptr), -1);
  // The last of several on one point.
  Shell("mount --bind /etc /run/mnt");
  EXPECT_EQ(VEMOFSIsInMountTable("/run/mnt"), 4);
  Shell("umount /run/mnt; umount '/run/a b'");

  EXPECT_EQ(VEMOFSDirIsMntPoint("/run/mnt"), 1);
  EXPECT_EQ(VEMOFSDirIsMntPoint("/run/mnt2"), 1);
  EXPECT_EQ(VEMOFSDirIsMntPoint("/"), 1);
  EXPECT_EQ(VEMOFSDirIsMntPoint("/run/mnt/in"), 0);
  EXPECT_EQ(VEMOFSDirIsMntPoint("/etc/passwd"), 0);
  Shell("ln -sfn /run/mnt /run/link");
  EXPECT_EQ(VEMOFSDirIsMntPoint("/run/link"), 0);  // the link itself
  EXPECT_EQ(VEMOFSDirIsMntPoint("/none"), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NOT_FOUND);
}

TEST_F(FileSystems, KindsByCode) {
  for (int code = -1; code < 25; code++) {
    EXPECT_EQ(VEMOFSIsImageFS(code), code == 6 || code == 10) << code;
    EXPECT_EQ(VEMOFSIsRemoteFS(code), code == 11 || code == 13 || code == 14) << code;
  }
}

class MkdirP : public testing::Test {
 protected:
  void SetUp() override { Shell("rm -rf /run/p; mkdir /run/p"); }
  static std::string Describe(const std::string& path) {
    struct stat status;
    if (lstat(path.c_str(), &status) != 0) return "none";
    char text[64];
    std::snprintf(text, sizeof text, "%o %u %u", status.st_mode & 07777, status.st_uid,
                  status.st_gid);
    return text;
  }
};

TEST_F(MkdirP, WhatIsMadeHasTheOwnerAndTheMode) {
  umask(0077);
  EXPECT_EQ(VEMOFSMkdirP("/run/p/a/b//c/", 0, 1, 5, 6, 0755), 0);
  for (const char* path : {"/run/p/a", "/run/p/a/b", "/run/p/a/b/c"})
    EXPECT_EQ(Describe(path), "755 5 6") << path;
  EXPECT_EQ(VEMOFSMkdirP("/run/p/a/b", 0, 1, 0, 0, 0700), 0);  // what is there stays
  EXPECT_EQ(Describe("/run/p/a/b"), "755 5 6");
  EXPECT_EQ(VEMOFSMkdirP("/run/p/x/y", 0, 0, 5, 6, 0777), 0);
  EXPECT_EQ(Describe("/run/p/x/y"), "700 0 0");
  EXPECT_EQ(VEMOFSMkdirP("/", 0, 1, 0, 0, 0755), 0);
}

TEST_F(MkdirP, WhatIsInTheWay) {
  Shell(
      "touch /run/p/file; ln -s /none /run/p/dangling; mkdir /run/p/real; ln -s real /run/p/link");
  EXPECT_EQ(VEMOFSMkdirP("/run/p/file/x", 0, 1, 0, 0, 0755), -1);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_PATH_REFUSED);
  EXPECT_EQ(VEMOFSMkdirP("/run/p/file", 0, 1, 0, 0, 0755), -1);
  EXPECT_EQ(VEMOFSMkdirP("/run/p/dangling/x", 0, 1, 0, 0, 0755), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NOT_FOUND);
  EXPECT_EQ(VEMOFSMkdirP("/run/p/link/x", 0, 1, 0, 0, 0755), 0);
  EXPECT_EQ(Describe("/run/p/real/x"), "755 0 0");
  EXPECT_EQ(VEMOFSMkdirP(nullptr, 0, 1, 0, 0, 0755), -1);
  EXPECT_EQ(VEMOFSMkdirP("", 0, 1, 0, 0, 0755), -1);
  EXPECT_EQ(VEMOFSMkdirP(("/run/p/" + std::string(5000, 'x')).c_str(), 0, 1, 0, 0, 0755), -1);
}

TEST_F(MkdirP, WithoutTheRight) {
  ASSERT_EQ(seteuid(65534), 0);
  EXPECT_EQ(VEMOFSMkdirP("/run/p/x", 0, 1, 0, 0, 0755), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_PERM);
  ASSERT_EQ(seteuid(0), 0);
  Shell("mount --bind /run/p /run/p; mount -o remount,ro,bind /run/p");
  EXPECT_EQ(VEMOFSMkdirP("/run/p/x", 0, 1, 0, 0, 0755), -1);
  EXPECT_EQ(errno, EROFS);
  Shell("umount /run/p");
}

}  // namespace
