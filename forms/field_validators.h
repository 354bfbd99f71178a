/// \file field_validators.h
/// The rules of single form fields.
#ifndef ZEM_FORMS_FIELD_VALIDATORS_H
#define ZEM_FORMS_FIELD_VALIDATORS_H

#include <webutils/export.h>

#include <list>
#include <string>

/// The rule of one field: it judges a text and names a message key when it says no.
/// It reads no request and writes no answer.
class ZEM_EXPORT FieldValidator {
 public:
  explicit FieldValidator(std::string name) : name_(std::move(name)) {}
  FieldValidator(const FieldValidator&) = delete;
  FieldValidator& operator=(const FieldValidator&) = delete;

  /// Whether `value` obeys the rule.
  virtual bool Validate(const std::string& value) = 0;

  /// The message key of the refusal: "_vemo_invalid_defalut_key" unless a rule has
  /// one of its own. The spelling is part of the key: callers compare it.
  virtual std::string GetInvalidErrKey();

  virtual ~FieldValidator();

  const std::string& name() const { return name_; }

 private:
  std::string name_;
};

/// The default message key, 25 characters.
inline constexpr char kDefaultInvalidKey[] = "_vemo_invalid_defalut_key";

/// Any text, of at most `maxLength` bytes (0: no limit).
class ZEM_EXPORT TextFieldValidator : public FieldValidator {
 public:
  TextFieldValidator(std::string name, bool allowEmpty, unsigned int maxLength);
  bool Validate(const std::string& value) override;

  /// "error_field_too_long" once any value was too long, also for values that are
  /// refused later for being empty: the key stays with the rule.
  std::string GetInvalidErrKey() override;

 private:
  bool allow_empty_;
  unsigned int max_length_;
  std::string error_key_ = kDefaultInvalidKey;
};

/// A base-10 integer as strtol reads it (leading white space, a sign), nothing
/// behind it, within an inclusive range. Numbers beyond 32 bits become the nearest
/// end of that range and are then compared. An empty text is the number 0.
class ZEM_EXPORT NumberFieldValidator : public FieldValidator {
 public:
  NumberFieldValidator(std::string name, int min, int max);
  bool Validate(const std::string& value) override;

 private:
  int min_;
  int max_;
};

/// A date or time that strptime reads to its end by `format` (POSIX), without a
/// calendar check of its own.
class ZEM_EXPORT DateTimeValidator : public FieldValidator {
 public:
  DateTimeValidator(std::string name, std::string format);
  bool Validate(const std::string& value) override;

 private:
  std::string format_;
};

/// An IPv4 address as inet_aton reads it, short forms as "10.1" included; or, with
/// `mask`, a network mask: four numbers, contiguous ones.
class ZEM_EXPORT IPV4Validator : public FieldValidator {
 public:
  IPV4Validator(std::string name, bool mask);
  bool Validate(const std::string& value) override;

 private:
  bool mask_;
};

/// One of a list of texts, exactly.
class ZEM_EXPORT StringListValidator : public FieldValidator {
 public:
  StringListValidator(std::string name, std::list<std::string> values);
  bool Validate(const std::string& value) override;

 private:
  std::list<std::string> values_;
};

/// One of a list of integers, read as NumberFieldValidator does; an empty text is
/// refused here.
class ZEM_EXPORT IntegerListValidator : public FieldValidator {
 public:
  IntegerListValidator(std::string name, std::list<int> values);
  bool Validate(const std::string& value) override;

 private:
  std::list<int> values_;
};

#endif  // ZEM_FORMS_FIELD_VALIDATORS_H
