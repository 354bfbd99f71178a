/// \file localized_string_parser.h
/// The files "strings" that hold the texts of a desktop module in one language.
#ifndef ZEM_UI_CONFIG_LOCALIZED_STRING_PARSER_H
#define ZEM_UI_CONFIG_LOCALIZED_STRING_PARSER_H

#include <json/value.h>
#include <webutils/export.h>

#include <string>

namespace VEMO::KTR {

/// Reads files of sections and pairs, UTF-8, one a line:
///
///     # a comment
///     [common]
///     ok = "OK"
///     equation = a=b
///
/// Blanks, tabs and carriage returns at the ends of a line, a key and a value do not
/// count, and neither does one pair of double quotes around any of them (so a line that
/// begins and ends with one loses these first: do not quote keys). There are no escapes. A
/// byte-order mark at the start of any line is skipped. A section that begins again starts afresh,
/// of a repeated key the last value stays, a pair before the first section is dropped. What is no
/// such line is passed over; nothing is logged.
class ZEM_EXPORT LocalizedStringParser {
 public:
  /// The texts of a directory, from its file "strings": an object of sections, each an
  /// object of texts, in which the product's names are filled in.
  /// \param directory a relative one is looked for from the working directory.
  /// \return an empty object when there is no such file.
  static Json::Value ParseTexts(std::string directory);

  /// Takes one line apart, within its own memory. Each result is null, or a text inside
  /// `line`: a section's name for a header, a key and a value for a pair.
  static void ParseLine(char* line, char** section, char** key, char** value);

  /// Cuts blanks, tabs, line feeds and carriage returns off both ends of `text`, and then
  /// one pair of double quotes, within its own memory. \return where the text begins now;
  /// null for null.
  static char* TrimString(char* text);
};

}  // namespace VEMO::KTR

#endif  // ZEM_UI_CONFIG_LOCALIZED_STRING_PARSER_H
