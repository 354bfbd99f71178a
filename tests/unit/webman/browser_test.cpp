// Which browser a request names.
#include <gtest/gtest.h>
#include <webman/webman.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <regex>
#include <string>

#include "support/request.h"
#include "support/syslog.h"

namespace {

struct Row {
  const char* agent;
  int type;
  const char* version;
};

const Row kAgents[] = {
    {"Mozilla/5.0 (Windows NT 6.1; Trident/7.0; rv:11.0) like Gecko", 1, "11"},
    {"Mozilla/5.0 (Windows NT 10.0; WOW64; Trident/7.0; .NET4.0C; .NET4.0E; rv:11.0) like Gecko", 1,
     "11"},
    {"Mozilla/4.0 (compatible; MSIE 6.0; Windows NT 5.1)", 1, "6.0"},
    {"Mozilla/4.0 (compatible; MSIE 5.5; Windows 98)", 1, "5.5"},
    {"Mozilla/4.0 (compatible; MSIE 7.0; Windows NT 6.0)", 1, "7.0"},
    {"Mozilla/4.0 (compatible; MSIE 8.0; Windows NT 6.1; WOW64; Trident/4.0)", 1, "8.0"},
    {"Mozilla/5.0 (compatible; MSIE 9.0; Windows NT 6.1; WOW64; Trident/5.0)", 1, "9.0"},
    {"Mozilla/5.0 (compatible; MSIE 10.0; Windows NT 6.2; Win64; x64; Trident/6.0)", 1, "10.0"},
    {"Mozilla/4.0 (compatible; MSIE 7.0; Windows NT 6.1; Trident/7.0)", 1, "7.0"},
    {"Mozilla/5.0 (compatible; MSIE 10.0; Windows Phone 8.0; Trident/6.0; IEMobile/10.0; ARM; "
     "Touch; NOKIA; Lumia 920)",
     1, "10.0"},
    {"Mozilla/5.0 (Windows NT 10.0) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/42.0.2311.135 "
     "Safari/537.36 Edge/12.0",
     4, "42.0.2311.135"},
    {"Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) "
     "Chrome/64.0.3282.140 Safari/537.36 Edge/17.17134",
     4, "64.0.3282.140"},
    {"Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) "
     "Chrome/120.0.0.0 Safari/537.36 Edg/120.0.2210.91",
     4, "120.0.0.0"},
    {"Agent Edge/12.0", 1, "12"},
    {"Mozilla/5.0 (X11; Linux x86_64; rv:121.0) Gecko/20100101 Firefox/121.0", 2, "121.0"},
    {"Mozilla/5.0 (Windows NT 10.0; Win64; x64; rv:109.0) Gecko/20100101 Firefox/115.0", 2,
     "115.0"},
    {"Mozilla/5.0 (Macintosh; Intel Mac OS X 10.15; rv:120.0) Gecko/20100101 Firefox/120.0", 2,
     "120.0"},
    {"Mozilla/5.0 (Windows NT 6.1; WOW64; rv:40.0) Gecko/20100101 Firefox/40.1", 2, "40.1"},
    {"Mozilla/5.0 (Windows; U; Windows NT 5.1; en-US; rv:1.9.2.3) Gecko/20100401 Firefox/3.6.3", 2,
     "3.6.3"},
    {"Mozilla/5.0 (Windows; U; Windows NT 5.1; en-US; rv:1.8.1.20) Gecko/20081217 Firefox/2.0.0.20 "
     "(.NET CLR 3.5.30729)",
     2, "2.0.0.20"},
    {"Mozilla/5.0 (Android 13; Mobile; rv:109.0) Gecko/113.0 Firefox/113.0", 2, "113.0"},
    {"Mozilla/5.0 (X11; Ubuntu; Linux i686; rv:24.0) Gecko/20100101 Firefox/24.0 SeaMonkey/2.21", 2,
     "24.0"},
    {"Mozilla/5.0 (X11; U; Linux x86_64; en-US; rv:1.9.0.14) Gecko/2009090216 Ubuntu/9.04 (jaunty) "
     "Firefox/3.0.14",
     2, "3.0.14"},
    {"Mozilla/5.0 (Windows NT 6.1) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/49.0.2623.112 "
     "Safari/537.36",
     4, "49.0.2623.112"},
    {"Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/119.0.0.0 "
     "Safari/537.36",
     4, "119.0.0.0"},
    {"Mozilla/5.0 (Macintosh; Intel Mac OS X 10_15_7) AppleWebKit/537.36 (KHTML, like Gecko) "
     "Chrome/118.0.5993.117 Safari/537.36",
     4, "118.0.5993.117"},
    {"Mozilla/5.0 (Linux; Android 10; K) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/114.0.0.0 "
     "Mobile Safari/537.36",
     4, "114.0.0.0"},
    {"Mozilla/5.0 (Linux; Android 12; SM-G991B) AppleWebKit/537.36 (KHTML, like Gecko) "
     "SamsungBrowser/20.0 Chrome/106.0.5249.126 Mobile Safari/537.36",
     4, "106.0.5249.126"},
    {"Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) "
     "Chrome/117.0.0.0 Safari/537.36 OPR/103.0.0.0",
     4, "117.0.0.0"},
    {"Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/115.0.0.0 "
     "Safari/537.36 Vivaldi/6.1",
     4, "115.0.0.0"},
    {"Mozilla/5.0 (X11; CrOS x86_64 14541.0.0) AppleWebKit/537.36 (KHTML, like Gecko) "
     "Chrome/120.0.0.0 Safari/537.36",
     4, "120.0.0.0"},
    {"Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) "
     "HeadlessChrome/112.0.5615.49 Safari/537.36",
     4, "112.0.5615.49"},
    {"Mozilla/5.0 (X11; U; Linux i686; en-US) AppleWebKit/534.3 (KHTML, like Gecko) Ubuntu/10.04 "
     "Chromium/6.0.472.53 Chrome/6.0.472.53 Safari/534.3",
     4, "6.0.472.53"},
    {"Mozilla/5.0 (Windows; U; Windows NT 5.1; en-US) AppleWebKit/525.13 (KHTML, like Gecko) "
     "Chrome/0.2.149.27 Safari/525.13",
     4, "0.2.149.27"},
    {"Mozilla/5.0 (Linux; Android 4.4.2; Nexus 4) AppleWebKit/537.36 (KHTML, like Gecko) "
     "Chrome/34.0.1847.114 Mobile Safari/537.36",
     4, "34.0.1847.114"},
    {"Mozilla/5.0 (iPhone; CPU iPhone OS 16_6 like Mac OS X) AppleWebKit/605.1.15 (KHTML, like "
     "Gecko) CriOS/116.0.5845.118 Mobile/15E148 Safari/604.1",
     3, "604.1"},
    {"Mozilla/5.0 (Macintosh; Intel Mac OS X 10_11) AppleWebKit/601.5.17 (KHTML, like Gecko) "
     "Version/9.1 Safari/601.5.17",
     3, "9.1"},
    {"Mozilla/5.0 (Macintosh; Intel Mac OS X 10_15_7) AppleWebKit/605.1.15 (KHTML, like Gecko) "
     "Version/17.1 Safari/605.1.15",
     3, "17.1"},
    {"Mozilla/5.0 (iPhone; CPU iPhone OS 17_1 like Mac OS X) AppleWebKit/605.1.15 (KHTML, like "
     "Gecko) Version/17.1 Mobile/15E148 Safari/604.1",
     3, "17.1"},
    {"Mozilla/5.0 (iPad; CPU OS 12_2 like Mac OS X) AppleWebKit/605.1.15 (KHTML, like Gecko) "
     "Version/12.1 Mobile/15E148 Safari/604.1",
     3, "12.1"},
    {"Mozilla/5.0 (iPod touch; CPU iPhone OS 7_0_3 like Mac OS X) AppleWebKit/537.51.1 (KHTML, "
     "like Gecko) Version/7.0 Mobile/11B511 Safari/9537.53",
     3, "7.0"},
    {"Mozilla/5.0 (Macintosh; U; PPC Mac OS X; en) AppleWebKit/125.2 (KHTML, like Gecko) "
     "Safari/125.8",
     3, "125.8"},
    {"Mozilla/5.0 (Windows; U; Windows NT 6.1; en-US) AppleWebKit/533.19.4 (KHTML, like Gecko) "
     "Version/5.0.3 Safari/533.19.4",
     3, "5.0.3"},
    {"Mozilla/5.0 (Linux; U; Android 2.3.5; en-us) AppleWebKit/533.1 (KHTML, like Gecko) "
     "Version/4.0 Mobile Safari/533.1",
     3, "4.0"},
    {"Mozilla/5.0 (BB10; Touch) AppleWebKit/537.10+ (KHTML, like Gecko) Version/10.0.9.2372 Mobile "
     "Safari/537.10+",
     3, "10.0.9.2372"},
    {"Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/605.1.15 (KHTML, like Gecko) Version/16.5 "
     "Safari/605.1.15 Epiphany/605.1.15",
     3, "16.5"},
    {"Mozilla/5.0 (iPhone; CPU iPhone OS 16_5 like Mac OS X) AppleWebKit/605.1.15 (KHTML, like "
     "Gecko) FxiOS/114.0 Mobile/15E148 Safari/605.1.15",
     3, "605.1.15"},
    {"facebookexternalhit/1.1 (+http://www.facebook.com/externalhit_uatext.php)", 5, "1.1"},
    {"facebookexternalhit/1.1", 5, "1.1"},
    {"Opera/9.80 (Windows NT 6.1; WOW64) Presto/2.12.388 Version/12.18", 6, ""},
    {"Opera/9.25 (Windows NT 6.0; U; en)", 6, ""},
    {"Mozilla/5.0 (compatible; Googlebot/2.1; +http://www.google.com/bot.html)", 6, ""},
    {"Mozilla/5.0 (compatible; bingbot/2.0; +http://www.bing.com/bingbot.htm)", 6, ""},
    {"curl/7.88.1", 6, ""},
    {"Wget/1.21.3", 6, ""},
    {"python-requests/2.31.0", 6, ""},
    {"Lynx/2.8.9rel.1 libwww-FM/2.14 SSL-MM/1.4.1", 6, ""},
    {"Links (2.25; Linux x86_64; GNU C 10.2; text)", 6, ""},
    {"w3m/0.5.3+git20210102", 6, ""},
    {"Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/538.1 (KHTML, like Gecko) konqueror/5.0", 6, ""},
    {"Mozilla/5.0 (PLAYSTATION 3; 1.00)", 6, ""},
    {"Mozilla/4.0 (compatible)", 6, ""},
    {"Microsoft Office Protocol Discovery", 6, ""},
    {"", 6, ""},
    {"Mozilla/5.0", 6, ""},
    {"xMSIE-and-Chrome/5", 1, "5"},
    {"Safari Version/ 3 Safari/9", 3, "3"},
    {"Chrome99Safari", 4, "99"},
    {"msie 6.0", 6, ""},
    {"Firefox/1..2.", 2, "1..2."}};

_tag_vemo_browser_info_ Unset() {
  _tag_vemo_browser_info_ info;
  std::memset(&info, 'x', sizeof info);
  info.version[31] = '\0';
  return info;
}

int Ask(const std::string& agent, _tag_vemo_browser_info_& info) {
  setenv("HTTP_USER_AGENT", agent.c_str(), 1);
  WebMan request(false);
  return request.GetBrowserInfo(&info);
}

TEST(Browser, RealOnes) {
  WebMan request(false);
  for (const Row& row : kAgents) {
    _tag_vemo_browser_info_ info = Unset();
    setenv("HTTP_USER_AGENT", row.agent, 1);
    EXPECT_EQ(request.GetBrowserInfo(&info), 0) << row.agent;
    EXPECT_EQ(info.type, row.type) << row.agent;
    EXPECT_STREQ(info.version, row.version) << row.agent;
  }
}

TEST(Browser, NoneIsNamed) {
  unsetenv("HTTP_USER_AGENT");
  _tag_vemo_browser_info_ info = Unset(), before = Unset();
  WebMan request(false);
  EXPECT_EQ(request.GetBrowserInfo(&info), 0);
  EXPECT_EQ(info.type, 7);
  EXPECT_EQ(std::memcmp(info.version, before.version, sizeof info.version), 0);  // left as it was
  EXPECT_EQ(request.GetBrowserInfo(nullptr), -1);
}

TEST(Browser, WithoutAVersionItIsNotSupported) {
  support::Syslog log;
  for (const char* agent : {"Mozilla MSIE", "Firefox/", "Chrome/x", "Safari", "Version/ Safari",
                            "facebookexternalhit"}) {
    _tag_vemo_browser_info_ info = Unset();
    EXPECT_EQ(Ask(agent, info), -1) << agent;
    EXPECT_STREQ(info.version, "") << agent;
    const auto lines = log.TakeTexts();
    ASSERT_EQ(lines.size(), 1u) << agent;
    EXPECT_TRUE(std::regex_match(
        lines[0], std::regex("webman\\(\\d+\\): not supported browser type, USER_AGENT: .*")))
        << lines[0];
    EXPECT_EQ(lines[0].substr(lines[0].size() - std::strlen(agent)), agent);
  }
}

TEST(Browser, VersionsAreCutAt31Characters) {
  support::Syslog log;
  for (const size_t size : {30u, 31u, 32u, 33u, 500u}) {
    const std::string version = std::string(size - 2, '1') + ".2";
    _tag_vemo_browser_info_ info = Unset();
    EXPECT_EQ(Ask("Chrome/" + version + " x", info), size < 32 ? 0 : -1) << size;
    EXPECT_EQ(info.version, version.substr(0, 31)) << size;
    const auto lines = log.TakeTexts();
    ASSERT_EQ(lines.size(), size < 32 ? 0u : 1u) << size;
    if (size < 32) continue;
    EXPECT_TRUE(std::regex_match(
        lines[0],
        std::regex("webman\\(\\d+\\): version size not enough, USER_AGENT: Chrome/[1.]+2 x")))
        << lines[0];
  }
}

TEST(Browser, AnyBytesAreTold) {
  std::mt19937 random(5);
  WebMan request(false);
  for (int i = 0; i < 2000; i++) {
    std::string agent;
    for (size_t pieces = random() % 8; pieces > 0; pieces--) {
      static const char* const kPieces[] = {
          "MSIE",     "Firefox",     "Chrome",    "Safari",
          "Version/", "Trident/7.0", "Edge/12.0", "1.2.3",
          "\xff\xfe", "%n%s",        " ",         "999999999999999999999999999999999999"};
      agent += kPieces[random() % 12];
    }
    setenv("HTTP_USER_AGENT", agent.c_str(), 1);
    _tag_vemo_browser_info_ info = Unset();
    const int result = request.GetBrowserInfo(&info);
    EXPECT_TRUE(result == 0 || result == -1);
    EXPECT_TRUE(info.type >= 1 && info.type <= 6);
    EXPECT_LT(std::strlen(info.version), 32u);
  }
}

TEST(Browser, TheRuleOfStyleOfOldOnes) {
  const std::string rule = "img, .fixpng {behavior: url(\"/scripts/iepngfix.htc\");}";
  WebMan request(false);
  for (const auto& [agent, has] :
       {std::pair{"Mozilla/4.0 (compatible; MSIE 6.0; Windows NT 5.1)", true},
        {"Mozilla/4.0 (compatible; MSIE 5.5; Windows 98)", true},
        {"MSIE 6", true},
        {"MSIE 60", true},
        {"MSIE 5.0", false},
        {"MSIE 7.0", false},
        {"Chrome/6", false},
        {"", false}}) {
    setenv("HTTP_USER_AGENT", agent, 1);
    EXPECT_EQ(request.GetIEPNGFixStyle(), has ? rule : "") << agent;
  }
  unsetenv("HTTP_USER_AGENT");
  EXPECT_EQ(request.GetIEPNGFixStyle(), "");
}

}  // namespace
