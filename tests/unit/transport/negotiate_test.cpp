// CNegotiate's NTLM road and its statuses, without a network. The Kerberos
// road runs against a real KDC in negotiate_kdc_test.cpp.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "transport/negotiate.h"
#include "transport/ntlm.h"

using namespace kv;

namespace {

std::vector<uint8_t> Bytes(const std::string& hex) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) out.push_back(uint8_t(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return out;
}
bstring Str(const std::vector<uint8_t>& b) { return bstring(reinterpret_cast<const char*>(b.data()), int32_t(b.size())); }

// The documented NTLMv2 challenge (domain "Domain", computer "Server").
const char* kChallengeV2 =
    "4e544c4d53535000020000000c000c003800000033828ae20123456789abcdef"
    "00000000000000002400240044000000060070170000000f53006500720076006500720002000c00"
    "44006f006d00610069006e0001000c0053006500720076006500720000000000";

CNegotiate* MakeNtlm(const char* user = "User") {
    auto* n = new CNegotiate(bstring("mail.example.test"), "POP3", bstring(""), bstring("Domain"), bstring(user),
                             bstring("Password"), false);
    std::memset(n->FixedClientChallenge, 0xaa, 8);
    n->UseFixedNonce = true;
    return n;
}

}  // namespace

TEST(Negotiate, NtlmExchangeGivesNegotiateThenAuthenticate) {
    std::unique_ptr<CNegotiate> n(MakeNtlm());
    bstring token;
    int32_t status = n->CreateRequest(token);
    EXPECT_EQ(status, kSecIContinueNeeded);
    EXPECT_FALSE(CNegotiate::Failed(status));
    EXPECT_TRUE(n->CredentialValid);
    EXPECT_TRUE(n->ContextValid);
    EXPECT_EQ(n->ContextRequirements, 0x10812u);
    bstring expected;
    BuildNtlmNegotiate(expected);
    ASSERT_EQ(std::string(token.pData, size_t(token.nSize)), std::string(expected.pData, size_t(expected.nSize)));
    EXPECT_FALSE(n->IsComplete());

    EXPECT_EQ(n->CreateResponse(token, Str(Bytes(kChallengeV2))), kSecEOk);
    EXPECT_TRUE(n->IsComplete());
    // The same message the NTLM layer builds from the documented inputs.
    NtlmChallenge c;
    auto raw = Bytes(kChallengeV2);
    ASSERT_TRUE(ParseNtlmChallenge(raw.data(), int32_t(raw.size()), c));
    NtlmCredentials cred;
    cred.User = "User", cred.Domain = "Domain", cred.Password = "Password";
    std::memset(cred.ClientChallenge, 0xaa, 8);
    ASSERT_TRUE(BuildNtlmAuthenticate(c, cred, expected));
    EXPECT_EQ(std::string(token.pData, size_t(token.nSize)), std::string(expected.pData, size_t(expected.nSize)));

    // Nothing follows an NTLM login.
    bstring again("unchanged");
    EXPECT_EQ(n->CreateResponse(again, Str(raw)), kSecEOutOfSequence);
    EXPECT_EQ(n->CreateFinalResponse(again, Str(raw)), kSecEUnsupportedFunction);
    EXPECT_STREQ(again.null_terminate().pData, "unchanged");
}

TEST(Negotiate, RandomNonceDiffersBetweenLogins) {
    std::string first;
    for (int i = 0; i < 2; ++i) {
        std::unique_ptr<CNegotiate> n(MakeNtlm());
        n->UseFixedNonce = false;
        bstring token;
        ASSERT_EQ(n->CreateRequest(token), kSecIContinueNeeded);
        ASSERT_EQ(n->CreateResponse(token, Str(Bytes(kChallengeV2))), kSecEOk);
        std::string t(token.pData, size_t(token.nSize));
        if (i == 0) first = t;
        else EXPECT_NE(t, first);
    }
}

TEST(Negotiate, FailuresAreNegativeAndLeaveTheTokenAlone) {
    struct Case {
        const char* name;
        const char* user;
        bool request;  // run CreateRequest first
        std::string challenge;
        int32_t status;
    } cases[] = {
        {"NTLM without a user name", "", true, "", kSecENoCredentials},
        {"response before request", "User", false, kChallengeV2, kSecEInvalidHandle},
        {"garbage challenge", "User", true, "00112233", kSecEInvalidToken},
        {"empty challenge", "User", true, "", kSecEInvalidToken},
        {"a negotiate message back", "User", true, "4e544c4d53535000010000000000000000000000000000000000000000000000",
         kSecEInvalidToken},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.name);
        std::unique_ptr<CNegotiate> n(MakeNtlm(k.user));
        bstring token("kept");
        int32_t status = k.request ? n->CreateRequest(token) : 0;
        if (status >= 0) {
            token = "kept";
            status = n->CreateResponse(token, Str(Bytes(k.challenge)));
        }
        EXPECT_EQ(status, k.status);
        EXPECT_TRUE(CNegotiate::Failed(status));
        EXPECT_FALSE(n->IsComplete());
        EXPECT_STREQ(token.null_terminate().pData, "kept");
    }
}

TEST(Negotiate, TokenLongerThanTheBufferFails) {
    // A challenge whose target info holds one 13,000-byte pair: the answer
    // carries it whole and outgrows the 12,288-byte token.
    std::vector<uint8_t> c = Bytes(std::string(kChallengeV2).substr(0, 136));
    const uint16_t big = 13000, info = uint16_t(big + 8);
    c[40] = c[42] = uint8_t(info), c[41] = c[43] = uint8_t(info >> 8);
    c.insert(c.end(), {0x05, 0x00, uint8_t(big), uint8_t(big >> 8)});
    c.insert(c.end(), big, 'x');
    c.insert(c.end(), {0, 0, 0, 0});
    std::unique_ptr<CNegotiate> n(MakeNtlm());
    bstring token;
    ASSERT_EQ(n->CreateRequest(token), kSecIContinueNeeded);
    EXPECT_EQ(n->CreateResponse(token, Str(c)), kSecEBufferTooSmall);
}

TEST(Negotiate, TargetNameRules) {
    struct Case {
        const char* protocol;
        const char* server;
        const char* target;
        const char* expected;
    } cases[] = {
        {"SMTP", "mail.example.test", "", "SMTP/mail.example.test"},
        {"POP3", "localhost", "", "POP3/localhost"},  // the protocol keeps its case
        {"IMAP", "localhost", "imap/mx.example.test@EXAMPLE.TEST", "imap/mx.example.test@EXAMPLE.TEST"},
    };
    for (const auto& k : cases) {
        CNegotiate n(bstring(k.server), k.protocol, bstring(k.target), bstring(""), bstring("u"), bstring("p"), true);
        bstring t;
        n.GetTarget(t);
        EXPECT_EQ(std::string(t.pData, size_t(t.nSize)), k.expected);
    }
}
