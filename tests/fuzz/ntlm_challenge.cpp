// The NTLM challenge parse and the answer built from it, over any bytes: no
// read outside them, views that stay inside the message, an answer whose
// fields all point inside it.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "transport/negotiate.h"
#include "transport/ntlm.h"

namespace {

bool Inside(const kv::bstring& view, const uint8_t* data, size_t size) {
    if (view.nSize == 0) return true;
    const uint8_t* p = reinterpret_cast<const uint8_t*>(view.pData);
    return p >= data && view.nSize > 0 && size_t(view.nSize) <= size && p - data <= ptrdiff_t(size - size_t(view.nSize));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 0x20000) return 0;
    kv::NtlmChallenge c;
    if (!kv::ParseNtlmChallenge(data, int32_t(size), c)) return 0;
    if (!Inside(c.TargetName, data, size) || !Inside(c.TargetInfo, data, size)) __builtin_trap();

    // The whole client road, as a session would take it.
    kv::CNegotiate n(kv::bstring("localhost"), "POP3", kv::bstring(""), kv::bstring("Domain"), kv::bstring("User"),
                     kv::bstring("Password"), false);
    n.UseFixedNonce = true;
    kv::bstring token;
    if (n.CreateRequest(token) != kv::kSecIContinueNeeded) __builtin_trap();
    kv::bstring challenge(reinterpret_cast<const char*>(data), int32_t(size));
    int32_t status = n.CreateResponse(token, challenge);
    if (status == kv::kSecEOk) {
        if (token.nSize < 64 || token.nSize > kv::kNegotiateMaxToken) __builtin_trap();
        const uint8_t* p = reinterpret_cast<const uint8_t*>(token.pData);
        for (int at = 12; at <= 52; at += 8) {
            uint32_t len = p[at] | p[at + 1] << 8;
            uint32_t off = p[at + 4] | p[at + 5] << 8 | p[at + 6] << 16 | uint32_t(p[at + 7]) << 24;
            if (off + len > uint32_t(token.nSize)) __builtin_trap();
        }
    } else if (status != kv::kSecEBufferTooSmall) {
        __builtin_trap();  // a challenge that parsed must be answered
    }
    return 0;
}
