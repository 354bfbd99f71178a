// Becoming a user, for a while and for good, and what happens when it fails half-way.
#include <grp.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vemo/core.h>
#include <vemo/credentials.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include "cgi_accounts.h"
#include "faults/faults.h"

using namespace accounts;

namespace {

// In a process of its own: its status, which is 0 when what the body says is true.
int StatusOf(const std::function<bool()>& body) {
  const pid_t child = fork();
  if (child == 0) {
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    _exit(body() ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return status;
}

void InAnother(const std::function<bool()>& body) { EXPECT_EQ(StatusOf(body), 0); }

bool IdsAre(uid_t real, uid_t effective, uid_t saved, gid_t group, gid_t saved_group) {
  uid_t u[3];
  gid_t g[3];
  return getresuid(&u[0], &u[1], &u[2]) == 0 && getresgid(&g[0], &g[1], &g[2]) == 0 &&
         u[0] == real && u[1] == effective && u[2] == saved && g[0] == group && g[1] == group &&
         g[2] == saved_group;
}

std::vector<gid_t> Groups() {
  std::vector<gid_t> groups(static_cast<size_t>(getgroups(0, nullptr)));
  getgroups(static_cast<int>(groups.size()), groups.data());
  return groups;
}

class Credentials : public testing::Test {
 protected:
  void SetUp() override {
    Shell(
        "groupadd -g 7200 main; groupadd -g 7201 extra; useradd -M -u 7201 -g main -G extra one; "
        "useradd -M -u 7202 two");
  }
};

TEST_F(Credentials, AllIdsAndGroupsAreTheUsers) {
  InAnother([] {
    if (ResetCredentialsByName("one", FALSE) != 1 || !IdsAre(7201, 7201, 7201, 7200, 7200))
      return false;
    const auto groups = Groups();
    return std::find(groups.begin(), groups.end(), 7201u) != groups.end() && seteuid(0) != 0 &&
           ResetCredentialsByName("two", TRUE) == 0 && VLIBCErrGet() == VEMOERR_NO_PERM &&
           IdsAre(7201, 7201, 7201, 7200, 7200);
  });
}

TEST_F(Credentials, AReversibleOneCanBeReset) {
  InAnother([] {
    if (ResetCredentialsByName("one", TRUE) != 1 || !IdsAre(7201, 7201, 0, 7200, 0)) return false;
    if (ResetCredentialsByName("two", TRUE) != 1 || geteuid() != 7202) return false;
    const auto groups = Groups();
    if (std::find(groups.begin(), groups.end(), 7201u) != groups.end()) return false;
    return ResetCredentialsByName("root", TRUE) == 1 && IdsAre(0, 0, 0, 0, 0);
  });
}

TEST_F(Credentials, WhatFailsChangesNothing) {
  InAnother([] {
    for (const char* name : {static_cast<const char*>(nullptr), "", "nobody-known"}) {
      if (ResetCredentialsByName(name, TRUE) != 0 || !IdsAre(0, 0, 0, 0, 0)) return false;
    }
    return VLIBCErrGet() == VEMOERR_NO_USER;
  });
  InAnother([] {
    if (ResetCredentialsByName("one", TRUE) != 1) return false;
    const auto before = Groups();
    return ResetCredentialsByName("nobody-known", TRUE) == 0 && IdsAre(7201, 7201, 0, 7200, 0) &&
           Groups() == before;
  });
  InAnother([] {
    if (setresuid(7202, 7202, 7202) != 0) return false;
    return ResetCredentialsByName("one", TRUE) == 0 && VLIBCErrGet() == VEMOERR_NO_PERM &&
           geteuid() == 7202;
  });
}

TEST_F(Credentials, GroupsAreExactlyTheUsers) {
  InAnother([] {
    const gid_t others[] = {7777, 8888};
    if (setgroups(2, others) != 0 || ResetCredentialsByName("one", TRUE) != 1) return false;
    auto groups = Groups();
    std::sort(groups.begin(), groups.end());
    return groups == std::vector<gid_t>{7200, 7201};
  });
}

TEST_F(Credentials, AnEffectiveIdentityComesBackFirst) {
  // As a request has it that became a user with its effective ids alone.
  InAnother([] {
    return setegid(7200) == 0 && seteuid(7201) == 0 && ResetCredentialsByName("two", FALSE) == 1 &&
           getuid() == 7202 && geteuid() == 7202 && seteuid(0) != 0;
  });
}

// --- Failures half-way ---

int Refuse() {
  errno = EAGAIN;
  return -1;
}

// A call that fails, or pretends to have worked, when it is made the first time.
struct Step {
  const char* name;
  std::function<void()> fail;
};

const std::vector<Step>& Steps() {
  static int calls = 0;
  static const std::vector<Step> steps = {
      {"groups", [] { faults::hooks.initgroups = [](auto...) { return Refuse(); }; }},
      {"gid",
       [] {
         faults::hooks.setresgid = [](gid_t r, gid_t e, gid_t s) {
           return calls++ == 0 ? Refuse() : faults::__real_setresgid(r, e, s);
         };
       }},
      {"uid",
       [] {
         faults::hooks.setresuid = [](uid_t r, uid_t e, uid_t s) {
           return calls++ == 0 ? Refuse() : faults::__real_setresuid(r, e, s);
         };
       }},
      {"uid that is not set",
       [] {
         faults::hooks.setresuid = [](uid_t r, uid_t e, uid_t s) {
           return calls++ == 0 ? 0 : faults::__real_setresuid(r, e, s);
         };
       }},
      {"gid that is not set", [] {
         faults::hooks.setresgid = [](gid_t r, gid_t e, gid_t s) {
           return calls++ == 0 ? 0 : faults::__real_setresgid(r, e, s);
         };
       }}};
  return steps;
}

TEST_F(Credentials, AFailureHalfWayIsTakenBack) {
  for (const Step& step : Steps()) {
    // As root, and as a user who can still go back.
    EXPECT_EQ(StatusOf([&] {
                const gid_t groups[] = {7777, 8888};
                if (setgroups(2, groups) != 0) return false;
                step.fail();
                return ResetCredentialsByName("two", TRUE) == 0 &&
                       VLIBCErrGet() == VEMOERR_NO_PERM && IdsAre(0, 0, 0, 0, 0) &&
                       Groups() == std::vector<gid_t>{7777, 8888};
              }),
              0)
        << step.name;
    EXPECT_EQ(StatusOf([&] {
                if (ResetCredentialsByName("one", TRUE) != 1) return false;
                const auto groups = Groups();
                step.fail();
                return ResetCredentialsByName("two", TRUE) == 0 && IdsAre(7201, 7201, 0, 7200, 0) &&
                       Groups() == groups;
              }),
              0)
        << step.name;
  }
}

TEST_F(Credentials, TheReasonIsKept) {
  InAnother([] {
    faults::hooks.initgroups = [](auto...) { return Refuse(); };
    return ResetCredentialsByName("one", TRUE) == 0 && errno == EAGAIN;
  });
}

TEST_F(Credentials, WhoCannotGoBackEnds) {
  const auto aborted = [](const std::function<void()>& prepare) {
    const int status = StatusOf([&] {
      prepare();
      ResetCredentialsByName("one", FALSE);
      return true;
    });
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
  };
  EXPECT_TRUE(aborted([] { faults::hooks.setresuid = [](auto...) { return Refuse(); }; }));
  EXPECT_TRUE(aborted([] { faults::hooks.setresgid = [](auto...) { return Refuse(); }; }));
  EXPECT_TRUE(aborted([] {
    faults::hooks.initgroups = [](auto...) { return Refuse(); };
    faults::hooks.setgroups = [](auto...) { return Refuse(); };
  }));
  // The switch for good was made, but cannot be verified.
  EXPECT_TRUE(aborted([] {
    faults::hooks.getresuid = [](uid_t* r, uid_t* e, uid_t* s) {
      static int calls = 0;
      return calls++ == 0 ? faults::__real_getresuid(r, e, s) : Refuse();
    };
  }));
}

TEST_F(Credentials, WhoeverIsNotKnownIsLeftAlone) {
  InAnother([] {
    faults::hooks.getresuid = [](auto...) { return Refuse(); };
    return ResetCredentialsByName("one", TRUE) == 0 && VLIBCErrGet() == VEMOERR_INTERNAL &&
           geteuid() == 0;
  });
}

}  // namespace
