#include "pop3/pop3.h"

#include <cstring>
#include <string>

#include "automation/variant.h"
#include "codecs/digest.h"
#include "codecs/encoding.h"
#include "foundation/find.h"
#include "foundation/trace.h"
#include "message/collections.h"
#include "message/message.h"
#include "shell/classes.h"
#include "shell/identifiers.h"
#include "transport/negotiate.h"
#include "transport/ssl.h"

namespace kv {

using automation::Arg;
using automation::Bind;
using automation::Event;
using automation::MakeI4;
using automation::Method;
using automation::Opt;
using automation::Property;
using automation::PropertyRef;

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

bool EqualsIgnoringCase(const bstring& a, const bstring& b) {
    if (a.nSize != b.nSize) return false;
    for (int32_t i = 0; i < a.nSize; ++i) {
        unsigned char x = static_cast<unsigned char>(a.pData[i]), y = static_cast<unsigned char>(b.pData[i]);
        if (x != y && !(x < 0x80 && y < 0x80 && (x | 0x20) == (y | 0x20) && (x | 0x20) >= 'a' && (x | 0x20) <= 'z'))
            return false;
    }
    return true;
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

void UnstuffResponse(bstring& source, bstring& dest) {
    dest.nSize = 0;
    if (source.nSize < 4) return;
    source.nSize -= 3;
    const char* begin = source.pData;
    const char* end = begin + source.nSize;
    const void* crlf = memmem(begin, size_t(source.nSize), "\r\n", 2);
    if (!crlf) return;
    const char* rest = static_cast<const char*>(crlf) + 2;
    dest.reserve(int32_t(end - rest));
    char* out = dest.pData;
    while (rest < end) {
        const char* hit = FindBytes(rest, size_t(end - rest), "\r\n..", 4);
        const char* stop = hit ? hit + 3 : end;  // through "\r\n."
        std::memcpy(out, rest, size_t(stop - rest));
        out += stop - rest;
        rest = hit ? stop + 1 : end;
    }
    dest.nSize = int32_t(out - dest.pData);
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

CPOP3::CPOP3() : ObjectBase(shell::kPOP3Class), SSLObject(CSSL::NewForSession()) {
    EventSource = Events();
    LogFilePath.assign(u"pop3_log.txt");
    Socket.Crypt = &SSLObject->Crypt;
}

CPOP3::~CPOP3() {
    if (Connected) DisconnectPOP3();
    if (Socket.Connected) Socket.Disconnect();
    Socket.Crypt = nullptr;
    if (SSLObject) SSLObject->Release();
}

CPOP3* CPOP3::New() { return new CPOP3(); }

void CPOP3::Describe(const char* text) {
    IsError = true;
    ErrDesc.assign(text);
    WriteLog(text);
}

bool CPOP3::ConnectPOP3Complete() {
    if (ErrCode == 202 || ErrCode == 7) return false;
    IsError = true;
    ErrDesc.nSize = 0;
    Socket.Running = 1;
    ClientRequest.nSize = 0;
    ServerResponse.nSize = 0;
    LogBanner("POP3");
    if (Connected) {
        SetError("[Error: Already connected]", 2);
        return false;
    }
    MessageSizes.clear();
    UIDs.clear();
    MessageCount = 0;
    TotalSize = 0;
    UIDsReady = false;
    Phase = 1;
    if (SSLObject && SSLObject->AutosetPortAndSSL && PortNumber == 110) {
        ServerName.to_lower();
        if (InGmailDomain(ServerName)) PortNumber = 995;
    }
    bstring line("[Connecting to server ");
    line.append(ServerName).append(" at port ").append_int(PortNumber).append("]");
    WriteLog(line.pData, line.nSize);

    auto fail = [this] {
        if (Phase != 2) Phase = 0;
        return false;
    };
    if (!ConnectPOP3()) {
        Describe("[Error: Connection failure]");
        return fail();
    }
    Connected = true;
    if (AuthMethod == kPop3AuthNone) {
        IsError = false;
        Phase = 2;
        ErrCode = 0;
        return true;
    }

    WriteLog("[Connected to the server, getting statistics]");
    if (!SendAndCheck("STAT\r\n")) {
        FailCommand(214);
        Describe("[Error: STAT command failed]");
        return fail();
    }
    MessageCount = ResponseToken(ServerResponse.pData, ServerResponse.nSize, 1).to_int();
    TotalSize = ResponseToken(ServerResponse.pData, ServerResponse.nSize, 2).to_int();
    line.assign("[Got stat, ");
    line.append_int(MessageCount).append(" message(s) available. Total size is ");
    line.append_int(TotalSize).append(" bytes]");
    WriteLog(line.pData, line.nSize);
    if (MessageCount < 1) {
        IsError = false;
        Phase = 2;
        ErrCode = 0;
        return true;
    }

    MultilineExpected = 1;
    WriteLog("[Getting list]");
    if (!SendAndCheck("LIST\r\n")) {
        FailCommand(215);
        Describe("[Error: list command failed]");
        return fail();
    }
    WriteLog("[Got list]");
    bstring list;
    UnstuffResponse(ServerResponse, list);
    for (const bstring& size : SecondTokens(list))
        if (size.nSize) MessageSizes.push_back(size.to_int());
    if (MessageSizes.size() < size_t(MessageCount)) MessageSizes.resize(size_t(MessageCount), 0);
    IsError = false;
    Phase = 2;
    ErrCode = 0;
    return true;
}

bool CPOP3::ConnectPOP3() {
    const int32_t method = AuthMethod;
    if ((method == kPop3AuthUserPass || method == kPop3AuthApop || method == kPop3AuthXoauth2) &&
        (UserName.nSize < 1 || Password.nSize < 1)) {
        WriteLog("[Error: Nonempty UserName and Password required]");
        ErrCode = 213;
        return false;
    }
    MultilineExpected = 0;
    std::string host(ServerName.pData ? ServerName.pData : "", size_t(ServerName.nSize > 0 ? ServerName.nSize : 0));
    int32_t r = Socket.Connect(host.c_str(), PortNumber);
    if (r != 0) {
        bstring line("[Error: Socket.Connect returned code ");
        line.append_int(r).append("]");
        WriteLog(line.pData, line.nSize);
        ErrCode = Socket.LastError;
        return false;
    }
    if (SSLObject && SSLObject->AutosetPortAndSSL) {
        if (PortNumber == 995) {
            SSLObject->Enabled = 1;
            SSLObject->UseStartTLS = 0;
        } else if (PortNumber == 110 && SSLObject->Enabled && !SSLObject->UseStartTLS) {
            SSLObject->UseStartTLS = 1;
        }
    }
    if (SSLObject && SSLObject->Enabled && !SSLObject->UseStartTLS && !StartTLS()) return false;
    if (!ReceiveAndCheck()) return FailLogin(216);
    bstring greeting(ServerResponse);
    if (SSLObject && SSLObject->Enabled && SSLObject->UseStartTLS) {
        WriteLog("[Switching to SSL over regular port mode]");
        ClientRequest.assign("stls\r\n");
        if (!SendAndCheck()) return FailLogin(11, "[Possible error reason: STLS not supported]");
        if (!StartTLS()) return false;
    }

    switch (method) {
    case kPop3AuthUserPass:
        return LoginUserPass();
    case kPop3AuthApop:
        return LoginApop(greeting);
    case kPop3AuthNtlm:
    case kPop3AuthMsn:
    case kPop3AuthGssapiNtlm:
    case kPop3AuthGssapiKerberos:
        return LoginNegotiate();
    case kPop3AuthXoauth2:
        return LoginXoauth2();
    case kPop3AuthNone:
        WriteLog("[No authentication was selected]");
        return true;
    default:
        Socket.Disconnect();
        WriteLog("[Error: Wrong authentication type]");
        ErrCode = 211;
        return false;
    }
}

bool CPOP3::StartTLS() {
    WriteLog("[Initiating SSL Connection]");
    int32_t status = SSLObject->Init(&Socket);
    SSLObject->SetStatus(status);
    if (status == 0) return true;  // the channel marks bytes left over from the handshake itself
    ErrCode = Socket.LastError ? Socket.LastError : 12;
    Socket.Disconnect();
    WriteLog("[Error: SSL Init Failed]");
    return false;
}

bool CPOP3::FailLogin(int32_t code, const char* reason, const char* error_line) {
    ErrCode = IsResponseReceived() ? code : Socket.LastError;
    Socket.Disconnect();
    if (ErrCode != 7) {
        WriteLog(error_line ? error_line : "[Error: Negative or void server response]");
        LogResponse();
        if (reason && ServerResponse.nSize > 2) WriteLog(reason);
    }
    return false;
}

void CPOP3::FailCommand(int32_t code) {
    IsError = true;
    if (!IsResponseReceived()) {
        CloseAfterNetworkFailure(true);
        return;
    }
    if (Connected) {
        Phase = 2;
        ErrCode = code;
    }
}

bool CPOP3::LoginUserPass() {
    WriteLog("[Using regular POP3 authentication]");
    WriteLog("[Sending UserName]");
    ClientRequest.assign("user ").append(UserName).append("\r\n");
    if (!SendAndCheck()) return FailLogin(213, "[Possible error reason: incorrect UserName]");
    WriteLog("[Sending Password]");
    ClientRequest.assign("pass ").append(Password).append("\r\n");
    if (!SendAndCheck()) return FailLogin(213, "[Possible error reason: incorrect UserName and/or Password]");
    return true;
}

bool CPOP3::LoginApop(const bstring& greeting) {
    WriteLog("[Using APOP authentication]");
    bstring text = ApopStamp(greeting);
    text.append(Password);
    char digest[33];
    Md5Hex(digest, text.pData, text.nSize);
    WriteLog("[Sending MD5 Digest]");
    ClientRequest.assign("APOP ").append(UserName).append(" ").append(digest).append("\r\n");
    if (!SendAndCheck()) return FailLogin(213, "[Possible error reason: incorrect UserName and/or Password]");
    return true;
}

void CPOP3::SetTokenRequest(const bstring& token) {
    EncodeBase64(ClientRequest, token.pData, token.nSize, false, false);
    ClientRequest.append("\r\n");
}

bool CPOP3::TakeChallenge(bstring& challenge) {
    int32_t offset = SecondWordOffset(ServerResponse);
    if (offset < 0 || offset > ServerResponse.nSize - 2)
        return FailLogin(212, nullptr, "[Error: Incorrect NTLM/MSN/GSSAPI Challenge]");
    DecodeBase64(challenge, ServerResponse, offset, ServerResponse.nSize - 2);
    return true;
}

bool CPOP3::LoginNegotiate() {
    WriteLog("[Using NTLM/MSN/GSSAPI authentication]");
    const char* command = "AUTH GSSAPI\r\n";
    const char* reason = "[Possible error reason: GSSAPI authentication type (auth gssapi command) is not "
                         "supported by this server]";
    if (AuthMethod == kPop3AuthNtlm) {
        command = "AUTH NTLM\r\n";
        reason = "[Possible error reason: NTLM authentication type (auth ntlm command) is not supported by "
                 "this server]";
    } else if (AuthMethod == kPop3AuthMsn) {
        command = "AUTH MSN\r\n";
        reason = "[Possible error reason: MSN authentication type (auth msn command) is not supported by "
                 "this server]";
    }
    WriteLogEscaped("[Sending ", bstring(command), "]");
    if (!SendAndCheck(command)) return FailLogin(211, reason);

    CNegotiate negotiate(ServerName, "POP3", TargetName, UserDomain, UserName, Password,
                         AuthMethod == kPop3AuthGssapiKerberos);
    auto refused = [this] {
        ErrCode = 212;
        Socket.Disconnect();
        if (!Aborted) {
            WriteLog("[Error: Incorrect credentials]");
            LogResponse();
            WriteLog("[Possible error reason: incorrect domain name, username or password]");
        }
        return false;
    };
    const char* wrong_password = "[Possible error reason: incorrect UserName and/or Password]";

    bstring token, challenge;
    if (CNegotiate::Failed(negotiate.CreateRequest(token))) return refused();
    SetTokenRequest(token);
    WriteLog("[Sending NTLM/MSN/GSSAPI Request]");
    if (!SendAndCheck()) return FailLogin(212);

    if (!TakeChallenge(challenge)) return false;
    if (CNegotiate::Failed(negotiate.CreateResponse(token, challenge))) return refused();
    SetTokenRequest(token);
    WriteLog("[Sending NTLM/MSN/GSSAPI Response]");
    if (!SendAndCheck()) return FailLogin(213, wrong_password);
    if (ServerResponse.nSize < 2 || ServerResponse.pData[1] != ' ') return true;

    // A further step: the security-layer offer that ends a Kerberos login.
    if (!TakeChallenge(challenge)) return false;
    if (CNegotiate::Failed(negotiate.CreateFinalResponse(token, challenge))) return refused();
    SetTokenRequest(token);
    WriteLog("[Sending NTLM/MSN/GSSAPI Response]");
    if (!SendAndCheck()) return FailLogin(213, wrong_password);
    // The closing reply must carry text behind its status word.
    return TakeChallenge(challenge);
}

bool CPOP3::LoginXoauth2() {
    WriteLogEscaped("[Sending ", bstring("AUTH XOAUTH2\r\n"), "]");
    if (!SendAndCheck("AUTH XOAUTH2\r\n"))
        return FailLogin(211, "[Possible error reason: XOAUTH2 authentication type (auth xoauth2 command) is not "
                              "supported by this server]");
    bstring text("user=");
    text.append(UserName).append("\x01" "auth=Bearer ").append(Password).append("\x01\x01");
    SetTokenRequest(text);
    WriteLog("[Sending XOAUTH2 client response]");
    if (!SendAndCheck())
        return FailLogin(213, "[Possible error reason: incorrect UserName and/or OAuth2 access token]");
    if (ServerResponse.nSize >= 2 && ServerResponse.pData[1] == ' ')
        return FailLogin(213, "[Possible error reason: incorrect UserName and/or OAuth2 access token (if you "
                              "decode server reply from base64, you may get more information)]");
    return true;
}

bool CPOP3::DisconnectPOP3() {
    MultilineExpected = 0;
    if (!SendAndCheck("QUIT\r\n") && !IsResponseReceived()) return FailLogin(216);
    int32_t r = Socket.Disconnect();
    if (r != 0) {
        ErrCode = Socket.LastError;
        bstring line("[Error: Socket.Disconnect returned code ");
        line.append_int(r).append("]");
        WriteLog(line.pData, line.nSize);
        return false;
    }
    return true;
}

bool CPOP3::EnsureConnected() { return Connected || ConnectPOP3Complete(); }

// ---- retrieval --------------------------------------------------------------------------

bool CPOP3::FireStateEvent() {
    if (!EventsEnabled()) return true;
    int32_t id = Phase == 2 ? kOnMessageComplete
                 : Phase == kPop3Retrieving ? kOnReceiveStart
                 : Phase == kPop3MessageReceived ? kOnReceiveComplete
                                                : 0;
    if (!id || FireWithProceed(id, {MakeI4(CurrentIndex)})) return true;
    CancelByUser(202);
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
        SetError("[Error: Message index is out of range]", 203);
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
        FailCommand(216);
        if (!Aborted)
            Describe("[Error: message/headers retrieving failed]");
        else
            CancelByUser(202);
        return false;
    }
    Phase = kPop3MessageReceived;
    if (!FireStateEvent()) return false;

    WriteLog("[Message data received, decoding the message]");
    message->m_bsRawBody.reserve(ServerResponse.nSize);
    UnstuffResponse(ServerResponse, message->m_bsRawBody);
    message->m_nAltBodyOptions = altBodyOptions;
    message->m_wsAltBodyHRefSuffix = AltBodyHRefSuffix;
    message->ImportRawMessage(bodyLines >= 0, listed);

    Phase = 2;
    if (!FireStateEvent()) return false;
    WriteLog("[The message is ready]");
    ErrCode = 0;
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
        FailCommand(216);
        Describe("[Error: UIDL failed]");
        return false;
    }
    IsError = false;
    Phase = 2;
    ErrCode = 0;
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
    if (SendAndCheck()) {
        Phase = 2;
        IsError = false;
        ErrCode = 0;
        return true;
    }
    FailCommand(216);
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
    ErrCode = 0;
    *out = Bool(ConnectPOP3Complete());
    return S_OK;
}

HRESULT CPOP3::Disconnect(VARIANT_BOOL* out) {
    MailerCall call(*this, true);
    if (call.refused()) return *out = VARIANT_FALSE, S_OK;
    bool ok = false;
    if (Connected) {
        Phase = 3;
        WriteLog("[Disconnecting from the server]");
        ok = DisconnectPOP3();
        Connected = false;
        IsError = !ok;
        if (ok)
            ErrCode = 0;
        else
            Describe("[Error: Disconnection failure]");
        WriteLog("[Connection closed]");
    } else {
        Describe("[Error: Not connected]");
        ErrCode = 1;
    }
    Phase = 0;
    *out = Bool(ok);
    return S_OK;
}

HRESULT CPOP3::RetrieveSingleMessage(int32_t index, IDispatch** out) {
    return RetrieveSingleMessageHeaders(index, -1, out);
}

HRESULT CPOP3::RetrieveSingleMessageHeaders(int32_t index, int32_t bodyLinesCount, IDispatch** out) {
    *out = nullptr;
    MailerCall call(*this);
    if (call.refused()) return S_OK;
    CMessage* message = CMessage::New();
    if (RetrieveMessageFromPOP3(message, index, bodyLinesCount, AltBodyOptions))
        *out = message;
    else
        message->Release();
    return S_OK;
}

HRESULT CPOP3::RetrieveHeaders(int32_t first, int32_t last, int32_t bodyLinesCount, IDispatch** out) {
    *out = nullptr;
    MailerCall call(*this);
    if (call.refused()) return S_OK;
    if (first < 1) {
        SetError("[Error: Message index is less than 1]", 203);
        return S_OK;
    }
    if (!EnsureConnected()) return S_OK;
    if (last < 0 || last > MessageCount) last = MessageCount;
    CMessages* messages = CMessages::New();
    *out = messages;
    for (int32_t index = first; index <= last; ++index) {
        CMessage* message = CMessage::New();
        if (!RetrieveMessageFromPOP3(message, index, bodyLinesCount, AltBodyOptions)) {
            message->Release();
            break;
        }
        messages->m_coll.push_back(message);
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
        SetError("[Error: Message index is out of range]", 203);
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
            IsError = false;
            Phase = 2;
            ErrCode = 0;
        } else {
            FailCommand(216);
            Describe("[Error: Custom command failed]");
        }
    }
    return ReturnText(ServerResponse, out);
}

HRESULT CPOP3::get_Size(int32_t index, int32_t* out) {
    if (!IndexInRange(index)) {
        *out = -1;
        ErrCode = 203;
        IsError = true;
        ErrDesc.assign("[Error: Message index is out of range]");
        return S_OK;
    }
    *out = size_t(index) <= MessageSizes.size() ? MessageSizes[size_t(index - 1)] : 0;
    IsError = false;
    ErrCode = 0;
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
        if (EqualsIgnoringCase(UIDs[i], wanted)) return *out = int32_t(i + 1), S_OK;
    IsError = true;
    ErrCode = 203;
    ErrDesc.assign("[Error: UID value not found]");
    return S_OK;
}

HRESULT CPOP3::GetMessageUID(int32_t messageNumber, BSTR* out) {
    *out = nullptr;
    if (!IndexInRange(messageNumber)) {
        SetError("[Error: Message index is out of range]", 203);
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

HRESULT CPOP3::ClearLog(VARIANT_BOOL* out) {
    *out = Bool(GenericMailer::ClearLog());
    return S_OK;
}

HRESULT CPOP3::Abort(VARIANT_BOOL* out) {
    *out = Bool(GenericMailer::Abort());
    return S_OK;
}

// ---- properties ------------------------------------------------------------------------

HRESULT CPOP3::get_AuthMethod(int32_t* out) { return *out = AuthMethod, S_OK; }
HRESULT CPOP3::put_AuthMethod(int32_t value) {
    if (value >= 0) AuthMethod = value;
    return S_OK;
}
HRESULT CPOP3::get_Timeout(int32_t* out) { return *out = Socket.Timeout, S_OK; }
HRESULT CPOP3::put_Timeout(int32_t value) { return Socket.Timeout = value, S_OK; }
HRESULT CPOP3::get_Connected(VARIANT_BOOL* out) { return *out = Bool(Connected), S_OK; }
HRESULT CPOP3::get_EnableLogging(VARIANT_BOOL* out) { return *out = Bool(EnableLogging), S_OK; }
HRESULT CPOP3::put_EnableLogging(VARIANT_BOOL value) { return EnableLogging = value != 0, S_OK; }
HRESULT CPOP3::get_ErrDesc(BSTR* out) { return ReturnText(ErrDesc, out); }
HRESULT CPOP3::get_IsError(VARIANT_BOOL* out) { return *out = Bool(IsError), S_OK; }
HRESULT CPOP3::get_MessageCount(int32_t* out) { return *out = MessageCount, S_OK; }
HRESULT CPOP3::get_LogFilePath(BSTR* out) { return *out = LogFilePath.to_bstr(), S_OK; }
HRESULT CPOP3::put_LogFilePath(BSTR value) { return LogFilePath.assign_bstr(value), S_OK; }
HRESULT CPOP3::get_ServerName(BSTR* out) { return ReturnText(ServerName, out); }
HRESULT CPOP3::put_ServerName(BSTR value) { return ServerName.assign_bstr(value), S_OK; }

HRESULT CPOP3::get_SSL(IDispatch** out) {
    if (SSLObject) SSLObject->AddRef();
    *out = SSLObject;
    return S_OK;
}

HRESULT CPOP3::putref_SSL(IDispatch* value) {
    if (Connected) return S_OK;
    CSSL* ssl = CSSL::FromDispatch(value);
    if (value && !ssl) return DISP_E_TYPEMISMATCH;
    if (ssl) ssl->AddRef();
    if (SSLObject) SSLObject->Release();
    SSLObject = ssl;
    Socket.Crypt = ssl ? &ssl->Crypt : nullptr;
    return S_OK;
}

HRESULT CPOP3::get_AltBodyOptions(int32_t* out) { return *out = AltBodyOptions, S_OK; }
HRESULT CPOP3::put_AltBodyOptions(int32_t value) { return AltBodyOptions = value, S_OK; }
HRESULT CPOP3::get_AltBodyHRefSuffix(BSTR* out) { return *out = AltBodyHRefSuffix.to_bstr(), S_OK; }
HRESULT CPOP3::put_AltBodyHRefSuffix(BSTR value) { return AltBodyHRefSuffix.assign_bstr(value), S_OK; }
HRESULT CPOP3::get_UserDomain(BSTR* out) { return ReturnText(UserDomain, out); }
HRESULT CPOP3::put_UserDomain(BSTR value) { return UserDomain.assign_bstr(value), S_OK; }
HRESULT CPOP3::get_TargetName(BSTR* out) { return ReturnText(TargetName, out); }
HRESULT CPOP3::put_TargetName(BSTR value) { return TargetName.assign_bstr(value), S_OK; }
HRESULT CPOP3::get_UserName(BSTR* out) { return ReturnText(UserName, out); }
HRESULT CPOP3::put_UserName(BSTR value) { return UserName.assign_bstr(value), S_OK; }
HRESULT CPOP3::get_Password(BSTR* out) { return ReturnText(Password, out); }
HRESULT CPOP3::put_Password(BSTR value) { return Password.assign_bstr(value), S_OK; }
HRESULT CPOP3::get_PortNumber(int32_t* out) { return *out = PortNumber, S_OK; }
HRESULT CPOP3::put_PortNumber(int32_t value) { return PortNumber = value, S_OK; }
HRESULT CPOP3::get_EnableEvents(VARIANT_BOOL* out) { return *out = Bool(EventsEnabled()), S_OK; }
HRESULT CPOP3::put_EnableEvents(VARIANT_BOOL value) { return SetEventsEnabled(value != 0), S_OK; }
HRESULT CPOP3::get_TotalSize(int32_t* out) { return *out = TotalSize, S_OK; }
HRESULT CPOP3::get_ServerResponse(BSTR* out) { return ReturnText(ServerResponse, out); }
HRESULT CPOP3::get_ClientRequest(BSTR* out) { return ReturnText(ClientRequest, out); }
HRESULT CPOP3::get_Busy(VARIANT_BOOL* out) { return *out = Bool(Busy), S_OK; }
HRESULT CPOP3::get_ErrCode(int32_t* out) { return *out = ErrCode, S_OK; }
// Code pages are the message's business; the session keeps none.
HRESULT CPOP3::get_CodepageMode(int32_t* out) { return *out = 0, S_OK; }
HRESULT CPOP3::put_CodepageMode(int32_t) { return S_OK; }
HRESULT CPOP3::get_Codepage(int32_t* out) { return *out = 0, S_OK; }
HRESULT CPOP3::put_Codepage(int32_t) { return S_OK; }

namespace shell {

// clang-format off
const InterfaceInfo kIPOP3("IPOP3", IID_IPOP3, {
    Method(1, "Connect", VT_BOOL, Bind<&CPOP3::Connect>(),
           {Opt("ServerName", VT_BSTR, ""), Opt("PortNumber", VT_I4, 0), Opt("UserName", VT_BSTR, ""),
            Opt("Password", VT_BSTR, ""), Opt("UserDomain", VT_BSTR, ""), Opt("TargetName", VT_BSTR, "")}),
    Method(2, "Disconnect", VT_BOOL, Bind<&CPOP3::Disconnect>()),
    Method(3, "RetrieveSingleMessage", VT_DISPATCH, Bind<&CPOP3::RetrieveSingleMessage>(), {Arg("Index", VT_I4)}),
    Method(4, "RetrieveSingleMessageHeaders", VT_DISPATCH, Bind<&CPOP3::RetrieveSingleMessageHeaders>(),
           {Arg("Index", VT_I4), Opt("BodyLinesCount", VT_I4, 0)}),
    Property(5, "AuthMethod", VT_I4, Bind<&CPOP3::get_AuthMethod>(), Bind<&CPOP3::put_AuthMethod>()),
    Property(6, "Timeout", VT_I4, Bind<&CPOP3::get_Timeout>(), Bind<&CPOP3::put_Timeout>()),
    Method(7, "RetrieveHeaders", VT_DISPATCH, Bind<&CPOP3::RetrieveHeaders>(),
           {Opt("First", VT_I4, 1), Opt("Last", VT_I4, -1), Opt("BodyLinesCount", VT_I4, 0)}),
    Method(8, "RetrieveMessages", VT_DISPATCH, Bind<&CPOP3::RetrieveMessages>(),
           {Opt("First", VT_I4, 1), Opt("Last", VT_I4, -1)}),
    Property(11, "Connected", VT_BOOL, Bind<&CPOP3::get_Connected>()),
    Property(12, "EnableLogging", VT_BOOL, Bind<&CPOP3::get_EnableLogging>(), Bind<&CPOP3::put_EnableLogging>()),
    Property(13, "ErrDesc", VT_BSTR, Bind<&CPOP3::get_ErrDesc>()),
    Property(14, "IsError", VT_BOOL, Bind<&CPOP3::get_IsError>()),
    Property(15, "MessageCount", VT_I4, Bind<&CPOP3::get_MessageCount>()),
    Property(16, "LogFilePath", VT_BSTR, Bind<&CPOP3::get_LogFilePath>(), Bind<&CPOP3::put_LogFilePath>()),
    Property(17, "ServerName", VT_BSTR, Bind<&CPOP3::get_ServerName>(), Bind<&CPOP3::put_ServerName>()),
    PropertyRef(36, "SSL", VT_DISPATCH, Bind<&CPOP3::get_SSL>(), Bind<&CPOP3::putref_SSL>()),
    Property(37, "AltBodyOptions", VT_I4, Bind<&CPOP3::get_AltBodyOptions>(), Bind<&CPOP3::put_AltBodyOptions>()),
    Property(38, "AltBodyHRefSuffix", VT_BSTR, Bind<&CPOP3::get_AltBodyHRefSuffix>(),
             Bind<&CPOP3::put_AltBodyHRefSuffix>()),
    Method(39, "GetMessageNumberFromUID", VT_I4, Bind<&CPOP3::GetMessageNumberFromUID>(), {Arg("UID", VT_BSTR)}),
    Method(40, "GetMessageUID", VT_BSTR, Bind<&CPOP3::GetMessageUID>(), {Arg("MessageNumber", VT_I4)}),
    Property(42, "UserDomain", VT_BSTR, Bind<&CPOP3::get_UserDomain>(), Bind<&CPOP3::put_UserDomain>()),
    Property(43, "TargetName", VT_BSTR, Bind<&CPOP3::get_TargetName>(), Bind<&CPOP3::put_TargetName>()),
    Method(44, "GetLastReceivedDataChunk", VT_BSTR, Bind<&CPOP3::GetLastReceivedDataChunk>()),
    Property(18, "UserName", VT_BSTR, Bind<&CPOP3::get_UserName>(), Bind<&CPOP3::put_UserName>()),
    Property(19, "Password", VT_BSTR, Bind<&CPOP3::get_Password>(), Bind<&CPOP3::put_Password>()),
    Property(20, "PortNumber", VT_I4, Bind<&CPOP3::get_PortNumber>(), Bind<&CPOP3::put_PortNumber>()),
    Method(21, "ClearLog", VT_BOOL, Bind<&CPOP3::ClearLog>()),
    Method(22, "DeleteMessage", VT_BOOL, Bind<&CPOP3::DeleteMessage>(), {Arg("Index", VT_I4)}),
    Method(23, "SendCommand", VT_BSTR, Bind<&CPOP3::SendCommand>(),
           {Arg("Command", VT_BSTR), Opt("ExpectMultilineResponse", VT_BOOL, false)}),
    Method(24, "Ping", VT_BOOL, Bind<&CPOP3::Ping>()),
    Property(25, "Size", VT_I4, Bind<&CPOP3::get_Size>(), {}, {Arg("Index", VT_I4)}),
    Property(26, "EnableEvents", VT_BOOL, Bind<&CPOP3::get_EnableEvents>(), Bind<&CPOP3::put_EnableEvents>()),
    Property(27, "TotalSize", VT_I4, Bind<&CPOP3::get_TotalSize>()),
    Property(28, "ServerResponse", VT_BSTR, Bind<&CPOP3::get_ServerResponse>()),
    Property(29, "ClientRequest", VT_BSTR, Bind<&CPOP3::get_ClientRequest>()),
    Property(30, "Busy", VT_BOOL, Bind<&CPOP3::get_Busy>()),
    Method(31, "Abort", VT_BOOL, Bind<&CPOP3::Abort>()),
    Property(32, "ErrCode", VT_I4, Bind<&CPOP3::get_ErrCode>()),
    Property(33, "CodepageMode", VT_I4, Bind<&CPOP3::get_CodepageMode>(), Bind<&CPOP3::put_CodepageMode>()),
    Property(34, "Codepage", VT_I4, Bind<&CPOP3::get_Codepage>(), Bind<&CPOP3::put_Codepage>()),
    Method(35, "Search", VT_VARIANT, Bind<&CPOP3::Search>()),
});

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
