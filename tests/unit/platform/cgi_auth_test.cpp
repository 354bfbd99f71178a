// Authorization: who may, from where, with which token.
#include <unistd.h>

#include "cgi_accounts.h"
#include "support/syslog.h"

using namespace accounts;

namespace {

class CgiAuth : public testing::Test {
 protected:
  void SetUp() override {
    Prepare();
    AddUser("mona", "mona-pass");
    Begin();
  }
  void Begin(const char* user = "mona", const char* password = "mona-pass",
             const LoginOptions& options = {}) {
    login_ = LogIn(user, password, options);
    ASSERT_EQ(login_.result, 1) << login_.reason;
    id_ = login_.id;
  }

  Login login_;
  std::string id_;
};

TEST_F(CgiAuth, PrivilegesAreHeld) {
  AddUser("supp", "supp-pass", "-G administrators");
  AddUser("prim", "prim-pass", "-g administrators");
  struct Row {
    const char *user, *password;
    int none, any, admin;
  };
  const Row rows[] = {{"mona", "mona-pass", 1, 1, -2},
                      {"supp", "supp-pass", 1, 1, 1},
                      {"prim", "prim-pass", 1, 1, 1}};
  for (const Row& row : rows) {
    Begin(row.user, row.password);
    std::string user;
    EXPECT_EQ(Ask(id_, {.privilege = VEMOCGI_PRIV_NONE}), row.none) << row.user;
    EXPECT_EQ(Ask(id_, {.privilege = VEMOCGI_PRIV_USER}, &user), row.any) << row.user;
    EXPECT_EQ(user, row.user);
    EXPECT_EQ(Ask(id_, {.privilege = VEMOCGI_PRIV_ADMIN}), row.admin) << row.user;
    // A privilege that is none is nobody's.
    EXPECT_EQ(Ask(id_, {.privilege = 3}), -2) << row.user;
    EXPECT_EQ(Ask(id_, {.privilege = -1}), -2) << row.user;
  }
}

TEST_F(CgiAuth, ADemotedAdministratorIsNoneAtOnce) {
  const Request admin = {.privilege = VEMOCGI_PRIV_ADMIN};
  EXPECT_EQ(Ask(id_, admin), -2);
  Shell("gpasswd -a mona administrators");
  EXPECT_EQ(Ask(id_, admin), 1);
  Shell("gpasswd -d mona administrators");
  EXPECT_EQ(Ask(id_, admin), -2);
  EXPECT_EQ(Ask(id_), 1);
  Shell("gpasswd -a mona administrators && groupdel administrators");
  EXPECT_EQ(Ask(id_, admin), -2);
}

TEST_F(CgiAuth, AnAccountThatIsNotUsableLosesItsSessions) {
  struct Row {
    const char *end, *undo;
  };
  const Row rows[] = {{"usermod -L mona", "usermod -U mona"},
                      {"passwd -l mona", "passwd -u mona"},
                      {"usermod -e 1 mona", "usermod -e '' mona"},
                      {"chage -E 0 mona", "chage -E -1 mona"},
                      {"chage -d 2020-01-01 -M 30 -I 10 mona", "chage -M -1 -I -1 mona"},
                      {"cp -a /etc/passwd /run/kept; userdel mona", "useradd -M mona"}};
  for (const Row& row : rows) {
    Begin();
    EXPECT_EQ(Ask(id_), 1);
    Shell(row.end);
    EXPECT_EQ(Ask(id_), -1) << row.end;
    EXPECT_FALSE(Exists(login_.File())) << row.end;
    Shell(row.undo);
    // It does not come back with the account.
    EXPECT_EQ(Ask(id_), -1) << row.end;
  }
}

TEST_F(CgiAuth, AnAccountThatNeverHadAPasswordIsNotLocked) {
  Shell("useradd -M guest");
  LoginOptions vouched;
  vouched.no_auth = true;
  const std::string id = LogIn("guest", nullptr, vouched).id;
  EXPECT_EQ(Ask(id), 1);
  Shell("chage -E 0 guest");
  EXPECT_EQ(Ask(id), -1);
}

TEST_F(CgiAuth, TheClientsAddressIsCompared) {
  struct Row {
    const char *setting, *login, *request;
    int verdict;
  };
  const Row rows[] = {
      {"", "192.0.2.1", "192.0.2.1", 1},
      {"", "192.0.2.1", "192.0.2.254", 1},
      {"", "192.0.2.1", "192.0.3.1", -8},
      {"", "192.0.2.1", "::ffff:192.0.2.1", 1},
      {"", "192.0.2.1", "", -8},
      {"", "192.0.2.1", "nonsense", -8},
      {"", "192.0.2.1", "2001:db8::1", -8},
      {"", "2001:db8:0:1::1", "2001:db8:0:1::1", 1},
      {"", "2001:db8:0:1::1", "2001:db8:0:1:ffff::2", 1},
      {"", "2001:db8:0:1::1", "2001:db8:0:2::1", -8},
      {"prefix", "192.0.2.1", "192.0.2.9", 1},
      {"exact", "192.0.2.1", "192.0.2.1", 1},
      {"exact", "192.0.2.1", "::ffff:192.0.2.1", 1},
      {"exact", "192.0.2.1", "192.0.2.2", -8},
      {"exact", "2001:db8::1", "2001:db8:0:0:0:0:0:1", 1},
      {"exact", "2001:db8::1", "2001:db8::2", -8},
      {"off", "192.0.2.1", "198.51.100.7", 1},
      {"off", "192.0.2.1", "2001:db8::1", 1},
      // A word that nobody knows is the default.
      {"none", "192.0.2.1", "198.51.100.7", -8},
  };
  for (const Row& row : rows) {
    Configure(*row.setting == '\0' ? std::string()
                                   : "session_address=\"" + std::string(row.setting) + "\"\n");
    Begin("mona", "mona-pass", {.address = row.login});
    EXPECT_EQ(Ask(id_, {.address = row.request}), row.verdict)
        << row.setting << " " << row.login << " " << row.request;
    EXPECT_EQ(Ask(id_, {.skip_check_ip = true, .address = row.request}), 1);
  }
}

TEST_F(CgiAuth, AForwardedAddressCountsFromATrustedProxyOnly) {
  Begin("mona", "mona-pass", {.address = "198.51.100.1"});
  const Request forged = {.address = "192.0.2.1",
                          .more = {{"HTTP_X_FORWARDED_FOR", "198.51.100.1"}}};
  EXPECT_EQ(Ask(id_, forged), -8);
  Configure("trusted_proxies=\"192.0.2.0/30\"\n");
  EXPECT_EQ(Ask(id_, forged), 1);
}

TEST_F(CgiAuth, ANewerLoginReplacesWhereOneSessionIsAllowed) {
  const std::string first = id_;
  AddUser("nora", "nora-pass");
  Begin("nora", "nora-pass");
  const std::string other = id_;
  Begin();
  const std::string second = id_;
  EXPECT_EQ(Ask(first), 1);
  Configure("single_session=\"yes\"\n");
  EXPECT_EQ(Ask(first), -3);
  EXPECT_EQ(Ask(second), 1);
  EXPECT_EQ(Ask(other), 1);
  // Another address is told before.
  EXPECT_EQ(Ask(first, {.address = "198.51.100.1"}), -8);
  // The end of the newer does not bring the older back.
  With(second, [](VEMOCGI* ctx) { VemoCgiLogout(ctx, "mona"); });
  EXPECT_EQ(Ask(first), -1);
  EXPECT_EQ(Ask(other), 1);
}

TEST_F(CgiAuth, ASharingSessionStaysOutOfTheDesktop) {
  struct Row {
    _tag_cgi_position login, request;
    int verdict;
  };
  const Row rows[] = {
      {VEMOCGI_POS_ANY, VEMOCGI_POS_DESKTOP, 1},      {VEMOCGI_POS_DESKTOP, VEMOCGI_POS_DESKTOP, 1},
      {VEMOCGI_POS_SHARING, VEMOCGI_POS_DESKTOP, -5}, {VEMOCGI_POS_SHARING, VEMOCGI_POS_SHARING, 1},
      {VEMOCGI_POS_SHARING, VEMOCGI_POS_ANY, 1},      {VEMOCGI_POS_DESKTOP, VEMOCGI_POS_SHARING, 1},
  };
  for (const Row& row : rows) {
    Begin("mona", "mona-pass", {.position = row.login});
    EXPECT_EQ(Ask(id_, {.position = row.request}), row.verdict) << row.login << row.request;
  }
}

TEST_F(CgiAuth, TheTokenIsAskedOfEveryRequestThatIsNotReading) {
  const std::string good = login_.token, wrong(43, 'x');
  Begin();
  const std::string others = good;  // of another session of the same account
  const std::string token = login_.token;
  const auto request = [](const std::string& method, const std::string& query,
                          const char* header = nullptr, const std::string& body = "",
                          const std::string& type = "application/x-www-form-urlencoded") {
    Request made;
    made.more = {{"REQUEST_METHOD", method}, {"QUERY_STRING", query}};
    if (header != nullptr) made.more["HTTP_X_VEMO_TOKEN"] = header;
    if (!body.empty()) {
      made.more["CONTENT_LENGTH"] = std::to_string(body.size());
      made.more["CONTENT_TYPE"] = type;
    }
    made.body = body;
    return made;
  };
  struct Row {
    Request request;
    int verdict;
  };
  const std::string upper = [&] {
    std::string text = token;
    for (char& c : text)
      c = static_cast<char>(c ^ (isalpha(c) ? 0x20 : 0));
    return text;
  }();
  const Row rows[] = {
      {request("GET", ""), 1},
      {request("HEAD", ""), 1},
      {request("GET", "action=load"), 1},
      {request("GET", "action=list"), 1},
      {request("GET", "action=get"), 1},
      {request("GET", "a=1&action=list&action=apply"), 1},  // the first counts everywhere
      {request("GET", "action=apply&action=list"), -5},
      {request("GET", "action=apply"), -5},
      {request("HEAD", "action=apply"), -5},
      {request("GET", "action="), -5},
      {request("GET", "action=LOAD"), -5},
      {request("GET", "action=load%20"), -5},
      {request("GET", "%61ction=apply"), -5},
      {request("GET", "action=%61pply"), -5},
      {request("GET", "{\"action\":\"apply\"}"), -5},
      {request("GET", " /* */ {\"action\":\"apply\"}"), -5},
      {request("GET", "{\"action\":\"apply\"}", token.c_str()), 1},
      {request("GET", "action=apply", token.c_str()), 1},
      {request("GET", "action=apply&VemoToken=" + token), 1},
      {request("GET", "action=apply&vemotoken=" + token), -5},
      {request("GET", "action=apply&VemoToken=" + wrong), -5},
      {request("GET", "action=apply&VemoToken="), -5},
      {request("GET", "action=apply&VemoToken=" + wrong + "&VemoToken=" + token), -5},
      {request("POST", ""), -5},
      {request("POST", "action=load"), -5},
      {request("POST", "", ""), -5},
      {request("POST", "", wrong.c_str()), -5},
      {request("POST", "", others.c_str()), -5},
      {request("POST", "", id_.c_str()), -5},
      {request("POST", "", upper.c_str()), -5},
      {request("POST", "", (token + "x").c_str()), -5},
      {request("POST", "", token.substr(0, 42).c_str()), -5},
      {request("POST", "", (" " + token).c_str()), -5},
      {request("POST", "", token.c_str()), 1},
      {request("POST", "VemoToken=" + token), 1},
      {request("POST", "VemoToken=" + token, wrong.c_str()), -5},
      {request("POST", "", nullptr, "VemoToken=" + token + "&x=1"), 1},
      {request("POST", "", nullptr, "VemoToken=" + wrong), -5},
      {request("POST", "", nullptr, "action=load", "text/plain"), -5},
      {request("POST", "", nullptr, "{\"action\":\"load\"}", "application/json"), -5},
      {request("POST", "VemoToken=" + token, nullptr, "--b\r\n", "multipart/form-data; boundary=b"),
       1},
      {request("POST", "", nullptr, "--b\r\n", "multipart/form-data; boundary=b"), -5},
      {request("PUT", ""), -5},
      {request("DELETE", ""), -5},
      {request("PATCH", ""), -5},
      {request("OPTIONS", ""), -5},
      {request("get", ""), -5},
      {request("FOO", "", token.c_str()), 1},
  };
  int number = 0;
  for (const Row& row : rows)
    EXPECT_EQ(Ask(id_, row.request), row.verdict) << "row " << number++;

  for (const char* setting : {"yes", "", "0", "false", "nope"}) {
    Configure("enable_token=\"" + std::string(setting) + "\"\n");
    EXPECT_EQ(Ask(id_, request("POST", "")), -5) << setting;
    EXPECT_EQ(With(id_, [](VEMOCGI* ctx) { printf("%d", VemoCgiIsTokenEnable(ctx)); }), "1");
  }
  for (const char* setting : {"no", "NO"}) {
    Configure("enable_token=\"" + std::string(setting) + "\"\n");
    EXPECT_EQ(Ask(id_, request("POST", "action=apply")), 1) << setting;
    EXPECT_EQ(With(id_, [](VEMOCGI* ctx) { printf("%d", VemoCgiIsTokenEnable(ctx)); }), "0");
  }
}

TEST_F(CgiAuth, ASessionWithoutATokenIsNone) {
  std::string record = Read(login_.File());
  record.replace(record.find(login_.token), 43, "");
  Write(login_.File(), record);
  EXPECT_EQ(Ask(id_, {.more = {{"REQUEST_METHOD", "POST"}, {"HTTP_X_VEMO_TOKEN", ""}}}), -1);
}

TEST_F(CgiAuth, TheFirstReasonIsTheOneThatIsTold) {
  const Request everything_wrong = {.privilege = VEMOCGI_PRIV_ADMIN,
                                    .address = "198.51.100.1",
                                    .more = {{"REQUEST_METHOD", "POST"}}};
  EXPECT_EQ(Ask(id_, everything_wrong), -8);
  Request no_privilege = everything_wrong;
  no_privilege.address = "192.0.2.1";
  EXPECT_EQ(Ask(id_, no_privilege), -2);
  Request no_token = no_privilege;
  no_token.privilege = VEMOCGI_PRIV_USER;
  EXPECT_EQ(Ask(id_, no_token), -5);
  Age(login_.File(), 3600);
  EXPECT_EQ(Ask(id_, everything_wrong), -1);
}

TEST_F(CgiAuth, AUserNameIsNeverCut) {
  for (const int size : {0, 1, 4})
    EXPECT_EQ(Ask(id_, {.user_size = size}), 0) << size;
  std::string user;
  EXPECT_EQ(Ask(id_, {.user_size = 5}, &user), 1);
  EXPECT_EQ(user, "mona");
  EXPECT_EQ(With(id_,
                 [](VEMOCGI* ctx) {
                   const _tag_cgi_auth_request request = {1, FALSE};
                   char name[8] = "kept";
                   printf("%d", VemoCgiIsAuthorized(ctx, nullptr, 9, &request, VEMOCGI_POS_ANY));
                   printf("%d", VemoCgiIsAuthorized(ctx, name, 8, nullptr, VEMOCGI_POS_ANY));
                   printf("%d", VemoCgiIsAuthorized(nullptr, name, 8, &request, VEMOCGI_POS_ANY));
                   printf("%s %d", name, VLIBCErrGet());
                 }),
            "000kept " + std::to_string(VEMOERR_BAD_PARAM));
}

TEST_F(CgiAuth, ASessionEndedElsewhereIsOverWithinTheSameRequest) {
  const std::string file = login_.File();
  EXPECT_EQ(With(id_,
                 [&](VEMOCGI* ctx) {
                   const _tag_cgi_auth_request request = {1, FALSE};
                   char name[64];
                   printf("%d", VemoCgiIsAuthorized(ctx, name, 64, &request, VEMOCGI_POS_ANY));
                   unlink(file.c_str());
                   printf("%d", VemoCgiIsAuthorized(ctx, name, 64, &request, VEMOCGI_POS_ANY));
                 }),
            "1-1");
}

TEST_F(CgiAuth, AnswersAboutATokenNeedASession) {
  EXPECT_EQ(With(id_, [](VEMOCGI* ctx) { printf("%s", VemoCgiGetOption(ctx, 2, "none")); }),
            login_.token);
  EXPECT_EQ(With(id_, [](VEMOCGI* ctx) { printf("%s", VemoCgiGetOption(ctx, 1, "none")); }),
            "none");
  EXPECT_EQ(With("x", [](VEMOCGI* ctx) { printf("%s", VemoCgiGetOption(ctx, 2, "none")); }),
            "none");
  // The cookies of another session, read again: its token.
  const std::string first = login_.token, first_id = id_;
  Begin();
  EXPECT_EQ(With(id_,
                 [&](VEMOCGI* ctx) {
                   const char* token = VemoCgiGetOption(ctx, 2, "");
                   setenv("HTTP_COOKIE", ("id=" + first_id).c_str(), 1);
                   VemoCgiLoadInCookies(ctx);
                   printf("%s %s", token, VemoCgiGetOption(ctx, 2, ""));
                 }),
            login_.token + " " + first);
}

TEST_F(CgiAuth, ANameServiceThatFailsIsAFault) {
  Shell("sed -i 's/^\\(passwd\\|shadow\\):.*/\\1: files/' /etc/nsswitch.conf");
  for (const std::string file : {"/etc/passwd", "/etc/shadow"}) {
    Shell("mv " + file + " /run/kept && mkdir " + file);
    EXPECT_EQ(Ask(id_), 0) << file;
    EXPECT_EQ(LogIn("mona", "mona-pass").result, 0) << file;
    Shell("rmdir " + file + " && mv /run/kept " + file);
  }
  EXPECT_EQ(Ask(id_), 1);
  EXPECT_TRUE(Exists(login_.File()));
}

TEST_F(CgiAuth, RefusalsAreLoggedWithoutSecrets) {
  support::Syslog log;
  Ask(id_, {.more = {{"REQUEST_METHOD", "POST"}, {"HTTP_X_VEMO_TOKEN", "guess"}}});
  Ask(id_, {.privilege = VEMOCGI_PRIV_ADMIN});
  Ask(id_, {.address = "198.51.100.1"});
  Ask(std::string(43, 'A'));
  Ask("", {.cookies = "lang=enu"});  // nobody: no attempt
  Ask(id_);
  const auto lines = log.Take();
  const char* const expected[] = {
      "request of user \"mona\" from 192.0.2.1 refused: token missing or wrong",
      "request of user \"mona\" from 192.0.2.1 refused: no privilege",
      "request of user \"mona\" from 198.51.100.1 refused: another client address",
      "request of user \"\" from 192.0.2.1 refused: no such session",
  };
  ASSERT_EQ(lines.size(), std::size(expected));
  for (size_t i = 0; i < lines.size(); i++) {
    EXPECT_EQ(lines[i].text, expected[i]);
    EXPECT_EQ(lines[i].priority, 4 << 3 | 5);  // the security facility, a notice
  }
}

}  // namespace
