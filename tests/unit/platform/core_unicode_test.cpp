// Texts compared without regard to case.
#include <gtest/gtest.h>
#include <vemo/core.h>

#include <cerrno>
#include <random>
#include <string>
#include <vector>

#include "cgi_accounts.h"

using namespace accounts;

namespace {

int Sign(int value) { return (value > 0) - (value < 0); }

int Compare(const std::string& a, const std::string& b) {
  const int result = Sign(VLIBCUnicodeUTF8StrCaseCmp(a.c_str(), b.c_str()));
  EXPECT_EQ(result, -Sign(VLIBCUnicodeUTF8StrCaseCmp(b.c_str(), a.c_str()))) << a << " " << b;
  return result;
}

TEST(UnicodeCase, TextsThatAreEqual) {
  const char* rows[][2] = {{"", ""},
                           {"abcXYZ09_", "ABCxyz09_"},
                           {"Äpfel", "äPFEL"},
                           {"ΣΊΣΥΦΟΣ", "σίσυφος"},  // final sigma
                           {"straße", "STRASSE"},
                           {"ﬁn", "FIN"},
                           {"ЖУК", "жук"},
                           {"\u212A", "k"},  // the sign of the kelvin
                           {"𐐀", "𐐨"},
                           {"日本", "日本"},
                           {"a\xff", "A\xff"}};
  for (const auto& row : rows)
    EXPECT_EQ(Compare(row[0], row[1]), 0) << row[0] << " " << row[1];
}

TEST(UnicodeCase, TextsInOrder) {
  const char* rows[][2] = {
      {"", "a"},
      {"a", "B"},
      {"A", "b"},
      {"a", "aa"},
      {"Z", "ä"},
      {"z", "日"},
      {"日", "日本"},
      {"ä", "Ö"},
      {"\uffff", "𐐀"},
      {"[", "a"},
      {"_a", "A"},  // before the small letters, not behind the capital ones
      {"\U0010FFFF", "\x80"},
      {"\x80", "\xff"},
      {"日", "\xe6\x97"},
      {"\xc3", "\xed\xa0\x80"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(Compare(row[0], row[1]), -1) << row[0] << " " << row[1];
}

// Each byte of what is no character stands for itself, beyond all characters.
TEST(UnicodeCase, BytesThatAreNoCharacter) {
  for (const char* text :
       {"\x80", "\xbf", "\xc0\xaf", "\xc1\xbf", "\xe0\x80\xaf", "\xed\xa0\x80", "\xf0\x80\x80\x80",
        "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xfe", "\xc3", "\xe6\x97", "\xf0\x9f\x98"}) {
    EXPECT_EQ(Compare("\U0010FFFF", text), -1);
    EXPECT_EQ(Compare(text, text), 0);
    EXPECT_EQ(Compare(std::string(text) + "a", std::string(text) + "A"), 0);
  }
}

TEST(UnicodeCase, AnyBytesAreInOneOrder) {
  std::mt19937 random(7);
  std::vector<std::string> texts;
  const std::vector<std::string> pieces = {"a",  "A", "s",        "S",    "ß",    "ẞ",
                                           "ä",  "Ä", "\xc3",     "\xa4", "\xff", "\xe6",
                                           "日", "𐐀", "\xf0\x9f", "İ",    "i̇"};
  for (int i = 0; i < 120; i++) {
    std::string text;
    for (size_t n = random() % 4; n > 0; n--)
      text += pieces[random() % pieces.size()];
    texts.push_back(text);
  }
  for (const auto& a : texts) {
    for (const auto& b : texts) {
      const int ab = Compare(a, b);
      for (const auto& c : texts) {
        const int bc = Sign(VLIBCUnicodeUTF8StrCaseCmp(b.c_str(), c.c_str()));
        const int ac = Sign(VLIBCUnicodeUTF8StrCaseCmp(a.c_str(), c.c_str()));
        if (ab > 0 || bc > 0) continue;
        ASSERT_EQ(ac, ab == 0 && bc == 0 ? 0 : -1) << a << ", " << b << ", " << c;
      }
    }
  }
}

TEST(UnicodeCase, NoTextIsAnEmptyOne) {
  EXPECT_EQ(VLIBCUnicodeUTF8StrCaseCmp(nullptr, nullptr), 0);
  EXPECT_EQ(Sign(VLIBCUnicodeUTF8StrCaseCmp(nullptr, "a")), -1);
  EXPECT_EQ(Sign(VLIBCUnicodeUTF8StrCaseCmp("a", nullptr)), 1);
}

TEST(UnicodeCase, WithoutTheLibraryCodePointsAreCompared) {
  Shell("find /lib /usr/lib -name 'libutf8proc.so*' -delete");
  errno = EBUSY;
  EXPECT_EQ(Compare("Äa", "Äb"), -1);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_EQ(Compare("Ä", "ä"), -1);
  EXPECT_EQ(Compare("A", "a"), 0);
}

TEST(UnicodeCase, TheLibraryIsOpenedForNamesThatAreNotAsciiOnly) {
  EXPECT_EQ(Compare("abc", "ABC"), 0);
  EXPECT_EQ(Read("/proc/self/maps").find("utf8proc"), std::string::npos);
  EXPECT_EQ(Compare("ä", "Ä"), 0);
  EXPECT_NE(Read("/proc/self/maps").find("utf8proc"), std::string::npos);
}

}  // namespace
