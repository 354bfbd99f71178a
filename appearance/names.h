/// \file names.h
/// The fixed texts and paths of pictures and themes. Not for programs.
#ifndef ZEM_APPEARANCE_NAMES_H
#define ZEM_APPEARANCE_NAMES_H

namespace zem {

inline constexpr char kImageSource[] = "image_selector_utils";
inline constexpr char kThemeSource[] = "ThemeHelper";

inline constexpr char kSettingsFile[] = "/etc/vemoinfo.conf";
inline constexpr char kLoginImages[] = "/usr/vemo/etc/login_image";
inline constexpr char kSharingImages[] = "/usr/vemo/etc/fbsharing_login_image";
inline constexpr char kUserSettings[] = "/usersettings";
inline constexpr char kThemeFile[] = "/usr/vemo/theme/theme.json";

inline constexpr char kCopyTool[] = "/bin/cp";
inline constexpr char kImageTool[] = "/usr/bin/convert";

}  // namespace zem

#endif  // ZEM_APPEARANCE_NAMES_H
