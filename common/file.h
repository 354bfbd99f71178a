/// \file file.h
/// Whole files, from places where anything may stand under a file's name.
#ifndef ZEM_COMMON_FILE_H
#define ZEM_COMMON_FILE_H

#include <string>

#include "common/descriptor.h"

namespace zem {

/// Opens a regular file for reading, close-on-exec. A directory, a device, or a FIFO,
/// which would be waited for, counts as one that cannot be opened.
/// \param flags further flags of open(2).
Descriptor OpenRegularFile(const char* path, int flags = 0);

/// Reads all that follows. \return false when it cannot be read.
bool ReadAll(int fd, std::string& text);

/// Writes all of the text. \return false when it stopped before the end.
bool WriteAll(int fd, const std::string& text);

}  // namespace zem

#endif  // ZEM_COMMON_FILE_H
