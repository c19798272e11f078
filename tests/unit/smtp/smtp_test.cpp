// Korvane.SMTP against the scripted fake server: what is SMTP's own (the
// end of a reply, the roads of the connect sequence, the envelope and the
// data stage with its recovery, the queue file) and what real servers won't
// do. The login exchanges and the failure roads themselves are the engine's
// (transport/session_test.cpp); logins, TLS, delivery and accepted refusals
// against Postfix are in tests/integration/test_smtp.py.
#include "smtp/smtp.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "../support/event_sink.h"
#include "../support/fake_server.h"
#include "../support/text.h"
#include "message/message.h"
#include "transport/ssl.h"

using namespace kv;
using namespace kv::testing;
using namespace kv::automation;

namespace {

std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream all;
    all << in.rdbuf();
    return all.str();
}

// A recorded reply as it travels: its line ends made CRLF.
std::string Wire(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '\n' && (out.empty() || out.back() != '\r')) out.push_back('\r');
        out.push_back(c);
    }
    return out;
}

TEST(SmtpReply, EndOfReplyInEveryPrefix) {
    struct Case {
        std::string reply;
        bool positive;
    } cases[] = {
        {"250-mail.example.test\r\n250-PIPELINING\r\n250 STARTTLS\r\n", true},
        {"250 ok\r\n", true},
        {"250\r\n", true},  // a reply line need carry no text
        {"334 VXNlcm5hbWU6\r\n", true},
        {"554 no\r\n", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.reply);
        SMTPMailer m;
        for (size_t n = 0; n <= c.reply.size(); ++n) {
            m.ServerResponse.assign(c.reply.data(), int32_t(n));
            EXPECT_EQ(m.IsResponseReceived(), n == c.reply.size()) << "prefix of " << n;
        }
        EXPECT_EQ(m.IsResponsePositive(), c.positive);
    }
    // Recorded replies of real servers (some hold several replies): whole
    // exactly at the end of each line that has no hyphen after its code.
    std::string dir = std::string(KV_SOURCE_DIR) + "/../shared/corpora/server-replies/smtp";
    if (!std::filesystem::is_directory(dir)) GTEST_SKIP() << "the recorded replies are not here: " << dir;
    int seen = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        std::string reply = Wire(ReadAll(entry.path()));
        SCOPED_TRACE(entry.path().filename().string());
        SMTPMailer m;
        size_t line_start = 0;
        for (size_t n = 1; n <= reply.size(); ++n) {
            m.ServerResponse.assign(reply.data(), int32_t(n));
            bool line_end = reply[n - 1] == '\n';
            bool final_line = line_end && n - line_start >= 5 && reply[line_start + 3] != '-';
            ASSERT_EQ(m.IsResponseReceived(), final_line) << "after " << n << " bytes of " << reply;
            if (line_end) line_start = n;
        }
        ++seen;
    }
    EXPECT_GT(seen, 20);
}

TEST(SmtpConnect, PortRuleOfAutosetPortAndSSL) {
    struct Case {
        int32_t port, method;
        const char* server;
        int32_t enabled, starttls;     // before
        int32_t enabled_after, starttls_after;
    } cases[] = {
        {587, 1, "mail.example.test", 0, 0, 1, 1},
        {587, 0, "mail.example.test", 0, 0, 0, 0},  // no login: nothing changes
        {465, 0, "mail.example.test", 0, 1, 1, 0},
        {25, 0, "smtp.gmail.com", 0, 0, 1, 1},
        {25, 0, "smtp.GMAIL.com", 0, 0, 1, 1},     // names compare without case
        {25, 0, "notgmail.com", 0, 0, 0, 0},
        {25, 0, "mail.example.test", 1, 0, 1, 1},
        {2525, 1, "mail.example.test", 1, 0, 1, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.port) + " " + c.server);
        int32_t enabled = c.enabled, starttls = c.starttls;
        AutosetSmtpTLS(c.port, c.method, bstring(c.server), enabled, starttls);
        EXPECT_EQ(enabled, c.enabled_after);
        EXPECT_EQ(starttls, c.starttls_after);
    }
}

// One SMTP object with its log in a temporary file.
class Session {
public:
    CSMTP* smtp = CSMTP::New();
    std::string log_path;

    Session() {
        char name[] = "/tmp/kv_smtp_logXXXXXX";
        close(mkstemp(name));
        log_path = name;
        smtp->LogFilePath.assign(std::u16string(log_path.begin(), log_path.end()).c_str());
        smtp->EnableLogging = true;
        smtp->Socket.Timeout = 10;
        smtp->ServerName.assign("127.0.0.1");
        smtp->Domain.assign("client.test");
        smtp->UserName.assign("alice");
        smtp->Password.assign("secret");
    }
    ~Session() {
        smtp->Socket.Timeout = 0;
        smtp->Connected = false;  // the scripts don't answer a QUIT on release
        smtp->Release();
        std::remove(log_path.c_str());
    }
    bool Connect(const FakeServer& server) {
        smtp->PortNumber = server.port();
        VARIANT_BOOL ok = VARIANT_FALSE;
        smtp->Connect(&ok);
        return ok != VARIANT_FALSE;
    }
    bool Send(const char* from = nullptr, const char* to = nullptr) {
        BSTR f = from ? Bstr(from) : nullptr, t = to ? Bstr(to) : nullptr;
        VARIANT_BOOL ok = VARIANT_FALSE;
        smtp->SendEx(f, t, &ok);
        SysFreeString(f);
        SysFreeString(t);
        return ok != VARIANT_FALSE;
    }
    static BSTR Bstr(const char* s) {
        std::u16string w(s, s + std::strlen(s));
        return SysAllocStringLen(w.data(), uint32_t(w.size()));
    }
    bool Logged(const std::string& text) const {
        std::string all = ReadAll(log_path);
        return all.find(" " + text + "\r\n") != std::string::npos;
    }
};

const char* kGreeting = "220 mail.example.test ESMTP\r\n";
const char* kEhlo = "250-mail.example.test\r\n250-DSN\r\n250-AUTH PLAIN LOGIN\r\n250 8BITMIME\r\n";

struct ConnectCase {
    std::string name;
    int32_t method;
    std::string password;
    std::vector<Step> steps;
    std::string transcript;
    bool ok;
    int32_t err_code;
    std::vector<std::string> log;
};

TEST(SmtpConnect, RoadsOfTheConnectSequence) {
    const ConnectCase cases[] = {
        {"EHLO without login", 16, "", {Say(kGreeting), Hear("EHLO client.test\r\n"), Say(kEhlo)},
         "EHLO client.test\r\n", true, 0, {"[Entering ESMTP authentication mode]", "[Authenticated]"}},
        {"greeting refused", 0, "secret", {Say("554 go away\r\n")}, "", false, 116,
         {"[Error: Negative or void server response]", "[Server responded: 554 go away\\r\\n]",
          "[Error: Connection failure]"}},
        {"EHLO refused", 1, "secret", {Say(kGreeting), Hear("EHLO client.test\r\n"), Say("502 no\r\n")}, "", false, 111,
         {"[Possible error reason: ESMTP authentication (EHLO command) is not supported by this server]"}},
        {"empty password sends nothing after the greeting", 1, "", {Say(kGreeting)}, "", false, 114,
         {"[Error: Enhanced authentication requires nonempty UserName and Password]"}},
        {"unknown method fails after EHLO", 9, "secret", {Say(kGreeting), Hear("EHLO client.test\r\n"), Say(kEhlo)},
         "EHLO client.test\r\n", false, 112, {"[Error: Wrong authentication type]"}},
        {"a broken multi-line EHLO cut by a close", 16, "",
         {Say(kGreeting), Hear("EHLO client.test\r\n"), Say("250-mail.example.test\r\n250-DSN\r\n"), Close()}, "",
         false, 6, {}},
    };
    for (const ConnectCase& c : cases) {
        SCOPED_TRACE(c.name);
        FakeServer server(c.steps);
        Session s;
        s.smtp->AuthMethod = c.method;
        s.smtp->Password.assign(c.password.c_str());
        EXPECT_EQ(s.Connect(server), c.ok);
        EXPECT_EQ(s.smtp->ErrCode, c.err_code);
        EXPECT_EQ(s.smtp->Connected, c.ok);
        EXPECT_EQ(s.smtp->Phase, c.ok ? kPhaseReady : kPhaseIdle);
        if (!c.ok) {
            EXPECT_FALSE(s.smtp->Socket.Connected);
            EXPECT_EQ(Str(s.smtp->ErrDesc), "[Error: Connection failure]");
        }
        if (c.method == 16) {
            EXPECT_EQ(s.smtp->SupportsDSN, c.ok);
        }
        s.smtp->Socket.Disconnect();
        server.Wait(3000);
        if (!c.transcript.empty()) {
            EXPECT_EQ(server.Transcript(), c.transcript);
        }
        for (const std::string& line : c.log) EXPECT_TRUE(s.Logged(line)) << line;
        EXPECT_TRUE(s.Logged("[Korvane SMTP v9.4.1.274D]"));
    }
}

// ---- sending -------------------------------------------------------------------------

std::vector<Step> Greeted() { return {Say(kGreeting), Hear("HELO client.test\r\n"), Say("250 hi\r\n")}; }

std::vector<Step> Then(std::vector<Step> steps, std::vector<Step> more) {
    steps.insert(steps.end(), more.begin(), more.end());
    return steps;
}

TEST(SmtpSend, BodyDotStuffedOnTheWireOnlyAndSentInPlace) {
    const std::string body = ".first\r\nline\r\n.\r\n..two\r\nlast";  // no final CRLF
    FakeServer server(Then(Greeted(), {Hear("MAIL FROM:<bob@example.test>\r\n"), Say("250 ok\r\n"),
                                       Hear("RCPT TO:<alice@example.test>\r\n"), Say("250 ok\r\n"),
                                       Hear("DATA\r\n"), Say("354 go\r\n"),
                                       Hear("..first\r\nline\r\n..\r\n...two\r\nlast\r\n.\r\n"),
                                       Say("250 queued\r\n")}));
    Session s;
    ASSERT_TRUE(s.Connect(server));
    char path[] = "/tmp/kv_smtp_bodyXXXXXX";
    int fd = mkstemp(path);
    ASSERT_EQ(write(fd, body.data(), body.size()), ssize_t(body.size()));
    close(fd);
    VARIANT_BOOL ok = VARIANT_FALSE;
    BSTR file = Session::Bstr(path), from = Session::Bstr("Bob <bob@example.test>"),
         to = Session::Bstr("alice@example.test");
    s.smtp->RelayMessage(file, from, to, &ok);
    SysFreeString(file), SysFreeString(from), SysFreeString(to);
    std::remove(path);
    EXPECT_EQ(ok, VARIANT_TRUE) << Str(s.smtp->ErrDesc);
    EXPECT_EQ(s.smtp->Phase, kPhaseReady);
    EXPECT_EQ(Str(s.smtp->AcceptedRecipients), "alice@example.test");
    EXPECT_EQ(s.smtp->SentData, s.smtp->ClientRequest.pData) << "points back at the request after the data";
    s.smtp->Socket.Disconnect();
    server.Wait(3000);
    EXPECT_EQ(server.Problems(), std::vector<std::string>{});
}

struct SendCase {
    std::string name;
    bool allow_refused;
    std::vector<Step> steps;
    bool ok;
    int32_t err_code;
    std::string accepted, refused;
    bool connected;
};

TEST(SmtpSend, RecipientsRefusalsAndRecovery) {
    const std::string mail = "MAIL FROM:<bob@example.test>\r\n";
    auto rcpt = [](const char* a) { return Hear(std::string("RCPT TO:<") + a + ">\r\n"); };
    const SendCase cases[] = {
        {"second of three refused stops and resets", false,
         {Hear(mail), Say("250 ok\r\n"), rcpt("a@example.test"), Say("250 ok\r\n"), rcpt("b@example.test"),
          Say("550 no such user\r\n"), Hear("RSET\r\n"), Say("250 reset\r\n")},
         false, 123, "a@example.test", "b@example.test", true},
        {"all refused even when allowed", true,
         {Hear(mail), Say("250 ok\r\n"), rcpt("a@example.test"), Say("550 no\r\n"), rcpt("b@example.test"),
          Say("550 no\r\n"), rcpt("c@example.test"), Say("550 no\r\n"), Hear("RSET\r\n"), Say("250 reset\r\n")},
         false, 123, "", "a@example.test, b@example.test, c@example.test", true},
        {"sender refused", false, {Hear(mail), Say("553 not you\r\n"), Hear("RSET\r\n"), Say("250 reset\r\n")}, false,
         122, "", "", true},
        {"message refused after the data", false,
         {Hear(mail), Say("250 ok\r\n"), rcpt("a@example.test"), Say("250 ok\r\n"), rcpt("b@example.test"),
          Say("250 ok\r\n"), rcpt("c@example.test"), Say("250 ok\r\n"), Hear("DATA\r\n"), Say("354 go\r\n"),
          HearLine(), HearLine(), HearLine(), HearLine(), Say("554 spam\r\n"), Hear("RSET\r\n"), Say("250 reset\r\n")},
         false, 124, "a@example.test, b@example.test, c@example.test", "", true},
        {"DATA answered with a 4xx", false,
         {Hear(mail), Say("250 ok\r\n"), rcpt("a@example.test"), Say("250 ok\r\n"), rcpt("b@example.test"),
          Say("250 ok\r\n"), rcpt("c@example.test"), Say("250 ok\r\n"), Hear("DATA\r\n"), Say("451 later\r\n"),
          Hear("RSET\r\n"), Say("250 reset\r\n")},
         false, 116, "a@example.test, b@example.test, c@example.test", "", true},
        {"connection lost at RCPT", false, {Hear(mail), Say("250 ok\r\n"), rcpt("a@example.test"), Close()}, false, 6,
         "", "a@example.test", false},
    };
    for (const SendCase& c : cases) {
        SCOPED_TRACE(c.name);
        FakeServer server(Then(Greeted(), c.steps));
        Session s;
        s.smtp->AllowRefusedRecipients = c.allow_refused;
        ASSERT_TRUE(s.Connect(server));
        s.smtp->Message->m_bsRawBody.assign("Subject: x\r\n\r\nbody\r\n");
        s.smtp->Message->m_bNeedsRebuild = false;
        EXPECT_EQ(s.Send("bob@example.test", "a@example.test, b@example.test; c@example.test"), c.ok);
        EXPECT_EQ(s.smtp->ErrCode, c.err_code);
        EXPECT_EQ(Str(s.smtp->AcceptedRecipients), c.accepted);
        EXPECT_EQ(Str(s.smtp->RefusedRecipients), c.refused);
        EXPECT_EQ(s.smtp->Connected, c.connected);
        if (c.connected && !c.ok) {
            // The properties show the refused command's reply, not RSET's.
            EXPECT_NE(Str(s.smtp->ServerResponse).substr(0, 3), "250");
            EXPECT_TRUE(s.Logged("[Sending failed (but connection is still valid)]"));
        }
        s.smtp->Socket.Disconnect();
        server.Wait(3000);
        EXPECT_EQ(server.Problems(), std::vector<std::string>{});
    }
}

TEST(SmtpSend, EnvelopeHoldsNoLineBreakAndNeedsBothSides) {
    struct Case {
        std::string from, recipients;
        bool ok;
        std::vector<std::string> list;
    } cases[] = {
        {"Bob <bob@example.test>", "a@example.test, B <b@example.test>;; c@example.test", true,
         {"a@example.test", "b@example.test", "c@example.test"}},
        {"bob@example.test", std::string("<a@example.test\r\nRCPT TO:x@evil.test>"), false, {}},
        {"<bob@example.test\nDATA>", "a@example.test", false, {}},
        {"bob@example.test", std::string("<a@example.test\0x>", 19), false, {}},
        {"bob@example.test", ",,", false, {}},  // a message without recipients joins to two commas
        {"", "a@example.test", false, {"a@example.test"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.recipients);
        bstring sender;
        std::vector<bstring> list;
        EXPECT_EQ(BuildEnvelope(bstring(c.from.data(), int32_t(c.from.size())),
                                bstring(c.recipients.data(), int32_t(c.recipients.size())), sender, list),
                  c.ok);
        if (c.ok) {
            std::vector<std::string> got;
            for (const bstring& a : list) got.push_back(Str(a));
            EXPECT_EQ(got, c.list);
        }
    }
}

class ReadySink final : public EventSink {
public:
    std::vector<DISPID> seen;
    HRESULT Invoke(DISPID id, REFIID, LCID, uint16_t, DISPPARAMS* dp, VARIANT*, EXCEPINFO*, uint32_t*) override {
        seen.push_back(id);
        if (id == kOnMessageReady) *dp->rgvarg[0].pboolVal = VARIANT_FALSE;
        return S_OK;
    }
};

TEST(SmtpSend, StopAtMessageReadyClosesWithoutSending) {
    FakeServer server(Greeted());
    Session s;
    ReadySink sink;
    uint32_t cookie = 0;
    s.smtp->Events()->Advise(&sink, &cookie);
    s.smtp->SetEventsEnabled(true);
    ASSERT_TRUE(s.Connect(server));
    EXPECT_FALSE(s.Send("bob@example.test", "alice@example.test"));
    EXPECT_EQ(s.smtp->ErrCode, kSmtpCancelled);
    EXPECT_FALSE(s.smtp->Connected);
    EXPECT_EQ(Str(s.smtp->ErrDesc), "[Error: Operation cancelled by user. Connection closed.]");
    s.smtp->Events()->Unadvise(cookie);
    server.Wait(3000);
    EXPECT_EQ(server.Transcript(), "HELO client.test\r\n");
}

TEST(SmtpQueue, FileWithEnvelopeLinesAndOptionalStuffing) {
    namespace fs = std::filesystem;
    fs::path dir = fs::temp_directory_path() / ("kv_queue_" + std::to_string(getpid()));
    fs::create_directories(dir);
    for (bool iis : {false, true}) {
        SCOPED_TRACE(iis);
        Session s;
        s.smtp->IsQueueIIS = iis;
        s.smtp->Message->m_bsRawBody.assign("Subject: q\r\n\r\n.dot line\r\nend\r\n");
        s.smtp->Message->m_bNeedsRebuild = false;
        BSTR d = Session::Bstr(dir.c_str()), f = Session::Bstr("Bob <bob@example.test>"),
             t = Session::Bstr("a@example.test, B <b@example.test>");
        VARIANT_BOOL ok = VARIANT_FALSE;
        s.smtp->SendToQueueEx(d, f, t, &ok);
        SysFreeString(d), SysFreeString(f), SysFreeString(t);
        EXPECT_EQ(ok, VARIANT_TRUE) << Str(s.smtp->ErrDesc);
        std::vector<fs::path> files{fs::directory_iterator(dir), fs::directory_iterator()};
        ASSERT_EQ(files.size(), 1u);
        EXPECT_EQ(files[0].extension(), ".eml");
        EXPECT_EQ(files[0].stem().string().size(), 35u);  // 8-4-4-16 hexadecimal digits
        EXPECT_EQ(ReadAll(files[0]), std::string("x-sender: <bob@example.test>\r\n"
                                                 "x-receiver: <a@example.test>\r\nx-receiver: <b@example.test>\r\n"
                                                 "Subject: q\r\n\r\n") +
                                         (iis ? ".." : ".") + "dot line\r\nend\r\n");
        fs::remove(files[0]);
    }
    fs::remove_all(dir);
}

}  // namespace
