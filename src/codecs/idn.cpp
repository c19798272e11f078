#include "codecs/idn.h"

#include <idn-free.h>
#include <idna.h>

namespace kv {

namespace {

// Where the domain starts: just after the first '@', or 0 for a bare domain.
// A quoted local part holding an '@' is cut there too.
int32_t DomainStart(const wbstring& address) {
    int32_t at = address.find(u'@');
    return at < 0 ? 0 : at + 1;
}

}  // namespace

std::vector<uint32_t> Ucs4FromUtf16(const char16_t* text, int32_t units) {
    std::vector<uint32_t> out;
    out.reserve(size_t(units > 0 ? units : 0) + 1);
    for (int32_t i = 0; i < units; ++i) {
        uint32_t u = text[i];
        if (u >= 0xD800 && u <= 0xDBFF) {
            if (i + 1 < units && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
                out.push_back(0x10000 + ((u - 0xD800) << 10) + (uint32_t(text[i + 1]) - 0xDC00));
                ++i;
            }
            continue;  // a high half without its low half is dropped
        }
        if (u >= 0xDC00 && u <= 0xDFFF) continue;  // a lone low half likewise
        out.push_back(u);
    }
    out.push_back(0);
    return out;
}

wbstring Utf16FromUcs4(const uint32_t* text) {
    wbstring out;
    if (!text) return out;
    int32_t n = 0;
    while (text[n]) ++n;
    out.reserve(2 * n);
    for (const uint32_t* p = text; *p; ++p) {
        uint32_t v = *p;
        if (v >= 0xFFFF) {
            uint32_t rest = v - 0x10000;  // 0xFFFF wraps; the masks keep both halves surrogates
            out += char16_t(0xD800 | ((rest >> 10) & 0x3FF));
            out += char16_t(0xDC00 | (rest & 0x3FF));
        } else {
            out += char16_t(v);
        }
    }
    return out;
}

wbstring EscapeIdnDomain(const wbstring& address) {
    int32_t start = DomainStart(address);
    std::vector<uint32_t> domain = Ucs4FromUtf16(address.pData + start, address.nSize - start);
    char* ascii = nullptr;
    idna_to_ascii_4z(domain.data(), &ascii, IDNA_ALLOW_UNASSIGNED);  // a failure leaves ascii null

    wbstring result(address.pData, start);
    if (ascii) {
        wbstring tail;
        tail.import_bstring(bstring(ascii), 0);
        result.append(tail);
        idn_free(ascii);
    }
    return result;
}

wbstring UnescapeIdnDomain(const wbstring& address) {
    int32_t start = DomainStart(address);
    std::vector<uint32_t> domain = Ucs4FromUtf16(address.pData + start, address.nSize - start);
    uint32_t* unicode = nullptr;
    idna_to_unicode_4z4z(domain.data(), &unicode, IDNA_ALLOW_UNASSIGNED);

    wbstring result(address.pData, start);
    if (unicode) {
        result.append(Utf16FromUcs4(unicode));
        idn_free(unicode);
    }
    return result;
}

}  // namespace kv
