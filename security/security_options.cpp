#include "security/security_options.h"

#include <arpa/inet.h>
#include <webman/vemo_conf.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "common/json_file.h"
#include "common/log.h"
#include "security/csp_document.h"
#include "security/csp_rule.h"
#include "security/names.h"

namespace {

using zem::kSecurityOptionsSource;

constexpr char kPlaceholder[] = "{HOSTNAME}";
constexpr size_t kPathSize = 4096;

std::string Environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

std::string PolicyText(const Json::Value& policy) {
  std::string text;
  for (auto directive = policy.begin(); directive != policy.end(); ++directive) {
    // What is no list has no sources.
    if (directive->isArray() && !directive->empty()) {
      text += directive.name();
      for (const Json::Value& source : *directive)
        text.append(" ").append(zem::SourceText(source));
      text += ";";
    }
    text += " ";
  }
  return text;
}

// The host of the request without its port. An address in brackets without a port loses
// what stands behind its last colon: browsers send a port with every one that is not the
// scheme's own, and policies in the field have counted on this.
std::string RequestHost() {
  std::string host = Environment("HTTP_HOST");
  in6_addr address;
  if (inet_pton(AF_INET6, host.c_str(), &address) != 1) host = host.substr(0, host.rfind(':'));
  return host;
}

void FillHostIn(std::string& text) {
  const std::string host = RequestHost();
  if (host.empty()) return;
  size_t at = 0;
  while ((at = text.find(kPlaceholder, at)) != std::string::npos) {
    text.replace(at, sizeof kPlaceholder - 1, host);
    at += host.size();
  }
}

// An origin as it is compared: 0 stands for any scheme or port.
struct Origin {
  int scheme;  // 0 any, 1 http, 2 https
  unsigned long port;
  std::string host;
};

Origin ParseOrigin(const std::string& text) {
  Origin origin = {0, 0, ""};
  size_t begin = 0;
  if (text.size() > 3 && text.compare(0, 4, "http") == 0) {
    const bool secure = text.size() > 4 && text[4] == 's';
    const size_t colon = secure ? 5 : 4;
    if (text.size() > colon + 2 && text.compare(colon, 3, "://") == 0) {
      origin.scheme = secure ? 2 : 1;
      origin.port = secure ? 443 : 80;
      begin = colon + 3;
    }
  }
  const size_t end = std::min(text.find('/', begin), text.size());
  size_t host_end = end;
  const size_t colon = text.substr(0, end).rfind(':');
  if (colon != std::string::npos && colon > begin &&
      text.substr(colon, end - colon).find(']') == std::string::npos) {
    origin.port = std::strtoul(text.substr(colon + 1, end - colon - 1).c_str(), nullptr, 10);
    host_end = colon;
  }
  origin.host = text.substr(begin, host_end - begin);
  std::transform(origin.host.begin(), origin.host.end(), origin.host.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
  return origin;
}

bool Matches(const Origin& a, const Origin& b) {
  return (a.scheme == 0 || b.scheme == 0 || a.scheme == b.scheme) &&
         (a.port == 0 || b.port == 0 || a.port == b.port) && a.host == b.host;
}

bool MayFrame(const Origin& origin, const std::string& list) {
  size_t begin = 0;
  while (begin <= list.size()) {
    const size_t end = std::min(list.find(',', begin), list.size());
    if (Matches(origin, ParseOrigin(list.substr(begin, end - begin)))) return true;
    begin = end + 1;
  }
  return false;
}

}  // namespace

namespace VEMO::ZEM {

SecurityOptions::SecurityOptions(const char* name) : name_(name == nullptr ? "" : name) {}

// The document of all pages is read once, also when it is asked for twice: to see whether
// the policies are there, and as the policy.
bool SecurityOptions::LoadPolicy(Json::Value& policy) {
  Json::Value common;
  bool loaded = ::zem::JsonFromFile(common, ::zem::kMergedRule);
  if (!loaded) {
    if (!CspRule::GenerateCSPTarget()) {
      ZEM_LOG("%s:%d Failed to GenerateCSPTarget from [%s]", kSecurityOptionsSource,
              ::zem::kDefaultRule);
      return false;
    }
    loaded = ::zem::JsonFromFile(common, ::zem::kMergedRule);
  }
  if (!name_.empty()) {
    char path[kPathSize];
    std::snprintf(path, sizeof path, "%s/%s", ::zem::kStandaloneDirectory, name_.c_str());
    if (::zem::JsonFromFile(policy, path)) return true;
  }
  if (loaded) {
    policy.swap(common);
    return true;
  }
  ZEM_LOG("%s:%d Failed to load CSP rule [%s]", kSecurityOptionsSource, ::zem::kMergedRule);
  ZEM_LOG("%s:%d Failed to load CSP rule", kSecurityOptionsSource);
  return false;
}

std::string SecurityOptions::GetCSPHeader() {
  Json::Value policy;
  if (!VemoConf().InfoCheckValue("csp_header_option", "yes", true)) return "";
  if (!LoadPolicy(policy)) return "";
  if (!policy.isObject()) {
    ZEM_LOG("%s:%d CSP rule config is not an object", kSecurityOptionsSource);
    return "";
  }
  std::string text = PolicyText(policy);
  FillHostIn(text);
  return text;
}

std::string SecurityOptions::GetXFrameOption() {
  VemoConf conf;
  if (!conf.InfoCheckValue("check_frame_options", "yes", true)) return "";
  const Origin referrer = ParseOrigin(Environment("HTTP_REFERER"));
  if (!referrer.host.empty() &&
      MayFrame(referrer, conf.Info("frame_options_built_in_allow_url", ""))) {
    return "";
  }
  return "SAMEORIGIN";
}

Json::Value SecurityOptions::GetSecurityHeaders() {
  Json::Value headers;
  const std::string policy = GetCSPHeader(), framing = GetXFrameOption();
  if (!policy.empty()) headers["Content-Security-Policy"] = policy;
  if (!framing.empty()) headers["X-Frame-Options"] = framing;
  return headers;
}

}  // namespace VEMO::ZEM
