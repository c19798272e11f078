// The UTF-8 <-> UTF-16 conversions against a character-at-a-time model: the
// fast paths take 64-byte (32-unit) windows and hand anything ill-formed to
// the careful path, so every tricky sequence is placed at every offset around
// those windows, and random mixtures check the hand-over in between.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "platform/codepage.h"
#include "utf_reference.h"

namespace kv::platform {
namespace {

constexpr char16_t kCanary = u'\uA5A5';

// Measures, fills a buffer of exactly that size followed by canaries, and
// checks that a buffer one unit short fails. Empty optional on failure.
std::optional<std::u16string> ToWide(const std::string& bytes, uint32_t flags = 0) {
    int len = static_cast<int>(bytes.size());
    int need = MultiByteToWideChar(65001, flags, bytes.data(), len, nullptr, 0);
    if (need == 0) {
        EXPECT_EQ(GetLastError(), kErrorNoUnicodeTranslation);
        return std::nullopt;
    }
    std::vector<char16_t> out(static_cast<size_t>(need) + 64, kCanary);
    EXPECT_EQ(MultiByteToWideChar(65001, flags, bytes.data(), len, out.data(), need), need);
    for (size_t k = static_cast<size_t>(need); k < out.size(); ++k) {
        EXPECT_EQ(out[k], kCanary) << "written past the buffer at " << k;
    }
    if (need > 1) {
        std::vector<char16_t> small(static_cast<size_t>(need) - 1);
        SetLastError(0);
        EXPECT_EQ(MultiByteToWideChar(65001, flags, bytes.data(), len, small.data(), need - 1), 0);
        EXPECT_EQ(GetLastError(), kErrorInsufficientBuffer);
    }
    // A roomy buffer gives the same text (what lies past the count is not promised).
    std::vector<char16_t> roomy(static_cast<size_t>(need) + 300);
    EXPECT_EQ(MultiByteToWideChar(65001, flags, bytes.data(), len, roomy.data(),
                                  static_cast<int>(roomy.size())),
              need);
    EXPECT_EQ(std::u16string(roomy.data(), static_cast<size_t>(need)),
              std::u16string(out.data(), static_cast<size_t>(need)));
    return std::u16string(out.data(), static_cast<size_t>(need));
}

std::optional<std::string> ToUtf8(const std::u16string& text, uint32_t flags = 0) {
    int len = static_cast<int>(text.size());
    int need = WideCharToMultiByte(65001, flags, text.data(), len, nullptr, 0);
    if (need == 0) {
        EXPECT_EQ(GetLastError(), kErrorNoUnicodeTranslation);
        return std::nullopt;
    }
    std::vector<char> out(static_cast<size_t>(need) + 128, '\x5A');
    EXPECT_EQ(WideCharToMultiByte(65001, flags, text.data(), len, out.data(), need), need);
    for (size_t k = static_cast<size_t>(need); k < out.size(); ++k) {
        EXPECT_EQ(out[k], '\x5A') << "written past the buffer at " << k;
    }
    if (need > 1) {
        std::vector<char> small(static_cast<size_t>(need) - 1);
        SetLastError(0);
        EXPECT_EQ(WideCharToMultiByte(65001, flags, text.data(), len, small.data(), need - 1), 0);
        EXPECT_EQ(GetLastError(), kErrorInsufficientBuffer);
    }
    return std::string(out.data(), static_cast<size_t>(need));
}

// The conversions take the highest road the processor has; every check runs
// once with each road as the highest so all are held to the model.
struct Road {
    detail::UtfRoad highest;
    const char* name;
};
constexpr Road kRoads[] = {{detail::UtfRoad::kSse2, " (SSE2)"},
                           {detail::UtfRoad::kAvx2, " (AVX2 where present)"},
                           {detail::UtfRoad::kAvx512, " (AVX-512 where present)"}};

// Puts the highest road back however a check leaves.
struct RoadScope {
    explicit RoadScope(const Road& road) { detail::AllowUtfRoad(road.highest); }
    ~RoadScope() { detail::AllowUtfRoad(detail::UtfRoad::kAvx512); }
};

void ExpectModelToWide(const std::string& bytes, const std::string& label) {
    auto model = test::Utf8ToUtf16Model(bytes);
    auto model_strict = test::Utf8ToUtf16Model(bytes, true);
    for (const Road& road : kRoads) {
        RoadScope scope(road);
        auto got = ToWide(bytes);
        ASSERT_TRUE(got.has_value()) << label << road.name;
        ASSERT_EQ(*got, *model) << label << road.name;
        auto strict = ToWide(bytes, kMbErrInvalidChars);
        ASSERT_EQ(strict.has_value(), model_strict.has_value()) << label << road.name;
        if (strict) {
            ASSERT_EQ(*strict, *model_strict) << label << road.name;
        }
    }
}

void ExpectModelToUtf8(const std::u16string& text, const std::string& label) {
    auto model = test::Utf16ToUtf8Model(text);
    bool strict_ok = test::Utf16ToUtf8Model(text, true).has_value();
    for (const Road& road : kRoads) {
        RoadScope scope(road);
        auto got = ToUtf8(text);
        ASSERT_TRUE(got.has_value()) << label << road.name;
        ASSERT_EQ(*got, *model) << label << road.name;
        auto strict = ToUtf8(text, kWcErrInvalidChars);
        ASSERT_EQ(strict.has_value(), strict_ok) << label << road.name;
        if (strict) {
            ASSERT_EQ(*strict, *got) << label << road.name;
        }
    }
}

// Well-formed sequences at their bounds and every kind of ill-formed one.
const char* const kTrickyUtf8[] = {
    "\xC2\x80",
    "\xDF\xBF",
    "\xE0\xA0\x80",
    "\xEF\xBF\xBF",
    "\xED\x9F\xBF",
    "\xEE\x80\x80",
    "\xF0\x90\x80\x80",
    "\xF4\x8F\xBF\xBF",
    "\xF0\x9F\x98\x80",
    "\xC0\x80",
    "\xC1\xBF",
    "\xE0\x80\x80",
    "\xE0\x9F\xBF",
    "\xED\xA0\x80",
    "\xED\xBF\xBF",
    "\xF0\x80\x80\x80",
    "\xF0\x8F\xBF\xBF",
    "\xF4\x90\x80\x80",
    "\xF5\x80\x80\x80",
    "\xFF",
    "\xFE",
    "\x80",
    "\xBF\xBF",
    "\xE2\x82",
    "\xF0\x9F\x98",
    "\xF0\x9F",
    "\xC3",
    "\xE2",
    "\xC3\xC3\xA9",
    "\xE2\x82\xE2\x82\xAC",
    "\xF0\x9F\x98\xF0\x9F\x98\x80",
    "\xE2\x82\xAC\x80",
    "\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9",
};

TEST(CodepageUtf8Windows, TrickySequenceAtEveryOffsetMatchesModel) {
    for (const char* tricky : kTrickyUtf8) {
        for (size_t at = 0; at < 140; ++at) {
            std::string bytes(at, 'a');
            bytes += tricky;
            bytes += std::string(200, 'b');
            ExpectModelToWide(bytes, "offset " + std::to_string(at));
            // The same at the very end, where a cut sequence is truncated.
            std::string tail(at + 100, 'c');
            tail += tricky;
            ExpectModelToWide(tail, "at end after " + std::to_string(at + 100));
        }
    }
}

TEST(CodepageUtf8Windows, TrickySequenceAroundLongStretchesMatchesModel) {
    // Clean text is measured in stretches of some hundred bytes that end
    // before a byte that can start a character; put each sequence across
    // those ends and past them.
    for (const char* tricky : kTrickyUtf8) {
        for (size_t at = 500; at < 530; ++at) {
            std::string bytes(at, 'a');
            bytes += tricky;
            bytes += std::string(at, 'b');
            ExpectModelToWide(bytes, "offset " + std::to_string(at));
            for (size_t k = 0; k + 1 < at; k += 7) bytes[k] = '\xC3', bytes[k + 1] = '\xA9';
            ExpectModelToWide(bytes, "accented, offset " + std::to_string(at));
        }
    }
}

TEST(CodepageUtf8Windows, EveryLeadAndFollowingByteClassMeasuresAsModel) {
    // Every first byte with a byte of each class after it and a spread of
    // third and fourth bytes, placed around the window edges: the measuring
    // roads judge a window whole and must agree with the model on each.
    const uint8_t seconds[] = {0x00, 0x41, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0,
                               0xAF, 0xB0, 0xBF, 0xC0, 0xC2, 0xE0, 0xF0, 0xFF};
    const uint8_t laters[] = {0x41, 0x80, 0x90, 0xA0, 0xBF, 0xC3, 0xF0};
    const size_t offsets[] = {0, 29, 31, 59, 61, 62, 63};
    size_t round = 0;
    for (int first = 0x80; first < 0x100; ++first) {
        for (uint8_t second : seconds) {
            for (uint8_t third : laters) {
                for (uint8_t fourth : laters) {
                    std::string bytes(offsets[round++ % std::size(offsets)], 'a');
                    bytes += {static_cast<char>(first), static_cast<char>(second),
                              static_cast<char>(third), static_cast<char>(fourth)};
                    bytes += std::string(100, 'z');
                    int want = static_cast<int>(test::Utf8ToUtf16Model(bytes)->size());
                    bool strict_ok = test::Utf8ToUtf16Model(bytes, true).has_value();
                    int len = static_cast<int>(bytes.size());
                    for (const Road& road : kRoads) {
                        RoadScope scope(road);
                        ASSERT_EQ(MultiByteToWideChar(65001, 0, bytes.data(), len, nullptr, 0),
                                  want)
                            << std::hex << first << ' ' << +second << ' ' << +third << ' '
                            << +fourth << road.name;
                        ASSERT_EQ(MultiByteToWideChar(65001, kMbErrInvalidChars, bytes.data(), len,
                                                      nullptr, 0) != 0,
                                  strict_ok)
                            << std::hex << first << ' ' << +second << ' ' << +third << ' '
                            << +fourth << road.name;
                    }
                }
            }
        }
    }
}

TEST(CodepageUtf8Windows, DenseMultibyteTextMatchesModel) {
    // No ASCII at all, and every window boundary inside some character.
    // Runs of bytes that cannot start a sequence (F5..FF once wrote past the room).
    for (const char* ch :
         {"\xC3\xA9", "\xE6\x97\xA5", "\xF0\x9F\x98\x80", "\xFF", "\xF8", "\x80", "\xF0"}) {
        for (size_t lead = 0; lead < 4; ++lead) {
            std::string bytes(lead, 'x');
            for (int k = 0; k < 400; ++k) bytes += ch;
            ExpectModelToWide(bytes, std::string("dense after ") + std::to_string(lead));
        }
    }
}

TEST(CodepageUtf8Windows, RandomMixturesMatchModel) {
    std::mt19937 rng(20240611);
    std::vector<std::string> pieces(std::begin(kTrickyUtf8), std::end(kTrickyUtf8));
    for (const char* ok :
         {"\xC3\xA9", "\xE2\x82\xAC", "\xE6\x97\xA5", "\xED\x95\x9C", "\xF0\x9F\x98\x80", "\r\n"}) {
        for (int k = 0; k < 6; ++k) pieces.push_back(ok);  // mostly well-formed
    }
    for (int round = 0; round < 1500; ++round) {
        std::string bytes;
        size_t size = rng() % 700;
        bool clean = round % 3 == 0;  // some inputs with no ill-formed bytes at all
        while (bytes.size() < size) {
            unsigned r = rng() % 10;
            if (r < 6) {
                bytes += std::string(rng() % 40, static_cast<char>('a' + rng() % 26));
            } else {
                const std::string& p = pieces[rng() % pieces.size()];
                if (clean && test::Utf8ToUtf16Model(p, true) == std::nullopt) continue;
                bytes += p;
            }
        }
        if (bytes.empty()) continue;
        ExpectModelToWide(bytes, "round " + std::to_string(round));
    }
}

const std::u16string kTrickyUtf16[] = {
    u"\u0080",
    u"\u07FF",
    u"\u0800",
    u"\uFFFF",
    u"\uFFFD",
    u"\U0001F600",
    u"\U0010FFFF",
    u"\U00010000",
    {char16_t(0xD800)},
    {char16_t(0xDBFF)},
    {char16_t(0xDC00)},
    {char16_t(0xDFFF)},
    {char16_t(0xDC00), char16_t(0xD800)},
    {char16_t(0xD800), char16_t(0xD800), char16_t(0xDC00)},
    {char16_t(0xD83D), u'a', char16_t(0xDE00)},
    u"\u00E9\u00E9\u65E5\u65E5",
};

TEST(CodepageUtf8Windows, TrickyUnitsAtEveryOffsetMatchModel) {
    for (const std::u16string& tricky : kTrickyUtf16) {
        for (size_t at = 0; at < 80; ++at) {
            std::u16string text(at, u'a');
            text += tricky;
            text += std::u16string(120, u'b');
            ExpectModelToUtf8(text, "offset " + std::to_string(at));
            std::u16string tail(at + 64, u'c');
            tail += tricky;
            ExpectModelToUtf8(tail, "at end after " + std::to_string(at + 64));
        }
    }
}

TEST(CodepageUtf8Windows, RandomUnitsMatchModel) {
    std::mt19937 rng(77);
    const char16_t alphabet[] = {u'a',
                                 u' ',
                                 u'\r',
                                 u'\n',
                                 u'\u00E9',
                                 u'\u07FF',
                                 u'\u0800',
                                 u'\u20AC',
                                 u'\u65E5',
                                 u'\uFFFD',
                                 u'\uFFFF',
                                 char16_t(0xD83D),
                                 char16_t(0xDE00),
                                 char16_t(0xDBFF),
                                 char16_t(0xDFFF)};
    for (int round = 0; round < 1500; ++round) {
        std::u16string text;
        size_t size = 1 + rng() % 300;
        bool clean = round % 3 == 0;
        while (text.size() < size) {
            unsigned r = rng() % 20;
            if (r < 12) {
                text += std::u16string(rng() % 30, static_cast<char16_t>('a' + rng() % 26));
            } else if (clean && r < 14) {
                text += u"\U0001F600";
            } else {
                char16_t u = alphabet[rng() % std::size(alphabet)];
                if (clean && u >= 0xD800 && u <= 0xDFFF) continue;
                text += u;
            }
        }
        ExpectModelToUtf8(text, "round " + std::to_string(round));
    }
}

}  // namespace
}  // namespace kv::platform
