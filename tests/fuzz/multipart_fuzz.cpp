// multipart/form-data: a boundary line, then a body; read at once and in small pieces, which
// must come to the same.
#include <algorithm>
#include <cstring>
#include <memory>

#include "fuzz/input.h"
#include "platform/host/cgi/multipart.h"

namespace {

struct Log {
  std::string text;
  size_t content = 0;
  bool open = false;
};

int Begin(void* data, const vemo_part* part) {
  Log& log = *static_cast<Log*>(data);
  fuzz::Require(!log.open);
  fuzz::Require(*part->name != '\0' && strlen(part->name) <= VEMO_PART_NAME_LIMIT);
  fuzz::Require(strlen(part->file_name) <= VEMO_FILE_NAME_LIMIT);
  fuzz::Require(part->is_file || *part->file_name == '\0');
  fuzz::Require(strpbrk(part->file_name, "/\\\r\n") == nullptr);
  fuzz::Require(strcmp(part->file_name, ".") != 0 && strcmp(part->file_name, "..") != 0);
  log.open = true;
  log.text += '<' + std::string(part->name) + '|' + part->file_name + '>';
  return 0;
}

int Content(void* data, const char* bytes, size_t size) {
  Log& log = *static_cast<Log*>(data);
  fuzz::Require(log.open && size > 0);
  log.text.append(bytes, size);
  log.content += size;
  return 0;
}

int End(void* data) {
  Log& log = *static_cast<Log*>(data);
  fuzz::Require(log.open);
  log.open = false;
  log.text += "</>";
  return 0;
}

const vemo_multipart_events kEvents = {Begin, Content, End};

// Reads the body in pieces of memory of exactly their size.
std::string Read(const char* boundary, const uint8_t* body, size_t size, size_t piece) {
  const auto reader = std::make_unique<vemo_multipart>();
  Log log;
  vemo_multipart_start(reader.get(), boundary, &kEvents, &log);
  int result = 0;
  for (size_t at = 0; at < size && result == 0; at += piece) {
    const size_t count = std::min(piece, size - at);
    const auto copy = std::make_unique<char[]>(count);
    memcpy(copy.get(), body + at, count);
    result = vemo_multipart_feed(reader.get(), copy.get(), count);
    fuzz::Require(result == 0 || result == VEMO_MULTIPART_BROKEN);
  }
  const bool closed = vemo_multipart_is_closed(reader.get()) != 0;
  fuzz::Require(log.content <= size);
  if (result == 0 && closed) fuzz::Require(!log.open);
  // What was read before a body breaks depends on the pieces, and counts for nothing.
  if (result != 0) return "broken";
  return log.text + (closed ? " closed" : " open");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto* end = static_cast<const uint8_t*>(memchr(data, '\n', size));
  const size_t line = end == nullptr ? size : static_cast<size_t>(end - data);
  const std::string type = "multipart/form-data; boundary=" + fuzz::Text(data, line);
  const uint8_t* body = end == nullptr ? data + size : end + 1;
  const size_t body_size = static_cast<size_t>(data + size - body);

  char boundary[VEMO_BOUNDARY_LIMIT + 1];
  const size_t boundary_size = vemo_multipart_boundary(type.c_str(), boundary);
  fuzz::Require(boundary_size <= VEMO_BOUNDARY_LIMIT);
  if (boundary_size == 0) strcpy(boundary, "B");

  const std::string whole = Read(boundary, body, body_size, body_size + 1);
  for (const size_t piece : {size_t{1}, size_t{3}, size_t{17}})
    fuzz::Require(Read(boundary, body, body_size, piece) == whole);
  return 0;
}
