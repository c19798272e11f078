// Directories and locked files by wide path, for the message directories and
// the file members of the message.
#pragma once

#include <cstdint>

#include "foundation/bstring.h"

namespace kv::platform {

enum class PathKind { kNone, kFile, kDirectory };

// What stands at path, not following a final symbolic link (a link counts as
// a file, so nothing is ever created or deleted through one).
PathKind GetPathKind(const wbstring& path);

// Creates one directory, readable by its owner only.
bool MakeDirectory(const wbstring& path);

// Deletes everything inside the directory at path, descending into
// sub-directories but never through a symbolic link, then the directory
// itself unless content_only. False when path is no directory or at the
// first entry that cannot be deleted.
bool RemoveDirectoryTree(const wbstring& path, bool content_only);

// The per-user temporary directory with a final "/", or empty.
wbstring TempDirectory();

// True when path names an existing regular file (following links).
bool RegularFileExists(const wbstring& path);

// Opens path for reading and writing, creating it if need be, and takes an
// exclusive lock on its first lock_length bytes. The descriptor; -1 when
// the file cannot be opened, -2 when the lock is held by another process.
int OpenAndLockFile(const wbstring& path, int32_t lock_length);

}  // namespace kv::platform
