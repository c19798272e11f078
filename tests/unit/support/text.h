// Conversions between the library's strings and the standard ones, for
// building inputs and reading results in tests. A null or negative-sized
// string reads as empty.
#pragma once

#include <fstream>
#include <sstream>
#include <string>
#include <string_view>

#include "automation/bstr.h"
#include "foundation/bstring.h"

namespace kv::testing {

inline std::string Str(const bstring& b) {
    return b.pData && b.nSize > 0 ? std::string(b.pData, size_t(b.nSize)) : std::string();
}
inline std::u16string Str(const wbstring& w) {
    return w.pData && w.nSize > 0 ? std::u16string(w.pData, size_t(w.nSize)) : std::u16string();
}
// An owned copy of the bytes, NULs included.
inline bstring Bytes(std::string_view s) {
    return bstring(s.data(), int32_t(s.size()));
}
inline wbstring Wide(std::u16string_view s) {
    return wbstring(s.data(), int32_t(s.size()));
}

// UTF-8 to and from UTF-16, for texts written as UTF-8 literals.
inline std::string Utf8(const wbstring& w) {
    return automation::Utf16ToUtf8(Str(w));
}
inline wbstring WideFromUtf8(std::string_view utf8) {
    return Wide(automation::Utf8ToUtf16(utf8));
}

// The whole file, or empty when it cannot be read.
inline std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream all;
    all << in.rdbuf();
    return all.str();
}

}  // namespace kv::testing
