// Addresses, share paths, ranges of downloads and file names in headers.
#include <sys/types.h>
#include <webutils/url.h>

#include "fuzz/input.h"
#include "programs/download.h"
#include "programs/share_place.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size), text = fuzz::Text(data, size);

  std::string scheme, host, port;
  if (WebUtils::ParseURL(bytes, scheme, host, port)) {
    fuzz::Require(scheme == "http" || scheme == "https");
    fuzz::Require(host.find('/') == std::string::npos);
  }
  fuzz::Require(WebUtils::EncodeURL(text.c_str()).size() <= 3 * text.size());

  if (program::IsSharePath(bytes)) {
    fuzz::Require(bytes.find("//") == std::string::npos && bytes.find('\0') == std::string::npos);
    fuzz::Require((bytes + "/").find("/../") == std::string::npos);
  }
  const program::ByteRange range = program::ParseRange(bytes, 1000);
  if (range.kind == program::ByteRange::Kind::kPart) {
    fuzz::Require(range.first >= 0 && range.first <= range.last && range.last < 1000);
  }
  for (const char c : program::AttachmentHeader(bytes))
    fuzz::Require(static_cast<unsigned char>(c) >= 0x20 && static_cast<unsigned char>(c) < 0x7f);
  return 0;
}
