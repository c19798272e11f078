// The socket layer against the scripted fake server: results and LastError
// codes of each road, time limits, events mode with the pump, Abort.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "../support/fake_server.h"
#include "automation/pump.h"
#include "transport/ws2.h"

using namespace kv;
using namespace kv::testing;

namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point t) {
    return std::chrono::duration<double>(Clock::now() - t).count();
}

// A port on 127.0.0.1 where nothing listens.
int ClosedPort() {
    FakeServer probe({}, false);
    int port = probe.port();
    return port;  // the listener closes with probe
}

struct GetResult {
    int32_t code;
    std::string data;
};

GetResult GetOnce(WS2& ws, int32_t size = 4096) {
    std::string buf(size_t(size), '\0');
    int32_t received = -7, leftover = 0;
    int32_t code = ws.Get(buf.data(), size, received, leftover);
    return {code, buf.substr(0, size_t(std::max(received, 0)))};
}

class WS2Modes : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override { ASSERT_EQ(ws.SetBlocking(GetParam() ? 1 : 0), 1); }
    WS2 ws;
};

INSTANTIATE_TEST_SUITE_P(BlockingAndEvents, WS2Modes, ::testing::Values(true, false),
                         [](const auto& info) { return info.param ? "Blocking" : "Events"; });

TEST_P(WS2Modes, SendsAndReceives) {
    FakeServer server({Hear("HELLO\r\n"), Say("+OK hi\r\n")});
    ASSERT_EQ(ws.Connect(server.host(), server.port()), 0);
    EXPECT_EQ(ws.Connected, 1);
    EXPECT_EQ(ws.Send("HELLO\r\n"), 0);
    std::string got;
    while (got.size() < 8) {
        GetResult r = GetOnce(ws);
        ASSERT_EQ(r.code, 0) << ws.LastError;
        got += r.data;
    }
    EXPECT_EQ(got, "+OK hi\r\n");
    EXPECT_EQ(ws.SetBlocking(GetParam() ? 0 : 1), 0) << "the mode is fixed while connected";
    EXPECT_EQ(ws.Blocking, GetParam() ? 1 : 0);
    EXPECT_EQ(ws.Disconnect(), 0);
    EXPECT_TRUE(server.Wait());
    EXPECT_EQ(server.Transcript(), "HELLO\r\n");
    EXPECT_TRUE(server.Problems().empty());
}

TEST_P(WS2Modes, LineThenCloseGivesTheLineAndMinus3) {
    FakeServer server({Say("+OK bye\r\n"), Close()});
    ASSERT_EQ(ws.Connect(server.host(), server.port()), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // both the line and the FIN are there
    GetResult r = GetOnce(ws);
    EXPECT_EQ(r.code, -3);
    EXPECT_EQ(r.data, "+OK bye\r\n");
    EXPECT_EQ(ws.LastError, 6);
}

TEST_P(WS2Modes, CloseSeenOnlyAfterAllDataFitted) {
    // The FIN is there, but the buffer takes only 4 bytes: no close yet.
    FakeServer server({Say("abcdefgh"), Close()});
    ASSERT_EQ(ws.Connect(server.host(), server.port()), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    GetResult r = GetOnce(ws, 4);
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.data, "abcd");
    r = GetOnce(ws, 4);
    EXPECT_EQ(r.data, "efgh");
    EXPECT_EQ(GetOnce(ws, 4).code, -3);
}

TEST_P(WS2Modes, ResetIsACloseNotASocketError) {
    FakeServer server({Pause(50), Reset()});
    ASSERT_EQ(ws.Connect(server.host(), server.port()), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    GetResult r = GetOnce(ws);
    EXPECT_EQ(r.code, -3);
    EXPECT_EQ(r.data, "");
    EXPECT_EQ(ws.LastError, 6);
}

TEST_P(WS2Modes, SilentServerTimesOutWithinASecondOfTimeout) {
    FakeServer server({Hang()});
    ws.Timeout = 1;
    ASSERT_EQ(ws.Connect(server.host(), server.port()), 0);
    auto start = Clock::now();
    GetResult r = GetOnce(ws);
    double took = SecondsSince(start);
    EXPECT_EQ(r.code, -5);
    EXPECT_EQ(ws.LastError, 5);
    // Whole seconds: the deadline falls between 0 and 2 seconds away.
    EXPECT_LE(took, 2.2);
    if (GetParam()) {
        EXPECT_GE(took, 0.9);
    }
}

TEST_P(WS2Modes, ZeroByteSendSucceeds) {
    FakeServer server({Hang()});
    ASSERT_EQ(ws.Connect(server.host(), server.port()), 0);
    EXPECT_EQ(ws.Send("", 0), 0);
    EXPECT_EQ(ws.LastError, 0);
}

TEST_P(WS2Modes, RefusedConnectEndsWithItsCode) {
    int port = ClosedPort();
    ws.Timeout = 2;
    int32_t r = ws.Connect("127.0.0.1", port);
    if (GetParam()) {
        EXPECT_EQ(r, -5);
    } else {
        EXPECT_EQ(r, -6);
    }
    EXPECT_EQ(ws.LastError, 4);
    EXPECT_EQ(ws.Connected, 0);
}

TEST_P(WS2Modes, IPv6OnlyWhenTheNameHasNoIPv4) {
    FakeServer server({Say("+OK six\r\n")}, true);
    ASSERT_EQ(ws.Connect("::1", server.port()), 0);
    EXPECT_EQ(GetOnce(ws).data, "+OK six\r\n");
}

TEST(WS2, StateErrors) {
    WS2 ws;
    EXPECT_EQ(ws.Started, 1);
    EXPECT_EQ(ws.Send("x"), -2);
    EXPECT_EQ(ws.LastError, 1);
    EXPECT_EQ(GetOnce(ws).code, -2);
    EXPECT_EQ(ws.Disconnect(), -2);
    EXPECT_EQ(ws.LastError, 1);
    EXPECT_EQ(ws.Connect("", 1), -4) << "no address at all, IPv6 tried too";
    EXPECT_EQ(ws.LastError, 3);

    FakeServer server({Hang()});
    ASSERT_EQ(ws.Connect(server.host(), server.port()), 0);
    EXPECT_EQ(ws.Connect(server.host(), server.port()), -2);
    EXPECT_EQ(ws.LastError, 2);
    EXPECT_EQ(ws.Shutdown(), -2);
    EXPECT_EQ(ws.Disconnect(), 0);
    EXPECT_EQ(ws.Shutdown(), 0);
    EXPECT_EQ(ws.Shutdown(), -1);
    EXPECT_EQ(ws.Connect(server.host(), server.port()), -1);
    EXPECT_EQ(ws.LastError, 1);
}

TEST(WS2, AbortedOperationsEndAtTheNextWait) {
    FakeServer server({Hang()});
    WS2 ws;
    ws.SetBlocking(0);
    ASSERT_EQ(ws.Connect(server.host(), server.port()), 0);
    ws.Running = 0;
    EXPECT_EQ(ws.Send("x"), -6);
    EXPECT_EQ(ws.LastError, 7);
    EXPECT_EQ(GetOnce(ws).code, -6);
    EXPECT_EQ(ws.LastError, 7);
    EXPECT_EQ(ws.WaitForData(10), -6);
    ws.Disconnect();
    EXPECT_EQ(ws.Connect(server.host(), server.port()), -8) << "Running stays 0 until the session sets it";
    EXPECT_EQ(ws.LastError, 7);
}

TEST(WS2, AbortFromTheHostPumpEndsAWaitingGet) {
    FakeServer server({Hang()});
    WS2 ws;
    ws.SetBlocking(0);
    ws.Timeout = 20;
    ASSERT_EQ(ws.Connect(server.host(), server.port()), 0);
    struct Ctx {
        WS2* ws;
        int calls = 0;
    } ctx{&ws};
    automation::SetPump(
        [](void* p) {
            auto* c = static_cast<Ctx*>(p);
            if (++c->calls == 5) c->ws->Running = 0;
        },
        &ctx);
    auto start = Clock::now();
    int32_t code = GetOnce(ws).code;
    automation::SetPump(nullptr, nullptr);
    EXPECT_EQ(code, -6);
    EXPECT_EQ(ws.LastError, 7);
    EXPECT_EQ(ctx.calls, 5);
    EXPECT_LT(SecondsSince(start), 2.0);
}

TEST(WS2, AbortFromAnotherThreadIsSeenAtTheNextSlice) {
    FakeServer server({Hang()});
    WS2 ws;
    ws.SetBlocking(0);
    ws.Timeout = 20;
    ASSERT_EQ(ws.Connect(server.host(), server.port()), 0);
    std::thread aborter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        ws.Running = 0;
    });
    auto start = Clock::now();
    int32_t code = GetOnce(ws).code;
    aborter.join();
    EXPECT_EQ(code, -6);
    EXPECT_LT(SecondsSince(start), 2.0);
}

TEST(WS2, WaitForDataInEventsMode) {
    FakeServer server({Pause(300), Say("* data\r\n"), Pause(100), Close()});
    WS2 ws;
    ws.SetBlocking(0);
    ASSERT_EQ(ws.Connect(server.host(), server.port()), 0);
    EXPECT_EQ(ws.WaitForData(20), 0);
    int32_t r = 0;
    for (int i = 0; i < 200 && r == 0; ++i) r = ws.WaitForData(10);
    ASSERT_EQ(r, 1);
    EXPECT_EQ(ws.ReadPending, 1);
    EXPECT_EQ(GetOnce(ws).data, "* data\r\n");
    EXPECT_EQ(ws.ReadPending, 0);
    r = 0;
    for (int i = 0; i < 200 && r == 0; ++i) r = ws.WaitForData(10);
    EXPECT_EQ(r, -1) << "the close, with nothing left to read";
}

TEST(WS2, WaitForDataInBlockingMode) {
    FakeServer server({Pause(200), Say("x")});
    WS2 ws;
    ASSERT_EQ(ws.Connect(server.host(), server.port()), 0);
    EXPECT_EQ(ws.WaitForData(10), 0);
    EXPECT_EQ(ws.WaitForData(3000), 1);
    EXPECT_EQ(GetOnce(ws).data, "x");
}

TEST(WS2, ResolveHostAsyncPumpsWhileItWaits) {
    WS2 ws;
    std::vector<uint8_t> a = ws.ResolveHostAsync("127.0.0.1");
    EXPECT_EQ(a, (std::vector<uint8_t>{127, 0, 0, 1}));
    EXPECT_EQ(ws.ResolvedLength, 4);
    EXPECT_TRUE(ws.ResolveHostAsync("").empty());
    EXPECT_EQ(ws.ResolvedLength, 0);
}

TEST(WS2, RawErrorsCarryWinsockNumbers) {
    const std::pair<int, int32_t> table[] = {
        {ECONNRESET, 10054}, {EAGAIN, 10035}, {ETIMEDOUT, 10060}, {ECONNREFUSED, 10061},
        {EPIPE, 10058},      {ENOTCONN, 10057}, {EHOSTUNREACH, 10065}, {ENOSPC, 10000 + ENOSPC},
    };
    for (auto [err, code] : table) EXPECT_EQ(SocketErrorCode(err), code) << err;
}

}  // namespace
