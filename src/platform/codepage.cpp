#include "platform/codepage.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstddef>
#include <cstring>

#include "platform/codepage_iconv.h"
#include "platform/codepage_tables.h"

#if defined(__SSE2__)
#include <emmintrin.h>
// GCC 12 takes the AVX-512 headers' deliberately undefined values for
// uninitialized reads.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
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

constexpr ConvertResult Err(uint32_t e) {
    return -static_cast<ConvertResult>(e);
}

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
[[gnu::always_inline]] inline size_t WidenAsciiRun(const uint8_t* s, size_t n, char16_t* d,
                                                   size_t room) {
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
[[gnu::always_inline]] inline size_t NarrowAsciiRun(const char16_t* s, size_t n, uint8_t* d,
                                                    size_t room) {
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
[[gnu::always_inline]] inline size_t WidenAsciiRun(const uint8_t* s, size_t n, char16_t* d,
                                                   size_t room) {
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

[[gnu::always_inline]] inline size_t NarrowAsciiRun(const char16_t* s, size_t n, uint8_t* d,
                                                    size_t room) {
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

#if defined(__SSE2__)
// Hardware prefetchers (notably under virtual machines) fall behind a
// stream that is also busy computing; asking for the input a little ahead
// keeps the long conversions' loads coming from cache. A prefetch never
// faults, so running past the end is harmless.
constexpr uintptr_t kPrefetchAhead = 4096;

[[gnu::always_inline]] inline void PrefetchAhead(const void* p) {
    _mm_prefetch(reinterpret_cast<const char*>(reinterpret_cast<uintptr_t>(p) + kPrefetchAhead),
                 _MM_HINT_T0);
}

bool UseAvx2();

// What the AVX2 roads need of a table whose ASCII half is ASCII: where its
// top stretch of bytes that map to the same number starts (0xA0 in 1252,
// 0x80 in 28591, 0x100 in most), and the units of the bytes below that, by
// high nibble, split into low and high byte planes for shuffles.
struct TablePlan {
    unsigned same_from;
    alignas(16) uint8_t low[8][16];
    alignas(16) uint8_t high[8][16];
};

__attribute__((target("avx2"))) inline __m256i Table16Of(const uint8_t* table) {
    return _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(table)));
}

// Built on first use and kept for the life of the process, like ReverseTable.
const TablePlan* PlanFor(const SingleByteTable* table) {
    static std::atomic<const TablePlan*> built[128];
    int index = table == &kAsciiTable ? 0 : 1 + static_cast<int>(table - detail::kSingleByteTables);
    const TablePlan* plan = built[index].load(std::memory_order_acquire);
    if (plan) return plan;
    auto* fresh = new TablePlan{};
    fresh->same_from = 0x100;
    while (fresh->same_from > 0x80 &&
           table->to_wide[fresh->same_from - 1] == fresh->same_from - 1) {
        --fresh->same_from;
    }
    for (int b = 0x80; b < 0x100; ++b) {
        fresh->low[(b >> 4) - 8][b & 15] = static_cast<uint8_t>(table->to_wide[b]);
        fresh->high[(b >> 4) - 8][b & 15] = static_cast<uint8_t>(table->to_wide[b] >> 8);
    }
    const TablePlan* expected = nullptr;
    if (!built[index].compare_exchange_strong(expected, fresh, std::memory_order_acq_rel)) {
        delete fresh;
        return expected;
    }
    return fresh;
}

// Bytes to units 32 at a time: the bytes below the plan's top stretch are
// looked up a high nibble at a time by shuffles, the rest widened. Returns
// the bytes done (a multiple of 32), or an error under strict.
__attribute__((target("avx2"))) ConvertResult TableToWideAvx2(const TablePlan* plan,
                                                              const uint8_t* s, size_t n,
                                                              char16_t* d, bool strict) {
    const unsigned groups = (plan->same_from - 0x80 + 15) / 16;
    const __m256i low4 = _mm256_set1_epi8(0x0F);
    const __m256i zero = _mm256_setzero_si256();
    size_t i = 0;
    for (; n - i >= 32; i += 32) {
        PrefetchAhead(s + i);
        __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + i));
        __m256i low = v, high = zero;
        if (_mm256_movemask_epi8(v) != 0 && groups) {
            __m256i nibble = _mm256_and_si256(_mm256_srli_epi16(v, 4), low4);
            __m256i index = _mm256_and_si256(v, low4);
            for (unsigned g = 0; g < groups; ++g) {
                __m256i here =
                    _mm256_cmpeq_epi8(nibble, _mm256_set1_epi8(static_cast<char>(8 + g)));
                low = _mm256_blendv_epi8(low, _mm256_shuffle_epi8(Table16Of(plan->low[g]), index),
                                         here);
                high = _mm256_blendv_epi8(
                    high, _mm256_shuffle_epi8(Table16Of(plan->high[g]), index), here);
            }
            if (strict) {
                __m256i undefined = _mm256_and_si256(
                    _mm256_cmpeq_epi8(low, _mm256_set1_epi8(static_cast<char>(0xFD))),
                    _mm256_cmpeq_epi8(high, _mm256_set1_epi8(static_cast<char>(0xFF))));
                if (_mm256_movemask_epi8(undefined)) return Err(kErrorNoUnicodeTranslation);
            }
        }
        __m256i first = _mm256_unpacklo_epi8(low, high), second = _mm256_unpackhi_epi8(low, high);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + i),
                            _mm256_permute2x128_si256(first, second, 0x20));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + i + 16),
                            _mm256_permute2x128_si256(first, second, 0x31));
    }
    return static_cast<ConvertResult>(i);
}

// 0xFFFF in the units of u that are ASCII or in [from, from + span].
__attribute__((target("avx2"))) inline __m256i Direct(__m256i u, __m256i from, __m256i span) {
    __m256i above = _mm256_sub_epi16(u, from);
    return _mm256_or_si256(_mm256_cmpeq_epi16(_mm256_min_epu16(u, _mm256_set1_epi16(0x7F)), u),
                           _mm256_cmpeq_epi16(_mm256_min_epu16(above, span), above));
}

// Units to bytes 32 at a time: ASCII and the plan's top stretch narrowed,
// the rest through `one`. Returns the units done (a multiple of 32).
template <class One>
__attribute__((target("avx2"))) size_t WideToTableAvx2(const TablePlan* plan, const char16_t* s,
                                                       size_t n, uint8_t* d, One one) {
    // With no top stretch the second range is ASCII again.
    unsigned lowest = plan->same_from < 0x100 ? plan->same_from : 0;
    const __m256i from = _mm256_set1_epi16(static_cast<short>(lowest));
    const __m256i span = _mm256_set1_epi16(static_cast<short>(lowest ? 0xFF - lowest : 0x7F));
    size_t i = 0;
    for (; n - i >= 32; i += 32) {
        PrefetchAhead(s + i);
        __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + i));
        __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + i + 16));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + i),
                            _mm256_permute4x64_epi64(_mm256_packus_epi16(a, b), 0xD8));
        uint32_t kept = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_permute4x64_epi64(
            _mm256_packs_epi16(Direct(a, from, span), Direct(b, from, span)), 0xD8)));
        for (uint32_t m = ~kept; m; m &= m - 1) one(i + static_cast<size_t>(__builtin_ctz(m)));
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
#if defined(__SSE2__)
    if (table->ascii_identity && n >= 32 && UseAvx2()) {
        ConvertResult done = TableToWideAvx2(PlanFor(table), s, n, d, strict);
        if (done < 0) return done;
        i = static_cast<size_t>(done);
    }
#endif
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
            for (unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(v)); mask;
                 mask &= mask - 1) {
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
        fallback = rev[0x3F] ? rev[0x3F] : '?';
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
#if defined(__SSE2__)
    if (table->ascii_identity && d && n >= 32 && UseAvx2())
        i = WideToTableAvx2(PlanFor(table), s, n, d, one);
#endif
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
//
// Two roads. The careful one below goes a character at a time and decides
// every case. The window road (under SSE2) takes 64 bytes at once when all
// of them are well-formed and hands anything else to the careful road, so
// the careful road alone says what ill-formed input becomes.

// The careful road from i up to at least stop (or the end), always stopping
// between characters. Returns 0, or the error to report.
template <bool kFill>
ConvertResult Utf8ToWideCareful(const uint8_t* s, size_t n, size_t& i_io, size_t stop, char16_t* d,
                                size_t cap, size_t& o_io, bool strict) {
    size_t i = i_io, o = o_io;
    while (i < stop) {
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
        // Well-formed two- and three-byte sequences go straight through.
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
    i_io = i;
    o_io = o;
    return 0;
}

#if defined(__SSE2__)
constexpr auto MakeLeadLengths() {
    struct Lengths {
        uint8_t of[256];
    } t{};
    for (int b = 0; b < 256; ++b) {
        t.of[b] = b < 0x80 ? 1 : b < 0xC2 ? 0 : b < 0xE0 ? 2 : b < 0xF0 ? 3 : b < 0xF5 ? 4 : 0;
    }
    return t;
}
// Sequence length by first byte; 0 for a byte that cannot start one.
constexpr auto kLeadLength = MakeLeadLengths();

// Decodes the len-byte sequence at s (four bytes readable) with no branch on
// the bytes. False unless it is well-formed; len 0 is never well-formed.
[[gnu::always_inline]] inline bool DecodeSequence(const uint8_t* s, uint32_t len, uint32_t& cp) {
    static constexpr uint32_t kTailMask[5] = {0, 0, 0x00C00000, 0x00C0C000, 0x00C0C0C0};
    static constexpr uint32_t kTailBits[5] = {1, 0, 0x00800000, 0x00808000, 0x00808080};
    static constexpr uint32_t kLeadBits[5] = {0, 0x7F, 0x1F, 0x0F, 0x07};
    static constexpr uint32_t kLeast[5] = {0, 0, 0x80, 0x800, 0x10000};
    uint32_t w;
    std::memcpy(&w, s, 4);
    w = __builtin_bswap32(w);  // first byte on top
    uint32_t tails = ((w >> 4) & 0x3F000) | ((w >> 2) & 0xFC0) | (w & 0x3F);
    cp = ((((w >> 24) & kLeadBits[len]) << 18) | tails) >> (6 * (4 - len));
    // The least value per length rules out overlong forms (C0, C1, E0 80-9F,
    // F0 80-8F); the other two bounds rule out ED A0-BF and F4 90-BF and up.
    return static_cast<int>((w & kTailMask[len]) == kTailBits[len]) &
           static_cast<int>(cp >= kLeast[len]) & static_cast<int>(cp <= 0x10FFFF) &
           static_cast<int>(cp - 0xD800 >= 0x800);
}

[[gnu::always_inline]] inline void StoreWidened(char16_t* d, __m128i v) {
    const __m128i zero = _mm_setzero_si128();
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm_unpacklo_epi8(v, zero));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 8), _mm_unpackhi_epi8(v, zero));
}

// Set bits; without POPCNT in the baseline the builtin would be a call.
[[gnu::always_inline]] inline size_t Popcount(uint32_t x) {
#if defined(__POPCNT__)
    return static_cast<size_t>(__builtin_popcount(x));
#else
    x = x - ((x >> 1) & 0x55555555u);
    x = (x & 0x33333333u) + ((x >> 2) & 0x33333333u);
    return static_cast<size_t>((((x + (x >> 4)) & 0x0F0F0F0Fu) * 0x01010101u) >> 24);
#endif
}

// Sum of the 16 bytes of v.
[[gnu::always_inline]] inline size_t SumBytes(__m128i v) {
    __m128i sums = _mm_sad_epu8(v, _mm_setzero_si128());
    return static_cast<size_t>(_mm_cvtsi128_si32(sums) +
                               _mm_cvtsi128_si32(_mm_srli_si128(sums, 8)));
}

// The window road for 64 bytes at s, which starts a character; 96 bytes are
// readable. Returns the bytes taken (a character cut by the end of the window
// is left for the next) and their units in `units`, or 0 when anything in
// the window is ill-formed. With d (room for 96 units), the units are written
// there, and garbage up to 32 units past them for the next window to cover.
//
// Every sixteen bytes are first written widened where they would go if they
// were all ASCII; then each multibyte character, in order, writes itself and
// the widened sixteen bytes after it. Whatever a write gets wrong lies past a
// later multibyte character, which rewrites it.
template <bool kFill>
[[gnu::always_inline]] inline size_t Utf8Window(const uint8_t* s, char16_t* d, size_t& units) {
    static constexpr uint64_t kTailsOf[5] = {0, 0, 1, 3, 7};
    __m128i v[4], tail_v[4], four_v[4];
    uint64_t high = 0, tail = 0;
    for (int k = 0; k < 4; ++k) {
        v[k] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 16 * k));
        tail_v[k] = _mm_cmplt_epi8(v[k], _mm_set1_epi8(static_cast<char>(0xC0)));
        four_v[k] = _mm_cmpgt_epi8(v[k], _mm_set1_epi8(static_cast<char>(0xEF)));
        auto bits = [&](__m128i m) {
            return static_cast<uint64_t>(static_cast<uint32_t>(_mm_movemask_epi8(m))) << (16 * k);
        };
        high |= bits(v[k]);
        tail |= bits(tail_v[k]);
    }
    if (high == 0) {
        if (kFill) {
            for (int k = 0; k < 4; ++k) StoreWidened(d + 16 * k, v[k]);
        }
        units = 64;
        return 64;
    }
    uint64_t leads = high & ~tail;
    if (leads == 0) return 0;
    size_t last = 63 - static_cast<size_t>(__builtin_clzll(leads));
    size_t taken = last + kLeadLength.of[s[last]] > 64 ? last : 64;
    uint64_t in = taken == 64 ? ~0ull : (1ull << taken) - 1;
    if (kFill) {
        // Units per byte: none for a tail, two for a four-byte lead (the
        // compare for those also took ASCII), else one.
        // Well-formed text has no more units than bytes before any byte; the
        // bound keeps ill-formed windows (F5..FF count two) inside the room.
        size_t at = 0;
        for (size_t k = 0; k < 4; ++k) {
            StoreWidened(d + std::min(at, 16 * k), v[k]);
            __m128i four = _mm_and_si128(four_v[k], _mm_cmplt_epi8(v[k], _mm_setzero_si128()));
            at += SumBytes(_mm_add_epi8(_mm_sub_epi8(_mm_set1_epi8(1), four), tail_v[k]));
        }
    }
    // Each lead adds its tails to `tails` and `claimed`; the units before a
    // lead are its offset less the tails before it plus the pairs before it.
    // Leaving at the first ill-formed sequence keeps the characters taken so
    // far apart, so the positions stay inside the window.
    size_t tails = 0, pairs = 0;
    uint64_t claimed = 0;
    for (uint64_t m = leads & in; m; m &= m - 1) {
        size_t q = static_cast<size_t>(__builtin_ctzll(m));
        uint32_t len = kLeadLength.of[s[q]];
        uint32_t cp;
        if (!DecodeSequence(s + q, len, cp)) return 0;
        claimed |= kTailsOf[len] << q << 1;
        bool pair = len == 4;
        if (kFill) {
            size_t p = q - tails + pairs;
            d[p] = static_cast<char16_t>(pair ? 0xD7C0 + (cp >> 10) : cp);
            d[p + 1] = static_cast<char16_t>(0xDC00 | (cp & 0x3FF));
            StoreWidened(d + p + 1 + pair,
                         _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + q + len)));
        }
        tails += len - 1;
        pairs += pair;
    }
    // Every tail must belong to a lead.
    if (claimed != (tail & in)) return 0;
    units = taken - tails + pairs;
    return taken;
}

// The AVX2 measuring road for UTF-8, chosen at run time: the same 64-byte
// windows as Utf8Window, but validated whole with three table lookups per
// byte (pairs of lead and following byte, and the bytes two and three after a
// lead of three or four), so no character is decoded. Ill-formed windows go
// to the careful road as before.
__attribute__((target("avx2"))) inline __m256i Table16(char a0, char a1, char a2, char a3, char a4,
                                                       char a5, char a6, char a7, char a8, char a9,
                                                       char a10, char a11, char a12, char a13,
                                                       char a14, char a15) {
    return _mm256_broadcastsi128_si256(
        _mm_setr_epi8(a0, a1, a2, a3, a4, a5, a6, a7, a8, a9, a10, a11, a12, a13, a14, a15));
}

// Nonzero bytes where the byte of `in` ends, or should continue, an
// ill-formed sequence; `before` is the 32 bytes in front of it.
__attribute__((target("avx2"))) inline __m256i Utf8ErrorsAvx2(__m256i in, __m256i before) {
    // Bits: what a byte pair may be wrong about.
    constexpr char kShort = 1 << 0;      // lead or ASCII, then lead or ASCII
    constexpr char kLong = 1 << 1;       // ASCII, then tail
    constexpr char kOverlong3 = 1 << 2;  // E0 80..9F
    constexpr char kLarge = 1 << 3;      // F4 90..BF, F5..FF then 90..BF
    constexpr char kSurrogate = 1 << 4;  // ED A0..BF
    constexpr char kOverlong2 = 1 << 5;  // C0, C1 then a tail
    constexpr char kLarge80 = 1 << 6;    // F5..FF then 80..8F; also F0 80..8F
    constexpr char kTwoTails = static_cast<char>(1 << 7);
    constexpr char kCarry = kShort | kLong | kTwoTails;
    constexpr char kAbove = kCarry | kLarge | kLarge80;
    const __m256i low4 = _mm256_set1_epi8(0x0F);
    __m256i shifted = _mm256_permute2x128_si256(before, in, 0x21);
    __m256i prev1 = _mm256_alignr_epi8(in, shifted, 15);
    __m256i prev2 = _mm256_alignr_epi8(in, shifted, 14);
    __m256i prev3 = _mm256_alignr_epi8(in, shifted, 13);
    __m256i first_high = _mm256_shuffle_epi8(
        Table16(kLong, kLong, kLong, kLong, kLong, kLong, kLong, kLong, kTwoTails, kTwoTails,
                kTwoTails, kTwoTails, kShort | kOverlong2, kShort, kShort | kOverlong3 | kSurrogate,
                kShort | kLarge | kLarge80),
        _mm256_and_si256(_mm256_srli_epi16(prev1, 4), low4));
    __m256i first_low = _mm256_shuffle_epi8(
        Table16(kCarry | kOverlong3 | kOverlong2 | kLarge80, kCarry | kOverlong2, kCarry, kCarry,
                kCarry | kLarge, kAbove, kAbove, kAbove, kAbove, kAbove, kAbove, kAbove, kAbove,
                kAbove | kSurrogate, kAbove, kAbove),
        _mm256_and_si256(prev1, low4));
    constexpr char kTail = kLong | kOverlong2 | kTwoTails;
    __m256i second_high =
        _mm256_shuffle_epi8(Table16(kShort, kShort, kShort, kShort, kShort, kShort, kShort, kShort,
                                    kTail | kOverlong3 | kLarge80, kTail | kOverlong3 | kLarge,
                                    kTail | kSurrogate | kLarge, kTail | kSurrogate | kLarge,
                                    kShort, kShort, kShort, kShort),
                            _mm256_and_si256(_mm256_srli_epi16(in, 4), low4));
    __m256i pairs = _mm256_and_si256(_mm256_and_si256(first_high, first_low), second_high);
    // Two or three bytes after a lead of three or four must be tails, which
    // the pair check saw as "two tails"; anywhere else two tails are wrong.
    __m256i third = _mm256_subs_epu8(prev2, _mm256_set1_epi8(static_cast<char>(0xE0 - 0x80)));
    __m256i fourth = _mm256_subs_epu8(prev3, _mm256_set1_epi8(static_cast<char>(0xF0 - 0x80)));
    __m256i must_tail =
        _mm256_and_si256(_mm256_or_si256(third, fourth), _mm256_set1_epi8(kTwoTails));
    return _mm256_xor_si256(must_tail, pairs);
}

__attribute__((target("avx2"))) inline uint64_t Mask64(__m256i lo, __m256i hi) {
    return static_cast<uint32_t>(_mm256_movemask_epi8(lo)) |
           static_cast<uint64_t>(static_cast<uint32_t>(_mm256_movemask_epi8(hi))) << 32;
}

// Counts what Utf8Window would: the bytes taken from the 64 at s (all
// readable) and their units, or 0 when the window is ill-formed.
__attribute__((target("avx2,popcnt"))) inline size_t Utf8CountWindowAvx2(const uint8_t* s,
                                                                         size_t& units) {
    __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s));
    __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + 32));
    uint64_t high = Mask64(a, b);
    if (high == 0) {
        units = 64;
        return 64;
    }
    const __m256i c0 = _mm256_set1_epi8(static_cast<char>(0xC0));
    const __m256i ef = _mm256_set1_epi8(static_cast<char>(0xEF));
    uint64_t tail = Mask64(_mm256_cmpgt_epi8(c0, a), _mm256_cmpgt_epi8(c0, b));
    uint64_t four = Mask64(_mm256_cmpgt_epi8(a, ef), _mm256_cmpgt_epi8(b, ef)) & high;
    uint64_t leads = high & ~tail;
    if (leads == 0) return 0;
    size_t last = 63 - static_cast<size_t>(__builtin_clzll(leads));
    size_t taken = last + kLeadLength.of[s[last]] > 64 ? last : 64;
    const __m256i zero = _mm256_setzero_si256();
    uint64_t bad = ~Mask64(_mm256_cmpeq_epi8(Utf8ErrorsAvx2(a, zero), zero),
                           _mm256_cmpeq_epi8(Utf8ErrorsAvx2(b, a), zero));
    uint64_t in;
    if (taken == 64) {
        // Nothing may be left open at the end of the window.
        if (bad | (s[63] >= 0xC0) | (s[62] >= 0xE0) | (s[61] >= 0xF0)) return 0;
        in = ~0ull;
    } else {
        // The lead at `taken` flags a sequence left open in front of it.
        if (bad & ((2ull << taken) - 1)) return 0;
        in = (1ull << taken) - 1;
    }
    units = taken - static_cast<size_t>(__builtin_popcountll(tail & in)) +
            static_cast<size_t>(__builtin_popcountll(four & in));
    return taken;
}

// Whether the `len` bytes at s (at least 64) are well-formed and end with a
// whole character; if so their units go to `units`. Mostly-clean text is
// measured this way in long stretches, with no per-window bookkeeping.
__attribute__((target("avx2,popcnt"))) inline bool Utf8CountStretchAvx2(const uint8_t* s,
                                                                        size_t len, size_t& units) {
    const __m256i zero = _mm256_setzero_si256();
    const __m256i c0 = _mm256_set1_epi8(static_cast<char>(0xC0));
    const __m256i ef = _mm256_set1_epi8(static_cast<char>(0xEF));
    __m256i errors = zero, before = zero;
    size_t tails = 0, fours = 0;
    size_t k = 0;
    for (; k + 32 <= len; k += 32) {
        PrefetchAhead(s + k);
        __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + k));
        errors = _mm256_or_si256(errors, Utf8ErrorsAvx2(v, before));
        tails += static_cast<size_t>(__builtin_popcount(
            static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpgt_epi8(c0, v)))));
        fours += static_cast<size_t>(__builtin_popcount(static_cast<uint32_t>(
            _mm256_movemask_epi8(_mm256_and_si256(_mm256_cmpgt_epi8(v, ef), v)))));
        before = v;
    }
    if (k < len) {
        // The 32 bytes ending the stretch, counting only those not seen yet.
        uint32_t fresh = ~0u << (k + 32 - len);
        __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + len - 32));
        before = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + len - 64));
        errors = _mm256_or_si256(errors, Utf8ErrorsAvx2(v, before));
        tails += static_cast<size_t>(__builtin_popcount(
            static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpgt_epi8(c0, v))) & fresh));
        fours += static_cast<size_t>(
            __builtin_popcount(static_cast<uint32_t>(_mm256_movemask_epi8(
                                   _mm256_and_si256(_mm256_cmpgt_epi8(v, ef), v))) &
                               fresh));
    }
    if (!_mm256_testz_si256(errors, errors)) return false;
    if ((s[len - 1] >= 0xC0) | (s[len - 2] >= 0xE0) | (s[len - 3] >= 0xF0)) return false;
    units = len - tails + fours;
    return true;
}

__attribute__((target("avx2,popcnt"))) ConvertResult Utf8CountAvx2(const uint8_t* s, size_t n,
                                                                   bool strict) {
    constexpr size_t kStretch = 512;
    size_t i = 0, o = 0;
    while (n - i >= 64) {
        size_t stop = n;
        if (n - i >= kStretch + 4) {
            // End the stretch before a byte that can start a character.
            size_t end = i + kStretch;
            while (end > i + kStretch - 3 && (s[end] & 0xC0) == 0x80) --end;
            size_t units;
            if (Utf8CountStretchAvx2(s + i, end - i, units)) {
                i = end;
                o += units;
                continue;
            }
            // Something in it is ill-formed: window by window through it.
            stop = end;
        }
        while (i < stop && n - i >= 64) {
            size_t units;
            size_t taken = Utf8CountWindowAvx2(s + i, units);
            if (taken) {
                i += taken;
                o += units;
                continue;
            }
            if (ConvertResult r = Utf8ToWideCareful<false>(s, n, i, i + 64, nullptr, 0, o, strict))
                return r;
        }
    }
    if (ConvertResult r = Utf8ToWideCareful<false>(s, n, i, n, nullptr, 0, o, strict)) return r;
    return static_cast<ConvertResult>(o);
}

// Widens the 16 bytes at s into d.
__attribute__((target("avx2"))) inline void StoreWidenedAvx2(char16_t* d, const uint8_t* s) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(d),
                        _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s))));
}

// Byte offsets of the set bits of an 8-bit mask, lowest first, with 0x80
// (which a shuffle reads as zero, and stays so when 1 or 2 is added) in the
// slots past the last.
constexpr auto MakeStartOffsets() {
    struct Offsets {
        uint64_t of[256];
    } t{};
    for (int m = 0; m < 256; ++m) {
        uint64_t v = 0x8080808080808080ull;
        int k = 0;
        for (int b = 0; b < 8; ++b) {
            if ((m >> b) & 1) {
                v = (v & ~(0xFFull << (8 * k))) | static_cast<uint64_t>(b) << (8 * k);
                ++k;
            }
        }
        t.of[m] = v;
    }
    return t;
}
constexpr auto kStartOffsets = MakeStartOffsets();

// Decodes the characters that start at the set bits of `starts` in the 16
// well-formed bytes at s (24 readable) into d (room for 24 units). Each half
// gathers the first, second and third byte of its characters with one
// shuffle each, in its own 128-bit lane. A character of four bytes starts
// twice: at its lead for the high surrogate and at its third byte for the
// low one; kFour says whether any is here. Returns the units written;
// garbage may follow them.
template <bool kFour>
__attribute__((target("avx2,popcnt"))) inline size_t DecodeSixteenAvx2(const uint8_t* s,
                                                                       uint32_t starts,
                                                                       char16_t* d) {
    __m256i text = _mm256_inserti128_si256(
        _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s))),
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 8)), 1);
    uint32_t first = starts & 0xFF, second = (starts >> 8) & 0xFF;
    __m256i at = _mm256_inserti128_si256(
        _mm256_castsi128_si256(_mm_cvtsi64_si128(static_cast<long long>(kStartOffsets.of[first]))),
        _mm_cvtsi64_si128(static_cast<long long>(kStartOffsets.of[second])), 1);
    const __m256i one = _mm256_set1_epi8(1);
    const __m256i zero = _mm256_setzero_si256();
    __m256i at1 = _mm256_add_epi8(at, one);
    __m256i b0 = _mm256_unpacklo_epi8(_mm256_shuffle_epi8(text, at), zero);
    __m256i b1 = _mm256_unpacklo_epi8(_mm256_shuffle_epi8(text, at1), zero);
    __m256i b2 = _mm256_unpacklo_epi8(_mm256_shuffle_epi8(text, _mm256_add_epi8(at1, one)), zero);
    // Leads here are below 80, or C2..EF, where the low five bits of a lead of
    // three are its low four.
    const __m256i tail_bits = _mm256_set1_epi16(0x3F);
    __m256i two =
        _mm256_or_si256(_mm256_slli_epi16(_mm256_and_si256(b0, _mm256_set1_epi16(0x1F)), 6),
                        _mm256_and_si256(b1, tail_bits));
    __m256i three = _mm256_or_si256(_mm256_slli_epi16(two, 6), _mm256_and_si256(b2, tail_bits));
    __m256i units = _mm256_blendv_epi8(b0, two, _mm256_cmpgt_epi16(b0, _mm256_set1_epi16(0xBF)));
    units = _mm256_blendv_epi8(units, three, _mm256_cmpgt_epi16(b0, _mm256_set1_epi16(0xDF)));
    if (kFour) {
        // Low surrogate at a third byte: its low four bits and the fourth
        // byte's six. High surrogate at a lead: the top eleven bits less one.
        __m256i low = _mm256_or_si256(_mm256_and_si256(two, _mm256_set1_epi16(0x3FF)),
                                      _mm256_set1_epi16(static_cast<short>(0xDC00)));
        __m256i high = _mm256_add_epi16(
            _mm256_or_si256(_mm256_slli_epi16(_mm256_and_si256(two, _mm256_set1_epi16(0x1FF)), 2),
                            _mm256_and_si256(_mm256_srli_epi16(b2, 4), _mm256_set1_epi16(3))),
            _mm256_set1_epi16(static_cast<short>(0xD7C0)));
        __m256i tail = _mm256_andnot_si256(_mm256_cmpgt_epi16(b0, _mm256_set1_epi16(0xBF)),
                                           _mm256_cmpgt_epi16(b0, _mm256_set1_epi16(0x7F)));
        units = _mm256_blendv_epi8(units, low, tail);
        units = _mm256_blendv_epi8(units, high, _mm256_cmpgt_epi16(b0, _mm256_set1_epi16(0xEF)));
    }
    size_t in_first = static_cast<size_t>(__builtin_popcount(first));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm256_castsi256_si128(units));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + in_first), _mm256_extracti128_si256(units, 1));
    return in_first + static_cast<size_t>(__builtin_popcount(second));
}

// Utf8Window on the AVX2 road: the window is validated whole first, so the
// characters are decoded without checks and written as Utf8Window writes
// them (96 bytes readable, room for 96 units, garbage past the units).
__attribute__((target("avx2,popcnt"))) inline size_t Utf8FillWindowAvx2(const uint8_t* s,
                                                                        char16_t* d,
                                                                        size_t& units) {
    __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s));
    __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + 32));
    uint64_t high = Mask64(a, b);
    if (high == 0) {
        for (int k = 0; k < 4; ++k) StoreWidenedAvx2(d + 16 * k, s + 16 * k);
        units = 64;
        return 64;
    }
    const __m256i c0 = _mm256_set1_epi8(static_cast<char>(0xC0));
    const __m256i ef = _mm256_set1_epi8(static_cast<char>(0xEF));
    uint64_t tail = Mask64(_mm256_cmpgt_epi8(c0, a), _mm256_cmpgt_epi8(c0, b));
    uint64_t four = Mask64(_mm256_cmpgt_epi8(a, ef), _mm256_cmpgt_epi8(b, ef)) & high;
    uint64_t leads = high & ~tail;
    if (leads == 0) return 0;
    size_t last = 63 - static_cast<size_t>(__builtin_clzll(leads));
    size_t taken = last + kLeadLength.of[s[last]] > 64 ? last : 64;
    const __m256i zero = _mm256_setzero_si256();
    uint64_t bad = ~Mask64(_mm256_cmpeq_epi8(Utf8ErrorsAvx2(a, zero), zero),
                           _mm256_cmpeq_epi8(Utf8ErrorsAvx2(b, a), zero));
    uint64_t in;
    if (taken == 64) {
        if (bad | (s[63] >= 0xC0) | (s[62] >= 0xE0) | (s[61] >= 0xF0)) return 0;
        in = ~0ull;
    } else {
        if (bad & ((2ull << taken) - 1)) return 0;
        in = (1ull << taken) - 1;
    }
    units = taken - static_cast<size_t>(__builtin_popcountll(tail & in)) +
            static_cast<size_t>(__builtin_popcountll(four & in));
    uint64_t fours = four & in;
    uint64_t starts = (~tail & in) | fours << 2;
    size_t o = 0;
    for (size_t k = 0; k < 64; k += 16) {
        uint32_t here = static_cast<uint32_t>(starts >> k) & 0xFFFF;
        o += ((starts & (fours | fours << 2)) >> k) & 0xFFFF
                 ? DecodeSixteenAvx2<true>(s + k, here, d + o)
                 : DecodeSixteenAvx2<false>(s + k, here, d + o);
    }
    return taken;
}

__attribute__((target("avx2,popcnt"))) ConvertResult Utf8FillAvx2(const uint8_t* s, size_t n,
                                                                  char16_t* d, size_t cap,
                                                                  bool strict) {
    size_t i = 0, o = 0;
    while (n - i >= 96 && cap - o >= 96) {
        PrefetchAhead(s + i);
        size_t units;
        size_t taken = Utf8FillWindowAvx2(s + i, d + o, units);
        if (taken) {
            i += taken;
            o += units;
            continue;
        }
        if (ConvertResult r = Utf8ToWideCareful<true>(s, n, i, i + 64, d, cap, o, strict)) return r;
    }
    if (ConvertResult r = Utf8ToWideCareful<true>(s, n, i, n, d, cap, o, strict)) return r;
    return static_cast<ConvertResult>(o);
}

// The AVX-512 road, chosen at run time where the processor can compress
// words (VBMI2): every byte of a window is decoded as if a character started
// there, and the units at the real starts are packed together in one step.
#define KV_AVX512 \
    __attribute__((target("avx512f,avx512bw,avx512vl,avx512vbmi,avx512vbmi2,popcnt,bmi2")))

KV_AVX512 inline __m512i Table64(__m256i table16) {
    return _mm512_broadcast_i32x4(_mm256_castsi256_si128(table16));
}

// Utf8ErrorsAvx2 for 64 bytes, with nothing (ASCII) before them.
KV_AVX512 inline __mmask64 Utf8ErrorsAvx512(__m512i in) {
    constexpr char kShort = 1 << 0, kLong = 1 << 1, kOverlong3 = 1 << 2, kLarge = 1 << 3;
    constexpr char kSurrogate = 1 << 4, kOverlong2 = 1 << 5, kLarge80 = 1 << 6;
    constexpr char kTwoTails = static_cast<char>(1 << 7);
    constexpr char kCarry = kShort | kLong | kTwoTails;
    constexpr char kAbove = kCarry | kLarge | kLarge80;
    constexpr char kTail = kLong | kOverlong2 | kTwoTails;
    // Each index takes the byte k before, and 0 (ASCII) before the window.
    const __m512i ramp = _mm512_set_epi8(
        63, 62, 61, 60, 59, 58, 57, 56, 55, 54, 53, 52, 51, 50, 49, 48, 47, 46, 45, 44, 43, 42, 41,
        40, 39, 38, 37, 36, 35, 34, 33, 32, 31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18,
        17, 16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
    const __m512i one = _mm512_set1_epi8(1);
    __m512i back1 = _mm512_sub_epi8(ramp, one);
    __m512i back2 = _mm512_sub_epi8(back1, one);
    __m512i prev1 = _mm512_maskz_permutexvar_epi8(~1ull, back1, in);
    __m512i prev2 = _mm512_maskz_permutexvar_epi8(~3ull, back2, in);
    __m512i prev3 = _mm512_maskz_permutexvar_epi8(~7ull, _mm512_sub_epi8(back2, one), in);
    const __m512i low4 = _mm512_set1_epi8(0x0F);
    __m512i first_high = _mm512_shuffle_epi8(
        Table64(Table16(kLong, kLong, kLong, kLong, kLong, kLong, kLong, kLong, kTwoTails,
                        kTwoTails, kTwoTails, kTwoTails, kShort | kOverlong2, kShort,
                        kShort | kOverlong3 | kSurrogate, kShort | kLarge | kLarge80)),
        _mm512_and_si512(_mm512_srli_epi16(prev1, 4), low4));
    __m512i first_low = _mm512_shuffle_epi8(
        Table64(Table16(kCarry | kOverlong3 | kOverlong2 | kLarge80, kCarry | kOverlong2, kCarry,
                        kCarry, kCarry | kLarge, kAbove, kAbove, kAbove, kAbove, kAbove, kAbove,
                        kAbove, kAbove, kAbove | kSurrogate, kAbove, kAbove)),
        _mm512_and_si512(prev1, low4));
    __m512i second_high = _mm512_shuffle_epi8(
        Table64(Table16(kShort, kShort, kShort, kShort, kShort, kShort, kShort, kShort,
                        kTail | kOverlong3 | kLarge80, kTail | kOverlong3 | kLarge,
                        kTail | kSurrogate | kLarge, kTail | kSurrogate | kLarge, kShort, kShort,
                        kShort, kShort)),
        _mm512_and_si512(_mm512_srli_epi16(in, 4), low4));
    __m512i pairs = _mm512_and_si512(_mm512_and_si512(first_high, first_low), second_high);
    __m512i third = _mm512_subs_epu8(prev2, _mm512_set1_epi8(static_cast<char>(0xE0 - 0x80)));
    __m512i fourth = _mm512_subs_epu8(prev3, _mm512_set1_epi8(static_cast<char>(0xF0 - 0x80)));
    __m512i must_tail =
        _mm512_and_si512(_mm512_or_si512(third, fourth), _mm512_set1_epi8(kTwoTails));
    return _mm512_test_epi8_mask(_mm512_xor_si512(must_tail, pairs),
                                 _mm512_set1_epi8(static_cast<char>(0xFF)));
}

// Units for 32 byte positions as if a character started at each (w0..w2
// the byte there and the two after it, widened), packed down to the
// positions in `starts` and written at d. kFour as in DecodeSixteenAvx2,
// with `tails` and `fours` marking the bytes of those kinds.
template <bool kFour>
KV_AVX512 inline size_t DecodeThirtyTwoAvx512(__m512i w0, __m512i w1, __m512i w2, __mmask32 starts,
                                              __mmask32 two_up, __mmask32 three_up, __mmask32 tails,
                                              __mmask32 fours, char16_t* d) {
    const __m512i tail_bits = _mm512_set1_epi16(0x3F);
    __m512i two =
        _mm512_or_si512(_mm512_slli_epi16(_mm512_and_si512(w0, _mm512_set1_epi16(0x1F)), 6),
                        _mm512_and_si512(w1, tail_bits));
    __m512i three = _mm512_or_si512(_mm512_slli_epi16(two, 6), _mm512_and_si512(w2, tail_bits));
    __m512i units = _mm512_mask_blend_epi16(two_up, w0, two);
    units = _mm512_mask_blend_epi16(three_up, units, three);
    if (kFour) {
        __m512i low = _mm512_or_si512(_mm512_and_si512(two, _mm512_set1_epi16(0x3FF)),
                                      _mm512_set1_epi16(static_cast<short>(0xDC00)));
        __m512i high = _mm512_add_epi16(
            _mm512_or_si512(_mm512_slli_epi16(_mm512_and_si512(two, _mm512_set1_epi16(0x1FF)), 2),
                            _mm512_and_si512(_mm512_srli_epi16(w2, 4), _mm512_set1_epi16(3))),
            _mm512_set1_epi16(static_cast<short>(0xD7C0)));
        units = _mm512_mask_blend_epi16(tails, units, low);
        units = _mm512_mask_blend_epi16(fours, units, high);
    }
    _mm512_storeu_si512(d, _mm512_maskz_compress_epi16(starts, units));
    return static_cast<size_t>(__builtin_popcount(starts));
}

// Utf8Window on the AVX-512 road (96 bytes readable, room for 96 units,
// garbage past the units).
KV_AVX512 inline size_t Utf8FillWindowAvx512(const uint8_t* s, char16_t* d, size_t& units) {
    __m512i a = _mm512_loadu_si512(s);
    uint64_t high = _mm512_movepi8_mask(a);
    if (high == 0) {
        _mm512_storeu_si512(d, _mm512_cvtepu8_epi16(_mm512_castsi512_si256(a)));
        _mm512_storeu_si512(d + 32, _mm512_cvtepu8_epi16(_mm512_extracti64x4_epi64(a, 1)));
        units = 64;
        return 64;
    }
    uint64_t two_up = _mm512_cmpge_epu8_mask(a, _mm512_set1_epi8(static_cast<char>(0xC0)));
    uint64_t tail = high & ~two_up;
    uint64_t leads = two_up;
    size_t last = 63 - static_cast<size_t>(__builtin_clzll(leads | 1));
    if (leads == 0) return 0;
    size_t taken = last + kLeadLength.of[s[last]] > 64 ? last : 64;
    uint64_t bad = Utf8ErrorsAvx512(a);
    uint64_t in;
    if (taken == 64) {
        if (bad | (s[63] >= 0xC0) | (s[62] >= 0xE0) | (s[61] >= 0xF0)) return 0;
        in = ~0ull;
    } else {
        if (bad & ((2ull << taken) - 1)) return 0;
        in = (1ull << taken) - 1;
    }
    uint64_t three_up = _mm512_cmpge_epu8_mask(a, _mm512_set1_epi8(static_cast<char>(0xE0)));
    uint64_t fours = _mm512_cmpge_epu8_mask(a, _mm512_set1_epi8(static_cast<char>(0xF0))) & in;
    uint64_t starts = (~tail & in) | fours << 2;
    __m512i next1 = _mm512_loadu_si512(s + 1), next2 = _mm512_loadu_si512(s + 2);
    size_t o = 0;
    for (int h = 0; h < 2; ++h) {
        __m512i w0 =
            _mm512_cvtepu8_epi16(h ? _mm512_extracti64x4_epi64(a, 1) : _mm512_castsi512_si256(a));
        __m512i w1 = _mm512_cvtepu8_epi16(h ? _mm512_extracti64x4_epi64(next1, 1)
                                            : _mm512_castsi512_si256(next1));
        __m512i w2 = _mm512_cvtepu8_epi16(h ? _mm512_extracti64x4_epi64(next2, 1)
                                            : _mm512_castsi512_si256(next2));
        auto half = [h](uint64_t m) { return static_cast<__mmask32>(m >> (32 * h)); };
        o += fours ? DecodeThirtyTwoAvx512<true>(w0, w1, w2, half(starts), half(two_up),
                                                 half(three_up), half(tail), half(fours), d + o)
                   : DecodeThirtyTwoAvx512<false>(w0, w1, w2, half(starts), half(two_up),
                                                  half(three_up), 0, 0, d + o);
    }
    units = o;
    return taken;
}

KV_AVX512 ConvertResult Utf8FillAvx512(const uint8_t* s, size_t n, char16_t* d, size_t cap,
                                       bool strict) {
    size_t i = 0, o = 0;
    while (n - i >= 96 && cap - o >= 96) {
        PrefetchAhead(s + i);
        PrefetchAhead(d + o);
        size_t units;
        size_t taken = Utf8FillWindowAvx512(s + i, d + o, units);
        if (taken) {
            i += taken;
            o += units;
            continue;
        }
        if (ConvertResult r = Utf8ToWideCareful<true>(s, n, i, i + 64, d, cap, o, strict)) return r;
    }
    if (ConvertResult r = Utf8ToWideCareful<true>(s, n, i, n, d, cap, o, strict)) return r;
    return static_cast<ConvertResult>(o);
}

// The highest road the conversions may take (tests hold each to the model).
std::atomic<detail::UtfRoad> g_road_allowed{detail::UtfRoad::kAvx512};

bool HasAvx2() {
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("popcnt");
}

bool HasAvx512() {
    return HasAvx2() && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
           __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("bmi2") &&
           __builtin_cpu_supports("avx512vbmi") && __builtin_cpu_supports("avx512vbmi2");
}

bool UseAvx2() {
    static const bool has = HasAvx2();
    return has && g_road_allowed.load(std::memory_order_relaxed) >= detail::UtfRoad::kAvx2;
}

bool UseAvx512() {
    static const bool has = HasAvx512();
    return has && g_road_allowed.load(std::memory_order_relaxed) >= detail::UtfRoad::kAvx512;
}
#endif

template <bool kFill>
ConvertResult Utf8ToWide(const uint8_t* s, size_t n, char16_t* d, size_t cap, bool strict) {
    if (!kFill) d = nullptr;
    size_t i = 0, o = 0;
#if defined(__SSE2__)
    if (kFill && UseAvx512()) return Utf8FillAvx512(s, n, d, cap, strict);
    if (UseAvx2()) return kFill ? Utf8FillAvx2(s, n, d, cap, strict) : Utf8CountAvx2(s, n, strict);
    while (n - i >= 96 && (!kFill || cap - o >= 96)) {
        size_t units;
        size_t taken = Utf8Window<kFill>(s + i, kFill ? d + o : nullptr, units);
        if (taken) {
            i += taken;
            o += units;
            continue;
        }
        if (ConvertResult r = Utf8ToWideCareful<kFill>(s, n, i, i + 64, d, cap, o, strict))
            return r;
    }
#endif
    if (ConvertResult r = Utf8ToWideCareful<kFill>(s, n, i, n, d, cap, o, strict)) return r;
    return static_cast<ConvertResult>(o);
}

// The careful road for UTF-16 to UTF-8, from i up to at least stop (or the
// end), stopping between characters. Returns 0, or the error to report.
template <bool kFill>
ConvertResult WideToUtf8Careful(const char16_t* s, size_t n, size_t& i_io, size_t stop, uint8_t* d,
                                size_t cap, size_t& o_io, bool strict) {
    size_t i = i_io, o = o_io;
    while (i < stop) {
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
    i_io = i;
    o_io = o;
    return 0;
}

#if defined(__SSE2__)
[[gnu::always_inline]] inline void StoreNarrowed(uint8_t* d, const char16_t* s) {
    __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
    __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 8));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm_packus_epi16(a, b));
}

// Writes the UTF-8 of the character at s, not ASCII, at d (four bytes of
// room) and returns its length: a pair when `pair`, else one unit (a lone
// surrogate becomes U+FFFD).
[[gnu::always_inline]] inline size_t EncodeMultibyte(const char16_t* s, bool pair, uint8_t* d) {
    uint32_t u = s[0];
    uint32_t seq;
    size_t len;
    if (pair) {
        u = 0x10000 + ((u - 0xD800) << 10) + (s[1] - 0xDC00u);
        seq = (0xF0 | u >> 18) | (0x80 | ((u >> 12) & 0x3F)) << 8 |
              (0x80 | ((u >> 6) & 0x3F)) << 16 | (0x80 | (u & 0x3F)) << 24;
        len = 4;
    } else {
        if (u - 0xD800 < 0x800) u = 0xFFFD;
        uint32_t two = (0xC0 | u >> 6) | (0x80 | (u & 0x3F)) << 8;
        uint32_t three =
            (0xE0 | u >> 12) | (0x80 | ((u >> 6) & 0x3F)) << 8 | (0x80 | (u & 0x3F)) << 16;
        seq = u < 0x800 ? two : three;
        len = u < 0x800 ? 2 : 3;
    }
    std::memcpy(d, &seq, 4);  // little-endian: first byte lowest
    return len;
}

// The window road for 32 units at s, which starts a character; 64 units are
// readable. Returns the units taken (a high surrogate at the end waits for
// the next window) and their bytes in `bytes`, or 0 when the careful road
// must decide (a lone surrogate under strict). With d (room for 128 bytes),
// the bytes are written there, with garbage past them as in Utf8Window.
template <bool kFill>
[[gnu::always_inline]] inline size_t Utf16Window(const char16_t* s, uint8_t* d, size_t& bytes,
                                                 bool strict) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i ff80 = _mm_set1_epi16(static_cast<short>(0xFF80));
    const __m128i f800 = _mm_set1_epi16(static_cast<short>(0xF800));
    const __m128i fc00 = _mm_set1_epi16(static_cast<short>(0xFC00));
    // Per half of 16 units, one byte per unit: 0xFF where ASCII, where below
    // U+0800, where a high and where a low surrogate.
    __m128i ascii[2], narrow[2];
    uint32_t ascii_bits = 0, high = 0, low = 0;
    for (int h = 0; h < 2; ++h) {
        __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 16 * h));
        __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 16 * h + 8));
        auto test = [&](__m128i mask, __m128i value) {
            return _mm_packs_epi16(_mm_cmpeq_epi16(_mm_and_si128(a, mask), value),
                                   _mm_cmpeq_epi16(_mm_and_si128(b, mask), value));
        };
        ascii[h] = test(ff80, zero);
        ascii_bits |= static_cast<uint32_t>(_mm_movemask_epi8(ascii[h])) << (16 * h);
        if (ascii_bits == 0xFFFFFFFF) {  // both halves ASCII
            if (kFill) {
                StoreNarrowed(d, s);
                StoreNarrowed(d + 16, s + 16);
            }
            bytes = 32;
            return 32;
        }
        narrow[h] = test(f800, zero);
        high |= static_cast<uint32_t>(
                    _mm_movemask_epi8(test(fc00, _mm_set1_epi16(static_cast<short>(0xD800)))))
                << (16 * h);
        low |= static_cast<uint32_t>(
                   _mm_movemask_epi8(test(fc00, _mm_set1_epi16(static_cast<short>(0xDC00)))))
               << (16 * h);
    }
    uint32_t pair_high = high & (low >> 1);
    uint32_t pair = pair_high | pair_high << 1;
    size_t taken = high >> 31 ? 31 : 32;
    uint32_t in = high >> 31 ? 0x7FFFFFFFu : 0xFFFFFFFFu;
    if (strict && ((high | low) & ~pair & in)) return 0;
    // Bytes per unit: 1 for ASCII, 2 below U+0800, else 3, which a pair makes
    // 2 + 2; the masks are 0xFF (-1) where true.
    auto half_bytes = [&](int h) {
        return 48 - SumBytes(_mm_sub_epi8(zero, _mm_add_epi8(ascii[h], narrow[h])));
    };
    size_t first = half_bytes(0) - Popcount(pair & 0xFFFF);
    bytes = first + half_bytes(1) - Popcount(pair & 0xFFFF0000u) - (taken == 31 ? 3 : 0);
    if (kFill) {
        StoreNarrowed(d, s);
        StoreNarrowed(d + first, s + 16);
        // Bytes before unit q: q plus what the earlier events wrote beyond
        // one byte per unit.
        size_t extra = 0;
        for (uint32_t m = ~ascii_bits & ~(pair_high << 1) & in; m; m &= m - 1) {
            size_t q = static_cast<size_t>(__builtin_ctz(m));
            size_t used = (pair_high >> q) & 1 ? 2 : 1;
            size_t p = q + extra;
            size_t len = EncodeMultibyte(s + q, used == 2, d + p);
            StoreNarrowed(d + p + len, s + q + used);
            extra += len - used;
        }
    }
    return taken;
}

// One bit per unit of the 32 in a and b: where the unit masked with `mask`
// equals `value`.
__attribute__((target("avx2"))) inline uint32_t UnitBits(__m256i a, __m256i b, __m256i mask,
                                                         __m256i value) {
    __m256i packed = _mm256_packs_epi16(_mm256_cmpeq_epi16(_mm256_and_si256(a, mask), value),
                                        _mm256_cmpeq_epi16(_mm256_and_si256(b, mask), value));
    // The pack interleaves the 128-bit lanes of a and b; put them back in order.
    return static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_permute4x64_epi64(packed, 0xD8)));
}

// Counts what Utf16Window would for the 32 units at s (all readable).
__attribute__((target("avx2,popcnt"))) inline size_t Utf16CountWindowAvx2(const char16_t* s,
                                                                          size_t& bytes,
                                                                          bool strict) {
    __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s));
    __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + 16));
    const __m256i zero = _mm256_setzero_si256();
    const __m256i fc00 = _mm256_set1_epi16(static_cast<short>(0xFC00));
    uint32_t ascii = UnitBits(a, b, _mm256_set1_epi16(static_cast<short>(0xFF80)), zero);
    if (ascii == 0xFFFFFFFFu) {
        bytes = 32;
        return 32;
    }
    uint32_t narrow = UnitBits(a, b, _mm256_set1_epi16(static_cast<short>(0xF800)), zero);
    uint32_t high = UnitBits(a, b, fc00, _mm256_set1_epi16(static_cast<short>(0xD800)));
    uint32_t low = UnitBits(a, b, fc00, _mm256_set1_epi16(static_cast<short>(0xDC00)));
    uint32_t pair_high = high & (low >> 1);
    uint32_t pair = pair_high | pair_high << 1;
    size_t taken = high >> 31 ? 31 : 32;
    uint32_t in = high >> 31 ? 0x7FFFFFFFu : 0xFFFFFFFFu;
    if (strict && ((high | low) & ~pair & in)) return 0;
    // Three bytes a unit, less one for each below U+0800 and one more for
    // ASCII; a pair is 2 + 2.
    bytes = 96 -
            static_cast<size_t>(__builtin_popcount(ascii) + __builtin_popcount(narrow) +
                                __builtin_popcount(pair)) -
            (taken == 31 ? 3 : 0);
    return taken;
}

__attribute__((target("popcnt"))) inline size_t CountBits(uint32_t x) {
    return static_cast<size_t>(__builtin_popcount(x));
}

// Narrows the 16 units at s into d.
__attribute__((target("avx2"))) inline void StoreNarrowedAvx2(uint8_t* d, const char16_t* s) {
    __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d),
                     _mm_packus_epi16(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1)));
}

// Shuffles that pack four units, spread one per 32 bits as EncodeSixteenAvx2
// spreads them, into their 1, 2 or 3 bytes back to back. Indexed by two bits
// a unit, lowest unit first: below U+0080, below U+0800.
struct PackShuffles {
    uint8_t of[256][16];
};

constexpr PackShuffles MakePackShuffles() {
    // Where a unit's bytes lie in its 32 bits, by how many there are.
    constexpr uint8_t kPlaces[4][3] = {{0, 0, 0}, {0, 0, 0}, {3, 1, 0}, {2, 3, 1}};
    PackShuffles t{};
    for (int index = 0; index < 256; ++index) {
        int at = 0;
        for (int unit = 0; unit < 4; ++unit) {
            int bits = (index >> (2 * unit)) & 3;
            int len = 3 - (bits & 1) - (bits >> 1);
            for (int k = 0; k < len; ++k) {
                t.of[index][at++] = static_cast<uint8_t>(4 * unit + kPlaces[len][k]);
            }
        }
        while (at < 16) t.of[index][at++] = 0x80;  // zero
    }
    return t;
}
constexpr PackShuffles kPackShuffles = MakePackShuffles();

// The shuffles for a in the low and b in the high 128 bits.
__attribute__((target("avx2"))) inline __m256i PackShuffle(uint32_t a, uint32_t b) {
    return _mm256_inserti128_si256(
        _mm256_castsi128_si256(
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(kPackShuffles.of[a]))),
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(kPackShuffles.of[b])), 1);
}

// Writes the UTF-8 of the 16 units in `in`, none a surrogate, at d and
// returns its length; up to 16 bytes past it are garbage.
__attribute__((target("avx2,popcnt"))) inline size_t EncodeSixteenAvx2(__m256i in, uint8_t* d) {
    const __m256i zero = _mm256_setzero_si256();
    const __m256i ff80 = _mm256_set1_epi16(static_cast<short>(0xFF80));
    const __m256i f800 = _mm256_set1_epi16(static_cast<short>(0xF800));
    __m256i ascii = _mm256_cmpeq_epi16(_mm256_and_si256(in, ff80), zero);
    __m256i narrow = _mm256_cmpeq_epi16(_mm256_and_si256(in, f800), zero);
    // Two bits a unit, lowest first: below U+0080, below U+0800.
    uint32_t kinds = (static_cast<uint32_t>(_mm256_movemask_epi8(ascii)) & 0x55555555u) |
                     (static_cast<uint32_t>(_mm256_movemask_epi8(narrow)) & 0xAAAAAAAAu);
    // Each unit aaaabbbbbbcccccc becomes the four bytes
    //   (its low seven bits) 10cccccc 1110aaaa 1sbbbbbb
    // where s is 1 below U+0800 (a lead 110bbbbb) and 0 from it (a tail),
    // so the one, two or three bytes of its UTF-8 are among them.
    const __m256i low_byte_twice =
        _mm256_setr_epi8(0, 0, 2, 2, 4, 4, 6, 6, 8, 8, 10, 10, 12, 12, 14, 14, 0, 0, 2, 2, 4, 4, 6,
                         6, 8, 8, 10, 10, 12, 12, 14, 14);
    __m256i last = _mm256_or_si256(
        _mm256_and_si256(_mm256_shuffle_epi8(in, low_byte_twice), _mm256_set1_epi16(0x3F7F)),
        _mm256_set1_epi16(static_cast<short>(0x8000)));
    // (bbbbbb00, 0000aaaa) to 00bbbbbb 0000aaaa by multiplying with 64 and 1.
    __m256i upper =
        _mm256_maddubs_epi16(_mm256_and_si256(_mm256_srli_epi16(in, 4), _mm256_set1_epi16(0x0FFC)),
                             _mm256_set1_epi16(0x0140));
    upper = _mm256_or_si256(upper, _mm256_set1_epi16(static_cast<short>(0xC0E0)));
    upper = _mm256_xor_si256(upper, _mm256_andnot_si256(narrow, _mm256_set1_epi16(0x4000)));
    // Units 0-3 and 8-11, then 4-7 and 12-15.
    __m256i first = _mm256_unpacklo_epi16(last, upper);
    __m256i second = _mm256_unpackhi_epi16(last, upper);
    uint32_t k0 = kinds & 0xFF, k1 = (kinds >> 8) & 0xFF;
    uint32_t k2 = (kinds >> 16) & 0xFF, k3 = kinds >> 24;
    first = _mm256_shuffle_epi8(first, PackShuffle(k0, k2));
    second = _mm256_shuffle_epi8(second, PackShuffle(k1, k3));
    size_t p1 = 12 - CountBits(k0);
    size_t p2 = p1 + 12 - CountBits(k1);
    size_t p3 = p2 + 12 - CountBits(k2);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm256_castsi256_si128(first));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + p1), _mm256_castsi256_si128(second));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + p2), _mm256_extracti128_si256(first, 1));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + p3), _mm256_extracti128_si256(second, 1));
    return p3 + 12 - CountBits(k3);
}

// Utf16Window on the AVX2 road, writing what it writes (64 units readable,
// room for 128 bytes, garbage past the bytes). With no surrogate in the
// window its 32 units are encoded sixteen at a time; otherwise one
// multibyte character at a time.
__attribute__((target("avx2,popcnt"))) inline size_t Utf16FillWindowAvx2(const char16_t* s,
                                                                         uint8_t* d, size_t& bytes,
                                                                         bool strict) {
    __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s));
    __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + 16));
    // All 32 narrowed, in order.
    __m256i narrowed = _mm256_permute4x64_epi64(_mm256_packus_epi16(a, b), 0xD8);
    const __m256i zero = _mm256_setzero_si256();
    const __m256i fc00 = _mm256_set1_epi16(static_cast<short>(0xFC00));
    uint32_t ascii = UnitBits(a, b, _mm256_set1_epi16(static_cast<short>(0xFF80)), zero);
    if (ascii == 0xFFFFFFFFu) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d), narrowed);
        bytes = 32;
        return 32;
    }
    uint32_t narrow = UnitBits(a, b, _mm256_set1_epi16(static_cast<short>(0xF800)), zero);
    uint32_t high = UnitBits(a, b, fc00, _mm256_set1_epi16(static_cast<short>(0xD800)));
    uint32_t low = UnitBits(a, b, fc00, _mm256_set1_epi16(static_cast<short>(0xDC00)));
    uint32_t pair_high = high & (low >> 1);
    uint32_t pair = pair_high | pair_high << 1;
    size_t taken = high >> 31 ? 31 : 32;
    uint32_t in = high >> 31 ? 0x7FFFFFFFu : 0xFFFFFFFFu;
    if (strict && ((high | low) & ~pair & in)) return 0;
    if ((high | low) == 0) {
        size_t p = EncodeSixteenAvx2(a, d);
        bytes = p + EncodeSixteenAvx2(b, d + p);
        return 32;
    }
    size_t first =
        48 - CountBits(ascii & 0xFFFF) - CountBits(narrow & 0xFFFF) - CountBits(pair & 0xFFFF);
    bytes = 96 - CountBits(ascii) - CountBits(narrow) - CountBits(pair) - (taken == 31 ? 3 : 0);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm256_castsi256_si128(narrowed));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + first), _mm256_extracti128_si256(narrowed, 1));
    size_t extra = 0;
    for (uint32_t m = ~ascii & ~(pair_high << 1) & in; m; m &= m - 1) {
        size_t q = static_cast<size_t>(__builtin_ctz(m));
        size_t used = (pair_high >> q) & 1 ? 2 : 1;
        size_t p = q + extra;
        size_t len = EncodeMultibyte(s + q, used == 2, d + p);
        StoreNarrowedAvx2(d + p + len, s + q + used);
        extra += len - used;
    }
    return taken;
}

__attribute__((target("avx2,popcnt"))) ConvertResult Utf16FillAvx2(const char16_t* s, size_t n,
                                                                   uint8_t* d, size_t cap,
                                                                   bool strict) {
    size_t i = 0, o = 0;
    while (n - i >= 64 && cap - o >= 128) {
        PrefetchAhead(s + i);
        size_t bytes;
        size_t taken = Utf16FillWindowAvx2(s + i, d + o, bytes, strict);
        if (taken) {
            i += taken;
            o += bytes;
            continue;
        }
        if (ConvertResult r = WideToUtf8Careful<true>(s, n, i, i + 32, d, cap, o, strict)) return r;
    }
    if (ConvertResult r = WideToUtf8Careful<true>(s, n, i, n, d, cap, o, strict)) return r;
    return static_cast<ConvertResult>(o);
}

// Byte indexes that lay three bytes per unit side by side for the 16 units
// from `first`: the unit's lead and middle bytes from the words of one
// vector, its last byte from the low byte of the same word in another (64
// and up).
constexpr auto MakeThreeByteLayout(int first) {
    struct Layout {
        uint8_t at[64];
    } t{};
    for (int k = 0; k < 16; ++k) {
        t.at[3 * k] = static_cast<uint8_t>(2 * (first + k));
        t.at[3 * k + 1] = static_cast<uint8_t>(2 * (first + k) + 1);
        t.at[3 * k + 2] = static_cast<uint8_t>(64 + 2 * (first + k));
    }
    return t;
}
constexpr auto kThreeBytesLow = MakeThreeByteLayout(0);
constexpr auto kThreeBytesHigh = MakeThreeByteLayout(16);

// Every third bit of 48, from bit 0.
constexpr uint64_t kEveryThird = 0x249249249249ull;

// Utf16Window on the AVX-512 road (64 units readable, room for 128 bytes,
// garbage past the bytes). Each unit gets three byte slots: its lead, its
// middle and its last byte, or for a pair the high unit the first two of
// the four and the low unit the other two; a compress keeps the slots in use.
KV_AVX512 inline size_t Utf16FillWindowAvx512(const char16_t* s, uint8_t* d, size_t& bytes,
                                              bool strict) {
    __m512i u = _mm512_loadu_si512(s);
    const __m512i x80 = _mm512_set1_epi16(0x80);
    uint32_t ascii = _mm512_cmplt_epu16_mask(u, x80);
    if (ascii == 0xFFFFFFFFu) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d), _mm512_cvtepi16_epi8(u));
        bytes = 32;
        return 32;
    }
    __m512i top = _mm512_and_si512(u, _mm512_set1_epi16(static_cast<short>(0xFC00)));
    uint32_t high = _mm512_cmpeq_epi16_mask(top, _mm512_set1_epi16(static_cast<short>(0xD800)));
    uint32_t low = _mm512_cmpeq_epi16_mask(top, _mm512_set1_epi16(static_cast<short>(0xDC00)));
    uint32_t pair_high = high & (low >> 1);
    uint32_t pair_low = pair_high << 1;
    size_t taken = high >> 31 ? 31 : 32;
    uint32_t in = high >> 31 ? 0x7FFFFFFFu : 0xFFFFFFFFu;
    uint32_t lone = (high | low) & ~(pair_high | pair_low) & in;
    if (strict && lone) return 0;
    u = _mm512_mask_mov_epi16(u, lone, _mm512_set1_epi16(static_cast<short>(0xFFFD)));
    uint32_t below800 = _mm512_cmplt_epu16_mask(u, _mm512_set1_epi16(0x800));
    const __m512i six = _mm512_set1_epi16(0x3F);
    __m512i u6 = _mm512_srli_epi16(u, 6);
    // (a & b) | c
    __m512i last = _mm512_ternarylogic_epi32(u, six, x80, 0xEA);
    __m512i middle =
        _mm512_mask_mov_epi16(_mm512_ternarylogic_epi32(u6, six, x80, 0xEA), below800, last);
    __m512i lead = _mm512_or_si512(_mm512_srli_epi16(u, 12), _mm512_set1_epi16(0xE0));
    lead = _mm512_mask_mov_epi16(lead, below800, _mm512_or_si512(u6, _mm512_set1_epi16(0xC0)));
    lead = _mm512_mask_mov_epi16(lead, ascii, u);
    uint32_t paired = pair_high | pair_low;
    if (paired) {
        // With p the high unit's ten bits plus 0x40 (the plane less one, in
        // its top four), the bytes are F0 | p >> 8, 80 | (p >> 2) & 3F, then
        // 80 | (p & 3) << 4 | low >> 6 & F, 80 | low & 3F.
        const __m512i ten = _mm512_set1_epi16(0x3FF);
        __m512i p = _mm512_add_epi16(_mm512_and_si512(u, ten), _mm512_set1_epi16(0x40));
        lead = _mm512_mask_mov_epi16(
            lead, pair_high, _mm512_or_si512(_mm512_srli_epi16(p, 8), _mm512_set1_epi16(0xF0)));
        middle = _mm512_mask_mov_epi16(
            middle, pair_high, _mm512_ternarylogic_epi32(_mm512_srli_epi16(p, 2), six, x80, 0xEA));
        // The unit before each low one, and nothing before the window.
        const __m512i back =
            _mm512_set_epi16(30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18, 17, 16, 15, 14, 13,
                             12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0, 0);
        __m512i before = _mm512_maskz_permutexvar_epi16(~1u, back, p);
        __m512i third = _mm512_ternarylogic_epi32(
            _mm512_slli_epi16(_mm512_and_si512(before, _mm512_set1_epi16(3)), 4),
            _mm512_and_si512(u6, _mm512_set1_epi16(0x0F)), x80, 0xFE);
        lead = _mm512_mask_mov_epi16(lead, pair_low, third);
        middle = _mm512_mask_mov_epi16(middle, pair_low, last);
    }
    __m512i words = _mm512_or_si512(lead, _mm512_slli_epi16(middle, 8));
    // Slots in use: the lead always, the middle unless ASCII, the last only
    // for three bytes.
    uint32_t second = ~ascii & in, third_slot = ~below800 & ~paired & in;
    size_t o = 0;
    for (int h = 0; h < 2; ++h) {
        const auto& layout = h ? kThreeBytesHigh : kThreeBytesLow;
        __m512i slots = _mm512_permutex2var_epi8(words, _mm512_loadu_si512(layout.at), last);
        uint64_t keep = _pdep_u64(static_cast<uint16_t>(in >> (16 * h)), kEveryThird) |
                        _pdep_u64(static_cast<uint16_t>(second >> (16 * h)), kEveryThird << 1) |
                        _pdep_u64(static_cast<uint16_t>(third_slot >> (16 * h)), kEveryThird << 2);
        _mm512_storeu_si512(d + o, _mm512_maskz_compress_epi8(keep, slots));
        o += static_cast<size_t>(__builtin_popcountll(keep));
    }
    bytes = o;
    return taken;
}

// Counts the UTF-8 of UTF-16 text 32 units a step with nothing to carry
// between steps: one byte a unit, one more from U+0080 and another from
// U+0800, less two for each pair (3 + 3 becomes 4). A lone surrogate counts
// three, as U+FFFD; so does a low unit the careful road sees first, whose
// pair was already counted here.
KV_AVX512 ConvertResult Utf16CountAvx512(const char16_t* s, size_t n) {
    const __m512i fc00 = _mm512_set1_epi16(static_cast<short>(0xFC00));
    const __m512i d800 = _mm512_set1_epi16(static_cast<short>(0xD800));
    const __m512i dc00 = _mm512_set1_epi16(static_cast<short>(0xDC00));
    size_t i = 0, o = 0;
    for (; n - i >= 33; i += 32) {
        PrefetchAhead(s + i);
        __m512i u = _mm512_loadu_si512(s + i);
        __m512i next = _mm512_loadu_si512(s + i + 1);
        uint32_t two = _mm512_cmpge_epu16_mask(u, _mm512_set1_epi16(0x80));
        uint32_t three = _mm512_cmpge_epu16_mask(u, _mm512_set1_epi16(0x800));
        uint32_t pairs = _mm512_cmpeq_epi16_mask(_mm512_and_si512(u, fc00), d800) &
                         _mm512_cmpeq_epi16_mask(_mm512_and_si512(next, fc00), dc00);
        o += 32 + static_cast<size_t>(__builtin_popcount(two)) +
             static_cast<size_t>(__builtin_popcount(three)) -
             2 * static_cast<size_t>(__builtin_popcount(pairs));
    }
    if (ConvertResult r = WideToUtf8Careful<false>(s, n, i, n, nullptr, 0, o, false)) return r;
    return static_cast<ConvertResult>(o);
}

KV_AVX512 ConvertResult Utf16FillAvx512(const char16_t* s, size_t n, uint8_t* d, size_t cap,
                                        bool strict) {
    size_t i = 0, o = 0;
    while (n - i >= 64 && cap - o >= 128) {
        PrefetchAhead(s + i);
        PrefetchAhead(d + o);
        size_t bytes;
        size_t taken = Utf16FillWindowAvx512(s + i, d + o, bytes, strict);
        if (taken) {
            i += taken;
            o += bytes;
            continue;
        }
        if (ConvertResult r = WideToUtf8Careful<true>(s, n, i, i + 32, d, cap, o, strict)) return r;
    }
    if (ConvertResult r = WideToUtf8Careful<true>(s, n, i, n, d, cap, o, strict)) return r;
    return static_cast<ConvertResult>(o);
}

__attribute__((target("avx2,popcnt"))) ConvertResult Utf16CountAvx2(const char16_t* s, size_t n,
                                                                    bool strict) {
    size_t i = 0, o = 0;
    while (n - i >= 32) {
        PrefetchAhead(s + i);
        size_t bytes;
        size_t taken = Utf16CountWindowAvx2(s + i, bytes, strict);
        if (taken) {
            i += taken;
            o += bytes;
            continue;
        }
        if (ConvertResult r = WideToUtf8Careful<false>(s, n, i, i + 32, nullptr, 0, o, strict))
            return r;
    }
    if (ConvertResult r = WideToUtf8Careful<false>(s, n, i, n, nullptr, 0, o, strict)) return r;
    return static_cast<ConvertResult>(o);
}
#endif

template <bool kFill>
ConvertResult WideToUtf8(const char16_t* s, size_t n, uint8_t* d, size_t cap, bool strict) {
    if (!kFill) d = nullptr;
    size_t i = 0, o = 0;
#if defined(__SSE2__)
    if (UseAvx512() && (kFill || !strict))
        return kFill ? Utf16FillAvx512(s, n, d, cap, strict) : Utf16CountAvx512(s, n);
    if (UseAvx2())
        return kFill ? Utf16FillAvx2(s, n, d, cap, strict) : Utf16CountAvx2(s, n, strict);
    while (n - i >= 64 && (!kFill || cap - o >= 128)) {
        size_t bytes;
        size_t taken = Utf16Window<kFill>(s + i, kFill ? d + o : nullptr, bytes, strict);
        if (taken) {
            i += taken;
            o += bytes;
            continue;
        }
        if (ConvertResult r = WideToUtf8Careful<kFill>(s, n, i, i + 32, d, cap, o, strict))
            return r;
    }
#endif
    if (ConvertResult r = WideToUtf8Careful<kFill>(s, n, i, n, d, cap, o, strict)) return r;
    return static_cast<ConvertResult>(o);
}

// ---------------------------------------------------------------------------
// UTF-16 as byte text (1200 little-endian, 1201 big-endian)

ConvertResult Utf16BytesToWide(bool big_endian, const uint8_t* s, size_t n, char16_t* d, size_t cap,
                               bool strict) {
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

namespace detail {

bool AllowUtfRoad(UtfRoad highest) {
#if defined(__SSE2__)
    g_road_allowed.store(highest, std::memory_order_relaxed);
    switch (highest) {
        case UtfRoad::kSse2:
            return true;
        case UtfRoad::kAvx2:
            return HasAvx2();
        case UtfRoad::kAvx512:
            return HasAvx512();
    }
    return false;
#else
    return highest == UtfRoad::kSse2;
#endif
}

}  // namespace detail

uint32_t GetLastError() {
    return t_last_error;
}

void SetLastError(uint32_t error) {
    t_last_error = error;
}

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
