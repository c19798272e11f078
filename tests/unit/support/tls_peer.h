// Real TLS peers for the channel's tests: the certificates that
// tests/integration/tls/make-certs.sh makes, and `openssl s_server` on
// 127.0.0.1 at a free port, started and stopped by the test.
#pragma once

#include <sys/types.h>

#include <string>

namespace kv::testing {

// The directory of the test certificates, made once per user and script
// version and shared by the test processes; empty when openssl is missing
// or the script failed (why in *problem).
const std::string& TlsCertDir(std::string* problem = nullptr);

// A fresh private directory under the temporary directory; removed with
// everything in it by the destructor.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// openssl s_server -accept 127.0.0.1:<port> -cert <dir>/<cert>.pem
// -key <dir>/<cert>.key <args>, run in cwd (default: a private directory),
// its standard input a pipe, its output collected in a file.
class TlsServer {
public:
    TlsServer(const std::string& cert, const std::string& args, const std::string& cwd = "");
    ~TlsServer();
    TlsServer(const TlsServer&) = delete;

    // Empty when the server accepts; otherwise what went wrong.
    const std::string& problem() const { return problem_; }
    int port() const { return port_; }
    // Writes to the server's standard input (what it sends to the client,
    // or its one-letter commands).
    void Input(const std::string& text);
    std::string Output() const;
    // Waits up to ms for needle to appear in the output.
    bool WaitOutput(const std::string& needle, int ms) const;
    // Waits up to ms for the output to reach size bytes.
    bool WaitOutputSize(size_t size, int ms) const;

private:
    bool Start(const std::string& command, const std::string& cwd);
    void Stop();

    std::string problem_;
    std::string out_path_;
    TempDir work_;
    pid_t pid_ = -1;
    int stdin_ = -1;
    int port_ = 0;
};

}  // namespace kv::testing
