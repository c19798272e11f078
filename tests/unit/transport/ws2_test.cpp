// The socket layer against the scripted fake server: results and LastError
// codes of each road, time limits, events mode with the pump, Abort.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
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

namespace {

// A toy record channel standing in for TLS: a record is one length byte and
// that many bytes XOR 0x20, at most 16 bytes of plaintext per record.
class ToyChannel : public CryptChannel {
public:
    char* IoBuffer() override { return io_; }
    int32_t IoBufferSize() override { return int32_t(sizeof io_); }
    int32_t EncryptData(const char* data, int32_t length, int32_t* record_size) override {
        int32_t n = std::min(length, 16);
        io_[0] = char(n);
        for (int32_t i = 0; i < n; ++i) io_[1 + i] = char(data[i] ^ 0x20);
        *record_size = n + 1;
        return n;
    }
    void SetReceived(int32_t count) override { count_ = count; }
    int32_t DecryptData(const char** plain, int32_t* plain_length) override {
        if (count_ < 1 || count_ < 1 + uint8_t(io_[0])) return 1;
        int32_t n = uint8_t(io_[0]);
        plain_.assign(io_ + 1, size_t(n));
        for (char& c : plain_) c ^= 0x20;
        *plain = plain_.data();
        *plain_length = n;
        return 0;
    }
    const char* LastPlain(int32_t* plain_length) override {
        *plain_length = int32_t(plain_.size());
        return plain_.data();
    }
    bool MoveExtraData() override {
        int32_t used = count_ >= 1 ? 1 + uint8_t(io_[0]) : 0;
        if (used > count_) return false;
        std::memmove(io_, io_ + used, size_t(count_ - used));
        count_ -= used;
        return count_ > 0;
    }
    int32_t KeptBytes() override { return count_; }
    int32_t Close() override { return 0; }
    int32_t Renegotiate() override { return 0; }

private:
    char io_[256];
    int32_t count_ = 0;
    std::string plain_;
};

std::string Records(const std::string& text) {
    std::string out;
    for (size_t at = 0; at < text.size(); at += 16) {
        std::string piece = text.substr(at, 16);
        out.push_back(char(piece.size()));
        for (char c : piece) out.push_back(char(c ^ 0x20));
    }
    return out;
}

TEST(WS2, ActiveChannelEncryptsAndDecryptsBehindPlainBytes) {
    const std::string request = "A001 LOGIN alice secret-password\r\n";  // three records
    const std::string reply = "* OK one\r\n* OK two\r\nA001 OK done\r\n";
    // The reply's records arrive in one piece and then one byte at a time.
    std::string wire = Records(reply);
    FakeServer server({Hear(Records(request)), Say(wire.substr(0, 20)), Pause(50), Say(wire.substr(20), 1)});
    ToyChannel channel;
    WS2 ws;
    ws.Crypt = &channel;
    ASSERT_EQ(ws.Connect(server.host(), server.port()), 0);
    ws.CryptActive = 1;
    ASSERT_EQ(ws.Send(request.data(), int32_t(request.size())), 0);
    std::string got;
    int32_t leftover = 0;
    for (int i = 0; i < 200 && got.size() < reply.size(); ++i) {
        char buf[8];  // smaller than a record: the leftover road
        int32_t received = 0;
        ASSERT_EQ(ws.Get(buf, sizeof buf, received, leftover), 0) << ws.LastError;
        got.append(buf, size_t(received));
    }
    EXPECT_EQ(got, reply);
    EXPECT_EQ(leftover, 0);
    ws.Disconnect();
    server.Wait();
    EXPECT_TRUE(server.Problems().empty()) << server.Problems()[0];
}

}  // namespace
