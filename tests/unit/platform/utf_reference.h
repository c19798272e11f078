// A character-at-a-time model of the UTF-8 <-> UTF-16 conversions, written
// for clarity, against which the fast paths are compared (unit tests and the
// codepage fuzz target). Ill-formed UTF-8 gives one U+FFFD per maximal
// subpart; a lone surrogate gives U+FFFD. `strict` makes either a failure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kv::test {

inline std::optional<std::u16string> Utf8ToUtf16Model(std::string_view text, bool strict = false) {
    std::u16string out;
    const auto* s = reinterpret_cast<const uint8_t*>(text.data());
    size_t n = text.size(), i = 0;
    while (i < n) {
        uint8_t b = s[i];
        // Length, and the range of the first tail byte, per first byte.
        int need = 0;
        uint32_t cp = b;
        uint8_t lo = 0x80, hi = 0xBF;
        if (b >= 0xC2 && b <= 0xDF) {
            need = 1;
            cp = b & 0x1F;
        } else if (b >= 0xE0 && b <= 0xEF) {
            need = 2;
            cp = b & 0x0F;
            lo = b == 0xE0 ? 0xA0 : 0x80;
            hi = b == 0xED ? 0x9F : 0xBF;
        } else if (b >= 0xF0 && b <= 0xF4) {
            need = 3;
            cp = b & 0x07;
            lo = b == 0xF0 ? 0x90 : 0x80;
            hi = b == 0xF4 ? 0x8F : 0xBF;
        } else if (b >= 0x80) {
            need = -1;  // a tail byte, C0, C1 or F5..FF on its own
        }
        ++i;
        bool ok = need >= 0;
        for (int k = 0; ok && k < need; ++k) {
            if (i == n || s[i] < lo || s[i] > hi) {
                ok = false;
                break;
            }
            cp = cp << 6 | (s[i] & 0x3F);
            lo = 0x80;
            hi = 0xBF;
            ++i;
        }
        if (!ok) {
            if (strict) return std::nullopt;
            cp = 0xFFFD;
        }
        if (cp >= 0x10000) {
            out += static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10));
            out += static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
        } else {
            out += static_cast<char16_t>(cp);
        }
    }
    return out;
}

inline std::optional<std::string> Utf16ToUtf8Model(std::u16string_view text, bool strict = false) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        uint32_t u = text[i];
        if (u >= 0xD800 && u <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
            u = 0x10000 + ((u - 0xD800) << 10) + (text[++i] - 0xDC00);
        } else if (u >= 0xD800 && u <= 0xDFFF) {
            if (strict) return std::nullopt;
            u = 0xFFFD;
        }
        if (u < 0x80) {
            out += static_cast<char>(u);
        } else if (u < 0x800) {
            out += static_cast<char>(0xC0 | u >> 6);
            out += static_cast<char>(0x80 | (u & 0x3F));
        } else if (u < 0x10000) {
            out += static_cast<char>(0xE0 | u >> 12);
            out += static_cast<char>(0x80 | (u >> 6 & 0x3F));
            out += static_cast<char>(0x80 | (u & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | u >> 18);
            out += static_cast<char>(0x80 | (u >> 12 & 0x3F));
            out += static_cast<char>(0x80 | (u >> 6 & 0x3F));
            out += static_cast<char>(0x80 | (u & 0x3F));
        }
    }
    return out;
}

}  // namespace kv::test
