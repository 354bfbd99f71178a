#include "security/csp_document.h"

#include <pcrecpp.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/log.h"
#include "security/csp_rule.h"
#include "security/names.h"

namespace zem {
namespace {

using namespace VEMO::ZEM;

const std::string MEDIA_SRC = "media-src";

// The class holds a range, "#" to "*", which nobody meant. Documents in the field have been
// judged by it for years, so it stays.
constexpr char kSourcePattern[] =
    R"(^((https?|wss?):(\/\/)?)?((\*\.)?(-\.)?([^\s\/?\.#-*]+\.)+[^\s\/?\.#-*]+(\/[^\s*#\?]+)*)?$)";

// The pattern is matched by recursion on the stack, 496 bytes a step (pcrestack(3)), about
// one step for each byte of a chain of labels: a long one would end the process. Chains of
// 16 KiB were judged on the usual stack of 8 MiB, so as many steps are allowed; what needs
// more is refused.
constexpr int kStepLimit = 16400;
constexpr rlim_t kStepSize = 512, kRoom = 16 << 20, kReserve = 256 << 10;

// Room on the stack for a scope: it grows as far as the limit of the moment allows.
class StackRoom {
 public:
  StackRoom() {
    if (getrlimit(RLIMIT_STACK, &before_) != 0) return;
    rlimit wanted = before_;
    if (wanted.rlim_cur < kRoom) wanted.rlim_cur = std::min(kRoom, wanted.rlim_max);
    room_ = setrlimit(RLIMIT_STACK, &wanted) == 0 ? wanted.rlim_cur : before_.rlim_cur;
  }
  ~StackRoom() {
    if (room_ != 0) setrlimit(RLIMIT_STACK, &before_);
  }
  StackRoom(const StackRoom&) = delete;
  StackRoom& operator=(const StackRoom&) = delete;

  // The steps that it has room for.
  int steps() const {
    if (room_ <= 2 * kReserve) return 256;
    return static_cast<int>(std::min<rlim_t>((room_ - kReserve) / kStepSize, kStepLimit));
  }

 private:
  rlimit before_ = {};
  rlim_t room_ = 0;
};

#define ZEM_LOG_FAILED(condition) \
  ZEM_LOG("%s:%d Failed [%s], err=%s", kCspRuleSource, condition, std::strerror(errno))

bool IsDirective(const std::string& name) { return Directives().count(name) != 0; }

bool AreSources(const Json::Value& sources) {
  for (const Json::Value& source : sources) {
    const std::string text = SourceText(source);
    if (IsCspSource(text)) continue;
    ZEM_LOG("%s:%d error url \"%s\"", kCspRuleSource, text.c_str());
    return false;
  }
  return true;
}

bool IsRule(const Json::Value& rule, bool check_sources) {
  if (!rule.isObject()) {
    ZEM_LOG_FAILED("!jsRule.isObject()");
    return false;
  }
  for (auto directive = rule.begin(); directive != rule.end(); ++directive) {
    if (!IsDirective(directive.name())) {
      ZEM_LOG("%s:%d error key %s", kCspRuleSource, directive.name().c_str());
      return false;
    }
    if (!directive->isArray()) {
      ZEM_LOG_FAILED("!jsURLs.isArray()");
      return false;
    }
    if (check_sources && !AreSources(*directive)) return false;
  }
  return true;
}

bool IsWildcard(const Json::Value& wildcard) {
  if (!wildcard.isArray()) {
    ZEM_LOG_FAILED("!jsStandaloneRule[WILDCARD].isArray()");
    return false;
  }
  for (const Json::Value& name : wildcard) {
    if (!name.isString()) {
      ZEM_LOG("%s:%d standalone wildcard needs to be string (ex: img-src)", kCspRuleSource);
      return false;
    }
    if (!IsDirective(name.asString())) {
      ZEM_LOG("%s:%d error key %s", kCspRuleSource, name.asCString());
      return false;
    }
    if (name.asString() == SCRIPT_SRC) {
      ZEM_LOG("%s:%d error key %s, forbidded to be wildcard!", kCspRuleSource, name.asCString());
      return false;
    }
  }
  return true;
}

bool IsStandaloneRule(const Json::Value& rule) {
  if (!rule.isObject() || !rule.isMember(JSID) || !rule[JSID].isString()) {
    ZEM_LOG_FAILED("!jsStandaloneRule.isMember(JSID) || !jsStandaloneRule[JSID].isString()");
    return false;
  }
  if (rule[JSID].asString().find('/') != std::string::npos) {
    ZEM_LOG_FAILED("string::npos != jsStandaloneRule[JSID].asString().find(\"/\")");
    return false;
  }
  if (!rule.isMember(RULE) && !rule.isMember(WILDCARD)) {
    ZEM_LOG_FAILED("!jsStandaloneRule.isMember(RULE) && !jsStandaloneRule.isMember(WILDCARD)");
    return false;
  }
  if (rule.isMember(RULE) && !IsRule(rule[RULE], false)) return false;
  return !rule.isMember(WILDCARD) || IsWildcard(rule[WILDCARD]);
}

bool AreStandaloneRules(const Json::Value& rules) {
  if (!rules.isArray()) return IsStandaloneRule(rules);
  return std::all_of(rules.begin(), rules.end(), IsStandaloneRule);
}

}  // namespace

const std::set<std::string>& Directives() {
  static const std::set<std::string> directives = {
      BASE_URI,  CHILD_SRC, CONNECT_SRC, FONT_SRC,   FORM_ACTION, FRAME_ANCESTORS,
      FRAME_SRC, IMG_SRC,   MEDIA_SRC,   OBJECT_SRC, SCRIPT_SRC,  STYLE_SRC};
  return directives;
}

bool IsCspSource(const std::string& source) {
  if (source.empty()) return false;
  const StackRoom stack;
  static const pcrecpp::RE pattern(kSourcePattern,
                                   pcrecpp::RE_Options().set_match_limit_recursion(stack.steps()));
  return pattern.FullMatch(source);
}

std::string SourceText(const Json::Value& source) {
  return source.isObject() || source.isArray() ? "" : source.asString();
}

bool IsCspDocument(const Json::Value& document) {
  if (!document.isObject()) {
    ZEM_LOG_FAILED("!jsConf.isObject()");
    return false;
  }
  if (!document.isMember(RULE) && !document.isMember(RULE_STANDALONE)) {
    ZEM_LOG("%s:%d need either rule or rule-standalone in config!(old-style config?)",
            kCspRuleSource);
    return false;
  }
  if (document.isMember(RULE) && !IsRule(document[RULE], true)) return false;
  return !document.isMember(RULE_STANDALONE) || AreStandaloneRules(document[RULE_STANDALONE]);
}

}  // namespace zem
