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

#include <string>
#include <string_view>

namespace kv::automation {

// UTF-8 <-> UTF-16 for names and messages at the C boundary. Ill-formed input
// becomes U+FFFD; unpaired surrogates are kept as three-byte sequences, so a
// round trip from UTF-16 loses nothing.
std::u16string Utf8ToUtf16(std::string_view text);
std::string Utf16ToUtf8(std::u16string_view text);

// Owns one BSTR. Null and empty stay distinct: a default Bstr is null.
class Bstr {
public:
    Bstr() = default;
    Bstr(const OLECHAR* s, uint32_t n) : s_(SysAllocStringLen(s, n)) {}
    explicit Bstr(std::u16string_view s) : s_(SysAllocStringLen(s.data(), uint32_t(s.size()))) {}
    static Bstr FromUtf8(std::string_view text);
    // Takes ownership of s.
    static Bstr Attach(BSTR s) {
        Bstr b;
        b.s_ = s;
        return b;
    }
    Bstr(const Bstr& other) : s_(other.Copy()) {}
    Bstr(Bstr&& other) noexcept : s_(other.s_) { other.s_ = nullptr; }
    Bstr& operator=(Bstr other) noexcept {
        std::swap(s_, other.s_);
        return *this;
    }
    ~Bstr() { SysFreeString(s_); }

    BSTR get() const { return s_; }
    // Hands the string over; this object becomes null.
    BSTR Detach() {
        BSTR s = s_;
        s_ = nullptr;
        return s;
    }
    // A fresh copy the caller owns (null for null).
    BSTR Copy() const { return s_ ? SysAllocStringByteLen(reinterpret_cast<const char*>(s_), SysStringByteLen(s_)) : nullptr; }
    // For an out parameter: frees the current string and gives its slot.
    BSTR* Receive() {
        SysFreeString(s_);
        s_ = nullptr;
        return &s_;
    }
    bool is_null() const { return s_ == nullptr; }
    uint32_t size() const { return SysStringLen(s_); }
    std::u16string_view view() const { return s_ ? std::u16string_view(s_, size()) : std::u16string_view(); }
    std::string Utf8() const { return Utf16ToUtf8(view()); }

private:
    BSTR s_ = nullptr;
};

}  // namespace kv::automation
