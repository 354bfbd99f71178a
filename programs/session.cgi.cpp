// session.cgi: who is logged in here.
//
//   GET [poll=yes]
//
// A request with "poll" does not count as use, so that a window that is left open
// keeps no session alive. The answer's data: the account's name, whether it is an
// administrator, the anti-forgery token, whether requests must carry it, the language of
// the user interface, and on a port that serves one application alone its id as "app".
#include <webman/webman.h>

#include <cstdlib>
#include <cstring>

#include "programs/program.h"

namespace {

bool IsPoll(WebMan& request) { return std::strcmp(request.In("poll", "no"), "yes") == 0; }

Json::Value Describe(WebMan& request) {
  Json::Value data(Json::objectValue);
  data["user"] = request.GetLoginUserName();
  data["admin"] = request.IsAdmin();
  data["token"] = request.GetVemoToken(false);
  data["token_enabled"] = request.IsTokenEnable();
  data["language"] = request.GetUILanguage();
  const char* alone = std::getenv("REWRITE_APP");
  if (alone != nullptr) data["app"] = alone;
  return data;
}

}  // namespace

int main() {
  WebMan request(true);
  program::QueuePrivateHeaders(request);

  // The check of a poll comes first: once it passed, the session was not touched. Only
  // the other kind of check writes the refusal, so a refused poll is asked again.
  const bool polled =
      IsPoll(request) && request.CheckAuthorized(VEMOCGI_PRIV_USER, VEMOCGI_POS_DESKTOP, true) >= 1;
  if (!polled && !request.IsAuthorized(nullptr, VEMOCGI_PRIV_USER, VEMOCGI_POS_DESKTOP)) return 0;
  program::AnswerSuccess(request, Describe(request));
  return 0;
}
