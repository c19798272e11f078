#include "platform/codepage.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/codepage_tables.h"

namespace kv::platform {
namespace {

struct Decoded {
    bool ok;
    std::u16string text;
    uint32_t error;
};

// Measures, fills a buffer of exactly that size, and checks the two agree.
Decoded Decode(int cp, std::string_view bytes, uint32_t flags = 0) {
    SetLastError(0);
    int need =
        MultiByteToWideChar(cp, flags, bytes.data(), static_cast<int>(bytes.size()), nullptr, 0);
    if (need == 0) return {false, {}, GetLastError()};
    std::u16string out(need, u'\0');
    int got = MultiByteToWideChar(cp, flags, bytes.data(), static_cast<int>(bytes.size()),
                                  out.data(), need);
    EXPECT_EQ(got, need) << "code page " << cp;
    return {true, out, GetLastError()};
}

struct Encoded {
    bool ok;
    std::string bytes;
    uint32_t error;
    bool used_default;
};

Encoded Encode(int cp, std::u16string_view text, uint32_t flags = 0, const char* def = nullptr,
               bool want_used = true) {
    SetLastError(0);
    bool used_measure = false, used_fill = false;
    int need = WideCharToMultiByte(cp, flags, text.data(), static_cast<int>(text.size()), nullptr,
                                   0, def, want_used ? &used_measure : nullptr);
    if (need == 0) return {false, {}, GetLastError(), false};
    std::string out(need, '\0');
    int got = WideCharToMultiByte(cp, flags, text.data(), static_cast<int>(text.size()), out.data(),
                                  need, def, want_used ? &used_fill : nullptr);
    EXPECT_EQ(got, need) << "code page " << cp;
    EXPECT_EQ(used_measure, used_fill) << "code page " << cp;
    return {true, out, GetLastError(), used_fill};
}

constexpr char16_t kFffd = u'\uFFFD';

TEST(CodepageUtf8, DecodesWellFormedAndReplacesMaximalSubparts) {
    struct Case {
        const char* name;
        std::string in;
        std::u16string want;
    } cases[] = {
        {"ascii", "abc", u"abc"},
        {"two byte", "\xC3\xA9", u"\u00E9"},
        {"three byte", "\xE2\x82\xAC", u"\u20AC"},
        {"four byte", "\xF0\x9F\x98\x80", u"\U0001F600"},
        {"highest", "\xF4\x8F\xBF\xBF", u"\U0010FFFF"},
        {"nul inside", std::string("a\0b", 3), std::u16string(u"a\0b", 3)},
        {"overlong two", "\xC0\x80", {kFffd, kFffd}},
        {"overlong three", "\xE0\x80\x80", {kFffd, kFffd, kFffd}},
        {"overlong four", "\xF0\x80\x80\x80", {kFffd, kFffd, kFffd, kFffd}},
        {"surrogate", "\xED\xA0\x80", {kFffd, kFffd, kFffd}},
        {"above 10FFFF", "\xF4\x90\x80\x80", {kFffd, kFffd, kFffd, kFffd}},
        {"F5 lead", "\xF5\x80", {kFffd, kFffd}},
        {"FE FF", "\xFE\xFF", {kFffd, kFffd}},
        {"lone continuation", "a\x80z", {u'a', kFffd, u'z'}},
        {"truncated at end", "a\xE2\x82", {u'a', kFffd}},
        {"truncated lead only", "\xC3", {kFffd}},
        {"truncated before ascii",
         "\xE2\x82"
         "A",
         {kFffd, u'A'}},
        {"truncated four before ascii",
         "\xF0\x9F\x98"
         "A",
         {kFffd, u'A'}},
        {"good after bad", "\xC3\xC3\xA9", {kFffd, u'\u00E9'}},
    };
    for (const Case& c : cases) {
        Decoded d = Decode(65001, c.in);
        ASSERT_TRUE(d.ok) << c.name;
        EXPECT_EQ(d.text, c.want) << c.name;
    }
}

TEST(CodepageUtf8, StrictFlagRejectsInvalidInput) {
    for (std::string bad : {"\xC0\x80", "a\xE2\x82", "\xED\xA0\x80", "\xF4\x90\x80\x80", "x\xFF"}) {
        Decoded d = Decode(65001, bad, kMbErrInvalidChars);
        EXPECT_FALSE(d.ok);
        EXPECT_EQ(d.error, kErrorNoUnicodeTranslation);
    }
    EXPECT_EQ(Decode(65001, "\xC3\xA9", kMbErrInvalidChars).text, u"\u00E9");
}

TEST(CodepageUtf8, Encodes) {
    struct Case {
        const char* name;
        std::u16string in;
        std::string want;
    } cases[] = {
        {"ascii", u"abc", "abc"},
        {"two byte", u"\u00E9", "\xC3\xA9"},
        {"three byte", u"\u20AC", "\xE2\x82\xAC"},
        {"pair", u"\U0001F600", "\xF0\x9F\x98\x80"},
        {"lone high",
         {u'a', char16_t(0xD800), u'b'},
         "a\xEF\xBF\xBD"
         "b"},
        {"lone low", {char16_t(0xDC00)}, "\xEF\xBF\xBD"},
        {"high at end", {u'a', char16_t(0xDBFF)}, "a\xEF\xBF\xBD"},
        {"swapped pair", {char16_t(0xDC00), char16_t(0xD800)}, "\xEF\xBF\xBD\xEF\xBF\xBD"},
    };
    for (const Case& c : cases) {
        Encoded e = Encode(65001, c.in, 0, nullptr, false);
        ASSERT_TRUE(e.ok) << c.name;
        EXPECT_EQ(e.bytes, c.want) << c.name;
    }
    Encoded strict =
        Encode(65001, std::u16string{u'a', char16_t(0xD800)}, kWcErrInvalidChars, nullptr, false);
    EXPECT_FALSE(strict.ok);
    EXPECT_EQ(strict.error, kErrorNoUnicodeTranslation);
}

// The ASCII runs go 16 bytes at a time; put one non-ASCII character at every
// offset around those blocks, at every length, and compare with the plain rule.
TEST(CodepageUtf8, NonAsciiAtEveryOffsetOfTheFastPath) {
    for (size_t len = 1; len <= 48; ++len) {
        for (size_t at = 0; at < len; ++at) {
            std::string bytes;
            std::u16string want;
            for (size_t k = 0; k < len; ++k) {
                char ch = static_cast<char>('A' + k % 26);
                if (k == at) {
                    bytes += "\xE6\x97\xA5";  // U+65E5
                    want += u'\u65E5';
                } else {
                    bytes += ch;
                    want += static_cast<char16_t>(ch);
                }
            }
            ASSERT_EQ(Decode(65001, bytes).text, want) << len << " " << at;
            ASSERT_EQ(Encode(65001, want, 0, nullptr, false).bytes, bytes) << len << " " << at;
            std::string latin(len, 'x');
            std::u16string wide(len, u'x');
            latin[at] = '\xE9';
            wide[at] = u'\u00E9';
            ASSERT_EQ(Decode(1252, latin).text, wide) << len << " " << at;
            ASSERT_EQ(Encode(1252, wide).bytes, latin) << len << " " << at;
        }
    }
}

TEST(Codepage1252, EveryByteIsOneCharacterAndRoundTrips) {
    std::string all;
    for (int b = 0; b < 256; ++b) all += static_cast<char>(b);
    for (int cp : {0, 3, 1252}) {
        Decoded d = Decode(cp, all);
        ASSERT_TRUE(d.ok);
        ASSERT_EQ(d.text.size(), 256u);
        EXPECT_EQ(d.text[0x80], u'\u20AC');
        EXPECT_EQ(d.text[0x9F], u'\u0178');
        for (int hole : {0x81, 0x8D, 0x8F, 0x90, 0x9D}) EXPECT_EQ(d.text[hole], char16_t(hole));
        Encoded e = Encode(cp, d.text);
        EXPECT_EQ(e.bytes, all);
        EXPECT_FALSE(e.used_default);
    }
}

TEST(CodepageSingleByte, UnmappableBecomesDefaultCharacter) {
    struct Case {
        int cp;
        std::u16string in;
        const char* def;
        std::string want;
    } cases[] = {
        {1252, u"A\u0100B", nullptr, "A?B"},  // no best fit to 'A'
        {1252, u"\u0100", "*", "*"},
        {1252, u"\U0001F600", nullptr, "??"},
        {1252, u"\u0080", nullptr, "?"},  // only the five holes are C1 controls
        {28591, u"\u00FF\u20AC", nullptr, "\xFF?"},
        {20127, u"a\u00E9", nullptr, "a?"},
        {1251, u"\u0416\u00E9", nullptr, "\xC6?"},
        {37, u"A?\u0416", nullptr, "\xC1\x6F\x6F"},  // EBCDIC's own question mark
    };
    for (const Case& c : cases) {
        Encoded e = Encode(c.cp, c.in, 0, c.def);
        ASSERT_TRUE(e.ok) << c.cp;
        EXPECT_EQ(e.bytes, c.want) << c.cp;
        EXPECT_TRUE(e.used_default) << c.cp;
    }
    EXPECT_FALSE(Encode(1251, u"\u0416").used_default);
}

TEST(CodepageSingleByte, DecodesSpecialPages) {
    struct Case {
        int cp;
        std::string in;
        std::u16string want;
    } cases[] = {
        {28591, "\x80\xA4\xFF", u"\u0080\u00A4\u00FF"},
        {28605, "\xA4", u"\u20AC"},
        {20127, "A\xC1\xE9", u"AAi"},      // the high bit is dropped
        {1, "\xB0\x82", u"\u2591\u00E9"},  // OEM is 437
        {2, "\xDB\xA5", u"\u20AC\u2022"},  // Mac is 10000
        {1251, "\xC6\x98", u"\u0416\u0098"},
        {1253, "\xAA", {kFffd}},  // undefined outside 0x80..0x9F
        {20866, "\xE1", u"\u0410"},
        {874, "\xA1\xDB", {u'\u0E01', kFffd}},
    };
    for (const Case& c : cases) {
        Decoded d = Decode(c.cp, c.in);
        ASSERT_TRUE(d.ok) << c.cp;
        EXPECT_EQ(d.text, c.want) << c.cp;
    }
    Decoded strict = Decode(1253, "a\xAA", kMbErrInvalidChars);
    EXPECT_FALSE(strict.ok);
    EXPECT_EQ(strict.error, kErrorNoUnicodeTranslation);
}

// Long text takes the vector roads, a character alone the plain one: every
// single-byte table must give the same either way, strict or not, with AVX2
// allowed or not.
TEST(CodepageSingleByte, LongTextConvertsAsItsCharactersOneAtATime) {
    std::mt19937 rng(7);
    std::vector<int> pages{20127};
    for (int t = 0; t < detail::kSingleByteTableCount; ++t)
        pages.push_back(detail::kSingleByteTables[t].codepage);
    for (int cp : pages) {
        SCOPED_TRACE(testing::Message() << "code page " << cp);
        // Mostly ASCII with high bytes in between, so blocks of every mixture occur.
        std::string bytes(300, '\0');
        for (char& b : bytes)
            b = static_cast<char>(rng() % 4 ? 'a' + rng() % 26 : 0x80 + rng() % 128);
        std::u16string single;
        for (char b : bytes) single += Decode(cp, std::string_view(&b, 1)).text;
        bool undefined = single.find(kFffd) != std::u16string::npos;
        // Back: the same characters with unmappable ones and surrogates between.
        std::u16string wide = single;
        const char16_t strangers[] = {u'\u4E00', u'\u0100',        u'\u20AC',       u'\u00FF',
                                      u'\u0080', char16_t(0xD83D), char16_t(0xDE00)};
        for (size_t k = 0; k < 60; ++k) wide[rng() % wide.size()] = strangers[rng() % 7];
        std::string encoded;
        bool any_default = false;
        for (char16_t u : wide) {
            Encoded e = Encode(cp, std::u16string_view(&u, 1));
            encoded += e.bytes;
            any_default |= e.used_default;
        }
        for (auto road : {detail::UtfRoad::kSse2, detail::UtfRoad::kAvx512}) {
            detail::AllowUtfRoad(road);
            EXPECT_EQ(Decode(cp, bytes).text, single);
            Decoded strict = Decode(cp, bytes, kMbErrInvalidChars);
            EXPECT_EQ(strict.ok, !undefined);
            if (undefined) {
                EXPECT_EQ(strict.error, kErrorNoUnicodeTranslation);
            }
            // Filling without measuring first must catch them too.
            std::u16string room(bytes.size(), u'\0');
            EXPECT_EQ(MultiByteToWideChar(cp, kMbErrInvalidChars, bytes.data(),
                                          static_cast<int>(bytes.size()), room.data(),
                                          static_cast<int>(room.size())) != 0,
                      !undefined);
            Encoded whole = Encode(cp, wide);
            EXPECT_EQ(whole.bytes, encoded);
            EXPECT_EQ(whole.used_default, any_default);
        }
        detail::AllowUtfRoad(detail::UtfRoad::kAvx512);
    }
}

TEST(CodepageUtf16, ReadsAndWritesByteText) {
    EXPECT_EQ(Decode(1200, std::string("a\0\xAC\x20", 4)).text, u"a\u20AC");
    EXPECT_EQ(Decode(1201, std::string("\0a\x20\xAC", 4)).text, u"a\u20AC");
    EXPECT_EQ(Decode(1200, std::string("a\0b", 3)).text, (std::u16string{u'a', kFffd}));
    EXPECT_EQ(Encode(1200, u"a\u20AC").bytes, std::string("a\0\xAC\x20", 4));
    EXPECT_EQ(Encode(1201, u"a\u20AC").bytes, std::string("\0a\x20\xAC", 4));
    // Unpaired surrogates pass through untouched.
    std::u16string lone{char16_t(0xD800)};
    EXPECT_EQ(Decode(1200, Encode(1200, lone).bytes).text, lone);
    // -1: the terminator is a zero unit at an even offset.
    const char text[] = {'a', 0, 0, 'b', 0, 0, 0, 0};
    EXPECT_EQ(MultiByteToWideChar(1200, 0, text, -1, nullptr, 0), 3);
}

TEST(CodepageContract, ErrorsAreReportedPerCase) {
    struct Case {
        const char* name;
        int (*call)();
        uint32_t error;
    } cases[] = {
        {"src_len 0", [] { return MultiByteToWideChar(1252, 0, "a", 0, nullptr, 0); },
         kErrorInvalidParameter},
        {"src_len -2", [] { return MultiByteToWideChar(1252, 0, "a", -2, nullptr, 0); },
         kErrorInvalidParameter},
        {"null src", [] { return MultiByteToWideChar(1252, 0, nullptr, 1, nullptr, 0); },
         kErrorInvalidParameter},
        {"negative dst_len",
         [] {
             char16_t w[4];
             return MultiByteToWideChar(1252, 0, "a", 1, w, -1);
         },
         kErrorInvalidParameter},
        {"unknown page", [] { return MultiByteToWideChar(12345, 0, "a", 1, nullptr, 0); },
         kErrorInvalidParameter},
        {"page 42", [] { return MultiByteToWideChar(42, 0, "a", 1, nullptr, 0); },
         kErrorInvalidParameter},
        {"utf-8 with precomposed",
         [] { return MultiByteToWideChar(65001, kMbPrecomposed, "a", 1, nullptr, 0); },
         kErrorInvalidFlags},
        {"utf-7 with flags",
         [] { return MultiByteToWideChar(65000, kMbErrInvalidChars, "a", 1, nullptr, 0); },
         kErrorInvalidFlags},
        {"unknown flag", [] { return MultiByteToWideChar(1252, 0x100, "a", 1, nullptr, 0); },
         kErrorInvalidFlags},
        {"wc src_len 0", [] { return WideCharToMultiByte(1252, 0, u"a", 0, nullptr, 0); },
         kErrorInvalidParameter},
        {"wc unknown page", [] { return WideCharToMultiByte(777, 0, u"a", 1, nullptr, 0); },
         kErrorInvalidParameter},
        {"wc default on utf-8",
         [] { return WideCharToMultiByte(65001, 0, u"a", 1, nullptr, 0, "?"); },
         kErrorInvalidParameter},
        {"wc used on utf-7",
         [] {
             bool used;
             return WideCharToMultiByte(65000, 0, u"a", 1, nullptr, 0, nullptr, &used);
         },
         kErrorInvalidParameter},
        {"wc err flag on 1252",
         [] { return WideCharToMultiByte(1252, kWcErrInvalidChars, u"a", 1, nullptr, 0); },
         kErrorInvalidFlags},
    };
    for (const Case& c : cases) {
        SetLastError(0);
        EXPECT_EQ(c.call(), 0) << c.name;
        EXPECT_EQ(GetLastError(), c.error) << c.name;
    }
}

// Every path: a buffer one short fails with kErrorInsufficientBuffer, an exact
// one succeeds, and -1 counts the terminator.
TEST(CodepageContract, BufferSizesAndTerminator) {
    struct Case {
        int cp;
        std::string bytes;
        std::u16string wide;
    } cases[] = {
        {65001, "h\xC3\xA9llo w\xF0\x9F\x98\x80rld, and a long ASCII tail to cross a block",
         u"h\u00E9llo w\U0001F600rld, and a long ASCII tail to cross a block"},
        {1252, "caf\xE9 \x80 and a long ASCII tail to cross a block",
         u"caf\u00E9 \u20AC and a long ASCII tail to cross a block"},
        {1251, "\xCF\xF0\xE8\xE2\xE5\xF2", u"\u041F\u0440\u0438\u0432\u0435\u0442"},
        {932,
         "\x93\xFA\x96\x7B"
         "abc",
         u"\u65E5\u672C"
         "abc"},
        {50220, "\x1B$BF|K\\\x1B(B", u"\u65E5\u672C"},
        {54936, "\x90\x30\x81\x30", u"\U00010000"},
    };
    for (const Case& c : cases) {
        int n = static_cast<int>(c.bytes.size());
        int w = static_cast<int>(c.wide.size());
        std::u16string wide(w, u'\0');
        ASSERT_EQ(MultiByteToWideChar(c.cp, 0, c.bytes.data(), n, nullptr, 0), w) << c.cp;
        SetLastError(0);
        EXPECT_EQ(MultiByteToWideChar(c.cp, 0, c.bytes.data(), n, wide.data(), w - 1), 0) << c.cp;
        EXPECT_EQ(GetLastError(), kErrorInsufficientBuffer) << c.cp;
        EXPECT_EQ(MultiByteToWideChar(c.cp, 0, c.bytes.data(), n, wide.data(), w), w) << c.cp;
        EXPECT_EQ(wide, c.wide) << c.cp;

        std::string bytes(n, '\0');
        ASSERT_EQ(WideCharToMultiByte(c.cp, 0, c.wide.data(), w, nullptr, 0), n) << c.cp;
        SetLastError(0);
        EXPECT_EQ(WideCharToMultiByte(c.cp, 0, c.wide.data(), w, bytes.data(), n - 1), 0) << c.cp;
        EXPECT_EQ(GetLastError(), kErrorInsufficientBuffer) << c.cp;
        EXPECT_EQ(WideCharToMultiByte(c.cp, 0, c.wide.data(), w, bytes.data(), n), n) << c.cp;
        EXPECT_EQ(bytes, c.bytes) << c.cp;

        std::vector<char16_t> wz(w + 1, u'x');
        EXPECT_EQ(MultiByteToWideChar(c.cp, 0, c.bytes.c_str(), -1, wz.data(), w + 1), w + 1)
            << c.cp;
        EXPECT_EQ(wz[w], u'\0') << c.cp;
        std::vector<char> bz(n + 1, 'x');
        EXPECT_EQ(WideCharToMultiByte(c.cp, 0, c.wide.c_str(), -1, bz.data(), n + 1), n + 1)
            << c.cp;
        EXPECT_EQ(bz[n], '\0') << c.cp;
    }
}

TEST(CodepageContract, KnowsWhichPagesAreValid) {
    for (int cp :
         {0,     1,     2,     3,     437,   850,   866,   874,   932,   936,   949,   950,
          1200,  1201,  1250,  1252,  1258,  1361,  10000, 20127, 20866, 20932, 21866, 28591,
          28592, 28605, 50220, 50221, 50222, 50225, 51932, 51949, 54936, 65000, 65001}) {
        EXPECT_TRUE(IsValidCodePage(cp)) << cp;
    }
    for (int cp : {-1, 4, 42, 28602, 12345, 65002, 99999}) EXPECT_FALSE(IsValidCodePage(cp)) << cp;
    // A page is valid exactly when a conversion accepts it.
    for (int cp : {52936, 57002, 1047}) {
        int n = MultiByteToWideChar(cp, 0, "a", 1, nullptr, 0);
        EXPECT_EQ(n != 0, IsValidCodePage(cp)) << cp;
    }
}

TEST(CodepageIconv, MultibytePages) {
    struct Case {
        int cp;
        std::string bytes;
        std::u16string wide;
    } cases[] = {
        {936, "\xC4\xE3\xBA\xC3", u"\u4F60\u597D"},
        {949, "\xC7\xD1\xB1\xDB", u"\uD55C\uAE00"},
        {950, "\xA4\xA4\xA4\xE5", u"\u4E2D\u6587"},
        {51949, "\xC7\xD1", u"\uD55C"},
        {20932, "\xC6\xFC", u"\u65E5"},
        {51932, "\xC6\xFC", u"\u65E5"},
        {50225,
         "\x1B$)C\x0E\x47\x51\x0F"
         "a",
         u"\uD55C"
         "a"},
        {65000, "Hi Mom -+Jjo--!", u"Hi Mom -\u263A-!"},
        {65000, "+ZeVnLIqe-", u"\u65E5\u672C\u8A9E"},
    };
    for (const Case& c : cases) {
        Decoded d = Decode(c.cp, c.bytes);
        ASSERT_TRUE(d.ok) << c.cp;
        EXPECT_EQ(d.text, c.wide) << c.cp;
        // UTF-7 has several spellings; compare what comes back.
        Encoded e = Encode(c.cp, c.wide, 0, nullptr, c.cp != 65000);
        ASSERT_TRUE(e.ok) << c.cp;
        if (c.cp == 65000) {
            EXPECT_EQ(Decode(65000, e.bytes).text, c.wide);
        } else {
            EXPECT_EQ(e.bytes, c.bytes) << c.cp;
            EXPECT_FALSE(e.used_default) << c.cp;
        }
    }
}

TEST(CodepageIconv, InvalidInputNeverFails) {
    struct Case {
        int cp;
        std::string bytes;
        std::u16string wide;
    } cases[] = {
        {932, "a\x81 b", {u'a', kFffd, u' ', u'b'}},  // lead byte, then no trail byte
        {932, "a\x93", {u'a', kFffd}},                // cut off at the end
        {936,
         "\xFF"
         "a",
         {kFffd, u'a'}},
        {50220, "\x1B$BF|\x1B(Ba\xFF", {u'\u65E5', u'a', kFffd}},
    };
    for (const Case& c : cases) {
        Decoded d = Decode(c.cp, c.bytes);
        ASSERT_TRUE(d.ok) << c.cp;
        EXPECT_EQ(d.text, c.wide) << c.cp;
        Decoded strict = Decode(c.cp, c.bytes, kMbErrInvalidChars);
        EXPECT_FALSE(strict.ok) << c.cp;
        // The ISO-2022 pages take no flags at all.
        EXPECT_EQ(strict.error, c.cp == 50220 ? kErrorInvalidFlags : kErrorNoUnicodeTranslation)
            << c.cp;
    }
}

TEST(CodepageIconv, UnmappableBecomesDefaultInTheRightShiftState) {
    struct Case {
        int cp;
        std::u16string wide;
        const char* def;
        std::string want;
    } cases[] = {
        {932, u"a\u0416\U0001F600", nullptr, "a\x84\x47??"},
        {932, u"\u00E9", "*", "*"},
        {936, u"\u0E01x", nullptr, "?x"},
        // The default leaves the double-byte set first, then goes back into it.
        {50220, u"\u65E5\u20A9\u672C", nullptr, "\x1B$BF|\x1B(B?\x1B$BK\\\x1B(B"},
        {54936, {u'a', char16_t(0xDC00)}, nullptr, "a?"},
    };
    for (const Case& c : cases) {
        Encoded e = Encode(c.cp, c.wide, 0, c.def);
        ASSERT_TRUE(e.ok) << c.cp;
        EXPECT_EQ(e.bytes, c.want) << c.cp;
        EXPECT_TRUE(e.used_default) << c.cp;
    }
    Encoded strict = Encode(54936, std::u16string{u'a', char16_t(0xDC00)}, kWcErrInvalidChars);
    EXPECT_FALSE(strict.ok);
    EXPECT_EQ(strict.error, kErrorNoUnicodeTranslation);
}

// iconv may want room for its longest character before it sees that the next
// one is unmappable; an exact buffer must still be enough.
TEST(CodepageIconv, ExactBufferHoldsDefaultCharacterAtTheEnd) {
    for (int cp : {20932, 932, 936, 949, 50220, 50225}) {
        for (std::u16string text : {std::u16string(u"Y\uFFFD"), std::u16string(u"\uFFFD"),
                                    std::u16string(u"\u65E5\uFFFD")}) {
            Encoded e = Encode(cp, text);
            ASSERT_TRUE(e.ok) << cp << " error " << e.error;
            EXPECT_TRUE(e.used_default) << cp;
            EXPECT_NE(e.bytes.find('?'), std::string::npos) << cp;
        }
        Decoded d = Decode(cp, "a\xFF");
        ASSERT_TRUE(d.ok) << cp;
        EXPECT_EQ(d.text.back(), kFffd) << cp;
    }
}

// Descriptors are cached per thread; several threads converting different
// pages at once must not see each other's shift state.
TEST(CodepageIconv, ThreadsConvertIndependently) {
    const std::u16string text = u"\u65E5\u672Ca\uD55C\u00E9 more text";
    const int pages[] = {50220, 932, 949, 54936, 65000, 936, 51932, 50225};
    auto round_trip = [&](int cp) {
        char buf[128];
        char16_t back[64];
        int n =
            WideCharToMultiByte(cp, 0, text.data(), static_cast<int>(text.size()), buf, sizeof buf);
        int m = n ? MultiByteToWideChar(cp, 0, buf, n, back, 64) : 0;
        return std::string(buf, n) + "|" + std::string(reinterpret_cast<char*>(back), m * 2);
    };
    std::vector<std::string> expected;
    for (int cp : pages) expected.push_back(round_trip(cp));
    std::vector<int> failures(8, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 200; ++round) {
                int k = (t + round) % 8;
                if (round_trip(pages[k]) != expected[k]) ++failures[t];
            }
        });
    }
    for (auto& th : threads) th.join();
    for (int t = 0; t < 8; ++t) EXPECT_EQ(failures[t], 0) << "thread " << t;
    // GB18030 maps everything, so its round trip gives the text back.
    const std::string& gb = expected[3];
    EXPECT_EQ(gb.substr(gb.find('|') + 1),
              std::string(reinterpret_cast<const char*>(text.data()), text.size() * 2));
}

}  // namespace
}  // namespace kv::platform
