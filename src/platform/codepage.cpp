#include "platform/codepage.h"

#include <atomic>
#include <climits>
#include <cstddef>
#include <cstring>

#include "platform/codepage_iconv.h"
#include "platform/codepage_tables.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace kv::platform {

namespace {

using detail::ConvertResult;
using detail::SingleByteTable;

thread_local uint32_t t_last_error = kErrorSuccess;

int Fail(uint32_t error) {
    t_last_error = error;
    return 0;
}

constexpr ConvertResult Err(uint32_t e) { return -static_cast<ConvertResult>(e); }

int Normalize(int cp) {
    switch (cp) {
        case 0:  // CP_ACP
        case 3:  // CP_THREAD_ACP
            return 1252;
        case 1:  // CP_OEMCP
            return 437;
        case 2:  // CP_MACCP
            return 10000;
        default:
            return cp;
    }
}

// ---------------------------------------------------------------------------
// Single-byte tables

// US-ASCII as Windows reads it: the high bit is dropped.
constexpr auto MakeAsciiTable() {
    struct Table {
        char16_t units[256];
    } t{};
    for (int b = 0; b < 256; ++b) t.units[b] = static_cast<char16_t>(b & 0x7F);
    return t;
}
constexpr auto kAscii = MakeAsciiTable();
const SingleByteTable kAsciiTable = {20127, true, kAscii.units};

const SingleByteTable* FindTable(int cp) {
    if (cp == 20127) return &kAsciiTable;
    int lo = 0, hi = detail::kSingleByteTableCount;
    while (lo < hi) {
        int mid = (lo + hi) / 2;
        int c = detail::kSingleByteTables[mid].codepage;
        if (c == cp) return &detail::kSingleByteTables[mid];
        if (c < cp) {
            lo = mid + 1;
        } else {
            hi = mid;
        }
    }
    return nullptr;
}

// The reverse of a table: 64K bytes, built on first use and kept for the life
// of the process. 0 means unmapped except for U+0000 itself.
const uint8_t* ReverseTable(const SingleByteTable* table) {
    static std::atomic<const uint8_t*> built[128];
    int index = table == &kAsciiTable ? 0 : 1 + static_cast<int>(table - detail::kSingleByteTables);
    static_assert(sizeof(built) / sizeof(built[0]) > 64, "room for every table");
    const uint8_t* rev = built[index].load(std::memory_order_acquire);
    if (rev) return rev;
    auto* fresh = new uint8_t[65536]();
    // Lowest byte wins where two bytes give one character (20127's upper half).
    for (int b = 255; b >= 1; --b) {
        char16_t u = table->to_wide[b];
        if (u != 0xFFFD && u != 0) fresh[u] = static_cast<uint8_t>(b);
    }
    const uint8_t* expected = nullptr;
    if (!built[index].compare_exchange_strong(expected, fresh, std::memory_order_acq_rel)) {
        delete[] fresh;
        return expected;
    }
    return fresh;
}

#if defined(__SSE2__)
// Widens the ASCII run at s into d, 16 bytes at a time; returns its length.
// Writes up to 16 units past the run, so the caller needs room for 16 more.
[[gnu::always_inline]] inline size_t WidenAsciiRun(const uint8_t* s, size_t n, char16_t* d, size_t room) {
    size_t i = 0;
    const __m128i zero = _mm_setzero_si128();
    while (i + 16 <= n && (!d || room - i >= 16)) {
        __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i));
        int mask = _mm_movemask_epi8(v);
        if (d) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i), _mm_unpacklo_epi8(v, zero));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i + 8), _mm_unpackhi_epi8(v, zero));
        }
        if (mask != 0) return i + static_cast<size_t>(__builtin_ctz(static_cast<unsigned>(mask)));
        i += 16;
    }
    return i;
}

// Narrows the ASCII run of units at s into d, 16 at a time; returns its length.
[[gnu::always_inline]] inline size_t NarrowAsciiRun(const char16_t* s, size_t n, uint8_t* d, size_t room) {
    size_t i = 0;
    const __m128i high = _mm_set1_epi16(static_cast<short>(0xFF80));
    const __m128i zero = _mm_setzero_si128();
    while (i + 16 <= n && (!d || room - i >= 16)) {
        __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i));
        __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i + 8));
        __m128i ascii = _mm_packs_epi16(_mm_cmpeq_epi16(_mm_and_si128(a, high), zero),
                                        _mm_cmpeq_epi16(_mm_and_si128(b, high), zero));
        unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(ascii));
        if (d) _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i), _mm_packus_epi16(a, b));
        if (mask != 0xFFFF) return i + static_cast<size_t>(__builtin_ctz(~mask));
        i += 16;
    }
    return i;
}
#else
// Portable versions: eight bytes (four units) per step.
[[gnu::always_inline]] inline size_t WidenAsciiRun(const uint8_t* s, size_t n, char16_t* d, size_t room) {
    size_t i = 0;
    while (i + 8 <= n && (!d || room - i >= 8)) {
        uint64_t w;
        std::memcpy(&w, s + i, 8);
        if (w & 0x8080808080808080ull) break;
        if (d) {
            for (int k = 0; k < 8; ++k) d[i + k] = s[i + k];
        }
        i += 8;
    }
    while (i < n && s[i] < 0x80 && (!d || i < room)) {
        if (d) d[i] = s[i];
        ++i;
    }
    return i;
}

[[gnu::always_inline]] inline size_t NarrowAsciiRun(const char16_t* s, size_t n, uint8_t* d, size_t room) {
    size_t i = 0;
    while (i + 4 <= n && (!d || room - i >= 4)) {
        uint64_t w;
        std::memcpy(&w, s + i, 8);
        if (w & 0xFF80FF80FF80FF80ull) break;
        if (d) {
            for (int k = 0; k < 4; ++k) d[i + k] = static_cast<uint8_t>(s[i + k]);
        }
        i += 4;
    }
    while (i < n && s[i] < 0x80 && (!d || i < room)) {
        if (d) d[i] = static_cast<uint8_t>(s[i]);
        ++i;
    }
    return i;
}
#endif

// Every byte gives one unit, so the count is known without reading the text
// unless undefined bytes must be caught.
ConvertResult TableToWide(const SingleByteTable* table, const uint8_t* s, size_t n, char16_t* d,
                          size_t cap, bool strict) {
    const char16_t* map = table->to_wide;
    if (!d) {
        if (strict) {
            for (size_t i = 0; i < n; ++i) {
                if (map[s[i]] == 0xFFFD) return Err(kErrorNoUnicodeTranslation);
            }
        }
        return static_cast<ConvertResult>(n);
    }
    if (cap < n) return Err(kErrorInsufficientBuffer);
    size_t i = 0;
    if (table->ascii_identity) {
        // Blocks of 16: widened at once when all ASCII, else looked up one by
        // one without leaving the block, which keeps mixed text fast.
        while (n - i >= 16) {
#if defined(__SSE2__)
            // Widen all 16, then look up only the bytes with the high bit set.
            __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i));
            const __m128i zero = _mm_setzero_si128();
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i), _mm_unpacklo_epi8(v, zero));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i + 8), _mm_unpackhi_epi8(v, zero));
            for (unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(v)); mask; mask &= mask - 1) {
                size_t k = i + static_cast<size_t>(__builtin_ctz(mask));
                char16_t u = map[s[k]];
                if (u == 0xFFFD && strict) return Err(kErrorNoUnicodeTranslation);
                d[k] = u;
            }
            i += 16;
#else
            size_t run = WidenAsciiRun(s + i, 16, d + i, 16);
            if (run == 16) {
                i += 16;
                continue;
            }
            for (size_t end = i + 16; i < end; ++i) {
                char16_t u = map[s[i]];
                if (u == 0xFFFD && strict) return Err(kErrorNoUnicodeTranslation);
                d[i] = u;
            }
#endif
        }
    }
    for (; i < n; ++i) {
        char16_t u = map[s[i]];
        if (u == 0xFFFD && strict) return Err(kErrorNoUnicodeTranslation);
        d[i] = u;
    }
    return static_cast<ConvertResult>(n);
}

ConvertResult WideToTable(const SingleByteTable* table, const char16_t* s, size_t n, uint8_t* d,
                          size_t cap, const char* default_char, bool* used_default) {
    // Each unit gives one byte, mapped or not.
    if (!d && !used_default) return static_cast<ConvertResult>(n);
    if (d && cap < n) return Err(kErrorInsufficientBuffer);
    const uint8_t* rev = ReverseTable(table);
    uint8_t fallback;
    if (default_char) {
        fallback = static_cast<uint8_t>(*default_char);
    } else {
        // '?' in this page: 0x3F in ASCII-based pages, 0x6F in EBCDIC.
        fallback = rev['?'] ? rev['?'] : '?';
    }
    bool used = false;
    auto one = [&](size_t k) {
        char16_t u = s[k];
        uint8_t b = rev[u];
        if (b == 0 && u != 0) {
            b = fallback;
            used = true;
        }
        if (d) d[k] = b;
    };
    size_t i = 0;
    if (table->ascii_identity) {
        while (n - i >= 16) {
#if defined(__SSE2__)
            // Narrow all 16, then redo only the units above 0x7F.
            __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i));
            __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i + 8));
            const __m128i high = _mm_set1_epi16(static_cast<short>(0xFF80));
            const __m128i zero = _mm_setzero_si128();
            __m128i ascii = _mm_packs_epi16(_mm_cmpeq_epi16(_mm_and_si128(a, high), zero),
                                            _mm_cmpeq_epi16(_mm_and_si128(b, high), zero));
            if (d) _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i), _mm_packus_epi16(a, b));
            unsigned mask = ~static_cast<unsigned>(_mm_movemask_epi8(ascii)) & 0xFFFF;
            for (; mask; mask &= mask - 1) one(i + static_cast<size_t>(__builtin_ctz(mask)));
            i += 16;
#else
            if (NarrowAsciiRun(s + i, 16, d ? d + i : nullptr, 16) == 16) {
                i += 16;
                continue;
            }
            for (size_t end = i + 16; i < end; ++i) one(i);
#endif
        }
    }
    for (; i < n; ++i) one(i);
    if (used && used_default) *used_default = true;
    return static_cast<ConvertResult>(n);
}

// ---------------------------------------------------------------------------
// UTF-8

//   UTF8-2 = %xC2-DF UTF8-tail
//   UTF8-3 = %xE0 %xA0-BF UTF8-tail / %xE1-EC 2UTF8-tail / %xED %x80-9F UTF8-tail
//          / %xEE-EF 2UTF8-tail
//   UTF8-4 = %xF0 %x90-BF 2UTF8-tail / %xF1-F3 3UTF8-tail / %xF4 %x80-8F 2UTF8-tail
// Anything else yields one U+FFFD per maximal subpart: the longest prefix of
// a well-formed sequence, or a single byte that cannot start one.
template <bool kFill>
ConvertResult Utf8ToWide(const uint8_t* s, size_t n, char16_t* d, size_t cap, bool strict) {
    if (!kFill) d = nullptr;
    size_t i = 0, o = 0;
    while (i < n) {
        size_t run = WidenAsciiRun(s + i, n - i, kFill ? d + o : nullptr, kFill ? cap - o : 0);
        i += run;
        o += run;
        if (i == n) break;
        uint8_t b = s[i];
        if (b < 0x80) {
            if (kFill) {
                if (o == cap) return Err(kErrorInsufficientBuffer);
                d[o] = b;
            }
            ++o;
            ++i;
            continue;
        }
        // Well-formed two- and three-byte sequences, the bulk of real text,
        // go straight through; everything else takes the careful road below.
        if (b >= 0xC2 && b < 0xE0 && n - i > 1 && (s[i + 1] & 0xC0) == 0x80) {
            if (kFill) {
                if (o == cap) return Err(kErrorInsufficientBuffer);
                d[o] = static_cast<char16_t>(((b & 0x1F) << 6) | (s[i + 1] & 0x3F));
            }
            ++o;
            i += 2;
            continue;
        }
        if ((b & 0xF0) == 0xE0 && n - i > 2 && (s[i + 1] & 0xC0) == 0x80 &&
            (s[i + 2] & 0xC0) == 0x80) {
            uint32_t u = ((b & 0x0Fu) << 12) | ((s[i + 1] & 0x3Fu) << 6) | (s[i + 2] & 0x3Fu);
            if (u >= 0x800 && (u < 0xD800 || u > 0xDFFF)) {
                if (kFill) {
                    if (o == cap) return Err(kErrorInsufficientBuffer);
                    d[o] = static_cast<char16_t>(u);
                }
                ++o;
                i += 3;
                continue;
            }
        }
        int need;
        uint32_t cp;
        uint8_t lo = 0x80, hi = 0xBF;
        if (b < 0xC2) {
            need = -1;
            cp = 0;
        } else if (b < 0xE0) {
            need = 1;
            cp = b & 0x1F;
        } else if (b < 0xF0) {
            need = 2;
            cp = b & 0x0F;
            if (b == 0xE0) lo = 0xA0;
            if (b == 0xED) hi = 0x9F;  // no surrogates
        } else if (b < 0xF5) {
            need = 3;
            cp = b & 0x07;
            if (b == 0xF0) lo = 0x90;
            if (b == 0xF4) hi = 0x8F;  // nothing above U+10FFFF
        } else {
            need = -1;
            cp = 0;
        }
        size_t j = i + 1;
        bool ok = need > 0;
        for (int k = 0; ok && k < need; ++k) {
            if (j == n || s[j] < lo || s[j] > hi) {
                ok = false;
                break;
            }
            cp = (cp << 6) | (s[j] & 0x3F);
            lo = 0x80;
            hi = 0xBF;
            ++j;
        }
        if (!ok) {
            if (strict) return Err(kErrorNoUnicodeTranslation);
            cp = 0xFFFD;
        }
        i = j;
        if (cp >= 0x10000) {
            if (kFill) {
                if (cap - o < 2) return Err(kErrorInsufficientBuffer);
                cp -= 0x10000;
                d[o] = static_cast<char16_t>(0xD800 + (cp >> 10));
                d[o + 1] = static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
            }
            o += 2;
        } else {
            if (kFill) {
                if (o == cap) return Err(kErrorInsufficientBuffer);
                d[o] = static_cast<char16_t>(cp);
            }
            ++o;
        }
    }
    return static_cast<ConvertResult>(o);
}

#if defined(__SSE2__)
// Measures whole blocks of 8 units that hold no surrogate: each unit gives 1,
// 2 or 3 bytes. Returns the units consumed; stops before a block with a
// surrogate, which the careful road handles.
inline size_t CountUtf8Blocks(const char16_t* s, size_t n, size_t& bytes) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i ff80 = _mm_set1_epi16(static_cast<short>(0xFF80));
    const __m128i f800 = _mm_set1_epi16(static_cast<short>(0xF800));
    const __m128i d800 = _mm_set1_epi16(static_cast<short>(0xD800));
    size_t i = 0;
    while (n - i >= 8) {
        __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i));
        __m128i top = _mm_and_si128(v, f800);
        if (_mm_movemask_epi8(_mm_cmpeq_epi16(top, d800))) break;
        unsigned ascii = static_cast<unsigned>(
            _mm_movemask_epi8(_mm_cmpeq_epi16(_mm_and_si128(v, ff80), zero)));
        unsigned narrow = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi16(top, zero)));
        // Each mask has two bits per unit.
        bytes += 8 + (8 - static_cast<size_t>(__builtin_popcount(ascii)) / 2) +
                 (8 - static_cast<size_t>(__builtin_popcount(narrow)) / 2);
        i += 8;
    }
    return i;
}
#endif

template <bool kFill>
ConvertResult WideToUtf8(const char16_t* s, size_t n, uint8_t* d, size_t cap, bool strict) {
    if (!kFill) d = nullptr;
    size_t i = 0, o = 0;
    while (i < n) {
#if defined(__SSE2__)
        if (!kFill) {
            i += CountUtf8Blocks(s + i, n - i, o);
            if (i == n) break;
        }
#endif
        size_t run = NarrowAsciiRun(s + i, n - i, kFill ? d + o : nullptr, kFill ? cap - o : 0);
        i += run;
        o += run;
        if (i == n) break;
        uint32_t u = s[i++];
        uint8_t buf[4];
        size_t len;
        if (u < 0x80) {
            buf[0] = static_cast<uint8_t>(u);
            len = 1;
        } else if (u < 0x800) {
            buf[0] = static_cast<uint8_t>(0xC0 | (u >> 6));
            buf[1] = static_cast<uint8_t>(0x80 | (u & 0x3F));
            len = 2;
        } else {
            if (u >= 0xD800 && u <= 0xDFFF) {
                if (u <= 0xDBFF && i < n && s[i] >= 0xDC00 && s[i] <= 0xDFFF) {
                    u = 0x10000 + ((u - 0xD800) << 10) + (s[i++] - 0xDC00);
                } else {
                    if (strict) return Err(kErrorNoUnicodeTranslation);
                    u = 0xFFFD;
                }
            }
            if (u >= 0x10000) {
                buf[0] = static_cast<uint8_t>(0xF0 | (u >> 18));
                buf[1] = static_cast<uint8_t>(0x80 | ((u >> 12) & 0x3F));
                buf[2] = static_cast<uint8_t>(0x80 | ((u >> 6) & 0x3F));
                buf[3] = static_cast<uint8_t>(0x80 | (u & 0x3F));
                len = 4;
            } else {
                buf[0] = static_cast<uint8_t>(0xE0 | (u >> 12));
                buf[1] = static_cast<uint8_t>(0x80 | ((u >> 6) & 0x3F));
                buf[2] = static_cast<uint8_t>(0x80 | (u & 0x3F));
                len = 3;
            }
        }
        if (kFill) {
            if (cap - o < len) return Err(kErrorInsufficientBuffer);
            std::memcpy(d + o, buf, len);
        }
        o += len;
    }
    return static_cast<ConvertResult>(o);
}

// ---------------------------------------------------------------------------
// UTF-16 as byte text (1200 little-endian, 1201 big-endian)

ConvertResult Utf16BytesToWide(bool big_endian, const uint8_t* s, size_t n, char16_t* d,
                               size_t cap, bool strict) {
    size_t units = n / 2 + (n & 1);
    if ((n & 1) && strict) return Err(kErrorNoUnicodeTranslation);
    if (!d) return static_cast<ConvertResult>(units);
    if (cap < units) return Err(kErrorInsufficientBuffer);
    for (size_t k = 0; k < n / 2; ++k) {
        uint8_t first = s[2 * k], second = s[2 * k + 1];
        d[k] = big_endian ? static_cast<char16_t>(first << 8 | second)
                          : static_cast<char16_t>(second << 8 | first);
    }
    if (n & 1) d[units - 1] = u'\uFFFD';
    return static_cast<ConvertResult>(units);
}

ConvertResult WideToUtf16Bytes(bool big_endian, const char16_t* s, size_t n, uint8_t* d,
                               size_t cap) {
    size_t bytes = n * 2;
    if (!d) return static_cast<ConvertResult>(bytes);
    if (cap < bytes) return Err(kErrorInsufficientBuffer);
    for (size_t k = 0; k < n; ++k) {
        uint8_t low = static_cast<uint8_t>(s[k]), high = static_cast<uint8_t>(s[k] >> 8);
        d[2 * k] = big_endian ? high : low;
        d[2 * k + 1] = big_endian ? low : high;
    }
    return static_cast<ConvertResult>(bytes);
}

// ---------------------------------------------------------------------------

int Finish(ConvertResult r) {
    if (r < 0) return Fail(static_cast<uint32_t>(-r));
    if (r > INT_MAX) return Fail(kErrorInvalidParameter);
    return static_cast<int>(r);
}

bool TakesOnlyErrFlag(int cp) {
    return cp == 65001 || cp == 54936;
}

bool TakesNoFlags(int cp) {
    return cp == 65000 || (cp >= 50220 && cp <= 50229) || cp == 52936;
}

}  // namespace

uint32_t GetLastError() { return t_last_error; }

void SetLastError(uint32_t error) { t_last_error = error; }

bool IsValidCodePage(int codepage) {
    int cp = Normalize(codepage);
    if (cp == 65001 || cp == 1200 || cp == 1201) return true;
    if (FindTable(cp)) return true;
    return detail::IconvHasCodePage(cp);
}

int MultiByteToWideChar(int codepage, uint32_t flags, const char* src, int src_len, char16_t* dst,
                        int dst_len) {
    if (!src || src_len == 0 || src_len < -1 || dst_len < 0) return Fail(kErrorInvalidParameter);
    int cp = Normalize(codepage);
    const auto* s = reinterpret_cast<const uint8_t*>(src);
    size_t n;
    if (src_len == -1) {
        if (cp == 1200 || cp == 1201) {
            // The terminator is a zero unit: two zero bytes at an even offset.
            n = 0;
            while (s[n] != 0 || s[n + 1] != 0) n += 2;
            n += 2;
        } else {
            n = std::strlen(src) + 1;
        }
    } else {
        n = static_cast<size_t>(src_len);
    }
    char16_t* d = dst_len == 0 ? nullptr : dst;
    size_t cap = d ? static_cast<size_t>(dst_len) : 0;

    uint32_t allowed = kMbPrecomposed | kMbUseGlyphChars | kMbErrInvalidChars;
    if (TakesOnlyErrFlag(cp)) allowed = kMbErrInvalidChars;
    if (TakesNoFlags(cp)) allowed = 0;
    if (flags & ~allowed) return Fail(kErrorInvalidFlags);
    bool strict = (flags & kMbErrInvalidChars) != 0;

    if (cp == 65001) {
        return Finish(d ? Utf8ToWide<true>(s, n, d, cap, strict)
                        : Utf8ToWide<false>(s, n, nullptr, 0, strict));
    }
    if (cp == 1200 || cp == 1201) return Finish(Utf16BytesToWide(cp == 1201, s, n, d, cap, strict));
    if (const SingleByteTable* table = FindTable(cp)) {
        return Finish(TableToWide(table, s, n, d, cap, strict));
    }
    if (!detail::IconvHasCodePage(cp)) return Fail(kErrorInvalidParameter);
    return Finish(detail::IconvToWide(cp, src, n, d, cap, strict));
}

int WideCharToMultiByte(int codepage, uint32_t flags, const char16_t* src, int src_len, char* dst,
                        int dst_len, const char* default_char, bool* used_default) {
    if (!src || src_len == 0 || src_len < -1 || dst_len < 0) return Fail(kErrorInvalidParameter);
    int cp = Normalize(codepage);
    if ((cp == 65001 || cp == 65000) && (default_char || used_default)) {
        return Fail(kErrorInvalidParameter);
    }
    size_t n;
    if (src_len == -1) {
        n = 0;
        while (src[n] != 0) ++n;
        ++n;
    } else {
        n = static_cast<size_t>(src_len);
    }
    auto* d = dst_len == 0 ? nullptr : reinterpret_cast<uint8_t*>(dst);
    size_t cap = d ? static_cast<size_t>(dst_len) : 0;

    uint32_t allowed = kWcNoBestFitChars;
    if (TakesOnlyErrFlag(cp)) allowed = kWcErrInvalidChars;
    if (TakesNoFlags(cp)) allowed = 0;
    if (flags & ~allowed) return Fail(kErrorInvalidFlags);
    bool strict = (flags & kWcErrInvalidChars) != 0;
    if (used_default) *used_default = false;

    if (cp == 65001) {
        return Finish(d ? WideToUtf8<true>(src, n, d, cap, strict)
                        : WideToUtf8<false>(src, n, nullptr, 0, strict));
    }
    if (cp == 1200 || cp == 1201) return Finish(WideToUtf16Bytes(cp == 1201, src, n, d, cap));
    if (const SingleByteTable* table = FindTable(cp)) {
        return Finish(WideToTable(table, src, n, d, cap, default_char, used_default));
    }
    if (!detail::IconvHasCodePage(cp)) return Fail(kErrorInvalidParameter);
    const char* def = default_char ? default_char : "?";
    return Finish(detail::IconvFromWide(cp, src, n, reinterpret_cast<char*>(d), cap, def, 1,
                                        used_default, strict));
}

}  // namespace kv::platform
