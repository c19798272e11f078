#include "transport/login.h"

#include "codecs/digest.h"
#include "codecs/encoding.h"
#include "transport/mailer.h"
#include "transport/negotiate.h"

namespace kv {

namespace {

const char* const kMechanismNames[] = {"PLAIN", "LOGIN", "CRAM-MD5", "NTLM", "MSN", "GSSAPI", "GSSAPI", "XOAUTH2"};

class Exchange {
public:
    Exchange(GenericMailer& s, const LoginDialect& d, Mechanism m)
        : s_(s), d_(d), m_(m), texts_(d.texts[int(m)]) {}

    bool Run() {
        Log(texts_.using_line);
        s_.SetAuthCommand(kMechanismNames[int(m_)]);
        if (d_.log_command) s_.WriteLogEscaped("[Sending ", s_.ClientRequest, "]");
        if (!s_.SendAndCheck()) return s_.FailClosing(d_.command_refused, texts_.not_supported);
        switch (m_) {
        case Mechanism::Plain: return Plain();
        case Mechanism::Login:
            return Step(s_.UserName, 0, d_.credentials_refused) && Step(s_.Password, 1, d_.credentials_refused);
        case Mechanism::CramMd5: return CramMd5();
        case Mechanism::Xoauth2: return Xoauth2();
        default: return Negotiate();
        }
    }

private:
    void Log(const char* line) {
        if (line) s_.WriteLog(line);
    }

    // Sends text in base64 as the next client step, logged with step_lines[n].
    bool Send(const bstring& text, int n) {
        EncodeBase64(s_.ClientRequest, text.pData, text.nSize, false, false);
        s_.ClientRequest.append("\r\n");
        Log(texts_.step_lines[n]);
        return s_.SendAndCheck();
    }

    bool Step(const bstring& text, int n, int32_t code) {
        return Send(text, n) || s_.FailClosing(code, texts_.step_reasons[n]);
    }

    bool Challenge(bstring& challenge) {
        int32_t begin = 0, end = 0;
        if (!s_.ChallengeSpan(begin, end)) {
            if (d_.no_challenge_line) return s_.FailClosing(d_.token_failed, nullptr, d_.no_challenge_line);
            begin = end = 0;
        }
        DecodeBase64(challenge, s_.ServerResponse, begin, end);
        return true;
    }

    // [authzid] NUL authcid NUL passwd: a user name that holds a NUL already
    // carries its authorization identity.
    bool Plain() {
        bstring text;
        if (s_.UserName.find('\0') < 0) text.append("", 1);
        text.append(s_.UserName).append("", 1).append(s_.Password);
        return Step(text, 0, d_.credentials_refused);
    }

    bool CramMd5() {
        bstring challenge;
        if (!Challenge(challenge)) return false;
        char digest[33];
        HmacMd5Hex(digest, challenge.pData, challenge.nSize, s_.Password.pData, s_.Password.nSize);
        bstring reply(s_.UserName);
        reply.append(" ").append(digest);
        return Step(reply, 0, d_.credentials_refused);
    }

    bool Xoauth2() {
        bstring text("user=");
        text.append(s_.UserName).append("\x01" "auth=Bearer ").append(s_.Password).append("\x01\x01");
        if (!Step(text, 0, d_.credentials_refused)) return false;
        // A server refuses a token with an error challenge, and then waits
        // for an empty line that is not sent.
        if (s_.IsChallenge()) return s_.FailClosing(d_.credentials_refused, texts_.step_reasons[1]);
        return true;
    }

    bool TokenFailed() {
        s_.ErrCode = d_.token_failed;
        s_.Socket.Disconnect();
        if (!s_.Aborted) {
            s_.WriteLog("[Error: Incorrect credentials]");
            s_.LogResponse();
            s_.WriteLog("[Possible error reason: incorrect domain name, username or password]");
        }
        return false;
    }

    bool Negotiate() {
        CNegotiate negotiate(s_.ServerName, d_.service, s_.TargetName, s_.UserDomain, s_.UserName, s_.Password,
                             m_ == Mechanism::GssapiKerberos);
        bstring token, challenge;
        if (CNegotiate::Failed(negotiate.CreateRequest(token))) return TokenFailed();
        if (!Send(token, 0)) return s_.FailClosing(d_.token_failed);

        if (!Challenge(challenge)) return false;
        if (CNegotiate::Failed(negotiate.CreateResponse(token, challenge))) return TokenFailed();
        if (!Step(token, 1, d_.credentials_refused)) return false;
        if (!s_.IsChallenge()) return true;

        // A further step: the security-layer offer that ends a Kerberos login.
        if (!Challenge(challenge)) return false;
        if (CNegotiate::Failed(negotiate.CreateFinalResponse(token, challenge))) return TokenFailed();
        EncodeBase64(s_.ClientRequest, token.pData, token.nSize, false, false);
        s_.ClientRequest.append("\r\n");
        if (d_.final_step_logged) Log(texts_.step_lines[1]);
        if (!s_.SendAndCheck()) return s_.FailClosing(d_.credentials_refused, texts_.step_reasons[1]);
        if (!d_.final_reply_has_text) return true;
        int32_t begin = 0, end = 0;
        return s_.ChallengeSpan(begin, end) || s_.FailClosing(d_.token_failed, nullptr, d_.no_challenge_line);
    }

    GenericMailer& s_;
    const LoginDialect& d_;
    Mechanism m_;
    const MechanismTexts& texts_;
};

}  // namespace

bool RunLogin(GenericMailer& session, const LoginDialect& dialect, Mechanism mechanism) {
    if (mechanism < Mechanism::Plain || mechanism >= Mechanism::Count) return false;
    return Exchange(session, dialect, mechanism).Run();
}

}  // namespace kv
