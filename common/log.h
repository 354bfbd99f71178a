/// \file log.h
/// The library's log lines: one a failure, to the system log at error
/// priority. Each message begins with the name of its source and the line
/// number, in one of three forms that log filters match:
/// "webman:12 text", "webman(12) text" and "webman:Function(12) text".
#ifndef ZEM_COMMON_LOG_H
#define ZEM_COMMON_LOG_H

#include <syslog.h>
#include <vemo/core.h>

/// Writes one line: a printf format that begins with the source and the line
/// ("%s:%d ..."), the source name, and the further arguments.
#define ZEM_LOG(format, source, ...) \
  syslog(LOG_ERR, format, source, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

/// The same in the form with the function's name: the format begins with "%s:%s(%d)".
#define ZEM_LOG_IN(format, source, function, ...) \
  syslog(LOG_ERR, format, source, function, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

/// The platform's account of its last failure, appended to a message.
#define ZEM_LOG_PLATFORM_FORMAT "[0x%04X %s:%d]"
#define ZEM_LOG_PLATFORM_ARGS \
  static_cast<unsigned int>(VLIBCErrGet()), VLIBCErrorGetFile(), VLIBCErrorGetLine()

#endif  // ZEM_COMMON_LOG_H
