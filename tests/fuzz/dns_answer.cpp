// The walk of a DNS answer over any bytes: no read outside them, no endless
// pointer chase, names that fit their fields.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "transport/dns.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > size_t(kv::kDnsBufferSize)) size = size_t(kv::kDnsBufferSize);
    int32_t resolved = -1;
    kv::MXRecord* records = kv::ParseMX(data, int32_t(size), resolved);
    if (records) {
        if (resolved != 1) __builtin_trap();
        for (int i = 0; i < records[0].Count; ++i) {
            if (std::memchr(records[i].Name, 0, sizeof records[i].Name) == nullptr) __builtin_trap();
            if (std::memchr(records[i].Address, 0, sizeof records[i].Address) == nullptr) __builtin_trap();
            if (i > 0 && records[i - 1].Preference > records[i].Preference) __builtin_trap();
        }
        kv::ReleaseMX(records);
    }
    return 0;
}
