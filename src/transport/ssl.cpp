#include "transport/ssl.h"

#include <openssl/x509.h>

#include "foundation/trace.h"
#include "shell/classes.h"
#include "shell/identifiers.h"

namespace kv {

using automation::Arg;
using automation::Bind;
using automation::IID_IKvObject;
using automation::Method;
using automation::ObjectBase;
using automation::Opt;
using automation::Property;

namespace {

VARIANT_BOOL Bool(bool b) { return b ? VARIANT_TRUE : VARIANT_FALSE; }

// Names are UTF-8 inside; empty reads as null.
HRESULT ReturnName(const bstring& s, BSTR* out) {
    *out = s.nSize ? s.to_bstr(65001) : nullptr;
    return S_OK;
}

bstring Utf8(BSTR s) {
    bstring out;
    if (s && SysStringLen(s)) out.assign_bstr_utf8(s);
    return out;
}

}  // namespace

// ---- CCertInfo ----------------------------------------------------------------

CCertInfo::CCertInfo() : ObjectBase(shell::kCertInfoClass) {}
CCertInfo* CCertInfo::New() { return new CCertInfo(); }

void CCertInfo::Clear() {
    Exists = 0;
    IssuedBy.nSize = 0;
    IssuedTo.nSize = 0;
    FriendlyName.nSize = 0;
    Email.nSize = 0;
    ExpirationDate = 0;
}

HRESULT CCertInfo::get_IssuedBy(BSTR* out) { return ReturnName(IssuedBy, out); }
HRESULT CCertInfo::get_IssuedTo(BSTR* out) { return ReturnName(IssuedTo, out); }
HRESULT CCertInfo::get_FriendlyName(BSTR* out) { return ReturnName(FriendlyName, out); }
HRESULT CCertInfo::get_Email(BSTR* out) { return ReturnName(Email, out); }
HRESULT CCertInfo::get_ExpirationDate(double* out) { return *out = ExpirationDate, S_OK; }
HRESULT CCertInfo::get_Exists(VARIANT_BOOL* out) { return *out = Bool(Exists), S_OK; }
HRESULT CCertInfo::get_Status(int32_t* out) { return *out = Status, S_OK; }
HRESULT CCertInfo::get_Win32Status(int32_t* out) { return *out = Win32Status, S_OK; }

// ---- CSSL -------------------------------------------------------------------------

CSSL::CSSL() : ObjectBase(shell::kSSLClass), ClientCert(CCertInfo::New()), ServerCert(CCertInfo::New()) {
    Trace("SSL Object created");
}

CSSL::~CSSL() {
    ClientCert->Release();
    ServerCert->Release();
}

CSSL* CSSL::New() { return new CSSL(); }

CSSL* CSSL::NewForSession() {
    CSSL* ssl = new CSSL();
    ssl->Enabled = 0;
    return ssl;
}

CSSL* CSSL::FromDispatch(IDispatch* object) {
    if (!object) return nullptr;
    ObjectBase* base = nullptr;
    if (FAILED(object->QueryInterface(IID_IKvObject, reinterpret_cast<void**>(&base))) || !base) return nullptr;
    CSSL* ssl = &base->Class() == &shell::kSSLClass ? static_cast<CSSL*>(base) : nullptr;
    base->Release();  // the caller's reference keeps it alive
    return ssl;
}

void CSSL::SetStatus(int32_t status) {
    if (status < 0) {
        Crypt.SSLError = 31;
        Crypt.SSLSpecificError = status;
    } else {
        Crypt.SSLError = status;
        Crypt.SSLSpecificError = 0;
    }
}

int32_t CSSL::Init(WS2* socket) {
    int32_t status = Crypt.Init(socket);
    x509_st* cert = Crypt.RemoteCert;
    ServerCert->IssuedTo = CCertManager::SubjectName(cert);
    ServerCert->IssuedBy = CCertManager::IssuerName(cert);
    ServerCert->FriendlyName = CCertManager::FriendlyDisplayName(cert);
    ServerCert->ExpirationDate = CCertManager::ExpirationDate(cert);
    return status;
}

int32_t CSSL::ProtocolMask(int32_t written) {
    static const int32_t kMasks[] = {kProtocolPct1,  kProtocolSsl2,  kProtocolSsl3, kProtocolTls1,
                                     kProtocolTls11, kProtocolTls12, kProtocolTls13};
    return written >= 1 && written <= 7 ? kMasks[written - 1] : 0;
}

HRESULT CSSL::get_GetObject(int64_t* out) {
    *out = int64_t(reinterpret_cast<intptr_t>(this));
    return S_OK;
}

HRESULT CSSL::SelectClientCert(BSTR path, int32_t storeType, BSTR issuedTo, BSTR issuedBy, BSTR friendlyName,
                               BSTR privateKey, VARIANT_BOOL* out) {
    Trace("SelectClientCert started");
    if (Crypt.CredentialValid) Crypt.FreeCredential();
    bstring store = Utf8(path), to = Utf8(issuedTo), by = Utf8(issuedBy), friendly = Utf8(friendlyName),
            key = Utf8(privateKey);
    double expiry = 0;
    ssl_ctx_st* credential = nullptr;
    int32_t status = CCertManager::CreateCredential(store, storeType, Crypt.Algorithm, Crypt.Protocol, to, by,
                                                    friendly, key, &credential, &expiry);
    SetStatus(status);
    if (status) {
        *out = VARIANT_FALSE;
        store.nSize = to.nSize = by.nSize = friendly.nSize = key.nSize = 0;
        storeType = 0;
        expiry = 0;
    } else {
        *out = VARIANT_TRUE;
        Crypt.Credential = credential;
        Crypt.CredentialValid = 1;
    }
    Crypt.ClientStore = store;
    Crypt.ClientStoreType = storeType;
    Crypt.IssuedBy = by;
    Crypt.FriendlyName = friendly;
    Crypt.PrivateKey = key;
    ClientCert->IssuedTo = to;
    ClientCert->IssuedBy = by;
    ClientCert->FriendlyName = friendly;
    ClientCert->ExpirationDate = expiry;
    ClientCert->Exists = 1;
    // The holder keeps the subject's name; the field is emptied, by length.
    Crypt.IssuedTo = to;
    Crypt.IssuedTo.nSize = 0;
    return S_OK;
}

HRESULT CSSL::SelectServerCertStore(BSTR path, int32_t storeType, int32_t options, VARIANT_BOOL* out) {
    *out = VARIANT_FALSE;
    Crypt.ServerStore = Utf8(path);
    if (!CCertManager::CanOpenServerStore(Crypt.ServerStore, storeType)) return S_OK;
    Crypt.ServerStoreType = storeType;
    if (options) Crypt.Options = options;
    *out = VARIANT_TRUE;
    return S_OK;
}

HRESULT CSSL::get_Algorithm(int32_t* out) { return *out = Crypt.Algorithm, S_OK; }
// The property stays as a hook: a write always stores 0.
HRESULT CSSL::put_Algorithm(int32_t) { return Crypt.Algorithm = 0, S_OK; }
HRESULT CSSL::get_Protocol(int32_t* out) { return *out = Crypt.Protocol, S_OK; }
HRESULT CSSL::put_Protocol(int32_t value) { return Crypt.Protocol = ProtocolMask(value), S_OK; }
HRESULT CSSL::get_UseStartTLS(VARIANT_BOOL* out) { return *out = Bool(UseStartTLS), S_OK; }
HRESULT CSSL::put_UseStartTLS(VARIANT_BOOL value) { return UseStartTLS = value ? 1 : 0, S_OK; }
HRESULT CSSL::get_ServerCert(IDispatch** out) {
    ServerCert->AddRef();
    *out = ServerCert;
    return S_OK;
}
HRESULT CSSL::get_ClientCert(IDispatch** out) {
    ClientCert->AddRef();
    *out = ClientCert;
    return S_OK;
}
HRESULT CSSL::get_VerifyServerCert(VARIANT_BOOL* out) { return *out = Bool(Crypt.VerifyServerCert), S_OK; }
HRESULT CSSL::put_VerifyServerCert(VARIANT_BOOL value) { return Crypt.VerifyServerCert = value ? 1 : 0, S_OK; }
HRESULT CSSL::get_SSLError(int32_t* out) { return *out = Crypt.SSLError, S_OK; }
HRESULT CSSL::get_SSLSpecificError(int32_t* out) { return *out = Crypt.SSLSpecificError, S_OK; }
HRESULT CSSL::get_Enabled(VARIANT_BOOL* out) { return *out = Bool(Enabled), S_OK; }
HRESULT CSSL::put_Enabled(VARIANT_BOOL value) { return Enabled = value ? 1 : 0, S_OK; }
HRESULT CSSL::get_AutosetPortAndSSL(VARIANT_BOOL* out) { return *out = Bool(AutosetPortAndSSL), S_OK; }
HRESULT CSSL::put_AutosetPortAndSSL(VARIANT_BOOL value) { return AutosetPortAndSSL = value ? 1 : 0, S_OK; }

// ---- member tables ------------------------------------------------------------------

namespace shell {

const InterfaceInfo kISSL("ISSL", IID_ISSL, {
    Property(3, "GetObject", VT_I8, Bind<&CSSL::get_GetObject>()),
    Method(4, "SelectClientCert", VT_BOOL, Bind<&CSSL::SelectClientCert>(),
           {Arg("Path", VT_BSTR), Arg("StoreType", VT_I4), Opt("IssuedTo", VT_BSTR, ""),
            Opt("IssuedBy", VT_BSTR, ""), Opt("FriendlyName", VT_BSTR, ""), Opt("PrivateKey", VT_BSTR, "")}),
    Method(5, "SelectServerCertStore", VT_BOOL, Bind<&CSSL::SelectServerCertStore>(),
           {Arg("Path", VT_BSTR), Arg("StoreType", VT_I4), Opt("Options", VT_I4, 0)}),
    Property(6, "Algorithm", VT_I4, Bind<&CSSL::get_Algorithm>(), Bind<&CSSL::put_Algorithm>()),
    Property(7, "Protocol", VT_I4, Bind<&CSSL::get_Protocol>(), Bind<&CSSL::put_Protocol>()),
    Property(8, "UseStartTLS", VT_BOOL, Bind<&CSSL::get_UseStartTLS>(), Bind<&CSSL::put_UseStartTLS>()),
    Property(9, "ServerCert", VT_DISPATCH, Bind<&CSSL::get_ServerCert>()),
    Property(10, "ClientCert", VT_DISPATCH, Bind<&CSSL::get_ClientCert>()),
    Property(11, "VerifyServerCert", VT_BOOL, Bind<&CSSL::get_VerifyServerCert>(),
             Bind<&CSSL::put_VerifyServerCert>()),
    Property(12, "SSLError", VT_I4, Bind<&CSSL::get_SSLError>()),
    Property(13, "SSLSpecificError", VT_I4, Bind<&CSSL::get_SSLSpecificError>()),
    Property(14, "Enabled", VT_BOOL, Bind<&CSSL::get_Enabled>(), Bind<&CSSL::put_Enabled>()),
    Property(15, "AutosetPortAndSSL", VT_BOOL, Bind<&CSSL::get_AutosetPortAndSSL>(),
             Bind<&CSSL::put_AutosetPortAndSSL>()),
});

const InterfaceInfo kICertInfo("ICertInfo", IID_ICertInfo, {
    Property(1, "IssuedBy", VT_BSTR, Bind<&CCertInfo::get_IssuedBy>()),
    Property(2, "IssuedTo", VT_BSTR, Bind<&CCertInfo::get_IssuedTo>()),
    Property(3, "FriendlyName", VT_BSTR, Bind<&CCertInfo::get_FriendlyName>()),
    Property(4, "ExpirationDate", VT_DATE, Bind<&CCertInfo::get_ExpirationDate>()),
    Property(5, "Exists", VT_BOOL, Bind<&CCertInfo::get_Exists>()),
    Property(6, "Email", VT_BSTR, Bind<&CCertInfo::get_Email>()),
    Property(7, "Status", VT_I4, Bind<&CCertInfo::get_Status>()),
    Property(8, "Win32Status", VT_I4, Bind<&CCertInfo::get_Win32Status>()),
});

}  // namespace shell

}  // namespace kv
