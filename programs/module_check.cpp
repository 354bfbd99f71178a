#include "programs/module_check.h"

#include <json/reader.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>
#include <regex>
#include <string_view>

#include "common/file.h"
#include "common/json.h"
#include "programs/program.h"

namespace program {
namespace {

constexpr size_t kReadLimit = 64 << 20;
constexpr size_t kReasonableSize = 1 << 20;
constexpr char kNoFile[] = ".url";

bool Exists(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0;
}

// Whether a name of the document stays within the module's directory.
bool IsWithin(const std::string& name) {
  if (name.empty() || name.front() == '/' || name.find('\0') != std::string::npos) return false;
  size_t start = 0;
  while (start <= name.size()) {
    const size_t end = std::min(name.find('/', start), name.size());
    if (name.compare(start, end - start, "..") == 0) return false;
    start = end + 1;
  }
  return true;
}

// "* Line 3, Column 5\n  text\nSee Line ..." as a problem. What follows the first is mostly
// the reader's, which has lost its way.
void AddReaderMessage(const std::string& file, const std::string& messages,
                      ModuleProblems& problems) {
  static const std::regex form("\\* Line (\\d+), Column \\d+\\s+([^\\n]*)");
  std::smatch found;
  if (std::regex_search(messages, found, form)) {
    problems.Add(file, std::stoi(found[1]), found[2]);
  } else {
    problems.Add(file, 0, "is no JSON: " + messages);
  }
}

}  // namespace

bool ReadForCheck(const std::string& path, std::string& text, ModuleProblems& problems) {
  const zem::Descriptor file = zem::OpenRegularFile(path.c_str());
  if (!file) {
    problems.Add(path, 0, "cannot be read, or is no regular file: the desktop skips it");
    return false;
  }
  struct stat status;
  if (fstat(file.get(), &status) != 0 || static_cast<size_t>(status.st_size) > kReadLimit) {
    problems.Add(path, 0, "is larger than 64 MiB");
    return false;
  }
  if (static_cast<size_t>(status.st_size) > kReasonableSize) {
    problems.Add(path, 0, "is larger than 1 MiB: every page of the desktop waits for it");
  }
  if (!zem::ReadAll(file.get(), text)) {
    problems.Add(path, 0, "cannot be read");
    return false;
  }
  const size_t nul = text.find('\0');
  if (nul != std::string::npos) {
    problems.Add(
        path,
        static_cast<int>(std::count(text.begin(), text.begin() + static_cast<long>(nul), '\n')) + 1,
        "holds a NUL byte");
    return false;
  }
  if (!IsUtf8(text.c_str())) {
    problems.Add(path, 0, "is not UTF-8");
    return false;
  }
  return true;
}

void ModuleChecker::Check(const std::string& directory) {
  struct stat status;
  if (stat(directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    problems_.Add(directory, 0, "is no directory");
    return;
  }
  const bool config = Exists(directory + "/config"), debug = Exists(directory + "/config.debug");
  const bool menu = Exists(directory + "/application.cfg");
  const bool shortcut = Exists(directory + "/desktop.cfg");
  if (!config && !menu && !shortcut) {
    problems_.Add(directory, 0,
                  "has neither \"config\" nor \"application.cfg\" nor \"desktop.cfg\": the "
                  "desktop skips it");
  }
  if (config) CheckConfig(directory, "config");
  if (debug) {
    // The same entries once more, which is what it is for.
    const auto defined = defined_;
    CheckConfig(directory, "config.debug");
    defined_ = defined;
  }
  if (menu) CheckLauncher(directory, false, problems_);
  if (shortcut) CheckLauncher(directory, true, problems_);
  if (config && (menu || shortcut)) {
    problems_.Add(directory + (menu ? "/application.cfg" : "/desktop.cfg"), 0,
                  "is not looked at, because there is a \"config\"");
  }
}

void ModuleChecker::CheckConfig(const std::string& directory, const std::string& name) {
  directory_ = directory;
  file_ = directory + "/" + name;
  text_.clear();
  Json::Value document;
  std::string messages;
  if (!ReadForCheck(file_, text_, problems_)) return;
  if (!zem::ParseJsonInto(text_.data(), text_.size(), document, &messages)) {
    AddReaderMessage(file_, messages, problems_);
    return;
  }
  CheckDuplicates();
  CheckDocument(document);
}

// The reader of the desktop takes the last of members with the same name.
void ModuleChecker::CheckDuplicates() {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["allowComments"] = true;
  builder["strictRoot"] = false;
  builder["rejectDupKeys"] = true;
  builder["failIfExtra"] = true;
  Json::Value ignored;
  std::string messages;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  try {
    if (!reader->parse(text_.data(), text_.data() + text_.size(), &ignored, &messages)) {
      AddReaderMessage(file_, messages, problems_);
    }
  } catch (const std::exception& exception) {
    problems_.Add(file_, 0, exception.what());
  }
}

void ModuleChecker::CheckDocument(const Json::Value& document) {
  if (!document.isObject()) {
    Report(document, "is not an object: the desktop skips the module");
    return;
  }
  for (auto section = document.begin(); section != document.end(); ++section)
    CheckSection(section.name(), *section);
  const std::string sheet = directory_ + "/style.css";
  if (Exists(sheet) && access(sheet.c_str(), R_OK) != 0) {
    problems_.Add(sheet, 0, "cannot be read: the desktop leaves it out");
  }
}

void ModuleChecker::CheckSection(const std::string& name, const Json::Value& section) {
  if (name != kNoFile && !IsWithin(name)) {
    Report(section, "\"" + name + "\": a file outside of the module");
  } else if (name != kNoFile && !IsThere(name)) {
    Report(section, "\"" + name + "\": there is no such file: the desktop skips its entries");
  }
  if (section.isArray() && section.empty()) return;
  if (!section.isObject()) {
    Report(section, "\"" + name + "\" is not an object: the desktop skips it");
    return;
  }
  for (auto entry = section.begin(); entry != section.end(); ++entry)
    CheckEntry(entry.name(), *entry);
}

void ModuleChecker::CheckEntry(const std::string& id, const Json::Value& entry) {
  if (entry.isArray() && entry.empty()) return;
  if (!entry.isObject()) {
    Report(entry, "\"" + id + "\" is not an object: the desktop skips it");
    return;
  }
  const std::string here = file_ + ":" + std::to_string(LineOf(entry));
  const auto [first, is_new] = defined_.emplace(id, here);
  if (!is_new) {
    Report(entry,
           "\"" + id + "\" is defined at " + first->second + " too, and one replaces the other");
  }
  CheckType(id, entry);
  CheckGrant(id, entry);
  CheckTexts(id, entry);
  CheckSheets(id, entry);
  CheckPackages(id, entry);
  CheckPlace(id, entry);
}

void ModuleChecker::CheckType(const std::string& id, const Json::Value& entry) {
  static constexpr const char* kKnown[] = {"app", "standalone", "common_lib", "lib",
                                           "url", "legacy",     "widget"};
  const Json::Value& type = entry["type"];
  if (type.isNull() && !entry.isMember("type")) return;
  if (!type.isString()) {
    Report(type, "\"" + id + "\": \"type\" is not a text");
    return;
  }
  const std::string text = type.asString();
  const bool known = std::any_of(std::begin(kKnown), std::end(kKnown),
                                 [&](const char* name) { return text == name; });
  if (!known) {
    Report(type, "\"" + id + "\": the type \"" + text +
                     "\" is none that the desktop knows: the entry is no application");
  }
}

void ModuleChecker::CheckGrant(const std::string& id, const Json::Value& entry) {
  if (!entry.isMember("grantPrivilege")) return;
  const Json::Value& grant = entry["grantPrivilege"];
  if (grant == "all" || grant == "local" || grant == "domain") return;
  Report(grant, "\"" + id +
                    "\": \"grantPrivilege\" is not \"all\", \"local\" or \"domain\": the "
                    "application cannot be granted");
}

void ModuleChecker::CheckTexts(const std::string& id, const Json::Value& entry) {
  if (!entry.isMember("texts")) return;
  const Json::Value& texts = entry["texts"];
  if (!texts.isString() || texts.asString().empty()) {
    Report(texts, "\"" + id + "\": \"texts\" is not the name of a folder");
    return;
  }
  const std::string name = texts.asString();
  if (!IsWithin(name)) {
    Report(texts, "\"" + id + "\": the folder of texts \"" + name + "\" is outside of the module");
    return;
  }
  if (!IsThere(name)) {
    Report(texts, "\"" + id + "\": there is no folder of texts \"" + name + "\"");
    return;
  }
  const std::string folder = directory_ + "/" + name;
  if (checked_texts_.emplace(folder, true).second) CheckTextFolder(folder, problems_);
}

void ModuleChecker::CheckSheets(const std::string& id, const Json::Value& entry) {
  if (!entry.isMember("additionalCSSFiles")) return;
  const Json::Value& sheets = entry["additionalCSSFiles"];
  if (!sheets.isArray()) {
    Report(sheets, "\"" + id + "\": \"additionalCSSFiles\" is not a list");
    return;
  }
  for (const Json::Value& sheet : sheets) {
    if (!sheet.isString()) {
      Report(sheet, "\"" + id + "\": a style sheet's name is not a text");
    } else if (!IsWithin(sheet.asString()) || !IsThere(sheet.asString())) {
      Report(sheet, "\"" + id + "\": there is no style sheet \"" + sheet.asString() +
                        "\": the desktop leaves it out");
    }
  }
}

void ModuleChecker::CheckPackages(const std::string& id, const Json::Value& entry) {
  if (!entry.isMember("white_pkg_list")) return;
  const Json::Value& list = entry["white_pkg_list"];
  if (!list.isArray()) {
    Report(list, "\"" + id + "\": \"white_pkg_list\" is not a list");
    return;
  }
  for (const Json::Value& package : list) {
    if (!package.isString()) Report(package, "\"" + id + "\": an application's id is not a text");
  }
}

// What the desktop writes itself, and pictures that would not show.
void ModuleChecker::CheckPlace(const std::string& id, const Json::Value& entry) {
  for (const char* key : {"jsBaseURL", "jsID", "string_file", "css_file"}) {
    if (entry.isMember(key)) {
      Report(entry[key], "\"" + id + "\": \"" + key + "\" is the desktop's own, and overwritten");
    }
  }
  for (const char* key : {"icon", "icon_16", "icon_32"}) {
    const Json::Value& icon = entry[key];
    if (!icon.isString() || icon.asString().find_first_of("{:") != std::string::npos) continue;
    if (!IsWithin(icon.asString()) || !IsThere(icon.asString())) {
      Report(icon, "\"" + id + "\": there is no picture \"" + icon.asString() + "\"");
    }
  }
}

void ModuleChecker::Report(const Json::Value& at, const std::string& text) {
  problems_.Add(file_, LineOf(at), text);
}

bool ModuleChecker::IsThere(const std::string& name) const {
  return name.find('\0') == std::string::npos &&
         access((directory_ + "/" + name).c_str(), R_OK) == 0;
}

int ModuleChecker::LineOf(const Json::Value& value) const {
  const auto offset =
      std::min(static_cast<size_t>(std::max<ptrdiff_t>(value.getOffsetStart(), 0)), text_.size());
  return 1 + static_cast<int>(
                 std::count(text_.begin(), text_.begin() + static_cast<ptrdiff_t>(offset), '\n'));
}

}  // namespace program
