#include "foundation/bstring.h"

#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <cwctype>
#include <locale.h>
#include <wctype.h>
#include <new>

#include "foundation/trace.h"
#include "platform/codepage.h"

namespace kv {
namespace {

// Unit helpers shared by both widths.

template <class Unit>
int32_t unit_length(const Unit* s) {
    if (!s) return 0;
    size_t n = 0;
    while (s[n]) ++n;
    return n > size_t(INT32_MAX) ? INT32_MAX : int32_t(n);
}

template <>
int32_t unit_length<char>(const char* s) {
    if (!s) return 0;
    size_t n = std::strlen(s);
    return n > size_t(INT32_MAX) ? INT32_MAX : int32_t(n);
}

template <class Unit>
const Unit* unit_find(const Unit* p, Unit c, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (p[i] == c) return p + i;
    return nullptr;
}

template <>
const char* unit_find<char>(const char* p, char c, size_t n) {
    return static_cast<const char*>(std::memchr(p, c, n));
}

// Case folding: the "C" locale's ASCII rules for bytes, the runtime's wide
// mapping for 16-bit units.
inline int fold(char c) {
    unsigned char u = static_cast<unsigned char>(c);
    return (u >= 'A' && u <= 'Z') ? u + 32 : u;
}
// Wide case follows Unicode whatever locale the host has set: the library
// never touches the process locale, so it keeps a UTF-8 one of its own.
locale_t WideLocale() {
    static locale_t wide = newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t(0));
    return wide;
}
inline char16_t lower_unit(char16_t c) {
    if (c < 0x80) return (c >= u'A' && c <= u'Z') ? char16_t(c + 32) : c;
    locale_t wide = WideLocale();
    wint_t r = wide ? towlower_l(wint_t(c), wide) : std::towlower(wint_t(c));
    return r <= 0xFFFF ? char16_t(r) : c;
}
inline char16_t upper_unit(char16_t c) {
    if (c < 0x80) return (c >= u'a' && c <= u'z') ? char16_t(c - 32) : c;
    locale_t wide = WideLocale();
    wint_t r = wide ? towupper_l(wint_t(c), wide) : std::towupper(wint_t(c));
    return r <= 0xFFFF ? char16_t(r) : c;
}
inline int fold(char16_t c) { return int(lower_unit(c)); }

template <class Unit>
int compare_nocase(const Unit* a, const Unit* b, int32_t n) {
    for (int32_t i = 0; i < n; ++i) {
        int x = fold(a[i]), y = fold(b[i]);
        if (x != y) return x < y ? -1 : 1;
    }
    return 0;
}

template <class Unit>
int compare_exact(const Unit* a, const Unit* b, int32_t n) {
    // strncmp stops at a NUL in both strings.
    for (int32_t i = 0; i < n; ++i) {
        auto x = static_cast<std::make_unsigned_t<Unit>>(a[i]);
        auto y = static_cast<std::make_unsigned_t<Unit>>(b[i]);
        if (x != y) return x < y ? -1 : 1;
        if (x == 0) return 0;
    }
    return 0;
}

template <class Unit>
bool in_set(const Unit* set, Unit c) {
    if (!set) return false;
    for (; *set; ++set)
        if (*set == c) return true;
    return false;
}

// Index of the first occurrence of c in the NUL-terminated s, or -1.
template <class Unit>
int32_t index_of(const Unit* s, Unit c) {
    if (!s) return -1;
    for (int32_t i = 0; s[i]; ++i)
        if (s[i] == c) return i;
    return -1;
}

template <class Unit>
bool is_blank(Unit c) {
    return c == Unit(' ') || c == Unit('\t');
}
template <class Unit>
bool is_space(Unit c) {
    return c == Unit(' ') || c == Unit('\t') || c == Unit('\r') || c == Unit('\n') ||
           c == Unit('\f');
}

// atoi / strtol over a bounded buffer: leading white space, a sign, digits
// up to the first other unit (a NUL included). Results clamp to 32 bits as
// the 32-bit runtime's do.
template <class Unit>
int32_t parse_number(const Unit* p, int32_t n, int radix) {
    int32_t i = 0;
    while (i < n && (p[i] == Unit(' ') || (p[i] >= Unit('\t') && p[i] <= Unit('\r')))) ++i;
    bool negative = false;
    if (i < n && (p[i] == Unit('+') || p[i] == Unit('-'))) negative = p[i++] == Unit('-');
    if (radix == 16 && i + 1 < n && p[i] == Unit('0') && (p[i + 1] == Unit('x') || p[i + 1] == Unit('X')))
        i += 2;
    int64_t value = 0;
    for (; i < n; ++i) {
        int digit;
        Unit c = p[i];
        if (c >= Unit('0') && c <= Unit('9'))
            digit = int(c - Unit('0'));
        else if (radix == 16 && c >= Unit('a') && c <= Unit('f'))
            digit = int(c - Unit('a')) + 10;
        else if (radix == 16 && c >= Unit('A') && c <= Unit('F'))
            digit = int(c - Unit('A')) + 10;
        else
            break;
        value = value * radix + digit;
        if (value > int64_t(INT32_MAX) + 1) value = int64_t(INT32_MAX) + 1;
    }
    if (negative) value = -value;
    if (value > INT32_MAX) return INT32_MAX;
    if (value < INT32_MIN) return INT32_MIN;
    return int32_t(value);
}

}  // namespace

// ---- construction and storage ------------------------------------------

template <class D, class U>
basic_bstring<D, U>::basic_bstring(int32_t capacity) {
    if (capacity < 0) capacity = 0;
    pData = static_cast<U*>(::operator new((size_t(capacity) + 1) * sizeof(U)));
    pData[0] = 0;
    nCapacity = capacity;
}

template <class D, class U>
basic_bstring<D, U>::basic_bstring(const U* text) : basic_bstring(text, -1) {}

template <class D, class U>
basic_bstring<D, U>::basic_bstring(const U* data, int32_t n) {
    if (n < 0) n = unit_length(data);
    if (!data) n = 0;
    pData = static_cast<U*>(::operator new((size_t(n) + 1) * sizeof(U)));
    if (n) std::memcpy(pData, data, size_t(n) * sizeof(U));
    nSize = nCapacity = n;
}

template <class D, class U>
basic_bstring<D, U>::basic_bstring(const basic_bstring& other) {
    if (other.is_view()) {
        pData = other.pData;
        nSize = other.nSize;
        nCapacity = -1;
        return;
    }
    if (!other.pData) return;
    int32_t n = other.nSize > 0 ? other.nSize : 0;
    pData = static_cast<U*>(::operator new((size_t(n) + 1) * sizeof(U)));
    if (n) std::memcpy(pData, other.pData, size_t(n) * sizeof(U));
    nSize = nCapacity = n;
}

template <class D, class U>
basic_bstring<D, U>::basic_bstring(basic_bstring&& other) noexcept
    : pData(other.pData), nSize(other.nSize), nCapacity(other.nCapacity) {
    other.pData = nullptr;
    other.nSize = other.nCapacity = 0;
}

template <class D, class U>
basic_bstring<D, U>& basic_bstring<D, U>::operator=(const basic_bstring& other) {
    if (this == &other) return *this;
    basic_bstring copy(other);
    free_buffer();
    pData = copy.pData;
    nSize = copy.nSize;
    nCapacity = copy.nCapacity;
    copy.pData = nullptr;
    copy.nSize = copy.nCapacity = 0;
    return *this;
}

template <class D, class U>
basic_bstring<D, U>& basic_bstring<D, U>::operator=(basic_bstring&& other) noexcept {
    if (this == &other) return *this;
    free_buffer();
    pData = other.pData;
    nSize = other.nSize;
    nCapacity = other.nCapacity;
    other.pData = nullptr;
    other.nSize = other.nCapacity = 0;
    return *this;
}

template <class D, class U>
basic_bstring<D, U>::~basic_bstring() {
    free_buffer();
}

template <class D, class U>
void basic_bstring<D, U>::free_buffer() {
    if (pData && !is_view()) ::operator delete(pData);
    pData = nullptr;
    nSize = nCapacity = 0;
}

template <class D, class U>
D& basic_bstring<D, U>::release() {
    free_buffer();
    return self();
}

template <class D, class U>
D& basic_bstring<D, U>::reserve(int32_t n) {
    return reserve_keep(n, nSize);
}

// A view (capacity -1) is smaller than any request, so growing it makes an
// owned copy; the borrowed bytes are never freed.
template <class D, class U>
D& basic_bstring<D, U>::reserve_keep(int32_t n, int32_t keep) {
    if (n < 0 || nCapacity >= n) return self();
    U* fresh = static_cast<U*>(::operator new((size_t(n) + 1) * sizeof(U)));
    if (keep > n) keep = n;
    if (keep > 0 && pData) std::memcpy(fresh, pData, size_t(keep) * sizeof(U));
    if (pData && !is_view()) ::operator delete(pData);
    pData = fresh;
    nCapacity = n;
    if (nSize > n) nSize = n;
    if (nSize < 0) nSize = 0;
    return self();
}

template <class D, class U>
D& basic_bstring<D, U>::borrow(const basic_bstring& other) {
    return borrow(other.pData, other.nSize);
}

template <class D, class U>
D& basic_bstring<D, U>::borrow(const U* data, int32_t n) {
    if (data == pData && is_view()) {
        nSize = n;
        return self();
    }
    free_buffer();
    pData = const_cast<U*>(data);
    nSize = n;
    nCapacity = -1;
    return self();
}

template <class D, class U>
D& basic_bstring<D, U>::clear() {
    free_buffer();
    return self();
}

template <class D, class U>
void basic_bstring<D, U>::give_to(basic_bstring& dest) {
    if (&dest == this) return;
    dest.free_buffer();
    if (is_view()) {
        dest.append(pData, nSize > 0 ? nSize : 0);
        pData = nullptr;
        nSize = nCapacity = 0;
        return;
    }
    dest.pData = pData;
    dest.nSize = nSize;
    dest.nCapacity = nCapacity;
    pData = nullptr;
    nSize = nCapacity = 0;
}

// The terminator of a view would land in the owner's bytes, so a view is
// left as it is.
template <class D, class U>
D& basic_bstring<D, U>::null_terminate() {
    if (pData && !is_view() && nSize >= 0 && nSize <= nCapacity) pData[nSize] = 0;
    return self();
}

template <class D, class U>
D& basic_bstring<D, U>::sync_size() {
    if (!pData || is_view()) return self();
    int32_t n = 0;
    while (n <= nCapacity && pData[n]) ++n;
    if (n < nCapacity) nSize = n;
    return self();
}

// ---- assigning and appending ---------------------------------------------

template <class D, class U>
D& basic_bstring<D, U>::assign(const U* text) {
    return assign(text, -1);
}

template <class D, class U>
D& basic_bstring<D, U>::assign(const U* data, int32_t n) {
    if (data && pData && data >= pData && data <= pData + (nSize > 0 ? nSize : 0)) {
        // Assigning a piece of itself: move it down instead of losing it.
        int32_t offset = int32_t(data - pData);
        if (n < 0) n = unit_length(data);
        if (n > nSize - offset) n = nSize - offset;
        if (is_view()) {
            pData += offset;
            nSize = n;
        } else {
            std::memmove(pData, data, size_t(n) * sizeof(U));
            nSize = n;
        }
        return self();
    }
    nSize = 0;
    return append(data, n);
}

template <class D, class U>
D& basic_bstring<D, U>::assign(const basic_bstring& other) {
    if (&other == this) return self();
    nSize = 0;
    return append(other);
}

template <class D, class U>
D& basic_bstring<D, U>::append(const U* data, int32_t n) {
    if (n < 0) n = unit_length(data);
    if (!data || n == 0) {
        reserve(nSize + n);
        return self();
    }
    if (nSize < 0) nSize = 0;
    if (int64_t(nSize) + n > INT32_MAX - 1) return self();
    // The source may lie inside this buffer, which reserve may replace.
    bool inside = pData && data >= pData && data < pData + nSize;
    std::ptrdiff_t offset = inside ? data - pData : 0;
    U* old = pData;
    bool old_owned = !is_view();
    if (inside && nCapacity < nSize + n) {
        U* fresh = static_cast<U*>(::operator new((size_t(nSize) + n + 1) * sizeof(U)));
        std::memcpy(fresh, old, size_t(nSize) * sizeof(U));
        std::memcpy(fresh + nSize, old + offset, size_t(n) * sizeof(U));
        if (old_owned) ::operator delete(old);
        pData = fresh;
        nCapacity = nSize + n;
        nSize += n;
        return self();
    }
    reserve(nSize + n);
    if (!pData) return self();
    std::memmove(pData + nSize, data, size_t(n) * sizeof(U));
    nSize += n;
    return self();
}

template <class D, class U>
D& basic_bstring<D, U>::append(const basic_bstring& other) {
    return append(other.pData, other.nSize > 0 ? other.nSize : 0);
}

template <class D, class U>
D& basic_bstring<D, U>::operator+=(U unit) {
    if (nSize < 0) nSize = 0;
    reserve(nSize + 1);
    if (!pData) return self();
    pData[nSize++] = unit;
    return self();
}

template <class D, class U>
D& basic_bstring<D, U>::append_from(const basic_bstring& src, int32_t offset, int32_t count) {
    if (offset < 0 || offset >= src.nSize) return self();
    int32_t available = src.nSize - offset;
    if (count < 0 || count > available) count = available;
    return append(src.pData + offset, count);
}

template <class D, class U>
D& basic_bstring<D, U>::append_range(const basic_bstring& src, int32_t start, int32_t end) {
    if (end < 0 || end > src.nSize) end = src.nSize;
    if (start < 0) start = 0;
    if (start >= end) return self();
    return append(src.pData + start, end - start);
}

template <class D, class U>
D& basic_bstring<D, U>::append_int(int32_t value, int radix) {
    if (radix < 2 || radix > 36) radix = 10;
    char digits[40];
    int d = 0;
    bool negative = radix == 10 && value < 0;
    uint32_t magnitude = negative ? 0u - uint32_t(value) : uint32_t(value);
    do {
        digits[d++] = "0123456789abcdefghijklmnopqrstuvwxyz"[magnitude % uint32_t(radix)];
        magnitude /= uint32_t(radix);
    } while (magnitude);
    if (negative) digits[d++] = '-';
    if (nSize < 0) nSize = 0;
    reserve(nSize + 12);
    // Only text that fits below the capacity is kept (radix 2 may not).
    if (!pData || nSize + d >= nCapacity) return self();
    while (d) pData[nSize++] = U(digits[--d]);
    pData[nSize] = 0;
    return self();
}

// ---- searching -------------------------------------------------------------

template <class D, class U>
int32_t basic_bstring<D, U>::find(int32_t start, U c) const {
    if (start < 0 || start >= nSize) return -1;
    const U* hit = unit_find(pData + start, c, size_t(nSize - start));
    return hit ? int32_t(hit - pData) : -1;
}

template <class D, class U>
int32_t basic_bstring<D, U>::find_count(int32_t start, U c, int32_t count) const {
    if (start < 0 || start >= nSize || count < 0) return -1;
    int64_t stop = int64_t(start) + count;
    int32_t n = stop >= nSize ? nSize - start : count;
    const U* hit = unit_find(pData + start, c, size_t(n));
    return hit ? int32_t(hit - pData) : -1;
}

template <class D, class U>
int32_t basic_bstring<D, U>::find_range(int32_t start, int32_t end, U c) const {
    if (start < 0 || start >= nSize) return -1;
    if (end < 0 || end > nSize) end = nSize;
    if (end <= start) return -1;
    const U* hit = unit_find(pData + start, c, size_t(end - start));
    return hit ? int32_t(hit - pData) : -1;
}

template <class D, class U>
int32_t basic_bstring<D, U>::find_range(int32_t start, int32_t end, const U* needle,
                                        int32_t n) const {
    if (n < 0) n = unit_length(needle);
    if (start < 0 || start >= nSize || n == 0 || n > nSize || !needle) return -1;
    if (end < 0 || end > nSize) end = nSize;
    int32_t pos = start;
    while (pos < end) {
        const U* hit = unit_find(pData + pos, needle[0], size_t(end - pos));
        if (!hit) return -1;
        pos = int32_t(hit - pData);
        if (int64_t(pos) + n > end) return -1;
        if (n == 1 || std::memcmp(pData + pos + 1, needle + 1, size_t(n - 1) * sizeof(U)) == 0)
            return pos;
        ++pos;
    }
    return -1;
}

template <class D, class U>
int32_t basic_bstring<D, U>::find_any(int32_t start, int32_t end, const U* set, U& found) const {
    if (start < 0 || start >= nSize || !set) return -1;
    if (end < 0 || end > nSize) end = nSize;
    for (int32_t i = start; i < end; ++i) {
        if (in_set(set, pData[i])) {
            found = pData[i];
            return i;
        }
    }
    return -1;
}

template <class D, class U>
int32_t basic_bstring<D, U>::rfind(U c, int32_t before) const {
    if (before < 0 || before > nSize) before = nSize;
    for (int32_t i = before - 1; i >= 0; --i)
        if (pData[i] == c) return i;
    return -1;
}

template <class D, class U>
int32_t basic_bstring<D, U>::find_line_end() const {
    if (nSize <= 0) return -1;
    for (int32_t i = 0; i < nSize - 1; ++i) {
        if (pData[i] == U('\r')) return i;
        if (pData[i + 1] == U('\n')) return i;
    }
    return nSize - 1;
}

template <class D, class U>
int32_t basic_bstring<D, U>::rfind_line_end(int32_t from) const {
    if (nSize <= 0) return -1;
    if (from < 0 || from >= nSize) from = nSize - 1;
    int32_t p = from;
    for (; p > 0; --p) {
        if (pData[p] == U('\n') || pData[p - 1] == U('\r')) break;
    }
    return p - 1;
}

// ---- changing in place ------------------------------------------------------

template <class D, class U>
void basic_bstring<D, U>::keep_window(int32_t front, int32_t size) {
    if (size <= 0) {
        nSize = 0;
        return;
    }
    if (is_view()) {
        pData += front;
    } else if (front > 0) {
        std::memmove(pData, pData + front, size_t(size) * sizeof(U));
    }
    nSize = size;
}

template <class D, class U>
D& basic_bstring<D, U>::replace_char(U a, U b) {
    if (is_view()) reserve(nSize);  // views are read-only: edit a copy
    for (int32_t i = 0; i < nSize; ++i)
        if (pData[i] == a) pData[i] = b;
    return self();
}

template <class D, class U>
D& basic_bstring<D, U>::replace(const U* old_text, const U* new_text) {
    if (!pData) return self();
    D result;
    replace_into(result, old_text, new_text, false);
    free_buffer();
    pData = result.pData;
    nSize = result.nSize;
    nCapacity = result.nCapacity;
    result.pData = nullptr;
    result.nSize = result.nCapacity = 0;
    return self();
}

template <class D, class U>
D& basic_bstring<D, U>::replace_into(basic_bstring& dest, const U* old_text, const U* new_text,
                                     bool keep) const {
    auto& me = const_cast<basic_bstring&>(*this);
    if (!pData || &dest == this) return me.self();
    if (!keep) dest.nSize = 0;
    int32_t old_length = unit_length(old_text);
    int32_t new_length = unit_length(new_text);
    int64_t want = int64_t(dest.nSize) + (new_length > old_length ? 2 * int64_t(nSize) : nSize);
    if (want < INT32_MAX) dest.reserve(int32_t(want));
    int32_t start = 0;
    while (start < nSize) {
        int32_t hit = find(start, old_text, old_length);
        if (hit < 0) break;
        dest.append(pData + start, hit - start);
        dest.append(new_text, new_length);
        start = hit + old_length;
    }
    if (start < nSize) dest.append(pData + start, nSize - start);
    return me.self();
}

template <class D, class U>
D& basic_bstring<D, U>::trim() {
    int32_t a = 0, b = nSize;
    while (a < b && is_blank(pData[a])) ++a;
    while (b > a && is_blank(pData[b - 1])) --b;
    keep_window(a, b - a);
    return self();
}

template <class D, class U>
D& basic_bstring<D, U>::trim_all() {
    int32_t a = 0, b = nSize;
    while (a < b && is_space(pData[a])) ++a;
    while (b > a && is_space(pData[b - 1])) --b;
    keep_window(a, b - a);
    return self();
}

template <class D, class U>
D& basic_bstring<D, U>::strip_spaces() {
    if (nSize <= 0) return self();
    if (is_view()) reserve(nSize);
    int32_t out = 0;
    for (int32_t i = 0; i < nSize; ++i)
        if (!is_space(pData[i])) pData[out++] = pData[i];
    nSize = out;
    return self();
}

// The back scan tests the first remaining unit for CR and LF rather than the
// last, so a trailing line break stops it and survives, and then the quote
// test fails on it too. Callers depend on that.
template <class D, class U>
D& basic_bstring<D, U>::trim_unquote() {
    int32_t a = 0, b = nSize;
    while (a < b && (is_blank(pData[a]) || pData[a] == U('\r') || pData[a] == U('\n'))) ++a;
    while (b > a && (is_blank(pData[b - 1]) || pData[a] == U('\r') || pData[a] == U('\n'))) --b;
    if (b - a >= 2 && pData[a] == U('"') && pData[b - 1] == U('"')) {
        ++a;
        --b;
    }
    keep_window(a, b - a);
    return self();
}

template <class D, class U>
D& basic_bstring<D, U>::unquote() {
    if (nSize < 2) return self();
    U first = pData[0], last = pData[nSize - 1];
    if ((first == U('"') && last == U('"')) || (first == U('\'') && last == U('\'')))
        keep_window(1, nSize - 2);
    return self();
}

template <class D, class U>
D& basic_bstring<D, U>::strip_pairs(const U* pairs, bool repeat) {
    int32_t pairs_length = unit_length(pairs);
    if (pairs_length % 2 != 0 || nSize <= 0) return self();
    int32_t p = 0, q = nSize - 1;
    bool stripped = false;
    while (p < q && (!stripped || repeat)) {
        int32_t i = index_of(pairs, pData[p]);
        if (i < 0 || i % 2 != 0 || pData[q] != pairs[i + 1]) break;
        ++p;
        --q;
        stripped = true;
    }
    if (stripped) keep_window(p, q >= p ? q - p + 1 : 0);
    return self();
}

template <class D, class U>
bool basic_bstring<D, U>::is_enclosed(const U* pairs) const {
    int32_t pairs_length = unit_length(pairs);
    if (nSize < 2 || pairs_length % 2 != 0) return false;
    for (int32_t i = 0; i < pairs_length; i += 2)
        if (pData[0] == pairs[i] && pData[nSize - 1] == pairs[i + 1]) return true;
    return false;
}

template <class D, class U>
D& basic_bstring<D, U>::to_lower() {
    if (is_view()) reserve(nSize);
    for (int32_t i = 0; i < nSize; ++i) pData[i] = U(fold(pData[i]));
    return self();
}

template <class D, class U>
D& basic_bstring<D, U>::to_upper() {
    if (is_view()) reserve(nSize);
    for (int32_t i = 0; i < nSize; ++i) {
        if constexpr (sizeof(U) == 1) {
            if (pData[i] >= 'a' && pData[i] <= 'z') pData[i] = U(pData[i] - 32);
        } else {
            pData[i] = upper_unit(pData[i]);
        }
    }
    return self();
}

// ---- comparing -------------------------------------------------------------

template <class D, class U>
bool basic_bstring<D, U>::equals(const U* text) const {
    int32_t n = unit_length(text);
    int32_t size = nSize > 0 ? nSize : 0;
    if (n != size) return false;
    if (n == 0) return true;
    return compare_nocase(pData, text, n) == 0;
}

template <class D, class U>
bool basic_bstring<D, U>::equals(const basic_bstring& other) const {
    int32_t a = nSize > 0 ? nSize : 0, b = other.nSize > 0 ? other.nSize : 0;
    if (a != b) return false;
    if (a == 0) return true;
    return compare_nocase(pData, other.pData, a) == 0;
}

template <class D, class U>
bool basic_bstring<D, U>::equals_prefix(const U* s, int32_t n) const {
    int32_t size = nSize > 0 ? nSize : 0;
    if (n > size) n = size;
    int32_t s_length = unit_length(s);
    if (s_length < n) return false;
    if (size == 0) return s_length == 0;
    if (n <= 0) return true;
    return compare_exact(pData, s, n) == 0;
}

template <class D, class U>
bool basic_bstring<D, U>::equals_at(int32_t pos, int32_t n, const basic_bstring& other) const {
    if (pos < 0 || n < 0 || int64_t(pos) + n > nSize || other.nSize < n) return false;
    if (nSize > 0 && other.nSize > 0) return compare_nocase(pData + pos, other.pData, n) == 0;
    if (nSize > 0) return false;
    return other.nSize <= 0 && n == 0;
}

template <class D, class U>
bool basic_bstring<D, U>::equals_at(int32_t pos, int32_t n, const U* s, int32_t slen) const {
    if (!s) slen = 0;
    if (pos < 0 || n < 0 || int64_t(pos) + n > nSize || slen < n) return false;
    if (nSize > 0 && slen > 0) return compare_nocase(pData + pos, s, n) == 0;
    if (nSize > 0) return false;
    return slen <= 0 && n == 0;
}

template <class D, class U>
bool basic_bstring<D, U>::equals_at(int32_t pos, int32_t n, const U* s) const {
    return equals_at(pos, n, s, unit_length(s));
}

template <class D, class U>
bool basic_bstring<D, U>::equals_at(int32_t pos, const U* s) const {
    int32_t n = unit_length(s);
    return equals_at(pos, n, s, n);
}

template <class D, class U>
int basic_bstring<D, U>::compare(const basic_bstring& other) const {
    int32_t a = nSize > 0 ? nSize : 0, b = other.nSize > 0 ? other.nSize : 0;
    if (a < b) return -1;
    if (a > b) return 1;
    if (a == 0) return 0;
    return compare_nocase(pData, other.pData, a);
}

template <class D, class U>
int32_t basic_bstring<D, U>::to_int() const {
    if (nSize <= 0) return 0;
    return parse_number(pData, nSize, 10);
}

template <class D, class U>
int32_t basic_bstring<D, U>::to_hex() const {
    if (nSize <= 0) return 0;
    return parse_number(pData, nSize, 16);
}

// ---- splitting ----------------------------------------------------------------

template <class D, class U>
void basic_bstring<D, U>::push_piece(std::vector<D>& out, int32_t start, int32_t end) const {
    out.emplace_back();
    if (end > start) out.back().append(pData + start, end - start);
}

template <class D, class U>
D& basic_bstring<D, U>::join(const std::vector<D>& parts, const U* delimiter) {
    nSize = 0;
    if (parts.empty()) return self();
    int64_t estimate = int64_t(parts.size()) * (parts[0].nSize > 0 ? parts[0].nSize : 0) * 2;
    if (estimate < INT32_MAX) reserve(int32_t(estimate));
    int32_t delimiter_length = unit_length(delimiter);
    append(parts[0]);
    for (size_t i = 1; i < parts.size(); ++i) {
        append(delimiter, delimiter_length);
        append(parts[i]);
    }
    return self();
}

template <class D, class U>
std::vector<D>& basic_bstring<D, U>::split(std::vector<D>& out, U c, bool all) const {
    out.clear();
    int32_t start = 0;
    while (start < nSize) {
        int32_t hit = find(start, c);
        if (hit < 0) break;
        if (hit > start) {
            push_piece(out, start, hit);
            if (!all) {
                start = hit + 1;
                break;
            }
        }
        start = hit + 1;
    }
    if (start < nSize) push_piece(out, start, nSize);
    return out;
}

template <class D, class U>
std::vector<D>& basic_bstring<D, U>::split_str(std::vector<D>& out, const U* delim, bool all,
                                               bool keep_empty) const {
    out.clear();
    if (nSize <= 0) return out;
    int32_t delim_length = unit_length(delim);
    int32_t start = 0;
    bool cut = false;
    while (start < nSize && delim_length > 0 && !(cut && !all)) {
        int32_t hit = find(start, delim, delim_length);
        if (hit < 0) break;
        if (hit > start || keep_empty) {
            push_piece(out, start, hit);
            cut = true;
        }
        start = hit + delim_length;
    }
    if (start < nSize || keep_empty) push_piece(out, start, nSize);
    return out;
}

template <class D, class U>
std::vector<D>& basic_bstring<D, U>::split_unquoted(std::vector<D>& out, U c) const {
    out.clear();
    int32_t token = 0, scan = 0;
    const U set[2] = {c, U(0)};
    while (scan < nSize) {
        U found;
        int32_t p = c ? find_any(scan, nSize, set, found) : -1;
        if (p < 0) p = nSize;
        int32_t quotes = 0;
        for (int32_t i = token; i < p; ++i)
            if (pData[i] == U('"')) ++quotes;
        if (quotes % 2 == 0) {
            if (p > token) push_piece(out, token, p);
            token = p + 1;
        }
        scan = p + 1;
    }
    return out;
}

template <class D, class U>
std::vector<D>& basic_bstring<D, U>::split_list_impl(std::vector<D>& out, const U* delims,
                                                     const U* pairs, bool keep_empty,
                                                     bool address_mode, bool angle_test) const {
    out.clear();
    int32_t pairs_length = unit_length(pairs);
    if (nSize <= 0 || !pairs || pairs_length % 2 != 0 || unit_length(delims) == 0) return out;
    int32_t token = 0;
    U closing = 0;
    for (int32_t i = 0; i < nSize; ++i) {
        U c = pData[i];
        if (closing) {
            if (c == closing) closing = 0;
            continue;
        }
        int32_t pair_index = index_of(pairs, c);
        if (pair_index >= 0) {
            if (pair_index % 2 == 0) closing = pairs[pair_index + 1];
            continue;
        }
        if (!in_set(delims, c)) continue;
        if (i == token && !keep_empty) {
            token = i + 1;
            continue;
        }
        if (address_mode) {
            bool complete = unit_find(pData + token, U('@'), size_t(i - token)) != nullptr;
            if (!complete && angle_test) {
                const U* open = unit_find(pData + token, U('<'), size_t(i - token));
                complete = open && unit_find(open + 1, U('>'), size_t(pData + i - open - 1));
            }
            if (!complete) continue;
        }
        push_piece(out, token, i);
        token = i + 1;
    }
    if (token < nSize || keep_empty) push_piece(out, token, nSize);
    return out;
}

// When the end is reached inside an unterminated skip pair, the scan goes
// back to the last skip-pair opener and runs on from the unit after it, so
// brackets hidden behind a stray quote still count. Callers rely on that
// rescan. Each rescan starts further on; their number is capped so nested
// hostile input cannot make the scan quadratic.
template <class D, class U>
std::vector<D>& basic_bstring<D, U>::split_blocks(std::vector<D>& out, const U* pairs,
                                                  const U* skip_pairs, bool keep_empty) const {
    out.clear();
    if (unit_length(pairs) % 2 != 0 || unit_length(skip_pairs) % 2 != 0 || nSize <= 0)
        return out;
    constexpr int kMaxRescans = 64;
    int rescans = 0;
    int32_t token = 0;
    U block_close = 0, skip_close = 0;
    int32_t back = -1;
    int32_t pos = -1;
    for (;;) {
        ++pos;
        if (pos >= nSize) {
            if (back < 0 || ++rescans > kMaxRescans) break;
            pos = back;
            back = -1;
            skip_close = 0;
            continue;
        }
        U c = pData[pos];
        if (skip_close) {
            if (c == skip_close) skip_close = 0;
            continue;
        }
        int32_t skip_index = index_of(skip_pairs, c);
        if (skip_index >= 0 && skip_index % 2 == 0) {
            skip_close = skip_pairs[skip_index + 1];
            back = pos;
            continue;
        }
        if (!block_close) {
            int32_t block_index = index_of(pairs, c);
            if (block_index >= 0 && block_index % 2 == 0) {
                block_close = pairs[block_index + 1];
                if (pos > token || keep_empty) push_piece(out, token, pos);
                token = pos;
            }
            continue;
        }
        if (c == block_close) {
            if (pos + 1 > token || keep_empty) push_piece(out, token, pos + 1);
            token = pos + 1;
            block_close = 0;
        }
    }
    if (token < nSize || keep_empty) push_piece(out, token, nSize);
    return out;
}

template <class D, class U>
std::vector<D>& basic_bstring<D, U>::split_between(std::vector<D>& out, const U* open,
                                                   const U* close) const {
    out.clear();
    int32_t open_length = unit_length(open), close_length = unit_length(close);
    int32_t pos = 0;
    while (pos < nSize) {
        int32_t a = find(pos, open, open_length);
        int32_t b = a < 0 ? -1 : find(a + open_length, close, close_length);
        if (a < 0 || b < 0) {
            push_piece(out, pos, nSize);
            break;
        }
        push_piece(out, pos, a);
        push_piece(out, a, b + close_length);
        pos = b + close_length;
    }
    return out;
}

template class basic_bstring<bstring, char>;
template class basic_bstring<wbstring, char16_t>;

// ---- bstring ---------------------------------------------------------------------

bstring& bstring::append_bstr(BSTR s) {
    int32_t units = int32_t(SysStringLen(s));
    if (units <= 0) return *this;
    int32_t count = platform::WideCharToMultiByte(0, 0, s, units, nullptr, 0);
    if (count <= 0) return *this;
    if (nSize < 0) nSize = 0;
    reserve(nSize + count);
    if (!pData) return *this;
    int32_t written = platform::WideCharToMultiByte(0, 0, s, units, pData + nSize, count);
    if (written > 0) nSize += written;
    return *this;
}

bstring& bstring::assign_bstr(BSTR s) {
    nSize = 0;
    return append_bstr(s);
}

bstring& bstring::assign_bstr_cp(BSTR s, int codepage) {
    nSize = 0;
    int32_t units = int32_t(SysStringLen(s));
    if (units <= 0) return *this;
    if (codepage < 0) codepage = 0;
    int32_t count = platform::WideCharToMultiByte(codepage, 0, s, units, nullptr, 0);
    if (count <= 0) return *this;
    reserve(count);
    if (!pData) return *this;
    int32_t written = platform::WideCharToMultiByte(codepage, 0, s, units, pData, count);
    nSize = written > 0 ? written : 0;
    return *this;
}

BSTR bstring::to_bstr(int codepage) const {
    if (codepage == 0) {
        if (!pData || nSize <= 0) return nullptr;
        codepage = 3;  // the thread's ANSI code page
    }
    return to_bstr_range(codepage, 0, nSize > 0 ? nSize : 0);
}

BSTR bstring::to_bstr_range(int codepage, int32_t start, int32_t n) const {
    bool strict = codepage == 0 || codepage == 3;
    if (codepage == 0) codepage = 3;
    if (start < 0 || start > (nSize > 0 ? nSize : 0)) start = 0;
    const char* source = pData ? pData + start : nullptr;
    int32_t available = (nSize > 0 ? nSize : 0) - start;
    bool drop_terminator = false;
    if (n < 0) {
        // Through the NUL, which is then dropped from the length.
        n = 0;
        while (n < available && source[n]) ++n;
        drop_terminator = n < available;
        if (drop_terminator) ++n;
    }
    if (n > available) n = available;
    if (!source || n <= 0) return strict ? nullptr : SysAllocStringLen(nullptr, 0);
    int32_t count = platform::MultiByteToWideChar(codepage, 0, source, n, nullptr, 0);
    if (count <= 0) return strict ? nullptr : SysAllocStringLen(nullptr, 0);
    BSTR result = SysAllocStringLen(nullptr, uint32_t(count));
    if (!result) return nullptr;
    int32_t written = platform::MultiByteToWideChar(codepage, 0, source, n, result, count);
    if (strict && written != count) {
        SysFreeString(result);
        return nullptr;
    }
    if (drop_terminator && written > 0) {
        BSTR shorter = SysAllocStringLen(result, uint32_t(written - 1));
        SysFreeString(result);
        return shorter;
    }
    return result;
}

BSTR bstring::to_bytes_bstr() const {
    return SysAllocStringByteLen(pData, uint32_t(nSize > 0 ? nSize : 0));
}

std::vector<bstring>& bstring::split_list(std::vector<bstring>& out, const char* delims,
                                          const char* pairs, bool keep_empty,
                                          bool address_mode) const {
    return split_list_impl(out, delims, pairs, keep_empty, address_mode, true);
}

// ---- wbstring ------------------------------------------------------------------

wbstring& wbstring::append_bstr(BSTR s) {
    return append(s, int32_t(SysStringLen(s)));
}

wbstring& wbstring::assign_bstr(BSTR s) {
    nSize = 0;
    return append_bstr(s);
}

BSTR wbstring::to_bstr() const {
    return SysAllocStringLen(pData, uint32_t(nSize > 0 ? nSize : 0));
}

std::vector<wbstring>& wbstring::split_list(std::vector<wbstring>& out, const char16_t* delims,
                                            const char16_t* pairs, bool keep_empty,
                                            bool address_mode) const {
    return split_list_impl(out, delims, pairs, keep_empty, address_mode, false);
}

wbstring& wbstring::import_bstring(const bstring& src, int codepage) {
    nSize = 0;
    if (src.nSize > 0) {
        if (codepage < 0) codepage = 0;
        TraceBegin();
        TraceAppend("import_bstring, nSrcCP=");
        TraceAppendInt(codepage);
        TraceAppend(", bs.nSize=");
        TraceAppendInt(src.nSize);
        Trace();
        int32_t count =
            platform::MultiByteToWideChar(codepage, 0, src.pData, src.nSize, nullptr, 0);
        uint32_t error = platform::GetLastError();
        TraceBegin();
        TraceAppend("import_bstring for CP=");
        TraceAppendInt(codepage);
        TraceAppend(", nConvertedLen=");
        TraceAppendInt(count);
        Trace();
        if (count < 1) {
            TraceBegin();
            TraceAppend("import_bstring, GetLastError=");
            TraceAppendInt(error);
            Trace();
            count = platform::MultiByteToWideChar(0, 0, src.pData, src.nSize, nullptr, 0);
            TraceBegin();
            TraceAppend("import_bstring for CP=0, nConvertedLen=");
            TraceAppendInt(count);
            Trace();
            reserve(count);
            if (pData && count > 0) {
                int32_t written =
                    platform::MultiByteToWideChar(0, 0, src.pData, src.nSize, pData, count);
                nSize = written > 0 ? written : 0;
            }
            Trace("import_bstring MultiByteToWideChar done");
        } else {
            reserve(count);
            if (pData) {
                int32_t written =
                    platform::MultiByteToWideChar(codepage, 0, src.pData, src.nSize, pData, count);
                nSize = written > 0 ? written : 0;
            }
        }
    }
    Trace("import_bstring done");
    return *this;
}

wbstring& wbstring::append_import(const bstring& src, int codepage) {
    return append_import_range(src, 0, -1, codepage);
}

wbstring& wbstring::append_import_range(const bstring& src, int32_t start, int32_t end,
                                        int codepage) {
    if (src.nSize < 1) return *this;
    if (end < 0 || end > src.nSize) end = src.nSize;
    if (start < 0) start = 0;
    if (start >= end) return *this;
    if (codepage < 0) codepage = 0;
    const char* source = src.pData + start;
    int32_t n = end - start;
    int32_t count = platform::MultiByteToWideChar(codepage, 0, source, n, nullptr, 0);
    if (count < 1) {
        codepage = 0;
        count = platform::MultiByteToWideChar(0, 0, source, n, nullptr, 0);
        if (count < 1) return *this;
    }
    if (nSize < 0) nSize = 0;
    reserve(nSize + count);
    if (!pData) return *this;
    int32_t written = platform::MultiByteToWideChar(codepage, 0, source, n, pData + nSize, count);
    if (written > 0) nSize += written;
    return *this;
}

const wbstring& wbstring::export_bstring(bstring& dest, int codepage) {
    dest.nSize = 0;
    if (nSize < 1) return *this;
    if (codepage < 0) codepage = 0;
    int32_t count = platform::WideCharToMultiByte(codepage, 0, pData, nSize, nullptr, 0);
    if (count <= 0) return *this;
    dest.reserve(count);
    // The wide side was reserved to the byte count as well; harmless, and
    // kept so capacities match what callers have always seen.
    reserve(count);
    if (!dest.pData) return *this;
    int32_t written = platform::WideCharToMultiByte(codepage, 0, pData, nSize, dest.pData, count);
    dest.nSize = written > 0 ? written : 0;
    return *this;
}

}  // namespace kv
