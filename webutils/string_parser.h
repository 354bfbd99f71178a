/// \file string_parser.h
/// Fills the product's names into texts.
#ifndef ZEM_WEBUTILS_STRING_PARSER_H
#define ZEM_WEBUTILS_STRING_PARSER_H

#include <webutils/export.h>

#include <string>

namespace VEMO::KTR {

/// Placeholders for the names of the device's product and operating system.
class ZEM_EXPORT StringParser {
 public:
  /// A copy of `text` with every occurrence of `pattern` replaced by `value`. What
  /// was inserted is not searched again. An empty pattern replaces nothing.
  static std::string ReplaceString(const std::string& text, const std::string& pattern,
                                   const std::string& value);

  /// A copy of `text` in which "_CRATESERVER_" and "%CRATESERVER%" are replaced by
  /// the product's name, then "_OSNAME_" and "%OSNAME%" by the operating system's:
  /// the keys "product" and "os_name" of `/etc.defaults/vemoinfo.conf`, cut at 1,023
  /// bytes, "CrateServer" and "ZEM" where a key is missing. Both are read on the
  /// first call of the process; later changes of the file are not seen.
  static std::string ReplaceStringText(const std::string& text);
};

}  // namespace VEMO::KTR

#endif  // ZEM_WEBUTILS_STRING_PARSER_H
