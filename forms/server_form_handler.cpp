#include "forms/server_form_handler.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "forms/texts.h"

namespace {

constexpr char kAnswerContentType[] = "text/plain; charset=\"UTF-8\"";
constexpr char kCommonSection[] = "common";

const char* TextOrEmpty(const char* text) { return text == nullptr ? "" : text; }

}  // namespace

ServerFormHandler::ServerFormHandler(const char* lockFile) : ServerFormHandler(true, lockFile) {}

ServerFormHandler::ServerFormHandler(bool loadInput, const char* lockFile)
    : request_(loadInput), lock_file_(lockFile) {}

ServerFormHandler::~ServerFormHandler() { UnlockFile(lock_descriptor_); }

bool ServerFormHandler::Process() {
  if (!Authenticate()) return false;
  const char* action = request_.In("action", nullptr);
  if (action == nullptr) return false;
  if (std::strcmp(action, "load") == 0) return Load();
  const int difference = std::strcmp(action, "apply");
  if (difference == 0) return Apply();
  // An action that is unknown here may be known to a derived program.
  return difference != 0;
}

bool ServerFormHandler::Authenticate() {
  return request_.IsAuthorized(nullptr, VEMOCGI_PRIV_USER, VEMOCGI_POS_DESKTOP);
}

void ServerFormHandler::SetFormErrInfo(const char* section, const char* key, int line) {
  if (error_state_ != ErrorState::kNone) return;
  error_state_ = ErrorState::kErrorInfo;
  error_section_ = TextOrEmpty(section);
  error_key_ = TextOrEmpty(key);
  error_line_ = line;
}

void ServerFormHandler::GetFormErrInfo(std::string& section, std::string& key, int& line) {
  section = error_section_;
  key = error_key_;
  line = error_line_;
}

void ServerFormHandler::SetFieldInvalid(const char* name, const char* text) {
  if (name == nullptr || error_state_ == ErrorState::kErrorInfo) return;
  error_state_ = ErrorState::kFieldsInvalid;
  // The JSON library throws on a null text.
  invalid_fields_[name] = TextOrEmpty(text);
}

bool ServerFormHandler::HasInvalidFields() const {
  return error_state_ == ErrorState::kFieldsInvalid;
}

bool ServerFormHandler::ValidNullFields(const char** names, int count) {
  bool all_present = true;
  for (int i = 0; i < count; ++i) {
    if (request_.In(names[i], nullptr) != nullptr) continue;
    SetFieldInvalid(names[i], zem::kFieldNotPresent);
    all_present = false;
  }
  return all_present;
}

void ServerFormHandler::Report(Json::Value& document) {
  request_.WriteHeader(kAnswerContentType);
  request_.WriteBody(document);
  std::fflush(stdout);
}

void ServerFormHandler::ReportSuccess(const Json::Value& data) {
  Json::Value document(Json::objectValue);
  document["success"] = true;
  document["data"] = data;
  Report(document);
}

void ServerFormHandler::ReportInvalid() {
  Json::Value document(Json::objectValue);
  document["success"] = false;
  document["errors"] = invalid_fields_;
  Report(document);
}

void ServerFormHandler::ReportFailMessage(const std::string& section, const std::string& key,
                                          unsigned int line) {
  Json::Value document(Json::objectValue);
  document["success"] = false;
  Json::Value& info = document["errinfo"];
  info["sec"] = section;
  info["key"] = key;
  if (line != 0) info["line"] = line;
  Report(document);
}

void ServerFormHandler::ReportError() {
  switch (error_state_) {
    case ErrorState::kNone:
      ReportFailMessage(kCommonSection, "error_system", 0);
      break;
    case ErrorState::kErrorInfo:
      ReportFailMessage(error_section_, error_key_, static_cast<unsigned int>(error_line_));
      break;
    case ErrorState::kFieldsInvalid:
      ReportInvalid();
      break;
  }
}

bool ServerFormHandler::LockFile(const char* path, bool exclusive, int* descriptor) {
  *descriptor = open(path, O_RDWR | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0644);
  if (*descriptor < 0) return false;
  return flock(*descriptor, (exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB) == 0;
}

void ServerFormHandler::UnlockFile(int descriptor) {
  if (descriptor < 0) return;
  flock(descriptor, LOCK_UN);
  close(descriptor);
}

bool ServerFormHandler::TakeLock(bool exclusive, const char* occupiedKey) {
  if (lock_file_ == nullptr) return false;
  // A second attempt starts over: the file of the first must not stay open.
  UnlockFile(lock_descriptor_);
  if (LockFile(lock_file_, exclusive, &lock_descriptor_)) return true;
  SetFormErrInfo(kCommonSection, occupiedKey, 0);
  return false;
}

bool ServerFormHandler::ExLock() { return TakeLock(true, "error_apply_occupied"); }

bool ServerFormHandler::ShLock() { return TakeLock(false, "error_occupied"); }
