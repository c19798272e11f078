#include "codecs/idn.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "../support/text.h"

namespace kv {
namespace {

using kv::testing::Str;
using kv::testing::Wide;

struct IdnCase {
    const char* what;
    std::u16string in;
    std::u16string escaped;
};

const IdnCase kEscapeCases[] = {
    {"address", u"user@b\u00fccher.example", u"user@xn--bcher-kva.example"},
    {"bare domain", u"b\u00fccher.example", u"xn--bcher-kva.example"},
    {"ASCII keeps its case", u"User@Example.COM", u"User@Example.COM"},
    {"local part untouched", u"J\u00f6rg@b\u00fccher.example", u"J\u00f6rg@xn--bcher-kva.example"},
    {"mapped label is folded", u"a@B\u00dcCHER.example", u"a@xn--bcher-kva.example"},
    {"ideographic and fullwidth dots", u"x@b\u00fccher\u3002ex\uff0eam\uff61ple", u"x@xn--bcher-kva.ex.am.ple"},
    {"label over 63 fails to an empty domain", u"u@" + std::u16string(64, u'a'), u"u@"},
    {"empty domain", u"u@", u"u@"},
    {"only the first @ splits", u"\"a@b\"@x.example", u"\"a@b\"@x.example"},
};

TEST(Idn, EscapeIdnDomain_Table) {
    for (const IdnCase& c : kEscapeCases)
        EXPECT_EQ(Str(EscapeIdnDomain(Wide(c.in))), c.escaped) << c.what;
}

const IdnCase kUnescapeCases[] = {
    {"address", u"user@xn--bcher-kva.example", u"user@b\u00fccher.example"},
    {"bare domain", u"xn--bcher-kva.example", u"b\u00fccher.example"},
    {"ASCII keeps its case", u"User@Example.COM", u"User@Example.COM"},
    {"local part untouched", u"xn--bcher-kva@xn--bcher-kva.example", u"xn--bcher-kva@b\u00fccher.example"},
};

TEST(Idn, UnescapeIdnDomain_Table) {
    for (const IdnCase& c : kUnescapeCases)
        EXPECT_EQ(Str(UnescapeIdnDomain(Wide(c.in))), c.escaped) << c.what;
}

TEST(Idn, AstralCharacter_RoundTripsThroughSurrogatePairs) {
    // U+1F600 is unassigned in the tables IDNA uses: allowed only by the flag.
    std::u16string face = u"\U0001F600";
    std::u16string escaped = Str(EscapeIdnDomain(Wide(u"a@" + face + u".example")));
    ASSERT_EQ(escaped.rfind(u"a@xn--", 0), 0u) << std::string(escaped.begin(), escaped.end());
    EXPECT_EQ(Str(UnescapeIdnDomain(Wide(escaped))), u"a@" + face + u".example");
}

TEST(Idn, Ucs4FromUtf16_PairsJoinAndLoneHalvesDrop) {
    std::u16string text = u"a\U0001F600b";
    text.insert(text.begin(), char16_t(0xDC00));  // lone low half
    text.push_back(char16_t(0xD800));             // high half at the end
    text += u"c";
    text += char16_t(0xD801);  // high half followed by a non-surrogate
    text += u"d";
    std::vector<uint32_t> ucs4 = Ucs4FromUtf16(text.data(), int32_t(text.size()));
    EXPECT_EQ(ucs4, (std::vector<uint32_t>{'a', 0x1F600, 'b', 'c', 'd', 0}));
    EXPECT_EQ(Ucs4FromUtf16(nullptr, 0), std::vector<uint32_t>{0});
}

TEST(Idn, Utf16FromUcs4_SplitsFromFFFFAndStopsAtZero) {
    const uint32_t text[] = {'a', 0xFFFE, 0x10000, 0x10FFFF, 0xFFFF, 0, 'z'};
    std::u16string expected = u"a";
    expected += char16_t(0xFFFE);
    expected += u"\U00010000\U0010FFFF";
    expected += {char16_t(0xDBFF), char16_t(0xDFFF)};  // 0xFFFF goes the pair way, wrapped
    EXPECT_EQ(Str(Utf16FromUcs4(text)), expected);
    EXPECT_EQ(Str(Utf16FromUcs4(nullptr)), u"");
}

}  // namespace
}  // namespace kv
