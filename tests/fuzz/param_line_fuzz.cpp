// URL-encoded parameter lines: decoded, looked up, and read as a query string.
#include <vemo/cgi.h>

#include <cstring>

#include "fuzz/input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string line = fuzz::Text(data, size);

  VEMOCGI context;
  VemoCgiInit("", &context);
  const int count = VemoCgiParseCGIParam(&context, line.c_str());
  fuzz::Require(count >= 0 && count <= 10000);
  for (const char* name : {"action", "a", "", "_sid", "%"}) {
    const char* value = VemoCgiGetCGIParam(&context, name, nullptr);
    // Decoding never makes a text longer.
    fuzz::Require(value == nullptr || strlen(value) <= line.size());
  }
  VemoCgiFree(&context);

  setenv("REQUEST_METHOD", "GET", 1);
  setenv("QUERY_STRING", line.c_str(), 1);
  VemoCgiInit("", &context);
  VemoCgiGetRequestParam(&context, "_sid", nullptr);
  char* raw = VemoCgiGetParamLine(&context);
  fuzz::Require(raw == nullptr ? line.empty() : line == raw);
  free(raw);
  VemoCgiFree(&context);
  return 0;
}
