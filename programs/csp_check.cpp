#include "programs/csp_check.h"

#include <security/csp_rule.h>

#include <algorithm>
#include <cctype>
#include <string_view>

namespace program {
namespace {

using Problems = std::vector<CspProblem>;

const std::string kDirectives[] = {
    VEMO::ZEM::BASE_URI,   VEMO::ZEM::CHILD_SRC,   VEMO::ZEM::CONNECT_SRC,
    VEMO::ZEM::FONT_SRC,   VEMO::ZEM::FORM_ACTION, VEMO::ZEM::FRAME_ANCESTORS,
    VEMO::ZEM::FRAME_SRC,  VEMO::ZEM::IMG_SRC,     "media-src",
    VEMO::ZEM::OBJECT_SRC, VEMO::ZEM::SCRIPT_SRC,  VEMO::ZEM::STYLE_SRC};

bool IsDirective(const std::string& name) {
  return std::find(std::begin(kDirectives), std::end(kDirectives), name) != std::end(kDirectives);
}

bool Holds(const std::string& text, bool (*is)(unsigned char)) {
  return std::any_of(text.begin(), text.end(), is);
}

// What harms a policy, whether the pattern lets it pass or not. Null: nothing.
const char* HarmOf(const std::string& source) {
  if (source.find(';') != std::string::npos)
    return "a semicolon ends the directive, and what follows it is read as another one";
  if (source.find(',') != std::string::npos)
    return "a comma ends the policy, and what follows it is read as a second one";
  if (Holds(source, [](unsigned char c) { return c >= 0x80; }))
    return "a character that is not ASCII makes browsers ignore the whole directive: write the "
           "name in Punycode";
  if (Holds(source, [](unsigned char c) { return c <= 0x20 || c == 0x7f; }))
    return "blanks and control characters split or break the directive";
  return nullptr;
}

// Why the pattern refuses a source, in the words of what authors try.
const char* RefusalOf(const std::string& source) {
  if (source.empty()) return "an empty source";
  if (source.front() == '\'') return "keywords cannot be added: the default rule has 'self'";
  if (source.back() == '/') return "a slash at the end is refused: leave it out";
  if (source.size() > 1 && source.substr(source.size() - 2) == ":*")
    return "a port cannot be a wildcard";
  if (source.back() == ':') return "schemes other than http, https, ws and wss are refused";
  if (source.find('.') == std::string::npos)
    return "a name needs at least two labels with a dot between";
  return "does not fit the pattern of sources";
}

// What passes and does not do what it seems to. Null: nothing.
const char* SurpriseOf(const std::string& source) {
  const size_t colon = source.find(':');
  const std::string scheme = source.substr(0, colon);
  if (colon == std::string::npos ||
      (scheme != "http" && scheme != "https" && scheme != "ws" && scheme != "wss"))
    return nullptr;
  const std::string rest = source.substr(colon + 1);
  if (rest.empty() || rest == "//") return "a scheme alone opens the directive to every host";
  if (rest.compare(0, 2, "//") != 0)
    return "browsers ignore it: \"//\" is missing after the scheme";
  return nullptr;
}

void CheckSource(const Json::Value& value, const std::string& path, bool by_pattern,
                 Problems& problems) {
  if (!value.isString()) {
    problems.push_back({path, "is no text"});
    return;
  }
  static const std::string name = "check";
  const std::string source = value.asString();
  const bool passes = VEMO::ZEM::CspRule(name, false).IsValidUrl("", source);
  if (const char* harm = HarmOf(source); harm != nullptr) {
    problems.push_back({path, harm});
  } else if (by_pattern && !passes) {
    problems.push_back({path, RefusalOf(source)});
  } else if (const char* surprise = SurpriseOf(source); surprise != nullptr) {
    problems.push_back({path, surprise});
  }
}

void CheckRule(const Json::Value& rule, const std::string& path, bool by_pattern,
               Problems& problems) {
  if (!rule.isObject()) {
    problems.push_back({path, "is no object of directives"});
    return;
  }
  for (auto directive = rule.begin(); directive != rule.end(); ++directive) {
    const std::string place = path + "." + directive.name();
    if (!IsDirective(directive.name())) {
      problems.push_back({place, "is no directive that a rule may have"});
    } else if (!directive->isArray()) {
      problems.push_back({place, "is no list of sources"});
    } else {
      for (Json::ArrayIndex i = 0; i < directive->size(); i++)
        CheckSource((*directive)[i], place + "[" + std::to_string(i) + "]", by_pattern, problems);
    }
  }
}

const char* FaultOfPageName(const Json::Value& jsid) {
  if (!jsid.isString()) return "is missing, or no text";
  const std::string name = jsid.asString();
  if (name.find('/') != std::string::npos) return "must not hold a slash";
  if (name.empty() || name == "." || name == ".." || name.size() > 255 ||
      name.find('\0') != std::string::npos)
    return "names no file: the page gets no policy of its own";
  return nullptr;
}

void CheckWildcard(const Json::Value& list, const std::string& path, Problems& problems) {
  if (!list.isArray()) {
    problems.push_back({path, "is no list of directives"});
    return;
  }
  for (Json::ArrayIndex i = 0; i < list.size(); i++) {
    const std::string place = path + "[" + std::to_string(i) + "]";
    if (!list[i].isString() || !IsDirective(list[i].asString())) {
      problems.push_back({place, "is no directive that a rule may have"});
    } else if (list[i].asString() == VEMO::ZEM::SCRIPT_SRC) {
      problems.push_back({place, "scripts cannot be opened to every origin"});
    }
  }
}

void CheckPage(const Json::Value& page, const std::string& path, Problems& problems) {
  if (!page.isObject()) {
    problems.push_back({path, "is no object"});
    return;
  }
  if (const char* fault = FaultOfPageName(page["jsid"]); fault != nullptr)
    problems.push_back({path + ".jsid", fault});
  if (!page.isMember("rule") && !page.isMember("wildcard"))
    problems.push_back({path, "has neither \"rule\" nor \"wildcard\""});
  if (page.isMember("rule")) CheckRule(page["rule"], path + ".rule", false, problems);
  if (page.isMember("wildcard")) CheckWildcard(page["wildcard"], path + ".wildcard", problems);
}

std::string Trimmed(const std::string& text) {
  const size_t begin = text.find_first_not_of(" \t\n\f\r");
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(" \t\n\f\r") - begin + 1);
}

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  size_t begin = 0;
  while (begin <= text.size()) {
    const size_t end = std::min(text.find(separator, begin), text.size());
    parts.push_back(Trimmed(text.substr(begin, end - begin)));
    begin = end + 1;
  }
  return parts;
}

void AddDirective(const std::string& text, Json::Value& policy) {
  if (text.empty() || Holds(text, [](unsigned char c) { return c >= 0x80; })) return;
  std::string name = text.substr(0, text.find(' '));
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (policy.isMember(name)) return;  // the first counts
  Json::Value sources(Json::arrayValue);
  for (const std::string& source : Split(text.substr(name.size()), ' ')) {
    if (!source.empty()) sources.append(source);
  }
  policy[name] = sources;
}

}  // namespace

std::vector<CspProblem> CheckCspDocument(const Json::Value& document) {
  if (!document.isObject()) return {{"", "is no object"}};
  Problems problems;
  if (!document.isMember("rule") && !document.isMember("rule-standalone"))
    problems.push_back({"", "has neither \"rule\" nor \"rule-standalone\""});
  for (const std::string& name : document.getMemberNames()) {
    if (name != "rule" && name != "rule-standalone")
      problems.push_back({name, "is no key of a document"});
  }
  if (document.isMember("rule")) CheckRule(document["rule"], "rule", true, problems);
  const Json::Value& pages = document["rule-standalone"];
  if (pages.isArray()) {
    for (Json::ArrayIndex i = 0; i < pages.size(); i++)
      CheckPage(pages[i], "rule-standalone[" + std::to_string(i) + "]", problems);
  } else if (document.isMember("rule-standalone")) {
    CheckPage(pages, "rule-standalone", problems);
  }
  return problems;
}

Json::Value EffectivePolicies(const std::string& header) {
  Json::Value policies(Json::arrayValue);
  for (const std::string& text : Split(header, ',')) {
    Json::Value policy(Json::objectValue);
    for (const std::string& directive : Split(text, ';'))
      AddDirective(directive, policy);
    if (!policy.empty()) policies.append(policy);
  }
  return policies;
}

}  // namespace program
