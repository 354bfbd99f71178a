/// \file tree.h
/// A web root of the test's own, and what the tests of the registry share.
#ifndef ZEM_TESTS_UNIT_UI_CONFIG_TREE_H
#define ZEM_TESTS_UNIT_UI_CONFIG_TREE_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/value.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>

#include "common/json.h"
#include "support/syslog.h"

namespace tree {

inline const std::string kRoot = "/usr/vemo/vemoman/";

/// Writes a file, with the time of its last change when one is given.
inline void Write(const std::string& path, const std::string& text, long time = 0) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  if (time == 0) return;
  const timespec times[] = {{time, 0}, {time, 0}};
  utimensat(AT_FDCWD, path.c_str(), times, 0);
}

inline Json::Value Parse(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(zem::ParseJson(text.data(), text.size(), zem::JsonComments::kSkip, value)) << text;
  return value;
}

/// The document on one line, without the line feed.
inline std::string Text(const Json::Value& value) {
  std::string text = zem::CompactJson(value);
  text.pop_back();
  return text;
}

class Tree : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(system("rm -rf /usr/vemo/vemoman && mkdir -p /usr/vemo/vemoman/webman/modules"
                     " /usr/vemo/vemoman/webman/3rdparty"),
              0);
    for (const char* name : {"REWRITE_APP", "HTTP_HOST", "HTTPS", "DOCUMENT_ROOT",
                             "SCRIPT_FILENAME", "SCRIPT_NAME", "QUERY_STRING"})
      unsetenv(name);
    ASSERT_EQ(chdir("/run"), 0);
  }

  void Module(const std::string& name, const std::string& config, long time = 100) {
    Write(kRoot + "webman/modules/" + name + "/config", config, time);
  }
  void File(const std::string& path, const std::string& text = "x", long time = 200) {
    Write(kRoot + "webman/" + path, text, time);
  }

  /// What was logged, without the line numbers.
  std::vector<std::string> Logged() {
    std::vector<std::string> texts;
    for (const std::string& text : log_.TakeTexts())
      texts.push_back(std::regex_replace(text, std::regex("^JSConfigParser:[0-9]+ "), "N "));
    return texts;
  }

  support::Syslog log_;
};

}  // namespace tree

#endif  // ZEM_TESTS_UNIT_UI_CONFIG_TREE_H
