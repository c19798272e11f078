// Korvane.POP3 (CPOP3): a POP3 session for scripts. It connects (plain,
// STLS or implicit TLS), logs in by one of the methods below, reads the
// mailbox statistics, and then retrieves whole messages or their heads into
// Korvane.Message objects, lists UIDs, deletes and runs raw commands, with
// progress events whose Proceed argument can stop it.
//
// Any method that needs the server connects first with the stored
// properties, unless the last operation was cancelled or aborted: a
// cancelled object reconnects only through Connect.
#pragma once

#include <cstdint>
#include <vector>

#include "automation/object.h"
#include "foundation/bstring.h"
#include "transport/mailer.h"

namespace kv {

class CMessage;
class CSSL;

// The two decisions of the protocol: "+" is positive; a multi-line reply
// ends in CRLF.CRLF, and an error reply ends at its first line.
class POP3Mailer : public GenericMailer {
public:
    bool IsResponsePositive() override;
    bool IsResponseReceived() override;
};

// The values of AuthMethod.
enum Pop3AuthMethod : int32_t {
    kPop3AuthUserPass = 0,
    kPop3AuthApop = 1,
    kPop3AuthNtlm = 2,
    kPop3AuthMsn = 3,
    kPop3AuthGssapiNtlm = 4,
    kPop3AuthGssapiKerberos = 5,
    kPop3AuthXoauth2 = 6,
    kPop3AuthNone = 16,
};

// The Phase values of a POP3 session beyond the shared ones.
enum Pop3Phase : int32_t {
    kPop3Retrieving = 4,
    kPop3MessageReceived = 5,
    kPop3CommandRunning = 6,
};

// Event identifiers of _IPOP3Events.
enum Pop3Event : int32_t {
    kOnReceiveStart = 1,
    kOnReceiveProgress = 2,
    kOnReceiveComplete = 3,
    kOnMessageComplete = 4,
};

// Removes the dot-stuffing of a multi-line reply: drops the ".\r\n" of the
// terminator (source shrinks by 3 and stays so), skips the status line, and
// turns each "\r\n.." of the rest into "\r\n.". A doubled dot on the first
// line after the status line stays doubled: no CRLF precedes it in the
// rest. dest is replaced.
void UnstuffResponse(bstring& source, bstring& dest);

// Token n of a reply line: runs between blanks or tabs, token 0 being the
// status word. Empty when the line has fewer tokens.
bstring ResponseToken(const char* data, int32_t size, int32_t n);

// Where the second word of a reply starts (past the first run of
// non-blanks and the blanks and tabs after it), or -1 when there is none.
int32_t SecondWordOffset(const bstring& response);

// The APOP stamp of a greeting: from its last "<" to its last ">", brackets
// included; empty when there is no "<" or the ">" doesn't follow it.
bstring ApopStamp(const bstring& greeting);

class CPOP3 : public automation::ObjectBase, public POP3Mailer {
public:
    static CPOP3* New();

    // ---- fields beyond the shared ones ----
    bstring TargetName;
    bstring UserDomain;
    bstring ServerName{"localhost"};
    bstring UserName;
    bstring Password;
    int32_t PortNumber = 110;
    int32_t AuthMethod = kPop3AuthUserPass;
    int32_t MessageCount = 0;
    int32_t TotalSize = 0;
    int32_t CurrentIndex = 0;
    int32_t AltBodyOptions = 1;
    wbstring AltBodyHRefSuffix;
    std::vector<int32_t> MessageSizes;
    std::vector<bstring> UIDs;
    bool UIDsReady = false;
    CSSL* SSLObject = nullptr;  // one reference, or null: no TLS

    // ---- the session ----
    bool ConnectPOP3Complete();
    bool ConnectPOP3();
    bool DisconnectPOP3();
    // Retrieves message index into message: the whole message with
    // bodyLines < 0, else its head and that many body lines.
    bool RetrieveMessageFromPOP3(CMessage* message, int32_t index, int32_t bodyLines, int32_t altBodyOptions);
    bool RetrieveUIDs();

    bool OnDataReceived(int32_t bytes) override;

    // ---- IPOP3 ----
    HRESULT Connect(BSTR serverName, int32_t portNumber, BSTR userName, BSTR password, BSTR userDomain,
                    BSTR targetName, VARIANT_BOOL* out);
    HRESULT Disconnect(VARIANT_BOOL* out);
    HRESULT RetrieveSingleMessage(int32_t index, IDispatch** out);
    HRESULT RetrieveSingleMessageHeaders(int32_t index, int32_t bodyLinesCount, IDispatch** out);
    HRESULT get_AuthMethod(int32_t* out);
    HRESULT put_AuthMethod(int32_t value);
    HRESULT get_Timeout(int32_t* out);
    HRESULT put_Timeout(int32_t value);
    HRESULT RetrieveHeaders(int32_t first, int32_t last, int32_t bodyLinesCount, IDispatch** out);
    HRESULT RetrieveMessages(int32_t first, int32_t last, IDispatch** out);
    HRESULT get_Connected(VARIANT_BOOL* out);
    HRESULT get_EnableLogging(VARIANT_BOOL* out);
    HRESULT put_EnableLogging(VARIANT_BOOL value);
    HRESULT get_ErrDesc(BSTR* out);
    HRESULT get_IsError(VARIANT_BOOL* out);
    HRESULT get_MessageCount(int32_t* out);
    HRESULT get_LogFilePath(BSTR* out);
    HRESULT put_LogFilePath(BSTR value);
    HRESULT get_ServerName(BSTR* out);
    HRESULT put_ServerName(BSTR value);
    HRESULT get_SSL(IDispatch** out);
    HRESULT putref_SSL(IDispatch* value);
    HRESULT get_AltBodyOptions(int32_t* out);
    HRESULT put_AltBodyOptions(int32_t value);
    HRESULT get_AltBodyHRefSuffix(BSTR* out);
    HRESULT put_AltBodyHRefSuffix(BSTR value);
    HRESULT GetMessageNumberFromUID(BSTR uid, int32_t* out);
    HRESULT GetMessageUID(int32_t messageNumber, BSTR* out);
    HRESULT get_UserDomain(BSTR* out);
    HRESULT put_UserDomain(BSTR value);
    HRESULT get_TargetName(BSTR* out);
    HRESULT put_TargetName(BSTR value);
    HRESULT GetLastReceivedDataChunk(BSTR* out);
    HRESULT get_UserName(BSTR* out);
    HRESULT put_UserName(BSTR value);
    HRESULT get_Password(BSTR* out);
    HRESULT put_Password(BSTR value);
    HRESULT get_PortNumber(int32_t* out);
    HRESULT put_PortNumber(int32_t value);
    HRESULT ClearLog(VARIANT_BOOL* out);
    HRESULT DeleteMessage(int32_t index, VARIANT_BOOL* out);
    HRESULT SendCommand(BSTR command, VARIANT_BOOL expectMultiline, BSTR* out);
    HRESULT Ping(VARIANT_BOOL* out);
    HRESULT get_Size(int32_t index, int32_t* out);
    HRESULT get_EnableEvents(VARIANT_BOOL* out);
    HRESULT put_EnableEvents(VARIANT_BOOL value);
    HRESULT get_TotalSize(int32_t* out);
    HRESULT get_ServerResponse(BSTR* out);
    HRESULT get_ClientRequest(BSTR* out);
    HRESULT get_Busy(VARIANT_BOOL* out);
    HRESULT Abort(VARIANT_BOOL* out);
    HRESULT get_ErrCode(int32_t* out);
    HRESULT get_CodepageMode(int32_t* out);
    HRESULT put_CodepageMode(int32_t value);
    HRESULT get_Codepage(int32_t* out);
    HRESULT put_Codepage(int32_t value);
    HRESULT Search(VARIANT* out);

private:
    CPOP3();
    ~CPOP3() override;

    // Closes the connection of a failed login step: ErrCode is code when
    // the server answered, else the socket's error; logs the error line
    // (error_line, or the usual one), the response and the reason.
    bool FailLogin(int32_t code, const char* reason = nullptr, const char* error_line = nullptr);
    // A failed command on a live session: a complete negative reply keeps
    // the session (Phase 2, ErrCode code); anything else closes it.
    void FailCommand(int32_t code);
    bool StartTLS();
    bool LoginUserPass();
    bool LoginApop(const bstring& greeting);
    bool LoginNegotiate();
    bool LoginXoauth2();
    // ClientRequest = token in base64 and a CRLF.
    void SetTokenRequest(const bstring& token);
    // Sets the error without touching ErrCode: IsError, ErrDesc, logged.
    void Describe(const char* text);
    // Decodes the challenge in the reply into challenge; false (and the
    // login failed) when the reply has no second word.
    bool TakeChallenge(bstring& challenge);
    // Fires the event of the current Phase; false after the user said stop.
    bool FireStateEvent();
    // Connects when not connected; false when that failed.
    bool EnsureConnected();
    // The shared shape of DeleteMessage and Ping.
    bool RunSimpleCommand(const char* log_prefix, const char* failure_text);
    bool IndexInRange(int32_t index) const { return index >= 1 && index <= MessageCount; }
};

}  // namespace kv
