// MD5 and HMAC-MD5 (RFC 1321, RFC 2104), for APOP, CRAM-MD5, the names of
// message directories and the digest members of the message. The digest
// itself comes from libcrypto.
#pragma once

#include <cstdint>

namespace kv {

// A running MD5: Md5Init, any number of Md5Update, Md5Final.
struct Md5State {
    void* ctx = nullptr;  // the library's digest context
};
void Md5Init(Md5State& state);
void Md5Update(Md5State& state, const void* bytes, int32_t length);
// Writes the 16-byte digest and frees the state's context.
void Md5Final(unsigned char digest[16], Md5State& state);

void Md5Bytes(const void* bytes, int32_t length, unsigned char digest[16]);
// 32 lower-case hexadecimal digits and a NUL into text.
void Md5Hex(char text[33], const void* bytes, int32_t length);

// A key longer than 64 bytes is replaced by its MD5 first.
void HmacMd5(const void* text, int32_t length, const void* key, int32_t key_length,
             unsigned char digest[16]);
void HmacMd5Hex(char hex[33], const void* text, int32_t length, const void* key,
                int32_t key_length);

}  // namespace kv
