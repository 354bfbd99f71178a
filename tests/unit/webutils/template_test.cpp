// Value templates.
#include <gtest/gtest.h>
#include <json/value.h>
#include <webutils/template.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "common/json.h"

namespace {

Json::Value Values(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(zem::ParseJson(text.data(), text.size(), zem::JsonComments::kSkip, value)) << text;
  return value;
}

std::string Fill(const std::string& text, const std::string& values) {
  return WebUtils::Template(text.c_str()).ApplyValues(Values(values));
}

TEST(Template, NamesInBracesAreReplaced) {
  struct Row {
    const char *text, *values, *result;
  };
  for (const Row& row :
       {Row{"Hello {user}, {unknown}!", R"({"user": "ann"})", "Hello ann, {unknown}!"},
        {"{{user}}", R"({"user": "x"})", "{x}"},
        {"{user}", R"({"user": "{user}"})", "{user}"},
        {"{a}{b}", R"({"a": "{b}", "b": "2"})", "{b}2"},
        {"", R"({"a": "1"})", ""},
        {"{}", R"({"": "x"})", "{}"},
        {"{a", R"({"a": "1"})", "{a"},
        {"a}", R"({"a": "1"})", "a}"},
        {"{a b}", R"({"a b": "1"})", "1"},
        {"{a\nb}", R"({"a\nb": "1"})", "1"},
        {"{a{b}c}", R"({"b": "1"})", "{a1c}"},
        {"{a\\b}", R"({"a\\b": "1"})", "{a\\b}"},  // a backslash makes it none
        {"\\{a}", R"({"a": "1"})", "\\1"},
        {"x{a}y{a}z", R"({"a": ""})", "xyz"},
        {"{\xc3\xa4}", R"({"ä": "1"})", "1"},
        {"no place", "{}", "no place"}}) {
    EXPECT_EQ(Fill(row.text, row.values), row.result) << row.text;
  }
}

TEST(Template, ValuesOfEveryKind) {
  const std::string values =
      R"({"n": null, "t": true, "f": false, "i": -5, "u": 18446744073709551615, "d": 1.5, "s": "x",
                                 "a": [1], "o": {"x": 1}, "ea": [], "eo": {}})";
  const std::vector<std::pair<const char*, const char*>> rows = {{"{n}", ""},
                                                                 {"{t}", "true"},
                                                                 {"{f}", "false"},
                                                                 {"{i}", "-5"},
                                                                 {"{u}", "18446744073709551615"},
                                                                 {"{d}", "1.5"},
                                                                 {"{s}", "x"},
                                                                 {"{a}", ""},
                                                                 {"{o}", ""},
                                                                 {"{ea}", ""},
                                                                 {"{eo}", ""}};
  for (const auto& [text, result] : rows)
    EXPECT_EQ(Fill(text, values), result) << text;
  for (const char* other : {"[]", "[1]", "null", "1", "\"x\"", "true"})
    EXPECT_EQ(Fill("{a}", other), "{a}") << other;
}

TEST(Template, LongNamesCountByTheirStart) {
  for (const size_t size : {127u, 128u, 129u, 1000u}) {
    const std::string name(size, 'n'), key(std::min<size_t>(size, 128), 'n');
    Json::Value values;
    values[key] = "found";
    EXPECT_EQ(WebUtils::Template(("<{" + name + "}>").c_str()).ApplyValues(values), "<found>")
        << size;
  }
  Json::Value values;
  values[std::string(129, 'n')] = "found";
  const std::string text = "{" + std::string(129, 'n') + "}";
  EXPECT_EQ(WebUtils::Template(text.c_str()).ApplyValues(values), text);
}

TEST(Template, AStreamIsReadToItsEnd) {
  WebUtils::Template filled("before");
  for (const size_t size : {0u, 1u, 2046u, 2047u, 2048u, 2049u, 100000u}) {
    FILE* stream = tmpfile();
    const std::string text = std::string(size, 'x') + "{a}\n" + std::string(size, 'y');
    fwrite(text.data(), 1, text.size(), stream);
    rewind(stream);
    filled.ReadFromStream(stream);
    EXPECT_EQ(ftell(stream), static_cast<long>(text.size()));
    fclose(stream);  // still ours
    EXPECT_EQ(filled.ApplyValues(Values(R"({"a": "1"})")),
              std::string(size, 'x') + "1\n" + std::string(size, 'y'));
  }
}

TEST(Template, EmptyOnesAndNull) {
  EXPECT_EQ(WebUtils::Template().ApplyValues(Values("{}")), "");
  EXPECT_EQ(WebUtils::Template(nullptr).ApplyValues(Values("{}")), "");
  WebUtils::Template again("{a}");
  EXPECT_EQ(again.InitTemplate(), 0);
  EXPECT_EQ(again.ApplyValues(Values(R"({"a": "1"})")), "1");
  EXPECT_EQ(again.ApplyValues(Values(R"({"a": "2"})")), "2");
}

double Seconds(const std::string& text) {
  WebUtils::Template filled(text.c_str());
  const Json::Value values = Values(R"({"a": "1"})");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(filled.ApplyValues(values).empty());
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Ten times the text takes about ten times as long; four times that would be the square's way.
TEST(Template, TimeGrowsWithTheText) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer measures the rest of the text at each search";
#endif
  std::string few, many;
  while (few.size() < (1 << 20))
    few += "some text around a {a} and {none} more ";
  for (int i = 0; i < 10; i++)
    many += few;
  const double one = std::min(Seconds(few), Seconds(few));
  EXPECT_LT(Seconds(many), 40 * one + 0.1);
  EXPECT_LT(Seconds(std::string(1 << 20, '{')), 40 * one + 1);
}

}  // namespace
