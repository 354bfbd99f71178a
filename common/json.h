/// \file json.h
/// The one place where the JSON library is called in a way that can throw.
#ifndef ZEM_COMMON_JSON_H
#define ZEM_COMMON_JSON_H

#include <json/value.h>

#include <cstddef>
#include <string>

namespace zem {

enum class JsonComments { kSkip, kCollect };

/// Parses `size` bytes at `text` as one JSON document, as the library's lenient
/// reader does: comments are allowed, any kind of value may stand at the top,
/// and what follows the value is not looked at.
///
/// \return true and the document in `value`; false, and `value` as it was,
///     when the text is no JSON or nests deeper than the reader goes (1,000
///     levels, where it throws).
bool ParseJson(const char* text, std::size_t size, JsonComments comments, Json::Value& value);

/// Whether a text holds no more values than a request of somebody unknown may: 250,000, by the
/// commas and brackets outside of strings. Each costs 160 bytes of memory, so that a body of
/// 8 MiB could else take half a gigabyte.
bool HasFewValues(const char* text, std::size_t size);

/// The same as `ParseJson`, without comments, straight into `value`: after a failure it holds
/// whatever the reader had built by then, as it was for a text without any value. \param error when
/// not null, gets the reader's messages for people, each with its
///     line and column, after a failure.
bool ParseJsonInto(const char* text, std::size_t size, Json::Value& value,
                   std::string* error = nullptr);

/// The document as compact text of one line, ending in a line feed. Empty when there is
/// no memory.
std::string CompactJson(const Json::Value& value);

/// The document as indented text of several lines, ending in a line feed; an
/// object's members stand in name order. Empty when there is no memory.
std::string StyledJson(const Json::Value& value);

}  // namespace zem

#endif  // ZEM_COMMON_JSON_H
