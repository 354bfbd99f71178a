// moduledata.cgi: documents that the desktop's modules keep for the caller, each under a
// name, read and changed as the caller.
//
//   GET  action=list                        the names, sorted
//   GET  action=get     name=...            {"name": ..., "data": ...}
//   POST action=write   name=... data=...   JSON, as text in a form; with the token
//   POST action=remove  name=...            with the token
//
// The request is a form or a JSON document.
#include <vemo/taskmgr.h>

#include <string>
#include <string_view>
#include <vector>

#include "programs/program.h"

namespace {

constexpr size_t kDocumentLimit = 1000;

struct Outcome {
  const char* error = nullptr;  // a key of the texts' section "common"
  Json::Value data = Json::Value(Json::objectValue);
};

std::vector<std::string> Names(WebMan& request) {
  return ::ZEM::TaskMgr(request.GetLoginUserName().c_str()).taskNames();
}

Outcome List(WebMan& request, const char*) {
  Outcome outcome;
  outcome.data = Json::Value(Json::arrayValue);
  for (const std::string& name : Names(request))
    outcome.data.append(name);
  return outcome;
}

Outcome Get(WebMan& request, const char* name) {
  Outcome outcome;
  outcome.data["name"] = name;
  if (!request.ReadModuleData(name, outcome.data["data"])) outcome.error = "error_not_found";
  return outcome;
}

Outcome Write(WebMan& request, const char* name) {
  Json::Value document;
  if (!program::Document(request, "data", document)) return {"error_request"};
  if (!program::FitsDocument(document)) return {"error_too_large"};
  if (!request.IsModuleDataExist(name) && Names(request).size() >= kDocumentLimit) {
    return {"error_full"};
  }
  return {request.WriteModuleData(name, document) ? nullptr : "error_system"};
}

Outcome Remove(WebMan& request, const char* name) {
  return {request.RemoveModuleData(name) ? nullptr : "error_not_found"};
}

struct Action {
  std::string_view name;
  bool needs_name;
  bool changes;
  Outcome (*run)(WebMan& request, const char* name);
};

constexpr Action kActions[] = {
    {"list", false, false, List},
    {"get", true, false, Get},
    {"write", true, true, Write},
    {"remove", true, true, Remove},
};

Outcome Run(WebMan& request) {
  const std::string asked = program::Field(request, "action");
  const std::string name = program::Field(request, "name");
  for (const Action& action : kActions) {
    if (action.name != asked) continue;
    // GET changes nothing, whatever it asks for.
    if (action.changes && !program::IsPost()) break;
    if (action.needs_name && (name.empty() || !program::IsUtf8(name.c_str()))) break;
    return action.run(request, name.c_str());
  }
  return {"error_request"};
}

}  // namespace

int main() {
  WebMan request(true);
  program::QueuePrivateHeaders(request);
  if (!request.IsAuthorized(nullptr, VEMOCGI_PRIV_USER, VEMOCGI_POS_DESKTOP)) return 0;
  // For good: nothing that follows needs root. Only root can make the caller's directory.
  request.GetPreferenceDir();
  const Outcome outcome = request.setUGID() == 0 ? Run(request) : Outcome{"error_system"};
  if (outcome.error != nullptr) {
    program::AnswerFailure(request, "common", outcome.error);
  } else {
    program::AnswerSuccess(request, outcome.data);
  }
  return 0;
}
