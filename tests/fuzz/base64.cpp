// DecodeBase64 on arbitrary text and window, and EncodeBase64 on arbitrary
// bytes, both compared with the byte-at-a-time model; the
// encoding must decode back to the bytes. The first two bytes pick start
// and end, the rest is the text.
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
    if (size < 2 || size > (1 << 16)) return 0;
    std::string_view text(reinterpret_cast<const char*>(data + 2), size - 2);
    int32_t n = int32_t(text.size());
    int32_t start = data[0] < 0xF0 ? int32_t(data[0]) % (n + 2) - 1 : 0;
    int32_t end = data[1] < 0xF0 ? n - int32_t(data[1]) % (n + 2) : -1;

    // A fresh destination, so that ASan sees the exact reservation.
    kv::bstring src(text.data(), n), out;
    kv::DecodeBase64(out, src, start, end);
    Check(View(out) == kv::reference::DecodeBase64(text, start, end));
    // In place: the destination is the source.
    kv::DecodeBase64(src, src, start, end);
    Check(View(src) == View(out));

    bool wrap = data[0] & 1;
    kv::bstring encoded, decoded;
    kv::EncodeBase64(encoded, text.data(), n, false, wrap);
    Check(encoded.nSize == encoded.nCapacity || n == 0);
    Check(View(encoded) == kv::reference::EncodeBase64(text, wrap));
    kv::DecodeBase64(decoded, encoded);
    Check(View(decoded) == text);
    return 0;
}
