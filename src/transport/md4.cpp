#include "transport/md4.h"

#include <cstring>

namespace kv {

namespace {

inline uint32_t Rotl(uint32_t x, int s) { return (x << s) | (x >> (32 - s)); }
inline uint32_t F(uint32_t x, uint32_t y, uint32_t z) { return (x & y) | (~x & z); }
inline uint32_t G(uint32_t x, uint32_t y, uint32_t z) { return (x & y) | (x & z) | (y & z); }
inline uint32_t H(uint32_t x, uint32_t y, uint32_t z) { return x ^ y ^ z; }

void Block(uint32_t state[4], const uint8_t* p) {
    uint32_t x[16];
    for (int i = 0; i < 16; ++i)
        x[i] = uint32_t(p[4 * i]) | uint32_t(p[4 * i + 1]) << 8 | uint32_t(p[4 * i + 2]) << 16 |
               uint32_t(p[4 * i + 3]) << 24;
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];

    // Round 1: [abcd k s] a = (a + F(b,c,d) + X[k]) <<< s, k in order.
    static const int s1[4] = {3, 7, 11, 19};
    for (int i = 0; i < 16; ++i) {
        uint32_t t = Rotl(a + F(b, c, d) + x[i], s1[i % 4]);
        a = d, d = c, c = b, b = t;
    }
    // Round 2: k walks the columns; constant 0x5A827999.
    static const int s2[4] = {3, 5, 9, 13};
    for (int i = 0; i < 16; ++i) {
        int k = (i % 4) * 4 + i / 4;
        uint32_t t = Rotl(a + G(b, c, d) + x[k] + 0x5A827999u, s2[i % 4]);
        a = d, d = c, c = b, b = t;
    }
    // Round 3: k in bit-reversed order; constant 0x6ED9EBA1.
    static const int k3[16] = {0, 8, 4, 12, 2, 10, 6, 14, 1, 9, 5, 13, 3, 11, 7, 15};
    static const int s3[4] = {3, 9, 11, 15};
    for (int i = 0; i < 16; ++i) {
        uint32_t t = Rotl(a + H(b, c, d) + x[k3[i]] + 0x6ED9EBA1u, s3[i % 4]);
        a = d, d = c, c = b, b = t;
    }
    state[0] += a, state[1] += b, state[2] += c, state[3] += d;
}

}  // namespace

void ComputeMD4(const void* data, size_t len, uint8_t digest[kMD4DigestSize]) {
    uint32_t state[4] = {0x67452301u, 0xEFCDAB89u, 0x98BADCFEu, 0x10325476u};
    const uint8_t* p = static_cast<const uint8_t*>(data);
    size_t left = len;
    for (; left >= 64; left -= 64, p += 64) Block(state, p);

    // Padding: 0x80, zeros to 56 mod 64, then the bit length, little-endian.
    uint8_t tail[128] = {0};
    if (left) std::memcpy(tail, p, left);
    tail[left] = 0x80;
    size_t tail_len = left < 56 ? 64 : 128;
    uint64_t bits = uint64_t(len) * 8;
    for (int i = 0; i < 8; ++i) tail[tail_len - 8 + i] = uint8_t(bits >> (8 * i));
    Block(state, tail);
    if (tail_len == 128) Block(state, tail + 64);

    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) digest[4 * i + j] = uint8_t(state[i] >> (8 * j));
}

}  // namespace kv
