#include "transport/mailer.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "foundation/trace.h"
#include "platform/files.h"
#include "transport/ssl.h"

namespace kv {

GenericMailer::GenericMailer() = default;
GenericMailer::~GenericMailer() { Socket.Crypt = nullptr; }

void GenericMailer::SetAuthCommand(const char* mechanism) {
    ClientRequest.assign("AUTH ").append(mechanism).append("\r\n");
}

// ---- the cycle ----

bool GenericMailer::SendRequest() {
    SentData = ClientRequest.pData;
    SentCursor = 0;
    SentTotal = 0;
    return SendBytes(ClientRequest.pData, ClientRequest.nSize);
}

bool GenericMailer::SendRequest(const char* text) {
    ClientRequest.assign(text ? text : "");
    return SendRequest();
}

bool GenericMailer::SendBytes(const char* data, int32_t length) {
    if (Socket.Send(data ? data : "", data ? length : 0) != 0) {
        Aborted = Socket.Running ? 0 : 1;
        return false;
    }
    SentTotal += length;
    if (OnDataSent(data, length)) return true;
    Aborted = 1;
    return false;
}

bool GenericMailer::ReceiveAndCheck() {
    Aborted = 0;
    return ReceiveServerResponse() && IsResponsePositive();
}

bool GenericMailer::SendAndCheck() {
    Aborted = 0;
    return SendRequest() && ReceiveServerResponse() && IsResponsePositive();
}

bool GenericMailer::SendAndCheck(const char* text) {
    Aborted = 0;
    return SendRequest(text) && ReceiveServerResponse() && IsResponsePositive();
}

bool GenericMailer::ReceiveServerResponse() {
    int32_t leftover = 0;
    bool complete = false;
    ServerResponse.nSize = 0;
    ServerDataCursor = 0;
    ResponseComplete = 0;
    while (!complete) {
        if (ServerResponse.nSize >= ServerResponse.nCapacity) {
            if (ServerResponse.nCapacity > ResponseLimit - 0x10000) {
                Socket.LastError = 8;
                Aborted = 0;
                return false;
            }
            ServerResponse.reserve(ServerResponse.nCapacity + 0x10000);
        }
        int32_t got = 0;
        int32_t r = Socket.Get(ServerResponse.pData + ServerResponse.nSize,
                               ServerResponse.nCapacity - ServerResponse.nSize, got, leftover);
        Trace("ReceiveServerResponse A");
        if (r != 0 && r != -3) {
            Trace("ReceiveServerResponse A.1");
            Aborted = Socket.Running ? 0 : 1;
            return false;
        }
        if (got < 0) got = 0;
        ServerResponse.nSize += got;
        LastChunkSize = got;
        Trace("ReceiveServerResponse 0");
        complete = IsResponseReceived();
        Trace("ReceiveServerResponse 1");
        ResponseComplete = complete ? 1 : 0;
        if (r == -3) {
            Aborted = Socket.Running ? 0 : 1;
            return false;
        }
        Trace("IsResponseReceived 2");
        if (!OnDataReceived(got)) {
            Aborted = 1;
            Trace("IsResponseReceived 3");
            return false;
        }
        Trace("IsResponseReceived 4");
    }
    return true;
}

// ---- the convention of the automation objects ----

GenericMailer::MailerCall::MailerCall(GenericMailer& m, bool initial_error) : m_(m), refused_(m.Busy) {
    if (refused_) return;
    m_.ErrDesc.nSize = 0;
    m_.ClientRequest.nSize = 0;
    m_.ServerResponse.nSize = 0;
    m_.IsError = initial_error;
    m_.Busy = true;
}

GenericMailer::MailerCall::~MailerCall() {
    if (!refused_) m_.Busy = false;
}

bool GenericMailer::Abort() {
    if (!Busy) return false;
    Socket.Running = 0;
    return true;
}

bool GenericMailer::FireWithProceed(int32_t dispid, std::initializer_list<VARIANT> args) {
    if (!EventsEnabled() || !EventSource) return true;
    return EventSource->FireWithProceed(dispid, args);
}

void GenericMailer::CancelByUser(int32_t code) {
    IsError = true;
    if (Connected) {
        Phase = kPhaseDisconnecting;
        Socket.Disconnect();
        Connected = false;
        OnClosed();
        Phase = kPhaseIdle;
    }
    SetError("[Error: Operation cancelled by user. Connection closed.]", code);
}

void GenericMailer::Ready() {
    IsError = false;
    Phase = kPhaseReady;
    ErrCode = kErrNone;
}

void GenericMailer::Describe(const char* text) {
    IsError = true;
    ErrDesc.assign(text);
    WriteLog(text);
}

// ---- the engine of a session ----

void GenericMailer::UseOwnSSL() {
    SSLObject = automation::ComPtr<CSSL>::Attach(CSSL::NewForSession());
    Socket.Crypt = &SSLObject->Crypt;
}

bool GenericMailer::SetSSL(IDispatch* ssl) {
    CSSL* object = CSSL::FromDispatch(ssl);
    if (ssl && !object) return false;
    SSLObject = object;
    Socket.Crypt = object ? &object->Crypt : nullptr;
    return true;
}

bool GenericMailer::ImplicitTLS() const { return SSLObject && SSLObject->Enabled && !SSLObject->UseStartTLS; }

bool GenericMailer::StartTLSWanted() const { return SSLObject && SSLObject->Enabled && SSLObject->UseStartTLS; }

void GenericMailer::AutosetTLS(int32_t tls_port, int32_t plain_port) {
    if (!SSLObject || !SSLObject->AutosetPortAndSSL) return;
    if (PortNumber == tls_port) {
        SSLObject->Enabled = 1;
        SSLObject->UseStartTLS = 0;
    } else if (PortNumber == plain_port && SSLObject->Enabled && !SSLObject->UseStartTLS) {
        SSLObject->UseStartTLS = 1;
    }
}

bool GenericMailer::OpenConnection() {
    std::string host(ServerName.pData ? ServerName.pData : "", size_t(ServerName.nSize > 0 ? ServerName.nSize : 0));
    int32_t r = Socket.Connect(host.c_str(), PortNumber);
    if (r == 0) return true;
    bstring line("[Error: Socket.Connect returned code ");
    line.append_int(r).append("]");
    WriteLog(line.pData, line.nSize);
    ErrCode = Socket.LastError;
    return false;
}

bool GenericMailer::StartSSL() {
    WriteLog("[Initiating SSL Connection]");
    int32_t status = SSLObject->Init(&Socket);
    SSLObject->SetStatus(status);
    if (status == 0) return true;  // the channel marks bytes left over from the handshake itself
    ErrCode = Socket.LastError ? Socket.LastError : kErrTlsInit;
    Socket.Disconnect();
    WriteLog("[Error: SSL Init Failed]");
    return false;
}

bool GenericMailer::UpgradeToTLS(const char* command, const char* reason) {
    WriteLog("[Switching to SSL over regular port mode]");
    if (!SendAndCheck(command)) return FailClosing(kErrStartTlsRefused, reason);
    return StartSSL();
}

bool GenericMailer::EndSession(int32_t not_connected_code) {
    bool ok = false;
    if (Connected) {
        Phase = kPhaseDisconnecting;
        WriteLog("[Disconnecting from the server]");
        ok = Logout();
        Connected = false;
        IsError = !ok;
        if (ok)
            ErrCode = kErrNone;
        else
            Describe("[Error: Disconnection failure]");
        WriteLog("[Connection closed]");
    } else {
        Describe("[Error: Not connected]");
        if (not_connected_code >= 0) ErrCode = not_connected_code;
    }
    Phase = kPhaseIdle;
    return ok;
}

bool GenericMailer::Quit(const char* command, int32_t refused_code) {
    if (!SendAndCheck(command) && !IsResponseReceived()) return FailClosing(refused_code);
    int32_t r = Socket.Disconnect();
    if (r == 0) return true;
    ErrCode = Socket.LastError;
    bstring line("[Error: Socket.Disconnect returned code ");
    line.append_int(r).append("]");
    WriteLog(line.pData, line.nSize);
    return false;
}

// ---- the two failure roads ----

bool GenericMailer::FailClosing(int32_t code, const char* reason, const char* error_line) {
    ErrCode = IsResponseReceived() ? code : Socket.LastError;
    Socket.Disconnect();
    if (QuietAbort && ErrCode == kErrAborted) return false;
    WriteLog(error_line ? error_line : "[Error: Negative or void server response]");
    LogResponse();
    if (reason) LogReason(reason);
    return false;
}

void GenericMailer::FailCommand(int32_t code) {
    IsError = true;
    if (!IsResponseReceived()) {
        CloseAfterNetworkFailure();
        return;
    }
    if (Connected) {
        Phase = kPhaseReady;
        ErrCode = code;
    }
}

void GenericMailer::CloseAfterNetworkFailure() {
    ErrCode = Socket.LastError;
    IsError = true;
    Phase = kPhaseDisconnecting;
    Socket.Disconnect();
    Connected = false;
    OnClosed();
    Phase = kPhaseIdle;
    if (QuietAbort && ErrCode == kErrAborted)
        WriteLog("[Operation aborted. Connection closed.]");
    else
        WriteLog("[Connection closed due to network error or timeout.]");
}

// ---- the members every session object binds ----

HRESULT GenericMailer::AbortCall(VARIANT_BOOL* out) {
    *out = Abort() ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
}

HRESULT GenericMailer::ClearLogCall(VARIANT_BOOL* out) {
    *out = ClearLog() ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
}

HRESULT GenericMailer::get_EnableEvents(VARIANT_BOOL* out) {
    *out = EventsEnabled() ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
}

HRESULT GenericMailer::put_EnableEvents(VARIANT_BOOL value) {
    SetEventsEnabled(value != 0);
    return S_OK;
}

HRESULT GenericMailer::get_SSL(IDispatch** out) {
    *out = SSLObject.get();
    if (*out) (*out)->AddRef();
    return S_OK;
}

HRESULT GenericMailer::putref_SSL(IDispatch* value) {
    if (Connected) return S_OK;
    return SetSSL(value) ? S_OK : DISP_E_TYPEMISMATCH;
}

// ---- the session log ----

bool GenericMailer::WriteLog(const char* text, int32_t length) {
    if (!EnableLogging || LogFilePath.nSize < 1) return false;
    if (length < 0) length = text ? int32_t(std::strlen(text)) : 0;
    std::FILE* f = platform::OpenFile(LogFilePath, "ab");
    if (!f) return false;
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char stamp[16];
    std::snprintf(stamp, sizeof stamp, "%02d:%02d:%02d ", local.tm_hour, local.tm_min, local.tm_sec);
    std::string line(stamp);
    line.append(text ? text : "", size_t(length));
    line.append("\r\n");
    bool ok = std::fwrite(line.data(), 1, line.size(), f) == line.size();
    return std::fclose(f) == 0 && ok;
}

bool GenericMailer::WriteLogEscaped(const char* prefix, const bstring& text, const char* suffix) {
    if (!EnableLogging || LogFilePath.nSize < 1) return false;
    std::string line(prefix ? prefix : "");
    line.reserve(line.size() + size_t(text.nSize) + 16);
    for (int32_t i = 0; i < text.nSize; ++i) {
        if (text.pData[i] == '\r' && i + 1 < text.nSize && text.pData[i + 1] == '\n') {
            line.append("\\r\\n");
            ++i;
        } else {
            line.push_back(text.pData[i]);
        }
    }
    if (suffix) line.append(suffix);
    return WriteLog(line.data(), int32_t(line.size()));
}

bool GenericMailer::LogResponse() {
    if (ServerResponse.nSize < 2) return WriteLog("[Server returned no response]");
    return WriteLogEscaped("[Server responded: ", ServerResponse, "]");
}

void GenericMailer::SetError(const char* text, int32_t code) {
    IsError = true;
    ErrDesc.assign(text);
    ErrCode = code;
    WriteLog(text);
}

bool GenericMailer::LogReason(const char* text) {
    if (ServerResponse.nSize < 3) return false;
    return WriteLog(text);
}

bool GenericMailer::LogBanner(const char* protocol) {
    std::string line = std::string("[Korvane ") + protocol + " " + kMailerVersion + "]";
    return WriteLog(line.c_str());
}

bool GenericMailer::ClearLog() {
    IsError = false;
    ErrDesc.nSize = 0;
    if (!EnableLogging) return false;
    std::FILE* f = platform::OpenFile(LogFilePath, "wb");
    if (f && std::fclose(f) == 0) return true;
    IsError = true;
    bstring path;
    LogFilePath.export_bstring(path, 0);
    ErrDesc.assign("[Error: log file \"");
    ErrDesc.append(path);
    ErrDesc.append("\" not available]");
    return false;
}

}  // namespace kv
