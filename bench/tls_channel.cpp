// 1 GB from `openssl s_server` over loopback: through the TLS channel and
// WS2 (BM_ChannelDownload), and through `openssl s_client` as the peer's own
// client (BM_OpensslClientDownload). Both read the same stream of zeros.
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "transport/ssl.h"

namespace {

constexpr int64_t kTotal = int64_t(1) << 30;

std::string CertDir() {
    static std::string dir;
    if (dir.empty()) {
        char tmpl[] = "/tmp/korvane-bench-tls-XXXXXX";
        if (!mkdtemp(tmpl)) return dir;
        // The script beside this source: bench/../tests/integration/tls.
        std::string here = __FILE__;
        std::string root = here.substr(0, here.rfind("/bench/"));
        std::string cmd = "sh " + root + "/tests/integration/tls/make-certs.sh " + tmpl +
                          " >/dev/null 2>&1";
        if (std::system(cmd.c_str()) == 0) dir = tmpl;
    }
    return dir;
}

int FreePort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    close(fd);
    return ntohs(a.sin_port);
}

// A server that sends kTotal zero bytes to its one client.
pid_t StartServer(int port) {
    std::string dir = CertDir();
    std::string cmd = "head -c " + std::to_string(kTotal) + " /dev/zero | exec openssl s_server -quiet -naccept 1 -accept 127.0.0.1:" +
                      std::to_string(port) + " -cert " + dir + "/server.pem -key " + dir + "/server.key >/dev/null 2>&1";
    pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    return pid;
}

void StopServer(pid_t pid) {
    kill(-pid, SIGTERM);
    waitpid(pid, nullptr, 0);
}

void BM_ChannelDownload(benchmark::State& state) {
    if (CertDir().empty()) return state.SkipWithError("no openssl");
    for (auto _ : state) {
        state.PauseTiming();
        int port = FreePort();
        pid_t pid = StartServer(port);
        kv::WS2 ws;
        kv::CSSL* ssl = kv::CSSL::New();
        ws.Crypt = &ssl->Crypt;
        ws.Timeout = 10;
        state.ResumeTiming();
        int64_t total = 0;
        if (ws.Connect("127.0.0.1", port) == 0 && ssl->Init(&ws) == 0) {
            std::string buf(1 << 20, '\0');
            int32_t leftover = 0;
            while (total < kTotal) {
                int32_t got = 0;
                int32_t rc = ws.Get(buf.data(), int32_t(buf.size()), got, leftover);
                total += got;
                if (rc != 0) break;
            }
        }
        state.PauseTiming();
        if (total < kTotal) std::fprintf(stderr, "channel read %lld of %lld bytes\n", (long long)total, (long long)kTotal);
        ws.Disconnect();
        ssl->Release();
        StopServer(pid);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kTotal);
}

void BM_OpensslClientDownload(benchmark::State& state) {
    if (CertDir().empty()) return state.SkipWithError("no openssl");
    for (auto _ : state) {
        state.PauseTiming();
        int port = FreePort();
        pid_t pid = StartServer(port);
        std::string cmd = "openssl s_client -quiet -connect 127.0.0.1:" + std::to_string(port) +
                          " </dev/null 2>/dev/null | head -c " + std::to_string(kTotal) + " | wc -c";
        state.ResumeTiming();
        FILE* p = popen(cmd.c_str(), "r");
        long long n = 0;
        if (!p || std::fscanf(p, "%lld", &n) != 1) n = 0;
        if (p) pclose(p);
        state.PauseTiming();
        if (n < kTotal) std::fprintf(stderr, "s_client read %lld bytes\n", n);
        StopServer(pid);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kTotal);
}

}  // namespace

BENCHMARK(BM_ChannelDownload)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();
BENCHMARK(BM_OpensslClientDownload)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();
BENCHMARK_MAIN();
