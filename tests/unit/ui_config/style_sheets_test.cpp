// Style sheets, texts and versions of the registry.
#include <ui_config/js_config_parser.h>

#include "unit/ui_config/tree.h"

using namespace tree;
using VEMO::KTR::GetPackageVersion;
using VEMO::KTR::JSConfigParser;

namespace {

class Sheets : public Tree {
 protected:
  void SetUp() override {
    Tree::SetUp();
    Module("Alone", R"({".url": {"Alone": {"type": "app", "texts": "t",
                       "additionalCSSFiles": ["more.css", "none.css", 5, ["x"]],
                       "white_pkg_list": ["Friend", "Nobody", 7]}}})");
    File("modules/Alone/style.css");
    File("modules/Alone/more.css", "x", 300);
    Module("Friend", R"({".url": {"Friend": {"type": "app", "texts": "t"}}})");
    File("modules/Friend/style.css");
    Module("Other", R"({".url": {"Other": {"type": "app", "texts": "t"}}})");
    File("modules/Other/style.css");
    Module("Utils", R"({".url": {"Utils": {"type": "common_lib"}}})");
    File("modules/Utils/style.css");
  }
  // The sheets' paths, sorted: the order of modules is the file system's.
  std::vector<std::string> Paths() {
    std::vector<std::string> paths;
    for (const Json::Value& sheet : parser_.GetCSSFiles())
      paths.push_back(sheet.asString());
    std::sort(paths.begin(), paths.end());
    return paths;
  }
  static inline const std::vector<std::string> kAll = {
      "webman/modules/Alone/more.css?v=300", "webman/modules/Alone/style.css?v=100",
      "webman/modules/Friend/style.css?v=100", "webman/modules/Other/style.css?v=100",
      "webman/modules/Utils/style.css?v=100"};
  static inline const std::vector<std::string> kAlone = {
      "webman/modules/Alone/more.css?v=300", "webman/modules/Alone/style.css?v=100",
      "webman/modules/Friend/style.css?v=100", "webman/modules/Utils/style.css?v=100"};
  JSConfigParser parser_;
};

TEST_F(Sheets, AdditionalOnesThatAreThere) {
  parser_.ParsePathFromVemoman(nullptr);
  EXPECT_EQ(Paths(), kAll);
  EXPECT_EQ(Text(parser_.GetAppConfig()["Alone"]["css_file"]),
            R"({"webman/modules/Alone/more.css":true,"webman/modules/Alone/style.css":true})");
}

TEST_F(Sheets, TheModulesOwnIsNamedWhetherItIsThereOrNot) {
  JSConfigParser parser;
  parser.RegisterJS("none", Parse(R"({".url": {"A": {"type": "app"}}})"));
  EXPECT_EQ(Text(parser.GetAppConfig()["A"]["css_file"]), R"({"none/style.css":true})");
  EXPECT_TRUE(parser.GetCSSFiles().isNull());
  // What is looked up is there afterwards.
  parser.AddAdditionalCSSFiles("B");
  EXPECT_TRUE(parser.GetAppConfig().isMember("B"));
  EXPECT_TRUE(parser.GetAppConfig()["B"].isNull());
}

TEST_F(Sheets, AnApplicationAloneByItsArgument) {
  setenv("REWRITE_APP", "Other", 1);
  parser_.ParsePathFromVemoman("Alone");
  EXPECT_EQ(Paths(), kAlone);
  EXPECT_EQ(Text(parser_.GetTexts()),
            R"({"Alone":"webman/modules/Alone/t/enu","Friend":"webman/modules/Friend/t/enu"})");
  // An allowed one that is not there was looked up in the sheets, then in the texts.
  EXPECT_EQ(Text(parser_.GetAppConfig()["Nobody"]), R"({"css_file":null})");
}

TEST_F(Sheets, AnApplicationAloneByTheServer) {
  setenv("REWRITE_APP", "Alone", 1);
  parser_.ParsePathFromVemoman("");
  EXPECT_EQ(Paths(), kAlone);
}

TEST_F(Sheets, WithTheOtherPrefixTheCommonSheetIsLikeAnyOther) {
  setenv("SCRIPT_FILENAME", "/usr/vemo/vemoman/webman/registry.cgi", 1);
  parser_.Parse("Alone");
  EXPECT_EQ(Paths(), (std::vector<std::string>{"modules/Alone/more.css?v=300",
                                               "modules/Alone/style.css?v=100",
                                               "modules/Friend/style.css?v=100"}));
}

TEST_F(Sheets, WithoutAListEverythingStays) {
  for (const char* application : {"Other", "Nobody", "Utils"}) {
    JSConfigParser parser;
    parser.ParsePathFromVemoman(application);
    EXPECT_EQ(parser.GetCSSFiles().size(), 5u) << application;
    EXPECT_EQ(parser.GetTexts().size(), 3u) << application;
    EXPECT_TRUE(parser.GetAppConfig()[application].isMember("white_pkg_list"));
    EXPECT_TRUE(parser.GetAppConfig()[application]["white_pkg_list"].isNull());
  }
  JSConfigParser parser;
  parser.ParsePathFromVemoman("Nobody");
  EXPECT_EQ(Text(parser.GetAppConfig()["Nobody"]), R"({"white_pkg_list":null})");
}

TEST_F(Sheets, AnEmptyListLeavesItsOwn) {
  Module("Alone", R"({".url": {"Alone": {"type": "app", "white_pkg_list": []}}})");
  parser_.ParsePathFromVemoman("Alone");
  EXPECT_EQ(Paths(), (std::vector<std::string>{"webman/modules/Alone/style.css?v=100",
                                               "webman/modules/Utils/style.css?v=100"}));
  // Without texts of its own it keeps none, and was looked up.
  EXPECT_EQ(Text(parser_.GetTexts()), "{}");
  EXPECT_TRUE(parser_.GetAppConfig()["Alone"].isMember("string_file"));
}

TEST_F(Sheets, TheTextFilterAloneLeavesNull) {
  parser_.ParseModuleDir("vemoman");
  parser_.FilterAltPortStringFiles("Alone");
  EXPECT_TRUE(parser_.GetAppConfig().isMember("Nobody"));
  EXPECT_TRUE(parser_.GetAppConfig()["Nobody"].isNull());
}

TEST_F(Sheets, TextsAreReadBelowTheWebRoot) {
  File("modules/Alone/t/enu/strings", "[common]\nok = \"OK\"\n");
  parser_.ParsePathFromVemoman(nullptr);
  EXPECT_EQ(Text(parser_.GetModuleTexts()),
            R"({"Alone":{"common":{"ok":"OK"}},"Friend":{},"Other":{}})");
  // Once they were read they stay.
  File("modules/Alone/t/enu/strings", "[common]\nok = \"no\"\n");
  EXPECT_EQ(parser_.GetModuleTexts()["Alone"]["common"]["ok"], "OK");

  // Paths of the other walk are found by their own prefix only.
  JSConfigParser other;
  other.Parse(nullptr);
  EXPECT_EQ(Text(other.GetModuleTexts()), R"({"Alone":{},"Friend":{},"Other":{}})");
  other.ParseTexts("webman");
  EXPECT_EQ(other.GetModuleTexts()["Alone"]["common"]["ok"], "no");
}

TEST_F(Sheets, VersionsOfPackages) {
  Write("/etc.defaults/VERSION", "buildnumber=\"4711\"\nsmallfixnumber=\"2\"\n");
  const struct {
    const char *document, *version;
  } rows[] = {
      {R"({"a": {"x": {"version": "1.0"}}})", "1.0"},
      {R"({"b": {"x": {"version": "2"}}, "a": {"y": {}, "z": {"version": "1"}}})", "1"},
      {R"({"a": {"z": {"version": "2"}, "y": {"version": "1"}}})", "1"},
      {R"({"a": 1, "b": [], "c": {"x": 1, "y": {"version": 5}}})", "5"},
      {R"({"a": {"x": {"version": null}}})", ""},
      {R"({"a": {"x": {"version": [1]}, "y": {"version": "3"}}})", "3"},
      {R"({"a": {"version": "9"}})", "4711-s2"},
      {"{}", "4711-s2"},
      {"null", "4711-s2"},
      {"[1]", "4711-s2"},
      {"\"x\"", "4711-s2"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(GetPackageVersion(Parse(row.document)), row.version) << row.document;
  EXPECT_EQ(::GetPackageVersion(Parse("{}")), "4711-s2");
}

}  // namespace
