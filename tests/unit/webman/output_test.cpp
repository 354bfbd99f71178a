// The request object's output: headers in their order, the body as it is, and
// the answers that are complete in themselves.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <webman/webman.h>

#include <cstdio>

#include "faults/faults.h"
#include "support/request.h"

namespace {

using support::Answer;
using support::Environment;
using support::Get;
using support::RunRequest;

Answer Serve(const std::function<void(WebMan&)>& program, const Environment& more = {}) {
  Environment environment = Get("");
  environment.insert(more.begin(), more.end());
  return RunRequest(environment, "", [&] {
    WebMan request(false);
    program(request);
  });
}

TEST(RequestOutput, PrintsQueuedHeadersThenTheContentTypeThenTheBody) {
  const Answer answer = Serve([](WebMan& request) {
    EXPECT_TRUE(request.AddHeader("X-One", "1"));
    EXPECT_TRUE(request.AddHeader("X-Two", "2"));
    EXPECT_TRUE(request.WriteHeader("text/plain"));
    Json::Value body;
    body["b"] = 1;
    body["a"] = "\xc3\xa4\"";
    EXPECT_TRUE(request.WriteBody(body));
  });
  EXPECT_EQ(answer.output,
            "X-One: 1\r\nX-Two: 2\r\nContent-type: text/plain\r\n\r\n"
            "{\n   \"a\" : \"\\u00e4\\\"\",\n   \"b\" : 1\n}\n");
}

TEST(RequestOutput, ABodyOfAnyKindIsWritten) {
  const Answer answer = Serve([](WebMan& request) {
    for (Json::Value value :
         {Json::Value(), Json::Value("x"), Json::Value(-1), Json::Value(Json::arrayValue)}) {
      request.WriteBody(value);
    }
  });
  EXPECT_EQ(answer.output, "null\n\"x\"\n-1\n[]\n");
}

TEST(RequestOutput, TextThatIsNotUtf8IsStillJson) {
  const Answer answer = Serve([](WebMan& request) {
    Json::Value body("a\xff\xc3");
    request.WriteBody(body);
  });
  EXPECT_EQ(answer.output.find('\xff'), std::string::npos);
}

TEST(RequestOutput, ARefusedContentTypePrintsNothing) {
  const Answer answer = Serve([](WebMan& request) {
    request.AddHeader("X-One", "1");
    EXPECT_FALSE(request.WriteHeader("text/plain\r\nX-Evil: 1"));
    EXPECT_FALSE(request.WriteHeader(nullptr));
    _exit(request.WriteHeader("text/html") ? fflush(stdout), 0 : 1);
  });
  EXPECT_EQ(answer.exit_status, 0);
  EXPECT_EQ(answer.output, "X-One: 1\r\nContent-type: text/html\r\n\r\n");
}

TEST(RequestOutput, HeadersArePrintedOnce) {
  const Answer answer = Serve([](WebMan& request) {
    const bool first = request.WriteHeader("text/plain");
    const bool second = request.WriteHeader("text/html");
    std::printf("%d%d", first, second);
  });
  EXPECT_EQ(answer.output, "Content-type: text/plain\r\n\r\n10");
}

TEST(RequestOutput, HeadersThatCannotBeWrittenAreAFailure) {
  const Answer answer = Serve([](WebMan& request) {
    dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO);
    _exit(request.WriteHeader("text/plain") ? 1 : 0);
  });
  EXPECT_EQ(answer.exit_status, 0);
}

TEST(RequestOutput, AnythingButZeroIsThePlatformsYes) {
  const Answer answer = Serve([](WebMan& request) {
    int set = 0, print = 0;
    faults::hooks.VemoCgiSetHTTPHeader = [&](VEMOCGI*, const char* name, const char* value) {
      std::printf("%s=%s ", name, value);
      return set;
    };
    faults::hooks.VemoCgiPrintHTTPHeader = [&](VEMOCGI*) {
      std::printf("print ");
      return print;
    };
    for (const auto& [set_result, print_result] : {std::pair{0, 1}, {2, 0}, {-1, 2}, {1, -1}}) {
      set = set_result;
      print = print_result;
      const bool added = request.AddHeader("a", "b");
      const bool written = request.WriteHeader("t");
      std::printf("%d%d\n", added, written);
    }
  });
  EXPECT_EQ(answer.output,
            "a=b Content-type=t 00\na=b Content-type=t print 10\n"
            "a=b Content-type=t print 11\na=b Content-type=t print 11\n");
}

TEST(RequestOutput, AddHeaderRefusesWhatWouldMakeASecondLine) {
  const Answer answer = Serve([](WebMan& request) {
    const char* bad[][2] = {{"X", "a\rb"}, {"X", "a\nb"},   {"X", "\x01"},
                            {"X", "\x7f"}, {"X\r\nY", "a"}, {"X:Y", "a"},
                            {"", "a"},     {"X Y", "a"},    {nullptr, "a"}};
    for (const auto& [name, value] : bad)
      std::printf("%d", request.AddHeader(name, value));
    std::printf("%d", request.AddHeader("X", "tab\there"));
  });
  EXPECT_EQ(answer.output, "0000000001");
}

TEST(RequestOutput, NotFoundIsACompleteAnswer) {
  const Answer answer = Serve([](WebMan& request) {
    request.AddHeader("X-Queued", "1");
    request.ResponseNotFound();
  });
  EXPECT_EQ(answer.output, "Cache-control: no-store\r\nStatus: 404 Not Found\r\n\r\n");
  EXPECT_EQ(answer.exit_status, 0);
}

TEST(RequestOutput, RedirectCarriesWhatIsQueued) {
  const Answer answer = Serve([](WebMan& request) {
    request.AddHeader("X-Queued", "1");
    EXPECT_TRUE(request.Redirect("https://host/path?a=b"));
  });
  EXPECT_EQ(answer.Header("Status"), "302 Found");
  EXPECT_EQ(answer.Header("Location"), "https://host/path?a=b");
  EXPECT_EQ(answer.Header("X-Queued"), "1");
  EXPECT_EQ(answer.body, "");
}

TEST(RequestOutput, RedirectRefusesLineBreaks) {
  const Answer answer = Serve([](WebMan& request) {
    const bool accepted = request.Redirect("/a\r\nSet-Cookie: x=y");
    std::printf("%d", accepted);
  });
  EXPECT_EQ(answer.output, "0");
}

struct LocationRow {
  Environment environment;
  const char* path;
  const char* location;
};

TEST(RequestOutput, TheRedirectHeaderIsBuiltFromTheRequest) {
  const LocationRow rows[] = {
      {{{"HTTP_HOST", "nas:5000"}}, "x", "http://nas:5000/x"},
      {{{"HTTP_HOST", "nas:5000"}}, "/x", "http://nas:5000/x"},
      {{{"HTTP_HOST", "nas"}}, "//x", "http://nas//x"},
      {{{"HTTP_HOST", "nas"}}, "", "http://nas/"},
      {{{"HTTP_HOST", ""}}, "x", "http:///x"},
      {{{"HTTP_HOST", "nas"}, {"HTTPS", "on"}}, "x", "https://nas/x"},
      {{{"HTTP_HOST", "nas"}, {"HTTPS", "ON"}}, "x", "https://nas/x"},
      {{{"HTTP_HOST", "nas"}, {"HTTPS", "on"}, {"HTTP_X_FORWARDED_PROTO", "http"}},
       "x",
       "https://nas/x"},
      {{{"HTTP_HOST", "nas"}, {"HTTP_X_FORWARDED_PROTO", "HTTPS"}}, "x", "https://nas/x"},
      {{{"HTTP_HOST", "nas"}, {"HTTPS", "off"}, {"HTTP_X_FORWARDED_PROTO", "https"}},
       "x",
       "https://nas/x"},
      {{{"HTTP_HOST", "nas"}, {"HTTPS", "1"}}, "x", "http://nas/x"},
      {{{"HTTP_HOST", "nas"}, {"HTTPS", "1"}, {"HTTP_X_FORWARDED_PROTO", "https2"}},
       "x",
       "http://nas/x"},
      {{}, "x", nullptr},
      {{{"HTTP_HOST", "nas"}}, nullptr, nullptr},
      {{{"HTTP_HOST", "nas\r\nX: 1"}}, "x", nullptr},
      {{{"HTTP_HOST", "nas"}}, "x\ny", nullptr},
  };
  for (const LocationRow& row : rows) {
    const Answer answer = Serve(
        [&](WebMan& request) {
          const bool queued = request.AddRedirectHeader(row.path);
          request.WriteHeader("text/plain");
          std::printf("%d", queued);
        },
        row.environment);
    EXPECT_EQ(answer.Header("Location"), row.location == nullptr ? "" : row.location);
    EXPECT_EQ(answer.body, row.location == nullptr ? "0" : "1");
  }
}

TEST(RequestOutput, CookiesGoOutWithPathNameAndValue) {
  const Answer answer = Serve([](WebMan& request) {
    EXPECT_TRUE(request.AddCookieToHeader("/webman", "a", "1"));
    EXPECT_TRUE(request.AddCookieToHeader(nullptr, "b", "2"));
    EXPECT_FALSE(request.AddCookieToHeader("/", "c", "3; Domain=evil"));
    EXPECT_FALSE(request.AddCookieToHeader("/", "c\r\nX: 1", "3"));
    EXPECT_FALSE(request.AddCookieToHeader("/\r\nX: 1", "c", "3"));
    request.WriteHeader("text/plain");
  });
  EXPECT_EQ(answer.CountHeader("Set-Cookie"), 2);
  EXPECT_EQ(answer.Header("Set-Cookie"), "a=1; Path=/webman; HttpOnly; SameSite=Lax");
}

TEST(RequestOutput, TheArgumentsOfACookieKeepTheirOrder) {
  const Answer answer = Serve([](WebMan& request) {
    faults::hooks.VemoCgiSetCookies = [](VEMOCGI*, const char* name, const char* value,
                                         time_t expires, const char* path, const char* domain,
                                         int flags) {
      std::printf("%s %s %ld %s %d %d;", name, value, static_cast<long>(expires), path,
                  domain == nullptr, flags);
      return 2;  // only 1 is success
    };
    std::printf("%d", request.AddCookieToHeader("first", "second", "third"));
  });
  EXPECT_EQ(answer.output, "second third 0 first 1 0;0");
}

TEST(RequestOutput, AnUploadIsToldByItsContentType) {
  const auto run = [](const char* method, const char* type) {
    return RunRequest({{"REQUEST_METHOD", method}, {"CONTENT_TYPE", type}}, "",
                      [] {
                        WebMan request(false);
                        std::printf("%d", request.IsUploadRequest());
                      })
        .output;
  };
  EXPECT_EQ(run("POST", "multipart/form-data; boundary=x"), "1");
  EXPECT_EQ(run("GET", "multipart/form-data; boundary=x"), "0");
  EXPECT_EQ(run("POST", "multipart/form-data"), "0");
  EXPECT_EQ(run("POST", "text/plain"), "0");

  const Answer answer = Serve([](WebMan& request) {
    faults::hooks.VemoCgiIsUploadRequest = [](VEMOCGI*) { return 2; };
    std::printf("%d", request.IsUploadRequest());
  });
  EXPECT_EQ(answer.output, "0");  // only 1 is yes
}

}  // namespace
