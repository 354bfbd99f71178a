// The registry: modules, their scripts and applications, and what is passed over.
#include <ui_config/js_config_parser.h>

#include "unit/ui_config/tree.h"

using namespace tree;
using VEMO::KTR::JSConfigParser;

namespace {

class Modules : public Tree {
 protected:
  JSConfigParser parser_;
};

TEST_F(Modules, NothingGivesNothing) {
  EXPECT_EQ(parser_.language, "enu");
  EXPECT_FALSE(parser_.debugMode);
  for (const Json::Value& registry :
       {parser_.GetJSConfigs(), parser_.GetAppConfig(), parser_.GetCSSFiles(), parser_.GetTexts(),
        parser_.GetGrantableApps()}) {
    EXPECT_TRUE(registry.isNull());
  }
  parser_.Parse(nullptr);
  EXPECT_TRUE(parser_.GetJSConfigs().isNull());
  EXPECT_EQ(Logged(), std::vector<std::string>());
}

TEST_F(Modules, AModuleIsRegistered) {
  Module("Foo", R"({"foo.js": {"VEMO.Foo.App": {"type": "app", "icon": "a.png", "texts": "texts"},
                              "VEMO.Foo.Part": {"x": [1]}}})");
  File("modules/Foo/foo.js");
  File("modules/Foo/style.css");
  File("modules/Foo/texts/enu/strings");
  parser_.Parse(nullptr);
  EXPECT_EQ(Text(parser_.GetJSConfigs()),
            R"({"modules/Foo/foo.js":{"VEMO.Foo.App":{"icon":"a.png","jsBaseURL":"modules/Foo",)"
            R"("jsID":"VEMO.Foo.App","texts":"texts","type":"app"},)"
            R"("VEMO.Foo.Part":{"jsBaseURL":"modules/Foo","jsID":"VEMO.Foo.Part","x":[1]}}})");
  EXPECT_EQ(Text(parser_.GetAppConfig()),
            R"({"VEMO.Foo.App":{"additionalCSSFiles":null,)"
            R"("css_file":{"modules/Foo/style.css":true},"icon":"a.png","jsBaseURL":"modules/Foo",)"
            R"("jsID":"VEMO.Foo.App","string_file":"modules/Foo/texts/enu","texts":"texts",)"
            R"("type":"app"}})");
  EXPECT_EQ(Text(parser_.GetTexts()), R"({"VEMO.Foo.App":"modules/Foo/texts/enu"})");
  EXPECT_TRUE(parser_.GetGrantableApps().isNull());
  EXPECT_EQ(Logged(), std::vector<std::string>());
}

TEST_F(Modules, PathsHaveThePrefixOfTheWalk) {
  Module("Foo", R"({"foo.js": {"A": {"type": "app", "texts": "t"}}})");
  File("modules/Foo/foo.js");
  File("modules/Foo/style.css");
  parser_.ParsePathFromVemoman(nullptr);
  EXPECT_EQ(Text(parser_.GetJSConfigs()),
            R"({"webman/modules/Foo/foo.js":{"A":{"jsBaseURL":"webman/modules/Foo","jsID":"A",)"
            R"("texts":"t","type":"app"}}})");
  EXPECT_EQ(Text(parser_.GetTexts()), R"({"A":"webman/modules/Foo/t/enu"})");
  // The stamp is the configuration's, and a path with "webman/" is looked for from the root.
  EXPECT_EQ(Text(parser_.GetCSSFiles()), R"(["webman/modules/Foo/style.css?v=100"])");
}

TEST_F(Modules, TheStampOfASheetIsFoundFromTheScript) {
  Module("Foo", "{}");
  File("modules/Foo/style.css");
  setenv("SCRIPT_FILENAME", "/usr/vemo/vemoman/webman/registry.cgi", 1);
  parser_.Parse(nullptr);
  EXPECT_EQ(Text(parser_.GetCSSFiles()), R"(["modules/Foo/style.css?v=100"])");
}

TEST_F(Modules, AStampThatCannotBeFoundIsNow) {
  Module("Foo", "{}");
  File("modules/Foo/style.css");
  setenv("SCRIPT_FILENAME", "/elsewhere/registry.cgi", 1);
  const long now = time(nullptr);
  parser_.Parse(nullptr);
  const std::string sheet = parser_.GetCSSFiles()[0].asString();
  EXPECT_NEAR(static_cast<double>(std::stol(sheet.substr(sheet.find('=') + 1))),
              static_cast<double>(now), 3);
}

TEST_F(Modules, EveryKindOfType) {
  const struct {
    const char* type;
    bool application;
  } rows[] = {
      {R"("app")", true},        {R"("standalone")", true},
      {R"("common_lib")", true}, {R"("App")", false},
      {R"("url")", false},       {R"("lib")", false},
      {R"("")", false},          {"1", false},
      {R"(["app"])", false},     {"null", false},
  };
  for (const auto& row : rows) {
    JSConfigParser parser;
    parser.RegisterJS("m", Parse(std::string(R"({".url": {"A": {"type": )") + row.type + "}}}"));
    EXPECT_EQ(parser.GetAppConfig().isMember("A"), row.application) << row.type;
    EXPECT_TRUE(parser.GetJSConfigs()["m/.url"].isMember("A"));
  }
}

TEST_F(Modules, EveryKindOfGrant) {
  const struct {
    const char *grant, *result;
  } rows[] = {
      {R"("all")", R"({"domain":["A"],"local":["A"]})"},
      {R"("local")", R"({"local":["A"]})"},
      {R"("domain")", R"({"domain":["A"]})"},
      {R"("ALL")", "null"},
      {R"("")", "null"},
      {"true", "null"},
      {R"(["all"])", "null"},
      {"{}", "null"},
      {"null", "null"},
  };
  for (const auto& row : rows) {
    JSConfigParser parser;
    parser.RegisterJS(
        "m", Parse(std::string(R"({".url": {"A": {"grantPrivilege": )") + row.grant + "}}}"));
    EXPECT_EQ(Text(parser.GetGrantableApps()), row.result) << row.grant;
  }
}

TEST_F(Modules, ScriptsMustBeThere) {
  Module("Foo", R"({"none.js": {"A": {}}, ".url": {"B": {}}, "foo.js": {"C": {}}})");
  File("modules/Foo/foo.js");
  parser_.Parse(nullptr);
  EXPECT_EQ(Text(parser_.GetJSConfigs()),
            R"({"modules/Foo/.url":{"B":{"jsBaseURL":"modules/Foo","jsID":"B"}},)"
            R"("modules/Foo/foo.js":{"C":{"jsBaseURL":"modules/Foo","jsID":"C"}}})");
  EXPECT_EQ(Logged(),
            std::vector<std::string>{"N Skip modules/Foo/none.js: No such file or directory."});
}

TEST_F(Modules, RightsAreTheEffectiveUsers) {
  Module("Foo", R"({"foo.js": {"C": {}}})");
  File("modules/Foo/foo.js");
  chmod((kRoot + "webman/modules/Foo/foo.js").c_str(), 0600);
  ASSERT_EQ(seteuid(65534), 0);
  parser_.Parse(nullptr);
  ASSERT_EQ(seteuid(0), 0);
  EXPECT_TRUE(parser_.GetJSConfigs().isNull());
  EXPECT_EQ(Logged(), std::vector<std::string>{"N Skip modules/Foo/foo.js: Permission denied."});
}

TEST_F(Modules, EmptyListsAreEmptyObjects) {
  parser_.RegisterJS("m", Parse(R"({".url": []})"));
  EXPECT_TRUE(parser_.GetJSConfigs().isNull());
  parser_.RegisterJS("m", Parse(R"({".url": {"A": []}})"));
  EXPECT_EQ(Text(parser_.GetJSConfigs()), R"({"m/.url":{"A":{"jsBaseURL":"m","jsID":"A"}}})");
  EXPECT_EQ(Logged(), std::vector<std::string>());
}

TEST_F(Modules, WhatIsNoObjectIsSkipped) {
  for (const char* text : {"[]", "[1]", "1", "null", "\"text\"", "true"})
    parser_.RegisterJS("dir", Parse(text));
  EXPECT_EQ(Logged(), std::vector<std::string>(6, "N Skip dir: Config is not an object."));
  for (const char* text : {"1", "[1]", "\"x\"", "null", "true"})
    parser_.RegisterJS("dir", Parse(std::string(R"({".url": )") + text + "}"));
  EXPECT_EQ(Logged(), std::vector<std::string>(5, "N Skip dir/.url: Config is not an object."));
  parser_.RegisterJS("dir", Parse(R"({".url": {"A": 1, "B": {}, "C": [1]}})"));
  EXPECT_EQ(Logged(), (std::vector<std::string>{"N Skip A: Config is not an object.",
                                                "N Skip C: Config is not an object."}));
  EXPECT_EQ(Text(parser_.GetJSConfigs()), R"({"dir/.url":{"B":{"jsBaseURL":"dir","jsID":"B"}}})");
}

TEST_F(Modules, WhatTheDocumentSaysOfItsPlaceIsReplaced) {
  parser_.RegisterJS("dir", Parse(R"({".url": {"A": {"jsBaseURL": "/etc", "jsID": [1]}}})"));
  EXPECT_EQ(Text(parser_.GetJSConfigs()), R"({"dir/.url":{"A":{"jsBaseURL":"dir","jsID":"A"}}})");
}

TEST_F(Modules, TextsAreInTheLanguageOrInEnglish) {
  Module("Foo", R"({".url": {"A": {"texts": "t"}, "B": {"texts": "u"}}})");
  File("modules/Foo/t/ger/strings");
  parser_.language = "ger";
  parser_.Parse(nullptr);
  // Whether the English ones are there is not looked at.
  EXPECT_EQ(Text(parser_.GetTexts()), R"({"A":"modules/Foo/t/ger","B":"modules/Foo/u/enu"})");
  // Entries that are no applications are found among them by this alone.
  EXPECT_EQ(Text(parser_.GetAppConfig()), R"({"A":{"string_file":"modules/Foo/t/ger"},)"
                                          R"("B":{"string_file":"modules/Foo/u/enu"}})");
}

TEST_F(Modules, KeysOfAWrongKindArePassedOver) {
  for (const char* value : {"1", "[]", "{}", "null", "true", "[\"a\"]", "{\"a\":1}"}) {
    JSConfigParser parser;
    parser.RegisterJS(
        "m", Parse(std::string(R"({".url": {"A": {"type": "app", "texts": )") + value +
                   R"(, "grantPrivilege": )" + value + R"(, "additionalCSSFiles": )" +
                   (std::string(value) == "[\"a\"]" ? "{}" : value) + R"(, "white_pkg_list": )" +
                   value + R"(, "css_file": )" + value + "}}}"));
    EXPECT_TRUE(parser.GetTexts().isNull()) << value;
    EXPECT_TRUE(parser.GetCSSFiles().isNull()) << value;
    EXPECT_TRUE(parser.GetAppConfig()["A"]["css_file"]["m/style.css"].asBool()) << value;
    parser.ProcessCSSFiles("A");
    parser.FilterAltPortStringFiles("A");
  }
  EXPECT_EQ(Logged(), std::vector<std::string>());
}

TEST_F(Modules, TheLastDocumentWins) {
  parser_.RegisterJS("a", Parse(R"({".url": {"A": {"type": "app", "grantPrivilege": "local", "n": 1,
                                              "texts": "t"}}})"));
  parser_.RegisterJS("b", Parse(R"({".url": {"A": {"type": "app", "grantPrivilege": "local", "n": 2,
                                              "texts": "t"}}})"));
  EXPECT_EQ(parser_.GetAppConfig()["A"]["n"], 2);
  EXPECT_EQ(parser_.GetTexts()["A"], "b/t/enu");
  EXPECT_EQ(parser_.GetJSConfigs().size(), 2u);
  EXPECT_EQ(Text(parser_.GetGrantableApps()), R"({"local":["A","A"]})");
}

TEST_F(Modules, ASheetIsListedWhateverTheConfigurationHolds) {
  Module("Foo", "{}");
  File("modules/Foo/style.css");
  Module("Bar", "[1]");
  File("modules/Bar/style.css");
  Module("None", "{");
  File("modules/None/style.css");
  Module("Plain", "{}");
  parser_.Parse(nullptr);
  EXPECT_EQ(parser_.GetCSSFiles().size(), 2u);
}

TEST_F(Modules, SyntaxErrorsAreLogged) {
  Module("Foo", "{\n  \"a\": x\n}");
  parser_.Parse(nullptr);
  const auto texts = Logged();
  ASSERT_EQ(texts.size(), 1u);
  EXPECT_EQ(texts[0].rfind("N modules/Foo/config: * Line 2, Column 8\n", 0), 0u) << texts[0];
}

TEST_F(Modules, TheDebugConfiguration) {
  Module("Foo", R"({".url": {"Plain": {}}})");
  Write(kRoot + "webman/modules/Foo/config.debug", R"({".url": {"Debug": {}}})");
  Module("Bar", R"({".url": {"Bar": {}}})");
  parser_.debugMode = true;
  parser_.Parse(nullptr);
  EXPECT_EQ(Text(parser_.GetJSConfigs()),
            R"({"modules/Bar/.url":{"Bar":{"jsBaseURL":"modules/Bar","jsID":"Bar"}},)"
            R"("modules/Foo/.url":{"Debug":{"jsBaseURL":"modules/Foo","jsID":"Debug"}}})");
  // A broken one is not replaced by the other, and is named by it.
  Write(kRoot + "webman/modules/Foo/config.debug", "{");
  Logged();
  EXPECT_EQ(chdir((kRoot + "webman").c_str()), 0);
  EXPECT_FALSE(parser_.ParserJSConfig("modules/Foo"));
  EXPECT_EQ(Logged()[0].rfind("N modules/Foo/config: ", 0), 0u);
}

TEST_F(Modules, FoldersAndLinksAreModules) {
  Module("Foo", R"({".url": {"A": {}}})");
  ASSERT_EQ(system("cd /usr/vemo/vemoman/webman/modules; mv Foo /run/Foo; ln -s /run/Foo Link; "
                   "echo '{}' > file; ln -s file filelink; ln -s /none dangling; mkdir empty; "
                   "mkfifo fifo; mkdir odd; mkfifo odd/config; mkdir dir; mkdir dir/config"),
            0);
  parser_.Parse(nullptr);
  EXPECT_EQ(parser_.GetJSConfigs().getMemberNames(), std::vector<std::string>{"modules/Link/.url"});
  EXPECT_EQ(Logged(), std::vector<std::string>());
}

TEST_F(Modules, BrokenDocumentsDoNotEndTheWalk) {
  Module("deep", std::string(100000, '['));
  Module("bytes", "\xff\xfe\x00");
  Module("nul", std::string("{\"a\0b.js\":{}}", 13));
  Module("empty", "");
  Module("good", R"({".url": {"A": {}}})");
  Module("names", "{\"../../x\":{\"A\":{}},\"a\\u0000b\":{\"A\":{}},\"\":{\"B\":{}}}");
  parser_.Parse(nullptr);
  EXPECT_TRUE(parser_.GetJSConfigs().isMember("modules/good/.url"));
}

TEST_F(Modules, AHugeConfigurationIsRead) {
  std::string text = "{\".url\":{";
  for (int i = 0; i < 200000; i++)
    text += (i > 0 ? ",\"e" : "\"e") + std::to_string(i) + "\":{\"x\":\"" + std::string(200, 'y') +
            "\"}";
  Module("huge", text + "}}");
  parser_.Parse(nullptr);
  EXPECT_EQ(parser_.GetJSConfigs()["modules/huge/.url"].size(), 200000u);
}

TEST_F(Modules, TheWorkingDirectoryIsPutBack) {
  const auto where = [] { return std::filesystem::current_path().string(); };
  Module("Foo", "{}");
  parser_.Parse(nullptr);
  EXPECT_EQ(where(), "/run");
  parser_.ParsePathFromVemoman(nullptr);
  parser_.ParseTexts("vemoman");
  EXPECT_EQ(where(), "/run");
  ASSERT_EQ(system("rm -rf /usr/vemo/vemoman/webman/modules /usr/vemo/vemoman/webman/3rdparty"), 0);
  parser_.Parse(nullptr);
  EXPECT_EQ(where(), "/run");
  ASSERT_EQ(system("rm -rf /usr/vemo/vemoman"), 0);
  parser_.Parse(nullptr);
  EXPECT_EQ(where(), "/run");

  // Also when it was removed meanwhile.
  std::filesystem::create_directory("/run/gone");
  ASSERT_EQ(chdir("/run/gone"), 0);
  struct stat before, after;
  stat(".", &before);
  ASSERT_EQ(rmdir("/run/gone"), 0);
  parser_.Parse(nullptr);
  ASSERT_EQ(stat(".", &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
}

TEST_F(Modules, ParsingTwiceAddsAndClearLeavesTwo) {
  Module("Foo", R"({".url": {"A": {"type": "app", "grantPrivilege": "local", "texts": "t"}}})");
  File("modules/Foo/style.css");
  File("modules/Foo/t/enu/strings", "[a]\nb=c\n");
  parser_.ParsePathFromVemoman(nullptr);
  parser_.ParsePathFromVemoman(nullptr);
  EXPECT_EQ(parser_.GetCSSFiles().size(), 2u);
  EXPECT_EQ(Text(parser_.GetModuleTexts()), R"({"A":{"a":{"b":"c"}}})");
  parser_.Clear();
  EXPECT_TRUE(parser_.GetJSConfigs().empty() && parser_.GetAppConfig().empty() &&
              parser_.GetCSSFiles().empty() && parser_.GetTexts().empty());
  EXPECT_EQ(Text(parser_.GetGrantableApps()), R"({"local":["A","A"]})");
  EXPECT_EQ(Text(parser_.GetModuleTexts()), R"({"A":{"a":{"b":"c"}}})");
}

}  // namespace
