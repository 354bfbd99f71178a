#include "programs/download.h"

#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace program {
namespace {

std::string_view Environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

// Digits alone, up to a number that no file reaches.
bool ParseNumber(std::string_view text, off_t& number) {
  if (text.empty() || text.size() > 18) return false;
  number = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return false;
    number = number * 10 + (c - '0');
  }
  return true;
}

// A strong tag: a file that is written again has another time, another inode or another size.
std::string TagOf(const struct stat& status) {
  char tag[96];
  std::snprintf(tag, sizeof tag, "\"%jx-%jx-%jx.%lx\"", static_cast<uintmax_t>(status.st_ino),
                static_cast<uintmax_t>(status.st_size),
                static_cast<uintmax_t>(status.st_mtim.tv_sec), status.st_mtim.tv_nsec);
  return tag;
}

// RFC 9110, section 13.1.2: a list of tags, weak ones match too; "*" matches any.
bool IsHeld(std::string_view header, std::string_view tag) {
  while (!header.empty()) {
    const size_t comma = std::min(header.find(','), header.size());
    std::string_view one = header.substr(0, comma);
    one.remove_prefix(std::min(one.find_first_not_of(" \t"), one.size()));
    while (!one.empty() && (one.back() == ' ' || one.back() == '\t'))
      one.remove_suffix(1);
    if (one.substr(0, 2) == "W/") one.remove_prefix(2);
    if (one == tag || one == "*") return true;
    header.remove_prefix(std::min(comma + 1, header.size()));
  }
  return false;
}

void WriteHead(WebMan& request, const char* status, const char* tag) {
  if (status != nullptr) request.AddHeader("Status", status);
  request.AddHeader("Cache-Control", "private, no-cache");
  request.AddHeader("ETag", tag);
  request.AddHeader("Accept-Ranges", "bytes");
  // Whatever the file is, nothing in it runs, and it is nobody else's page.
  request.AddHeader("Content-Security-Policy", "sandbox; default-src 'none'");
}

// By the kernel where it can; a reader that is gone ends the program.
void Copy(int file, off_t first, off_t count) {
  off_t offset = first;
  while (count > 0) {
    const ssize_t sent = sendfile(STDOUT_FILENO, file, &offset,
                                  static_cast<size_t>(std::min<off_t>(count, 1 << 30)));
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) break;
    count -= sent;
  }
  std::vector<char> buffer(128 << 10);
  while (count > 0) {
    const ssize_t got = pread(
        file, buffer.data(),
        static_cast<size_t>(std::min<off_t>(count, static_cast<off_t>(buffer.size()))), offset);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return;  // it has become shorter: the client sees that too
    for (ssize_t at = 0; at < got;) {
      const ssize_t written =
          write(STDOUT_FILENO, buffer.data() + at, static_cast<size_t>(got - at));
      if (written < 0 && errno != EINTR) return;
      if (written > 0) at += written;
    }
    offset += got;
    count -= got;
  }
}

}  // namespace

ByteRange ParseRange(std::string_view header, off_t size) {
  ByteRange range;
  constexpr std::string_view kUnit = "bytes=";
  if (header.substr(0, kUnit.size()) != kUnit) return range;
  header.remove_prefix(kUnit.size());
  const size_t dash = header.find('-');
  if (dash == std::string_view::npos) return range;
  const std::string_view from = header.substr(0, dash), to = header.substr(dash + 1);
  off_t first = 0, last = size - 1;
  if (from.empty()) {
    off_t suffix;
    if (!ParseNumber(to, suffix)) return range;
    first = suffix >= size ? 0 : size - suffix;
    if (suffix == 0) first = size;
  } else {
    if (!ParseNumber(from, first)) return range;
    if (!to.empty() && (!ParseNumber(to, last) || last < first)) return range;
    last = std::min(last, size - 1);
  }
  range.kind = first >= size ? ByteRange::Kind::kNone : ByteRange::Kind::kPart;
  range.first = first;
  range.last = last;
  return range;
}

std::string AttachmentHeader(const std::string& name) {
  std::string plain, encoded;
  bool is_plain = true;
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    const bool quotable = byte >= 0x20 && byte < 0x7f && c != '"' && c != '\\' && c != '%';
    is_plain = is_plain && quotable;
    plain += quotable ? c : '_';
    const bool attribute = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                           (c >= '0' && c <= '9') || (c != '\0' && std::strchr("!#$&+-.^_`|~", c));
    char code[4];
    std::snprintf(code, sizeof code, attribute ? "%c" : "%%%02X", byte);
    encoded += code;
  }
  std::string header = "attachment; filename=\"" + plain + "\"";
  if (!is_plain) header += "; filename*=UTF-8''" + encoded;
  return header;
}

void SendFile(WebMan& request, int file, const std::string& name) {
  struct stat status;
  if (fstat(file, &status) != 0) status = {};
  const std::string tag = TagOf(status);
  if (IsHeld(Environment("HTTP_IF_NONE_MATCH"), tag)) {
    WriteHead(request, "304 Not Modified", tag.c_str());
    request.WriteHeader("application/octet-stream");
    return;
  }
  // A range of a file that has changed since would be put together with the old one.
  const std::string_view condition = Environment("HTTP_IF_RANGE");
  const bool as_asked = condition.empty() || condition == tag;
  const ByteRange range =
      as_asked ? ParseRange(Environment("HTTP_RANGE"), status.st_size) : ByteRange{};
  const std::string size = std::to_string(status.st_size);
  if (range.kind == ByteRange::Kind::kNone) {
    WriteHead(request, "416 Range Not Satisfiable", tag.c_str());
    request.AddHeader("Content-Range", ("bytes */" + size).c_str());
    request.WriteHeader("application/octet-stream");
    return;
  }
  const bool part = range.kind == ByteRange::Kind::kPart;
  const off_t first = part ? range.first : 0;
  const off_t count = part ? range.last - range.first + 1 : status.st_size;
  WriteHead(request, part ? "206 Partial Content" : nullptr, tag.c_str());
  if (part) {
    const std::string place =
        "bytes " + std::to_string(first) + "-" + std::to_string(range.last) + "/" + size;
    request.AddHeader("Content-Range", place.c_str());
  }
  request.AddHeader("Content-Length", std::to_string(count).c_str());
  request.AddHeader("Content-Disposition", AttachmentHeader(name).c_str());
  request.WriteHeader("application/octet-stream");
  std::fflush(stdout);
  if (Environment("REQUEST_METHOD") != "HEAD") Copy(file, first, count);
}

}  // namespace program
