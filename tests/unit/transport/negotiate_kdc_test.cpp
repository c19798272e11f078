// CNegotiate's Kerberos road against a real MIT KDC, started for the test on
// 127.0.0.1 by the project's own script, with this test as the acceptor
// (gss_accept_sec_context over the service keytab). Skipped when not root or
// when the KDC packages are missing.
#include <gssapi/gssapi.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "transport/negotiate.h"

using namespace kv;

namespace {

std::string Text(const void* p, size_t n) { return std::string(static_cast<const char*>(p), n); }
std::string Text(const bstring& s) { return Text(s.pData, size_t(s.nSize)); }

// The server side of one login.
struct Acceptor {
    gss_ctx_id_t Ctx = GSS_C_NO_CONTEXT;
    gss_name_t Client = GSS_C_NO_NAME;
    ~Acceptor() {
        OM_uint32 minor;
        if (Ctx != GSS_C_NO_CONTEXT) gss_delete_sec_context(&minor, &Ctx, GSS_C_NO_BUFFER);
        if (Client != GSS_C_NO_NAME) gss_release_name(&minor, &Client);
    }
    OM_uint32 Accept(const bstring& in, bstring& out) {
        OM_uint32 minor;
        gss_buffer_desc tin = {size_t(in.nSize), in.pData}, tout = GSS_C_EMPTY_BUFFER;
        OM_uint32 major = gss_accept_sec_context(&minor, &Ctx, GSS_C_NO_CREDENTIAL, &tin, GSS_C_NO_CHANNEL_BINDINGS,
                                                 &Client, nullptr, &tout, nullptr, nullptr, nullptr);
        out.assign(static_cast<const char*>(tout.value), int32_t(tout.length));
        gss_release_buffer(&minor, &tout);
        return major;
    }
    std::string ClientName() {
        OM_uint32 minor;
        gss_buffer_desc b = GSS_C_EMPTY_BUFFER;
        gss_display_name(&minor, Client, &b, nullptr);
        std::string s = Text(b.value, b.length);
        gss_release_buffer(&minor, &b);
        return s;
    }
    bool Wrap(const std::string& data, bstring& out) {
        OM_uint32 minor;
        gss_buffer_desc in = {data.size(), const_cast<char*>(data.data())}, w = GSS_C_EMPTY_BUFFER;
        OM_uint32 major = gss_wrap(&minor, Ctx, 0, GSS_C_QOP_DEFAULT, &in, nullptr, &w);
        out.assign(static_cast<const char*>(w.value), int32_t(w.length));
        gss_release_buffer(&minor, &w);
        return major == GSS_S_COMPLETE;
    }
    bool Unwrap(const bstring& token, std::string& data, int& conf) {
        OM_uint32 minor;
        gss_buffer_desc in = {size_t(token.nSize), token.pData}, d = GSS_C_EMPTY_BUFFER;
        OM_uint32 major = gss_unwrap(&minor, Ctx, &in, &d, &conf, nullptr);
        data = Text(d.value, d.length);
        gss_release_buffer(&minor, &d);
        return major == GSS_S_COMPLETE;
    }
};

// No security layer, largest message 4096 bytes.
const std::string kOffer("\x01\x00\x10\x00", 4);

class NegotiateKdc : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        skip_.clear(), failed_.clear();
        if (geteuid() != 0) {
            skip_ = "needs root to run the Kerberos KDC tests";
            return;
        }
        if (std::system("PATH=$PATH:/usr/sbin command -v krb5kdc >/dev/null && command -v kinit >/dev/null") != 0) {
            skip_ = "MIT KDC not installed (Debian krb5-kdc, krb5-admin-server, krb5-user)";
            return;
        }
        dir_ = "/tmp/korvane-krb5-" + std::to_string(getpid());
        // A port per process, so that parallel test processes never meet;
        // another try on a second port if the first is taken.
        for (int attempt = 0; attempt < 3; ++attempt) {
            int port = 20000 + (getpid() * 7 + attempt * 4099) % 30000;
            std::string up = "timeout 60 " + std::string(KV_SOURCE_DIR) + "/tests/integration/peers/krb5-up.sh " +
                             dir_ + " " + std::to_string(port) + " >" + dir_ + ".out 2>&1";
            if (std::system(up.c_str()) == 0) {
                failed_.clear();
                break;
            }
            FILE* f = std::fopen((dir_ + ".out").c_str(), "r");
            char why[512] = {0};
            if (f) {
                why[std::fread(why, 1, sizeof why - 1, f)] = 0;
                std::fclose(f);
            }
            failed_ = std::string("the KDC did not start: ") + why;
        }
        setenv("KRB5_CONFIG", (dir_ + "/krb5.conf").c_str(), 1);
        setenv("KRB5_KTNAME", ("FILE:" + dir_ + "/service.keytab").c_str(), 1);
        setenv("KRB5RCACHETYPE", "none", 1);
        UseCache("cc.alice");
    }
    static void TearDownTestSuite() {
        if (dir_.empty()) return;
        std::string down = std::string(KV_SOURCE_DIR) + "/tests/integration/peers/krb5-down.sh " + dir_ +
                           "; rm -rf " + dir_ + " " + dir_ + ".out";
        if (std::system(down.c_str()) != 0) std::fprintf(stderr, "krb5-down.sh failed\n");
        dir_.clear();
    }
    void SetUp() override {
        if (!skip_.empty()) GTEST_SKIP() << skip_;
        ASSERT_TRUE(failed_.empty()) << failed_;
        UseCache("cc.alice");
    }
    static void UseCache(const char* name) { setenv("KRB5CCNAME", ("FILE:" + dir_ + "/" + name).c_str(), 1); }

    // A whole login: request, mutual authentication, and the security-layer
    // step. Returns the name the acceptor saw.
    static std::string Login(CNegotiate& n) {
        Acceptor server;
        bstring token, reply;
        EXPECT_EQ(n.CreateRequest(token), kSecIContinueNeeded);
        EXPECT_GT(token.nSize, 0);
        EXPECT_EQ(server.Accept(token, reply), GSS_S_COMPLETE);
        EXPECT_GT(reply.nSize, 0) << "the acceptor answers mutual authentication";

        token.nSize = 0;
        EXPECT_EQ(n.CreateResponse(token, reply), kSecEOk);
        EXPECT_EQ(token.nSize, 0);
        EXPECT_TRUE(n.IsComplete());

        bstring offer;
        EXPECT_TRUE(server.Wrap(kOffer, offer));
        EXPECT_EQ(n.CreateFinalResponse(token, offer), kSecEOk);
        std::string back;
        int conf = -1;
        EXPECT_TRUE(server.Unwrap(token, back, conf));
        EXPECT_EQ(back, kOffer) << "the client takes the server's offer";
        EXPECT_EQ(conf, 0) << "signed, not sealed";
        return server.ClientName();
    }

    static std::string skip_, failed_, dir_;
};
std::string NegotiateKdc::skip_, NegotiateKdc::failed_, NegotiateKdc::dir_;

}  // namespace

TEST_F(NegotiateKdc, NoUserNameLogsInFromTheDefaultCache) {
    for (const char* target : {"pop/localhost", "imap/localhost", "smtp/localhost"}) {
        SCOPED_TRACE(target);
        CNegotiate n(bstring("localhost"), "POP3", bstring(target), bstring(""), bstring(""), bstring(""), true);
        EXPECT_EQ(Login(n), "alice@KORVANE.TEST");
    }
}

TEST_F(NegotiateKdc, PasswordLoginToTheProtocolsOwnTarget) {
    // No target name: "SMTP/localhost"; the domain names the realm.
    UseCache("none");
    CNegotiate n(bstring("localhost"), "SMTP", bstring(""), bstring("korvane.test"), bstring("bob"),
                 bstring("bobpw"), true);
    EXPECT_EQ(Login(n), "bob@KORVANE.TEST");
}

TEST_F(NegotiateKdc, FailedLoginsAreNegative) {
    struct Case {
        const char* name;
        const char* cache;
        const char* user;
        const char* password;
        const char* target;
        int32_t status;
    } cases[] = {
        {"wrong password", "none", "bob", "nope", "pop/localhost", kSecELogonDenied},
        {"unknown user", "none", "carol", "x", "pop/localhost", kSecELogonDenied},
        {"unknown service", "cc.alice", "", "", "nosuch/localhost", kSecETargetUnknown},
        {"no user name and no cache", "none", "", "", "pop/localhost", kSecENoCredentials},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.name);
        UseCache(k.cache);
        CNegotiate n(bstring("localhost"), "POP3", bstring(k.target), bstring(""), bstring(k.user),
                     bstring(k.password), true);
        bstring token("kept");
        EXPECT_EQ(n.CreateRequest(token), k.status);
        EXPECT_EQ(Text(token), "kept");
    }
}

TEST_F(NegotiateKdc, TamperedSecurityLayerOfferIsRefused) {
    CNegotiate n(bstring("localhost"), "IMAP", bstring("imap/localhost"), bstring(""), bstring(""), bstring(""),
                 true);
    Acceptor server;
    bstring token, reply, offer;
    ASSERT_EQ(n.CreateRequest(token), kSecIContinueNeeded);
    ASSERT_EQ(server.Accept(token, reply), GSS_S_COMPLETE);
    ASSERT_EQ(n.CreateResponse(token, reply), kSecEOk);
    ASSERT_TRUE(server.Wrap(kOffer, offer));
    offer.pData[offer.nSize - 1] ^= 1;
    token = "kept";
    EXPECT_TRUE(CNegotiate::Failed(n.CreateFinalResponse(token, offer)));
    EXPECT_EQ(Text(token), "kept");
    // A garbage acceptor reply fails the second step the same way.
    CNegotiate m(bstring("localhost"), "IMAP", bstring("imap/localhost"), bstring(""), bstring(""), bstring(""),
                 true);
    ASSERT_EQ(m.CreateRequest(token), kSecIContinueNeeded);
    EXPECT_TRUE(CNegotiate::Failed(m.CreateResponse(token, bstring("not a token"))));
}
