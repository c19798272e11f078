#include "automation/bstr.h"

#include <cstdlib>
#include <cstring>

namespace {

// Header of 4 bytes for the byte length; data follows, then two NUL bytes
// (three for an odd byte length, so the unit terminator is always whole).
BSTR AllocBytes(const void* src, uint32_t bytes) {
    if (bytes > 0x7FFFFFF0u) return nullptr;
    auto* block = static_cast<unsigned char*>(std::malloc(size_t(bytes) + 4 + 3));
    if (!block) return nullptr;
    std::memcpy(block, &bytes, 4);
    unsigned char* data = block + 4;
    if (src)
        std::memcpy(data, src, bytes);
    else
        std::memset(data, 0, bytes);
    data[bytes] = data[bytes + 1] = data[bytes + 2] = 0;
    return reinterpret_cast<BSTR>(data);
}

}  // namespace

extern "C" {

BSTR SysAllocStringLen(const OLECHAR* src, uint32_t n) {
    if (n > 0x3FFFFFF0u) return nullptr;
    return AllocBytes(src, n * 2);
}

BSTR SysAllocString(const OLECHAR* src) {
    if (!src) return nullptr;
    uint32_t n = 0;
    while (src[n]) ++n;
    return SysAllocStringLen(src, n);
}

BSTR SysAllocStringByteLen(const char* src, uint32_t n) { return AllocBytes(src, n); }

uint32_t SysStringByteLen(BSTR s) {
    if (!s) return 0;
    uint32_t bytes;
    std::memcpy(&bytes, reinterpret_cast<const unsigned char*>(s) - 4, 4);
    return bytes;
}

uint32_t SysStringLen(BSTR s) { return SysStringByteLen(s) / 2; }

void SysFreeString(BSTR s) {
    if (s) std::free(reinterpret_cast<unsigned char*>(s) - 4);
}

int SysReAllocStringLen(BSTR* p, const OLECHAR* src, uint32_t n) {
    if (!p) return 0;
    BSTR fresh = SysAllocStringLen(src, n);
    if (!fresh) return 0;
    SysFreeString(*p);
    *p = fresh;
    return 1;
}
}

namespace kv::automation {

std::u16string Utf8ToUtf16(std::string_view text) {
    std::u16string out;
    out.reserve(text.size());
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    size_t n = text.size(), i = 0;
    while (i < n) {
        unsigned c = p[i];
        if (c < 0x80) {
            out.push_back(char16_t(c));
            ++i;
            continue;
        }
        int len = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC0 ? 2 : 0;
        uint32_t cp = len == 4 ? c & 0x07 : len == 3 ? c & 0x0F : c & 0x1F;
        bool ok = len != 0 && i + size_t(len) <= n;
        for (int k = 1; ok && k < len; ++k) {
            if ((p[i + k] & 0xC0) != 0x80)
                ok = false;
            else
                cp = cp << 6 | (p[i + k] & 0x3F);
        }
        // Reject overlong forms and values past U+10FFFF; surrogates pass (see header).
        if (ok && ((len == 2 && cp < 0x80) || (len == 3 && cp < 0x800) ||
                   (len == 4 && (cp < 0x10000 || cp > 0x10FFFF))))
            ok = false;
        if (!ok) {
            out.push_back(u'\uFFFD');
            ++i;
            continue;
        }
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(char16_t(0xD800 + (cp >> 10)));
            out.push_back(char16_t(0xDC00 + (cp & 0x3FF)));
        } else {
            out.push_back(char16_t(cp));
        }
        i += size_t(len);
    }
    return out;
}

std::string Utf16ToUtf8(std::u16string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        uint32_t cp = text[i];
        if (cp >= 0xD800 && cp < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
            text[i + 1] < 0xE000) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        }
        if (cp < 0x80) {
            out.push_back(char(cp));
        } else if (cp < 0x800) {
            out.push_back(char(0xC0 | cp >> 6));
            out.push_back(char(0x80 | (cp & 0x3F)));
        } else if (cp < 0x10000) {
            out.push_back(char(0xE0 | cp >> 12));
            out.push_back(char(0x80 | (cp >> 6 & 0x3F)));
            out.push_back(char(0x80 | (cp & 0x3F)));
        } else {
            out.push_back(char(0xF0 | cp >> 18));
            out.push_back(char(0x80 | (cp >> 12 & 0x3F)));
            out.push_back(char(0x80 | (cp >> 6 & 0x3F)));
            out.push_back(char(0x80 | (cp & 0x3F)));
        }
    }
    return out;
}

Bstr Bstr::FromUtf8(std::string_view text) { return Bstr(Utf8ToUtf16(text)); }

}  // namespace kv::automation
