// Themes: what is looked up, and what an action does, step by step.
#include "appearance/theme_helper.h"

#include <gtest/gtest.h>
#include <unistd.h>
#include <utime.h>

#include <type_traits>

#include "common/json.h"
#include "unit/appearance/pictures.h"

namespace {

using pictures::Exists;
using pictures::Messages;
using pictures::Read;
using pictures::Shell;
using pictures::Texts;
using pictures::Write;
using VEMO::KTR::JsonThemeGetter;
using VEMO::KTR::ThemeGetter;
using VEMO::KTR::ThemeHelper;

constexpr char kFile[] = "/run/themes/theme.json";
constexpr char kSource[] = "/run/themes/source.css";
constexpr char kTarget[] = "/run/themes/target.css";

std::string Message(const std::string& text) { return "ThemeHelper:N " + text; }

std::string LinkOf(const std::string& path) {
  char target[4096];
  const ssize_t size = readlink(path.c_str(), target, sizeof target);
  return size < 0 ? "none" : std::string(target, static_cast<size_t>(size));
}

std::string Mapping(const std::string& source, const std::string& target) {
  return "{\"source\":\"" + source + "\",\"target\":\"" + target + "\"}";
}

class Themes : public testing::Test {
 protected:
  void SetUp() override {
    Shell("rm -rf /run/themes && mkdir /run/themes");
    Write(kSource, "source");
  }
  void Load(const std::string& text) {
    Write(kFile, text);
    ASSERT_TRUE(helper_.Parse(kFile)) << text;
  }
  void LoadMappings(const std::string& mappings) {
    Load("{\"dark\":{\"apply\":{\"mappings\":[" + mappings + "]}}}");
  }
  void Apply() { helper_.Action("dark", "apply"); }

  ThemeHelper helper_;
  support::Syslog log_;
};

TEST_F(Themes, MembersAreLookedUpByName) {
  Json::Value document;
  document["a"] = 1;
  JsonThemeGetter getter(document);
  document["a"] = 2;  // a copy of its own
  EXPECT_EQ(getter.GetThemeByKey("a"), Json::Value(1));
  EXPECT_TRUE(getter.GetThemeByKey("b").isNull());
  EXPECT_TRUE(getter.GetThemeByKey("").isNull());
  EXPECT_TRUE(getter.GetThemeByKey(std::string("a\0", 2)).isNull());
  static_assert(std::is_base_of_v<ThemeGetter, JsonThemeGetter>);
  static_assert(std::is_base_of_v<ThemeGetter, ThemeHelper>);
}

TEST_F(Themes, DocumentsOfAnotherKindHaveNoMembers) {
  for (const Json::Value& document :
       {Json::Value(), Json::Value(7), Json::Value("text"), Json::Value(true),
        Json::Value(Json::arrayValue), Json::Value(1.5)}) {
    EXPECT_TRUE(JsonThemeGetter(document).GetThemeByKey("a").isNull());
  }
}

TEST_F(Themes, AFileIsReadAndDropped) {
  Load("{\"dark\":{\"apply\":1}}");
  EXPECT_EQ(helper_.GetTheme("dark").GetThemeByKey("apply"), Json::Value(1));
  EXPECT_TRUE(helper_.GetTheme("light").GetThemeByKey("apply").isNull());
  helper_.Clear();
  EXPECT_TRUE(helper_.GetThemeByKey("dark").isNull());
}

TEST_F(Themes, AParseThatFailsDropsWhatWasReadBefore) {
  for (const char* text : {"", "{", "{\"dark\":", "no json"}) {
    Load("{\"dark\":1}");
    Write(kFile, text);
    EXPECT_FALSE(helper_.Parse(kFile)) << text;
    EXPECT_TRUE(helper_.GetThemeByKey("dark").isNull()) << text;
  }
  Load("{\"dark\":1}");
  EXPECT_FALSE(helper_.Parse("/run/themes/none"));
  EXPECT_TRUE(helper_.GetThemeByKey("dark").isNull());
  Load("{\"dark\":1}");
  EXPECT_FALSE(helper_.Parse("/run/themes"));
  EXPECT_FALSE(helper_.Parse(""));
  EXPECT_TRUE(helper_.GetThemeByKey("dark").isNull());
  Apply();
  EXPECT_EQ(Messages(log_), Texts());
}

TEST_F(Themes, TheSystemsOwnFile) {
  Shell("rm -rf /usr/vemo/theme");
  EXPECT_FALSE(helper_.Parse());
  Shell("mkdir -p /usr/vemo/theme");
  Write("/usr/vemo/theme/theme.json", "{\"dark\":1}");
  EXPECT_TRUE(helper_.Parse());
  EXPECT_EQ(helper_.GetThemeByKey("dark"), Json::Value(1));
}

TEST_F(Themes, AMappingBecomesALink) {
  Write(kTarget, "old");
  const utimbuf past = {1000, 1000};
  ASSERT_EQ(utime(kSource, &past), 0);
  LoadMappings(Mapping(kSource, kTarget));
  Apply();
  EXPECT_EQ(LinkOf(kTarget), kSource);
  EXPECT_EQ(Read(kTarget), "source");
  struct stat status;
  ASSERT_EQ(stat(kSource, &status), 0);
  EXPECT_GT(status.st_mtime, 1000);
  EXPECT_GT(status.st_atime, 1000);
  EXPECT_EQ(Messages(log_), Texts());
  Apply();  // a second time replaces the link, not what it leads to
  EXPECT_EQ(LinkOf(kTarget), kSource);
  EXPECT_EQ(Read(kSource), "source");
  EXPECT_EQ(Messages(log_), Texts());
}

TEST_F(Themes, ATargetThatIsNotThereIsLoggedAndMade) {
  LoadMappings(Mapping(kSource, kTarget));
  Apply();
  EXPECT_EQ(LinkOf(kTarget), kSource);
  EXPECT_EQ(Messages(log_), Texts(Message("unlink failed: /run/themes/target.css")));
}

TEST_F(Themes, AMissingSourceLeavesItsTargetRemoved) {
  Write(kTarget, "old");
  LoadMappings(Mapping("/run/themes/none", kTarget) + "," + Mapping(kSource, "/run/themes/b"));
  Apply();
  EXPECT_FALSE(Exists(kTarget));
  EXPECT_EQ(LinkOf("/run/themes/b"), kSource);
  EXPECT_EQ(Messages(log_), Texts(Message("link source /run/themes/none does not exist."),
                                  Message("unlink failed: /run/themes/b")));
}

TEST_F(Themes, ADanglingSourceDoesNotExist) {
  Shell("ln -s /run/nowhere /run/themes/dangling");
  Write(kTarget, "old");
  LoadMappings(Mapping("/run/themes/dangling", kTarget));
  Apply();
  EXPECT_FALSE(Exists(kTarget));
  EXPECT_EQ(Messages(log_), Texts(Message("link source /run/themes/dangling does not exist.")));
}

TEST_F(Themes, ATargetThatIsADirectoryStays) {
  Shell("mkdir /run/themes/folder && touch /run/themes/folder/kept");
  LoadMappings(Mapping(kSource, "/run/themes/folder") + "," + Mapping(kSource, kTarget));
  Apply();
  EXPECT_TRUE(Exists("/run/themes/folder/kept"));
  EXPECT_EQ(LinkOf(kTarget), kSource);
  EXPECT_EQ(Messages(log_),
            Texts(Message("unlink failed: /run/themes/folder"),
                  Message("symlink failed:/run/themes/source.css to /run/themes/folder"),
                  Message("unlink failed: /run/themes/target.css")));
}

TEST_F(Themes, ATargetWhoseFolderIsMissing) {
  LoadMappings(Mapping(kSource, "/run/themes/none/target"));
  Apply();
  EXPECT_EQ(Messages(log_), Texts(Message("unlink failed: /run/themes/none/target"),
                                  Message("symlink failed:/run/themes/source.css to "
                                          "/run/themes/none/target")));
}

TEST_F(Themes, ASourceThatCannotBeTouchedIsLinkedAllTheSame) {
  Shell(
      "mkdir /run/themes/ro && touch /run/themes/ro/a && mount --bind /run/themes/ro "
      "/run/themes/ro && mount -o remount,ro,bind /run/themes/ro");
  Write(kTarget, "old");
  LoadMappings(Mapping("/run/themes/ro/a", kTarget));
  Apply();
  EXPECT_EQ(LinkOf(kTarget), "/run/themes/ro/a");
  EXPECT_EQ(Messages(log_), Texts(Message("update utime failed: /run/themes/ro/a")));
}

TEST_F(Themes, MappingsAreDoneInTheirOrder) {
  Write("/run/themes/two.css", "two");
  LoadMappings(Mapping(kSource, kTarget) + "," + Mapping("/run/themes/two.css", kTarget));
  Apply();
  EXPECT_EQ(LinkOf(kTarget), "/run/themes/two.css");
  // A source that an earlier mapping has removed is gone.
  LoadMappings(Mapping("/run/themes/two.css", kSource) + "," + Mapping(kTarget, kTarget));
  Apply();
  EXPECT_FALSE(Exists(kTarget));
}

TEST_F(Themes, MappingsThatAreNoneArePassedOver) {
  Write(kTarget, "kept");
  const std::string target = std::string("\"target\":\"") + kTarget + "\"";
  const std::string source = std::string("\"source\":\"") + kSource + "\"";
  LoadMappings("{" + target + "},{" + source + "},{},null,7,\"text\",[1],{" + source +
               ",\"target\":null},{\"source\":7," + target + "},{\"source\":[]," + target + "},{" +
               source + ",\"target\":\"" + kTarget + "\\u0000x\"},{" + source + ",\"target\":{}}");
  Apply();
  EXPECT_EQ(Read(kTarget), "kept");
  EXPECT_EQ(LinkOf(kTarget), "none");
  EXPECT_EQ(Messages(log_), Texts());
}

TEST_F(Themes, EmptyPathsFailLikeAnyOther) {
  LoadMappings(Mapping("", ""));
  Apply();
  EXPECT_EQ(Messages(log_),
            Texts(Message("unlink failed: "), Message("link source  does not exist.")));
}

TEST_F(Themes, UnknownNamesDoNothing) {
  Write(kTarget, "kept");
  LoadMappings(Mapping(kSource, kTarget));
  helper_.Action("light", "apply");
  helper_.Action("dark", "remove");
  helper_.Action("", "");
  EXPECT_EQ(Read(kTarget), "kept");
  EXPECT_EQ(Messages(log_), Texts());
}

TEST_F(Themes, AFileOfTheWrongKindAtEveryLevel) {
  for (const char* wrong : {"null", "7", "1.5", "true", "\"text\"", "[]", "[{\"mappings\":[]}]"}) {
    const std::string value = wrong;
    for (const std::string& text :
         {value, "{\"dark\":" + value + "}", "{\"dark\":{\"apply\":" + value + "}}"}) {
      Load(text);
      Apply();
      EXPECT_EQ(Messages(log_), Texts()) << text;
    }
  }
  Load("{\"dark\":{\"apply\":{}}}");
  Apply();
  EXPECT_EQ(Messages(log_), Texts());
  for (const char* wrong : {"null", "7", "\"text\"", "{}", "{\"source\":\"a\",\"target\":\"b\"}"}) {
    Load(std::string("{\"dark\":{\"apply\":{\"mappings\":") + wrong + "}}}");
    Apply();
    EXPECT_EQ(Messages(log_), Texts(Message("can not get mappings info"))) << wrong;
  }
}

// The look-up of a theme goes through the virtual function, so that a derived helper may
// answer from elsewhere.
TEST_F(Themes, ThemesAreLookedUpThroughTheVirtualFunction) {
  class Fixed : public ThemeHelper {
   public:
    Json::Value GetThemeByKey(const std::string& key) override {
      Json::Value theme;
      theme["key"] = key;
      return theme;
    }
  } fixed;
  EXPECT_EQ(fixed.GetTheme("any").GetThemeByKey("key"), Json::Value("any"));
}

TEST_F(Themes, TheThemeInUse) {
  struct Row {
    std::string file, theme;
  };
  const std::string longest(255, 'x');
  for (const Row& row :
       {Row{"", "default"}, Row{"theme=\"dark\"\n", "dark"}, Row{"theme=\"\"\n", ""},
        Row{"themes=\"x\"\n", "default"}, Row{"theme=\"" + longest + "\"\n", longest},
        Row{"theme=\"" + longest + "y\"\n", longest}}) {
    Write("/etc/vemoinfo.conf", row.file);
    EXPECT_EQ(WebUtils::getThemeCls(), row.theme) << row.file;
  }
  std::filesystem::remove("/etc/vemoinfo.conf");
  EXPECT_EQ(WebUtils::getThemeCls(), "default");
}

}  // namespace
