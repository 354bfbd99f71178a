// The key=value files of packages, and files of texts.
#include <dirent.h>
#include <ui_config/localized_string_parser.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <set>
#include <sstream>

#include "programs/module_check.h"

namespace program {
namespace {

using Keys = std::map<std::string, std::map<std::string, int>>;

constexpr char kEnglish[] = "enu";
constexpr char kByteOrderMark[] = "\xef\xbb\xbf";

bool IsLanguage(const std::string& name) {
  return name.size() == 3 &&
         std::all_of(name.begin(), name.end(), [](char c) { return c >= 'a' && c <= 'z'; });
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);)
    lines.push_back(line);
  return lines;
}

std::vector<std::string> FoldersIn(const std::string& folder) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR*)> opened(opendir(folder.c_str()), closedir);
  while (opened != nullptr) {
    const dirent* entry = readdir(opened.get());
    if (entry == nullptr) break;
    if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// What one language has and the other lacks.
void Compare(const std::string& file, const Keys& has, const Keys& wants, ModuleProblems& problems,
             const char* text) {
  for (const auto& [section, keys] : wants) {
    const auto there = has.find(section);
    for (const auto& [key, line] : keys) {
      if (there == has.end() || there->second.count(key) == 0) {
        problems.Add(file, 0, "[" + section + "] " + key + " " + text);
      }
    }
  }
}

class StringsChecker {
 public:
  StringsChecker(const std::string& path, ModuleProblems& problems)
      : path_(path), problems_(problems) {}

  void Line(const std::string& line) {
    number_++;
    std::string copy = line;
    char *section, *key, *value;
    VEMO::KTR::LocalizedStringParser::ParseLine(copy.data(), &section, &key, &value);
    if (section != nullptr) {
      Section(section);
    } else if (key != nullptr) {
      Pair(key);
    } else if (!IsNothing(line)) {
      Report("is neither a section, nor a pair, nor a comment: it is passed over");
    }
  }

  Keys keys;

 private:
  void Section(const std::string& name) {
    current_ = name;
    in_section_ = true;
    const auto [found, is_new] = seen_.emplace(name, number_);
    if (!is_new) {
      Report("the section [" + name + "] begins anew: what line " + std::to_string(found->second) +
             " began is dropped");
    }
    keys[name].clear();
  }

  void Pair(const std::string& key) {
    if (!in_section_) {
      Report("\"" + key + "\" stands before the first section, and is dropped");
      return;
    }
    if (key.empty()) Report("the pair has no key");
    const auto [found, is_new] = keys[current_].emplace(key, number_);
    if (!is_new) {
      Report("\"" + key + "\" is given in line " + std::to_string(found->second) +
             " already: the last one counts");
    }
  }

  static bool IsNothing(const std::string& line) {
    const size_t start = line.compare(0, 3, kByteOrderMark) == 0 ? 3 : 0;
    const size_t at = line.find_first_not_of(" \t\r", start);
    return at == std::string::npos || line[at] == '#';
  }

  void Report(const std::string& text) { problems_.Add(path_, number_, text); }

  const std::string& path_;
  ModuleProblems& problems_;
  std::map<std::string, int> seen_;
  std::string current_;
  bool in_section_ = false;
  int number_ = 0;
};

// --- Launchers ---

struct Launcher {
  const char* file;
  std::set<std::string> icons, others;
};

const Launcher& LauncherOf(bool desktop) {
  static const std::set<std::string> common = {
      "adminonly", "text", "description", "version", "protocol", "address", "port", "path", "type"};
  static const Launcher menu = {"/application.cfg", {"icon_16", "icon_32"}, common};
  static const Launcher shortcut = {"/desktop.cfg", {"icon"}, common};
  return desktop ? shortcut : menu;
}

bool EqualsIgnoringCase(const std::string& a, const char* b) {
  return strcasecmp(a.c_str(), b) == 0;
}

class LauncherChecker {
 public:
  LauncherChecker(const std::string& directory, bool desktop, ModuleProblems& problems)
      : directory_(directory),
        kind_(LauncherOf(desktop)),
        desktop_(desktop),
        path_(directory + kind_.file),
        problems_(problems) {}

  void Check() {
    std::string text;
    if (!ReadForCheck(path_, text, problems_)) return;
    for (const std::string& line : Lines(text))
      Line(line);
    if (!has_title_) {
      problems_.Add(path_, 0,
                    "has no \"text\": in languages without their own it is called ThirdParty");
    }
  }

 private:
  void Line(std::string line) {
    number_++;
    if (number_ == 1 && line.compare(0, 3, kByteOrderMark) == 0) line.erase(0, 3);
    const size_t start = line.find_first_not_of(" \t\r");
    if (start == std::string::npos || line[start] == '#' || line[start] == ';') return;
    const size_t equals = line.find('=');
    if (line[start] == '[' || equals == std::string::npos) {
      Report("is no pair, and passed over");
      return;
    }
    const std::string key = Trimmed(line.substr(start, equals - start));
    const std::string value = Unquoted(Trimmed(line.substr(equals + 1)));
    const auto [found, is_new] = seen_.emplace(key, number_);
    if (!is_new) {
      Report("\"" + key + "\" is given in line " + std::to_string(found->second) +
             " already: the last one counts");
    }
    Pair(key, value);
  }

  void Pair(const std::string& key, const std::string& value) {
    if (key == "text") has_title_ = true;
    if (kind_.icons.count(key) != 0) {
      Icon(value);
    } else if (kind_.others.count(key) != 0) {
      Value(key, value);
    } else if (!IsTextOfLanguage(key)) {
      Report("the desktop knows no \"" + key + "\"");
    }
  }

  static bool IsTextOfLanguage(const std::string& key) {
    for (const char* prefix : {"text_", "description_"}) {
      if (key.compare(0, std::strlen(prefix), prefix) == 0) {
        return IsLanguage(key.substr(std::strlen(prefix)));
      }
    }
    return false;
  }

  void Icon(const std::string& value) {
    if (value.find("://") != std::string::npos) return;
    // One that begins with a slash is looked for from the web root, wherever that will be.
    const bool elsewhere = value.compare(0, 1, "/") == 0;
    if (value.empty() || (!elsewhere && access((directory_ + "/" + value).c_str(), R_OK) != 0)) {
      Report("there is no picture \"" + value + "\"");
    }
  }

  void Value(const std::string& key, const std::string& value) {
    const auto is = [&](const char* text) { return EqualsIgnoringCase(value, text); };
    if (key == "adminonly" && !is("true") && !is("false")) {
      Report("\"adminonly\" is neither \"true\" nor \"false\": it counts as \"true\"");
    } else if (key == "protocol" && !is("http") && !is("https")) {
      Report("the protocol is neither \"http\" nor \"https\": the request's is taken");
    } else if (key == "port" && !IsPort(value)) {
      Report("the port is no number from 1 to 65535");
    } else if (key == "path" && value.compare(0, 1, "/") != 0) {
      Report("the path does not begin with \"/\", and would run into the port");
    } else if (key == "type" && desktop_) {
      Report("a shortcut's \"type\" does nothing");
    } else if (key == "type" && !is("embedded") && !is("url")) {
      Report("the type is neither \"embedded\" nor \"url\": it counts as \"url\"");
    }
  }

  static bool IsPort(const std::string& text) {
    return !text.empty() && text.size() <= 5 &&
           text.find_first_not_of("0123456789") == std::string::npos && std::stoi(text) > 0 &&
           std::stoi(text) < 65536;
  }

  static std::string Trimmed(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
  }

  static std::string Unquoted(const std::string& text) {
    const bool quoted = text.size() >= 2 && text.front() == text.back() &&
                        (text.front() == '"' || text.front() == '\'');
    return quoted ? text.substr(1, text.size() - 2) : text;
  }

  void Report(const std::string& text) { problems_.Add(path_, number_, text); }

  const std::string directory_;
  const Launcher& kind_;
  const bool desktop_;
  const std::string path_;
  ModuleProblems& problems_;
  std::map<std::string, int> seen_;
  bool has_title_ = false;
  int number_ = 0;
};

}  // namespace

Keys CheckStrings(const std::string& path, ModuleProblems& problems) {
  std::string text;
  if (!ReadForCheck(path, text, problems)) return {};
  StringsChecker checker(path, problems);
  for (const std::string& line : Lines(text))
    checker.Line(line);
  return checker.keys;
}

void CheckTextFolder(const std::string& folder, ModuleProblems& problems) {
  std::map<std::string, Keys> languages;
  for (const std::string& name : FoldersIn(folder)) {
    if (IsLanguage(name)) {
      languages[name] = CheckStrings(folder + "/" + name + "/strings", problems);
    } else {
      problems.Add(folder + "/" + name, 0, "is no language's code, and not looked at");
    }
  }
  const auto english = languages.find(kEnglish);
  if (english == languages.end()) {
    problems.Add(folder, 0, "has no \"enu\", which is shown in languages without their own texts");
    return;
  }
  for (const auto& [name, keys] : languages) {
    const std::string file = folder + "/" + name + "/strings";
    Compare(file, keys, english->second, problems, "is missing, which English has");
    Compare(file, english->second, keys, problems, "is none that English has");
  }
}

void CheckLauncher(const std::string& directory, bool desktop, ModuleProblems& problems) {
  LauncherChecker(directory, desktop, problems).Check();
}

}  // namespace program
