#include "foundation/find.h"

#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace kv {

const char* FindBytes(const char* hay, size_t length, const char* needle, size_t n) {
    if (n == 0) return hay;
    if (!hay || length < n) return nullptr;
    if (n == 1) return static_cast<const char*>(std::memchr(hay, needle[0], length));
    const char* p = hay;
    const char* const end = hay + (length - n + 1);  // candidates start before end
    const char first = needle[0], last = needle[n - 1];
#if defined(__SSE2__)
    const __m128i want_first = _mm_set1_epi8(first);
    const __m128i want_last = _mm_set1_epi8(last);
    // The load at p + n - 1 ends at p + n + 14, inside hay while end - p >= 16.
    while (end - p >= 16) {
        __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + n - 1));
        unsigned mask = unsigned(
            _mm_movemask_epi8(_mm_and_si128(_mm_cmpeq_epi8(a, want_first), _mm_cmpeq_epi8(b, want_last))));
        while (mask) {
            const char* at = p + __builtin_ctz(mask);
            if (std::memcmp(at + 1, needle + 1, n - 2) == 0) return at;
            mask &= mask - 1;
        }
        p += 16;
    }
#endif
    for (; p < end; ++p)
        if (p[0] == first && p[n - 1] == last && std::memcmp(p + 1, needle + 1, n - 2) == 0) return p;
    return nullptr;
}

}  // namespace kv
