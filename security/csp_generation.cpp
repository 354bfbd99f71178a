// The policies, made from the documents of all modules.

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <vemo/core.h>
#include <vemo/fs.h>

#include <cerrno>
#include <memory>
#include <vector>

#include "common/json_file.h"
#include "common/log.h"
#include "common/root_section.h"
#include "security/csp_document.h"
#include "security/csp_rule.h"
#include "security/names.h"

namespace {

using namespace VEMO::ZEM;
using zem::kCspRuleSource;

constexpr int kLockSeconds = 5;
constexpr mode_t kReadable = 0644;
constexpr int kListCapacity = 64;

void LogSection(const char* what) {
  errno = 1;
  syslog(LOG_AUTH | LOG_ERR, "%s:%d ERROR: %s", kCspRuleSource, __LINE__, what);
}

void MakeDirectories() {
  zem::RootSection root;
  for (const char* directory : {zem::kCspDirectory, zem::kStandaloneDirectory}) {
    if (!VLIBCFileCheckDir(directory)) VEMOFSMkdirP(directory, 0, 1, 0, 0, 0755);
  }
  if (!root.Leave()) LogSection("LEAVECriticalSection");
}

// The lock of generations. Its file is removed while it is held, by the holder alone: one
// who waited in vain would remove it from under another.
class GenerationLock {
 public:
  GenerationLock() {
    taken_ = VLIBCFileLockTimeByFile(zem::kCspLock, 1, kLockSeconds, &descriptor_);
  }
  ~GenerationLock() {
    if (!taken_) return;
    unlink(zem::kCspLock);
    VLIBCFileUnlockByFile(descriptor_);
  }
  GenerationLock(const GenerationLock&) = delete;
  GenerationLock& operator=(const GenerationLock&) = delete;
  bool taken() const { return taken_; }

 private:
  int descriptor_ = -1;
  bool taken_;
};

using Documents = std::vector<Json::Value>;

void LoadDocument(const std::string& path, Documents& documents) {
  Json::Value document;
  if (!zem::JsonFromFile(document, path)) {
    ZEM_LOG("%s:%d json format error %s", kCspRuleSource, path.c_str());
  } else if (!zem::IsCspDocument(document)) {
    ZEM_LOG("%s:%d csp rule format error %s", kCspRuleSource, path.c_str());
  } else {
    documents.push_back(std::move(document));
  }
}

// Sorted by name, as the platform lists them: the same files make the same policy.
void LoadDirectory(const char* directory, Documents& documents) {
  if (!VLIBCFileCheckDir(directory)) return;
  const std::unique_ptr<VEMOSZLIST, void (*)(VEMOSZLIST*)> names(VLIBCSzListAlloc(kListCapacity),
                                                                 VLIBCSzListFree);
  const int count = names == nullptr ? -1 : VLIBCFileEnumDir(directory, 0, names.get(), 0);
  if (count == -1) ZEM_LOG("%s:%d enum dir %s failed", kCspRuleSource, directory);
  for (int i = 0; i < count; i++)
    LoadDocument(std::string(directory) + "/" + VLIBCSzListGet(names.get(), i), documents);
}

void AppendSources(Json::Value& target, const Json::Value& sources) {
  if (!target.isArray() || !sources.isArray()) return;
  for (const Json::Value& source : sources)
    target.append(source);
}

// One directive at a time over all documents: what frame-src gets of child-src stands
// before what it gets of its own.
void Merge(Json::Value& target, const std::vector<const Json::Value*>& rules) {
  for (const std::string& directive : zem::Directives()) {
    if (!target.isMember(directive)) target[directive] = Json::Value(Json::arrayValue);
    const std::string& place = directive == CHILD_SRC ? FRAME_SRC : directive;
    for (const Json::Value* rule : rules) {
      if (!rule->isObject() || !rule->isMember(directive)) continue;
      if (!target.isMember(place)) target[place] = Json::Value(Json::arrayValue);
      AppendSources(target[place], (*rule)[directive]);
    }
  }
}

bool SaveMerged(const Json::Value& target) {
  if (!zem::JsonToFile(target, zem::kMergedRule)) {
    ZEM_LOG("%s:%d config save failed", kCspRuleSource);
    return false;
  }
  if (chmod(zem::kMergedRule, kReadable) != 0) {
    ZEM_LOG("%s:%d chmod %s failed", kCspRuleSource, zem::kMergedRule);
    return false;
  }
  return true;
}

// "" and names of directories would lead to the directory itself or above it.
bool NamesAFile(const std::string& jsid) {
  return !jsid.empty() && jsid != "." && jsid != ".." && jsid.find('\0') == std::string::npos;
}

bool SaveStandalone(const Json::Value& policy, const std::string& jsid) {
  const std::string path = std::string(zem::kStandaloneDirectory) + "/" + jsid;
  if (!NamesAFile(jsid) || !zem::JsonToFile(policy, path)) {
    ZEM_LOG("%s:%d save standalone file %s failed", kCspRuleSource, path.c_str());
  } else if (chmod(path.c_str(), kReadable) != 0) {
    ZEM_LOG("%s:%d chmod file %s failed", kCspRuleSource, path.c_str());
  } else {
    return true;
  }
  ZEM_LOG("%s:%d standalone config save failed", kCspRuleSource);
  return false;
}

bool GenerateStandalone(const Json::Value& target, const Json::Value& rule) {
  Json::Value policy = target;
  if (rule.isMember(RULE)) Merge(policy, {&rule[RULE]});
  for (const Json::Value& name : rule[WILDCARD]) {
    const Json::Value& all = target[name.asString()];
    Json::Value& opened = policy[name.asString()];
    opened = all.isArray() ? all : Json::Value(Json::arrayValue);
    opened.append("*");
  }
  return SaveStandalone(policy, rule[JSID].asString());
}

bool GenerateStandalones(const Json::Value& target, const Documents& documents) {
  bool generated = true;
  for (const Json::Value& document : documents) {
    const Json::Value& rules = document[RULE_STANDALONE];
    if (rules.isObject()) {
      generated = GenerateStandalone(target, rules) && generated;
    } else if (rules.isArray()) {
      for (const Json::Value& rule : rules)
        generated = GenerateStandalone(target, rule) && generated;
    }
  }
  return generated;
}

bool GenerateLocked() {
  Documents documents;
  LoadDirectory(zem::kBuiltInRules, documents);
  LoadDirectory(zem::kPackageRules, documents);

  Json::Value target;
  if (!zem::JsonFromFile(target, zem::kDefaultRule) || !target.isObject()) {
    ZEM_LOG("%s:%d default rule broken", kCspRuleSource);
    return false;
  }
  std::vector<const Json::Value*> rules;
  for (const Json::Value& document : documents) {
    if (document.isMember(RULE)) rules.push_back(&document[RULE]);
  }
  Merge(target, rules);
  return SaveMerged(target) && GenerateStandalones(target, documents);
}

}  // namespace

bool VEMO::ZEM::CspRule::GenerateCSPTarget() {
  zem::RootSection root;
  if (!root.entered()) LogSection("ENTERCriticalSection");
  MakeDirectories();
  bool generated = false;
  {
    const GenerationLock lock;
    if (lock.taken()) {
      generated = GenerateLocked();
    } else {
      ZEM_LOG("%s:%d lock failed.", kCspRuleSource);
    }
  }
  if (!root.Leave()) LogSection("LEAVECriticalSection");
  return generated;
}
