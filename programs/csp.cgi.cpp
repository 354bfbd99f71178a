// csp.cgi: the rules of the Content-Security-Policy, for administrators.
//
//   GET  action=list                          every module's document: {"name", "package",
//                                             "good", "problems": [{"path", "text"}]}
//   GET  action=get     name=... [package=yes]   one document, with its problems
//   GET  action=load    [jsid=...]            the generated policy of all pages, or of one:
//                                             {"header", "effective": [{directive: [...]}]},
//                                             "effective" as a browser takes it
//   POST action=save    name=... [package=yes] document={...}   with the token
//   POST action=delete  name=... [package=yes]                  with the token
//
// The request is a form, where "document" is JSON text, or a JSON document. A document that
// the store refuses is answered with its problems; harm that the store lets through is told
// too, and saved.
#include <security/csp_rule.h>
#include <security/security_options.h>
#include <vemo/core.h>

#include <memory>
#include <string>

#include "common/json_file.h"
#include "programs/actions.h"
#include "programs/csp_check.h"
#include "programs/program.h"

namespace {

constexpr char kBuiltIn[] = "/usr/vemo/etc/csp/";
constexpr char kPackages[] = "/usr/local/etc/csp/";

using program::Outcome;

Json::Value ProblemsOf(const Json::Value& document) {
  Json::Value problems(Json::arrayValue);
  for (const program::CspProblem& problem : program::CheckCspDocument(document)) {
    Json::Value entry;
    entry["path"] = problem.path;
    entry["text"] = problem.text;
    problems.append(entry);
  }
  return problems;
}

bool IsPackage(WebMan& request) { return program::Field(request, "package") == "yes"; }

// The document's name: one that stays in the directory.
std::string NameOf(WebMan& request) {
  const std::string name = program::Field(request, "name");
  const bool good = name != "." && name != ".." && name.size() < 256 &&
                    name.find('/') == std::string::npos && program::IsUtf8(name.c_str());
  return good ? name : "";
}

Json::Value Describe(const std::string& name, bool package, bool whole) {
  Json::Value entry, document;
  entry["name"] = name;
  entry["package"] = package;
  const bool read = zem::JsonFromFile(document, (package ? kPackages : kBuiltIn) + name);
  entry["good"] = read && VEMO::ZEM::CspRule::IsValidConf(document);
  entry["problems"] = read ? ProblemsOf(document) : Json::Value(Json::arrayValue);
  if (whole) entry["document"] = document;
  return entry;
}

void ListDirectory(bool package, Json::Value& list) {
  const std::unique_ptr<VEMOSZLIST, void (*)(VEMOSZLIST*)> names(VLIBCSzListAlloc(64),
                                                                 VLIBCSzListFree);
  const char* directory = package ? kPackages : kBuiltIn;
  if (names == nullptr || !VLIBCFileCheckDir(directory)) return;
  const int count = VLIBCFileEnumDir(directory, 0, names.get(), 0);
  for (int i = 0; i < count; i++)
    list.append(Describe(VLIBCSzListGet(names.get(), i), package, false));
}

Outcome List(WebMan&) {
  Outcome outcome;
  outcome.data = Json::Value(Json::arrayValue);
  ListDirectory(false, outcome.data);
  ListDirectory(true, outcome.data);
  return outcome;
}

Outcome Get(WebMan& request) {
  const std::string name = NameOf(request);
  if (name.empty()) return {"error_request"};
  const bool package = IsPackage(request);
  if (!VLIBCFileExist(((package ? kPackages : kBuiltIn) + name).c_str())) {
    return {"error_not_found"};
  }
  Outcome outcome;
  outcome.data = Describe(name, package, true);
  return outcome;
}

Outcome Load(WebMan& request) {
  Outcome outcome;
  const std::string jsid = program::Field(request, "jsid");
  const std::string header = VEMO::ZEM::SecurityOptions(jsid.c_str()).GetCSPHeader();
  outcome.data["header"] = header;
  outcome.data["effective"] = program::EffectivePolicies(header);
  return outcome;
}

Outcome Save(WebMan& request) {
  Outcome outcome;
  Json::Value document;
  const std::string name = NameOf(request);
  if (name.empty() || !program::Document(request, "document", document)) return {"error_request"};
  outcome.data["problems"] = ProblemsOf(document);
  VEMO::ZEM::CspRule rule(name, IsPackage(request));
  if (!VEMO::ZEM::CspRule::IsValidConf(document)) {
    outcome.error = "error_csp_document";
  } else if (!rule.Save(document)) {
    outcome.error = "error_system";
  }
  return outcome;
}

Outcome Delete(WebMan& request) {
  const std::string name = NameOf(request);
  if (name.empty()) return {"error_request"};
  return {VEMO::ZEM::CspRule(name, IsPackage(request)).Delete() ? nullptr : "error_system"};
}

constexpr program::Action kActions[] = {
    {"list", VEMOCGI_PRIV_ADMIN, false, List},    {"get", VEMOCGI_PRIV_ADMIN, false, Get},
    {"load", VEMOCGI_PRIV_ADMIN, false, Load},    {"save", VEMOCGI_PRIV_ADMIN, true, Save},
    {"delete", VEMOCGI_PRIV_ADMIN, true, Delete},
};

}  // namespace

int main() {
  WebMan request(true);
  program::Serve(request, kActions);
  return 0;
}
