// Removing files and whole folders by descriptor.
#ifndef ZEM_PROGRAMS_FOLDER_REMOVAL_H
#define ZEM_PROGRAMS_FOLDER_REMOVAL_H

#include <string>

namespace program {

/// Removes an entry of an opened folder: a file or a link itself; an empty folder; with `whole`
/// a folder with everything in it, at most 200 levels deep, no mount point in it entered.
/// Nothing outside is touched: links are removed, not followed.
/// \param removed grows by the number of entries that are gone, also after a failure.
/// \return false, and errno, at the first entry that cannot be removed.
bool RemoveEntry(int folder, const std::string& name, bool whole, int& removed);

}  // namespace program

#endif  // ZEM_PROGRAMS_FOLDER_REMOVAL_H
