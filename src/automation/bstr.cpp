#include "automation/bstr.h"

#include <cstdlib>
#include <cstring>

namespace {

// Header of 4 bytes for the byte length; data follows, then two NUL bytes
// (three for an odd byte length, so the unit terminator is always whole).
BSTR AllocBytes(const void* src, uint32_t bytes) {
    if (bytes > 0x7FFFFFF0u) return nullptr;
    auto* block = static_cast<unsigned char*>(std::malloc(size_t(bytes) + 4 + 3));
    if (!block) return nullptr;
    std::memcpy(block, &bytes, 4);
    unsigned char* data = block + 4;
    if (src)
        std::memcpy(data, src, bytes);
    else
        std::memset(data, 0, bytes);
    data[bytes] = data[bytes + 1] = data[bytes + 2] = 0;
    return reinterpret_cast<BSTR>(data);
}

}  // namespace

extern "C" {

BSTR SysAllocStringLen(const OLECHAR* src, uint32_t n) {
    if (n > 0x3FFFFFF0u) return nullptr;
    return AllocBytes(src, n * 2);
}

BSTR SysAllocString(const OLECHAR* src) {
    if (!src) return nullptr;
    uint32_t n = 0;
    while (src[n]) ++n;
    return SysAllocStringLen(src, n);
}

BSTR SysAllocStringByteLen(const char* src, uint32_t n) { return AllocBytes(src, n); }

uint32_t SysStringByteLen(BSTR s) {
    if (!s) return 0;
    uint32_t bytes;
    std::memcpy(&bytes, reinterpret_cast<const unsigned char*>(s) - 4, 4);
    return bytes;
}

uint32_t SysStringLen(BSTR s) { return SysStringByteLen(s) / 2; }

void SysFreeString(BSTR s) {
    if (s) std::free(reinterpret_cast<unsigned char*>(s) - 4);
}

int SysReAllocStringLen(BSTR* p, const OLECHAR* src, uint32_t n) {
    if (!p) return 0;
    BSTR fresh = SysAllocStringLen(src, n);
    if (!fresh) return 0;
    SysFreeString(*p);
    *p = fresh;
    return 1;
}
}
