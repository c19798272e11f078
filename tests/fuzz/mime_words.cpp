// Encoded-word decoding and the RFC 2231 helpers on arbitrary header bytes,
// and encoding of the decoded text back: nothing may crash, and a value that
// encodes must decode to the same text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "codecs/mimeword.h"

namespace {

void Check(bool ok) {
    if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kv;
    if (size > (1 << 16)) return 0;
    bstring raw(reinterpret_cast<const char*>(data), int32_t(size));

    wbstring text;
    DecodeMimeWords(raw, text, 65001);
    DecodeMimeWords(raw, text, 65000);
    wbstring again;
    DecodeMimeWords(raw, again, 1252);

    bstring extended, percent;
    int32_t codepage = -1;
    ParseExtendedValue(raw, extended, codepage);
    PercentDecode(raw, percent);
    Check(percent.nSize <= raw.nSize);

    // Text that needs encoding, and holds no marks the decoder would read as
    // words of its own, comes back exactly through a Subject's words.
    bool plain = true, ascii = true;
    for (int32_t i = 0; i < again.nSize; ++i) {
        char16_t c = again.pData[i];
        if (c == u'=' || c == u'?' || c == u'\t' || c == u'\r' || c == u'\n' || c == 0) plain = false;
        if (c >= 0x80) ascii = false;
    }
    if (plain && !ascii) {
        for (int32_t encoding : {2, 3}) {
            bstring wire;
            EncodeHeaderValue(bstring("Subject"), again, bstring("utf-8"), 65001, encoding, wire);
            wbstring round;
            DecodeMimeWords(wire, round, 65001);
            bstring a, b;
            wbstring(again).export_bstring(a, 65001);
            round.export_bstring(b, 65001);
            Check(a.nSize == b.nSize && std::memcmp(a.pData, b.pData, size_t(a.nSize)) == 0);
        }
    }
    bstring address;
    EncodeHeaderValue(bstring("To"), again, bstring("utf-8"), 65001, 2, address);
    return 0;
}
