// 1 GB each way over loopback between a TLS server of this benchmark's own
// and, in the same run: the TLS channel (WS2 with a CSSL's CSSLCrypt);
// `openssl s_client`, the peer's own client; and for reference a plain
// OpenSSL read/write loop in this process.
//
// The server is OpenSSL in a child process, offering TLS 1.3 with
// TLS_AES_128_GCM_SHA256 only, so that every client, each offering its
// defaults, ends with the same protocol and cipher; every run checks what was
// negotiated and how many bytes moved. Down, it writes 1 GB of zeros and then
// close notify; up, it reads 1 GB and then sends close notify, so a run ends
// when the last byte is in and the close has reached the client.
//
// It is not `openssl s_server` fed from its standard input: s_server selects
// on its input and the socket together, and when the client's hello is
// already waiting at its first select, its first write runs the whole
// handshake and it then blocks reading the socket for data that a
// downloading client never sends, after 16 KB.
//
// Times are wall-clock from connect to the close; for s_client they include
// its process start. By default three repetitions, interleaved, and their
// medians; the summary prints every client's rate per direction and the
// channel's ratio to each peer.
#include <benchmark/benchmark.h>

#include "interleaved.h"
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "transport/ssl.h"

namespace {

constexpr int64_t kTotal = int64_t(1) << 30;
constexpr size_t kChunk = size_t(1) << 20;  // what each side hands over per call
constexpr unsigned kPeerSeconds = 300;      // the server's hard limit per run
constexpr char kCipher[] = "TLS_AES_128_GCM_SHA256";

enum class Direction { kDown, kUp };

std::string g_cert_dir;
std::set<std::string> g_negotiated;  // "<protocol> <cipher>" of every run

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

// The test certificates, made by the project's script in a private directory.
bool MakeCerts() {
    char tmpl[] = "/tmp/korvane-bench-tls-XXXXXX";
    if (!mkdtemp(tmpl)) return false;
    std::string cmd = std::string("sh ") + KV_SOURCE_DIR + "/tests/integration/tls/make-certs.sh " +
                      tmpl + " >/dev/null 2>&1";
    if (std::system(cmd.c_str()) != 0) {
        std::filesystem::remove_all(tmpl);
        return false;
    }
    g_cert_dir = tmpl;
    return true;
}

// The server's side of one connection; the parent learns the outcome from
// the report pipe as "<protocol> <cipher> <bytes moved>".
[[noreturn]] void RunServer(int listener, int report, Direction dir) {
    alarm(kPeerSeconds);
    signal(SIGPIPE, SIG_IGN);
    SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
    if (!ctx || !SSL_CTX_set_min_proto_version(ctx, TLS1_3_VERSION) ||
        !SSL_CTX_set_max_proto_version(ctx, TLS1_3_VERSION) ||
        !SSL_CTX_set_ciphersuites(ctx, kCipher) ||
        SSL_CTX_use_certificate_chain_file(ctx, (g_cert_dir + "/server.pem").c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(ctx, (g_cert_dir + "/server.key").c_str(), SSL_FILETYPE_PEM) !=
            1)
        _exit(2);
    int fd = accept(listener, nullptr, nullptr);
    close(listener);
    SSL* ssl = fd >= 0 ? SSL_new(ctx) : nullptr;
    if (!ssl || SSL_set_fd(ssl, fd) != 1 || SSL_accept(ssl) != 1) _exit(3);
    std::vector<char> buf(kChunk, '\0');
    int64_t moved = 0;
    while (moved < kTotal) {
        size_t n = 0;
        int ok = dir == Direction::kDown
                     ? SSL_write_ex(ssl, buf.data(),
                                    size_t(std::min<int64_t>(kTotal - moved, int64_t(kChunk))), &n)
                     : SSL_read_ex(ssl, buf.data(), buf.size(), &n);
        if (ok != 1) break;
        moved += int64_t(n);
    }
    SSL_shutdown(ssl);
    dprintf(report, "%s %s %lld\n", SSL_get_version(ssl),
            SSL_CIPHER_get_name(SSL_get_current_cipher(ssl)), static_cast<long long>(moved));
    close(report);
    // Until the client closes too, bounded.
    timeval tv{10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    while (read(fd, buf.data(), buf.size()) > 0) {
    }
    _exit(0);
}

struct Server {
    pid_t pid = -1;
    int port = 0;
    int report = -1;  // read end

    // Listens on 127.0.0.1 at a port of the system's choice before the child
    // starts, so a client may connect at once.
    bool Start(Direction dir) {
        int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        int fds[2];
        if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
            listen(listener, 1) != 0 ||
            getsockname(listener, reinterpret_cast<sockaddr*>(&a), &len) != 0 ||
            pipe2(fds, O_CLOEXEC) != 0) {
            if (listener >= 0) close(listener);
            return false;
        }
        port = ntohs(a.sin_port);
        pid = fork();
        if (pid == 0) {
            close(fds[0]);
            RunServer(listener, fds[1], dir);
        }
        close(listener);
        close(fds[1]);
        report = fds[0];
        return pid > 0;
    }

    // Waits for the child and checks its report: an empty string when kTotal
    // bytes moved, otherwise what went wrong.
    std::string Finish() {
        std::string text;
        char buf[256];
        ssize_t n;
        while ((n = read(report, buf, sizeof buf)) > 0) text.append(buf, size_t(n));
        close(report);
        int status = 0;
        waitpid(pid, &status, 0);
        char protocol[64] = "", cipher[64] = "";
        long long moved = -1;
        if (std::sscanf(text.c_str(), "%63s %63s %lld", protocol, cipher, &moved) != 3)
            return "server failed (status " + std::to_string(status) + ")";
        g_negotiated.insert(std::string(protocol) + " " + cipher);
        if (std::string(protocol) != "TLSv1.3" || std::string(cipher) != kCipher)
            return std::string("negotiated ") + protocol + " " + cipher;
        if (moved != kTotal)
            return "moved " + std::to_string(moved) + " of " + std::to_string(kTotal) + " bytes";
        return "";
    }
};

// Through the channel: one blocking WS2 with the TLS channel of a CSSL, as a
// session uses it. Returns an error text or "".
std::string ChannelRun(Direction dir, int port) {
    kv::WS2 ws;
    kv::CSSL* ssl = kv::CSSL::New();
    ws.Crypt = &ssl->Crypt;
    ws.Timeout = 30;
    std::string problem;
    std::vector<char> buf(kChunk, '\0');
    int64_t total = 0;
    if (ws.Connect("127.0.0.1", port) != 0) {
        problem = "connect failed";
    } else if (int32_t status = ssl->Init(&ws); status != 0) {
        problem = "handshake failed: " + std::to_string(status);
    } else {
        int32_t leftover = 0;
        if (dir == Direction::kUp) {
            for (; total < kTotal && problem.empty(); total += int64_t(kChunk))
                if (ws.Send(buf.data(), int32_t(kChunk)) != 0)
                    problem = "send failed: " + std::to_string(ws.LastError);
            total = 0;  // what comes back is only the close
        }
        int32_t rc = 0;
        while (problem.empty() && rc == 0) {
            int32_t got = 0;
            rc = ws.Get(buf.data(), int32_t(buf.size()), got, leftover);
            total += got;
        }
        // The server's close notify ends the run in both directions.
        if (problem.empty() && rc != -3) problem = "read failed: " + std::to_string(ws.LastError);
        if (problem.empty() && dir == Direction::kDown && total != kTotal)
            problem = "channel read " + std::to_string(total) + " of " + std::to_string(kTotal) +
                      " bytes";
        if (problem.empty() && dir == Direction::kUp && total != 0)
            problem = "unexpected data from the server";
    }
    ws.Disconnect();
    ssl->Release();
    return problem;
}

// Through `openssl s_client -quiet`: its output goes to /dev/null; its input
// is a pipe that stays open and empty (down) or carries kTotal zero bytes
// (up). Returns an error text or "".
std::string OpensslClientRun(Direction dir, int port) {
    int in[2];
    if (pipe2(in, O_CLOEXEC) != 0) return "no pipe";
    std::string target = "127.0.0.1:" + std::to_string(port);
    pid_t pid = fork();
    if (pid == 0) {
        int null = open("/dev/null", O_RDWR);
        dup2(in[0], 0);
        dup2(null, 1);
        dup2(null, 2);
        execlp("openssl", "openssl", "s_client", "-quiet", "-connect", target.c_str(),
               static_cast<char*>(nullptr));
        _exit(127);
    }
    close(in[0]);
    std::thread feeder;
    if (pid > 0 && dir == Direction::kUp) {
        feeder = std::thread([fd = in[1]] {
            std::vector<char> zeros(kChunk, '\0');
            for (int64_t left = kTotal; left > 0;) {
                ssize_t n =
                    write(fd, zeros.data(), size_t(std::min<int64_t>(left, int64_t(kChunk))));
                if (n <= 0 && errno != EINTR) break;
                if (n > 0) left -= n;
            }
            close(fd);  // s_client goes on after its input ends, until the server closes
        });
    }
    int status = -1;
    if (pid > 0) waitpid(pid, &status, 0);
    if (feeder.joinable()) {
        feeder.join();
    } else {
        close(in[1]);
    }
    if (pid < 0) return "fork failed";
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return "s_client ended with status " + std::to_string(status);
    return "";
}

// A plain OpenSSL client in this process, for reference: SSL_read_ex and
// SSL_write_ex on the socket with a 1 MB buffer, the library's defaults
// otherwise. Returns an error text or "".
std::string OpensslLoopRun(Direction dir, int port) {
    SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(uint16_t(port));
    timeval tv{30, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    SSL* ssl = ctx && fd >= 0 ? SSL_new(ctx) : nullptr;
    std::string problem;
    if (!ssl || connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        SSL_set_fd(ssl, fd) != 1 || SSL_connect(ssl) != 1) {
        problem = "connect failed";
    } else {
        std::vector<char> buf(kChunk, '\0');
        int64_t total = 0;
        size_t n = 0;
        if (dir == Direction::kUp) {
            for (; total < kTotal && problem.empty(); total += int64_t(kChunk))
                if (SSL_write_ex(ssl, buf.data(), kChunk, &n) != 1) problem = "write failed";
            total = 0;
        }
        int ok;
        while ((ok = SSL_read_ex(ssl, buf.data(), buf.size(), &n)) == 1) total += int64_t(n);
        if (problem.empty() && SSL_get_error(ssl, ok) != SSL_ERROR_ZERO_RETURN)
            problem = "read failed";
        if (problem.empty() && total != (dir == Direction::kDown ? kTotal : 0))
            problem = "read " + std::to_string(total) + " bytes";
        SSL_shutdown(ssl);
    }
    if (ssl) SSL_free(ssl);
    if (fd >= 0) close(fd);
    SSL_CTX_free(ctx);
    return problem;
}

template <typename Client>
void Transfer(benchmark::State& state, Direction dir, Client client) {
    if (g_cert_dir.empty()) return state.SkipWithError("no certificates (is openssl installed?)");
    for (auto _ : state) {
        Server server;
        if (!server.Start(dir)) return state.SkipWithError("cannot start the server");
        auto start = Clock::now();
        std::string problem = client(dir, server.port);
        double seconds = Seconds(start);
        std::string served = server.Finish();
        if (problem.empty()) problem = served;
        if (!problem.empty()) {
            std::fprintf(stderr, "%s\n", problem.c_str());
            return state.SkipWithError(problem.c_str());
        }
        state.SetIterationTime(seconds);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kTotal);
}

void BM_Download_Channel(benchmark::State& state) {
    Transfer(state, Direction::kDown, ChannelRun);
}
void BM_Download_OpensslClient(benchmark::State& state) {
    Transfer(state, Direction::kDown, OpensslClientRun);
}
void BM_Download_OpensslLoop(benchmark::State& state) {
    Transfer(state, Direction::kDown, OpensslLoopRun);
}
void BM_Upload_Channel(benchmark::State& state) {
    Transfer(state, Direction::kUp, ChannelRun);
}
void BM_Upload_OpensslClient(benchmark::State& state) {
    Transfer(state, Direction::kUp, OpensslClientRun);
}
void BM_Upload_OpensslLoop(benchmark::State& state) {
    Transfer(state, Direction::kUp, OpensslLoopRun);
}

// Collects the rates while printing as usual, then prints them side by side.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            bool single = run.run_type == Run::RT_Iteration && run.repetitions <= 1;
            bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (!single && !median) continue;
            auto it = run.counters.find("bytes_per_second");
            if (it == run.counters.end()) continue;
            // "BM_Download_Channel/iterations:1/manual_time_median" -> "BM_Download_Channel"
            std::string name = run.run_name.function_name;
            rates_[name] = it->second.value;
        }
    }
    void Summary() const {
        auto rate = [&](const std::string& name) {
            auto it = rates_.find(name);
            return it == rates_.end() ? 0.0 : it->second / 1e6;
        };
        std::printf("\n1 GiB each way over 127.0.0.1, MB/s (10^6 bytes/s); negotiated:");
        for (const std::string& n : g_negotiated) std::printf(" [%s]", n.c_str());
        std::printf("\n  %-17s %8s %17s %7s %14s %7s\n", "", "channel", "openssl s_client", "ratio",
                    "SSL_read loop", "ratio");
        auto ratio = [](double ours, double peer) {
            return ours > 0 && peer > 0 ? ours / peer : 0.0;
        };
        for (const char* dir : {"Download", "Upload"}) {
            double ours = rate(std::string("BM_") + dir + "_Channel");
            double client = rate(std::string("BM_") + dir + "_OpensslClient");
            double loop = rate(std::string("BM_") + dir + "_OpensslLoop");
            std::printf("  %-17s %8.0f %17.0f %6.2fx %14.0f %6.2fx\n",
                        dir[0] == 'D' ? "server -> client" : "client -> server", ours, client,
                        ratio(ours, client), loop, ratio(ours, loop));
        }
        std::printf("  (ratio: channel / peer; 0 where a run failed or was filtered out)\n");
    }

private:
    std::map<std::string, double> rates_;
};

}  // namespace

BENCHMARK(BM_Download_Channel)->Unit(benchmark::kMillisecond)->Iterations(1)->UseManualTime();
BENCHMARK(BM_Download_OpensslClient)->Unit(benchmark::kMillisecond)->Iterations(1)->UseManualTime();
BENCHMARK(BM_Download_OpensslLoop)->Unit(benchmark::kMillisecond)->Iterations(1)->UseManualTime();
BENCHMARK(BM_Upload_Channel)->Unit(benchmark::kMillisecond)->Iterations(1)->UseManualTime();
BENCHMARK(BM_Upload_OpensslClient)->Unit(benchmark::kMillisecond)->Iterations(1)->UseManualTime();
BENCHMARK(BM_Upload_OpensslLoop)->Unit(benchmark::kMillisecond)->Iterations(1)->UseManualTime();

int main(int argc, char** argv) {
    if (!kv::bench::InitializeInterleaved(argc, argv)) return 1;
    // A client that goes away early must not end this process through the feeding pipe.
    signal(SIGPIPE, SIG_IGN);
    struct stat st;
    if (stat("/tmp/korvane", &st) == 0)
        std::fprintf(
            stderr, "warning: /tmp/korvane exists, so the trace is on and the channel is slowed\n");
    MakeCerts();
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.Summary();
    benchmark::Shutdown();
    if (!g_cert_dir.empty()) std::filesystem::remove_all(g_cert_dir);
    return 0;
}
