// MD5 and HMAC-MD5 (RFC 1321, RFC 2104), for APOP, CRAM-MD5, the names of
// message directories and the digest members of the message. The digest
// itself comes from libcrypto.
#pragma once

#include <cstdint>

namespace kv {

// A running MD5: any number of Update, then Final, which also starts it
// over. The library's digest context lives as long as the object.
class Md5State {
public:
    Md5State();
    ~Md5State();
    Md5State(const Md5State&) = delete;
    Md5State& operator=(const Md5State&) = delete;
    void Update(const void* bytes, int32_t length);
    // The 16-byte digest; zeros when the library gave no context.
    void Final(unsigned char digest[16]);

private:
    void* ctx_;
};

void Md5Bytes(const void* bytes, int32_t length, unsigned char digest[16]);
// 32 lower-case hexadecimal digits and a NUL into text.
void Md5Hex(char text[33], const void* bytes, int32_t length);

// A key longer than 64 bytes is replaced by its MD5 first.
void HmacMd5(const void* text, int32_t length, const void* key, int32_t key_length,
             unsigned char digest[16]);
void HmacMd5Hex(char hex[33], const void* text, int32_t length, const void* key,
                int32_t key_length);

}  // namespace kv
