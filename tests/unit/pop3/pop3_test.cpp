// Korvane.POP3 against the scripted fake server: what real servers won't do
// (broken greetings, closes mid-message, odd chunking, NTLMv1-only and MSN
// logins, long lines), the reply helpers, the login exchanges byte for byte,
// retrieval, UIDs, events with Proceed, and the error codes and texts.
#include "pop3/pop3.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "../support/event_sink.h"
#include "../support/fake_server.h"
#include "../support/text.h"
#include "automation/safearray.h"
#include "automation/variant.h"
#include "codecs/digest.h"
#include "codecs/encoding.h"
#include "message/collections.h"
#include "message/message.h"
#include "transport/ntlm.h"
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

std::string FromBase64(const std::string& text) {
    bstring out;
    DecodeBase64(out, bstring(text.data(), int32_t(text.size())));
    return Str(out);
}

std::string Text(BSTR s) {
    std::string out;
    for (uint32_t i = 0; i < SysStringLen(s); ++i) out.push_back(char(s[i]));
    SysFreeString(s);
    return out;
}

const char* kGreeting = "+OK ready <123.456@fake.test>\r\n";

// The common opening: greeting, USER/PASS, STAT and LIST of two messages.
std::vector<Step> Opening(std::string stat = "+OK 2 320\r\n", std::string list = "+OK\r\n1 120\r\n2 200\r\n.\r\n") {
    std::vector<Step> steps{Say(kGreeting), Hear("user alice\r\n"), Say("+OK\r\n"), Hear("pass secret\r\n"),
                            Say("+OK logged in\r\n"), Hear("STAT\r\n"), Say(stat)};
    if (stat.rfind("+OK 0", 0) != 0 && stat[0] == '+') {
        steps.push_back(Hear("LIST\r\n"));
        steps.push_back(Say(list));
    }
    return steps;
}

std::vector<Step> Then(std::vector<Step> steps, std::vector<Step> more) {
    steps.insert(steps.end(), more.begin(), more.end());
    return steps;
}

// One POP3 object with its log in a temporary file.
class Session {
public:
    CPOP3* pop = CPOP3::New();
    std::string log_path;

    Session() {
        char name[] = "/tmp/kv_pop3_logXXXXXX";
        int fd = mkstemp(name);
        close(fd);
        log_path = name;
        pop->LogFilePath.assign(std::u16string(log_path.begin(), log_path.end()).c_str());
        pop->EnableLogging = true;
        pop->Socket.Timeout = 10;
        pop->ServerName.assign("127.0.0.1");
        pop->UserName.assign("alice");
        pop->Password.assign("secret");
    }
    ~Session() {
        // A session still up says QUIT on release; the scripts don't answer it.
        pop->Socket.Timeout = 0;
        pop->Release();
        std::remove(log_path.c_str());
    }
    bool Connect(const FakeServer& server) {
        pop->PortNumber = server.port();
        VARIANT_BOOL ok = VARIANT_FALSE;
        EXPECT_EQ(pop->Connect(nullptr, 0, nullptr, nullptr, nullptr, nullptr, &ok), S_OK);
        return ok != VARIANT_FALSE;
    }
    CMessage* Retrieve(int32_t index, int32_t lines = -1) {
        IDispatch* out = nullptr;
        EXPECT_EQ(pop->RetrieveSingleMessageHeaders(index, lines, &out), S_OK);
        return CMessage::FromDispatch(out);
    }
    bool Disconnect() {
        VARIANT_BOOL ok = VARIANT_FALSE;
        pop->Disconnect(&ok);
        return ok != VARIANT_FALSE;
    }
    std::vector<std::string> Log() {
        std::ifstream in(log_path, std::ios::binary);
        std::stringstream all;
        all << in.rdbuf();
        std::string s = all.str();
        std::vector<std::string> texts;
        static const std::regex line(R"(\d\d:\d\d:\d\d ([^\r\n]*)\r\n)");
        for (std::sregex_iterator it(s.begin(), s.end(), line), end; it != end; ++it) texts.push_back((*it)[1]);
        return texts;
    }
    bool Logged(const std::string& text) {
        for (const std::string& l : Log())
            if (l == text) return true;
        return false;
    }
    std::string ErrDesc() const { return Str(pop->ErrDesc); }
};

// ---- the reply helpers ---------------------------------------------------------

TEST(Pop3Reply, UnstuffingTable) {
    struct Case {
        std::string reply, body;
    } cases[] = {
        {"+OK\r\nabc\r\n.\r\n", "abc\r\n"},
        {"+OK\r\n..first\r\n..second\r\n.\r\n", "..first\r\n.second\r\n"},  // the first line keeps its dots
        {"+OK\r\nx\r\n...\r\n..\r\n.\r\n", "x\r\n..\r\n.\r\n"},
        {"+OK\r\n\r\n..\r\n.\r\n", "\r\n.\r\n"},
        {"+OK 120 octets\r\n.\r\n", ""},
        {"+OK.\r\n", ""},  // no CRLF once the terminator is gone
        {"+OK", ""},       // too short to hold anything: left as it was
        {"+OK\r\nend..\r\n..\r\n.\r\n", "end..\r\n.\r\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.reply);
        bstring source(c.reply.data(), int32_t(c.reply.size())), body("old");
        UnstuffResponse(source, body);
        EXPECT_EQ(Str(body), c.body);
        // The terminator is gone from the reply for good.
        EXPECT_EQ(source.nSize, int32_t(c.reply.size() >= 4 ? c.reply.size() - 3 : c.reply.size()));
    }
}

TEST(Pop3Reply, CompletenessLooksAtTheEndOnly) {
    struct Case {
        int32_t multiline;
        std::string bytes;
        bool complete;
        int32_t multiline_after;
    } cases[] = {
        {0, "+OK\r\n", true, 0},
        {0, "+OK", false, 0},
        {0, "", false, 0},
        {1, "+OK\r\n", false, 1},
        {1, "+OK\r\nx\r\n.\r\n", true, 1},
        {1, "+OK\r\n.\r\n", true, 1},
        {1, "+OK\r\nline\r\n..\r\n", false, 1},  // a stuffed dot line is not the end
        {1, "-ERR no such message\r\n", true, 0},  // an error reply ends at its first line
        {1, "-ERR", false, 0},
        {1, "", false, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.bytes);
        POP3Mailer m;
        m.MultilineExpected = c.multiline;
        m.ServerResponse.assign(c.bytes.data(), int32_t(c.bytes.size()));
        EXPECT_EQ(m.IsResponseReceived(), c.complete);
        EXPECT_EQ(m.MultilineExpected, c.multiline_after);
        EXPECT_EQ(m.IsResponsePositive(), !c.bytes.empty() && c.bytes[0] == '+');
    }
}

TEST(Pop3Reply, TokensOffsetsAndStamps) {
    const std::string stat = "+OK 2 320\r\n";
    EXPECT_EQ(Str(ResponseToken(stat.data(), int32_t(stat.size()), 0)), "+OK");
    EXPECT_EQ(Str(ResponseToken(stat.data(), int32_t(stat.size()), 1)), "2");
    EXPECT_EQ(Str(ResponseToken(stat.data(), int32_t(stat.size()), 2)), "320");
    EXPECT_EQ(Str(ResponseToken(stat.data(), int32_t(stat.size()), 3)), "");
    const std::string uidl = "7 \t whqtswO00WBw418f9t5JxYwZ";
    EXPECT_EQ(Str(ResponseToken(uidl.data(), int32_t(uidl.size()), 1)), "whqtswO00WBw418f9t5JxYwZ");

    struct Offset {
        const char* reply;
        int32_t offset;
    } offsets[] = {{"+ YWJj\r\n", 2}, {"+\t \tYWJj\r\n", 4}, {"+OK\r\n", -1}, {"+ \r\n", 2}, {"", -1}};
    for (const Offset& o : offsets) EXPECT_EQ(SecondWordOffset(bstring(o.reply)), o.offset) << o.reply;

    struct Stamp {
        const char* greeting;
        const char* stamp;
    } stamps[] = {
        {"+OK POP3 server ready <1896.697170952@dbc.mtview.ca.us>\r\n", "<1896.697170952@dbc.mtview.ca.us>"},
        {"+OK <a@b> and <c@d> here\r\n", "<c@d>"},
        {"+OK no stamp\r\n", ""},
        {"+OK backwards >x<\r\n", ""},
        {"+OK <unclosed\r\n", ""},
    };
    for (const Stamp& s : stamps) EXPECT_EQ(Str(ApopStamp(bstring(s.greeting))), s.stamp) << s.greeting;
}

// ---- logins ---------------------------------------------------------------------

struct LoginCase {
    std::string name;
    int32_t method;
    std::string user, password;
    std::vector<Step> steps;
    std::string transcript;
    bool ok;
    int32_t err_code;
    std::vector<std::string> log;  // lines that must be in the log
};

std::string Md5Of(const std::string& text) {
    char hex[33];
    Md5Hex(hex, text.data(), int32_t(text.size()));
    return hex;
}

std::vector<LoginCase> LoginCases() {
    const std::string stat_list = "STAT\r\nLIST\r\n";
    const std::string xoauth = Base64(std::string("user=alice\x01" "auth=Bearer tok-1\x01\x01"));
    return {
        {"user and pass", 0, "alice", "secret", Opening(), "user alice\r\npass secret\r\n" + stat_list, true, 0,
         {"[Using regular POP3 authentication]", "[Sending UserName]", "[Sending Password]",
          "[Got stat, 2 message(s) available. Total size is 320 bytes]", "[Got list]"}},
        {"wrong password", 0, "alice", "bad",
         {Say(kGreeting), Hear("user alice\r\n"), Say("+OK\r\n"), Hear("pass bad\r\n"), Say("-ERR [AUTH] failed\r\n")},
         "user alice\r\npass bad\r\n", false, 213,
         {"[Error: Negative or void server response]", "[Server responded: -ERR [AUTH] failed\\r\\n]",
          "[Possible error reason: incorrect UserName and/or Password]", "[Error: Connection failure]"}},
        {"user refused", 0, "alice", "secret",
         {Say(kGreeting), Hear("user alice\r\n"), Say("-ERR\r\n")}, "user alice\r\n", false, 213,
         {"[Possible error reason: incorrect UserName]"}},
        {"empty password sends nothing", 0, "alice", "", {}, "", false, 213,
         {"[Error: Nonempty UserName and Password required]"}},
        {"APOP of the stamp", 1, "mrose", "tanstaafl",
         {Say("+OK POP3 server ready <1896.697170952@dbc.mtview.ca.us>\r\n"),
          Hear("APOP mrose " + Md5Of("<1896.697170952@dbc.mtview.ca.us>tanstaafl") + "\r\n"), Say("+OK\r\n"), Hear("STAT\r\n"),
          Say("+OK 0 0\r\n")},
         "APOP mrose " + Md5Of("<1896.697170952@dbc.mtview.ca.us>tanstaafl") + "\r\nSTAT\r\n", true, 0, {"[Sending MD5 Digest]"}},
        {"APOP takes the last pair", 1, "u", "p",
         {Say("+OK <a@b> then <c@d>\r\n"), Hear("APOP u " + Md5Of("<c@d>p") + "\r\n"), Say("+OK\r\n"),
          Hear("STAT\r\n"), Say("+OK 0 0\r\n")},
         "APOP u " + Md5Of("<c@d>p") + "\r\nSTAT\r\n", true, 0, {}},
        {"APOP without a stamp digests the password alone", 1, "u", "p",
         {Say("+OK hello\r\n"), Hear("APOP u " + Md5Of("p") + "\r\n"), Say("-ERR\r\n")},
         "APOP u " + Md5Of("p") + "\r\n", false, 213, {}},
        {"XOAUTH2", 6, "alice", "tok-1",
         {Say(kGreeting), Hear("AUTH XOAUTH2\r\n"), Say("+ \r\n"), Hear(xoauth + "\r\n"), Say("+OK\r\n"),
          Hear("STAT\r\n"), Say("+OK 0 0\r\n")},
         "AUTH XOAUTH2\r\n" + xoauth + "\r\nSTAT\r\n", true, 0,
         {"[Sending AUTH XOAUTH2\\r\\n]", "[Sending XOAUTH2 client response]"}},
        {"XOAUTH2 error challenge", 6, "alice", "tok-1",
         {Say(kGreeting), Hear("AUTH XOAUTH2\r\n"), Say("+ \r\n"), Hear(xoauth + "\r\n"),
          Say("+ eyJzdGF0dXMiOiI0MDEifQ==\r\n")},
         "AUTH XOAUTH2\r\n" + xoauth + "\r\n", false, 213,
         {"[Possible error reason: incorrect UserName and/or OAuth2 access token (if you decode server reply "
          "from base64, you may get more information)]"}},
        {"NTLM not offered", 2, "alice", "secret",
         {Say(kGreeting), Hear("AUTH NTLM\r\n"), Say("-ERR\r\n")}, "AUTH NTLM\r\n", false, 211,
         {"[Sending AUTH NTLM\\r\\n]",
          "[Possible error reason: NTLM authentication type (auth ntlm command) is not supported by this server]"}},
        {"NTLM challenge without a second word", 2, "alice", "secret",
         {Say(kGreeting), Hear("AUTH NTLM\r\n"), Say("+ \r\n"), HearLine(), Say("+\r\n")}, "", false, 212,
         {"[Sending NTLM/MSN/GSSAPI Request]", "[Error: Incorrect NTLM/MSN/GSSAPI Challenge]"}},
        {"broken greeting", 0, "alice", "secret", {Say("-ERR too busy\r\n")}, "", false, 216,
         {"[Server responded: -ERR too busy\\r\\n]"}},
        {"greeting cut short", 0, "alice", "secret", {Say("+OK hel"), Close()}, "", false, 6,
         {"[Error: Negative or void server response]"}},
        {"unknown method", 7, "alice", "secret", {Say(kGreeting)}, "", false, 211,
         {"[Error: Wrong authentication type]"}},
        {"no authentication", 16, "", "", {Say(kGreeting)}, "", true, 0, {"[No authentication was selected]"}},
        {"STAT refused keeps the session", 0, "alice", "secret", Opening("-ERR later\r\n"),
         "user alice\r\npass secret\r\nSTAT\r\n", false, 214, {"[Error: STAT command failed]"}},
        {"LIST refused keeps the session", 0, "alice", "secret", Opening("+OK 2 320\r\n", "-ERR no\r\n"),
         "user alice\r\npass secret\r\n" + stat_list, false, 215, {"[Error: list command failed]"}},
    };
}

TEST(Pop3Login, ExchangesCodesAndLogLines) {
    for (const LoginCase& c : LoginCases()) {
        SCOPED_TRACE(c.name);
        std::vector<Step> steps = c.steps;
        if (c.ok) steps = Then(steps, {Hear("QUIT\r\n"), Say("+OK bye\r\n")});
        FakeServer server(steps);
        Session s;
        s.pop->AuthMethod = c.method;
        s.pop->UserName.assign(c.user.c_str());
        s.pop->Password.assign(c.password.c_str());
        EXPECT_EQ(s.Connect(server), c.ok);
        EXPECT_EQ(s.pop->ErrCode, c.err_code);
        EXPECT_EQ(s.pop->IsError, !c.ok);
        if (!c.ok && c.err_code != 214 && c.err_code != 215) {
            EXPECT_EQ(s.ErrDesc(), "[Error: Connection failure]");
            EXPECT_FALSE(s.pop->Connected);
            EXPECT_FALSE(s.pop->Socket.Connected);
            EXPECT_EQ(s.pop->Phase, 0);
        } else {
            EXPECT_TRUE(s.pop->Connected);
            EXPECT_EQ(s.pop->Phase, 2);
        }
        if (c.ok) {
            EXPECT_TRUE(s.Disconnect());
        } else if (s.pop->Connected) {
            s.pop->Socket.Disconnect();
        }
        if (!c.steps.empty()) server.Wait(3000);
        if (!c.transcript.empty()) {
            EXPECT_EQ(server.Transcript().substr(0, c.transcript.size()), c.transcript);
        }
        if (c.steps.empty()) {
            EXPECT_EQ(server.Transcript(), "");
        }
        std::vector<std::string> log = s.Log();
        ASSERT_FALSE(log.empty());
        EXPECT_EQ(log.front(), "[Korvane POP3 v9.4.1.274D]");
        for (const std::string& line : c.log) EXPECT_TRUE(s.Logged(line)) << line;
    }
}

TEST(Pop3Login, StatisticsAndShortListArePadded) {
    FakeServer server(Then(Opening("+OK 3 999\r\n", "+OK\r\n1 100\r\n2 200\r\n.\r\n"), {Hear("QUIT\r\n"), Say("+OK\r\n")}));
    Session s;
    ASSERT_TRUE(s.Connect(server));
    EXPECT_EQ(s.pop->MessageCount, 3);
    EXPECT_EQ(s.pop->TotalSize, 999);
    EXPECT_EQ(s.pop->MessageSizes, (std::vector<int32_t>{100, 200, 0}));
    int32_t size = 0;
    s.pop->get_Size(2, &size);
    EXPECT_EQ(size, 200);
    s.pop->get_Size(4, &size);
    EXPECT_EQ(size, -1);
    EXPECT_EQ(s.pop->ErrCode, 203);
    EXPECT_FALSE(s.Logged("[Error: Message index is out of range]"));  // Size doesn't log
    EXPECT_TRUE(s.Disconnect());
    EXPECT_TRUE(s.Logged("[Connection closed]"));
    EXPECT_FALSE(s.Disconnect());
    EXPECT_EQ(s.pop->ErrCode, 1);
    EXPECT_EQ(s.ErrDesc(), "[Error: Not connected]");
}

TEST(Pop3Login, GmailHostsMoveToTheTlsPort) {
    struct Case {
        const char* name;
        int32_t port_after;
        const char* name_after;
    } cases[] = {
        {"POP.GMAIL.COM", 995, "pop.gmail.com"},
        {"gmail.com", 995, "gmail.com"},
        {"NotGmail.com", 110, "notgmail.com"},
        {"gmail.com.example", 110, "gmail.com.example"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Session s;
        s.pop->ServerName.assign(c.name);
        s.pop->Password.assign("");  // fails before the socket opens
        VARIANT_BOOL ok;
        s.pop->Connect(nullptr, 0, nullptr, nullptr, nullptr, nullptr, &ok);
        EXPECT_EQ(s.pop->ErrCode, 213);
        EXPECT_EQ(s.pop->PortNumber, c.port_after);
        EXPECT_EQ(Str(s.pop->ServerName), c.name_after);
        EXPECT_TRUE(s.Logged(std::string("[Connecting to server ") + c.name_after + " at port " +
                             std::to_string(c.port_after) + "]"));
    }
    // Without AutosetPortAndSSL nothing moves.
    Session s;
    s.pop->SSLObject->AutosetPortAndSSL = 0;
    s.pop->ServerName.assign("pop.gmail.com");
    s.pop->Password.assign("");
    s.pop->ConnectPOP3Complete();
    EXPECT_EQ(s.pop->PortNumber, 110);
    // A cancelled object stops before anything, even the banner.
    Session cancelled;
    cancelled.pop->ErrCode = 202;
    EXPECT_FALSE(cancelled.pop->ConnectPOP3Complete());
    EXPECT_TRUE(cancelled.Log().empty());
}

// MSN with a server that offers NTLMv1 only: no target information, no
// extended session security. The NT response is then fixed by the password
// and the server's challenge alone.
TEST(Pop3Login, MsnWithAnNtlmV1OnlyServer) {
    const uint8_t challenge[8] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef};
    std::string type2("NTLMSSP\0", 8);
    auto u32 = [&](uint32_t v) {
        for (int i = 0; i < 4; ++i) type2.push_back(char((v >> (8 * i)) & 0xff));
    };
    u32(2);
    u32(0), u32(48);          // target name: empty, at 48
    u32(0x00008201);          // unicode, NTLM, always sign
    type2.append(reinterpret_cast<const char*>(challenge), 8);
    type2.append(8, '\0');    // reserved
    u32(0), u32(48);          // target information: none
    FakeServer server({Say(kGreeting), Hear("AUTH MSN\r\n"), Say("+ \r\n"), HearLine(),
                       Say("+ " + Base64(type2) + "\r\n"), HearLine(), Say("+OK welcome\r\n"), Hear("STAT\r\n"),
                       Say("+OK 0 0\r\n"), Hear("QUIT\r\n"), Say("+OK bye\r\n")});
    Session s;
    s.pop->AuthMethod = 3;
    ASSERT_TRUE(s.Connect(server)) << s.ErrDesc();
    s.Disconnect();
    server.Wait(3000);
    std::string t = server.Transcript();
    size_t first = t.find("\r\n", 10), second = t.find("\r\n", first + 2);
    ASSERT_NE(second, std::string::npos);
    std::string type3 = FromBase64(t.substr(first + 2, second - first - 2));
    ASSERT_GE(type3.size(), 64u);
    auto u16at = [&](size_t at) { return uint16_t(uint8_t(type3[at]) | uint8_t(type3[at + 1]) << 8); };
    auto u32at = [&](size_t at) { return uint32_t(u16at(at)) | uint32_t(u16at(at + 2)) << 16; };
    EXPECT_EQ(u32at(8), 3u);
    ASSERT_EQ(u16at(20), 24);  // NTLMv1: a 24-byte NT response
    uint8_t owf[16], expected[24];
    NtlmOwfV1(bstring("secret"), owf);
    NtlmDesL(owf, challenge, expected);
    EXPECT_EQ(type3.substr(u32at(24), 24), std::string(reinterpret_cast<const char*>(expected), 24));
    EXPECT_TRUE(s.Logged("[Sending AUTH MSN\\r\\n]"));
}

// ---- retrieval ---------------------------------------------------------------------

const std::string kMessage =
    "From: Bob <bob@example.test>\r\nTo: alice@example.test\r\nSubject: dots\r\n\r\n"
    "first\r\n.\r\n..two\r\n.\r\n";
// The same, stuffed as it travels.
const std::string kStuffed =
    "From: Bob <bob@example.test>\r\nTo: alice@example.test\r\nSubject: dots\r\n\r\n"
    "first\r\n..\r\n...two\r\n..\r\n";

TEST(Pop3Retrieve, WholeMessageInEveryChunkingComesOutUnstuffed) {
    for (int piece : {0, 1, 7, 64}) {
        SCOPED_TRACE(piece);
        std::string list = "+OK\r\n1 " + std::to_string(kMessage.size()) + "\r\n.\r\n";
        FakeServer server(Then(Opening("+OK 1 " + std::to_string(kMessage.size()) + "\r\n", list),
                               {Hear("RETR 1\r\n"), Say("+OK message follows\r\n" + kStuffed + ".\r\n", piece)}));
        Session s;
        ASSERT_TRUE(s.Connect(server));
        CMessage* m = s.Retrieve(1);
        ASSERT_NE(m, nullptr) << s.ErrDesc();
        EXPECT_EQ(Str(m->m_bsRawBody), kMessage);
        EXPECT_EQ(kv::testing::Utf8(m->m_wsSubject), "dots");
        EXPECT_FALSE(s.pop->IsError);
        EXPECT_EQ(s.pop->ErrCode, 0);
        EXPECT_EQ(s.pop->Phase, 2);
        EXPECT_GE(s.pop->ServerResponse.nCapacity, int32_t(kMessage.size() * 11 / 10));
        EXPECT_TRUE(s.Logged("[Sending retr/top command: RETR 1\\r\\n]"));
        EXPECT_TRUE(s.Logged("[The message is ready]"));
        m->Release();
    }
}

TEST(Pop3Retrieve, TopGivesTheHeadAndTheListedSize) {
    const std::string head = "Subject: head only\r\n\r\n";
    FakeServer server(Then(Opening("+OK 1 5000\r\n", "+OK\r\n1 5000\r\n.\r\n"),
                           {Hear("TOP 1 0\r\n"), Say("+OK\r\n" + head + ".\r\n")}));
    Session s;
    ASSERT_TRUE(s.Connect(server));
    CMessage* m = s.Retrieve(1, 0);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(Str(m->m_bsRawBody), head);
    int32_t size = 0;
    m->get_Size(&size);
    EXPECT_EQ(size, 5000);
    m->Release();
}

TEST(Pop3Retrieve, ALineLongerThanTheBufferGrowsIt) {
    // Listed as 0 (padded), so nothing is reserved ahead.
    std::string line(300000, 'x');
    std::string body = "Subject: long\r\n\r\n" + line + "\r\n";
    FakeServer server(Then(Opening("+OK 1 300000\r\n", "+OK\r\n.\r\n"),
                           {Hear("RETR 1\r\n"), Say("+OK\r\n" + body + ".\r\n", 8192)}));
    Session s;
    ASSERT_TRUE(s.Connect(server));
    EXPECT_EQ(s.pop->MessageSizes, std::vector<int32_t>{0});
    CMessage* m = s.Retrieve(1);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(Str(m->m_bsRawBody), body);
    m->Release();
}

TEST(Pop3Retrieve, FailuresTable) {
    struct Case {
        std::string name;
        std::vector<Step> after;
        int32_t index;
        int32_t err_code;
        bool connected;
        std::string err_desc;
    } cases[] = {
        {"negative reply", {Hear("RETR 1\r\n"), Say("-ERR no such message\r\n")}, 1, 216, true,
         "[Error: message/headers retrieving failed]"},
        {"close mid-message", {Hear("RETR 2\r\n"), Say("+OK\r\nSubject: cut\r\n\r\nhalf"), Close()}, 2, 6, false,
         "[Error: message/headers retrieving failed]"},
        {"reset mid-message", {Hear("RETR 2\r\n"), Say("+OK\r\nSubject: cut\r\n\r\nhalf"), Pause(50), Reset()}, 2, 6,
         false, "[Error: message/headers retrieving failed]"},
        {"index above the count", {}, 3, 203, true, "[Error: Message index is out of range]"},
        {"index 0", {}, 0, 203, true, "[Error: Message index is out of range]"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FakeServer server(Then(Opening(), c.after));
        Session s;
        ASSERT_TRUE(s.Connect(server));
        EXPECT_EQ(s.Retrieve(c.index), nullptr);
        EXPECT_TRUE(s.pop->IsError);
        EXPECT_EQ(s.pop->ErrCode, c.err_code);
        EXPECT_EQ(s.pop->Connected, c.connected);
        EXPECT_EQ(s.ErrDesc(), c.err_desc);
        EXPECT_TRUE(s.Logged(c.err_desc));
        if (!c.connected) {
            EXPECT_TRUE(s.Logged("[Connection closed due to network error or timeout.]"));
        }
    }
}

TEST(Pop3Retrieve, HeadersLoopStopsAtTheFirstFailure) {
    FakeServer server(Then(Opening("+OK 3 30\r\n", "+OK\r\n1 10\r\n2 10\r\n3 10\r\n.\r\n"),
                           {Hear("TOP 1 2\r\n"), Say("+OK\r\nSubject: one\r\n\r\n.\r\n"), Hear("TOP 2 2\r\n"),
                            Say("-ERR gone\r\n")}));
    Session s;
    IDispatch* out = nullptr;
    s.pop->RetrieveHeaders(0, -1, 0, &out);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(s.pop->ErrCode, 203);
    EXPECT_EQ(s.ErrDesc(), "[Error: Message index is less than 1]");
    s.pop->PortNumber = server.port();
    s.pop->RetrieveHeaders(1, -1, 2, &out);  // connects by itself
    ASSERT_NE(out, nullptr);
    CMessages* list = static_cast<CMessages*>(out);
    EXPECT_EQ(list->m_coll.size(), 1u);
    EXPECT_TRUE(s.pop->IsError);
    EXPECT_EQ(s.pop->ErrCode, 216);
    out->Release();
}

// ---- events ---------------------------------------------------------------------------

class RecordingSink final : public EventSink {
public:
    std::vector<std::string> events;
    std::function<bool(DISPID, int32_t)> answer;  // Proceed for (event, first argument)
    HRESULT Invoke(DISPID id, REFIID, LCID, uint16_t, DISPPARAMS* dp, VARIANT*, EXCEPINFO*, uint32_t*) override {
        // Arguments arrive reversed: Proceed first, Index last.
        int32_t index = dp->rgvarg[dp->cArgs - 1].lVal;
        static const char* names[] = {"", "start", "progress", "complete", "message"};
        events.push_back(std::string(names[id]) + " " + std::to_string(index));
        if (answer && !answer(id, index)) *dp->rgvarg[0].pboolVal = VARIANT_FALSE;
        return S_OK;
    }
};

TEST(Pop3Events, StartRefusedCancelsBeforeTheCommand) {
    FakeServer server(Opening());
    Session s;
    RecordingSink sink;
    sink.answer = [](DISPID id, int32_t) { return id != kOnReceiveStart; };
    uint32_t cookie = 0;
    s.pop->Events()->Advise(&sink, &cookie);
    s.pop->put_EnableEvents(VARIANT_TRUE);
    ASSERT_TRUE(s.Connect(server));
    EXPECT_EQ(s.Retrieve(1), nullptr);
    EXPECT_EQ(s.pop->ErrCode, 202);
    s.pop->Events()->Unadvise(cookie);
    server.Wait(3000);
    EXPECT_EQ(server.Transcript().find("RETR"), std::string::npos);
}

// ---- UIDs and commands ---------------------------------------------------------------

TEST(Pop3Commands, UidsAreListedOnceAndSearchedIgnoringCase) {
    FakeServer server(Then(Opening("+OK 3 30\r\n", "+OK\r\n1 10\r\n2 10\r\n3 10\r\n.\r\n"),
                           {Hear("UIDL\r\n"), Say("+OK\r\n1 AbC\r\n2\txyz-2\r\n.\r\n"), Hear("QUIT\r\n"),
                            Say("+OK bye\r\n")}));
    Session s;
    int32_t n = 0;
    BSTR uid = nullptr;
    s.pop->GetMessageUID(1, &uid);  // not connected: out of range before anything else
    EXPECT_EQ(uid, nullptr);
    EXPECT_EQ(s.pop->ErrCode, 203);
    ASSERT_TRUE(s.Connect(server));
    BSTR wanted = SysAllocString(u"abc");
    s.pop->GetMessageNumberFromUID(wanted, &n);
    EXPECT_EQ(n, 1);
    SysFreeString(wanted);
    wanted = SysAllocString(u"XYZ-2");
    s.pop->GetMessageNumberFromUID(wanted, &n);  // cached: no second UIDL
    EXPECT_EQ(n, 2);
    SysFreeString(wanted);
    wanted = SysAllocString(u"ab");
    s.pop->GetMessageNumberFromUID(wanted, &n);
    SysFreeString(wanted);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(s.pop->ErrCode, 203);
    EXPECT_EQ(s.ErrDesc(), "[Error: UID value not found]");
    s.pop->GetMessageUID(2, &uid);
    EXPECT_EQ(Text(uid), "xyz-2");
    s.pop->GetMessageUID(3, &uid);  // padded
    EXPECT_EQ(uid, nullptr);

    VARIANT all;
    VariantInit(&all);
    s.pop->Search(&all);
    ASSERT_EQ(all.vt, VT_ARRAY | VT_VARIANT);
    int32_t lower = 0, upper = 0;
    SafeArrayGetLBound(all.parray, 1, &lower);
    SafeArrayGetUBound(all.parray, 1, &upper);
    EXPECT_EQ(lower, 1);
    EXPECT_EQ(upper, 3);
    VARIANT* items = nullptr;
    SafeArrayAccessData(all.parray, reinterpret_cast<void**>(&items));
    EXPECT_EQ(items[0].vt, VT_BSTR);
    EXPECT_EQ(std::u16string(items[0].bstrVal), u"AbC");
    SafeArrayUnaccessData(all.parray);
    VariantClear(&all);
    EXPECT_TRUE(s.Logged("[UID Array ready]"));
    EXPECT_TRUE(s.Disconnect());
    server.Wait(3000);
    EXPECT_EQ(server.Transcript(), "user alice\r\npass secret\r\nSTAT\r\nLIST\r\nUIDL\r\nQUIT\r\n");
}

// Deletion, numbering and the replies to custom commands are checked against
// Dovecot; here the answers a real server won't give.
TEST(Pop3Commands, RefusedPingAndTheLastChunkOfACustomCommand) {
    FakeServer server(Then(Opening(), {Hear("noop\r\n"), Say("-ERR nope\r\n"), Hear("CAPA\r\n"),
                                       Say("+OK\r\nUIDL\r\nTOP\r\n.\r\n")}));
    Session s;
    ASSERT_TRUE(s.Connect(server));
    VARIANT_BOOL ok = VARIANT_TRUE;
    s.pop->Ping(&ok);
    EXPECT_EQ(ok, VARIANT_FALSE);
    EXPECT_EQ(s.pop->ErrCode, 216);
    EXPECT_EQ(s.ErrDesc(), "[Error: ping failed]");
    EXPECT_TRUE(s.pop->Connected);

    BSTR cmd = SysAllocString(u"CAPA\r\n"), reply = nullptr;
    s.pop->SendCommand(cmd, VARIANT_TRUE, &reply);
    SysFreeString(cmd);
    EXPECT_EQ(Text(reply), "+OK\r\nUIDL\r\nTOP\r\n.\r\n");
    EXPECT_TRUE(s.Logged("[Sending custom command: CAPA\\r\\n]"));
    BSTR chunk = nullptr;
    s.pop->GetLastReceivedDataChunk(&chunk);
    EXPECT_EQ(Text(chunk), "+OK\r\nUIDL\r\nTOP\r\n.\r\n");
}

TEST(Pop3Commands, NoAuthenticationLeavesNothingToIndex) {
    FakeServer server({Say(kGreeting)});
    Session s;
    s.pop->AuthMethod = 16;
    ASSERT_TRUE(s.Connect(server));
    EXPECT_EQ(s.pop->MessageCount, 0);
    EXPECT_EQ(s.Retrieve(1), nullptr);
    EXPECT_EQ(s.ErrDesc(), "[Error: Message index is out of range]");
    VARIANT_BOOL ok;
    s.pop->Connect(nullptr, 0, nullptr, nullptr, nullptr, nullptr, &ok);
    EXPECT_EQ(ok, VARIANT_FALSE);
    EXPECT_EQ(s.pop->ErrCode, 2);
    EXPECT_EQ(s.ErrDesc(), "[Error: Already connected]");
}

}  // namespace
