#include "tls_peer.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <thread>

namespace kv::testing {

namespace {

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

int FreePort() {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    int port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
        port = ntohs(a.sin_port);
    close(fd);
    return port;
}

bool Poll(const std::function<bool()>& done, int ms) {
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!done()) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace

const std::string& TlsCertDir(std::string* problem) {
    static std::once_flag once;
    static std::string dir, why;
    std::call_once(once, [] {
        if (std::system("command -v openssl >/dev/null 2>&1") != 0) {
            why = "openssl is not installed (Debian package openssl)";
            return;
        }
        std::string script = std::string(KV_SOURCE_DIR) + "/tests/integration/tls/make-certs.sh";
        // One set per user and script version, shared by the test processes:
        // made in a private directory, then renamed into place.
        std::string text = ReadFile(script);
        std::string shared = std::filesystem::temp_directory_path().string() + "/korvane-tls-certs-" +
                             std::to_string(getuid()) + "-" + std::to_string(std::hash<std::string>()(text));
        struct stat st;
        if (lstat((shared + "/client.p12").c_str(), &st) == 0 && st.st_uid == getuid() &&
            lstat(shared.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == getuid() &&
            !(st.st_mode & 022)) {
            dir = shared;
            return;
        }
        char tmpl[] = "/tmp/korvane-tls-make-XXXXXX";
        if (!mkdtemp(tmpl)) {
            why = "no temporary directory";
            return;
        }
        std::string cmd = "sh " + script + " " + tmpl + " >" + tmpl + ".log 2>&1";
        if (std::system(cmd.c_str()) != 0) {
            why = "make-certs.sh failed: " + ReadFile(std::string(tmpl) + ".log");
            std::filesystem::remove_all(tmpl);
            std::filesystem::remove(std::string(tmpl) + ".log");
            return;
        }
        std::filesystem::remove(std::string(tmpl) + ".log");
        if (rename(tmpl, shared.c_str()) == 0) {
            dir = shared;
        } else {
            dir = tmpl;  // another process was first, or the name is taken: keep ours
        }
    });
    if (problem) *problem = why;
    return dir;
}

TempDir::TempDir() {
    std::string base = std::filesystem::temp_directory_path().string() + "/korvane-test-XXXXXX";
    if (char* p = mkdtemp(base.data())) path_ = p;
}

TempDir::~TempDir() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
}

TlsServer::TlsServer(const std::string& cert, const std::string& args, const std::string& cwd) {
    std::string why;
    const std::string& dir = TlsCertDir(&why);
    if (dir.empty()) {
        problem_ = why;
        return;
    }
    out_path_ = work_.path() + "/server.out";
    // A port found free can be taken before the server binds it: try again.
    for (int attempt = 0; attempt < 4; ++attempt) {
        port_ = FreePort();
        // Unbuffered, so that what the server prints is there at once.
        std::string command = "exec stdbuf -o0 openssl s_server -accept 127.0.0.1:" + std::to_string(port_) + " -cert " + dir +
                              "/" + cert + ".pem -key " + dir + "/" + cert + ".key " + args;
        if (Start(command, cwd.empty() ? work_.path() : cwd)) {
            problem_.clear();
            return;
        }
        Stop();
    }
}

TlsServer::~TlsServer() { Stop(); }

bool TlsServer::Start(const std::string& command, const std::string& cwd) {
    int in[2];
    if (pipe2(in, O_CLOEXEC) != 0) {
        problem_ = "no pipe";
        return false;
    }
    int out = open(out_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    pid_ = fork();
    if (pid_ == 0) {
        dup2(in[0], 0);
        dup2(out, 1);
        dup2(out, 2);
        if (chdir(cwd.c_str()) != 0) _exit(127);
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(in[0]);
    close(out);
    stdin_ = in[1];
    signal(SIGPIPE, SIG_IGN);
    // s_server says ACCEPT once it listens.
    bool ready = Poll(
        [&] {
            if (Output().find("ACCEPT") != std::string::npos) return true;
            int status;
            return waitpid(pid_, &status, WNOHANG) == pid_ && (pid_ = -1, true);
        },
        5000);
    if (ready && pid_ > 0 && Output().find("ACCEPT") != std::string::npos) return true;
    problem_ = "s_server did not start: " + Output();
    return false;
}

void TlsServer::Stop() {
    if (stdin_ >= 0) close(stdin_);
    stdin_ = -1;
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    int status;
    if (!Poll([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, 2000)) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
    }
    pid_ = -1;
}

void TlsServer::Input(const std::string& text) {
    size_t at = 0;
    while (stdin_ >= 0 && at < text.size()) {
        ssize_t n = write(stdin_, text.data() + at, text.size() - at);
        if (n <= 0) break;
        at += size_t(n);
    }
}

std::string TlsServer::Output() const { return ReadFile(out_path_); }

bool TlsServer::WaitOutput(const std::string& needle, int ms) const {
    return Poll([&] { return Output().find(needle) != std::string::npos; }, ms);
}

bool TlsServer::WaitOutputSize(size_t size, int ms) const {
    return Poll(
        [&] {
            struct stat st;
            return stat(out_path_.c_str(), &st) == 0 && size_t(st.st_size) >= size;
        },
        ms);
}

}  // namespace kv::testing
