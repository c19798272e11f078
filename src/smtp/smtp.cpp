#include "smtp/smtp.h"

#include <cstring>

#include "automation/fields.h"
#include "automation/variant.h"
#include "message/message.h"
#include "platform/random.h"
#include "shell/classes.h"
#include "shell/identifiers.h"
#include "transport/login.h"
#include "transport/session_members.h"
#include "transport/ssl.h"

namespace kv {

using automation::Arg;
using automation::ArgKind;
using automation::Bind;
using automation::Binding;
using automation::Event;
using automation::Field;
using automation::FieldGet;
using automation::MakeBool;
using automation::Method;
using automation::ObjectBase;
using automation::Opt;
using automation::Property;
using automation::PropertyRef;
using automation::Signature;

namespace {

// Servers in this domain want STARTTLS on port 25.
constexpr const char* kGmailSuffix = "gmail.com";

VARIANT_BOOL Bool(bool b) { return b ? VARIANT_TRUE : VARIANT_FALSE; }

bool HasGmailSuffix(const bstring& name) {
    int32_t n = int32_t(std::strlen(kGmailSuffix));
    return name.nSize >= n && name.equals_at(name.nSize - n, n, kGmailSuffix) &&
           (name.nSize == n || name.pData[name.nSize - n - 1] == '.');
}

constexpr const char* kWrongPassword = "[Possible error reason: incorrect UserName and/or Password]";

constexpr MechanismTexts kNegotiateTexts(const char* using_line, const char* not_supported) {
    return {using_line, not_supported,
            {"[Sending encoded NTLM/MSN/GSSAPI Request]", "[Sending encoded NTLM/MSN/GSSAPI Response]"},
            {nullptr, kWrongPassword}};
}
constexpr const char* kGssapiNotSupported =
    "[Possible error reason: GSSAPI authentication type (auth gssapi command) is not supported by this server]";

const LoginDialect kSmtpLogin = {
    "SMTP", kSmtpAuthRefused, kSmtpTokenFailed, kSmtpCredentials,
    /*log_command=*/false, /*final_step_logged=*/false, /*no_challenge_line=*/nullptr,
    /*final_reply_has_text=*/false,
    {
        {"[Using PLAIN ESMTP authentication]",
         "[Possible error reason: PLAIN authentication type (auth plain command) is not supported by this server]",
         {"[Sending PLAIN Request]", nullptr},
         {kWrongPassword, nullptr}},
        {"[Using LOGIN ESMTP authentication]",
         "[Possible error reason: LOGIN authentication type (auth login command) is not supported by this server]",
         {"[Sending encoded UserName]", "[Sending encoded Password]"},
         {"[Possible error reason: UserName is incorrect]", "[Possible error reason: Password is incorrect]"}},
        {"[Using CRAM-MD5 ESMTP authentication]",
         "[Possible error reason: CRAM-MD5 authentication type (auth cram-md5 command) is not supported by this "
         "server]",
         {"[Sending encoded MD5 Request]", nullptr},
         {kWrongPassword, nullptr}},
        kNegotiateTexts("[Using NTLM authentication]",
                        "[Possible error reason: NTLM authentication type (auth ntlm command) is not supported by "
                        "this server]"),
        kNegotiateTexts("[Using MSN authentication]",
                        "[Possible error reason: MSN authentication type (auth msn command) is not supported by "
                        "this server]"),
        kNegotiateTexts("[Using GSSAPI authentication]", kGssapiNotSupported),
        kNegotiateTexts("[Using GSSAPI authentication]", kGssapiNotSupported),
        {"[Using XOAUTH2 ESMTP authentication]",
         "[Possible error reason: XOAUTH2 authentication type (auth xoauth2 command) is not supported by this "
         "server]",
         {"[Sending encoded XOAUTH2 Request]", nullptr},
         {"[Possible error reason: incorrect UserName and/or OAuth2 access token]",
          "[Possible error reason: incorrect UserName and/or OAuth2 access token (if you decode server reply from "
          "base64, you may get more information)]"}},
    },
};

// ---- members that pass straight through to the held message ----

// One member of IMessage reached from ISMTP: the coerced arguments go to the
// message's own dispatch under its DISPID, the result comes back whole.
template <DISPID MessageId, uint16_t Flags, bool HasResult, ArgKind... Inputs>
struct Forward {
    static constexpr Signature kSig{sizeof...(Inputs), HasResult, {Inputs...}, ArgKind::Variant};
    static HRESULT Thunk(ObjectBase* self, VARIANT* args, VARIANT* result) {
        CSMTP* smtp = static_cast<CSMTP*>(self);
        if (!smtp->Message) return E_POINTER;
        constexpr uint32_t n = sizeof...(Inputs);
        VARIANT reversed[n + 1];
        for (uint32_t i = 0; i < n; ++i) reversed[n - 1 - i] = args[i];
        DISPID named = DISPID_PROPERTYPUT;
        const bool put = Flags == DISPATCH_PROPERTYPUT;
        DISPPARAMS dp{reversed, put ? &named : nullptr, n, put ? 1u : 0u};
        return smtp->Message->Invoke(MessageId, GUID_NULL, 0, Flags, &dp, HasResult ? result : nullptr, nullptr,
                                     nullptr);
    }
    static Binding Bound() { return Binding{&Thunk, &kSig}; }
};

template <DISPID MessageId, ArgKind Kind>
automation::MemberInfo ForwardProperty(DISPID id, const char* name, VARTYPE type) {
    return Property(id, name, type, Forward<MessageId, DISPATCH_PROPERTYGET, true>::Bound(),
                    Forward<MessageId, DISPATCH_PROPERTYPUT, false, Kind>::Bound());
}

template <DISPID MessageId, ArgKind... Inputs>
automation::MemberInfo ForwardMethod(DISPID id, const char* name, VARTYPE result,
                                     std::vector<automation::ParamInfo> params = {}) {
    return Method(id, name, result, Forward<MessageId, DISPATCH_METHOD, true, Inputs...>::Bound(), std::move(params));
}

}  // namespace

// ---- the protocol's decisions -------------------------------------------------------------

bool SMTPMailer::IsResponsePositive() {
    return ServerResponse.nSize >= 1 && ServerResponse.pData[0] >= '1' && ServerResponse.pData[0] <= '3';
}

// A reply is whole when its last line is final: "250-" goes on, "250 "
// ends. A bare "250" line ends too (a reply line need carry no text).
bool SMTPMailer::IsResponseReceived() {
    const int32_t size = ServerResponse.nSize;
    const char* d = ServerResponse.pData;
    if (size < 5 || d[size - 2] != '\r' || d[size - 1] != '\n') return false;
    int32_t p = size - 3;
    while (p >= 0 && d[p] != '\n') --p;
    const char mark = p >= 0 && p < size - 7 ? d[p + 4] : d[3];
    return mark == ' ' || mark == '\r';
}

bool SMTPMailer::IsChallenge() { return ServerResponse.nSize >= 1 && ServerResponse.pData[0] == '3'; }

bool SMTPMailer::ChallengeSpan(int32_t& begin, int32_t& end) {
    begin = ServerResponse.nSize < 4 ? ServerResponse.nSize : 4;
    end = ServerResponse.nSize - 2 > begin ? ServerResponse.nSize - 2 : begin;
    return true;
}

bool SMTPMailer::Logout() {
    SupportsStartTLS = SupportsDSN = false;
    return Quit("QUIT\r\n", kSmtpCommandFailed);
}

void SMTPMailer::OnClosed() { SupportsStartTLS = SupportsDSN = false; }

void AutosetSmtpTLS(int32_t port, int32_t method, const bstring& server, int32_t& enabled, int32_t& use_starttls) {
    if ((port == 587 && method >= 1) || (port == 25 && HasGmailSuffix(server))) {
        enabled = 1;
        use_starttls = 1;
    } else if (port == 465) {
        enabled = 1;
        use_starttls = 0;
    } else if (port == 25 && enabled && !use_starttls) {
        use_starttls = 1;
    }
}

// ---- the object ------------------------------------------------------------------------------

CSMTP::CSMTP() : ObjectBase(shell::kSMTPClass), Message(automation::ComPtr<CMessage>::Attach(CMessage::New())) {
    EventSource = Events();
    LogFilePath.assign(u"smtp_log.txt");
    PortNumber = 25;
    UseOwnSSL();
}

CSMTP::~CSMTP() {
    if (Connected) Logout();
    if (Socket.Connected) Socket.Disconnect();
}

CSMTP* CSMTP::New() { return new CSMTP(); }

void CSMTP::LogBannerOnce() {
    if (!BannerDue) return;
    LogBanner("SMTP");
    BannerDue = false;
}

bool CSMTP::ConnectSMTPComplete() {
    IsError = true;
    ErrDesc.nSize = 0;
    Socket.Running = 1;
    ClientRequest.nSize = 0;
    ServerResponse.nSize = 0;
    AcceptedRecipients.nSize = 0;
    RefusedRecipients.nSize = 0;
    LogBannerOnce();
    if (Connected) {
        SetError("[Error: Already connected]", kErrAlreadyConnected);
        return false;
    }
    Phase = kPhaseConnecting;
    bstring line("[Connecting to server ");
    line.append(ServerName).append(" at port ").append_int(PortNumber);
    if (Domain.nSize > 0)
        line.append(" from domain ").append(Domain).append("]");
    else
        line.append(" using default domain]");
    WriteLog(line.pData, line.nSize);
    SupportsStartTLS = SupportsDSN = false;
    Connected = ConnectSMTP();
    IsError = !Connected;
    if (!Connected) {
        Phase = kPhaseIdle;
        Describe("[Error: Connection failure]");
        return false;
    }
    Phase = kPhaseReady;
    ErrCode = kErrNone;
    return true;
}

bool CSMTP::SendEhlo() {
    ClientRequest.assign("EHLO ").append(Domain).append("\r\n");
    WriteLog("[Sending EHLO]");
    return SendAndCheck() ||
           FailClosing(kSmtpEhloRefused,
                       "[Possible error reason: ESMTP authentication (EHLO command) is not supported by this server]");
}

bool CSMTP::ConnectSMTP() {
    const int32_t method = AuthMethod;
    if (!OpenConnection()) return false;
    if (SSLObject && SSLObject->AutosetPortAndSSL)
        AutosetSmtpTLS(PortNumber, method, ServerName, SSLObject->Enabled, SSLObject->UseStartTLS);
    if (ImplicitTLS() && !StartSSL()) return false;
    if (!ReceiveAndCheck()) return FailClosing(kSmtpCommandFailed);
    if (Domain.nSize < 1) {
        WriteLog("[Domain not specified, using local host name]");
        char name[260];
        const char* host = platform::HostName(name, sizeof name);
        if (!host || !*host) {
            ErrCode = kSmtpNoHostName;
            Socket.Disconnect();
            WriteLog("[Error: Local host name could not be resolved]");
            return false;
        }
        Domain.assign(host);
    }

    if (method == kSmtpAuthNone && !StartTLSWanted()) {
        WriteLog("[Using anonymous SMTP authentication]");
        ClientRequest.assign("HELO ").append(Domain).append("\r\n");
        WriteLog("[Sending HELO]");
        if (!SendAndCheck()) return FailClosing(kSmtpCommandFailed);
    } else {
        WriteLog("[Entering ESMTP authentication mode]");
        bool needs_password = method == kSmtpAuthPlain || method == kSmtpAuthLogin || method == kSmtpAuthCramMd5 ||
                              method == kSmtpAuthXoauth2;
        if (needs_password && (UserName.nSize < 1 || Password.nSize < 1)) {
            Socket.Disconnect();
            WriteLog("[Error: Enhanced authentication requires nonempty UserName and Password]");
            ErrCode = kSmtpCredentials;
            return false;
        }
        if (!SendEhlo()) return false;
        bstring lower(ServerResponse);
        lower.to_lower();
        SupportsStartTLS = lower.find(" starttls") >= 0 || lower.find("-starttls") >= 0;
        SupportsDSN = lower.find(" dsn") >= 0 || lower.find("-dsn") >= 0;
        if (StartTLSWanted() && SupportsStartTLS) {
            if (!UpgradeToTLS("starttls\r\n", "[Possible error reason: STARTTLS not supported]")) return false;
            if (!SendEhlo()) return false;
        }
        if (!Login()) return false;
    }
    WriteLog(method != kSmtpAuthNone ? "[Authenticated]"
                                     : "[Authenticated anonymously, sending to external domains might not work]");
    return true;
}

bool CSMTP::Login() {
    switch (AuthMethod) {
    case kSmtpAuthNone:
    case kSmtpAuthEhloOnly: return true;
    case kSmtpAuthPlain: return RunLogin(*this, kSmtpLogin, Mechanism::Plain);
    case kSmtpAuthLogin: return RunLogin(*this, kSmtpLogin, Mechanism::Login);
    case kSmtpAuthCramMd5: return RunLogin(*this, kSmtpLogin, Mechanism::CramMd5);
    case kSmtpAuthNtlm: return RunLogin(*this, kSmtpLogin, Mechanism::Ntlm);
    case kSmtpAuthMsn: return RunLogin(*this, kSmtpLogin, Mechanism::Msn);
    case kSmtpAuthGssapiNtlm: return RunLogin(*this, kSmtpLogin, Mechanism::GssapiNtlm);
    case kSmtpAuthGssapiKerberos: return RunLogin(*this, kSmtpLogin, Mechanism::GssapiKerberos);
    case kSmtpAuthXoauth2: return RunLogin(*this, kSmtpLogin, Mechanism::Xoauth2);
    default:
        ErrCode = kSmtpAuthRefused;
        Socket.Disconnect();
        WriteLog("[Error: Wrong authentication type]");
        return false;
    }
}

void CSMTP::ResetAfterRefusal() {
    bstring request(ClientRequest), response(ServerResponse);
    int32_t code = ErrCode;
    if (!SendAndCheck("RSET\r\n")) {
        CloseAfterNetworkFailure();
        return;
    }
    Phase = kPhaseReady;
    ClientRequest = std::move(request);
    ServerResponse = std::move(response);
    ErrCode = code;
    WriteLog("[Sending failed (but connection is still valid)]");
}

bool CSMTP::OnDataReceived(int32_t bytes) {
    if (!EventsEnabled()) return true;
    return FireWithProceed(kOnReceiveData, {automation::MakeI4(bytes)});
}

bool CSMTP::OnDataSent(const char*, int32_t bytes) {
    if (!EventsEnabled()) return true;
    return FireWithProceed(kOnSendData, {automation::MakeI4(bytes)});
}

// ---- ISMTP ---------------------------------------------------------------------------------

HRESULT CSMTP::Connect(VARIANT_BOOL* out) {
    MailerCall call(*this);
    if (call.refused()) return *out = VARIANT_FALSE, S_OK;
    *out = Bool(ConnectSMTPComplete());
    return S_OK;
}

HRESULT CSMTP::Disconnect(VARIANT_BOOL* out) {
    MailerCall call(*this, true);
    if (call.refused()) return *out = VARIANT_FALSE, S_OK;
    *out = Bool(EndSession(-1));
    return S_OK;
}

HRESULT CSMTP::ExecuteCommand(BSTR command, VARIANT_BOOL* out) {
    *out = VARIANT_FALSE;
    MailerCall call(*this, true);
    if (call.refused()) return S_OK;
    if (!Connected) {
        // The result is true here: a caller reads IsError.
        Describe("[Error: Not connected]");
        Phase = kPhaseReady;
        *out = VARIANT_TRUE;
        return S_OK;
    }
    Phase = kSmtpDataCommand;
    WriteLog("[Sending the command to server]");
    ClientRequest.assign_bstr(command);
    if (SendAndCheck()) {
        Ready();
        *out = VARIANT_TRUE;
        return S_OK;
    }
    Describe("[Error: Negative or void server response]");
    LogResponse();
    if (IsResponseReceived()) {
        ErrCode = kSmtpCommandFailed;
        ResetAfterRefusal();
    } else {
        CloseAfterNetworkFailure();
    }
    return S_OK;
}

HRESULT CSMTP::get_Message(IDispatch** out) {
    *out = Message.get();
    if (*out) (*out)->AddRef();
    return S_OK;
}

HRESULT CSMTP::putref_Message(IDispatch* value) {
    CMessage* message = CMessage::FromDispatch(value);
    if (value && !message) return DISP_E_TYPEMISMATCH;
    Message = message;
    return S_OK;
}

HRESULT CSMTP::ResetMessage() {
    Message = automation::ComPtr<CMessage>::Attach(CMessage::New());
    return S_OK;
}

HRESULT CSMTP::GetLastDataFromServer(BSTR* out) {
    int32_t from = ServerDataCursor < ServerResponse.nSize ? ServerDataCursor : ServerResponse.nSize;
    *out = ServerResponse.to_bstr_range(0, from, ServerResponse.nSize - from);
    ServerDataCursor = ServerResponse.nSize;
    return S_OK;
}

HRESULT CSMTP::GetLastDataFromClient(BSTR* out) {
    // While DATA runs SentData is the body; otherwise the request text.
    const int32_t limit = SentData == ClientRequest.pData ? ClientRequest.nSize : SentSize;
    int32_t end = SentTotal < limit ? SentTotal : limit;
    int32_t from = SentCursor < end ? SentCursor : end;
    bstring view;
    view.pData = const_cast<char*>(SentData);
    view.nSize = SentData ? end : 0;
    view.nCapacity = -1;
    *out = view.to_bstr_range(0, from, view.nSize - from);
    SentCursor = end;
    return S_OK;
}

HRESULT CSMTP::GetRefusedRecipients(BSTR* out) { return *out = RefusedRecipients.to_bstr(0), S_OK; }
HRESULT CSMTP::GetAcceptedRecipients(BSTR* out) { return *out = AcceptedRecipients.to_bstr(0), S_OK; }

namespace shell {

using K = ArgKind;

// clang-format off
const SessionDispids kSmtpSessionIds = {
    .ErrCode = 46, .ErrDesc = 28, .IsError = 29, .Busy = 44, .Abort = 45, .EnableEvents = 41,
    .EnableLogging = 27, .LogFilePath = 30, .ClearLog = 38, .ServerResponse = 42, .ClientRequest = 43,
    .Connected = 39, .Timeout = 17, .ServerName = 6, .PortNumber = 7, .UserName = 9, .Password = 10,
    .AuthMethod = 11, .SSL = 49,
};

// The DISPIDs of IMessage that ISMTP passes through.
enum : DISPID {
    kMsgBodyText = 1, kMsgFromAddr = 2, kMsgToAddr = 3, kMsgSubject = 4, kMsgAddAttachment = 7,
    kMsgAddHeader = 10, kMsgAltBodyText = 12, kMsgBodyFormat = 13, kMsgImportBodyText = 14,
    kMsgEncodeHeaderText = 15, kMsgCCAddr = 24, kMsgBCCAddr = 25, kMsgImportAltBodyText = 26,
    kMsgMakeAltBody = 27, kMsgBodyEncoding = 29, kMsgAltBodyEncoding = 30, kMsgEnable8bitEncoding = 31,
    kMsgCharset = 32,
};

const InterfaceInfo kISMTP("ISMTP", IID_ISMTP, SessionMembers<CSMTP>(kSmtpSessionIds, {
    Method(1, "Connect", VT_BOOL, Bind<&CSMTP::Connect>()),
    Method(12, "Disconnect", VT_BOOL, Bind<&CSMTP::Disconnect>()),
    Method(13, "Send", VT_BOOL, Bind<&CSMTP::Send>()),
    PropertyRef(14, "Message", VT_DISPATCH, Bind<&CSMTP::get_Message>(), Bind<&CSMTP::putref_Message>()),
    Method(15, "RelayMessage", VT_BOOL, Bind<&CSMTP::RelayMessage>(),
           {Arg("FilePath", VT_BSTR), Arg("FromAddr", VT_BSTR), Arg("Recips", VT_BSTR)}),
    Method(16, "SendToQueue", VT_BOOL, Bind<&CSMTP::SendToQueue>(), {Arg("DirPath", VT_BSTR)}),
    ForwardProperty<kMsgBodyText, K::Bstr>(20, "BodyText", VT_BSTR),
    ForwardProperty<kMsgAltBodyText, K::Bstr>(21, "AltBodyText", VT_BSTR),
    ForwardProperty<kMsgAltBodyEncoding, K::I4>(22, "AltBodyEncoding", VT_I4),
    ForwardProperty<kMsgBodyEncoding, K::I4>(23, "BodyEncoding", VT_I4),
    ForwardProperty<kMsgBodyFormat, K::I4>(24, "BodyFormat", VT_I4),
    ForwardProperty<kMsgCharset, K::Bstr>(25, "Charset", VT_BSTR),
    ForwardProperty<kMsgEnable8bitEncoding, K::I2>(26, "Enable8bitEncoding", VT_BOOL),
    ForwardProperty<kMsgSubject, K::Bstr>(31, "Subject", VT_BSTR),
    ForwardMethod<kMsgAddAttachment, K::Bstr, K::Bstr, K::Bstr, K::Bstr>(32, "AddAttachment", VT_BOOL,
           {Arg("FilePath", VT_BSTR), Opt("ContentType", VT_BSTR, ""), Opt("ContentID", VT_BSTR, ""),
            Opt("FilenameInMessage", VT_BSTR, "")}),
    ForwardMethod<kMsgAddHeader, K::Bstr, K::Bstr>(33, "AddHeader", VT_BOOL,
           {Arg("Name", VT_BSTR), Arg("Value", VT_BSTR)}),
    ForwardMethod<kMsgEncodeHeaderText, K::Bstr, K::Bstr, K::Bstr, K::I4>(34, "EncodeHeaderText", VT_BSTR,
           {Arg("HeaderName", VT_BSTR), Arg("HeaderText", VT_BSTR), Arg("Charset", VT_BSTR),
            Arg("Encoding", VT_I4)}),
    ForwardMethod<kMsgImportAltBodyText, K::Bstr, K::I2>(35, "ImportAltBodyText", VT_BOOL,
           {Arg("FilePath", VT_BSTR), Opt("AppendMode", VT_BOOL, false)}),
    ForwardMethod<kMsgMakeAltBody>(36, "MakeAltBody", VT_BOOL),
    Method(37, "ResetMessage", VT_EMPTY, Bind<&CSMTP::ResetMessage>()),
    ForwardMethod<kMsgImportBodyText, K::Bstr, K::I2, K::I2>(40, "ImportBodyText", VT_BOOL,
           {Arg("FilePath", VT_BSTR), Opt("HTMLImport", VT_BOOL, false), Opt("AppendMode", VT_BOOL, false)}),
    Method(47, "SendEx", VT_BOOL, Bind<&CSMTP::SendEx>(), {Opt("FromAddr", VT_BSTR, ""), Opt("Recips", VT_BSTR, "")}),
    Method(48, "SendToQueueEx", VT_BOOL, Bind<&CSMTP::SendToQueueEx>(),
           {Arg("DirPath", VT_BSTR), Opt("FromAddr", VT_BSTR, ""), Opt("Recips", VT_BSTR, "")}),
    Method(50, "GetLastDataFromServer", VT_BSTR, Bind<&CSMTP::GetLastDataFromServer>()),
    Method(51, "GetLastDataFromClient", VT_BSTR, Bind<&CSMTP::GetLastDataFromClient>()),
    Method(52, "ExecuteCommand", VT_BOOL, Bind<&CSMTP::ExecuteCommand>(), {Arg("Command", VT_BSTR)}),
    Method(53, "GetRelayServerFromEmailAddress", VT_BSTR, Bind<&CSMTP::GetRelayServerFromEmailAddress>(),
           {Arg("EmailAddress", VT_BSTR), Opt("DNSServer", VT_BSTR, ""), Opt("SingleAttemptOnly", VT_BOOL, false),
            Opt("Timeout", VT_I4, 3)}),
    Method(54, "ResolveHostName", VT_BSTR, Bind<&CSMTP::ResolveHostName>(), {Arg("HostName", VT_BSTR)}),
    Field<CSMTP, &CSMTP::TargetName>(56, "TargetName"),
    Field<CSMTP, &CSMTP::UserDomain>(57, "UserDomain"),
    Field<CSMTP, &CSMTP::IsQueueIIS>(58, "IsQueueIIS"),
    Field<CSMTP, &CSMTP::MailFromDSN>(59, "MailFromDSN"),
    Field<CSMTP, &CSMTP::RcptToDSN>(60, "RcptToDSN"),
    FieldGet<CSMTP, &CSMTP::SupportsDSN>(61, "SupportsDSN"),
    FieldGet<CSMTP, &CSMTP::SupportsStartTLS>(62, "SupportsStartTLS"),
    Field<CSMTP, &CSMTP::AllowRefusedRecipients>(63, "AllowRefusedRecipients"),
    Method(64, "GetRefusedRecipients", VT_BSTR, Bind<&CSMTP::GetRefusedRecipients>()),
    Method(65, "GetAcceptedRecipients", VT_BSTR, Bind<&CSMTP::GetAcceptedRecipients>()),
    ForwardProperty<kMsgFromAddr, K::Bstr>(2, "FromAddr", VT_BSTR),
    ForwardProperty<kMsgToAddr, K::Bstr>(3, "ToAddr", VT_BSTR),
    ForwardProperty<kMsgCCAddr, K::Bstr>(4, "CCAddr", VT_BSTR),
    ForwardProperty<kMsgBCCAddr, K::Bstr>(5, "BCCAddr", VT_BSTR),
    Field<CSMTP, &CSMTP::Domain>(8, "Domain"),
}));

const InterfaceInfo kISMTPEvents("_ISMTPEvents", DIID__ISMTPEvents, {
    Event(kOnMessageReady, "OnMessageReady", {Arg("Proceed", VT_BYREF | VT_BOOL)}),
    Event(kOnSendStart, "OnSendStart", {Arg("Proceed", VT_BYREF | VT_BOOL)}),
    Event(kOnSendProgress, "OnSendProgress", {Arg("TotalBytesSent", VT_I4), Arg("Proceed", VT_BYREF | VT_BOOL)}),
    Event(kOnSendComplete, "OnSendComplete", {Arg("Accepted", VT_BOOL)}),
    Event(kOnSendData, "OnSendData", {Arg("BytesSent", VT_I4), Arg("Proceed", VT_BYREF | VT_BOOL)}),
    Event(kOnReceiveData, "OnReceiveData", {Arg("BytesReceived", VT_I4), Arg("Proceed", VT_BYREF | VT_BOOL)}),
});
// clang-format on

}  // namespace shell
}  // namespace kv
