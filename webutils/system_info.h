/// \file system_info.h
/// Facts about the system: its version.
#ifndef ZEM_WEBUTILS_SYSTEM_INFO_H
#define ZEM_WEBUTILS_SYSTEM_INFO_H

#include <webutils/export.h>

#include <string>

namespace WebUtils {

/// The system's build number: the key "buildnumber" of /etc.defaults/VERSION, cut at 7
/// characters, "1" when there is none. Read once a process.
ZEM_EXPORT std::string GetVersion();

/// The same of the key "smallfixnumber", "0" when there is none.
ZEM_EXPORT std::string GetSmallFixNum();

}  // namespace WebUtils

#endif  // ZEM_WEBUTILS_SYSTEM_INFO_H
