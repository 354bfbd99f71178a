// key=value files: the two readers agree, and what is written is read back.
#include <vemo/core.h>

#include <cstring>

#include "fuzz/input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = fuzz::Folder() + "/file.conf";
  fuzz::WriteFile(path, data, size, 0600);

  VEMOSZHASH* pairs = VLIBCSzHashAlloc(16);
  const int count = VLIBCFileGetPair(path.c_str(), pairs);
  for (const char* key : {"a", "language", "product"}) {
    char value[256] = "";
    const int found = VLIBCFileGetKeyValue(path.c_str(), key, value, sizeof value);
    const char* pair = count < 0 ? nullptr : VLIBCSzHashGetValue(pairs, key);
    fuzz::Require((found == 1) == (pair != nullptr));
    fuzz::Require(found != 1 || strncmp(pair, value, strlen(value)) == 0);
  }
  VLIBCSzHashFree(pairs);

  const std::string value = fuzz::Text(data, size < 200 ? size : 200);
  if (VLIBCFileSetKeyValue(path.c_str(), "a", value.c_str()) == 0) {
    char read[256];
    fuzz::Require(VLIBCFileGetKeyValue(path.c_str(), "a", read, sizeof read) == 1);
    fuzz::Require(value == read);
  }
  return 0;
}
