// Text helpers: every example, every byte, and long texts.
#include <gtest/gtest.h>
#include <webutils/text.h>

#include <libgen.h>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

using namespace WebUtils;

namespace {

// As the rules are stated, a step after the other.
std::string SlowEncode(const std::string& text, bool spaces) {
  std::string out;
  for (const char c : text) {
    if (c == '&')
      out += "&amp;";
    else if (c == '<')
      out += "&lt;";
    else if (c == '>')
      out += "&gt;";
    else if (c == ' ' && spaces)
      out += "&nbsp;";
    else
      out += c;
  }
  return out;
}

std::string SlowQuotes(const std::string& text, bool spaces, bool quotes) {
  std::string out;
  for (const char c : SlowEncode(text, spaces)) {
    if (c == '"')
      out += "&quot;";
    else if (c == '\'' && quotes)
      out += "&#39;";
    else
      out += c;
  }
  return out;
}

std::string AllBytes() {
  std::string bytes;
  for (int c = 0; c < 256; c++)
    bytes += static_cast<char>(c);
  return bytes;
}

TEST(Text, HtmlIsEscaped) {
  EXPECT_EQ(EncodeHtml("a b<c>&", true), "a&nbsp;b&lt;c&gt;&amp;");
  EXPECT_EQ(EncodeHtml("a b<c>&", false), "a b&lt;c&gt;&amp;");
  EXPECT_EQ(EncodeHtml("", true), "");
  EXPECT_EQ(EncodeHtml("\"'", true), "\"'");
  EXPECT_EQ(EncodeHtml("&amp;", false), "&amp;amp;");
  EXPECT_EQ(EncodeHtmlAndQuotesEx("'\"", false, false), "'&quot;");
  EXPECT_EQ(EncodeHtmlAndQuotes("'"), "&#39;");
  EXPECT_EQ(EncodeHtmlAndQuotes("<a href=\"x\"> '"),
            "&lt;a&nbsp;href=&quot;x&quot;&gt;&nbsp;&#39;");
}

TEST(Text, EveryByteAndRandomTexts) {
  std::mt19937 random(1);
  std::vector<std::string> texts = {AllBytes()};
  for (int i = 0; i < 300; i++) {
    std::string text;
    for (size_t size = random() % 60; size > 0; size--)
      text += "&<>\"' ax\0\xff"[random() % 10];
    texts.push_back(text);
  }
  for (const std::string& text : texts) {
    for (const bool spaces : {false, true}) {
      EXPECT_EQ(EncodeHtml(text, spaces), SlowEncode(text, spaces));
      for (const bool quotes : {false, true})
        EXPECT_EQ(EncodeHtmlAndQuotesEx(text, spaces, quotes), SlowQuotes(text, spaces, quotes));
    }
  }
}

TEST(Text, LongTexts) {
  const std::string plain(10 << 20, 'x'), marks(10 << 20, '&');
  EXPECT_EQ(EncodeHtml(plain, true), plain);
  EXPECT_EQ(EncodeHtml(marks, true).size(), 5u * marks.size());
  EXPECT_EQ(StringLeftStrip(std::string(10 << 20, ' ')), "");
  EXPECT_EQ(StringExplode(std::string(1 << 20, ','), ",").size(), 0u);
  EXPECT_EQ(Hex2Bin(std::string(2 << 20, '4')), std::string(1 << 20, 'D'));
}

TEST(Text, HexadecimalPairs) {
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"", ""},
      {"4", ""},
      {"41424", "AB"},
      {"4142", "AB"},
      {"4z", "\x04"},
      {"zz", std::string(1, '\0')},
      {"aAfF", "\xaa\xff"},
      {" 4", "\x04"},
      {"-1", "\xff"},
      {"+f", "\x0f"},
      {"0x", std::string(1, '\0')},
      {std::string("4\0", 2), "\x04"},
      {"00ff", std::string("\0\xff", 2)}};
  for (const auto& [hex, bytes] : rows)
    EXPECT_EQ(Hex2Bin(hex), bytes) << hex;
  for (int a = 0; a < 256; a++) {
    for (int b = 0; b < 256; b++) {
      const char pair[] = {static_cast<char>(a), static_cast<char>(b), '\0'};
      const std::string text(pair, 2);
      ASSERT_EQ(Hex2Bin(text), std::string(1, static_cast<char>(std::strtol(pair, nullptr, 16))));
    }
  }
}

TEST(Text, PartsBetweenSeparators) {
  using List = std::vector<std::string>;
  EXPECT_EQ(StringExplode(",a,,b,", ","), (List{"a", "b"}));
  EXPECT_EQ(StringExplode("", ","), List{});
  EXPECT_EQ(StringExplode(",,", ","), List{});
  EXPECT_EQ(StringExplode("a b;c", "; "), (List{"a", "b", "c"}));
  EXPECT_EQ(StringExplode("abc", ""), List{"abc"});
  EXPECT_EQ(StringExplode("abc", "x"), List{"abc"});
  EXPECT_EQ(StringExplode(std::string("a,b\0,c", 6), ","), (List{"a", "b"}));
  EXPECT_EQ(StringImplode({}, ","), "");
  EXPECT_EQ(StringImplode({"a"}, ","), "a");
  EXPECT_EQ(StringImplode({"a", "", "b"}, ", "), "a, , b");
  EXPECT_EQ(StringImplode({"a", "b"}, ""), "ab");
}

TEST(Text, BlanksAtTheStart) {
  EXPECT_EQ(StringLeftStrip("\r x"), "\r x");
  EXPECT_EQ(StringLeftStrip(" \t\n x \n"), "x \n");
  EXPECT_EQ(StringLeftStrip(" \t\n"), "");
  EXPECT_EQ(StringLeftStrip(""), "");
  EXPECT_EQ(StringLeftStrip("\v x"), "\v x");
  for (int c = 0; c < 256; c++) {
    const std::string text = std::string(1, static_cast<char>(c)) + "x";
    EXPECT_EQ(StringLeftStrip(text), c == 32 || c == 9 || c == 10 ? "x" : text);
  }
}

TEST(Text, ExtensionsOfNames) {
  struct Row {
    const char* name;
    unsigned limit;
    const char* extension;  // null: none
  };
  for (const Row& row : {Row{".profile", 256, nullptr},
                         {"a.tar.gz", 256, "gz"},
                         {"a.", 256, nullptr},
                         {"a", 256, nullptr},
                         {"", 256, nullptr},
                         {"ab", 256, nullptr},
                         {".a", 256, nullptr},
                         {"a.b", 256, "b"},
                         {"a.b.", 256, nullptr},
                         {"..b", 256, "b"},
                         {"a.b", 0, "b"},
                         {"a.b", 1, "b"},
                         {"a.bc.de", 3, "bc.de"},
                         {"a.bc.de", 4, "de"},
                         {"a.bc.de", 7, "de"},
                         {"a.bc.de", 2, "bc.de"},
                         {"abc.de", 2, nullptr}}) {
    const char* found = GetFileExt(row.name, row.limit);
    if (row.extension == nullptr)
      EXPECT_EQ(found, nullptr) << row.name << row.limit;
    else
      EXPECT_STREQ(found, row.extension) << row.name << row.limit;
  }
  EXPECT_EQ(GetFileExt(nullptr, 256), nullptr);
  const char name[] = "x.yz";
  EXPECT_EQ(GetFileExt(name, 256), name + 2);
}

TEST(Text, WhetherAnExtensionIsTheNames) {
  EXPECT_FALSE(IsValidExtension(".jpg", ".jpg"));
  EXPECT_TRUE(IsValidExtension("A.JPG", ".jpg"));
  EXPECT_TRUE(IsValidExtension("a.jpg", ".JPG"));
  EXPECT_TRUE(IsValidExtension("ajpg", "jpg"));
  for (const auto& [name, extension] :
       std::vector<std::pair<const char*, const char*>>{{nullptr, ".jpg"},
                                                        {"a", nullptr},
                                                        {"", ".jpg"},
                                                        {"a.jpg", ""},
                                                        {"jpg", ".jpg"},
                                                        {"a.jpgx", ".jpg"}})
    EXPECT_FALSE(IsValidExtension(name, extension));
}

TEST(Text, Directories) {
  EXPECT_EQ(GetDirName("a/b/"), "a");
  EXPECT_EQ(GetDirName("file"), ".");
  EXPECT_EQ(GetDirName("/"), "/");
  EXPECT_EQ(GetDirName(nullptr), "");
  EXPECT_EQ(GetDirName(""), ".");
  for (const char* path : {"/a", "/a/b", "a//b", "//", "///a//", "..", "a/..", "."}) {
    std::string copy = path;
    EXPECT_EQ(GetDirName(path), dirname(copy.data())) << path;
  }
}

}  // namespace
