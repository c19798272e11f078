// BSTR: the automation runtime's string. A pointer to 16-bit units preceded by
// a 32-bit byte length and followed by a 16-bit NUL. A null BSTR and an empty
// one are different values; both have length 0.
#pragma once

#include <cstdint>

typedef char16_t OLECHAR;
typedef OLECHAR* BSTR;

extern "C" {
// Copies n units of src (or leaves them zero if src is null). Returns null only
// when memory runs out or n is negative.
BSTR SysAllocStringLen(const OLECHAR* src, uint32_t n);
// Copies a NUL-terminated string; null src gives null.
BSTR SysAllocString(const OLECHAR* src);
// A BSTR of exactly n bytes (n odd is allowed); src may be null.
BSTR SysAllocStringByteLen(const char* src, uint32_t n);
// Length in units / in bytes; 0 for null.
uint32_t SysStringLen(BSTR s);
uint32_t SysStringByteLen(BSTR s);
// Frees; null is fine.
void SysFreeString(BSTR s);
// Replaces *p with a fresh copy of src[0, n); frees the old one. Returns 0 on failure.
int SysReAllocStringLen(BSTR* p, const OLECHAR* src, uint32_t n);
}
