// The engine every session stands on, through the fake server: each login
// exchange once (in an SMTP-shaped and a POP3-shaped dialect), the TLS
// upgrade, QUIT and Disconnect, the shared members as a script reaches
// them, and dot-stuffing both ways. A protocol's own tests need not repeat
// any of this.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "../support/fake_server.h"
#include "../support/text.h"
#include "automation/catalogue.h"
#include "automation/object.h"
#include "automation/variant.h"
#include "codecs/encoding.h"
#include "foundation/dotstuff.h"
#include "transport/login.h"
#include "transport/session_members.h"
#include "transport/ssl.h"

using namespace kv;
using namespace kv::testing;
using namespace kv::automation;

namespace {

std::string Base64(const std::string& text) {
    bstring out;
    EncodeBase64(out, text.data(), int32_t(text.size()), false, false);
    return Str(out);
}

// A reply protocol in two shapes. SMTP's: three digits, "2" and "3"
// positive, "334 " continues, the challenge from byte 4. POP3's: "+"
// positive, "+ " continues, the challenge the second word.
class EngineMailer : public GenericMailer {
public:
    bool smtp = true;
    bool IsResponsePositive() override {
        if (ServerResponse.nSize < 1) return false;
        char c = ServerResponse.pData[0];
        return smtp ? c == '2' || c == '3' : c == '+';
    }
    bool IsResponseReceived() override {
        return ServerResponse.nSize >= 2 && ServerResponse.pData[ServerResponse.nSize - 1] == '\n';
    }
    bool IsChallenge() override {
        return smtp ? ServerResponse.nSize >= 1 && ServerResponse.pData[0] == '3'
                    : ServerResponse.nSize >= 2 && ServerResponse.pData[1] == ' ';
    }
    bool ChallengeSpan(int32_t& begin, int32_t& end) override {
        end = ServerResponse.nSize - 2;
        if (smtp) return begin = 4, true;
        begin = ServerResponse.find(' ') + 1;
        return begin > 0 && begin <= end && ServerResponse.pData[begin] != '\r';
    }
    bool Logout() override { return Quit("QUIT\r\n", 116); }

    std::string log_path;
    EngineMailer() {
        char name[] = "/tmp/kv_engine_logXXXXXX";
        close(mkstemp(name));
        log_path = name;
        LogFilePath.assign(std::u16string(log_path.begin(), log_path.end()).c_str());
        EnableLogging = true;
        Socket.Timeout = 5;
        UserName.assign("alice");
        Password.assign("secret");
    }
    ~EngineMailer() override { std::remove(log_path.c_str()); }
    bool Open(const FakeServer& server) {
        ServerName.assign(server.host());
        PortNumber = server.port();
        if (!OpenConnection()) return false;
        Connected = true;
        return true;
    }
    std::vector<std::string> Log() const {
        std::ifstream in(log_path, std::ios::binary);
        std::stringstream all;
        all << in.rdbuf();
        std::vector<std::string> lines;
        std::string line;
        while (std::getline(all, line)) lines.push_back(line.substr(9, line.size() - 10));  // "hh:mm:ss " ... "\r"
        return lines;
    }
    bool Logged(const std::string& text) const {
        for (const std::string& l : Log())
            if (l == text) return true;
        return false;
    }
};

const LoginDialect kDialect = {
    "SMTP", 112, 113, 114, /*log_command=*/false, /*final_step_logged=*/false, nullptr,
    /*final_reply_has_text=*/false,
    {
        {"[Using PLAIN]", "[plain not supported]", {"[plain step]", nullptr}, {"[plain refused]", nullptr}},
        {"[Using LOGIN]", "[login not supported]", {"[user step]", "[password step]"},
         {"[user refused]", "[password refused]"}},
        {"[Using CRAM-MD5]", "[cram not supported]", {"[cram step]", nullptr}, {"[cram refused]", nullptr}},
        {"[Using NTLM]", "[ntlm not supported]", {"[ntlm request]", "[ntlm response]"},
         {nullptr, "[ntlm refused]"}},
        {}, {}, {},
        {"[Using XOAUTH2]", "[xoauth2 not supported]", {"[xoauth2 step]", nullptr},
         {"[xoauth2 refused]", "[xoauth2 error challenge]"}},
    },
};

// The POP3 shape: the command logged, a missing challenge is an error.
const LoginDialect kPlusDialect = {
    "POP3", 211, 212, 213, /*log_command=*/true, /*final_step_logged=*/true, "[Error: no challenge]",
    /*final_reply_has_text=*/true, {kDialect.texts[0], kDialect.texts[1], kDialect.texts[2], kDialect.texts[3]},
};

// An NTLM challenge (type 2) without target information: what a server
// offering NTLMv1 alone sends.
std::string NtlmChallenge() {
    std::string t("NTLMSSP\0", 8);
    auto u32 = [&](uint32_t v) {
        for (int i = 0; i < 4; ++i) t.push_back(char((v >> (8 * i)) & 0xff));
    };
    u32(2), u32(0), u32(48), u32(0x00008201);
    t.append("\x01\x23\x45\x67\x89\xab\xcd\xef", 8);
    t.append(8, '\0');
    u32(0), u32(48);
    return t;
}

struct LoginCase {
    std::string name;
    Mechanism mechanism;
    bool smtp;
    std::string user;
    std::vector<Step> steps;
    std::string transcript;  // what the client sent, whole (empty: not compared)
    bool ok;
    int32_t err_code;
    std::vector<std::string> log;
};

std::vector<LoginCase> LoginCases() {
    const std::string xoauth = Base64(std::string("user=alice\x01" "auth=Bearer secret\x01\x01"));
    const std::string cram_challenge = "<1896.697170952@postoffice.reston.mci.net>";
    return {
        {"PLAIN", Mechanism::Plain, true, "alice",
         {Hear("AUTH PLAIN\r\n"), Say("334 \r\n"), Hear(Base64(std::string("\0alice\0secret", 13)) + "\r\n"),
          Say("235 ok\r\n")},
         "", true, 0, {"[Using PLAIN]", "[plain step]"}},
        {"PLAIN with an authorization identity", Mechanism::Plain, true, std::string("admin\0alice", 11),
         {Hear("AUTH PLAIN\r\n"), Say("334 \r\n"), Hear(Base64(std::string("admin\0alice\0secret", 18)) + "\r\n"),
          Say("235 ok\r\n")},
         "", true, 0, {}},
        {"LOGIN", Mechanism::Login, true, "alice",
         {Hear("AUTH LOGIN\r\n"), Say("334 VXNlcm5hbWU6\r\n"), Hear(Base64("alice") + "\r\n"),
          Say("334 UGFzc3dvcmQ6\r\n"), Hear(Base64("secret") + "\r\n"), Say("235 ok\r\n")},
         "", true, 0, {"[user step]", "[password step]"}},
        {"LOGIN password refused", Mechanism::Login, true, "alice",
         {Hear("AUTH LOGIN\r\n"), Say("334 \r\n"), HearLine(), Say("334 \r\n"), HearLine(), Say("535 no\r\n")}, "",
         false, 114, {"[Error: Negative or void server response]", "[Server responded: 535 no\\r\\n]",
                      "[password refused]"}},
        // The digest as Python's hmac module makes it.
        {"CRAM-MD5", Mechanism::CramMd5, true, "tim",
         {Hear("AUTH CRAM-MD5\r\n"), Say("334 " + Base64(cram_challenge) + "\r\n"),
          Hear(Base64("tim 84ec099ec2b1e79cad1d3bc135300ac9") + "\r\n"), Say("235 ok\r\n")},
         "", true, 0, {"[cram step]"}},
        {"XOAUTH2", Mechanism::Xoauth2, true, "alice",
         {Hear("AUTH XOAUTH2\r\n"), Say("334 \r\n"), Hear(xoauth + "\r\n"), Say("235 ok\r\n")}, "", true, 0, {}},
        {"XOAUTH2 error challenge", Mechanism::Xoauth2, true, "alice",
         {Hear("AUTH XOAUTH2\r\n"), Say("334 \r\n"), Hear(xoauth + "\r\n"), Say("334 eyJzdGF0dXMiOiI0MDEifQ==\r\n")},
         "AUTH XOAUTH2\r\n" + xoauth + "\r\n", false, 114, {"[xoauth2 error challenge]"}},
        {"command refused", Mechanism::CramMd5, true, "alice", {Hear("AUTH CRAM-MD5\r\n"), Say("504 no\r\n")},
         "AUTH CRAM-MD5\r\n", false, 112, {"[cram not supported]"}},
        {"NTLM", Mechanism::Ntlm, true, "alice",
         {Hear("AUTH NTLM\r\n"), Say("334 \r\n"), HearLine(), Say("334 " + Base64(NtlmChallenge()) + "\r\n"),
          HearLine(), Say("235 ok\r\n")},
         "", true, 0, {"[ntlm request]", "[ntlm response]"}},
        {"NTLM request refused", Mechanism::Ntlm, true, "alice",
         {Hear("AUTH NTLM\r\n"), Say("334 \r\n"), HearLine(), Say("535 no\r\n")}, "", false, 113, {}},
        {"NTLM response refused", Mechanism::Ntlm, true, "alice",
         {Hear("AUTH NTLM\r\n"), Say("334 \r\n"), HearLine(), Say("334 " + Base64(NtlmChallenge()) + "\r\n"),
          HearLine(), Say("535 no\r\n")},
         "", false, 114, {"[ntlm refused]"}},
        {"NTLM challenge not a challenge", Mechanism::Ntlm, true, "alice",
         {Hear("AUTH NTLM\r\n"), Say("334 \r\n"), HearLine(), Say("334 bm90IG50bG0=\r\n")}, "", false, 113,
         {"[Error: Incorrect credentials]", "[Possible error reason: incorrect domain name, username or password]"}},
        {"connection lost mid-exchange", Mechanism::Login, true, "alice",
         {Hear("AUTH LOGIN\r\n"), Say("334 \r\n"), HearLine(), Say("33"), Close()}, "", false, 6, {}},
        {"POP3 shape: command logged, missing challenge", Mechanism::CramMd5, false, "alice",
         {Hear("AUTH CRAM-MD5\r\n"), Say("+\r\n")}, "", false, 212,
         {"[Sending AUTH CRAM-MD5\\r\\n]", "[Error: no challenge]"}},
        {"POP3 shape: NTLM reply without text after a third step", Mechanism::Ntlm, false, "alice",
         {Hear("AUTH NTLM\r\n"), Say("+ \r\n"), HearLine(), Say("+ " + Base64(NtlmChallenge()) + "\r\n"),
          HearLine(), Say("+OK\r\n")},
         "", true, 0, {"[ntlm response]"}},
    };
}

TEST(SessionLogin, EveryExchangeOnce) {
    for (const LoginCase& c : LoginCases()) {
        SCOPED_TRACE(c.name);
        FakeServer server(c.steps);
        EngineMailer m;
        m.smtp = c.smtp;
        m.UserName.assign(c.user.data(), int32_t(c.user.size()));
        if (c.user == "tim") m.Password.assign("tanstaafl");
        ASSERT_TRUE(m.Open(server));
        EXPECT_EQ(RunLogin(m, c.smtp ? kDialect : kPlusDialect, c.mechanism), c.ok);
        EXPECT_EQ(m.ErrCode, c.err_code);
        // A failed login always leaves the connection closed.
        EXPECT_EQ(m.Socket.Connected != 0, c.ok);
        if (c.ok) m.Socket.Disconnect();
        server.Wait(3000);
        EXPECT_EQ(server.Problems(), std::vector<std::string>{});
        if (!c.transcript.empty()) {
            EXPECT_EQ(server.Transcript(), c.transcript);
        }
        for (const std::string& line : c.log) EXPECT_TRUE(m.Logged(line)) << line;
    }
}

TEST(SessionEngine, RefusedUpgradeClosesWithCode11AndTheReason) {
    FakeServer server({Hear("stls\r\n"), Say("-ERR not here\r\n")});
    EngineMailer m;
    m.smtp = false;
    m.UseOwnSSL();
    ASSERT_TRUE(m.Open(server));
    EXPECT_FALSE(m.UpgradeToTLS("stls\r\n", "[Possible error reason: STLS not supported]"));
    EXPECT_EQ(m.ErrCode, kErrStartTlsRefused);
    EXPECT_FALSE(m.Socket.Connected);
    EXPECT_EQ(m.Log(), (std::vector<std::string>{"[Switching to SSL over regular port mode]",
                                                 "[Error: Negative or void server response]",
                                                 "[Server responded: -ERR not here\\r\\n]",
                                                 "[Possible error reason: STLS not supported]"}));
}

TEST(SessionEngine, AHandshakeAnsweredInPlainTextFails) {
    FakeServer server({Say("+OK this is no TLS server\r\n"), Close()});
    EngineMailer m;
    m.UseOwnSSL();
    ASSERT_TRUE(m.Open(server));
    EXPECT_FALSE(m.StartSSL());
    EXPECT_NE(m.ErrCode, kErrNone);
    EXPECT_FALSE(m.Socket.Connected);
    EXPECT_TRUE(m.Logged("[Error: SSL Init Failed]"));
}

TEST(SessionEngine, QuitAndEndSession) {
    struct Case {
        const char* name;
        std::vector<Step> steps;
        bool ok;
        int32_t err_code;
    } cases[] = {
        {"accepted", {Hear("QUIT\r\n"), Say("221 bye\r\n")}, true, 0},
        {"refused but whole", {Hear("QUIT\r\n"), Say("500 what\r\n")}, true, 0},
        {"no reply", {Hear("QUIT\r\n"), Close()}, false, 6},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FakeServer server(c.steps);
        EngineMailer m;
        ASSERT_TRUE(m.Open(server));
        EXPECT_EQ(m.EndSession(-1), c.ok);
        EXPECT_EQ(m.ErrCode, c.err_code);
        EXPECT_EQ(m.IsError, !c.ok);
        EXPECT_FALSE(m.Connected);
        EXPECT_FALSE(m.Socket.Connected);
        EXPECT_EQ(m.Phase, kPhaseIdle);
        EXPECT_TRUE(m.Logged("[Connection closed]"));
        EXPECT_EQ(m.Logged("[Error: Disconnection failure]"), !c.ok);
    }
    EngineMailer idle;
    idle.ErrCode = 42;
    EXPECT_FALSE(idle.EndSession(kErrNotConnected));
    EXPECT_EQ(idle.ErrCode, kErrNotConnected);
    EXPECT_EQ(Str(idle.ErrDesc), "[Error: Not connected]");
    idle.ErrCode = 42;
    EXPECT_FALSE(idle.EndSession(-1));
    EXPECT_EQ(idle.ErrCode, 42);
}

// ---- the shared members, as a script reaches them ----

constexpr IID IID_IEngine = {0x5D1C7A20, 0x3E4F, 0x4B6A, {0x81, 0x22, 0x6E, 0x0F, 0x9A, 0x33, 0x00, 0x01}};
extern const ClassInfo kEngineClass;

class CEngine : public ObjectBase, public EngineMailer {
public:
    CEngine() : ObjectBase(kEngineClass) { UseOwnSSL(); }
};

const SessionDispids kEngineIds = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19};
const InterfaceInfo kIEngine("IEngine", IID_IEngine, SessionMembers<CEngine>(kEngineIds, {}));
const ClassInfo kEngineClass = {"CEngine", "Korvane.Engine", "Engine Class",
                                {0x5D1C7A20, 0x3E4F, 0x4B6A, {0x81, 0x22, 0x6E, 0x0F, 0x9A, 0x33, 0x01, 0x01}},
                                &kIEngine, nullptr, false, nullptr};

HRESULT Put(CEngine* o, const char* name, VARIANT value, uint16_t kind = DISPATCH_PROPERTYPUT) {
    std::u16string wide(name, name + std::strlen(name));
    OLECHAR* names[] = {wide.data()};
    DISPID id = 0;
    EXPECT_EQ(o->GetIDsOfNames(GUID_NULL, names, 1, 0, &id), S_OK) << name;
    DISPID named = DISPID_PROPERTYPUT;
    DISPPARAMS dp{&value, &named, 1, 1};
    HRESULT hr = o->Invoke(id, GUID_NULL, 0, kind, &dp, nullptr, nullptr, nullptr);
    VariantClear(&value);
    return hr;
}

VARIANT Get(CEngine* o, const char* name, uint16_t kind = DISPATCH_PROPERTYGET) {
    std::u16string wide(name, name + std::strlen(name));
    OLECHAR* names[] = {wide.data()};
    DISPID id = 0;
    EXPECT_EQ(o->GetIDsOfNames(GUID_NULL, names, 1, 0, &id), S_OK) << name;
    DISPPARAMS dp{nullptr, nullptr, 0, 0};
    VARIANT r;
    VariantInit(&r);
    EXPECT_EQ(o->Invoke(id, GUID_NULL, 0, kind, &dp, &r, nullptr, nullptr), S_OK) << name;
    return r;
}

TEST(SessionMembers, FieldsChecksHooksAndTheSSLObject) {
    EXPECT_EQ(kIEngine.Validate(), "");
    EXPECT_EQ(kIEngine.members().size(), 19u);
    auto* o = new CEngine();

    // Text crosses byte for byte through 1252; a wide path unit for unit.
    EXPECT_EQ(Put(o, "ServerName", MakeBstr("caf\u00e9")), S_OK);
    EXPECT_EQ(Str(o->ServerName), "caf\xe9");
    VARIANT v = Get(o, "ServerName");
    EXPECT_EQ(std::u16string(v.bstrVal), u"caf\u00e9");
    VariantClear(&v);
    o->BannerDue = false;
    EXPECT_EQ(Put(o, "LogFilePath", MakeBstr("/tmp/\u65e5.txt")), S_OK);
    EXPECT_EQ(std::u16string(o->LogFilePath.pData, size_t(o->LogFilePath.nSize)), u"/tmp/\u65e5.txt");
    EXPECT_TRUE(o->BannerDue) << "a new log path gets the banner again";

    // A negative AuthMethod is ignored; any other value waits for the connect.
    EXPECT_EQ(Put(o, "AuthMethod", MakeI4(-1)), S_OK);
    EXPECT_EQ(o->AuthMethod, 0);
    EXPECT_EQ(Put(o, "AuthMethod", MakeI4(99)), S_OK);
    EXPECT_EQ(o->AuthMethod, 99);
    EXPECT_EQ(Put(o, "Timeout", MakeI4(7)), S_OK);
    EXPECT_EQ(o->Socket.Timeout, 7);
    EXPECT_EQ(Put(o, "EnableEvents", MakeBool(true)), S_OK);
    EXPECT_EQ(o->Socket.Blocking, 0);
    EXPECT_NE(Put(o, "ErrCode", MakeI4(1)), S_OK) << "read only";
    o->IsError = true;
    v = Get(o, "IsError");
    EXPECT_EQ(v.vt, VT_BOOL);
    EXPECT_EQ(v.boolVal, VARIANT_TRUE);

    // The SSL object: null means none; a foreign object is refused; no
    // change while connected.
    VARIANT ssl = Get(o, "SSL");
    ASSERT_EQ(ssl.vt, VT_DISPATCH);
    CSSL* own = CSSL::FromDispatch(ssl.pdispVal);
    ASSERT_NE(own, nullptr);
    EXPECT_EQ(own->Enabled, 0);
    VARIANT none;
    none.vt = VT_DISPATCH;
    none.pdispVal = nullptr;
    EXPECT_EQ(Put(o, "SSL", none, DISPATCH_PROPERTYPUTREF), S_OK);
    EXPECT_FALSE(o->SSLObject);
    EXPECT_EQ(o->Socket.Crypt, nullptr);
    VARIANT foreign;
    foreign.vt = VT_DISPATCH;
    foreign.pdispVal = new CEngine();
    EXPECT_NE(Put(o, "SSL", foreign, DISPATCH_PROPERTYPUTREF), S_OK);
    EXPECT_FALSE(o->SSLObject);
    o->Connected = true;
    ssl.pdispVal->AddRef();  // each Put releases what it is given
    EXPECT_EQ(Put(o, "SSL", ssl, DISPATCH_PROPERTYPUTREF), S_OK);
    EXPECT_FALSE(o->SSLObject) << "no change while connected";
    o->Connected = false;
    ssl.pdispVal->AddRef();
    EXPECT_EQ(Put(o, "SSL", ssl, DISPATCH_PROPERTYPUTREF), S_OK);
    EXPECT_EQ(o->Socket.Crypt, &own->Crypt);
    VariantClear(&ssl);

    // Abort answers true only while a call runs.
    v = Get(o, "Abort", DISPATCH_METHOD);
    EXPECT_EQ(v.boolVal, VARIANT_FALSE);
    o->Busy = true;
    v = Get(o, "Abort", DISPATCH_METHOD);
    EXPECT_EQ(v.boolVal, VARIANT_TRUE);
    EXPECT_EQ(o->Socket.Running, 0);
    o->Busy = false;
    o->Release();
}

// ---- dot-stuffing both ways ----

TEST(DotStuffing, PiecesOnTheWireAndBack) {
    struct Case {
        std::string body, wire;
    } cases[] = {
        {"", ""},
        {"plain\r\n", "plain\r\n"},
        {".\r\n", "..\r\n"},
        {"a\r\n.b\r\n..c\r\n.", "a\r\n..b\r\n...c\r\n.."},
        {"a.\r\nb\r\n\r\n.\r\n", "a.\r\nb\r\n\r\n..\r\n"},
        {std::string(70000, 'x') + "\r\n.y", std::string(70000, 'x') + "\r\n..y"},
    };
    for (const Case& c : cases) {
        for (int32_t max_piece : {1, 2, 3, 65536}) {
            SCOPED_TRACE(c.body.substr(0, 20) + " in pieces of " + std::to_string(max_piece));
            std::string wire;
            bool in_place = true;
            ForEachStuffedPiece(c.body.data(), int32_t(c.body.size()), max_piece, [&](const char* p, int32_t n) {
                EXPECT_LE(n, max_piece);
                // Every piece is the body where it stands, or the added dot.
                if (!(n == 1 && *p == '.' && (p < c.body.data() || p >= c.body.data() + c.body.size())))
                    in_place = in_place && p >= c.body.data() && p + n <= c.body.data() + c.body.size();
                wire.append(p, size_t(n));
                return true;
            });
            EXPECT_TRUE(in_place);
            EXPECT_EQ(wire, c.wire);
        }
        // Receiving reads a line start by the CRLF before it.
        std::string received = "\r\n" + c.wire;
        std::string out(received.size(), '\0');
        out.resize(size_t(Unstuff(received.data(), int32_t(received.size()), out.data())));
        EXPECT_EQ(out, "\r\n" + c.body);
        // In place gives the same.
        received.resize(size_t(Unstuff(received.data(), int32_t(received.size()), received.data())));
        EXPECT_EQ(received, "\r\n" + c.body);
    }
    int calls = 0;
    EXPECT_FALSE(ForEachStuffedPiece("a\r\n.b", 6, 64, [&](const char*, int32_t) { return ++calls < 2; }));
    EXPECT_EQ(calls, 2) << "stops at the first refused piece";
}

}  // namespace
