// The store of rules and the policies that are made from them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <security/csp_rule.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>
#include <vemo/core.h>

#include <chrono>
#include <csignal>
#include <regex>

#include "common/json.h"
#include "support/syslog.h"
#include "unit/platform/cgi_accounts.h"

using namespace accounts;
using VEMO::ZEM::CspRule;

namespace {

const std::string kBuiltIn = "/usr/vemo/etc/csp/", kPackages = "/usr/local/etc/csp/";

Json::Value Parse(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(zem::ParseJson(text.data(), text.size(), zem::JsonComments::kSkip, value)) << text;
  return value;
}

std::string Compact(const std::string& path) {
  std::string text = zem::CompactJson(Parse(Read(path)));
  text.pop_back();
  return text;
}

class Rules : public testing::Test {
 protected:
  void SetUp() override {
    Shell("rm -rf /run/csp /usr/vemo/etc/csp /usr/local/etc/csp; mkdir -p /usr/local/etc");
    umask(022);
    Write("/usr/vemo/share/csp/rule-default", R"({"script-src": ["'self'"], "default-src": ["x"]})",
          0644);
    log_.emplace();
  }
  std::vector<std::string> Logged() {
    std::vector<std::string> texts;
    for (const std::string& line : log_->TakeTexts())
      texts.push_back(std::regex_replace(line, std::regex("^csp_rule:[0-9]+ "), ""));
    return texts;
  }
  static std::string Sources(const std::string& path, const char* directive) {
    std::string text = zem::CompactJson(Parse(Read(path))[directive]);
    text.pop_back();
    return text;
  }
  static constexpr char kMerged[] = "/run/csp/rule";
  std::optional<support::Syslog> log_;
};

TEST_F(Rules, WithoutDocumentsThePolicyIsTheDefault) {
  EXPECT_TRUE(CspRule::GenerateCSPTarget());
  EXPECT_EQ(Compact(kMerged),
            R"({"base-uri":[],"child-src":[],"connect-src":[],"default-src":["x"],"font-src":[],)"
            R"("form-action":[],"frame-ancestors":[],"frame-src":[],"img-src":[],"media-src":[],)"
            R"("object-src":[],"script-src":["'self'"],"style-src":[]})");
  struct stat status;
  ASSERT_EQ(stat(kMerged, &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
  ASSERT_EQ(stat("/run/csp/standalone", &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0755u);
  EXPECT_FALSE(Exists("/run/csp/csp_rule.lock"));
  EXPECT_TRUE(Logged().empty());
  Shell("test -z \"$(ls -A /run/csp/standalone)\"; test $(ls -A /run/csp | wc -l) = 2");
}

TEST_F(Rules, BuiltInDocumentsComeFirstAndInOrder) {
  Write(kPackages + "a", R"({"rule": {"img-src": ["p.a"]}})");
  Write(kBuiltIn + "z", R"({"rule": {"img-src": ["b.z", "b.y"]}})");
  Write(kBuiltIn + "c", R"({"rule": {"img-src": ["b.c"], "script-src": ["s.c"]}})");
  Write(kPackages + "z", R"({"rule": {"img-src": ["b.z"]}})");
  EXPECT_TRUE(CspRule::GenerateCSPTarget());
  EXPECT_EQ(Sources(kMerged, "img-src"), R"(["b.c","b.z","b.y","p.a","b.z"])");  // twice
  EXPECT_EQ(Sources(kMerged, "script-src"), R"(["'self'","s.c"])");
}

TEST_F(Rules, ChildrenAreFiledUnderFrames) {
  Write(kBuiltIn + "a", R"({"rule": {"child-src": ["c.a"], "frame-src": ["f.a"]}})");
  Write(kBuiltIn + "b", R"({"rule": {"child-src": ["c.b"], "frame-src": ["f.b"]}})");
  EXPECT_TRUE(CspRule::GenerateCSPTarget());
  // Also when the default rule has none of them: all of the children, then all of the frames.
  EXPECT_EQ(Sources(kMerged, "frame-src"), R"(["c.a","c.b","f.a","f.b"])");
  EXPECT_EQ(Sources(kMerged, "child-src"), "[]");
  Write("/usr/vemo/share/csp/rule-default",
        R"({"frame-src": ["d.f"], "child-src": ["d.c"], "img-src": "none"})");
  EXPECT_TRUE(CspRule::GenerateCSPTarget());
  EXPECT_EQ(Sources(kMerged, "frame-src"), R"(["d.f","c.a","c.b","f.a","f.b"])");
  EXPECT_EQ(Sources(kMerged, "child-src"), R"(["d.c"])");
  EXPECT_EQ(Sources(kMerged, "img-src"), R"("none")");
}

TEST_F(Rules, PagesOnTheirOwn) {
  Write(kBuiltIn + "a", R"({"rule": {"img-src": ["g.a"], "style-src": ["g.s"]},
      "rule-standalone": [
        {"jsid": "P", "rule": {"img-src": ["p.a"], "child-src": ["p.c"]}},
        {"jsid": "Q", "rule": {"img-src": ["q.a"], "style-src": ["q.s"]}, "wildcard": ["img-src", "font-src"]}]})");
  Write(kBuiltIn + "b", R"({"rule-standalone": {"jsid": "R", "wildcard": []}})");
  EXPECT_TRUE(CspRule::GenerateCSPTarget());
  const std::string pages = "/run/csp/standalone/";
  EXPECT_EQ(Sources(pages + "P", "img-src"), R"(["g.a","p.a"])");
  EXPECT_EQ(Sources(pages + "P", "frame-src"), R"(["p.c"])");
  EXPECT_EQ(Sources(pages + "Q", "img-src"), R"(["g.a","*"])");  // without the page's own
  EXPECT_EQ(Sources(pages + "Q", "font-src"), R"(["*"])");
  EXPECT_EQ(Sources(pages + "Q", "style-src"), R"(["g.s","q.s"])");
  EXPECT_EQ(Compact(pages + "R"), Compact(kMerged));
  EXPECT_EQ(Sources(kMerged, "img-src"), R"(["g.a"])");
  struct stat status;
  ASSERT_EQ(stat((pages + "P").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
}

TEST_F(Rules, NoPageLeavesItsDirectory) {
  const std::string long_name(300, 'n');
  Write(kBuiltIn + "a", R"({"rule-standalone": [{"jsid": "", "rule": {}}, {"jsid": ".", "rule": {}},
      {"jsid": "..", "rule": {}}, {"jsid": "a\u0000b", "rule": {}}, {"jsid": ")" +
                            long_name + R"(", "rule": {}}, {"jsid": "line\nfeed", "rule": {}},
      {"jsid": "good", "rule": {}}]})");
  EXPECT_FALSE(CspRule::GenerateCSPTarget());
  EXPECT_TRUE(Exists("/run/csp/standalone/good"));
  EXPECT_TRUE(Exists("/run/csp/standalone/line\nfeed"));
  EXPECT_TRUE(Exists(kMerged));
  Shell("test $(ls -A /run/csp/standalone | wc -l) = 3; test $(ls -A /run/csp | wc -l) = 2");
  const auto texts = Logged();
  ASSERT_EQ(texts.size(), 10u);
  EXPECT_EQ(texts[0], "save standalone file /run/csp/standalone/ failed");
  EXPECT_EQ(texts[1], "standalone config save failed");
  EXPECT_EQ(texts[4], "save standalone file /run/csp/standalone/.. failed");
}

TEST_F(Rules, BrokenDocumentsAreLeftOut) {
  Write(kBuiltIn + "a", "{");
  Write(kBuiltIn + "b", R"({"rule": {"img-src": ["one"]}})");
  Write(kBuiltIn + "c", R"({"rule": {"img-src": ["c.c"]}})");
  Write(kBuiltIn + "d", std::string(100000, '['));
  Shell("mkdir " + kBuiltIn + "g; mkfifo " + kBuiltIn + "h; ln -s /none " + kBuiltIn + "i");
  EXPECT_TRUE(CspRule::GenerateCSPTarget());
  EXPECT_EQ(Sources(kMerged, "img-src"), R"(["c.c"])");
  const auto texts = Logged();
  EXPECT_EQ(texts[0], "json format error " + kBuiltIn + "a");
  EXPECT_EQ(texts[1], "error url \"one\"");
  EXPECT_EQ(texts[2], "csp rule format error " + kBuiltIn + "b");
  EXPECT_EQ(texts[3], "json format error " + kBuiltIn + "d");
  EXPECT_EQ(texts.back(), "json format error " + kBuiltIn + "i");
}

TEST_F(Rules, SourcesThatCannotBeJudgedAreLeftOut) {
  log_.reset();  // the sources are logged whole, and nobody would read them
  Write(kBuiltIn + "e", R"({"rule": {"img-src": [")" + std::string(200000, 'a') + "." + "b?\"]}}");
  std::string chain;
  for (int i = 0; i < 100000; i++)
    chain += "a.";
  Write(kBuiltIn + "f", R"({"rule": {"img-src": [")" + chain + "a\"]}}");
  Write(kBuiltIn + "g", R"({"rule": {"img-src": ["g.g"]}})");
  EXPECT_TRUE(CspRule::GenerateCSPTarget());
  EXPECT_EQ(Sources(kMerged, "img-src"), R"(["g.g"])");
}

TEST_F(Rules, ADirectoryThatIsNone) {
  Write("/usr/vemo/etc/csp", "file");
  EXPECT_TRUE(CspRule::GenerateCSPTarget());
  EXPECT_TRUE(Logged().empty());
}

TEST_F(Rules, ABrokenDefaultLeavesEverything) {
  Write(kBuiltIn + "a", R"({"rule": {"img-src": ["a.a"]}})");
  EXPECT_TRUE(CspRule::GenerateCSPTarget());
  const std::string before = Read(kMerged);
  for (const char* text : {"", "{", "[]", "1", "null"}) {
    Write("/usr/vemo/share/csp/rule-default", text);
    Write(kBuiltIn + "a", R"({"rule": {"img-src": ["b.b"]}})");
    EXPECT_FALSE(CspRule::GenerateCSPTarget()) << text;
    EXPECT_EQ(Logged(), std::vector<std::string>{"default rule broken"});
    EXPECT_EQ(Read(kMerged), before);
    EXPECT_FALSE(Exists("/run/csp/csp_rule.lock"));
  }
  unlink("/usr/vemo/share/csp/rule-default");
  EXPECT_FALSE(CspRule::GenerateCSPTarget());
}

TEST_F(Rules, AFullDiskLeavesEverything) {
  Shell("mkdir /run/csp; mount -t tmpfs -o size=64k none /run/csp");
  EXPECT_TRUE(CspRule::GenerateCSPTarget());
  const std::string before = Read(kMerged);
  Shell("head -c 100000 /dev/zero > /run/csp/fill; true");
  std::string many;
  for (int i = 0; i < 3000; i++)
    many += (i > 0 ? ",\"" : "\"") + std::to_string(i) + ".example.org\"";
  Write(kBuiltIn + "a", "{\"rule\": {\"img-src\": [" + many + "]}}");
  Logged();
  EXPECT_FALSE(CspRule::GenerateCSPTarget());
  EXPECT_EQ(Logged(), std::vector<std::string>{"config save failed"});
  EXPECT_EQ(Read(kMerged), before);
  Shell("umount /run/csp");
}

TEST_F(Rules, ALockThatIsHeldIsWaitedFor) {
  Shell("mkdir -p /run/csp/standalone");
  const int held = open("/run/csp/csp_rule.lock", O_RDWR | O_CREAT, 0644);
  ASSERT_EQ(flock(held, LOCK_EX), 0);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(CspRule::GenerateCSPTarget());
  EXPECT_GT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
  EXPECT_EQ(Logged(), std::vector<std::string>{"lock failed."});
  EXPECT_TRUE(Exists("/run/csp/csp_rule.lock"));  // the holder's
  EXPECT_FALSE(Exists(kMerged));
  close(held);
  EXPECT_TRUE(CspRule::GenerateCSPTarget());
}

TEST_F(Rules, AHolderThatIsKilledBlocksNobody) {
  Shell("mkdir -p /run/csp/standalone");
  const pid_t child = fork();
  if (child == 0) {
    int fd;
    VLIBCFileLockTimeByFile("/run/csp/csp_rule.lock", 1, 5, &fd);
    pause();
  }
  usleep(100000);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_TRUE(CspRule::GenerateCSPTarget());
  EXPECT_FALSE(Exists("/run/csp/csp_rule.lock"));
}

TEST_F(Rules, SavesStoreAndGenerate) {
  const std::string name = "map";
  CspRule rule(name, false);
  EXPECT_TRUE(rule.Save(Parse(R"({"rule": {"img-src": ["a.b"]}})")));
  EXPECT_EQ(Compact(kBuiltIn + "map"), R"({"rule":{"img-src":["a.b"]}})");
  EXPECT_EQ(Sources(kMerged, "img-src"), R"(["a.b"])");
  struct stat status;
  ASSERT_EQ(stat(kBuiltIn.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0755u);

  CspRule package(name, true);
  EXPECT_TRUE(package.Save(Parse(R"({"rule": {"img-src": ["c.d"]}})")));
  EXPECT_EQ(Sources(kMerged, "img-src"), R"(["a.b","c.d"])");
  EXPECT_TRUE(rule.Delete());
  EXPECT_EQ(Sources(kMerged, "img-src"), R"(["c.d"])");
  Shell("rm -r /run/csp");
  EXPECT_TRUE(rule.Delete());  // there is none: nothing is generated
  EXPECT_FALSE(Exists(kMerged));
  EXPECT_TRUE(package.Delete());
  EXPECT_TRUE(Exists(kMerged));
  EXPECT_TRUE(Logged().empty());
}

TEST_F(Rules, WhatIsNoDocumentIsNotStored) {
  const std::string name = "map";
  CspRule rule(name, false);
  EXPECT_FALSE(rule.Save(Parse(R"({"rule": {"x": []}})")));
  EXPECT_EQ(VLIBCErrGet(), 0x4000);
  EXPECT_EQ(Logged(), (std::vector<std::string>{"error key x", "csp config map format error"}));
  EXPECT_FALSE(Exists(kBuiltIn));
  EXPECT_FALSE(Exists("/run/csp"));
}

TEST_F(Rules, NamesStayInTheDirectory) {
  Write("/usr/vemo/etc/victim", "x");
  for (const std::string name : {"", ".", "..", "../victim", "a/b", "/etc/x"}) {
    CspRule rule(name, false);
    EXPECT_FALSE(rule.Save(Parse(R"({"rule": {}})"))) << name;
    EXPECT_EQ(Logged().back(), "config " + kBuiltIn + name + " save error");
    const bool there = Exists(kBuiltIn + name);
    EXPECT_EQ(rule.Delete(), !there) << name;
  }
  EXPECT_EQ(Read("/usr/vemo/etc/victim"), "x");
  const std::string long_name(256, 'n');
  EXPECT_FALSE(CspRule(long_name, false).Save(Parse(R"({"rule": {}})")));
}

TEST_F(Rules, AReadOnlySystemIsAFailure) {
  const std::string name = "map";
  CspRule rule(name, false);
  EXPECT_TRUE(rule.Save(Parse(R"({"rule": {}})")));
  Shell("mount --bind /usr/vemo /usr/vemo; mount -o remount,ro,bind /usr/vemo");
  EXPECT_FALSE(rule.Save(Parse(R"({"rule": {"img-src": ["a.b"]}})")));
  EXPECT_FALSE(rule.Delete());
  EXPECT_EQ(Logged(), (std::vector<std::string>{"config " + kBuiltIn + "map save error",
                                                "config " + kBuiltIn + "map delete error"}));
  Shell("umount /usr/vemo");
}

TEST_F(Rules, AFailureOfTheGenerationIsTold) {
  const std::string name = "map";
  CspRule rule(name, false);
  unlink("/usr/vemo/share/csp/rule-default");
  EXPECT_FALSE(rule.Save(Parse(R"({"rule": {}})")));
  EXPECT_EQ(Logged(), (std::vector<std::string>{"default rule broken", "generate csp error"}));
  EXPECT_TRUE(Exists(kBuiltIn + "map"));
  EXPECT_FALSE(rule.Delete());
  EXPECT_FALSE(Exists(kBuiltIn + "map"));
}

TEST_F(Rules, WorkIsDoneAsRootAndTheIdentityComesBack) {
  const std::string name = "map";
  CspRule rule(name, false);
  ASSERT_EQ(setegid(65534), 0);
  ASSERT_EQ(seteuid(65534), 0);
  EXPECT_TRUE(rule.Save(Parse(R"({"rule": {}})")));
  EXPECT_EQ(geteuid(), 65534u);
  EXPECT_EQ(getegid(), 65534u);
  EXPECT_TRUE(CspRule::GenerateCSPTarget());
  EXPECT_TRUE(rule.Delete());
  EXPECT_EQ(geteuid(), 65534u);
  EXPECT_EQ(getegid(), 65534u);
  ASSERT_EQ(seteuid(0), 0);
  struct stat status;
  ASSERT_EQ(stat(kMerged, &status), 0);
  EXPECT_EQ(status.st_uid, 0u);
  EXPECT_EQ(status.st_gid, 0u);
}

TEST_F(Rules, WhoIsNotRootIsRefused) {
  EXPECT_TRUE(CspRule::GenerateCSPTarget());
  Write(kBuiltIn + "map", R"({"rule": {}})", 0644);
  const pid_t child = fork();
  if (child == 0) {
    const std::string name = "map";
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(1);
    CspRule rule(name, false);
    if (rule.Save(Parse(R"({"rule": {}})")) || rule.Delete()) _exit(2);
    if (CspRule::GenerateCSPTarget()) _exit(3);
    _exit(geteuid() == 65534 && getegid() == 65534 ? 0 : 4);
  }
  int status;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  std::vector<std::pair<int, std::string>> lines;
  for (const support::LogLine& line : log_->Take())
    lines.emplace_back(line.priority & ~LOG_USER,
                       std::regex_replace(line.text, std::regex("^csp_rule:[0-9]+ "), ""));
  const int auth = (LOG_AUTH | LOG_ERR) & ~LOG_USER;
  EXPECT_EQ(lines, (std::vector<std::pair<int, std::string>>{
                       {auth, "ERROR: IF_RUN_AS(0, 0)"},
                       {LOG_ERR, "cannot enter critical section(uid!=0?)"},
                       {auth, "ERROR: IF_RUN_AS(0, 0)"},
                       {LOG_ERR, "cannot enter critical section(uid!=0?)"},
                       {auth, "ERROR: ENTERCriticalSection"},
                       {LOG_ERR, "lock failed."}}));
}

TEST_F(Rules, FiftyProcessesAreNeverTwoAtOnce) {
  // Each document brings its own file along: a generation that ran beside another would
  // leave a policy that is not of the documents of any moment.
  for (int i = 0; i < 50; i++) {
    if (fork() != 0) continue;
    const std::string name = "m" + std::to_string(i % 10);
    CspRule rule(name, i % 2 == 0);
    bool good = true;
    for (int round = 0; round < 4; round++) {
      const std::string source = std::to_string(i) + "." + std::to_string(round);
      good = rule.Save(Parse(R"({"rule": {"img-src": [")" + source + R"("]}})")) && good;
      Json::Value merged;
      const std::string text = Read(kMerged);
      good = zem::ParseJson(text.data(), text.size(), zem::JsonComments::kSkip, merged) && good;
    }
    _exit(good ? 0 : 1);
  }
  for (int i = 0; i < 50; i++) {
    int status;
    wait(&status);
    EXPECT_EQ(status, 0);
  }
  const std::string last = Read(kMerged);
  EXPECT_TRUE(CspRule::GenerateCSPTarget());
  EXPECT_EQ(Read(kMerged), last);
  EXPECT_FALSE(Exists("/run/csp/csp_rule.lock"));
}

}  // namespace
