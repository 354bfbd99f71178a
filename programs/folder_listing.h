// The entries of an opened folder of a share, as a file manager shows them.
#ifndef ZEM_PROGRAMS_FOLDER_LISTING_H
#define ZEM_PROGRAMS_FOLDER_LISTING_H

#include <json/value.h>
#include <sys/stat.h>

#include <string>

#include "programs/share_place.h"

namespace program {

struct ListingOrder {
  std::string by = "name";  ///< "name", "size", "mtime" or "type"
  bool descending = false;
  long offset = 0, limit = 1000;
};

/// {"total", "offset", "entries": [...]}, folders first, those of one page. The platform's own
/// names are left out, and what the share hides from the process; entries whose names are no
/// UTF-8 are counted as "unlisted". \return false, and errno.
bool ListFolder(const SharePlace& place, const ListingOrder& order, Json::Value& listing);

/// {"folders": [{"name", "mtime", "mode", "mount"}]}: the folders in it, for a tree. "mount" is
/// there for mount points: "", "iso", "remote", or "remotefail" for one that does not answer.
bool ListFolders(const SharePlace& place, Json::Value& listing);

/// {"name", "type": "file"|"folder"|"link"|"other", "size", "mtime", "mode", "uid", "gid"}.
Json::Value DescribeEntry(const std::string& name, const struct stat& status);

}  // namespace program

#endif  // ZEM_PROGRAMS_FOLDER_LISTING_H
