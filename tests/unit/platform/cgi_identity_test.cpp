// The identity of a session's user: the ids that the framework finds, and the switches.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vemo/cgi.h>
#include <vemo/errors.h>

#include <functional>

#include "faults/faults.h"
#include "unit/platform/cgi_accounts.h"

using namespace accounts;
using faults::hooks;

namespace {

constexpr uid_t kNoUser = static_cast<uid_t>(-1);
constexpr gid_t kNoGroup = static_cast<gid_t>(-1);

// "5001 5001 5001": the real, effective and saved id, as the kernel tells.
std::string Ids(const std::string& kind) {
  std::istringstream text(Read("/proc/self/status"));
  for (std::string line; std::getline(text, line);) {
    std::istringstream words(line);
    std::string name, real, effective, saved;
    words >> name >> real >> effective >> saved;
    if (name == kind + ":") return real + " " + effective + " " + saved;
  }
  return "";
}

class CgiIdentity : public testing::Test {
 protected:
  void SetUp() override {
    Prepare();
    Shell("groupadd -g 7001 readers; groupadd -g 7002 writers");
    AddUser("mona", "mona-pass", "-u 5001 -g 7001 -G writers");
    AddUser("boss", "boss-pass", "-u 5002 -g 7002 -G administrators");
    mona_ = Session("mona");
    boss_ = Session("boss");
  }

  static std::string Session(const std::string& user) {
    const Login login = LogIn(user.c_str(), "", {.no_auth = true});
    EXPECT_EQ(login.result, 1) << user;
    return login.id;
  }

  static void SetError() {
    VLIBCErrSetEx(VEMOERR_NONE, "test", 0);
    errno = 0;
  }

  // What `program` prints in a process of its own, whose ids may change for good.
  static std::string InChild(const std::function<std::string()>& program) {
    return support::RunRequest({}, "", [&] { std::printf("%s", program().c_str()); }).output;
  }

  std::string mona_, boss_;
};

TEST_F(CgiIdentity, TheIdsAreThoseOfTheAccount) {
  SetError();
  EXPECT_EQ(VemoCgiUIDGet(mona_.c_str(), "mona"), 5001u);
  EXPECT_EQ(VemoCgiGIDGet(mona_.c_str(), "mona"), 7001u);
  // An administrator's own: that it acts as root is a matter of the switch.
  EXPECT_EQ(VemoCgiUIDGet(boss_.c_str(), "boss"), 5002u);
  EXPECT_EQ(VemoCgiGIDGet(boss_.c_str(), "boss"), 7002u);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NONE);
}

TEST_F(CgiIdentity, IdsAboveTheSignedRangeAreIds) {
  Shell("printf '%s\\n' 'CORP\\carol:x:4294967294:4294967293::/:/bin/sh' >> /etc/passwd");
  const std::string session = Session("CORP\\carol");
  EXPECT_EQ(VemoCgiUIDGet(session.c_str(), "CORP\\carol"), 4294967294u);
  EXPECT_EQ(VemoCgiGIDGet(session.c_str(), "CORP\\carol"), 4294967293u);
}

TEST_F(CgiIdentity, AnAccountWhoseIdMeansNoneHasNone) {
  Shell("echo 'nouser:x:4294967295:7001::/:/bin/sh' >> /etc/passwd");
  Shell("echo 'nogrp:x:5003:4294967295::/:/bin/sh' >> /etc/passwd");
  for (const char* user : {"nouser", "nogrp"}) {
    const std::string session = Session(user);
    SetError();
    EXPECT_EQ(VemoCgiUIDGet(session.c_str(), user), kNoUser) << user;
    EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_USER) << user;
    EXPECT_EQ(VemoCgiGidSet(session.c_str(), user), -1) << user;
    EXPECT_EQ(VemoCgiEUidSet(session.c_str(), user), -1) << user;
  }
  EXPECT_EQ(Ids("Uid"), "0 0 0");
  EXPECT_EQ(Ids("Gid"), "0 0 0");
}

TEST_F(CgiIdentity, WhatIsRefused) {
  const std::string unknown(43, 'A'), with_path = "../../etc/passwd" + std::string(27, 'A');
  const std::string long_name(300, 'm');
  const struct {
    const char* session;
    const char* user;
    int code;
  } rows[] = {
      {nullptr, "mona", VEMOERR_BAD_PARAM},
      {mona_.c_str(), nullptr, VEMOERR_BAD_PARAM},
      {"", "mona", VEMOERR_BAD_PARAM},
      {mona_.c_str(), "", VEMOERR_BAD_PARAM},
      {"short", "mona", VEMOERR_BAD_PARAM},
      {mona_.c_str(), long_name.c_str(), VEMOERR_BAD_PARAM},
      {with_path.c_str(), "mona", VEMOERR_NO_PERM},
      {unknown.c_str(), "mona", VEMOERR_NO_PERM},
      {mona_.c_str(), "boss", VEMOERR_NO_PERM},
      {mona_.c_str(), "root", VEMOERR_NO_PERM},
      {mona_.c_str(), "MONA", VEMOERR_NO_PERM},
      {mona_.c_str(), "nobody-there", VEMOERR_NO_PERM},
  };
  for (const auto& row : rows) {
    const std::string what = std::string(row.session == nullptr ? "-" : row.session) + " of " +
                             (row.user == nullptr ? "-" : row.user);
    SetError();
    EXPECT_EQ(VemoCgiUIDGet(row.session, row.user), kNoUser) << what;
    EXPECT_EQ(VLIBCErrGet(), row.code) << what;
    EXPECT_NE(errno, 0) << what;
    SetError();
    EXPECT_EQ(VemoCgiGIDGet(row.session, row.user), kNoGroup) << what;
    EXPECT_EQ(VLIBCErrGet(), row.code) << what;
    for (const auto set : {VemoCgiGidSet, VemoCgiUidSet, VemoCgiEGidSet, VemoCgiEUidSet}) {
      SetError();
      EXPECT_EQ(set(row.session, row.user), -1) << what;
      EXPECT_EQ(VLIBCErrGet(), row.code) << what;
    }
  }
  EXPECT_EQ(Ids("Uid"), "0 0 0");
  EXPECT_EQ(Ids("Gid"), "0 0 0");
}

TEST_F(CgiIdentity, ASessionThatRanOutIsNone) {
  Age(kSessions + mona_, 16 * 60);
  EXPECT_EQ(VemoCgiUIDGet(mona_.c_str(), "mona"), kNoUser);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_PERM);
  Age(kSessions + boss_, 14 * 60);
  EXPECT_EQ(VemoCgiUIDGet(boss_.c_str(), "boss"), 5002u);
}

TEST_F(CgiIdentity, ASessionThatIsGoneOrBrokenIsNone) {
  Write(kSessions + mona_, "{\"user\":");
  EXPECT_EQ(VemoCgiUIDGet(mona_.c_str(), "mona"), kNoUser);
  ASSERT_EQ(unlink((kSessions + mona_).c_str()), 0);
  EXPECT_EQ(VemoCgiUIDGet(mona_.c_str(), "mona"), kNoUser);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_PERM);
}

TEST_F(CgiIdentity, AnAccountThatIsGoneHasNoIds) {
  Shell("userdel mona");
  SetError();
  EXPECT_EQ(VemoCgiUIDGet(mona_.c_str(), "mona"), kNoUser);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_USER);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(CgiIdentity, ANameServiceThatCannotAnswerIsAFailure) {
  Shell("printf 'passwd: nothere [UNAVAIL=return] files\\n' > /etc/nsswitch.conf");
  EXPECT_EQ(InChild([this] {
              const bool none = VemoCgiUIDGet(mona_.c_str(), "mona") == kNoUser;
              return std::to_string(none) + " " + std::to_string(VLIBCErrGet());
            }),
            "1 " + std::to_string(VEMOERR_NO_SERVICE));
}

TEST_F(CgiIdentity, TheFirstAnswerIsKeptForTheProcess) {
  // The session's file is root's: it cannot be read any more once the process is the user.
  EXPECT_EQ(VemoCgiGIDGet(mona_.c_str(), "mona"), 7001u);
  ASSERT_EQ(unlink((kSessions + mona_).c_str()), 0);
  EXPECT_EQ(VemoCgiUIDGet(mona_.c_str(), "mona"), 5001u);
  // It is kept for this session and this user alone.
  EXPECT_EQ(VemoCgiUIDGet(mona_.c_str(), "boss"), kNoUser);
  EXPECT_EQ(VemoCgiUIDGet(boss_.c_str(), "mona"), kNoUser);
  EXPECT_EQ(VemoCgiUIDGet(boss_.c_str(), "boss"), 5002u);
  EXPECT_EQ(VemoCgiUIDGet(mona_.c_str(), "mona"), 5001u);
}

TEST_F(CgiIdentity, ARefusalIsNotKept) {
  ASSERT_EQ(rename((kSessions + mona_).c_str(), "/run/aside"), 0);
  EXPECT_EQ(VemoCgiUIDGet(mona_.c_str(), "mona"), kNoUser);
  ASSERT_EQ(rename("/run/aside", (kSessions + mona_).c_str()), 0);
  EXPECT_EQ(VemoCgiUIDGet(mona_.c_str(), "mona"), 5001u);
}

TEST_F(CgiIdentity, TheFinalSwitchChangesAllThree) {
  EXPECT_EQ(InChild([this] {
              std::string text = std::to_string(VemoCgiGidSet(mona_.c_str(), "mona"));
              text += " " + Ids("Gid") + "; " + Ids("Uid") + "; ";
              text += std::to_string(VemoCgiUidSet(mona_.c_str(), "mona"));
              text += " " + Ids("Uid");
              for (const int result : {seteuid(0), setuid(0), setresuid(0, 0, 0), setegid(0),
                                       setgid(0), setgroups(0, nullptr)}) {
                text += " " + std::to_string(result);
              }
              return text + "; " + Ids("Uid");
            }),
            "0 7001 7001 7001; 0 0 0; 0 5001 5001 5001 -1 -1 -1 -1 -1 -1; 5001 5001 5001");
}

TEST_F(CgiIdentity, TheEffectiveSwitchCanBeTakenBack) {
  EXPECT_EQ(InChild([this] {
              std::string text = std::to_string(VemoCgiEGidSet(mona_.c_str(), "mona"));
              text += " " + Ids("Gid") + "; ";
              text += std::to_string(VemoCgiEUidSet(mona_.c_str(), "mona"));
              text += " " + Ids("Uid") + " ";
              text += std::to_string(seteuid(0));
              return text + std::to_string(setegid(0));
            }),
            "0 0 7001 0; 0 0 5001 0 00");
}

TEST_F(CgiIdentity, AnAdministratorBecomesRootWithItsOwnGroup) {
  EXPECT_EQ(InChild([this] {
              std::string text = std::to_string(VemoCgiEGidSet(boss_.c_str(), "boss"));
              text += std::to_string(VemoCgiEUidSet(boss_.c_str(), "boss"));
              text += " " + Ids("Gid") + "; " + Ids("Uid") + "; ";
              text += std::to_string(VemoCgiGidSet(boss_.c_str(), "boss"));
              text += std::to_string(VemoCgiUidSet(boss_.c_str(), "boss"));
              return text + " " + Ids("Gid") + "; " + Ids("Uid");
            }),
            "00 0 7002 0; 0 0 0; 00 7002 7002 7002; 0 0 0");
}

TEST_F(CgiIdentity, AnAdministratorsSessionIsAskedForToo) {
  const std::string unknown(43, 'A');
  EXPECT_EQ(VemoCgiUidSet(unknown.c_str(), "boss"), -1);
  EXPECT_EQ(VemoCgiEUidSet(mona_.c_str(), "boss"), -1);
}

TEST_F(CgiIdentity, TheFinalSwitchFollowsTheEffectiveOne) {
  EXPECT_EQ(InChild([this] {
              int result = VemoCgiEGidSet(mona_.c_str(), "mona");
              result |= VemoCgiEUidSet(mona_.c_str(), "mona");
              result |= VemoCgiGidSet(mona_.c_str(), "mona");
              result |= VemoCgiUidSet(mona_.c_str(), "mona");
              return std::to_string(result) + " " + Ids("Gid") + "; " + Ids("Uid");
            }),
            "0 7001 7001 7001; 5001 5001 5001");
}

TEST_F(CgiIdentity, ASwitchThatTheKernelRefusesIsAFailure) {
  EXPECT_EQ(
      InChild([this] {
        // The answers are found while root still can.
        VemoCgiUIDGet(mona_.c_str(), "mona");
        VemoCgiUIDGet(boss_.c_str(), "boss");
        if (setresuid(65534, 65534, 65534) != 0) return std::string("no");
        std::string text;
        for (const auto set : {VemoCgiGidSet, VemoCgiUidSet, VemoCgiEGidSet, VemoCgiEUidSet}) {
          SetError();
          text += std::to_string(set(mona_.c_str(), "mona"));
          text += errno == EPERM && VLIBCErrGet() == VEMOERR_NO_PERM ? " " : "? ";
        }
        text += std::to_string(VemoCgiUidSet(boss_.c_str(), "boss"));
        return text + "; " + Ids("Gid") + "; " + Ids("Uid");
      }),
      "-1 -1 -1 -1 -1; 0 0 0; 65534 65534 65534");
}

TEST_F(CgiIdentity, WhoMayNotBeToldApartIsNobody) {
  // Without an answer about the administrators there is neither root nor the user.
  EXPECT_EQ(InChild([this] {
              hooks.VLIBGroupIsAdminGroupMem = [](const char*, int) {
                VLIBCErrSetEx(VEMOERR_NO_SERVICE, "test", 1);
                return -1;
              };
              std::string text = std::to_string(VemoCgiUidSet(mona_.c_str(), "mona"));
              text += std::to_string(VemoCgiEUidSet(boss_.c_str(), "boss"));
              return text + " " + std::to_string(VLIBCErrGet()) + " " + Ids("Uid");
            }),
            "-1-1 " + std::to_string(VEMOERR_NO_SERVICE) + " 0 0 0");
}

}  // namespace
