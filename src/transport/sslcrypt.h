// CSSLCrypt: the client side of TLS over a WS2. The record stage is
// CDataCrypter's; this class owns the handshake, the close, the credential
// and the settings a CSSL object gives it.
//
// While the handshake runs, WS2.CryptActive is 0, so its records pass in the
// clear through the same Send and Get; Init sets it at the end of a good
// handshake and Close clears it.
#pragma once

#include <cstdint>
#include <vector>

#include "foundation/bstring.h"
#include "transport/certmanager.h"
#include "transport/datacrypter.h"

namespace kv {

class CSSLCrypt : public CCertManager, public CDataCrypter {
public:
    CSSLCrypt() = default;
    ~CSSLCrypt() override;

    // ---- fields ----
    WS2* Socket = nullptr;  // set by Init
    int32_t VerifyServerCert = 0;  // cleared by each Close
    int32_t Algorithm = 0;         // an ALG_ID to restrict to, or 0
    int32_t Protocol = 0;          // protocol mask, 0 the library's default
    int32_t ClientStoreType = 0;   // 0 system store, 1 file store, 2 PFX file
    bstring ClientStore;           // UTF-8 name or path
    bstring PrivateKey;            // UTF-8 password of a PFX file
    bstring IssuedTo, IssuedBy, FriendlyName;
    bstring ServerStore{"ROOT"};
    int32_t ServerStoreType = 0;
    x509_st* RemoteCert = nullptr;  // owned
    ssl_ctx_st* Credential = nullptr;  // owned while CredentialValid
    int32_t CredentialValid = 0;
    int32_t SSLError = 0;
    int32_t SSLSpecificError = 0;

    // Starts TLS on the connected socket: credential, handshake, the server
    // check when VerifyServerCert, the stream buffer. 0, or 8 network failure
    // in the handshake, 12 a context already stands or out of memory, a
    // verification status (21..24, the context then stays up), or a provider
    // status (negative).
    int32_t Init(WS2* socket);
    // Sends close notify and ends the context; frees the credential and the
    // server's certificate. 0 or a provider status.
    int32_t Close() override;
    // One handshake from the bytes the server sends until it ends: 0, 8, 12
    // or a provider status. The bytes that followed the last handshake record
    // go to extra. Also runs for a renegotiation.
    int32_t ClientHandshakeLoop(ssl_ctx_st* credential, ssl_st* context, bool doInitialRead,
                                std::vector<char>& extra);
    int32_t Renegotiate() override;

    // Frees the credential (FreeCredentialsHandle).
    void FreeCredential();

protected:
    void SendEngineOutput() override;

private:
    int32_t PerformHandshake(std::vector<char>& extra);
    // What the engine wrote, sent as it stands: 0 or the socket's result.
    int32_t FlushEngine();

    bool renegotiating_ = false;
};

// The status of a failed handshake step, as a provider status.
int32_t HandshakeFailureStatus(unsigned long error);

}  // namespace kv
