// login.cgi: begins a session.
//
//   POST action=login username=... passwd=... [otp_code=...] [remember=yes]
//
// as a form or as a JSON object. The answer's data are the account's name, whether it
// is an administrator, and the anti-forgery token for the requests that follow; a
// failure names a text of the section "login". The session id goes out in the cookie
// alone.
#include <webman/webman.h>

#include "programs/program.h"

namespace {

// The text that tells the user what happened. A wrong name and a wrong password are
// one case, here as everywhere.
const char* KeyOfResult(int result) {
  switch (result) {
    case -1:
      return "error_account";
    case -2:
      return "error_disabled";
    case -3:
      return "error_code_needed";
    case -4:
      return "error_code";
    case -5:
      return "error_too_many";
    case -6:
      return "error_sso";
    default:
      return "error_login_system";
  }
}

int Login(WebMan& request) {
  const std::string user = program::Field(request, "username");
  const std::string password = program::Field(request, "passwd");
  const std::string code = program::Field(request, "otp_code");

  _tag_login_params params = {};
  params.user = user.c_str();
  params.password = password.c_str();
  params.position = VEMOCGI_POS_DESKTOP;
  params.remember = program::Field(request, "remember") == "yes" ? TRUE : FALSE;
  return code.empty() ? request.Login(&params) : request.LoginWithOTPAuth(&params, code.c_str());
}

Json::Value Welcome(WebMan& request) {
  Json::Value data(Json::objectValue);
  data["user"] = request.GetLoginUserName();
  data["admin"] = request.IsAdmin();
  // The token of the session that has just begun, not of the one before.
  data["token"] = request.GetVemoToken(true);
  return data;
}

}  // namespace

int main() {
  WebMan request(true);

  // No session guards a login: a page of another site must not log its visitor in. The
  // parameters of an upload stand in its URL, where no password belongs.
  if (!program::IsPost() || !program::IsFromThisSite() || request.IsUploadRequest() ||
      program::Field(request, "action") != "login") {
    program::AnswerFailure(request, "common", "error_request");
    return 0;
  }
  const int result = Login(request);
  if (result == 1) {
    program::AnswerSuccess(request, Welcome(request));
  } else {
    program::AnswerFailure(request, "login", KeyOfResult(result));
  }
  return 0;
}
