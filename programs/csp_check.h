// What authors of rules get wrong, and what a browser makes of a policy.
#ifndef ZEM_PROGRAMS_CSP_CHECK_H
#define ZEM_PROGRAMS_CSP_CHECK_H

#include <json/value.h>

#include <string>
#include <vector>

namespace program {

struct CspProblem {
  std::string path;  ///< in the document, as "rule.img-src[0]"; "" for the document itself
  std::string text;
};

/// What is wrong with a document: what the store refuses, and what it lets through though it
/// harms the policy or does nothing. Empty: nothing.
std::vector<CspProblem> CheckCspDocument(const Json::Value& document);

/// A policy's header as a browser takes it (CSP Level 3, sections 2.2.1 and 2.2.2): a list
/// of policies, each with the directives that count: the first of each name, and none that
/// holds a byte that is not ASCII.
Json::Value EffectivePolicies(const std::string& header);

}  // namespace program

#endif  // ZEM_PROGRAMS_CSP_CHECK_H
