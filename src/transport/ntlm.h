// NTLM, client side: the negotiate message, the parse of the server's
// challenge, and the authenticate message with NTLMv2 responses, or NTLMv1
// ones when the challenge carries no target information. The crypto steps are
// exposed for tests against the published vectors.
//
// Strings come in the system ANSI code page and go out as UTF-16LE when the
// server negotiated Unicode, as they stand otherwise.
#pragma once

#include <cstdint>

#include "foundation/bstring.h"

namespace kv {

// Negotiate flags of the NTLM messages.
enum : uint32_t {
    kNtlmNegotiateUnicode = 0x00000001,
    kNtlmNegotiateOem = 0x00000002,
    kNtlmRequestTarget = 0x00000004,
    kNtlmNegotiateSign = 0x00000010,
    kNtlmNegotiateSeal = 0x00000020,
    kNtlmNegotiateLmKey = 0x00000080,
    kNtlmNegotiateNtlm = 0x00000200,
    kNtlmNegotiateAlwaysSign = 0x00008000,
    kNtlmNegotiateExtendedSessionSecurity = 0x00080000,
    kNtlmNegotiateTargetInfo = 0x00800000,
    kNtlmNegotiateVersion = 0x02000000,
    kNtlmNegotiate128 = 0x20000000,
    kNtlmNegotiateKeyExch = 0x40000000,
    kNtlmNegotiate56 = 0x80000000,
};

// What the client asks for in its negotiate message. No signing or sealing:
// the mail protocols use NTLM only to log in.
constexpr uint32_t kNtlmClientFlags = kNtlmNegotiateUnicode | kNtlmNegotiateOem | kNtlmRequestTarget |
                                      kNtlmNegotiateNtlm | kNtlmNegotiateAlwaysSign |
                                      kNtlmNegotiateExtendedSessionSecurity | kNtlmNegotiate128 |
                                      kNtlmNegotiate56;

// The parts of a challenge message the client uses. The two views point into
// the buffer that was parsed and are valid while it is unchanged.
struct NtlmChallenge {
    uint32_t Flags = 0;
    uint8_t ServerChallenge[8] = {0};
    bstring TargetName;  // view; empty when absent
    bstring TargetInfo;  // view of the AV pairs; empty when absent
    bool HasTimestamp = false;
    uint8_t Timestamp[8] = {0};  // MsvAvTimestamp, when HasTimestamp
};

// Parses a challenge (type 2) message. False when it is not one: short, a
// wrong signature or type, a field that reaches outside the message, target
// information whose pairs overrun their field or lack the end pair. Reads
// nothing outside data[0, size).
bool ParseNtlmChallenge(const uint8_t* data, int32_t size, NtlmChallenge& out);

// The negotiate (type 1) message, into token (replaced).
void BuildNtlmNegotiate(bstring& token);

// What goes into an authenticate message beside the challenge. The client
// challenge and the time stamp are inputs so that tests can fix them; the
// time stamp is FILETIME (100 ns since 1601) and gives way to the server's.
struct NtlmCredentials {
    bstring User;
    bstring Domain;
    bstring Password;
    bstring Workstation;
    uint8_t ClientChallenge[8] = {0};
    uint64_t Timestamp = 0;
};

// The authenticate (type 3) message answering challenge, into token
// (replaced). NTLMv2 when the challenge holds target information; otherwise
// NTLMv1, with the session-security variant when the server negotiated it.
// False, with token unspecified, when a field outgrows its 16-bit length.
bool BuildNtlmAuthenticate(const NtlmChallenge& challenge, const NtlmCredentials& cred, bstring& token);

// The crypto steps. Password, user and domain are ANSI text.
void NtlmOwfV1(const bstring& password, uint8_t out[16]);              // MD4 of the UTF-16LE password
void NtlmLmOwfV1(const bstring& password, uint8_t out[16]);            // the LM hash
void NtlmOwfV2(const bstring& password, const bstring& user, const bstring& domain, uint8_t out[16]);
// DES of data under the three 7-byte parts of key (padded with zeros).
void NtlmDesL(const uint8_t key[16], const uint8_t data[8], uint8_t out[24]);
// NTProofStr = HMAC-MD5(key, server challenge + blob); the NT response is it
// followed by the blob. blob is 0x0101, reserved words, time, client
// challenge, zero, target info, zero.
void NtlmV2Blob(uint64_t timestamp, const uint8_t client_challenge[8], const bstring& target_info, bstring& blob);
void NtlmV2Response(const uint8_t key[16], const uint8_t server_challenge[8], const bstring& blob, bstring& response);
void NtlmLmV2Response(const uint8_t key[16], const uint8_t server_challenge[8], const uint8_t client_challenge[8],
                      uint8_t out[24]);
// The NTLMv1 responses with extended session security: the NT response is
// DesL over MD5(server + client challenge)[0..8]; the LM one is the client
// challenge and 16 zeros.
void NtlmV1SessionResponse(const uint8_t key[16], const uint8_t server_challenge[8],
                           const uint8_t client_challenge[8], uint8_t out[24]);

}  // namespace kv
