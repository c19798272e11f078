// A scriptable TCP server on a loopback address, for the tests of the mail
// sessions. Each case is data: a list of steps that say what the server
// sends and when, what it expects to hear, and how it ends, with knobs for
// sending in pieces (one byte at a time), pauses, closing mid-line, resetting,
// never answering. Everything the client sends is kept, so a test compares
// the client's transcript byte for byte.
//
// The server accepts one connection, runs its steps on a thread of its own
// and then reads on until the client closes. Every wait is bounded: a script
// that the client does not follow ends with a problem, never a hang.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kv::testing {

struct Step {
    enum class Kind { Say, Hear, HearLine, Pause, Close, Reset, Hang } kind;
    std::string bytes;  // Say: what to send; Hear: what the client must send next
    int piece = 0;      // Say: bytes per write (0: all at once)
    int gap_ms = 0;     // Say: pause between pieces; Pause: its length
};

Step Say(std::string bytes, int piece = 0, int gap_ms = 0);
Step Hear(std::string bytes);
// Any one line up to its CRLF (a token the client makes afresh each time).
Step HearLine();
Step Pause(int ms);
Step Close();  // an orderly close (FIN)
Step Reset();  // an abortive close (RST)
Step Hang();   // silent until the client goes or the server is destroyed

// A case as data: the steps, and what the client must have sent in all.
struct ServerCase {
    std::string name;
    std::vector<Step> steps;
    std::string transcript;
};

class FakeServer {
public:
    // Listens on 127.0.0.1 (or ::1 with ipv6) at a free port.
    explicit FakeServer(std::vector<Step> steps, bool ipv6 = false);
    ~FakeServer();
    FakeServer(const FakeServer&) = delete;

    int port() const { return port_; }
    const char* host() const { return ipv6_ ? "::1" : "127.0.0.1"; }
    // Waits up to ms for the connection to end; true if it did.
    bool Wait(int ms = 5000);
    // All the client sent so far.
    std::string Transcript();
    // Mismatches and time-outs met while following the script.
    std::vector<std::string> Problems();

private:
    void Run();
    bool ReadExactly(int fd, size_t n, std::string& into, int limit_ms);
    bool ReadLine(int fd, std::string& into, int limit_ms);
    void Note(std::string problem);

    std::vector<Step> steps_;
    bool ipv6_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<bool> done_{false};
    std::mutex mutex_;
    std::string received_;
    std::vector<std::string> problems_;
    std::thread thread_;
};

}  // namespace kv::testing
