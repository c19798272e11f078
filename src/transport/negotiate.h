// CNegotiate: the token steps of the NTLM, MSN and GSSAPI logins, for one
// login. The session sends the mechanism's command, asks for tokens and moves
// them base64-encoded to and from the server with its own words and
// continuation markers; nothing here knows the wire.
//
// NTLM (and MSN, the same exchange) is written here; Kerberos goes through
// the system's GSSAPI library. A login without a user name uses the default
// Kerberos credential cache; NTLM has no such default and fails.
//
// Every step returns a status in the provider's numbering: negative is a
// failure that ends the login, 0 and positive values go on
// (kSecIContinueNeeded: the server has a further step).
#pragma once

#include <cstdint>

#include "foundation/bstring.h"
#include "transport/sec_status.h"

namespace kv {

// The requirements asked of the provider: mutual authentication,
// confidentiality, a connection, integrity.
constexpr uint32_t kNegotiateRequirements = 0x10812;
// The largest token a step hands out; a longer one fails the step.
constexpr int32_t kNegotiateMaxToken = 12288;

struct NegotiateCredential;  // the provider's credential, owned
struct NegotiateContext;     // the provider's security context, owned

class CNegotiate {
public:
    bool CredentialValid = false;
    bool ContextValid = false;
    bool UseKerberos = false;  // Kerberos with a target name; otherwise NTLM without one
    bstring ServerName;
    bstring Protocol;    // "POP3", "SMTP" or "IMAP", kept as given
    bstring TargetName;  // overrides Protocol + "/" + ServerName when not empty
    bstring Domain;
    bstring UserName;
    bstring Password;
    NegotiateCredential* Credential = nullptr;
    NegotiateContext* Context = nullptr;
    uint32_t ContextRequirements = 0;

    CNegotiate() = default;
    CNegotiate(const bstring& server, const char* protocol, const bstring& target, const bstring& domain,
               const bstring& user, const bstring& password, bool kerberos);
    CNegotiate(const CNegotiate&) = delete;
    CNegotiate& operator=(const CNegotiate&) = delete;
    virtual ~CNegotiate();

    // The first token, into token (replaced on success).
    int32_t CreateRequest(bstring& token);
    // The token answering the server's decoded challenge. Only status 0 fills
    // token; a positive status leaves it as it was, so that the caller sends
    // what it holds (usually an empty line).
    int32_t CreateResponse(bstring& token, const bstring& challenge);
    // The reply to the security-layer offer that ends a Kerberos login: the
    // offer unwrapped and sent back signed, so the client takes what the
    // server proposed. Status 0 on success.
    int32_t CreateFinalResponse(bstring& token, const bstring& challenge);

    // The name the Kerberos ticket is asked for.
    void GetTarget(bstring& target) const;
    // True once the provider says the context is established.
    bool IsComplete() const;
    static bool Failed(int32_t status) { return status < 0; }

    // NTLM takes its client challenge and time from here when set, so that
    // tests can reproduce a published exchange; zero means random and now.
    uint8_t FixedClientChallenge[8] = {0};
    uint64_t FixedTimestamp = 0;
    bool UseFixedNonce = false;
};

}  // namespace kv
