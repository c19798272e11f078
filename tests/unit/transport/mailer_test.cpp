// The request-and-response cycle of GenericMailer through the fake server:
// every split of a response, the buffer's growth, both failure roads, the
// Busy frame, events with Proceed, Abort, and the session log byte for byte.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <thread>

#include "../support/event_sink.h"
#include "../support/fake_server.h"
#include "automation/catalogue.h"
#include "automation/object.h"
#include "automation/pump.h"
#include "automation/variant.h"
#include "transport/mailer.h"

using namespace kv;
using namespace kv::testing;
using namespace kv::automation;

namespace {

using Clock = std::chrono::steady_clock;

// A line protocol in the manner of POP3: "+OK" is positive; a response ends
// with its first line, or with a dot line when MultilineExpected.
class LineMailer : public GenericMailer {
public:
    bool IsResponsePositive() override { return ServerResponse.nSize >= 3 && std::memcmp(ServerResponse.pData, "+OK", 3) == 0; }
    bool IsResponseReceived() override {
        std::string_view s(ServerResponse.pData ? ServerResponse.pData : "", size_t(ServerResponse.nSize));
        if (!MultilineExpected) return s.find("\r\n") != std::string_view::npos;
        return s == ".\r\n" || (s.size() >= 5 && s.substr(s.size() - 5) == "\r\n.\r\n");
    }
    bool OnDataReceived(int32_t bytes) override {
        chunks.push_back(bytes);
        return true;
    }
    bool IsChallenge() override { return false; }
    bool ChallengeSpan(int32_t&, int32_t&) override { return false; }
    bool Logout() override { return Quit("QUIT\r\n", 216); }
    std::vector<int32_t> chunks;

    bool Open(const FakeServer& server) {
        Socket.Running = 1;
        if (Socket.Connect(server.host(), server.port()) != 0) return false;
        Connected = true;
        Phase = 2;
        return true;
    }
    std::string Response() const { return std::string(ServerResponse.pData, size_t(ServerResponse.nSize)); }
};

const std::string kList = "+OK 2 messages\r\n1 120\r\n2 4000\r\n.\r\n";

TEST(MailerCycle, MultilineResponseInEverySplit) {
    for (size_t cut = 0; cut <= kList.size(); ++cut) {
        SCOPED_TRACE(cut);
        FakeServer server({Hear("LIST\r\n"), Say(kList.substr(0, cut)), Pause(cut % 3 ? 5 : 0), Say(kList.substr(cut))});
        LineMailer m;
        m.Socket.Timeout = 5;
        ASSERT_TRUE(m.Open(server));
        m.MultilineExpected = 1;
        EXPECT_TRUE(m.SendAndCheck("LIST\r\n"));
        EXPECT_EQ(m.Response(), kList);
        EXPECT_EQ(m.ResponseComplete, 1);
        EXPECT_EQ(m.SentTotal, 6);
        m.Socket.Disconnect();
        EXPECT_TRUE(server.Wait());
        EXPECT_EQ(server.Transcript(), "LIST\r\n");
    }
}

TEST(MailerCycle, ResponseOneByteAtATimeInBothModes) {
    for (bool events : {false, true}) {
        FakeServer server({Hear("STAT\r\n"), Say(kList, 1)});
        LineMailer m;
        m.SetEventsEnabled(events);
        ASSERT_TRUE(m.Open(server));
        m.MultilineExpected = 1;
        EXPECT_TRUE(m.SendAndCheck("STAT\r\n")) << events;
        EXPECT_EQ(m.Response(), kList);
        int32_t sum = 0;
        for (int32_t c : m.chunks) sum += c;
        EXPECT_EQ(sum, int32_t(kList.size())) << "OnDataReceived sees every chunk, the last one too";
        EXPECT_EQ(m.LastChunkSize, m.chunks.back());
    }
}

// Each case is data: what the server does, and what the cycle must give.
struct CycleCase {
    const char* name;
    std::vector<Step> steps;
    bool multiline;
    bool result;
    const char* response;
    int32_t complete;
    bool refused;  // a whole answer came: the session stays up
    int32_t err_code;
};

TEST(MailerCycle, FailureRoads) {
    const CycleCase cases[] = {
        {"negative answer", {Hear("RETR 9\r\n"), Say("-ERR no such message\r\n")}, false, false,
         "-ERR no such message\r\n", 1, true, 216},
        {"close mid-line", {Hear("RETR 9\r\n"), Say("+OK 12 oct"), Close()}, false, false, "+OK 12 oct", 0,
         false, 6},
        {"close mid-body", {Hear("RETR 9\r\n"), Say("+OK\r\nbody\r\n"), Close()}, true, false, "+OK\r\nbody\r\n",
         0, false, 6},
        {"reset", {Hear("RETR 9\r\n"), Say("+OK\r\n"), Pause(30), Reset()}, true, false, "+OK\r\n", 0,
         false, 6},
        {"never answers", {Hear("RETR 9\r\n"), Hang()}, false, false, "", 0, false, 5},
    };
    for (const CycleCase& c : cases) {
        SCOPED_TRACE(c.name);
        FakeServer server(c.steps);
        LineMailer m;
        m.Socket.Timeout = 1;
        ASSERT_TRUE(m.Open(server));
        m.MultilineExpected = c.multiline;
        auto start = Clock::now();
        EXPECT_EQ(m.SendAndCheck("RETR 9\r\n"), c.result);
        EXPECT_LT(std::chrono::duration<double>(Clock::now() - start).count(), 2.5);
        EXPECT_EQ(m.Response(), c.response);
        EXPECT_EQ(m.ResponseComplete, c.complete);
        EXPECT_EQ(m.Aborted, 0);
        m.FailCommand(216);
        EXPECT_EQ(m.ErrCode, c.err_code);
        EXPECT_TRUE(m.IsError);
        EXPECT_EQ(m.Connected, c.refused);
        EXPECT_EQ(m.Socket.Connected, c.refused ? 1 : 0);
        EXPECT_EQ(m.Phase, c.refused ? 2 : 0);
    }
}

TEST(MailerCycle, LastLineThenCloseIsCompleteButFails) {
    FakeServer server({Hear("QUIT\r\n"), Say("+OK bye\r\n"), Close()});
    LineMailer m;
    ASSERT_TRUE(m.Open(server));
    ASSERT_TRUE(m.SendRequest("QUIT\r\n"));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(m.ReceiveServerResponse());
    EXPECT_EQ(m.Response(), "+OK bye\r\n");
    EXPECT_EQ(m.ResponseComplete, 1);
    m.FailCommand(216);
    EXPECT_TRUE(m.Connected) << "a whole answer arrived";
}

TEST(MailerCycle, ResponseThatExactlyFillsTheBufferGrowsIt) {
    // 65,536 bytes without an end, then the end: the full buffer grows by
    // 65,536 and the next Get reads on.
    std::string body(0x10000 - 5, 'x');
    std::string first = "+OK\r\n" + body;
    ASSERT_EQ(first.size(), 0x10000u);
    FakeServer server({Hear("RETR 1\r\n"), Say(first), Pause(100), Say("\r\n.\r\n")});
    LineMailer m;
    ASSERT_TRUE(m.Open(server));
    m.MultilineExpected = 1;
    EXPECT_TRUE(m.SendAndCheck("RETR 1\r\n"));
    EXPECT_EQ(m.Response(), first + "\r\n.\r\n");
    EXPECT_EQ(m.ServerResponse.nCapacity, 0x20000);

    // A whole response of exactly 65,536 bytes needs no growth.
    std::string whole = first.substr(0, 0x10000 - 5) + "\r\n.\r\n";
    FakeServer server2({Hear("RETR 2\r\n"), Say(whole)});
    LineMailer m2;
    ASSERT_TRUE(m2.Open(server2));
    m2.MultilineExpected = 1;
    EXPECT_TRUE(m2.SendAndCheck("RETR 2\r\n"));
    EXPECT_EQ(m2.ServerResponse.nSize, 0x10000);
    EXPECT_EQ(m2.ServerResponse.nCapacity, 0x10000);
}

TEST(MailerCycle, HugeLineAndTheResponseLimit) {
    std::string huge = "+OK " + std::string(1 << 20, 'y') + "\r\n";
    FakeServer server({Hear("X\r\n"), Say(huge, 65536)});
    LineMailer m;
    ASSERT_TRUE(m.Open(server));
    EXPECT_TRUE(m.SendAndCheck("X\r\n"));
    EXPECT_EQ(m.Response(), huge);
    EXPECT_EQ(m.ServerResponse.nCapacity % 0x10000, 0);

    FakeServer server2({Hear("X\r\n"), Say(huge, 65536), Hang()});
    LineMailer m2;
    m2.ResponseLimit = 0x40000;
    ASSERT_TRUE(m2.Open(server2));
    EXPECT_FALSE(m2.SendAndCheck("X\r\n"));
    EXPECT_EQ(m2.ServerResponse.nCapacity, 0x40000);
    m2.FailCommand(216);
    EXPECT_FALSE(m2.Connected);
    EXPECT_EQ(m2.ErrCode, 8);
}

TEST(MailerCycle, SendFailuresAndSentTotals) {
    FakeServer server({Hear("USER a\r\nPASS b\r\n"), Say("+OK\r\n")});
    LineMailer m;
    ASSERT_TRUE(m.Open(server));
    ASSERT_TRUE(m.SendRequest("USER a\r\n"));
    EXPECT_EQ(m.SentTotal, 8);
    const char* pass = "PASS b\r\n";
    m.SentData = pass;
    ASSERT_TRUE(m.SendBytes(pass, 8));
    EXPECT_EQ(m.SentTotal, 16) << "SendBytes adds to the total of the request";
    EXPECT_TRUE(m.ReceiveAndCheck());
    m.Socket.Disconnect();
    EXPECT_FALSE(m.SendRequest("NOOP\r\n"));
    EXPECT_EQ(m.Aborted, 0);
    m.Socket.Running = 0;
    EXPECT_FALSE(m.SendRequest("NOOP\r\n"));
    EXPECT_EQ(m.Aborted, 1);
}

// ---- the automation side: an object with an event, built like CPOP3 ----

constexpr IID IID_ITestMailer = {0x7A3E2C10, 0x51B2, 0x4C8E, {0x90, 0x11, 0x2F, 0x6D, 0x44, 0x10, 0x00, 0x01}};
constexpr IID IID_ITestMailerEvents = {0x7A3E2C10, 0x51B2, 0x4C8E, {0x90, 0x11, 0x2F, 0x6D, 0x44, 0x10, 0x00, 0x02}};
constexpr DISPID kOnProgress = 1;

extern const ClassInfo kTestMailerClass;

class CTestMailer : public ObjectBase, public LineMailer {
public:
    CTestMailer() : ObjectBase(kTestMailerClass) {
        EventSource = Events();
        QuietAbort = true;
    }
    bool OnDataReceived(int32_t bytes) override {
        LineMailer::OnDataReceived(bytes);
        return FireWithProceed(kOnProgress, {MakeI4(bytes)});
    }
    // An interface method: passes the Busy frame, then runs one command.
    HRESULT Command(BSTR text, int16_t* out) {
        *out = VARIANT_FALSE;
        MailerCall call(*this);
        if (call.refused()) return S_OK;
        bstring cmd;
        cmd.assign_bstr(text);
        cmd.null_terminate();
        if (SendAndCheck(cmd.pData)) {
            *out = VARIANT_TRUE;
        } else if (Aborted && Socket.Running) {
            CancelByUser(202);
        } else {
            FailCommand(216);
        }
        return S_OK;
    }
    HRESULT Abort(int16_t* out) {
        *out = GenericMailer::Abort() ? VARIANT_TRUE : VARIANT_FALSE;
        return S_OK;
    }
};

const InterfaceInfo kITestMailer("ITestMailer", IID_ITestMailer, {
    Method(1, "Command", VT_BOOL, Bind<&CTestMailer::Command>(), {Arg("Text", VT_BSTR)}),
    Method(2, "Abort", VT_BOOL, Bind<&CTestMailer::Abort>()),
});
const InterfaceInfo kITestMailerEvents("_ITestMailerEvents", IID_ITestMailerEvents, {
    Event(kOnProgress, "OnProgress", {Arg("Bytes", VT_I4), Arg("Proceed", VT_BYREF | VT_BOOL)}),
});
const ClassInfo kTestMailerClass = {
    "CTestMailer", "Korvane.TestMailer", "TestMailer Class",
    {0x7A3E2C10, 0x51B2, 0x4C8E, {0x90, 0x11, 0x2F, 0x6D, 0x44, 0x10, 0x01, 0x01}},
    &kITestMailer, &kITestMailerEvents, false, nullptr};

// A sink that runs a reaction on each event and answers Proceed.
class Sink final : public EventSink {
public:
    std::function<bool(int32_t bytes)> react;
    int calls = 0;
    HRESULT Invoke(DISPID id, REFIID, LCID, uint16_t, DISPPARAMS* dp, VARIANT*, EXCEPINFO*, uint32_t*) override {
        ++calls;
        EXPECT_EQ(id, kOnProgress);
        EXPECT_EQ(dp->cArgs, 2u);
        EXPECT_EQ(dp->rgvarg[0].vt, VT_BYREF | VT_BOOL);
        bool go = react ? react(dp->rgvarg[1].lVal) : true;
        if (!go) *dp->rgvarg[0].pboolVal = VARIANT_FALSE;
        return S_OK;
    }
};

class MailerEvents : public ::testing::Test {
protected:
    void SetUp() override {
        obj = new CTestMailer();
        ASSERT_EQ(obj->Events()->Advise(&sink, &cookie), S_OK);
        obj->SetEventsEnabled(true);
        obj->Socket.Timeout = 20;
        char name[] = "/tmp/kv_mailer_logXXXXXX";
        int fd = mkstemp(name);
        ASSERT_GE(fd, 0);
        close(fd);
        log_path = name;
        obj->LogFilePath.assign(std::u16string(log_path.begin(), log_path.end()).c_str());
        obj->EnableLogging = true;
    }
    void TearDown() override {
        obj->Events()->Unadvise(cookie);
        obj->Release();
        std::remove(log_path.c_str());
    }
    bool Command(const char* text) {
        VARIANT arg = MakeBstr(text), r;
        VariantInit(&r);
        DISPPARAMS dp{&arg, nullptr, 1, 0};
        EXPECT_EQ(obj->Invoke(1, GUID_NULL, 0, DISPATCH_METHOD, &dp, &r, nullptr, nullptr), S_OK);
        VariantClear(&arg);
        return r.boolVal != VARIANT_FALSE;
    }
    std::vector<std::string> LogTexts() {
        std::ifstream in(log_path, std::ios::binary);
        std::stringstream all;
        all << in.rdbuf();
        std::vector<std::string> texts;
        std::string s = all.str();
        static const std::regex line(R"((\d\d):(\d\d):(\d\d) ([^\r\n]*)\r\n)");
        size_t consumed = 0;
        for (std::sregex_iterator it(s.begin(), s.end(), line), end; it != end; ++it) {
            EXPECT_EQ(size_t(it->position()), consumed) << "every byte belongs to a log line";
            consumed += size_t(it->length());
            EXPECT_LT(std::stoi((*it)[1]), 24);
            texts.push_back((*it)[4]);
        }
        EXPECT_EQ(consumed, s.size());
        return texts;
    }
    CTestMailer* obj = nullptr;
    Sink sink;
    uint32_t cookie = 0;
    std::string log_path;
};

TEST_F(MailerEvents, ProceedFalseOnTheFirstChunkCancels) {
    FakeServer server({Hear("STAT\r\n"), Say("+OK 1 2\r\n")});
    sink.react = [](int32_t) { return false; };
    ASSERT_TRUE(obj->Open(server));
    // The cycle ends with Aborted while the connection stays up ...
    ASSERT_TRUE(obj->SendRequest("STAT\r\n"));
    EXPECT_FALSE(obj->ReceiveServerResponse());
    EXPECT_EQ(obj->Aborted, 1);
    EXPECT_EQ(obj->Socket.Connected, 1);
    EXPECT_EQ(sink.calls, 1);
    // ... until the caller cancels.
    obj->CancelByUser(202);
    EXPECT_EQ(obj->Socket.Connected, 0);
    EXPECT_FALSE(obj->Connected);
    EXPECT_EQ(obj->ErrCode, 202);
    EXPECT_EQ(obj->Phase, 0);
    EXPECT_EQ(std::string(obj->ErrDesc.pData, size_t(obj->ErrDesc.nSize)),
              "[Error: Operation cancelled by user. Connection closed.]");
    EXPECT_EQ(LogTexts(), std::vector<std::string>{"[Error: Operation cancelled by user. Connection closed.]"});
}

TEST_F(MailerEvents, NoEventFiresWithEventsOff) {
    FakeServer server({Hear("STAT\r\n"), Say("+OK 1 2\r\n")});
    obj->SetEventsEnabled(false);
    sink.react = [](int32_t) { return false; };
    ASSERT_TRUE(obj->Open(server));
    EXPECT_TRUE(Command("STAT\r\n"));
    EXPECT_EQ(sink.calls, 0);
}

TEST_F(MailerEvents, BusyRefusesACallFromAHandlerAndTouchesNothing) {
    FakeServer server({Hear("STAT\r\n"), Say("+OK 1 2\r\n")});
    ASSERT_TRUE(obj->Open(server));
    obj->IsError = true;
    obj->ErrCode = 123;
    obj->ErrDesc.assign("[Error: before]");
    bool inner = true;
    sink.react = [&](int32_t) {
        inner = Command("NOOP\r\n");
        EXPECT_TRUE(obj->Busy);
        return true;
    };
    EXPECT_TRUE(Command("STAT\r\n"));
    EXPECT_FALSE(inner);
    EXPECT_FALSE(obj->Busy);
    EXPECT_FALSE(obj->IsError) << "the outer call cleared and succeeded";
    EXPECT_EQ(obj->ErrCode, 123) << "the frame does not clear ErrCode";
    server.Wait(100);
    EXPECT_EQ(server.Transcript(), "STAT\r\n") << "the refused call sent nothing";
}

TEST_F(MailerEvents, BusyCallFromAHandlerLeavesTheErrorStateAsItWas) {
    FakeServer server({Hear("STAT\r\n"), Say("-ERR x\r\n")});
    ASSERT_TRUE(obj->Open(server));
    std::string desc_seen;
    sink.react = [&](int32_t) {
        obj->IsError = true;
        obj->ErrDesc.assign("[Error: set in handler]");
        EXPECT_FALSE(Command("NOOP\r\n"));
        desc_seen.assign(obj->ErrDesc.pData, size_t(obj->ErrDesc.nSize));
        EXPECT_TRUE(obj->IsError);
        return true;
    };
    EXPECT_FALSE(Command("STAT\r\n"));
    EXPECT_EQ(desc_seen, "[Error: set in handler]");
    EXPECT_TRUE(LogTexts().empty()) << "no line for a refused call nor for a refused command";
}

TEST_F(MailerEvents, AbortFromAHandlerEndsAtTheNextWait) {
    FakeServer server({Hear("RETR 1\r\n"), Say("+OK\r\nline\r\n"), Hang()});
    ASSERT_TRUE(obj->Open(server));
    obj->MultilineExpected = 1;
    sink.react = [&](int32_t) {
        int16_t r = 0;
        obj->Abort(&r);
        EXPECT_EQ(r, VARIANT_TRUE);
        return true;
    };
    auto start = Clock::now();
    EXPECT_FALSE(Command("RETR 1\r\n"));
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - start).count(), 3.0);
    EXPECT_EQ(obj->Aborted, 1);
    EXPECT_EQ(obj->ErrCode, 7);
    EXPECT_EQ(obj->Socket.Connected, 0);
    EXPECT_EQ(LogTexts(), std::vector<std::string>{"[Operation aborted. Connection closed.]"});
    int16_t r = -1;
    obj->Abort(&r);
    EXPECT_EQ(r, VARIANT_FALSE) << "not busy: nothing to abort";
}

TEST_F(MailerEvents, AbortFromAnotherThread) {
    FakeServer server({Hear("RETR 1\r\n"), Hang()});
    ASSERT_TRUE(obj->Open(server));
    std::thread other([&] {
        while (!obj->Busy) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_TRUE(obj->GenericMailer::Abort());
    });
    auto start = Clock::now();
    EXPECT_FALSE(Command("RETR 1\r\n"));
    other.join();
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - start).count(), 3.0);
    EXPECT_EQ(obj->ErrCode, 7);
    EXPECT_EQ(obj->Aborted, 1);
}

TEST_F(MailerEvents, SessionLogLines) {
    EXPECT_TRUE(obj->LogBanner("POP3"));
    obj->ServerResponse.assign("+");
    EXPECT_TRUE(obj->LogResponse());
    EXPECT_FALSE(obj->LogReason("[Possible error reason: too short]"));
    obj->ServerResponse.assign("-ERR bad\r\nmore\r\n");
    EXPECT_TRUE(obj->LogResponse());
    EXPECT_TRUE(obj->LogReason("[Possible error reason: wrong password]"));
    bstring cmd("USER a\r\n");
    EXPECT_TRUE(obj->WriteLogEscaped("[Sending: ", cmd, "]"));
    obj->SetError("[Error: Already connected]", 2);
    EXPECT_EQ(LogTexts(), (std::vector<std::string>{
                              "[Korvane POP3 v9.4.1.274D]",
                              "[Server returned no response]",
                              "[Server responded: -ERR bad\\r\\nmore\\r\\n]",
                              "[Possible error reason: wrong password]",
                              "[Sending: USER a\\r\\n]",
                              "[Error: Already connected]",
                          }));
    obj->EnableLogging = false;
    EXPECT_FALSE(obj->WriteLog("[not written]"));
    obj->EnableLogging = true;
    obj->LogFilePath.nSize = 0;
    EXPECT_FALSE(obj->WriteLog("[no path]"));
}

TEST_F(MailerEvents, ClearLog) {
    obj->WriteLog("[a line]");
    obj->EnableLogging = false;
    obj->IsError = true;
    obj->ErrCode = 9;
    EXPECT_FALSE(obj->ClearLog());
    EXPECT_FALSE(obj->IsError) << "off: false, and no error";
    EXPECT_EQ(LogTexts().size(), 1u);

    obj->EnableLogging = true;
    EXPECT_TRUE(obj->ClearLog());
    EXPECT_TRUE(LogTexts().empty());

    obj->LogFilePath.assign(u"/nonexistent-dir/x.txt");
    EXPECT_FALSE(obj->ClearLog());
    EXPECT_TRUE(obj->IsError);
    EXPECT_EQ(obj->ErrCode, 9);
    EXPECT_EQ(std::string(obj->ErrDesc.pData, size_t(obj->ErrDesc.nSize)),
              "[Error: log file \"/nonexistent-dir/x.txt\" not available]");
}

TEST_F(MailerEvents, EventsFollowTheHostPump) {
    FakeServer server({Hear("STAT\r\n"), Pause(50), Say("+OK 1 2\r\n")});
    ASSERT_TRUE(obj->Open(server));
    int pumped = 0;
    automation::SetPump([](void* p) { ++*static_cast<int*>(p); }, &pumped);
    EXPECT_TRUE(Command("STAT\r\n"));
    automation::SetPump(nullptr, nullptr);
    EXPECT_GT(pumped, 0);
    EXPECT_EQ(sink.calls, 1);
}

}  // namespace
