// Writing a file that must stay inside a given directory, whatever name an
// untrusted party chose for it.
#pragma once

#include <cstddef>

#include "foundation/bstring.h"

namespace kv::platform {

// True when name is one plain path component: not empty, no '/', no NUL,
// and neither "." nor "..".
bool IsPlainFileName(const wbstring& name);

// Creates dir/name, or empties an existing regular file of that name, and
// writes the size bytes at data into it. The file is opened relative to the
// directory and never through a symbolic link, so nothing outside dir is
// touched. False when name is not a plain file name, dir is empty or cannot
// be opened, or a write fails.
bool WriteFileInDirectory(const wbstring& dir, const wbstring& name, const char* data, size_t size);

}  // namespace kv::platform
