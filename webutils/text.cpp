#include "webutils/text.h"

#include <libgen.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

namespace {

// What a byte is written as, in the room of one machine word.
struct Written {
  char text[7];
  std::uint8_t size;
};
static_assert(sizeof(Written) == 8);

using Writing = std::array<Written, 256>;

enum Escapes : unsigned { kSpaces = 1, kDoubleQuotes = 2, kSingleQuotes = 4, kAllEscapes = 8 };

constexpr void Set(Writing& writing, char byte, std::string_view text) {
  Written& written = writing[static_cast<unsigned char>(byte)];
  for (std::size_t i = 0; i < text.size(); i++)
    written.text[i] = text[i];
  written.size = static_cast<std::uint8_t>(text.size());
}

constexpr Writing MakeWriting(unsigned escapes) {
  Writing writing{};
  for (unsigned byte = 0; byte < 256; byte++) {
    writing[byte].text[0] = static_cast<char>(byte);
    writing[byte].size = 1;
  }
  Set(writing, '&', "&amp;");
  Set(writing, '<', "&lt;");
  Set(writing, '>', "&gt;");
  if ((escapes & kSpaces) != 0) Set(writing, ' ', "&nbsp;");
  if ((escapes & kDoubleQuotes) != 0) Set(writing, '"', "&quot;");
  if ((escapes & kSingleQuotes) != 0) Set(writing, '\'', "&#39;");
  return writing;
}

constexpr std::array<Writing, kAllEscapes> MakeWritings() {
  std::array<Writing, kAllEscapes> writings{};
  for (unsigned escapes = 0; escapes < kAllEscapes; escapes++)
    writings[escapes] = MakeWriting(escapes);
  return writings;
}

constexpr std::array<Writing, kAllEscapes> kWritings = MakeWritings();

constexpr std::size_t kBlock = 64;  // bytes that are written in one go
constexpr std::size_t kBlockRoom = 6 * kBlock + sizeof(Written);  // what they need at most

// Writes the word for a byte, of which the next byte's word overwrites what is too much: nothing
// is asked at any byte. \return the end of what counts.
inline char* EncodeByte(const Writing& writing, char byte, char* out) {
  const Written& written = writing[static_cast<unsigned char>(byte)];
  std::memcpy(out, &written, sizeof written);
  return out + written.size;
}

// A whole block, of a size that the compiler knows: no end is looked for either.
char* EncodeBlock(const Writing& writing, const char* at, char* out) {
#pragma GCC unroll 16
  for (std::size_t i = 0; i < kBlock; i++)
    out = EncodeByte(writing, at[i], out);
  return out;
}

// Pages are escaped as a whole, and most of their bytes stay as they are.
std::string Encode(const std::string& text, unsigned escapes) {
  const Writing& writing = kWritings[escapes];
  const char *at = text.data(), *end = at + text.size();
  std::string encoded(text.size() + text.size() / 8 + kBlockRoom, '\0');
  std::size_t used = 0;
  while (at < end) {
    if (encoded.size() - used < kBlockRoom) encoded.resize(2 * encoded.size());
    char* const start = encoded.data() + used;
    char* out = start;
    if (static_cast<std::size_t>(end - at) >= kBlock) {
      out = EncodeBlock(writing, at, out);
      at += kBlock;
    } else {
      while (at < end)
        out = EncodeByte(writing, *at++, out);
    }
    used += static_cast<std::size_t>(out - start);
  }
  encoded.resize(used);
  return encoded;
}

}  // namespace

namespace WebUtils {

std::string EncodeHtml(const std::string& text, bool spaces) {
  return Encode(text, spaces ? kSpaces : 0u);
}

// In one pass: no entity holds a quote, and the ampersands of entities are not looked at again.
std::string EncodeHtmlAndQuotesEx(const std::string& text, bool spaces, bool quotes) {
  return Encode(text, (spaces ? kSpaces : 0u) | kDoubleQuotes | (quotes ? kSingleQuotes : 0u));
}

std::string EncodeHtmlAndQuotes(const std::string& text) {
  return EncodeHtmlAndQuotesEx(text, true, true);
}

std::string Hex2Bin(const std::string& hex) {
  std::string bytes;
  bytes.reserve(hex.size() / 2);
  for (std::size_t at = 0; at + 1 < hex.size(); at += 2) {
    const char pair[] = {hex[at], hex[at + 1], '\0'};
    bytes.push_back(static_cast<char>(std::strtol(pair, nullptr, 16) & 0xff));
  }
  return bytes;
}

std::vector<std::string> StringExplode(const std::string& text, const std::string& delimiters) {
  std::vector<std::string> parts;
  std::string buffer(text);
  char* state = nullptr;
  for (char* part = strtok_r(buffer.data(), delimiters.c_str(), &state); part != nullptr;
       part = strtok_r(nullptr, delimiters.c_str(), &state))
    parts.emplace_back(part);
  return parts;
}

std::string StringImplode(const std::vector<std::string>& parts, const std::string& glue) {
  std::string text;
  for (std::size_t i = 0; i < parts.size(); i++) {
    if (i > 0) text += glue;
    text += parts[i];
  }
  return text;
}

std::string StringLeftStrip(const std::string& text) {
  const std::size_t start = text.find_first_not_of(" \t\n");
  return start == std::string::npos ? std::string() : text.substr(start);
}

const char* GetFileExt(const char* name, unsigned int limit) {
  if (name == nullptr) return nullptr;
  const std::size_t size = std::strlen(name);
  if (size < 2) return nullptr;

  std::size_t at = size > limit && limit > 1 ? limit : size - 1;
  while (at > 0 && name[at] != '.')
    at--;
  return at > 0 && name[at + 1] != '\0' ? name + at + 1 : nullptr;
}

bool IsValidExtension(const char* name, const char* extension) {
  if (name == nullptr || extension == nullptr) return false;
  const std::size_t name_size = std::strlen(name);
  const std::size_t size = std::strlen(extension);
  if (size == 0 || name_size <= size) return false;
  return strcasecmp(name + name_size - size, extension) == 0;
}

std::string GetDirName(const char* path) {
  if (path == nullptr) return std::string();
  const std::unique_ptr<char, decltype(&std::free)> copy(strdup(path), &std::free);
  return copy == nullptr ? std::string() : std::string(dirname(copy.get()));
}

}  // namespace WebUtils
