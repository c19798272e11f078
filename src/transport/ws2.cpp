// The layer's codes in LastError:
//   0 success              5 time-out (poll gave nothing, or Deadline passed)
//   1 not started / not connected   6 closed by the server
//   2 already connected    7 aborted (Running was 0)
//   3 host lookup failed   8 socket error (socket, shutdown, close, recv, short blocking write)
//   4 connect failed      13 / 14 encryption / decryption failed
//   other: the Winsock number of a failed send
#include "transport/ws2.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>

#include "automation/pump.h"
#include "foundation/trace.h"

namespace kv {

namespace {

int64_t NowSeconds() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

void TraceNumber(const char* text, int64_t n) {
    TraceBegin();
    TraceAppend(text);
    TraceAppendInt(n);
    Trace();
}

void SetNonBlocking(int fd, bool on) {
    int flags = fcntl(fd, F_GETFL, 0);
    if (flags < 0) return;
    fcntl(fd, F_SETFL, on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK));
}

// A wait limit in whole seconds as poll's milliseconds; a negative limit
// does not wait (poll would read it as "forever").
int SecondsToPoll(int64_t seconds) {
    if (seconds <= 0) return 0;
    return int(std::min<int64_t>(seconds * 1000, INT_MAX));
}

// The first and last bytes of a chunk, so that the trace shows what arrived.
void TraceChunk(const char* data, int64_t n) {
    int32_t show = int32_t(std::min<int64_t>(n, 2000));
    TraceBegin();
    TraceAppend("First 2000 bytes: [");
    Trace();
    Trace(data, show);
    TraceBegin();
    TraceAppend("Last 2000 bytes: ");
    Trace();
    Trace(data + n - show, show);
}

}  // namespace

int32_t SocketErrorCode(int err) {
    switch (err) {
        case EINTR: return 10004;
        case EBADF: return 10009;
        case EACCES: return 10013;
        case EFAULT: return 10014;
        case EINVAL: return 10022;
        case EMFILE: return 10024;
        case EAGAIN: return 10035;
        case EINPROGRESS: return 10036;
        case EALREADY: return 10037;
        case ENOTSOCK: return 10038;
        case EDESTADDRREQ: return 10039;
        case EMSGSIZE: return 10040;
        case EPROTOTYPE: return 10041;
        case EOPNOTSUPP: return 10045;
        case EAFNOSUPPORT: return 10047;
        case EADDRINUSE: return 10048;
        case EADDRNOTAVAIL: return 10049;
        case ENETDOWN: return 10050;
        case ENETUNREACH: return 10051;
        case ENETRESET: return 10052;
        case ECONNABORTED: return 10053;
        case ECONNRESET: return 10054;
        case ENOBUFS: return 10055;
        case EISCONN: return 10056;
        case ENOTCONN: return 10057;
        case EPIPE: return 10058;  // WSAESHUTDOWN: writing after the connection went down
        case ETIMEDOUT: return 10060;
        case ECONNREFUSED: return 10061;
        case EHOSTDOWN: return 10064;
        case EHOSTUNREACH: return 10065;
        default: return 10000 + err;
    }
}

WS2::WS2() { Startup(); }

WS2::~WS2() {
    if (Connected) Disconnect();
    CloseSocket();
    Shutdown();
}

int32_t WS2::Startup() {
    // POSIX sockets need no library start; the flag keeps the contract of
    // the layer (every operation first asks whether it started).
    Trace("WS2.Startup to init sockets");
    Started = 1;
    Trace("WS2.Startup succeeded");
    return 0;
}

int32_t WS2::Shutdown() {
    Trace("WS2.Shutdown sockets");
    if (!Started) return -1;
    if (Connected) return -2;
    Started = 0;
    Trace("WS2.Shutdown succeeded");
    return 0;
}

int32_t WS2::SetBlocking(int32_t flag) {
    if (Connected) return 0;
    Blocking = flag ? 1 : 0;
    return 1;
}

void WS2::ResetDeadline() { Deadline = NowSeconds() + int64_t(Timeout); }

bool WS2::TimeRemains() const { return NowSeconds() < Deadline; }

void WS2::CloseSocket() {
    if (Sock >= 0) ::close(Sock);
    Sock = -1;
}

// The wait of an asynchronous connect, in 1 ms slices with the pump after
// each. 0 connected; a negative result ends Connect; next asks for the next
// address; 1 means Running went to 0.
int32_t WS2::ConnectWait(bool last, bool& next) {
    next = false;
    ResetDeadline();
    while (Running) {
        pollfd p{Sock, POLLOUT, 0};
        int n = poll(&p, 1, 1);
        automation::RunPump();
        if (n > 0) {
            int err = 0;
            socklen_t len = sizeof err;
            if (getsockopt(Sock, SOL_SOCKET, SO_ERROR, &err, &len) != 0) err = errno;
            if (err == 0) {
                Connected = 1;
                Trace("WS2.Connect non-blocking socket connected");
                LastError = 0;
                return 0;
            }
            if (last) {
                LastError = 4;
                return -6;
            }
            next = true;
            return 1;
        }
        if (!TimeRemains()) {
            if (last) {
                LastError = 5;
                return -7;
            }
            next = true;
            return 1;
        }
    }
    return 1;
}

int32_t WS2::Connect(const char* host, int32_t port) {
    Trace("WS2.Connect started");
    if (!Started) {
        LastError = 1;
        return -1;
    }
    if (Connected) {
        LastError = 2;
        return -2;
    }
    CryptExtraPending = 0;
    CryptClosePending = 0;
    ReadPending = 0;
    HostName = host ? host : "";
    char port_text[16];
    std::snprintf(port_text, sizeof port_text, "%d", port);
    int family = AF_INET;
    bool tried_v6 = false;
    for (;;) {
        Trace("WS2.Connect to get host name");
        addrinfo hints{};
        hints.ai_socktype = SOCK_STREAM;
        hints.ai_family = family;
        addrinfo* list = nullptr;
        int rc = getaddrinfo(host ? host : "", port_text, &hints, &list);
        if (rc != 0) {
            TraceNumber("WS2.Connect getaddrinfo failed with error ", rc);
            if (tried_v6) {
                LastError = 3;
                return -4;
            }
            Trace("WS2.Connect getaddrinfo will try IPv6 fallback");
            family = AF_INET6;
            tried_v6 = true;
            continue;
        }
        Trace("WS2.Connect Host name or IPv4 or IPv6 address");
        std::unique_ptr<addrinfo, void (*)(addrinfo*)> hold(list, freeaddrinfo);
        for (addrinfo* a = list; a; a = a->ai_next) {
            bool last = a->ai_next == nullptr;
            Trace("WS2.Connect to create socket");
            CloseSocket();
            Sock = socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
            if (Sock < 0) {
                Trace("WS2.Connect INVALID SOCKET");
                if (last) {
                    LastError = 8;
                    return -3;
                }
                continue;
            }
            // Both modes connect without blocking: a blocking connect to a
            // silent address could hang for minutes, so blocking mode bounds
            // it by Timeout and counts the time-out as a failed connect.
            SetNonBlocking(Sock, true);
            // Commands wait for their replies: a small one must not wait
            // for the acknowledgement of the last (pieces of one text use
            // MSG_MORE instead).
            int on = 1;
            setsockopt(Sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            Trace("WS2.Connect to connect socket");
            if (::connect(Sock, a->ai_addr, a->ai_addrlen) == 0) {
                if (Blocking) SetNonBlocking(Sock, false);
                Connected = 1;
                LastError = 0;
                Trace("WS2.Connect blocking socket connected");
                return 0;
            }
            int err = errno;
            TraceNumber("connect socket returned code ", SocketErrorCode(err == EINPROGRESS ? EAGAIN : err));
            if (err != EINPROGRESS) {
                Trace("socket connect failed");
                CloseSocket();
                if (last) {
                    LastError = 4;
                    return -5;
                }
                continue;
            }
            if (Blocking) {
                pollfd p{Sock, POLLOUT, 0};
                int so_err = ETIMEDOUT;
                if (poll(&p, 1, SecondsToPoll(Timeout)) == 1) {
                    socklen_t len = sizeof so_err;
                    if (getsockopt(Sock, SOL_SOCKET, SO_ERROR, &so_err, &len) != 0) so_err = errno;
                }
                if (so_err == 0) {
                    SetNonBlocking(Sock, false);
                    Connected = 1;
                    LastError = 0;
                    Trace("WS2.Connect blocking socket connected");
                    return 0;
                }
                Trace("socket connect failed");
                CloseSocket();
                if (last) {
                    LastError = 4;
                    return -5;
                }
                continue;
            }
            bool next = false;
            int32_t r = ConnectWait(last, next);
            if (r <= 0) {
                if (r < 0) CloseSocket();
                return r;
            }
            // An abandoned attempt is closed here rather than left open.
            CloseSocket();
            if (!next) break;  // Running went to 0
        }
        if (!Running || tried_v6) {
            LastError = 7;
            return -8;
        }
        family = AF_INET6;
        tried_v6 = true;
    }
}

int32_t WS2::Disconnect() {
    Trace("WS2.Disconnect started");
    if (!Started) {
        LastError = 1;
        return -1;
    }
    if (!Connected) {
        LastError = 1;
        return -2;
    }
    // The channel keeps its own error fields; a failed close changes nothing here.
    if (Crypt && CryptActive) Crypt->Close();
    Connected = 0;
    int32_t result = 0;
    Trace("WS2.Disconnect to shutdown socket");
    // A peer that has closed already (it answered QUIT and went, or reset
    // the close notification) leaves nothing to shut down: that is a close.
    if (::shutdown(Sock, SHUT_WR) != 0 && errno != ENOTCONN && errno != ECONNRESET && errno != EPIPE) {
        LastError = 8;
        result = -3;
    }
    Trace("WS2.Disconnect to close socket");
    int rc = ::close(Sock);
    Sock = -1;
    if (result == 0 && rc != 0) {
        LastError = 8;
        result = -4;
    }
    if (result == 0) {
        LastError = 0;
        Trace("WS2.Disconnect succeeded");
    }
    return result;
}

int32_t WS2::Send(const char* text) { return Send(text, text ? int32_t(std::strlen(text)) : 0); }

// The close record a channel makes when its context expired goes out in the
// clear of the channel, by the plain path.
int32_t WS2::SendCloseRecord(int32_t record_size) {
    CryptActive = 0;
    std::string record(Crypt->IoBuffer(), size_t(std::clamp(record_size, 0, Crypt->IoBufferSize())));
    Send(record.data(), int32_t(record.size()));
    return 0;
}

int32_t WS2::Send(const char* data, int32_t length) {
    Trace("WS2.Send started");
    if (!Started) {
        LastError = 1;
        return -1;
    }
    if (!Connected) {
        LastError = 1;
        return -2;
    }
    if (length < 0) length = 0;
    const bool crypt = Crypt && CryptActive;
    const char* window = crypt ? Crypt->IoBuffer() : data;
    int32_t total = crypt ? 0 : length;
    int32_t sent = 0;
    int32_t consumed = crypt ? 0 : length;
    for (;;) {
        if (!Running) {
            LastError = 7;
            return -6;
        }
        if (crypt && sent == total) {
            int32_t record_size = 0;
            int32_t taken = Crypt->EncryptData(data + consumed, length - consumed, &record_size);
            if (taken == -2) SendCloseRecord(record_size);
            if (taken < 0) {
                LastError = 13;
                return -3;
            }
            sent = 0;
            total = std::clamp(record_size, 0, Crypt->IoBufferSize());
            consumed += std::min(taken, length - consumed);
        }
        ResetDeadline();
        if (SendDelay > 0) std::this_thread::sleep_for(std::chrono::milliseconds(SendDelay));
        Trace("WS2.Send to send bytes");
        if (Blocking) {
            // A blocking send waits at most Timeout for room, and then
            // comes back short, which counts as a failure below.
            timeval tv{std::max(Timeout, 0), 0};
            setsockopt(Sock, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        }
        ssize_t n = ::send(Sock, window + sent, size_t(total - sent), MSG_NOSIGNAL | (MorePieces ? MSG_MORE : 0));
        if (n >= 0) {
            Trace("WS2.Send bytes sent");
            sent += int32_t(n);
            if (sent != total) {
                if (Blocking) {
                    Trace("blocking socket failed to transfer all the data");
                    LastError = 8;
                    return -3;
                }
                if (TimeRemains()) continue;
                LastError = 5;
                return -5;
            }
            if (consumed != length) continue;
            LastError = 0;
            Trace("WS2.Send succeeded");
            return 0;
        }
        int err = errno;
        if (Blocking || (err != EAGAIN && err != EWOULDBLOCK)) {
            LastError = SocketErrorCode(err);
            TraceNumber("send failed, error = ", LastError);
            return -3;
        }
        // Events mode and no room: wait for it in slices.
        bool writable = false;
        while (Running) {
            pollfd p{Sock, POLLOUT, 0};
            int r = poll(&p, 1, 1);
            automation::RunPump();
            if (r > 0 && (p.revents & (POLLERR | POLLHUP)) && !(p.revents & POLLOUT)) {
                LastError = 8;
                return -4;
            }
            if (r > 0 && (p.revents & POLLOUT)) {
                writable = true;
                break;
            }
            if (!TimeRemains()) {
                LastError = 5;
                return -5;
            }
        }
        if (!writable) {
            LastError = 7;
            return -6;
        }
    }
}

void WS2::CopyLeftover(char* buffer, int32_t size, int32_t& received, int32_t& cryptLeftover) {
    int32_t plain_length = 0;
    const char* plain = Crypt->LastPlain(&plain_length);
    cryptLeftover = std::min(cryptLeftover, plain_length);
    int32_t n = std::min(cryptLeftover, size);
    if (n > 0 && plain) std::memcpy(buffer, plain + (plain_length - cryptLeftover), size_t(n));
    received = std::max(n, 0);
    cryptLeftover -= received;
    if (cryptLeftover == 0) CryptExtraPending = Crypt->MoveExtraData() ? 1 : 0;
}

int32_t WS2::Get(char* buffer, int32_t size, int32_t& received, int32_t& cryptLeftover) {
    received = 0;
    Trace("WS2.Get started");
    if (!Started) {
        LastError = 1;
        return -1;
    }
    if (!Connected) {
        LastError = 1;
        return -2;
    }
    if (size < 0) size = 0;
    const bool crypt = Crypt && CryptActive;
    if (crypt && cryptLeftover >= 1) {
        Trace("Bytes left in SSL buffer.");
        CopyLeftover(buffer, size, received, cryptLeftover);
        LastError = 0;
        return 0;
    }
    if (crypt && CryptClosePending) {
        CryptClosePending = 0;
        Trace("Zero bytes read!");
        LastError = 6;
        return -3;
    }
    char* target = crypt ? Crypt->IoBuffer() : buffer;
    const int32_t target_size = crypt ? Crypt->IoBufferSize() : size;
    int32_t got = 0;
    bool closed = false;
    ResetDeadline();
    while (Running) {
        if (!(crypt && CryptExtraPending)) {
            bool data = false;
            bool hangup = false;
            if (Blocking) {
                Trace("WS2.Get to select");
                pollfd p{Sock, POLLIN | POLLRDHUP, 0};
                int n = poll(&p, 1, SecondsToPoll(Timeout));
                if (n != 1) {
                    TraceNumber("select failed, error = ", n < 0 ? SocketErrorCode(errno) : 0);
                    LastError = 5;
                    return -5;
                }
                Trace("WS2.Get select succeeded");
                data = true;
                hangup = p.revents & (POLLRDHUP | POLLHUP);
            } else {
                short revents = 0;
                if (!ReadPending) {
                    // The slice is Timeout read as milliseconds; the time
                    // limit itself is the Deadline test below.
                    pollfd p{Sock, POLLIN | POLLRDHUP, 0};
                    if (poll(&p, 1, std::max(Timeout, 0)) > 0) revents = p.revents;
                }
                automation::RunPump();
                if (ReadPending) {
                    ReadPending = 0;
                    data = true;
                } else {
                    data = revents != 0;
                    hangup = revents & (POLLRDHUP | POLLHUP);
                }
            }
            if (data) {
                Trace("WS2.Get to do recv");
                int32_t room = target_size - got;
                ssize_t n = room > 0 ? ::recv(Sock, target + got, size_t(room), 0) : 0;
                if (n < 0) {
                    int err = errno;
                    TraceBegin();
                    TraceAppend("recv failed, error = ");
                    TraceAppendInt(SocketErrorCode(err));
                    TraceAppend(", avail buf space was ");
                    TraceAppendInt(room);
                    TraceAppend(", total buf size was ");
                    TraceAppendInt(target_size);
                    Trace();
                    if (err == ECONNRESET) {
                        closed = true;
                    } else if (err == EAGAIN || err == EWOULDBLOCK || err == EINTR) {
                        data = false;  // readiness that went away: wait again
                    } else {
                        LastError = 8;
                        return -4;
                    }
                } else if (n == 0) {
                    closed = room > 0;
                } else {
                    Trace("WS2.Get done recv");
                    TraceChunk(target + got, n);
                    got += int32_t(n);
                    // The peer closed, but what it sent may not all have
                    // fitted: the close is seen by the next read then.
                    closed = hangup && n < room;
                }
            }
            if (!closed) {
                if (!data) {
                    if (TimeRemains()) continue;
                    LastError = 5;
                    return -5;
                }
            } else {
                Trace("Connection is closed by the server");
                LastError = 6;
            }
        }
        // The decrypt stage.
        if (crypt && CryptExtraPending) {
            got = Crypt->KeptBytes();
            CryptExtraPending = 0;
        }
        if (!crypt) {
            received = got;
            break;
        }
        Trace("Before DecryptData received bytes count:");
        Crypt->SetReceived(got);
        int32_t status;
        for (;;) {
            const char* plain = nullptr;
            int32_t plain_length = 0;
            status = Crypt->DecryptData(&plain, &plain_length);
            if (status != 0) break;
            if (int64_t(received) + plain_length > size) {
                cryptLeftover = plain_length;
                break;
            }
            if (plain_length > 0) std::memcpy(buffer + received, plain, size_t(plain_length));
            received += plain_length;
            if (!Crypt->MoveExtraData()) break;
        }
        if (status == -3) {
            CryptActive = 0;
            Crypt->Renegotiate();
            got = Crypt->KeptBytes();
            CryptActive = 1;
        } else if (status == -1) {
            LastError = 14;
            return -4;
        } else if (status == 1) {
            Trace("Incomplete message.");
            got = Crypt->KeptBytes();
            if (closed) break;
        } else {  // 0, or -2 which counts as 0
            if (status == -2 && received > 0) CryptClosePending = 1;
            if (received == 0 && cryptLeftover > 0) {
                Trace("Bytes read == 0.");
                CopyLeftover(buffer, size, received, cryptLeftover);
            }
            break;
        }
        ResetDeadline();
    }
    if (!Running) {
        LastError = 7;
        return -6;
    }
    if (closed) {
        Trace("Zero bytes read in Events-enabled mode");
        LastError = 6;
        return -3;
    }
    if (received == 0) {
        Trace("Zero bytes read!");
        LastError = 6;
        return -3;
    }
    LastError = 0;
    Trace("WS2.Get succeeded");
    return 0;
}

int32_t WS2::WaitForData(int32_t milliseconds) {
    if (!Running) {
        LastError = 7;
        return -6;
    }
    if (milliseconds < 0) milliseconds = 0;
    pollfd p{Sock, POLLIN | POLLRDHUP, 0};
    int n = poll(&p, 1, milliseconds);
    if (Blocking) {
        if (n < 0) {
            TraceNumber("select failed, error = ", SocketErrorCode(errno));
            LastError = 8;
        }
        return n;
    }
    automation::RunPump();
    if (n <= 0) return 0;
    if ((p.revents & POLLERR) && !(p.revents & POLLIN)) {
        LastError = 8;
        return -2;
    }
    if (p.revents & (POLLRDHUP | POLLHUP)) {
        // Readable at a close may still mean data: peek to tell.
        char c;
        if (::recv(Sock, &c, 1, MSG_PEEK | MSG_DONTWAIT) <= 0) return -1;
    }
    ReadPending = 1;
    return 1;
}

std::vector<uint8_t> WS2::ResolveHostAsync(const char* name) {
    struct Work {
        std::string name;
        std::vector<uint8_t> address;
        std::atomic<bool> done{false};
    };
    auto work = std::make_shared<Work>();
    work->name = name ? name : "";
    ResolvedLength = 0;
    ResetDeadline();
    std::thread resolver([work] {
        addrinfo hints{};
        hints.ai_family = AF_INET;
        addrinfo* list = nullptr;
        if (getaddrinfo(work->name.c_str(), nullptr, &hints, &list) == 0 && list) {
            const auto* sin = reinterpret_cast<const sockaddr_in*>(list->ai_addr);
            const auto* b = reinterpret_cast<const uint8_t*>(&sin->sin_addr);
            work->address.assign(b, b + 4);
            freeaddrinfo(list);
        }
        work->done = true;
    });
    while (!work->done) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        automation::RunPump();
    }
    resolver.join();
    ResolvedLength = int32_t(work->address.size());
    LastError = 0;
    return std::move(work->address);
}

}  // namespace kv
