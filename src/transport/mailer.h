// GenericMailer: what the POP3, SMTP and IMAP4 sessions share. It owns the
// connection, the request buffer and the response buffer, and runs the
// request-and-response cycle; a protocol adds only two decisions: is the
// response in the buffer complete, and is it positive.
//
// Around the cycle stands the convention of the three automation objects,
// also kept here: the Busy frame, the error state (IsError, ErrCode,
// ErrDesc), the session log, Abort, and events with a Proceed argument fired
// through the derived object's connection point.
//
// Above the cycle stands the engine of a session, the same for every
// protocol: the connection properties, the TLS upgrade, the logins (through
// transport/login.h), QUIT, and the two failure roads, never mixed. After a
// failed SendAndCheck the session asks one question: did a whole response
// arrive? If so the server refused: the session stays up or closes by the
// rule of the step (FailCommand, FailClosing). If not, the connection is gone
// and it is closed (CloseAfterNetworkFailure).
#pragma once

#include <cstdint>
#include <initializer_list>

#include "automation/connection_point.h"
#include "automation/interfaces.h"
#include "foundation/bstring.h"
#include "transport/ws2.h"

namespace kv {

class CSSL;

// The version text of the banner line.
inline constexpr const char* kMailerVersion = "v9.4.1.274D";

// Where a session stands; protocols number their own phases from 4.
enum SessionPhase : int32_t {
    kPhaseIdle = 0,
    kPhaseConnecting = 1,
    kPhaseReady = 2,
    kPhaseDisconnecting = 3,
};

// The codes every session shares; below 100 the socket layer's own codes
// (WS2) come through as they are.
enum SessionError : int32_t {
    kErrNone = 0,
    kErrNotConnected = 1,
    kErrAlreadyConnected = 2,
    kErrAborted = 7,  // WS2: the wait ended by Abort
    kErrStartTlsRefused = 11,
    kErrTlsInit = 12,
};

class GenericMailer {
public:
    GenericMailer();
    GenericMailer(const GenericMailer&) = delete;
    GenericMailer& operator=(const GenericMailer&) = delete;

    // ---- the decisions of a protocol and its hooks, in slot order ----
    virtual bool IsResponsePositive() = 0;
    virtual bool IsResponseReceived() = 0;
    // After each chunk received (also the one that completes the response);
    // false cancels the cycle.
    virtual bool OnDataReceived(int32_t bytes) { return true; }
    // After each send; false cancels.
    virtual bool OnDataSent(const char* data, int32_t bytes) { return true; }
    // Fills ServerResponse until IsResponseReceived. 1 complete; 0 failed:
    // the connection failed, the server closed (even after a complete
    // response), or OnDataReceived said stop (Aborted 1).
    virtual bool ReceiveServerResponse();
    virtual ~GenericMailer();

    // ---- the login hooks (login.h); the defaults are POP3's and SMTP's shape ----
    // ClientRequest = the command that starts an exchange: "AUTH <name>\r\n".
    virtual void SetAuthCommand(const char* mechanism);
    // The complete positive response asks for another step.
    virtual bool IsChallenge() = 0;
    // Where the challenge of the response starts and ends (base64 text, a
    // line end may stand inside); false when there is none.
    virtual bool ChallengeSpan(int32_t& begin, int32_t& end) = 0;

    // ---- the cycle's fields, in order ----
    WS2 Socket;
    bstring ClientRequest;
    bstring ServerResponse;
    int32_t MultilineExpected = 0;
    int32_t Aborted = 0;
    int32_t ServerDataCursor = 0;
    const char* SentData = nullptr;  // what GetLastDataFromClient reads
    int32_t SentCursor = 0;
    int32_t SentTotal = 0;
    int32_t LastChunkSize = 0;
    int32_t ResponseComplete = 0;
    // A response may not grow past this many bytes: the cycle fails instead
    // (as a socket error), so a server cannot exhaust memory.
    int32_t ResponseLimit = 0x40000000;

    // ---- the cycle: each gives true on success ----
    bool SendRequest();                  // sends ClientRequest
    bool SendRequest(const char* text);  // copies text into ClientRequest, sends it
    // Sends bytes that stay where they are; the caller points SentData first.
    bool SendBytes(const char* data, int32_t length);
    bool ReceiveAndCheck();
    bool SendAndCheck();
    bool SendAndCheck(const char* text);

    // ---- the convention of the automation objects ----
    bool Busy = false;
    bool Connected = false;
    bool IsError = false;
    bstring ErrDesc;
    int32_t ErrCode = 0;
    int32_t Phase = 0;  // 0 idle, 1 connecting, 2 ready, 3 disconnecting, 4+ by protocol
    bool EnableLogging = false;
    wbstring LogFilePath;
    // The derived object's event source; set by it at construction.
    automation::ConnectionPoint* EventSource = nullptr;
    // An abort (code 7) that ends a step is logged as "[Operation aborted.
    // Connection closed.]" alone, in place of the usual error lines (POP3).
    bool QuietAbort = false;

    // ---- the connection properties ----
    bstring ServerName{"localhost"};
    int32_t PortNumber = 0;  // each protocol sets its default
    bstring UserName;
    bstring Password;
    bstring UserDomain;
    bstring TargetName;
    int32_t AuthMethod = 0;
    // The TLS settings and channel; null: no TLS. A new session holds its
    // own with Enabled 0. Socket.Crypt follows it (SetSSL).
    automation::ComPtr<CSSL> SSLObject;

    // The Busy frame of every interface method:
    //   MailerCall call(*this);
    //   if (call.refused()) return <false or null result>;
    // Entering clears the state of the last call (ErrDesc, both buffers'
    // sizes, IsError to initial_error) and sets Busy; leaving clears Busy. A
    // busy session is refused and left untouched, without a log line.
    class MailerCall {
    public:
        explicit MailerCall(GenericMailer& m, bool initial_error = false);
        ~MailerCall();
        MailerCall(const MailerCall&) = delete;
        bool refused() const { return refused_; }

    private:
        GenericMailer& m_;
        bool refused_;
    };

    // EnableEvents: the inverse of Socket.Blocking; no change while connected.
    bool EventsEnabled() const { return Socket.Blocking == 0; }
    void SetEventsEnabled(bool on) { Socket.SetBlocking(on ? 0 : 1); }
    // True and Socket.Running cleared when a call is running; false otherwise.
    bool Abort();

    // Fires an event whose last argument is Proceed, through EventSource, and
    // gives Proceed's answer; true without firing when events are off.
    bool FireWithProceed(int32_t dispid, std::initializer_list<VARIANT> args);
    // The user's "no": IsError, closes a connected session, ErrCode code,
    // ErrDesc "[Error: Operation cancelled by user. Connection closed.]",
    // logged.
    void CancelByUser(int32_t code);

    // IsError 0, Phase 2, ErrCode 0: a step that succeeded.
    void Ready();

    // ---- the engine of a session ----
    // A TLS object of the session's own, with Enabled 0: what a new session holds.
    void UseOwnSSL();
    // Replaces the TLS object (null: none); false when ssl is not a CSSL of
    // this library. The caller refuses the change while connected.
    bool SetSSL(IDispatch* ssl);
    // SSLObject with Enabled: TLS from the first byte or by the upgrade command.
    bool ImplicitTLS() const;
    bool StartTLSWanted() const;
    // With AutosetPortAndSSL: tls_port turns TLS on from the first byte;
    // plain_port with TLS on turns it into the upgrade.
    void AutosetTLS(int32_t tls_port, int32_t plain_port);
    // Socket.Connect to ServerName and PortNumber; false with ErrCode and the
    // line "[Error: Socket.Connect returned code r]".
    bool OpenConnection();
    // Starts TLS on the connection: "[Initiating SSL Connection]"; on failure
    // ErrCode (WS2's, else 12), the socket closed, "[Error: SSL Init Failed]".
    bool StartSSL();
    // "[Switching to SSL over regular port mode]", the upgrade command (a
    // refusal closes with 11 and reason), then StartSSL.
    bool UpgradeToTLS(const char* command, const char* reason);
    // The protocol's goodbye on a connected session (QUIT, LOGOUT) and the
    // socket closed; false when that failed, with ErrCode set.
    virtual bool Logout() = 0;
    // Told when the connection ended under the session (a network failure,
    // a cancel), for state that lives only as long as the connection.
    virtual void OnClosed() {}
    // The work of a Disconnect call inside its frame: Logout when connected,
    // with its log lines; "[Error: Not connected]" otherwise, and ErrCode
    // not_connected_code unless it is negative. Phase ends at 0.
    bool EndSession(int32_t not_connected_code);
    // Sends QUIT and closes the socket. A negative but complete reply is
    // accepted; no reply closes with refused_code (or the socket's error).
    bool Quit(const char* command, int32_t refused_code);

    // ---- the two failure roads ----
    // A failed step that ends the connection: ErrCode = code when a whole
    // reply came, else the socket's error; the socket closed; logged:
    // error_line (or "[Error: Negative or void server response]"), the
    // response, and reason when the server said something. Always false.
    bool FailClosing(int32_t code, const char* reason = nullptr, const char* error_line = nullptr);
    // A failed command on a live session: a complete negative reply keeps
    // the session (Phase 2, ErrCode code); anything else closes it.
    void FailCommand(int32_t code);
    // Closes the connection as after a network failure, with the log line.
    void CloseAfterNetworkFailure();
    // Sets the error without touching ErrCode: IsError, ErrDesc, logged.
    void Describe(const char* text);

    // ---- the members every session object binds (session_members.h) ----
    HRESULT AbortCall(VARIANT_BOOL* out);
    HRESULT ClearLogCall(VARIANT_BOOL* out);
    HRESULT get_EnableEvents(VARIANT_BOOL* out);
    HRESULT put_EnableEvents(VARIANT_BOOL value);
    HRESULT get_SSL(IDispatch** out);
    // Refused (no change) while connected; DISP_E_TYPEMISMATCH for an object
    // that is not an SSL object of this library.
    HRESULT putref_SSL(IDispatch* value);
    int32_t& TimeoutSeconds() { return Socket.Timeout; }
    // A new LogFilePath gets the banner again at the next connect of a
    // protocol that writes it once (BannerDue).
    void LogPathChanged() { BannerDue = true; }
    bool BannerDue = true;

    // ---- the session log ----
    // One line "hh:mm:ss <text>\r\n", appended when logging is on and a path
    // is set. Returns false when nothing was written.
    bool WriteLog(const char* text, int32_t length = -1);
    // text with each CRLF shown as the four characters \r\n, between prefix
    // and suffix.
    bool WriteLogEscaped(const char* prefix, const bstring& text, const char* suffix);
    // "[Server responded: ...]", or "[Server returned no response]" below 2
    // bytes. IMAP4 shows its status line and says so in its own words.
    virtual bool LogResponse();
    // Sets the error: IsError 1, ErrDesc = text, ErrCode = code, logged.
    void SetError(const char* text, int32_t code);
    // "[Possible error reason: " lines are written only when the server said
    // something (a response of at least 3 bytes).
    bool LogReason(const char* text);
    // The first line at a connect: "[Korvane <protocol> v9.4.1.274D]".
    bool LogBanner(const char* protocol);
    // Empties the log file. False when logging is off (no error) or the file
    // cannot be opened (IsError, ErrDesc names the path; ErrCode stays).
    bool ClearLog();
};

}  // namespace kv
