#include "programs/picture.h"

#include <cstdint>
#include <cstdlib>

namespace program {
namespace {

// Reads numbers from bytes; beyond the end there are none.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : bytes_(bytes) {}

  bool Has(size_t count) const { return bytes_.size() - at_ >= count; }
  bool Skip(size_t count) {
    if (!Has(count)) return false;
    at_ += count;
    return true;
  }
  // Callers have asked whether there is as much.
  unsigned Byte(size_t offset = 0) const {
    return static_cast<unsigned char>(bytes_[at_ + offset]);
  }
  uint32_t Big(size_t offset, size_t size) const {
    uint32_t value = 0;
    for (size_t i = 0; i < size; i++)
      value = value << 8 | Byte(offset + i);
    return value;
  }
  uint32_t Little(size_t offset, size_t size) const {
    uint32_t value = 0;
    for (size_t i = size; i > 0; i--)
      value = value << 8 | Byte(offset + i - 1);
    return value;
  }
  std::string_view Text(size_t offset, size_t size) const {
    return bytes_.substr(at_ + offset, size);
  }
  size_t left() const { return bytes_.size() - at_; }
  // Goes to the next byte of this value. False: there is none.
  bool Find(char byte) {
    at_ = bytes_.find(byte, at_);
    if (at_ != std::string_view::npos) return true;
    at_ = bytes_.size();
    return false;
  }

 private:
  std::string_view bytes_;
  size_t at_ = 0;
};

PictureFault CheckSize(const Picture& picture) {
  if (picture.width == 0 || picture.height == 0) return PictureFault::kNoPicture;
  const bool fits = picture.width <= kPictureEdge && picture.height <= kPictureEdge &&
                    uint64_t{picture.width} * picture.height <= kPicturePixels;
  return fits ? PictureFault::kNone : PictureFault::kTooLarge;
}

// PNG (ISO/IEC 15948): chunks, from the header to the end.
PictureFault InspectPng(Reader reader, Picture& picture) {
  constexpr size_t kSignature = 8, kHeader = 13, kFrame = 12;
  bool data = false;
  if (!reader.Skip(kSignature) || !reader.Has(kHeader + kFrame) || reader.Big(0, 4) != kHeader ||
      reader.Text(4, 4) != "IHDR")
    return PictureFault::kNoPicture;
  picture.width = reader.Big(8, 4);
  picture.height = reader.Big(12, 4);
  const PictureFault fault = CheckSize(picture);
  if (fault != PictureFault::kNone) return fault;
  while (reader.Has(kFrame)) {
    const std::string_view kind = reader.Text(4, 4);
    if (kind == "IEND") return data ? PictureFault::kNone : PictureFault::kNoPicture;
    data = data || kind == "IDAT";
    if (!reader.Skip(kFrame + size_t{reader.Big(0, 4)})) break;
  }
  return PictureFault::kNoPicture;
}

bool IsFrameHeader(unsigned marker) {
  return marker >= 0xc0 && marker <= 0xcf && marker != 0xc4 && marker != 0xc8 && marker != 0xcc;
}

// JPEG (ITU-T T.81, annex B): segments behind markers, compressed data behind each scan's.
// A picture of many scans is decompressed as often.
PictureFault InspectJpeg(Reader reader, Picture& picture) {
  constexpr unsigned kEnd = 0xd9, kScan = 0xda;
  unsigned scans = 0;
  reader.Skip(2);
  while (reader.Find('\xff') && reader.Has(2)) {
    const unsigned marker = reader.Byte(1);
    // A fill byte, a byte of the data, a restart: no segment follows.
    if (marker == 0xff || marker == 0 || marker == 1 || (marker >= 0xd0 && marker <= 0xd8)) {
      reader.Skip(marker == 0xff ? 1 : 2);
      continue;
    }
    if (marker == kEnd) return scans > 0 ? PictureFault::kNone : PictureFault::kNoPicture;
    if (!reader.Has(4) || reader.Big(2, 2) < 2) return PictureFault::kNoPicture;
    if (IsFrameHeader(marker)) {
      if (picture.width != 0 || !reader.Has(9)) return PictureFault::kNoPicture;
      picture.height = reader.Big(5, 2);
      picture.width = reader.Big(7, 2);
      const PictureFault fault = CheckSize(picture);
      if (fault != PictureFault::kNone) return fault;
    }
    if (marker == kScan && picture.width == 0) return PictureFault::kNoPicture;
    if (marker == kScan && ++scans > kPictureScans) return PictureFault::kTooLarge;
    if (!reader.Skip(2 + size_t{reader.Big(2, 2)})) return PictureFault::kNoPicture;
  }
  return PictureFault::kNoPicture;
}

// Data in pieces, each behind its size; a size of 0 ends them.
bool SkipGifPieces(Reader& reader) {
  while (reader.Has(1)) {
    const size_t size = reader.Byte();
    if (!reader.Skip(1 + size)) return false;
    if (size == 0) return true;
  }
  return false;
}

size_t GifTableSize(unsigned flags) {
  return (flags & 0x80) == 0 ? 0 : size_t{3} << ((flags & 7) + 1);
}

// One frame. Each may have colours of its own, and its own size.
PictureFault InspectGifFrame(Reader& reader) {
  Picture frame;
  if (!reader.Has(11)) return PictureFault::kNoPicture;
  frame.width = reader.Little(5, 2);
  frame.height = reader.Little(7, 2);
  const PictureFault fault = CheckSize(frame);
  if (fault != PictureFault::kNone) return fault;
  const size_t head = 10 + GifTableSize(reader.Byte(9)) + 1;
  return reader.Skip(head) && SkipGifPieces(reader) ? PictureFault::kNone
                                                    : PictureFault::kNoPicture;
}

// GIF (version 89a): a screen, then extensions and frames up to the trailer.
PictureFault InspectGif(Reader reader, Picture& picture) {
  unsigned frames = 0;
  if (!reader.Has(13)) return PictureFault::kNoPicture;
  picture.width = reader.Little(6, 2);
  picture.height = reader.Little(8, 2);
  PictureFault fault = CheckSize(picture);
  if (fault != PictureFault::kNone) return fault;
  if (!reader.Skip(13 + GifTableSize(reader.Byte(10)))) return PictureFault::kNoPicture;
  while (reader.Has(2) && reader.Byte() != ';') {
    if (reader.Byte() == ',') {
      if (++frames > kPictureFrames) return PictureFault::kTooLarge;
      fault = InspectGifFrame(reader);
      if (fault != PictureFault::kNone) return fault;
    } else if (reader.Byte() != '!' || !reader.Skip(2) || !SkipGifPieces(reader)) {
      return PictureFault::kNoPicture;
    }
  }
  const bool whole = frames > 0 && reader.Has(1) && reader.Byte() == ';';
  return whole ? PictureFault::kNone : PictureFault::kNoPicture;
}

// BMP: a file header, one of several headers of the picture, the pixels. A negative height
// says that the rows come from the top.
PictureFault InspectBmp(Reader reader, Picture& picture) {
  constexpr size_t kFileHeader = 14, kOldHeader = 12, kHeader = 40;
  if (!reader.Has(kFileHeader + kOldHeader)) return PictureFault::kNoPicture;
  const size_t pixels = reader.Little(10, 4), header = reader.Little(kFileHeader, 4);
  if (header != kOldHeader && (header < kHeader || !reader.Has(kFileHeader + kHeader)))
    return PictureFault::kNoPicture;
  const bool old = header == kOldHeader;
  const auto height =
      old ? int64_t{reader.Little(20, 2)} : int64_t{static_cast<int32_t>(reader.Little(22, 4))};
  picture.width = reader.Little(18, old ? 2 : 4);
  picture.height = static_cast<unsigned>(std::llabs(height));
  const PictureFault fault = CheckSize(picture);
  if (fault != PictureFault::kNone) return fault;
  const uint64_t bits = reader.Little(old ? 24 : 28, 2);
  const uint32_t compression = old ? 0 : reader.Little(30, 4);
  const uint64_t row = (picture.width * bits + 31) / 32 * 4;
  const uint64_t needed = compression == 0 ? row * picture.height : 1;
  const bool whole = bits > 0 && bits <= 64 && pixels >= kFileHeader + header &&
                     pixels < reader.left() && needed <= reader.left() - pixels;
  return whole ? PictureFault::kNone : PictureFault::kNoPicture;
}

struct Kind {
  std::string_view start;
  const char* extension;
  const char* content_type;
  PictureFault (*inspect)(Reader reader, Picture& picture);
};

constexpr Kind kKinds[] = {
    {"\x89PNG\r\n\x1a\n", ".png", "image/png", InspectPng},
    {"\xff\xd8\xff", ".jpg", "image/jpeg", InspectJpeg},
    {"GIF87a", ".gif", "image/gif", InspectGif},
    {"GIF89a", ".gif", "image/gif", InspectGif},
    {"BM", ".bmp", "image/bmp", InspectBmp},
};

const Kind* KindOf(std::string_view bytes) {
  for (const Kind& kind : kKinds) {
    if (bytes.substr(0, kind.start.size()) == kind.start) return &kind;
  }
  return nullptr;
}

// The value of a base64 digit; -1: it is none.
int DigitOf(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  return c == '/' ? 63 : -1;
}

}  // namespace

Picture InspectPicture(std::string_view bytes) {
  Picture picture;
  const Kind* kind = KindOf(bytes);
  if (kind == nullptr) return picture;
  picture.extension = kind->extension;
  picture.content_type = kind->content_type;
  picture.fault = kind->inspect(Reader(bytes), picture);
  return picture;
}

const char* PictureContentType(std::string_view bytes) {
  const Kind* kind = KindOf(bytes);
  return kind == nullptr ? nullptr : kind->content_type;
}

bool DecodeBase64(std::string_view text, std::string& bytes) {
  bytes.clear();
  if (text.size() % 4 != 0) return false;
  const size_t padding = text.ends_with("==") ? 2 : text.ends_with("=") ? 1 : 0;
  bytes.reserve(text.size() / 4 * 3);
  uint32_t group = 0;
  for (size_t i = 0; i < text.size(); i++) {
    const int digit = i >= text.size() - padding ? 0 : DigitOf(text[i]);
    if (digit < 0) return false;
    group = group << 6 | static_cast<uint32_t>(digit);
    if (i % 4 != 3) continue;
    for (const int shift : {16, 8, 0})
      bytes += static_cast<char>(group >> shift & 0xff);
    group = 0;
  }
  bytes.resize(bytes.size() - padding);
  return true;
}

}  // namespace program
