// Plain, byte-at-a-time models of the transfer-encoding algorithms, written
// step by step from their rules with no attention to speed. The unit tests and the fuzz
// targets compare the fast codecs of src/codecs/encoding.cpp with them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

namespace kv::reference {

inline bool Safe(unsigned char c) {
    return (c >= 33 && c <= 60) || c == 62 || (c >= 64 && c <= 126 && c != 95);
}

inline std::string EncodeBase64(std::string_view in, bool wrap) {
    static const char* a = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    size_t i = 0, count = 0;
    for (; i + 3 <= in.size(); i += 3) {
        uint32_t x = uint8_t(in[i]) << 16 | uint8_t(in[i + 1]) << 8 | uint8_t(in[i + 2]);
        out += a[x >> 18];
        out += a[(x >> 12) & 63];
        out += a[(x >> 6) & 63];
        out += a[x & 63];
        count += 4;
        if (wrap && count == 76) {
            out += "\r\n";
            count = 0;
        }
    }
    size_t rest = in.size() - i;
    if (rest) {
        uint32_t x = uint8_t(in[i]) << 16 | (rest == 2 ? uint8_t(in[i + 1]) << 8 : 0);
        out += a[x >> 18];
        out += a[(x >> 12) & 63];
        out += rest == 2 ? a[(x >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

inline int Base64Value(unsigned char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    if (c == '=') return 64;
    return 65;
}

inline std::string DecodeBase64(std::string_view src, int64_t start = 0, int64_t end = -1) {
    std::string out;
    int64_t n = int64_t(src.size());
    if (end < 0 || end > n) end = n;
    if (start < 0) start = 0;
    if (start >= end) return out;
    int64_t limit = end;
    if (end > start % 4) limit += (end - start) % 4;
    int g[4];
    int k = 0;
    for (int64_t p = start; p < limit; ++p) {
        int v = p >= end ? 64 : Base64Value(uint8_t(src[p]));
        if (v == 65) continue;
        g[k++] = v;
        if (k < 4) continue;
        out += char(uint8_t((g[0] << 2) + (g[1] >> 4)));
        if (g[2] < 64) {
            out += char(uint8_t(((g[1] & 15) << 4) + (g[2] >> 2)));
            if (g[3] < 64) out += char(uint8_t(((g[2] & 3) << 6) + g[3]));
        }
        k = 0;
    }
    return out;
}

inline std::string EncodeQuotedPrintable(std::string_view in) {
    static const char* hex = "0123456789ABCDEF";
    std::string out;
    int col = 0;
    size_t n = in.size();
    for (size_t i = 0; i < n; ++i) {
        unsigned char c = uint8_t(in[i]);
        if (c == '\r' && i + 1 < n && in[i + 1] == '\n') {
            out += "\r\n";
            ++i;
            col = 0;
            continue;
        }
        bool atEnd = (i + 2 < n && in[i + 1] == '\r' && in[i + 2] == '\n') || i + 1 == n;
        bool blank = c == ' ' || c == '\t';
        if (!Safe(c) && !(blank && !atEnd)) {
            if (col > 72 && !atEnd) {
                out += "=\r\n";
                col = 3;
            } else if (blank && col == 75 && atEnd) {
                out += "=\r\n";
                col = 3;
            } else {
                col += 3;
            }
            out += '=';
            out += hex[c >> 4];
            out += hex[c & 15];
        } else {
            if (col == 75 && !atEnd) {
                out += "=\r\n";
                col = 1;
            } else {
                col += 1;
            }
            out += char(c);
        }
    }
    return out;
}

inline bool IsHex(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
inline int HexValue(char c) {
    return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10;
}

// Steps 2 and 3, with the copy position and the read position.
inline std::string DecodeQuotedPrintable(std::string src, bool underscoreIsBlank) {
    if (underscoreIsBlank) std::replace(src.begin(), src.end(), '_', ' ');
    std::string out;
    size_t copy = 0, read = 0, n = src.size();
    while (read < n) {
        if (src[read] != '=') {
            size_t eq = src.find('=', read);
            if (eq == std::string::npos) eq = n;
            out.append(src, copy, eq - copy);
            read = copy = eq;
            continue;
        }
        ++read;
        if (n - read >= 2) {
            char a = src[read], b = src[read + 1];
            bool space = a == ' ' || a == '\t' || a == '\r' || a == '\n' || a == '\f';
            if (!space && IsHex(a) && IsHex(b)) out += char(HexValue(a) << 4 | HexValue(b));
            read += 2;
        }
        copy = read;
    }
    return out;
}

// The model keeps a byte array as large as the output can reach and zeros
// for bytes that the count covers and no group wrote.
inline std::string DecodeUuencode(std::string_view src) {
    std::string buf;
    int64_t pos = 0;
    size_t p = 0;
    while (p < src.size()) {
        size_t q = src.find("\r\n", p);
        if (q == std::string_view::npos) q = src.size();
        std::string line(src.substr(p, q - p));
        p = q + 2;
        if (line.empty() || uint8_t(line[0]) >= 96) continue;
        int64_t count = int64_t(uint8_t(line[0])) - 32;
        std::string rest = line.substr(1);
        while (rest.size() % 4) rest += ' ';
        int64_t written = 0;
        for (size_t k = 0; k < rest.size() && written < count; k += 4, written += 3) {
            auto v = [&](size_t j) {
                unsigned char c = uint8_t(rest[k + j]);
                if (c == 96) c = ' ';
                return uint8_t(c - 32);
            };
            uint8_t a = v(0), b = v(1), c = v(2), d = v(3);
            size_t at = size_t(pos + written);
            if (buf.size() < at + 3) buf.resize(at + 3, '\0');
            buf[at] = char(uint8_t((a << 2) + (b >> 4)));
            buf[at + 1] = char(uint8_t(((b & 15) << 4) + (c >> 2)));
            buf[at + 2] = char(uint8_t(((c & 3) << 6) + d));
        }
        pos = std::max<int64_t>(pos + count, 0);
        if (int64_t(buf.size()) < pos) buf.resize(size_t(pos), '\0');
    }
    buf.resize(size_t(pos));
    return buf;
}

inline std::string WrapBodyLines(std::string_view in) {
    std::string out;
    size_t n = in.size(), p = 0;
    while (n - p - 1 > 75 && p < n) {
        bool blank76 = in[p + 76] == ' ';
        size_t window = std::min<size_t>(blank76 ? 78 : 77, n - p);
        size_t cr = in.substr(p, window).find('\r');
        if (cr != std::string_view::npos && p + cr + 1 < n && in[p + cr + 1] == '\n') {
            out.append(in.substr(p, cr + 2));
            p += cr + 2;
            continue;
        }
        size_t last = p + 75;
        if (blank76) {
            last = p + 76;
        } else {
            for (size_t j = p + 75; j >= p + 38; --j) {
                if (in[j] == '\t' || in[j] == ' ' || in[j] == '-') {
                    last = j;
                    break;
                }
            }
        }
        out.append(in.substr(p, last + 1 - p));
        out += "\r\n";
        p = last + 1;
    }
    out.append(in.substr(p));
    return out;
}

}  // namespace kv::reference
