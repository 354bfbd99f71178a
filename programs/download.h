// A file as the body of an answer: validation, one range, and a name to save it under.
#ifndef ZEM_PROGRAMS_DOWNLOAD_H
#define ZEM_PROGRAMS_DOWNLOAD_H

#include <sys/types.h>
#include <webman/webman.h>

#include <string>
#include <string_view>

namespace program {

/// The bytes of a file that a Range header asks for (RFC 9110, section 14.2).
struct ByteRange {
  enum class Kind { kWhole, kPart, kNone } kind = Kind::kWhole;  ///< kNone: cannot be had (416)
  off_t first = 0, last = 0;                                     ///< inclusive
};

/// \param header "bytes=a-b", "bytes=a-" or "bytes=-n"; anything else, several ranges among it,
///     counts as none given.
ByteRange ParseRange(std::string_view header, off_t size);

/// The header Content-Disposition that makes a browser save the answer as `name` (RFC 6266,
/// with RFC 8187 for what is not ASCII).
std::string AttachmentHeader(const std::string& name);

/// Answers with the file: 200, 206 with a part, 304 or 416. Browsers save it, and run nothing
/// of it.
/// \param file a descriptor of a regular file.
void SendFile(WebMan& request, int file, const std::string& name);

}  // namespace program

#endif  // ZEM_PROGRAMS_DOWNLOAD_H
