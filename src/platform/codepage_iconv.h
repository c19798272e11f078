// Multibyte code pages through glibc iconv. Internal to platform/codepage.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kv::platform::detail {

// Results below 0 are the negated Windows error number.
using ConvertResult = int64_t;

// True when cp (already normalised) is one of the pages served by iconv and
// the installed iconv can open it in both directions. Cached after the first ask.
bool IconvHasCodePage(int cp);

// Bytes to UTF-16. dst null measures. Rejected bytes become U+FFFD one at a
// time (or fail with kErrorNoUnicodeTranslation when strict); a sequence cut
// off at the end becomes one U+FFFD.
ConvertResult IconvToWide(int cp, const char* src, size_t src_len, char16_t* dst, size_t dst_cap,
                          bool strict);

// UTF-16 to bytes. dst null measures. An unmappable character or lone
// surrogate becomes the default bytes after the shift state returns to its
// initial one, and sets *used_default. strict makes a lone surrogate fail.
ConvertResult IconvFromWide(int cp, const char16_t* src, size_t src_len, char* dst, size_t dst_cap,
                            const char* default_bytes, size_t default_len, bool* used_default,
                            bool strict);

}  // namespace kv::platform::detail
