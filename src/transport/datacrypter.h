// CDataCrypter: the record stage of the TLS channel. One I/O buffer holds one
// record at a time: a record to send is built in it, received ciphertext is
// read into it by WS2 and decrypted in place, and the bytes that follow a
// record are kept for the next round.
//
// The cipher work is OpenSSL's, reached through two memory BIOs: exactly one
// whole record at a time goes into the engine, so the engine never holds
// bytes the buffer does not account for, and records it writes are taken out
// at once.
#pragma once

#include <cstdint>
#include <string>

#include "transport/ws2.h"

struct ssl_st;
struct bio_st;

namespace kv {

class CDataCrypter : public CryptChannel {
public:
    CDataCrypter() = default;
    ~CDataCrypter() override;
    CDataCrypter(const CDataCrypter&) = delete;
    CDataCrypter& operator=(const CDataCrypter&) = delete;

    // Record sizes: a 5-byte header, at most 16,384 bytes of plaintext, and
    // up to 2,048 bytes of expansion, the most any TLS version allows.
    static constexpr int32_t kStreamHeader = 5;
    static constexpr int32_t kStreamMaximum = 16384;
    static constexpr int32_t kStreamTrailer = 2048;
    static constexpr int32_t kIoBufferSize = kStreamHeader + kStreamMaximum + kStreamTrailer;

    // ---- fields, in order ----
    int32_t ExtraPending = 0;  // the last decryption left ciphertext after the record
    int32_t ContextValid = 0;  // a context stands and its handshake finished
    char* IoBuf = nullptr;     // owned; allocated once, at first need, kept for life
    int32_t HeaderSize = 0;    // where plaintext starts in a decrypted record
    int32_t IoCount = 0;       // ciphertext before decryption, plaintext after it
    int32_t IoBufSize = 0;
    int32_t StreamHeader = 0, StreamTrailer = 0, StreamMaximum = 0, StreamBuffers = 0, StreamBlockSize = 0;
    ssl_st* Context = nullptr;  // the engine's connection, with NetIn and NetOut
    bio_st* NetIn = nullptr;    // ciphertext towards the engine
    bio_st* NetOut = nullptr;   // ciphertext from the engine
    int32_t ExtraCount = 0;
    int32_t ExtraType = 0;  // 5 when extra bytes follow the record
    char* ExtraPointer = nullptr;

    // ---- CryptChannel: the record stage ----
    char* IoBuffer() override { return IoBuf; }
    int32_t IoBufferSize() override { return IoBufSize; }
    // At most StreamMaximum bytes of data become one record in the buffer:
    // the bytes taken, *record_size the record's size; -1 failed; -2 the
    // server closed the context (a close notify then stands in the buffer).
    int32_t EncryptData(const char* data, int32_t length, int32_t* record_size) override;
    void SetReceived(int32_t count) override;
    // Decrypts the first record of the buffer in place: 0 done (plaintext in
    // *plain, possibly empty when the record carried none after data was
    // already given out in this read), 1 more bytes needed (the incomplete
    // bytes stay at the front), -1 failed, -2 the server sent close notify,
    // -3 the server asks to renegotiate. Records that carry no data (session
    // tickets, key updates) are passed over.
    int32_t DecryptData(const char** plain, int32_t* plain_length) override;
    const char* LastPlain(int32_t* plain_length) override;
    bool MoveExtraData() override;
    int32_t KeptBytes() override { return IoCount; }

    // Frees the engine's connection (DeleteSecurityContext); ContextValid 0.
    void DeleteContext();
    // Sets the stream sizes and allocates the buffer if need be: false when
    // out of memory.
    bool PrepareStream();

protected:
    // Handshake messages the engine wrote while reading (a key update's
    // answer) go to the server as they stand.
    virtual void SendEngineOutput() {}

    // Application data that arrived while a renegotiation ran; the next
    // DecryptData gives it out first, as if it were one record.
    std::string HeldPlain;

private:
    std::string given_held_;
    const char* plain_ = nullptr;
    int32_t plain_length_ = 0;
    bool plain_given_ = false;  // data went out since this read began
    int32_t last_result_ = 0;
};

}  // namespace kv
