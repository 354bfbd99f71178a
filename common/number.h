/// \file number.h
/// Numbers from texts, as strtol reads them.
#ifndef ZEM_COMMON_NUMBER_H
#define ZEM_COMMON_NUMBER_H

#include <cstdlib>
#include <limits>

namespace zem {

/// Reads a base-10 signed integer at the start of `text`: leading white space
/// and a sign are allowed. A number outside the 32-bit range becomes the
/// nearest end of that range. `*end` is set to the first character that is not
/// part of the number; a text without a number gives 0 and `*end == text`.
inline int ClampedInt(const char* text, char** end = nullptr) {
  const long number = std::strtol(text, end, 10);
  if (number > std::numeric_limits<int>::max()) return std::numeric_limits<int>::max();
  if (number < std::numeric_limits<int>::min()) return std::numeric_limits<int>::min();
  return static_cast<int>(number);
}

}  // namespace zem

#endif  // ZEM_COMMON_NUMBER_H
