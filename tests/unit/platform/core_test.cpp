// The core library: error slot, lists, hashes, masks, names, secrets, signals.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>
#include <vemo/core.h>

#include <cerrno>
#include <set>
#include <string>
#include <thread>

#include "platform/host/core/internal.h"

namespace {

TEST(ErrorSlot, KeepsCodeFileAndLine) {
  EXPECT_EQ(VLIBCErrGet(), 0);
  EXPECT_STREQ(VLIBCErrorGetFile(), "");
  EXPECT_EQ(VLIBCErrorGetLine(), 0);
  errno = EIO;
  VLIBCErrSetEx(0xDD00, "a.c", 7);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(VLIBCErrGet(), 0xDD00);
  EXPECT_STREQ(VLIBCErrorGetFile(), "a.c");
  EXPECT_EQ(VLIBCErrorGetLine(), 7);
  VLIBCErrSetEx(1, nullptr, 1);
  EXPECT_STREQ(VLIBCErrorGetFile(), "");
}

TEST(ErrorSlot, IsOneAThread) {
  VLIBCErrSetEx(1, "a.c", 1);
  std::thread([] { EXPECT_EQ(VLIBCErrGet(), 0); }).join();
  EXPECT_EQ(VLIBCErrGet(), 1);
}

TEST(List, GrowsBehindItsHandle) {
  for (const int capacity : {-1, 0, 1, 1024}) {
    VEMOSZLIST* list = VLIBCSzListAlloc(capacity);
    for (int i = 0; i < 2000; ++i) {
      ASSERT_EQ(VLIBCSzListPush(&list, std::to_string(i).c_str()), 0);
    }
    EXPECT_STREQ(VLIBCSzListGet(list, 0), "0");
    EXPECT_STREQ(VLIBCSzListGet(list, 1999), "1999");
    EXPECT_EQ(VLIBCSzListGet(list, 2000), nullptr);
    EXPECT_EQ(VLIBCSzListGet(list, -1), nullptr);
    VLIBCSzListFree(list);
  }
  EXPECT_EQ(VLIBCSzListGet(nullptr, 0), nullptr);
  VLIBCSzListFree(nullptr);
}

TEST(List, TokensAreSplitAtEachDelimiter) {
  const struct {
    const char *text, *delimiters;
    std::vector<const char*> tokens;
  } rows[] = {
      {"", "/", {}},
      {"///", "/", {}},
      {"a/b//c/", "/", {"a", "b", "c"}},
      {"a, b", ", ", {"a", "b"}},
      {"abc", "", {"abc"}},
      {"abc", "x", {"abc"}},
  };
  for (const auto& row : rows) {
    VEMOSZLIST* list = VLIBCSzListAlloc(2);
    EXPECT_EQ(VLIBCStrTok(row.text, row.delimiters, list), static_cast<int>(row.tokens.size()));
    for (size_t i = 0; i < row.tokens.size(); ++i) {
      EXPECT_STREQ(VLIBCSzListGet(list, static_cast<int>(i)), row.tokens[i]);
    }
    VLIBCSzListFree(list);
  }
  EXPECT_EQ(VLIBCStrTok(nullptr, "/", nullptr), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_BAD_PARAM);
}

TEST(Hash, StoresReplacesAndKeepsOldValues) {
  VEMOSZHASH* hash = VLIBCSzHashAlloc(0);
  EXPECT_EQ(VLIBCSzHashGetValue(hash, "a"), nullptr);
  ASSERT_EQ(VLIBCSzHashSetValue(hash, "a", "one"), 0);
  const char* old = VLIBCSzHashGetValue(hash, "a");
  ASSERT_EQ(VLIBCSzHashSetValue(hash, "a", "two"), 0);
  EXPECT_STREQ(old, "one");
  EXPECT_STREQ(VLIBCSzHashGetValue(hash, "a"), "two");
  ASSERT_EQ(VLIBCSzHashSetValue(hash, "a", VLIBCSzHashGetValue(hash, "a")), 0);
  EXPECT_STREQ(VLIBCSzHashGetValue(hash, "a"), "two");
  ASSERT_EQ(VLIBCSzHashSetValue(hash, "", ""), 0);
  EXPECT_STREQ(VLIBCSzHashGetValue(hash, ""), "");
  VLIBCHashRemoveAll(hash);
  EXPECT_EQ(VLIBCSzHashGetValue(hash, "a"), nullptr);
  EXPECT_EQ(vemo_hash_size(hash), 0u);
  VLIBCSzHashFree(hash);
}

TEST(Hash, HoldsMany) {
  VEMOSZHASH* hash = VLIBCSzHashAlloc(1);
  for (int i = 0; i < 20000; ++i) {
    const std::string text = std::to_string(i);
    ASSERT_EQ(VLIBCSzHashSetValue(hash, text.c_str(), (text + "!").c_str()), 0);
  }
  EXPECT_EQ(vemo_hash_size(hash), 20000u);
  for (int i = 0; i < 20000; ++i) {
    const std::string text = std::to_string(i);
    ASSERT_EQ(VLIBCSzHashGetValue(hash, text.c_str()), text + "!");
  }
  VLIBCSzHashFree(hash);
}

TEST(Hash, LongTextsAndPrefixesAreApart) {
  VEMOSZHASH* hash = VLIBCSzHashAlloc(4);
  const std::string longest(1000000, 'x');
  VLIBCSzHashSetValue(hash, longest.c_str(), longest.c_str());
  VLIBCSzHashSetValue(hash, "ab", "1");
  VLIBCSzHashSetValue(hash, "a", "2");
  EXPECT_STREQ(VLIBCSzHashGetValue(hash, "ab"), "1");
  EXPECT_STREQ(VLIBCSzHashGetValue(hash, "a"), "2");
  EXPECT_EQ(VLIBCSzHashGetValue(hash, longest.c_str()), longest);
  VLIBCSzHashFree(hash);
}

TEST(Hash, NothingIsRefusedWithACrash) {
  VEMOSZHASH* hash = VLIBCSzHashAlloc(1);
  EXPECT_EQ(VLIBCSzHashSetValue(nullptr, "a", "b"), -1);
  EXPECT_EQ(VLIBCSzHashSetValue(hash, nullptr, "b"), -1);
  EXPECT_EQ(VLIBCSzHashSetValue(hash, "a", nullptr), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_BAD_PARAM);
  EXPECT_EQ(VLIBCSzHashGetValue(nullptr, "a"), nullptr);
  EXPECT_EQ(VLIBCSzHashGetValue(hash, nullptr), nullptr);
  VLIBCHashRemoveAll(nullptr);
  VLIBCSzHashFree(nullptr);
  VLIBCSzHashFree(hash);
}

TEST(Mask, HasContiguousOnes) {
  const struct {
    const char* text;
    int is_mask;
  } rows[] = {{"255.255.255.0", 1},
              {"255.255.255.255", 1},
              {"128.0.0.0", 1},
              {"255.255.254.0", 1},
              {"0.0.0.0", 0},
              {"255.0.255.0", 0},
              {"0.0.0.255", 0},
              {"255.255.255", 0},
              {"", 0},
              {"x", 0},
              {"ffff::", 0},
              {" 255.0.0.0", 0},
              {"255.0.0.0 ", 0},
              {"0377.0.0.0", 0}};
  for (const auto& row : rows)
    EXPECT_EQ(BlVLIBIsIpMask(row.text), row.is_mask) << row.text;
  EXPECT_EQ(BlVLIBIsIpMask(nullptr), 0);
}

TEST(NamePart, IsOnePartOfAPath) {
  const struct {
    const char *name, *part;
  } rows[] = {{"alice", "alice"},       {"a.b_c-d@e", "a.b_c-d@e"},
              {".hidden", "%2Ehidden"}, {"CORP\\alice", "CORP%5Calice"},
              {"a b%", "a%20b%25"},     {"\xc3\xa4", "%C3%A4"},
              {"...", "%2E.."},         {"", nullptr},
              {".", nullptr},           {"..", nullptr},
              {"a/b", nullptr},         {"/", nullptr},
              {"a\nb", nullptr},        {"a\x7f", nullptr}};
  for (const auto& row : rows) {
    char buffer[256] = "";
    EXPECT_EQ(vemo_name_part(row.name, buffer, sizeof buffer), row.part == nullptr ? -1 : 0)
        << row.name;
    if (row.part != nullptr) {
      EXPECT_STREQ(buffer, row.part);
    }
  }
  char buffer[1024];
  EXPECT_EQ(vemo_name_part(std::string(255, 'a').c_str(), buffer, sizeof buffer), 0);
  EXPECT_EQ(vemo_name_part(std::string(256, 'a').c_str(), buffer, sizeof buffer), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_TOO_LONG);
  EXPECT_EQ(vemo_name_part(std::string(86, ' ').c_str(), buffer, sizeof buffer), -1);
  EXPECT_EQ(vemo_name_part("abc", buffer, 3), -1);
  EXPECT_EQ(vemo_name_part("abc", buffer, 4), 0);
  EXPECT_EQ(vemo_name_part(nullptr, buffer, sizeof buffer), -1);
}

TEST(Secret, RandomTextsNeverRepeat) {
  std::set<std::string> seen;
  for (int i = 0; i < 100000; ++i) {
    unsigned char bits[32];
    char text[44];
    ASSERT_EQ(vemo_random(bits, sizeof bits), 0);
    ASSERT_EQ(vemo_base64url(bits, sizeof bits, text, sizeof text), 43);
    ASSERT_TRUE(seen.insert(text).second);
  }
}

TEST(Secret, Base64urlOfTheStandardsExamples) {
  const struct {
    const char *data, *text;
  } rows[] = {
      {"", ""},           {"f", "Zg"},          {"fo", "Zm8"},          {"foo", "Zm9v"},
      {"foob", "Zm9vYg"}, {"fooba", "Zm9vYmE"}, {"foobar", "Zm9vYmFy"}, {"\xfb\xff", "-_8"}};
  for (const auto& row : rows) {
    char buffer[16];
    EXPECT_EQ(vemo_base64url(row.data, strlen(row.data), buffer, sizeof buffer),
              static_cast<int>(strlen(row.text)));
    EXPECT_STREQ(buffer, row.text);
    EXPECT_EQ(vemo_base64url(row.data, strlen(row.data), buffer, strlen(row.text)), -1);
  }
}

TEST(Secret, AnAbsentSecretMatchesNothing) {
  EXPECT_TRUE(vemo_equal_constant_time("abc", "abc"));
  EXPECT_FALSE(vemo_equal_constant_time("abc", "abd"));
  EXPECT_FALSE(vemo_equal_constant_time("abc", "ab"));
  EXPECT_FALSE(vemo_equal_constant_time("", ""));
  EXPECT_FALSE(vemo_equal_constant_time(nullptr, nullptr));
  EXPECT_FALSE(vemo_equal_constant_time("a", nullptr));
}

TEST(Sigterm, IsHeldBackUntilTheOutermostRelease) {
  static volatile sig_atomic_t received = 0;
  signal(SIGTERM, [](int) { received = 1; });
  ASSERT_EQ(VLIBCSigtermHold(), 0);
  ASSERT_EQ(VLIBCSigtermHold(), 0);
  raise(SIGTERM);
  EXPECT_EQ(received, 0);
  VLIBCSigtermRelease();
  EXPECT_EQ(received, 0);
  VLIBCSigtermRelease();
  EXPECT_EQ(received, 1);
  VLIBCSigtermRelease();  // one too many does nothing
  received = 0;
  raise(SIGTERM);
  EXPECT_EQ(received, 1);
}

TEST(Sigterm, AProcessThatBlocksItKeepsItBlocked) {
  sigset_t term, now;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  sigprocmask(SIG_BLOCK, &term, nullptr);
  VLIBCSigtermHold();
  VLIBCSigtermRelease();
  sigprocmask(SIG_BLOCK, nullptr, &now);
  EXPECT_EQ(sigismember(&now, SIGTERM), 1);
}

TEST(Administrators, ByAnyGroupOfTheAccount) {
  ASSERT_EQ(system("groupadd -f administrators; useradd -M second -G administrators; "
                   "useradd -M -N first -g administrators; useradd -M other"),
            0);
  EXPECT_EQ(VLIBGroupIsAdminGroupMem("first", 0), 1);
  EXPECT_EQ(VLIBGroupIsAdminGroupMem("second", 0), 1);
  EXPECT_EQ(VLIBGroupIsAdminGroupMem("other", 0), 0);
  EXPECT_EQ(VLIBGroupIsAdminGroupMem("root", 0), 1);
  EXPECT_EQ(VLIBGroupIsAdminGroupMem("nobody-there", 0), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_NO_USER);
  EXPECT_EQ(VLIBGroupIsAdminGroupMem("", 0), -1);
  EXPECT_EQ(VLIBGroupIsAdminGroupMem(nullptr, 0), -1);
  EXPECT_EQ(VLIBCErrGet(), VEMOERR_BAD_PARAM);
}

TEST(Administrators, AnswersAreKeptForTheProcess) {
  ASSERT_EQ(system("groupadd -f administrators; useradd -M second -G administrators"), 0);
  EXPECT_EQ(VLIBGroupIsAdminGroupMem("second", 0), 1);
  ASSERT_EQ(system("gpasswd -d second administrators"), 0);
  EXPECT_EQ(VLIBGroupIsAdminGroupMem("second", 0), 1);
}

TEST(Administrators, WithoutTheGroupThereIsOnlyRoot) {
  ASSERT_EQ(system("groupdel administrators 2>/dev/null; useradd -M other"), 0);
  EXPECT_EQ(VLIBGroupIsAdminGroupMem("other", 0), 0);
  EXPECT_EQ(VLIBGroupIsAdminGroupMem("root", 0), 1);
}

TEST(Administrators, AGroupOfThousandsAndAnAccountOfHundredsOfGroups) {
  ASSERT_EQ(
      system("groupadd -f administrators; useradd -M busy; "
             "for i in $(seq 300); do echo \"g$i:x:$((20000 + i)):busy\"; done >> /etc/group; "
             "members=$(seq -s, -f 'member%.0f' 5000); "
             "sed -i \"s/^administrators:.*/&,$members,busy/\" /etc/group"),
      0);
  EXPECT_EQ(VLIBGroupIsAdminGroupMem("busy", 0), 1);
}

}  // namespace
