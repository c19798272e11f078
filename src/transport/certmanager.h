// CCertManager: client certificates from stores and files, the TLS
// credential, and the check of the server's certificate, on OpenSSL.
//
// Stores. Type 0 names a system store: "ROOT" and "CA" are the system trust
// store (OpenSSL's default certificate file and directory), any other name a
// directory of PEM and PKCS #12 files under the user's Korvane folder
// (~/.korvane/certstores/<name>). Type 1 is a file store, a PEM bundle of
// certificates and their keys. Type 2 is a PKCS #12 (PFX) file.
//
// Statuses: 0 success; the small numbers of SSLError (21 store, 22 no match
// or untrusted, 23 cannot add, 24 no server certificate, 25 PFX import);
// a negative number is a provider status, with the numbers scripts know from
// the platform this code came from (kSecE... below).
//
// Names (IssuedTo, IssuedBy, FriendlyName) are UTF-8 bytes throughout.
#pragma once

#include <cstdint>
#include <string>

#include "foundation/bstring.h"
#include "transport/sec_status.h"

struct x509_st;
struct ssl_ctx_st;
struct stack_st_X509;

namespace kv {

// Protocol mask bits (client and server bit of each version).
inline constexpr int32_t kProtocolPct1 = 0x3;
inline constexpr int32_t kProtocolSsl2 = 0xC;
inline constexpr int32_t kProtocolSsl3 = 0x30;
inline constexpr int32_t kProtocolTls1 = 0xC0;
inline constexpr int32_t kProtocolTls11 = 0x300;
inline constexpr int32_t kProtocolTls12 = 0xC00;
inline constexpr int32_t kProtocolTls13 = 0x3000;

// Option bit: the server's certificate is added to the server store.
inline constexpr int32_t kOptionAddServerCert = 0x80;

class CCertManager {
public:
    virtual ~CCertManager() = default;

    int32_t Options = 2;

    // Opens store by type, picks the certificate (criteria tested in the
    // order issuedBy, friendlyName, issuedTo, each equal with case; none
    // given: the first certificate), fills the three names with the
    // certificate's own (empty without one), *expiry with its NotAfter as a
    // local automation date (0 without one), and makes the credential: a new
    // client context in *credential (owned by the caller) with that
    // certificate and key, the protocol mask and the algorithm. An empty
    // store name means no certificate. 0 or a status; *credential is null on
    // failure.
    static int32_t CreateCredential(const bstring& store, int32_t storeType, int32_t algorithm,
                                    int32_t protocol, bstring& issuedTo, bstring& issuedBy,
                                    bstring& friendlyName, const bstring& password,
                                    ssl_ctx_st** credential, double* expiry);

    // The chain of cert (with the intermediates the server sent in chain,
    // may be null) against the system trust store and the certificates of
    // the given store; with Options bit 0x80 the certificate is then added
    // to that store (and a file store saved). 0 trusted or added; 21 the
    // store cannot be opened, 22 untrusted, 23 not added, 24 no certificate.
    // The host name is not compared.
    int32_t VerifyServerCertificate(x509_st* cert, stack_st_X509* chain, int32_t storeType,
                                    const bstring& store);

    // True when the store can be opened as SelectServerCertStore needs it:
    // type 0 any valid store name, types 1 and 2 an existing file that opens
    // for reading and writing.
    static bool CanOpenServerStore(const bstring& store, int32_t storeType);

    // Facts of a certificate: the simple display names of subject and
    // issuer, the friendly name (its alias, else the simple name), NotAfter
    // as a local automation date.
    static bstring SubjectName(const x509_st* cert);
    static bstring IssuerName(const x509_st* cert);
    static bstring FriendlyDisplayName(x509_st* cert);
    static double ExpirationDate(const x509_st* cert);

    // Where system stores other than ROOT and CA live; tests point it at a
    // directory of their own (null restores the user's folder).
    static void SetStoreRootForTesting(const char* directory);
    static std::string StoreDirectory(const bstring& name);
};

}  // namespace kv
