/// \file request.h
/// Runs a request handler as the web server would run it: in a process of its
/// own, with a CGI environment and a body on standard input, its answer caught.
/// No server is needed.
///
/// \code
///   const auto answer = support::RunRequest({{"REQUEST_METHOD", "GET"}, {"QUERY_STRING", "a=1"}},
///                                           "", [] { WebMan request(true); ... });
///   EXPECT_EQ(answer.Header("Content-type"), "text/plain; charset=\"UTF-8\"");
///   EXPECT_EQ(answer.body, "{}\n");
/// \endcode
#ifndef ZEM_TESTS_SUPPORT_REQUEST_H
#define ZEM_TESTS_SUPPORT_REQUEST_H

#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace support {

using Environment = std::map<std::string, std::string>;

struct Answer {
  int exit_status = -1;  ///< 0 to 255; -1 when a signal ended the process
  int signal = 0;        ///< the signal that ended the process, else 0
  std::string output;    ///< everything written to standard output
  std::string head;      ///< up to the blank line, each line with its CRLF
  std::string body;      ///< after the blank line; all of it when there is no head

  /// The value of the first header line `name` (case ignored), else "".
  std::string Header(std::string_view name) const;
  /// How many header lines `name` there are.
  int CountHeader(std::string_view name) const;
};

/// Runs `program` in a child process whose environment is `environment` and
/// PATH, whose standard input gives `body` and then ends. The child is killed
/// after 30 seconds. CONTENT_LENGTH is not added. Expectations that fail in the
/// child fail in the test, however the child ends.
Answer RunRequest(const Environment& environment, std::string_view body,
                  const std::function<void()>& program);

/// The environment of a GET with this query string, from 127.0.0.1.
Environment Get(const std::string& query);
/// The environment of a POST of `body` as a form, from 127.0.0.1.
Environment Post(std::string_view body);

}  // namespace support

#endif  // ZEM_TESTS_SUPPORT_REQUEST_H
