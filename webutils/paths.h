/// \file paths.h
/// The fixed paths that the web utilities use. Not for programs.
#ifndef ZEM_WEBUTILS_PATHS_H
#define ZEM_WEBUTILS_PATHS_H

namespace zem {

inline constexpr char kWebutilsSource[] = "webutils";

/// The factory defaults, key="value" lines.
inline constexpr char kDefaultsFile[] = "/etc.defaults/vemoinfo.conf";

/// The modules that have string files of their own, in the order of
/// StringBundle::STRMODULE.
inline constexpr const char* kStringDirectories[] = {
    "/usr/vemo/vemoman/webman", "/usr/vemo/vemoman/media",  "/usr/vemo/vemoman/fetch",
    "/usr/vemo/vemoman/webfm",  "/usr/vemo/vemoman/camera", "/usr/vemo/vemoman/scripts",
    "/usr/vemo/vemoman/backup",
};

}  // namespace zem

#endif  // ZEM_WEBUTILS_PATHS_H
