// Certificate stores, the credential, and the settings of Korvane.SSL,
// without a network.
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <filesystem>
#include <string>

#include "../support/text.h"
#include "../support/tls_peer.h"
#include "transport/ssl.h"

using namespace kv;
using kv::testing::TempDir;
using kv::testing::TlsCertDir;

namespace {

using kv::testing::Str;

class TlsCert : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why;
        if (TlsCertDir(&why).empty()) GTEST_SKIP() << why;
    }
    static std::string Cert(const char* name) { return TlsCertDir() + "/" + name; }
};

struct CredentialCase {
    const char* name;
    const char* store;  // file in the certificate directory, "" none, or a path as it stands
    int32_t type;
    const char* issued_to;
    const char* issued_by;
    const char* friendly;
    const char* password;
    int32_t status;
    const char* chosen_subject;  // the certificate's name after success
};

class TlsCredential : public TlsCert, public ::testing::WithParamInterface<CredentialCase> {};

TEST_P(TlsCredential, StatusAndChosenCertificate) {
    const CredentialCase& c = GetParam();
    std::string store = c.store[0] == '/' || !*c.store ? c.store : Cert(c.store);
    bstring to(c.issued_to), by(c.issued_by), friendly(c.friendly);
    ssl_ctx_st* credential = nullptr;
    double expiry = -1;
    int32_t status = CCertManager::CreateCredential(bstring(store.c_str()), c.type, 0, 0, to, by, friendly,
                                                    bstring(c.password), &credential, &expiry);
    EXPECT_EQ(status, c.status);
    EXPECT_EQ(credential != nullptr, status == 0);
    if (status == 0) {
        EXPECT_EQ(Str(to), c.chosen_subject);
        if (*c.chosen_subject) {
            EXPECT_EQ(Str(by), "Korvane Test CA");
            EXPECT_GT(expiry, 45000.0);
        } else {
            EXPECT_EQ(expiry, 0.0);
        }
    }
    if (credential) SSL_CTX_free(credential);
}

INSTANTIATE_TEST_SUITE_P(
    Stores, TlsCredential,
    ::testing::Values(
        CredentialCase{"NoStoreNoCertificate", "", 0, "", "", "", "", 0, ""},
        CredentialCase{"NoStoreWithCriteria", "", 0, "Korvane Test Client", "", "", "", 22, ""},
        CredentialCase{"PfxFirstCertificate", "client.p12", 2, "", "", "", "pfx-secret", 0, "Korvane Test Client"},
        CredentialCase{"PfxByFriendlyName", "client.p12", 2, "", "", "Korvane Test Client", "pfx-secret", 0,
                       "Korvane Test Client"},
        CredentialCase{"PfxWrongPassword", "client.p12", 2, "", "", "", "wrong", 25, ""},
        CredentialCase{"PfxNoSuchFriendlyName", "client.p12", 2, "", "", "Nobody", "pfx-secret", 22, ""},
        CredentialCase{"PfxMissingFile", "/nonexistent/client.p12", 2, "", "", "", "", 21, ""},
        CredentialCase{"PemIsNoPfx", "client.pem", 2, "", "", "", "", 21, ""},
        CredentialCase{"FileStoreByIssuer", "client.pem", 1, "", "Korvane Test CA", "", "", 0, "Korvane Test Client"},
        CredentialCase{"CriteriaAreCaseExact", "client.pem", 1, "korvane test client", "", "", "", 22, ""},
        CredentialCase{"AllCriteriaMustHold", "client.pem", 1, "Korvane Test Client", "Someone Else", "", "", 22, ""},
        CredentialCase{"CertificateWithoutKey", "ca-store.pem", 1, "", "", "", "", int32_t(0x8009030E), ""},
        CredentialCase{"UnknownStoreType", "client.pem", 3, "", "", "", "", 21, ""}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(TlsCert, NamedStoreIsADirectoryOfTheUser) {
    TempDir root;
    CCertManager::SetStoreRootForTesting(root.path().c_str());
    std::filesystem::create_directories(root.path() + "/MY");
    std::filesystem::copy_file(Cert("client.pem"), root.path() + "/MY/client.pem");
    bstring to("Korvane Test Client"), by, friendly;
    ssl_ctx_st* credential = nullptr;
    EXPECT_EQ(CCertManager::CreateCredential(bstring("MY"), 0, 0, 0, to, by, friendly, bstring(), &credential,
                                             nullptr),
              0);
    SSL_CTX_free(credential);
    // A name that would leave the folder opens nothing.
    bstring none;
    EXPECT_EQ(CCertManager::CreateCredential(bstring("../MY"), 0, 0, 0, none, by, friendly, bstring(), &credential,
                                             nullptr),
              21);
    CCertManager::SetStoreRootForTesting(nullptr);
}

struct MaskCase {
    int32_t protocol;
    int32_t algorithm;
    int32_t status;
};

class TlsMask : public ::testing::TestWithParam<MaskCase> {};

// What OpenSSL cannot speak fails as the provider would.
TEST_P(TlsMask, CredentialFromProtocolAndAlgorithm) {
    const MaskCase& c = GetParam();
    bstring to, by, friendly;
    ssl_ctx_st* credential = nullptr;
    EXPECT_EQ(CCertManager::CreateCredential(bstring(), 0, c.algorithm, c.protocol, to, by, friendly, bstring(),
                                             &credential, nullptr),
              c.status);
    if (credential) SSL_CTX_free(credential);
}

INSTANTIATE_TEST_SUITE_P(Masks, TlsMask,
                         ::testing::Values(MaskCase{0, 0, 0}, MaskCase{0x3, 0, int32_t(0x80090331)},
                                           MaskCase{0xC, 0, int32_t(0x80090331)}, MaskCase{0xF, 0, int32_t(0x80090331)},
                                           MaskCase{0xC00, 0, 0}, MaskCase{0x3000, 0, 0}, MaskCase{0x30C0, 0, 0},
                                           MaskCase{0, 0x6610, 0}, MaskCase{0, 0x660E, 0},
                                           MaskCase{0, 0x1234, int32_t(0x80090331)}));

TEST(TlsSettings, ProtocolWritesSelectMasks) {
    const int32_t expected[] = {0, 0x3, 0xC, 0x30, 0xC0, 0x300, 0xC00, 0x3000, 0};
    for (int32_t written = 0; written <= 8; ++written) EXPECT_EQ(CSSL::ProtocolMask(written), expected[written]);
    EXPECT_EQ(CSSL::ProtocolMask(-1), 0);
    EXPECT_EQ(CSSL::ProtocolMask(0xC00), 0);  // a mask written as such is no number 1..7
}

TEST(TlsSettings, StatusSplitsIntoSslErrorAndSpecificError) {
    CSSL* ssl = CSSL::New();
    ssl->SetStatus(int32_t(0x80090331));
    EXPECT_EQ(ssl->Crypt.SSLError, 31);
    EXPECT_EQ(ssl->Crypt.SSLSpecificError, int32_t(0x80090331));
    ssl->SetStatus(22);
    EXPECT_EQ(ssl->Crypt.SSLError, 22);
    EXPECT_EQ(ssl->Crypt.SSLSpecificError, 0);
    ssl->Release();
}

TEST(TlsSettings, SessionObjectStartsDisabled) {
    CSSL* own = CSSL::NewForSession();
    CSSL* created = CSSL::New();
    EXPECT_EQ(own->Enabled, 0);
    EXPECT_EQ(created->Enabled, 1);
    EXPECT_EQ(Str(created->Crypt.ServerStore), "ROOT");
    EXPECT_EQ(created->Crypt.Options, 2);
    own->Release();
    created->Release();
}

TEST_F(TlsCert, SelectClientCertFillsTheHolderAndEmptiesIssuedTo) {
    CSSL* ssl = CSSL::New();
    auto bstr = [](const std::string& s) { return automation::Bstr::FromUtf8(s).Detach(); };
    BSTR path = bstr(Cert("client.p12")), empty = bstr(""), friendly = bstr("Korvane Test Client"),
         good = bstr("pfx-secret"), bad = bstr("nope");
    VARIANT_BOOL ok = 0;
    ssl->SelectClientCert(path, 2, empty, empty, friendly, good, &ok);
    EXPECT_EQ(ok, VARIANT_TRUE);
    EXPECT_EQ(ssl->Crypt.CredentialValid, 1);
    EXPECT_EQ(Str(ssl->ClientCert->IssuedTo), "Korvane Test Client");
    EXPECT_EQ(Str(ssl->ClientCert->IssuedBy), "Korvane Test CA");
    EXPECT_EQ(ssl->ClientCert->Exists, 1);
    EXPECT_EQ(ssl->Crypt.IssuedTo.nSize, 0);
    EXPECT_EQ(Str(ssl->Crypt.FriendlyName), "Korvane Test Client");

    ssl->SelectClientCert(path, 2, empty, empty, empty, bad, &ok);
    EXPECT_EQ(ok, VARIANT_FALSE);
    EXPECT_EQ(ssl->Crypt.SSLError, 25);
    EXPECT_EQ(ssl->Crypt.CredentialValid, 0);
    EXPECT_EQ(ssl->Crypt.ClientStore.nSize, 0);  // the arguments count as empty
    EXPECT_EQ(ssl->Crypt.ClientStoreType, 0);
    EXPECT_EQ(ssl->ClientCert->IssuedTo.nSize, 0);
    EXPECT_EQ(ssl->ClientCert->Exists, 1);
    for (BSTR b : {path, empty, friendly, good, bad}) SysFreeString(b);
    ssl->Release();
}

TEST_F(TlsCert, SelectServerCertStoreNeedsAnOpenableStore) {
    CSSL* ssl = CSSL::New();
    struct {
        std::string path;
        int32_t type;
        int32_t options;
        VARIANT_BOOL ok;
        int32_t options_after;
    } cases[] = {
        {"ROOT", 0, 0, VARIANT_TRUE, 2},
        {Cert("ca-store.pem"), 1, 0x80, VARIANT_TRUE, 0x80},
        {"/nonexistent/store.pem", 1, 0x82, VARIANT_FALSE, 0x80},
        {Cert("client.p12"), 2, 0, VARIANT_TRUE, 0x80},
        {Cert("ca-store.pem"), 5, 0, VARIANT_FALSE, 0x80},
    };
    for (const auto& c : cases) {
        BSTR path = automation::Bstr::FromUtf8(c.path).Detach();
        VARIANT_BOOL ok = 1;
        ssl->SelectServerCertStore(path, c.type, c.options, &ok);
        SysFreeString(path);
        EXPECT_EQ(ok, c.ok) << c.path;
        EXPECT_EQ(ssl->Crypt.Options, c.options_after) << c.path;
        EXPECT_EQ(Str(ssl->Crypt.ServerStore), c.path);
    }
    ssl->Release();
}

TEST_F(TlsCert, NoServerCertificateIs24) {
    CCertManager manager;
    EXPECT_EQ(manager.VerifyServerCertificate(nullptr, nullptr, 0, bstring("ROOT")), 24);
}

}  // namespace
