#include "common/json.h"

#include <exception>
#include <utility>

// The reader and the writer are declared obsolete by the library, in favour of
// builders that read and write differently: the builders' reader refuses what
// clients have always been able to send, and their writer indents with tabs.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
#include <json/reader.h>
#include <json/writer.h>

namespace zem {

bool ParseJson(const char* text, std::size_t size, JsonComments comments, Json::Value& value) {
  try {
    Json::Reader reader;
    Json::Value parsed;
    if (!reader.parse(text, text + size, parsed, comments == JsonComments::kCollect)) return false;
    value = std::move(parsed);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

bool HasFewValues(const char* text, std::size_t size) {
  constexpr std::size_t kLimit = 250'000;
  std::size_t values = 0;
  bool in_string = false;
  for (std::size_t i = 0; i < size; i++) {
    const char c = text[i];
    if (in_string && c == '\\') {
      i++;
    } else if (c == '"') {
      in_string = !in_string;
    } else if (!in_string && (c == ',' || c == '[' || c == '{') && ++values > kLimit) {
      return false;
    }
  }
  return true;
}

bool ParseJsonInto(const char* text, std::size_t size, Json::Value& value, std::string* error) {
  try {
    Json::Reader reader;
    if (reader.parse(text, text + size, value, false)) return true;
    if (error != nullptr) *error = reader.getFormattedErrorMessages();
  } catch (const std::exception& exception) {
    if (error != nullptr) *error = exception.what();
  }
  return false;
}

std::string CompactJson(const Json::Value& value) {
  try {
    return Json::FastWriter().write(value);
  } catch (const std::exception&) {
    return {};
  }
}

std::string StyledJson(const Json::Value& value) {
  try {
    return Json::StyledWriter().write(value);
  } catch (const std::exception&) {
    return {};
  }
}

}  // namespace zem
