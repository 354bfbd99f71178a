// The session store: its files, its limits, and what is no session.
#include <fcntl.h>
#include <json-c/json.h>
#include <json/json.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <set>

#include "cgi_accounts.h"

using namespace accounts;

namespace {

class CgiSession : public testing::Test {
 protected:
  void SetUp() override {
    Prepare();
    AddUser("mona", "mona-pass");
    login_ = LogIn("mona", "mona-pass");
    ASSERT_EQ(login_.result, 1);
  }

  Json::Value Record(const std::string& file) {
    Json::Value record;
    std::ifstream(file) >> record;
    return record;
  }

  Login login_;
};

TEST_F(CgiSession, IsOneFileThatOnlyRootReads) {
  struct stat status;
  ASSERT_EQ(lstat(login_.File().c_str(), &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  EXPECT_EQ(status.st_uid, 0u);
  ASSERT_EQ(lstat("/run/vemo/session", &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700u);
  EXPECT_EQ(login_.id.size(), 43u);
  EXPECT_EQ(login_.token.size(), 43u);
  EXPECT_NE(login_.id, login_.token);

  const Json::Value record = Record(login_.File());
  EXPECT_EQ(record["user"], "mona");
  EXPECT_EQ(record["addr"], "192.0.2.1");
  EXPECT_NEAR(record["created"].asDouble(), static_cast<double>(time(nullptr)), 10);
  EXPECT_EQ(record["position"], 1);
  EXPECT_EQ(record["token"], login_.token);
  EXPECT_EQ(record["auth"], "password");
  EXPECT_EQ(record["remember"], false);
  EXPECT_TRUE(record["agent"].isString());
  EXPECT_EQ(record["sso"], "");
}

TEST_F(CgiSession, LeavesNothingBesideItsFiles) {
  std::set<std::string> ids;
  for (int i = 0; i < 5; i++)
    ids.insert(LogIn("mona", "mona-pass").id);
  EXPECT_EQ(ids.size(), 5u);
  for (const auto& entry : std::filesystem::directory_iterator(kSessions)) {
    const std::string name = entry.path().filename();
    EXPECT_TRUE(ids.count(name) == 1 || name == login_.id) << name;
  }
}

TEST_F(CgiSession, UseIsNotedOnceAMinute) {
  const std::string file = login_.File();
  const auto last_use = [&] {
    struct stat status;
    stat(file.c_str(), &status);
    return time(nullptr) - status.st_mtime;
  };
  Age(file, 40);
  EXPECT_EQ(Ask(login_.id), 1);
  EXPECT_GE(last_use(), 40);
  Age(file, 90);
  EXPECT_EQ(Ask(login_.id, {.passive = true}), 1);
  EXPECT_GE(last_use(), 90);
  EXPECT_EQ(Ask(login_.id), 1);
  EXPECT_LE(last_use(), 5);
  // A minute's limit needs an earlier note.
  Configure("session_timeout=\"1\"\n");
  Age(file, 40);
  EXPECT_EQ(Ask(login_.id), 1);
  EXPECT_LE(last_use(), 5);
}

TEST_F(CgiSession, EndsWhenIdle) {
  struct Row {
    const char* setting;
    long minutes;
  };
  const Row rows[] = {{"", 15},
                      {"session_timeout=\"1\"\n", 1},
                      {"session_timeout=\"30\"\n", 30},
                      {"session_timeout=\"0\"\n", 15},
                      {"session_timeout=\"-5\"\n", 15},
                      {"session_timeout=\"abc\"\n", 15},
                      {"session_timeout=\"\"\n", 15},
                      {"session_timeout=\"5x\"\n", 15},
                      {"session_timeout=\"1440\"\n", 1440},
                      {"session_timeout=\"99999\"\n", 1440},
                      {"session_timeout=\"99999999999999999999\"\n", 1440}};
  for (const Row& row : rows) {
    Configure(row.setting);
    const std::string id = LogIn("mona", "mona-pass").id;
    Age(kSessions + id, row.minutes * 60 - 10);
    EXPECT_EQ(Ask(id, {.passive = true}), 1) << row.setting;
    Age(kSessions + id, row.minutes * 60 + 10);
    EXPECT_EQ(With(id, [](VEMOCGI* ctx) { printf("%s", VemoCgiGetOption(ctx, 2, "none")); }),
              "none");
    EXPECT_EQ(Ask(id), -1) << row.setting;
    EXPECT_FALSE(Exists(kSessions + id)) << row.setting;
  }
}

TEST_F(CgiSession, EndsAfterADayHoweverBusy) {
  for (const long age : {24 * 3600 - 20, 24 * 3600 + 20}) {
    const std::string id = LogIn("mona", "mona-pass").id;
    Json::Value record = Record(kSessions + id);
    record["created"] = static_cast<Json::Int64>(time(nullptr) - age);
    Write(kSessions + id, Json::FastWriter().write(record));
    EXPECT_EQ(Ask(id), age < 24 * 3600 ? 1 : -1) << age;
  }
}

// Run by the next case under another clock.
TEST(CgiSessionProbe, DISABLED_Authorize) { printf("verdict=%d\n", Ask(getenv("PROBE_ID"))); }

TEST_F(CgiSession, EndsAfterADayOfTheClock) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer's library must be the first that is loaded";
#endif
  if (std::system("command -v faketime >/dev/null") != 0) GTEST_SKIP() << "no faketime";
  const std::string self = std::filesystem::read_symlink("/proc/self/exe");
  const auto verdict_at = [&](int hours) {
    const std::string offset = std::to_string(hours);
    Shell("touch -c -d '" + offset + " hours' " + login_.File());
    Shell("NO_FAKE_STAT=1 PROBE_ID=" + login_.id + " faketime -f '+" + offset + "h' " + self +
          " --gtest_also_run_disabled_tests --gtest_filter='CgiSessionProbe.*' >/run/probe; true");
    const std::string output = Read("/run/probe");
    const size_t at = output.find("verdict=");
    return at == std::string::npos ? output : output.substr(at, output.find('\n', at) - at);
  };
  EXPECT_EQ(verdict_at(23), "verdict=1");
  EXPECT_EQ(verdict_at(25), "verdict=-1");
}

TEST_F(CgiSession, WhatIsNoRecordIsNoSession) {
  const std::string good = Read(login_.File());
  ASSERT_EQ(Ask(login_.id), 1);
  Json::Value record = Record(login_.File());
  std::vector<std::string> rows = {
      "",
      " ",
      "{",
      "}",
      "{}",
      "[]",
      "null",
      "1",
      "\"text\"",
      "true",
      "\xff\xfe",
      good + "x",
      good + good,
      good.substr(0, good.size() / 2),
      good.substr(0, good.size() - 1),
      std::string("\0", 1) + good,
      good + std::string("\0", 1),
      std::string(70000, ' ') + good,
      std::string(100000, '['),
      std::string(100000, '{'),
      "{\"user\":" + std::string(30000, '[') + std::string(30000, ']') + "}"};
  const std::vector<Json::Value> kinds = {Json::Value(),
                                          true,
                                          1.5,
                                          Json::arrayValue,
                                          Json::objectValue,
                                          Json::Value(std::string(300, 'a'))};
  for (const auto& member : record.getMemberNames()) {
    if (member == "auth" || member == "remember" || member == "agent" || member == "sso") continue;
    for (Json::Value kind : kinds) {
      Json::Value changed = record;
      changed[member] = kind;
      rows.push_back(Json::FastWriter().write(changed));
    }
    Json::Value changed = record;
    changed.removeMember(member);
    // Without a position or microseconds it is an older record, and good.
    if (member != "position" && member != "created_usec")
      rows.push_back(Json::FastWriter().write(changed));
  }
  for (const char* value :
       {"\"user\":\"\"", "\"user\":\"mona\\u0000x\"", "\"token\":\"\"", "\"created\":-1",
        "\"created\":9223372036854775807", "\"position\":7", "\"position\":-1",
        "\"position\":4294967297", "\"created_usec\":1000000"}) {
    rows.push_back(good.substr(0, good.rfind('}')) + "," + value + "}");
  }
  for (const std::string& row : rows) {
    Write(login_.File(), row);
    EXPECT_EQ(Ask(login_.id), -1) << row.substr(0, 200);
  }
  Write(login_.File(), good);
  EXPECT_EQ(Ask(login_.id), 1);
}

TEST_F(CgiSession, WhatIsNotRootsOwnFileIsNoSession) {
  const std::string file = login_.File(), good = Read(file);
  const char* const rows[] = {"chmod 0640 FILE",
                              "chmod 0604 FILE",
                              "chown mona FILE",
                              "mv FILE /run/elsewhere; ln -s /run/elsewhere FILE",
                              "rm FILE; mkdir FILE",
                              "rm FILE; mkfifo -m 600 FILE",
                              "rm FILE; ln -s FILE FILE",
                              "rm FILE; ln -s /dev/zero FILE",
                              "rm FILE; mknod -m 600 FILE c 1 5"};
  for (const std::string row : rows) {
    std::string line = row;
    for (size_t at; (at = line.find("FILE")) != std::string::npos;)
      line.replace(at, 4, file);
    Shell(line);
    EXPECT_EQ(Ask(login_.id), -1) << row;
    Shell("rm -rf " + file);
    Write(file, good);
    EXPECT_EQ(Ask(login_.id), 1) << row;
  }
  unlink(file.c_str());
  sockaddr_un name = {AF_UNIX, ""};
  snprintf(name.sun_path, sizeof name.sun_path, "%s", file.c_str());
  const int socket_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(socket_fd, reinterpret_cast<sockaddr*>(&name), sizeof name), 0);
  chmod(file.c_str(), 0600);
  EXPECT_EQ(Ask(login_.id), -1);
  close(socket_fd);
}

TEST_F(CgiSession, AnIdOfAnotherFormReachesNoFile) {
  // Well-formed records where a path would lead.
  Write("/run/vemo/planted", Read(login_.File()));
  const std::string record = Read(login_.File());
  Write(std::string(kSessions) + login_.id.substr(1), record);
  Write(kSessions + login_.id + "A", record);
  Write(std::string(kSessions) + "." + login_.id.substr(1), record);
  const std::vector<std::string> rows = {"../planted",
                                         "/run/vemo/planted",
                                         "../../etc/passwd",
                                         ".",
                                         "..",
                                         login_.id.substr(1),
                                         login_.id + "A",
                                         "." + login_.id.substr(1),
                                         "./" + login_.id,
                                         login_.id + "%00",
                                         std::string(43, '.'),
                                         std::string(43, '/'),
                                         std::string(300, 'A'),
                                         std::string(1 << 16, 'A')};
  for (const std::string& row : rows) {
    EXPECT_EQ(Ask(row), -1) << row.substr(0, 60);
    EXPECT_EQ(With(row,
                   [](VEMOCGI* ctx) {
                     char path[256];
                     printf("%d%d", VemoCgiGetSessPath(ctx, path, sizeof path),
                            ctx->session_file == nullptr);
                   }),
              "-11")
        << row.substr(0, 60);
  }
  EXPECT_EQ(Ask("", {.cookies = "lang=enu"}), -5);
  EXPECT_EQ(Ask("", {.cookies = "id="}), -5);
  EXPECT_EQ(Ask(std::string(43, 'A')), -1);
}

TEST_F(CgiSession, AStoreThatCannotBeUsedIsAFault) {
  Shell("rm -rf /run/vemo/session && touch /run/vemo/session");
  EXPECT_EQ(Ask(login_.id), 0);
  const Login login = LogIn("mona", "mona-pass");
  EXPECT_EQ(login.result, 0);
  EXPECT_EQ(login.answer.CountHeader("Set-Cookie"), 0);
  EXPECT_EQ(With(login_.id,
                 [](VEMOCGI* ctx) {
                   printf("%d %d", VemoCgiRemoveSessionByIndex(ctx, CURRENT_USER_BY_NAME, "mona"),
                          VemoCgiRemoveSessionByFunc(
                              ctx, [](json_object*, void*) { return TRUE; }, nullptr));
                 }),
            "0 -1");
  // Removed as a whole, it is made again.
  Shell("rm -rf /run/vemo");
  EXPECT_EQ(Ask(login_.id), -1);
  EXPECT_EQ(LogIn("mona", "mona-pass").result, 1);
}

TEST_F(CgiSession, AFullDiskLeavesNothing) {
  Shell("rm -rf /run/vemo/session && mkdir -m 0700 /run/vemo/session");
  Shell("mount -t tmpfs -o size=4k,mode=0700 tmpfs /run/vemo/session");
  Shell("dd if=/dev/zero of=/run/vemo/session/fill bs=4096 count=1; touch /run/vemo/session/fill");
  EXPECT_EQ(LogIn("mona", "mona-pass").result, 0);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(kSessions),
                          std::filesystem::directory_iterator()),
            1);
}

TEST_F(CgiSession, ThePathIsGivenWhole) {
  const std::string file = login_.File();
  for (const int room : {0, 1, 30, static_cast<int>(file.size())}) {
    EXPECT_EQ(With(login_.id,
                   [&](VEMOCGI* ctx) {
                     char path[256] = "";
                     printf("%d%s", VemoCgiGetSessPath(ctx, path, room), path);
                   }),
              "-1");
  }
  EXPECT_EQ(With(login_.id,
                 [&](VEMOCGI* ctx) {
                   char path[256] = "";
                   printf("%d", VemoCgiGetSessPath(ctx, path, static_cast<int>(file.size()) + 1));
                   printf("%s %s %s", path, ctx->session_file, ctx->lock_file);
                 }),
            "0" + file + " " + file + " " + file + ".lock");
}

TEST_F(CgiSession, AbandonedOnesAreClearedAwayByALogin) {
  const std::string fresh = LogIn("mona", "mona-pass").id;
  Write(std::string(kSessions) + ".#new.left-behind", "half");
  Age(std::string(kSessions) + ".#new.left-behind", 3600);
  Age(login_.File(), 3600);
  LogIn("mona", "mona-pass");
  EXPECT_FALSE(Exists(login_.File()));
  EXPECT_FALSE(Exists(std::string(kSessions) + ".#new.left-behind"));
  EXPECT_TRUE(Exists(kSessions + fresh));
}

TEST_F(CgiSession, ARefreshNeverBringsBackWhatALogoutRemoved) {
  for (int round = 0; round < 20; round++) {
    const std::string id = LogIn("mona", "mona-pass", {.address = "192.0.2.1"}).id;
    Age(kSessions + id, 120);
    const pid_t refresher = fork();
    if (refresher == 0) {
      while (Ask(id) == 1)
        Age(kSessions + id, 120);
      _exit(0);
    }
    usleep(3000);
    With(id, [](VEMOCGI* ctx) { VemoCgiLogout(ctx, ""); });
    kill(refresher, SIGKILL);
    int status;
    waitpid(refresher, &status, 0);
    EXPECT_FALSE(Exists(kSessions + id));
    EXPECT_EQ(Ask(id), -1);
  }
}

TEST_F(CgiSession, AreRemovedByIndex) {
  AddUser("nora", "nora-pass");
  const auto handle_of = [](const std::string& user) {
    return With("", [&](VEMOCGI* ctx) {
      VemoCgiRemoveSessionByFunc(
          ctx,
          [](json_object* record, void* data) -> BOOL {
            if (static_cast<const std::string*>(data)->compare(
                    json_object_get_string(json_object_object_get(record, "user"))) == 0) {
              printf("%s", json_object_get_string(json_object_object_get(record, "handle")));
            }
            return FALSE;
          },
          const_cast<std::string*>(&user));
    });
  };
  struct Row {
    CURRENT_USER_INDEX index;
    std::string name;
    int result;
    const char* left;  // of mona (own), mona2, nora, nora at another address
  };
  const Row rows[] = {{CURRENT_USER_BY_NAME, "nora", 1, "11--"},
                      {CURRENT_USER_BY_NAME, "nobody", 0, "1111"},
                      {CURRENT_USER_BY_NAME, "nor", 0, "1111"},
                      {CURRENT_USER_BY_NAME, "", 0, "1111"},
                      {CURRENT_USER_BY_ADDR, "192.0.2.9", 1, "111-"},
                      {CURRENT_USER_BY_ADDR, "::ffff:192.0.2.9", 1, "111-"},
                      {CURRENT_USER_BY_ADDR, "192.0.2.8", 0, "1111"},
                      {CURRENT_USER_OTHERS, "mona", 1, "1-11"},
                      {CURRENT_USER_OTHERS, "", 1, "1-11"},
                      {CURRENT_USER_OTHERS, "nora", 1, "11--"},
                      {CURRENT_USER_BY_HANDLE, "0123456789abcdef", 0, "1111"}};
  for (const Row& row : rows) {
    Shell("rm -rf /run/vemo/session /run/vemo/login");
    const std::string ids[] = {LogIn("mona", "mona-pass").id, LogIn("mona", "mona-pass").id,
                               LogIn("nora", "nora-pass").id,
                               LogIn("nora", "nora-pass", {.address = "192.0.2.9"}).id};
    EXPECT_EQ(With(ids[0],
                   [&](VEMOCGI* ctx) {
                     printf("%d",
                            VemoCgiRemoveSessionByIndex(ctx, row.index, row.name.c_str()) != 0);
                   }),
              std::to_string(row.result))
        << row.index << row.name;
    std::string left;
    for (const auto& id : ids)
      left += Exists(kSessions + id) ? '1' : '-';
    EXPECT_EQ(left, row.left) << row.index << row.name;
  }
  Shell("rm -rf /run/vemo/session");
  const std::string mona = LogIn("mona", "mona-pass").id, nora = LogIn("nora", "nora-pass").id;
  const std::string handle = handle_of("nora");
  EXPECT_EQ(handle.size(), 16u);
  With(mona, [&](VEMOCGI* ctx) {
    VemoCgiRemoveSessionByIndex(ctx, CURRENT_USER_BY_HANDLE, handle.c_str());
  });
  EXPECT_FALSE(Exists(kSessions + nora));
  EXPECT_TRUE(Exists(kSessions + mona));
}

TEST_F(CgiSession, AreListedAndRemovedByFunction) {
  const std::string other = LogIn("mona", "mona-pass").id;
  Write(std::string(kSessions) + std::string(43, 'c'), "{\"user\":");
  Age(kSessions + other, 200);
  const std::string listing = With(login_.id, [](VEMOCGI* ctx) {
    printf("=%d", VemoCgiRemoveSessionByFunc(
                      ctx,
                      [](json_object* record, void*) -> BOOL {
                        printf("%s\n", json_object_to_json_string(record));
                        return FALSE;
                      },
                      nullptr));
  });
  EXPECT_EQ(listing.substr(listing.size() - 2), "=0");
  EXPECT_EQ(std::count(listing.begin(), listing.end(), '\n'), 2);
  for (const std::string& secret : {login_.id, other, login_.token}) {
    EXPECT_EQ(listing.find(secret), std::string::npos);
  }
  EXPECT_EQ(listing.find("\"token\""), std::string::npos);
  EXPECT_NE(listing.find("\"agent\""), std::string::npos);
  EXPECT_NE(listing.find("\"user\": \"mona\""), std::string::npos) << listing;

  // Those not used for 100 seconds.
  EXPECT_EQ(With(login_.id,
                 [](VEMOCGI* ctx) {
                   printf("%d", VemoCgiRemoveSessionByFunc(
                                    ctx,
                                    [](json_object* record, void*) -> BOOL {
                                      return time(nullptr) -
                                                 json_object_get_int64(
                                                     json_object_object_get(record, "last_use")) >
                                             100;
                                    },
                                    nullptr));
                 }),
            "1");
  EXPECT_FALSE(Exists(kSessions + other));
  EXPECT_EQ(Ask(login_.id), 1);
  EXPECT_EQ(
      With(login_.id,
           [](VEMOCGI* ctx) { printf("%d", VemoCgiRemoveSessionByFunc(ctx, nullptr, nullptr)); }),
      "-1");
}

}  // namespace
