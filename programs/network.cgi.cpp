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
constexpr size_t kTextLimit = 1024;

// Every field, and what it is before anybody has chosen.
struct Field {
  const char* name;
  const char* initial;
};
constexpr Field kFields[] = {
    {"hostname", "nas"},   {"comment", ""},           {"mode", "dhcp"},
    {"ip", "192.168.1.2"}, {"mask", "255.255.255.0"}, {"gateway", "192.168.1.1"},
    {"mtu", "1500"},       {"speed", "1000"},         {"valid_from", "2024/01/01"},
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
  void CheckAddress(const char* field);
  void CheckGateway();
  bool Store();
  in_addr_t Address(const char* field);
};

std::string StoredKey(const Field& field) { return std::string("network_") + field.name; }

// What was chosen, else the factory default, else what the program knows.
const char* StoredValue(VemoConf& conf, const Field& field) {
  const std::string key = StoredKey(field);
  return conf.Info(key.c_str(), conf.Def(key.c_str(), field.initial));
}

bool NetworkForm::Process() {
  const std::string_view action = request().In("action", "");
  if (action == "load" || action == "apply") return ServerFormHandler::Process();
  if (Authenticate()) ReportFailMessage("common", "error_request", 0);
  return false;
}

bool NetworkForm::Load() {
  VemoConf conf;
  Json::Value data(Json::objectValue);
  for (const Field& field : kFields)
    data[field.name] = StoredValue(conf, field);
  ReportSuccess(data);
  return true;
}

// Marks a field with a localized text of its own.
void NetworkForm::Mark(const char* field, const char* key) {
  StringBundle texts("error", nullptr, nullptr, nullptr, nullptr, nullptr);
  SetFieldInvalid(field, texts.Text(key, key));
}

// The configuration is made of lines, and the answer is JSON: what would not come back
// as it was sent is refused. The rules of the numbers, the dates and the addresses let
// white space through, line breaks with it, so each field is looked at.
void NetworkForm::CheckText(const char* field) {
  const char* text = request().In(field, "");
  const bool plain = std::none_of(text, text + std::strlen(text),
                                  [](unsigned char c) { return c < 0x20 || c == 0x7f; });
  if (!plain) {
    Mark(field, "error_control_character");
  } else if (!program::IsUtf8(text)) {
    Mark(field, "error_encoding");
  } else if (std::strlen(text) > kTextLimit) {
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

// The rule of an address reads up to the first blank and does not mind the rest.
void NetworkForm::CheckAddress(const char* field) {
  if (std::strchr(request().In(field, ""), ' ') != nullptr) Mark(field, "error_address");
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

// Each field by its rule first, then what can be said of its text, then what concerns
// several: a field gets one mark.
bool NetworkForm::ValidateFields() {
  FormValidator fields;
  DeclareFields(fields);
  if (!fields.Validate(*this)) return false;

  for (const Field& field : kFields)
    CheckText(field.name);
  if (HasInvalidFields()) return false;

  CheckHostname();
  CheckAddress("ip");
  CheckAddress("gateway");
  if (HasInvalidFields()) return false;

  // DHCP brings a gateway of its own; the other is kept for later.
  if (std::strcmp(request().In("mode", ""), "static") == 0) CheckGateway();
  return !HasInvalidFields();
}

// Everything was checked: what fails now is the system, and the fields that were
// stored before are put back. A client that hangs up meanwhile changes nothing: all
// fields are of one request.
bool NetworkForm::Store() {
  VemoConf before;
  VLIBCSigtermHold();
  size_t stored = 0;
  while (stored < std::size(kFields) &&
         VLIBCINFOSetKeyValue(StoredKey(kFields[stored]).c_str(),
                              request().In(kFields[stored].name, "")) == 0) {
    ++stored;
  }
  const bool complete = stored == std::size(kFields);
  while (!complete && stored-- > 0) {
    const Field& field = kFields[stored];
    VLIBCINFOSetKeyValue(StoredKey(field).c_str(), StoredValue(before, field));
  }
  VLIBCSigtermRelease();
  if (!complete) SetFormErrInfo("common", "error_system", 0);
  return complete;
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
