/// \file syslog.h
/// A system log of the test's own: the socket /dev/log, read back line by line.
#ifndef ZEM_TESTS_SUPPORT_SYSLOG_H
#define ZEM_TESTS_SUPPORT_SYSLOG_H

#include <string>
#include <vector>

namespace support {

struct LogLine {
  int priority;      ///< facility and severity, as syslog(3) combines them
  std::string text;  ///< the message, without date and program name
};

/// Listens on /dev/log from its construction on; run it in the sandbox only.
class Syslog {
 public:
  Syslog();
  ~Syslog();
  Syslog(const Syslog&) = delete;
  Syslog& operator=(const Syslog&) = delete;

  /// The lines that have come since the last call.
  std::vector<LogLine> Take();
  /// Their texts alone.
  std::vector<std::string> TakeTexts();

 private:
  int socket_;
};

}  // namespace support

#endif  // ZEM_TESTS_SUPPORT_SYSLOG_H
