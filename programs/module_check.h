// What authors of modules and packages get wrong: what the desktop would skip without a
// word, and what is likely a mistake.
#ifndef ZEM_PROGRAMS_MODULE_CHECK_H
#define ZEM_PROGRAMS_MODULE_CHECK_H

#include <json/value.h>

#include <map>
#include <string>
#include <vector>

namespace program {

struct ModuleProblem {
  std::string file;
  int line;  ///< from 1; 0: the file as a whole
  std::string text;
};

/// The problems of one file, or of what belongs to one directory.
class ModuleProblems {
 public:
  void Add(const std::string& file, int line, const std::string& text) {
    list_.push_back({file, line, text});
  }
  const std::vector<ModuleProblem>& list() const { return list_; }

 private:
  std::vector<ModuleProblem> list_;
};

/// Reads the regular file whole. \return false, and a problem added, when it cannot be read,
/// is larger than 64 MiB, or is not UTF-8; one above 1 MiB is read, and a problem too.
bool ReadForCheck(const std::string& path, std::string& text, ModuleProblems& problems);

/// Checks modules and packages, several of which may name the same entries.
class ModuleChecker {
 public:
  /// Checks a directory as the desktop reads it: its "config", with everything that this
  /// names, or its "application.cfg" and "desktop.cfg".
  void Check(const std::string& directory);

  const std::vector<ModuleProblem>& problems() const { return problems_.list(); }

 private:
  void CheckConfig(const std::string& directory, const std::string& name);
  void CheckDocument(const Json::Value& document);
  void CheckSection(const std::string& name, const Json::Value& section);
  void CheckEntry(const std::string& id, const Json::Value& entry);
  void CheckType(const std::string& id, const Json::Value& entry);
  void CheckGrant(const std::string& id, const Json::Value& entry);
  void CheckTexts(const std::string& id, const Json::Value& entry);
  void CheckSheets(const std::string& id, const Json::Value& entry);
  void CheckPackages(const std::string& id, const Json::Value& entry);
  void CheckPlace(const std::string& id, const Json::Value& entry);
  void CheckDuplicates();
  void Report(const Json::Value& at, const std::string& text);
  bool IsThere(const std::string& name) const;
  int LineOf(const Json::Value& value) const;

  ModuleProblems problems_;
  std::map<std::string, std::string> defined_;  // entry's id: where it was defined first
  std::map<std::string, bool> checked_texts_;   // folders of texts that were looked at
  std::string directory_, file_, text_;         // what is being checked
};

/// Checks a folder of texts: a folder a language, each with a file "strings".
void CheckTextFolder(const std::string& folder, ModuleProblems& problems);

/// Checks one file of texts. \return its keys, by section, with their lines.
std::map<std::string, std::map<std::string, int>> CheckStrings(const std::string& path,
                                                               ModuleProblems& problems);

/// Checks the key=value file of a package's launcher.
/// \param directory where it stands, to which its icons are relative.
/// \param desktop "desktop.cfg", else "application.cfg".
void CheckLauncher(const std::string& directory, bool desktop, ModuleProblems& problems);

}  // namespace program

#endif  // ZEM_PROGRAMS_MODULE_CHECK_H
