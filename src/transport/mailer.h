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
// Two failure roads, never mixed. After a failed SendAndCheck the session
// asks ResolveFailure: a complete answer means the server refused (the
// session stays up, the protocol decides what next); anything else means the
// connection is gone, and it is closed.
#pragma once

#include <cstdint>
#include <initializer_list>

#include "automation/connection_point.h"
#include "foundation/bstring.h"
#include "transport/ws2.h"

namespace kv {

// The version text of the banner line.
inline constexpr const char* kMailerVersion = "v9.4.1.274D";

class GenericMailer {
public:
    GenericMailer() = default;
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

    // The two roads after a failed SendAndCheck (or ReceiveAndCheck).
    enum class Failure { Refused, ConnectionGone };
    // Refused: ErrCode = refused_code; the session stays up. ConnectionGone:
    // ErrCode = Socket.LastError, the connection is closed (Phase 3, then 0)
    // and logged; with aborted_line, an abort (code 7) is logged as
    // "[Operation aborted. Connection closed.]" instead.
    Failure ResolveFailure(int32_t refused_code, bool aborted_line = false);
    // Closes the connection as after a network failure, with the log line.
    void CloseAfterNetworkFailure(bool aborted_line = false);

    // ---- the session log ----
    // One line "hh:mm:ss <text>\r\n", appended when logging is on and a path
    // is set. Returns false when nothing was written.
    bool WriteLog(const char* text, int32_t length = -1);
    // text with each CRLF shown as the four characters \r\n, between prefix
    // and suffix.
    bool WriteLogEscaped(const char* prefix, const bstring& text, const char* suffix);
    // "[Server responded: ...]", or "[Server returned no response]" below 2
    // bytes (no_response replaces that text, e.g. for IMAP4).
    bool LogResponse(const char* no_response = "[Server returned no response]");
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
