// MD4 (RFC 1320), for the NT password hash of NTLM. OpenSSL 3 keeps MD4 in
// its legacy provider, which a host process may not have loaded, so the
// digest is written here. Not for any other use: MD4 is broken.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kv {

constexpr size_t kMD4DigestSize = 16;

// The digest of data[0, len) into digest; data may be null when len is 0.
void ComputeMD4(const void* data, size_t len, uint8_t digest[kMD4DigestSize]);

}  // namespace kv
