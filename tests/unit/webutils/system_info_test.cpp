// Facts about the system, on real mounts, and the mail about an account.
#include <gtest/gtest.h>
#include <json/value.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vemo/core.h>
#include <webutils/system_info.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <string>

#include "faults/faults.h"
#include "support/syslog.h"

namespace {

void Shell(const std::string& command) { ASSERT_EQ(system(command.c_str()), 0) << command; }

void Write(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

TEST(SystemInfo, NumbersOfTheVersionAreReadOnce) {
  Write("/etc.defaults/VERSION", "buildnumber=\"42\"\nsmallfixnumber=\"7\"\n");
  EXPECT_EQ(WebUtils::GetVersion(), "42");
  EXPECT_EQ(WebUtils::GetSmallFixNum(), "7");
  Write("/etc.defaults/VERSION", "buildnumber=\"43\"\nsmallfixnumber=\"8\"\n");
  EXPECT_EQ(WebUtils::GetVersion(), "42");
  EXPECT_EQ(WebUtils::GetSmallFixNum(), "7");
}

TEST(SystemInfo, WithoutAVersionThereIsADefault) {
  unlink("/etc.defaults/VERSION");
  EXPECT_EQ(WebUtils::GetVersion(), "1");
  EXPECT_EQ(WebUtils::GetSmallFixNum(), "0");
}

TEST(SystemInfo, NumbersAreCutAtSevenCharacters) {
  Write("/etc.defaults/VERSION", "buildnumber=\"12345678\"\nsmallfixnumber=\"1234567\"\n");
  EXPECT_EQ(WebUtils::GetVersion(), "1234567");
  EXPECT_EQ(WebUtils::GetSmallFixNum(), "1234567");
}

TEST(SystemInfo, AnEmptyNumberIsANumberThatIsThere) {
  Write("/etc.defaults/VERSION", "buildnumber=\"\"\nsmallfixnumber=\n");
  EXPECT_EQ(WebUtils::GetVersion(), "");
  EXPECT_EQ(WebUtils::GetSmallFixNum(), "");
}

TEST(SystemInfo, ServicesAreLeftAsTheyAre) {
  Json::Value value;
  value["kept"] = 1;
  WebUtils::GetServiceEnabled(value);
  EXPECT_EQ(value.size(), 1u);
  EXPECT_EQ(value["kept"], 1);
}

// --- Mounts ---

class Mounts : public testing::Test {
 protected:
  void SetUp() override {
    Shell(
        "mkdir -p /run/m/tmp /run/m/bind /run/m/ext /run/m/disc /run/m/fuse /run/m/plain "
        "/run/m/content");
    Write("/run/m/content/file", "x");
  }
  support::Syslog log_;
};

TEST_F(Mounts, LocalOnesHaveNoType) {
  Shell("mount -t tmpfs none /run/m/tmp; mount --bind /run/m/content /run/m/bind");
  for (const char* path : {"/run/m/tmp", "/run/m/bind"}) {
    EXPECT_TRUE(WebUtils::IsMountPoint(path)) << path;
    EXPECT_EQ(WebUtils::getMountType(path), "") << path;
  }
  Shell("truncate -s 8M /run/m/image && mkfs.ext4 -q -F /run/m/image");
  if (system("mount -o loop /run/m/image /run/m/ext 2>/dev/null") == 0) {
    EXPECT_TRUE(WebUtils::IsMountPoint("/run/m/ext"));
    EXPECT_EQ(WebUtils::getMountType("/run/m/ext"), "");
  }
  for (const char* path : {"/run/m/plain", "/run/m/content/file", "/run/m/tmp/none"}) {
    EXPECT_FALSE(WebUtils::IsMountPoint(path)) << path;
    EXPECT_EQ(WebUtils::getMountType(path), "") << path;
  }
}

TEST_F(Mounts, DiscsAreImages) {
  Shell("mksquashfs /run/m/content /run/m/squash -quiet -no-progress >/dev/null");
  Shell("genisoimage -quiet -o /run/m/iso /run/m/content 2>/dev/null");
  int seen = 0;
  for (const char* mount :
       {"mount -o loop -t squashfs /run/m/squash /run/m/disc",
        "squashfuse /run/m/squash /run/m/disc", "fuseiso /run/m/iso /run/m/disc"}) {
    if (system((std::string(mount) + " >/dev/null 2>&1").c_str()) != 0) continue;
    seen++;
    EXPECT_TRUE(WebUtils::IsMountPoint("/run/m/disc")) << mount;
    EXPECT_EQ(WebUtils::getMountType("/run/m/disc"), "iso") << mount;
    // What lies below is asked of the file system itself.
    EXPECT_EQ(WebUtils::getMountType("/run/m/disc/file"), "iso") << mount;
    EXPECT_EQ(WebUtils::getMountType("/run/m/disc/"), "iso") << mount;
    Shell("umount -l /run/m/disc");
  }
  EXPECT_GT(seen, 0);
}

TEST_F(Mounts, ANetworkThatAnswersAndOneThatDoesNot) {
  Shell("mksquashfs /run/m/content /run/m/squash -quiet -no-progress >/dev/null");
  Shell(
      "squashfuse -f -o subtype=sshfs,fsname=nas:/x /run/m/squash /run/m/fuse >/dev/null 2>&1 & "
      "echo $! > /run/m/pid; for i in $(seq 100); do mountpoint -q /run/m/fuse && break; sleep "
      "0.05; done");
  ASSERT_TRUE(WebUtils::IsMountPoint("/run/m/fuse"));
  EXPECT_EQ(WebUtils::getMountType("/run/m/fuse"), "remote");
  // The kernel remembers attributes for a while after the file system's process has died.
  Shell("kill -9 $(cat /run/m/pid)");
  sleep(3);
  EXPECT_TRUE(WebUtils::IsMountPoint("/run/m/fuse"));
  EXPECT_EQ(WebUtils::getMountType("/run/m/fuse"), "remotefail");
  EXPECT_TRUE(log_.TakeTexts().empty());
}

TEST_F(Mounts, WhatCannotBeToldIsNoneAndLogged) {
  EXPECT_FALSE(WebUtils::IsMountPoint("/run/m/none"));
  const auto lines = log_.TakeTexts();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(std::regex_match(
      lines[0], std::regex("webutils:\\d+ VEMOFSDirIsMntPoint\\(/run/m/none\\) fail ?"
                           "\\[0x0600 .*fs\\.c:\\d+\\]")))
      << lines[0];
  EXPECT_EQ(WebUtils::getMountType("/run/m/none"), "");
  EXPECT_EQ(WebUtils::getMountType(""), "");
  EXPECT_FALSE(WebUtils::IsMountPoint(""));
}

// --- The mail about an account ---

struct Sent {
  int count = 0;
  std::string mail_template, recipient;
  bool language = false;
  std::map<std::string, std::string> values;
};

Sent Send(const std::string& user, const std::string& password, const std::string& recipient,
          bool include) {
  Sent sent;
  faults::hooks.VEMOMailSendMessageWithoutBlock = [&](const char* mail_template,
                                                      const VEMOSZHASH* values, const char* to,
                                                      const char* language) {
    sent.count++;
    sent.mail_template = mail_template;
    sent.recipient = to;
    sent.language = language != nullptr;
    for (const char* key : {"%USER_NAME%", "%PASSWD%"}) {
      const char* value = VLIBCSzHashGetValue(values, key);
      sent.values[key] = value == nullptr ? "(none)" : value;
    }
    return -1;
  };
  WebUtils::SendUserInfoMail(user, password, recipient, "new_user", include);
  faults::hooks.VEMOMailSendMessageWithoutBlock = nullptr;
  return sent;
}

TEST(UserInfoMail, TellsNameAndPassword) {
  const Sent sent = Send("mona", "s3cret", "mona@example.org", true);
  EXPECT_EQ(sent.count, 1);
  EXPECT_EQ(sent.mail_template, "new_user");
  EXPECT_EQ(sent.recipient, "mona@example.org");
  EXPECT_FALSE(sent.language);
  EXPECT_EQ(sent.values.at("%USER_NAME%"), "mona");
  EXPECT_EQ(sent.values.at("%PASSWD%"), "s3cret");
}

TEST(UserInfoMail, OrAsterisksOrTheTextForNone) {
  EXPECT_EQ(Send("mona", "s3cret", "m@x", false).values.at("%PASSWD%"), "********");
  EXPECT_EQ(Send("mona", "", "m@x", false).values.at("%PASSWD%"), "********");
  EXPECT_EQ(Send("mona", "", "m@x", true).values.at("%PASSWD%"), "(no password)");
}

TEST(UserInfoMail, PasswordsAreCutAt254Bytes) {
  for (const size_t size : {253u, 254u, 255u, 300u}) {
    EXPECT_EQ(Send("m", std::string(size, 'p'), "m@x", true).values.at("%PASSWD%"),
              std::string(std::min<size_t>(size, 254), 'p'));
  }
}

TEST(UserInfoMail, WithoutARecipientNothingIsSent) {
  EXPECT_EQ(Send("mona", "s3cret", "", true).count, 0);
}

}  // namespace
