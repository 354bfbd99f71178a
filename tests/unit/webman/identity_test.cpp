// The identity of the login user: in which order it is taken, and how far.
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <syslog.h>
#include <unistd.h>
#include <webman/webman.h>

#include <cstdio>
#include <optional>
#include <regex>

#include "faults/faults.h"
#include "support/syslog.h"
#include "unit/platform/cgi_accounts.h"

using namespace accounts;
using faults::hooks;

namespace {

// A line of the kernel's own account of this process, for example "Uid".
std::string Status(const std::string& name) {
  std::istringstream text(Read("/proc/self/status"));
  for (std::string line; std::getline(text, line);) {
    if (line.rfind(name + ":", 0) != 0) continue;
    std::string words = line.substr(name.size() + 1);
    std::replace(words.begin(), words.end(), '\t', ' ');
    words.erase(0, words.find_first_not_of(' '));
    words.erase(words.find_last_not_of(' ') + 1);
    return words;
  }
  return "";
}

std::string Ids() { return "uid " + Status("Uid") + " gid " + Status("Gid"); }

// The result, then the ids as they are by then.
void Report(int result) { std::printf("%d %s", result, Ids().c_str()); }

// Real, effective, saved, file system.
std::string Four(long real, long effective, long saved) {
  return std::to_string(real) + " " + std::to_string(effective) + " " + std::to_string(saved) +
         " " + std::to_string(effective);
}

class Identity : public testing::Test {
 protected:
  void SetUp() override {
    Prepare();
    Shell("groupadd -g 7001 readers; groupadd -g 7002 writers");
    AddUser("mona", "mona-pass", "-u 5001 -g 7001 -G writers");
    AddUser("boss", "boss-pass", "-u 5002 -g 7002 -G administrators");
    log_.emplace();  // what makes accounts logs too, and waits when nobody reads it
  }

  // Runs as a request of `user`'s session that has been authorized; what it printed.
  std::string Run(const char* user, const std::function<void(WebMan&)>& program,
                  bool authorized = true) {
    const Login login = LogIn(user, "", {.no_auth = true});
    EXPECT_EQ(login.result, 1);
    id_ = login.id;
    return support::RunRequest(
               {{"REQUEST_METHOD", "GET"},
                {"REMOTE_ADDR", "192.0.2.1"},
                {"HTTP_COOKIE", "id=" + login.id}},
               "",
               [&] {
                 WebMan request(true);
                 if (authorized && !request.IsAuthorized(nullptr, 1, VEMOCGI_POS_DESKTOP)) {
                   _exit(1);
                 }
                 program(request);
                 fflush(stdout);
               })
        .output;
  }

  // Each line of the authorization log, its source's line number left out.
  std::vector<std::string> Logged() {
    std::vector<std::string> texts;
    for (const support::LogLine& line : log_->Take()) {
      if (line.text.find("webman") != 0) continue;
      EXPECT_EQ(line.priority, LOG_AUTH | LOG_ERR) << line.text;
      texts.push_back(
          std::regex_replace(line.text, std::regex("^webman(\\(|:)[0-9]+"), "webman$1N"));
    }
    return texts;
  }

  std::optional<support::Syslog> log_;
  std::string id_;
};

TEST_F(Identity, TheEffectiveIdsAreTheUsers) {
  EXPECT_EQ(Run("mona",
                [](WebMan& request) {
                  std::printf("%d ", request.setEUGID());
                  std::printf("%s groups %s", Ids().c_str(), Status("Groups").c_str());
                }),
            "0 uid " + Four(0, 5001, 0) + " gid " + Four(0, 7001, 0) + " groups 7001 7002");
  EXPECT_EQ(Logged(), std::vector<std::string>());
}

TEST_F(Identity, AnAdministratorActsAsRootWithItsOwnGroup) {
  const std::string output = Run("boss", [](WebMan& request) { Report(request.setEUGID()); });
  EXPECT_EQ(output, "0 uid " + Four(0, 0, 0) + " gid " + Four(0, 7002, 0));
}

TEST_F(Identity, TheSwitchCanBeTakenBack) {
  EXPECT_EQ(Run("mona",
                [](WebMan& request) {
                  request.setEUGID();
                  std::printf("%d %d", seteuid(0), setegid(0));
                }),
            "0 0");
}

TEST_F(Identity, TheFinalSwitchCannot) {
  EXPECT_EQ(Run("mona",
                [](WebMan& request) {
                  Report(request.setUGID());
                  std::printf(" groups %s;", Status("Groups").c_str());
                  std::printf("%d %d %d %d %d", seteuid(0), setuid(0), setresuid(0, 0, 0),
                              setegid(0), setgroups(0, nullptr));
                }),
            "0 uid " + Four(5001, 5001, 5001) + " gid " + Four(7001, 7001, 7001) +
                " groups 7001 7002;-1 -1 -1 -1 -1");
  EXPECT_EQ(Run("boss", [](WebMan& request) { Report(request.setUGID()); }),
            "0 uid " + Four(0, 0, 0) + " gid " + Four(7002, 7002, 7002));
}

TEST_F(Identity, WithoutASessionNothingIsSwitched) {
  const auto output = support::RunRequest({{"REQUEST_METHOD", "GET"}}, "", [] {
                        WebMan request(true);
                        std::printf("%d ", request.setEUGID());
                        Report(request.setUGID());
                      }).output;
  EXPECT_EQ(output, "-1 -1 uid " + Four(0, 0, 0) + " gid " + Four(0, 0, 0));
  EXPECT_EQ(Logged(), (std::vector<std::string>(2, "webman(N) bad parameter")));
}

TEST_F(Identity, ASessionOfAnotherUserGivesNoIds) {
  // Nobody was authorized: there is no login user.
  const std::string none = Run(
      "mona", [](WebMan& request) { Report(request.setEUGID()); }, false);
  EXPECT_EQ(none, "-1 uid " + Four(0, 0, 0) + " gid " + Four(0, 0, 0));
  EXPECT_EQ(Logged(),
            std::vector<std::string>{"webman(N) failed to get GID for user=, sid=" + id_});

  const std::string other = Run("mona", [this](WebMan&) {
    const char* id = id_.c_str();
    std::printf("%d ", WebMan::SetEGid(id, "boss"));
    Report(WebMan::SetEUid(id, "daemon"));
  });
  EXPECT_EQ(other, "-1 -1 uid " + Four(0, 0, 0) + " gid " + Four(0, 0, 0));
}

TEST_F(Identity, ASessionThatEndedGivesNoIds) {
  const std::string output = Run("mona", [this](WebMan& request) {
    unlink((std::string(kSessions) + request.GetSessionID()).c_str());
    Report(request.setEUGID());
  });
  EXPECT_EQ(output, "-1 uid " + Four(0, 0, 0) + " gid " + Four(0, 0, 0));
}

TEST_F(Identity, AUserWhoIsGoneGivesNoIds) {
  const std::string output = Run("mona", [](WebMan& request) {
    Shell("userdel mona");
    Report(request.setEUGID());
  });
  EXPECT_EQ(output, "-1 uid " + Four(0, 0, 0) + " gid " + Four(0, 0, 0));
  EXPECT_EQ(Logged(),
            std::vector<std::string>{"webman(N) failed to get GID for user=mona, sid=" + id_});
}

TEST_F(Identity, SupplementaryGroupsThatCannotBeSetAreLoggedOnly) {
  // A process that acts as somebody else already: only root may set groups.
  const std::string output = Run("mona", [](WebMan& request) {
    if (seteuid(65534) != 0) _exit(1);
    Report(request.setEUGID());
  });
  // The kernel refuses the ids too; what it says is not looked at.
  EXPECT_EQ(output, "0 uid " + Four(0, 65534, 0) + " gid " + Four(0, 0, 0));
  EXPECT_EQ(Logged(),
            std::vector<std::string>{"webman(N) failed to initgroup for user=mona, sid=" + id_});
}

TEST_F(Identity, TheGroupIsSwitchedBeforeTheUser) {
  // Else a user who is not root could not change the group any more.
  const std::string output = Run("mona", [](WebMan& request) {
    hooks.VemoCgiGidSet = [](const char*, const char*) {
      std::printf("group ");
      return -3;
    };
    hooks.VemoCgiUidSet = [](const char*, const char*) {
      std::printf("user ");
      return -3;
    };
    std::printf("%d ", request.setUGID());
    hooks.VemoCgiGidSet = [](const char*, const char*) {
      std::printf("group ");
      return 0;
    };
    std::printf("%d", request.setUGID());
  });
  EXPECT_EQ(output, "group -1 group user -1");
  EXPECT_EQ(Logged(),
            (std::vector<std::string>{"webman(N) failed to set GID for user=mona, sid=" + id_,
                                      "webman(N) failed to set UID for user=mona, sid=" + id_}));
}

TEST_F(Identity, AFailureOnTheWayKeepsWhatWasReached) {
  const std::string output = Run("mona", [](WebMan& request) {
    hooks.VLIBGroupIsAdminGroupMem = [](const char*, int) {
      VLIBCErrSetEx(0x0C00, "names.c", 12);
      return -1;
    };
    Report(request.setEUGID());
  });
  EXPECT_EQ(output, "-1 uid " + Four(0, 0, 0) + " gid " + Four(0, 7001, 0));
  EXPECT_EQ(Logged(), (std::vector<std::string>{
                          "webman:N VLIBGroupIsAdminGroupMem(mona) failed. [0x0C00 names.c:12]",
                          "webman(N) failed to set UID for user=mona, sid=" + id_}));
}

TEST_F(Identity, AnIdThatCannotBeFoundNeverReachesTheKernel) {
  const std::string output = Run("mona", [](WebMan& request) {
    int asked = 0;
    hooks.VemoCgiGIDGet = [&](const char*, const char*) {
      return asked++ == 0 ? gid_t{7001} : static_cast<gid_t>(-1);
    };
    std::printf("%d ", request.setEUGID());
    hooks.VemoCgiGIDGet = nullptr;
    hooks.VemoCgiUIDGet = [](const char*, const char*) { return static_cast<uid_t>(-1); };
    Report(request.setEUGID());
  });
  EXPECT_EQ(output, "-1 -1 uid " + Four(0, 0, 0) + " gid " + Four(0, 7001, 0));
  EXPECT_EQ(Logged(),
            (std::vector<std::string>{"webman(N) failed to set GID for user=mona, sid=" + id_,
                                      "webman(N) failed to set UID for user=mona, sid=" + id_}));
}

TEST_F(Identity, NullArgumentsAreRefused) {
  EXPECT_EQ(WebMan::SetEGid(nullptr, "mona"), -1);
  EXPECT_EQ(WebMan::SetEGid("x", nullptr), -1);
  EXPECT_EQ(WebMan::SetEUid(nullptr, "mona"), -1);
  EXPECT_EQ(WebMan::SetEUid("x", nullptr), -1);
  EXPECT_EQ(Logged(), (std::vector<std::string>(4, "webman(N) bad parameter")));
}

TEST_F(Identity, AnAdministratorNeedsNoSessionToBecomeRoot) {
  // The membership alone decides about the user; the group needs the session.
  EXPECT_EQ(WebMan::SetEUid("none", "boss"), 0);
  EXPECT_EQ(WebMan::SetEGid("none", "boss"), -1);
  EXPECT_EQ(WebMan::SetEUid("none", "mona"), -1);
  EXPECT_EQ(WebMan::SetEUid("none", "nobody-there"), -1);
}

}  // namespace
