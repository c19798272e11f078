// The transfer encodings. The hot loops are table-driven and work on 8 or 16
// bytes at a time; on x86-64 the base64 decoder uses SSSE3 when the processor
// has it and the quoted-printable encoder SSE2. Defining KV_NO_SIMD builds
// the portable paths only.
#include "codecs/encoding.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <vector>

#if defined(__x86_64__) && !defined(KV_NO_SIMD)
#include <immintrin.h>
#endif

namespace kv {

const char kBase64Alphabet[65] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const char kHexDigitsUpper[17] = "0123456789ABCDEF";

namespace {

// The largest result a bstring can hold here (reserve adds one unit).
constexpr int64_t kMaxSize = INT32_MAX - 16;

inline uint64_t Load64(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
}
inline uint64_t LoadBigEndian64(const uint8_t* p) {
    uint64_t v = Load64(p);
    if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap64(v);
    return v;
}
// Writes the 8 bytes of v most significant first.
inline void StoreBigEndian64(char* p, uint64_t v) {
    if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap64(v);
    std::memcpy(p, &v, 8);
}
inline void StoreBigEndian32(char* p, uint32_t v) {
    if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap32(v);
    std::memcpy(p, &v, 4);
}

// True when [p, p + n) touches the buffer that dest owns, which a reserve may
// free and the writes overwrite. A view is never written or freed.
bool TouchesBuffer(const bstring& dest, const char* p, int64_t n) {
    if (!dest.pData || dest.is_view() || !p || n <= 0) return false;
    const uintptr_t lo = reinterpret_cast<uintptr_t>(dest.pData);
    const uintptr_t hi = lo + uintptr_t(dest.nCapacity) + 1;
    const uintptr_t a = reinterpret_cast<uintptr_t>(p);
    return a < hi && a + uintptr_t(n) > lo;
}

// ---- tables, built at compile time ----

// Two base64 characters for each 12-bit value, first character first.
struct Base64Pairs {
    char pair[4096][2];
};
constexpr Base64Pairs MakeBase64Pairs() {
    Base64Pairs t{};
    constexpr const char* a = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (int i = 0; i < 4096; ++i) {
        t.pair[i][0] = a[i >> 6];
        t.pair[i][1] = a[i & 63];
    }
    return t;
}
constexpr Base64Pairs kBase64Pairs = MakeBase64Pairs();

// Base64 value of a byte: 0..63, 64 for "=", 65 for anything else.
constexpr std::array<uint8_t, 256> MakeBase64Values() {
    std::array<uint8_t, 256> t{};
    for (int i = 0; i < 256; ++i) t[i] = 65;
    for (int i = 0; i < 64; ++i)
        t[static_cast<uint8_t>(
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"[i])] = uint8_t(i);
    t['='] = 64;
    return t;
}
constexpr std::array<uint8_t, 256> kBase64Values = MakeBase64Values();

// The value of a byte already shifted to its place in a group of four
// (place 0 highest); kBase64Bad for "=" and every byte outside the alphabet,
// which the fast path leaves to the exact, byte-by-byte path.
constexpr uint32_t kBase64Bad = 0x80000000u;
struct Base64Places {
    uint32_t place[4][256];
};
constexpr Base64Places MakeBase64Places() {
    Base64Places t{};
    std::array<uint8_t, 256> v = MakeBase64Values();
    for (int p = 0; p < 4; ++p)
        for (int c = 0; c < 256; ++c)
            t.place[p][c] = v[c] < 64 ? uint32_t(v[c]) << (18 - 6 * p) : kBase64Bad;
    return t;
}
constexpr Base64Places kBase64Places = MakeBase64Places();

// Hexadecimal digit value, either case; 0xFF for any other byte.
constexpr std::array<uint8_t, 256> MakeHexValues() {
    std::array<uint8_t, 256> t{};
    for (int i = 0; i < 256; ++i) t[i] = 0xFF;
    for (int i = 0; i < 10; ++i) t['0' + i] = uint8_t(i);
    for (int i = 0; i < 6; ++i) t['A' + i] = t['a' + i] = uint8_t(10 + i);
    return t;
}
constexpr std::array<uint8_t, 256> kHexValues = MakeHexValues();

// Quoted-printable classes: a byte of the safe set, blank or tab, CR, or a
// byte that is always written as a triplet.
enum : uint8_t { kQpSafe = 0, kQpBlank = 1, kQpCr = 2, kQpHex = 3 };
constexpr std::array<uint8_t, 256> MakeQpClasses() {
    std::array<uint8_t, 256> t{};
    for (int c = 0; c < 256; ++c) {
        bool safe = (c >= 33 && c <= 60) || c == 62 || (c >= 64 && c <= 126 && c != 95);
        t[c] = safe ? kQpSafe : (c == ' ' || c == '\t') ? kQpBlank : c == '\r' ? kQpCr : kQpHex;
    }
    return t;
}
constexpr std::array<uint8_t, 256> kQpClasses = MakeQpClasses();
// 1 for a byte that may go out literally in the middle of a line: the safe
// set, blank and tab.
constexpr std::array<uint8_t, 256> MakeQpLiteral() {
    std::array<uint8_t, 256> t{};
    std::array<uint8_t, 256> cls = MakeQpClasses();
    for (int c = 0; c < 256; ++c) t[c] = cls[c] <= kQpBlank ? 1 : 0;
    return t;
}
[[maybe_unused]] constexpr std::array<uint8_t, 256> kQpLiteral = MakeQpLiteral();

// "=XX" of each byte, padded to four bytes so that it is one store.
struct QpTriplets {
    char text[256][4];
};
constexpr QpTriplets MakeQpTriplets() {
    QpTriplets t{};
    constexpr const char* hex = "0123456789ABCDEF";
    for (int c = 0; c < 256; ++c) {
        t.text[c][0] = '=';
        t.text[c][1] = hex[c >> 4];
        t.text[c][2] = hex[c & 15];
        t.text[c][3] = 0;
    }
    return t;
}
constexpr QpTriplets kQpTriplets = MakeQpTriplets();

// What a byte becomes inside a line, away from its end: itself for the safe
// set, blank and tab, else its triplet; padded to four bytes.
struct QpInLine {
    char text[256][4];
    uint8_t width[256];
};
constexpr QpInLine MakeQpInLine() {
    QpInLine t{};
    QpTriplets triplets = MakeQpTriplets();
    std::array<uint8_t, 256> literal = MakeQpLiteral();
    for (int c = 0; c < 256; ++c) {
        if (literal[c]) {
            t.text[c][0] = char(c);
            t.width[c] = 1;
        } else {
            for (int k = 0; k < 4; ++k) t.text[c][k] = triplets.text[c][k];
            t.width[c] = 3;
        }
    }
    return t;
}
constexpr QpInLine kQpInLine = MakeQpInLine();

// Uuencode value of a character: minus 32, kept to 8 bits; the grave accent
// counts as a blank.
constexpr std::array<uint8_t, 256> MakeUuValues() {
    std::array<uint8_t, 256> t{};
    for (int c = 0; c < 256; ++c) t[c] = uint8_t((c == 96 ? 32 : c) - 32);
    return t;
}
constexpr std::array<uint8_t, 256> kUuValues = MakeUuValues();

// ---- base64 ----

// Four characters of three bytes.
inline void EncodeGroup(const uint8_t* s, char* o) {
    uint32_t x = uint32_t(s[0]) << 16 | uint32_t(s[1]) << 8 | s[2];
    std::memcpy(o, kBase64Pairs.pair[x >> 12], 2);
    std::memcpy(o + 2, kBase64Pairs.pair[x & 0xFFF], 2);
}
// Eight characters of six bytes; reads 8 bytes at s.
inline void EncodeTwoGroups(const uint8_t* s, char* o) {
    uint64_t x = LoadBigEndian64(s);
    std::memcpy(o, kBase64Pairs.pair[x >> 52], 2);
    std::memcpy(o + 2, kBase64Pairs.pair[(x >> 40) & 0xFFF], 2);
    std::memcpy(o + 4, kBase64Pairs.pair[(x >> 28) & 0xFFF], 2);
    std::memcpy(o + 6, kBase64Pairs.pair[(x >> 16) & 0xFFF], 2);
}

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__)) && !defined(KV_NO_SIMD)
#define KV_BASE64_SSSE3 1

// 0xFF in each byte of c that lies in [lo, hi] (bytes from 0x80 up are
// negative here, so they fall outside every range).
inline __m128i InRange(__m128i c, char lo, char hi) {
    return _mm_and_si128(_mm_cmpgt_epi8(c, _mm_set1_epi8(char(lo - 1))),
                         _mm_cmplt_epi8(c, _mm_set1_epi8(char(hi + 1))));
}

// Decodes 16 characters at p into 12 bytes (and 4 bytes of no meaning) at
// out; ok gets bit k set when character k is of the alphabet. Only the
// groups whose four bits are set decode right.
__attribute__((target("ssse3"))) inline void DecodeBase64Block(const uint8_t* p, char* out,
                                                               int& ok) {
    __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    __m128i upper = InRange(c, 'A', 'Z');
    __m128i lower = InRange(c, 'a', 'z');
    __m128i digit = InRange(c, '0', '9');
    __m128i plus = _mm_cmpeq_epi8(c, _mm_set1_epi8('+'));
    __m128i slash = _mm_cmpeq_epi8(c, _mm_set1_epi8('/'));
    ok = _mm_movemask_epi8(
        _mm_or_si128(_mm_or_si128(upper, lower), _mm_or_si128(digit, _mm_or_si128(plus, slash))));
    // Value = byte + shift: A-Z -65, a-z -71, 0-9 +4, "+" +19, "/" +16.
    __m128i shift =
        _mm_or_si128(_mm_or_si128(_mm_and_si128(upper, _mm_set1_epi8(-65)),
                                  _mm_and_si128(lower, _mm_set1_epi8(-71))),
                     _mm_or_si128(_mm_and_si128(digit, _mm_set1_epi8(4)),
                                  _mm_or_si128(_mm_and_si128(plus, _mm_set1_epi8(19)),
                                               _mm_and_si128(slash, _mm_set1_epi8(16)))));
    __m128i v = _mm_add_epi8(c, shift);
    __m128i w = _mm_maddubs_epi16(v, _mm_set1_epi32(0x01400140));  // v0 * 64 + v1
    __m128i u = _mm_madd_epi16(w, _mm_set1_epi32(0x00011000));     // w0 * 4096 + w1
    __m128i order = _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_shuffle_epi8(u, order));
}

// Decodes whole groups of alphabet characters from s[i] while they last and
// lie before end, 16 characters at a time, stepping over the CR LF between
// lines; returns the new i. The rest is left to the caller. Every store
// writes 16 bytes, at most 4 past the result.
__attribute__((target("ssse3"))) int64_t DecodeBase64Blocks(const uint8_t* s, int64_t i,
                                                            int64_t end, char*& o) {
    char* out = o;
    for (;;) {
        // Lines of 76 characters and CR LF, as encoders write them: five
        // blocks, the last one overlapping the fourth by a group, and a
        // single test.
        while (i + 78 <= end && s[i + 76] == '\r' && s[i + 77] == '\n') {
            int ok0, ok1, ok2, ok3, ok4;
            const uint8_t* p = s + i;
            DecodeBase64Block(p, out, ok0);
            DecodeBase64Block(p + 16, out + 12, ok1);
            DecodeBase64Block(p + 32, out + 24, ok2);
            DecodeBase64Block(p + 48, out + 36, ok3);
            DecodeBase64Block(p + 60, out + 45, ok4);
            if ((ok0 & ok1 & ok2 & ok3 & ok4) != 0xFFFF) break;
            out += 57;
            i += 78;
        }
        // Any other text, one block at a time. Groups are independent: the
        // whole groups before the first other byte decode right even when
        // the block as a whole does not.
        while (i + 16 <= end) {
            int ok;
            DecodeBase64Block(s + i, out, ok);
            if (ok != 0xFFFF) {
                const int groups = std::countr_one(unsigned(ok)) / 4;
                out += 3 * groups;
                i += 4 * groups;
                break;
            }
            out += 12;
            i += 16;
        }
        if (i + 16 <= end && s[i] == '\r' && s[i + 1] == '\n') {
            i += 2;  // skipped as any two stray bytes are
            continue;
        }
        break;
    }
    o = out;
    return i;
}

// The same 32 characters at a time: 24 bytes (and 8 of no meaning) at out;
// ok gets one bit per character.
__attribute__((target("avx2"))) inline void DecodeBase64Block32(const uint8_t* p, char* out,
                                                                uint32_t& ok) {
    __m256i c = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
    __m256i upper = _mm256_and_si256(_mm256_cmpgt_epi8(c, _mm256_set1_epi8('A' - 1)),
                                     _mm256_cmpgt_epi8(_mm256_set1_epi8('Z' + 1), c));
    __m256i lower = _mm256_and_si256(_mm256_cmpgt_epi8(c, _mm256_set1_epi8('a' - 1)),
                                     _mm256_cmpgt_epi8(_mm256_set1_epi8('z' + 1), c));
    __m256i digit = _mm256_and_si256(_mm256_cmpgt_epi8(c, _mm256_set1_epi8('0' - 1)),
                                     _mm256_cmpgt_epi8(_mm256_set1_epi8('9' + 1), c));
    __m256i plus = _mm256_cmpeq_epi8(c, _mm256_set1_epi8('+'));
    __m256i slash = _mm256_cmpeq_epi8(c, _mm256_set1_epi8('/'));
    ok = uint32_t(_mm256_movemask_epi8(_mm256_or_si256(
        _mm256_or_si256(upper, lower), _mm256_or_si256(digit, _mm256_or_si256(plus, slash)))));
    __m256i shift = _mm256_or_si256(
        _mm256_or_si256(_mm256_and_si256(upper, _mm256_set1_epi8(-65)),
                        _mm256_and_si256(lower, _mm256_set1_epi8(-71))),
        _mm256_or_si256(_mm256_and_si256(digit, _mm256_set1_epi8(4)),
                        _mm256_or_si256(_mm256_and_si256(plus, _mm256_set1_epi8(19)),
                                        _mm256_and_si256(slash, _mm256_set1_epi8(16)))));
    __m256i v = _mm256_add_epi8(c, shift);
    __m256i w = _mm256_maddubs_epi16(v, _mm256_set1_epi32(0x01400140));
    __m256i u = _mm256_madd_epi16(w, _mm256_set1_epi32(0x00011000));
    // Twelve bytes at the start of each 16-byte lane, then the two lanes
    // joined into 24 bytes.
    u = _mm256_shuffle_epi8(
        u, _mm256_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1, 2, 1, 0, 6, 5,
                            4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1));
    u = _mm256_permutevar8x32_epi32(u, _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), u);
}

// DecodeBase64Blocks with 32 characters at a time; stores write at most 8
// bytes past the result.
__attribute__((target("avx2"))) int64_t DecodeBase64BlocksAvx2(const uint8_t* s, int64_t i,
                                                               int64_t end, char*& o) {
    char* out = o;
    for (;;) {
        while (i + 78 <= end && s[i + 76] == '\r' && s[i + 77] == '\n') {
            uint32_t ok0, ok1;
            int ok2;
            const uint8_t* p = s + i;
            DecodeBase64Block32(p, out, ok0);
            DecodeBase64Block32(p + 32, out + 24, ok1);
            DecodeBase64Block(p + 60, out + 45, ok2);
            if ((ok0 & ok1) != 0xFFFFFFFFu || ok2 != 0xFFFF) break;
            out += 57;
            i += 78;
        }
        while (i + 32 <= end) {
            uint32_t ok;
            DecodeBase64Block32(s + i, out, ok);
            if (ok != 0xFFFFFFFFu) {
                const int groups = std::countr_one(ok) / 4;
                out += 3 * groups;
                i += 4 * groups;
                break;
            }
            out += 24;
            i += 32;
        }
        if (i + 32 <= end && s[i] == '\r' && s[i + 1] == '\n') {
            i += 2;
            continue;
        }
        break;
    }
    o = out;
    return DecodeBase64Blocks(s, i, end, o);
}

bool HasAvx2() {
    static const bool has = __builtin_cpu_supports("avx2");
    return has;
}

bool HasSsse3() {
    static const bool has = __builtin_cpu_supports("ssse3");
    return has;
}
#endif

// One group of four values (0..64, 64 being "="), as step 4 writes it.
inline char* EmitBase64Group(char* o, const uint32_t g[4]) {
    *o++ = char((g[0] << 2) + (g[1] >> 4));
    if (g[2] < 64) {
        *o++ = char(((g[1] & 15) << 4) + (g[2] >> 2));
        if (g[3] < 64) *o++ = char(((g[2] & 3) << 6) + g[3]);
    }
    return o;
}

}  // namespace

bstring& EncodeBase64(bstring& dest, const char* src, int32_t len, bool append, bool wrap) {
    if (!append || dest.nSize < 0) dest.nSize = 0;
    if (!src || len <= 0) return dest;
    bstring copy;
    if (TouchesBuffer(dest, src, len)) {
        copy.assign(src, len);
        src = copy.pData;
    }
    // The exact size: four characters per group, a CRLF after every 19th
    // whole group when wrapping.
    const int64_t whole = len / 3;
    const int tail = len % 3;
    const int64_t lines = wrap ? whole / 19 : 0;
    const int64_t total = dest.nSize + 4 * (whole + (tail ? 1 : 0)) + 2 * lines;
    if (total > kMaxSize) return dest;
    dest.reserve(int32_t(total));
    if (!dest.pData) return dest;

    const uint8_t* s = reinterpret_cast<const uint8_t*>(src);
    const uint8_t* const e = s + len;
    char* o = dest.pData + dest.nSize;
    // Whole lines: 57 bytes give 76 characters and CRLF. The reads of the
    // last two-group step end at byte 55 of the line.
    for (int64_t l = 0; l < lines; ++l) {
        for (int k = 0; k < 9; ++k) EncodeTwoGroups(s + 6 * k, o + 8 * k);
        EncodeGroup(s + 54, o + 72);
        o[76] = '\r';
        o[77] = '\n';
        s += 57;
        o += 78;
    }
    int64_t groups = whole - 19 * lines;
    while (groups >= 2 && e - s >= 8) {
        EncodeTwoGroups(s, o);
        s += 6;
        o += 8;
        groups -= 2;
    }
    while (groups > 0) {
        EncodeGroup(s, o);
        s += 3;
        o += 4;
        --groups;
    }
    if (tail) {
        uint32_t x = uint32_t(s[0]) << 16 | (tail == 2 ? uint32_t(s[1]) << 8 : 0);
        o[0] = kBase64Alphabet[x >> 18];
        o[1] = kBase64Alphabet[(x >> 12) & 63];
        o[2] = tail == 2 ? kBase64Alphabet[(x >> 6) & 63] : '=';
        o[3] = '=';
        o += 4;
    }
    dest.nSize = int32_t(o - dest.pData);
    return dest;
}

bstring& DecodeBase64(bstring& dest, const bstring& src, int32_t start, int32_t end) {
    if (&dest == &src || TouchesBuffer(dest, src.pData, src.nSize)) {
        bstring copy(src.pData, src.pData && src.nSize > 0 ? src.nSize : 0);
        return DecodeBase64(dest, copy, start, end);
    }
    dest.nSize = 0;
    const int32_t n = src.pData && src.nSize > 0 ? src.nSize : 0;
    if (end < 0 || end > n) end = n;
    if (start < 0) start = 0;
    if (start >= end) return dest;
    // As many virtual "=" as (end - start) % 4 says (step 2; its condition,
    // end above start % 4, always holds once start < end).
    const int pads = (end - start) % 4;
    dest.reserve(int32_t(std::min<int64_t>(int64_t(end) - start + pads, INT32_MAX)));
    if (!dest.pData) return dest;

    const uint8_t* s = reinterpret_cast<const uint8_t*>(src.pData);
    const auto& P = kBase64Places.place;
    char* o = dest.pData;
    int64_t i = start;
    uint32_t g[4];
    int k = 0;
    // Output never outruns 3/4 of the input consumed, so the 32-, 16-, 8- and
    // 4-byte stores below, which write 8, 4, 2 and 1 bytes past the result,
    // stay inside the reservation of end - start.
    for (;;) {
        // Whole groups of plain alphabet, sixteen characters at a time where
        // the processor allows, then two groups and one; k is 0 here.
#ifdef KV_BASE64_SSSE3
        if (HasAvx2()) {
            i = DecodeBase64BlocksAvx2(s, i, end, o);
        } else if (HasSsse3()) {
            i = DecodeBase64Blocks(s, i, end, o);
        }
#endif
        // The line break of wrapped text, skipped as two stray bytes are.
        if (i + 1 < end && s[i] == '\r' && s[i + 1] == '\n') {
            i += 2;
            continue;
        }
        while (i + 8 <= end) {
            uint32_t a = P[0][s[i]] | P[1][s[i + 1]] | P[2][s[i + 2]] | P[3][s[i + 3]];
            uint32_t b = P[0][s[i + 4]] | P[1][s[i + 5]] | P[2][s[i + 6]] | P[3][s[i + 7]];
            if ((a | b) & kBase64Bad) break;
            StoreBigEndian64(o, (uint64_t(a) << 24 | b) << 16);
            o += 6;
            i += 8;
        }
        if (i + 4 <= end) {
            uint32_t a = P[0][s[i]] | P[1][s[i + 1]] | P[2][s[i + 2]] | P[3][s[i + 3]];
            if (!(a & kBase64Bad)) {
                StoreBigEndian32(o, a << 8);
                o += 3;
                i += 4;
                continue;
            }
        }
        if (i >= end) break;
        // Skipped bytes and padding: one byte at a time until a group is
        // complete again (or one byte was skipped between groups).
        do {
            uint32_t v = kBase64Values[s[i++]];
            if (v > 64) continue;
            g[k++] = v;
            if (k == 4) {
                o = EmitBase64Group(o, g);
                k = 0;
            }
        } while (k != 0 && i < end);
    }
    for (int p = 0; p < pads; ++p) {
        g[k++] = 64;
        if (k == 4) {
            o = EmitBase64Group(o, g);
            k = 0;
        }
    }
    dest.nSize = int32_t(o - dest.pData);
    return dest;
}

// ---- quoted-printable ----

#if defined(__x86_64__) && !defined(KV_NO_SIMD)
#define KV_QP_SSE2 1
// Bit k set for each byte k of the 64 at p that does not simply go out
// literally inside a line: a byte outside the safe set, blank and tab, or a
// blank or tab followed by CR (which may end the line); bit 63 is always set,
// since the byte after it is not looked at.
inline uint64_t QpSpecialMask64(const uint8_t* p) {
    uint64_t literal = 0, blank = 0, cr = 0;
    for (int k = 0; k < 4; ++k) {
        __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * k));
        __m128i printable = _mm_and_si128(_mm_cmpgt_epi8(c, _mm_set1_epi8(31)),
                                          _mm_cmplt_epi8(c, _mm_set1_epi8(127)));
        __m128i excluded = _mm_or_si128(_mm_cmpeq_epi8(c, _mm_set1_epi8('=')),
                                        _mm_or_si128(_mm_cmpeq_epi8(c, _mm_set1_epi8('?')),
                                                     _mm_cmpeq_epi8(c, _mm_set1_epi8('_'))));
        __m128i tab = _mm_cmpeq_epi8(c, _mm_set1_epi8('\t'));
        __m128i blanks = _mm_or_si128(_mm_cmpeq_epi8(c, _mm_set1_epi8(' ')), tab);
        __m128i lit = _mm_or_si128(_mm_andnot_si128(excluded, printable), tab);
        literal |= uint64_t(unsigned(_mm_movemask_epi8(lit))) << (16 * k);
        blank |= uint64_t(unsigned(_mm_movemask_epi8(blanks))) << (16 * k);
        cr |= uint64_t(unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(c, _mm_set1_epi8('\r')))))
              << (16 * k);
    }
    return ~literal | (blank & (cr >> 1)) | (uint64_t(1) << 63);
}
#endif

bstring& EncodeQuotedPrintable(bstring& dest, const char* src, int32_t len, bool append) {
    if (!append || dest.nSize < 0) dest.nSize = 0;
    if (!src || len <= 0) return dest;
    bstring copy;
    if (TouchesBuffer(dest, src, len)) {
        copy.assign(src, len);
        src = copy.pData;
    }
    const int32_t initial = dest.nSize;
    int64_t figure = std::min<int64_t>(initial + int64_t(len) * 3 / 2, kMaxSize);
    dest.reserve(int32_t(figure));
    if (!dest.pData) return dest;

    const uint8_t* s = reinterpret_cast<const uint8_t*>(src);
    const int64_t n = len;
    int64_t i = 0;
    int64_t pos = initial;
    int64_t cap = dest.nCapacity;
    char* base = dest.pData;
    int col = 0;
    // Room for one pass of the loop: the runs inside a line write at most
    // 75 - column bytes, and their copies up to 31 bytes beyond; the single
    // step after them at most 8 (a soft break and a padded triplet).
    constexpr int64_t kRoom = 128;
    while (i < n) {
        if (cap - pos < kRoom) {
            // Raise the figure to 3/2 of itself, keeping what was written.
            if (pos + kRoom > kMaxSize) {
                dest.nSize = initial;  // the result cannot be held
                return dest;
            }
            figure = std::max<int64_t>(figure, cap) * 3 / 2;
            figure = std::min<int64_t>(std::max<int64_t>(figure, pos + 4 * kRoom), kMaxSize);
            dest.nSize = int32_t(pos);
            dest.reserve(int32_t(figure));
            base = dest.pData;
            cap = dest.nCapacity;
        }
        char* o = base + pos;
        // Inside a line, with the column at most 72, no soft break can fall
        // before a byte: a safe byte is literal, and any other byte but blank,
        // tab and CR is a triplet whatever follows it; a blank or tab is
        // literal unless CR LF follows it.
#ifdef KV_QP_SSE2
        // 64 bytes at a time: a bitmap of the bytes that need a decision, then
        // the literal runs between them are copied 16 bytes at a time and each
        // byte that stopped a run goes out as its triplet, as long as the
        // column allows no soft break. CR, a blank or tab before CR, and a
        // column past 72 are left to the steps below. The 16-byte copies read
        // up to 31 bytes past the block, so it stops 96 bytes short of the end.
        while (col <= 72 && i + 96 <= n) {
            uint64_t special = QpSpecialMask64(s + i);
            int at = 0;  // position in the block
            bool stopped = false;
            for (;;) {
                int next = std::countr_zero(special);
                int run = next - at;
                if (run > 75 - col) {
                    run = 75 - col;
                    stopped = true;
                }
                // Two unconditional copies cover most runs without a branch.
                const uint8_t* from = s + i + at;
                std::memcpy(o, from, 16);
                std::memcpy(o + 16, from + 16, 16);
                for (int k = 32; k < run; k += 16) std::memcpy(o + k, from + k, 16);
                o += run;
                col += run;
                at += run;
                if (stopped || next == 63) break;
                const uint8_t c = s[i + next];
                if (kQpClasses[c] != kQpHex || col > 72) {
                    stopped = true;
                    break;
                }
                std::memcpy(o, kQpTriplets.text[c], 4);
                o += 3;
                col += 3;
                at = next + 1;
                special &= special - 1;
            }
            i += at;
            if (stopped) break;
        }
#endif
        // Byte by byte (and eight at a time without SSE2), with two bytes of
        // look-ahead kept in range by stopping two bytes short of the end.
        while (col <= 72 && i + 2 < n) {
#ifndef KV_QP_SSE2
            if (col <= 64 && i + 9 <= n) {
                // Eight bytes that all go out literally: safe bytes, blanks
                // and tabs followed by a ninth such byte are never at a line's
                // end, and no soft break falls among them.
                const uint8_t* p = s + i;
                if (kQpLiteral[p[0]] & kQpLiteral[p[1]] & kQpLiteral[p[2]] & kQpLiteral[p[3]] &
                    kQpLiteral[p[4]] & kQpLiteral[p[5]] & kQpLiteral[p[6]] & kQpLiteral[p[7]] &
                    kQpLiteral[p[8]]) {
                    std::memcpy(o, p, 8);
                    o += 8;
                    i += 8;
                    col += 8;
                    continue;
                }
            }
#endif
            const uint8_t c = s[i];
            const uint8_t cls = kQpClasses[c];
            if (cls == kQpCr || (cls == kQpBlank && s[i + 1] == '\r')) break;
            const int width = kQpInLine.width[c];
            std::memcpy(o, kQpInLine.text[c], 4);
            o += width;
            col += width;
            ++i;
        }
        pos = o - base;
        if (i >= n) break;

        // One byte by the full rule: line ends, soft breaks, the last bytes.
        const uint8_t c = s[i];
        const uint8_t cls = kQpClasses[c];
        if (cls == kQpCr && i + 1 < n && s[i + 1] == '\n') {
            o[0] = '\r';
            o[1] = '\n';
            pos += 2;
            i += 2;
            col = 0;
            continue;
        }
        const bool atEnd = i + 1 == n || (i + 2 < n && s[i + 1] == '\r' && s[i + 2] == '\n');
        if (cls == kQpSafe || (cls == kQpBlank && !atEnd)) {
            if (col == 75 && !atEnd) {
                o[0] = '=';
                o[1] = '\r';
                o[2] = '\n';
                o += 3;
                col = 1;
            } else {
                col += 1;
            }
            *o++ = char(c);
        } else {
            if ((col > 72 && !atEnd) || (cls == kQpBlank && col == 75 && atEnd)) {
                o[0] = '=';
                o[1] = '\r';
                o[2] = '\n';
                o += 3;
                col = 3;
            } else {
                col += 3;
            }
            std::memcpy(o, kQpTriplets.text[c], 4);
            o += 3;
        }
        pos = o - base;
        ++i;
    }
    dest.nSize = int32_t(pos);
    return dest;
}

bstring& DecodeQuotedPrintable(bstring& dest, bstring& src, bool underscoreIsBlank) {
    if (underscoreIsBlank && src.nSize > 0 && src.pData) src.replace_char('_', ' ');
    if (&dest == &src || TouchesBuffer(dest, src.pData, src.nSize)) {
        bstring copy(src.pData, src.pData && src.nSize > 0 ? src.nSize : 0);
        return DecodeQuotedPrintable(dest, copy, false);
    }
    dest.nSize = 0;
    const int64_t n = src.pData && src.nSize > 0 ? src.nSize : 0;
    if (n == 0) return dest;
    dest.reserve(int32_t(n));
    if (!dest.pData) return dest;

    const uint8_t* s = reinterpret_cast<const uint8_t*>(src.pData);
    char* o = dest.pData;
    int64_t i = 0;
    // "=" followed by two bytes: a byte when both are hexadecimal digits,
    // nothing otherwise; the two bytes go in either case. With fewer than
    // two bytes behind it, only the "=" goes.
    auto escape = [&]() {
        if (n - i >= 3) {
            uint32_t hi = kHexValues[s[i + 1]], lo = kHexValues[s[i + 2]];
            if ((hi | lo) < 16) *o++ = char(hi << 4 | lo);
            i += 3;
        } else {
            i += 1;
        }
    };
    // Eight bytes at a time: copy them all, then keep those before the
    // first "=". The output never outruns the input, so the 8-byte store
    // stays inside the reservation.
    constexpr uint64_t kOnes = 0x0101010101010101ull;
    constexpr uint64_t kEquals = kOnes * '=';
    while (i + 8 <= n) {
        uint64_t w = Load64(s + i);
        std::memcpy(o, &w, 8);
        uint64_t x = w ^ kEquals;
        uint64_t found = (x - kOnes) & ~x & (kOnes << 7);
        if (!found) {
            i += 8;
            o += 8;
            continue;
        }
        // The lowest flagged byte is exact; the bytes behind it are redone.
        int first = std::endian::native == std::endian::little ? std::countr_zero(found) / 8
                                                               : std::countl_zero(found) / 8;
        i += first;
        o += first;
        escape();
    }
    while (i < n) {
        if (s[i] != '=') {
            *o++ = char(s[i++]);
        } else {
            escape();
        }
    }
    dest.nSize = int32_t(o - dest.pData);
    return dest;
}

// ---- uuencode ----

bstring& DecodeUuencode(bstring& dest, const bstring& src) {
    if (&dest == &src || TouchesBuffer(dest, src.pData, src.nSize)) {
        bstring copy(src.pData, src.pData && src.nSize > 0 ? src.nSize : 0);
        return DecodeUuencode(dest, copy);
    }
    dest.nSize = 0;
    const int64_t n = src.pData && src.nSize > 0 ? src.nSize : 0;
    if (n == 0) return dest;
    const uint8_t* s = reinterpret_cast<const uint8_t*>(src.pData);

    // Lines end at CRLF only; a last line without one counts.
    auto line_end = [&](int64_t p) -> int64_t {
        for (;;) {
            const void* cr = std::memchr(s + p, '\r', size_t(n - p));
            if (!cr) return n;
            int64_t q = static_cast<const uint8_t*>(cr) - s;
            if (q + 1 < n && s[q + 1] == '\n') return q;
            p = q + 1;
        }
    };

    // First pass: how far the output reaches (groups may write up to two
    // bytes past a line's count, and a line of one count byte and nothing
    // else still moves the position, so the output can outgrow the source),
    // and the longest line that needs completing. Lines that would take the
    // output past the hard limit, and all after them, are left out.
    int64_t reach = n;
    int64_t longest = 0;
    int64_t stop = n;
    {
        int64_t pos = 0;
        for (int64_t p = 0; p < n;) {
            int64_t q = line_end(p);
            int64_t len = q - p;
            if (len > 0 && s[p] < 96) {
                int64_t count = int64_t(s[p]) - 32;
                int64_t chars = len - 1;
                int64_t groups = (chars + 3) / 4;
                int64_t written = count > 0 ? std::min(groups, (count + 2) / 3) * 3 : 0;
                int64_t after = std::max<int64_t>(pos + count, 0);
                if (std::max(pos + written, after) > kMaxSize) {
                    stop = p;
                    break;
                }
                reach = std::max(reach, std::max(pos + written, after));
                if (chars % 4 != 0 && written > 0) longest = std::max(longest, chars);
                pos = after;
            }
            p = q + 2;
        }
    }
    dest.reserve(int32_t(reach));
    if (!dest.pData) return dest;

    // The work buffer that completes a line with blanks to a whole group:
    // the longest such line plus a group, taken once.
    std::vector<uint8_t> work;
    if (longest > 0) work.resize(size_t(longest) + 4);

    uint8_t* out = reinterpret_cast<uint8_t*>(dest.pData);
    int64_t pos = 0;
    int64_t filled = 0;  // out[0, filled) has been written
    for (int64_t p = 0; p < stop;) {
        int64_t q = line_end(p);
        int64_t len = q - p;
        p = q + 2;
        if (len == 0 || s[q - len] >= 96) continue;
        const uint8_t* line = s + (q - len);
        int64_t count = int64_t(line[0]) - 32;
        int64_t chars = len - 1;
        const uint8_t* g = line + 1;
        int64_t written = 0;
        if (count > 0 && chars > 0) {
            if (chars % 4 != 0) {
                std::memcpy(work.data(), g, size_t(chars));
                std::memset(work.data() + chars, ' ', size_t(4 - chars % 4));
                g = work.data();
                chars += 4 - chars % 4;
            }
            uint8_t* o = out + pos;
            for (int64_t k = 0; k < chars && written < count; k += 4, written += 3) {
                uint32_t a = kUuValues[g[k]], b = kUuValues[g[k + 1]];
                uint32_t c = kUuValues[g[k + 2]], d = kUuValues[g[k + 3]];
                *o++ = uint8_t((a << 2) + (b >> 4));
                *o++ = uint8_t(((b & 15) << 4) + (c >> 2));
                *o++ = uint8_t(((c & 3) << 6) + d);
            }
            filled = std::max(filled, pos + written);
        }
        // The position follows the count whatever the groups wrote; bytes it
        // covers that nothing wrote are zeros, and it stops at the start.
        pos = std::max<int64_t>(pos + count, 0);
        if (pos > filled) {
            std::memset(out + filled, 0, size_t(pos - filled));
            filled = pos;
        }
    }
    dest.nSize = int32_t(pos);
    return dest;
}

// ---- line wrapping ----

bstring& WrapBodyLines(bstring& dest, const char* src, int32_t len, bool append) {
    if (!append || dest.nSize < 0) dest.nSize = 0;
    if (!src || len <= 0) return dest;
    bstring copy;
    if (TouchesBuffer(dest, src, len)) {
        copy.assign(src, len);
        src = copy.pData;
    }
    // Each break adds CRLF and takes at least 39 bytes.
    const int64_t total_max = dest.nSize + int64_t(len) + 2 * (int64_t(len) / 39);
    if (total_max > kMaxSize) return dest;
    dest.reserve(int32_t(total_max));
    if (!dest.pData) return dest;

    const char* s = src;
    const int64_t n = len;
    char* o = dest.pData + dest.nSize;
    int64_t p = 0;
    // "More than 75 bytes remain behind p": bytes after p, so the byte at
    // p + 76 always exists here.
    while (n - p - 1 > 75) {
        const bool blank76 = s[p + 76] == ' ';
        const int64_t window = std::min<int64_t>(blank76 ? 78 : 77, n - p);
        const void* cr = std::memchr(s + p, '\r', size_t(window));
        if (cr) {
            int64_t q = static_cast<const char*>(cr) - s;
            if (q + 1 < n && s[q + 1] == '\n') {
                std::memcpy(o, s + p, size_t(q + 2 - p));
                o += q + 2 - p;
                p = q + 2;
                continue;
            }
        }
        int64_t last = p + 75;
        if (blank76) {
            last = p + 76;
        } else {
            for (int64_t j = p + 75; j >= p + 38; --j) {
                if (s[j] == '\t' || s[j] == ' ' || s[j] == '-') {
                    last = j;
                    break;
                }
            }
        }
        std::memcpy(o, s + p, size_t(last + 1 - p));
        o += last + 1 - p;
        o[0] = '\r';
        o[1] = '\n';
        o += 2;
        p = last + 1;
    }
    std::memcpy(o, s + p, size_t(n - p));
    o += n - p;
    dest.nSize = int32_t(o - dest.pData);
    return dest;
}

// ---- the body dispatcher ----

bstring& EncodeBody(bstring& dest, wbstring& src, int32_t encoding, bool append, int32_t codepage) {
    bstring bytes;
    src.export_bstring(bytes, codepage < 0 ? 0 : codepage);
    switch (encoding) {
        case kEncodingQuotedPrintable:
            return EncodeQuotedPrintable(dest, bytes.pData, bytes.nSize, append);
        case kEncodingBase64:
            return EncodeBase64(dest, bytes.pData, bytes.nSize, append, true);
        default:
            return WrapBodyLines(dest, bytes.pData, bytes.nSize, append);
    }
}

}  // namespace kv
