// The request object: construction, input and output.

#include "webman/webman.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/descriptor.h"
#include "common/json.h"
#include "common/log.h"
#include "webman/names.h"

WebMan::WebMan(bool loadInput) : default_content_type_(zem::kTextContentType) {
  setsid();
  std::memset(user_name_, 0, sizeof user_name_);
  loaded_ = false;
  VemoCgiInit("", &context_);
  VemoCgiLoadInCookies(&context_);
  if (loadInput && LoadIn()) loaded_ = true;
}

WebMan::~WebMan() { VemoCgiFree(&context_); }

bool WebMan::LoadIn() {
  if (loaded_) return false;

  const std::unique_ptr<char, decltype(&std::free)> line(VemoCgiGetParamLine(&context_), std::free);
  if (line == nullptr) return false;

  if (!LoadJSONParam(line.get())) VemoCgiParseCGIParam(&context_, line.get());
  loaded_ = true;
  return true;
}

bool WebMan::LoadJSONParam(char* line) {
  const size_t size = line == nullptr ? 0 : std::strlen(line);
  if (line != nullptr && zem::HasFewValues(line, size) &&
      zem::ParseJson(line, size, zem::JsonComments::kCollect, json_input_)) {
    return true;
  }
  // What the reader had built before it failed is no input.
  json_input_ = Json::Value();
  return false;
}

Json::Value* WebMan::In() { return json_input_.size() > 0 ? &json_input_ : nullptr; }

const char* WebMan::In(const char* name, const char* defaultValue) {
  // A JSON request is read through In() alone, by intention: a program that
  // asks for form parameters then gets its defaults.
  if (In() != nullptr) return defaultValue;
  return VemoCgiGetCGIParam(&context_, name, defaultValue);
}

const char* WebMan::GetCookie(const char* name, const char* defaultValue) {
  return VemoCgiGetInCookies(&context_, name, defaultValue);
}

void WebMan::UpdateCookiesHash() { VemoCgiLoadInCookies(&context_); }

const char* WebMan::GetUILanguage() { return VemoCgiGetLang(&context_); }

char* WebMan::szReadFile(const char* path, int maxSize) {
  // Without blocking: a FIFO without a writer must not hold the request.
  const zem::Descriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file) {
    ZEM_LOG("%s (%d) Failed to open %s. (%s)", zem::kWebmanSource, path, strerror(errno));
    return nullptr;
  }

  struct stat status;
  if (fstat(file.get(), &status) != 0) {
    ZEM_LOG("%s (%d) Failed to stat file. (%s)", zem::kWebmanSource, strerror(errno));
    return nullptr;
  }
  const long long size = status.st_size;
  if (size > static_cast<long long>(maxSize)) return nullptr;

  char* buffer = static_cast<char*>(std::calloc(static_cast<size_t>(size) + 1, 1));
  if (buffer == nullptr) {
    ZEM_LOG("%s (%d) Failed to malloc(%lld).", zem::kWebmanSource, size);
    return nullptr;
  }
  if (read(file.get(), buffer, static_cast<size_t>(size)) != size) {
    ZEM_LOG("%s (%d) read file failed. (%s)", zem::kWebmanSource, strerror(errno));
    std::free(buffer);
    return nullptr;
  }
  return buffer;
}

bool WebMan::AddHeader(const char* name, const char* value) {
  return VemoCgiSetHTTPHeader(&context_, name, value) != 0;
}

bool WebMan::WriteHeader(const char* contentType) {
  if (!AddHeader("Content-type", contentType)) return false;
  return VemoCgiPrintHTTPHeader(&context_) != 0;
}

bool WebMan::WriteBody(Json::Value& body) {
  const std::string text = zem::StyledJson(body);
  std::fwrite(text.data(), 1, text.size(), stdout);
  return true;
}

void WebMan::SetDefaultContentType(const char* contentType) {
  default_content_type_ = contentType == nullptr ? "" : contentType;
}

void WebMan::ResponseNotFound() {
  std::fputs("Cache-control: no-store\r\n", stdout);
  std::fputs("Status: 404 Not Found\r\n\r\n", stdout);
  std::exit(0);
}

bool WebMan::Redirect(const char* url) { return VemoCgiRedirect(&context_, url) != 0; }

namespace {

bool EnvironmentEquals(const char* name, const char* value) {
  const char* set = std::getenv(name);
  return set != nullptr && strcasecmp(set, value) == 0;
}

}  // namespace

bool WebMan::AddRedirectHeader(const char* path) {
  if (path == nullptr) return false;

  const bool tls =
      EnvironmentEquals("HTTPS", "ON") || EnvironmentEquals("HTTP_X_FORWARDED_PROTO", "https");
  const char* host = std::getenv("HTTP_HOST");
  if (host == nullptr) return false;

  std::string location = tls ? "https://" : "http://";
  location += host;
  location += '/';
  location += *path == '/' ? path + 1 : path;
  return AddHeader("Location", location.c_str());
}

bool WebMan::AddCookieToHeader(const char* first, const char* second, const char* third) {
  return VemoCgiSetCookies(&context_, second, third, 0, first, nullptr, 0) == 1;
}

bool WebMan::IsUploadRequest() { return VemoCgiIsUploadRequest(&context_) == 1; }
