// The SMTP reply decisions, the envelope and dot-stuffing on arbitrary
// bytes: the end-of-reply test reads only inside the reply, a whole reply
// ends in CRLF, challenges stay inside the reply, an envelope never holds a
// line break, and stuffing then un-stuffing gives the text back.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "foundation/dotstuff.h"
#include "smtp/smtp.h"

namespace {

void Check(bool ok) {
    if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kv;
    if (size > (1 << 16)) return 0;
    const std::string input(reinterpret_cast<const char*>(data), size);

    SMTPMailer m;
    m.ServerResponse.assign(input.data(), int32_t(input.size()));
    if (m.IsResponseReceived()) Check(size >= 5 && input.compare(size - 2, 2, "\r\n") == 0);
    int32_t begin = -1, end = -1;
    Check(m.ChallengeSpan(begin, end));
    Check(0 <= begin && begin <= end && end <= m.ServerResponse.nSize);

    // Split in two: a from text and a recipient list.
    size_t half = input.size() / 2;
    bstring sender;
    std::vector<bstring> list;
    if (BuildEnvelope(bstring(input.data(), int32_t(half)),
                      bstring(input.data() + half, int32_t(input.size() - half)), sender, list)) {
        Check(sender.nSize > 0 && !list.empty());
        list.push_back(sender);
        for (const bstring& a : list)
            for (int32_t i = 0; i < a.nSize; ++i) Check(a.pData[i] != '\r' && a.pData[i] != '\n' && a.pData[i]);
    }

    std::string wire = "\r\n";
    Check(ForEachStuffedPiece(input.data(), int32_t(input.size()), 7, [&](const char* p, int32_t n) {
        Check(n >= 1 && n <= 7);
        wire.append(p, size_t(n));
        return true;
    }));
    std::string back(wire.size(), '\0');
    back.resize(size_t(Unstuff(wire.data(), int32_t(wire.size()), back.data())));
    Check(back == "\r\n" + input);
    return 0;
}
