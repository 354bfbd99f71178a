/// \file text.h
/// Texts for pages and answers: escaping, splitting and joining, parts of file names.
///
/// Texts are byte strings, no function interprets UTF-8, and a byte that is not named
/// passes unchanged. Nothing is logged, and no error code is recorded.
#ifndef ZEM_WEBUTILS_TEXT_H
#define ZEM_WEBUTILS_TEXT_H

#include <webutils/export.h>

#include <string>
#include <vector>

namespace WebUtils {

/// Escapes a text for the content of an HTML element: `&`, `<` and `>` become entities. Quotes
/// are left as they are: take `EncodeHtmlAndQuotes` for the value of an attribute.
/// \param spaces whether blanks become `&nbsp;`, so that runs of them show.
ZEM_EXPORT std::string EncodeHtml(const std::string& text, bool spaces);

/// The same, and double quotes become `&quot;`.
/// \param quotes whether single quotes become `&#39;`.
ZEM_EXPORT std::string EncodeHtmlAndQuotesEx(const std::string& text, bool spaces, bool quotes);

/// `EncodeHtmlAndQuotesEx` with blanks and single quotes escaped: fit for an attribute in
/// either kind of quotes.
ZEM_EXPORT std::string EncodeHtmlAndQuotes(const std::string& text);

/// The bytes that pairs of hexadecimal digits stand for. A last digit without a partner is
/// dropped, and a pair is read as strtol(3) does, up to the first character that is no digit:
/// "4z" is 4 and "zz" is 0. Nothing is refused: check the text where that matters.
ZEM_EXPORT std::string Hex2Bin(const std::string& hex);

/// The parts of a text between separators, as strtok_r(3) finds them: every character of
/// `delimiters` separates, several in a row count as one, and no part is empty. The text ends
/// at a NUL byte.
ZEM_EXPORT std::vector<std::string> StringExplode(const std::string& text,
                                                  const std::string& delimiters);

/// The parts in their order, with `glue` between each two.
ZEM_EXPORT std::string StringImplode(const std::vector<std::string>& parts,
                                     const std::string& glue);

/// The text without the blanks, tabs and line feeds at its start. A carriage return is kept.
ZEM_EXPORT std::string StringLeftStrip(const std::string& text);

/// The extension of a file name: what follows its last dot, which is not the first character
/// (a hidden file has no extension for that alone).
/// \param limit the index at which the search begins, backwards, in a name that is longer;
///     0 and 1: the search begins at the end.
/// \return a pointer into `name`; null when there is none, when nothing follows the dot, and
///     for a null name.
ZEM_EXPORT const char* GetFileExt(const char* name, unsigned int limit);

/// Whether the name ends with the extension, which includes its dot, without regard to the case
/// of ASCII letters. false when the extension is the whole name, and for null or empty
/// arguments.
ZEM_EXPORT bool IsValidExtension(const char* name, const char* extension);

/// The directory of a path as dirname(3) gives it: "a" for "a/b/", "." for "file", "/" for
/// "/". Empty for a null path.
ZEM_EXPORT std::string GetDirName(const char* path);

}  // namespace WebUtils

#endif  // ZEM_WEBUTILS_TEXT_H
