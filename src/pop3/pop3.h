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

// The two decisions of the protocol: "+" is positive; a multi-line reply
// ends in CRLF.CRLF, and an error reply ends at its first line. A login
// step is continued by "+ " and the challenge is the reply's second word.
class POP3Mailer : public GenericMailer {
public:
    bool IsResponsePositive() override;
    bool IsResponseReceived() override;
    bool IsChallenge() override;
    bool ChallengeSpan(int32_t& begin, int32_t& end) override;
    // QUIT; a negative but complete reply is accepted.
    bool Logout() override;
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

// The ErrCode values of POP3 beyond the shared ones.
enum Pop3Error : int32_t {
    kPop3Cancelled = 202,
    kPop3BadIndex = 203,
    kPop3AuthRefused = 211,     // the AUTH command, or an unknown AuthMethod
    kPop3TokenFailed = 212,     // a login token or challenge step
    kPop3Credentials = 213,     // empty where needed, or refused
    kPop3StatFailed = 214,
    kPop3ListFailed = 215,
    kPop3CommandFailed = 216,  // greeting, QUIT, UIDL, RETR, TOP, DELE, NOOP, custom commands
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
    int32_t MessageCount = 0;
    int32_t TotalSize = 0;
    int32_t CurrentIndex = 0;
    int32_t AltBodyOptions = 1;
    wbstring AltBodyHRefSuffix;
    std::vector<int32_t> MessageSizes;
    std::vector<bstring> UIDs;
    bool UIDsReady = false;

    // ---- the session ----
    bool ConnectPOP3Complete();
    bool ConnectPOP3();
    bool DisconnectPOP3() { return Logout(); }
    // Retrieves message index into message: the whole message with
    // bodyLines < 0, else its head and that many body lines.
    bool RetrieveMessageFromPOP3(CMessage* message, int32_t index, int32_t bodyLines, int32_t altBodyOptions);
    bool RetrieveUIDs();

    bool OnDataReceived(int32_t bytes) override;

    // ---- IPOP3, beyond the shared members and the plain fields ----
    HRESULT Connect(BSTR serverName, int32_t portNumber, BSTR userName, BSTR password, BSTR userDomain,
                    BSTR targetName, VARIANT_BOOL* out);
    HRESULT Disconnect(VARIANT_BOOL* out);
    HRESULT RetrieveSingleMessage(int32_t index, IDispatch** out);
    HRESULT RetrieveSingleMessageHeaders(int32_t index, int32_t bodyLinesCount, IDispatch** out);
    HRESULT RetrieveHeaders(int32_t first, int32_t last, int32_t bodyLinesCount, IDispatch** out);
    HRESULT RetrieveMessages(int32_t first, int32_t last, IDispatch** out);
    HRESULT GetMessageNumberFromUID(BSTR uid, int32_t* out);
    HRESULT GetMessageUID(int32_t messageNumber, BSTR* out);
    HRESULT GetLastReceivedDataChunk(BSTR* out);
    HRESULT DeleteMessage(int32_t index, VARIANT_BOOL* out);
    HRESULT SendCommand(BSTR command, VARIANT_BOOL expectMultiline, BSTR* out);
    HRESULT Ping(VARIANT_BOOL* out);
    HRESULT get_Size(int32_t index, int32_t* out);
    // Code pages are the message's business: the session keeps none, reads
    // 0 and ignores a write.
    HRESULT get_Codepage(int32_t* out);
    HRESULT put_Codepage(int32_t value);
    HRESULT Search(VARIANT* out);

private:
    CPOP3();
    ~CPOP3() override;

    bool LoginUserPass();
    bool LoginApop(const bstring& greeting);
    // Fires the event of the current Phase; false after the user said stop.
    bool FireStateEvent();
    // Connects when not connected; false when that failed.
    bool EnsureConnected();
    // The shared shape of DeleteMessage and Ping.
    bool RunSimpleCommand(const char* log_prefix, const char* failure_text);
    bool IndexInRange(int32_t index) const { return index >= 1 && index <= MessageCount; }
};

}  // namespace kv
