#include "transport/negotiate.h"

#include <gssapi/gssapi.h>
#include <gssapi/gssapi_ext.h>
#include <gssapi/gssapi_krb5.h>
#include <krb5/krb5.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <chrono>
#include <cstring>
#include <string>

#include "foundation/trace.h"
#include "transport/ntlm.h"

namespace kv {

struct NegotiateCredential {
    gss_cred_id_t Gss = GSS_C_NO_CREDENTIAL;
};

struct NegotiateContext {
    gss_ctx_id_t Gss = GSS_C_NO_CONTEXT;
    gss_name_t Target = GSS_C_NO_NAME;
    bool Complete = false;
    bool NtlmSent = false;  // the authenticate message is out
};

namespace {

gss_OID KerberosMech() { return const_cast<gss_OID>(gss_mech_krb5); }

// The provider's status for a failed GSSAPI call; the library's own text
// goes to the trace.
int32_t FromGss(const char* call, OM_uint32 major, OM_uint32 minor) {
    TraceBegin();
    TraceAppend("CNegotiate ");
    TraceAppend(call);
    TraceAppend(" failed: ");
    OM_uint32 ctx = 0, m2 = 0;
    gss_buffer_desc text = GSS_C_EMPTY_BUFFER;
    gss_display_status(&m2, major, GSS_C_GSS_CODE, GSS_C_NO_OID, &ctx, &text);
    if (text.value) TraceAppend(std::string(static_cast<char*>(text.value), text.length).c_str());
    gss_release_buffer(&m2, &text);
    if (minor) {
        ctx = 0;
        gss_display_status(&m2, minor, GSS_C_MECH_CODE, KerberosMech(), &ctx, &text);
        TraceAppend("; ");
        if (text.value) TraceAppend(std::string(static_cast<char*>(text.value), text.length).c_str());
        gss_release_buffer(&m2, &text);
    }
    Trace();

    switch (long(int32_t(minor))) {
        case KRB5KDC_ERR_S_PRINCIPAL_UNKNOWN:
            return kSecETargetUnknown;
        case KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN:
        case KRB5KDC_ERR_PREAUTH_FAILED:
        case KRB5KRB_AP_ERR_BAD_INTEGRITY:
        case KRB5KDC_ERR_CLIENT_REVOKED:
        case KRB5KDC_ERR_KEY_EXP:
            return kSecELogonDenied;
        case KRB5_KDC_UNREACH:
        case KRB5_REALM_UNKNOWN:
        case KRB5_REALM_CANT_RESOLVE:
            return kSecENoAuthenticatingAuthority;
        default:
            break;
    }
    switch (GSS_ROUTINE_ERROR(major)) {
        case GSS_S_BAD_NAME:
        case GSS_S_BAD_NAMETYPE:
            return kSecETargetUnknown;
        case GSS_S_DEFECTIVE_TOKEN:
        case GSS_S_DEFECTIVE_CREDENTIAL:
            return kSecEInvalidToken;
        case GSS_S_BAD_SIG:
            return kSecEMessageAltered;
        case GSS_S_NO_CRED:
        case GSS_S_CREDENTIALS_EXPIRED:
            return kSecENoCredentials;
        case GSS_S_NO_CONTEXT:
        case GSS_S_CONTEXT_EXPIRED:
            return kSecEInvalidHandle;
        case GSS_S_BAD_MECH:
            return kSecEUnsupportedFunction;
        default:
            return kSecEInternalError;
    }
}

// Token bytes in the trace, as text up to the first NUL.
void TraceToken(const char* begin, const char* end, const void* data, size_t size) {
    Trace(begin);
    const char* p = static_cast<const char*>(data);
    const void* nul = size ? std::memchr(p, 0, size) : nullptr;
    size_t n = nul ? size_t(static_cast<const char*>(nul) - p) : size;
    if (n > 0x7FFFFFFF) n = 0x7FFFFFFF;
    Trace(p ? p : "", int32_t(n));
    Trace(end);
}

uint64_t FileTimeNow() {
    using namespace std::chrono;
    // FILETIME counts 100 ns from 1601-01-01, 11644473600 s before 1970.
    auto since1970 = duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count();
    return uint64_t(since1970 / 100) + 116444736000000000ull;
}

gss_buffer_desc BufferOf(const bstring& s) {
    gss_buffer_desc b;
    b.length = s.nSize > 0 ? size_t(s.nSize) : 0;
    b.value = b.length ? s.pData : nullptr;
    return b;
}

}  // namespace

CNegotiate::CNegotiate(const bstring& server, const char* protocol, const bstring& target, const bstring& domain,
                       const bstring& user, const bstring& password, bool kerberos)
    : UseKerberos(kerberos), ServerName(server), Protocol(protocol), TargetName(target), Domain(domain),
      UserName(user), Password(password) {}

CNegotiate::~CNegotiate() {
    OM_uint32 minor = 0;
    if (Context) {
        if (Context->Gss != GSS_C_NO_CONTEXT) gss_delete_sec_context(&minor, &Context->Gss, GSS_C_NO_BUFFER);
        if (Context->Target != GSS_C_NO_NAME) gss_release_name(&minor, &Context->Target);
        delete Context;
    }
    if (Credential) {
        if (Credential->Gss != GSS_C_NO_CREDENTIAL) gss_release_cred(&minor, &Credential->Gss);
        delete Credential;
    }
    // The password should not outlive the login in freed memory.
    if (Password.pData && !Password.is_view() && Password.nSize > 0)
        OPENSSL_cleanse(Password.pData, size_t(Password.nSize));
}

void CNegotiate::GetTarget(bstring& target) const {
    if (TargetName.nSize > 0) {
        target.assign(TargetName);
        return;
    }
    target.assign(Protocol);
    target += "/";
    target.append(ServerName);
}

bool CNegotiate::IsComplete() const { return Context && Context->Complete; }

int32_t CNegotiate::CreateRequest(bstring& token) {
    ContextRequirements = kNegotiateRequirements;
    if (!Credential) Credential = new NegotiateCredential;
    if (!Context) Context = new NegotiateContext;
    if (CredentialValid || ContextValid) return kSecEOutOfSequence;

    if (!UseKerberos) {
        // NTLM needs the password itself: there is no logged-on user's
        // secret to fall back on here.
        if (UserName.nSize <= 0) {
            Trace("CNegotiate: NTLM needs a UserName");
            return kSecENoCredentials;
        }
        CredentialValid = true;
        BuildNtlmNegotiate(token);
        ContextValid = true;
        return kSecIContinueNeeded;
    }

    OM_uint32 major, minor = 0;
    gss_OID_set_desc mechs = {1, KerberosMech()};
    if (UserName.nSize > 0) {
        // "user" or "user@REALM"; a domain names the realm, which Kerberos
        // writes in upper case.
        bstring principal(UserName);
        if (principal.find('@') < 0 && Domain.nSize > 0) {
            bstring realm(Domain);
            realm.to_upper();
            principal += "@";
            principal.append(realm);
        }
        gss_buffer_desc text = BufferOf(principal);
        gss_name_t name = GSS_C_NO_NAME;
        major = gss_import_name(&minor, &text, GSS_KRB5_NT_PRINCIPAL_NAME, &name);
        if (GSS_ERROR(major)) return FromGss("gss_import_name", major, minor);
        gss_buffer_desc secret = BufferOf(Password);
        major = gss_acquire_cred_with_password(&minor, name, &secret, GSS_C_INDEFINITE, &mechs, GSS_C_INITIATE,
                                               &Credential->Gss, nullptr, nullptr);
        OM_uint32 m2 = 0;
        gss_release_name(&m2, &name);
        if (GSS_ERROR(major)) return FromGss("gss_acquire_cred_with_password", major, minor);
    } else {
        major = gss_acquire_cred(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, &mechs, GSS_C_INITIATE, &Credential->Gss,
                                 nullptr, nullptr);
        if (GSS_ERROR(major)) return FromGss("gss_acquire_cred", major, minor);
    }
    CredentialValid = true;

    // "service/host" is a host-based service name, so that the host's realm
    // comes from the domain mapping; a name with a realm is taken whole.
    bstring target;
    GetTarget(target);
    gss_OID type = GSS_KRB5_NT_PRINCIPAL_NAME;
    if (target.find('@') < 0) {
        int32_t slash = target.find('/');
        if (slash >= 0) target.pData[slash] = '@';
        type = GSS_C_NT_HOSTBASED_SERVICE;
    }
    gss_buffer_desc text = BufferOf(target);
    major = gss_import_name(&minor, &text, type, &Context->Target);
    if (GSS_ERROR(major)) return FromGss("gss_import_name", major, minor);

    return CreateResponse(token, bstring());
}

int32_t CNegotiate::CreateResponse(bstring& token, const bstring& challenge) {
    if (!Context || !CredentialValid) return kSecEInvalidHandle;
    if (Context->Complete) return kSecEOutOfSequence;

    if (!UseKerberos) {
        if (!ContextValid || Context->NtlmSent) return kSecEOutOfSequence;
        NtlmChallenge parsed;
        if (!ParseNtlmChallenge(reinterpret_cast<const uint8_t*>(challenge.pData), challenge.nSize, parsed)) {
            Trace("CNegotiate: not an NTLM challenge");
            return kSecEInvalidToken;
        }
        NtlmCredentials cred;
        cred.User.borrow(UserName);
        cred.Domain.borrow(Domain);
        cred.Password.borrow(Password);
        if (UseFixedNonce) {
            std::memcpy(cred.ClientChallenge, FixedClientChallenge, 8);
            cred.Timestamp = FixedTimestamp;
        } else {
            if (RAND_bytes(cred.ClientChallenge, 8) != 1) return kSecEInternalError;
            cred.Timestamp = FileTimeNow();
        }
        bstring message;
        if (!BuildNtlmAuthenticate(parsed, cred, message) || message.nSize > kNegotiateMaxToken)
            return kSecEBufferTooSmall;
        Context->NtlmSent = true;
        Context->Complete = true;
        message.give_to(token);
        return kSecEOk;
    }

    OM_uint32 minor = 0;
    gss_buffer_desc in = BufferOf(challenge);
    gss_buffer_desc out = GSS_C_EMPTY_BUFFER;
    bool first = !ContextValid;
    OM_uint32 flags = GSS_C_MUTUAL_FLAG | GSS_C_CONF_FLAG | GSS_C_INTEG_FLAG;
    OM_uint32 major = gss_init_sec_context(&minor, Credential->Gss, &Context->Gss, Context->Target, KerberosMech(),
                                           flags, 0, GSS_C_NO_CHANNEL_BINDINGS, first ? GSS_C_NO_BUFFER : &in,
                                           nullptr, &out, nullptr, nullptr);
    OM_uint32 m2 = 0;
    if (Context->Gss != GSS_C_NO_CONTEXT) ContextValid = true;
    if (GSS_ERROR(major)) {
        gss_release_buffer(&m2, &out);
        return FromGss("gss_init_sec_context", major, minor);
    }
    if (out.length > size_t(kNegotiateMaxToken)) {
        gss_release_buffer(&m2, &out);
        return kSecEBufferTooSmall;
    }
    int32_t status = (major & GSS_S_CONTINUE_NEEDED) ? kSecIContinueNeeded : kSecEOk;
    if (status == kSecEOk) Context->Complete = true;
    // The first step always hands out its token; later ones only when the
    // context is done.
    if (first || status == kSecEOk) token.assign(static_cast<const char*>(out.value), int32_t(out.length));
    gss_release_buffer(&m2, &out);
    return status;
}

int32_t CNegotiate::CreateFinalResponse(bstring& token, const bstring& challenge) {
    if (!Context || !ContextValid) return kSecEInvalidHandle;
    if (!UseKerberos) return kSecEUnsupportedFunction;

    TraceToken("CreateFinalResponse data before DecryptMessage begin",
               "CreateFinalResponse data before DecryptMessage end", challenge.pData, size_t(challenge.nSize));
    OM_uint32 minor = 0, m2 = 0;
    gss_buffer_desc in = BufferOf(challenge);
    gss_buffer_desc offer = GSS_C_EMPTY_BUFFER;
    OM_uint32 major = gss_unwrap(&minor, Context->Gss, &in, &offer, nullptr, nullptr);
    if (GSS_ERROR(major)) {
        gss_release_buffer(&m2, &offer);
        return FromGss("gss_unwrap", major, minor);
    }
    TraceToken("CreateFinalResponse data after DecryptMessage begin",
               "CreateFinalResponse data after DecryptMessage end", offer.value, offer.length);

    // Token, data and padding, as three buffers: the header carries the
    // checksum, the data goes out in the clear.
    bstring data(static_cast<const char*>(offer.value), int32_t(offer.length));
    gss_release_buffer(&m2, &offer);
    TraceToken("CreateFinalResponse data before EncryptMessage begin",
               "CreateFinalResponse data before EncryptMessage end", data.pData, size_t(data.nSize));
    gss_iov_buffer_desc iov[3];
    iov[0].type = GSS_IOV_BUFFER_TYPE_HEADER | GSS_IOV_BUFFER_FLAG_ALLOCATE;
    iov[0].buffer = GSS_C_EMPTY_BUFFER;
    iov[1].type = GSS_IOV_BUFFER_TYPE_DATA;
    iov[1].buffer = BufferOf(data);
    iov[2].type = GSS_IOV_BUFFER_TYPE_PADDING | GSS_IOV_BUFFER_FLAG_ALLOCATE;
    iov[2].buffer = GSS_C_EMPTY_BUFFER;
    major = gss_wrap_iov(&minor, Context->Gss, 0, GSS_C_QOP_DEFAULT, nullptr, iov, 3);
    if (GSS_ERROR(major)) {
        gss_release_iov_buffer(&m2, iov, 3);
        return FromGss("gss_wrap_iov", major, minor);
    }
    token.nSize = 0;
    for (const auto& b : iov) token.append(static_cast<const char*>(b.buffer.value), int32_t(b.buffer.length));
    TraceToken("CreateFinalResponse data after EncryptMessage begin",
               "CreateFinalResponse data after EncryptMessage end", token.pData, size_t(token.nSize));
    TraceBegin();
    TraceAppend("Lengths: ");
    TraceAppendInt(int64_t(iov[0].buffer.length));
    TraceAppend(" ");
    TraceAppendInt(int64_t(iov[1].buffer.length));
    TraceAppend(" ");
    TraceAppendInt(int64_t(iov[2].buffer.length));
    Trace();
    gss_release_iov_buffer(&m2, iov, 3);
    return kSecEOk;
}

}  // namespace kv
