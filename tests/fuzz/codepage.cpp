// Both directions of the code page conversion on arbitrary input: the first
// byte picks the page, the rest is the text. Measure and fill must agree, and
// decoding never fails with flags 0.
#include "platform/codepage.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "../unit/platform/utf_reference.h"

namespace {

constexpr int kPages[] = {0,     437,   850,   866,   874,   932,   936,   949,   950,
                          1200,  1201,  1250,  1251,  1252,  1253,  1255,  1258,  1361,
                          10000, 20127, 20866, 20932, 21866, 28591, 28592, 28605, 37,
                          50220, 50221, 50225, 51932, 51949, 54936, 65000, 65001};

void Check(bool ok) {
    if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kv::platform;
    if (size < 2 || size > (1 << 16)) return 0;
    int cp = kPages[data[0] % (sizeof(kPages) / sizeof(kPages[0]))];
    const char* src = reinterpret_cast<const char*>(data + 1);
    int len = static_cast<int>(size - 1);

    int need = MultiByteToWideChar(cp, 0, src, len, nullptr, 0);
    // Shift and escape sequences of the stateful pages can make no character
    // at all; every other page gives at least one unit per input.
    bool stateful = cp == 50220 || cp == 50221 || cp == 50222 || cp == 50225 || cp == 65000;
    if (need == 0 && stateful) return 0;
    Check(need > 0);
    std::vector<char16_t> wide(need);
    Check(MultiByteToWideChar(cp, 0, src, len, wide.data(), need) == need);
    // UTF-8 goes through windows (on each SIMD road the processor has) and a
    // careful path; each must agree with the character-at-a-time model,
    // strict or not.
    if (cp == 65001) {
        std::string_view text(src, static_cast<size_t>(len));
        Check(std::u16string(wide.begin(), wide.end()) == *kv::test::Utf8ToUtf16Model(text));
        auto strict = kv::test::Utf8ToUtf16Model(text, true);
        for (auto road :
             {detail::UtfRoad::kSse2, detail::UtfRoad::kAvx2, detail::UtfRoad::kAvx512}) {
            detail::AllowUtfRoad(road);
            Check(MultiByteToWideChar(cp, 0, src, len, nullptr, 0) == need);
            std::vector<char16_t> again(need);
            Check(MultiByteToWideChar(cp, 0, src, len, again.data(), need) == need);
            Check(again == wide);
            int strict_need = MultiByteToWideChar(cp, kMbErrInvalidChars, src, len, nullptr, 0);
            Check((strict_need != 0) == strict.has_value());
            if (strict) Check(strict_need == static_cast<int>(strict->size()));
        }
    }

    if (need > 1) {
        SetLastError(0);
        Check(MultiByteToWideChar(cp, 0, src, len, wide.data(), need - 1) == 0);
        Check(GetLastError() == kErrorInsufficientBuffer);
        Check(MultiByteToWideChar(cp, 0, src, len, wide.data(), need) == need);
    }

    // The input read as UTF-16 too, so lone surrogates reach the encoders.
    std::vector<char16_t> units(len / 2 + 1);
    std::memcpy(units.data(), src, len / 2 * 2);
    units.back() = wide[0];
    for (const std::vector<char16_t>* text : {&wide, &units}) {
        bool* used = nullptr;
        bool used_measure = false, used_fill = false;
        bool utf = cp == 65000 || cp == 65001;
        int n = WideCharToMultiByte(cp, 0, text->data(), static_cast<int>(text->size()), nullptr, 0,
                                    nullptr, utf ? used : &used_measure);
        Check(n > 0);
        std::vector<char> bytes(n);
        Check(WideCharToMultiByte(cp, 0, text->data(), static_cast<int>(text->size()), bytes.data(),
                                  n, nullptr, utf ? used : &used_fill) == n);
        Check(used_measure == used_fill);
        if (cp == 65001) {
            std::u16string_view in(text->data(), text->size());
            Check(std::string(bytes.begin(), bytes.end()) == *kv::test::Utf16ToUtf8Model(in));
            auto strict = kv::test::Utf16ToUtf8Model(in, true);
            for (auto road :
                 {detail::UtfRoad::kSse2, detail::UtfRoad::kAvx2, detail::UtfRoad::kAvx512}) {
                detail::AllowUtfRoad(road);
                Check(WideCharToMultiByte(cp, 0, text->data(), static_cast<int>(text->size()),
                                          nullptr, 0) == n);
                std::vector<char> again(n);
                Check(WideCharToMultiByte(cp, 0, text->data(), static_cast<int>(text->size()),
                                          again.data(), n) == n);
                Check(again == bytes);
                int strict_n = WideCharToMultiByte(cp, kWcErrInvalidChars, text->data(),
                                                   static_cast<int>(text->size()), nullptr, 0);
                Check(strict_n == (strict ? static_cast<int>(strict->size()) : 0));
            }
        }
    }
    return 0;
}
