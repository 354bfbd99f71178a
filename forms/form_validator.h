/// \file form_validator.h
/// The declared fields of a form.
#ifndef ZEM_FORMS_FORM_VALIDATOR_H
#define ZEM_FORMS_FORM_VALIDATOR_H

#include <forms/field_validators.h>
#include <webutils/export.h>

#include <list>
#include <memory>
#include <string>
#include <vector>

class ServerFormHandler;
class WebMan;

/// A list of rules, one a declared field, and the loop that applies them to a
/// request. Fields are read with `WebMan::In(name, null)`: a request that came as a
/// JSON document has none of them.
///
/// \code
///   FormValidator fields;
///   fields.AddTextField("hostname", 63, false);
///   fields.AddIPV4("ip");
///   if (!fields.Validate(handler)) { handler.ReportError(); return false; }
/// \endcode
class ZEM_EXPORT FormValidator {
 public:
  /// \param skipAbsent true: a declared field that the request does not carry is
  ///     passed over; false: it is an error.
  explicit FormValidator(bool skipAbsent = false);
  ~FormValidator();
  FormValidator(const FormValidator&) = delete;
  FormValidator& operator=(const FormValidator&) = delete;

  /// \name Declaring fields
  /// All arguments are copied. A field that is declared twice is checked twice.
  /// @{
  /// A text without a limit.
  void AddTextField(const char* name, bool allowEmpty);
  /// A text of at most `maxLength` bytes; 0: no limit.
  void AddTextField(const char* name, unsigned int maxLength, bool allowEmpty);
  /// A date or time for strptime; a null format is "%Y/%m/%d".
  void AddDateTimeField(const char* name, const char* format);
  /// An integer from `min` to `max`, both included.
  void AddNumberField(const char* name, int min, int max);
  /// One of the first `count` texts of `values`.
  void AddStringList(const char* name, const char** values, int count);
  void AddStringList(const char* name, const std::vector<std::string>& values);
  void AddIPV4(const char* name);
  void AddIPV4Mask(const char* name);
  /// One of the first `count` integers of `values`.
  void AddIntegerList(const char* name, int* values, int count);
  /// @}

  /// Whether every declared field passes; stops at the first that does not.
  bool Validate(WebMan& request);

  /// The same for a form handler: checks every field and marks each that fails, with
  /// "The field is not present.", "The field is not valid." or the localized text of
  /// the rule's message key (section "error").
  bool Validate(ServerFormHandler& handler);

 private:
  bool ValidateField(FieldValidator& field, ServerFormHandler& handler);
  void Add(std::unique_ptr<FieldValidator> field);

  std::list<std::unique_ptr<FieldValidator>> fields_;
  bool skip_absent_;
};

#endif  // ZEM_FORMS_FORM_VALIDATOR_H
