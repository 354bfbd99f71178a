#include "programs/program.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace program {
namespace {

std::string_view Environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

// "https://host:port" without its scheme.
std::string_view HostOf(std::string_view origin) {
  const size_t separator = origin.find("://");
  return separator == std::string_view::npos ? "" : origin.substr(separator + 3);
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
  return member != nullptr && member->isString() ? member->asString() : "";
}

void QueuePrivateHeaders(WebMan& request) { request.AddHeader("Cache-Control", "no-store"); }

void AnswerSuccess(WebMan& request, const Json::Value& data) {
  Json::Value document(Json::objectValue);
  document["success"] = true;
  document["data"] = data;
  Answer(request, document);
}

void AnswerFailure(WebMan& request, const char* section, const char* key) {
  Json::Value document(Json::objectValue);
  document["success"] = false;
  document["errinfo"]["sec"] = section;
  document["errinfo"]["key"] = key;
  Answer(request, document);
}

}  // namespace program
