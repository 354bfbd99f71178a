/// \file json_store.h
/// JSON documents in files, read and written under advisory locks.
///
/// Each file holds one document. Readers take a shared lock and writers an exclusive
/// one (flock(2)), on the file itself, so a reader never meets a file that another
/// process of this store is just rewriting. The store is deliberately simple: a file is
/// rewritten in place, with no copy beside it, no rename, no change of its owner and
/// mode. Programs that write know three things about that:
///
/// - **The first save of a file runs without a lock**: there is nothing to lock yet. Two
///   processes that make a file at the same moment, or one that reads it then, can meet
///   a document that is not complete. Make the file early, or hold a lock of your own.
/// - A lock is waited for as long as it takes.
/// - Only failures to open are reported. When the disk is full the save returns true and
///   the document is cut: load it again where that matters. Nothing is flushed to the
///   disk. SIGTERM is held back while a file is written, so that a client that hangs up
///   cuts none.
///
/// Only regular files are read. A symbolic link is followed, but a process that acts as
/// root follows only links of root's: some of the files stand in directories of the
/// users', who could lead it anywhere.
///
/// Nothing is logged, and no error code is recorded.
#ifndef ZEM_WEBUTILS_JSON_STORE_H
#define ZEM_WEBUTILS_JSON_STORE_H

#include <json/value.h>
#include <webutils/export.h>

#include <string>
#include <vector>

namespace WebUtils {

/// Opens the file, which must be there, and locks it as a whole; waits until the lock
/// is granted.
/// \param exclusive true: for a writer; false: shared, for a reader.
/// \return a handle for `UnlockFile`, close-on-exec; negative, and nothing locked, when
///     the file cannot be opened for reading.
ZEM_EXPORT int LockFile(const char* path, bool exclusive);

/// Releases the lock and closes the handle. A negative handle is allowed: nothing is
/// done.
ZEM_EXPORT void UnlockFile(int handle);

/// Reads a document, under a shared lock where one can be had.
/// \return true: the file was read, and `value` is the document, of any kind. false: the
///     file cannot be opened, and `value` is as it was; or it holds no JSON or one that
///     nests deeper than 1,000 levels, and `value` holds what was read until then.
ZEM_EXPORT bool LoadJsonFile(Json::Value& value, const char* path);

/// Writes the document as one line, under an exclusive lock unless the file is new. A
/// new file gets the process's default mode, 0666 less the umask.
/// \return whether the file could be opened for writing: failures after that are not
///     seen (above). false: the file is as it was.
ZEM_EXPORT bool SaveJsonFile(const Json::Value& value, const char* path);

/// The lines of a text file, without line feeds and carriage returns before them, empty
/// lines left out. Lines are read in pieces of at most 2047 bytes: a longer one becomes
/// several entries. A last line without a line feed keeps a carriage return.
/// \return empty when the file cannot be opened.
ZEM_EXPORT std::vector<std::string> ReadFileLines(const std::string& path);

/// Whether there is a regular file that holds anything. Callers ask whether a stored
/// document is worth loading, so an empty file counts as not there.
ZEM_EXPORT bool checkFileExist(std::string path);

}  // namespace WebUtils

#endif  // ZEM_WEBUTILS_JSON_STORE_H
