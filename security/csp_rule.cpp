#include "security/csp_rule.h"

#include <syslog.h>
#include <unistd.h>
#include <vemo/core.h>
#include <vemo/fs.h>

#include <cassert>

#include "common/json_file.h"
#include "common/log.h"
#include "common/root_section.h"
#include "security/csp_document.h"
#include "security/names.h"

namespace VEMO::ZEM {

class CspRulePrivate {
 public:
  CspRulePrivate(const std::string& name, bool is_package)
      : name_(name),
        path_(std::string(is_package ? ::zem::kPackageRules : ::zem::kBuiltInRules) + "/" + name),
        is_package_(is_package) {}
  virtual ~CspRulePrivate() = default;

  bool Save(const Json::Value& conf);
  bool Delete();

 private:
  bool IsNamed() const;
  bool Store(const Json::Value& conf);
  bool Remove();

  const std::string& name_;
  std::string path_;
  bool is_package_;
};

namespace {

// Acts as root for a scope, and logs when it may not, or when it cannot go back.
class RunAsRoot {
 public:
  RunAsRoot() {
    if (section_.entered()) return;
    syslog(LOG_AUTH | LOG_ERR, "%s:%d ERROR: %s(%d, %d)", ::zem::kCspRuleSource, __LINE__,
           "IF_RUN_AS", 0, 0);
    ZEM_LOG("%s:%d cannot enter critical section(uid!=0?)", ::zem::kCspRuleSource);
  }
  ~RunAsRoot() {
    if (section_.Leave()) return;
    syslog(LOG_AUTH | LOG_CRIT, "%s:%d ERROR: ~%s(%d, %d)", ::zem::kCspRuleSource, __LINE__,
           "IF_RUN_AS", static_cast<int>(section_.user()), static_cast<int>(section_.group()));
  }
  RunAsRoot(const RunAsRoot&) = delete;
  RunAsRoot& operator=(const RunAsRoot&) = delete;
  explicit operator bool() const { return section_.entered(); }

 private:
  ::zem::RootSection section_;
};

bool Generate() {
  if (CspRule::GenerateCSPTarget()) return true;
  ZEM_LOG("%s:%d generate csp error", ::zem::kCspRuleSource);
  return false;
}

}  // namespace

// A name that would lead out of the directory of the rules is no module's.
bool CspRulePrivate::IsNamed() const {
  return !name_.empty() && name_ != "." && name_ != ".." && name_.find('/') == std::string::npos &&
         name_.find('\0') == std::string::npos;
}

bool CspRulePrivate::Save(const Json::Value& conf) {
  if (!::zem::IsCspDocument(conf)) {
    VLIBCErrSetEx(VEMOERR_CSP_FORMAT, __FILE__, __LINE__);
    ZEM_LOG("%s:%d csp config %s format error", ::zem::kCspRuleSource, name_.c_str());
    return false;
  }
  return Store(conf) && Generate();
}

bool CspRulePrivate::Store(const Json::Value& conf) {
  const RunAsRoot root;
  if (!root) return false;
  const char* directory = is_package_ ? ::zem::kPackageRules : ::zem::kBuiltInRules;
  if (!VLIBCFileCheckDir(directory)) VEMOFSMkdirP(directory, 0, 1, 0, 0, 0755);
  if (IsNamed() && ::zem::JsonToFile(conf, path_)) return true;
  ZEM_LOG("%s:%d config %s save error", ::zem::kCspRuleSource, path_.c_str());
  return false;
}

bool CspRulePrivate::Delete() {
  if (!VLIBCFileExist(path_.c_str())) return true;
  return Remove() && Generate();
}

bool CspRulePrivate::Remove() {
  const RunAsRoot root;
  if (!root) return false;
  if (IsNamed() && unlink(path_.c_str()) == 0) return true;
  ZEM_LOG("%s:%d config %s delete error", ::zem::kCspRuleSource, path_.c_str());
  return false;
}

CspRule::CspRule(const std::string& name, bool isPackage)
    : implementation_(std::make_shared<CspRulePrivate>(name, isPackage)) {}

CspRule::~CspRule() = default;

bool CspRule::IsValidUrl(const std::string&, const std::string& url) {
  return ::zem::IsCspSource(url);
}

bool CspRule::IsValidConf(const Json::Value& conf) { return ::zem::IsCspDocument(conf); }

bool CspRule::Save(const Json::Value& conf) {
  assert(implementation_ != nullptr);
  return implementation_->Save(conf);
}

bool CspRule::Delete() {
  assert(implementation_ != nullptr);
  return implementation_->Delete();
}

}  // namespace VEMO::ZEM
