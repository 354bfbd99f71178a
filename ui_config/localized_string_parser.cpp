#include "ui_config/localized_string_parser.h"

#include <webutils/string_parser.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/file.h"

namespace VEMO::KTR {
namespace {

constexpr char kByteOrderMark[] = "\xef\xbb\xbf";

bool IsTrimmed(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// The lines of an open file, of any length.
class Lines {
 public:
  explicit Lines(const zem::Descriptor& file) : stream_(fdopen(dup(file.get()), "r")) {}
  ~Lines() {
    std::free(line_);
    if (stream_ != nullptr) std::fclose(stream_);
  }
  Lines(const Lines&) = delete;
  Lines& operator=(const Lines&) = delete;

  // The next line, null at the end.
  char* Next() {
    if (stream_ == nullptr || getdelim(&line_, &size_, '\n', stream_) < 0) return nullptr;
    return line_;
  }

 private:
  FILE* stream_;
  char* line_ = nullptr;
  size_t size_ = 0;
};

}  // namespace

char* LocalizedStringParser::TrimString(char* text) {
  if (text == nullptr) return nullptr;
  while (IsTrimmed(*text))
    ++text;
  size_t size = std::strlen(text);
  while (size > 0 && IsTrimmed(text[size - 1]))
    text[--size] = '\0';
  if (size < 2 || text[0] != '"' || text[size - 1] != '"') return text;
  text[size - 1] = '\0';
  return text + 1;
}

void LocalizedStringParser::ParseLine(char* line, char** section, char** key, char** value) {
  if (line == nullptr || section == nullptr || key == nullptr || value == nullptr) return;
  *section = *key = *value = nullptr;

  if (std::strncmp(line, kByteOrderMark, 3) == 0) line += 3;
  line = TrimString(line);
  if (*line == '\0' || *line == '#') return;
  if (*line == '[') {
    char* end = std::strrchr(line, ']');
    if (end == nullptr) return;
    *end = '\0';
    *section = line + 1;
    return;
  }
  char* equals = std::strchr(line, '=');
  if (equals == nullptr) return;
  *equals = '\0';
  *key = TrimString(line);
  *value = TrimString(equals + 1);
}

Json::Value LocalizedStringParser::ParseTexts(std::string directory) {
  Json::Value texts(Json::objectValue);
  const zem::Descriptor file = zem::OpenRegularFile((directory + "/strings").c_str());
  if (!file) return texts;

  Json::Value* current = nullptr;
  Lines lines(file);
  while (char* line = lines.Next()) {
    char *section, *key, *value;
    ParseLine(line, &section, &key, &value);
    if (section != nullptr) {
      current = &(texts[section] = Json::Value(Json::objectValue));
    } else if (current != nullptr && key != nullptr && value != nullptr) {
      (*current)[key] = StringParser::ReplaceStringText(value);
    }
  }
  return texts;
}

}  // namespace VEMO::KTR
