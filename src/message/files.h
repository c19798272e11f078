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

// A new one-dimensional byte array from 0 holding bytes, into out (whose old
// value is not cleared). E_OUTOFMEMORY, out untouched, when it cannot be made.
HRESULT BytesToArrayVariant(const bstring& bytes, VARIANT* out);

// The text in codepage (negative: 0) into the file at path, replacing it
// with overwrite, else appended. False for an empty path, a file that cannot
// be opened, or a short write.
bool WriteTextToFile(const wbstring& path, wbstring& text, int32_t codepage, bool overwrite);

// Opens (or creates) the file at path for reading and writing and locks its
// first 32767 bytes. The descriptor, which the caller closes, or -1.
int OpenAndLockFile(const wbstring& path);

}  // namespace kv
