// The meta-charset search and the tag tokenizer on arbitrary bytes, in both
// the byte and the wide form. Searching without remove leaves the text alone;
// with remove, exactly one "<meta ...>" tag goes; both forms tokenize alike.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "codecs/charset.h"

namespace {

void Check(bool ok) {
    if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kv;
    if (size > (1 << 16)) return 0;
    const char* text = reinterpret_cast<const char*>(data);
    const int32_t n = static_cast<int32_t>(size);

    bstring html(text, n), found;
    FindMetaCharset(html, false, found);
    Check(html.nSize == n && (n == 0 || std::memcmp(html.pData, text, size_t(n)) == 0));

    bstring cut(text, n), found_again;
    FindMetaCharset(cut, true, found_again);
    Check(found_again.nSize == found.nSize &&
          (found.nSize == 0 || std::memcmp(found.pData, found_again.pData, size_t(found.nSize)) == 0));
    Check(found.nSize > 0 ? cut.nSize < n : cut.nSize == n);

    // The wide form over the same units (bytes widened one to one).
    wbstring wide;
    wide.reserve(n);
    for (int32_t i = 0; i < n; ++i) wide.pData[i] = char16_t(static_cast<unsigned char>(text[i]));
    wide.nSize = n;
    wbstring wide_found;
    RemoveMetaCharset(wide, wide_found);
    Check(wide.nSize <= n);

    bstring_vector tokens;
    wbstring_vector wide_tokens;
    bstring tag(text, n);
    wbstring wide_tag;
    for (int32_t i = 0; i < n; ++i) wide_tag += char16_t(static_cast<unsigned char>(text[i]));
    TokenizeTagAttributes(tag, tokens);
    TokenizeTagAttributes(wide_tag, wide_tokens);
    Check(tokens.size() == wide_tokens.size());
    for (size_t i = 0; i < tokens.size(); ++i) Check(tokens[i].nSize == wide_tokens[i].nSize);

    bstring value;
    for (size_t i = 0; i < tokens.size() && i < 8; ++i) {
        if (tokens[i].nSize < 1) continue;
        bstring name(tokens[i]);
        name.null_terminate();
        GetTagAttribute(tokens, name.pData, value);
        Check(value.nSize <= n);
    }

    // A found name goes through the lookup as a message's charset would.
    if (found.nSize > 0) LookupCodepage(found);
    return 0;
}
