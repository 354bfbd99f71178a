// text NAME library|plain: one of the text helpers over 1 MiB, and its counterpart in plain C
// with the same result, which for escaping is a copy byte by byte.
#include <webutils/text.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr size_t kSize = 1 << 20;

volatile size_t sink;

std::string Page() {
  const std::string line = "Some words of a page, and now and then <b>a tag</b> & more.\n";
  std::string text;
  while (text.size() < kSize)
    text += line;
  return text;
}

// What nothing escapes could cost at least.
void CopyBytes(const std::string& text) {
  char* copy = static_cast<char*>(std::malloc(text.size() + 1));
  const char* from = text.c_str();
  volatile char* to = copy;
  for (size_t i = 0; i < text.size(); i++)
    to[i] = from[i];
  sink = static_cast<size_t>(copy[text.size() / 2]);
  std::free(copy);
}

void PlainHex(const std::string& hex) {
  char* bytes = static_cast<char*>(std::malloc(hex.size() / 2 + 1));
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    const char pair[] = {hex[i], hex[i + 1], '\0'};
    bytes[i / 2] = static_cast<char>(std::strtol(pair, nullptr, 16));
  }
  sink = static_cast<size_t>(bytes[3]);
  std::free(bytes);
}

void PlainExplode(const std::string& text) {
  char* copy = strdup(text.c_str());
  size_t count = 0;
  char* state = nullptr;
  for (char* part = strtok_r(copy, " ", &state); part != nullptr;
       part = strtok_r(nullptr, " ", &state)) {
    char* kept = strdup(part);
    count += kept[0] != '\0';
    std::free(kept);
  }
  sink = count;
  std::free(copy);
}

}  // namespace

int main(int count, char** values) {
  if (count != 3) return 2;
  const std::string name = values[1];
  const bool library = std::strcmp(values[2], "library") == 0;
  const std::string page = Page(), hex(kSize, '4');
  if (std::strcmp(values[2], "none") == 0) return 0;
  if (name == "escape") {
    if (library)
      sink = WebUtils::EncodeHtml(page, false).size();
    else
      CopyBytes(page);
  } else if (name == "hex") {
    if (library)
      sink = WebUtils::Hex2Bin(hex).size();
    else
      PlainHex(hex);
  } else if (name == "explode") {
    if (library)
      sink = WebUtils::StringExplode(page, " ").size();
    else
      PlainExplode(page);
  }
  return 0;
}
