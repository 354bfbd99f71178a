// The request object's input: which reader gets the parameter line, and what a
// program then sees.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <webman/webman.h>

#include <cstdio>
#include <fstream>
#include <ostream>

#include "common/json.h"
#include "faults/faults.h"
#include "support/request.h"
#include "support/syslog.h"

namespace {

using support::Answer;
using support::Get;
using support::Post;
using support::RunRequest;

std::string Show(const char* text) { return text == nullptr ? "(null)" : text; }

// What In() and In("a", "x") give for a POST of `body`.
std::string Seen(const std::string& body) {
  const Answer answer = RunRequest(Post(body), body, [] {
    WebMan request(true);
    Json::Value* json = request.In();
    std::printf("%s|%s", json == nullptr ? "-" : zem::StyledJson(*json).c_str(),
                Show(request.In("a", "x")).c_str());
  });
  EXPECT_EQ(answer.exit_status, 0);
  return answer.output;
}

struct InputRow {
  const char* body;
  const char* seen;
};

void PrintTo(const InputRow& row, std::ostream* out) { *out << testing::PrintToString(row.body); }

class InputTest : public testing::TestWithParam<InputRow> {};

TEST_P(InputTest, GivesEitherTheDocumentOrTheParameters) {
  EXPECT_EQ(Seen(GetParam().body), GetParam().seen) << GetParam().body;
}

INSTANTIATE_TEST_SUITE_P(
    Bodies, InputTest,
    testing::Values(InputRow{R"({"a":1})", "{\n   \"a\" : 1\n}\n|x"}, InputRow{"a=1", "-|1"},
                    InputRow{"a=1&b=2", "-|1"},
                    // An empty document is JSON all the same: the parameters stay empty.
                    InputRow{"{}", "-|x"}, InputRow{"[]", "-|x"}, InputRow{"[7]", "[ 7 ]\n|x"},
                    // The reader stops after the first value, so these are JSON.
                    InputRow{"1=2&a=3", "-|x"}, InputRow{"null=1&a=3", "-|x"},
                    InputRow{"-=1&a=3", "-|x"}, InputRow{"\"a\"=1&a=3", "-|x"},
                    InputRow{"{\"b\":2}&a=3", "{\n   \"b\" : 2\n}\n|x"},
                    // A document that breaks off leaves nothing of itself behind.
                    InputRow{"{\"b\":1,", "-|x"}, InputRow{"[1,2&a=5", "-|5"},
                    InputRow{"a=%7B%22a%22%3A1%7D", "-|{\"a\":1}"}, InputRow{"a=b%00c", "-|x"},
                    InputRow{"a=1&a=2", "-|1"}, InputRow{"a=%2541", "-|%41"},
                    InputRow{"a=+%20+", "-|   "}, InputRow{"a=%4&b=1", "-|%4"}, InputRow{"a", "-|"},
                    InputRow{"a=", "-|"}, InputRow{"nul=1&a=\xff", "-|\xff"}));

TEST(RequestInput, NestedDocumentsAreReadToTheReadersDepth) {
  const auto nested = [](size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  EXPECT_EQ(Seen(nested(1000)).substr(0, 1), "[");
  for (const size_t depth : {1001u, 100000u})
    EXPECT_EQ(Seen(nested(depth)), "-|x") << depth;
}

TEST(RequestInput, CommentsAreKept) { EXPECT_EQ(Seen("// kept\n[1]"), "\n// kept\n[ 1 ]\n|x"); }

TEST(RequestInput, LoadInReadsOnce) {
  const Answer answer = RunRequest(Get("a=1"), "", [] {
    WebMan request(false);
    std::printf("%s,", Show(request.In("a", "x")).c_str());
    std::printf("%d,", request.LoadIn());
    std::printf("%s,", request.In("a", "x"));
    setenv("QUERY_STRING", "a=2", 1);
    std::printf("%d,", request.LoadIn());
    std::printf("%s", request.In("a", "x"));
  });
  EXPECT_EQ(answer.output, "x,1,1,0,1");
}

TEST(RequestInput, TheConstructorReadsWhenAsked) {
  const Answer answer = RunRequest(Get("a=1"), "", [] {
    WebMan request(true);
    std::printf("%d,", request.LoadIn());
    std::printf("%s", request.In("a", "x"));
  });
  EXPECT_EQ(answer.output, "0,1");
}

TEST(RequestInput, ARequestWithoutALineMayBeAskedAgain) {
  const Answer answer = RunRequest(Get(""), "", [] {
    WebMan request(true);
    std::printf("%d,", request.LoadIn());
    setenv("QUERY_STRING", "a=2", 1);
    std::printf("%d,", request.LoadIn());
    std::printf("%s", request.In("a", "x"));
  });
  EXPECT_EQ(answer.output, "0,1,2");
}

TEST(RequestInput, LoadJsonParamDropsWhatWasThere) {
  const Answer answer = RunRequest(Get(""), "", [] {
    WebMan request(false);
    char good[] = "{\"a\":1}";
    char bad[] = "{\"a\":1,]";
    for (char* line : {good, bad, good, static_cast<char*>(nullptr)}) {
      std::printf("%d", request.LoadJSONParam(line));
      std::printf("%d,", request.In() != nullptr);
    }
  });
  EXPECT_EQ(answer.output, "11,00,11,00,");
}

TEST(RequestInput, BodiesThatDoNotFitTheirLengthGiveNoParameters) {
  const auto seen = [](const char* length, const std::string& body) {
    support::Environment environment = Post(body);
    environment["CONTENT_LENGTH"] = length;
    const Answer answer = RunRequest(environment, body, [] {
      WebMan request(true);
      std::printf("%s", Show(request.In("a", "x")).c_str());
    });
    EXPECT_EQ(answer.exit_status, 0);
    return answer.output;
  };
  EXPECT_EQ(seen("3", "a=1"), "1");
  EXPECT_EQ(seen("4", "a=1"), "x");      // cut short
  EXPECT_EQ(seen("3", "a=1&b=2"), "1");  // no byte beyond the length is read
  for (const char* length : {"", "0", "-1", "+3", "3x", "9999999999", "18446744073709551617"}) {
    EXPECT_EQ(seen(length, "a=1"), "x") << length;
  }
}

TEST(RequestInput, TheProcessLeadsItsSession) {
  const Answer answer = RunRequest(Get(""), "", [] {
    WebMan request(true);
    std::printf("%d", getsid(0) == getpid());
  });
  EXPECT_EQ(answer.output, "1");
}

TEST(RequestInput, CookiesAreReadAtTheStartAndAgainWhenAsked) {
  support::Environment environment = Get("");
  environment["HTTP_COOKIE"] = "a=1; b=\"two\"; a=3; xa=4";
  const Answer answer = RunRequest(environment, "", [] {
    WebMan request(false);
    std::printf("%s,%s,%s,", request.GetCookie("a", "-"), request.GetCookie("b", "-"),
                request.GetCookie("c", "-"));
    setenv("HTTP_COOKIE", "a=9", 1);
    std::printf("%s,", request.GetCookie("a", "-"));
    request.UpdateCookiesHash();
    std::printf("%s,%s", request.GetCookie("a", "-"), request.GetCookie("b", "-"));
  });
  EXPECT_EQ(answer.output, "1,\"two\",-,1,9,-");
}

TEST(RequestInput, TheLanguageIsOneOfTheInterfacesTexts) {
  ASSERT_EQ(system("mkdir -p /usr/vemo/vemoman/webman/texts/fre /usr/vemo/vemoman/media/texts/spn"),
            0);
  // The second language is one that only another module has.
  for (const auto& [asked, given] : {std::pair{"fre", "fre"}, {"spn", "enu"}}) {
    support::Environment environment = Get("");
    environment["HTTP_COOKIE"] = std::string("lang=") + asked;
    const Answer answer = RunRequest(environment, "", [] {
      WebMan request(false);
      std::printf("%s", request.GetUILanguage());
    });
    EXPECT_EQ(answer.output, given);
  }
}

TEST(RequestInput, TheLanguageIsNeverAPath) {
  support::Environment environment = Get("");
  environment["HTTP_COOKIE"] = "lang=../../etc";
  const Answer answer = RunRequest(environment, "", [] {
    WebMan request(false);
    std::printf("%zu", std::string(request.GetUILanguage()).size());
  });
  EXPECT_EQ(answer.output, "3");
}

// szReadFile.

class ReadFileTest : public testing::Test {
 protected:
  void WriteFile(const std::string& content) { std::ofstream(kPath) << content; }
  static constexpr char kPath[] = "/tmp/read-me";
  support::Syslog log_;
};

TEST_F(ReadFileTest, GivesTheFileAndANulByte) {
  WriteFile(std::string("a\0b", 3));
  char* buffer = WebMan::szReadFile(kPath, 100);
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(std::string(buffer, 4), std::string("a\0b\0", 4));
  free(buffer);
}

TEST_F(ReadFileTest, ReadsUpToTheLargestSizeAndNotOneByteMore) {
  WriteFile("12345");
  char* buffer = WebMan::szReadFile(kPath, 5);
  EXPECT_STREQ(buffer, "12345");
  free(buffer);
  EXPECT_EQ(WebMan::szReadFile(kPath, 4), nullptr);
  EXPECT_EQ(WebMan::szReadFile(kPath, -1), nullptr);
  EXPECT_TRUE(log_.TakeTexts().empty());
}

TEST_F(ReadFileTest, AnEmptyFileIsAnEmptyText) {
  WriteFile("");
  char* buffer = WebMan::szReadFile(kPath, 0);
  EXPECT_STREQ(buffer, "");
  free(buffer);
}

// The line number within a message changes with the source.
std::string WithoutLine(std::string text) {
  const size_t open = text.find('(');
  const size_t close = text.find(')');
  return text.replace(open, close - open + 1, "(N)");
}

TEST_F(ReadFileTest, ReportsAFileThatIsNotThere) {
  EXPECT_EQ(WebMan::szReadFile("/tmp/none", 10), nullptr);
  const auto lines = log_.Take();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(WithoutLine(lines[0].text),
            "webman (N) Failed to open /tmp/none. (No such file or directory)");
  EXPECT_EQ(lines[0].priority & 7, 3);  // error
}

TEST_F(ReadFileTest, ReportsWhatCannotBeRead) {
  EXPECT_EQ(WebMan::szReadFile("/tmp", 100000), nullptr);
  const auto texts = log_.TakeTexts();
  ASSERT_EQ(texts.size(), 1u);
  EXPECT_EQ(WithoutLine(texts[0]), "webman (N) read file failed. (Is a directory)");
}

TEST_F(ReadFileTest, ReportsASizeThatIsNotKnown) {
  WriteFile("12345");
  faults::hooks.fstat = [](int, struct stat*) {
    errno = EIO;
    return -1;
  };
  EXPECT_EQ(WebMan::szReadFile(kPath, 10), nullptr);
  const auto texts = log_.TakeTexts();
  ASSERT_EQ(texts.size(), 1u);
  EXPECT_EQ(WithoutLine(texts[0]), "webman (N) Failed to stat file. (Input/output error)");
}

TEST_F(ReadFileTest, LessThanTheSizeIsAFailure) {
  WriteFile("12345");
  faults::hooks.fstat = [](int, struct stat* status) {
    status->st_size = 6;  // one byte was cut off meanwhile
    return 0;
  };
  EXPECT_EQ(WebMan::szReadFile(kPath, 10), nullptr);
  const auto texts = log_.TakeTexts();
  ASSERT_EQ(texts.size(), 1u);
  EXPECT_EQ(WithoutLine(texts[0]).substr(0, 30), "webman (N) read file failed. (");
}

TEST_F(ReadFileTest, DoesNotWaitForAFifo) {
  ASSERT_EQ(mkfifo("/tmp/fifo", 0600), 0);
  char* buffer = WebMan::szReadFile("/tmp/fifo", 10);
  EXPECT_STREQ(buffer, "");
  free(buffer);
}

#ifndef __SANITIZE_ADDRESS__  // which needs the address space for itself
TEST_F(ReadFileTest, ReportsMemoryThatIsNotThere) {
  WriteFile("");
  ASSERT_EQ(truncate(kPath, 1LL << 30), 0);
  const rlimit limit = {256 << 20, 256 << 20};
  rlimit before;
  getrlimit(RLIMIT_AS, &before);
  ASSERT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
  EXPECT_EQ(WebMan::szReadFile(kPath, 2147483647), nullptr);
  const auto texts = log_.TakeTexts();
  ASSERT_EQ(texts.size(), 1u);
  EXPECT_EQ(WithoutLine(texts[0]), "webman (N) Failed to malloc(1073741824).");
}
#endif

}  // namespace
