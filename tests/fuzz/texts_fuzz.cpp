// Localized string files, and their escaping for scripts.
#include <sys/stat.h>
#include <vemo/cgi.h>

#include <cstring>

#include "fuzz/input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool prepared = [] {
    mkdir((fuzz::Folder() + "/texts").c_str(), 0755);
    mkdir((fuzz::Folder() + "/texts/enu").c_str(), 0755);
    return true;
  }();
  fuzz::Require(prepared);
  fuzz::WriteFile(fuzz::Folder() + "/texts/enu/strings", data, size, 0644);

  VEMOCGI context;
  VemoCgiInit(fuzz::Folder().c_str(), &context);
  VemoCgiLoadText(&context, "common", "error", "a", static_cast<char*>(nullptr));
  for (const char* key : {"a", "ok", ""}) {
    fuzz::Require(VemoCgiGetText(&context, key, "") != nullptr);
    const char* escaped = VemoCgiGetEncodeText(&context, key, "");
    fuzz::Require(strpbrk(escaped, "<>\n\r") == nullptr);
  }
  VemoCgiFree(&context);
  return 0;
}
