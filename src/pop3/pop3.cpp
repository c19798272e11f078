#include "pop3/pop3.h"

#include <cstring>
#include <string>

#include "automation/fields.h"
#include "automation/variant.h"
#include "codecs/digest.h"
#include "foundation/dotstuff.h"
#include "foundation/trace.h"
#include "message/collections.h"
#include "message/message.h"
#include "shell/classes.h"
#include "shell/identifiers.h"
#include "transport/login.h"
#include "transport/session_members.h"
#include "transport/ssl.h"

namespace kv {

using automation::Arg;
using automation::Bind;
using automation::Event;
using automation::Field;
using automation::FieldGet;
using automation::MakeI4;
using automation::Method;
using automation::Opt;
using automation::Property;

namespace {

// Servers in this domain speak POP3 over implicit TLS only.
constexpr const char* kGmailDomain = "gmail.com";

VARIANT_BOOL Bool(bool b) { return b ? VARIANT_TRUE : VARIANT_FALSE; }

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// name (lower case) is the domain or a host inside it.
bool InGmailDomain(const bstring& name) {
    int32_t n = int32_t(std::strlen(kGmailDomain));
    if (name.nSize < n || !name.equals_at(name.nSize - n, n, kGmailDomain)) return false;
    return name.nSize == n || name.pData[name.nSize - n - 1] == '.';
}

// The lines of an un-stuffed reply, empty ones left out; token 1 of each.
std::vector<bstring> SecondTokens(const bstring& text) {
    std::vector<bstring> tokens;
    int32_t start = 0;
    while (start < text.nSize) {
        const char* line = text.pData + start;
        const void* crlf = memmem(line, size_t(text.nSize - start), "\r\n", 2);
        int32_t length = crlf ? int32_t(static_cast<const char*>(crlf) - line) : text.nSize - start;
        if (length > 0) tokens.push_back(ResponseToken(line, length, 1));
        start += length + 2;
    }
    return tokens;
}

HRESULT ReturnText(const bstring& s, BSTR* out) {
    *out = s.to_bstr(0);
    return S_OK;
}

constexpr const char* kWrongPassword = "[Possible error reason: incorrect UserName and/or Password]";
constexpr const char* kNegotiateUsing = "[Using NTLM/MSN/GSSAPI authentication]";
constexpr const char* kGssapiNotSupported =
    "[Possible error reason: GSSAPI authentication type (auth gssapi command) is not supported by this server]";
constexpr MechanismTexts kNegotiateTexts(const char* not_supported) {
    return {kNegotiateUsing, not_supported,
            {"[Sending NTLM/MSN/GSSAPI Request]", "[Sending NTLM/MSN/GSSAPI Response]"},
            {nullptr, kWrongPassword}};
}

const LoginDialect kPop3Login = {
    "POP3", kPop3AuthRefused, kPop3TokenFailed, kPop3Credentials,
    /*log_command=*/true, /*final_step_logged=*/true, "[Error: Incorrect NTLM/MSN/GSSAPI Challenge]",
    /*final_reply_has_text=*/true,
    {
        {},  // PLAIN, LOGIN and CRAM-MD5 are not POP3's
        {},
        {},
        kNegotiateTexts("[Possible error reason: NTLM authentication type (auth ntlm command) is not supported by "
                        "this server]"),
        kNegotiateTexts("[Possible error reason: MSN authentication type (auth msn command) is not supported by "
                        "this server]"),
        kNegotiateTexts(kGssapiNotSupported),
        kNegotiateTexts(kGssapiNotSupported),
        {nullptr,
         "[Possible error reason: XOAUTH2 authentication type (auth xoauth2 command) is not supported by this "
         "server]",
         {"[Sending XOAUTH2 client response]", nullptr},
         {"[Possible error reason: incorrect UserName and/or OAuth2 access token]",
          "[Possible error reason: incorrect UserName and/or OAuth2 access token (if you decode server reply from "
          "base64, you may get more information)]"}},
    },
};

}  // namespace

// ---- the protocol's decisions and reply helpers ----------------------------------------

bool POP3Mailer::IsResponsePositive() { return ServerResponse.nSize >= 1 && ServerResponse.pData[0] == '+'; }

bool POP3Mailer::IsResponseReceived() {
    const int32_t size = ServerResponse.nSize;
    if (size < 1) return false;
    const char* data = ServerResponse.pData;
    if (data[0] != '+') MultilineExpected = 0;
    if (MultilineExpected) return size >= 5 && std::memcmp(data + size - 5, "\r\n.\r\n", 5) == 0;
    return size >= 2 && data[size - 2] == '\r' && data[size - 1] == '\n';
}

bool POP3Mailer::IsChallenge() { return ServerResponse.nSize >= 2 && ServerResponse.pData[1] == ' '; }

bool POP3Mailer::ChallengeSpan(int32_t& begin, int32_t& end) {
    begin = SecondWordOffset(ServerResponse);
    end = ServerResponse.nSize - 2;
    return begin >= 0 && begin <= end;
}

namespace {

// Where the text after the status line of a multi-line reply starts; the
// terminator's ".\r\n" is dropped from source for good. -1 when the reply
// holds nothing.
int32_t DataStart(bstring& source) {
    if (source.nSize < 4) return -1;
    source.nSize -= 3;
    const void* crlf = memmem(source.pData, size_t(source.nSize), "\r\n", 2);
    return crlf ? int32_t(static_cast<const char*>(crlf) - source.pData) + 2 : -1;
}

}  // namespace

void UnstuffResponse(bstring& source, bstring& dest) {
    dest.nSize = 0;
    int32_t start = DataStart(source);
    if (start < 0) return;
    dest.reserve(source.nSize - start);
    dest.nSize = Unstuff(source.pData + start, source.nSize - start, dest.pData);
}

bstring ResponseToken(const char* data, int32_t size, int32_t n) {
    int32_t i = 0;
    for (int32_t token = 0; i < size; ++token) {
        while (i < size && IsBlank(data[i])) ++i;
        int32_t start = i;
        while (i < size && !IsBlank(data[i])) ++i;
        if (i == start) break;
        if (token == n) return bstring(data + start, i - start);
    }
    return bstring();
}

int32_t SecondWordOffset(const bstring& response) {
    int32_t i = 0;
    while (i < response.nSize && response.pData[i] != ' ' && response.pData[i] != '\t') ++i;
    if (i >= response.nSize) return -1;
    while (i < response.nSize && (response.pData[i] == ' ' || response.pData[i] == '\t')) ++i;
    return i;
}

bstring ApopStamp(const bstring& greeting) {
    int32_t open = greeting.rfind('<');
    int32_t close = greeting.rfind('>');
    if (open < 0 || close < open) return bstring();
    return bstring(greeting.pData + open, close - open + 1);
}

// ---- the object ---------------------------------------------------------------------------

CPOP3::CPOP3() : ObjectBase(shell::kPOP3Class) {
    EventSource = Events();
    QuietAbort = true;
    LogFilePath.assign(u"pop3_log.txt");
    PortNumber = 110;
    UseOwnSSL();
}

CPOP3::~CPOP3() {
    if (Connected) DisconnectPOP3();
    if (Socket.Connected) Socket.Disconnect();
}

CPOP3* CPOP3::New() { return new CPOP3(); }

bool CPOP3::ConnectPOP3Complete() {
    if (ErrCode == kPop3Cancelled || ErrCode == kErrAborted) return false;
    IsError = true;
    ErrDesc.nSize = 0;
    Socket.Running = 1;
    ClientRequest.nSize = 0;
    ServerResponse.nSize = 0;
    LogBanner("POP3");
    if (Connected) {
        SetError("[Error: Already connected]", kErrAlreadyConnected);
        return false;
    }
    MessageSizes.clear();
    UIDs.clear();
    MessageCount = 0;
    TotalSize = 0;
    UIDsReady = false;
    Phase = kPhaseConnecting;
    if (SSLObject && SSLObject->AutosetPortAndSSL && PortNumber == 110) {
        ServerName.to_lower();
        if (InGmailDomain(ServerName)) PortNumber = 995;
    }
    bstring line("[Connecting to server ");
    line.append(ServerName).append(" at port ").append_int(PortNumber).append("]");
    WriteLog(line.pData, line.nSize);

    auto fail = [this](const char* text) {
        Describe(text);
        if (Phase != kPhaseReady) Phase = kPhaseIdle;
        return false;
    };
    if (!ConnectPOP3()) return fail("[Error: Connection failure]");
    Connected = true;
    if (AuthMethod == kPop3AuthNone) return Ready(), true;

    WriteLog("[Connected to the server, getting statistics]");
    if (!SendAndCheck("STAT\r\n")) {
        FailCommand(kPop3StatFailed);
        return fail("[Error: STAT command failed]");
    }
    MessageCount = ResponseToken(ServerResponse.pData, ServerResponse.nSize, 1).to_int();
    TotalSize = ResponseToken(ServerResponse.pData, ServerResponse.nSize, 2).to_int();
    line.assign("[Got stat, ");
    line.append_int(MessageCount).append(" message(s) available. Total size is ");
    line.append_int(TotalSize).append(" bytes]");
    WriteLog(line.pData, line.nSize);
    if (MessageCount < 1) return Ready(), true;

    MultilineExpected = 1;
    WriteLog("[Getting list]");
    if (!SendAndCheck("LIST\r\n")) {
        FailCommand(kPop3ListFailed);
        return fail("[Error: list command failed]");
    }
    WriteLog("[Got list]");
    bstring list;
    UnstuffResponse(ServerResponse, list);
    for (const bstring& size : SecondTokens(list))
        if (size.nSize) MessageSizes.push_back(size.to_int());
    if (MessageSizes.size() < size_t(MessageCount)) MessageSizes.resize(size_t(MessageCount), 0);
    Ready();
    return true;
}

bool CPOP3::ConnectPOP3() {
    const int32_t method = AuthMethod;
    if ((method == kPop3AuthUserPass || method == kPop3AuthApop || method == kPop3AuthXoauth2) &&
        (UserName.nSize < 1 || Password.nSize < 1)) {
        WriteLog("[Error: Nonempty UserName and Password required]");
        ErrCode = kPop3Credentials;
        return false;
    }
    MultilineExpected = 0;
    if (!OpenConnection()) return false;
    AutosetTLS(995, 110);
    if (ImplicitTLS() && !StartSSL()) return false;
    if (!ReceiveAndCheck()) return FailClosing(kPop3CommandFailed);
    bstring greeting(ServerResponse);
    if (StartTLSWanted() && !UpgradeToTLS("stls\r\n", "[Possible error reason: STLS not supported]")) return false;

    switch (method) {
    case kPop3AuthUserPass: return LoginUserPass();
    case kPop3AuthApop: return LoginApop(greeting);
    case kPop3AuthNtlm: return RunLogin(*this, kPop3Login, Mechanism::Ntlm);
    case kPop3AuthMsn: return RunLogin(*this, kPop3Login, Mechanism::Msn);
    case kPop3AuthGssapiNtlm: return RunLogin(*this, kPop3Login, Mechanism::GssapiNtlm);
    case kPop3AuthGssapiKerberos: return RunLogin(*this, kPop3Login, Mechanism::GssapiKerberos);
    case kPop3AuthXoauth2: return RunLogin(*this, kPop3Login, Mechanism::Xoauth2);
    case kPop3AuthNone: WriteLog("[No authentication was selected]"); return true;
    default:
        Socket.Disconnect();
        WriteLog("[Error: Wrong authentication type]");
        ErrCode = kPop3AuthRefused;
        return false;
    }
}

bool CPOP3::LoginUserPass() {
    WriteLog("[Using regular POP3 authentication]");
    WriteLog("[Sending UserName]");
    ClientRequest.assign("user ").append(UserName).append("\r\n");
    if (!SendAndCheck()) return FailClosing(kPop3Credentials, "[Possible error reason: incorrect UserName]");
    WriteLog("[Sending Password]");
    ClientRequest.assign("pass ").append(Password).append("\r\n");
    return SendAndCheck() || FailClosing(kPop3Credentials, kWrongPassword);
}

bool CPOP3::LoginApop(const bstring& greeting) {
    WriteLog("[Using APOP authentication]");
    bstring text = ApopStamp(greeting);
    text.append(Password);
    char digest[33];
    Md5Hex(digest, text.pData, text.nSize);
    WriteLog("[Sending MD5 Digest]");
    ClientRequest.assign("APOP ").append(UserName).append(" ").append(digest).append("\r\n");
    return SendAndCheck() || FailClosing(kPop3Credentials, kWrongPassword);
}

bool POP3Mailer::Logout() {
    MultilineExpected = 0;
    return Quit("QUIT\r\n", kPop3CommandFailed);
}

bool CPOP3::EnsureConnected() { return Connected || ConnectPOP3Complete(); }

// ---- retrieval --------------------------------------------------------------------------

bool CPOP3::FireStateEvent() {
    if (!EventsEnabled()) return true;
    int32_t id = Phase == kPhaseReady ? kOnMessageComplete
                 : Phase == kPop3Retrieving ? kOnReceiveStart
                 : Phase == kPop3MessageReceived ? kOnReceiveComplete
                                                : 0;
    if (!id || FireWithProceed(id, {MakeI4(CurrentIndex)})) return true;
    CancelByUser(kPop3Cancelled);
    return false;
}

bool CPOP3::OnDataReceived(int32_t) {
    if (!EventsEnabled() || Phase != kPop3Retrieving) return true;
    return FireWithProceed(kOnReceiveProgress, {MakeI4(CurrentIndex), MakeI4(ServerResponse.nSize)});
}

bool CPOP3::RetrieveMessageFromPOP3(CMessage* message, int32_t index, int32_t bodyLines, int32_t altBodyOptions) {
    IsError = false;
    ErrDesc.nSize = 0;
    ClientRequest.nSize = 0;
    ServerResponse.nSize = 0;
    if (!EnsureConnected()) return false;
    if (index > MessageCount || index < 1 || MessageSizes.size() != size_t(MessageCount)) {
        SetError("[Error: Message index is out of range]", kPop3BadIndex);
        return false;
    }
    CurrentIndex = index;
    Phase = kPop3Retrieving;
    if (!FireStateEvent()) return false;

    MultilineExpected = 1;
    const int32_t listed = MessageSizes[size_t(index - 1)];
    if (bodyLines < 0) {
        ClientRequest.assign("RETR ").append_int(index);
        // Room for the whole reply ahead, so that most messages arrive without a growing copy.
        int64_t room = int64_t(listed > 0 ? listed : 0) * 11 / 10;
        ServerResponse.reserve(int32_t(room < ResponseLimit ? room : ResponseLimit));
    } else {
        ClientRequest.assign("TOP ").append_int(index).append(" ").append_int(bodyLines);
        ServerResponse.reserve(0x10000);
    }
    ClientRequest.append("\r\n");
    WriteLogEscaped("[Sending retr/top command: ", ClientRequest, "]");
    if (!SendAndCheck()) {
        FailCommand(kPop3CommandFailed);
        if (!Aborted)
            Describe("[Error: message/headers retrieving failed]");
        else
            CancelByUser(kPop3Cancelled);
        return false;
    }
    Phase = kPop3MessageReceived;
    if (!FireStateEvent()) return false;

    WriteLog("[Message data received, decoding the message]");
    int32_t start = DataStart(ServerResponse);
    message->m_nAltBodyOptions = altBodyOptions;
    message->m_wsAltBodyHRefSuffix = AltBodyHRefSuffix;
    message->ImportReceivedText(ServerResponse.pData + (start < 0 ? 0 : start),
                                start < 0 ? 0 : ServerResponse.nSize - start, true, bodyLines >= 0, listed);

    Phase = kPhaseReady;
    if (!FireStateEvent()) return false;
    WriteLog("[The message is ready]");
    ErrCode = kErrNone;
    return true;
}

bool CPOP3::RetrieveUIDs() {
    if (UIDsReady) return true;
    IsError = true;
    ErrDesc.nSize = 0;
    ClientRequest.nSize = 0;
    ServerResponse.nSize = 0;
    UIDs.clear();
    if (!EnsureConnected()) return false;
    Phase = kPop3CommandRunning;
    MultilineExpected = 1;
    ClientRequest.assign("UIDL\r\n");
    WriteLog("[Sending UIDL]");
    if (!SendAndCheck()) {
        FailCommand(kPop3CommandFailed);
        Describe("[Error: UIDL failed]");
        return false;
    }
    Ready();
    bstring list;
    UnstuffResponse(ServerResponse, list);
    UIDs = SecondTokens(list);
    if (UIDs.size() < size_t(MessageCount)) UIDs.resize(size_t(MessageCount));
    WriteLog("[UID List ready]");
    UIDsReady = true;
    return true;
}

bool CPOP3::RunSimpleCommand(const char* log_prefix, const char* failure_text) {
    Phase = kPop3CommandRunning;
    MultilineExpected = 0;
    WriteLogEscaped(log_prefix, ClientRequest, "]");
    if (SendAndCheck()) return Ready(), true;
    FailCommand(kPop3CommandFailed);
    Describe(failure_text);
    return false;
}

// ---- IPOP3 ------------------------------------------------------------------------------

HRESULT CPOP3::Connect(BSTR serverName, int32_t portNumber, BSTR userName, BSTR password, BSTR userDomain,
                       BSTR targetName, VARIANT_BOOL* out) {
    MailerCall call(*this);
    if (call.refused()) return *out = VARIANT_FALSE, S_OK;
    if (SysStringLen(serverName)) ServerName.assign_bstr(serverName);
    if (portNumber > 0) PortNumber = portNumber;
    if (SysStringLen(userName)) UserName.assign_bstr(userName);
    if (SysStringLen(password)) Password.assign_bstr(password);
    if (SysStringLen(userDomain)) UserDomain.assign_bstr(userDomain);
    if (SysStringLen(targetName)) TargetName.assign_bstr(targetName);
    ErrCode = kErrNone;
    *out = Bool(ConnectPOP3Complete());
    return S_OK;
}

HRESULT CPOP3::Disconnect(VARIANT_BOOL* out) {
    MailerCall call(*this, true);
    if (call.refused()) return *out = VARIANT_FALSE, S_OK;
    *out = Bool(EndSession(kErrNotConnected));
    return S_OK;
}

HRESULT CPOP3::RetrieveSingleMessage(int32_t index, IDispatch** out) {
    return RetrieveSingleMessageHeaders(index, -1, out);
}

HRESULT CPOP3::RetrieveSingleMessageHeaders(int32_t index, int32_t bodyLinesCount, IDispatch** out) {
    *out = nullptr;
    MailerCall call(*this);
    if (call.refused()) return S_OK;
    auto message = automation::ComPtr<CMessage>::Attach(CMessage::New());
    if (RetrieveMessageFromPOP3(message.get(), index, bodyLinesCount, AltBodyOptions)) *out = message.Detach();
    return S_OK;
}

HRESULT CPOP3::RetrieveHeaders(int32_t first, int32_t last, int32_t bodyLinesCount, IDispatch** out) {
    *out = nullptr;
    MailerCall call(*this);
    if (call.refused()) return S_OK;
    if (first < 1) {
        SetError("[Error: Message index is less than 1]", kPop3BadIndex);
        return S_OK;
    }
    if (!EnsureConnected()) return S_OK;
    if (last < 0 || last > MessageCount) last = MessageCount;
    CMessages* messages = CMessages::New();
    *out = messages;
    for (int32_t index = first; index <= last; ++index) {
        auto message = automation::ComPtr<CMessage>::Attach(CMessage::New());
        if (!RetrieveMessageFromPOP3(message.get(), index, bodyLinesCount, AltBodyOptions)) break;
        messages->m_coll.push_back(message.Detach());
    }
    return S_OK;
}

HRESULT CPOP3::RetrieveMessages(int32_t first, int32_t last, IDispatch** out) {
    return RetrieveHeaders(first, last, -1, out);
}

HRESULT CPOP3::DeleteMessage(int32_t index, VARIANT_BOOL* out) {
    *out = VARIANT_FALSE;
    MailerCall call(*this, true);
    if (call.refused() || !EnsureConnected()) return S_OK;
    if (!IndexInRange(index)) {
        SetError("[Error: Message index is out of range]", kPop3BadIndex);
        return S_OK;
    }
    ClientRequest.assign("DELE ").append_int(index).append("\r\n");
    *out = Bool(RunSimpleCommand("[Sending DELE: ", "[Error: message deletion failed]"));
    return S_OK;
}

HRESULT CPOP3::Ping(VARIANT_BOOL* out) {
    *out = VARIANT_FALSE;
    MailerCall call(*this, true);
    if (call.refused() || !EnsureConnected()) return S_OK;
    ClientRequest.assign("noop\r\n");
    *out = Bool(RunSimpleCommand("[Sending ping: ", "[Error: ping failed]"));
    return S_OK;
}

HRESULT CPOP3::SendCommand(BSTR command, VARIANT_BOOL expectMultiline, BSTR* out) {
    *out = nullptr;
    MailerCall call(*this, true);
    if (call.refused()) return S_OK;
    if (EnsureConnected()) {
        Phase = kPop3CommandRunning;
        MultilineExpected = expectMultiline ? 1 : 0;
        ClientRequest.assign_bstr(command);
        WriteLogEscaped("[Sending custom command: ", ClientRequest, "]");
        if (SendAndCheck()) {
            Ready();
        } else {
            FailCommand(kPop3CommandFailed);
            Describe("[Error: Custom command failed]");
        }
    }
    return ReturnText(ServerResponse, out);
}

HRESULT CPOP3::get_Size(int32_t index, int32_t* out) {
    if (!IndexInRange(index)) {
        *out = -1;
        ErrCode = kPop3BadIndex;
        IsError = true;
        ErrDesc.assign("[Error: Message index is out of range]");
        return S_OK;
    }
    *out = size_t(index) <= MessageSizes.size() ? MessageSizes[size_t(index - 1)] : 0;
    IsError = false;
    ErrCode = kErrNone;
    return S_OK;
}

HRESULT CPOP3::Search(VARIANT* out) {
    VariantClear(out);
    MailerCall call(*this);
    if (call.refused() || !RetrieveUIDs()) return S_OK;
    SAFEARRAY* array = SafeArrayCreateVector(VT_VARIANT, 1, uint32_t(UIDs.size()));
    if (!array) return E_OUTOFMEMORY;
    VARIANT* items = nullptr;
    SafeArrayAccessData(array, reinterpret_cast<void**>(&items));
    for (size_t i = 0; i < UIDs.size(); ++i) {
        items[i].vt = VT_BSTR;
        items[i].bstrVal = UIDs[i].to_bstr(0);
    }
    SafeArrayUnaccessData(array);
    out->vt = VT_ARRAY | VT_VARIANT;
    out->parray = array;
    WriteLog("[UID Array ready]");
    return S_OK;
}

HRESULT CPOP3::GetMessageNumberFromUID(BSTR uid, int32_t* out) {
    *out = 0;
    MailerCall call(*this);
    if (call.refused()) return S_OK;
    if (!RetrieveUIDs()) return *out = -1, S_OK;
    bstring wanted;
    wanted.assign_bstr(uid);
    for (size_t i = 0; i < UIDs.size(); ++i)
        if (UIDs[i].equals(wanted)) return *out = int32_t(i + 1), S_OK;
    IsError = true;
    ErrCode = kPop3BadIndex;
    ErrDesc.assign("[Error: UID value not found]");
    return S_OK;
}

HRESULT CPOP3::GetMessageUID(int32_t messageNumber, BSTR* out) {
    *out = nullptr;
    if (!IndexInRange(messageNumber)) {
        SetError("[Error: Message index is out of range]", kPop3BadIndex);
        return S_OK;
    }
    MailerCall call(*this);
    if (call.refused() || !RetrieveUIDs()) return S_OK;
    if (size_t(messageNumber) <= UIDs.size()) *out = UIDs[size_t(messageNumber - 1)].to_bstr(0);
    return S_OK;
}

HRESULT CPOP3::GetLastReceivedDataChunk(BSTR* out) {
    int32_t size = ServerResponse.nSize > 0 ? ServerResponse.nSize : 0;
    int32_t n = LastChunkSize < size ? LastChunkSize : size;
    *out = n > 0 ? ServerResponse.to_bstr_range(3, size - n, n) : nullptr;
    return S_OK;
}

HRESULT CPOP3::get_Codepage(int32_t* out) { return *out = 0, S_OK; }
HRESULT CPOP3::put_Codepage(int32_t) { return S_OK; }

namespace shell {

// clang-format off
const SessionDispids kPop3SessionIds = {
    .ErrCode = 32, .ErrDesc = 13, .IsError = 14, .Busy = 30, .Abort = 31, .EnableEvents = 26,
    .EnableLogging = 12, .LogFilePath = 16, .ClearLog = 21, .ServerResponse = 28, .ClientRequest = 29,
    .Connected = 11, .Timeout = 6, .ServerName = 17, .PortNumber = 20, .UserName = 18, .Password = 19,
    .AuthMethod = 5, .SSL = 36,
};

const InterfaceInfo kIPOP3("IPOP3", IID_IPOP3, SessionMembers<CPOP3>(kPop3SessionIds, {
    Method(1, "Connect", VT_BOOL, Bind<&CPOP3::Connect>(),
           {Opt("ServerName", VT_BSTR, ""), Opt("PortNumber", VT_I4, 0), Opt("UserName", VT_BSTR, ""),
            Opt("Password", VT_BSTR, ""), Opt("UserDomain", VT_BSTR, ""), Opt("TargetName", VT_BSTR, "")}),
    Method(2, "Disconnect", VT_BOOL, Bind<&CPOP3::Disconnect>()),
    Method(3, "RetrieveSingleMessage", VT_DISPATCH, Bind<&CPOP3::RetrieveSingleMessage>(), {Arg("Index", VT_I4)}),
    Method(4, "RetrieveSingleMessageHeaders", VT_DISPATCH, Bind<&CPOP3::RetrieveSingleMessageHeaders>(),
           {Arg("Index", VT_I4), Opt("BodyLinesCount", VT_I4, 0)}),
    Method(7, "RetrieveHeaders", VT_DISPATCH, Bind<&CPOP3::RetrieveHeaders>(),
           {Opt("First", VT_I4, 1), Opt("Last", VT_I4, -1), Opt("BodyLinesCount", VT_I4, 0)}),
    Method(8, "RetrieveMessages", VT_DISPATCH, Bind<&CPOP3::RetrieveMessages>(),
           {Opt("First", VT_I4, 1), Opt("Last", VT_I4, -1)}),
    FieldGet<CPOP3, &CPOP3::MessageCount>(15, "MessageCount"),
    Field<CPOP3, &CPOP3::AltBodyOptions>(37, "AltBodyOptions"),
    Field<CPOP3, &CPOP3::AltBodyHRefSuffix>(38, "AltBodyHRefSuffix"),
    Method(39, "GetMessageNumberFromUID", VT_I4, Bind<&CPOP3::GetMessageNumberFromUID>(), {Arg("UID", VT_BSTR)}),
    Method(40, "GetMessageUID", VT_BSTR, Bind<&CPOP3::GetMessageUID>(), {Arg("MessageNumber", VT_I4)}),
    Field<CPOP3, &CPOP3::UserDomain>(42, "UserDomain"),
    Field<CPOP3, &CPOP3::TargetName>(43, "TargetName"),
    Method(44, "GetLastReceivedDataChunk", VT_BSTR, Bind<&CPOP3::GetLastReceivedDataChunk>()),
    Method(22, "DeleteMessage", VT_BOOL, Bind<&CPOP3::DeleteMessage>(), {Arg("Index", VT_I4)}),
    Method(23, "SendCommand", VT_BSTR, Bind<&CPOP3::SendCommand>(),
           {Arg("Command", VT_BSTR), Opt("ExpectMultilineResponse", VT_BOOL, false)}),
    Method(24, "Ping", VT_BOOL, Bind<&CPOP3::Ping>()),
    Property(25, "Size", VT_I4, Bind<&CPOP3::get_Size>(), {}, {Arg("Index", VT_I4)}),
    FieldGet<CPOP3, &CPOP3::TotalSize>(27, "TotalSize"),
    Property(33, "CodepageMode", VT_I4, Bind<&CPOP3::get_Codepage>(), Bind<&CPOP3::put_Codepage>()),
    Property(34, "Codepage", VT_I4, Bind<&CPOP3::get_Codepage>(), Bind<&CPOP3::put_Codepage>()),
    Method(35, "Search", VT_VARIANT, Bind<&CPOP3::Search>()),
}));

const InterfaceInfo kIPOP3Events("_IPOP3Events", DIID__IPOP3Events, {
    Event(kOnReceiveStart, "OnReceiveStart", {Arg("Index", VT_I4), Arg("Proceed", VT_BYREF | VT_BOOL)}),
    Event(kOnReceiveProgress, "OnReceiveProgress",
          {Arg("Index", VT_I4), Arg("TotalBytesReceived", VT_I4), Arg("Proceed", VT_BYREF | VT_BOOL)}),
    Event(kOnReceiveComplete, "OnReceiveComplete", {Arg("Index", VT_I4), Arg("Proceed", VT_BYREF | VT_BOOL)}),
    Event(kOnMessageComplete, "OnMessageComplete", {Arg("Index", VT_I4), Arg("Proceed", VT_BYREF | VT_BOOL)}),
});
// clang-format on

}  // namespace shell
}  // namespace kv
