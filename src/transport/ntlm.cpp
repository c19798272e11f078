#include "transport/ntlm.h"

// The NTLMv1 responses need single DES, which OpenSSL 3 keeps only as a
// deprecated low-level call; it is still in every libcrypto build we target.
#define OPENSSL_SUPPRESS_DEPRECATED 1
#include <openssl/des.h>

#include <cstring>

#include "codecs/digest.h"
#include "platform/codepage.h"
#include "transport/md4.h"

namespace kv {

namespace {

constexpr uint8_t kSignature[8] = {'N', 'T', 'L', 'M', 'S', 'S', 'P', 0};
constexpr int32_t kChallengeMinSize = 32;     // up to the server challenge
constexpr int32_t kChallengeInfoSize = 48;    // up to the target info field
constexpr int32_t kAuthenticateHeader = 64;   // no version, no MIC
constexpr uint16_t kAvEol = 0, kAvTimestamp = 7;

uint16_t Get16(const uint8_t* p) { return uint16_t(p[0] | p[1] << 8); }
uint32_t Get32(const uint8_t* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24; }

void Put16(uint8_t* p, uint32_t v) { p[0] = uint8_t(v), p[1] = uint8_t(v >> 8); }
void Put32(uint8_t* p, uint32_t v) { Put16(p, v), Put16(p + 2, v >> 16); }

// A security buffer field: length, maximum length, offset. True with a view
// of the bytes when they lie inside the message; an empty field may point
// anywhere.
bool ReadField(const uint8_t* data, int32_t size, int32_t at, bstring& view) {
    uint32_t len = Get16(data + at);
    uint32_t offset = Get32(data + at + 4);
    view.borrow(reinterpret_cast<const char*>(data), 0);
    if (len == 0) return true;
    if (offset > uint32_t(size) || len > uint32_t(size) - offset) return false;
    view.borrow(reinterpret_cast<const char*>(data) + offset, int32_t(len));
    return true;
}

// AV_PAIR list: { AvId(2) AvLen(2) Value(AvLen) }* ending in MsvAvEOL.
bool WalkTargetInfo(const bstring& info, NtlmChallenge& out) {
    const uint8_t* p = reinterpret_cast<const uint8_t*>(info.pData);
    int32_t pos = 0;
    while (info.nSize - pos >= 4) {
        uint16_t id = Get16(p + pos), len = Get16(p + pos + 2);
        pos += 4;
        if (len > info.nSize - pos) return false;
        if (id == kAvEol) return true;
        if (id == kAvTimestamp && len == 8) {
            out.HasTimestamp = true;
            std::memcpy(out.Timestamp, p + pos, 8);
        }
        pos += len;
    }
    return false;
}

// ANSI text to UTF-16LE bytes, upper-cased first when asked (NTOWFv2 hashes
// the upper-case user name).
void ToUnicode(const bstring& text, bool upper, bstring& out) {
    out.nSize = 0;
    if (text.nSize <= 0) return;
    std::vector<char16_t> wide(size_t(text.nSize));
    int n = platform::MultiByteToWideChar(0, 0, text.pData, text.nSize, wide.data(), text.nSize);
    if (n < 0) n = 0;
    out.reserve(n * 2);
    for (int i = 0; i < n; ++i) {
        char16_t c = wide[size_t(i)];
        if (upper) {
            // The letters of code page 1252: ASCII, Latin-1, and the few
            // from Latin Extended-A that it carries.
            if ((c >= u'a' && c <= u'z') || (c >= 0xE0 && c <= 0xFE && c != 0xF7)) c = char16_t(c - 0x20);
            else if (c == 0xFF) c = 0x178;
            else if (c == 0x153 || c == 0x161 || c == 0x17E) c = char16_t(c - 1);
        }
        char pair[2] = {char(c & 0xFF), char(c >> 8)};
        out.append(pair, 2);
    }
}

// Seven key bytes spread over eight, with the parity bits DES ignores.
void DesEncrypt(const uint8_t key7[7], const uint8_t data[8], uint8_t out[8]) {
    DES_cblock key;
    key[0] = key7[0];
    for (int i = 1; i < 7; ++i) key[i] = uint8_t(key7[i - 1] << (8 - i) | key7[i] >> i);
    key[7] = uint8_t(key7[6] << 1);
    DES_set_odd_parity(&key);
    DES_key_schedule schedule;
    DES_set_key_unchecked(&key, &schedule);
    DES_cblock in, result;
    std::memcpy(in, data, 8);
    DES_ecb_encrypt(&in, &result, &schedule, DES_ENCRYPT);
    std::memcpy(out, result, 8);
}

void PutField(bstring& msg, int32_t at, const void* bytes, int32_t len) {
    uint8_t* p = reinterpret_cast<uint8_t*>(msg.pData);
    Put16(p + at, uint32_t(len));
    Put16(p + at + 2, uint32_t(len));
    Put32(p + at + 4, uint32_t(msg.nSize));
    if (len > 0) msg.append(static_cast<const char*>(bytes), len);
}

}  // namespace

bool ParseNtlmChallenge(const uint8_t* data, int32_t size, NtlmChallenge& out) {
    out = NtlmChallenge();
    if (!data || size < kChallengeMinSize) return false;
    if (std::memcmp(data, kSignature, 8) != 0 || Get32(data + 8) != 2) return false;
    if (!ReadField(data, size, 12, out.TargetName)) return false;
    out.Flags = Get32(data + 20);
    std::memcpy(out.ServerChallenge, data + 24, 8);
    // Old servers end the message at the challenge; the reserved words and
    // the target info field are read only when present.
    if (size >= kChallengeInfoSize && (out.Flags & kNtlmNegotiateTargetInfo)) {
        if (!ReadField(data, size, 40, out.TargetInfo)) return false;
        if (out.TargetInfo.nSize > 0 && !WalkTargetInfo(out.TargetInfo, out)) return false;
    }
    return true;
}

void BuildNtlmNegotiate(bstring& token) {
    // Signature, type 1, flags, and empty domain and workstation fields.
    uint8_t msg[32] = {0};
    std::memcpy(msg, kSignature, 8);
    Put32(msg + 8, 1);
    Put32(msg + 12, kNtlmClientFlags);
    Put32(msg + 20, 32);
    Put32(msg + 28, 32);
    token.assign(reinterpret_cast<const char*>(msg), 32);
}

void NtlmOwfV1(const bstring& password, uint8_t out[16]) {
    bstring wide;
    ToUnicode(password, false, wide);
    ComputeMD4(wide.pData, size_t(wide.nSize), out);
}

void NtlmLmOwfV1(const bstring& password, uint8_t out[16]) {
    static const uint8_t kMagic[8] = {'K', 'G', 'S', '!', '@', '#', '$', '%'};
    uint8_t key[14] = {0};
    for (int32_t i = 0; i < password.nSize && i < 14; ++i) {
        uint8_t c = uint8_t(password.pData[i]);
        key[i] = (c >= 'a' && c <= 'z') ? uint8_t(c - 0x20) : c;
    }
    DesEncrypt(key, kMagic, out);
    DesEncrypt(key + 7, kMagic, out + 8);
}

void NtlmOwfV2(const bstring& password, const bstring& user, const bstring& domain, uint8_t out[16]) {
    uint8_t nt[16];
    NtlmOwfV1(password, nt);
    bstring text, part;
    ToUnicode(user, true, text);
    ToUnicode(domain, false, part);
    text.append(part);
    HmacMd5(text.pData, text.nSize, nt, 16, out);
}

void NtlmDesL(const uint8_t key[16], const uint8_t data[8], uint8_t out[24]) {
    uint8_t k3[7] = {key[14], key[15], 0, 0, 0, 0, 0};
    DesEncrypt(key, data, out);
    DesEncrypt(key + 7, data, out + 8);
    DesEncrypt(k3, data, out + 16);
}

void NtlmV2Blob(uint64_t timestamp, const uint8_t client_challenge[8], const bstring& target_info, bstring& blob) {
    uint8_t head[28] = {0x01, 0x01};
    for (int i = 0; i < 8; ++i) head[8 + i] = uint8_t(timestamp >> (8 * i));
    std::memcpy(head + 16, client_challenge, 8);
    static const char kZero[4] = {0};
    blob.assign(reinterpret_cast<const char*>(head), 28);
    blob.append(target_info);
    blob.append(kZero, 4);
}

void NtlmV2Response(const uint8_t key[16], const uint8_t server_challenge[8], const bstring& blob, bstring& response) {
    bstring text(reinterpret_cast<const char*>(server_challenge), 8);
    text.append(blob);
    uint8_t proof[16];
    HmacMd5(text.pData, text.nSize, key, 16, proof);
    response.assign(reinterpret_cast<const char*>(proof), 16);
    response.append(blob);
}

void NtlmLmV2Response(const uint8_t key[16], const uint8_t server_challenge[8], const uint8_t client_challenge[8],
                      uint8_t out[24]) {
    uint8_t text[16];
    std::memcpy(text, server_challenge, 8);
    std::memcpy(text + 8, client_challenge, 8);
    HmacMd5(text, 16, key, 16, out);
    std::memcpy(out + 16, client_challenge, 8);
}

void NtlmV1SessionResponse(const uint8_t key[16], const uint8_t server_challenge[8],
                           const uint8_t client_challenge[8], uint8_t out[24]) {
    uint8_t text[16], digest[16];
    std::memcpy(text, server_challenge, 8);
    std::memcpy(text + 8, client_challenge, 8);
    Md5Bytes(text, 16, digest);
    NtlmDesL(key, digest, out);
}

bool BuildNtlmAuthenticate(const NtlmChallenge& challenge, const NtlmCredentials& cred, bstring& token) {
    bool unicode = (challenge.Flags & kNtlmNegotiateUnicode) != 0;
    uint32_t flags = (challenge.Flags & kNtlmClientFlags & ~(kNtlmNegotiateUnicode | kNtlmNegotiateOem)) |
                     (unicode ? kNtlmNegotiateUnicode : kNtlmNegotiateOem);

    bstring lm, nt;
    uint8_t lm24[24];
    if ((challenge.Flags & kNtlmNegotiateTargetInfo) && challenge.TargetInfo.nSize > 0) {
        uint8_t key[16];
        NtlmOwfV2(cred.Password, cred.User, cred.Domain, key);
        uint64_t when = cred.Timestamp;
        if (challenge.HasTimestamp) {
            when = 0;
            for (int i = 7; i >= 0; --i) when = when << 8 | challenge.Timestamp[i];
        }
        bstring blob;
        NtlmV2Blob(when, cred.ClientChallenge, challenge.TargetInfo, blob);
        NtlmV2Response(key, challenge.ServerChallenge, blob, nt);
        // A server that sends its time checks it, and no LMv2 then.
        if (challenge.HasTimestamp) std::memset(lm24, 0, 24);
        else NtlmLmV2Response(key, challenge.ServerChallenge, cred.ClientChallenge, lm24);
        lm.assign(reinterpret_cast<const char*>(lm24), 24);
    } else {
        uint8_t key[16], nt24[24];
        NtlmOwfV1(cred.Password, key);
        if (flags & kNtlmNegotiateExtendedSessionSecurity) {
            NtlmV1SessionResponse(key, challenge.ServerChallenge, cred.ClientChallenge, nt24);
            std::memset(lm24, 0, 24);
            std::memcpy(lm24, cred.ClientChallenge, 8);
        } else {
            NtlmDesL(key, challenge.ServerChallenge, nt24);
            if (cred.Password.nSize > 14) {
                // The LM hash cannot hold it: the NT response stands in.
                std::memcpy(lm24, nt24, 24);
            } else {
                uint8_t lmkey[16];
                NtlmLmOwfV1(cred.Password, lmkey);
                NtlmDesL(lmkey, challenge.ServerChallenge, lm24);
            }
        }
        nt.assign(reinterpret_cast<const char*>(nt24), 24);
        lm.assign(reinterpret_cast<const char*>(lm24), 24);
    }

    bstring domain, user, host;
    if (unicode) {
        ToUnicode(cred.Domain, false, domain);
        ToUnicode(cred.User, false, user);
        ToUnicode(cred.Workstation, false, host);
    } else {
        domain.assign(cred.Domain);
        user.assign(cred.User);
        host.assign(cred.Workstation);
    }

    // Every field length is 16 bits wide.
    for (const bstring* f : {&lm, &nt, &domain, &user, &host})
        if (f->nSize > 0xFFFF) return false;
    token.reserve(kAuthenticateHeader + lm.nSize + nt.nSize + domain.nSize + user.nSize + host.nSize);
    token.nSize = kAuthenticateHeader;
    std::memset(token.pData, 0, kAuthenticateHeader);
    std::memcpy(token.pData, kSignature, 8);
    uint8_t* p = reinterpret_cast<uint8_t*>(token.pData);
    Put32(p + 8, 3);
    PutField(token, 12, lm.pData, lm.nSize);
    PutField(token, 20, nt.pData, nt.nSize);
    PutField(token, 28, domain.pData, domain.nSize);
    PutField(token, 36, user.pData, user.nSize);
    PutField(token, 44, host.pData, host.nSize);
    PutField(token, 52, nullptr, 0);
    p = reinterpret_cast<uint8_t*>(token.pData);
    Put32(p + 60, flags);
    return true;
}

}  // namespace kv
