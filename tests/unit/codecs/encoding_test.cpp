// Transfer encodings: tables of input and expected output (broken input
// included), the documented edge cases, differential checks against the byte-at-a-time models
// in encoding_reference.h, and round trips over random binary data.
//
// None of these codecs keeps state between calls (the quoted-printable
// column restarts on every call), so "cut at every point" is checked where it
// has a meaning: appending base64 in pieces of whole lines, and decoding a
// window [start, end) against decoding a copy of that window.
#include "codecs/encoding.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "../support/text.h"
#include "encoding_reference.h"

namespace kv {
namespace {

using kv::testing::Bytes;
using kv::testing::Str;

using namespace std::string_literals;

std::string Base64(std::string_view in, bool wrap) {
    bstring out;
    EncodeBase64(out, in.data(), int32_t(in.size()), false, wrap);
    return Str(out);
}
std::string Unbase64(std::string_view in, int32_t start = 0, int32_t end = -1) {
    bstring src = Bytes(in), out;
    DecodeBase64(out, src, start, end);
    return Str(out);
}
std::string Qp(std::string_view in) {
    bstring out;
    EncodeQuotedPrintable(out, in.data(), int32_t(in.size()), false);
    return Str(out);
}
std::string Unqp(std::string_view in, bool underscore = false) {
    bstring src = Bytes(in), out;
    DecodeQuotedPrintable(out, src, underscore);
    return Str(out);
}
std::string Uudecode(std::string_view in) {
    bstring src = Bytes(in), out;
    DecodeUuencode(out, src);
    return Str(out);
}
std::string Wrap(std::string_view in) {
    bstring out;
    WrapBodyLines(out, in.data(), int32_t(in.size()), false);
    return Str(out);
}

std::string RandomBytes(std::mt19937& rng, size_t n) {
    std::string s(n, '\0');
    for (auto& c : s) c = char(rng());
    return s;
}
// Random text over an alphabet, so that the interesting bytes come often.
std::string RandomFrom(std::mt19937& rng, size_t n, std::string_view alphabet) {
    std::string s(n, '\0');
    for (auto& c : s) c = alphabet[rng() % alphabet.size()];
    return s;
}

// ---- base64 ------------------------------------------------------------------

TEST(EncodeBase64, Rfc4648Vectors) {
    struct Case {
        const char* in;
        const char* want;
    } cases[] = {{"", ""},
                 {"f", "Zg=="},
                 {"fo", "Zm8="},
                 {"foo", "Zm9v"},
                 {"foob", "Zm9vYg=="},
                 {"fooba", "Zm9vYmE="},
                 {"foobar", "Zm9vYmFy"},
                 {"\xFF\xFE\xFD", "//79"}};
    for (const auto& c : cases) {
        EXPECT_EQ(Base64(c.in, false), c.want) << c.in;
        EXPECT_EQ(Base64(c.in, true), c.want) << c.in;
    }
    EXPECT_EQ(Base64("\0\0\0"s, false), "AAAA");
}

TEST(EncodeBase64, WrapAfterEvery76thCharacterOfWholeGroups) {
    std::string b57(57, 'x'), b56(56, 'x'), b58(58, 'x');
    std::string out57 = Base64(b57, true);
    EXPECT_EQ(out57.size(), 78u);
    EXPECT_EQ(out57.substr(76), "\r\n");
    // 56 bytes: 76 characters, the last group padded, and no line break.
    std::string out56 = Base64(b56, true);
    EXPECT_EQ(out56.size(), 76u);
    EXPECT_EQ(out56.back(), '=');
    // 58 bytes: a full line, CRLF, and a last line of four characters.
    std::string out58 = Base64(b58, true);
    EXPECT_EQ(out58.size(), 82u);
    EXPECT_EQ(out58.substr(76, 2), "\r\n");
    EXPECT_EQ(out58.substr(78), "eA==");
    // Two whole lines end in CRLF each.
    std::string out114 = Base64(std::string(114, 'x'), true);
    EXPECT_EQ(out114.size(), 156u);
    EXPECT_EQ(out114.substr(154), "\r\n");
    // Without wrap there is never a line break.
    EXPECT_EQ(Base64(std::string(1000, 'x'), false).find('\r'), std::string::npos);
}

TEST(EncodeBase64, AppendWritesBehindAndEmptySourceLeavesDestination) {
    bstring out = Bytes("head:");
    EncodeBase64(out, "foo", 3, true, false);
    EXPECT_EQ(Str(out), "head:Zm9v");
    EncodeBase64(out, "", 0, true, true);
    EXPECT_EQ(Str(out), "head:Zm9v");
    EncodeBase64(out, nullptr, 5, true, true);
    EXPECT_EQ(Str(out), "head:Zm9v");
    EncodeBase64(out, "", 0, false, true);
    EXPECT_EQ(Str(out), "");
}

TEST(EncodeBase64, ReservesExactlyTheResult) {
    for (int n : {1, 2, 3, 56, 57, 58, 113, 114, 1000, 4096}) {
        bstring out;
        std::string in(size_t(n), 'q');
        EncodeBase64(out, in.data(), n, false, true);
        EXPECT_EQ(out.nCapacity, out.nSize) << n;
    }
}

TEST(EncodeBase64, SourceInsideDestination) {
    bstring out = Bytes("foobar");
    EncodeBase64(out, out.pData, out.nSize, true, false);
    EXPECT_EQ(Str(out), "foobarZm9vYmFy");
}

TEST(EncodeBase64, AppendingWholeLinesEqualsOneCall) {
    std::mt19937 rng(7);
    std::string data = RandomBytes(rng, 57 * 9 + 20);
    std::string whole = Base64(data, true);
    for (size_t cut = 0; cut <= data.size(); cut += 57) {
        bstring out;
        EncodeBase64(out, data.data(), int32_t(cut), false, true);
        EncodeBase64(out, data.data() + cut, int32_t(data.size() - cut), true, true);
        EXPECT_EQ(Str(out), whole) << cut;
    }
    std::string flat = Base64(data, false);
    for (size_t cut = 0; cut <= data.size(); cut += 3) {
        bstring out;
        EncodeBase64(out, data.data(), int32_t(cut), false, false);
        EncodeBase64(out, data.data() + cut, int32_t(data.size() - cut), true, false);
        EXPECT_EQ(Str(out), flat) << cut;
    }
}

TEST(DecodeBase64, Table) {
    struct Case {
        std::string in;
        std::string want;
    } cases[] = {
        {"", ""},
        {"Zm9vYmFy", "foobar"},
        {"Zm9vYmE=", "fooba"},
        {"Zm9vYg==", "foob"},
        // Padding does not end the text.
        {"QQ==QQ==", "AA"},
        {"Zg==Zm8=Zm9v", "ffofoo"},
        // Missing padding: as many virtual "=" as the remainder says.
        {"QQ", "A"},
        {"QUI", "AB"},
        {"Q", ""},
        {"QUJDRA", "ABCD"},
        // The first byte is written whatever the second place holds.
        {"Q===", "\x44"},
        {"====", "\x04"},
        // "=" in third place and a character in fourth: one byte.
        {"QQ=B", "A"},
        // Blanks, line breaks and stray bytes vanish anywhere.
        {"Zm9v\r\nYmFy", "foobar"},
        {" Z m 9 v Y m F y ", "foobar"},
        {"Zm9v\x80\xFF\x00YmFy"s, "foobar"},
        {"Zm9v!@#$%^&*()YmFy", "foobar"},
        {"TW Fu\r\nTWE=", "ManMa"},
        // The virtual padding counts raw positions, skipped bytes included:
        // five positions add one "=", four add none.
        {"QUI\r\n", "AB"},
        {"QUI\n", ""},
        // Only skipped bytes.
        {"\r\n\r\n", ""},
        {"-_.~", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Unbase64(c.in), c.want) << '"' << c.in << '"';
        EXPECT_EQ(Unbase64(c.in), reference::DecodeBase64(c.in)) << c.in;
    }
}

TEST(DecodeBase64, StartAndEndDecodeAServerReplyInPlace) {
    std::string reply = "334 VXNlcm5hbWU6\r\n";
    EXPECT_EQ(Unbase64(reply, 4, int32_t(reply.size()) - 2), "Username:");
    EXPECT_EQ(Unbase64("Zm9vYmFy", 0, -1), "foobar");
    EXPECT_EQ(Unbase64("Zm9vYmFy", 0, 1000), "foobar");
    EXPECT_EQ(Unbase64("Zm9vYmFy", 4, 4), "");
    EXPECT_EQ(Unbase64("Zm9vYmFy", 6, 2), "");
    EXPECT_EQ(Unbase64("Zm9vYmFy", -3, 4), "foo");
    EXPECT_EQ(Unbase64("Zm9vYmFy", 4, 6), "b");  // "Ym" + two virtual "="
}

TEST(DecodeBase64, DestinationMayBeTheSource) {
    bstring s = Bytes("  Zm9vYmFy\r\n");
    DecodeBase64(s, s, 0, -1);
    EXPECT_EQ(Str(s), "foobar");
    bstring owner = Bytes("Zm9vYmFy"), view;
    view.borrow(owner);
    DecodeBase64(owner, view, 0, -1);
    EXPECT_EQ(Str(owner), "foobar");
}

TEST(DecodeBase64, ReservesTheLimitMinusStart) {
    bstring src = Bytes("QUI"), out;
    DecodeBase64(out, src);
    EXPECT_EQ(out.nCapacity, 6);  // three positions plus three virtual "="
    EXPECT_EQ(Str(out), "AB");
}

TEST(DecodeBase64, EveryWindowEqualsDecodingACopyOfIt) {
    std::string text = "Zm9v YmFy\r\nQUJD\r\n==x=QQ==Zg";
    for (int32_t start = 0; start <= int32_t(text.size()); ++start) {
        for (int32_t end = start; end <= int32_t(text.size()); ++end) {
            std::string window = text.substr(size_t(start), size_t(end - start));
            EXPECT_EQ(Unbase64(text, start, end), Unbase64(window)) << start << ' ' << end;
        }
    }
}

TEST(DecodeBase64, MatchesTheModelOnRandomBrokenText) {
    std::mt19937 rng(11);
    for (int round = 0; round < 3000; ++round) {
        size_t n = rng() % 200;
        std::string text = RandomFrom(rng, n, "ABCDEFabcxyz0189+/=== \r\n\t.-\x80\xFF");
        if (round % 3 == 0) text = RandomFrom(rng, n, "QWERTYuiop0123456789+/");
        int32_t start = int32_t(rng() % (n + 2)) - 1;
        int32_t end = int32_t(rng() % (n + 3)) - 1;
        bstring src = Bytes(text), out;
        DecodeBase64(out, src, start, end);
        ASSERT_EQ(Str(out), reference::DecodeBase64(text, start, end))
            << text << " start " << start << " end " << end;
    }
}

TEST(DecodeBase64, StrayByteAtEveryPlaceOfWrappedLines) {
    std::mt19937 rng(29);
    std::string text = Base64(RandomBytes(rng, 300), true);
    for (size_t at = 0; at <= text.size(); ++at) {
        for (const char* stray : {"!", "=", "\n", "\r", "==", "A", "\r\n"}) {
            std::string broken = text.substr(0, at) + stray + text.substr(at);
            ASSERT_EQ(Unbase64(broken), reference::DecodeBase64(broken)) << at << ' ' << stray;
        }
    }
    // Lines of other lengths than 76.
    for (size_t width : {4u, 60u, 64u, 72u, 80u}) {
        std::string flat = Base64(RandomBytes(rng, 500), false), lines;
        for (size_t k = 0; k < flat.size(); k += width) lines += flat.substr(k, width) + "\r\n";
        ASSERT_EQ(Unbase64(lines), reference::DecodeBase64(lines)) << width;
        ASSERT_EQ(Unbase64(lines), Unbase64(flat)) << width;
    }
}

TEST(Base64, RoundTripsRandomBinaryData) {
    std::mt19937 rng(3);
    for (int round = 0; round < 400; ++round) {
        size_t n = round < 200 ? size_t(round) : rng() % 20000;
        std::string data = RandomBytes(rng, n);
        for (bool wrap : {false, true}) {
            std::string text = Base64(data, wrap);
            ASSERT_EQ(text, reference::EncodeBase64(data, wrap)) << n;
            ASSERT_EQ(Unbase64(text), data) << n << " wrap " << wrap;
        }
    }
}

TEST(Base64, TwoTextsLaidEndToEndDecodeToBoth) {
    std::string a = Base64("first part", true), b = Base64("second", true);
    EXPECT_EQ(Unbase64(a + b), "first partsecond");
    EXPECT_EQ(Unbase64(a + "\r\n" + b), "first partsecond");
}

// ---- quoted-printable ------------------------------------------------------------

TEST(EncodeQuotedPrintable, Table) {
    struct Case {
        std::string in;
        std::string want;
    } cases[] = {
        {"", ""},
        {"hello", "hello"},
        {"a b \r\nc", "a b=20\r\nc"},
        {"a ", "a=20"},
        {"a\t", "a=09"},
        {"a\t\r\n", "a=09\r\n"},
        {"a  b", "a  b"},
        {"?", "=3F"},
        {"_", "=5F"},
        {"=", "=3D"},
        {"\x80", "=80"},
        {"\xFF\x7F", "=FF=7F"},
        {"\0"s, "=00"},
        // Only CR LF survives as a line break.
        {"a\rb", "a=0Db"},
        {"a\nb", "a=0Ab"},
        {"a\n\r", "a=0A=0D"},
        {"\r\r\n", "=0D\r\n"},
        {"\r\n\r\n", "\r\n\r\n"},
        {"<>@~!", "<>@~!"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Qp(c.in), c.want) << '"' << c.in << '"';
        EXPECT_EQ(Qp(c.in), reference::EncodeQuotedPrintable(c.in)) << c.in;
    }
}

TEST(EncodeQuotedPrintable, LongLinesGetSoftBreaks) {
    std::string l75(75, 'L'), l73(73, 'L'), l74(74, 'L');
    // A run of 200 letters: lines of 75 letters and "=".
    EXPECT_EQ(Qp(std::string(200, 'L')), l75 + "=\r\n" + l75 + "=\r\n" + std::string(50, 'L'));
    // A literal at column 75 that ends the input gets no soft break.
    EXPECT_EQ(Qp(std::string(76, 'L')), std::string(76, 'L'));
    EXPECT_EQ(Qp(std::string(76, 'L') + "\r\nx"), std::string(76, 'L') + "\r\nx");
    // A triplet past column 72 breaks first unless it ends the line.
    EXPECT_EQ(Qp(l73 + "?b"), l73 + "=\r\n=3Fb");
    EXPECT_EQ(Qp(l73 + "?"), l73 + "=3F");
    // ... so a line ending in a triplet can reach 78 characters.
    EXPECT_EQ(Qp(l75 + "?"), l75 + "=3F");
    EXPECT_EQ(Qp(l75 + "?\r\nx"), l75 + "=3F\r\nx");
    // A blank that ends the line at column 75 breaks; at 74 it does not.
    EXPECT_EQ(Qp(l75 + " "), l75 + "=\r\n=20");
    EXPECT_EQ(Qp(l74 + " "), l74 + "=20");
    EXPECT_EQ(Qp(l75 + "\t\r\n"), l75 + "=\r\n=09\r\n");
    // A blank in the middle of a line is literal and counts one.
    EXPECT_EQ(Qp(l74 + " bc"), l74 + " =\r\nbc");
    EXPECT_EQ(Qp(l74 + " b"), l74 + " b");
    // After a soft break before a triplet the column is 3.
    std::string after = Qp(l73 + "?" + std::string(80, 'x'));
    EXPECT_EQ(after, l73 + "=\r\n=3F" + std::string(72, 'x') + "=\r\n" + std::string(8, 'x'));
}

TEST(EncodeQuotedPrintable, AppendRestartsTheColumnAndEmptyLeavesDestination) {
    bstring out = Bytes(std::string(70, 'h'));
    EncodeQuotedPrintable(out, "abcdefghij", 10, true);
    EXPECT_EQ(Str(out), std::string(70, 'h') + "abcdefghij");
    EncodeQuotedPrintable(out, "", 0, true);
    EXPECT_EQ(out.nSize, 80);
    EncodeQuotedPrintable(out, "", 0, false);
    EXPECT_EQ(out.nSize, 0);
}

TEST(EncodeQuotedPrintable, GrowsPastItsFirstFigure) {
    // Every byte a triplet: three times the source, twice the first figure.
    std::string in(1000, '\x01');
    std::string got = Qp(in);
    EXPECT_EQ(got, reference::EncodeQuotedPrintable(in));
    bstring out = Bytes("x");
    EncodeQuotedPrintable(out, in.data(), 1, true);
    EXPECT_EQ(Str(out), "x=01");
}

TEST(EncodeQuotedPrintable, MatchesTheModelOnRandomText) {
    std::mt19937 rng(5);
    for (int round = 0; round < 3000; ++round) {
        size_t n = rng() % 400;
        std::string text;
        switch (round % 4) {
            case 0:
                text = RandomFrom(rng, n, "abcdefgh  \t\r\n=?_\x80\xE9");
                break;
            case 1:
                text = RandomFrom(rng, n, "abcdefghijklmnopqrstuvwxyz \r\n");
                break;
            case 2:
                text = RandomFrom(rng, n, "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa \t\r\n\xFF");
                break;
            default:
                text = RandomBytes(rng, n);
        }
        ASSERT_EQ(Qp(text), reference::EncodeQuotedPrintable(text)) << round;
    }
}

TEST(DecodeQuotedPrintable, Table) {
    struct Case {
        std::string in;
        std::string want;
    } cases[] = {
        {"", ""},
        {"plain text", "plain text"},
        {"a=3Db", "a=b"},
        {"a=3db", "a=b"},
        {"=C3=A9t=C3=A9", "\xC3\xA9t\xC3\xA9"},
        // The soft break.
        {"a=\r\nb", "ab"},
        // Two bytes that spell no byte vanish with the "=".
        {"a=ZZb", "ab"},
        {"a= bc", "ac"},
        {"a=\nbc", "ac"},  // a bare LF soft break takes the next byte along
        {"a=4G", "a"},
        {"==41", "1"},
        // "=" at the end, or with one byte behind it.
        {"a=", "a"},
        {"a=4", "a4"},
        {"=", ""},
        // Blanks before a line end are kept; underscores stay without the flag.
        {"a  \r\nb", "a  \r\nb"},
        {"a_b", "a_b"},
        {"=00=FF", "\0\xFF"s},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Unqp(c.in), c.want) << '"' << c.in << '"';
        EXPECT_EQ(Unqp(c.in), reference::DecodeQuotedPrintable(c.in, false)) << c.in;
    }
}

TEST(DecodeQuotedPrintable, UnderscoreIsBlankChangesTheSourceInPlace) {
    bstring src = Bytes("Caf=C3=A9_au_lait"), out;
    DecodeQuotedPrintable(out, src, true);
    EXPECT_EQ(Str(out), "Caf\xC3\xA9 au lait");
    EXPECT_EQ(Str(src), "Caf=C3=A9 au lait");
    // "=5F" still gives an underscore: only literal ones are blanks.
    EXPECT_EQ(Unqp("a=5Fb_c", true), "a_b c");
}

TEST(DecodeQuotedPrintable, DestinationMayBeTheSource) {
    bstring s = Bytes("a=3Db=\r\nc");
    DecodeQuotedPrintable(s, s, false);
    EXPECT_EQ(Str(s), "a=bc");
}

TEST(DecodeQuotedPrintable, MatchesTheModelOnRandomBrokenText) {
    std::mt19937 rng(9);
    for (int round = 0; round < 3000; ++round) {
        size_t n = rng() % 300;
        std::string text = round % 2 ? RandomFrom(rng, n, "==0123456789ABCDEFabcdefgz_ \r\n\t")
                                     : RandomFrom(rng, n, "abcdefghijklmnop=3D\r\n");
        bool underscore = round % 3 == 0;
        ASSERT_EQ(Unqp(text, underscore), reference::DecodeQuotedPrintable(text, underscore))
            << text;
    }
}

TEST(QuotedPrintable, RoundTripsRandomBinaryData) {
    std::mt19937 rng(13);
    for (int round = 0; round < 400; ++round) {
        size_t n = round < 200 ? size_t(round) : rng() % 20000;
        std::string data = round % 2 ? RandomBytes(rng, n)
                                     : RandomFrom(rng, n, "The quick brown fox \r\n\xE9\t=?_.");
        ASSERT_EQ(Unqp(Qp(data)), data) << n;
    }
}

// ---- uuencode --------------------------------------------------------------------

// A plain uuencoder for the round trips: lines of up to 45 bytes, grave
// accent for zero.
std::string Uuencode(std::string_view data) {
    auto ch = [](unsigned v) { return char(v ? v + 32 : 96); };
    std::string out = "begin 644 data.bin\r\n";
    for (size_t i = 0; i < data.size(); i += 45) {
        size_t n = std::min<size_t>(45, data.size() - i);
        out += ch(unsigned(n));
        for (size_t k = 0; k < n; k += 3) {
            uint8_t a = uint8_t(data[i + k]);
            uint8_t b = k + 1 < n ? uint8_t(data[i + k + 1]) : 0;
            uint8_t c = k + 2 < n ? uint8_t(data[i + k + 2]) : 0;
            out += ch(a >> 2);
            out += ch(((a & 3) << 4) | (b >> 4));
            out += ch(((b & 15) << 2) | (c >> 6));
            out += ch(c & 63);
        }
        out += "\r\n";
    }
    out += "`\r\nend\r\n";
    return out;
}

TEST(DecodeUuencode, Table) {
    struct Case {
        std::string in;
        std::string want;
    } cases[] = {
        {"", ""},
        {"#0V%T", "Cat"},
        {"begin 644 cat.txt\r\n#0V%T\r\n`\r\nend\r\n", "Cat"},
        // Empty lines are passed over; a bare LF ends no line.
        {"\r\n\r\n#0V%T\r\n\r\n", "Cat"},
        {"#0V%T\nxx", "Cat"},
        // Grave accents count as blanks (zero).
        {"#````", "\0\0\0"s},
        {"#    ", "\0\0\0"s},
        // Short lines are completed with blanks.
        {"\"0V%", "Ca"},
        {"!0", "\x40"},
        // The count cuts the last group.
        {"!0V%T", "C"},
        {"\"0V%T", "Ca"},
        // A count beyond the characters: the bytes nobody wrote are zeros.
        {"&0V%T", "Cat\0\0\0"s},
        {"M", std::string(45, '\0')},
        // Count zero decodes nothing.
        {" 0V%T", ""},
        // Lines whose first byte is 96 or above are ignored, 8-bit ones too.
        {"`0V%T\r\na0V%T\r\n\x80\x30V%T\r\n#0V%T", "Cat"},
        // A first byte below 32: the position moves back by the count and the
        // next line overwrites.
        {"&0V%T0V%T\r\n\x1d\r\n#9&]G", "Catdog"},
        {"#0V%T\r\n\x1d\r\n#9&]G", "dog"},
        // ... never before the start.
        {"#0V%T\r\n\x01\r\n#9&]G", "dog"},
        {"\x01\r\n\x01\r\n#0V%T", "Cat"},
        {"\x05xyz", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Uudecode(c.in), c.want) << '"' << c.in << '"';
        EXPECT_EQ(Uudecode(c.in), reference::DecodeUuencode(c.in)) << c.in;
    }
}

TEST(DecodeUuencode, OutputMayOutgrowTheSource) {
    // Lines of a count byte alone each move the position by 63.
    std::string in;
    for (int i = 0; i < 100; ++i) in += "_\r\n";
    std::string got = Uudecode(in);
    EXPECT_EQ(got, std::string(6300, '\0'));
}

TEST(DecodeUuencode, DestinationMayBeTheSource) {
    bstring s = Bytes("begin 644 x\r\n#0V%T\r\nend\r\n");
    DecodeUuencode(s, s);
    EXPECT_EQ(Str(s), "Cat");
}

TEST(DecodeUuencode, RoundTripsRandomBinaryData) {
    std::mt19937 rng(17);
    for (int round = 0; round < 300; ++round) {
        size_t n = round < 150 ? size_t(round) : rng() % 20000;
        std::string data = RandomBytes(rng, n);
        ASSERT_EQ(Uudecode(Uuencode(data)), data) << n;
    }
}

TEST(DecodeUuencode, MatchesTheModelOnRandomBrokenText) {
    std::mt19937 rng(19);
    for (int round = 0; round < 3000; ++round) {
        size_t n = rng() % 300;
        std::string text = RandomFrom(rng, n, "!\"#&M_` 0V%T9]G\r\n\r\n\x01\x1f\x80\n");
        ASSERT_EQ(Uudecode(text), reference::DecodeUuencode(text)) << round;
    }
}

// ---- line wrapping ---------------------------------------------------------------

TEST(WrapBodyLines, Table) {
    std::string l100(100, 'w');
    std::string b80(80, 'w');
    b80[40] = b80[60] = ' ';
    std::string b20(100, 'w');
    b20[20] = ' ';
    std::string h90(90, 'w');
    h90[50] = '-';
    std::string t90(90, 'w');
    t90[39] = '\t';
    std::string b76(90, 'w');
    b76[76] = ' ';
    b76[50] = ' ';
    struct Case {
        std::string in;
        std::string want;
    } cases[] = {
        {"", ""},
        {"short line\r\nanother\r\n", "short line\r\nanother\r\n"},
        {l100, std::string(76, 'w') + "\r\n" + std::string(24, 'w')},
        {b80, b80.substr(0, 61) + "\r\n" + b80.substr(61)},
        {b20, b20.substr(0, 76) + "\r\n" + b20.substr(76)},
        {h90, h90.substr(0, 51) + "\r\n" + h90.substr(51)},
        {t90, t90.substr(0, 40) + "\r\n" + t90.substr(40)},
        // A blank at index 76 ends the line, kept at its end.
        {b76, b76.substr(0, 77) + "\r\n" + b76.substr(77)},
        // Lines of up to 76 bytes pass unchanged, with or without CRLF.
        {std::string(76, 'w'), std::string(76, 'w')},
        {std::string(76, 'w') + "\r\nnext", std::string(76, 'w') + "\r\nnext"},
        {std::string(77, 'w'), std::string(76, 'w') + "\r\nw"},
        // A CR without LF is an ordinary byte.
        {std::string(10, 'w') + "\r" + std::string(80, 'w'),
         std::string(10, 'w') + "\r" + std::string(65, 'w') + "\r\n" + std::string(15, 'w')},
        // No byte is changed: 8-bit data and NULs pass.
        {"\0\xFF\x80 data"s, "\0\xFF\x80 data"s},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Wrap(c.in), c.want) << '"' << c.in << '"';
        EXPECT_EQ(Wrap(c.in), reference::WrapBodyLines(c.in)) << c.in;
    }
}

TEST(WrapBodyLines, AppendAndEmptySource) {
    bstring out = Bytes("kept");
    WrapBodyLines(out, "", 0, true);
    EXPECT_EQ(Str(out), "kept");
    WrapBodyLines(out, "more", 4, true);
    EXPECT_EQ(Str(out), "keptmore");
    WrapBodyLines(out, "", 0, false);
    EXPECT_EQ(Str(out), "");
}

TEST(WrapBodyLines, MatchesTheModelOnRandomText) {
    std::mt19937 rng(23);
    for (int round = 0; round < 3000; ++round) {
        size_t n = rng() % 600;
        std::string text = round % 2 ? RandomFrom(rng, n, "abcdefghijklmnopqrstuvwxyz")
                                     : RandomFrom(rng, n, "abcdefghijklmnop- \t\r\n");
        if (round % 5 == 0) text = RandomFrom(rng, n, std::string(60, 'x') + " \r\n");
        ASSERT_EQ(Wrap(text), reference::WrapBodyLines(text)) << text;
    }
}

// ---- the body dispatcher -----------------------------------------------------------

TEST(EncodeBody, ConvertsThenEncodesByValue) {
    wbstring text(u"h\u00E9llo");
    bstring out;
    EncodeBody(out, text, kEncodingQuotedPrintable, false, 65001);
    EXPECT_EQ(Str(out), "h=C3=A9llo");
    EncodeBody(out, text, kEncodingQuotedPrintable, false, 28591);
    EXPECT_EQ(Str(out), "h=E9llo");
    EncodeBody(out, text, kEncodingBase64, false, 65001);
    EXPECT_EQ(Str(out), Base64("h\xC3\xA9llo", true));
    for (int32_t value : {0, 1, 7, -1}) {
        EncodeBody(out, text, value, false, 65001);
        EXPECT_EQ(Str(out), "h\xC3\xA9llo") << value;
    }
    // Base64 bodies break their lines; append writes behind.
    wbstring longer(std::u16string(60, u'a').c_str());
    bstring body = Bytes("--\r\n");
    EncodeBody(body, longer, kEncodingBase64, true, -1);
    EXPECT_EQ(Str(body), "--\r\n" + Base64(std::string(60, 'a'), true));
    EXPECT_NE(Str(body).find("\r\n", 4), std::string::npos);
}

TEST(QuotedPrintableSafeSet, IsTheSpecsSet) {
    std::string safe;
    for (int c = 0; c < 256; ++c)
        if (IsQuotedPrintableSafe(uint8_t(c))) safe += char(c);
    std::string want;
    for (int c = 33; c <= 60; ++c) want += char(c);
    want += '>';
    for (int c = 64; c <= 126; ++c)
        if (c != 95) want += char(c);
    EXPECT_EQ(safe, want);
    char out[3];
    WriteQuotedTriplet(out, 0xAB);
    EXPECT_EQ(std::string(out, 3), "=AB");
}

}  // namespace
}  // namespace kv
