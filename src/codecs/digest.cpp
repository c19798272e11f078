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

Md5State::Md5State() : ctx_(EVP_MD_CTX_new()) {
    if (ctx_ && EVP_DigestInit_ex(static_cast<EVP_MD_CTX*>(ctx_), EVP_md5(), nullptr) != 1) {
        EVP_MD_CTX_free(static_cast<EVP_MD_CTX*>(ctx_));
        ctx_ = nullptr;
    }
}

Md5State::~Md5State() { EVP_MD_CTX_free(static_cast<EVP_MD_CTX*>(ctx_)); }

void Md5State::Update(const void* bytes, int32_t length) {
    if (ctx_ && bytes && length > 0) EVP_DigestUpdate(static_cast<EVP_MD_CTX*>(ctx_), bytes, size_t(length));
}

void Md5State::Final(unsigned char digest[16]) {
    std::memset(digest, 0, 16);
    auto* ctx = static_cast<EVP_MD_CTX*>(ctx_);
    if (!ctx) return;
    unsigned int n = 0;
    EVP_DigestFinal_ex(ctx, digest, &n);
    EVP_DigestInit_ex(ctx, EVP_md5(), nullptr);
}

void Md5Bytes(const void* bytes, int32_t length, unsigned char digest[16]) {
    Md5State state;
    state.Update(bytes, length);
    state.Final(digest);
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
    state.Update(inner, 64);
    state.Update(text, length);
    state.Final(inner_digest);
    state.Update(outer, 64);
    state.Update(inner_digest, 16);
    state.Final(digest);
}

void HmacMd5Hex(char hex[33], const void* text, int32_t length, const void* key,
                int32_t key_length) {
    unsigned char digest[16];
    HmacMd5(text, length, key, key_length, digest);
    to_hex(hex, digest);
}

}  // namespace kv
