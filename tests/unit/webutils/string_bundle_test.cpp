// Localized texts of a module.
#include <gtest/gtest.h>
#include <webutils/string_bundle.h>

#include <fstream>

#include "faults/faults.h"

namespace {

void WriteTexts(const std::string& module, const std::string& language, const std::string& text) {
  const std::string directory = "/usr/vemo/vemoman/" + module + "/texts/" + language;
  ASSERT_EQ(system(("mkdir -p " + directory).c_str()), 0);
  std::ofstream(directory + "/strings") << text;
}

class StringBundleTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(system("mkdir -p /etc.defaults; rm -rf /usr/vemo/vemoman; echo > /etc/vemoinfo.conf"),
              0);
    std::ofstream("/etc.defaults/vemoinfo.conf") << "product=\"CS100\"\n";
    WriteTexts("webman", "enu",
               "[common]\nok = \"OK\"\nhello = \"Welcome to _CRATESERVER_ (%OSNAME%)\"\n"
               "only_here = english\n[error]\nbad = \"Bad\"\nscript = \"a'b</script>\\\"\n");
    WriteTexts("webman", "ger", "[common]\nok = \"Gut\"\n[error]\nbad = \"Schlecht\"\n");
    unsetenv("HTTP_COOKIE");
    unsetenv("HTTP_ACCEPT_LANGUAGE");
  }
};

TEST_F(StringBundleTest, GivesTheTextsOfItsSections) {
  StringBundle texts("common", nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_STREQ(texts.Text("ok", ""), "OK");
  EXPECT_STREQ(texts.Text("bad", ""), "");
  EXPECT_STREQ(texts.Text("bad", "instead"), "instead");
  StringBundle both("common", "error", nullptr, nullptr, nullptr, nullptr);
  EXPECT_STREQ(both.Text("bad", ""), "Bad");
}

TEST_F(StringBundleTest, FillsTheNamesInAndWritesThemBack) {
  StringBundle texts("common", nullptr, nullptr, nullptr, nullptr, nullptr);
  int written = 0;
  faults::hooks.VLIBCSzHashSetValue = [&](VEMOSZHASH* hash, const char* key, const char* value) {
    EXPECT_EQ(hash, texts.texts);
    EXPECT_STREQ(key, "hello");
    EXPECT_STREQ(value, "Welcome to CS100 (ZEM)");
    ++written;
    faults::hooks.VLIBCSzHashSetValue = nullptr;
    return VLIBCSzHashSetValue(hash, key, value);
  };
  EXPECT_STREQ(texts.Text("hello", ""), "Welcome to CS100 (ZEM)");
  EXPECT_EQ(written, 1);
  EXPECT_STREQ(VLIBCSzHashGetValue(texts.texts, "hello"), "Welcome to CS100 (ZEM)");
}

TEST_F(StringBundleTest, TextsAreThereFromTheStart) {
  StringBundle texts("common", nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_STREQ(VLIBCSzHashGetValue(texts.texts, "ok"), "OK");
}

TEST_F(StringBundleTest, ATextForScriptsIsWrittenBackUnescaped) {
  WriteTexts("webman", "enu", "[common]\nhello = \"_OSNAME_'s\"\n");
  StringBundle texts("common", nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_STREQ(texts.TextJscript("hello", ""), "ZEM\\'s");
  EXPECT_STREQ(VLIBCSzHashGetValue(texts.texts, "hello"), "ZEM's");
}

TEST_F(StringBundleTest, TheTextGivenInsteadIsFilledInToo) {
  StringBundle texts("common", nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_STREQ(texts.Text("none", "%OSNAME%"), "ZEM");
  EXPECT_STREQ(texts.TextJscript("none2", "_CRATESERVER_"), "CS100");
}

TEST_F(StringBundleTest, SixSectionsEachInItsSlot) {
  std::string file;
  for (const char* section : {"s1", "s2", "s3", "s4", "s5", "s6"})
    file += std::string("[") + section + "]\nkey_" + section + " = " + section + "\n";
  WriteTexts("webman", "enu", file);
  StringBundle texts("s1", "s2", "s3", "s4", "s5", "s6");
  for (const char* section : {"s1", "s2", "s3", "s4", "s5", "s6"})
    EXPECT_STREQ(texts.Text((std::string("key_") + section).c_str(), ""), section);
  EXPECT_EQ(texts.LoadText(), 6);
  texts.CacheParams(nullptr, nullptr, nullptr, "", nullptr, nullptr);
  EXPECT_EQ(texts.LoadText(), 3);  // an empty name empties its slot, and ends the list
  texts.CacheParams(nullptr, nullptr, nullptr, "s6", nullptr, nullptr);
  EXPECT_EQ(texts.LoadText(), 6);  // the others have stayed
}

TEST_F(StringBundleTest, OfSeveralSectionsTheOneNamedFirstCounts) {
  std::string file;
  for (int section = 1; section <= 6; ++section) {
    file += "[s" + std::to_string(section) + "]\n";
    for (int key = 1; key <= section; ++key)
      file += "from" + std::to_string(key) + " = s" + std::to_string(section) + "\n";
  }
  WriteTexts("webman", "enu", file);
  StringBundle named("s1", "s2", "s3", "s4", "s5", "s6");
  StringBundle kept(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  for (int i = 1; i <= 6; ++i) {
    const std::string key = "from" + std::to_string(i), text = "s" + std::to_string(i);
    EXPECT_EQ(VLIBCSzHashGetValue(named.texts, key.c_str()), text);
    EXPECT_EQ(kept.Text(key.c_str(), ""), text);
  }
}

TEST_F(StringBundleTest, ATextWithoutPlaceholdersIsNotWrittenBack) {
  StringBundle texts("common", nullptr, nullptr, nullptr, nullptr, nullptr);
  faults::hooks.VLIBCSzHashSetValue = [](auto...) {
    ADD_FAILURE() << "written back";
    return 0;
  };
  EXPECT_STREQ(texts.Text("ok", ""), "OK");
  EXPECT_STREQ(texts.TextJscript("ok", ""), "OK");
}

TEST_F(StringBundleTest, EscapesForScripts) {
  StringBundle texts("error", nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_STREQ(texts.TextJscript("script", ""), "a\\'b\\u003c/script\\u003e\\\\");
  StringBundle common("common", nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_STREQ(common.TextJscript("hello", ""), "Welcome to CS100 (ZEM)");
}

TEST_F(StringBundleTest, TheLanguageIsTheRequests) {
  setenv("HTTP_COOKIE", "lang=ger", 1);
  StringBundle texts("common", "error", nullptr, nullptr, nullptr, nullptr);
  EXPECT_STREQ(texts.Text("ok", ""), "Gut");
  EXPECT_STREQ(texts.Text("only_here", ""), "english");  // what is missing comes from English
}

TEST_F(StringBundleTest, EachModuleHasItsDirectory) {
  const char* modules[] = {"webman", "media", "fetch", "webfm", "camera", "scripts", "backup"};
  for (const char* module : modules) {
    WriteTexts(module, "enu", std::string("[m]\nwho = ") + module + "\n");
  }
  for (int i = 0; i < 7; ++i) {
    StringBundle texts(static_cast<StringBundle::STRMODULE>(i), "m", nullptr, nullptr, nullptr,
                       nullptr, nullptr);
    EXPECT_STREQ(texts.Text("who", ""), modules[i]);
  }
  for (const int other : {7, 9, -1}) {
    StringBundle texts(static_cast<StringBundle::STRMODULE>(other), "m", nullptr, nullptr, nullptr,
                       nullptr, nullptr);
    EXPECT_STREQ(texts.Text("who", ""), "webman") << other;
  }
}

TEST_F(StringBundleTest, AnEarlierBundlesNamesStayInTheirSlots) {
  StringBundle first("common", "error", nullptr, nullptr, nullptr, nullptr);
  StringBundle second("common", nullptr, nullptr, nullptr, nullptr, nullptr);
  // The second slot still says "error": the bundle loads it when it is asked.
  EXPECT_STREQ(second.Text("bad", ""), "Bad");
  EXPECT_EQ(second.LoadText(), 2);
}

TEST_F(StringBundleTest, AnEmptyFirstSlotEndsTheList) {
  StringBundle texts(nullptr, "common", nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(texts.LoadText(), 0);
  EXPECT_STREQ(texts.Text("ok", "-"), "-");
}

TEST_F(StringBundleTest, ASectionNameHas63Bytes) {
  const std::string longest(63, 's');
  WriteTexts("webman", "enu", "[" + longest + "]\nok = yes\n");
  StringBundle texts(longest.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_STREQ(texts.Text("ok", ""), "yes");
  const std::string longer(64, 's');
  EXPECT_EXIT(StringBundle(longer.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr),
              testing::KilledBySignal(SIGABRT), "");
  EXPECT_EXIT(texts.CacheParams(nullptr, nullptr, nullptr, nullptr, nullptr, longer.c_str()),
              testing::KilledBySignal(SIGABRT), "");
}

TEST_F(StringBundleTest, AChangedFileIsSeenByTheNextText) {
  StringBundle texts("common", nullptr, nullptr, nullptr, nullptr, nullptr);
  const char* before = texts.Text("ok", "");
  EXPECT_STREQ(before, "OK");
  WriteTexts("webman", "enu", "[common]\nok = KO\n");
  EXPECT_STREQ(texts.Text("ok", ""), "KO");
  EXPECT_STREQ(texts.Text("hello", "gone"), "gone");
  EXPECT_STREQ(before, "OK");  // what was handed out stays good
}

TEST_F(StringBundleTest, WithoutFilesThereAreNoTexts) {
  ASSERT_EQ(system("rm -rf /usr/vemo/vemoman"), 0);
  StringBundle texts("common", nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(texts.LoadText(), 0);
  EXPECT_STREQ(texts.Text("ok", ""), "");
  EXPECT_STREQ(texts.Text("ok", nullptr), "");
}

}  // namespace
