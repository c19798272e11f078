// The small file and byte-array routines under the message members.
#pragma once

#include "automation/variant.h"
#include "foundation/bstring.h"

namespace kv {

// Appends the whole file to destination; false (and destination unchanged)
// when it cannot be opened.
bool AppendFileToBString(const wbstring& path, bstring& destination);

// The bytes of a one-dimensional byte array, given directly (type 0x2011) or
// by reference to a variant holding one. False for anything else, or when the
// bounds cannot be read; destination is then unchanged.
bool BytesFromArrayVariant(const VARIANT& data, bstring& destination);

}  // namespace kv
