/// \file csp_rule.h
/// The rules from which the Content-Security-Policy of the pages is made.
#ifndef ZEM_SECURITY_CSP_RULE_H
#define ZEM_SECURITY_CSP_RULE_H

#include <json/value.h>
#include <webutils/export.h>

#include <memory>
#include <string>

namespace VEMO::ZEM {

/// \name Directives (CSP Level 3, https://www.w3.org/TR/CSP3/), the keys of a rule
/// @{
inline const std::string BASE_URI = "base-uri";
inline const std::string CHILD_SRC = "child-src";
inline const std::string CONNECT_SRC = "connect-src";
inline const std::string FONT_SRC = "font-src";
inline const std::string FORM_ACTION = "form-action";
inline const std::string FRAME_ANCESTORS = "frame-ancestors";
inline const std::string FRAME_SRC = "frame-src";
inline const std::string IMG_SRC = "img-src";
inline const std::string OBJECT_SRC = "object-src";
inline const std::string SCRIPT_SRC = "script-src";
inline const std::string STYLE_SRC = "style-src";
/// @}

/// \name Keys of a document
/// @{
inline const std::string RULE = "rule";
inline const std::string RULE_STANDALONE = "rule-standalone";
inline const std::string JSID = "jsid";
inline const std::string WILDCARD = "wildcard";
/// @}

class CspRulePrivate;

/// The document of one module, and the policies made from the documents of all.
///
/// A module says which origins its pages load from:
///
///     {"rule": {"img-src": ["https://tiles.example.org"]},
///      "rule-standalone": [{"jsid": "VEMO.Map", "rule": {...}, "wildcard": ["img-src"]}]}
///
/// "rule" adds to the policy of all pages; each source must fit the pattern of
/// `IsValidUrl`. "rule-standalone" is for a page that runs on its own: its policy is that
/// of all pages and its own "rule", whose sources are not looked at; the directives in
/// "wildcard" are opened to every origin, which script-src never can be.
///
/// After each change the policies are generated: /run/csp/rule for all pages, and a file in
/// /run/csp/standalone for each page that runs on its own. Documents that are broken are
/// left out, and logged as "csp_rule". Files are replaced as a whole, so that readers need
/// no lock. Policies of pages that are gone stay; they concern nobody.
class ZEM_EXPORT CspRule {
 public:
  /// \param name the module's name, the document's file name: not empty, "." or "..", and
  ///     without "/", or nothing is saved or deleted. It is not copied, and must outlive
  ///     the object.
  /// \param isPackage whether the module came with a package.
  CspRule(const std::string& name, bool isPackage);
  virtual ~CspRule();

  /// Whether a source may stand in a module's rule: it is not empty and fits, as a whole,
  ///
  ///     ^((https?|wss?):(\/\/)?)?((\*\.)?(-\.)?([^\s\/?\.#-*]+\.)+[^\s\/?\.#-*]+(\/[^\s*#\?]+)*)?$
  ///
  /// as a Perl-compatible pattern. It is kept as it always was: keywords such as 'self',
  /// "data:" and ports in place of a name are refused, and some sources pass that harm a
  /// policy; the tool zem-csp names both. A source that cannot be judged within the bounds
  /// of the library (a chain of thousands of labels) is refused.
  /// \param key the directive; not used.
  bool IsValidUrl(const std::string& key, const std::string& url);

  /// Whether it is a document; the reason why not is logged.
  static bool IsValidConf(const Json::Value& conf);

  /// Stores the document, as root, and generates the policies.
  /// \return false when it is no document (error code 0x4000), when the process may not be
  ///     root, when it cannot be written, or when the policies cannot be generated: then
  ///     the document is stored all the same.
  bool Save(const Json::Value& conf);

  /// Removes the document, as root, and generates the policies. \return true also when
  /// there was none, and then nothing is generated.
  bool Delete();

  /// Generates the policies, alone among all processes (a lock is waited for at most five
  /// seconds). \return false when the default rule, the lock or the policy of all pages
  /// fails: what was there before stays then. Also false when the policy of a page that
  /// runs on its own cannot be written; all others are.
  static bool GenerateCSPTarget();

 private:
  std::shared_ptr<CspRulePrivate> implementation_;
};

}  // namespace VEMO::ZEM

#endif  // ZEM_SECURITY_CSP_RULE_H
