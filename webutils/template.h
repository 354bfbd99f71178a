/// \file template.h
/// Texts with places for values: pages, mails, fragments of scripts.
#ifndef ZEM_WEBUTILS_TEMPLATE_H
#define ZEM_WEBUTILS_TEMPLATE_H

#include <json/value.h>
#include <regex.h>
#include <webutils/export.h>

#include <cstdio>
#include <string>

namespace WebUtils {

/// A text in which names in braces are replaced by values.
///
/// \code
///   WebUtils::Template greeting("Hello {user}, {unknown}!");
///   Json::Value values;
///   values["user"] = "ann";
///   greeting.ApplyValues(values);  // "Hello ann, {unknown}!"
/// \endcode
///
/// A placeholder is an opening brace, a name, a closing brace, where the name holds neither
/// braces nor a backslash: of "{{user}}" only the inner part is one, and "{a\b}" is none. What
/// is inserted is not searched again. **Values are inserted as they are:** escape them for the
/// place where they go (`EncodeHtmlAndQuotes`).
///
/// Nothing is logged, and no error code is recorded.
class ZEM_EXPORT Template {
 public:
  /// An empty text.
  Template();
  /// \param text is copied; null is the empty text.
  explicit Template(const char* text);
  ~Template();
  Template(const Template&) = delete;
  Template& operator=(const Template&) = delete;

  /// Compiles the pattern of placeholders; the constructors have done so.
  /// \return the result of regcomp(3): 0, or why no placeholder will be found.
  int InitTemplate();

  /// Replaces the text by all that the stream still gives; a NUL byte ends its line there. The
  /// stream is the caller's to open and to close.
  void ReadFromStream(FILE* stream);

  /// The text with its placeholders filled.
  ///
  /// A name is looked up by its first 128 bytes. A name that is no member, and "{}", stay as
  /// they are, braces included.
  /// \param values an object; any other kind of value has no members. Its members are texts;
  ///     a number and a boolean are written as the JSON library does ("1.5", "true"), and null,
  ///     an array and an object are the empty text.
  std::string ApplyValues(const Json::Value& values);

 private:
  bool FindNext(std::size_t position, regmatch_t& match) const;

  std::string text_;
  regex_t pattern_;
  bool compiled_ = false;
};

}  // namespace WebUtils

#endif  // ZEM_WEBUTILS_TEMPLATE_H
