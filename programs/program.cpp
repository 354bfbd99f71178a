#include "programs/program.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "common/json.h"

namespace program {
namespace {

constexpr size_t kDocumentLimit = 1 << 20;

std::string_view Environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

// "https://host:port" without its scheme.
std::string_view HostOf(std::string_view origin) {
  const size_t separator = origin.find("://");
  return separator == std::string_view::npos ? "" : origin.substr(separator + 3);
}

bool IsWithin(unsigned char c, unsigned char low, unsigned char high) {
  return c >= low && c <= high;
}

// The length of the character at `at` by the table of RFC 3629, section 4; 0 when there
// is none. The NUL at the end is no continuation, so nothing behind it is read.
size_t Utf8Size(const unsigned char* at) {
  const unsigned char first = at[0];
  if (first < 0x80) return 1;
  if (IsWithin(first, 0xc2, 0xdf)) return IsWithin(at[1], 0x80, 0xbf) ? 2 : 0;
  const unsigned char low = first == 0xe0 ? 0xa0 : first == 0xf0 ? 0x90 : 0x80;
  const unsigned char high = first == 0xed ? 0x9f : first == 0xf4 ? 0x8f : 0xbf;
  if (!IsWithin(first, 0xe0, 0xf4) || !IsWithin(at[1], low, high)) return 0;
  if (!IsWithin(at[2], 0x80, 0xbf)) return 0;
  if (first < 0xf0) return 3;
  return IsWithin(at[3], 0x80, 0xbf) ? 4 : 0;
}

void Answer(WebMan& request, Json::Value& document) {
  QueuePrivateHeaders(request);
  request.WriteHeader("text/plain; charset=\"UTF-8\"");
  request.WriteBody(document);
}

}  // namespace

bool IsPost() { return Environment("REQUEST_METHOD") == "POST"; }

bool IsFromThisSite() {
  const std::string_view site = Environment("HTTP_SEC_FETCH_SITE");
  if (!site.empty() && site != "same-origin" && site != "none") return false;
  const std::string_view origin = Environment("HTTP_ORIGIN");
  return origin.empty() || HostOf(origin) == Environment("HTTP_HOST");
}

std::string Field(WebMan& request, const char* name) {
  Json::Value* document = request.In();
  if (document == nullptr) return request.In(name, "");
  if (!document->isObject()) return "";
  const Json::Value* member = document->find(name, name + std::strlen(name));
  if (member == nullptr || !member->isString()) return "";
  const std::string text = member->asString();
  return text.find('\0') == std::string::npos ? text : "";
}

bool Document(WebMan& request, const char* name, Json::Value& document) {
  const Json::Value* sent = request.In();
  if (sent == nullptr) {
    const std::string_view text = request.In(name, "");
    return zem::ParseJson(text.data(), text.size(), zem::JsonComments::kSkip, document);
  }
  const Json::Value* member =
      sent->isObject() ? sent->find(name, name + std::strlen(name)) : nullptr;
  if (member == nullptr) return false;
  document = *member;
  return true;
}

bool FitsDocument(const Json::Value& document) {
  const std::string text = zem::CompactJson(document);
  return !text.empty() && text.size() <= kDocumentLimit;
}

bool IsUtf8(const char* text) {
  const auto* at = reinterpret_cast<const unsigned char*>(text);
  while (*at != 0) {
    const size_t size = Utf8Size(at);
    if (size == 0) return false;
    at += size;
  }
  return true;
}

void QueuePrivateHeaders(WebMan& request) { request.AddHeader("Cache-Control", "no-store"); }

void AnswerSuccess(WebMan& request, const Json::Value& data) {
  Json::Value document(Json::objectValue);
  document["success"] = true;
  document["data"] = data;
  Answer(request, document);
}

void AnswerFailure(WebMan& request, const char* section, const char* key, const Json::Value& data) {
  Json::Value document(Json::objectValue);
  document["success"] = false;
  document["errinfo"]["sec"] = section;
  document["errinfo"]["key"] = key;
  if (!data.empty()) document["data"] = data;
  Answer(request, document);
}

}  // namespace program
