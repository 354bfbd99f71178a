// Launchers of packages.
#include <ui_config/js_config_parser.h>

#include "unit/ui_config/tree.h"

using namespace tree;
using VEMO::KTR::JSConfigParser;

namespace {

class Packages : public Tree {
 protected:
  void Package(const std::string& file, const std::string& text) {
    Write(kRoot + "webman/3rdparty/" + file, text);
  }
  // The one launcher of a package.
  Json::Value Entry(const char* kind, const std::string& name) {
    return parser_.GetJSConfigs()["3rdparty/" + name + "/.url"]
                                 ["VEMO.KTR._ThirdParty." + std::string(kind) + "." + name];
  }
  JSConfigParser parser_;
};

TEST_F(Packages, AFullLauncher) {
  setenv("HTTP_HOST", "nas:5000", 1);
  Package("Shop/application.cfg",
          "text=Shop\ndescription=Buys\nicon_16=a.png\nicon_32=b.png\nicon=c.png\nversion=1.2\n"
          "adminonly=false\nprotocol=https\naddress=shop.lan\nport=81\npath=/go\n");
  parser_.Parse(nullptr);
  EXPECT_EQ(Text(parser_.GetJSConfigs()),
            R"({"3rdparty/Shop/.url":{"VEMO.KTR._ThirdParty.App.Shop":{"allUsers":true,)"
            R"("desc":"Buys","icon_16":"a.png","icon_32":"b.png","jsBaseURL":"3rdparty/Shop",)"
            R"("jsID":"VEMO.KTR._ThirdParty.App.Shop","title":"Shop","type":"url",)"
            R"("url":"https://shop.lan:81/go","version":"1.2"}}})");
  EXPECT_TRUE(parser_.GetAppConfig().isNull());
  EXPECT_EQ(Logged(), std::vector<std::string>());
}

TEST_F(Packages, AShortcutHasOneIconAndIsNeverEmbedded) {
  setenv("HTTP_HOST", "nas:5000", 1);
  Package("Shop/desktop.cfg", "text=Shop\nicon=c.png\nicon_16=a.png\ntype=embedded\n");
  parser_.ParsePathFromVemoman(nullptr);
  EXPECT_EQ(Text(parser_.GetJSConfigs()),
            R"({"webman/3rdparty/Shop/.url":{"VEMO.KTR._ThirdParty.Desktop.Shop":{)"
            R"("allUsers":false,"desc":"","icon":"c.png","jsBaseURL":"webman/3rdparty/Shop",)"
            R"("jsID":"VEMO.KTR._ThirdParty.Desktop.Shop","title":"Shop","type":"url",)"
            R"("url":"http://nas:5000"}}})");
}

TEST_F(Packages, BothFilesOrAConfiguration) {
  Package("Both/application.cfg", "text=a\n");
  Package("Both/desktop.cfg", "text=b\n");
  Package("Full/config", R"({".url": {"A": {}}})");
  Package("Full/application.cfg", "text=a\n");
  Package("Broken/config", "{");
  Package("Broken/application.cfg", "text=a\n");
  Package("Broken/desktop.cfg", "text=b\n");
  Package("Empty/readme", "");
  parser_.Parse(nullptr);
  const Json::Value registry = parser_.GetJSConfigs();
  EXPECT_EQ(registry["3rdparty/Both/.url"].size(), 2u);
  EXPECT_EQ(registry["3rdparty/Full/.url"].getMemberNames(), std::vector<std::string>{"A"});
  EXPECT_EQ(registry["3rdparty/Broken/.url"].size(), 2u);
  EXPECT_EQ(registry.size(), 3u);
}

TEST_F(Packages, WhoSeesIt) {
  const struct {
    const char* line;
    bool all;
  } rows[] = {{"adminonly=false", true}, {"adminonly=FALSE", true}, {"adminonly=\"False\"", true},
              {"adminonly=no", false},   {"adminonly=", false},     {"", false},
              {"adminonly=true", false}};
  for (const auto& row : rows) {
    Package("P/application.cfg", std::string("text=t\n") + row.line + "\n");
    JSConfigParser parser;
    parser.Parse(nullptr);
    EXPECT_EQ(parser.GetJSConfigs()["3rdparty/P/.url"]["VEMO.KTR._ThirdParty.App.P"]["allUsers"],
              row.all)
        << row.line;
  }
}

TEST_F(Packages, TextsOfTheLanguage) {
  Package("A/application.cfg", "text=a\ntext_ger=b\ndescription=c\ndescription_ger=d\n");
  Package("B/application.cfg", "text_enu=a\ndescription_enu=c\n");
  Package("C/desktop.cfg", "text=\n");
  parser_.language = "ger";
  parser_.Parse(nullptr);
  EXPECT_EQ(Entry("App", "A")["title"], "b");
  EXPECT_EQ(Entry("App", "A")["desc"], "d");
  EXPECT_EQ(Entry("App", "B")["title"], "ThirdParty");
  EXPECT_EQ(Entry("App", "B")["desc"], "");
  EXPECT_EQ(Entry("Desktop", "C")["title"], "");  // given, though empty
  EXPECT_EQ(Logged(),
            std::vector<std::string>{
                "N 3rdparty/B/application.cfg: There is no text for the third party application."});
}

TEST_F(Packages, EmbeddedOnesAreLegacy) {
  for (const auto& [line, type] : {std::pair{"type=Embedded", "legacy"},
                                   {"type=embedded", "legacy"},
                                   {"type=other", "url"},
                                   {"", "url"}}) {
    Package("P/application.cfg", std::string("text=t\n") + line + "\n");
    JSConfigParser parser;
    parser.Parse(nullptr);
    EXPECT_EQ(parser.GetJSConfigs()["3rdparty/P/.url"]["VEMO.KTR._ThirdParty.App.P"]["type"], type);
  }
}

TEST_F(Packages, FilesThatCannotBeReadAreLogged) {
  Package("P/application.cfg", std::string("a\0b", 3));
  ASSERT_EQ(system("mkdir -p /usr/vemo/vemoman/webman/3rdparty/Q/application.cfg; "
                   "mkdir /usr/vemo/vemoman/webman/3rdparty/R; "
                   "mkfifo /usr/vemo/vemoman/webman/3rdparty/R/desktop.cfg"),
            0);
  parser_.Parse(nullptr);
  auto texts = Logged();
  std::sort(texts.begin(), texts.end());
  EXPECT_EQ(texts, (std::vector<std::string>{"N Failed to parse 3rdparty/P/application.cfg",
                                             "N Failed to parse 3rdparty/Q/application.cfg",
                                             "N Failed to parse 3rdparty/R/desktop.cfg"}));
  EXPECT_TRUE(parser_.GetJSConfigs().isNull());
}

TEST_F(Packages, Addresses) {
  const struct {
    const char *host, *https, *protocol, *address, *port, *path, *url;
  } rows[] = {
      {"nas:5000", nullptr, nullptr, nullptr, nullptr, nullptr, "http://nas:5000"},
      {"nas", nullptr, nullptr, nullptr, nullptr, nullptr, "http://nas:8000"},
      {"nas", "on", nullptr, nullptr, nullptr, nullptr, "https://nas:8001"},
      {"nas", "", nullptr, nullptr, nullptr, nullptr, "https://nas:8001"},  // set to any value
      {"nas", "off", "http", nullptr, nullptr, nullptr, "http://nas:8001"},
      {"nas:5000", nullptr, "ftp", nullptr, nullptr, "x", "http://nas:5000x"},
      {"nas:5000", nullptr, "HTTPS", nullptr, "443", "/x", "HTTPS://nas:443/x"},
      {"nas:5000", nullptr, "", "", "", "", "http://:"},
      {"nas:5000", nullptr, nullptr, "other", nullptr, nullptr, "http://other:5000"},
      {"nas:", nullptr, nullptr, nullptr, nullptr, nullptr, "http://nas:"},
      {"[::1]:5000", nullptr, nullptr, nullptr, nullptr, nullptr, "http://[::1]:5000"},
      {"", nullptr, nullptr, nullptr, nullptr, nullptr, "http://:8000"},
      {nullptr, nullptr, "http", "a", "1", "/x", ""},
  };
  Write("/usr/vemo/etc/www/ports.conf", "vemo_http_port = 8000\nvemo_https_port = 8001\n");
  for (const auto& row : rows) {
    unsetenv("HTTP_HOST");
    unsetenv("HTTPS");
    if (row.host != nullptr) setenv("HTTP_HOST", row.host, 1);
    if (row.https != nullptr) setenv("HTTPS", row.https, 1);
    EXPECT_EQ(parser_.GetURL(row.protocol, row.address, row.port, row.path), row.url);
  }
}

TEST_F(Packages, PortsOfTheServerWithoutAFile) {
  unlink("/usr/vemo/etc/www/ports.conf");
  setenv("HTTP_HOST", "nas", 1);
  EXPECT_EQ(parser_.GetURL(nullptr, nullptr, nullptr, nullptr), "http://nas:5000");
  setenv("HTTPS", "on", 1);
  EXPECT_EQ(parser_.GetURL(nullptr, nullptr, nullptr, nullptr), "https://nas:5001");
}

TEST_F(Packages, ALongLanguageIsCut) {
  parser_.language = std::string(2000, 'l');
  Package("P/application.cfg", "text=t\n");
  parser_.Parse(nullptr);
  EXPECT_EQ(Entry("App", "P")["title"], "t");
}

}  // namespace
