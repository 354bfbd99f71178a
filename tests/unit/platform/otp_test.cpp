// One-time codes: what is accepted, once, and from which files.
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vemo/core.h>

#include <ctime>

#include "cgi_accounts.h"
#include "platform/host/cgi/otp.h"

using namespace accounts;

namespace {

const char kSecret[] = "JBSWY3DPEHPK3PXPJBSWY3DPEHPK3PXP";
const std::string kDirectory = "/usr/vemo/etc/otp/";

class Otp : public testing::Test {
 protected:
  void SetUp() override {
    Shell("rm -rf " + kDirectory + "; install -d -m 0700 " + kDirectory);
    // No step of 30 seconds may end in the middle of a test.
    while (time(nullptr) % 30 > 20)
      usleep(100000);
  }
  static void Enroll(const std::string& more = "", const std::string& secret = kSecret) {
    Write(kDirectory + "mona", "secret=\"" + secret + "\"\n" + more);
  }
  /// The code of a step `steps` away from this one.
  static std::string Code(int steps = 0, const std::string& options = "") {
    const long moment = time(nullptr) + steps * 30L;
    Shell("oathtool --totp -b " + options + " -N @" + std::to_string(moment) + " " + kSecret +
          " > /run/code");
    std::string code = Read("/run/code");
    code.erase(code.find_last_not_of('\n') + 1);
    return code;
  }
  static int Check(const std::string& code, const char* user = "mona") {
    return vemo_otp_check(user, code.c_str());
  }
  static std::string Hash(const std::string& code, const std::string& method = "-6") {
    Shell("openssl passwd " + method + " -salt saltsalt " + code + " > /run/hash");
    std::string hash = Read("/run/hash");
    hash.erase(hash.find_last_not_of('\n') + 1);
    return hash;
  }
  static std::string Step(int steps = 0) { return std::to_string(time(nullptr) / 30 + steps); }
};

TEST_F(Otp, ACodeIsAcceptedOnce) {
  Enroll("# of the admin's\nissued = 'to \"mona\" \\ 1'\n");
  EXPECT_EQ(vemo_otp_enrolled("mona"), 1);
  const std::string code = Code();
  EXPECT_EQ(Check(code), 1);
  EXPECT_EQ(Check(code), 0);
  EXPECT_EQ(Check(code), 0);
  const std::string stored = Read(kDirectory + "mona");
  EXPECT_NE(stored.find("last=\"" + Step() + "\"\n"), std::string::npos) << stored;
  EXPECT_NE(stored.find(std::string("secret=\"") + kSecret + "\"\n"), std::string::npos);
  EXPECT_NE(stored.find("issued=\"to \\\"mona\\\" \\\\ 1\"\n"), std::string::npos) << stored;
  struct stat status;
  ASSERT_EQ(lstat((kDirectory + "mona").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  EXPECT_EQ(status.st_uid, 0u);
  EXPECT_FALSE(Exists(kDirectory + ".new"));
  EXPECT_EQ(Check(Code(1)), 1);  // the next code is new
}

TEST_F(Otp, OneStepBeforeAndAfterIsAccepted) {
  for (const auto& [steps, expected] :
       {std::pair{-3, 0}, {-2, 0}, {-1, 1}, {0, 1}, {1, 1}, {2, 0}, {3, 0}, {2880, 0}}) {
    Enroll();
    EXPECT_EQ(Check(Code(steps)), expected) << steps;
  }
}

TEST_F(Otp, AnOlderCodeIsSpentWithANewer) {
  Enroll();
  const std::string older = Code(-1), now = Code(), newer = Code(1);
  EXPECT_EQ(Check(now), 1);
  EXPECT_EQ(Check(older), 0);
  EXPECT_EQ(Check(newer), 1);
  EXPECT_EQ(Check(now), 0);
  Enroll("last=" + Step(1) + "\n");
  EXPECT_EQ(Check(now), 0);
  EXPECT_EQ(Check(newer), 0);
  Enroll("last=" + Step(-1) + "\n");
  EXPECT_EQ(Check(older), 0);
  EXPECT_EQ(Check(now), 1);
}

TEST_F(Otp, WhatIsNoCodeIsWrong) {
  Enroll();
  const std::string code = Code();
  const std::string wrong =
      std::string(1, code[0] == '9' ? '0' : char(code[0] + 1)) + code.substr(1);
  const std::string rows[] = {"",
                              wrong,
                              " " + code,
                              code + " ",
                              code + "0",
                              code + "x",
                              code.substr(1),
                              "0x1234",
                              "-12345",
                              "%n%n%n",
                              "$6$a$b",
                              Code(0, "-d 8"),
                              std::string(64, '1'),
                              std::string(65, '1'),
                              std::string(100000, '1')};
  for (const std::string& row : rows)
    EXPECT_EQ(Check(row), 0) << row.substr(0, 70);
  EXPECT_EQ(vemo_otp_check("mona", nullptr), 0);
  EXPECT_EQ(Read(kDirectory + "mona"), std::string("secret=\"") + kSecret + "\"\n");  // as it was
  EXPECT_EQ(Check(code), 1);
}

TEST_F(Otp, AnAccountWithoutAFileHasNone) {
  EXPECT_EQ(vemo_otp_enrolled("mona"), 0);
  EXPECT_EQ(Check(Code()), 0);
  EXPECT_FALSE(Exists(kDirectory + ".lock"));
  Shell("rmdir " + kDirectory);
  EXPECT_EQ(vemo_otp_enrolled("mona"), 0);
  EXPECT_EQ(Check(Code()), 0);
}

TEST_F(Otp, NamesNeverLeaveTheDirectory) {
  Write("/usr/vemo/etc/mona", std::string("secret=\"") + kSecret + "\"\n");
  const std::string names[] = {
      "", ".", "..", "../mona", "/usr/vemo/etc/mona", "mo\nna", std::string(300, 'm')};
  for (const std::string& name : names) {
    EXPECT_EQ(vemo_otp_enrolled(name.c_str()), -1) << name;
    EXPECT_EQ(Check(Code(), name.c_str()), -1) << name;
  }
  EXPECT_EQ(vemo_otp_enrolled(nullptr), -1);
  EXPECT_EQ(vemo_otp_enrolled("MONA"), 0);
  Write(kDirectory + "CORP%5Calice", std::string("secret=\"") + kSecret + "\"\n");
  EXPECT_EQ(vemo_otp_enrolled("CORP\\alice"), 1);
  EXPECT_EQ(Check(Code(), "CORP\\alice"), 1);
}

TEST_F(Otp, NoAccountIsNamedLikeAFileOfAnother) {
  Enroll();
  const std::string secret = std::string("secret=\"") + kSecret + "\"\n";
  for (const char* other : {"mona.lock", "mona.new", "mona.use", ".new", ".lock"}) {
    std::string part = other;
    if (part[0] == '.') part = "%2E" + part.substr(1);
    Write(kDirectory + part, secret);
  }
  EXPECT_EQ(Check(Code()), 1);
  for (const char* other : {"mona.lock", "mona.new", "mona.use", ".new", ".lock"}) {
    EXPECT_EQ(vemo_otp_enrolled(other), 1) << other;
    EXPECT_EQ(Check(Code(), other), 1) << other;
  }
}

TEST_F(Otp, FilesThatOthersCouldHaveMadeAreRefused) {
  const std::string file = kDirectory + "mona";
  const std::string rows[] = {
      "chmod 0640 " + file,
      "chmod 0604 " + file,
      "chmod 0620 " + file,
      "chmod 0602 " + file,
      "chmod 0610 " + file,
      "chown daemon " + file,
      "mv " + file + " /run/mona; ln -s /run/mona " + file,
      "rm " + file + "; ln -s /run/absent " + file,
      "rm " + file + "; mkdir -m 0700 " + file,
      "rm " + file + "; mkfifo -m 0600 " + file,
      "chmod 0770 " + kDirectory,
      "chmod 0707 " + kDirectory,
      "chown daemon " + kDirectory,
      "mv /usr/vemo/etc/otp /run/otp; ln -s /run/otp /usr/vemo/etc/otp",
      "rm -r /usr/vemo/etc/otp; ln -s /run/absent /usr/vemo/etc/otp",
      "rm -r /usr/vemo/etc/otp; touch /usr/vemo/etc/otp",
  };
  for (const std::string& row : rows) {
    Shell("rm -rf /usr/vemo/etc/otp /run/mona /run/otp; install -d -m 0700 " + kDirectory);
    Enroll();
    Shell(row);
    VLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(vemo_otp_enrolled("mona"), -1) << row;
    EXPECT_NE(VLIBCErrGet(), 0) << row;
    EXPECT_EQ(Check(Code()), -1) << row;
  }
  Shell("rm -rf /usr/vemo/etc/otp; install -d -m 0755 " + kDirectory);
  Enroll();
  Shell("chmod 0400 " + file);
  EXPECT_EQ(Check(Code()), 1);
}

TEST_F(Otp, BrokenFilesAreAFault) {
  const std::string secret = std::string("secret=\"") + kSecret + "\"\n";
  const std::string rows[] = {"",
                              "secret=\"\"\n",
                              "secret=\"JBSWY3DPEHPK3PX\"\n",   // 15 characters
                              "secret=\"JBSWY3DPEHPK3PX1\"\n",  // no base32
                              "secret=\"JBSWY3DPEHPK3PX!!!\"\n",
                              secret + "last=\"never\"\n",
                              secret + "last=\"-1\"\n",
                              secret + "last=\"57203412x\"\n",
                              secret + "last=\"0x10\"\n",
                              secret + "last=\"1234567890123456789\"\n"};
  for (const std::string& row : rows) {
    Write(kDirectory + "mona", row);
    VLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(vemo_otp_enrolled("mona"), 1) << row;
    EXPECT_EQ(Check(Code()), -1) << row;
    EXPECT_EQ(VLIBCErrGet(), VEMOERR_FORMAT) << row;
    EXPECT_EQ(Read(kDirectory + "mona"), row);
  }
}

TEST_F(Otp, ACodeThatCannotBeStoredAsSpentIsNotAccepted) {
  Enroll();
  Shell("mount --bind " + kDirectory + " " + kDirectory + " && mount -o remount,ro,bind " +
        kDirectory);
  EXPECT_EQ(vemo_otp_enrolled("mona"), 1);
  EXPECT_EQ(Check(Code()), -1);
  Shell("umount " + kDirectory);
  EXPECT_EQ(Check(Code()), 1);

  // A directory in the place of the new file.
  Enroll();
  Shell("mkdir " + kDirectory + ".new");
  EXPECT_EQ(Check(Code()), -1);
  EXPECT_EQ(Read(kDirectory + "mona"), std::string("secret=\"") + kSecret + "\"\n");
  Shell("rmdir " + kDirectory + ".new");
  EXPECT_EQ(Check(Code()), 1);

  Enroll();
  Shell("rm " + kDirectory + ".lock; ln -s /run/elsewhere " + kDirectory + ".lock");
  EXPECT_EQ(Check(Code()), -1);
  EXPECT_FALSE(Exists("/run/elsewhere"));
}

TEST_F(Otp, WhoWaitsTooLongIsRefused) {
  Enroll();
  int fd = -1;
  ASSERT_TRUE(VLIBCFileLockTimeByFile((kDirectory + ".lock").c_str(), 1, 1, &fd));
  const time_t begin = time(nullptr);
  EXPECT_EQ(Check(Code()), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_BUSY);
  EXPECT_GE(time(nullptr) - begin, 4);
  VLIBCFileUnlockByFile(fd);
  EXPECT_EQ(Check(Code()), 1);
  struct stat status;
  Shell("rm " + kDirectory + ".lock");
  EXPECT_EQ(Check(Code(1)), 1);
  ASSERT_EQ(lstat((kDirectory + ".lock").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);  // others could hold it
}

/// How many of 8 processes that begin at once have `code` accepted; -1: one had a fault.
int AtOnce(const std::string& code) {
  int gate[2], accepted = 0, status;
  EXPECT_EQ(pipe(gate), 0);
  for (int i = 0; i < 8; i++) {
    if (fork() != 0) continue;
    char byte;
    close(gate[1]);
    if (read(gate[0], &byte, 1) != 0) _exit(9);  // returns when all have been made
    _exit(vemo_otp_check("mona", code.c_str()) + 1);
  }
  close(gate[0]);
  close(gate[1]);
  for (int i = 0; i < 8; i++) {
    wait(&status);
    EXPECT_TRUE(WIFEXITED(status) && (WEXITSTATUS(status) == 1 || WEXITSTATUS(status) == 2))
        << status;
    accepted += WIFEXITED(status) && WEXITSTATUS(status) == 2;
  }
  return accepted;
}

TEST_F(Otp, OneOfManyProcessesWins) {
  for (int round = 0; round < 10; round++) {
    Enroll("recovery=\"" + Hash("alpha-1") + " " + Hash("beta-2") + "\"\n");
    EXPECT_EQ(AtOnce(Code()), 1);
    EXPECT_EQ(AtOnce("beta-2"), 1);
    EXPECT_EQ(Check("alpha-1"), 1);
  }
}

TEST_F(Otp, RecoveryCodesAreUsedOnce) {
  const std::string first = Hash("alpha-1"), second = Hash("beta-2"), third = Hash("gamma-3", "-5");
  Enroll("recovery=\"" + first + " " + second + "  " + third + "\"\n");
  EXPECT_EQ(Check("alpha-2"), 0);
  EXPECT_EQ(Check(second), 0);
  EXPECT_EQ(Check("beta-2"), 1);
  EXPECT_NE(Read(kDirectory + "mona").find("recovery=\"" + first + " " + third + "\"\n"),
            std::string::npos)
      << Read(kDirectory + "mona");
  EXPECT_EQ(Check("beta-2"), 0);
  EXPECT_EQ(Check("gamma-3"), 1);
  EXPECT_EQ(Check("gamma-3"), 0);
  EXPECT_EQ(Check("alpha-1"), 1);
  EXPECT_EQ(Check("alpha-1"), 0);
  EXPECT_EQ(vemo_otp_enrolled("mona"), 1);
  EXPECT_EQ(Check(Code()), 1);
}

TEST_F(Otp, OnlySaltedHashesAreRecoveryCodes) {
  Enroll("recovery=\"alpha-1 * ! x *0 \"\n");
  for (const char* code : {"alpha-1", "*", "!", "x", "*0", "*1", " "})
    EXPECT_EQ(Check(code), 0) << code;
  // Six digits are the clock's: else a short code could be guessed for ever.
  Enroll("recovery=\"" + Hash("12345") + " " + Hash("1234567") + "\"\n");
  EXPECT_EQ(Check("12345"), 1);
  EXPECT_EQ(Check("1234567"), 1);
  std::string many;
  for (int i = 0; i < 16; i++)
    many += Hash("none") + " ";
  Enroll("recovery=\"" + many + Hash("late") + "\"\n");
  EXPECT_EQ(Check("late"), 0);
}

TEST_F(Otp, ItIsReadAsRootAndTheIdentityComesBack) {
  Enroll();
  const std::string code = Code();
  ASSERT_EQ(seteuid(65534), 0);
  EXPECT_EQ(vemo_otp_enrolled("mona"), 1);
  EXPECT_EQ(geteuid(), 65534u);
  EXPECT_EQ(vemo_otp_check("mona", code.c_str()), 1);
  EXPECT_EQ(geteuid(), 65534u);
  EXPECT_EQ(vemo_otp_check("mona", code.c_str()), 0);
  ASSERT_EQ(seteuid(0), 0);
  ASSERT_EQ(setuid(65534), 0);
  EXPECT_EQ(vemo_otp_enrolled("mona"), -1);
  EXPECT_EQ(vemo_otp_check("mona", code.c_str()), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_PERM);
}

TEST_F(Otp, WithoutItsLibraryNobodyComesIn) {
  Enroll();
  const std::string code = Code();
  Shell("for f in /usr/lib/*/liboath.so.0; do mount --bind /dev/null $f; done");
  EXPECT_EQ(Check(code), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_SERVICE);
  Shell("for f in /usr/lib/*/liboath.so.0; do umount $f; done");
  EXPECT_EQ(Check(code), 1);
}

}  // namespace
