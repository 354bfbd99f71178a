// Value templates, escaping and file names' parts: never longer than they may be, and what is
// escaped holds nothing that a page would take for markup.
#include <json/value.h>
#include <webutils/template.h>
#include <webutils/text.h>

#include "fuzz/input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size), text = fuzz::Text(data, size);
  Json::Value values(Json::objectValue);
  values["a"] = "{b}";
  values["b"] = Json::Value(Json::arrayValue);
  values["n"] = 5;
  WebUtils::Template(text.c_str()).ApplyValues(values);

  const std::string escaped = WebUtils::EncodeHtmlAndQuotes(bytes);
  fuzz::Require(escaped.find_first_of("<>\"' ") == std::string::npos);
  fuzz::Require(escaped.size() <= 6 * bytes.size());
  fuzz::Require(WebUtils::Hex2Bin(bytes).size() == bytes.size() / 2);
  for (const std::string& part : WebUtils::StringExplode(bytes, ",;"))
    fuzz::Require(!part.empty() && part.find_first_of(",;") == std::string::npos);
  const char* extension = WebUtils::GetFileExt(text.c_str(), static_cast<unsigned>(size / 2));
  fuzz::Require(extension == nullptr || extension[-1] == '.');
  WebUtils::GetDirName(text.c_str());
  return 0;
}
