// Everything that reaches a header line: no input makes a second line.
#include <vemo/cgi.h>

#include <cstring>

#include "fuzz/input.h"

namespace {

// The printed answer, caught by a file in place of standard output.
std::string PrintedHeaders(VEMOCGI* context) {
  static FILE* caught = [] {
    FILE* file = freopen((fuzz::Folder() + "/out").c_str(), "w+", stdout);
    fuzz::Require(file != nullptr);
    return file;
  }();
  rewind(caught);
  fuzz::Require(ftruncate(fileno(caught), 0) == 0);
  VemoCgiPrintHTTPHeader(context);
  fflush(caught);
  std::string text(static_cast<size_t>(ftell(caught)), '\0');
  rewind(caught);
  fuzz::Require(fread(text.data(), 1, text.size(), caught) == text.size());
  return text;
}

size_t Lines(const std::string& text) {
  size_t lines = 0;
  for (const char c : text)
    lines += c == '\n';
  return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text = fuzz::Text(data, size);
  VEMOCGI context;
  VemoCgiInit("", &context);
  size_t queued = 0;
  queued += VemoCgiSetHTTPHeader(&context, "X-A", text.c_str()) != 0;
  queued += VemoCgiSetCookies(&context, "name", text.c_str(), 0, nullptr, nullptr, 0) == 1;
  queued += VemoCgiSetCookies(&context, "path", "v", 0, text.c_str(), nullptr, 0) == 1;
  queued += VemoCgiSetCookies(&context, "host", "v", 0, nullptr, text.c_str(), 0) == 1;
  queued += VemoCgiSetCookies(&context, text.c_str(), "v", 0, nullptr, nullptr, 0) == 1;
  const std::string printed = PrintedHeaders(&context);
  fuzz::Require(Lines(printed) == (queued == 0 && printed.empty() ? 0 : queued + 1));
  VemoCgiFree(&context);
  return 0;
}
