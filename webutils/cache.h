/// \file cache.h
/// Cache validation: entity tags for answers, and modification stamps for the addresses of
/// resources, so that a change of a file is a change of its address.
///
/// An answer that browsers may keep:
///
/// \code
///   const std::string tag = WebUtils::CreateCGIETag();
///   if (WebUtils::OutputNotModifiedIfMatch(tag)) return 0;
///   request.AddHeader("ETag", tag.c_str());
///   request.WriteHeader("text/plain; charset=\"UTF-8\"");
/// \endcode
///
/// The tag stands for the script and its query, not for what is answered: use it where
/// the address changes with the content.
#ifndef ZEM_WEBUTILS_CACHE_H
#define ZEM_WEBUTILS_CACHE_H

#include <webutils/export.h>

#include <string>

namespace WebUtils {

/// The entity tag of this request, from SCRIPT_NAME and QUERY_STRING: sixteen bytes of an
/// MD5 digest (RFC 1321), each in lower-case hexadecimal without a leading zero, in four
/// groups with hyphens between. It is compared with itself only; browsers hold the older,
/// unpadded ones.
/// \return empty without SCRIPT_NAME, or when the digest fails, which is logged.
ZEM_EXPORT std::string CreateCGIETag();

/// Answers "304 Not Modified" when the client holds exactly this tag: HTTP_IF_NONE_MATCH
/// is compared byte for byte, without lists, quotes and weak tags.
/// \return true: the answer is written, print nothing more. false: nothing was printed.
ZEM_EXPORT bool OutputNotModifiedIfMatch(const std::string& tag);

/// The time of a file's last change as decimal seconds since the epoch; the current time
/// when it cannot be told, so that nothing stale is kept.
/// \param path "" or null: the directory of the running script. What follows the last "?"
///     does not count. A path that begins with "/" is below DOCUMENT_ROOT, one that holds
///     "webman/" below the working directory, any other below the script's directory. Both
///     are read once a process.
ZEM_EXPORT std::string GetModifyTime(const char* path);

/// The same of the system's factory defaults, /etc.defaults/vemoinfo.conf.
ZEM_EXPORT std::string GetVemoDefModifyTime();

/// The same of a module's folder of texts, "-s" and the system's small-fix number.
/// \param module what begins with "scripts", "webman" or "webfm"; others have no folder,
///     and get the current time.
ZEM_EXPORT std::string GetUIStringModifyTime(const std::string& module);

}  // namespace WebUtils

#endif  // ZEM_WEBUTILS_CACHE_H
