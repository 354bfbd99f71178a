// Files that somebody sends as pictures: what passes is within the limits, has a kind, and
// its start alone tells the same.
#include "programs/picture.h"

#include "fuzz/input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A copy of that size, so that a read past its end is seen.
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const program::Picture picture = program::InspectPicture(bytes);
  if (picture.fault == program::PictureFault::kNone) {
    fuzz::Require(picture.width > 0 && picture.width <= program::kPictureEdge);
    fuzz::Require(picture.height > 0 && picture.height <= program::kPictureEdge);
    fuzz::Require(picture.width * picture.height <= program::kPicturePixels);
    fuzz::Require(picture.content_type == program::PictureContentType(bytes.substr(0, 16)));
    // What follows a picture is no matter.
    fuzz::Require(program::InspectPicture(bytes + "more").fault == program::PictureFault::kNone);
  }
  std::string decoded;
  if (program::DecodeBase64(bytes, decoded)) fuzz::Require(decoded.size() <= size / 4 * 3);
  return 0;
}
