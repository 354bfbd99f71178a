// Cookie headers, and the session paths that are made from them.
#include <vemo/cgi.h>

#include <cstring>

#include "fuzz/input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string header = fuzz::Text(data, size);
  setenv("HTTP_COOKIE", header.c_str(), 1);

  VEMOCGI context;
  VemoCgiInit("", &context);
  VemoCgiLoadInCookies(&context);
  for (const char* name : {"id", "lang", "sharing_sid", "a", ""}) {
    const char* value = VemoCgiGetInCookies(&context, name, nullptr);
    // Values are kept as they were sent.
    fuzz::Require(value == nullptr || header.find(value) != std::string::npos);
  }
  const char* language = VemoCgiGetLang(&context);
  fuzz::Require(strlen(language) == 3 && strspn(language, "abcdefghijklmnopqrstuvwxyz") == 3);
  if (context.session_file != nullptr) {
    const char* id = VemoCgiGetInCookies(&context, "id", "");
    fuzz::Require(strlen(id) == 43 && strpbrk(id, "/.") == nullptr);
  }
  VemoCgiFree(&context);
  return 0;
}
