// Korvane.SSL (CSSL): the object a caller configures for TLS, owning the
// channel of its session; Korvane.CertInfo (CCertInfo): the facts of one
// certificate, shared with S/MIME.
//
// Every session makes its own CSSL with Enabled 0 (NewForSession); the object
// a script creates starts with Enabled 1. A session binds its WS2.Crypt to
// &Crypt, calls Init(&Socket) when TLS is to start, and stores the status
// with SetStatus.
#pragma once

#include <cstdint>

#include "automation/object.h"
#include "foundation/bstring.h"
#include "transport/sslcrypt.h"

namespace kv {

class CCertInfo : public automation::ObjectBase {
public:
    static CCertInfo* New();

    // ---- fields, in order ----
    double ExpirationDate = 0;  // NotAfter, local time, automation date
    bstring IssuedBy;           // UTF-8
    bstring IssuedTo;
    bstring FriendlyName;
    bstring Email;
    int32_t Exists = 0;
    int32_t Status = 0;
    int32_t Win32Status = 0;

    // Exists 0, the strings empty, the date 0.
    void Clear();

private:
    CCertInfo();
};

class CSSL : public automation::ObjectBase {
public:
    static CSSL* New();            // the object a script creates: Enabled 1
    static CSSL* NewForSession();  // a session's own: Enabled 0
    // The CSSL behind an interface pointer of this library (no reference
    // added), or null.
    static CSSL* FromDispatch(IDispatch* object);

    CSSLCrypt Crypt;
    int32_t Enabled = 1;
    int32_t AutosetPortAndSSL = 1;
    int32_t UseStartTLS = 0;
    CCertInfo* ClientCert;  // one reference each, for the life of the object
    CCertInfo* ServerCert;

    // Starts TLS on the socket (CSSLCrypt::Init) and fills ServerCert from
    // the server's certificate. The status; the caller stores it.
    int32_t Init(WS2* socket);
    // A status below 0 gives SSLError 31 and SSLSpecificError the status;
    // any other gives SSLError the status and SSLSpecificError 0.
    void SetStatus(int32_t status);

    // The channel's fields that are properties of the object.
    int32_t& VerifyServerCert() { return Crypt.VerifyServerCert; }
    int32_t& SSLError() { return Crypt.SSLError; }
    int32_t& SSLSpecificError() { return Crypt.SSLSpecificError; }

    // ---- ISSL ----
    HRESULT get_GetObject(int64_t* out);
    HRESULT SelectClientCert(BSTR path, int32_t storeType, BSTR issuedTo, BSTR issuedBy, BSTR friendlyName,
                             BSTR privateKey, VARIANT_BOOL* out);
    HRESULT SelectServerCertStore(BSTR path, int32_t storeType, int32_t options, VARIANT_BOOL* out);
    HRESULT get_Algorithm(int32_t* out);
    HRESULT put_Algorithm(int32_t value);
    HRESULT get_Protocol(int32_t* out);
    HRESULT put_Protocol(int32_t value);

    // The mask a written Protocol number selects: 1..7 the masks of PCT 1.0,
    // SSL 2.0, SSL 3.0, TLS 1.0, 1.1, 1.2, 1.3; anything else 0.
    static int32_t ProtocolMask(int32_t written);

protected:
    ~CSSL() override;

private:
    CSSL();
};

}  // namespace kv
