#include "codecs/digest.h"

#include <openssl/evp.h>

#include <cstring>

namespace kv {

namespace {

void to_hex(char text[33], const unsigned char digest[16]) {
    static const char digits[] = "0123456789abcdef";
    for (int i = 0; i < 16; ++i) {
        text[2 * i] = digits[digest[i] >> 4];
        text[2 * i + 1] = digits[digest[i] & 15];
    }
    text[32] = 0;
}

}  // namespace

void Md5Init(Md5State& state) {
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    if (ctx && EVP_DigestInit_ex(ctx, EVP_md5(), nullptr) != 1) {
        EVP_MD_CTX_free(ctx);
        ctx = nullptr;
    }
    state.ctx = ctx;
}

void Md5Update(Md5State& state, const void* bytes, int32_t length) {
    if (state.ctx && bytes && length > 0)
        EVP_DigestUpdate(static_cast<EVP_MD_CTX*>(state.ctx), bytes, size_t(length));
}

void Md5Final(unsigned char digest[16], Md5State& state) {
    std::memset(digest, 0, 16);
    auto* ctx = static_cast<EVP_MD_CTX*>(state.ctx);
    if (!ctx) return;
    unsigned int n = 0;
    EVP_DigestFinal_ex(ctx, digest, &n);
    EVP_MD_CTX_free(ctx);
    state.ctx = nullptr;
}

void Md5Bytes(const void* bytes, int32_t length, unsigned char digest[16]) {
    Md5State state;
    Md5Init(state);
    Md5Update(state, bytes, length);
    Md5Final(digest, state);
}

void Md5Hex(char text[33], const void* bytes, int32_t length) {
    unsigned char digest[16];
    Md5Bytes(bytes, length, digest);
    to_hex(text, digest);
}

void HmacMd5(const void* text, int32_t length, const void* key, int32_t key_length,
             unsigned char digest[16]) {
    unsigned char short_key[16];
    if (key_length > 64) {
        Md5Bytes(key, key_length, short_key);
        key = short_key;
        key_length = 16;
    }
    unsigned char inner[64] = {}, outer[64] = {};
    if (key && key_length > 0) {
        std::memcpy(inner, key, size_t(key_length));
        std::memcpy(outer, key, size_t(key_length));
    }
    for (int i = 0; i < 64; ++i) {
        inner[i] ^= 0x36;
        outer[i] ^= 0x5C;
    }
    unsigned char inner_digest[16];
    Md5State state;
    Md5Init(state);
    Md5Update(state, inner, 64);
    Md5Update(state, text, length);
    Md5Final(inner_digest, state);
    Md5Init(state);
    Md5Update(state, outer, 64);
    Md5Update(state, inner_digest, 16);
    Md5Final(digest, state);
}

void HmacMd5Hex(char hex[33], const void* text, int32_t length, const void* key,
                int32_t key_length) {
    unsigned char digest[16];
    HmacMd5(text, length, key, key_length, digest);
    to_hex(hex, digest);
}

}  // namespace kv
