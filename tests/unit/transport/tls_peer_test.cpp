// The TLS channel against real `openssl s_server` peers on 127.0.0.1, with
// the certificates of tests/integration/tls/make-certs.sh.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>

#include "../support/tls_peer.h"
#include "transport/ssl.h"

using namespace kv;
using kv::testing::TlsCertDir;
using kv::testing::TlsServer;
using kv::testing::TempDir;

namespace {

std::string Cert(const char* name) { return TlsCertDir() + "/" + name; }

// One session's socket and its SSL object, as a mail session holds them.
struct Client {
    WS2 ws;
    CSSL* ssl = CSSL::New();
    Client() {
        ws.Timeout = 30;  // generous: a loaded machine may stall the peer for seconds
        ws.Crypt = &ssl->Crypt;
    }
    ~Client() {
        if (ws.Connected) ws.Disconnect();
        ssl->Release();
    }
    // Connects and starts TLS: the status of Init (-100 when the TCP connect failed).
    int32_t Start(int port, const char* host = "127.0.0.1") {
        if (ws.Connect(host, port) != 0) return -100;
        int32_t status = ssl->Init(&ws);
        ssl->SetStatus(status);
        return status;
    }
    // Reads until text holds needle, the server closes or an error; the last Get result.
    int32_t ReadUntil(std::string& text, const std::string& needle, size_t limit = 1 << 26) {
        std::string buf(65536, '\0');
        int32_t leftover = 0;
        for (;;) {
            int32_t got = 0;
            int32_t rc = ws.Get(buf.data(), int32_t(buf.size()), got, leftover);
            if (got > 0) text.append(buf.data(), size_t(got));
            if (rc != 0) return rc;
            if ((!needle.empty() && text.find(needle) != std::string::npos) || text.size() >= limit) return 0;
        }
    }
    std::string Version() { return ws.CryptActive && ssl->Crypt.Context ? SSL_get_version(ssl->Crypt.Context) : ""; }
};

class TlsPeer : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why;
        if (TlsCertDir(&why).empty()) GTEST_SKIP() << why;
    }
};

// ---- handshakes and data both ways ----

struct VersionCase {
    const char* name;
    const char* server_args;
    int32_t protocol;  // the mask a script writes through Protocol
    const char* version;
};

class TlsVersions : public TlsPeer, public ::testing::WithParamInterface<VersionCase> {};

TEST_P(TlsVersions, ImplicitTls_HandshakeThenDataBothWays) {
    const VersionCase& c = GetParam();
    TlsServer server("server", c.server_args);
    ASSERT_EQ(server.problem(), "");
    Client client;
    client.ssl->Crypt.Protocol = c.protocol;
    ASSERT_EQ(client.Start(server.port()), 0);
    EXPECT_EQ(client.Version(), c.version);
    EXPECT_EQ(client.ssl->Crypt.SSLError, 0);

    // The server's facts reach ServerCert.
    CCertInfo* cert = client.ssl->ServerCert;
    EXPECT_STREQ(std::string(cert->IssuedTo.pData, size_t(cert->IssuedTo.nSize)).c_str(), "localhost");
    EXPECT_STREQ(std::string(cert->IssuedBy.pData, size_t(cert->IssuedBy.nSize)).c_str(), "Korvane Test CA");
    EXPECT_GT(cert->ExpirationDate, 45000.0);  // after 2023

    ASSERT_EQ(client.ws.Send("EHLO client.test\r\n"), 0);
    EXPECT_TRUE(server.WaitOutput("EHLO client.test", 5000)) << server.Output();
    server.Input("250 hello from the server\r\n");
    std::string text;
    EXPECT_EQ(client.ReadUntil(text, "\r\n"), 0);
    EXPECT_EQ(text, "250 hello from the server\r\n");
}

INSTANTIATE_TEST_SUITE_P(
    Versions, TlsVersions,
    ::testing::Values(VersionCase{"Tls12", "-tls1_2", 0xC00, "TLSv1.2"},
                      VersionCase{"Tls13", "-tls1_3", 0x3000, "TLSv1.3"},
                      VersionCase{"DefaultMaskTakesNewest", "", 0, "TLSv1.3"},
                      VersionCase{"MaskWithBothTakesNewest", "", 0x3C00, "TLSv1.3"},
                      VersionCase{"Tls12ByMaskAgainstAnyServer", "", 0xC00, "TLSv1.2"}),
    [](const auto& info) { return std::string(info.param.name); });

// A relay that hands the server's bytes to the client one at a time, so that
// every handshake message and every record arrives in pieces.
class TrickleRelay {
public:
    explicit TrickleRelay(int target) {
        listen_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        bind(listen_, reinterpret_cast<sockaddr*>(&a), sizeof a);
        listen(listen_, 1);
        getsockname(listen_, reinterpret_cast<sockaddr*>(&a), &len);
        port_ = ntohs(a.sin_port);
        thread_ = std::thread([this, target] { Run(target); });
    }
    ~TrickleRelay() {
        stop_ = true;
        thread_.join();
        close(listen_);
    }
    int port() const { return port_; }
    int pieces() const { return pieces_; }

private:
    void Run(int target) {
        pollfd p{listen_, POLLIN, 0};
        if (poll(&p, 1, 5000) != 1) return;
        int client = accept(listen_, nullptr, nullptr);
        int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(uint16_t(target));
        int one = 1;
        setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        if (connect(server, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) stop_ = true;
        auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        char buf[4096];
        while (!stop_ && std::chrono::steady_clock::now() < until) {
            pollfd fds[2] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
            if (poll(fds, 2, 20) <= 0) continue;
            if (fds[0].revents) {
                ssize_t n = recv(client, buf, sizeof buf, 0);
                if (n <= 0) break;
                send(server, buf, size_t(n), MSG_NOSIGNAL);
            }
            if (fds[1].revents) {
                ssize_t n = recv(server, buf, sizeof buf, 0);
                if (n <= 0) break;
                for (ssize_t i = 0; i < n; ++i) {
                    send(client, buf + i, 1, MSG_NOSIGNAL);
                    ++pieces_;
                    std::this_thread::sleep_for(std::chrono::microseconds(150));
                }
            }
        }
        close(client);
        close(server);
    }

    int listen_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<int> pieces_{0};
    std::thread thread_;
};

TEST_F(TlsPeer, HandshakeAndRecordsArrivingOneByteAtATime) {
    for (const char* version : {"-tls1_2", "-tls1_3"}) {
        SCOPED_TRACE(version);
        TlsServer server("server", version);
        ASSERT_EQ(server.problem(), "");
        TrickleRelay relay(server.port());
        Client client;
        ASSERT_EQ(client.Start(relay.port()), 0);
        server.Input("+OK ready\r\n");
        std::string text;
        EXPECT_EQ(client.ReadUntil(text, "\r\n"), 0);
        EXPECT_EQ(text, "+OK ready\r\n");
        EXPECT_GT(relay.pieces(), 500);  // the server's flight came in single bytes
    }
}

// ---- large transfers ----

// The last records and the close notification often arrive in one read
// behind data: the close must still be reported by the next read.
TEST_F(TlsPeer, TensOfMegabytesEachWay) {
    constexpr size_t kSize = 24 << 20;
    TempDir docs;
    std::string blob(kSize, '\0');
    std::mt19937 rng(7);
    for (size_t i = 0; i < kSize; i += 4) {
        uint32_t r = rng();
        std::memcpy(&blob[i], &r, 4);
    }
    std::ofstream(docs.path() + "/blob.bin", std::ios::binary).write(blob.data(), std::streamsize(blob.size()));

    {  // Down: the server's file, through many records and leftover rounds.
        TlsServer server("server", "-WWW", docs.path());
        ASSERT_EQ(server.problem(), "");
        Client client;
        ASSERT_EQ(client.Start(server.port()), 0);
        ASSERT_EQ(client.ws.Send("GET /blob.bin HTTP/1.0\r\n\r\n"), 0);
        std::string text;
        int32_t rc = client.ReadUntil(text, "");
        EXPECT_EQ(rc, -3);  // the server closes after the file
        size_t body = text.find("\r\n\r\n");
        ASSERT_NE(body, std::string::npos);
        EXPECT_EQ(text.size() - body - 4, kSize);
        EXPECT_TRUE(text.compare(body + 4, std::string::npos, blob) == 0);
    }
    {  // Up: one Send of the whole blob, cut into records of at most 16 KB.
        TlsServer server("server", "");
        ASSERT_EQ(server.problem(), "");
        Client client;
        ASSERT_EQ(client.Start(server.port()), 0);
        size_t before = server.Output().size();
        ASSERT_EQ(client.ws.Send(blob.data(), int32_t(blob.size())), 0);
        ASSERT_TRUE(server.WaitOutputSize(before + kSize, 30000));
        EXPECT_NE(server.Output().find(blob.substr(kSize - 4096)), std::string::npos);
    }
}

// ---- after the handshake ----

struct LaterCase {
    const char* name;
    const char* server_args;
    const char* command;  // one-letter command of s_server, sent before the data
};

class TlsLater : public TlsPeer, public ::testing::WithParamInterface<LaterCase> {};

TEST_P(TlsLater, SessionGoesOnAfterServerHandshakeMessages) {
    const LaterCase& c = GetParam();
    TlsServer server("server", c.server_args);
    ASSERT_EQ(server.problem(), "");
    Client client;
    ASSERT_EQ(client.Start(server.port()), 0);
    server.Input(std::string(c.command) + "\n");
    // Let the command go out alone: s_server reads it as a command only then.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    server.Input("first line\r\n");
    std::string text;
    EXPECT_EQ(client.ReadUntil(text, "first line\r\n"), 0);
    EXPECT_EQ(text, "first line\r\n");
    // And the client can still talk.
    ASSERT_EQ(client.ws.Send("QUIT after the update\r\n"), 0);
    EXPECT_TRUE(server.WaitOutput("QUIT after the update", 5000)) << server.Output();
}

INSTANTIATE_TEST_SUITE_P(
    Later, TlsLater,
    ::testing::Values(LaterCase{"Tls12Renegotiation", "-tls1_2", "R"},
                      LaterCase{"Tls13KeyUpdateRequested", "-tls1_3", "K"},
                      LaterCase{"Tls13KeyUpdate", "-tls1_3", "k"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(TlsPeer, ServerCloseNotifyEndsTheRead) {
    TlsServer server("server", "-tls1_3");
    ASSERT_EQ(server.problem(), "");
    Client client;
    ASSERT_EQ(client.Start(server.port()), 0);
    server.Input("bye\r\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    server.Input("Q\n");
    std::string text;
    EXPECT_EQ(client.ReadUntil(text, "never"), -3);
    EXPECT_EQ(text, "bye\r\n");
    EXPECT_EQ(client.ws.LastError, 6);
}

TEST_F(TlsPeer, CloseSendsCloseNotifyAndClearsVerify) {
    TlsServer server("server", "");
    ASSERT_EQ(server.problem(), "");
    Client client;
    client.ssl->Crypt.VerifyServerCert = 1;
    client.ssl->Crypt.ServerStore = bstring(Cert("ca-store.pem").c_str());
    client.ssl->Crypt.ServerStoreType = 1;
    ASSERT_EQ(client.Start(server.port()), 0);
    EXPECT_EQ(client.ws.Disconnect(), 0);
    EXPECT_EQ(client.ws.CryptActive, 0);
    EXPECT_EQ(client.ssl->Crypt.VerifyServerCert, 0);
    EXPECT_EQ(client.ssl->Crypt.CredentialValid, 0);
    // DONE is the server's word for a close notify; a bare end of the
    // connection reads "unexpected eof" instead.
    EXPECT_TRUE(server.WaitOutput("shutting down SSL", 5000)) << server.Output();
    EXPECT_NE(server.Output().find("DONE"), std::string::npos);
    EXPECT_EQ(server.Output().find("unexpected eof"), std::string::npos);
}

TEST_F(TlsPeer, ServerNameIndicationCarriesTheHostName) {
    // The server answers with another certificate for the name "localhost".
    std::string args = "-servername localhost -cert2 " + Cert("wronghost.pem") + " -key2 " + Cert("wronghost.key");
    TlsServer server("server", args);
    ASSERT_EQ(server.problem(), "");
    Client by_name;
    ASSERT_EQ(by_name.Start(server.port(), "localhost"), 0);
    CCertInfo* cert = by_name.ssl->ServerCert;
    EXPECT_EQ(std::string(cert->IssuedTo.pData, size_t(cert->IssuedTo.nSize)), "mail.invalid");
}

// ---- client certificates ----

struct ClientCertCase {
    const char* name;
    const char* store;  // file name in the certificate directory
    int32_t type;
    const char* issued_to;
    const char* password;
};

class TlsClientCert : public TlsPeer, public ::testing::WithParamInterface<ClientCertCase> {};

TEST_P(TlsClientCert, ServerThatRequiresACertificateAcceptsTheChosenOne) {
    const ClientCertCase& c = GetParam();
    TlsServer server("server", "-Verify 1 -verify_return_error -CAfile " + Cert("ca.pem"));
    ASSERT_EQ(server.problem(), "");
    Client client;
    CSSLCrypt& crypt = client.ssl->Crypt;
    bstring to(c.issued_to), by, friendly;
    ASSERT_EQ(CCertManager::CreateCredential(bstring(Cert(c.store).c_str()), c.type, 0, 0, to, by, friendly,
                                             bstring(c.password), &crypt.Credential, nullptr),
              0);
    crypt.CredentialValid = 1;
    ASSERT_EQ(client.Start(server.port()), 0);
    ASSERT_EQ(client.ws.Send("hello with a certificate\r\n"), 0);
    EXPECT_TRUE(server.WaitOutput("hello with a certificate", 5000)) << server.Output();
    EXPECT_NE(server.Output().find("Korvane Test Client"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    Stores, TlsClientCert,
    ::testing::Values(ClientCertCase{"PemFileStore", "client.pem", 1, "Korvane Test Client", ""},
                      ClientCertCase{"Pfx", "client.p12", 2, "", "pfx-secret"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(TlsPeer, ServerThatRequiresACertificateRefusesAClientWithout) {
    TlsServer server("server", "-tls1_2 -Verify 1 -verify_return_error -CAfile " + Cert("ca.pem"));
    ASSERT_EQ(server.problem(), "");
    Client client;
    int32_t status = client.Start(server.port());
    EXPECT_LT(status, 0);  // a provider status: SSLError 31
    EXPECT_EQ(client.ssl->Crypt.SSLError, 31);
    EXPECT_EQ(client.ssl->Crypt.SSLSpecificError, status);
    EXPECT_EQ(client.ws.CryptActive, 0);
}

// ---- the server's certificate ----

struct VerifyCase {
    const char* name;
    const char* server_cert;
    bool file_store;  // a copy of ca-store.pem, else the system store ROOT
    int32_t options;
    int32_t status;
};

class TlsVerify : public TlsPeer, public ::testing::WithParamInterface<VerifyCase> {};

TEST_P(TlsVerify, StatusOfTheServerCheck) {
    const VerifyCase& c = GetParam();
    TempDir dir;
    std::string store = dir.path() + "/store.pem";
    std::filesystem::copy_file(Cert("ca-store.pem"), store);
    TlsServer server(c.server_cert, "");
    ASSERT_EQ(server.problem(), "");
    Client client;
    VARIANT_BOOL ok = 0;
    BSTR path = automation::Bstr::FromUtf8(c.file_store ? store : "ROOT").Detach();
    client.ssl->SelectServerCertStore(path, c.file_store ? 1 : 0, c.options, &ok);
    SysFreeString(path);
    ASSERT_EQ(ok, VARIANT_TRUE);
    client.ssl->Crypt.VerifyServerCert = 1;
    EXPECT_EQ(client.Start(server.port()), c.status);
    EXPECT_EQ(client.ssl->Crypt.SSLError, c.status);
    // The context stays up whatever the check said.
    EXPECT_EQ(client.ws.CryptActive, 1);
}

INSTANTIATE_TEST_SUITE_P(
    Chains, TlsVerify,
    ::testing::Values(VerifyCase{"TrustedByChosenStore", "server", true, 0, 0},
                      VerifyCase{"UnknownCaUntrustedBySystem", "server", false, 0, 22},
                      VerifyCase{"Expired", "expired", true, 0, 22},
                      VerifyCase{"WrongHostNamePasses", "wronghost", true, 0, 0},
                      VerifyCase{"SelfSignedUntrusted", "self", true, 0, 22},
                      VerifyCase{"SystemStoreTakesNoAddition", "self", false, 0x80, 23}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(TlsPeer, UntrustedCertificateLandsInTheStoreWithOption0x80) {
    TempDir dir;
    std::string store = dir.path() + "/store.pem";
    std::filesystem::copy_file(Cert("ca-store.pem"), store);
    TlsServer server("self", "");
    ASSERT_EQ(server.problem(), "");
    auto connect = [&](int32_t options) {
        Client client;
        VARIANT_BOOL ok = 0;
        BSTR path = automation::Bstr::FromUtf8(store).Detach();
        client.ssl->SelectServerCertStore(path, 1, options, &ok);
        SysFreeString(path);
        client.ssl->Crypt.VerifyServerCert = 1;
        return client.Start(server.port());
    };
    EXPECT_EQ(connect(0x82), 0);  // first use: trusted by choice
    std::string saved;
    {
        std::ifstream in(store);
        saved.assign(std::istreambuf_iterator<char>(in), {});
    }
    std::ifstream self(Cert("self.pem"));
    std::string self_pem((std::istreambuf_iterator<char>(self)), {});
    EXPECT_NE(saved.find(self_pem), std::string::npos);
    EXPECT_EQ(connect(2), 0);     // now the store vouches for it
    EXPECT_EQ(connect(0x82), 23);  // and it cannot be added twice
}

}  // namespace
