#include "foundation/bstring.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "../support/text.h"

namespace kv {
namespace {

using kv::testing::Str;

std::vector<std::string> Strs(const std::vector<bstring>& v) {
    std::vector<std::string> out;
    for (const auto& s : v) out.push_back(Str(s));
    return out;
}

bstring View(const char* text) {
    bstring v;
    v.borrow(text, int32_t(std::strlen(text)));
    return v;
}

// ---- ownership and storage ---------------------------------------------------

TEST(BstringStorage, DefaultStateIsEmptyAndAcceptsEveryCall) {
    bstring s;
    EXPECT_EQ(s.pData, nullptr);
    EXPECT_EQ(s.nSize, 0);
    EXPECT_EQ(s.nCapacity, 0);
    s.null_terminate().append("", 0).trim();
    EXPECT_EQ(s.pData, nullptr);
    EXPECT_EQ(s.find('a'), -1);
    EXPECT_EQ(s.find_line_end(), -1);
    EXPECT_TRUE(s.equals(""));
    EXPECT_TRUE(s.equals(nullptr));
}

TEST(BstringStorage, CopyOfViewIsViewAndFreesNothing) {
    bstring owner("hello world");
    char* bytes = owner.pData;
    {
        bstring view;
        view.borrow(owner);
        bstring copy(view);
        std::vector<bstring> in_vector{copy};
        EXPECT_EQ(copy.pData, bytes);
        EXPECT_EQ(copy.nCapacity, -1);
        EXPECT_EQ(in_vector[0].pData, bytes);
        EXPECT_TRUE(in_vector[0].is_view());
    }
    EXPECT_EQ(Str(owner), "hello world");  // still valid: ASan would catch a free
}

TEST(BstringStorage, CopyOfOwnedIsExactDeepCopy) {
    bstring a(20);
    a.append("abc");
    bstring b(a);
    EXPECT_NE(a.pData, b.pData);
    EXPECT_EQ(b.nCapacity, 3);
    EXPECT_EQ(Str(b), "abc");
}

TEST(BstringStorage, GiveToFromViewMakesOwnedCopyAndEmptiesView) {
    bstring owner("payload");
    bstring view;
    view.borrow(owner);
    bstring dest("old");
    view.give_to(dest);
    EXPECT_EQ(Str(dest), "payload");
    EXPECT_NE(dest.pData, owner.pData);
    EXPECT_FALSE(dest.is_view());
    EXPECT_EQ(view.pData, nullptr);
    EXPECT_EQ(view.nSize, 0);
    EXPECT_EQ(view.nCapacity, 0);
}

TEST(BstringStorage, GiveToFromOwnedMovesBuffer) {
    bstring a("xyz");
    char* bytes = a.pData;
    bstring dest;
    a.give_to(dest);
    EXPECT_EQ(dest.pData, bytes);
    EXPECT_EQ(a.pData, nullptr);
}

TEST(BstringStorage, ReserveIsExactAndKeepsContents) {
    bstring s("ab");
    s.reserve(10);
    EXPECT_EQ(s.nCapacity, 10);
    EXPECT_EQ(Str(s), "ab");
    s.reserve(5);  // smaller: nothing happens
    EXPECT_EQ(s.nCapacity, 10);
    s.reserve_keep(20, 1);
    EXPECT_EQ(s.nCapacity, 20);
    EXPECT_EQ(s.pData[0], 'a');
}

TEST(BstringStorage, GrowingViewCopiesAndLeavesOwnerIntact) {
    bstring owner("abcdef");
    bstring view;
    view.borrow(owner.pData, 3);
    view.append("XY");
    EXPECT_EQ(Str(view), "abcXY");
    EXPECT_FALSE(view.is_view());
    EXPECT_EQ(Str(owner), "abcdef");
}

TEST(BstringStorage, NulBytesSurviveAppendAssignCopy) {
    const char raw[] = {'a', 0, 'b', 0};
    bstring s(raw, 4);
    EXPECT_EQ(s.nSize, 4);
    bstring t;
    t.assign(s).append(s);
    EXPECT_EQ(t.nSize, 8);
    bstring u(t);
    EXPECT_EQ(u.nSize, 8);
    EXPECT_EQ(std::string(u.pData, 8), std::string(raw, 4) + std::string(raw, 4));
    // sync_size and to_int stop at the NUL.
    u.sync_size();
    EXPECT_EQ(u.nSize, 1);
    bstring n("42\0" "99", 5);
    EXPECT_EQ(n.to_int(), 42);
}

TEST(BstringStorage, AppendFromItselfSurvivesReallocation) {
    bstring s("abc");
    for (int i = 0; i < 5; ++i) s.append(s.pData, s.nSize);
    EXPECT_EQ(s.nSize, 96);
    EXPECT_EQ(std::string(s.pData, 6), "abcabc");
    bstring t("hello");
    t.assign(t.pData + 1, 3);
    EXPECT_EQ(Str(t), "ell");
}

TEST(BstringStorage, NegativeAppendLengthMeansCString) {
    bstring s;
    s.append("four", -1).append(nullptr, -1);
    EXPECT_EQ(Str(s), "four");
}

struct IntCase {
    int32_t value;
    int radix;
    const char* text;
};

TEST(BstringAppendInt, RadixRules) {
    const IntCase cases[] = {
        {0, 10, "0"},           {-17, 10, "-17"},        {2147483647, 10, "2147483647"},
        {INT32_MIN, 10, "-2147483648"}, {255, 16, "ff"},  {-1, 16, "ffffffff"},
        {8, 8, "10"},
    };
    for (const auto& c : cases) {
        bstring s("x=");
        s.append_int(c.value, c.radix);
        EXPECT_EQ(Str(s), std::string("x=") + c.text) << c.value << " radix " << c.radix;
    }
    // Radix 2 of a large pattern does not fit the guaranteed room: nothing is
    // appended rather than overflowing.
    bstring s;
    s.append_int(-1, 2);
    EXPECT_EQ(s.nSize, 0);
}

// ---- searching ---------------------------------------------------------------

TEST(BstringFind, NeedleRules) {
    bstring s("abcabc");
    struct Case {
        int32_t start;
        const char* needle;
        int32_t expected;
    } cases[] = {
        {0, "bc", 1},    {2, "bc", 4},    {5, "bc", -1},  {0, "abcabcd", -1},
        {0, "", -1},     {6, "a", -1},    {-1, "a", -1},  {0, "cab", 2},
        {0, "ABC", -1},  {3, "abc", 3},
    };
    for (const auto& c : cases)
        EXPECT_EQ(s.find(c.start, c.needle), c.expected) << c.start << " " << c.needle;
    EXPECT_EQ(s.find_range(0, 4, "abc"), 0);
    EXPECT_EQ(s.find_range(1, 5, "abc"), -1);  // the match would run past the end
    EXPECT_EQ(s.find_range(1, 6, "abc"), 3);
}

TEST(BstringFind, UnitRules) {
    bstring s("a,b,c");
    EXPECT_EQ(s.find(','), 1);
    EXPECT_EQ(s.find(2, ','), 3);
    EXPECT_EQ(s.find(5, ','), -1);
    EXPECT_EQ(s.find_count(0, 'c', 3), -1);
    EXPECT_EQ(s.find_count(0, 'c', 4), -1);
    EXPECT_EQ(s.find_count(2, 'c', 3), 4);  // start + count reaches the end: through the end
    EXPECT_EQ(s.find_range(0, 3, 'c'), -1);
    EXPECT_EQ(s.find_range(0, -1, 'c'), 4);
    EXPECT_EQ(s.find_range(0, 99, 'c'), 4);
    EXPECT_EQ(s.rfind(','), 3);
    EXPECT_EQ(s.rfind(',', 3), 1);
    EXPECT_EQ(s.rfind('z'), -1);
    char found = 0;
    EXPECT_EQ(s.find_any(0, -1, "cb", found), 2);
    EXPECT_EQ(found, 'b');
    EXPECT_EQ(s.find_any(3, -1, "xy", found), -1);
}

TEST(BstringFind, LineEnds) {
    struct Case {
        std::string text;
        int32_t forward;
        int32_t backward;
    } cases[] = {
        {"abc", 2, -1},
        {"ab\nc", 1, 1},
        {"ab\r\n", 2, 2},
        {"", -1, -1},
        {"\r\nxy", 0, 0},
        {"ab\rcd", 2, 2},
    };
    for (const auto& c : cases) {
        bstring s(c.text.data(), int32_t(c.text.size()));
        EXPECT_EQ(s.find_line_end(), c.forward) << c.text;
        EXPECT_EQ(s.rfind_line_end(), c.backward) << c.text;
    }
}

// ---- changing in place --------------------------------------------------------

TEST(BstringEdit, TrimFamily) {
    struct Case {
        const char* op;
        std::string in;
        std::string out;
    } cases[] = {
        {"trim", " \t a b \t", "a b"},
        {"trim", " \r\na\r\n", "\r\na\r\n"},
        {"trim_all", "\f\r\n a \r\n", "a"},
        {"strip_spaces", " a b\r\nc ", "abc"},
        {"trim_unquote", "  \"a\"\r\n", "\"a\"\r\n"},
        {"trim_unquote", "  \"a\"  ", "a"},
        {"trim_unquote", "\r\n\"\"", ""},
        {"trim_unquote", "\"", "\""},
        {"unquote", "'x'", "x"},
        {"unquote", "\"x'", "\"x'"},
        {"unquote", "\"\"\"\"", "\"\""},
        {"unquote", "\"", "\""},
    };
    for (const auto& c : cases) {
        bstring s(c.in.data(), int32_t(c.in.size()));
        std::string op = c.op;
        if (op == "trim") s.trim();
        if (op == "trim_all") s.trim_all();
        if (op == "strip_spaces") s.strip_spaces();
        if (op == "trim_unquote") s.trim_unquote();
        if (op == "unquote") s.unquote();
        EXPECT_EQ(Str(s), c.out) << op << " on [" << c.in << "]";
    }
}

TEST(BstringEdit, TrimOnViewNarrowsWithoutWriting) {
    const char owner[] = "  abc  ";
    bstring v = View(owner);
    v.trim();
    EXPECT_EQ(Str(v), "abc");
    EXPECT_TRUE(v.is_view());
    EXPECT_STREQ(owner, "  abc  ");
}

TEST(BstringEdit, StripPairs) {
    struct Case {
        const char* in;
        const char* pairs;
        bool repeat;
        const char* out;
    } cases[] = {
        {"<a@b>", "<>\"\"", false, "a@b"},
        {"<<a>>", "<>", false, "<a>"},
        {"<<a>>", "<>", true, "a"},
        {"<>", "<>", false, ""},
        {"<a", "<>", false, "<a"},
        {"\"x\"", "<>\"\"", false, "x"},
        {"<a>", "<>\"", false, "<a>"},  // odd pair string: unchanged
        {">a<", "<>", false, ">a<"},    // closer at an even index is no opener
    };
    for (const auto& c : cases) {
        bstring s(c.in);
        s.strip_pairs(c.pairs, c.repeat);
        EXPECT_EQ(Str(s), c.out) << c.in << " " << c.pairs;
    }
    EXPECT_TRUE(bstring("(x)").is_enclosed("<>()"));
    EXPECT_FALSE(bstring("(x>").is_enclosed("<>()"));
    EXPECT_FALSE(bstring("(").is_enclosed("()"));
}

TEST(BstringEdit, Replace) {
    struct Case {
        const char* in;
        const char* old_text;
        const char* new_text;
        const char* out;
    } cases[] = {
        {"a.b.c", ".", "::", "a::b::c"},
        {"aaaa", "aa", "b", "bb"},
        {"....", ".", "...", "............"},  // more than twice the size
        {"abc", "", "x", "abc"},
        {"abc", "abc", "", ""},
        {"xyz", "q", "r", "xyz"},
    };
    for (const auto& c : cases) {
        bstring s(c.in);
        s.replace(c.old_text, c.new_text);
        EXPECT_EQ(Str(s), c.out) << c.in;
        bstring src(c.in), dest("keep:");
        src.replace_into(dest, c.old_text, c.new_text, true);
        EXPECT_EQ(Str(dest), std::string("keep:") + c.out);
    }
    bstring none;
    none.replace("a", "b");
    EXPECT_EQ(none.pData, nullptr);
}

TEST(BstringEdit, CaseMappingIsAsciiOnlyForBytes) {
    bstring s("AbC\xC9z");
    s.to_lower();
    EXPECT_EQ(Str(s), "abc\xC9z");
    s.to_upper();
    EXPECT_EQ(Str(s), "ABC\xC9Z");
    wbstring w(u"AÉΩ");
    w.to_lower();
    EXPECT_EQ(Str(w), u"aéω");
}

// ---- comparing ----------------------------------------------------------------

TEST(BstringCompare, CaseRules) {
    bstring s("Content-Type");
    EXPECT_TRUE(s.equals("content-type"));
    EXPECT_FALSE(s.equals("content-typ"));
    EXPECT_FALSE(s.equals_prefix("content-type", 12));
    EXPECT_TRUE(s.equals_prefix("Content-", 8));
    EXPECT_TRUE(s.equals_prefix("Content-Type-More", 99));  // n is capped at nSize
    EXPECT_FALSE(s.equals_prefix("Con", 8));
    EXPECT_EQ(s.find("content"), -1);
    EXPECT_TRUE(bstring().equals_prefix("", 3));
    EXPECT_FALSE(bstring().equals_prefix("x", 0));
}

TEST(BstringCompare, EqualsAt) {
    bstring s("Subject: hi");
    bstring empty;
    struct Case {
        int32_t pos, n;
        const char* other;
        bool expected;
    } cases[] = {
        {0, 7, "SUBJECT", true},  {9, 2, "HI", true},   {9, 3, "hi!", false},
        {-1, 1, "S", false},      {0, -1, "S", false},  {0, 4, "Su", false},
        {0, 0, "", false},  // non-empty string against an empty one
    };
    for (const auto& c : cases) {
        EXPECT_EQ(s.equals_at(c.pos, c.n, c.other), c.expected) << c.pos << "," << c.n;
        EXPECT_EQ(s.equals_at(c.pos, c.n, bstring(c.other)), c.expected) << c.pos << "," << c.n;
    }
    EXPECT_TRUE(empty.equals_at(0, 0, ""));
    EXPECT_FALSE(empty.equals_at(0, 0, "x"));
    EXPECT_TRUE(s.equals_at(9, "HI"));
}

TEST(BstringCompare, OrderIsLengthFirstThenCaseBlind) {
    const char* twos[] = {"zz", "ZZ", "a1"};
    const char* threes[] = {"aaa", "AAA", "!!!"};
    for (auto two : twos)
        for (auto three : threes) {
            EXPECT_EQ(bstring(two).compare(bstring(three)), -1);
            EXPECT_EQ(bstring(three).compare(bstring(two)), 1);
        }
    EXPECT_EQ(bstring("abc").compare(bstring("ABC")), 0);
    EXPECT_LT(bstring("abc").compare(bstring("ABD")), 0);
    EXPECT_EQ(bstring().compare(bstring("")), 0);

    std::map<bstring, int> m;
    m[bstring("charset")] = 1;
    m[bstring("CHARSET")] = 2;
    m[bstring("name")] = 3;
    m[bstring("b")] = 4;
    ASSERT_EQ(m.size(), 3u);
    std::vector<std::string> keys;
    for (auto& [k, v] : m) keys.push_back(Str(k));
    EXPECT_EQ(keys, (std::vector<std::string>{"b", "name", "charset"}));
    EXPECT_EQ(m[bstring("Charset")], 2);
}

TEST(BstringConvert, Numbers) {
    struct Case {
        const char* text;
        int32_t as_int;
        int32_t as_hex;
    } cases[] = {
        {"", 0, 0},           {"  42abc", 42, 0x42abc}, {"-7", -7, -7},
        {"0x1F", 0, 0x1f},    {"zz", 0, 0},              {"99999999999", INT32_MAX, INT32_MAX},
        {"+12", 12, 0x12},    {"-99999999999", INT32_MIN, INT32_MIN},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(bstring(c.text).to_int(), c.as_int) << c.text;
        EXPECT_EQ(bstring(c.text).to_hex(), c.as_hex) << c.text;
    }
    EXPECT_EQ(bstring("ab").last_unit(), 'b');
    EXPECT_EQ(bstring().last_unit(), 0);
}

// ---- splitting ------------------------------------------------------------------

using Pieces = std::vector<std::string>;

TEST(BstringSplit, SplitAndSplitStr) {
    bstring s(",,a,,b,");
    std::vector<bstring> out;
    EXPECT_EQ(Strs(s.split(out, ',')), (Pieces{"a", "b"}));
    EXPECT_EQ(Strs(s.split(out, ',', false)), (Pieces{"a", ",b,"}));
    EXPECT_EQ(Strs(bstring("a--b----c").split_str(out, "--")), (Pieces{"a", "b", "c"}));
    EXPECT_EQ(Strs(bstring("a--b----c").split_str(out, "--", true, true)),
              (Pieces{"a", "b", "", "c"}));
    EXPECT_EQ(Strs(bstring("--a--b").split_str(out, "--", false)), (Pieces{"a", "b"}));
    EXPECT_EQ(Strs(bstring("a--").split_str(out, "--", true, true)), (Pieces{"a", ""}));
    EXPECT_TRUE(bstring().split(out, ',').empty());
    EXPECT_TRUE(bstring().split_str(out, ",", true, true).empty());
}

TEST(BstringSplit, SplitUnquoted) {
    std::vector<bstring> out;
    struct Case {
        const char* in;
        Pieces expected;
    } cases[] = {
        {"a;\"b;c", {"a"}},
        {"a;\"b;c\";d", {"a", "\"b;c\"", "d"}},
        {";;a;", {"a"}},
        {"x=\"1;2\"", {"x=\"1;2\""}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(Strs(bstring(c.in).split_unquoted(out, ';')), c.expected) << c.in;
}

TEST(BstringSplit, SplitListAddressMode) {
    std::vector<bstring> out;
    struct Case {
        const char* in;
        bool keep_empty;
        bool address_mode;
        Pieces expected;
    } cases[] = {
        {"Doe, John <jd@x.org>, b@y.org", false, true, {"Doe, John <jd@x.org>", " b@y.org"}},
        {"Doe, John <jd@x.org>, b@y.org", false, false, {"Doe", " John <jd@x.org>", " b@y.org"}},
        {"\"Doe, J\" <j@x>,k@y", false, false, {"\"Doe, J\" <j@x>", "k@y"}},
        {"a@b,,c@d", true, false, {"a@b", "", "c@d"}},
        {"a@b,,c@d,", false, false, {"a@b", "c@d"}},
        {"Name <x>, other", false, true, {"Name <x>", " other"}},
        {"(a,b) c@d, e", false, true, {"(a,b) c@d", " e"}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(Strs(bstring(c.in).split_list(out, ",", "\"\"()<>", c.keep_empty,
                                                c.address_mode)),
                  c.expected)
            << c.in;
    // Invalid arguments give nothing.
    EXPECT_TRUE(bstring("a,b").split_list(out, ",", "<>\"").empty());
    EXPECT_TRUE(bstring("a,b").split_list(out, "", "<>").empty());
    EXPECT_TRUE(bstring("a,b").split_list(out, ",", nullptr).empty());
}

TEST(WbstringSplit, SplitListAddressModeKnowsOnlyTheAtTest) {
    std::vector<wbstring> out;
    wbstring w(u"Name <x>, other@y");
    w.split_list(out, u",", u"\"\"<>", false, true);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(Str(out[0]), u"Name <x>, other@y");
}

TEST(BstringSplit, SplitBlocks) {
    std::vector<bstring> out;
    struct Case {
        const char* in;
        const char* pairs;
        const char* skip;
        bool keep_empty;
        Pieces expected;
    } cases[] = {
        {"John <j@x.org> (work)", "<>()", "\"\"", false, {"John ", "<j@x.org>", " ", "(work)"}},
        // The quoted stretch is walked again unprotected once the end is
        // reached; the tokens of that pass follow those of the first.
        {"\"a <b>\" x", "<>()", "\"\"[]", false, {"\"a ", "<b>", "\" x"}},
        {"\"A <b>\" <c@d>", "<>", "\"\"", false, {"\"A <b>\" ", "<c@d>", "<b>", "\" ", "<c@d>"}},
        {"a (b", "<>()", "\"\"", false, {"a ", "(b"}},
        {"<a><b>", "<>", "\"\"", true, {"", "<a>", "", "<b>", ""}},
        {"plain", "<>", "\"\"", false, {"plain"}},
        // An unterminated quote: the rescan from the quote finds the block.
        {"x \"y <z>", "<>", "\"\"", false, {"x \"y ", "<z>"}},
        {"a<b", "<>()", "\"", false, {}},  // odd skip pairs
    };
    for (const auto& c : cases)
        EXPECT_EQ(Strs(bstring(c.in).split_blocks(out, c.pairs, c.skip, c.keep_empty)),
                  c.expected)
            << c.in;
}

TEST(BstringSplit, SplitBlocksNestedHostileInputStaysBounded) {
    std::string text(30000, '(');
    text += std::string(30000, ')');
    bstring s(text.data(), int32_t(text.size()));
    std::vector<bstring> out;
    s.split_blocks(out, "<>", "()", false);
    EXPECT_FALSE(out.empty());
}

TEST(BstringSplit, SplitBetween) {
    std::vector<bstring> out;
    struct Case {
        const char* in;
        Pieces expected;
    } cases[] = {
        {"=?utf-8?q?a?= b", {"", "=?utf-8?q?a?=", " b"}},
        {"x =?a?= y =?b?=", {"x ", "=?a?=", " y ", "=?b?="}},
        {"no words", {"no words"}},
        {"x =?open", {"x =?open"}},
        {"", {}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(Strs(bstring(c.in).split_between(out, "=?", "?=")), c.expected) << c.in;
}

TEST(BstringSplit, JoinUsesDelimiterBetweenParts) {
    std::vector<bstring> parts{bstring("a"), bstring("bb"), bstring("")};
    bstring s("old");
    s.join(parts, ", ");
    EXPECT_EQ(Str(s), "a, bb, ");
    s.join({}, ",");
    EXPECT_EQ(s.nSize, 0);
}

// ---- BSTR and code page conversions -------------------------------------------------

TEST(BstringBstr, RoundTripsThroughAnsiCodePage) {
    bstring s("caf\xE9 \x80");  // 1252: é and the euro sign
    BSTR b = s.to_bstr();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(std::u16string(b, SysStringLen(b)), u"café €");
    bstring back;
    back.assign_bstr(b);
    EXPECT_EQ(Str(back), Str(s));
    back.assign_bstr_utf8(b);
    EXPECT_EQ(Str(back), "caf\xC3\xA9 \xE2\x82\xAC");
    SysFreeString(b);
}

TEST(BstringBstr, EmptyAndNullRules) {
    EXPECT_EQ(bstring().to_bstr(), nullptr);
    EXPECT_EQ(bstring("").to_bstr(0), nullptr);
    BSTR e = bstring("").to_bstr(65001);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(SysStringLen(e), 0u);
    SysFreeString(e);
    BSTR w = wbstring().to_bstr();
    ASSERT_NE(w, nullptr);
    EXPECT_EQ(SysStringLen(w), 0u);
    SysFreeString(w);
    bstring s("x");
    s.assign_bstr(nullptr);
    EXPECT_EQ(s.nSize, 0);
}

TEST(BstringBstr, RangeAndBytes) {
    const char raw[] = {'a', 'b', 0, 'c'};
    bstring s(raw, 4);
    BSTR r = s.to_bstr_range(1252, 1, -1);
    EXPECT_EQ(std::u16string(r, SysStringLen(r)), u"b");
    SysFreeString(r);
    BSTR bytes = s.to_bytes_bstr();
    EXPECT_EQ(SysStringByteLen(bytes), 4u);
    EXPECT_EQ(std::memcmp(bytes, raw, 4), 0);
    SysFreeString(bytes);
}

TEST(WbstringImport, ConvertsAndFallsBackToAnsi) {
    struct Case {
        std::string bytes;
        int codepage;
        std::u16string wide;
    } cases[] = {
        {"\xC3\xA9t\xC3\xA9", 65001, u"été"},
        {"\xE9t\xE9", 1252, u"été"},
        {"\xE9t\xE9", -5, u"été"},       // negative means the system code page
        {"\xE9t\xE9", 123456, u"été"},   // unknown code page falls back
        {"\xA4", 28605, u"€"},
    };
    for (const auto& c : cases) {
        wbstring w(u"stale");
        w.import_bstring(bstring(c.bytes.data(), int32_t(c.bytes.size())), c.codepage);
        EXPECT_EQ(Str(w), c.wide) << c.codepage;
        wbstring a(u">");
        a.append_import(bstring(c.bytes.data(), int32_t(c.bytes.size())), c.codepage);
        EXPECT_EQ(Str(a), u">" + c.wide) << c.codepage;
    }
    wbstring w(u"x");
    w.import_bstring(bstring(), 65001);
    EXPECT_EQ(w.nSize, 0);
}

TEST(WbstringImport, RangeAndExport) {
    bstring src("ab\xC3\xA9z");
    wbstring w;
    w.append_import_range(src, 2, 4, 65001);
    EXPECT_EQ(Str(w), u"é");
    w.append_import_range(src, 4, -1, 65001);
    EXPECT_EQ(Str(w), u"éz");
    bstring out("junk");
    w.export_bstring(out, 65001);
    EXPECT_EQ(Str(out), "\xC3\xA9z");
    w.export_bstring(out, 1252);
    EXPECT_EQ(Str(out), "\xE9z");
    wbstring().export_bstring(out, 1252);
    EXPECT_EQ(out.nSize, 0);
}

TEST(WbstringBstr, UnitsCopiedUnchanged) {
    const char16_t units[] = {u'a', 0xD800, 0, u'b'};
    BSTR b = SysAllocStringLen(units, 4);
    wbstring w;
    w.assign_bstr(b).append_bstr(b);
    ASSERT_EQ(w.nSize, 8);
    EXPECT_EQ(w.pData[1], 0xD800);
    EXPECT_EQ(w.pData[6], 0);
    SysFreeString(b);
}

TEST(WbstringCompare, WideCaseIsFolded) {
    EXPECT_TRUE(wbstring(u"ÉCOLE").equals(u"école"));
    EXPECT_FALSE(wbstring(u"ÉCOLE").equals_prefix(u"école", 5));
    EXPECT_EQ(wbstring(u"ab").compare(wbstring(u"abc")), -1);
    EXPECT_EQ(wbstring(u"a=?b?=").find(u"=?"), 1);
}

TEST(OrderedInt, SortsBySecondMember) {
    std::vector<ordered_int> v{{1, 30}, {2, 10}, {3, 20}};
    std::sort(v.begin(), v.end());
    EXPECT_EQ(v[0].first, 2);
    EXPECT_EQ(v[2].first, 1);
}

}  // namespace
}  // namespace kv
