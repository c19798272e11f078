// Korvane.SMTP (CSMTP): an SMTP session for scripts. It connects (plain,
// STARTTLS or implicit TLS), greets with HELO or EHLO, logs in by one of the
// methods below, and sends its Message, a message file or a composed message
// to a pickup directory, with progress events whose Proceed can stop it.
//
// The members that shape the message (BodyText, Subject, AddAttachment ...)
// pass straight through to the held Message. The send methods connect first
// when not connected; the session stays up between sends.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "automation/object.h"
#include "foundation/bstring.h"
#include "transport/mailer.h"

namespace kv {

class CMessage;

// The decisions of the protocol: "1", "2" and "3" are positive; a reply is
// complete when its last line has no hyphen after its code; "334" asks for
// the next login step, whose challenge follows the code.
class SMTPMailer : public GenericMailer {
public:
    bool IsResponsePositive() override;
    bool IsResponseReceived() override;
    bool IsChallenge() override;
    bool ChallengeSpan(int32_t& begin, int32_t& end) override;
    // QUIT; a negative but complete reply is accepted.
    bool Logout() override;
    void OnClosed() override;

    bool SupportsDSN = false;       // from EHLO, cleared when the connection ends
    bool SupportsStartTLS = false;  // likewise
};

// The values of AuthMethod.
enum SmtpAuthMethod : int32_t {
    kSmtpAuthNone = 0,  // HELO
    kSmtpAuthPlain = 1,
    kSmtpAuthLogin = 2,
    kSmtpAuthCramMd5 = 3,
    kSmtpAuthNtlm = 4,
    kSmtpAuthMsn = 5,
    kSmtpAuthGssapiNtlm = 6,
    kSmtpAuthGssapiKerberos = 7,
    kSmtpAuthXoauth2 = 8,
    kSmtpAuthEhloOnly = 16,
};

// The Phase values of an SMTP session beyond the shared ones.
enum SmtpPhase : int32_t {
    kSmtpPreparing = 4,
    kSmtpAddressing = 5,
    kSmtpDataCommand = 6,
    kSmtpMessageData = 7,
    kSmtpFinalReply = 8,
};

// The ErrCode values of SMTP beyond the shared ones.
enum SmtpError : int32_t {
    kSmtpCancelled = 102,
    kSmtpEhloRefused = 111,
    kSmtpAuthRefused = 112,    // the AUTH command, or an unknown AuthMethod
    kSmtpTokenFailed = 113,    // a login token or challenge step
    kSmtpCredentials = 114,    // empty where needed, or refused
    kSmtpNoHostName = 115,
    kSmtpCommandFailed = 116,  // greeting, HELO, QUIT, DATA, ExecuteCommand
    kSmtpNoEnvelope = 121,     // no sender, no recipients, or no message
    kSmtpSenderRefused = 122,
    kSmtpRecipientRefused = 123,
    kSmtpMessageRefused = 124,
    kSmtpQueueFailed = 132,
    kSmtpFileUnreadable = 133,
};

// Event identifiers of _ISMTPEvents.
enum SmtpEvent : int32_t {
    kOnMessageReady = 1,
    kOnSendStart = 2,
    kOnSendProgress = 3,
    kOnSendComplete = 5,
    kOnSendData = 6,
    kOnReceiveData = 7,
};

// The envelope of a send: the sender's bare address and the recipients'
// (empty items dropped). False when either is missing, or when an address
// holds a line break or a NUL, which would let the text run into a command
// of its own.
bool BuildEnvelope(const bstring& from, const bstring& recipients, bstring& sender,
                   std::vector<bstring>& list);

// The TLS settings that AutosetPortAndSSL gives by the port: 587 with a
// login and the Gmail domain on 25 use STARTTLS, 465 TLS from the first
// byte, 25 turns TLS on into STARTTLS; other ports keep what was set.
void AutosetSmtpTLS(int32_t port, int32_t method, const bstring& server, int32_t& enabled, int32_t& use_starttls);

class CSMTP : public automation::ObjectBase, public SMTPMailer {
public:
    static CSMTP* New();

    // ---- fields beyond the shared ones ----
    bstring Domain;  // the EHLO or HELO argument; filled with the host name at connect when empty
    automation::ComPtr<CMessage> Message;
    bool AllowRefusedRecipients = false;
    bstring AcceptedRecipients;  // ", "-separated, for the last send
    bstring RefusedRecipients;
    bool IsQueueIIS = false;
    bstring MailFromDSN;
    bstring RcptToDSN;
    // The body that GetLastDataFromClient reads while DATA runs, and its size.
    int32_t SentSize = 0;

    // ---- the session ----
    bool ConnectSMTPComplete();
    bool ConnectSMTP();
    // After a refused command on a live connection: RSET, keeping what the
    // properties show of the refused command; closes when RSET fails.
    void ResetAfterRefusal();
    // MAIL FROM, RCPT TO, DATA and the body (dot-stuffed on the wire, sent
    // where it stands), with events and the recovery of each failure.
    bool SendMessageData(const bstring& body, const bstring& from, const bstring& recipients);

    bool OnDataReceived(int32_t bytes) override;
    bool OnDataSent(const char* data, int32_t bytes) override;

    // ---- ISMTP, beyond the shared members, the plain fields and the message's ----
    HRESULT Connect(VARIANT_BOOL* out);
    HRESULT Disconnect(VARIANT_BOOL* out);
    HRESULT Send(VARIANT_BOOL* out);
    HRESULT SendEx(BSTR fromAddr, BSTR recips, VARIANT_BOOL* out);
    HRESULT RelayMessage(BSTR filePath, BSTR fromAddr, BSTR recips, VARIANT_BOOL* out);
    HRESULT SendToQueue(BSTR dirPath, VARIANT_BOOL* out);
    HRESULT SendToQueueEx(BSTR dirPath, BSTR fromAddr, BSTR recips, VARIANT_BOOL* out);
    HRESULT get_Message(IDispatch** out);
    HRESULT putref_Message(IDispatch* value);
    HRESULT ResetMessage();
    HRESULT GetLastDataFromServer(BSTR* out);
    HRESULT GetLastDataFromClient(BSTR* out);
    HRESULT ExecuteCommand(BSTR command, VARIANT_BOOL* out);
    HRESULT GetRelayServerFromEmailAddress(BSTR emailAddress, BSTR dnsServer, VARIANT_BOOL singleAttemptOnly,
                                           int32_t timeout, BSTR* out);
    HRESULT ResolveHostName(BSTR hostName, BSTR* out);
    HRESULT GetRefusedRecipients(BSTR* out);
    HRESULT GetAcceptedRecipients(BSTR* out);

private:
    CSMTP();
    ~CSMTP() override;

    bool SendEhlo();
    // SendMessageData, then the state of a send that ended: IsError, and on
    // success Phase 2, ErrCode 0 and the log line.
    bool SendAndConclude(const bstring& body, const bstring& from, const bstring& recipients);
    bool Login();
    // Fires a state event of the send; false after the user said stop (the
    // session is then cancelled).
    bool FireStateEvent(int32_t event, std::initializer_list<VARIANT> args = {});
    // A refused step of the send: the error lines, then RSET after a whole
    // reply (ErrCode code) or the close after a lost connection.
    bool FailSend(int32_t code, const char* reason = nullptr);
    // The two envelope texts of a send: the arguments, or the message's.
    void EnvelopeFromMessage(bstring& from, bstring& recipients);
    // The banner, once per object and once more after LogFilePath changed.
    void LogBannerOnce();
};

}  // namespace kv
