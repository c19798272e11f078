#include "automation/bstr.h"

#include <gtest/gtest.h>

#include <cstring>

using kv::automation::Bstr;

TEST(Bstr, NullAndEmptyAreDistinctButBothHaveLengthZero) {
    BSTR empty = SysAllocStringLen(u"", 0);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(SysStringLen(empty), 0u);
    EXPECT_EQ(SysStringLen(nullptr), 0u);
    EXPECT_EQ(SysAllocString(nullptr), nullptr);
    EXPECT_EQ(empty[0], 0);
    SysFreeString(empty);
    SysFreeString(nullptr);
}

TEST(Bstr, LengthsAndTerminators) {
    struct Case {
        const char* bytes;
        uint32_t n;
        uint32_t units;
    } cases[] = {{"", 0, 0}, {"a", 1, 0}, {"ab", 2, 1}, {"abc", 3, 1}, {"abcd", 4, 2}};
    for (const Case& c : cases) {
        BSTR b = SysAllocStringByteLen(c.bytes, c.n);
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(SysStringByteLen(b), c.n) << c.bytes;
        EXPECT_EQ(SysStringLen(b), c.units) << c.bytes;
        EXPECT_EQ(std::memcmp(b, c.bytes, c.n), 0);
        // Whole NUL unit after the data, whatever the parity.
        EXPECT_EQ(reinterpret_cast<const char*>(b)[c.n], 0);
        EXPECT_EQ(reinterpret_cast<const char*>(b)[c.n + 1], 0);
        SysFreeString(b);
    }
}

TEST(Bstr, EmbeddedNulsSurvive) {
    const char16_t text[] = {u'a', 0, u'b'};
    BSTR b = SysAllocStringLen(text, 3);
    EXPECT_EQ(SysStringLen(b), 3u);
    EXPECT_EQ(b[2], u'b');
    // SysAllocString stops at the first NUL.
    BSTR c = SysAllocString(b);
    EXPECT_EQ(SysStringLen(c), 1u);
    SysFreeString(b);
    SysFreeString(c);
}

TEST(Bstr, NullSourceGivesZeroedUnits) {
    BSTR b = SysAllocStringLen(nullptr, 4);
    ASSERT_NE(b, nullptr);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(b[i], 0);
    SysFreeString(b);
}

TEST(Bstr, ReAllocReplacesAndFrees) {
    BSTR b = SysAllocString(u"old");
    ASSERT_EQ(SysReAllocStringLen(&b, u"newer", 5), 1);
    EXPECT_EQ(std::u16string(b, SysStringLen(b)), u"newer");
    EXPECT_EQ(SysReAllocStringLen(nullptr, u"x", 1), 0);
    SysFreeString(b);
}

TEST(BstrWrapper, OwnsCopiesAndHandsOver) {
    Bstr a = Bstr::FromUtf8("héllo");
    EXPECT_EQ(a.size(), 5u);
    Bstr b = a;  // deep copy
    EXPECT_NE(a.get(), b.get());
    EXPECT_EQ(b.view(), u"héllo");
    BSTR raw = b.Detach();
    EXPECT_TRUE(b.is_null());
    Bstr c = Bstr::Attach(raw);
    EXPECT_EQ(c.Utf8(), "héllo");
    Bstr null;
    EXPECT_TRUE(null.is_null());
    EXPECT_EQ(null.Copy(), nullptr);
    Bstr empty(u"");
    EXPECT_FALSE(empty.is_null());
    *c.Receive() = SysAllocString(u"z");
    EXPECT_EQ(c.view(), u"z");
}

TEST(Utf, ConversionsRoundTripAndRepair) {
    struct Case {
        std::string utf8;
        std::u16string utf16;
    } exact[] = {
        {"", u""},
        {"abc", u"abc"},
        {"\xC3\xA9", u"\u00E9"},
        {"\xE2\x82\xAC", u"\u20AC"},
        {"\xF0\x9F\x98\x80", u"\U0001F600"},
    };
    for (const Case& c : exact) {
        EXPECT_EQ(kv::automation::Utf8ToUtf16(c.utf8), c.utf16);
        EXPECT_EQ(kv::automation::Utf16ToUtf8(c.utf16), c.utf8);
    }
    struct Bad {
        std::string in;
        std::u16string out;
    } repaired[] = {
        {"a\xFF" "b", u"a\uFFFDb"},
        {"\xC0\x80", u"\uFFFD\uFFFD"},       // overlong NUL
        {"\xE2\x82", u"\uFFFD\uFFFD"},       // truncated
        {"\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},  // past U+10FFFF
    };
    for (const Bad& c : repaired) EXPECT_EQ(kv::automation::Utf8ToUtf16(c.in), c.out);
    // A lone surrogate survives the trip through UTF-8.
    std::u16string lone = u"x";
    lone.push_back(char16_t(0xD800));
    EXPECT_EQ(kv::automation::Utf8ToUtf16(kv::automation::Utf16ToUtf8(lone)), lone);
}
