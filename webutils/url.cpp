#include "webutils/url.h"

#include <unistd.h>
#include <vemo/cgi.h>
#include <vemo/core.h>
#include <vemo/ports.h>
#include <vemo/user.h>
#include <vemo/wins.h>
#include <webman/vemo_conf.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/log.h"
#include "webutils/paths.h"

namespace {

constexpr char kHttp[] = "http://";
constexpr char kHttps[] = "https://";
constexpr char kSambaFile[] = "/etc/samba/smb.conf";
constexpr int kPortChecks = VEMOPORTS_RESERVED | VEMOPORTS_DECLARED | VEMOPORTS_LISTENING;
constexpr size_t kNameSize = 493;
constexpr size_t kDomainSize = 64;

bool BeginsWith(const std::string& text, const char* prefix) {
  return text.compare(0, std::strlen(prefix), prefix) == 0;
}

// The account's name as the name service writes it.
int WriteRealName(const char* name, char* output, unsigned int size) {
  return VLIBUserRealNameGet(name, output, static_cast<int>(size));
}

void WriteKnownName(const char* name, char* output, unsigned int size) {
  if (WriteRealName(name, output, size) >= 0) return;
  VEMOUSER* found = nullptr;
  const bool known = VEMOUserGet(name, &found) == 0;
  const std::unique_ptr<VEMOUSER, void (*)(VEMOUSER*)> user(found, VEMOUserFree);
  std::snprintf(output, size, "%s", known ? user->name : name);
}

void WriteDomainName(const char* name, char* output, unsigned int size) {
  char converted[kNameSize];
  if (VEMOWinsUserNameFqdn2Netbios(name, converted, sizeof converted) < 1) {
    std::snprintf(converted, sizeof converted, "%s", name);
  }
  if (WriteRealName(converted, output, size) >= 0) return;
  ZEM_LOG("%s:%d VLIBUserRealNameGet(%s) failed." ZEM_LOG_PLATFORM_FORMAT, zem::kWebutilsSource,
          converted, ZEM_LOG_PLATFORM_ARGS);
}

}  // namespace

namespace WebUtils {

bool GetURLByProtocol(std::string& url, bool https, const char* port) {
  char* host = std::getenv("HTTP_HOST");
  if (host == nullptr) {
    ZEM_LOG("%s (%d) Can't find HTTP_HOST in env", zem::kWebutilsSource);
    return false;
  }
  // The port of an address in brackets follows them.
  char* end = std::strchr(host, ']');
  end = end != nullptr ? end + 1 : std::strchr(host, ':');
  const char kept = end != nullptr ? *end : '\0';
  if (end != nullptr) *end = '\0';
  // A last dot stays away: whatever else of the request asks for the host is to build the
  // same addresses, or the session's cookie would not come with them.
  const size_t size = std::strlen(host);
  if (size > 0 && host[size - 1] == '.') host[size - 1] = '\0';
  url = std::string(https ? kHttps : kHttp) + host + ":" + (port == nullptr ? "" : port);
  if (end != nullptr) *end = kept;
  return true;
}

bool ParseURL(const std::string& url, std::string& scheme, std::string& host, std::string& port) {
  if (url.empty()) return false;
  // The argument may be one of the results.
  const std::string address = url;
  scheme.clear();
  host.clear();
  port.clear();
  const bool https = BeginsWith(address, kHttps);
  if (!https && !BeginsWith(address, kHttp)) return false;
  scheme = https ? "https" : "http";
  port = https ? "443" : "80";
  std::string rest = address.substr(https ? sizeof kHttps - 1 : sizeof kHttp - 1);
  rest.erase(std::min(rest.find('/'), rest.size()));

  if (BeginsWith(rest, "[")) {
    const size_t end = rest.rfind(']');
    if (end == std::string::npos) return false;
    host = rest.substr(0, end + 1);
    if (end + 1 < rest.size() && rest[end + 1] == ':') port = rest.substr(end + 2);
    return true;
  }
  const size_t colon = rest.rfind(':');
  host = rest.substr(0, colon);
  if (colon != std::string::npos) port = rest.substr(colon + 1);
  return true;
}

std::string EncodeURL(const char* text) {
  if (text == nullptr) return "";
  const size_t size = 3 * std::strlen(text);
  const std::unique_ptr<char, decltype(&std::free)> buffer(
      static_cast<char*>(std::calloc(size + 1, 1)), &std::free);
  if (buffer == nullptr) return "";
  VemoCgiURLEncode(text, buffer.get(), static_cast<int>(size));
  return buffer.get();
}

std::string GetServerName() {
  char name[256] = "";
  if (gethostname(name, sizeof name - 1) == 0) return name;
  ZEM_LOG_IN("%s:%s(%d): getting hostname error.", zem::kWebutilsSource, "GetServerName");
  return "";
}

std::string GetDomainName() {
  char name[kDomainSize] = "";
  if (!VEMOWinsIsJoined()) return "";
  if (VEMOWinsADSJoined()) {
    return VLIBCFileGetKeyValue(kSambaFile, "realm", name, sizeof name) >= 1 ? name : "";
  }
  return VEMOWorkgroupGet(name, sizeof name) >= 0 ? name : "";
}

bool IsPortConflict(const char* service, int first, int last) {
  if ((first == 0 && last == 0) || first > last) return false;
  if (service == nullptr) service = "";
  char range[32];
  std::snprintf(range, sizeof range, first == last ? "%d" : "%d:%d", first, last);
  VemoConf conf;
  const bool extra =
      std::strcmp(conf.Info("addport", ""), "yes") == 0 && std::strcmp(service, "http") == 0;
  const std::string services = extra ? std::string(service) + ", http_extra" : service;
  VEMOSERVICEPORT* conflicts = nullptr;
  const int count = VLIBIsPortConflict(services.c_str(), range, "tcp", kPortChecks, &conflicts);
  if (conflicts != nullptr) VEMOServiceConfPortsFree(conflicts);
  return count > 0;
}

int ParseInputUserName(const char* input, char* output, unsigned int size) {
  if (input == nullptr || output == nullptr || size == 0) {
    ZEM_LOG("%s:%d Bad parameter", zem::kWebutilsSource);
    return 1;
  }
  char name[kNameSize];
  if (VEMOUserLoginNameConvert(input, name, sizeof name) < 1) {
    std::snprintf(name, sizeof name, "%s", input);
  }
  if (IsDomainObject(name)) {
    WriteDomainName(name, output, size);
  } else {
    WriteKnownName(name, output, size);
  }
  return 0;
}

bool IsDomainObject(const std::string& name) { return name.find('\\') != std::string::npos; }

bool IsLDAPObject(const std::string& name) { return name.find('@') != std::string::npos; }

}  // namespace WebUtils
