/// \file names.h
/// The fixed texts of the work in shares. Not for programs.
#ifndef ZEM_FILE_SHARE_NAMES_H
#define ZEM_FILE_SHARE_NAMES_H

#include <cstddef>

namespace zem {

inline constexpr char kFileShareSource[] = "file_share";

/// Working buffers for paths, in bytes, NUL included; longer paths are cut.
inline constexpr size_t kPathSize = 4096;

/// Metadata of a share, and the scratch directory in it.
inline constexpr char kEaDir[] = "@eaDir";
inline constexpr char kScratchDir[] = "@tmp";

inline constexpr char kSystemConfiguration[] = "/etc/vemoinfo.conf";

}  // namespace zem

#endif  // ZEM_FILE_SHARE_NAMES_H
