/// \file cgi_accounts.h
/// Real accounts, logins and requests for the tests of sessions. Every request is
/// a process of its own, as behind a web server.
#ifndef ZEM_TESTS_UNIT_PLATFORM_CGI_ACCOUNTS_H
#define ZEM_TESTS_UNIT_PLATFORM_CGI_ACCOUNTS_H

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <vemo/cgi.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/request.h"

namespace accounts {

inline const char* const kSessions = "/run/vemo/session/";

/// Runs a shell line; the test fails when it does.
inline void Shell(const std::string& line) {
  const int status = std::system(("{ " + line + "; } >/dev/null 2>&1").c_str());
  EXPECT_EQ(status, 0) << line;
}

inline void Write(const std::string& path, const std::string& text, mode_t mode = 0600) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  EXPECT_EQ(chmod(path.c_str(), mode), 0) << path;
}

inline std::string Read(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

inline void Configure(const std::string& text) { Write("/etc/vemoinfo.conf", text, 0644); }

/// What every login needs: the PAM service and the administrators' group, also
/// where the appliance's files are not in place.
inline void Prepare() {
  if (!std::filesystem::exists("/etc/pam.d/vemo")) {
    Write("/etc/pam.d/vemo", "@include common-auth\n@include common-account\n", 0644);
  }
  Shell("getent group administrators || groupadd administrators");
  Configure("");
}

inline void AddUser(const std::string& name, const std::string& password,
                    const std::string& options = "") {
  Shell("useradd -M " + options + " " + name);
  Write("/run/password", name + ":" + password + "\n");
  Shell("chpasswd < /run/password && rm /run/password");
}

struct LoginOptions {
  std::string address = "192.0.2.1";
  const char* code = nullptr;  ///< given: VemoCgiLoginWithOTPAuth
  std::string cookies = {};    ///< HTTP_COOKIE of the request
  _tag_cgi_position position = VEMOCGI_POS_DESKTOP;
  bool remember = false;
  bool no_auth = false;
  support::Environment more = {};
  int reason_size = 122;
};

struct Login {
  int result = -100;
  std::string reason, user, cookies, token, id;
  support::Answer answer;
  std::string File() const { return kSessions + id; }
};

inline std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);)
    lines.push_back(line);
  lines.resize(std::max<size_t>(lines.size(), 8));
  return lines;
}

inline void PrintLogin(const char* user, const char* password, const LoginOptions& options) {
  VEMOCGI ctx;
  char reason[256] = "untouched";
  VemoCgiInit("", &ctx);
  VemoCgiLoadInCookies(&ctx);
  _tag_login_params params = {};
  params.user = user;
  params.password = password;
  params.position = options.position;
  params.remember = options.remember;
  const int result =
      options.no_auth ? VemoCgiLoginNoAuth(&ctx, nullptr, 0, &params)
      : options.code != nullptr
          ? VemoCgiLoginWithOTPAuth(&ctx, reason, options.reason_size, &params, options.code)
          : VemoCgiLogin(&ctx, reason, options.reason_size, &params);
  const char* cookies = getenv("HTTP_COOKIE");
  const std::string token = VemoCgiGetOption(&ctx, VEMOCGI_OPT_TOKEN, "");
  const std::string id = VemoCgiGetInCookies(&ctx, "id", "");
  VemoCgiPrintHTTPHeader(&ctx);
  printf("%d\n%s\n%s\n%s\n%s\n%s\n", result, reason, result == 1 ? params.user : "",
         cookies == nullptr ? "" : cookies, token.c_str(), id.c_str());
  VemoCgiFree(&ctx);
}

inline Login LogIn(const char* user, const char* password, const LoginOptions& options = {}) {
  support::Environment environment = options.more;
  environment["REQUEST_METHOD"] = "POST";
  environment["REMOTE_ADDR"] = options.address;
  if (!options.cookies.empty()) environment["HTTP_COOKIE"] = options.cookies;
  Login login;
  login.answer = support::RunRequest(environment, "", [&] { PrintLogin(user, password, options); });
  std::string printed = login.answer.body;
  if (printed.rfind("\r\n", 0) == 0) printed.erase(0, 2);  // a head without a line
  const auto lines = Lines(printed);
  login.result = lines[0].empty() ? -100 : std::atoi(lines[0].c_str());
  login.reason = lines[1];
  login.user = lines[2];
  login.cookies = lines[3];
  login.token = lines[4];
  login.id = lines[5];
  return login;
}

struct Request {
  int privilege = VEMOCGI_PRIV_USER;
  _tag_cgi_position position = VEMOCGI_POS_DESKTOP;
  bool passive = false;
  bool skip_check_ip = false;
  int user_size = 493;
  std::string address = "192.0.2.1";
  std::string cookies = {};        ///< HTTP_COOKIE of the request, when not made from the id
  support::Environment more = {};  ///< over the defaults of a GET without a query
  std::string body = {};
};

/// The verdict on a request of session `id`; the user's name in `*user`.
inline int Ask(const std::string& id, const Request& request = {}, std::string* user = nullptr) {
  support::Environment environment = {{"REQUEST_METHOD", "GET"}, {"REMOTE_ADDR", request.address}};
  environment["HTTP_COOKIE"] = request.cookies.empty() ? "id=" + id : request.cookies;
  for (const auto& [name, value] : request.more)
    environment[name] = value;
  const auto answer = support::RunRequest(environment, request.body, [&] {
    VEMOCGI ctx;
    VemoCgiInit("", &ctx);
    VemoCgiLoadInCookies(&ctx);
    if (char* line = VemoCgiGetParamLine(&ctx); line != nullptr) {
      VemoCgiParseCGIParam(&ctx, line);
      free(line);
    }
    ctx.skip_check_ip = request.skip_check_ip;
    char name[600] = "";
    const _tag_cgi_auth_request asked = {request.privilege, request.passive};
    const int verdict =
        VemoCgiIsAuthorized(&ctx, name, request.user_size, &asked, request.position);
    printf("%d\n%s\n", verdict, name);
    VemoCgiFree(&ctx);
  });
  const auto lines = Lines(answer.body);
  if (user != nullptr) *user = lines[1];
  EXPECT_TRUE(lines[0] == "1" || lines[1].empty()) << "a refused request must not name a user";
  return lines[0].empty() ? -100 : std::atoi(lines[0].c_str());
}

/// Runs `program` with a context whose cookies are loaded; what it printed.
inline std::string With(const std::string& id, const std::function<void(VEMOCGI*)>& program) {
  return support::RunRequest({{"REQUEST_METHOD", "GET"},
                              {"REMOTE_ADDR", "192.0.2.1"},
                              {"HTTP_COOKIE", "lang=enu; id=" + id}},
                             "",
                             [&] {
                               VEMOCGI ctx;
                               VemoCgiInit("", &ctx);
                               VemoCgiLoadInCookies(&ctx);
                               program(&ctx);
                               VemoCgiFree(&ctx);
                             })
      .output;
}

inline bool Exists(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}

/// Moves the last use of a session, or the time of any file.
inline void Age(const std::string& path, long seconds) {
  Shell("touch -c -d '" + std::to_string(-seconds) + " seconds' " + path);
}

}  // namespace accounts

#endif  // ZEM_TESTS_UNIT_PLATFORM_CGI_ACCOUNTS_H
