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

/// Whether something is mounted at the path. False, and logged, when it cannot be told.
ZEM_EXPORT bool IsMountPoint(std::string path);

/// How a path is mounted: "iso" for the image of a disc, "remote" for a file system of
/// another machine, "remotefail" when that one does not answer, "" for all others.
ZEM_EXPORT std::string getMountType(std::string path);

}  // namespace WebUtils

#endif  // ZEM_WEBUTILS_SYSTEM_INFO_H
