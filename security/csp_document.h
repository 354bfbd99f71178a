// What a document of rules may hold.
#ifndef ZEM_SECURITY_CSP_DOCUMENT_H
#define ZEM_SECURITY_CSP_DOCUMENT_H

#include <json/value.h>

#include <set>
#include <string>

namespace zem {

/// The keys of a rule, in the order in which they are walked.
const std::set<std::string>& Directives();

/// Whether a source fits the pattern.
bool IsCspSource(const std::string& source);

/// Whether it is a document; the reason why not is logged.
bool IsCspDocument(const Json::Value& document);

/// A source's text: numbers and truth values count as theirs. Empty for what has none.
std::string SourceText(const Json::Value& source);

}  // namespace zem

#endif  // ZEM_SECURITY_CSP_DOCUMENT_H
