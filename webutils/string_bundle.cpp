#include "webutils/string_bundle.h"

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>

#include "webutils/paths.h"
#include "webutils/string_parser.h"

namespace {

constexpr size_t kSlots = 6;
constexpr size_t kSlotSize = 64;  // bytes, NUL included

char slots[kSlots][kSlotSize];

// A name that does not fit is a mistake in a program, not a text to be cut: it
// would name another section.
void Keep(char (&slot)[kSlotSize], const char* section) {
  if (section == nullptr) return;
  const size_t size = std::strlen(section) + 1;
  if (size > kSlotSize) std::abort();
  std::memcpy(slot, section, size);
}

const char* Kept(size_t index) { return slots[index][0] == '\0' ? nullptr : slots[index]; }

}  // namespace

StringBundle::StringBundle(const char* section1, const char* section2, const char* section3,
                           const char* section4, const char* section5, const char* section6)
    : VEMOCGI() {
  Open(zem::kStringDirectories[STRMODULE_WEBMAN], section1, section2, section3, section4, section5,
       section6);
}

StringBundle::StringBundle(STRMODULE module, const char* section1, const char* section2,
                           const char* section3, const char* section4, const char* section5,
                           const char* section6)
    : VEMOCGI() {
  // Compared unsigned: whatever is no module is "webman".
  const auto index = static_cast<unsigned int>(module);
  Open(zem::kStringDirectories[index < std::size(zem::kStringDirectories) ? index : 0], section1,
       section2, section3, section4, section5, section6);
}

StringBundle::~StringBundle() { VemoCgiFree(this); }

void StringBundle::Open(const char* directory, const char* section1, const char* section2,
                        const char* section3, const char* section4, const char* section5,
                        const char* section6) {
  VemoCgiInit(directory, this);
  VemoCgiLoadText(this, section1, section2, section3, section4, section5, section6,
                  static_cast<char*>(nullptr));
  CacheParams(section1, section2, section3, section4, section5, section6);
}

void StringBundle::CacheParams(const char* section1, const char* section2, const char* section3,
                               const char* section4, const char* section5, const char* section6) {
  const char* sections[kSlots] = {section1, section2, section3, section4, section5, section6};
  for (size_t i = 0; i < kSlots; ++i)
    Keep(slots[i], sections[i]);
}

int StringBundle::LoadText() {
  return VemoCgiLoadText(this, Kept(0), Kept(1), Kept(2), Kept(3), Kept(4), Kept(5),
                         static_cast<char*>(nullptr));
}

// Puts the text with the names filled in where the platform looks texts up.
void StringBundle::FillIn(const char* key, const char* selector) {
  LoadText();
  const std::string raw = VemoCgiGetText(this, key, selector);
  const std::string filled = VEMO::KTR::StringParser::ReplaceStringText(raw);
  if (filled != raw) VLIBCSzHashSetValue(texts, key, filled.c_str());
}

const char* StringBundle::Text(const char* key, const char* selector) {
  FillIn(key, selector);
  return VemoCgiGetText(this, key, selector);
}

const char* StringBundle::TextJscript(const char* key, const char* selector) {
  FillIn(key, selector);
  return VemoCgiGetEncodeText(this, key, selector);
}
