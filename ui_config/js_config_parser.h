/// \file js_config_parser.h
/// The desktop's registry: what modules and packages bring to it.
#ifndef ZEM_UI_CONFIG_JS_CONFIG_PARSER_H
#define ZEM_UI_CONFIG_JS_CONFIG_PARSER_H

#include <json/value.h>
#include <webman/vemo_conf.h>
#include <webutils/export.h>

#include <string>

/// The version of a package, for the addresses of its files.
/// \param document the package's part of the registry: the text of the first "version" of
///     its entries, members and entries in ascending order.
/// \return when there is none, the system's version, "-s" and its small-fix number.
ZEM_EXPORT std::string GetPackageVersion(const Json::Value& document);

namespace VEMO::KTR {

using ::GetPackageVersion;

/// Reads the configuration of the desktop's modules and of installed packages into one
/// registry: the scripts and what they define, the applications, the style sheets, the
/// texts, and the applications that may be granted to users.
///
/// \code
///   VEMO::KTR::JSConfigParser parser;
///   parser.language = request.GetUILanguage();
///   parser.ParsePathFromVemoman(nullptr);
///   data["apps"] = parser.GetAppConfig();
/// \endcode
///
/// **Roots.** `Parse` walks below /usr/vemo/vemoman/webman, and paths of the registry are
/// such as "modules/Foo/foo.js"; `ParsePathFromVemoman` walks below /usr/vemo/vemoman, for
/// "webman/modules/Foo/foo.js". The texts themselves need the latter.
///
/// **A module** is a directory with a file "config":
///
///     {"foo.js": {"VEMO.Foo.App": {"type": "app", "texts": "texts", ...}, ...},
///      ".url": {...}}
///
/// Each file that it names must be there, except ".url", for entries without a script.
/// "type" "app", "standalone" and "common_lib" make an entry an application.
/// "grantPrivilege" ("all", "local", "domain") makes it one that may be granted. "texts"
/// names its folder of texts, "additionalCSSFiles" further style sheets, and
/// "white_pkg_list" the applications whose sheets and texts stay when it is served alone.
/// Everything else is passed on. "jsBaseURL", the directory, and "jsID", the id, are set.
///
/// **A package** is a directory of "3rdparty" with a "config", or with key=value files:
/// "application.cfg" for a launcher in the menu, "desktop.cfg" for one on the desktop.
///
/// What is broken is passed over, logged at error priority as "JSConfigParser", and never
/// ends a walk: directories without a configuration silently; values of a wrong kind
/// silently. The order of modules is the file system's. During a walk the working directory
/// of the process is another; it is put back.
///
/// **Served alone.** When the web server serves one application alone, REWRITE_APP is its
/// id, and the style sheets and texts that it does not need are left out.
class ZEM_EXPORT JSConfigParser : public VemoConf {
 public:
  JSConfigParser();
  ~JSConfigParser();

  std::string language;    ///< whose texts: three letters, "enu" at first
  bool debugMode = false;  ///< read "config.debug" in place of "config" where there is one

  /// Walks modules and packages below the folder of programs, and leaves out what an
  /// application that is served alone does not need.
  /// \param application its id; null or empty: REWRITE_APP.
  void Parse(const char* application);
  /// The same below the web root.
  void ParsePathFromVemoman(const char* application);

  /// Walks the modules. \param prefix "vemoman": below the web root.
  void ParseModuleDir(const std::string& prefix);
  /// Reads one module. \param directory from the root of the walk, which is the working
  /// directory. \return whether there was a document.
  bool ParserJSConfig(const std::string& directory);
  /// Adds a document to the registry. \param directory where its files stand.
  void RegisterJS(const std::string& directory, Json::Value config);

  /// Walks the packages. \param prefix "vemoman": below the web root.
  void ParseThirdPartyDir(const std::string& prefix);
  /// Adds the launcher of an "application.cfg". \param path the package's directory.
  /// \param name its name. \return whether there was one.
  bool ParseThirdPartyAppConfig(const std::string& path, const std::string& name);
  /// The same for a "desktop.cfg".
  bool ParseThirdPartyDesktopConfig(const std::string& path, const std::string& name);
  /// A launcher's address. Each part that is null is the request's, and the path empty;
  /// the port is always written. Empty outside of a request (no HTTP_HOST).
  std::string GetURL(const char* protocol, const char* address, const char* port, const char* path);

  /// Adds the sheets of an application to the list, each with the time of its own last
  /// change, and all of its sheets, its "style.css" in any case, to its "css_file".
  void AddAdditionalCSSFiles(const std::string& id);
  /// Leaves out the sheets that an application served alone does not need.
  void ProcessCSSFiles(const char* application);
  void FilterAltPortCSSFiles(const std::string& application);
  /// The same for texts.
  void FilterAltPortStringFiles(const char* application);
  /// Reads the texts of every entry. \param prefix the one of the walk.
  void ParseTexts(const std::string& prefix);

  /// Empties applications, scripts, style sheets and the paths of texts. The texts and the
  /// grantable applications stay: callers that walk again add to them.
  void Clear();

  /// \name The registry
  /// Each gives a copy; null when nothing was added.
  /// @{
  Json::Value GetJSConfigs() const;      ///< {script's path: {id: entry}}
  Json::Value GetAppConfig() const;      ///< {id: entry}
  Json::Value GetCSSFiles() const;       ///< ["path?v=stamp", ...]
  Json::Value GetTexts() const;          ///< {id: path of its folder of texts}
  Json::Value GetGrantableApps() const;  ///< {"local": [id, ...], "domain": [id, ...]}
  /// {id: {section: {key: text}}}. Reads the texts when none were read, always below the
  /// web root: for a walk by `ParsePathFromVemoman`.
  Json::Value GetModuleTexts();
  /// @}

 private:
  void RegisterFile(const std::string& directory, const std::string& file, Json::Value& section);
  void RegisterEntry(const std::string& directory, const std::string& path, const std::string& id,
                     Json::Value& entry);
  void RegisterTexts(const std::string& directory, const std::string& id, const Json::Value& entry);
  bool ParseLauncher(bool desktop, const std::string& path, const std::string& name);

  Json::Value jsConfigs;
  Json::Value cssFiles;
  Json::Value appConfig;
  Json::Value texts;
  Json::Value moduleTexts;
  Json::Value grantableApps;
};

}  // namespace VEMO::KTR

#endif  // ZEM_UI_CONFIG_JS_CONFIG_PARSER_H
