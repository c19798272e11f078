// MD4 and NTLM against published vectors: RFC 1320's suite, and the worked
// examples of the NTLM protocol documentation (user "User", domain "Domain",
// password "Password", server challenge 0123456789abcdef, client challenge
// aa..aa, time 0). Then the parse of hostile challenge messages.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "transport/md4.h"
#include "transport/ntlm.h"

using namespace kv;

namespace {

std::string Hex(const void* data, size_t n) {
    static const char* digits = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < n; ++i) {
        uint8_t b = static_cast<const uint8_t*>(data)[i];
        out += digits[b >> 4];
        out += digits[b & 15];
    }
    return out;
}
std::string Hex(const bstring& s) { return Hex(s.pData, size_t(s.nSize)); }

std::vector<uint8_t> Bytes(const std::string& hex) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) out.push_back(uint8_t(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return out;
}

const uint8_t kServerChallenge[8] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef};
const uint8_t kClientChallenge[8] = {0xaa, 0xaa, 0xaa, 0xaa, 0xaa, 0xaa, 0xaa, 0xaa};

// The challenge messages of the documentation's NTLMv1 (session security
// negotiated, no target info) and NTLMv2 examples.
const char* kChallengeV1 =
    "4e544c4d53535000020000000c000c003800000033820a820123456789abcdef"
    "00000000000000000000000000000000060070170000000f530065007200760065007200";
const char* kChallengeV2 =
    "4e544c4d53535000020000000c000c003800000033828ae20123456789abcdef"
    "00000000000000002400240044000000060070170000000f53006500720076006500720002000c00"
    "44006f006d00610069006e0001000c0053006500720076006500720000000000";
// AV pairs of kChallengeV2: domain "Domain", computer "Server", end.
const char* kTargetInfoV2 =
    "02000c0044006f006d00610069006e0001000c0053006500720076006500720000000000";

NtlmCredentials DocumentCredentials() {
    NtlmCredentials c;
    c.User = "User";
    c.Domain = "Domain";
    c.Password = "Password";
    std::memcpy(c.ClientChallenge, kClientChallenge, 8);
    c.Timestamp = 0;
    return c;
}

// The fields of an authenticate message, read back for checking.
struct Authenticate {
    std::string Lm, Nt, Domain, User, Host;
    uint32_t Flags = 0;
};
bool ReadAuthenticate(const bstring& msg, Authenticate& out) {
    const uint8_t* p = reinterpret_cast<const uint8_t*>(msg.pData);
    if (msg.nSize < 64 || std::memcmp(p, "NTLMSSP\0\3\0\0\0", 12) != 0) return false;
    auto field = [&](int at, std::string& hex) {
        uint32_t len = p[at] | p[at + 1] << 8, off = p[at + 4] | p[at + 5] << 8 | p[at + 6] << 16 | uint32_t(p[at + 7]) << 24;
        if (off + len > uint32_t(msg.nSize)) return false;
        hex = Hex(p + off, len);
        return true;
    };
    out.Flags = p[60] | p[61] << 8 | p[62] << 16 | uint32_t(p[63]) << 24;
    return field(12, out.Lm) && field(20, out.Nt) && field(28, out.Domain) && field(36, out.User) &&
           field(44, out.Host);
}

bool Parse(const std::vector<uint8_t>& msg, NtlmChallenge& out) {
    return ParseNtlmChallenge(msg.data(), int32_t(msg.size()), out);
}

}  // namespace

TEST(MD4, RfcSuiteAndPaddingBoundaries) {
    struct Case {
        std::string input;
        const char* digest;
    } cases[] = {
        {"", "31d6cfe0d16ae931b73c59d7e0c089c0"},
        {"a", "bde52cb31de33e46245e05fbdbd6fb24"},
        {"abc", "a448017aaf21d8525fc10ae87aa6729d"},
        {"message digest", "d9130a8164549fe818874806e1c7014b"},
        {"abcdefghijklmnopqrstuvwxyz", "d79e1c308aa5bbcdeea8ed63df412da9"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "043f8582f241db351ce627e153e7f0e4"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "e33b4ddc9c38f2199c3e7b164fcc0536"},
        // Lengths around the 56-byte padding limit and the block size.
        {std::string(55, 'a'), "c889c81dd86c4d2e025778944ea02881"},
        {std::string(56, 'a'), "d5f9a9e9257077a5f08b0b92f348b0ad"},
        {std::string(63, 'a'), "7ea3da77432d44c323671097d1348fc8"},
        {std::string(64, 'a'), "52f5076fabd22680234a3fa9f9dc5732"},
        {std::string(65, 'a'), "330e377bf231f3cacfecc2c182fe7e5b"},
        {std::string(119, 'a'), "e65dd227ccef97fa1d34d70189120f76"},
        {std::string(120, 'a'), "b03ddbd470b47c013e0c7ab2ddd763db"},
    };
    for (const auto& c : cases) {
        uint8_t d[16];
        ComputeMD4(c.input.data(), c.input.size(), d);
        EXPECT_EQ(Hex(d, 16), c.digest) << "length " << c.input.size();
    }
}

TEST(Ntlm, DocumentedKeysAndResponses) {
    bstring password("Password"), user("User"), domain("Domain");
    uint8_t nt[16], lm[16], v2[16], out[24], base[16];
    NtlmOwfV1(password, nt);
    NtlmLmOwfV1(password, lm);
    NtlmOwfV2(password, user, domain, v2);
    EXPECT_EQ(Hex(nt, 16), "a4f49c406510bdcab6824ee7c30fd852");
    EXPECT_EQ(Hex(lm, 16), "e52cac67419a9a224a3b108f3fa6cb6d");
    EXPECT_EQ(Hex(v2, 16), "0c868a403bfd7a93a3001ef22ef02e3f");
    ComputeMD4(nt, 16, base);  // the NTLMv1 session base key
    EXPECT_EQ(Hex(base, 16), "d87262b0cde4b1cb7499becccdf10784");

    NtlmDesL(nt, kServerChallenge, out);
    EXPECT_EQ(Hex(out, 24), "67c43011f30298a2ad35ece64f16331c44bdbed927841f94");
    NtlmDesL(lm, kServerChallenge, out);
    EXPECT_EQ(Hex(out, 24), "98def7b87f88aa5dafe2df779688a172def11c7d5ccdef13");
    NtlmV1SessionResponse(nt, kServerChallenge, kClientChallenge, out);
    EXPECT_EQ(Hex(out, 24), "7537f803ae367128ca458204bde7caf81e97ed2683267232");
    NtlmLmV2Response(v2, kServerChallenge, kClientChallenge, out);
    EXPECT_EQ(Hex(out, 24), "86c35097ac9cec102554764a57cccc19aaaaaaaaaaaaaaaa");

    auto info = Bytes(kTargetInfoV2);
    bstring blob, response;
    NtlmV2Blob(0, kClientChallenge, bstring(reinterpret_cast<const char*>(info.data()), int32_t(info.size())), blob);
    EXPECT_EQ(Hex(blob), std::string("0101000000000000") + "0000000000000000" + "aaaaaaaaaaaaaaaa" + "00000000" +
                             kTargetInfoV2 + "00000000");
    NtlmV2Response(v2, kServerChallenge, blob, response);
    EXPECT_EQ(Hex(response), "68cd0ab851e51c96aabc927bebef6a1c" + Hex(blob));
}

TEST(Ntlm, UserNameIsUpperCasedForV2AndPasswordIsNot) {
    uint8_t a[16], b[16], c[16];
    NtlmOwfV2(bstring("Password"), bstring("USER"), bstring("Domain"), a);
    NtlmOwfV2(bstring("Password"), bstring("user"), bstring("Domain"), b);
    NtlmOwfV2(bstring("password"), bstring("User"), bstring("Domain"), c);
    EXPECT_EQ(Hex(a, 16), "0c868a403bfd7a93a3001ef22ef02e3f");
    EXPECT_EQ(Hex(b, 16), Hex(a, 16));
    EXPECT_NE(Hex(c, 16), Hex(a, 16));
    // Latin-1 letters of the ANSI code page upper-case too: "\xe9" is é.
    NtlmOwfV2(bstring("Password"), bstring("\xe9"), bstring(""), a);
    NtlmOwfV2(bstring("Password"), bstring("\xc9"), bstring(""), b);
    EXPECT_EQ(Hex(a, 16), Hex(b, 16));
}

TEST(Ntlm, NegotiateMessageAsksForNtlmAndUnicode) {
    bstring t;
    BuildNtlmNegotiate(t);
    ASSERT_EQ(t.nSize, 32);
    EXPECT_EQ(std::string(t.pData, 12), std::string("NTLMSSP\0\1\0\0\0", 12));
    uint32_t flags = uint8_t(t.pData[12]) | uint8_t(t.pData[13]) << 8 | uint8_t(t.pData[14]) << 16 |
                     uint32_t(uint8_t(t.pData[15])) << 24;
    EXPECT_EQ(flags, kNtlmClientFlags);
    EXPECT_TRUE(flags & kNtlmNegotiateUnicode);
    EXPECT_TRUE(flags & kNtlmNegotiateNtlm);
}

TEST(Ntlm, ParsesTheDocumentedV2Challenge) {
    NtlmChallenge c;
    auto raw = Bytes(kChallengeV2);  // the views point into it
    ASSERT_TRUE(Parse(raw, c));
    EXPECT_EQ(c.Flags, 0xe28a8233u);
    EXPECT_EQ(Hex(c.ServerChallenge, 8), "0123456789abcdef");
    EXPECT_EQ(Hex(c.TargetName), "530065007200760065007200");  // "Server"
    EXPECT_EQ(Hex(c.TargetInfo), kTargetInfoV2);
    EXPECT_FALSE(c.HasTimestamp);
}

// Which response the challenge leads to, read back from the message built.
TEST(Ntlm, AuthenticateMessageFollowsTheChallenge) {
    auto noSession = Bytes(kChallengeV1);
    noSession[22] &= ~0x08;  // extended session security off
    auto oem = Bytes(kChallengeV1);
    oem[20] &= ~0x01;  // Unicode off
    struct Case {
        const char* name;
        std::vector<uint8_t> challenge;
        std::string lm, nt, user;
    } cases[] = {
        {"v2", Bytes(kChallengeV2), "86c35097ac9cec102554764a57cccc19aaaaaaaaaaaaaaaa",
         "68cd0ab851e51c96aabc927bebef6a1c01010000000000000000000000000000aaaaaaaaaaaaaaaa00000000" +
             std::string(kTargetInfoV2) + "00000000",
         "5500730065007200"},
        {"v1 with session security", Bytes(kChallengeV1), "aaaaaaaaaaaaaaaa" + std::string(32, '0'),
         "7537f803ae367128ca458204bde7caf81e97ed2683267232", "5500730065007200"},
        {"plain v1", noSession, "98def7b87f88aa5dafe2df779688a172def11c7d5ccdef13",
         "67c43011f30298a2ad35ece64f16331c44bdbed927841f94", "5500730065007200"},
        {"v1 in OEM", oem, "aaaaaaaaaaaaaaaa" + std::string(32, '0'),
         "7537f803ae367128ca458204bde7caf81e97ed2683267232", "55736572"},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.name);
        NtlmChallenge c;
        ASSERT_TRUE(Parse(k.challenge, c));
        bstring msg;
        ASSERT_TRUE(BuildNtlmAuthenticate(c, DocumentCredentials(), msg));
        Authenticate a;
        ASSERT_TRUE(ReadAuthenticate(msg, a));
        EXPECT_EQ(a.Lm, k.lm);
        EXPECT_EQ(a.Nt, k.nt);
        EXPECT_EQ(a.User, k.user);
        EXPECT_EQ(a.Host, "");
        bool unicode = k.challenge[20] & 1;
        EXPECT_EQ(a.Domain, unicode ? "44006f006d00610069006e00" : "446f6d61696e");
        EXPECT_EQ(bool(a.Flags & kNtlmNegotiateUnicode), unicode);
        EXPECT_EQ(bool(a.Flags & kNtlmNegotiateOem), !unicode);
        EXPECT_EQ(a.Flags & ~(kNtlmClientFlags), 0u) << "only flags the client asked for";
    }
}

TEST(Ntlm, ServerTimeIsUsedAndLmV2IsLeftOut) {
    // kChallengeV2 with a timestamp pair before the end pair.
    std::string info = "02000c0044006f006d00610069006e0001000c005300650072007600650072000700080011223344556677880000"
                       "0000";
    std::string hex = std::string(kChallengeV2).substr(0, 80) + "3000300044000000" +
                      std::string(kChallengeV2).substr(96, 40) + info;
    ASSERT_EQ(info.size(), 0x30u * 2);
    NtlmChallenge c;
    auto raw = Bytes(hex);
    ASSERT_TRUE(Parse(raw, c));
    ASSERT_TRUE(c.HasTimestamp);
    bstring msg;
    ASSERT_TRUE(BuildNtlmAuthenticate(c, DocumentCredentials(), msg));
    Authenticate a;
    ASSERT_TRUE(ReadAuthenticate(msg, a));
    EXPECT_EQ(a.Lm, std::string(48, '0'));
    EXPECT_EQ(a.Nt.substr(32 + 16, 16), "1122334455667788");
}

TEST(Ntlm, LongPasswordsSendTheNtResponseInTheLmSlot) {
    auto noSession = Bytes(kChallengeV1);
    noSession[22] &= ~0x08;
    NtlmChallenge c;
    ASSERT_TRUE(Parse(noSession, c));
    NtlmCredentials cred = DocumentCredentials();
    cred.Password = "a password longer than fourteen";
    bstring msg;
    ASSERT_TRUE(BuildNtlmAuthenticate(c, cred, msg));
    Authenticate a;
    ASSERT_TRUE(ReadAuthenticate(msg, a));
    EXPECT_EQ(a.Lm, a.Nt);
}

TEST(Ntlm, HostileChallengesAreRefused) {
    const std::string v2 = kChallengeV2;
    auto patch = [&](size_t at, const std::string& hex) {
        std::string s = v2;
        s.replace(at * 2, hex.size(), hex);
        return s;
    };
    struct Case {
        const char* name;
        std::string hex;
        bool ok;
    } cases[] = {
        {"empty", "", false},
        {"31 bytes", v2.substr(0, 62), false},
        {"32 bytes, the oldest form", patch(12, "0000").substr(0, 64), true},
        {"47 bytes: no target info field to read", patch(12, "0000").substr(0, 94), true},
        {"32 bytes whose target name lies beyond", v2.substr(0, 64), false},
        {"bad signature", patch(0, "4f"), false},
        {"type 3", patch(8, "03"), false},
        {"target name past the end", patch(16, "ff000000"), false},
        {"target name longer than the message", patch(12, "ffff"), false},
        {"target name offset wraps 32 bits", patch(16, "ffffffff"), false},
        {"empty target name with a wild offset", patch(12, "0000") .replace(32, 8, "ffffffff"), true},
        {"target info longer than the message", patch(40, "2500"), false},
        {"target info offset past the end", patch(44, "45000000"), false},
        {"pair longer than the target info", patch(68 + 2, "ff00"), false},
        {"pair reaching one byte past the target info", patch(68 + 16 + 2, "0d00"), false},
        {"no end pair", patch(68 + 32, "0100"), false},
        {"target info cut inside a pair header", patch(40, "2200").replace(84, 4, "2200"), false},
        {"target info flag off: the field is ignored", patch(40, "ffff").replace(44, 2, "0a"), true},
    };
    for (const auto& k : cases) {
        NtlmChallenge c;
        EXPECT_EQ(Parse(Bytes(k.hex), c), k.ok) << k.name;
    }
}

TEST(Ntlm, EveryTruncationParsesOrFailsCleanly) {
    auto full = Bytes(kChallengeV2);
    for (size_t n = 0; n <= full.size(); ++n) {
        std::vector<uint8_t> cut(full.begin(), full.begin() + n);  // exact size, so ASan sees any overrun
        NtlmChallenge c;
        bool ok = Parse(cut, c);
        EXPECT_EQ(ok, n == full.size()) << n;
    }
}

TEST(Ntlm, FieldsThatOutgrowSixteenBitsFail) {
    NtlmChallenge c;
    auto raw = Bytes(kChallengeV2);
    ASSERT_TRUE(Parse(raw, c));
    NtlmCredentials cred = DocumentCredentials();
    cred.User.assign(std::string(40000, 'u').c_str());
    bstring msg;
    EXPECT_FALSE(BuildNtlmAuthenticate(c, cred, msg));
}
