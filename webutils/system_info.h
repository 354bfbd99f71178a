/// \file system_info.h
/// Facts about the system: its version, how a path is mounted, and the mail with which a
/// user gets an account.
#ifndef ZEM_WEBUTILS_SYSTEM_INFO_H
#define ZEM_WEBUTILS_SYSTEM_INFO_H

#include <json/value.h>
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

/// Does nothing: what it once told is told elsewhere, and programs still call it.
ZEM_EXPORT void GetServiceEnabled(Json::Value& value);

/// Sends a user the mail about an account, without waiting. Whether it arrives is not
/// known here, and failures are not reported.
/// \param recipient nothing is sent when it is empty.
/// \param mailTemplate the template's name; %USER_NAME% and %PASSWD% are filled in.
/// \param includePassword false: eight asterisks stand for the password. true: the first
///     254 bytes of it, or, when it is empty, the text "no_pw".
ZEM_EXPORT void SendUserInfoMail(const std::string& user, const std::string& password,
                                 const std::string& recipient, const std::string& mailTemplate,
                                 bool includePassword);

}  // namespace WebUtils

#endif  // ZEM_WEBUTILS_SYSTEM_INFO_H
