#include "transport/ssl.h"

#include <openssl/x509.h>

#include "automation/fields.h"
#include "foundation/trace.h"
#include "shell/classes.h"
#include "shell/identifiers.h"

namespace kv {

using automation::Arg;
using automation::AsBool;
using automation::AsDate;
using automation::AsUtf8;
using automation::Bind;
using automation::Field;
using automation::FieldGet;
using automation::IID_IKvObject;
using automation::Method;
using automation::NullWhileEmpty;
using automation::ObjectBase;
using automation::Opt;
using automation::Property;

namespace {

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
    Field<CSSL, AsBool<&CSSL::UseStartTLS>>(8, "UseStartTLS"),
    FieldGet<CSSL, &CSSL::ServerCert>(9, "ServerCert"),
    FieldGet<CSSL, &CSSL::ClientCert>(10, "ClientCert"),
    Field<CSSL, AsBool<&CSSL::VerifyServerCert>>(11, "VerifyServerCert"),
    FieldGet<CSSL, &CSSL::SSLError>(12, "SSLError"),
    FieldGet<CSSL, &CSSL::SSLSpecificError>(13, "SSLSpecificError"),
    Field<CSSL, AsBool<&CSSL::Enabled>>(14, "Enabled"),
    Field<CSSL, AsBool<&CSSL::AutosetPortAndSSL>>(15, "AutosetPortAndSSL"),
});

const InterfaceInfo kICertInfo("ICertInfo", IID_ICertInfo, {
    FieldGet<CCertInfo, NullWhileEmpty<AsUtf8<&CCertInfo::IssuedBy>>>(1, "IssuedBy"),
    FieldGet<CCertInfo, NullWhileEmpty<AsUtf8<&CCertInfo::IssuedTo>>>(2, "IssuedTo"),
    FieldGet<CCertInfo, NullWhileEmpty<AsUtf8<&CCertInfo::FriendlyName>>>(3, "FriendlyName"),
    FieldGet<CCertInfo, AsDate<&CCertInfo::ExpirationDate>>(4, "ExpirationDate"),
    FieldGet<CCertInfo, AsBool<&CCertInfo::Exists>>(5, "Exists"),
    FieldGet<CCertInfo, NullWhileEmpty<AsUtf8<&CCertInfo::Email>>>(6, "Email"),
    FieldGet<CCertInfo, &CCertInfo::Status>(7, "Status"),
    FieldGet<CCertInfo, &CCertInfo::Win32Status>(8, "Win32Status"),
});

}  // namespace shell

}  // namespace kv
