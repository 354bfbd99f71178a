/// \file json_file.h
/// JSON documents in files without locks: whole, or not at all.
#ifndef ZEM_COMMON_JSON_FILE_H
#define ZEM_COMMON_JSON_FILE_H

#include <json/value.h>

#include <string>

namespace zem {

/// Reads a regular file of at most 64 MiB as one JSON document, without comments.
/// \return false, and `value` as it was, when it cannot be opened, is no regular file, no
///     JSON, or nests deeper than the reader goes.
bool JsonFromFile(Json::Value& value, const std::string& path);

/// Writes the document as indented text beside the file, and renames it: a reader meets the
/// old or the new one, and a failure leaves the old one. The mode is the old file's, else
/// 0666 less the umask. The temporary file stands outside of the file's own directory where
/// it can, since such directories are read entry by entry; else its name begins with
/// ".#json.", which VLIBCFileEnumDir leaves out.
bool JsonToFile(const Json::Value& value, const std::string& path);

}  // namespace zem

#endif  // ZEM_COMMON_JSON_FILE_H
