/// \file server_form_handler.h
/// The base of programs that serve one settings form.
#ifndef ZEM_FORMS_SERVER_FORM_HANDLER_H
#define ZEM_FORMS_SERVER_FORM_HANDLER_H

#include <json/value.h>
#include <webman/webman.h>
#include <webutils/export.h>

#include <string>

/// One request to a settings form: checks who asks, dispatches the parameter "action"
/// ("load", "apply"), records what went wrong, and answers in one of three shapes:
///
///     {"data": ..., "success": true}
///     {"errors": {field: text}, "success": false}
///     {"errinfo": {"key": ..., "sec": ..., "line": ...}, "success": false}
///
/// A program derives from it, and answers exactly once:
///
/// \code
///   class NetworkForm : public ServerFormHandler {
///    public:
///     NetworkForm() : ServerFormHandler("/run/network.lock") {}
///    protected:
///     bool Load() override { ReportSuccess(ReadSettings()); return true; }
///     bool Apply() override {
///       if (!ExLock() || !fields_.Validate(*this) || !Store()) { ReportError(); return false; }
///       ReportSuccess(Json::Value());
///       return true;
///     }
///   };
///   int main() { return NetworkForm().Process() ? 0 : 0; }
/// \endcode
///
/// `Authenticate` lets in every logged-in user: a form that changes the system must
/// override it.
class ZEM_EXPORT ServerFormHandler {
 public:
  /// Builds the request object and reads its parameters.
  /// \param lockFile the path of the form's lock, or null for none; not copied, so it
  ///     must outlive the handler.
  explicit ServerFormHandler(const char* lockFile);
  /// \param loadInput false: the parameters are not read yet.
  ServerFormHandler(bool loadInput, const char* lockFile);
  ServerFormHandler(const ServerFormHandler&) = delete;
  ServerFormHandler& operator=(const ServerFormHandler&) = delete;

  /// Authenticates, then calls `Load` or `Apply` as "action" says.
  /// \return false when the caller is refused (answered already) or the request has
  ///     no action (not answered), else what the handler returns. An unknown action
  ///     gives true, and nothing is answered: kept, since programs add actions of
  ///     their own behind it.
  virtual bool Process();

 protected:
  /// Answers "load": reads the settings, ends with `ReportSuccess`.
  virtual bool Load() = 0;
  /// Answers "apply": validates, stores, answers.
  virtual bool Apply() = 0;

 public:
  /// Releases the lock.
  virtual ~ServerFormHandler();

  /// Takes the form's lock, alone. It is held until the handler is destroyed.
  /// \return false without a lock path, with nothing recorded; false when another
  ///     process holds it, with ("common", "error_apply_occupied") recorded. Never waits.
  virtual bool ExLock();
  /// The same, shared with other readers; records "error_occupied".
  virtual bool ShLock();

  /// Whether the caller may use the form: any logged-in user of the desktop. A
  /// refusal has been answered.
  virtual bool Authenticate();

  /// Records an error for `ReportError`: the first stays, and it is ignored once a
  /// field was marked. \param line a line number for people, 0 for none.
  void SetFormErrInfo(const char* section, const char* key, int line);
  /// Gives the recorded error: empty texts and 0 when there is none.
  void GetFormErrInfo(std::string& section, std::string& key, int& line);

  /// Marks a field as invalid; ignored for a null name and once an error was recorded.
  /// Marking it again replaces the text; a null text is empty.
  void SetFieldInvalid(const char* name, const char* text);

  /// Whether any field was marked.
  bool HasInvalidFields() const;

  /// Whether the request carries each of the first `count` fields; marks each that is
  /// absent with "The field is not present.".
  bool ValidNullFields(const char** names, int count);

  /// \name Answers
  /// Each writes the header, the document, and flushes standard output.
  /// @{
  void ReportSuccess(const Json::Value& data);
  void ReportInvalid();
  void ReportFailMessage(const std::string& section, const std::string& key, unsigned int line);
  /// What was recorded: the error, the marked fields, or, when nothing was, the message
  /// ("common", "error_system").
  void ReportError();
  /// @}

  /// Opens `path` (created with mode 0644) and locks it without waiting.
  /// \param descriptor gets the open file, also when the lock is refused; -1 when it
  ///     cannot be opened. The caller releases it with `UnlockFile`.
  static bool LockFile(const char* path, bool exclusive, int* descriptor);
  /// Unlocks and closes; nothing for a negative descriptor.
  static void UnlockFile(int descriptor);

  /// The request.
  WebMan& request() { return request_; }

 private:
  enum class ErrorState { kNone = 0, kErrorInfo = 1, kFieldsInvalid = 2 };

  bool TakeLock(bool exclusive, const char* occupiedKey);
  void Report(Json::Value& document);

  WebMan request_;
  ErrorState error_state_ = ErrorState::kNone;
  std::string error_section_;
  std::string error_key_;
  int error_line_ = 0;
  int lock_descriptor_ = -1;
  const char* lock_file_;
  Json::Value invalid_fields_;
};

#endif  // ZEM_FORMS_SERVER_FORM_HANDLER_H
