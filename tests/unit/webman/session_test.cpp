// The request object's login, session and authorization: what is passed to the
// platform, what is recorded, and how a refusal is answered.
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <sys/stat.h>
#include <webman/webman.h>

#include <cstdio>
#include <fstream>

#include "faults/faults.h"
#include "support/request.h"
#include "support/syslog.h"

namespace {

using faults::hooks;
using support::Answer;
using support::Environment;
using support::Get;
using support::RunRequest;

Answer Serve(const Environment& environment, const std::function<void(WebMan&)>& program) {
  return RunRequest(environment, "", [&] {
    WebMan request(true);
    program(request);
  });
}

std::string Refusal(const char* section, const char* key) {
  return std::string("{\n   \"errno\" : {\n      \"key\" : \"") + key +
         "\",\n      \"section\" : \"" + section +
         "\"\n   },\n   \"items\" : [],\n   \"success\" : false,\n   \"total\" : 0\n}\n";
}

struct RefusalRow {
  int code;
  const char* reason;
  const char* section;
  const char* key;
};

TEST(Authorization, EveryRefusalHasItsReasonSectionAndKey) {
  const RefusalRow rows[] = {
      {-1, "timeout", "login", "error_timeout"},
      {-2, "noprivilege", "login", "error_noprivilege"},
      {-3, "relogin", "login", "error_interrupt"},
      {-5, "unauth", "login", "error_noprivilege"},
      {-8, "errorip", "login", "error_noprivilege"},
      {0, "system", "common", "error_system"},
      {-4, "system", "common", "error_system"},
      {-6, "system", "common", "error_system"},
      {-7, "system", "common", "error_system"},
      {-9, "system", "common", "error_system"},
      {-100, "system", "common", "error_system"},
  };
  for (const RefusalRow& row : rows) {
    const Answer answer = Serve(Get(""), [&](WebMan& request) {
      hooks.VemoCgiIsAuthorized = [&](auto...) { return row.code; };
      EXPECT_FALSE(request.IsAuthorized(nullptr, 1, VEMOCGI_POS_DESKTOP));
    });
    EXPECT_EQ(answer.head, std::string("x-request-error: ") + row.reason +
                               "\r\nContent-type: text/plain; charset=\"UTF-8\"\r\n")
        << row.code;
    EXPECT_EQ(answer.body, Refusal(row.section, row.key)) << row.code;
  }
}

TEST(Authorization, SuccessPrintsNothing) {
  for (const int code : {1, 2, 100}) {
    const Answer answer = Serve(Get(""), [&](WebMan& request) {
      hooks.VemoCgiIsAuthorized = [&](auto...) { return code; };
      if (!request.IsAuthorized("/login", 1, VEMOCGI_POS_DESKTOP)) _exit(1);
    });
    EXPECT_EQ(answer.exit_status, 0);
    EXPECT_EQ(answer.output, "");
  }
}

TEST(Authorization, ARefusalMayRedirect) {
  const Answer answer = Serve(Get(""), [](WebMan& request) {
    hooks.VemoCgiIsAuthorized = [](auto...) { return -5; };
    if (request.IsAuthorized("/login", 1, VEMOCGI_POS_DESKTOP)) _exit(1);
  });
  EXPECT_EQ(answer.output, "Status: 302 Found\r\nLocation: /login\r\n\r\n");
}

TEST(Authorization, ARefusedUploadIsAnsweredAsHtmlWithTheSameBody) {
  Environment environment = support::Post("");
  environment["CONTENT_TYPE"] = "multipart/form-data; boundary=b";
  const Answer answer = Serve(environment, [](WebMan& request) {
    request.SetDefaultContentType("application/json");
    request.IsAuthorized(nullptr, 1, VEMOCGI_POS_DESKTOP);
  });
  EXPECT_EQ(answer.Header("Content-type"), "text/html; charset=\"UTF-8\"");
  EXPECT_EQ(answer.body, Refusal("login", "error_noprivilege"));
}

TEST(Authorization, ARefusalHasTheDefaultContentType) {
  const Answer answer = Serve(Get(""), [](WebMan& request) {
    request.SetDefaultContentType("application/json");
    request.IsAuthorized(nullptr, 1, VEMOCGI_POS_DESKTOP);
  });
  EXPECT_EQ(answer.Header("Content-type"), "application/json");
}

TEST(Authorization, ThePlatformIsAskedWithWhatTheProgramSays) {
  Serve(Get(""), [](WebMan& request) {
    hooks.VemoCgiIsAuthorized = [](VEMOCGI*, char* user, int size,
                                   const _tag_cgi_auth_request* asked, _tag_cgi_position position) {
      EXPECT_EQ(size, 493);
      EXPECT_EQ(std::string(user, 493), std::string(493, '\0'));
      EXPECT_EQ(asked->privilege, 2);
      EXPECT_EQ(asked->passive, TRUE);
      EXPECT_EQ(position, VEMOCGI_POS_SHARING);
      std::snprintf(user, 493, "somebody");
      return 7;
    };
    EXPECT_EQ(request.CheckAuthorized(2, VEMOCGI_POS_SHARING, true), 7);
    EXPECT_EQ(request.GetLoginUserName(), "somebody");
    hooks.VemoCgiIsAuthorized = [](auto...) { return -1; };
    EXPECT_EQ(request.CheckAuthorized(1, VEMOCGI_POS_ANY, false), -1);
    EXPECT_EQ(request.GetLoginUserName(), "");  // emptied before each check
  });
}

TEST(Authorization, ItIsNoPollAndGoesOnAsTheProgramSays) {
  Serve(Get(""), [](WebMan& request) {
    hooks.VemoCgiIsAuthorized = [](VEMOCGI*, char*, int, const _tag_cgi_auth_request* asked,
                                   _tag_cgi_position position) {
      EXPECT_EQ(asked->privilege, 2);
      EXPECT_EQ(asked->passive, FALSE);
      EXPECT_EQ(position, VEMOCGI_POS_SHARING);
      return 1;
    };
    EXPECT_TRUE(request.IsAuthorized(nullptr, 2, VEMOCGI_POS_SHARING));
  });
}

TEST(Authorization, NothingIsLeftOfTheUserBefore) {
  Serve(Get(""), [](WebMan& request) {
    hooks.VemoCgiIsAuthorized = [](VEMOCGI*, char* user, int size, auto...) {
      EXPECT_EQ(std::string(user, 493), std::string(493, '\0'));
      std::snprintf(user, static_cast<size_t>(size), "%s", std::string(500, 'u').c_str());
      return 1;
    };
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(request.CheckAuthorized(1, VEMOCGI_POS_ANY, false), 1);
      EXPECT_EQ(request.GetLoginUserName(), std::string(492, 'u'));
    }
  });
}

TEST(Authorization, ASessionIdInAParameterReplacesTheCookies) {
  Environment environment = Get("_sid=abc");
  environment["HTTP_COOKIE"] = "id=old; lang=ger";
  const Answer answer = Serve(environment, [](WebMan& request) {
    request.CheckAuthorized(1, VEMOCGI_POS_DESKTOP, false);
    std::printf("%s|%s|%s", getenv("HTTP_COOKIE"), request.GetSessionID(),
                request.GetCookie("lang", "-"));
  });
  EXPECT_EQ(answer.output, "id=abc|abc|-");
}

TEST(Authorization, AnEmptySessionIdParameterChangesNothing) {
  Environment environment = Get("_sid=");
  environment["HTTP_COOKIE"] = "id=old; lang=ger";
  const Answer answer = Serve(environment, [](WebMan& request) {
    request.CheckAuthorized(1, VEMOCGI_POS_DESKTOP, false);
    std::printf("%s", getenv("HTTP_COOKIE"));
  });
  EXPECT_EQ(answer.output, "id=old; lang=ger");
}

TEST(Authorization, ALongSessionIdIsCutAt121Bytes) {
  for (const size_t size : {121u, 122u, 1000u}) {
    const Answer answer = Serve(Get("_sid=" + std::string(size, 'x')), [](WebMan& request) {
      request.CheckAuthorized(1, VEMOCGI_POS_DESKTOP, false);
      std::printf("%s", getenv("HTTP_COOKIE"));
    });
    EXPECT_EQ(answer.output, "id=" + std::string(121, 'x')) << size;
  }
}

TEST(Authorization, TheSessionIdIsSeenBeforeParametersAreLoaded) {
  const Answer answer = RunRequest(Get("_sid=abc"), "", [] {
    WebMan request(false);
    request.CheckAuthorized(1, VEMOCGI_POS_DESKTOP, false);
    std::printf("%s", getenv("HTTP_COOKIE"));
  });
  EXPECT_EQ(answer.output, "id=abc");
}

// Logins.

struct LoginArguments {
  int size;
  const char* text;
  int flag;
  int reserved;
};

TEST(Login, EachKindPassesItsArgumentsAndTheReasonBuffer) {
  Serve(Get(""), [](WebMan& request) {
    _tag_login_params params = {};
    params.user = "typed";
    const auto accept = [&](int size, const _tag_login_params* given) {
      EXPECT_EQ(size, 122);
      EXPECT_EQ(given, &params);
      return 1;
    };
    hooks.VemoCgiLogin = [&](VEMOCGI*, char*, int size, _tag_login_params* p) {
      return accept(size, p);
    };
    hooks.VemoCgiLoginWithOTPAuth = [&](VEMOCGI*, char*, int size, _tag_login_params* p,
                                        const char* code) {
      EXPECT_STREQ(code, "123456");
      return accept(size, p);
    };
    const auto token = [&](VEMOCGI*, char*, int size, _tag_login_params* p, const char* text,
                           BOOL flag, int reserved) {
      EXPECT_STREQ(text, "token");
      EXPECT_EQ(flag, TRUE);
      EXPECT_EQ(reserved, 0);
      return accept(size, p);
    };
    hooks.VemoCgiLoginWithAzureSSOAuth = token;
    hooks.VemoCgiLoginWithOIDCSSOAuth = token;
    EXPECT_EQ(request.Login(&params), 1);
    EXPECT_EQ(request.GetLoginUserName(), "typed");
    params.user = "two";
    EXPECT_EQ(request.LoginWithOTPAuth(&params, "123456"), 1);
    EXPECT_EQ(request.GetLoginUserName(), "two");
    params.user = "three";
    EXPECT_EQ(request.LoginWithAzureSSOAuth(&params, "token", true), 1);
    EXPECT_EQ(request.GetLoginUserName(), "three");
    params.user = "four";
    EXPECT_EQ(request.LoginWithOIDCSSOAuth(&params, "token", true), 1);
    EXPECT_EQ(request.GetLoginUserName(), "four");
  });
}

TEST(Login, OnlyTheAnswerOneRecordsTheName) {
  for (const int result : {0, 2, -1, -2, -6}) {
    const Answer answer = Serve(Get(""), [&](WebMan& request) {
      _tag_login_params params = {};
      params.user = "typed";
      hooks.VemoCgiLogin = [&](auto...) { return result; };
      std::printf("%d,%s", request.Login(&params), request.GetLoginUserName().c_str());
    });
    EXPECT_EQ(answer.output, std::to_string(result) + ",");
  }
}

TEST(Login, TheOtherKindsRecordTheNameOnOneAlone) {
  for (const int result : {0, 2, -1, -6}) {
    const Answer answer = Serve(Get(""), [&](WebMan& request) {
      const auto asked = [&](const char* kind) {
        std::printf("%s ", kind);
        return result;
      };
      const auto token = [&](const char* kind) {
        return [=](VEMOCGI*, char*, int, _tag_login_params*, const char*, BOOL flag, int) {
          EXPECT_EQ(flag, FALSE);
          return asked(kind);
        };
      };
      hooks.VemoCgiLoginWithOTPAuth = [&](auto...) { return asked("otp"); };
      hooks.VemoCgiLoginWithAzureSSOAuth = token("azure");
      hooks.VemoCgiLoginWithOIDCSSOAuth = token("oidc");
      hooks.VemoCgiLoginNoAuth = [&](auto...) { return asked("none"); };
      hooks.VemoCgiTestLogin = [&](auto...) { return asked("test"); };

      _tag_login_params params = {};
      params.user = "typed";
      EXPECT_EQ(request.LoginWithOTPAuth(&params, "1"), result);
      EXPECT_EQ(request.LoginWithAzureSSOAuth(&params, "t", false), result);
      EXPECT_EQ(request.LoginWithOIDCSSOAuth(&params, "t", false), result);
      EXPECT_EQ(request.LoginNoAuth(&params), result);
      EXPECT_EQ(request.LoginTest(&params, nullptr), result);
      EXPECT_EQ(request.GetLoginUserName(), "");
    });
    EXPECT_EQ(answer.output, "otp azure oidc none test ");
  }
}

TEST(Login, ANameIsCutAt492Bytes) {
  for (const size_t size : {491u, 492u, 493u, 100000u}) {
    const Answer answer = Serve(Get(""), [&](WebMan& request) {
      const std::string name(size, 'n');
      _tag_login_params params = {};
      params.user = name.c_str();
      hooks.VemoCgiLogin = [](auto...) { return 1; };
      request.Login(&params);
      std::printf("%zu", request.GetLoginUserName().size());
    });
    EXPECT_EQ(answer.output, std::to_string(std::min<size_t>(size, 492)));
  }
}

TEST(Login, WithoutAuthenticationAndTestsRecordNothing) {
  Serve(Get(""), [](WebMan& request) {
    _tag_login_params params = {};
    params.user = "typed";
    hooks.VemoCgiLoginNoAuth = [&](VEMOCGI*, char* reason, int size, _tag_login_params* p) {
      EXPECT_EQ(reason, nullptr);
      EXPECT_EQ(size, 0);
      EXPECT_EQ(p, &params);
      return 1;
    };
    hooks.VemoCgiTestLogin = [&](_tag_login_params* p, const char* code) {
      EXPECT_EQ(p, &params);
      EXPECT_STREQ(code, "code");
      return 1;
    };
    EXPECT_EQ(request.LoginNoAuth(&params), 1);
    EXPECT_EQ(request.LoginTest(&params, "code"), 1);
    EXPECT_EQ(request.GetLoginUserName(), "");
  });
}

TEST(Login, LogoutPassesTheNameAndAnythingButZeroIsSuccess) {
  for (const int result : {0, 1, 2, -1}) {
    const Answer answer = Serve(Get(""), [&](WebMan& request) {
      hooks.VemoCgiIsAuthorized = [](VEMOCGI*, char* user, int size, auto...) {
        std::snprintf(user, static_cast<size_t>(size), "alice");
        return 1;
      };
      request.CheckAuthorized(1, VEMOCGI_POS_ANY, false);
      hooks.VemoCgiLogout = [&](VEMOCGI*, const char* user) {
        std::printf("%s", user);
        return result;
      };
      std::printf("%d", request.Logout());
    });
    EXPECT_EQ(answer.output, result == 0 ? "alice0" : "alice1");
  }
}

// Real sessions of the host platform.

class SessionTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(system("useradd --no-create-home zoe && useradd --no-create-home yan && "
                     "(getent group administrators >/dev/null || groupadd administrators) && "
                     "usermod -aG administrators yan"),
              0);
    environment_ = Get("");
  }

  // Logs in, and gives the session's cookie to the requests that follow.
  void LogIn(const char* user) {
    const Answer answer = Serve(environment_, [&](WebMan& request) {
      _tag_login_params params = {};
      params.user = user;
      params.position = VEMOCGI_POS_DESKTOP;
      const int result = request.LoginNoAuth(&params);
      request.WriteHeader("text/plain");
      std::printf("%d %s", result, request.GetVemoToken(true).c_str());
    });
    ASSERT_EQ(answer.body.substr(0, 2), "1 ");
    token_ = answer.body.substr(2);
    const std::string cookie = answer.Header("Set-Cookie");
    environment_["HTTP_COOKIE"] = cookie.substr(0, cookie.find(';'));
  }

  Environment environment_;
  std::string token_;
};

TEST_F(SessionTest, TheSessionTellsItsPathsAndItsToken) {
  LogIn("zoe");
  const Answer answer = Serve(environment_, [this](WebMan& request) {
    const std::string path = std::string("/run/vemo/session/") + request.GetSessionID();
    EXPECT_EQ(request.GetSessionFilePath(), path);
    EXPECT_EQ(request.GetLockFile(), path + ".lock");
    char buffer[128];
    EXPECT_EQ(request.GetSessionFilePath(buffer, sizeof buffer), 0);
    EXPECT_EQ(path, buffer);
    EXPECT_EQ(request.GetSessionFilePath(buffer, static_cast<int>(path.size()) + 1), 0);
    EXPECT_EQ(request.GetSessionFilePath(buffer, static_cast<int>(path.size())), -1);
    EXPECT_EQ(request.GetVemoToken(false), token_);
    EXPECT_TRUE(request.IsTokenEnable());
    EXPECT_TRUE(request.IsAuthorized(nullptr, 1, VEMOCGI_POS_DESKTOP));
    EXPECT_EQ(request.GetLoginUserName(), "zoe");
    EXPECT_FALSE(request.IsAdmin());
  });
  EXPECT_EQ(answer.exit_status, 0);
}

TEST_F(SessionTest, WithoutASessionThereAreNone) {
  const Answer answer = Serve(environment_, [](WebMan& request) {
    char buffer[128];
    EXPECT_EQ(request.GetSessionID(), nullptr);
    EXPECT_EQ(request.GetSessionFilePath(), nullptr);
    EXPECT_EQ(request.GetLockFile(), nullptr);
    EXPECT_EQ(request.GetSessionFilePath(buffer, sizeof buffer), -1);
    EXPECT_EQ(request.GetVemoToken(true), "");
  });
  EXPECT_EQ(answer.exit_status, 0);
}

TEST_F(SessionTest, TheTokenIsThatOfTheCookiesReadLast) {
  LogIn("zoe");
  Serve(environment_, [this](WebMan& request) {
    unsetenv("HTTP_COOKIE");
    EXPECT_EQ(request.GetVemoToken(false), token_);
    EXPECT_EQ(request.GetVemoToken(true), "");
  });
}

TEST_F(SessionTest, TheTokenCanBeTurnedOff) {
  std::ofstream("/etc/vemoinfo.conf") << "enable_token=\"no\"\n";
  Serve(environment_, [](WebMan& request) { EXPECT_FALSE(request.IsTokenEnable()); });
}

TEST_F(SessionTest, AnotherAddressIsLetInWhenTheProgramSkipsTheCheck) {
  LogIn("zoe");
  environment_["REMOTE_ADDR"] = "10.1.2.3";
  const Answer answer = Serve(environment_, [](WebMan& request) {
    std::printf("%d,", request.CheckAuthorized(1, VEMOCGI_POS_DESKTOP, false));
    request.SetSkipCheckIP(true);
    std::printf("%d,", request.CheckAuthorized(1, VEMOCGI_POS_DESKTOP, false));
    request.SetSkipCheckIP(false);
    std::printf("%d", request.CheckAuthorized(1, VEMOCGI_POS_DESKTOP, false));
  });
  EXPECT_EQ(answer.output, "-8,1,-8");
}

TEST_F(SessionTest, AnAdministratorIsOne) {
  LogIn("yan");
  const Answer answer = Serve(environment_, [](WebMan& request) {
    const bool authorized = request.IsAuthorized(nullptr, 2, VEMOCGI_POS_DESKTOP);
    std::printf("%d%d", authorized, request.IsAdmin());
  });
  EXPECT_EQ(answer.output, "11");
}

TEST_F(SessionTest, WhenThePlatformCannotTellNobodyIsAdministrator) {
  support::Syslog log;
  LogIn("yan");
  log.Take();
  const Answer answer = Serve(environment_, [](WebMan& request) {
    request.IsAuthorized(nullptr, 1, VEMOCGI_POS_DESKTOP);
    hooks.VLIBGroupIsAdminGroupMem = [](const char* user, int reserved) {
      EXPECT_STREQ(user, "yan");
      EXPECT_EQ(reserved, 0);
      VLIBCErrSetEx(0x0C00, "platform/group.c", 42);
      return -1;
    };
    std::printf("%d", request.IsAdmin());
    hooks.VLIBGroupIsAdminGroupMem = [](auto...) { return 2; };
    std::printf("%d", request.IsAdmin());  // only the answer 1 is membership
  });
  EXPECT_EQ(answer.output, "00");
  const auto lines = log.Take();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].priority & 7, 3);  // error
  const std::string& text = lines[0].text;
  const size_t colon = text.find(':');
  const size_t blank = text.find(' ');
  EXPECT_EQ(text.substr(0, colon), "webman");
  EXPECT_GT(atoi(text.c_str() + colon + 1), 0);
  EXPECT_EQ(text.substr(blank),
            " VLIBGroupIsAdminGroupMem(yan) failed. [0x0C00 platform/group.c:42]");
}

BOOL Collect(json_object* record, void* data) {
  static_cast<std::string*>(data)->append(json_object_to_json_string(record));
  return FALSE;
}

TEST_F(SessionTest, SessionsAreListedAndRemoved) {
  LogIn("zoe");
  const Environment first = environment_;
  environment_ = Get("");
  LogIn("zoe");
  const Answer answer = Serve(environment_, [](WebMan& request) {
    std::string listed;
    EXPECT_EQ(request.RemoveSessionByFunc(Collect, &listed), 0);
    EXPECT_NE(listed.find("zoe"), std::string::npos);
    EXPECT_EQ(listed.find(request.GetSessionID()), std::string::npos);
    EXPECT_FALSE(request.RemoveSessionByIndex(CURRENT_USER_BY_NAME, "nobody"));
    EXPECT_TRUE(request.RemoveSessionByIndex(CURRENT_USER_OTHERS, nullptr));
    EXPECT_FALSE(request.RemoveSessionByIndex(CURRENT_USER_OTHERS, nullptr));
    EXPECT_EQ(request.CheckAuthorized(1, VEMOCGI_POS_DESKTOP, false), 1);
    EXPECT_EQ(
        request.RemoveSessionByFunc([](json_object*, void*) -> BOOL { return TRUE; }, nullptr), 1);
  });
  EXPECT_EQ(answer.exit_status, 0);
  const Answer gone = Serve(first, [](WebMan& request) {
    std::printf("%d", request.CheckAuthorized(1, VEMOCGI_POS_DESKTOP, false));
  });
  EXPECT_EQ(gone.output, "-1");
}

TEST_F(SessionTest, LogoutEndsTheSession) {
  LogIn("zoe");
  const Answer answer = Serve(environment_, [](WebMan& request) {
    request.CheckAuthorized(1, VEMOCGI_POS_DESKTOP, false);
    std::printf("%d", request.Logout());
    std::printf("%d", request.CheckAuthorized(1, VEMOCGI_POS_DESKTOP, false));
    std::printf("%s", request.GetVemoToken(true).c_str());
  });
  EXPECT_EQ(answer.output, "1-5");
}

// Shared links and the default user.

struct SharingRow {
  const char* header;
  const char* query;
  const char* cookie;
  bool is_sharing;
  const char* id;
  const char* sid;
};

TEST(Sharing, TheIdComesFromTheHeaderOrTheParameter) {
  const SharingRow rows[] = {
      {nullptr, "_sharing_id=%22abc%22", "sharing_sid=s", true, "abc", "s"},
      {nullptr, "_sharing_id=abc", "sharing_sid=s", true, "abc", "s"},
      {nullptr, "_sharing_id=%22abc", "sharing_sid=s", true, "\"abc", "s"},
      {nullptr, "_sharing_id=abc%22", "sharing_sid=s", true, "abc\"", "s"},
      {nullptr, "_sharing_id=%22", "sharing_sid=s", false, "", "s"},
      {nullptr, "_sharing_id=%22%22", "sharing_sid=s", false, "", "s"},
      {nullptr, "", "sharing_sid=s", false, "", "s"},
      {nullptr, "_sharing_id=abc", "", false, "abc", ""},
      {"\"abc\"", "_sharing_id=other", "sharing_sid=s", true, "\"abc\"", "s"},
      {"", "_sharing_id=other", "sharing_sid=s", false, "", "s"},
  };
  for (const SharingRow& row : rows) {
    Environment environment = Get(row.query);
    environment["HTTP_COOKIE"] = row.cookie;
    if (row.header != nullptr) environment["HTTP_X_VEMO_SHARING"] = row.header;
    const Answer answer = Serve(environment, [](WebMan& request) {
      std::string id = "before";
      std::string sid = "before";
      const bool is_sharing = request.IsSharingRequest(id, sid);
      std::printf("%d|%s|%s", is_sharing, id.c_str(), sid.c_str());
    });
    EXPECT_EQ(answer.output, std::string(row.is_sharing ? "1|" : "0|") + row.id + "|" + row.sid)
        << row.query;
  }
}

TEST(Sharing, TheParameterIsSeenBeforeParametersAreLoaded) {
  Environment environment = Get("_sharing_id=abc");
  environment["HTTP_COOKIE"] = "sharing_sid=s";
  RunRequest(environment, "", [] {
    WebMan request(false);
    std::string id, sid;
    EXPECT_TRUE(request.IsSharingRequest(id, sid));
    EXPECT_EQ(id, "abc");
  });
}

TEST(DefaultUser, AJsonRequestIsMarkedToo) {
  const std::string body = R"({"a":1})";
  RunRequest(support::Post(body), body, [] {
    WebMan request(true);
    EXPECT_FALSE(request.IsLoginedDefaultUser());
    request.SetLoginedDefaultUser();
    EXPECT_TRUE(request.IsLoginedDefaultUser());
  });
}

TEST(DefaultUser, TheMarkIsExact) {
  const auto marked = [](const char* query) {
    return Serve(Get(query),
                 [](WebMan& request) { std::printf("%d", request.IsLoginedDefaultUser()); })
        .output;
  };
  EXPECT_EQ(marked(""), "0");
  EXPECT_EQ(marked("loginedDefaultUser=yes"), "1");
  EXPECT_EQ(marked("loginedDefaultUser=Yes"), "0");
  EXPECT_EQ(marked("loginedDefaultUser=yes%20"), "0");
  const Answer set = Serve(Get("loginedDefaultUser=no"), [](WebMan& request) {
    request.SetLoginedDefaultUser();
    std::printf("%d", request.IsLoginedDefaultUser());
  });
  EXPECT_EQ(set.output, "1");
}

}  // namespace
