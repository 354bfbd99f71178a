/// \file names.h
/// The fixed texts of the request object. Not for programs.
#ifndef ZEM_WEBMAN_NAMES_H
#define ZEM_WEBMAN_NAMES_H

namespace zem {

inline constexpr char kWebmanSource[] = "webman";

/// JSON is answered as plain text: old browsers offer a download for anything
/// else, and clients have come to expect it.
inline constexpr char kTextContentType[] = "text/plain; charset=\"UTF-8\"";
/// An upload is answered into a hidden frame, which must be HTML to be read.
inline constexpr char kUploadContentType[] = "text/html; charset=\"UTF-8\"";

inline constexpr char kSessionCookie[] = "id";

}  // namespace zem

#endif  // ZEM_WEBMAN_NAMES_H
