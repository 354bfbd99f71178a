#include "forms/form_validator.h"

#include <cstring>
#include <utility>

#include "forms/server_form_handler.h"
#include "forms/texts.h"
#include "webman/webman.h"
#include "webutils/string_bundle.h"

namespace {

std::string Text(const char* text) { return text == nullptr ? "" : text; }

}  // namespace

FormValidator::FormValidator(bool skipAbsent) : skip_absent_(skipAbsent) {}

FormValidator::~FormValidator() = default;

void FormValidator::Add(std::unique_ptr<FieldValidator> field) {
  fields_.push_back(std::move(field));
}

void FormValidator::AddTextField(const char* name, bool allowEmpty) {
  AddTextField(name, 0U, allowEmpty);
}

void FormValidator::AddTextField(const char* name, unsigned int maxLength, bool allowEmpty) {
  Add(std::make_unique<TextFieldValidator>(Text(name), allowEmpty, maxLength));
}

void FormValidator::AddDateTimeField(const char* name, const char* format) {
  Add(std::make_unique<DateTimeValidator>(Text(name), format == nullptr ? "%Y/%m/%d" : format));
}

void FormValidator::AddNumberField(const char* name, int min, int max) {
  Add(std::make_unique<NumberFieldValidator>(Text(name), min, max));
}

void FormValidator::AddStringList(const char* name, const char** values, int count) {
  std::list<std::string> copies;
  for (int i = 0; values != nullptr && i < count; ++i)
    copies.emplace_back(Text(values[i]));
  Add(std::make_unique<StringListValidator>(Text(name), std::move(copies)));
}

void FormValidator::AddStringList(const char* name, const std::vector<std::string>& values) {
  Add(std::make_unique<StringListValidator>(Text(name),
                                            std::list<std::string>(values.begin(), values.end())));
}

void FormValidator::AddIPV4(const char* name) {
  Add(std::make_unique<IPV4Validator>(Text(name), false));
}

void FormValidator::AddIPV4Mask(const char* name) {
  Add(std::make_unique<IPV4Validator>(Text(name), true));
}

void FormValidator::AddIntegerList(const char* name, int* values, int count) {
  std::list<int> copies;
  if (values != nullptr && count > 0) copies.assign(values, values + count);
  Add(std::make_unique<IntegerListValidator>(Text(name), std::move(copies)));
}

bool FormValidator::Validate(WebMan& request) {
  for (const auto& field : fields_) {
    const char* value = request.In(field->name().c_str(), nullptr);
    if (value == nullptr && skip_absent_) continue;
    if (value == nullptr || !field->Validate(value)) return false;
  }
  return true;
}

bool FormValidator::Validate(ServerFormHandler& handler) {
  bool valid = true;
  for (const auto& field : fields_) {
    if (!ValidateField(*field, handler)) valid = false;
  }
  return valid;
}

bool FormValidator::ValidateField(FieldValidator& field, ServerFormHandler& handler) {
  const char* name = field.name().c_str();
  const char* value = handler.request().In(name, nullptr);
  if (value == nullptr) {
    if (skip_absent_) return true;
    handler.SetFieldInvalid(name, zem::kFieldNotPresent);
    return false;
  }
  if (field.Validate(value)) return true;

  const std::string key = field.GetInvalidErrKey();
  if (key.compare(0, std::strlen(kDefaultInvalidKey), kDefaultInvalidKey) == 0) {
    handler.SetFieldInvalid(name, zem::kFieldNotValid);
  } else {
    StringBundle texts("error", nullptr, nullptr, nullptr, nullptr, nullptr);
    handler.SetFieldInvalid(name, texts.Text(key.c_str(), ""));
  }
  return false;
}
