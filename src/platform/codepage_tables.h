// Byte-to-UTF-16 tables of the single-byte code pages (generated data).
#pragma once

namespace kv::platform::detail {

struct SingleByteTable {
    int codepage;
    bool ascii_identity;    // bytes 0x00..0x7F map to themselves
    const char16_t* to_wide;  // 256 entries; U+FFFD marks an undefined byte
};

extern const SingleByteTable kSingleByteTables[];  // sorted by codepage
extern const int kSingleByteTableCount;

}  // namespace kv::platform::detail
