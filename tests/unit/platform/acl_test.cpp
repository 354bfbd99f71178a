// What the effective identity may do with a file, beside what it really can do.
#include <fcntl.h>
#include <grp.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vemo/acl.h>
#include <vemo/core.h>

#include <csignal>
#include <string>

#include "cgi_accounts.h"

using namespace accounts;

namespace {

constexpr int kFour = VEMOACL_READ | VEMOACL_WRITE | VEMOACL_EXEC | VEMOACL_DELETE;

class Acl : public testing::Test {
 protected:
  void SetUp() override {
    Shell(
        "groupadd readers; useradd -M -u 7101 reader -G readers; useradd -M -u 7102 owner; rm -rf "
        "/run/a; "
        "mkdir -m 0755 /run/a; chown owner /run/a");
  }
  // The mask for an account, -1 with the recorded code.
  static int Mask(const std::string& path, uid_t uid, gid_t gid = 65534) {
    EXPECT_EQ(setegid(gid), 0);
    EXPECT_EQ(seteuid(uid), 0);
    int mask = -1;
    VLIBCErrSetEx(0, "", 0);
    const int result = VEMOACLPermGet(path.c_str(), &mask, 0);
    const int code = VLIBCErrGet();
    EXPECT_EQ(seteuid(0), 0);
    EXPECT_EQ(setegid(0), 0);
    VLIBCErrSetEx(code, "", 0);
    return result == 0 ? mask : -1;
  }
};

TEST_F(Acl, ModesAndListsAreHonoured) {
  Shell(
      "cd /run/a; for f in plain acl group masked; do echo x > $f; chown owner $f; chmod 0600 $f; "
      "done; "
      "mkdir dir; chown owner dir; chmod 0700 dir; chmod 0755 plain; "
      "setfacl -m u:reader:rw acl; setfacl -m g:readers:r group; setfacl -m u:reader:rw,m::r "
      "masked; "
      "setfacl -m u:reader:rwx dir");
  const gid_t readers = getgrnam("readers")->gr_gid;
  struct Row {
    const char* file;
    uid_t uid;
    gid_t gid;
    int four;
  };
  for (const Row& row : {Row{"plain", 7101, 65534, 4 | 1},
                         {"plain", 7102, 65534, 4 | 2 | 1 | 8},
                         {"acl", 7101, 65534, 4 | 2},
                         {"acl", 7103, 65534, 0},
                         {"group", 7103, readers, 4},
                         {"group", 7103, 65534, 0},
                         {"masked", 7101, 65534, 4},
                         {"dir", 7101, 65534, 4 | 2 | 1},
                         {"dir", 7103, 65534, 0},
                         {"acl", 0, 0, 4 | 2 | 8},
                         {"plain", 0, 0, 15}}) {
    EXPECT_EQ(Mask(std::string("/run/a/") + row.file, row.uid, row.gid) & kFour, row.four)
        << row.file << " " << row.uid << " " << row.gid;
  }
}

TEST_F(Acl, HigherRights) {
  Shell("cd /run/a; mkdir dir; echo x > file; chmod 0755 file; chown owner file dir");
  EXPECT_EQ(Mask("/run/a/dir", 0), VEMOACL_ALL);
  EXPECT_EQ(Mask("/run/a/file", 0), VEMOACL_ALL & ~32);  // no directory
  EXPECT_EQ(Mask("/run/a/file", 7102), VEMOACL_ALL & ~32 & ~4096);
  EXPECT_EQ(Mask("/run/a/file", 7101), 4 | 1 | 64 | 128 | 1024);
}

TEST_F(Acl, DeletingIsARightOfTheFolder) {
  Shell(
      "cd /run/a; mkdir -m 01777 sticky; echo x > sticky/theirs; echo x > sticky/mine; chown "
      "reader sticky/mine; "
      "mkdir -m 0777 open; echo x > open/file; chmod 0 open/file; mkdir -m 0555 closed; echo x > "
      "closed/file; "
      "chmod 0777 closed/file; mkdir -m 0777 mount; mount -t tmpfs none mount; ln -s /etc/passwd "
      "open/link");
  EXPECT_EQ(Mask("/run/a/sticky/theirs", 7101) & 8, 0);
  EXPECT_EQ(Mask("/run/a/sticky/mine", 7101) & 8, 8);
  EXPECT_EQ(Mask("/run/a/sticky/mine", 0) & 8, 8);
  EXPECT_EQ(Mask("/run/a/open/file", 7101) & kFour, 8);
  EXPECT_EQ(Mask("/run/a/closed/file", 7101) & kFour, 7);
  EXPECT_EQ(Mask("/run/a/mount", 0) & 8, 0);
  EXPECT_EQ(Mask("/run/a/open/link", 7101) & 8, 8);
  EXPECT_EQ(Mask("/", 0) & 8, 0);
  Shell("umount /run/a/mount");
}

TEST_F(Acl, WhatNobodyTakesAway) {
  Shell(
      "cd /run/a; mkdir -m 0777 dir grows; echo x > file; echo x > fixed; echo x > log; echo x > "
      "grows/file");
  Shell("mkdir /run/a/fs; mount -t tmpfs none /run/a/fs; mkdir /run/a/fs/dir");
  for (const char* path : {"/run/a/dir/.", "/run/a/dir/..", "/run/a/dir/./", "/", "//", "/.."})
    EXPECT_EQ(Mask(path, 0) & 8, 0) << path;
  for (const char* path : {"/run/a/dir", "/run/a/dir/", "/run/a/dir//", "/run/a/file"})
    EXPECT_EQ(Mask(path, 0) & 8, 8) << path;
  Shell("cd /run/a; mkdir ...; mkdir .x");
  EXPECT_EQ(Mask("/run/a/...", 0) & 8, 8);
  EXPECT_EQ(Mask("/run/a/.x", 0) & 8, 8);
  ASSERT_EQ(chdir("/run/a"), 0);
  EXPECT_EQ(Mask("file", 0) & 8, 8);
  EXPECT_EQ(Mask(".", 0) & 8, 0);
  Shell("umount /run/a/fs");
}

// Where the file system keeps such marks.
TEST_F(Acl, ImmutableFilesAndFoldersThatOnlyGrow) {
  Shell(
      "truncate -s 16M /run/image; mkfs.ext4 -q /run/image; mkdir /run/a/ext; mount -o loop "
      "/run/image /run/a/ext");
  Shell(
      "cd /run/a/ext; chmod 0777 .; mkdir -m 0777 grows fixed_dir; for f in fixed log plain "
      "grows/file fixed_dir/file; do echo x > $f; chmod 0666 $f; done; chattr +i fixed fixed_dir; "
      "chattr +a log grows");
  struct Row {
    const char* file;
    int four;
  };
  for (const Row& row : {Row{"plain", 4 | 2 | 8},
                         {"fixed", 4},
                         {"log", 4 | 2},
                         {"grows/file", 4 | 2},
                         {"fixed_dir/file", 4 | 2}}) {
    const std::string path = std::string("/run/a/ext/") + row.file;
    EXPECT_EQ(Mask(path, 0) & kFour, row.four) << row.file;
    EXPECT_EQ(unlink(path.c_str()) == 0, (row.four & 8) != 0) << row.file;  // and so it is
  }
  Shell("cd /run/a/ext; chattr -i fixed fixed_dir; chattr -a log grows; cd /; umount /run/a/ext");
}

// A network's file system whose server died: it answers with neither a mask nor a refusal.
TEST_F(Acl, ADeadMountIsAnotherFailure) {
  Shell(
      "mkdir /run/tree /run/a/dead; echo x > /run/tree/f; mksquashfs /run/tree /run/image -quiet");
  const pid_t server = fork();
  if (server == 0) {
    execlp("squashfuse", "squashfuse", "-f", "-o", "subtype=sshfs,fsname=nas:/x", "/run/image",
           "/run/a/dead", nullptr);
    _exit(127);
  }
  for (int i = 0; i < 100 && access("/run/a/dead/f", F_OK) != 0; i++)
    usleep(50000);
  ASSERT_EQ(access("/run/a/dead/f", F_OK), 0);
  kill(server, SIGKILL);
  waitpid(server, nullptr, 0);
  sleep(2);                                    // until what the kernel remembers of it is too old
  EXPECT_EQ(Mask("/run/a/dead/f", 0, 0), -1);  // its only user
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_IO);
  Shell("umount -l /run/a/dead");
}

TEST_F(Acl, PicturesOfDiscsHaveNoLists) {
  Shell(
      "mkdir /run/tree /run/a/disc; echo x > /run/tree/f; mksquashfs /run/tree /run/image -quiet; "
      "mount -o loop /run/image /run/a/disc");
  EXPECT_EQ(Mask("/run/a/disc/f", 0), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_ACL_UNSUPPORTED);
  Shell("umount /run/a/disc");
}

TEST_F(Acl, AReadOnlyFileSystemIsASmallerMask) {
  Shell(
      "mkdir /run/a/ro; mount -t tmpfs -o mode=0777 none /run/a/ro; echo x > /run/a/ro/f; mount -o "
      "remount,ro /run/a/ro");
  EXPECT_EQ(Mask("/run/a/ro/f", 0) & kFour, 4);
  EXPECT_EQ(Mask("/run/a/ro/f", 0) & (16 | 256 | 512 | 2048 | 4096), 0);
  Shell("umount /run/a/ro");
}

TEST_F(Acl, Failures) {
  Shell(
      "cd /run/a; mkdir -m 0700 shut; echo x > shut/f; ln -s loop loop; mkdir ram; mount -t ramfs "
      "none ram; echo x > ram/f; "
      "chmod 0777 ram/f; chmod 0755 ram");
  struct Row {
    const char* path;
    int code;
  };
  for (const Row& row : {Row{"/run/a/none", 0x0600},
                         {"/run/a/shut/f", 0x0300},
                         {"/run/a/loop", 0x0600},
                         {"", 0x0600},
                         {"/etc/passwd/x", 0x0600},
                         {"/run/a/ram/f", 0xD700},
                         {"/proc/self/status", 0xD700}}) {
    EXPECT_EQ(Mask(row.path, 7101), -1) << row.path;
    EXPECT_EQ(VLIBCErrGet(), row.code) << row.path;
  }
  int mask;
  EXPECT_EQ(VEMOACLPermGet(nullptr, &mask, 0), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_BAD_PARAM);
  EXPECT_EQ(VEMOACLPermGet("/", nullptr, 0), -1);
  Shell("umount /run/a/ram");
}

}  // namespace
