// Files by wide path: wide paths become UTF-8 file names. Only this seam
// touches the file system for the message code.
#pragma once

#include <cstdio>
#include <string>

#include "foundation/bstring.h"

namespace kv::platform {

// The UTF-8 bytes of a wide path, stopping at an embedded NUL.
std::string PathFromWide(const wbstring& path);
std::string PathFromWide(const char16_t* path, int32_t units);

// fopen with one of the modes "rb", "wb", "ab"; null on failure, errno set.
FILE* OpenFile(const wbstring& path, const char* mode);

}  // namespace kv::platform
