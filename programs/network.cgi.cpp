// network.cgi: the network settings, a form for administrators.
//
//   GET  action=load
//   POST action=apply and one parameter for each field, with the anti-forgery token
//
// The values stand in /etc/vemoinfo.conf under "network_" and the field's name, the
// factory defaults in /etc.defaults/vemoinfo.conf.
#include <arpa/inet.h>
#include <forms/form_validator.h>
#include <forms/server_form_handler.h>
#include <vemo/core.h>
#include <webman/vemo_conf.h>
#include <webutils/string_bundle.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string_view>

#include "programs/program.h"

namespace {

constexpr char kLockFile[] = "/run/vemo/network.lock";

// Every field, and what it is before anybody has chosen.
constexpr struct {
  const char* name;
  const char* initial;
} kFields[] = {
    {"hostname", "nas"},       {"comment", ""},           {"mode", "dhcp"},
    {"ip", "192.168.1.2"},     {"mask", "255.255.255.0"}, {"gateway", "192.168.1.1"},
    {"mtu", "1500"},           {"speed", "1000"},         {"valid_from", "2024/01/01"},
};

void DeclareFields(FormValidator& fields) {
  static const char* modes[] = {"static", "dhcp"};
  static int speeds[] = {10, 100, 1000, 2500, 10000};

  fields.AddTextField("hostname", 63, false);
  fields.AddTextField("comment", true);
  fields.AddStringList("mode", modes, std::size(modes));
  fields.AddIPV4("ip");
  fields.AddIPV4Mask("mask");
  fields.AddIPV4("gateway");
  fields.AddNumberField("mtu", 576, 9000);
  fields.AddIntegerList("speed", speeds, std::size(speeds));
  fields.AddDateTimeField("valid_from", nullptr);
}

class NetworkForm : public ServerFormHandler {
 public:
  NetworkForm() : ServerFormHandler(kLockFile) { program::QueuePrivateHeaders(request()); }

  // An action that the form handler does not know would stay without an answer.
  bool Process() override;

  // The form changes the system: not for every user who is logged in.
  bool Authenticate() override {
    return request().IsAuthorized(nullptr, VEMOCGI_PRIV_ADMIN, VEMOCGI_POS_DESKTOP);
  }

 protected:
  bool Load() override;
  bool Apply() override;

 private:
  bool ValidateFields();
  void Mark(const char* field, const char* key);
  void CheckText(const char* field);
  void CheckHostname();
  void CheckGateway();
  bool Store();
  in_addr_t Address(const char* field);
};

bool NetworkForm::Process() {
  const std::string_view action = request().In("action", "");
  if (action == "load" || action == "apply") return ServerFormHandler::Process();
  if (Authenticate()) ReportFailMessage("common", "error_request", 0);
  return false;
}

bool NetworkForm::Load() {
  VemoConf conf;
  Json::Value data(Json::objectValue);
  for (const auto& field : kFields) {
    const std::string key = std::string("network_") + field.name;
    data[field.name] = conf.Info(key.c_str(), conf.Def(key.c_str(), field.initial));
  }
  ReportSuccess(data);
  return true;
}

// Marks a field with a localized text of its own.
void NetworkForm::Mark(const char* field, const char* key) {
  StringBundle texts("error", nullptr, nullptr, nullptr, nullptr, nullptr);
  SetFieldInvalid(field, texts.Text(key, key));
}

// The configuration is made of lines: a control character would not come back as it
// was.
void NetworkForm::CheckText(const char* field) {
  const char* text = request().In(field, "");
  const bool plain = std::none_of(text, text + std::strlen(text), [](unsigned char c) {
    return c < 0x20 || c == 0x7f;
  });
  if (!plain) {
    Mark(field, "error_control_character");
  } else if (std::strlen(text) > 1024) {
    Mark(field, "error_field_too_long");
  }
}

// RFC 1123, section 2.1: letters, digits and hyphens, no hyphen at either end.
void NetworkForm::CheckHostname() {
  const std::string name = request().In("hostname", "");
  const bool good =
      name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-") ==
          std::string::npos &&
      name.front() != '-' && name.back() != '-';
  if (!good) Mark("hostname", "error_hostname");
}

in_addr_t NetworkForm::Address(const char* field) {
  in_addr address = {};
  inet_aton(request().In(field, ""), &address);
  return address.s_addr;
}

void NetworkForm::CheckGateway() {
  if (((Address("ip") ^ Address("gateway")) & Address("mask")) != 0) {
    Mark("gateway", "error_gateway");
  }
}

// Each field by its rule first; what concerns several only when each is good.
bool NetworkForm::ValidateFields() {
  FormValidator fields;
  DeclareFields(fields);
  if (!fields.Validate(*this)) return false;

  CheckText("comment");
  CheckText("valid_from");
  CheckHostname();
  if (std::strcmp(request().In("mode", ""), "static") == 0) CheckGateway();
  return !HasInvalidFields();
}

// Everything was checked: what fails now is the system, and the fields that were
// stored before are put back.
bool NetworkForm::Store() {
  VemoConf before;
  for (size_t i = 0; i < std::size(kFields); ++i) {
    const std::string key = std::string("network_") + kFields[i].name;
    if (VLIBCINFOSetKeyValue(key.c_str(), request().In(kFields[i].name, "")) >= 0) continue;
    while (i-- > 0) {
      const std::string stored = std::string("network_") + kFields[i].name;
      VLIBCINFOSetKeyValue(stored.c_str(), before.Info(stored.c_str(), kFields[i].initial));
    }
    SetFormErrInfo("common", "error_system", 0);
    return false;
  }
  return true;
}

bool NetworkForm::Apply() {
  if (!program::IsPost()) {
    // GET changes nothing, whatever it asks for.
    SetFormErrInfo("common", "error_request", 0);
  } else if (ExLock() && ValidateFields() && Store()) {
    ReportSuccess(Json::Value(Json::objectValue));
    return true;
  }
  ReportError();
  return false;
}

}  // namespace

int main() {
  NetworkForm form;
  form.Process();
  return 0;
}
