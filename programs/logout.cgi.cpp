// logout.cgi: ends the session of this browser.
//
//   POST action=logout, with the anti-forgery token
#include <webman/webman.h>

#include "programs/program.h"

int main() {
  WebMan request(true);
  program::QueuePrivateHeaders(request);
  if (!request.IsAuthorized(nullptr, VEMOCGI_PRIV_NONE, VEMOCGI_POS_ANY)) return 0;
  if (!program::IsPost() || program::Field(request, "action") != "logout") {
    program::AnswerFailure(request, "common", "error_request");
    return 0;
  }
  if (!request.Logout()) {
    program::AnswerFailure(request, "common", "error_system");
    return 0;
  }
  // What the browser kept of the session is of no use to the next person there.
  request.AddHeader("Clear-Site-Data", "\"cache\", \"storage\"");
  program::AnswerSuccess(request, Json::Value(Json::objectValue));
  return 0;
}
