// The security headers, byte for byte.
#include <gtest/gtest.h>
#include <security/csp_rule.h>
#include <security/security_options.h>
#include <unistd.h>
#include <webman/webman.h>

#include <regex>

#include "support/request.h"
#include "support/syslog.h"
#include "unit/platform/cgi_accounts.h"

using namespace accounts;
using VEMO::ZEM::SecurityOptions;

namespace {

class Headers : public testing::Test {
 protected:
  void SetUp() override {
    Shell("rm -rf /run/csp /usr/vemo/etc/csp /usr/local/etc/csp");
    Configure("");
    Write("/run/csp/rule", R"({"img-src": ["a.b", "c.d"], "base-uri": []})", 0644);
    unsetenv("HTTP_HOST");
    unsetenv("HTTP_REFERER");
    log_.emplace();
  }
  std::vector<std::string> Logged() {
    std::vector<std::string> texts;
    for (const std::string& line : log_->TakeTexts())
      texts.push_back(std::regex_replace(line, std::regex("^security_options:[0-9]+ "), ""));
    return texts;
  }
  static std::string Policy(const char* name = nullptr) {
    return SecurityOptions(name).GetCSPHeader();
  }
  static std::string Framing(const char* referrer, const std::string& allowed = "") {
    Configure("frame_options_built_in_allow_url=\"" + allowed + "\"\n");
    unsetenv("HTTP_REFERER");
    if (referrer != nullptr) setenv("HTTP_REFERER", referrer, 1);
    return SecurityOptions(nullptr).GetXFrameOption();
  }
  std::optional<support::Syslog> log_;
};

TEST_F(Headers, BlanksAreAsTheyAlwaysWere) {
  EXPECT_EQ(Policy(), " img-src a.b c.d; ");
  const struct {
    const char *rule, *text;
  } rows[] = {
      {"{}", ""},
      {R"({"a": ["b"]})", "a b; "},
      {R"({"b": ["1", "2"], "a": ["3"]})", "a 3; b 1 2; "},
      {R"({"a": [], "b": []})", "  "},
      {R"({"a": [""]})", "a ; "},
      {R"({"a": [1, true, null]})", "a 1 true ; "},
      {R"({"a": "text", "b": {"c": 1}, "d": null, "e": ["x"]})", "   e x; "},
      {R"({"a": [["x"], {"y": 1}]})", "a  ; "},
  };
  for (const auto& row : rows) {
    Write("/run/csp/rule", row.rule);
    EXPECT_EQ(Policy(), row.text) << row.rule;
  }
  EXPECT_TRUE(Logged().empty());
}

TEST_F(Headers, TheHostIsFilledIn) {
  Write("/run/csp/rule", R"({"a": ["{HOSTNAME}:5000", "x{HOSTNAME}y{HOSTNAME}", "{HOSTNAME"]})");
  const struct {
    const char *host, *first;
  } rows[] = {{"nas:5001", "nas:5000"},
              {"nas", "nas:5000"},
              {"nas.lan:", "nas.lan:5000"},
              {"::1", "::1:5000"},
              {"[::1]:5001", "[::1]:5000"},
              {"[::1]", "[::5000"},
              {"2001:db8::2", "2001:db8::2:5000"},
              {"a:b:c", "a:b:5000"},
              {"", "{HOSTNAME}:5000"},
              {nullptr, "{HOSTNAME}:5000"},
              {":5000", "{HOSTNAME}:5000"},
              {"x{HOSTNAME}", "x{HOSTNAME}:5000"},
              {"{HOSTNAME}", "{HOSTNAME}:5000"}};
  for (const auto& row : rows) {
    unsetenv("HTTP_HOST");
    if (row.host != nullptr) setenv("HTTP_HOST", row.host, 1);
    const std::string text = Policy();
    EXPECT_EQ(text.substr(2, text.find(' ', 2) - 2), row.first) << (row.host ? row.host : "none");
  }
  setenv("HTTP_HOST", "n", 1);
  EXPECT_EQ(Policy(), "a n:5000 xnyn {HOSTNAME; ");
}

TEST_F(Headers, APageMayHaveItsOwn) {
  Write("/run/csp/standalone/Page", R"({"img-src": ["*"]})");
  EXPECT_EQ(Policy("Page"), "img-src *; ");
  EXPECT_EQ(Policy("Other"), " img-src a.b c.d; ");
  EXPECT_EQ(Policy(""), " img-src a.b c.d; ");
  Write("/run/csp/standalone/Page", "{");
  EXPECT_EQ(Policy("Page"), " img-src a.b c.d; ");
  EXPECT_EQ(Policy(std::string(5000, 'x').c_str()), " img-src a.b c.d; ");
  EXPECT_TRUE(Logged().empty());
}

TEST_F(Headers, ThePoliciesAreGeneratedWhenTheyAreMissing) {
  Write("/usr/vemo/share/csp/rule-default", R"({"script-src": ["'self'"]})");
  Write("/usr/vemo/etc/csp/m", R"({"rule-standalone": {"jsid": "P", "wildcard": ["img-src"]}})");
  for (const char* broken : {"", "{"}) {
    Shell("rm -rf /run/csp");
    if (*broken != '\0') Write("/run/csp/rule", broken);
    EXPECT_EQ(Policy("P"), "       img-src *;   script-src 'self';  ");
  }
  EXPECT_TRUE(Logged().empty());
}

TEST_F(Headers, WithoutPoliciesThereIsNoHeader) {
  Shell("rm -rf /run/csp /usr/vemo/share/csp");
  EXPECT_EQ(Policy(), "");
  auto texts = Logged();
  ASSERT_EQ(texts.size(), 2u);
  EXPECT_EQ(texts[1], "Failed to GenerateCSPTarget from [/usr/vemo/share/csp/rule-default]");
  Write("/run/csp/rule", "[]");
  EXPECT_EQ(Policy(), "");
  EXPECT_EQ(Logged(), std::vector<std::string>{"CSP rule config is not an object"});
}

TEST_F(Headers, BothCanBeSwitchedOff) {
  const struct {
    const char* settings;
    std::vector<std::string> names;
  } rows[] = {
      {"", {"Content-Security-Policy", "X-Frame-Options"}},
      {"csp_header_option=\"YES\"\ncheck_frame_options=\"Yes\"\n",
       {"Content-Security-Policy", "X-Frame-Options"}},
      {"csp_header_option=\"no\"\n", {"X-Frame-Options"}},
      {"check_frame_options=\"no\"\n", {"Content-Security-Policy"}},
      {"csp_header_option=\"\"\n", {"X-Frame-Options"}},
      {"csp_header_option=\"true\"\ncheck_frame_options=\"1\"\n", {}},
  };
  for (const auto& row : rows) {
    Configure(row.settings);
    const Json::Value headers = SecurityOptions("").GetSecurityHeaders();
    EXPECT_EQ(headers.isNull(), row.names.empty()) << row.settings;
    EXPECT_EQ(headers.getMemberNames(), row.names) << row.settings;
  }
}

TEST_F(Headers, WhoMayFrame) {
  const struct {
    const char *referrer, *allowed;
    bool may;
  } rows[] = {
      {nullptr, "", false},
      {nullptr, "nas.lan", false},
      {"", "", false},
      {"https://nas.lan/", "", false},
      {"https://Nas.Lan:5001/x", "http://a.b,nas.lan", true},
      {"https://nas.lan/", "http://nas.lan", false},
      {"https://nas.lan/", "https://nas.lan", true},
      {"https://nas.lan/a/b?c#d", "https://nas.lan", true},
      {"https://nas.lan:443/", "https://nas.lan", true},
      {"https://nas.lan:5001/", "https://nas.lan", false},
      {"https://nas.lan:5001/", "https://nas.lan:5001", true},
      {"http://nas.lan/", "http://nas.lan:80", true},
      {"http://nas.lan:80/", "http://nas.lan", true},
      {"http://nas.lan/", "nas.lan:80", true},
      {"https://nas.lan/", "nas.lan:80", false},
      {"https://nas.lan:5001/", "nas.lan", true},
      {"http://NAS.LAN/", "nas.lan", true},
      {"http://nas.lan/", "NAS.lan", true},
      {"http://nas.lan/", "nas.lan/path", true},
      {"http://nas.lan/", "nas.lan.evil", false},
      {"http://nas.lan.evil/", "nas.lan", false},
      {"http://evil/nas.lan", "nas.lan", false},
      {"http://nas.lan@evil/", "nas.lan", false},
      {"http://nas.lan/", " nas.lan", false},  // pieces are not trimmed
      {"http://nas.lan/", "a.b, nas.lan", false},
      {"http://nas.lan/", "a.b,nas.lan,c.d", true},
      {"http://nas.lan/", ",,nas.lan", true},
      {"http://nas.lan/", ",", false},
      {"nas.lan", "nas.lan", true},
      {"nas.lan:5001/x", "https://nas.lan", false},
      {"nas.lan:443", "https://nas.lan", true},
      {"//nas.lan/", "nas.lan", false},  // its host is empty
      {"http://[::1]:5001/", "[::1]", true},
      {"http://[::1]/", "[::1]", true},
      {"http://[::1]:5001/", "http://[::1]:5001", true},
      {"http://[::1]:5001/", "http://[::1]:5002", false},
      {"https://[::1]/", "https://[::1]", true},
      {"http://nas.lan:abc/", "http://nas.lan", true},  // no digits: any port
      {"http://nas.lan:80x/", "http://nas.lan", true},
      {"http://nas.lan:/", "https://nas.lan:9", false},
      {"http:/nas.lan", "nas.lan", false},
      {"httpx://nas.lan/", "nas.lan", false},
      {"ftp://nas.lan/", "nas.lan", false},
      {"https:", "https", true},
      {"http", "http", true},
      {"about:blank", "", false},
      {"null", "null", true},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Framing(row.referrer, row.allowed), row.may ? "" : "SAMEORIGIN")
        << (row.referrer ? row.referrer : "none") << " | " << row.allowed;
  }
}

TEST_F(Headers, TheRequestObjectQueuesThem) {
  const auto answer =
      support::RunRequest({{"REQUEST_METHOD", "GET"}, {"HTTP_HOST", "nas"}}, "", [] {
        WebMan request(true);
        request.AddSecurityHeaders(nullptr);
        request.WriteHeader("text/html");
      });
  EXPECT_EQ(answer.head,
            "Content-Security-Policy:  img-src a.b c.d; \r\nX-Frame-Options: SAMEORIGIN\r\n"
            "Content-type: text/html\r\n");
  Configure("csp_header_option=\"no\"\ncheck_frame_options=\"no\"\n");
  const auto bare = support::RunRequest({{"REQUEST_METHOD", "GET"}}, "", [] {
    WebMan request(true);
    request.AddSecurityHeaders("x");
    request.WriteHeader("text/html");
  });
  EXPECT_EQ(bare.head, "Content-type: text/html\r\n");
}

}  // namespace
