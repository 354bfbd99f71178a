/// \file names.h
/// The fixed texts and paths of the security policy. Not for programs.
#ifndef ZEM_SECURITY_NAMES_H
#define ZEM_SECURITY_NAMES_H

namespace zem {

inline constexpr char kCspRuleSource[] = "csp_rule";
inline constexpr char kSecurityOptionsSource[] = "security_options";

inline constexpr char kBuiltInRules[] = "/usr/vemo/etc/csp";
inline constexpr char kPackageRules[] = "/usr/local/etc/csp";
inline constexpr char kDefaultRule[] = "/usr/vemo/share/csp/rule-default";
inline constexpr char kCspDirectory[] = "/run/csp";
inline constexpr char kMergedRule[] = "/run/csp/rule";
inline constexpr char kStandaloneDirectory[] = "/run/csp/standalone";
inline constexpr char kCspLock[] = "/run/csp/csp_rule.lock";

}  // namespace zem

#endif  // ZEM_SECURITY_NAMES_H
