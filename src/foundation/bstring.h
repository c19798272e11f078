// bstring and wbstring: the counted buffers that carry every piece of text and
// binary data. They are not general string classes:
//
// - A string carries its length and may hold any unit, NUL included; a
//   terminator is there only after null_terminate().
// - A string whose nCapacity is -1 is a view into somebody else's buffer. It
//   frees nothing, and copying it yields another view of the same bytes. A
//   view is valid only while its owner is unchanged, and it is read-only:
//   growing a view first makes an owned copy, and in-place edits of a view
//   (trim and friends) narrow the window instead of writing.
// - Allocation is exact: reserve(n) allocates n + 1 units, never more.
//   Callers that append repeatedly reserve first.
// - equals() and compare() ignore ASCII case (wide case for wbstring); find()
//   does not. compare() orders by length first.
//
// Positions and lengths are signed 32-bit unit counts; -1 means "not found".
// Mutators return the string so calls chain. Fields are public on purpose:
// users empty a string for reuse with nSize = 0, set nSize after writing into
// the buffer themselves, and build views by hand.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include "automation/bstr.h"

namespace kv {

class bstring;
class wbstring;

template <class Derived, class Unit>
class basic_bstring {
public:
    Unit* pData = nullptr;
    int32_t nSize = 0;
    int32_t nCapacity = 0;

    basic_bstring() = default;
    explicit basic_bstring(int32_t capacity);      // empty, with room for capacity units
    basic_bstring(const Unit* text);               // C string; null gives an empty string
    basic_bstring(const Unit* data, int32_t n);    // n units (n < 0: C-string length)
    basic_bstring(const basic_bstring& other);     // deep copy of an owned string, a view of a view
    basic_bstring(basic_bstring&& other) noexcept;
    basic_bstring& operator=(const basic_bstring& other);
    basic_bstring& operator=(basic_bstring&& other) noexcept;
    virtual ~basic_bstring();

    bool is_view() const { return static_cast<uint32_t>(nCapacity) >= 0xFFFFFFFFu; }

    // Storage.
    Derived& release();
    Derived& reserve(int32_t n);
    Derived& reserve_keep(int32_t n, int32_t keep);
    Derived& borrow(const basic_bstring& other);
    Derived& borrow(const Unit* data, int32_t n);
    Derived& clear();
    // Hands the contents to dest (an owned copy when this is a view); this
    // string is left empty with no buffer.
    void give_to(basic_bstring& dest);
    Derived& null_terminate();
    Derived& sync_size();

    // Assigning and appending. append() with n < 0 appends a C string.
    Derived& assign(const Unit* text);
    Derived& assign(const Unit* data, int32_t n);
    Derived& assign(const basic_bstring& other);
    Derived& append(const Unit* data, int32_t n = -1);
    Derived& append(const basic_bstring& other);
    Derived& operator+=(const Unit* text) { return append(text, -1); }
    Derived& operator+=(const basic_bstring& other) { return append(other); }
    Derived& operator+=(Unit unit);
    Derived& append_from(const basic_bstring& src, int32_t offset, int32_t count = -1);
    Derived& append_range(const basic_bstring& src, int32_t start, int32_t end = -1);
    // Text of value: radix 10 signed, other radices as the unsigned 32-bit
    // pattern, lower-case digits.
    Derived& append_int(int32_t value, int radix = 10);

    // Searching; exact about case.
    int32_t find(Unit c) const { return find(0, c); }
    int32_t find(int32_t start, Unit c) const;
    int32_t find_count(int32_t start, Unit c, int32_t count) const;
    int32_t find_range(int32_t start, int32_t end, Unit c) const;
    int32_t find(const Unit* needle) const { return find_range(0, -1, needle, -1); }
    int32_t find(const Unit* needle, int32_t n) const { return find_range(0, -1, needle, n); }
    int32_t find(int32_t start, const Unit* needle) const { return find_range(start, -1, needle, -1); }
    int32_t find(int32_t start, const Unit* needle, int32_t n) const {
        return find_range(start, -1, needle, n);
    }
    int32_t find(const basic_bstring& needle) const {
        return find_range(0, -1, needle.pData, needle.nSize);
    }
    int32_t find(int32_t start, const basic_bstring& needle) const {
        return find_range(start, -1, needle.pData, needle.nSize);
    }
    int32_t find_range(int32_t start, int32_t end, const Unit* needle) const {
        return find_range(start, end, needle, -1);
    }
    // The one needle search: n < 0 means the C-string length of needle.
    int32_t find_range(int32_t start, int32_t end, const Unit* needle, int32_t n) const;
    // First position in [start, end) whose unit is in the NUL-terminated set;
    // the unit goes to found. end < 0 means through the end.
    int32_t find_any(int32_t start, int32_t end, const Unit* set, Unit& found) const;
    int32_t rfind(Unit c, int32_t before = -1) const;
    // Position of the first CR, or of the unit before the first LF, or of the
    // last unit when there is no line end; -1 only for an empty string.
    int32_t find_line_end() const;
    int32_t rfind_line_end(int32_t from = -1) const;

    // Changing in place.
    Derived& replace_char(Unit a, Unit b);
    Derived& replace(const Unit* old_text, const Unit* new_text);
    Derived& replace_into(basic_bstring& dest, const Unit* old_text, const Unit* new_text,
                          bool keep = false) const;
    Derived& trim();
    Derived& trim_all();
    Derived& strip_spaces();
    Derived& trim_unquote();
    Derived& unquote();
    Derived& strip_pairs(const Unit* pairs, bool repeat = false);
    bool is_enclosed(const Unit* pairs) const;
    Derived& to_lower();
    Derived& to_upper();

    // Comparing: equality and order ignore case; equals_prefix does not.
    bool equals(const Unit* text) const;
    bool equals(const basic_bstring& other) const;
    bool equals_prefix(const Unit* s, int32_t n) const;
    bool equals_at(int32_t pos, int32_t n, const basic_bstring& other) const;
    bool equals_at(int32_t pos, int32_t n, const Unit* s, int32_t slen) const;
    bool equals_at(int32_t pos, int32_t n, const Unit* s) const;
    bool equals_at(int32_t pos, const Unit* s) const;
    // -1 if shorter, 1 if longer, else the case-blind order of the text.
    int compare(const basic_bstring& other) const;

    // Conversion out.
    Unit last_unit() const { return nSize < 1 ? Unit(0) : pData[nSize - 1]; }
    int32_t to_int() const;  // atoi rules, stops at a NUL, clamps to 32 bits
    int32_t to_hex() const;  // strtol base 16 rules, clamps to 32 bits

    // Splitting. Each form clears out, fills it with owned pieces and returns it.
    Derived& join(const std::vector<Derived>& parts, const Unit* delimiter);
    std::vector<Derived>& split(std::vector<Derived>& out, Unit c, bool all = true) const;
    std::vector<Derived>& split_str(std::vector<Derived>& out, const Unit* delim, bool all = true,
                                    bool keep_empty = false) const;
    // Cuts at c outside double quotes (quotes counted by parity).
    std::vector<Derived>& split_unquoted(std::vector<Derived>& out, Unit c) const;
    // Bracketed blocks of pairs become pieces of their own, brackets included;
    // nothing counts inside skip_pairs.
    std::vector<Derived>& split_blocks(std::vector<Derived>& out, const Unit* pairs,
                                       const Unit* skip_pairs, bool keep_empty = false) const;
    // Alternates plain text (even indices) and open...close blocks (odd).
    std::vector<Derived>& split_between(std::vector<Derived>& out, const Unit* open,
                                        const Unit* close) const;

protected:
    Derived& self() { return static_cast<Derived&>(*this); }
    const Derived& self() const { return static_cast<const Derived&>(*this); }
    void free_buffer();
    void push_piece(std::vector<Derived>& out, int32_t start, int32_t end) const;
    // split_list of both classes; angle_test adds the "<...>" completeness
    // test of the byte version's address mode.
    std::vector<Derived>& split_list_impl(std::vector<Derived>& out, const Unit* delims,
                                          const Unit* pairs, bool keep_empty, bool address_mode,
                                          bool angle_test) const;
    // Drops `front` units at the start and keeps `size` units.
    void keep_window(int32_t front, int32_t size);
};

class bstring : public basic_bstring<bstring, char> {
public:
    using basic_bstring::basic_bstring;
    bstring() = default;
    bstring(const bstring&) = default;
    bstring(bstring&&) noexcept = default;
    bstring& operator=(const bstring&) = default;
    bstring& operator=(bstring&&) noexcept = default;

    // Automation strings in: converted with the system ANSI code page, or the
    // one given.
    bstring& append_bstr(BSTR s);
    bstring& assign_bstr(BSTR s);
    bstring& assign_bstr_cp(BSTR s, int codepage);
    bstring& assign_bstr_utf8(BSTR s) { return assign_bstr_cp(s, 65001); }

    // Automation strings out; the caller frees the BSTR. Code page 0 gives
    // null for an empty string; others give an empty BSTR.
    BSTR to_bstr(int codepage = 0) const;
    BSTR to_bstr_range(int codepage, int32_t start, int32_t n) const;
    BSTR to_bytes_bstr() const;

    // Cuts at any unit of delims outside the open/close pairs. In address
    // mode a piece is complete only when it holds an '@' or a '<' with a '>'
    // after it; otherwise the delimiter is part of the piece (a display name
    // with a bare comma).
    std::vector<bstring>& split_list(std::vector<bstring>& out, const char* delims,
                                     const char* pairs, bool keep_empty = false,
                                     bool address_mode = false) const;
};

class wbstring : public basic_bstring<wbstring, char16_t> {
public:
    using basic_bstring::basic_bstring;
    wbstring() = default;
    wbstring(const wbstring&) = default;
    wbstring(wbstring&&) noexcept = default;
    wbstring& operator=(const wbstring&) = default;
    wbstring& operator=(wbstring&&) noexcept = default;

    // BSTR units are copied unchanged.
    wbstring& append_bstr(BSTR s);
    wbstring& assign_bstr(BSTR s);
    // Always a BSTR, empty (not null) for an empty string.
    BSTR to_bstr() const;

    // The gate through which message text becomes wide text: converts src
    // from the code page, and falls back to the system ANSI code page when
    // that code page converts nothing. Never fails.
    wbstring& import_bstring(const bstring& src, int codepage);
    wbstring& append_import(const bstring& src, int codepage);
    // end 0xFFFFFFFF (-1) means through the end of src.
    wbstring& append_import_range(const bstring& src, int32_t start, int32_t end, int codepage);
    // dest is emptied and receives this text in the code page.
    const wbstring& export_bstring(bstring& dest, int codepage);

    // As the byte version, but address mode knows only the '@' test.
    std::vector<wbstring>& split_list(std::vector<wbstring>& out, const char16_t* delims,
                                      const char16_t* pairs, bool keep_empty = false,
                                      bool address_mode = false) const;
};

// A pair of 32-bit integers ordered by the second member.
struct ordered_int {
    int32_t first = 0;
    int32_t second = 0;
    bool operator<(const ordered_int& other) const { return second < other.second; }
};

using bstring_vector = std::vector<bstring>;
using wbstring_vector = std::vector<wbstring>;
using bstring_map = std::map<bstring, bstring>;
using bstring_wmap = std::map<bstring, wbstring>;

}  // namespace kv

template <>
struct std::less<kv::bstring> {
    bool operator()(const kv::bstring& a, const kv::bstring& b) const { return a.compare(b) < 0; }
};
template <>
struct std::less<kv::wbstring> {
    bool operator()(const kv::wbstring& a, const kv::wbstring& b) const {
        return a.compare(b) < 0;
    }
};
