/// \file string_bundle.h
/// Localized texts of one module of the web interface.
#ifndef ZEM_WEBUTILS_STRING_BUNDLE_H
#define ZEM_WEBUTILS_STRING_BUNDLE_H

#include <vemo/cgi.h>
#include <webutils/export.h>

/// The texts of some sections of a module's string file, in the language of the
/// request, with the product's names filled in (see VEMO::KTR::StringParser).
///
/// A bundle *is* the platform's text context. The names of the sections are kept
/// once a process, in six slots that all bundles share: a bundle that names fewer
/// sections than one before it leaves the other slots as they are, and a later
/// `Text` of any bundle loads those sections too. Programs rely on it: a section
/// that was loaded once can be looked up from then on.
///
/// \code
///   StringBundle texts("common", "error", nullptr, nullptr, nullptr, nullptr);
///   puts(texts.Text("error_system", ""));
/// \endcode
class ZEM_EXPORT StringBundle : public VEMOCGI {
 public:
  /// Whose texts: "/usr/vemo/vemoman/" and the name below.
  enum STRMODULE : int {
    STRMODULE_WEBMAN = 0,
    STRMODULE_MEDIA = 1,
    STRMODULE_FETCH = 2,
    STRMODULE_WEBFM = 3,
    STRMODULE_CAMERA = 4,
    STRMODULE_SCRIPTS = 5,
    STRMODULE_BACKUP = 6
  };

  /// Binds the bundle to the module "webman", loads the sections and keeps their
  /// names. Each may be null; the list ends at the first null. A name of 64 bytes
  /// or more ends the process (abort).
  StringBundle(const char* section1, const char* section2, const char* section3,
               const char* section4, const char* section5, const char* section6);
  /// The same for another module; a value above STRMODULE_BACKUP is "webman".
  StringBundle(STRMODULE module, const char* section1, const char* section2, const char* section3,
               const char* section4, const char* section5, const char* section6);
  ~StringBundle();
  StringBundle(const StringBundle&) = delete;
  StringBundle& operator=(const StringBundle&) = delete;

  /// Keeps the names that are not null in their slots.
  void CacheParams(const char* section1, const char* section2, const char* section3,
                   const char* section4, const char* section5, const char* section6);

  /// Loads the sections whose names are kept, up to the first empty slot; again when
  /// the file has changed. \return the number of sections found.
  int LoadText();

  /// The text of `key`, or `selector` when there is none ("" usually). Never null;
  /// owned by the bundle.
  const char* Text(const char* key, const char* selector);

  /// The same, escaped for use inside a JavaScript string literal.
  const char* TextJscript(const char* key, const char* selector);

 private:
  void Open(const char* directory, const char* section1, const char* section2, const char* section3,
            const char* section4, const char* section5, const char* section6);
  void FillIn(const char* key, const char* selector);
};

#endif  // ZEM_WEBUTILS_STRING_BUNDLE_H
