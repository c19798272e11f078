// The address parsers and the syntax walk on arbitrary bytes, in both the
// byte and the wide form.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "codecs/address.h"

namespace {

void Check(bool ok) {
    if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kv;
    if (size > (1 << 16)) return 0;
    bstring text(reinterpret_cast<const char*>(data), int32_t(size));
    std::vector<bstring> items, pure;
    SplitAddressList(text, items);
    ParsePureAddresses(text, pure);
    Check(pure.size() == items.size());
    // Later passes of the tokenizer repeat text, a bounded number of times.
    for (const bstring& p : pure) Check(p.nSize <= 66 * text.nSize);

    wbstring wide;
    wide.import_bstring(text, 1252);
    std::vector<wbstring> names;
    ParseFriendlyNames(wide, names);
    for (const wbstring& n : names) Check(n.nSize <= 66 * wide.nSize);

    int level = ValidateAddressSyntax(text);
    Check(level >= 0 && level <= 2);
    bstring host;
    if (GetAddressHost(text, host)) Check(host.nSize > 0 && host.nSize < text.nSize);
    return 0;
}
