// Files of texts.
#include <ui_config/localized_string_parser.h>

#include "unit/ui_config/tree.h"

using namespace tree;
using VEMO::KTR::LocalizedStringParser;

namespace {

TEST(TrimString, CutsBothEndsAndOnePairOfQuotes) {
  const struct {
    const char *text, *result;
  } rows[] = {
      {"", ""},         {" \t\r\n", ""},      {" a b\t", "a b"},      {"\"a\"", "a"},
      {"\"\"", ""},     {"\"", "\""},         {"\"a", "\"a"},         {"a\"", "a\""},
      {"\"\"\"", "\""}, {" \" a \" ", " a "}, {"\"\"a\"\"", "\"a\""}, {"\\\"a\\\"", "\\\"a\\\""},
      {"'a'", "'a'"},   {"\v a", "\v a"}};
  for (const auto& row : rows) {
    std::string text = row.text;
    EXPECT_STREQ(LocalizedStringParser::TrimString(text.data()), row.result) << row.text;
  }
  EXPECT_EQ(LocalizedStringParser::TrimString(nullptr), nullptr);
}

TEST(ParseLine, EveryKindOfLine) {
  const struct {
    const char* line;
    const char* section;
    const char* key;
    const char* value;
  } rows[] = {
      {"", nullptr, nullptr, nullptr},
      {"  \r\n", nullptr, nullptr, nullptr},
      {"# a = b", nullptr, nullptr, nullptr},
      {"  # a = b", nullptr, nullptr, nullptr},
      {"[common]", "common", nullptr, nullptr},
      {" [ common ] ", " common ", nullptr, nullptr},
      {"[a]b]", "a]b", nullptr, nullptr},
      {"[a] = b", "a", nullptr, nullptr},
      {"[]", "", nullptr, nullptr},
      {"[a", nullptr, nullptr, nullptr},
      {"[a=b", nullptr, nullptr, nullptr},
      {"a = b", nullptr, "a", "b"},
      {"x = a=b", nullptr, "x", "a=b"},
      {"a=", nullptr, "a", ""},
      {"=a", nullptr, "", "a"},
      {"=", nullptr, "", ""},
      // The whole line loses a pair of quotes first.
      {"\"a\" = \"b c\"", nullptr, "a\"", "\"b c"},
      {"a = \"", nullptr, "a", "\""},
      {"a = \"b", nullptr, "a", "\"b"},
      {"\"a = b\"", nullptr, "a", "b"},
      {"words", nullptr, nullptr, nullptr},
      {"\xef\xbb\xbf[a]", "a", nullptr, nullptr},
      {"\xef\xbb\xbf a=b", nullptr, "a", "b"},
      {" \xef\xbb\xbf[a]", nullptr, nullptr, nullptr},
  };
  for (const auto& row : rows) {
    std::string line = row.line;
    char untouched[] = "x";
    char *section = untouched, *key = untouched, *value = untouched;
    LocalizedStringParser::ParseLine(line.data(), &section, &key, &value);
    EXPECT_STREQ(section, row.section) << row.line;
    EXPECT_STREQ(key, row.key) << row.line;
    EXPECT_STREQ(value, row.value) << row.line;
  }
}

TEST(ParseLine, ANullArgumentTouchesNothing) {
  char line[] = "a=b", untouched[] = "x";
  char *section = untouched, *key = untouched, *value = untouched;
  LocalizedStringParser::ParseLine(nullptr, &section, &key, &value);
  LocalizedStringParser::ParseLine(line, nullptr, &key, &value);
  LocalizedStringParser::ParseLine(line, &section, nullptr, &value);
  LocalizedStringParser::ParseLine(line, &section, &key, nullptr);
  EXPECT_EQ(section, untouched);
  EXPECT_EQ(key, untouched);
  EXPECT_EQ(value, untouched);
  EXPECT_STREQ(line, "a=b");
}

std::string Texts(const std::string& content) {
  Write("/run/texts/strings", content);
  return Text(LocalizedStringParser::ParseTexts("/run/texts"));
}

TEST(ParseTexts, SectionsAndPairs) {
  const struct {
    std::string text, result;
  } rows[] = {
      {"", "{}"},
      {"[common]\nok = \"OK\"\n", R"({"common":{"ok":"OK"}})"},
      {"a=b\n[c]\n", R"({"c":{}})"},
      {"[c]\na=1\na=2\n", R"({"c":{"a":"2"}})"},
      {"[c]\na=1\n[d]\n[c]\nb=2", R"({"c":{"b":"2"},"d":{}})"},
      {"\xef\xbb\xbf[c]\r\n\xef\xbb\xbfk = v\r\n", R"({"c":{"k":"v"}})"},
      {"[c]\n=empty\nk=\n", R"({"c":{"":"empty","k":""}})"},
      {std::string("[c]\na=1\0 2\nb=3\n", 16), R"({"c":{"a":"1","b":"3"}})"},
      {"[c]\n[d\nwords\n# c\nk=\\n\n", R"({"c":{"k":"\\n"}})"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(Texts(row.text), row.result) << row.text;
}

TEST(ParseTexts, NamesAreFilledIn) {
  Write("/etc.defaults/vemoinfo.conf", "product=\"CS100\"\n");
  EXPECT_EQ(Texts("[_OSNAME_]\n%OSNAME%=Welcome to _CRATESERVER_ (%OSNAME%)\n"),
            R"x({"_OSNAME_":{"%OSNAME%":"Welcome to CS100 (ZEM)"}})x");
}

TEST(ParseTexts, WithoutAFileThereAreNone) {
  ASSERT_EQ(
      system("rm -rf /run/texts; mkdir -p /run/texts/strings /run/fifo; mkfifo /run/fifo/strings"),
      0);
  for (const char* directory : {"/run/texts", "/run/fifo", "/run/none", ""})
    EXPECT_EQ(Text(LocalizedStringParser::ParseTexts(directory)), "{}") << directory;
  Write("/run/here/strings", "[a]\n");
  ASSERT_EQ(chdir("/run"), 0);
  EXPECT_EQ(Text(LocalizedStringParser::ParseTexts("here")), R"({"a":{}})");
}

TEST(ParseTexts, ALineMayBeLong) {
  const std::string value(100000000, 'x');
  Write("/run/texts/strings", "[a]\nk=" + value);
  const Json::Value texts = LocalizedStringParser::ParseTexts("/run/texts");
  EXPECT_EQ(texts["a"]["k"].asString().size(), value.size());
}

}  // namespace
