// DecodeUuencode on arbitrary text, compared with the byte-at-a-time model
// of the rules: short lines, counts below 32 that move the output back, lines
// of a count alone that make it outgrow the source.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "../unit/codecs/encoding_reference.h"
#include "codecs/encoding.h"

namespace {

void Check(bool ok) {
    if (!ok) std::abort();
}

std::string_view View(const kv::bstring& b) {
    return b.nSize > 0 ? std::string_view(b.pData, size_t(b.nSize)) : std::string_view();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > (1 << 16)) return 0;
    std::string_view text(reinterpret_cast<const char*>(data), size);
    kv::bstring src(text.data(), int32_t(size)), out;
    kv::DecodeUuencode(out, src);
    Check(View(out) == kv::reference::DecodeUuencode(text));
    kv::DecodeUuencode(src, src);
    Check(View(src) == View(out));
    return 0;
}
