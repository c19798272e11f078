#include "transport/datacrypter.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "foundation/trace.h"

namespace kv {

namespace {

void TraceError(const char* text, unsigned long code) {
    char buf[256];
    ERR_error_string_n(code, buf, sizeof buf);
    TraceBegin();
    TraceAppend(text);
    TraceAppend(buf);
    Trace();
}

}  // namespace

CDataCrypter::~CDataCrypter() {
    DeleteContext();
    delete[] IoBuf;
}

void CDataCrypter::DeleteContext() {
    if (Context) SSL_free(Context);  // frees both BIOs
    Context = nullptr;
    NetIn = NetOut = nullptr;
    ContextValid = 0;
}

bool CDataCrypter::PrepareStream() {
    StreamHeader = kStreamHeader;
    StreamTrailer = kStreamTrailer;
    StreamMaximum = kStreamMaximum;
    StreamBuffers = 4;
    StreamBlockSize = 16;
    HeaderSize = StreamHeader;
    // The buffer was sized once for the largest record of any version, so
    // a later context reuses it as it stands.
    if (!IoBuf) {
        IoBuf = new (std::nothrow) char[size_t(kIoBufferSize)];
        if (!IoBuf) return false;
    }
    IoBufSize = kIoBufferSize;
    return true;
}

int32_t CDataCrypter::EncryptData(const char* data, int32_t length, int32_t* record_size) {
    *record_size = 0;
    if (!Context || !IoBuf) return -1;
    if (SSL_get_shutdown(Context) & SSL_RECEIVED_SHUTDOWN) {
        // The server ended the context: what goes out now is our close notify.
        Trace("**** Error SEC_E_CONTEXT_EXPIRED");
        SSL_shutdown(Context);
        int pending = int(BIO_ctrl_pending(NetOut));
        int n = pending > 0 ? BIO_read(NetOut, IoBuf, std::min(pending, IoBufSize)) : 0;
        IoCount = std::max(n, 0);
        *record_size = IoCount;
        DeleteContext();
        return -2;
    }
    int32_t take = std::clamp(length, 0, StreamMaximum);
    if (take > 0) {
        size_t written = 0;
        if (SSL_write_ex(Context, data, size_t(take), &written) != 1 || written != size_t(take)) {
            TraceError("**** Error 0x80090304 returned by EncryptMessage: ", ERR_peek_last_error());
            ERR_clear_error();
            return -1;
        }
    }
    int pending = int(BIO_ctrl_pending(NetOut));
    if (pending > IoBufSize) {
        Trace("**** Error 0x80090304 returned by EncryptMessage");
        return -1;
    }
    int n = pending > 0 ? BIO_read(NetOut, IoBuf, pending) : 0;
    IoCount = std::max(n, 0);
    *record_size = IoCount;
    return take;
}

void CDataCrypter::SetReceived(int32_t count) {
    IoCount = std::clamp(count, 0, IoBufSize);
    // A read goes on after an incomplete record or a renegotiation; any other
    // call starts a new one.
    if (last_result_ != 1 && last_result_ != -3) plain_given_ = false;
}

// TLSPlaintext / TLSCiphertext:
//   ContentType type (1); ProtocolVersion legacy_record_version (2);
//   uint16 length; opaque fragment[length]
int32_t CDataCrypter::DecryptData(const char** plain, int32_t* plain_length) {
    *plain = nullptr;
    *plain_length = 0;
    plain_ = nullptr;
    plain_length_ = 0;
    ExtraPending = 0;
    if (!Context || !IoBuf) return last_result_ = -1;
    if (!HeldPlain.empty()) {
        given_held_.swap(HeldPlain);
        HeldPlain.clear();
        // The ciphertext in the buffer, if any, waits as the extra bytes.
        ExtraPending = IoCount > 0;
        ExtraType = ExtraPending ? 5 : 0;
        ExtraPointer = IoBuf;
        ExtraCount = IoCount;
        plain_ = given_held_.data();
        plain_length_ = int32_t(given_held_.size());
        *plain = plain_;
        *plain_length = plain_length_;
        plain_given_ = true;
        return last_result_ = 0;
    }
    for (;;) {
        ExtraCount = 0;
        ExtraType = 0;
        ExtraPointer = nullptr;
        if (IoCount < kStreamHeader) return last_result_ = 1;
        const auto* h = reinterpret_cast<const unsigned char*>(IoBuf);
        int32_t body = (int32_t(h[3]) << 8) | h[4];
        int32_t record = kStreamHeader + body;
        if (record > IoBufSize) {
            Trace("**** Error 0x80090326 returned by DecryptMessage");
            return last_result_ = -1;
        }
        if (IoCount < record) return last_result_ = 1;
        if (BIO_write(NetIn, IoBuf, record) != record) return last_result_ = -1;

        // The plaintext of a record is never longer than its fragment, so it
        // goes in place behind the header without touching what follows.
        char* out = IoBuf + HeaderSize;
        int32_t total = 0;
        int32_t status = 0;
        while (total < body) {
            size_t got = 0;
            int r = SSL_read_ex(Context, out + total, size_t(body - total), &got);
            if (r == 1) {
                total += int32_t(got);
                continue;
            }
            int err = SSL_get_error(Context, r);
            if (err == SSL_ERROR_WANT_READ) break;
            if (err == SSL_ERROR_ZERO_RETURN) {
                status = -2;
            } else {
                TraceError("**** Error returned by DecryptMessage: ", ERR_peek_last_error());
                status = -1;
            }
            break;
        }
        ERR_clear_error();
        if (status == 0 && SSL_pending(Context) > 0) status = -1;  // more plaintext than fragment
        SendEngineOutput();

        int32_t extra = IoCount - record;
        if (extra > 0) {
            ExtraCount = extra;
            ExtraType = 5;
            ExtraPointer = IoBuf + record;
            ExtraPending = 1;
        }
        if (status == -1) return last_result_ = -1;
        if (status == -2) {
            Trace("**** Error SEC_E_CONTEXT_EXPIRED");
            IoCount = total;
            return last_result_ = -2;
        }
        // A hello request started a new handshake inside the engine.
        if (SSL_in_init(Context)) {
            IoCount = total;
            return last_result_ = -3;
        }
        if (total > 0) {
            IoCount = total;
            plain_ = out;
            plain_length_ = total;
            *plain = out;
            *plain_length = total;
            plain_given_ = true;
            return last_result_ = 0;
        }
        // A record without data: go on with the next one, if any.
        if (extra > 0) {
            std::memmove(IoBuf, IoBuf + record, size_t(extra));
            IoCount = extra;
            ExtraPending = 0;
            continue;
        }
        IoCount = 0;
        // Nothing for the caller yet: more bytes are needed. After data,
        // the read is complete as it stands.
        return last_result_ = plain_given_ ? 0 : 1;
    }
}

const char* CDataCrypter::LastPlain(int32_t* plain_length) {
    *plain_length = plain_length_;
    return plain_;
}

bool CDataCrypter::MoveExtraData() {
    if (!ExtraPending) return false;
    ExtraPending = 0;
    int32_t n = std::clamp(ExtraCount, 0, IoBufSize);
    if (ExtraPointer && n > 0) std::memmove(IoBuf, ExtraPointer, size_t(n));
    IoCount = n;
    ExtraCount = 0;
    ExtraPointer = nullptr;
    // The plaintext it pointed at is gone now.
    plain_ = nullptr;
    plain_length_ = 0;
    return true;
}

}  // namespace kv
