// WS2: the one TCP connection under every mail session, on POSIX sockets.
//
// Two ways of waiting. In blocking mode (the default) a read sleeps in poll()
// for up to Timeout seconds. In events mode the socket is non-blocking and
// every wait is a short slice, after each of which the host's pump hook runs
// (automation/pump.h): so events and Abort can arrive in the middle of a read
// or a write. Abort clears Running, from the pump hook or from any thread;
// each wait loop tests it at its top.
//
// Results are 0 for success and a negative number per cause; LastError holds
// the layer's code (table in ws2.cpp), which the session copies to ErrCode.
// Raw socket errors are reported with their Winsock numbers (10054 for a
// reset and so on), so that a script sees the same ErrCode on every platform.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace kv {

// What the socket layer needs of a TLS channel; the TLS channel class
// implements it. The channel owns one I/O buffer: records to send are built
// in it, received ciphertext is read into it.
class CryptChannel {
public:
    virtual ~CryptChannel() = default;
    virtual char* IoBuffer() = 0;
    virtual int32_t IoBufferSize() = 0;
    // Makes one record in the I/O buffer from at most one record's plaintext
    // of data. Returns the plaintext bytes taken, with the record's size in
    // *record_size; -2 when the context expired (a close record then stands in
    // the buffer, *record_size its size); another negative value on failure.
    virtual int32_t EncryptData(const char* data, int32_t length, int32_t* record_size) = 0;
    // count bytes of ciphertext now stand at the start of the I/O buffer.
    virtual void SetReceived(int32_t count) = 0;
    // Decrypts the first record of the buffer: 0 done (the plaintext is in
    // *plain, *plain_length, valid until the next call), 1 incomplete, -1
    // failed, -2 context expired, -3 the server asks to renegotiate.
    virtual int32_t DecryptData(const char** plain, int32_t* plain_length) = 0;
    // The plaintext of the last decrypted record.
    virtual const char* LastPlain(int32_t* plain_length) = 0;
    // Moves what follows the last record to the front of the buffer; true if
    // there was anything.
    virtual bool MoveExtraData() = 0;
    // Bytes kept at the front of the buffer after an incomplete record.
    virtual int32_t KeptBytes() = 0;
    // Sends the close notification (through the socket layer); 0 or an error.
    virtual int32_t Close() = 0;
    // Runs the handshake loop again without a fresh first token, leaving any
    // bytes that followed it at the front of the buffer (SetReceived done).
    virtual int32_t Renegotiate() = 0;
};

class WS2 {
public:
    WS2();  // starts up
    virtual ~WS2();
    WS2(const WS2&) = delete;
    WS2& operator=(const WS2&) = delete;

    // ---- fields, in order ----
    int32_t Timeout = 30;  // seconds; with TimeoutMicroseconds the limit of a blocking wait
    int32_t TimeoutMicroseconds = 0;
    int32_t ResolvedLength = 0;
    int32_t LastError = 0;
    // Cleared by Abort, possibly from another thread; set back to 1 only by
    // the session at each connect.
    std::atomic<int32_t> Running{1};
    int32_t Started = 0;
    int32_t Connected = 0;
    int Sock = -1;
    CryptChannel* Crypt = nullptr;  // not owned
    int32_t CryptActive = 0;
    int32_t CryptExtraPending = 0;
    // The peer's close notification came behind data that a Get returned:
    // the next Get reports the close instead of waiting on the socket.
    int32_t CryptClosePending = 0;
    int32_t SendDelay = 0;  // milliseconds slept ahead of each send
    // Set while a text goes out in several pieces: the kernel may hold a
    // piece back to fill a segment (MSG_MORE) until a send without it, so a
    // small piece does not wait for the peer's delayed acknowledgement.
    bool MorePieces = false;
    int32_t Blocking = 1;
    int64_t Deadline = 0;  // seconds since the epoch
    int32_t ReadPending = 0;
    // The host name of the last Connect, as given: the TLS channel sends it
    // as the server name indication.
    std::string HostName;

    // 0 started; -1 / -2 cannot happen on POSIX (kept for the contract).
    int32_t Startup();
    // -1 not started, -2 still connected, 0 done.
    int32_t Shutdown();
    // 0 and nothing changes while connected; otherwise stores the flag, 1.
    int32_t SetBlocking(int32_t flag);

    // Connects to host (a name, or IPv4 or IPv6 text) at port, IPv4 first and
    // IPv6 only when the name has no IPv4 address at all. 0 connected; -1 not
    // started, -2 already connected, -3 no socket, -4 no address, -5 connect
    // failed, -6 asynchronous connect failed, -7 time-out, -8 aborted.
    int32_t Connect(const char* host, int32_t port);
    // 0 done; -1 not started, -2 not connected, -3 shutdown failed, -4 close
    // failed. The descriptor is released in every case.
    int32_t Disconnect();
    // Sends length bytes of data, or the C string text. 0 all sent; -1, -2,
    // -3 failed, -4 write readiness with an error, -5 time-out, -6 aborted.
    int32_t Send(const char* data, int32_t length);
    int32_t Send(const char* text);
    // Reads what is there, at most size bytes (size at least 1), after
    // waiting for it. received is set to 0 first; cryptLeftover is the
    // caller's count, 0 at the start of a response, kept across the calls of
    // one response. 0 data; -3 the server closed (received may still be
    // above 0: keep those bytes), -1, -2, -4 failed, -5 time-out, -6 aborted.
    int32_t Get(char* buffer, int32_t size, int32_t& received, int32_t& cryptLeftover);
    // Waits up to milliseconds for data. Blocking: the poll result (0 nothing,
    // 1 ready, negative error). Events: 1 ready, 0 nothing, -1 closed, -2
    // error; -6 aborted in both.
    int32_t WaitForData(int32_t milliseconds);
    // Looks up the IPv4 address of name on a short-lived thread while the
    // calling thread goes on pumping. Returns the address bytes (ResolvedLength
    // of them), or nothing when the name has no IPv4 address.
    std::vector<uint8_t> ResolveHostAsync(const char* name);

    void ResetDeadline();
    bool TimeRemains() const;

private:
    void CloseSocket();
    int32_t ConnectWait(bool last, bool& next);
    void CopyLeftover(char* buffer, int32_t size, int32_t& received, int32_t& cryptLeftover);
    int32_t SendCloseRecord(int32_t record_size);
};

// The Winsock number of a POSIX errno value, as the layer reports raw socket
// errors (10035 would block, 10054 reset, 10060 timed out ...); 10000 + errno
// for one without a counterpart.
int32_t SocketErrorCode(int err);

}  // namespace kv
