// Entity tags and modification stamps. What is read once a process is tested in processes
// of their own: each test is one.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>
#include <webutils/cache.h>
#include <webutils/system_info.h>

#include <filesystem>
#include <fstream>

#include "faults/faults.h"
#include "support/request.h"
#include "support/syslog.h"

namespace {

using namespace WebUtils;

// The tag of a text, by another way.
std::string TagOf(std::string text) {
  text.resize(1024, '\0');
  unsigned char digest[16];
  EXPECT_EQ(EVP_Digest(text.data(), text.size(), digest, nullptr, EVP_md5(), nullptr), 1);
  std::string tag;
  for (int i = 0; i < 16; i++) {
    char byte[4];
    std::snprintf(byte, sizeof byte, "%x", digest[i]);
    tag += (i > 0 && i % 4 == 0 ? "-" : "") + std::string(byte);
  }
  return tag;
}

void Write(const std::string& path, long time) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path) << "x";
  const timespec times[] = {{time, 0}, {time, 0}};
  utimensat(AT_FDCWD, path.c_str(), times, 0);
}

bool IsNow(const std::string& stamp) { return std::abs(std::stol(stamp) - time(nullptr)) < 3; }

TEST(EntityTag, IsTheDigestOfTheWholeBuffer) {
  unsetenv("QUERY_STRING");
  setenv("SCRIPT_NAME", "/webman/a.cgi", 1);
  EXPECT_EQ(CreateCGIETag(), TagOf("/webman/a.cgi?"));
  setenv("QUERY_STRING", "b=c", 1);
  EXPECT_EQ(CreateCGIETag(), TagOf("/webman/a.cgi?b=c"));
  // 1,023 characters, and the zero byte.
  setenv("QUERY_STRING", std::string(5000, 'q').c_str(), 1);
  const std::string whole = "/webman/a.cgi?" + std::string(5000, 'q');
  EXPECT_EQ(CreateCGIETag(), TagOf(whole.substr(0, 1023)));
  setenv("SCRIPT_NAME", std::string(2000, 's').c_str(), 1);
  EXPECT_EQ(CreateCGIETag(), TagOf(std::string(1023, 's')));
  setenv("SCRIPT_NAME", "", 1);
  setenv("QUERY_STRING", "", 1);
  EXPECT_EQ(CreateCGIETag(), TagOf("?"));
  unsetenv("SCRIPT_NAME");
  EXPECT_EQ(CreateCGIETag(), "");
}

TEST(EntityTag, HasNoLeadingZeros) {
  setenv("SCRIPT_NAME", "/webman/a.cgi", 1);
  size_t shortest = 35;
  for (int i = 0; i < 200; i++) {
    setenv("QUERY_STRING", std::to_string(i).c_str(), 1);
    const std::string tag = CreateCGIETag();
    EXPECT_EQ(tag, TagOf("/webman/a.cgi?" + std::to_string(i)));
    EXPECT_LE(tag.size(), 35u);
    shortest = std::min(shortest, tag.size());
  }
  EXPECT_LT(shortest, 33u);
}

TEST(EntityTag, FailuresOfTheDigestAreLogged) {
  support::Syslog log;
  setenv("SCRIPT_NAME", "/a", 1);
  faults::hooks.MD5_Init = [](MD5_CTX*) { return 0; };
  EXPECT_EQ(CreateCGIETag(), "");
  faults::hooks.MD5_Init = nullptr;
  faults::hooks.MD5_Update = [](MD5_CTX*, const void*, size_t size) {
    EXPECT_EQ(size, 1024u);
    return 0;
  };
  EXPECT_EQ(CreateCGIETag(), "");
  faults::hooks.MD5_Update = nullptr;
  faults::hooks.MD5_Final = [](unsigned char*, MD5_CTX*) { return 0; };
  EXPECT_EQ(CreateCGIETag(), "");
  const auto texts = log.TakeTexts();
  ASSERT_EQ(texts.size(), 3u);
  const char* what[] = {"init md5 failed", "update md5 failed", "md5 final failed"};
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(texts[i].rfind("webutils:GetMd5(", 0), 0u) << texts[i];
    EXPECT_EQ(texts[i].substr(texts[i].find("): ") + 3), what[i]);
  }
}

TEST(NotModified, OnlyForExactlyThisTag) {
  const struct {
    const char* held;
    const char* tag;
    bool matches;
  } rows[] = {{"ab-c", "ab-c", true},    {"\"ab-c\"", "ab-c", false}, {"AB-C", "ab-c", false},
              {"W/ab-c", "ab-c", false}, {"ab-c, d", "ab-c", false},  {"*", "ab-c", false},
              {" ab-c", "ab-c", false},  {"", "ab-c", false},         {"", "", false},
              {nullptr, "ab-c", false}};
  for (const auto& row : rows) {
    support::Environment environment = support::Get("");
    if (row.held != nullptr) environment["HTTP_IF_NONE_MATCH"] = row.held;
    const auto answer = support::RunRequest(environment, "", [&] {
      const bool matches = OutputNotModifiedIfMatch(row.tag);
      std::fflush(stdout);
      _exit(matches ? 7 : 8);
    });
    EXPECT_EQ(answer.exit_status, row.matches ? 7 : 8);
    EXPECT_EQ(answer.output, row.matches ? "Status: 304 Not Modified\r\nETag: ab-c\r\n\r\n" : "");
  }
}

TEST(Stamps, EveryKindOfPath) {
  setenv("DOCUMENT_ROOT", "/run/root", 1);
  setenv("SCRIPT_FILENAME", "/run/scripts/a.cgi", 1);
  Write("/run/root/x.js", 100);
  Write("/run/scripts/x.js", 200);
  Write("/run/here/webman/x.js", 300);
  Write("/run/scripts/q?a", 400);
  const timespec times[] = {{500, 0}, {500, 0}};
  utimensat(AT_FDCWD, "/run/scripts", times, 0);
  ASSERT_EQ(chdir("/run/here"), 0);
  const struct {
    const char *path, *stamp;
  } rows[] = {{"/x.js", "100"},         {"x.js", "200"},
              {"x.js?v=1", "200"},      {"/x.js?a?b", ""},
              {"webman/x.js", "300"},   {"webman/x.js?v=", "300"},
              {"./webman/x.js", "300"}, {"", "500"},
              {"?v=1", "500"},          {nullptr, "500"},
              {"q?a?b", "400"},         {"none", ""},
              {"/webman/x.js", ""},     {"../root/x.js", "100"}};
  for (const auto& row : rows) {
    const std::string stamp = GetModifyTime(row.path);
    if (*row.stamp == '\0') {
      EXPECT_TRUE(IsNow(stamp)) << row.path << ": " << stamp;
    } else {
      EXPECT_EQ(stamp, row.stamp) << (row.path == nullptr ? "null" : row.path);
    }
  }
}

TEST(Stamps, TheRootsAreReadOnce) {
  setenv("DOCUMENT_ROOT", "/run/root", 1);
  setenv("SCRIPT_FILENAME", "/run/root/", 1);
  Write("/run/root/x.js", 100);
  EXPECT_EQ(GetModifyTime("/x.js"), "100");
  EXPECT_EQ(GetModifyTime("x.js"), "100");
  setenv("DOCUMENT_ROOT", "/none", 1);
  setenv("SCRIPT_FILENAME", "/none", 1);
  EXPECT_EQ(GetModifyTime("/x.js"), "100");
  EXPECT_EQ(GetModifyTime("x.js"), "100");
}

TEST(Stamps, TheRootsByDefault) {
  unsetenv("DOCUMENT_ROOT");
  unsetenv("SCRIPT_FILENAME");
  Write("/usr/vemo/vemoman/stamp.js", 100);
  EXPECT_EQ(GetModifyTime("/stamp.js"), "100");
  EXPECT_EQ(GetModifyTime("stamp.js"), "100");
}

TEST(Stamps, OfTheDefaults) {
  Write("/etc.defaults/vemoinfo.conf", 123);
  EXPECT_EQ(GetVemoDefModifyTime(), "123");
  unlink("/etc.defaults/vemoinfo.conf");
  EXPECT_TRUE(IsNow(GetVemoDefModifyTime()));
}

TEST(Stamps, OfFoldersOfTexts) {
  setenv("DOCUMENT_ROOT", "/run/root", 1);
  std::filesystem::create_directories("/etc.defaults");
  std::ofstream("/etc.defaults/VERSION") << "smallfixnumber=\"3\"\n";
  long number = 100;
  for (const char* name : {"scripts", "webman", "webfm"}) {
    const std::string folder = std::string("/run/root/") + name + "/texts";
    std::filesystem::create_directories(folder);
    const timespec times[] = {{number, 0}, {number, 0}};
    utimensat(AT_FDCWD, folder.c_str(), times, 0);
    EXPECT_EQ(GetUIStringModifyTime(name), std::to_string(number) + "-s3");
    EXPECT_EQ(GetUIStringModifyTime(std::string(name) + "/more"), std::to_string(number) + "-s3");
    number++;
  }
  for (const char* name : {"unknown", "", "Webman", "web", "a webman"}) {
    const std::string stamp = GetUIStringModifyTime(name);
    EXPECT_TRUE(IsNow(stamp)) << name;
    EXPECT_EQ(stamp.substr(stamp.find('-')), "-s3");
  }
}

TEST(Stamps, OfFoldersOfTextsByDefault) {
  unsetenv("DOCUMENT_ROOT");
  unlink("/etc.defaults/VERSION");
  std::filesystem::create_directories("/usr/vemo/vemoman/webman/texts");
  const timespec times[] = {{77, 0}, {77, 0}};
  utimensat(AT_FDCWD, "/usr/vemo/vemoman//webman/texts", times, 0);
  EXPECT_EQ(GetUIStringModifyTime("webman"), "77-s0");
}

TEST(Versions, AreReadOnce) {
  std::filesystem::create_directories("/etc.defaults");
  std::ofstream("/etc.defaults/VERSION") << "buildnumber=\"123456789\"\nsmallfixnumber=\"42\"\n";
  EXPECT_EQ(GetVersion(), "1234567");  // 7 characters
  EXPECT_EQ(GetSmallFixNum(), "42");
  std::ofstream("/etc.defaults/VERSION") << "buildnumber=\"9\"\nsmallfixnumber=\"9\"\n";
  EXPECT_EQ(GetVersion(), "1234567");
  EXPECT_EQ(GetSmallFixNum(), "42");
}

TEST(Versions, HaveDefaults) {
  std::ofstream("/etc.defaults/VERSION") << "other=\"5\"\n";
  EXPECT_EQ(GetVersion(), "1");
  EXPECT_EQ(GetSmallFixNum(), "0");
}

}  // namespace
