// Any bytes as the server's side of a TLS connection, into a client channel
// in the middle of its handshake: first through the whole handshake loop over
// a socket pair, then record by record into the record stage, cut at the
// first byte as WS2 would read them. No read or write outside the buffer, a
// bounded number of steps, and the counts the channel reports stay in range.
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "transport/sslcrypt.h"

namespace {

constexpr size_t kMaxInput = 64 * 1024;  // below a socket pair's buffer

void Check(bool ok) {
    if (!ok) __builtin_trap();
}

void HandshakeLoop(const uint8_t* data, size_t size) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return;
    if (size > 0 && write(fds[1], data, size) != ssize_t(size)) {
        close(fds[0]);
        close(fds[1]);
        return;
    }
    shutdown(fds[1], SHUT_WR);
    {
        kv::WS2 ws;
        ws.Sock = fds[0];
        ws.Connected = 1;
        ws.Timeout = 1;
        kv::CSSLCrypt crypt;
        crypt.Protocol = data[0] & 1 ? 0xC00 : 0;
        ws.Crypt = &crypt;
        int32_t status = crypt.Init(&ws);
        if (status == 0) {
            Check(ws.CryptActive == 1);
            Check(crypt.IoCount >= 0 && crypt.IoCount < crypt.IoBufSize);
        }
        ws.Connected = 0;  // the pair is closed below
        crypt.Socket = nullptr;
        crypt.Close();
    }
    close(fds[0]);
    close(fds[1]);
}

// The record stage alone; the connection ends before any close or
// renegotiation would run.
class RecordChannel : public kv::CDataCrypter {
public:
    int32_t Close() override { return 0; }
    int32_t Renegotiate() override { return 0; }
};

void RecordStage(const uint8_t* data, size_t size) {
    static SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
    RecordChannel channel;
    channel.Context = SSL_new(ctx);
    channel.NetIn = BIO_new(BIO_s_mem());
    channel.NetOut = BIO_new(BIO_s_mem());
    SSL_set_bio(channel.Context, channel.NetIn, channel.NetOut);
    SSL_set_connect_state(channel.Context);
    Check(channel.PrepareStream());
    size_t at = 0;
    int32_t kept = 0;
    // Each step takes in bytes or ends: a bounded walk.
    for (int steps = 0; steps < 4096 && at < size; ++steps) {
        // The first byte picks how much each read brings.
        size_t chunk = 1 + (data[0] * 37u + size_t(steps) * 11u) % 700u;
        size_t take = std::min({chunk, size - at, size_t(channel.IoBufSize - kept)});
        if (take == 0) break;
        std::memcpy(channel.IoBuf + kept, data + at, take);
        at += take;
        channel.SetReceived(kept + int32_t(take));
        int32_t status;
        for (int records = 0;; ++records) {
            Check(records < 4096);
            const char* plain = nullptr;
            int32_t length = 0;
            status = channel.DecryptData(&plain, &length);
            if (status != 0) break;
            Check(length >= 0 && length <= channel.IoBufSize);
            if (length > 0) Check(plain >= channel.IoBuf && plain + length <= channel.IoBuf + channel.IoBufSize);
            if (!channel.MoveExtraData()) break;
            Check(channel.KeptBytes() >= 0 && channel.KeptBytes() <= channel.IoBufSize);
        }
        if (status != 1) return;  // failed, closed or renegotiating: the connection would end
        kept = channel.KeptBytes();
        Check(kept >= 0 && kept < channel.IoBufSize);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    size = std::min(size, kMaxInput);
    HandshakeLoop(data, size);
    RecordStage(data, size);
    return 0;
}
