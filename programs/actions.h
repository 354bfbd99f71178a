// Programs that do one thing or another by the parameter "action".
#ifndef ZEM_PROGRAMS_ACTIONS_H
#define ZEM_PROGRAMS_ACTIONS_H

#include <json/value.h>
#include <webman/webman.h>

#include <span>
#include <string_view>

namespace program {

/// What became of an action.
struct Outcome {
  const char* error = nullptr;  ///< a key of the texts' section "common"; null: it worked
  Json::Value data = Json::Value(Json::objectValue);
  bool answered = false;  ///< the action wrote its answer itself
};

struct Action {
  std::string_view name;
  int privilege;  ///< VEMOCGI_PRIV_USER or VEMOCGI_PRIV_ADMIN
  bool changes;   ///< by POST alone, which needs the token
  Outcome (*run)(WebMan& request);
};

/// Checks the caller's rights for the action that the request asks for, runs it, and writes
/// the answer: the refusal, the data, or the error with the data. An action that there is
/// none of needs the rights of the first, and is answered with "error_request".
void Serve(WebMan& request, std::span<const Action> actions);

}  // namespace program

#endif  // ZEM_PROGRAMS_ACTIONS_H
