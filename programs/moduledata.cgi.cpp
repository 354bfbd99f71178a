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
#include <vector>

#include "programs/actions.h"
#include "programs/program.h"

namespace {

constexpr size_t kDocumentLimit = 1000;

using program::Outcome;

std::vector<std::string> Names(WebMan& request) {
  return ::ZEM::TaskMgr(request.GetLoginUserName().c_str()).taskNames();
}

// For good: nothing that follows needs root. Only root can make the caller's directory.
bool BecomeCaller(WebMan& request) {
  request.GetPreferenceDir();
  return request.setUGID() == 0;
}

Outcome List(WebMan& request) {
  if (!BecomeCaller(request)) return {"error_system"};
  Outcome outcome;
  outcome.data = Json::Value(Json::arrayValue);
  for (const std::string& name : Names(request))
    outcome.data.append(name);
  return outcome;
}

// Does it with the name that the request gives, as the caller.
template <Outcome (*Do)(WebMan& request, const char* name)>
Outcome Named(WebMan& request) {
  const std::string name = program::Field(request, "name");
  if (name.empty() || !program::IsUtf8(name.c_str())) return {"error_request"};
  if (!BecomeCaller(request)) return {"error_system"};
  return Do(request, name.c_str());
}

Outcome Get(WebMan& request, const char* name) {
  Outcome outcome;
  outcome.data["name"] = name;
  if (!request.ReadModuleData(name, outcome.data["data"])) return {"error_not_found"};
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

constexpr program::Action kActions[] = {
    {"list", VEMOCGI_PRIV_USER, false, List},
    {"get", VEMOCGI_PRIV_USER, false, Named<Get>},
    {"write", VEMOCGI_PRIV_USER, true, Named<Write>},
    {"remove", VEMOCGI_PRIV_USER, true, Named<Remove>},
};

}  // namespace

int main() {
  WebMan request(true);
  program::Serve(request, kActions);
  return 0;
}
