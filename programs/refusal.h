// Why a user may or may not do something with a file of a share: for administrators, who may
// know.
#ifndef ZEM_PROGRAMS_REFUSAL_H
#define ZEM_PROGRAMS_REFUSAL_H

#include <json/value.h>

#include <string>

namespace program {

/// What a user may do with the file of a share path, and what takes the rest away:
/// {"user", "path", "may": {"list", "read", "write", "delete"}, "why": [{"level", ...}]}.
/// Levels, from the outside in: "share" with the setting that decided ("setting": "valid
/// users"), "restriction" ("what": "list" or "download"), "path" (no way to it: "at"), "mode" or
/// "acl" ("at", "missing"), "file system" ("read-only").
///
/// The process acts as the user afterwards: write the answer, and end.
/// \return null; else the key of the error's text.
const char* ExplainRights(const std::string& user, const std::string& path, Json::Value& answer);

}  // namespace program

#endif  // ZEM_PROGRAMS_REFUSAL_H
