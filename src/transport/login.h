// The challenge-response logins of the three sessions, written once: PLAIN,
// LOGIN, CRAM-MD5, NTLM, MSN, GSSAPI with either package, XOAUTH2. A
// protocol supplies a LoginDialect (its service class, error codes and log
// texts) and, through the mailer's hooks, its command words
// (SetAuthCommand), its continuation test (IsChallenge) and where a
// challenge stands in a reply (ChallengeSpan).
//
// Every exchange goes: the command (refused: code `command_refused` and the
// mechanism's reason), then the client's steps, each sent in base64 with a
// CRLF. A step the server refuses closes the connection with
// `credentials_refused` and the step's reason; a token the security package
// cannot make closes it with `token_failed`, "[Error: Incorrect
// credentials]", the response and the reason on the domain.
#pragma once

#include <cstdint>

namespace kv {

class GenericMailer;

enum class Mechanism : int32_t { Plain, Login, CramMd5, Ntlm, Msn, GssapiNtlm, GssapiKerberos, Xoauth2, Count };

// What a protocol logs around one mechanism; null texts are not logged.
struct MechanismTexts {
    const char* using_line;     // first, before the command
    const char* not_supported;  // reason when the command is refused
    // Before the first and the second client step. NTLM, MSN and GSSAPI:
    // the request and the response (the security layer's reply reuses the
    // second when final_step_logged). Others: their steps in order.
    const char* step_lines[2];
    // After a refused step. XOAUTH2: the refused token, then the error
    // challenge that a server sends in place of a refusal.
    const char* step_reasons[2];
};

struct LoginDialect {
    const char* service;  // the service class of the security package: "POP3", "SMTP", "IMAP"
    int32_t command_refused;
    int32_t token_failed;
    int32_t credentials_refused;
    bool log_command;         // "[Sending AUTH X\r\n]" before the command
    bool final_step_logged;   // the security layer's reply has the response's log line
    // A reply without a challenge where one is wanted: closes with
    // token_failed and this error line. Null: the challenge is empty.
    const char* no_challenge_line;
    // The closing reply of a three-step GSSAPI login must carry text behind
    // its status word, or the login fails as above.
    bool final_reply_has_text;
    MechanismTexts texts[int(Mechanism::Count)];
};

// Runs one exchange on a connected, greeted session. True when the server
// accepted; false with the connection closed and ErrCode set otherwise (the
// caller sets IsError and ErrDesc).
bool RunLogin(GenericMailer& session, const LoginDialect& dialect, Mechanism mechanism);

}  // namespace kv
