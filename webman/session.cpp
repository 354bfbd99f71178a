// The request object: login, session and authorization.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/log.h"
#include "webman/names.h"
#include "webman/webman.h"

int WebMan::RecordLogin(int result, const _tag_login_params* params) {
  if (result == 1 && params != nullptr && params->user != nullptr) {
    std::snprintf(user_name_, sizeof user_name_, "%s", params->user);
  }
  return result;
}

// The platform writes a reason for people into a buffer that nobody reads:
// which of a name and a password was wrong must not reach the client.

int WebMan::Login(_tag_login_params* params) {
  char reason[kLoginReasonSize];
  return RecordLogin(VemoCgiLogin(&context_, reason, sizeof reason, params), params);
}

int WebMan::LoginWithOTPAuth(_tag_login_params* params, const char* otpCode) {
  char reason[kLoginReasonSize];
  return RecordLogin(VemoCgiLoginWithOTPAuth(&context_, reason, sizeof reason, params, otpCode),
                     params);
}

int WebMan::LoginWithAzureSSOAuth(_tag_login_params* params, const char* token, bool flag) {
  char reason[kLoginReasonSize];
  return RecordLogin(
      VemoCgiLoginWithAzureSSOAuth(&context_, reason, sizeof reason, params, token, flag, 0),
      params);
}

int WebMan::LoginWithOIDCSSOAuth(_tag_login_params* params, const char* token, bool flag) {
  char reason[kLoginReasonSize];
  return RecordLogin(
      VemoCgiLoginWithOIDCSSOAuth(&context_, reason, sizeof reason, params, token, flag, 0),
      params);
}

int WebMan::LoginNoAuth(_tag_login_params* params) {
  return VemoCgiLoginNoAuth(&context_, nullptr, 0, params);
}

int WebMan::LoginTest(_tag_login_params* params, const char* text) {
  return VemoCgiTestLogin(params, text);
}

bool WebMan::Logout() { return VemoCgiLogout(&context_, user_name_) != 0; }

// A session id in the parameter "_sid" stands for the cookie of clients that
// have none. It replaces all cookies of the request, for the rest of the process.
void WebMan::TakeSessionIdParameter() {
  const char* sid = VemoCgiGetRequestParam(&context_, "_sid", nullptr);
  if (sid == nullptr || *sid == '\0') return;

  char cookie[125];  // a longer id is cut, and then no session's
  std::snprintf(cookie, sizeof cookie, "id=%s", sid);
  setenv("HTTP_COOKIE", cookie, 1);
  UpdateCookiesHash();
}

int WebMan::CheckAuthorized(int privilege, _tag_cgi_position position, bool flag) {
  std::memset(user_name_, 0, sizeof user_name_);
  const _tag_cgi_auth_request request = {privilege, flag ? TRUE : FALSE};
  TakeSessionIdParameter();
  return VemoCgiIsAuthorized(&context_, user_name_, sizeof user_name_, &request, position);
}

bool WebMan::IsAuthorized(const char* redirectUrl, int privilege, _tag_cgi_position position) {
  const int code = CheckAuthorized(privilege, position, false);
  if (code >= 1) return true;

  if (redirectUrl != nullptr) {
    VemoCgiRedirect(&context_, redirectUrl);
  } else {
    WriteRefusal(code);
  }
  return false;
}

namespace {

struct Refusal {
  int code;
  const char* reason;
  const char* section;
  const char* key;
};

const Refusal& RefusalOf(int code) {
  static constexpr Refusal kRefusals[] = {
      {-1, "timeout", "login", "error_timeout"},
      {-2, "noprivilege", "login", "error_noprivilege"},
      {-3, "relogin", "login", "error_interrupt"},
      {-5, "unauth", "login", "error_noprivilege"},
      {-8, "errorip", "login", "error_noprivilege"},
  };
  static constexpr Refusal kOther = {0, "system", "common", "error_system"};

  for (const Refusal& refusal : kRefusals) {
    if (refusal.code == code) return refusal;
  }
  return kOther;
}

}  // namespace

void WebMan::WriteRefusal(int code) {
  const Refusal& refusal = RefusalOf(code);
  AddHeader("x-request-error", refusal.reason);
  WriteHeader(IsUploadRequest() ? zem::kUploadContentType : default_content_type_.c_str());

  Json::Value body(Json::objectValue);
  body["success"] = false;
  body["total"] = 0;
  body["items"] = Json::Value(Json::arrayValue);
  body["errno"]["section"] = refusal.section;
  body["errno"]["key"] = refusal.key;
  WriteBody(body);
}

bool WebMan::IsAdmin() const {
  const int member = VLIBGroupIsAdminGroupMem(user_name_, 0);
  if (member < 0) {
    ZEM_LOG("%s:%d VLIBGroupIsAdminGroupMem(%s) failed. " ZEM_LOG_PLATFORM_FORMAT,
            zem::kWebmanSource, user_name_, ZEM_LOG_PLATFORM_ARGS);
  }
  return member == 1;
}

std::string WebMan::GetLoginUserName() const { return user_name_; }

std::string WebMan::GetVemoToken(bool refresh) {
  if (refresh) UpdateCookiesHash();
  return VemoCgiGetOption(&context_, VEMOCGI_OPT_TOKEN, "");
}

bool WebMan::IsTokenEnable() { return VemoCgiIsTokenEnable(&context_) != 0; }

const char* WebMan::GetSessionID() {
  return VemoCgiGetInCookies(&context_, zem::kSessionCookie, nullptr);
}

const char* WebMan::GetSessionFilePath() { return context_.session_file; }

int WebMan::GetSessionFilePath(char* buffer, int size) {
  return VemoCgiGetSessPath(&context_, buffer, size);
}

const char* WebMan::GetLockFile() { return context_.lock_file; }

void WebMan::SetSkipCheckIP(bool skip) { context_.skip_check_ip = skip ? 1 : 0; }

bool WebMan::RemoveSessionByIndex(CURRENT_USER_INDEX index, const char* name) {
  return VemoCgiRemoveSessionByIndex(&context_, index, name) != 0;
}

int WebMan::RemoveSessionByFunc(BOOL (*match)(json_object* record, void* data), void* data) {
  return VemoCgiRemoveSessionByFunc(&context_, match, data);
}

bool WebMan::IsSharingRequest(std::string& sharingId, std::string& sharingSid) {
  if (const char* header = std::getenv("HTTP_X_VEMO_SHARING")) {
    sharingId = header;
  } else {
    sharingId = VemoCgiGetRequestParam(&context_, "_sharing_id", "");
    if (!sharingId.empty() && sharingId.front() == '"' && sharingId.back() == '"') {
      // A lone quote is the first and the last character at once.
      sharingId = sharingId.size() < 2 ? "" : sharingId.substr(1, sharingId.size() - 2);
    }
  }
  sharingSid = GetCookie("sharing_sid", "");
  return !sharingId.empty() && !sharingSid.empty();
}

void WebMan::SetLoginedDefaultUser() { VemoCgiSetCGIParam(&context_, "loginedDefaultUser", "yes"); }

bool WebMan::IsLoginedDefaultUser() {
  return std::strcmp(VemoCgiGetCGIParam(&context_, "loginedDefaultUser", "no"), "yes") == 0;
}
