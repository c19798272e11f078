#include "fake_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

namespace kv::testing {

namespace {

constexpr int kAcceptLimitMs = 5000;
constexpr int kHearLimitMs = 5000;
constexpr int kHangLimitMs = 15000;
constexpr int kSliceMs = 10;

using Clock = std::chrono::steady_clock;

int ElapsedMs(Clock::time_point since) {
    return int(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count());
}

std::string Printable(const std::string& s) {
    std::string out;
    for (char c : s.substr(0, 200)) {
        if (c == '\r') out += "\\r";
        else if (c == '\n') out += "\\n";
        else out += c;
    }
    return out;
}

}  // namespace

Step Say(std::string bytes, int piece, int gap_ms) { return {Step::Kind::Say, std::move(bytes), piece, gap_ms}; }
Step Hear(std::string bytes) { return {Step::Kind::Hear, std::move(bytes), 0, 0}; }
Step HearLine() { return {Step::Kind::HearLine, {}, 0, 0}; }
Step Pause(int ms) { return {Step::Kind::Pause, {}, 0, ms}; }
Step Close() { return {Step::Kind::Close, {}, 0, 0}; }
Step Reset() { return {Step::Kind::Reset, {}, 0, 0}; }
Step Hang() { return {Step::Kind::Hang, {}, 0, 0}; }

FakeServer::FakeServer(std::vector<Step> steps, bool ipv6) : steps_(std::move(steps)), ipv6_(ipv6) {
    listener_ = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (ipv6) {
        sockaddr_in6 a{};
        a.sin6_family = AF_INET6;
        a.sin6_addr = in6addr_loopback;
        bind(listener_, reinterpret_cast<sockaddr*>(&a), sizeof a);
        socklen_t len = sizeof a;
        getsockname(listener_, reinterpret_cast<sockaddr*>(&a), &len);
        port_ = ntohs(a.sin6_port);
    } else {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(listener_, reinterpret_cast<sockaddr*>(&a), sizeof a);
        socklen_t len = sizeof a;
        getsockname(listener_, reinterpret_cast<sockaddr*>(&a), &len);
        port_ = ntohs(a.sin_port);
    }
    listen(listener_, 4);
    thread_ = std::thread([this] { Run(); });
}

FakeServer::~FakeServer() {
    stop_ = true;
    thread_.join();
    if (listener_ >= 0) close(listener_);
}

bool FakeServer::Wait(int ms) {
    auto start = Clock::now();
    while (!done_ && ElapsedMs(start) < ms) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return done_;
}

std::string FakeServer::Transcript() {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_;
}

std::vector<std::string> FakeServer::Problems() {
    std::lock_guard<std::mutex> lock(mutex_);
    return problems_;
}

void FakeServer::Note(std::string problem) {
    std::lock_guard<std::mutex> lock(mutex_);
    problems_.push_back(std::move(problem));
}

// Reads until n more bytes came, the client closed, or the limit passed.
bool FakeServer::ReadExactly(int fd, size_t n, std::string& into, int limit_ms) {
    auto start = Clock::now();
    size_t want = into.size() + n;
    while (into.size() < want && !stop_ && ElapsedMs(start) < limit_ms) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, kSliceMs) <= 0) continue;
        char buf[4096];
        ssize_t got = recv(fd, buf, std::min(sizeof buf, want - into.size()), 0);
        if (got <= 0) return false;
        into.append(buf, size_t(got));
        std::lock_guard<std::mutex> lock(mutex_);
        received_.append(buf, size_t(got));
    }
    return into.size() >= want;
}

bool FakeServer::ReadLine(int fd, std::string& into, int limit_ms) {
    while (into.size() < 2 || into.compare(into.size() - 2, 2, "\r\n") != 0) {
        if (into.size() > (1u << 20) || !ReadExactly(fd, 1, into, limit_ms)) return false;
    }
    return true;
}

void FakeServer::Run() {
    int fd = -1;
    auto start = Clock::now();
    while (!stop_ && ElapsedMs(start) < kAcceptLimitMs) {
        pollfd p{listener_, POLLIN, 0};
        if (poll(&p, 1, kSliceMs) > 0) {
            fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            break;
        }
    }
    if (fd < 0) {
        if (!stop_) Note("no connection");
        done_ = true;
        return;
    }
    bool open = true;
    for (size_t i = 0; i < steps_.size() && open && !stop_; ++i) {
        const Step& s = steps_[i];
        switch (s.kind) {
            case Step::Kind::Say: {
                size_t piece = s.piece > 0 ? size_t(s.piece) : s.bytes.size();
                for (size_t at = 0; at < s.bytes.size() && !stop_; at += piece) {
                    size_t n = std::min(piece, s.bytes.size() - at);
                    size_t off = 0;
                    while (off < n && !stop_) {
                        pollfd p{fd, POLLOUT, 0};
                        if (poll(&p, 1, kSliceMs) <= 0) continue;
                        ssize_t w = send(fd, s.bytes.data() + at + off, n - off, MSG_NOSIGNAL);
                        if (w <= 0) {
                            Note("step " + std::to_string(i) + ": the client went away while the server spoke");
                            open = false;
                            break;
                        }
                        off += size_t(w);
                    }
                    if (!open) break;
                    if (s.gap_ms > 0 && at + n < s.bytes.size())
                        std::this_thread::sleep_for(std::chrono::milliseconds(s.gap_ms));
                }
                break;
            }
            case Step::Kind::Hear: {
                std::string heard;
                if (!ReadExactly(fd, s.bytes.size(), heard, kHearLimitMs) || heard != s.bytes) {
                    Note("step " + std::to_string(i) + ": expected \"" + Printable(s.bytes) + "\", heard \"" +
                         Printable(heard) + "\"");
                    open = false;
                }
                break;
            }
            case Step::Kind::HearLine: {
                std::string heard;
                if (!ReadLine(fd, heard, kHearLimitMs)) {
                    Note("step " + std::to_string(i) + ": no line, heard \"" + Printable(heard) + "\"");
                    open = false;
                }
                break;
            }
            case Step::Kind::Pause:
                std::this_thread::sleep_for(std::chrono::milliseconds(s.gap_ms));
                break;
            case Step::Kind::Close:
                shutdown(fd, SHUT_WR);
                open = false;
                break;
            case Step::Kind::Reset: {
                linger l{1, 0};
                setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
                close(fd);
                fd = -1;
                open = false;
                break;
            }
            case Step::Kind::Hang:
                break;  // the reading below is the silence
        }
    }
    // Keep what the client still sends, until it closes (bounded).
    if (fd >= 0) {
        std::string rest;
        auto hang_start = Clock::now();
        while (!stop_ && ElapsedMs(hang_start) < kHangLimitMs) {
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, kSliceMs) <= 0) continue;
            char buf[4096];
            ssize_t got = recv(fd, buf, sizeof buf, 0);
            if (got <= 0) break;
            std::lock_guard<std::mutex> lock(mutex_);
            received_.append(buf, size_t(got));
        }
        close(fd);
    }
    done_ = true;
}

}  // namespace kv::testing
