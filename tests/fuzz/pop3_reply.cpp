// The POP3 reply helpers on arbitrary bytes: un-stuffing agrees with a plain
// string rewrite, tokens hold no blanks, offsets and stamps stay inside the
// reply; and the byte search agrees with std::search.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "foundation/find.h"
#include "pop3/pop3.h"

namespace {

void Check(bool ok) {
    if (!ok) std::abort();
}

std::string Unstuffed(std::string reply) {
    if (reply.size() < 4) return "";
    reply.resize(reply.size() - 3);
    size_t crlf = reply.find("\r\n");
    if (crlf == std::string::npos) return "";
    std::string rest = reply.substr(crlf + 2), out;
    for (size_t i = 0; i < rest.size(); ++i) {
        out.push_back(rest[i]);
        if (rest.compare(i, 4, "\r\n..") == 0) {
            out.append("\n.");
            i += 3;
        }
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kv;
    if (size > (1 << 16)) return 0;
    const std::string input(reinterpret_cast<const char*>(data), size);

    bstring reply(input.data(), int32_t(input.size())), body;
    UnstuffResponse(reply, body);
    Check(std::string(body.pData ? body.pData : "", size_t(body.nSize)) == Unstuffed(input));
    Check(reply.nSize == int32_t(size >= 4 ? size - 3 : size));

    reply.assign(input.data(), int32_t(input.size()));
    for (int32_t n = 0; n < 4; ++n) {
        bstring token = ResponseToken(reply.pData, reply.nSize, n);
        for (int32_t i = 0; i < token.nSize; ++i)
            Check(token.pData[i] != ' ' && token.pData[i] != '\t' && token.pData[i] != '\r' && token.pData[i] != '\n');
    }
    int32_t offset = SecondWordOffset(reply);
    Check(offset >= -1 && offset <= reply.nSize);
    bstring stamp = ApopStamp(reply);
    Check(stamp.nSize == 0 || (stamp.pData[0] == '<' && stamp.pData[stamp.nSize - 1] == '>'));

    POP3Mailer mailer;
    for (int32_t multiline : {0, 1}) {
        mailer.MultilineExpected = multiline;
        mailer.ServerResponse.assign(input.data(), int32_t(input.size()));
        mailer.IsResponseReceived();
        mailer.IsResponsePositive();
    }

    // The first byte splits the rest into needle and haystack.
    if (size > 1) {
        size_t n = std::min(size_t(data[0] % 12), size - 1);
        std::string needle = input.substr(1, n), hay = input.substr(1 + n);
        const char* at = FindBytes(hay.data(), hay.size(), needle.data(), needle.size());
        auto it = std::search(hay.begin(), hay.end(), needle.begin(), needle.end());
        long expected = it == hay.end() && !needle.empty() ? -1 : long(it - hay.begin());
        Check((at ? long(at - hay.data()) : -1) == expected);
    }
    return 0;
}
