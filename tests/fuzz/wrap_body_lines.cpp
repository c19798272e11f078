// WrapBodyLines on arbitrary bytes, compared with the byte-at-a-time model
// of the rules: the look-ahead to index 77 and the backward search must stay
// inside the input.
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
    // The input in a buffer of its own size, so that ASan sees a read past it.
    std::string_view text(reinterpret_cast<const char*>(data), size);
    kv::bstring out;
    kv::WrapBodyLines(out, text.data(), int32_t(size), false);
    Check(View(out) == kv::reference::WrapBodyLines(text));
    return 0;
}
