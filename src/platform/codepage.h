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
    kErrorInvalidParameter = 87,     // unknown code page, bad pointers
    kErrorInsufficientBuffer = 122,  // destination too small
    kErrorInvalidFlags = 1004,
    kErrorNoUnicodeTranslation = 1113,
};

// Flags, with the Windows values. Callers in this system pass 0.
enum : uint32_t {
    kMbPrecomposed = 0x1,      // accepted, no effect: the tables give precomposed text
    kMbUseGlyphChars = 0x4,    // accepted, no effect
    kMbErrInvalidChars = 0x8,  // invalid input fails with kErrorNoUnicodeTranslation
    kWcErrInvalidChars =
        0x80,  // 65001 and 54936: a lone surrogate fails instead of becoming U+FFFD
    kWcNoBestFitChars = 0x400,  // accepted, no effect: nothing is ever best-fitted
};

// src_len -1: src is NUL-terminated and the NUL is converted and counted;
// src_len 0, a negative dst_len or a null src fail with kErrorInvalidParameter.
// dst null or dst_len 0: measure only. A destination that is too small fails
// with kErrorInsufficientBuffer after writing an unspecified prefix.
// With flags 0 invalid input never fails: it becomes U+FFFD (one per maximal
// ill-formed subpart for UTF-8, one per rejected byte for the multibyte pages).
// Single-byte pages map every byte: holes at 0x80..0x9F give the C1 control of
// that number, other undefined bytes U+FFFD. 20127 (US-ASCII) drops the high
// bit of bytes 0x80..0xFF. 1200 and 1201 read UTF-16LE / UTF-16BE byte text
// (an odd last byte gives U+FFFD). Unknown code pages fail with
// kErrorInvalidParameter, which callers use to fall back to code page 0.
int MultiByteToWideChar(int codepage, uint32_t flags, const char* src, int src_len, char16_t* dst,
                        int dst_len);

// Unmappable characters become default_char (one byte; or the code page's
// default, '?') and set *used_default when given; there is no best fit, so
// U+0100 becomes '?' in 1252, and each unit of an unmappable surrogate pair
// becomes one default character in single-byte pages. Lone surrogates become
// EF BF BD in UTF-8. default_char and used_default must be null for 65000 and
// 65001 (kErrorInvalidParameter). 1200 and 1201 write UTF-16LE / UTF-16BE bytes.
int WideCharToMultiByte(int codepage, uint32_t flags, const char16_t* src, int src_len, char* dst,
                        int dst_len, const char* default_char = nullptr,
                        bool* used_default = nullptr);

// Error of the last failing conversion on this thread.
uint32_t GetLastError();
void SetLastError(uint32_t error);

// True when conversions know this code page (0..3 included). Pages served by
// iconv count only when the installed iconv can open them.
bool IsValidCodePage(int codepage);

namespace detail {

// Tests only: the highest road the UTF-8 conversions may take where the
// processor has it (the careful character-at-a-time road is always there).
// Returns whether the processor has that road.
enum class UtfRoad { kSse2, kAvx2, kAvx512 };
bool AllowUtfRoad(UtfRoad highest);

}  // namespace detail

}  // namespace kv::platform
