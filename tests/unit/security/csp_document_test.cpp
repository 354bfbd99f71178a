// Documents of rules: which are, which are not, and the pattern of sources.
#include <gtest/gtest.h>
#include <security/csp_rule.h>
#include <sys/resource.h>

#include <chrono>
#include <regex>

#include "common/json.h"
#include "support/syslog.h"

using VEMO::ZEM::CspRule;

namespace {

bool IsSource(const std::string& source) {
  static const std::string name = "any";
  return CspRule(name, false).IsValidUrl("img-src", source);
}

TEST(Source, FitsThePatternAsItIsWritten) {
  const std::string passes[] = {"a.b",
                                "https://*.a.b/path",
                                "wss://a.b",
                                "ws:a.b",
                                "http:a.b",
                                "http:",
                                "https:",
                                "https://",
                                "*.a.b",
                                "-.a.b",
                                "*.-.a.b",
                                "a.b:80",
                                "a.b//x",
                                "a.b/x/",
                                "a.b/x/y",
                                "127.0.0.1:8766",
                                "a.b;script-src",
                                "a.b;",
                                "a.b/x;script-src",
                                "a.b,default-src",
                                "b\xc3\xbc"
                                "cher.example",
                                std::string("a.b\0c", 5),
                                "a.b\x01",
                                "a.b\x7f",
                                "A.B",
                                "a-b.c",
                                "a.b/'x'",
                                "//a.b" + std::string()};
  for (const std::string& source : passes) {
    if (source == "//a.b") continue;
    EXPECT_TRUE(IsSource(source)) << source;
  }
  const std::string fails[] = {"",
                               "a",
                               "localhost",
                               "a.b/ x",
                               "a b.c",
                               "a.b/",
                               "a.b?",
                               "a.b#",
                               "a.b/x?y",
                               "a.b/*",
                               "'self'",
                               "'none'",
                               "data:",
                               "blob:",
                               "*",
                               "{HOSTNAME}:5000",
                               "a(b.c",
                               "a.b'x",
                               "*.*.c",
                               "*.com",
                               "[::1]:80",
                               "a.b:*",
                               "a.b\n",
                               "\na.b",
                               "a..b",
                               ".a.b",
                               "a.b.",
                               "ftp://a.b",
                               "http//a.b",
                               "//a.b",
                               "https:///a.b",
                               " a.b",
                               "a.b ",
                               "a.b\t",
                               "a%b.c",
                               "a$b.c",
                               "a&b.c",
                               "a)b.c",
                               "a\"b.c."};
  for (const std::string& source : fails)
    EXPECT_FALSE(IsSource(source)) << source;
}

std::string Chain(size_t size) {
  std::string chain;
  while (chain.size() + 1 < size)
    chain += "a.";
  return chain + (chain.size() < size ? "a" : "");
}

TEST(Source, EveryInputGetsAnAnswer) {
  EXPECT_TRUE(IsSource(Chain(1001)));
  EXPECT_TRUE(IsSource(Chain(16001)));
  EXPECT_TRUE(IsSource(Chain(16383)));
  EXPECT_FALSE(IsSource(Chain(16501)));
  EXPECT_FALSE(IsSource(Chain(20001)));
  EXPECT_FALSE(IsSource(Chain(200001)));
  EXPECT_FALSE(IsSource(Chain(5000001)));
  // What needs no depth is judged at any length.
  EXPECT_TRUE(IsSource("a.b/" + std::string(1000000, 'x')));
  EXPECT_TRUE(IsSource(std::string(1000000, 'x') + ".b"));
}

TEST(Source, TimeIsBounded) {
  const auto start = std::chrono::steady_clock::now();
  for (const char* unit : {"/", ".a", "a.", "a./", "/a", "*.", "-.", "http:", "a.b/"}) {
    for (const size_t size : {100u, 10000u, 200000u}) {
      std::string source = "a.b";
      while (source.size() < size)
        source += unit;
      IsSource(source);
      IsSource(source + "?");
      IsSource(source + " ");
    }
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

TEST(Source, ASmallStackIsEnough) {
  rlimit limit = {1 << 20, 1 << 20};
  ASSERT_EQ(setrlimit(RLIMIT_STACK, &limit), 0);
  EXPECT_TRUE(IsSource(Chain(801)));
  EXPECT_FALSE(IsSource(Chain(200001)));
}

TEST(Source, TheLimitOfTheStackIsPutBack) {
  rlimit before, after;
  getrlimit(RLIMIT_STACK, &before);
  IsSource("a.b");
  getrlimit(RLIMIT_STACK, &after);
  EXPECT_EQ(before.rlim_cur, after.rlim_cur);
  EXPECT_EQ(before.rlim_max, after.rlim_max);
}

// Whether it is a document, and what was logged, without the line numbers.
std::pair<bool, std::vector<std::string>> Judge(const std::string& text) {
  support::Syslog log;
  Json::Value document;
  EXPECT_TRUE(zem::ParseJson(text.data(), text.size(), zem::JsonComments::kSkip, document)) << text;
  errno = 0;
  const bool good = CspRule::IsValidConf(document);
  std::vector<std::string> texts;
  for (const std::string& line : log.TakeTexts())
    texts.push_back(std::regex_replace(line, std::regex("^csp_rule:[0-9]+ "), ""));
  return {good, texts};
}

TEST(Document, GoodOnesAreSilent) {
  const char* rows[] = {
      R"({"rule": {}})",
      R"({"rule": {"img-src": []}})",
      R"({"rule": {"img-src": ["a.b", "https://c.d"]}, "more": 1})",
      R"({"rule": {"base-uri": ["a.b"], "child-src": ["a.b"], "connect-src": ["a.b"], "font-src": ["a.b"],
          "form-action": ["a.b"], "frame-ancestors": ["a.b"], "frame-src": ["a.b"], "img-src": ["a.b"],
          "media-src": ["a.b"], "object-src": ["a.b"], "script-src": ["a.b"], "style-src": ["a.b"]}})",
      R"({"rule": {"img-src": [1.5]}})",  // numbers count as their text
      R"({"rule-standalone": []})",
      R"({"rule-standalone": {"jsid": "P", "rule": {}}})",
      R"({"rule-standalone": [{"jsid": "P", "wildcard": ["img-src"]}]})",
      R"({"rule-standalone": {"jsid": "", "wildcard": []}})",
      R"({"rule-standalone": {"jsid": "..", "rule": {"img-src": ["'self'", "data:", ""]}}})",
  };
  for (const char* row : rows) {
    const auto [good, texts] = Judge(row);
    EXPECT_TRUE(good) << row;
    EXPECT_TRUE(texts.empty()) << row;
  }
}

TEST(Document, BadOnesSayWhy) {
  const std::string object = "Failed [!jsConf.isObject()], err=Success";
  const std::string old = "need either rule or rule-standalone in config!(old-style config?)";
  const std::string list = "Failed [!jsURLs.isArray()], err=Success";
  const std::string jsid =
      "Failed [!jsStandaloneRule.isMember(JSID) || !jsStandaloneRule[JSID].isString()], "
      "err=Success";
  const std::string slash =
      "Failed [string::npos != jsStandaloneRule[JSID].asString().find(\"/\")], err=Success";
  const std::string neither =
      "Failed [!jsStandaloneRule.isMember(RULE) && !jsStandaloneRule.isMember(WILDCARD)], "
      "err=Success";
  const std::string wild = "Failed [!jsStandaloneRule[WILDCARD].isArray()], err=Success";
  const std::string text = "standalone wildcard needs to be string (ex: img-src)";
  const struct {
    const char* document;
    std::string message;
  } rows[] = {
      {"[]", object},
      {"1", object},
      {"null", object},
      {"\"rule\"", object},
      {"{}", old},
      {R"({"img-src": ["a.b"]})", old},
      {R"({"rule": {"img": []}})", "error key img"},
      {R"({"rule": {"IMG-SRC": []}})", "error key IMG-SRC"},
      {R"({"rule": {"default-src": []}})", "error key default-src"},
      {R"({"rule": {"img-src": "a.b"}})", list},
      {R"({"rule": {"img-src": {}}})", list},
      {R"({"rule": {"img-src": null}})", list},
      {R"({"rule": {"img-src": ["a.b", "a"]}})", "error url \"a\""},
      {R"({"rule": {"img-src": [""]}})", "error url \"\""},
      {R"({"rule": {"img-src": [null]}})", "error url \"\""},
      {R"({"rule": {"img-src": [["a.b"]]}})", "error url \"\""},
      {R"({"rule": {"img-src": [{"a": "a.b"}]}})", "error url \"\""},
      {R"({"rule": {"img-src": [true]}})", "error url \"true\""},
      {R"({"rule": {"img-src": [5]}})", "error url \"5\""},
      {R"({"rule": []})", "Failed [!jsRule.isObject()], err=Success"},
      {R"({"rule": "x"})", "Failed [!jsRule.isObject()], err=Success"},
      {R"({"rule": null})", "Failed [!jsRule.isObject()], err=Success"},
      {R"({"rule-standalone": 1})", jsid},
      {R"({"rule-standalone": null})", jsid},
      {R"({"rule-standalone": {}})", jsid},
      {R"({"rule-standalone": {"jsid": 1, "rule": {}}})", jsid},
      {R"({"rule-standalone": ["x"]})", jsid},
      {R"({"rule-standalone": {"jsid": "a/b", "rule": {}}})", slash},
      {R"({"rule-standalone": {"jsid": "P"}})", neither},
      {R"({"rule-standalone": {"jsid": "P", "rule": {"x": []}}})", "error key x"},
      {R"({"rule-standalone": {"jsid": "P", "rule": {"img-src": 1}}})", list},
      {R"({"rule-standalone": {"jsid": "P", "wildcard": "img-src"}})", wild},
      {R"({"rule-standalone": {"jsid": "P", "wildcard": {}}})", wild},
      {R"({"rule-standalone": {"jsid": "P", "wildcard": [1]}})", text},
      {R"({"rule-standalone": {"jsid": "P", "wildcard": ["img"]}})", "error key img"},
      {R"({"rule-standalone": {"jsid": "P", "wildcard": ["script-src"]}})",
       "error key script-src, forbidded to be wildcard!"},
      // The first fault ends it.
      {R"({"rule": {"a": [], "img-src": 1}, "rule-standalone": 1})", "error key a"},
      {R"({"rule-standalone": [{"jsid": "P"}, {}]})", neither},
  };
  for (const auto& row : rows) {
    const auto [good, texts] = Judge(row.document);
    EXPECT_FALSE(good) << row.document;
    EXPECT_EQ(texts, std::vector<std::string>{row.message}) << row.document;
  }
}

}  // namespace
