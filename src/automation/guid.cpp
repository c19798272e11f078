#include "automation/guid.h"

#include <cstdio>

namespace kv::automation {

std::string GuidToString(const GUID& g) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", g.Data1,
                  g.Data2, g.Data3, g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4],
                  g.Data4[5], g.Data4[6], g.Data4[7]);
    return buf;
}

namespace {

bool HexDigits(std::string_view s, size_t pos, size_t count, uint64_t* out) {
    uint64_t v = 0;
    for (size_t i = 0; i < count; ++i) {
        char c = s[pos + i];
        int d;
        if (c >= '0' && c <= '9')
            d = c - '0';
        else if (c >= 'a' && c <= 'f')
            d = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            d = c - 'A' + 10;
        else
            return false;
        v = v << 4 | uint64_t(d);
    }
    *out = v;
    return true;
}

}  // namespace

bool GuidFromString(std::string_view text, GUID* out) {
    if (text.size() == 38) {
        if (text.front() != '{' || text.back() != '}') return false;
        text = text.substr(1, 36);
    }
    if (text.size() != 36 || text[8] != '-' || text[13] != '-' || text[18] != '-' ||
        text[23] != '-')
        return false;
    uint64_t d1, d2, d3, d4a, d4b;
    if (!HexDigits(text, 0, 8, &d1) || !HexDigits(text, 9, 4, &d2) ||
        !HexDigits(text, 14, 4, &d3) || !HexDigits(text, 19, 4, &d4a) ||
        !HexDigits(text, 24, 12, &d4b))
        return false;
    GUID g;
    g.Data1 = uint32_t(d1);
    g.Data2 = uint16_t(d2);
    g.Data3 = uint16_t(d3);
    g.Data4[0] = uint8_t(d4a >> 8);
    g.Data4[1] = uint8_t(d4a);
    for (int i = 0; i < 6; ++i) g.Data4[2 + i] = uint8_t(d4b >> (40 - 8 * i));
    *out = g;
    return true;
}

}  // namespace kv::automation
