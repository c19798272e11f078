// DecodeQuotedPrintable (with and without the underscore rule) on arbitrary
// text, and EncodeQuotedPrintable on arbitrary bytes, compared with the
// byte-at-a-time model; the encoding must decode back to the
// bytes. The first byte picks the flag, the rest is the input.
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
    if (size < 1 || size > (1 << 16)) return 0;
    std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
    int32_t n = int32_t(text.size());
    bool underscore = data[0] & 1;

    kv::bstring src(text.data(), n), out;
    kv::DecodeQuotedPrintable(out, src, underscore);
    Check(View(out) == kv::reference::DecodeQuotedPrintable(std::string(text), underscore));
    Check(out.nSize <= n);

    kv::bstring encoded, decoded;
    kv::EncodeQuotedPrintable(encoded, text.data(), n, data[0] & 2);
    Check(View(encoded) == kv::reference::EncodeQuotedPrintable(text));
    kv::DecodeQuotedPrintable(decoded, encoded, false);
    Check(View(decoded) == text);
    return 0;
}
