// Internationalised domain names: the domain of an address to its ASCII form
// ("xn--" labels) and back, through libidn's IDNA with unassigned code points
// allowed. The local part is never touched.
//
// Both functions split at the first '@' (a bare domain has none), hand the
// domain to the library as UCS-4 and put the local part back in front of the
// answer. They never fail: a domain the library refuses comes back empty, so
// "user@<bad>" gives "user@". The messages' EscapeIdnDomain and
// UnescapeIdnDomain members are these two calls.
#pragma once

#include <cstdint>
#include <vector>

#include "foundation/bstring.h"

namespace kv {

// "user@b\u00fccher.example" -> "user@xn--bcher-kva.example". All-ASCII labels keep
// their case; the three other IDNA dots (U+3002, U+FF0E, U+FF61) become ".".
wbstring EscapeIdnDomain(const wbstring& address);
// "user@xn--bcher-kva.example" -> "user@b\u00fccher.example".
wbstring UnescapeIdnDomain(const wbstring& address);

// The conversions around the library, exposed for tests. UTF-16 to UCS-4
// drops unpaired surrogates and appends the 0 end mark. UCS-4 to UTF-16 stops
// at the first 0 and writes a value of 0xFFFF or more as a surrogate pair of
// (value - 0x10000), each half kept within its surrogate range.
std::vector<uint32_t> Ucs4FromUtf16(const char16_t* text, int32_t units);
wbstring Utf16FromUcs4(const uint32_t* text);

}  // namespace kv
