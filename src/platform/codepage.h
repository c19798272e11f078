// Counted conversion between byte text in a Windows code page and UTF-16,
// with the count-then-fill contract of the Windows functions it replaces:
// call once with a null (or zero-length) destination to learn the count, then
// again with a buffer of that size.
//
// Code pages are Windows numbers. 0 (the system ANSI code page) and 3 (the
// thread's ANSI code page) both mean 1252 here, 1 (OEM) means 437, 2 (Mac) 10000.
// Results are counts of units written or needed; 0 means failure, and
// GetLastError() then says why.
#pragma once

#include <cstdint>

namespace kv::platform {

// Windows error numbers that the conversions report.
enum : uint32_t {
    kErrorSuccess = 0,
    kErrorInvalidParameter = 87,      // unknown code page, bad pointers
    kErrorInsufficientBuffer = 122,   // destination too small
    kErrorInvalidFlags = 1004,
    kErrorNoUnicodeTranslation = 1113,
};

// src_len -1: src is NUL-terminated and the NUL is converted and counted.
// dst_len 0: measure only. With flags 0 invalid input never fails: it becomes
// U+FFFD (UTF-8) or the code page's default character, as Windows does.
int MultiByteToWideChar(int codepage, uint32_t flags, const char* src, int src_len, char16_t* dst,
                        int dst_len);

// Unmappable characters become default_char (or the code page's default, '?')
// and set *used_default when given. default_char and used_default must be null
// for 65000 and 65001.
int WideCharToMultiByte(int codepage, uint32_t flags, const char16_t* src, int src_len, char* dst,
                        int dst_len, const char* default_char = nullptr,
                        bool* used_default = nullptr);

// Error of the last failing conversion on this thread.
uint32_t GetLastError();
void SetLastError(uint32_t error);

// True when conversions know this code page.
bool IsValidCodePage(int codepage);

}  // namespace kv::platform
