// Uploads: bodies of every form, whole and cut; files, parameters, slices; and what stays
// behind. Each request is a process of its own.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vemo/cgi.h>

#include <chrono>
#include <functional>
#include <set>

#include "cgi_accounts.h"

using namespace accounts;

namespace {

const char* const kVolume = "/volume1";
const std::string kSpool = "/volume1/@tmp";
const std::string kType = "multipart/form-data; boundary=B";

void Mount(const std::string& path, const std::string& options) {
  std::filesystem::create_directories(path);
  ASSERT_EQ(mount("none", path.c_str(), "tmpfs", 0, options.c_str()), 0) << path;
}

std::string Field(const std::string& name, const std::string& value) {
  return "Content-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value;
}

std::string File(const std::string& name, const std::string& content,
                 const std::string& field = "file") {
  return "Content-Disposition: form-data; name=\"" + field + "\"; filename=\"" + name +
         "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + content;
}

std::string Body(const std::vector<std::string>& parts, const std::string& boundary = "B") {
  std::string body;
  for (const auto& part : parts)
    body += "--" + boundary + "\r\n" + part + "\r\n";
  return body + "--" + boundary + "--\r\n";
}

std::string Content(size_t size, unsigned seed = 1) {
  std::string content(size, '\0');
  for (char& c : content) {
    seed = seed * 1103515245 + 12345;
    // Many line breaks and dashes, as in a delimiter.
    c = (seed >> 16) % 8 < 3 ? "\r\n--C"[(seed >> 20) % 5] : static_cast<char>(seed >> 16);
    if (c == 'B') c = 'b';
  }
  return content;
}

std::set<std::string> Names(const std::string& directory) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory))
    names.insert(entry.path().filename());
  return names;
}

// How a request is sent.
struct Sent {
  std::string type = kType;
  std::string range, tmp_file, cookies, query;
  long long length = -1;  // -1: the body's
  std::string method = "POST";
};

support::Environment EnvironmentOf(const Sent& sent, size_t size) {
  support::Environment environment = {
      {"REQUEST_METHOD", sent.method},
      {"REMOTE_ADDR", "192.0.2.1"},
      {"CONTENT_TYPE", sent.type},
      {"CONTENT_LENGTH",
       std::to_string(sent.length < 0 ? static_cast<long long>(size) : sent.length)}};
  if (!sent.range.empty()) environment["HTTP_CONTENT_RANGE"] = sent.range;
  if (!sent.tmp_file.empty()) environment["HTTP_X_TMP_FILE"] = sent.tmp_file;
  if (!sent.cookies.empty()) environment["HTTP_COOKIE"] = sent.cookies;
  if (!sent.query.empty()) environment["QUERY_STRING"] = sent.query;
  return environment;
}

class Context {
 public:
  Context() {
    VemoCgiInit("", &ctx_);
    VemoCgiLoadInCookies(&ctx_);
  }
  ~Context() { VemoCgiFree(&ctx_); }
  operator VEMOCGI*() { return &ctx_; }

 private:
  VEMOCGI ctx_;
};

// Runs a request; `program` prints, and its output is returned.
std::string Serve(const Sent& sent, const std::string& body,
                  const std::function<void(VEMOCGI*)>& program) {
  const auto answer = support::RunRequest(EnvironmentOf(sent, body.size()), body, [&] {
    umask(022);
    {
      Context ctx;
      program(ctx);
    }
    // The leak checker at the end looks at the whole process, which root alone may.
    if (geteuid() != 0 && (seteuid(0) != 0 || setegid(0) != 0)) abort();
    std::exit(testing::Test::HasFailure() ? 1 : 0);
  });
  EXPECT_EQ(answer.signal, 0);
  EXPECT_EQ(answer.exit_status, 0);
  return answer.output;
}

// The result of receiving and the recorded code, with what a program would do afterwards:
// every file stored under /volume1/out as 0, 1, ...
std::string Receive(const Sent& sent, const std::string& body, const std::string& path = kSpool) {
  return Serve(sent, body, [&](VEMOCGI* ctx) {
    const int result = VemoCgiLoadUploadData(ctx, path.c_str(), 0);
    printf("%d", result);
    if (result < 0) {
      printf(" %04X %lld", static_cast<unsigned>(VLIBCErrGet()), VemoCgiGetUploadFileSize(ctx));
      const int again = VemoCgiLoadUploadFile(ctx, "/volume1/out/never", nullptr, nullptr);
      printf("%s", again == result ? "" : " and stored!");
      return;
    }
    printf(" p%d", VemoCgiLoadUploadParams(ctx, nullptr, nullptr));
    for (int i = 0;; i++) {
      const long long size = VemoCgiGetUploadFileSize(ctx);
      const std::string name = VemoCgiGetCGIParam(ctx, "file", "-");
      const std::string dest = "/volume1/out/" + std::to_string(i);
      const int stored = VemoCgiLoadUploadFile(ctx, dest.c_str(), nullptr, nullptr);
      if (stored != 1) {
        printf(" end%d", stored);
        break;
      }
      printf(" %s:%lld", name.c_str(), size);
    }
  });
}

class CgiUpload : public testing::Test {
 protected:
  void SetUp() override {
    umask(022);
    Mount(kVolume, "size=64m,mode=755");
    std::filesystem::create_directories("/volume1/out");
  }

  void ExpectNothingLeft() {
    EXPECT_EQ(Names("/volume1/out"), std::set<std::string>());
    if (std::filesystem::exists(kSpool)) {
      EXPECT_EQ(Names(kSpool), std::set<std::string>());
    }
  }
};

TEST_F(CgiUpload, StoresFilesAndReadsParameters) {
  const std::string content = Content(100000);
  const std::string body = Body({Field("before", "1"), File("a.bin", content), Field("after", "2"),
                                 File("b.txt", "", "file"), Field("before", "late")});
  EXPECT_EQ(Receive({}, body), "0 p3 a.bin:100000 b.txt:0 end0");
  EXPECT_TRUE(Read("/volume1/out/0") == content);
  EXPECT_EQ(Read("/volume1/out/1"), "");
  EXPECT_EQ(Names(kSpool), std::set<std::string>());
  struct stat status;
  ASSERT_EQ(stat(kSpool.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 01777u);
  EXPECT_EQ(status.st_uid, 0u);
  ASSERT_EQ(stat("/volume1/out/0", &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
}

TEST_F(CgiUpload, ParametersStandBesideThoseOfTheQuery) {
  const std::string body = Body({Field("a", "body"), Field("a", "second"), Field("empty", ""),
                                 Field("nul", std::string("x\0y", 3)), Field("q", "body"),
                                 "content-disposition:form-data;name=plain\r\n\r\ntext"});
  EXPECT_EQ(Serve({}, body,
                  [](VEMOCGI* ctx) {
                    VemoCgiParseCGIParam(ctx, "q=query");
                    VEMOUPLOADPROGRESS progress = {};
                    EXPECT_EQ(VemoCgiLoadUploadParams(ctx, nullptr, nullptr), -9);
                    EXPECT_EQ(VemoCgiLoadUploadData(ctx, "/volume1/@tmp", 0), 0);
                    EXPECT_EQ(VemoCgiLoadUploadData(ctx, "/volume1/@tmp", 0), -9);
                    EXPECT_STREQ(VemoCgiGetCGIParam(ctx, "a", "none"), "none");
                    EXPECT_EQ(VemoCgiLoadUploadParams(
                                  ctx,
                                  [](unsigned long long done, unsigned long long total) {
                                    printf("%llu/%llu ", done, total);
                                  },
                                  &progress),
                              5);
                    printf("%s,%s,%s,%s,%s %d %lld", VemoCgiGetCGIParam(ctx, "a", "-"),
                           VemoCgiGetCGIParam(ctx, "empty", "-"),
                           VemoCgiGetCGIParam(ctx, "nul", "-"), VemoCgiGetCGIParam(ctx, "q", "-"),
                           VemoCgiGetCGIParam(ctx, "plain", "-"), progress.state,
                           VemoCgiGetUploadFileSize(ctx));
                  }),
            "21/21 body,,-,query,text 2 -1");
}

TEST_F(CgiUpload, BoundariesOfEveryLegalForm) {
  const std::string longest(70, 'b');
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"boundary=B", "B"},
      {"charset=utf-8; boundary=B", "B"},
      {"boundary=\"B\"", "B"},
      {"boundary=\"a b:c\"", "a b:c"},
      {"Boundary=\"'()+_,-./:=?\"", "'()+_,-./:=?"},
      {"x=\"boundary=no\";boundary=B;charset=x", "B"},
      {"boundary=\"\\B\"", "B"},
      {"boundary=" + longest, longest},
      {"boundary=-", "-"},
      {"boundary=----B", "----B"},
  };
  for (const auto& [parameter, boundary] : rows) {
    Sent sent;
    sent.type = "Multipart/Form-Data; " + parameter;
    EXPECT_EQ(Receive(sent, Body({File("f", "\r\n--\r\n--x\r\n-")}, boundary)), "0 p0 f:12 end0")
        << parameter;
    EXPECT_EQ(Read("/volume1/out/0"), "\r\n--\r\n--x\r\n-");
  }
}

TEST_F(CgiUpload, RefusesOtherBoundaries) {
  const std::string body = Body({File("f", "content")});
  for (const char* type :
       {"multipart/form-data",
        "multipart/form-data; boundary=", "multipart/form-data; boundary=\"\"",
        "multipart/form-data; boundary=\"B", "multipart/form-data; boundary=\"B \"",
        "multipart/form-data; boundary=C", "multipart/form-data; boundary=B;C; x",
        "multipart/mixed; boundary=B", "multipart/form-datax; boundary=B", "text/plain", "",
        "multipart/form-data; boundary=B\x01", "multipart/form-data; xboundary=B",
        "multipart/form-data boundary=B", "multipart/form-data; boundary=\xc3\xa4"}) {
    Sent sent;
    sent.type = type;
    const std::string result = Receive(sent, body);
    if (sent.type == "multipart/form-data; boundary=B;C; x") {
      EXPECT_EQ(result, "0 p0 f:7 end0");  // what follows the boundary does not matter
      unlink("/volume1/out/0");
    } else {
      EXPECT_EQ(result, "-20 0500 -1") << type;
    }
  }
  Sent longer;
  longer.type = "multipart/form-data; boundary=" + std::string(71, 'b');
  EXPECT_EQ(Receive(longer, Body({File("f", "x")}, std::string(71, 'b'))), "-20 0500 -1");
  ExpectNothingLeft();
}

TEST_F(CgiUpload, IsAnUploadByMethodAndType) {
  const auto is_upload = [](const Sent& sent) {
    return Serve(sent, "", [](VEMOCGI* ctx) { printf("%d", VemoCgiIsUploadRequest(ctx)); });
  };
  Sent sent;
  EXPECT_EQ(is_upload(sent), "1");
  sent.method = "PUT";
  EXPECT_EQ(is_upload(sent), "1");
  for (const char* method : {"GET", "HEAD", "DELETE", ""}) {
    sent.method = method;
    EXPECT_EQ(is_upload(sent), "0") << method;
  }
}

TEST_F(CgiUpload, PreambleEpilogueAndPadding) {
  const std::string part = File("f", "data");
  for (const std::string& body :
       {"preamble\r\nof --B two lines\r\n--B\r\n" + part + "\r\n--B--\r\nepilogue\r\n--B\r\n",
        "\r\n--B\r\n" + part + "\r\n--B--", "--B \t \r\n" + part + "\r\n--B-- \t\r\n",
        "--B\r\n" + part + "\r\n--B--" + std::string("\0\r\n", 3),
        "--\r\n--\r\n--B\r\n" + part + "\r\n--B--"}) {
    EXPECT_EQ(Receive({}, body), "0 p0 f:4 end0") << body;
    EXPECT_EQ(Read("/volume1/out/0"), "data");
  }
  EXPECT_EQ(Receive({}, "--B--\r\n"), "0 p0 end0");
  // A part whose header is followed by the delimiter at once is empty.
  EXPECT_EQ(Receive({}, "--B\r\n" + File("f", "") + "--B--"), "0 p0 f:0 end0");
}

TEST_F(CgiUpload, ABodyCutAtEveryByteLeavesNothing) {
  const std::string body =
      Body({Field("a", "1"), File("f.bin", "con\r\n--tent\r\n"), Field("b", "2")});
  const size_t closed = body.size() - 2;  // the last line break may be missing
  for (size_t size = 0; size < body.size(); size++) {
    Sent lying;
    lying.length = static_cast<long long>(body.size());
    EXPECT_EQ(Receive(lying, body.substr(0, size)), "-21 0400 -1") << size;
    const std::string cut = Receive({}, body.substr(0, size));
    if (size < closed) {
      EXPECT_EQ(cut, "-20 0500 -1") << size;
      ExpectNothingLeft();
    } else {
      EXPECT_EQ(cut, "0 p2 f.bin:13 end0") << size;
      unlink("/volume1/out/0");
    }
  }
}

TEST_F(CgiUpload, PiecesOfEverySize) {
  const std::string content = Content(3000);
  const std::string body = Body({Field("a", "1"), File("f", content)});
  for (const size_t piece : {1, 2, 3, 5, 7, 64, 1000}) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t writer = fork();
    if (writer == 0) {
      close(ends[0]);
      for (size_t at = 0; at < body.size(); at += piece) {
        if (write(ends[1], body.data() + at, std::min(piece, body.size() - at)) < 0) _exit(1);
        for (int unread = 1; piece < 8 && unread > 0 && at % 50 == 0;) {
          struct pollfd watched = {ends[1], POLLOUT, 0};
          unread = poll(&watched, 1, 0) == 1 ? 0 : 1;
        }
      }
      _exit(0);
    }
    close(ends[1]);
    const auto answer = support::RunRequest(EnvironmentOf({}, body.size()), "", [&] {
      dup2(ends[0], 0);
      close(ends[0]);
      Context ctx;
      printf("%d", VemoCgiLoadUploadData(ctx, kSpool.c_str(), 0));
      printf(" %d", VemoCgiLoadUploadFile(ctx, "/volume1/out/f", nullptr, nullptr));
    });
    EXPECT_EQ(answer.output, "0 1");
    EXPECT_TRUE(Read("/volume1/out/f") == content) << piece;
    close(ends[0]);
    waitpid(writer, nullptr, 0);
  }
}

TEST_F(CgiUpload, RefusesBrokenBodies) {
  std::string many, many_files;
  for (int i = 0; i < 10000; i++)
    many += "--B\r\n" + Field("n" + std::to_string(i), "") + "\r\n";
  for (int i = 0; i < 257; i++)
    many_files += "--B\r\n" + File("f", "x") + "\r\n";
  const std::string disposition = "Content-Disposition: form-data; name=\"a\"";
  const std::vector<std::pair<const char*, std::string>> rows = {
      {"LF alone", "--B\n" + Field("a", "1") + "\n--B--\n"},
      {"LF alone in a header", Body({disposition + "\nX: y\r\n\r\n1"})},
      {"CR alone", "--B\r" + Field("a", "1") + "\r--B--\r"},
      {"CR alone in a header", Body({disposition + "\rX: y\r\n\r\n1"})},
      {"no delimiter", "text"},
      {"another delimiter", Body({Field("a", "1")}, "C")},
      {"a longer delimiter", "--Bx\r\n" + Field("a", "1") + "\r\n--Bx--\r\n"},
      {"one dash at the end", "--B\r\n" + Field("a", "1") + "\r\n--B-\r\n"},
      {"no close", "--B\r\n" + Field("a", "1") + "\r\n"},
      {"an open part at the end", Body({Field("a", "1")}).substr(0, 52)},
      {"no header", Body({"\r\n1"})},
      {"no disposition", Body({"Content-Type: text/plain\r\n\r\n1"})},
      {"two dispositions", Body({disposition + "\r\n" + disposition + "\r\n\r\n1"})},
      {"no form-data", Body({"Content-Disposition: attachment; name=\"a\"\r\n\r\n1"})},
      {"no name", Body({"Content-Disposition: form-data\r\n\r\n1"})},
      {"an empty name", Body({Field("", "1")})},
      {"two names", Body({"Content-Disposition: form-data; name=a; name=b\r\n\r\n1"})},
      {"an open quote", Body({"Content-Disposition: form-data; name=\"a\r\n\r\n1"})},
      {"no colon", Body({disposition + "\r\nhello\r\n\r\n1"})},
      {"a NUL in a header", Body({disposition + std::string("; x=\0", 5) + "\r\n\r\n1"})},
      {"a long name", Body({Field(std::string(1025, 'n'), "1")})},
      {"base64", Body({disposition + "\r\nContent-Transfer-Encoding: base64\r\n\r\nMQ=="})},
      {"a header of 1 MB",
       Body({disposition + "\r\nX: " + std::string(1 << 20, 'x') + "\r\n\r\n1"})},
      {"10,000 parts", many + "--B--\r\n"},
      {"257 files", many_files + "--B--\r\n"},
      {"parameters of 8 MiB and a byte", Body({Field("a", std::string((8 << 20) + 1, 'x'))})},
      {"a file without a name", Body({File("", "content")})},
  };
  for (const auto& [what, body] : rows) {
    const std::string result = Receive({}, body);
    EXPECT_EQ(result.substr(0, 4), "-20 ") << what << ": " << result;
    ExpectNothingLeft();
  }
}

TEST_F(CgiUpload, TakesWhatLooksOdd) {
  const std::string file = "Content-Disposition: form-data; name=\"file\"; ";
  const std::vector<std::pair<std::string, std::string>> rows = {
      {Field("a", std::string(8 << 20, 'x')), "0 p1 end0"},
      {"CONTENT-DISPOSITION:\tFORM-DATA ; NAME=a ;\r\nContent-Transfer-Encoding: 8BIT\r\n\r\n1",
       "0 p1 end0"},
      {"X: y\r\n z\r\nContent-Disposition: form-data;\r\n\tname=\"a\"\r\n\r\n1", "0 p1 end0"},
      {File("", ""), "0 p0 end0"},  // no file was chosen
      {file + "filename=\"f\"; filename*=UTF-8''%e2%82%ac%20rates\r\n\r\nx", "0 p0 € rates:1 end0"},
      {file + "filename*=utf-8'en'%41; filename=\"f\"\r\n\r\nx", "0 p0 A:1 end0"},
      {file + "filename*=iso-8859-1''%e4; filename=\"f\"\r\n\r\nx", "0 p0 f:1 end0"},
      {file + "filename=token\r\n\r\nx", "0 p0 token:1 end0"},
      {File("a%22b%25.txt", "x"), "0 p0 a\"b%25.txt:1 end0"},
      {File("a\\\"b\\\\c", "x"), "0 p0 c:1 end0"},
      {File("a\\\"b", "x"), "0 p0 a\"b:1 end0"},
      {File("../../etc/passwd", "x"), "0 p0 passwd:1 end0"},
      {File("C:\\Users\\mona\\a.txt", "x"), "0 p0 a.txt:1 end0"},
      {File("/etc/cron.d/x", "x"), "0 p0 x:1 end0"},
      {File(std::string(255, 'n'), "x"), "0 p0 " + std::string(255, 'n') + ":1 end0"},
      {File("a;b=c.txt", "x"), "0 p0 a;b=c.txt:1 end0"},
      {File("\xe6\x97\xa5\xe6\x9c\xac.txt", "x"), "0 p0 日本.txt:1 end0"},
      {File("a%0d%0aX: y", "x"), "0 p0 a%0d%0aX: y:1 end0"},
  };
  for (const auto& [part, expected] : rows) {
    EXPECT_EQ(Receive({}, Body({part})), expected) << part.substr(0, 100);
    unlink("/volume1/out/0");
    ExpectNothingLeft();
  }
}

TEST_F(CgiUpload, RefusesHostileNames) {
  const std::string file = "Content-Disposition: form-data; name=\"file\"; ";
  std::vector<std::string> parts = {
      file + "filename*=UTF-8''a%00b\r\n\r\nx",
      file + "filename*=UTF-8''a%0d%0aSet-Cookie:b\r\n\r\nx",
      file + "filename*=UTF-8''%2e%2e\r\n\r\nx",
      file + "filename*=UTF-8''%zz\r\n\r\nx",
      file + "filename*=UTF-8\r\n\r\nx",
      file + "filename*=UTF-8''%e4\r\n\r\nx",
      file + "filename=\"a\"; filename=\"b\"\r\n\r\nx",
      File(std::string(256, 'n'), "x"),
      File(std::string(300, 'n'), "x"),
      File(".", "x"),
      File("..", "x"),
      File("dir/", "x"),
      File("a/..", "x"),
      File("tab\tx", "x"),
      File(std::string("nul\0x", 5), "x"),
      File("\x7f", "x"),
      File("\xc2\x85", "x"),          // a control character above 0x7f
      File("\xe4.txt", "x"),          // no UTF-8
      File("\xc0\xaf", "x"),          // an overlong slash
      File("\xed\xa0\x80", "x"),      // a surrogate
      File("\xf4\x90\x80\x80", "x"),  // beyond the last character
      File("gpj.\xe2\x80\xae"
           "exe",
           "x"),
      File("\xe2\x80\x8f"
           "a",
           "x"),
      File("\xe2\x81\xa6"
           "a",
           "x"),
      File("\xd8\x9c"
           "a",
           "x"),
  };
  for (const auto& part : parts) {
    EXPECT_EQ(Receive({}, Body({part})), "-20 0500 -1") << part;
    ExpectNothingLeft();
  }
}

TEST_F(CgiUpload, LengthsThatLie) {
  const std::string body = Body({File("f", "content")});
  Sent sent;
  for (const long long length : {0LL, 1LL, 20LL}) {
    sent.length = length;
    EXPECT_EQ(Receive(sent, body), "-20 0500 -1") << length;
  }
  sent.length = static_cast<long long>(body.size()) + 1;
  EXPECT_EQ(Receive(sent, body), "-21 0400 -1");
  for (const char* length : {"", "-5", "1e3", "9999999999999999999999", " 10"}) {
    auto environment = EnvironmentOf({}, 0);
    environment["CONTENT_LENGTH"] = length;
    const auto answer = support::RunRequest(environment, body, [] {
      Context ctx;
      printf("%d", VemoCgiLoadUploadData(ctx, kSpool.c_str(), 0));
    });
    EXPECT_EQ(answer.output, "-20") << length;
  }
  ExpectNothingLeft();
}

TEST_F(CgiUpload, ARefusedBodyIsReadToItsEnd) {
  const std::string rest(3 << 20, 'x');
  Serve({}, "--B\r\nbroken\r\n\r\n" + rest, [](VEMOCGI* ctx) {
    EXPECT_EQ(VemoCgiLoadUploadData(ctx, kSpool.c_str(), 0), -20);
    char byte;
    EXPECT_EQ(read(0, &byte, 1), 0);
  });
}

TEST_F(CgiUpload, ReasonsOfVolumes) {
  const std::string body = Body({File("f", std::string(200000, 'x'))});
  Mount("/volume2", "size=64k");
  EXPECT_EQ(Receive({}, body, "/volume2/@tmp"), "-2 2900 -1");
  Mount("/volume3", "size=1m");
  std::filesystem::create_directories("/volume3/@tmp");
  ASSERT_EQ(mount(nullptr, "/volume3", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(Receive({}, body, "/volume3/@tmp"), "-12 DD00 -1");
  Mount("/volume4", "size=1m");
  ASSERT_EQ(mount(nullptr, "/volume4", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(Receive({}, body, "/volume4/@tmp"), "-12 DD00 -1");  // it cannot be made
  std::filesystem::create_directories("/volume5");
  EXPECT_EQ(Receive({}, body, "/volume5/@tmp"), "-13 8300 -1");
  EXPECT_EQ(Names("/volume5"), std::set<std::string>());
  EXPECT_EQ(Receive({}, body, "/volume6/@tmp"), "-13 8300 -1");
}

TEST_F(CgiUpload, AVolumeThatFillsUpMeanwhile) {
  Mount("/volume2", "size=1m");
  const std::string body = Body({File("f", std::string(800 * 1024, 'x'))});
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const pid_t writer = fork();
  if (writer == 0) {
    close(ends[0]);
    if (write(ends[1], body.data(), 100000) < 0) _exit(1);
    usleep(200000);
    Write("/volume2/other", std::string(700 * 1024, 'y'));
    for (size_t at = 100000; at < body.size(); at += 50000) {
      if (write(ends[1], body.data() + at, std::min<size_t>(50000, body.size() - at)) < 0) _exit(1);
    }
    _exit(0);
  }
  close(ends[1]);
  const auto answer = support::RunRequest(EnvironmentOf({}, body.size()), "", [&] {
    dup2(ends[0], 0);
    Context ctx;
    printf("%d", VemoCgiLoadUploadData(ctx, "/volume2/@tmp", 0));
  });
  close(ends[0]);
  waitpid(writer, nullptr, 0);
  EXPECT_EQ(answer.output, "-2");
  EXPECT_EQ(Names("/volume2/@tmp"), std::set<std::string>());
}

TEST_F(CgiUpload, SpoolDirectoriesThatAreNotOurs) {
  const std::string body = Body({File("f", "x")});
  std::filesystem::create_directories("/volume1/elsewhere");
  std::filesystem::create_symlink("/volume1/elsewhere", kSpool);
  EXPECT_EQ(Receive({}, body).substr(0, 3), "-9 ");
  unlink(kSpool.c_str());
  std::filesystem::create_directories(kSpool);
  ASSERT_EQ(chown(kSpool.c_str(), 4321, 4321), 0);
  EXPECT_EQ(Receive({}, body), "-9 8100 -1");
  std::filesystem::remove(kSpool);
  Write(kSpool, "a file");
  EXPECT_EQ(Receive({}, body).substr(0, 3), "-9 ");
  // A directory that the program names itself may be anywhere.
  std::filesystem::create_directories("/volume1/own");
  EXPECT_EQ(Receive({}, body, "/volume1/own"), "0 p0 f:1 end0");
  EXPECT_EQ(Receive({}, body, "/volume1/missing/own").substr(0, 3), "-9 ");
  EXPECT_EQ(Names("/volume1/elsewhere"), std::set<std::string>());
}

// --- Storing ---

// Receives `body` and stores its files as the program does.
void Store(const std::string& body, const std::function<void(VEMOCGI*)>& program) {
  Serve({}, body, [&](VEMOCGI* ctx) {
    ASSERT_EQ(VemoCgiLoadUploadData(ctx, kSpool.c_str(), 0), 0);
    program(ctx);
  });
}

TEST_F(CgiUpload, ReplacesOnlyWhenTold) {
  Write("/volume1/out/f", "old");
  const std::string body = Body({File("f", "new")});
  Store(body, [](VEMOCGI* ctx) {
    VEMOUPLOADPROGRESS progress = {0, 0, VEMOUPLOAD_NEW};
    EXPECT_EQ(VemoCgiLoadUploadFile(ctx, "/volume1/out/f", nullptr, &progress), -9);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(progress.state, VEMOUPLOAD_FAILED);
    EXPECT_EQ(VemoCgiGetUploadFileSize(ctx), 3);
    // It may be asked again with another name.
    progress.state = VEMOUPLOAD_NEW;
    EXPECT_EQ(VemoCgiLoadUploadFile(ctx, "/volume1/out/g", nullptr, &progress), 1);
    EXPECT_EQ(progress.done, 3u);
    EXPECT_EQ(progress.state, VEMOUPLOAD_DONE);
    EXPECT_EQ(VemoCgiGetUploadFileSize(ctx), -1);
  });
  EXPECT_EQ(Read("/volume1/out/f"), "old");
  EXPECT_EQ(Read("/volume1/out/g"), "new");
  Store(body, [](VEMOCGI* ctx) {
    EXPECT_EQ(VemoCgiLoadUploadFile(ctx, "/volume1/out/f", nullptr, nullptr), 1);
  });
  EXPECT_EQ(Read("/volume1/out/f"), "new");
  EXPECT_EQ(Names("/volume1/out"), (std::set<std::string>{"f", "g"}));
}

TEST_F(CgiUpload, DestinationsThatCannotBe) {
  Mount("/volume2", "size=1m");
  std::filesystem::create_directories("/volume1/out/dir");
  std::filesystem::create_symlink("/volume2/victim", "/volume1/out/link");
  Write("/volume2/victim", "safe");
  Write("/volume1/out/file", "");
  for (const char* dest : {"", "/volume1/out/", "/volume1/out/.", "/volume1/out/..",
                           "/volume1/out/dir", "/volume1/missing/f", "/volume1/out/file/f"}) {
    Store(Body({File("f", "x")}), [dest](VEMOCGI* ctx) {
      EXPECT_EQ(VemoCgiLoadUploadFile(ctx, dest, nullptr, nullptr), -9) << dest;
      EXPECT_NE(VLIBCErrGet(), 0);
    });
  }
  EXPECT_EQ(Names("/volume1/out/dir"), std::set<std::string>());
  // A link in the place of the file is replaced, and not followed.
  Store(Body({File("f", "x")}), [](VEMOCGI* ctx) {
    EXPECT_EQ(VemoCgiLoadUploadFileNoTruncate(ctx, "/volume1/out/link", nullptr, nullptr, nullptr),
              -9);
    EXPECT_EQ(VemoCgiLoadUploadFile(ctx, "/volume1/out/link", nullptr, nullptr), 1);
  });
  EXPECT_EQ(Read("/volume2/victim"), "safe");
  EXPECT_EQ(Read("/volume1/out/link"), "x");
}

std::vector<std::string> calls;
void Note(unsigned long long done, unsigned long long total) {
  calls.push_back(std::to_string(done) + "/" + std::to_string(total));
}

TEST_F(CgiUpload, CopiesToAnotherVolumeWithProgress) {
  Mount("/volume2", "size=4m,mode=755");
  const std::string content = Content(700000);
  Store(Body({File("f", content)}), [](VEMOCGI* ctx) {
    VEMOUPLOADPROGRESS progress = {};
    EXPECT_EQ(VemoCgiLoadUploadFile(ctx, "/volume2/f", Note, &progress), 1);
    EXPECT_EQ(calls, (std::vector<std::string>{"262144/700000", "524288/700000", "700000/700000"}));
    EXPECT_EQ(progress.total, 700000u);
  });
  EXPECT_TRUE(Read("/volume2/f") == content);
  Mount("/volume3", "size=256k,mode=755");
  Store(Body({File("f", content)}), [](VEMOCGI* ctx) {
    EXPECT_EQ(VemoCgiLoadUploadFile(ctx, "/volume3/f", nullptr, nullptr), -2);
    EXPECT_EQ(VLIBCErrGet(), VEMOERR_VOLUME_FULL);
    EXPECT_EQ(VemoCgiLoadUploadFile(ctx, "/volume2/f", nullptr, nullptr), 1);
  });
  EXPECT_EQ(Names("/volume3"), std::set<std::string>());
  EXPECT_EQ(Names("/volume2"), std::set<std::string>{"f"});
}

TEST_F(CgiUpload, IsTheEffectiveUsersFile) {
  std::filesystem::create_directories("/volume1/mine");
  std::filesystem::create_directories("/volume1/theirs");
  ASSERT_EQ(chown("/volume1/mine", 5001, 5001), 0);
  Serve({}, Body({File("f", "x"), File("g", "y")}), [](VEMOCGI* ctx) {
    ASSERT_EQ(VemoCgiLoadUploadData(ctx, kSpool.c_str(), 0), 0);  // still as root
    ASSERT_EQ(setegid(5001), 0);
    ASSERT_EQ(seteuid(5001), 0);
    umask(027);
    EXPECT_EQ(VemoCgiLoadUploadFile(ctx, "/volume1/theirs/f", nullptr, nullptr), -9);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(VemoCgiLoadUploadFile(ctx, "/volume1/mine/f", nullptr, nullptr), 1);
  });
  struct stat status;
  ASSERT_EQ(stat("/volume1/mine/f", &status), 0);
  EXPECT_EQ(status.st_uid, 5001u);
  EXPECT_EQ(status.st_gid, 5001u);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
}

TEST_F(CgiUpload, TakesTheDirectorysGroupAndList) {
  std::filesystem::create_directories("/volume1/team");
  ASSERT_EQ(chown("/volume1/team", 0, 6001), 0);
  ASSERT_EQ(chmod("/volume1/team", 02775), 0);
  Store(Body({File("f", "x")}), [](VEMOCGI* ctx) {
    EXPECT_EQ(VemoCgiLoadUploadFile(ctx, "/volume1/team/f", nullptr, nullptr), 1);
  });
  struct stat status;
  ASSERT_EQ(stat("/volume1/team/f", &status), 0);
  EXPECT_EQ(status.st_gid, 6001u);
  // rwx for the owner, user 5002 and the mask, nothing for others.
  const unsigned char list[] = {2,    0,    0,    0,    1,    0,    7,    0,    0xff, 0xff, 0xff,
                                0xff, 2,    0,    7,    0,    0x8a, 0x13, 0,    0,    4,    0,
                                0,    0,    0xff, 0xff, 0xff, 0xff, 0x10, 0,    7,    0,    0xff,
                                0xff, 0xff, 0xff, 0x20, 0,    0,    0,    0xff, 0xff, 0xff, 0xff};
  ASSERT_EQ(setxattr("/volume1/team", "system.posix_acl_default", list, sizeof list, 0), 0);
  Store(Body({File("g", "x")}), [](VEMOCGI* ctx) {
    EXPECT_EQ(VemoCgiLoadUploadFile(ctx, "/volume1/team/g", nullptr, nullptr), 1);
    const int made = open("/volume1/team/made", O_CREAT | O_WRONLY, 0666);
    EXPECT_GE(made, 0);
  });
  char stored[256], made[256];
  const ssize_t size =
      getxattr("/volume1/team/g", "system.posix_acl_access", stored, sizeof stored);
  ASSERT_EQ(size, getxattr("/volume1/team/made", "system.posix_acl_access", made, sizeof made));
  ASSERT_GT(size, 0);
  EXPECT_EQ(memcmp(stored, made, static_cast<size_t>(size)), 0);
}

TEST_F(CgiUpload, NoTruncateWritesOverTheStart) {
  const std::string body = Body({File("f", "new")});
  const auto over = [&](VEMOUPLOADKEEP keep) {
    Write("/volume1/out/f", "0123456789", 0640);
    Serve({}, body, [&](VEMOCGI* ctx) {
      EXPECT_EQ(VemoCgiLoadUploadData(ctx, kSpool.c_str(), 0), 0);
      EXPECT_EQ(VemoCgiLoadUploadFileNoTruncate(ctx, "/volume1/out/f", nullptr, nullptr, keep), 1);
      EXPECT_EQ(VemoCgiLoadUploadFileNoTruncate(ctx, "/volume1/out/f", nullptr, nullptr, keep), 0);
    });
    return Read("/volume1/out/f");
  };
  EXPECT_EQ(over(nullptr), "new3456789");
  EXPECT_EQ(over([]() -> long long { return -1; }), "new3456789");
  EXPECT_EQ(over([]() -> long long { return 5; }), "new34");
  EXPECT_EQ(over([]() -> long long { return 0; }), "");
  struct stat status;
  ASSERT_EQ(stat("/volume1/out/f", &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
  unlink("/volume1/out/f");
  ASSERT_EQ(mkfifo("/volume1/out/f", 0600), 0);
  Store(body, [](VEMOCGI* ctx) {
    EXPECT_EQ(VemoCgiLoadUploadFileNoTruncate(ctx, "/volume1/out/f", nullptr, nullptr, nullptr),
              -9);
    EXPECT_EQ(VemoCgiLoadUploadFileNoTruncate(ctx, "/volume1/out/made", nullptr, nullptr, nullptr),
              1);
  });
  EXPECT_EQ(Read("/volume1/out/made"), "new");
}

double SecondsOf(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST_F(CgiUpload, BandwidthIsHeld) {
  Write("/etc/vemo/bandwidth.conf", "slow=\"256\"\nodd=\"x\"\nnone=\"0\"\n", 0644);
  const std::string body = Body({File("f", Content(256 * 1024))});
  const auto seconds = [&](const char* limit) {
    return SecondsOf([&] {
      Store(body, [limit](VEMOCGI* ctx) {
        EXPECT_EQ(VemoCgiLoadUploadFileBW(ctx, "/volume1/out/f", nullptr, nullptr, limit), 1);
      });
    });
  };
  EXPECT_GE(seconds("slow"), 0.99);
  for (const char* limit : {"odd", "none", "missing", ""})
    EXPECT_LT(seconds(limit), 0.8) << limit;
  EXPECT_LT(seconds(nullptr), 0.8);
  Write("/etc/vemo/bandwidth.conf", "default=256\n", 0644);
  EXPECT_GE(seconds(nullptr), 0.99);
}

TEST_F(CgiUpload, SeesThatTheClientHungUp) {
  const std::string body = Body({File("f", "x")});
  Sent longer;
  longer.length = 1000;
  EXPECT_EQ(Serve(longer, body,
                  [](VEMOCGI* ctx) {
                    printf("%d", VemoCgiRecvHup(ctx));
                    printf(" %d", VemoCgiLoadUploadData(ctx, kSpool.c_str(), 0));
                    printf(" %d", VemoCgiRecvHup(ctx));
                  }),
            "0 -21 1");
  EXPECT_EQ(Serve({}, body,
                  [](VEMOCGI* ctx) {
                    VemoCgiLoadUploadData(ctx, kSpool.c_str(), 0);
                    printf("%d", VemoCgiRecvHup(ctx));
                    int ends[2], pair[2];
                    if (pipe(ends) != 0 || socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) return;
                    const int out = dup(1);
                    fflush(stdout);
                    dup2(ends[1], 1);
                    close(ends[0]);  // nobody reads the answer
                    const int gone = VemoCgiRecvHup(ctx);
                    dup2(out, 1);
                    dup2(pair[0], 0);
                    const int there = VemoCgiRecvHup(ctx);
                    close(pair[1]);
                    printf(" %d %d %d", gone, there, VemoCgiRecvHup(ctx));
                  }),
            "0 1 0 1");
}

TEST_F(CgiUpload, MemoryStaysSmall) {
  Mount("/volume2", "size=300m,mode=755");
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const std::string head = "--B\r\n" + File("f", "");
  const std::string tail = "\r\n--B--\r\n";
  const std::string block = Content(1 << 20);
  const size_t size = 200 << 20;
  const pid_t writer = fork();
  if (writer == 0) {
    close(ends[0]);
    if (write(ends[1], head.data(), head.size()) < 0) _exit(1);
    for (size_t sent = 0; sent < size; sent += block.size()) {
      for (size_t at = 0; at < block.size();) {
        const ssize_t written = write(ends[1], block.data() + at, block.size() - at);
        if (written < 0) _exit(1);
        at += static_cast<size_t>(written);
      }
    }
    _exit(write(ends[1], tail.data(), tail.size()) < 0 ? 1 : 0);
  }
  close(ends[1]);
  const auto answer =
      support::RunRequest(EnvironmentOf({}, head.size() + size + tail.size()), "", [&] {
        dup2(ends[0], 0);
        struct rusage before, after;
        getrusage(RUSAGE_SELF, &before);
        Context ctx;
        printf("%d", VemoCgiLoadUploadData(ctx, "/volume2/@tmp", 0));
        printf(" %d", VemoCgiLoadUploadFile(ctx, "/volume2/f", nullptr, nullptr));
        getrusage(RUSAGE_SELF, &after);
        printf(" %d", after.ru_maxrss - before.ru_maxrss < 2048);  // KiB
      });
  close(ends[0]);
  waitpid(writer, nullptr, 0);
  EXPECT_EQ(answer.output, "0 1 1");
  EXPECT_EQ(std::filesystem::file_size("/volume2/f"), size);
}

// --- Slices ---

class CgiSlice : public CgiUpload {
 protected:
  void SetUp() override {
    CgiUpload::SetUp();
    Prepare();
    mona_ = Session("mona", "-u 5001");
    theo_ = Session("theo", "-u 5002");
  }

  static std::string Session(const std::string& name, const std::string& options) {
    AddUser(name, name + "-pass", options);
    const Login login = LogIn(name.c_str(), (name + "-pass").c_str());
    EXPECT_EQ(login.result, 1);
    return "id=" + login.id;
  }

  // Sends the bytes from `first` on; the whole file is `content`.
  std::string Slice(const std::string& content, size_t first, size_t size, const std::string& path,
                    const std::string& id = "", const std::string& cookies = "",
                    const std::string& dest = "/volume1/out/f") {
    Sent sent;
    sent.cookies = cookies.empty() ? mona_ : cookies;
    sent.tmp_file = id;
    sent.range = "bytes " + std::to_string(first) + "-" + std::to_string(first + size - 1) + "/" +
                 std::to_string(content.size());
    return Send(sent, Body({Field("a", "1"), File("big", content.substr(first, size))}), path,
                dest);
  }

  static std::string Send(const Sent& sent, const std::string& body, const std::string& path,
                          const std::string& dest = "/volume1/out/f") {
    return Serve(sent, body, [&](VEMOCGI* ctx) {
      const int result = VemoCgiLoadUploadData(ctx, path.c_str(), 0);
      printf("%d %lld", result, VemoCgiGetUploadFileSize(ctx));
      if (result < 0) {
        printf(" %04X", static_cast<unsigned>(VLIBCErrGet()));
        return;
      }
      printf(" s%d", VemoCgiLoadUploadFile(ctx, dest.c_str(), nullptr, nullptr));
      const char* file = VemoCgiSliceUploadTmpFile();
      printf(" %s", file == nullptr ? "-" : "+");
    });
  }

  // The one growing file.
  static std::string Growing() {
    const auto names = Names(kSpool);
    EXPECT_EQ(names.size(), 1u);
    return kSpool + "/" + (names.empty() ? "" : *names.begin());
  }

  std::string mona_, theo_;
};

TEST_F(CgiSlice, RangesOfEveryForm) {
  const auto kind = [](const std::string& range, const std::string& method = "POST") {
    Sent sent;
    sent.range = range;
    sent.method = method;
    return Serve(sent, "", [](VEMOCGI* ctx) {
      printf("%d%d", VemoCgiIsSliceUploadRequest(ctx), VemoCgiIsSliceUploadFinish(ctx));
    });
  };
  EXPECT_EQ(kind("bytes 0-9/100"), "10");
  EXPECT_EQ(kind("bytes 90-99/100"), "11");
  EXPECT_EQ(kind("bytes 0-0/1", "PUT"), "11");
  EXPECT_EQ(kind("bytes 0-9/100", "GET"), "00");
  for (const char* range :
       {"", "bytes */100", "bytes 0-9/*", "bytes 9-0/100", "bytes 0-100/100", "bytes 0-9/0",
        "bytes -9/100", "bytes 0-/100", "bytes 0-9/100 ", "bytes  0-9/100", "items 0-9/100",
        "bytes=0-9/100", "bytes 0-9", "bytes +0-9/100", "bytes 0-9/9999999999999999999",
        "bytes 0-9/100,10-19/100"}) {
    EXPECT_EQ(kind(range), "00") << range;
  }
}

TEST_F(CgiSlice, AMalformedRangeIsNeverAWholeFile) {
  Sent sent;
  sent.cookies = mona_;
  for (const char* range : {"bytes 0-9", "bytes 9-0/100", "x"}) {
    sent.range = range;
    EXPECT_EQ(Send(sent, Body({File("f", "0123456789")}), kSpool), "-20 -1 0500") << range;
  }
}

TEST_F(CgiSlice, GrowInPlaceAndMoveWhenWhole) {
  const std::string content = Content(300000);
  EXPECT_EQ(Slice(content, 0, 100000, kSpool), "0 100000 s0 +");
  const std::string growing = Growing();
  struct stat first, status;
  ASSERT_EQ(stat(growing.c_str(), &first), 0);
  EXPECT_EQ(first.st_mode & 07777, 0600u);
  EXPECT_EQ(first.st_uid, 5001u);
  EXPECT_EQ(Slice(content, 100000, 150000, growing, "id"), "0 250000 s0 +");
  EXPECT_EQ(Growing(), growing);
  EXPECT_EQ(Slice(content, 250000, 50000, growing, "id"), "0 300000 s1 +");
  EXPECT_TRUE(Read("/volume1/out/f") == content);
  ASSERT_EQ(stat("/volume1/out/f", &status), 0);
  EXPECT_EQ(status.st_ino, first.st_ino);  // no second copy
  EXPECT_EQ(status.st_mode & 07777, 0644u);
  EXPECT_EQ(Names(kSpool), std::set<std::string>());
  EXPECT_EQ(Slice(content, 250000, 50000, growing, "id"), "-22 -1 0600");
}

TEST_F(CgiSlice, OneSliceMayBeAll) {
  EXPECT_EQ(Slice("content", 0, 7, kSpool), "0 7 s1 +");
  EXPECT_EQ(Read("/volume1/out/f"), "content");
  EXPECT_EQ(Names(kSpool), std::set<std::string>());
}

TEST_F(CgiSlice, NamesAreRandom) {
  std::set<std::string> ids;
  for (int i = 0; i < 8; i++)
    EXPECT_EQ(Slice("0123456789", 0, 5, kSpool), "0 5 s0 +");
  for (const auto& name : Names(kSpool)) {
    EXPECT_EQ(name.size(), 6u + 22 + 3);
    EXPECT_EQ(name.substr(0, 6), "slice-");
    EXPECT_EQ(name.substr(28), "-10");
    ids.insert(name.substr(6, 22));
  }
  EXPECT_EQ(ids.size(), 8u);
}

TEST_F(CgiSlice, RefusesWhatDoesNotFollowAndTellsWhatWould) {
  const std::string content = Content(1000);
  ASSERT_EQ(Slice(content, 0, 400, kSpool), "0 400 s0 +");
  const std::string growing = Growing();
  EXPECT_EQ(Slice(content, 399, 100, growing, "id"), "-22 400 0D00");        // overlaps
  EXPECT_EQ(Slice(content, 401, 100, growing, "id"), "-22 400 0D00");        // leaves a gap
  EXPECT_EQ(Slice(content, 0, 400, growing, "id"), "-22 400 0D00");          // again
  EXPECT_EQ(Slice(content + "x", 400, 100, growing, "id"), "-22 400 0D00");  // another total
  EXPECT_EQ(Slice(content, 400, 100, kSpool, "id"), "-22 -1 0600");          // an id without a file
  EXPECT_EQ(Slice(content, 400, 100, kSpool), "-22 -1 0600");                // a first one at 400
  EXPECT_EQ(Slice(content, 0, 100, kSpool, "id"), "-22 -1 0600");
  EXPECT_EQ(Read(growing), content.substr(0, 400));
  EXPECT_EQ(Slice(content, 400, 600, growing, "id"), "0 1000 s1 +");
  EXPECT_TRUE(Read("/volume1/out/f") == content);
}

TEST_F(CgiSlice, BrokenSlicesLeaveTheFileAsItWas) {
  const std::string content = Content(1000);
  Sent sent;
  sent.cookies = mona_;
  sent.range = "bytes 0-399/1000";
  const std::vector<std::string> bodies = {
      Body({File("f", content.substr(0, 399))}),  // less than the range says
      Body({File("f", content.substr(0, 401))}),  // more
      Body({Field("a", "1")}),                    // no file
      Body({File("f", content.substr(0, 400)), File("g", "")}),
      Body({File("f", content.substr(0, 400))}).substr(0, 460),
      "text"};
  for (const auto& body : bodies) {
    EXPECT_EQ(Send(sent, body, kSpool).substr(0, 7), "-20 -1 ") << body.size();
    EXPECT_EQ(Names(kSpool), std::set<std::string>());
  }
  ASSERT_EQ(Slice(content, 0, 400, kSpool), "0 400 s0 +");
  const std::string growing = Growing();
  sent.range = "bytes 400-799/1000";
  sent.tmp_file = "id";
  for (const auto& body : bodies) {
    EXPECT_EQ(Send(sent, body, growing).substr(0, 8), "-20 400 ") << body.size();
    EXPECT_EQ(Read(growing), content.substr(0, 400));
  }
}

TEST_F(CgiSlice, AFirstSliceThatIsCutLeavesNothing) {
  const std::string body = Body({File("f", "0123456789")});
  Sent sent;
  sent.cookies = mona_;
  sent.range = "bytes 0-9/100";
  sent.length = static_cast<long long>(body.size());
  for (size_t size = 0; size < body.size(); size += 3) {
    EXPECT_EQ(Send(sent, body.substr(0, size), kSpool), "-21 -1 0400") << size;
    EXPECT_EQ(Names(kSpool), std::set<std::string>());
  }
}

TEST_F(CgiSlice, ALaterSliceThatIsCutIsGoneOnWith) {
  const std::string content = Content(1000);
  const std::string part = File("f", content.substr(400, 400));
  const std::string body = Body({part});
  const size_t before = std::string("--B\r\n").size() + File("f", "").size();
  for (size_t size = 0; size < body.size(); size += 7) {
    ASSERT_EQ(Slice(content, 0, 400, kSpool), "0 400 s0 +");
    const std::string growing = Growing();
    Sent sent;
    sent.cookies = mona_;
    sent.tmp_file = "id";
    sent.range = "bytes 400-799/1000";
    sent.length = static_cast<long long>(body.size());
    const std::string result = Send(sent, body.substr(0, size), growing);
    const size_t there = std::filesystem::file_size(growing);
    EXPECT_EQ(result, "-21 " + std::to_string(there) + " 0400") << size;
    EXPECT_TRUE(Read(growing) == content.substr(0, there));
    // All that surely was content is kept.
    if (size > before + 5) {
      EXPECT_GE(there + 5, std::min<size_t>(400 + size - before, 800));
    }
    EXPECT_EQ(Slice(content, there, 1000 - there, growing, "id"), "0 1000 s1 +");
    EXPECT_TRUE(Read("/volume1/out/f") == content);
  }
}

TEST_F(CgiSlice, AWholeFileThatWasNotStoredAsksForItsLastByte) {
  const std::string content = Content(1000);
  ASSERT_EQ(Slice(content, 0, 400, kSpool), "0 400 s0 +");
  const std::string growing = Growing();
  EXPECT_EQ(Slice(content, 400, 600, growing, "id", "", "/volume1/missing/f"), "0 1000 s-9 +");
  struct stat status;
  ASSERT_EQ(stat(growing.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  EXPECT_EQ(Slice(content, 400, 600, growing, "id"), "-22 999 0D00");
  EXPECT_EQ(Slice(content, 999, 1, growing, "id"), "0 1000 s1 +");
  EXPECT_TRUE(Read("/volume1/out/f") == content);
}

TEST_F(CgiSlice, IsStoredOnAnotherVolumeToo) {
  Mount("/volume2", "size=1m,mode=755");
  const std::string content = Content(1000);
  EXPECT_EQ(Slice(content, 0, 1000, kSpool, "", "", "/volume2/f"), "0 1000 s1 +");
  EXPECT_TRUE(Read("/volume2/f") == content);
  EXPECT_EQ(Names(kSpool), std::set<std::string>());
}

TEST_F(CgiSlice, IsOfOneUserAlone) {
  ASSERT_EQ(Slice("0123456789", 0, 5, kSpool), "0 5 s0 +");
  const std::string growing = Growing();
  // As if it were not there: who asks does not learn that it is.
  EXPECT_EQ(Slice("0123456789", 5, 5, growing, "id", theo_), "-22 -1 0600");
  EXPECT_EQ(Slice("0123456789", 5, 5, growing, "id", "id=none"), "-9 -1 0300");
  EXPECT_EQ(Slice("0123456789", 0, 5, kSpool, "", "id=none"), "-9 -1 0300");
  EXPECT_EQ(Read(growing), "01234");
  EXPECT_EQ(Slice("0123456789", 5, 5, growing, "id"), "0 10 s1 +");
}

TEST_F(CgiSlice, AdministratorsFilesStayApart) {
  const std::string boss = Session("boss", "-u 5003 -G administrators");
  const std::string chief = Session("chief", "-u 5004 -G administrators");
  ASSERT_EQ(Slice("0123456789", 0, 5, kSpool, "", boss), "0 5 s0 +");
  const std::string growing = Growing();
  struct stat status;
  ASSERT_EQ(stat(growing.c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 5003u);
  EXPECT_EQ(Slice("0123456789", 5, 5, growing, "id", chief), "-22 -1 0600");
  EXPECT_EQ(Slice("0123456789", 5, 5, growing, "id", boss, "/volume1/no/f"), "0 10 s-9 +");
  EXPECT_EQ(Slice("0123456789", 9, 1, growing, "id", boss), "0 10 s1 +");
  ASSERT_EQ(stat("/volume1/out/f", &status), 0);
  EXPECT_EQ(status.st_uid, 0u);  // as whom the program acts
}

TEST_F(CgiSlice, OpensOnlyGrowingFiles) {
  Slice("0123456789", 0, 5, kSpool);
  const std::string growing = Growing();
  const std::string name = "/slice-AAAAAAAAAAAAAAAAAAAAAA-10";
  const auto refused = [&](const std::string& path) {
    return Slice("0123456789", 5, 5, path, "id");
  };
  Write("/volume1/out/secret", "01234", 0644);
  ASSERT_EQ(chown("/volume1/out/secret", 5001, 5001), 0);
  for (const std::string& path :
       {std::string("/etc/passwd"), std::string("/volume1/out/secret"), kSpool + "/../out/secret",
        kSpool + "/sub/f", std::string("/tmp/@tmp") + name, std::string("relative"),
        std::string("/volume1x/@tmp") + name, std::string("/volume/@tmp") + name}) {
    EXPECT_EQ(refused(path), "-9 -1 8100") << path;
  }
  EXPECT_EQ(refused("/volume9/@tmp" + name), "-13 -1 8300");
  EXPECT_EQ(refused(kSpool + name), "-22 -1 0600");
  std::filesystem::create_symlink("/volume1/out/secret", kSpool + name);
  EXPECT_EQ(refused(kSpool + name), "-9 -1 8100");
  unlink((kSpool + name).c_str());
  std::filesystem::create_hard_link("/volume1/out/secret", kSpool + name);
  EXPECT_EQ(refused(kSpool + name), "-9 -1 8100");
  unlink((kSpool + name).c_str());
  ASSERT_EQ(mkfifo((kSpool + name).c_str(), 0600), 0);
  ASSERT_EQ(chown((kSpool + name).c_str(), 5001, 5001), 0);
  EXPECT_EQ(refused(kSpool + name), "-9 -1 8100");
  unlink((kSpool + name).c_str());
  std::filesystem::create_directory(kSpool + name);
  EXPECT_EQ(refused(kSpool + name), "-9 -1 8100");
  std::filesystem::remove(kSpool + name);
  Write(kSpool + name, "01234");  // root's
  EXPECT_EQ(refused(kSpool + name), "-22 -1 0600");
  Write(kSpool + "/other", "01234");
  ASSERT_EQ(chown((kSpool + "/other").c_str(), 5001, 5001), 0);
  EXPECT_EQ(refused(kSpool + "/other"), "-9 -1 8100");
  EXPECT_EQ(Read("/volume1/out/secret"), "01234");
  EXPECT_EQ(Slice("0123456789", 5, 5, growing, "id"), "0 10 s1 +");
}

TEST_F(CgiSlice, TwoRequestsAtOnce) {
  ASSERT_EQ(Slice("0123456789", 0, 5, kSpool), "0 5 s0 +");
  const std::string growing = Growing();
  const int held = open(growing.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(flock(held, LOCK_EX), 0);
  EXPECT_EQ(Slice("0123456789", 5, 5, growing, "id"), "-22 5 0700");
  EXPECT_EQ(Read(growing), "01234");
  close(held);
  EXPECT_EQ(Slice("0123456789", 5, 5, growing, "id"), "0 10 s1 +");
}

TEST_F(CgiSlice, AreLimitedPerUser) {
  Configure("upload_slices=\"3\"\n");
  for (int i = 0; i < 3; i++)
    EXPECT_EQ(Slice("0123456789", 0, 5, kSpool), "0 5 s0 +");
  EXPECT_EQ(Slice("0123456789", 0, 5, kSpool), "-9 -1 0700");
  EXPECT_EQ(Slice("0123456789", 0, 5, kSpool, "", theo_), "0 5 s0 +");
  EXPECT_EQ(Names(kSpool).size(), 4u);
  Configure("upload_slices=\"x\"\n");  // 16
  for (int i = 3; i < 16; i++)
    EXPECT_EQ(Slice("0123456789", 0, 5, kSpool), "0 5 s0 +");
  EXPECT_EQ(Slice("0123456789", 0, 5, kSpool), "-9 -1 0700");
}

TEST_F(CgiSlice, AreLimitedInSpace) {
  Sent sent;
  sent.cookies = mona_;
  const std::string body = Body({File("f", "0123456789")});
  sent.range = "bytes 0-9/" + std::to_string(65 << 20);
  EXPECT_EQ(Send(sent, body, kSpool), "-2 -1 2900");
  sent.range = "bytes 0-9/" + std::to_string(40 << 20);
  EXPECT_EQ(Send(sent, body, kSpool), "0 10 s0 +");
  EXPECT_EQ(Send(sent, body, kSpool), "-2 -1 2900");  // with what the first still asks for
  sent.cookies = theo_;
  EXPECT_EQ(Send(sent, body, kSpool), "0 10 s0 +");  // nobody takes another user's room
}

TEST_F(CgiSlice, NeedAVolumesSpool) {
  std::filesystem::create_directories("/volume1/own");
  EXPECT_EQ(Slice("0123456789", 0, 5, "/volume1/own"), "-9 -1 8100");
}

TEST_F(CgiSlice, WorkAsTheUserToo) {
  const std::string content = Content(1000);
  std::filesystem::create_directories("/volume1/mine");
  ASSERT_EQ(chown("/volume1/mine", 5001, 5001), 0);
  Write("/volume1/mine/taken", "other");
  std::string path = kSpool;
  for (const size_t first : {size_t{0}, size_t{500}}) {
    Sent sent;
    sent.cookies = mona_;
    sent.range = "bytes " + std::to_string(first) + "-" + std::to_string(first + 499) + "/1000";
    const std::string id = mona_.substr(3);
    Serve(sent, Body({File("f", content.substr(first, 500))}), [&](VEMOCGI* ctx) {
      EXPECT_EQ(VemoCgiEGidSet(id.c_str(), "mona"), 0);
      EXPECT_EQ(VemoCgiEUidSet(id.c_str(), "mona"), 0);
      EXPECT_EQ(VemoCgiLoadUploadData(ctx, path.c_str(), 0), 0);
      if (first != 0) {
        // A name that is taken: the growing file waits as it was.
        VEMOUPLOADPROGRESS progress = {0, 0, VEMOUPLOAD_NEW};
        EXPECT_EQ(VemoCgiLoadUploadFile(ctx, "/volume1/mine/taken", nullptr, &progress), -9);
        EXPECT_EQ(errno, EEXIST);
        struct stat status;
        EXPECT_EQ(stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0600u);
      }
      EXPECT_EQ(VemoCgiLoadUploadFile(ctx, "/volume1/mine/f", nullptr, nullptr),
                first == 0 ? 0 : 1);
    });
    if (first == 0) path = Growing();
  }
  EXPECT_TRUE(Read("/volume1/mine/f") == content);
  EXPECT_EQ(Read("/volume1/mine/taken"), "other");
}

TEST_F(CgiSlice, SurviveKills) {
  const std::string content = Content(3000000);
  ASSERT_EQ(Slice(content, 0, 1000, kSpool), "0 1000 s0 +");
  const std::string growing = Growing();
  unsigned seed = 7;
  int killed = 0;
  for (size_t there = 1000; killed < 20 && there < content.size(); killed++) {
    const std::string body = Body({File("f", content.substr(there))});
    seed = seed * 1103515245 + 12345;
    const size_t cut = 200 + (seed >> 8) % 140000;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
      Sent sent;
      sent.cookies = mona_;
      sent.tmp_file = "id";
      sent.range = "bytes " + std::to_string(there) + "-2999999/3000000";
      for (const auto& [name, value] : EnvironmentOf(sent, body.size()))
        setenv(name.c_str(), value.c_str(), 1);
      dup2(ends[0], 0);
      close(ends[1]);
      Context ctx;
      VemoCgiLoadUploadData(ctx, growing.c_str(), 0);
      _exit(0);
    }
    close(ends[0]);
    for (size_t at = 0; at < std::min(cut, body.size());) {
      const ssize_t written = write(ends[1], body.data() + at, std::min(cut, body.size()) - at);
      ASSERT_GT(written, 0);
      at += static_cast<size_t>(written);
    }
    usleep(3000 + (seed >> 8) % 3000);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(ends[1]);
    there = std::filesystem::file_size(growing);
    ASSERT_TRUE(Read(growing) == content.substr(0, there));
  }
  EXPECT_EQ(killed, 20);
  const size_t there = std::filesystem::file_size(growing);
  EXPECT_EQ(Slice(content, there, content.size() - there, growing, "id"), "0 3000000 s1 +");
  EXPECT_TRUE(Read("/volume1/out/f") == content);
  EXPECT_EQ(Names(kSpool), std::set<std::string>());
}

}  // namespace
