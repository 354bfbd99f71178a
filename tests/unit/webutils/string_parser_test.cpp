// The product's names in texts.
#include <gtest/gtest.h>
#include <unistd.h>
#include <webutils/string_parser.h>

#include <fstream>

#include "faults/faults.h"

namespace {

using VEMO::KTR::StringParser;

TEST(ReplaceString, ReplacesEveryOccurrenceOnce) {
  const struct {
    const char *text, *pattern, *value, *result;
  } rows[] = {
      {"", "a", "b", ""},       {"aaa", "a", "b", "bbb"},        {"aaa", "a", "aa", "aaaaaa"},
      {"aaa", "aa", "b", "ba"}, {"abc", "x", "y", "abc"},        {"abc", "", "y", "abc"},
      {"abab", "ab", "", ""},   {"a.b.c", ".", "..", "a..b..c"}, {"abc", "abc", "abcabc", "abcabc"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(StringParser::ReplaceString(row.text, row.pattern, row.value), row.result);
  }
}

void WriteDefaults(const std::string& text) {
  ASSERT_EQ(system("mkdir -p /etc.defaults"), 0);
  std::ofstream("/etc.defaults/vemoinfo.conf") << text;
}

TEST(ReplaceStringText, FillsBothNamesIn) {
  WriteDefaults("product=\"CS100\"\n");
  EXPECT_EQ(StringParser::ReplaceStringText("Welcome to _CRATESERVER_ (%OSNAME%)"),
            "Welcome to CS100 (ZEM)");
  EXPECT_EQ(StringParser::ReplaceStringText("%CRATESERVER%_OSNAME__OSNAME_"), "CS100ZEMZEM");
  EXPECT_EQ(StringParser::ReplaceStringText("nothing"), "nothing");
  EXPECT_EQ(StringParser::ReplaceStringText("%crateserver% _OSNAME"), "%crateserver% _OSNAME");
}

TEST(ReplaceStringText, AMissingFileGivesTheDefaults) {
  unlink("/etc.defaults/vemoinfo.conf");
  EXPECT_EQ(StringParser::ReplaceStringText("_CRATESERVER_/_OSNAME_"), "CrateServer/ZEM");
}

TEST(ReplaceStringText, TheOrderIsFixed) {
  // What an earlier placeholder brings in is seen by the later ones, and not again.
  WriteDefaults("product=\"_CRATESERVER_%CRATESERVER%_OSNAME_\"\nos_name=\"%OSNAME%\"\n");
  EXPECT_EQ(StringParser::ReplaceStringText("_CRATESERVER_"),
            "_CRATESERVER__CRATESERVER_%CRATESERVER%%OSNAME%%OSNAME%");
}

TEST(ReplaceStringText, NamesAreReadOnce) {
  WriteDefaults("product=\"one\"\nos_name=\"first\"\n");
  EXPECT_EQ(StringParser::ReplaceStringText("_CRATESERVER_ _OSNAME_"), "one first");
  WriteDefaults("product=\"two\"\nos_name=\"second\"\n");
  EXPECT_EQ(StringParser::ReplaceStringText("_CRATESERVER_ _OSNAME_"), "one first");
}

TEST(ReplaceStringText, AnEmptyNameIsAName) {
  WriteDefaults("product=\"\"\n");
  EXPECT_EQ(StringParser::ReplaceStringText("[_CRATESERVER_]"), "[]");
}

TEST(ReplaceStringText, ANameIsCutAt1023Bytes) {
  WriteDefaults("product=\"" + std::string(1024, 'p') + "\"\nos_name=\"" + std::string(1023, 'o') +
                "\"\n");
  EXPECT_EQ(StringParser::ReplaceStringText("_CRATESERVER_"), std::string(1023, 'p'));
  EXPECT_EQ(StringParser::ReplaceStringText("_OSNAME_"), std::string(1023, 'o'));
}

TEST(ReplaceStringText, AnyAnswerBelowOneIsNoName) {
  faults::hooks.VLIBCFileGetKeyValue = [](const char* file, const char*, char* buffer, int size) {
    EXPECT_STREQ(file, "/etc.defaults/vemoinfo.conf");
    EXPECT_EQ(size, 1024);
    buffer[0] = 'x';  // what was written before the failure does not count
    return 0;
  };
  EXPECT_EQ(StringParser::ReplaceStringText("_CRATESERVER_/_OSNAME_"), "CrateServer/ZEM");
}

}  // namespace
