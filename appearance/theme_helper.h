/// \file theme_helper.h
/// Themes: files of the interface that are replaced by links to a theme's own.
#ifndef ZEM_APPEARANCE_THEME_HELPER_H
#define ZEM_APPEARANCE_THEME_HELPER_H

#include <json/value.h>
#include <webutils/export.h>

#include <string>

namespace VEMO::KTR {

/// Answers from one JSON document, by the names of its members.
class ZEM_EXPORT ThemeGetter {
 public:
  /// \return the document's member; null when there is none, or the document is no object.
  virtual Json::Value GetThemeByKey(const std::string& key);

 protected:
  Json::Value document_;
};

/// A getter over a document of its own.
class ZEM_EXPORT JsonThemeGetter : public ThemeGetter {
 public:
  explicit JsonThemeGetter(Json::Value document);
};

/// Reads the file of themes and applies what it says. The file is an object of themes, each
/// an object of actions, each an object with a list "mappings"; everything else is ignored:
///
/// \code
///   {"dark": {"apply": {"mappings": [{"source": "/usr/vemo/theme/dark/theme.css",
///                                     "target": "/usr/vemo/vemoman/theme/theme.css"}]}}}
/// \endcode
///
/// Whoever may write that file replaces any file of the system. Failures are logged as
/// "ThemeHelper".
///
/// \code
///   VEMO::KTR::ThemeHelper themes;
///   if (themes.Parse()) themes.Action("dark", "apply");
/// \endcode
class ZEM_EXPORT ThemeHelper : public ThemeGetter {
 public:
  /// Reads /usr/vemo/theme/theme.json.
  bool Parse();
  /// Reads another file. \return false when it is missing or no JSON; every lookup answers
  ///     null then, also of what was read before.
  bool Parse(const std::string& path);
  /// Drops what was read.
  void Clear();

  /// The actions of a theme; a getter over null when there is no such theme.
  JsonThemeGetter GetTheme(const std::string& theme);

  /// Applies the mappings of a theme's action, in order. The target is removed (a directory
  /// is not), the source's times are set to now, so that browsers see a new file, and the
  /// target becomes a symbolic link to the source. A source that does not exist leaves its
  /// target removed. Each failure is logged, and the next mapping follows. A mapping without
  /// a text "source" and "target" is passed over; an unknown theme or action does nothing.
  virtual void Action(const std::string& theme, const std::string& action);
};

}  // namespace VEMO::KTR

namespace WebUtils {

/// The theme in use, for the class attribute of pages: the key "theme" of
/// /etc/vemoinfo.conf, at most 255 bytes, else "default".
ZEM_EXPORT std::string getThemeCls();

}  // namespace WebUtils

#endif  // ZEM_APPEARANCE_THEME_HELPER_H
