#include "programs/actions.h"

#include <string>

#include "programs/program.h"

namespace program {
namespace {

const Action* Find(std::span<const Action> actions, const std::string& name) {
  for (const Action& action : actions) {
    // GET changes nothing, whatever it asks for.
    if (action.name == name) return !action.changes || IsPost() ? &action : nullptr;
  }
  return nullptr;
}

}  // namespace

void Serve(WebMan& request, std::span<const Action> actions) {
  QueuePrivateHeaders(request);
  const Action* action = Find(actions, Field(request, "action"));
  const int privilege = action == nullptr ? actions.front().privilege : action->privilege;
  if (!request.IsAuthorized(nullptr, privilege, VEMOCGI_POS_DESKTOP)) return;
  const Outcome outcome = action == nullptr ? Outcome{"error_request"} : action->run(request);
  if (outcome.answered) return;
  if (outcome.error == nullptr) {
    AnswerSuccess(request, outcome.data);
  } else {
    AnswerFailure(request, "common", outcome.error, outcome.data);
  }
}

}  // namespace program
