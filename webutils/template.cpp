#include "webutils/template.h"

#include <limits>

namespace {

// Within a bracket expression a backslash stands for itself, so names hold none either.
constexpr char kPlaceholder[] = "\\{([^\\{\\}]*)\\}";

constexpr std::size_t kNameSize = 128;

std::string TextOf(const Json::Value& value) {
  // The library throws where there is no conversion.
  return value.isConvertibleTo(Json::stringValue) ? value.asString() : std::string();
}

}  // namespace

namespace WebUtils {

Template::Template() { InitTemplate(); }

Template::Template(const char* text) : text_(text == nullptr ? "" : text) { InitTemplate(); }

Template::~Template() {
  if (compiled_) regfree(&pattern_);
}

int Template::InitTemplate() {
  if (compiled_) regfree(&pattern_);
  const int result = regcomp(&pattern_, kPlaceholder, REG_EXTENDED);
  compiled_ = result == 0;
  return result;
}

void Template::ReadFromStream(FILE* stream) {
  char piece[2048];

  text_.clear();
  while (std::fgets(piece, sizeof piece, stream) != nullptr)
    text_ += piece;
}

// Told where the text ends, the matcher does not measure what is left at each search, which
// would make the time grow with the square of the text.
bool Template::FindNext(std::size_t position, regmatch_t& match) const {
  constexpr auto kFarthest = static_cast<std::size_t>(std::numeric_limits<regoff_t>::max());
  if (!compiled_ || text_.size() > kFarthest) return false;
  match.rm_so = 0;
  match.rm_eo = static_cast<regoff_t>(text_.size() - position);
  // What follows the first placeholder does not start at the beginning of a line.
  const int flags = REG_STARTEND | (position == 0 ? 0 : REG_NOTBOL);
  return regexec(&pattern_, text_.c_str() + position, 1, &match, flags) == 0;
}

std::string Template::ApplyValues(const Json::Value& values) {
  std::string result;
  std::size_t position = 0;
  regmatch_t match;

  while (FindNext(position, match)) {
    const std::size_t start = position + static_cast<std::size_t>(match.rm_so);
    const std::size_t end = position + static_cast<std::size_t>(match.rm_eo);
    const std::string name = text_.substr(start + 1, end - start - 2).substr(0, kNameSize);
    if (!name.empty() && values.isObject() && values.isMember(name)) {
      result.append(text_, position, start - position);
      result += TextOf(values[name]);
    } else {
      result.append(text_, position, end - position);
    }
    position = end;
  }
  result.append(text_, position);
  return result;
}

}  // namespace WebUtils
