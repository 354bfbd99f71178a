// What a file that somebody sends really is, told from its own bytes: nothing else of it, its
// name least of all, says what a picture tool will make of it.
#ifndef ZEM_PROGRAMS_PICTURE_H
#define ZEM_PROGRAMS_PICTURE_H

#include <string>
#include <string_view>

namespace program {

enum class PictureFault {
  kNone,
  kNoPicture,  // of no kind that is accepted, broken, or cut
  kTooLarge,   // more pixels, frames or passes than are worked on
};

struct Picture {
  PictureFault fault = PictureFault::kNoPicture;
  const char* extension = "";     // that of the content: ".jpg", ".png", ".gif" or ".bmp"
  const char* content_type = "";  // RFC 2045, of the content
  unsigned width = 0;             // pixels
  unsigned height = 0;
};

/// Limits of one picture.
inline constexpr unsigned kPictureEdge = 16000;         // pixels
inline constexpr unsigned kPicturePixels = 36'000'000;  // 18 bytes each fit into the tool's memory
inline constexpr unsigned kPictureFrames = 500;         // of an animation
inline constexpr unsigned kPictureScans = 100;          // of a progressive JPEG

/// Tells the kind of a whole file, its size in pixels, and whether it is built like one of
/// its kind up to its end. Nothing is decompressed. What follows the end of the picture is
/// not looked at: cameras put things there.
Picture InspectPicture(std::string_view bytes);

/// The content type of a file that begins like this; null for what is no picture.
const char* PictureContentType(std::string_view bytes);

/// Decodes base64 (RFC 4648, section 4), padding required. \return false for anything else.
bool DecodeBase64(std::string_view text, std::string& bytes);

}  // namespace program

#endif  // ZEM_PROGRAMS_PICTURE_H
