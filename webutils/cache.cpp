#include "webutils/cache.h"

// The digest names contents, it guards nothing; the simple calls need nothing else of the
// library to be loaded.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/md5.h>
#include <sys/stat.h>
#include <webutils/system_info.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "common/log.h"
#include "webutils/paths.h"

namespace {

constexpr char kWebRoot[] = "/usr/vemo/vemoman/";

const char* Environment(const char* name, const char* otherwise) {
  const char* value = std::getenv(name);
  return value == nullptr ? otherwise : value;
}

const std::string& DocumentRoot() {
  static const std::string root = Environment("DOCUMENT_ROOT", kWebRoot);
  return root;
}

// With a slash at its end.
const std::string& ScriptDirectory() {
  static const std::string directory = [] {
    const std::string script = Environment("SCRIPT_FILENAME", kWebRoot);
    return script.substr(0, script.rfind('/') + 1);
  }();
  return directory;
}

std::string Stamp(const std::string& path) {
  struct stat status;
  return std::to_string(stat(path.c_str(), &status) == 0 ? status.st_mtime : time(nullptr));
}

bool GetMd5(const void* data, size_t size, unsigned char* digest) {
  MD5_CTX context;
  if (MD5_Init(&context) != 1) {
    ZEM_LOG_IN("%s:%s(%d): init md5 failed", zem::kWebutilsSource, __func__);
    return false;
  }
  if (MD5_Update(&context, data, size) != 1) {
    ZEM_LOG_IN("%s:%s(%d): update md5 failed", zem::kWebutilsSource, __func__);
    return false;
  }
  if (MD5_Final(digest, &context) != 1) {
    ZEM_LOG_IN("%s:%s(%d): md5 final failed", zem::kWebutilsSource, __func__);
    return false;
  }
  return true;
}

}  // namespace

namespace WebUtils {

std::string CreateCGIETag() {
  const char* script = std::getenv("SCRIPT_NAME");
  if (script == nullptr) return "";

  // All of the buffer is digested, the zero bytes behind the text too: tags that browsers
  // hold were made so.
  char input[1024] = "";
  unsigned char digest[MD5_DIGEST_LENGTH] = {};
  std::snprintf(input, sizeof input, "%s?%s", script, Environment("QUERY_STRING", ""));
  if (!GetMd5(input, sizeof input, digest)) return "";

  std::string tag;
  for (size_t i = 0; i < sizeof digest; i++) {
    char byte[4];
    std::snprintf(byte, sizeof byte, i > 0 && i % 4 == 0 ? "-%x" : "%x", digest[i]);
    tag += byte;
  }
  return tag;
}

bool OutputNotModifiedIfMatch(const std::string& tag) {
  const char* held = std::getenv("HTTP_IF_NONE_MATCH");
  if (tag.empty() || held == nullptr || tag != held) return false;
  std::printf("Status: 304 Not Modified\r\n");
  std::printf("ETag: %s\r\n\r\n", tag.c_str());
  return true;
}

std::string GetModifyTime(const char* path) {
  std::string file = path == nullptr ? "" : path;
  const size_t query = file.rfind('?');
  if (query != std::string::npos) file.erase(query);

  if (file.empty()) return Stamp(ScriptDirectory());
  if (file[0] == '/') return Stamp(DocumentRoot() + file);
  if (file.find("webman/") != std::string::npos) return Stamp(file);
  return Stamp(ScriptDirectory() + file);
}

std::string GetVemoDefModifyTime() { return Stamp(zem::kDefaultsFile); }

std::string GetUIStringModifyTime(const std::string& module) {
  static constexpr std::string_view kModules[] = {"scripts", "webman", "webfm"};

  std::string stamp;
  for (const std::string_view name : kModules) {
    if (stamp.empty() && module.compare(0, name.size(), name) == 0) {
      stamp = Stamp(DocumentRoot() + "/" + std::string(name) + "/texts");
    }
  }
  if (stamp.empty()) stamp = std::to_string(time(nullptr));
  return stamp + "-s" + GetSmallFixNum();
}

}  // namespace WebUtils
