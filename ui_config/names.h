/// \file names.h
/// The fixed texts and paths of the desktop's registry. Not for programs.
#ifndef ZEM_UI_CONFIG_NAMES_H
#define ZEM_UI_CONFIG_NAMES_H

#include <string_view>

namespace zem {

inline constexpr char kJSConfigParserSource[] = "JSConfigParser";

/// The two roots that a walk can have: the web root itself, and its folder of programs.
inline constexpr std::string_view kWebRootPrefix = "vemoman";
inline constexpr char kWebRoot[] = "/usr/vemo/vemoman";
inline constexpr char kProgramRoot[] = "/usr/vemo/vemoman/webman";

/// The sheet that every page of a single application keeps.
inline constexpr std::string_view kCommonSheet = "webman/modules/Utils/style.css";

}  // namespace zem

#endif  // ZEM_UI_CONFIG_NAMES_H
