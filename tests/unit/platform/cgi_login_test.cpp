// Logins and logout with real accounts.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "cgi_accounts.h"
#include "support/syslog.h"

using namespace accounts;

namespace {

class CgiLogin : public testing::Test {
 protected:
  void SetUp() override {
    Prepare();
    AddUser("mona", "mona-pass");
  }
  static void Forget() { Shell("rm -rf /run/vemo/login"); }
};

const char kWrong[] = "The user name or the password is wrong.";

TEST_F(CgiLogin, TellsWhatIsWrongOnlyToTheOwner) {
  AddUser("lock", "lock-pass");
  AddUser("expi", "expi-pass");
  AddUser("must", "must-pass");
  AddUser("both", "both-pass");
  Shell("usermod -L lock; usermod -e 1 expi; chage -d 0 must; usermod -L -e 1 both");
  Shell("useradd -M bare; useradd -M none; passwd -d none; useradd -M star; usermod -p '*' star");
  struct Row {
    const char *user, *password;
    int result;
  };
  const Row rows[] = {
      {"mona", "mona-pass", 1},    {"mona", "mona-pas", -1},
      {"mona", "mona-pass ", -1},  {"mona", " mona-pass", -1},
      {"mona", "MONA-PASS", -1},   {"mona", "", -1},
      {"mona", nullptr, -1},       {"", "mona-pass", -1},
      {nullptr, "mona-pass", -1},  {"MONA", "mona-pass", -1},
      {"mona ", "mona-pass", -1},  {"nobody-here", "mona-pass", -1},
      {"lock", "lock-pass", -2},   {"lock", "wrong", -1},
      {"lock", "!", -1},           {"expi", "expi-pass", -2},
      {"expi", "wrong", -1},       {"must", "must-pass", -2},
      {"must", "wrong", -1},       {"both", "both-pass", -2},
      {"both", "wrong", -1},       {"bare", "", -1},
      {"bare", "!", -1},           {"none", "", -1},
      {"none", "x", -1},           {"star", "*", -1},
      {"daemon", "*", -1},         {"../mona", "mona-pass", -1},
      {"mona\n", "mona-pass", -1}, {"%n%s", "%n%s", -1},
      {"mona:x", "mona-pass", -1},
  };
  for (const Row& row : rows) {
    Forget();
    const Login login = LogIn(row.user, row.password);
    EXPECT_EQ(login.result, row.result) << (row.user ? row.user : "") << " " << login.reason;
    EXPECT_EQ(login.user, row.result == 1 ? row.user : "");
    EXPECT_EQ(login.answer.CountHeader("Set-Cookie"), row.result == 1);
    EXPECT_EQ(login.reason, row.result == 1    ? ""
                            : row.result == -1 ? kWrong
                                               : "The account is disabled or has expired.");
    EXPECT_EQ(login.answer.exit_status, 0);
  }
}

TEST_F(CgiLogin, TakesPasswordsExactlyAsTheyAre) {
  const std::string rows[] = {"  blanks  ",         "gr\xc3\xbc\xc3\x9f \xe6\x97\xa5",
                              "\xff\xfe",           "\"'$(id);%n",
                              std::string(64, 'a'), std::string(128, 'b')};
  for (const std::string& password : rows) {
    Forget();
    Write("/run/password", "mona:" + password + "\n");
    Shell("chpasswd < /run/password");
    EXPECT_EQ(LogIn("mona", password.c_str()).result, 1) << password;
    EXPECT_EQ(LogIn("mona", (password + "x").c_str()).result, -1) << password;
    EXPECT_EQ(LogIn("mona", password.substr(0, password.size() - 1).c_str()).result, -1);
  }
  const std::string longest(511, 'c');
  Write("/run/password", longest + "\n");
  Shell("usermod -p \"$(openssl passwd -6 -stdin < /run/password)\" mona");
  Forget();
  EXPECT_EQ(LogIn("mona", std::string(512, 'c').c_str()).result, -1);
  EXPECT_EQ(LogIn("mona", std::string(1 << 20, 'c').c_str()).result, -1);
}

TEST_F(CgiLogin, RefusesNamesThatAreTooLong) {
  for (const size_t size : {32ul, 255ul, 256ul, 493ul, 1ul << 20}) {
    const Login login = LogIn(std::string(size, 'n').c_str(), "mona-pass");
    EXPECT_EQ(login.result, -1) << size;
    EXPECT_EQ(login.reason, kWrong);
    EXPECT_EQ(login.answer.exit_status, 0);
  }
}

TEST_F(CgiLogin, AnUnknownUserTakesAsLongAsAWrongPassword) {
  AddUser("lock", "lock-pass");
  Shell("usermod -L lock; useradd -M bare");
  // The processor's time: what else the machine does must not count.
  const auto used = [] {
    rusage usage;
    getrusage(RUSAGE_CHILDREN, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  };
  const auto shortest = [&](const char* user) {
    double least = 1e9;
    for (int i = 0; i < 7; i++) {
      Forget();
      const double before = used();
      EXPECT_EQ(LogIn(user, "wrong").result, -1);
      least = std::min(least, used() - before);
    }
    return least;
  };
  const double known = shortest("mona");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(LogIn("mona", "wrong").result, -1);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500))
      << "a delay of PAM's holds the process";
  for (const char* user : {"nobody-here", "lock", "bare", "daemon"}) {
    const double other = shortest(user);
    EXPECT_GT(other, known / 2) << user;
    EXPECT_LT(other, known * 2) << user;
  }
}

TEST_F(CgiLogin, TheRestOfTheRequestBelongsToTheNewSession) {
  const Login first = LogIn("mona", "mona-pass");
  const Login second =
      LogIn("mona", "mona-pass", {.cookies = "lang=ger; id=" + first.id + "; x=\"1\""});
  ASSERT_EQ(second.result, 1);
  EXPECT_NE(second.id, first.id);
  EXPECT_NE(second.token, first.token);
  EXPECT_EQ(second.cookies, "id=" + second.id + "; lang=ger; x=\"1\"");
  EXPECT_EQ(second.answer.Header("Set-Cookie"),
            "id=" + second.id + "; Path=/; HttpOnly; SameSite=Lax");
  // The browser's old session is over, others' are not.
  EXPECT_EQ(Ask(first.id), -1);
  EXPECT_EQ(Ask(second.id), 1);
  const Login other = LogIn("mona", "mona-pass");
  EXPECT_EQ(Ask(second.id), 1);
  EXPECT_EQ(Ask(other.id), 1);
  // A login that fails leaves everything as it was.
  const Login failed = LogIn("mona", "wrong", {.cookies = "id=" + second.id});
  EXPECT_EQ(failed.cookies, "id=" + second.id);
  EXPECT_EQ(failed.token, second.token);
  EXPECT_EQ(Ask(second.id), 1);
}

TEST_F(CgiLogin, APlantedIdIsNeverTaken) {
  const std::string planted(43, 'P');
  const Login login = LogIn("mona", "mona-pass", {.cookies = "id=" + planted});
  EXPECT_NE(login.id, planted);
  EXPECT_EQ(Ask(planted), -1);
  const std::string victim = "/run/vemo/victim";
  Write(victim, "kept");
  EXPECT_EQ(LogIn("mona", "mona-pass", {.cookies = "id=../victim"}).result, 1);
  EXPECT_TRUE(Exists(victim));
}

TEST_F(CgiLogin, TheCookieFitsTheConnection) {
  EXPECT_NE(LogIn("mona", "mona-pass", {.more = {{"HTTPS", "on"}}})
                .answer.Header("Set-Cookie")
                .find("; Secure"),
            std::string::npos);
  const std::string kept =
      LogIn("mona", "mona-pass", {.remember = true}).answer.Header("Set-Cookie");
  EXPECT_NE(kept.find("; Expires="), std::string::npos) << kept;
  EXPECT_EQ(kept.find("Domain"), std::string::npos) << kept;
}

TEST_F(CgiLogin, TheReasonFitsItsBuffer) {
  for (const int size : {0, 1, 5, 40, 122}) {
    const Login login = LogIn("mona", "wrong", {.code = "", .reason_size = size});
    EXPECT_EQ(login.reason, size == 0 ? "untouched" : std::string(kWrong).substr(0, size - 1));
  }
}

TEST_F(CgiLogin, TenFailuresMakeWait) {
  for (int i = 0; i < 10; i++)
    EXPECT_EQ(LogIn("mona", "wrong").result, -1) << i;
  const Login refused = LogIn("mona", "mona-pass");
  EXPECT_EQ(refused.result, -5);
  EXPECT_EQ(refused.reason, "Too many failures: wait five minutes.");
  // The address is refused for every account; another address is not.
  AddUser("nora", "nora-pass");
  EXPECT_EQ(LogIn("nora", "nora-pass").result, -5);
  EXPECT_EQ(LogIn("nobody-here", "x").result, -5);
  EXPECT_EQ(LogIn("mona", "mona-pass", {.address = "192.0.2.2"}).result, 1);
  EXPECT_EQ(LogIn("mona", "mona-pass").result, -5);
  // What is refused for its number makes no new files.
  const auto count = [] {
    return std::distance(std::filesystem::directory_iterator("/run/vemo/login"),
                         std::filesystem::directory_iterator());
  };
  const auto before = count();
  for (int i = 0; i < 5; i++)
    LogIn(("guess" + std::to_string(i)).c_str(), "x");
  EXPECT_EQ(count(), before);
}

// Moves what the counters remember into the past.
void AgeCounters(long seconds) {
  for (const auto& entry : std::filesystem::directory_iterator("/run/vemo/login")) {
    std::istringstream words(Read(entry.path()));
    std::string aged;
    words >> aged;
    for (long long moment; words >> moment;)
      aged += " " + std::to_string(moment - seconds);
    Write(entry.path(), aged);
  }
}

TEST_F(CgiLogin, TheWaitEnds) {
  for (int i = 0; i < 10; i++)
    LogIn("mona", "wrong");
  AgeCounters(290);
  EXPECT_EQ(LogIn("mona", "mona-pass").result, -5);
  AgeCounters(11);
  EXPECT_EQ(LogIn("mona", "wrong").result, -1);
  EXPECT_EQ(LogIn("mona", "mona-pass").result, 1);
}

TEST_F(CgiLogin, FailuresFarApartMakeNobodyWait) {
  for (int round = 0; round < 4; round++) {
    for (int i = 0; i < 5; i++)
      EXPECT_EQ(LogIn("mona", "wrong").result, -1);
    AgeCounters(310);
  }
  // Nine, and the tenth while the first is not five minutes old.
  for (int i = 0; i < 9; i++)
    EXPECT_EQ(LogIn("mona", "wrong").result, -1);
  AgeCounters(280);
  EXPECT_EQ(LogIn("mona", "wrong").result, -1);
  EXPECT_EQ(LogIn("mona", "mona-pass").result, -5);
}

TEST_F(CgiLogin, NobodyCanLockTheOwnerOut) {
  EXPECT_EQ(LogIn("mona", "mona-pass").result, 1);
  for (int i = 0; i < 12; i++)
    LogIn(("stranger" + std::to_string(i)).c_str(), "x");
  EXPECT_EQ(LogIn("stranger", "x").result, -5);
  // The address is known for this account: it keeps its own count.
  EXPECT_EQ(LogIn("mona", "mona-pass").result, 1);
  for (int i = 0; i < 10; i++)
    EXPECT_EQ(LogIn("mona", "wrong").result, -1);
  EXPECT_EQ(LogIn("mona", "mona-pass").result, -5);
}

TEST_F(CgiLogin, AnIpv6NetworkIsOneAddress) {
  for (int i = 0; i < 10; i++) {
    LogIn("mona", "wrong", {.address = "2001:db8:0:1::" + std::to_string(i + 1)});
  }
  EXPECT_EQ(LogIn("mona", "mona-pass", {.address = "2001:db8:0:1::ffff"}).result, -5);
  EXPECT_EQ(LogIn("mona", "mona-pass", {.address = "2001:db8:0:2::1"}).result, 1);
}

TEST_F(CgiLogin, GuessesSentAtOnceAreCountedToo) {
  std::vector<pid_t> guessers;
  for (int i = 0; i < 24; i++) {
    const pid_t child = fork();
    if (child == 0) _exit(LogIn("mona", "wrong").result == -1 ? 1 : 0);
    guessers.push_back(child);
  }
  int tried = 0;
  for (const pid_t child : guessers) {
    int status = 0;
    waitpid(child, &status, 0);
    tried += WEXITSTATUS(status);
  }
  EXPECT_EQ(tried, 10);
}

TEST_F(CgiLogin, CountersThatCannotBeUsedLetNobodyIn) {
  Shell("rm -rf /run/vemo/login; mkdir -p /run/vemo; touch /run/vemo/login");
  EXPECT_EQ(LogIn("mona", "mona-pass").result, 0);
  Shell("rm /run/vemo/login");
  EXPECT_EQ(LogIn("mona", "mona-pass").result, 1);
  // Nonsense in a counter is an empty one.
  for (const auto& entry : std::filesystem::directory_iterator("/run/vemo/login")) {
    Write(entry.path(), std::string(4000, '['));
  }
  EXPECT_EQ(LogIn("mona", "mona-pass").result, 1);
}

std::string Code(const std::string& secret) {
  Shell("oathtool --totp -b " + secret + " > /run/code");
  return Read("/run/code").substr(0, 6);
}

TEST_F(CgiLogin, ASecondFactorIsAskedForAndSpent) {
  const std::string secret = "JBSWY3DPEHPK3PXPJBSWY3DPEHPK3PXP";
  EXPECT_EQ(LogIn("mona", "mona-pass", {.code = "123456"}).result, -4);  // there is none
  EXPECT_EQ(LogIn("mona", "mona-pass", {.code = ""}).result, 1);
  Write("/usr/vemo/etc/otp/mona", "secret=\"" + secret + "\"\n");
  Shell("chmod 0700 /usr/vemo/etc/otp");
  EXPECT_EQ(LogIn("mona", "wrong").result, -1);
  EXPECT_EQ(LogIn("mona", "wrong", {.code = Code(secret).c_str()}).result, -1);
  const Login asked = LogIn("mona", "mona-pass");
  EXPECT_EQ(asked.result, -3);
  EXPECT_EQ(asked.reason, "A one-time code is needed.");
  EXPECT_EQ(asked.answer.CountHeader("Set-Cookie"), 0);
  EXPECT_EQ(LogIn("mona", "mona-pass", {.code = ""}).result, -3);
  EXPECT_EQ(LogIn("mona", "mona-pass", {.code = "000000x"}).result, -4);
  const std::string code = Code(secret);
  const Login good = LogIn("mona", "mona-pass", {.code = code.c_str()});
  EXPECT_EQ(good.result, 1) << good.reason;
  EXPECT_EQ(Ask(good.id), 1);
  EXPECT_EQ(LogIn("mona", "mona-pass", {.code = code.c_str()}).result, -4);
}

TEST_F(CgiLogin, CodesAreGuessedTenTimesOnly) {
  Write("/usr/vemo/etc/otp/mona", "secret=\"JBSWY3DPEHPK3PXPJBSWY3DPEHPK3PXP\"\n");
  for (int i = 0; i < 10; i++) {
    EXPECT_EQ(LogIn("mona", "mona-pass").result, -3);  // the right password is no failure
    EXPECT_EQ(LogIn("mona", "mona-pass", {.code = "badcod"}).result, -4);
  }
  EXPECT_EQ(LogIn("mona", "mona-pass", {.code = "badcod"}).result, -5);
}

TEST_F(CgiLogin, ATokenThatIsNoneOpensNothing) {
  const auto by_token = [](bool azure) {
    return With("", [&](VEMOCGI* ctx) {
      char reason[122] = "";
      _tag_login_params params = {};
      const int result =
          azure ? VemoCgiLoginWithAzureSSOAuth(ctx, reason, 122, &params, "a.b.c", FALSE, 0)
                : VemoCgiLoginWithOIDCSSOAuth(ctx, reason, 122, &params, "a.b.c", FALSE, 0);
      printf("%d", result);
    });
  };
  EXPECT_EQ(by_token(false), "0");  // no configuration
  EXPECT_EQ(by_token(true), "0");
}

TEST_F(CgiLogin, PamThatFailsIsAFaultAndNoFailure) {
  Write("/etc/pam.d/vemo", "auth required pam_absent.so\naccount required pam_permit.so\n", 0644);
  for (int i = 0; i < 12; i++)
    EXPECT_EQ(LogIn("mona", "mona-pass").result, 0) << i;
  Write("/etc/pam.d/vemo", "auth required pam_permit.so\naccount required pam_deny.so\n", 0644);
  EXPECT_EQ(LogIn("mona", "mona-pass").result, -2);
  // Whom PAM lets in, but the name service does not know, has no account here.
  Write("/etc/pam.d/vemo", "auth required pam_permit.so\naccount required pam_permit.so\n", 0644);
  EXPECT_EQ(LogIn("nobody-here", "x").result, -2);
}

TEST_F(CgiLogin, AProgramOfRootsMayVouch) {
  LoginOptions vouched;
  vouched.no_auth = true;
  AddUser("lock", "lock-pass");
  Shell("usermod -L lock; useradd -M bare");
  EXPECT_EQ(LogIn("mona", nullptr, vouched).result, 1);
  EXPECT_EQ(LogIn("bare", nullptr, vouched).result, 1);
  EXPECT_EQ(LogIn("lock", nullptr, vouched).result, -2);
  EXPECT_EQ(LogIn("nobody-here", nullptr, vouched).result, -1);
  EXPECT_EQ(LogIn(nullptr, nullptr, vouched).result, -1);
  const Login login = LogIn("mona", nullptr, vouched);
  EXPECT_NE(Read(login.File()).find("\"noauth\""), std::string::npos);
  EXPECT_EQ(With("",
                 [](VEMOCGI* ctx) {
                   _tag_login_params params = {};
                   params.user = "mona";
                   if (setresuid(65534, 65534, 65534) != 0) return;
                   printf("%d", VemoCgiLoginNoAuth(ctx, nullptr, 0, &params));
                 }),
            "0");
}

TEST_F(CgiLogin, APasswordIsTestedWithoutALogin) {
  const auto test = [](const char* user, const char* password, const char* code) {
    return std::atoi(support::RunRequest({{"REMOTE_ADDR", "::ffff:192.0.2.1"}}, "", [&] {
                       _tag_login_params params = {};
                       params.user = user;
                       params.password = password;
                       const int result = VemoCgiTestLogin(&params, code);
                       printf("%d", params.user == user ? result : -99);
                     }).output.c_str());
  };
  EXPECT_EQ(test("mona", "mona-pass", nullptr), 1);
  EXPECT_EQ(test("mona", "mona-pass", "123456"), -4);
  EXPECT_FALSE(Exists("/run/vemo/session"));
  Forget();
  for (int i = 0; i < 10; i++)
    EXPECT_EQ(test("mona", "wrong", nullptr), -1);
  EXPECT_EQ(test("mona", "mona-pass", nullptr), -5);
  EXPECT_EQ(LogIn("mona", "mona-pass").result, -5);  // the same counters
  EXPECT_EQ(VemoCgiTestLogin(nullptr, nullptr), 0);
}

TEST_F(CgiLogin, LogoutEndsTheSessionEverywhere) {
  struct Row {
    const char* user;
    int result;
  };
  for (const Row& row : {Row{"mona", 1}, Row{"", 1}, Row{nullptr, 1}, Row{"nora", 0}}) {
    const Login login = LogIn("mona", "mona-pass");
    const std::string output = With(login.id, [&](VEMOCGI* ctx) {
      const int result = VemoCgiLogout(ctx, row.user);
      VemoCgiPrintHTTPHeader(ctx);
      printf("%d|%s|%s|%s|%d", result, getenv("HTTP_COOKIE"), VemoCgiGetInCookies(ctx, "id", ""),
             VemoCgiGetOption(ctx, 2, ""), ctx->session_file == nullptr);
    });
    EXPECT_EQ(Exists(login.File()), row.result == 0);
    EXPECT_EQ(Ask(login.id), row.result == 1 ? -1 : 1);
    if (row.result == 1) {
      EXPECT_EQ(output,
                "Set-Cookie: id=; Path=/; Expires=Thu, 01 Jan 1970 00:00:01 GMT; HttpOnly; "
                "SameSite=Lax\r\n\r\n1|lang=enu|||1");
    } else {
      EXPECT_EQ(output,
                "\r\n0|lang=enu; id=" + login.id + "|" + login.id + "|" + login.token + "|0");
    }
  }
  // Without a session the client forgets its id all the same.
  EXPECT_EQ(With(std::string(43, 'A'),
                 [](VEMOCGI* ctx) {
                   printf("%d|", VemoCgiLogout(ctx, ""));
                   VemoCgiPrintHTTPHeader(ctx);
                 })
                .substr(0, 17),
            "0|Set-Cookie: id=");
  EXPECT_EQ(With("", [](VEMOCGI* ctx) { printf("%d", VemoCgiLogout(ctx, "")); }), "0");
}

TEST_F(CgiLogin, MissingArgumentsAreFaults) {
  EXPECT_EQ(With("",
                 [](VEMOCGI* ctx) {
                   _tag_login_params params = {};
                   const std::string endless(64, '1');
                   params.address = endless.c_str();
                   printf("%d", VemoCgiLogin(ctx, nullptr, 0, nullptr));
                   printf("%d", VemoCgiLogin(nullptr, nullptr, 0, &params));
                   printf("%d", VemoCgiLogin(ctx, nullptr, 0, &params));
                   printf("%d", VemoCgiLoginNoAuth(ctx, nullptr, 0, nullptr));
                   printf("%d", VemoCgiLogout(nullptr, ""));
                   printf(" %d", VLIBCErrGet());
                 }),
            "00000 " + std::to_string(VEMOERR_BAD_PARAM));
}

TEST_F(CgiLogin, IsLoggedOnOneLineWithoutSecrets) {
  support::Syslog log;
  const Login good = LogIn("mona", "mona-pass");
  LogIn("mona", "the-wrong-secret");
  LogIn("eve\n\x1b[31m\"\\\xc2\x9b%n", "the-wrong-secret");
  LogIn(std::string(1 << 20, 'n').c_str(), "the-wrong-secret");
  std::vector<support::LogLine> ours;
  for (const auto& line : log.Take()) {
    for (const char* secret :
         {"mona-pass", "the-wrong-secret", good.id.c_str(), good.token.c_str()})
      EXPECT_EQ(line.text.find(secret), std::string::npos) << line.text;
    if (line.text.rfind("login of", 0) == 0) ours.push_back(line);
  }
  ASSERT_EQ(ours.size(), 4u);
  EXPECT_EQ(ours[0].text, "login of user \"mona\" from 192.0.2.1 by password: accepted");
  EXPECT_EQ(ours[0].priority, 4 << 3 | 6);
  EXPECT_EQ(ours[1].text,
            std::string("login of user \"mona\" from 192.0.2.1 by password: ") + kWrong);
  EXPECT_EQ(ours[1].priority, 4 << 3 | 4);
  EXPECT_EQ(ours[2].text.rfind("login of user \"eve\\x0a\\x1b[31m\\x22\\x5c\\xc2\\x9b%n\" from", 0),
            0u)
      << ours[2].text;
  EXPECT_LT(ours[3].text.size(), 200u);
  EXPECT_NE(ours[3].text.find("nnn...\" from"), std::string::npos) << ours[3].text;
}

}  // namespace
