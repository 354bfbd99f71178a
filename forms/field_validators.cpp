#include "forms/field_validators.h"

#include <arpa/inet.h>
#include <vemo/core.h>

#include <algorithm>
#include <ctime>
#include <utility>

#include "common/number.h"

namespace {

// Reads the whole text as a number. A NUL byte within ends no number.
bool ParseWhole(const std::string& text, int& number) {
  char* end = nullptr;
  number = zem::ClampedInt(text.c_str(), &end);
  // strtol leaves the end at the start when it finds no digits, blanks included.
  return end == text.c_str() + text.size();
}

}  // namespace

std::string FieldValidator::GetInvalidErrKey() { return kDefaultInvalidKey; }

FieldValidator::~FieldValidator() = default;

TextFieldValidator::TextFieldValidator(std::string name, bool allowEmpty, unsigned int maxLength)
    : FieldValidator(std::move(name)), allow_empty_(allowEmpty), max_length_(maxLength) {}

bool TextFieldValidator::Validate(const std::string& value) {
  if (value.empty() && !allow_empty_) return false;
  if (max_length_ == 0 || value.size() <= max_length_) return true;
  error_key_ = "error_field_too_long";
  return false;
}

std::string TextFieldValidator::GetInvalidErrKey() { return error_key_; }

NumberFieldValidator::NumberFieldValidator(std::string name, int min, int max)
    : FieldValidator(std::move(name)), min_(min), max_(max) {}

bool NumberFieldValidator::Validate(const std::string& value) {
  int number = 0;
  return ParseWhole(value, number) && min_ <= number && number <= max_;
}

DateTimeValidator::DateTimeValidator(std::string name, std::string format)
    : FieldValidator(std::move(name)), format_(std::move(format)) {}

bool DateTimeValidator::Validate(const std::string& value) {
  std::tm parts = {};
  const char* end = strptime(value.c_str(), format_.c_str(), &parts);
  return end == value.c_str() + value.size();
}

IPV4Validator::IPV4Validator(std::string name, bool mask)
    : FieldValidator(std::move(name)), mask_(mask) {}

bool IPV4Validator::Validate(const std::string& value) {
  if (mask_) return BlVLIBIsIpMask(value.c_str()) != 0;
  in_addr address;
  return inet_aton(value.c_str(), &address) != 0;
}

StringListValidator::StringListValidator(std::string name, std::list<std::string> values)
    : FieldValidator(std::move(name)), values_(std::move(values)) {}

bool StringListValidator::Validate(const std::string& value) {
  return std::find(values_.begin(), values_.end(), value) != values_.end();
}

IntegerListValidator::IntegerListValidator(std::string name, std::list<int> values)
    : FieldValidator(std::move(name)), values_(std::move(values)) {}

bool IntegerListValidator::Validate(const std::string& value) {
  int number = 0;
  if (value.empty() || !ParseWhole(value, number)) return false;
  return std::find(values_.begin(), values_.end(), number) != values_.end();
}
