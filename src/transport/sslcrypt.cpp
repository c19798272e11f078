#include "transport/sslcrypt.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <cstring>
#include <memory>
#include <new>

#include "foundation/trace.h"

namespace kv {

namespace {

// The working buffer of one handshake.
constexpr int32_t kHandshakeBuffer = 0x10000;
// Data a server may send in the middle of a renegotiation.
constexpr size_t kMaxHeldPlain = 1 << 20;

void TraceStatus(const char* text, int64_t status) {
    TraceBegin();
    TraceAppend(text);
    TraceAppendInt(status);
    Trace();
}

// SNI carries host names only, never address literals.
bool IsAddressLiteral(const std::string& host) {
    unsigned char buf[16];
    return inet_pton(AF_INET, host.c_str(), buf) == 1 || inet_pton(AF_INET6, host.c_str(), buf) == 1;
}

}  // namespace

int32_t HandshakeFailureStatus(unsigned long error) {
    if (ERR_GET_LIB(error) != ERR_LIB_SSL) return error ? kSecEIllegalMessage : kSecEInternalError;
    switch (ERR_GET_REASON(error)) {
        case SSL_R_UNSUPPORTED_PROTOCOL:
        case SSL_R_NO_PROTOCOLS_AVAILABLE:
        case SSL_R_TLSV1_ALERT_PROTOCOL_VERSION:
        case SSL_R_WRONG_VERSION_NUMBER:
        case SSL_R_VERSION_TOO_LOW:
        case SSL_R_VERSION_TOO_HIGH:
            return kSecEUnsupportedFunction;
        case SSL_R_NO_CIPHERS_AVAILABLE:
        case SSL_R_NO_SHARED_CIPHER:
        case SSL_R_SSLV3_ALERT_HANDSHAKE_FAILURE:
            return kSecEAlgorithmMismatch;
        default:
            return kSecEIllegalMessage;
    }
}

CSSLCrypt::~CSSLCrypt() {
    if (RemoteCert) X509_free(RemoteCert);
    FreeCredential();
}

void CSSLCrypt::FreeCredential() {
    if (Credential) SSL_CTX_free(Credential);
    Credential = nullptr;
    CredentialValid = 0;
}

int32_t CSSLCrypt::FlushEngine() {
    if (!NetOut || !Socket) return 0;
    int pending = int(BIO_ctrl_pending(NetOut));
    if (pending <= 0) return 0;
    std::unique_ptr<char[]> bytes(new (std::nothrow) char[size_t(pending)]);
    if (!bytes) return -1;
    int n = BIO_read(NetOut, bytes.get(), pending);
    if (n <= 0) return 0;
    // Handshake records are complete as the engine made them.
    int32_t active = Socket->CryptActive;
    Socket->CryptActive = 0;
    int32_t rc = Socket->Send(bytes.get(), n);
    Socket->CryptActive = active;
    return rc;
}

void CSSLCrypt::SendEngineOutput() {
    if (FlushEngine() != 0) Trace("**** Error sending a handshake message");
}

int32_t CSSLCrypt::Init(WS2* socket) {
    Trace("SSL Init started");
    Socket = socket;
    if (ContextValid) return 12;
    if (!socket) return 8;
    if (!CredentialValid) {
        int32_t status = CreateCredential(ClientStore, ClientStoreType, Algorithm, Protocol, IssuedTo, IssuedBy,
                                          FriendlyName, PrivateKey, &Credential, nullptr);
        if (status) return status;
        CredentialValid = 1;
    }
    std::vector<char> extra;
    int32_t status = PerformHandshake(extra);
    if (status) {
        Trace("**** Failed to perform handshake.");
        Close();
        return status;
    }
    ContextValid = 1;
    Socket->CryptActive = 1;

    TraceBegin();
    TraceAppend("Protocol: ");
    TraceAppend(SSL_get_version(Context));
    TraceAppend(", cipher: ");
    TraceAppend(SSL_CIPHER_get_name(SSL_get_current_cipher(Context)));
    Trace();

    // The stream comes before the check of the server, so that a session
    // that goes on regardless still has a working channel.
    if (!PrepareStream()) {
        Trace("**** Out of memory (2)");
        Close();
        return 12;
    }
    IoCount = 0;
    if (!extra.empty() && int32_t(extra.size()) < IoBufSize) {
        std::memcpy(IoBuf, extra.data(), extra.size());
        IoCount = int32_t(extra.size());
        Socket->CryptExtraPending = 1;
    }
    if (VerifyServerCert) {
        status = VerifyServerCertificate(RemoteCert, SSL_get_peer_cert_chain(Context), ServerStoreType, ServerStore);
        if (status) {
            TraceStatus("**** Server certificate not accepted: ", status);
            return status;
        }
    }
    Trace("SSL Init succeeded");
    return 0;
}

int32_t CSSLCrypt::PerformHandshake(std::vector<char>& extra) {
    DeleteContext();
    ERR_clear_error();
    Context = SSL_new(Credential);
    NetIn = BIO_new(BIO_s_mem());
    NetOut = BIO_new(BIO_s_mem());
    if (!Context || !NetIn || !NetOut) {
        if (NetIn) BIO_free(NetIn);
        if (NetOut) BIO_free(NetOut);
        NetIn = NetOut = nullptr;
        DeleteContext();
        return kSecEInsufficientMemory;
    }
    SSL_set_bio(Context, NetIn, NetOut);
    SSL_set_connect_state(Context);
    const std::string& host = Socket->HostName;
    if (!host.empty() && !IsAddressLiteral(host)) SSL_set_tlsext_host_name(Context, host.c_str());

    int r = SSL_do_handshake(Context);
    if (r == 1 || SSL_get_error(Context, r) != SSL_ERROR_WANT_READ) {
        int32_t status = HandshakeFailureStatus(ERR_peek_last_error());
        ERR_clear_error();
        TraceStatus("**** Error returned by InitializeSecurityContext (1) ", status);
        DeleteContext();
        return status;
    }
    if (FlushEngine() != 0) {
        Trace("**** Error sending data to server (1)");
        DeleteContext();
        return 8;
    }
    int32_t status = ClientHandshakeLoop(Credential, Context, true, extra);
    if (status) {
        Trace("**** Failed Client Handshake Loop.");
        return status;
    }
    RemoteCert = SSL_get1_peer_certificate(Context);
    return 0;
}

int32_t CSSLCrypt::ClientHandshakeLoop(ssl_ctx_st* /*credential*/, ssl_st* context, bool doInitialRead,
                                       std::vector<char>& extra) {
    extra.clear();
    if (!context || context != Context) return kSecEInternalError;
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[kHandshakeBuffer]);
    if (!buffer) return 12;
    bool doRead = doInitialRead;
    int32_t status = kSecIContinueNeeded;
    while (status == kSecIContinueNeeded || status == kSecEIncompleteMessage) {
        int32_t count = 0;
        if (doRead) {
            // Reads stay below one stream buffer, so that whatever follows
            // the last handshake record always fits in it.
            int32_t received = 0, leftover = 0;
            int32_t rc = Socket->Get(buffer.get(), kIoBufferSize - 1, received, leftover);
            if (received <= 0) {
                Trace(rc == -3 ? "**** Server unexpectedly disconnected" : "**** Error reading data from server");
                status = 8;
                break;
            }
            count = received;
        } else {
            doRead = true;
        }
        if (count > 0 && BIO_write(NetIn, buffer.get(), count) != count) {
            status = kSecEInsufficientMemory;
            break;
        }
        ERR_clear_error();
        int r, err;
        if (renegotiating_) {
            // The server may send data up to the new handshake's end; it is
            // held for the reader.
            size_t got = 0;
            while ((r = SSL_read_ex(context, buffer.get(), size_t(kHandshakeBuffer), &got)) == 1)
                HeldPlain.append(buffer.get(), got);
            err = SSL_get_error(context, r);
            if (HeldPlain.size() > kMaxHeldPlain) {
                Trace("**** Too much data during renegotiation");
                status = kSecEIllegalMessage;
                break;
            }
            if (err == SSL_ERROR_WANT_READ && !SSL_in_init(context)) r = 1;
        } else {
            r = SSL_do_handshake(context);
            err = r == 1 ? SSL_ERROR_NONE : SSL_get_error(context, r);
        }
        unsigned long error = ERR_peek_last_error();
        // Sent even when the handshake failed: an alert still reaches the server.
        if (FlushEngine() < 0) {
            Trace("**** Error sending data to server (2)");
            status = 8;
            break;
        }
        if (r == 1) {
            status = 0;
            int pending = int(BIO_ctrl_pending(NetIn));
            if (pending > 0) {
                extra.resize(size_t(pending));
                int n = BIO_read(NetIn, extra.data(), pending);
                extra.resize(size_t(n > 0 ? n : 0));
            }
            break;
        }
        if (err == SSL_ERROR_WANT_READ) {
            status = kSecEIncompleteMessage;
            continue;
        }
        status = HandshakeFailureStatus(error);
        char text[256];
        ERR_error_string_n(error, text, sizeof text);
        TraceBegin();
        TraceAppend("**** Error returned by InitializeSecurityContext (2) ");
        TraceAppend(text);
        Trace();
    }
    ERR_clear_error();
    if (status != 0) DeleteContext();
    return status;
}

int32_t CSSLCrypt::Renegotiate() {
    Trace("Server requested renegotiate");
    if (!Context || !Socket) return kSecEInternalError;
    // What followed the hello request belongs to the new handshake.
    if (ExtraPending && ExtraPointer && ExtraCount > 0) BIO_write(NetIn, ExtraPointer, ExtraCount);
    ExtraPending = 0;
    ExtraCount = 0;
    ExtraPointer = nullptr;
    IoCount = 0;
    if (FlushEngine() != 0) {
        DeleteContext();
        return 8;
    }
    std::vector<char> extra;
    renegotiating_ = true;
    int32_t status = ClientHandshakeLoop(Credential, Context, BIO_ctrl_pending(NetIn) == 0, extra);
    renegotiating_ = false;
    if (status) {
        Trace("**** Failed Client Handshake Loop.");
        HeldPlain.clear();
        return status;
    }
    if (!extra.empty() && int32_t(extra.size()) < IoBufSize) {
        std::memcpy(IoBuf, extra.data(), extra.size());
        IoCount = int32_t(extra.size());
    }
    // Data already here is given out before the socket is read again.
    if (IoCount > 0 || !HeldPlain.empty()) Socket->CryptExtraPending = 1;
    return 0;
}

int32_t CSSLCrypt::Close() {
    ExtraPending = 0;
    IoCount = 0;
    VerifyServerCert = 0;
    if (RemoteCert) X509_free(RemoteCert);
    RemoteCert = nullptr;
    if (CredentialValid) FreeCredential();
    if (!ContextValid) {
        DeleteContext();
        return 0;
    }
    if (Socket) Socket->CryptActive = 0;
    ContextValid = 0;
    int32_t status = 0;
    if (SSL_shutdown(Context) < 0) {
        status = kSecEInternalError;
        TraceStatus("**** Error returned by ApplyControlToken ", status);
    } else if (Socket && Socket->Connected) {
        Trace("Sending Close Notify");
        if (FlushEngine() != 0) Trace("**** Error sending close notify");
    }
    ERR_clear_error();
    DeleteContext();
    return status;
}

}  // namespace kv
