// Addresses, names of this machine and of accounts, and ports.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vemo/core.h>
#include <vemo/ports.h>
#include <webutils/webutils.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>
#include <string>

#include "faults/faults.h"
#include "support/syslog.h"

namespace {

void Shell(const std::string& command) { ASSERT_EQ(system(command.c_str()), 0) << command; }
void Write(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

// --- GetURLByProtocol ---

TEST(Url, OfThisServerByTheRequestsHost) {
  struct Row {
    const char* host;
    bool https;
    const char *port, *url, *after;
  };
  for (const Row& row :
       {Row{"host1:5000", true, "5001", "https://host1:5001", "host1:5000"},
        {"[fe80::1]:5000", false, "80", "http://[fe80::1]:80", "[fe80::1]:5000"},
        {"[fe80::1]", false, "80", "http://[fe80::1]:80", "[fe80::1]"},
        {"host", true, "1", "https://host:1", "host"},
        {"host:1:2", true, "1", "https://host:1", "host:1:2"},
        // A last dot is dropped for good.
        {"host.example.", true, "1", "https://host.example:1", "host.example"},
        {"host.example.:5000", true, "1", "https://host.example:1", "host.example"},
        {"host..", true, "1", "https://host.:1", "host."},
        {".", false, "1", "http://:1", ""},
        {"", false, "", "http://:", ""},
        {":5000", false, "1", "http://:1", ":5000"},
        {"a]b:1", false, "2", "http://a]:2", "a]b:1"},
        {"::1", false, "x y", "http://:x y", "::1"}}) {
    setenv("HTTP_HOST", row.host, 1);
    std::string url = "before";
    EXPECT_TRUE(WebUtils::GetURLByProtocol(url, row.https, row.port)) << row.host;
    EXPECT_EQ(url, row.url);
    EXPECT_STREQ(getenv("HTTP_HOST"), row.after) << row.host;
  }
}

TEST(Url, WithoutAHostThereIsNone) {
  support::Syslog log;
  unsetenv("HTTP_HOST");
  std::string url = "before";
  EXPECT_FALSE(WebUtils::GetURLByProtocol(url, true, "1"));
  EXPECT_EQ(url, "before");
  const auto lines = log.TakeTexts();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(
      std::regex_match(lines[0], std::regex("webutils \\(\\d+\\) Can't find HTTP_HOST in env")))
      << lines[0];
}

// --- ParseURL ---

TEST(Url, PartsOfAddresses) {
  struct Row {
    const char* url;
    bool good;
    const char *scheme, *host, *port;
  };
  for (const Row& row : {Row{"https://[::1]/x", true, "https", "[::1]", "443"},
                         {"http://h:8080/a:b", true, "http", "h", "8080"},
                         {"http://h", true, "http", "h", "80"},
                         {"https://h/", true, "https", "h", "443"},
                         {"http://h:", true, "http", "h", ""},
                         {"http://h:1:2", true, "http", "h:1", "2"},
                         {"http://[::1]:5000", true, "http", "[::1]", "5000"},
                         {"http://[::1]x:5000", true, "http", "[::1]", "80"},
                         {"http://[::1]:", true, "http", "[::1]", ""},
                         {"http://[a]b]:1", true, "http", "[a]b]", "1"},
                         {"http://user:pass@h:1/p?q#f", true, "http", "user:pass@h", "1"},
                         {"http://", true, "http", "", "80"},
                         {"http:///x", true, "http", "", "80"},
                         {"http://h?q", true, "http", "h?q", "80"},
                         {"ftp://h", false, "", "", ""},
                         {"HTTP://h", false, "", "", ""},
                         {"//h", false, "", "", ""},
                         {"h:80", false, "", "", ""},
                         {" http://h", false, "", "", ""},
                         {"http:/h", false, "", "", ""},
                         {"javascript:alert(1)", false, "", "", ""},
                         {"http://[::1", false, "http", "", "80"}}) {
    std::string scheme = "s", host = "h", port = "p";
    EXPECT_EQ(WebUtils::ParseURL(row.url, scheme, host, port), row.good) << row.url;
    EXPECT_EQ(scheme, row.scheme) << row.url;
    EXPECT_EQ(host, row.host) << row.url;
    EXPECT_EQ(port, row.port) << row.url;
  }
  std::string scheme = "s", host = "h", port = "p";
  EXPECT_FALSE(WebUtils::ParseURL("", scheme, host, port));
  EXPECT_EQ(scheme + host + port, "shp");
  std::string same = "http://host:1/x";
  EXPECT_TRUE(WebUtils::ParseURL(same, scheme, same, port));  // into itself
  EXPECT_EQ(same, "host");
}

// --- EncodeURL ---

TEST(Url, EveryByteIsEncoded) {
  const std::string plain = "ABCXYZabcxyz0189-._~";
  EXPECT_EQ(WebUtils::EncodeURL(plain.c_str()), plain);
  EXPECT_EQ(WebUtils::EncodeURL(" "), "%20");
  EXPECT_EQ(WebUtils::EncodeURL(""), "");
  EXPECT_EQ(WebUtils::EncodeURL(nullptr), "");
  EXPECT_EQ(WebUtils::EncodeURL("\xc3\xa4/?&=+%"), "%C3%A4%2F%3F%26%3D%2B%25");
  for (int byte = 1; byte < 256; byte++) {
    const char text[] = {static_cast<char>(byte), '\0'};
    char code[4];
    std::snprintf(code, sizeof code, "%%%02X", byte);
    const bool kept = byte < 128 && (isalnum(byte) || strchr("-._~", byte) != nullptr);
    EXPECT_EQ(WebUtils::EncodeURL(text), kept ? text : code);
  }
  EXPECT_EQ(WebUtils::EncodeURL(std::string(1 << 20, '\xff').c_str()).size(), 3u << 20);
}

// --- Names of this machine ---

TEST(Url, TheServersName) {
  char name[256];
  ASSERT_EQ(gethostname(name, sizeof name), 0);
  EXPECT_EQ(WebUtils::GetServerName(), name);
  ASSERT_EQ(sethostname("nas-1.example", 13), 0);
  EXPECT_EQ(WebUtils::GetServerName(), "nas-1.example");
  const std::string longest(64, 'n');
  ASSERT_EQ(sethostname(longest.c_str(), longest.size()), 0);
  EXPECT_EQ(WebUtils::GetServerName(), longest);
}

TEST(Url, AServerWithoutAName) {
  support::Syslog log;
  faults::hooks.gethostname = [](char* buffer, size_t) {
    buffer[0] = 'x';
    return -1;
  };
  EXPECT_EQ(WebUtils::GetServerName(), "");
  const auto lines = log.TakeTexts();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(std::regex_match(
      lines[0], std::regex("webutils:GetServerName\\(\\d+\\): getting hostname error\\.")))
      << lines[0];
}

TEST(Url, TheDomainsName) {
  Shell("mkdir -p /etc/samba");
  struct Row {
    const char *conf, *name;
  };
  for (const Row& row :
       {Row{"[global]\nworkgroup = HOME\n", ""},
        {"[global]\nworkgroup = HOME\nsecurity = user\nrealm = X\n", ""},
        {"[global]\nsecurity = domain\nworkgroup = CORP\n", "CORP"},
        {"[global]\nsecurity = domain\n", "WORKGROUP"},
        {"[global]\nserver role = member server\nworkgroup = M\n", "M"},
        {"[global]\nsecurity = ads\nrealm = CORP.EXAMPLE\nworkgroup = CORP\n", "CORP.EXAMPLE"},
        {"[global]\nserver role = active directory domain controller\nrealm=A.B\n", "A.B"},
        {"[global]\nsecurity = ads\n", ""}}) {
    Write("/etc/samba/smb.conf", row.conf);
    EXPECT_EQ(WebUtils::GetDomainName(), row.name) << row.conf;
  }
  Write("/etc/samba/smb.conf", "[global]\nsecurity=ads\nrealm=" + std::string(100, 'R') + "\n");
  EXPECT_EQ(WebUtils::GetDomainName(), std::string(63, 'R'));
  Write("/etc/samba/smb.conf",
        "[global]\nsecurity=domain\nworkgroup=" + std::string(100, 'W') + "\n");
  EXPECT_EQ(WebUtils::GetDomainName(), std::string(63, 'W'));
  unlink("/etc/samba/smb.conf");
  EXPECT_EQ(WebUtils::GetDomainName(), "");
}

// --- Ports ---

struct Asked {
  int count = 0, checks = 0;
  std::string services, range, protocol;
};

Asked Ask(const char* service, int first, int last, int answer, bool* result = nullptr) {
  Asked asked;
  faults::hooks.VLIBIsPortConflict = [&](const char* services, const char* range,
                                         const char* protocol, int checks,
                                         VEMOSERVICEPORT** conflicts) {
    asked.count++;
    asked.services = services;
    asked.range = range;
    asked.protocol = protocol;
    asked.checks = checks;
    *conflicts =
        answer > 0 ? static_cast<VEMOSERVICEPORT*>(calloc(1, sizeof(VEMOSERVICEPORT))) : nullptr;
    return answer;
  };
  const bool is = WebUtils::IsPortConflict(service, first, last);
  if (result != nullptr) *result = is;
  EXPECT_EQ(is, answer > 0 && asked.count > 0);
  return asked;
}

TEST(Url, PortsAreAskedForAsARange) {
  EXPECT_EQ(Ask("ftp", 0, 0, 1).count, 0);
  EXPECT_EQ(Ask("ftp", 10, 5, 1).count, 0);
  for (const int answer : {-1, 0, 1, 7}) {
    const Asked one = Ask("ftp", 21, 21, answer);
    EXPECT_EQ(one.range, "21");
    EXPECT_EQ(one.protocol, "tcp");
    EXPECT_EQ(one.checks, 28);
    EXPECT_EQ(one.services, "ftp");
  }
  EXPECT_EQ(Ask("ftp", 20, 21, 0).range, "20:21");
  EXPECT_EQ(Ask("ftp", -5, 21, -1).range, "-5:21");
  EXPECT_EQ(Ask("ftp", 0, 21, -1).range, "0:21");
  EXPECT_EQ(Ask(nullptr, 1, 1, 0).services, "");
}

TEST(Url, TheExtraPortOfTheWebServer) {
  Write("/etc/vemoinfo.conf", "addport=\"yes\"\n");
  EXPECT_EQ(Ask("http", 80, 80, 0).services, "http, http_extra");
  EXPECT_EQ(Ask("https", 80, 80, 0).services, "https");
  for (const char* value : {"", "addport=\"no\"\n", "addport=\"YES\"\n"}) {
    Write("/etc/vemoinfo.conf", value);
    EXPECT_EQ(Ask("http", 80, 80, 0).services, "http") << value;
  }
}

TEST(Url, RealPorts) {
  Shell("mkdir -p /usr/vemo/etc/ports.d");
  Write("/usr/vemo/etc/ports.d/web.conf", "tcp=\"8000:8010\"\n");
  EXPECT_TRUE(WebUtils::IsPortConflict("ftp", 8005, 8005));
  EXPECT_FALSE(WebUtils::IsPortConflict("web", 8005, 8005));
  EXPECT_FALSE(WebUtils::IsPortConflict("ftp", 8011, 8020));
  EXPECT_FALSE(WebUtils::IsPortConflict("ftp", 70000, 70001));
}

// --- Names of accounts ---

class Accounts : public testing::Test {
 protected:
  void SetUp() override {
    Shell(
        "useradd -M alice; printf '%s\\n' 'CORP\\dora:x:7001:100::/:/bin/false' "
        "'carol@corp.example:x:7002:100::/:/bin/false' >> /etc/passwd; mkdir -p /etc/samba");
    Write("/etc/samba/smb.conf", "[global]\nsecurity=ads\nrealm=CORP.EXAMPLE\nworkgroup=CORP\n");
    log_.Take();  // of useradd
  }
  std::string Parse(const char* input, unsigned size = 64) {
    char output[600] = "before";
    EXPECT_EQ(WebUtils::ParseInputUserName(input, output, size), 0) << input;
    return output;
  }
  support::Syslog log_;
};

TEST_F(Accounts, AreFoundAsTheyAreTyped) {
  EXPECT_EQ(Parse("alice"), "alice");
  EXPECT_EQ(Parse("ALICE"), "alice");  // by lower case
  EXPECT_EQ(Parse("nobody-known"), "nobody-known");
  EXPECT_EQ(Parse("Nobody-Known"), "Nobody-Known");
  EXPECT_EQ(Parse("carol@corp.example"), "carol@corp.example");
  EXPECT_EQ(Parse("CORP\\dora"), "CORP\\dora");
  EXPECT_EQ(Parse("corp.example\\dora"), "CORP\\dora");
  EXPECT_EQ(Parse("dora@corp.example"), "CORP\\dora");
  EXPECT_TRUE(log_.TakeTexts().empty());
}

TEST_F(Accounts, ADomainsUnknownNameIsLogged) {
  EXPECT_EQ(Parse("CORP\\nobody"), "before");
  auto lines = log_.TakeTexts();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(std::regex_match(
      lines[0], std::regex("webutils:\\d+ VLIBUserRealNameGet\\(CORP\\\\nobody\\) failed\\."
                           "\\[0x0800 .*:\\d+\\]")))
      << lines[0];
  EXPECT_EQ(Parse("corp.example\\nobody"), "before");
  lines = log_.TakeTexts();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("(CORP\\nobody)"), std::string::npos);
}

TEST_F(Accounts, BadParameters) {
  char output[4] = "abc";
  EXPECT_EQ(WebUtils::ParseInputUserName(nullptr, output, 4), 1);
  EXPECT_EQ(WebUtils::ParseInputUserName("alice", nullptr, 4), 1);
  EXPECT_EQ(WebUtils::ParseInputUserName("alice", output, 0), 1);
  EXPECT_STREQ(output, "abc");
  const auto lines = log_.TakeTexts();
  ASSERT_EQ(lines.size(), 3u);
  for (const auto& line : lines)
    EXPECT_TRUE(std::regex_match(line, std::regex("webutils:\\d+ Bad parameter"))) << line;
}

TEST_F(Accounts, LongNamesAreCut) {
  EXPECT_EQ(Parse("nobody-known", 7), "nobody");
  EXPECT_EQ(Parse("ALICE", 4), "ali");
  EXPECT_EQ(Parse(std::string(500, 'x').c_str(), 600), std::string(492, 'x'));
  EXPECT_EQ(Parse(std::string(492, 'x').c_str(), 600), std::string(492, 'x'));
  EXPECT_EQ(Parse("", 64), "");
}

TEST(Names, OfDomainsAndDirectories) {
  for (const char* name : {"a\\b", "\\", "a\\", "a\\b@c"})
    EXPECT_TRUE(WebUtils::IsDomainObject(name)) << name;
  for (const char* name : {"", "a", "a@b", "a/b"})
    EXPECT_FALSE(WebUtils::IsDomainObject(name)) << name;
  for (const char* name : {"a@b", "@", "a\\b@c"})
    EXPECT_TRUE(WebUtils::IsLDAPObject(name)) << name;
  for (const char* name : {"", "a", "a\\b"})
    EXPECT_FALSE(WebUtils::IsLDAPObject(name)) << name;
  EXPECT_TRUE(WebUtils::IsDomainObject(std::string("a\0\\", 3)));
}

}  // namespace
