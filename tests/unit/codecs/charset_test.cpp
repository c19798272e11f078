#include "codecs/charset.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "../support/text.h"
#include "../support/trace_capture.h"
#include "foundation/trace.h"

namespace kv {
namespace {

using kv::testing::Bytes;
using kv::testing::Str;
using kv::testing::Wide;

namespace fs = std::filesystem;

std::u16string Ascii16(const std::string& s) { return std::u16string(s.begin(), s.end()); }

std::vector<std::string> Strs(const bstring_vector& v) {
    std::vector<std::string> out;
    for (const bstring& b : v) out.push_back(Str(b));
    return out;
}

// Points the trace at a private directory and reads back the text of each line.
class CharsetTraceTest : public kv::testing::TraceCapture {};

// ---- LookupCodepage ----------------------------------------------------------

TEST(LookupCodepageTest, NamesAliasesFallbacksAndLimits) {
    struct Case {
        std::string name;
        int32_t codepage;
    };
    const Case cases[] = {
        {"", -1},
        {"utf-8", 65001},
        {"LATIN1", 28591},  // through its alias
        // Fallback table, any case.
        {"ISO-8859-13", 1257},
        {"iso-8859-15", 28605},
        {"tis-620", 874},
        {"ISO-8859-11", 874},
        {"KOI8-U", 21866},
        {"koi8-ru", 21866},
        {"gb18030", 54936},
        {"iso-8859-16x", -1},
        {"no-such-charset", -1},
        {std::string("utf-8\0junk", 10), 65001},
        {std::string("tis-620\0junk", 12), 874},
        {std::string("\0utf-8", 6), -1},
        {std::string(237, 'x'), -1},
        // 237 bytes is the longest name that is looked up at all.
        {std::string(236, ' ') + "x", -1},
        {std::string(238, 'x'), -1},
        {std::string(300, 'a'), -1},
    };
    for (const Case& c : cases)
        EXPECT_EQ(LookupCodepage(Bytes(c.name)), c.codepage) << c.name.size() << ":" << c.name;
}

TEST_F(CharsetTraceTest, MissingKeyTracesThePathThenTheFallbackLine) {
    EXPECT_EQ(LookupCodepage(bstring("tis-620")), 874);
    EXPECT_EQ(LookupCodepage(bstring("koi8-u")), 21866);
    EXPECT_EQ(LookupCodepage(bstring("x-unknown")), -1);
    EXPECT_EQ(LookupCodepage(bstring("utf-8")), 65001);
    EXPECT_EQ(LookupCodepage(bstring("")), -1);
    EXPECT_EQ(LookupCodepage(bstring(std::string(238, 'x').c_str())), -1);
    const std::vector<std::string> expected = {
        "RegOpenKeyEx failed to locate charset info at HKEY_CLASSES_ROOT\\MIME\\Database\\Charset\\"
        "tis-620 and returned error code=2",
        "TIS-620/iso-8859-11 codepage is 874",
        "RegOpenKeyEx failed to locate charset info at HKEY_CLASSES_ROOT\\MIME\\Database\\Charset\\"
        "koi8-u and returned error code=2",
        "koi8-ru/koi8-u codepage is 21866",
        "RegOpenKeyEx failed to locate charset info at HKEY_CLASSES_ROOT\\MIME\\Database\\Charset\\"
        "x-unknown and returned error code=2",
    };
    EXPECT_EQ(Lines(), expected);

    for (const char* name : {"ISO-8859-13", "iso-8859-15", "GB18030", "iso-8859-11", "KOI8-RU"})
        LookupCodepage(bstring(name));
    std::vector<std::string> lines = Lines();
    ASSERT_EQ(lines.size(), 10u);
    EXPECT_EQ(lines[1], "ISO-8859-13 codepage is 1257");
    EXPECT_EQ(lines[3], "ISO-8859-15 codepage is 28605");
    EXPECT_EQ(lines[5], "GB18030 codepage is 54936");
    EXPECT_EQ(lines[7], "TIS-620/iso-8859-11 codepage is 874");
    EXPECT_EQ(lines[9], "koi8-ru/koi8-u codepage is 21866");
}

TEST_F(CharsetTraceTest, KeysWithoutValuesAndDanglingAliases) {
    const platform::CharsetRecord records[] = {
        {"koi8-u", 0, nullptr},           // a key with neither value
        {"GB18030", 0, "gb-missing"},     // an alias to no key
        {"tis-620", 0, "thai"},           // a chain of aliases
        {"thai", 0, "windows-874"},
        {"windows-874", 874, nullptr},
        {"loop-a", 0, "loop-b"},
        {"loop-b", 0, "loop-a"},
        {"to-empty", 0, "koi8-u"},
    };
    platform::CharsetDatabase db(records, sizeof(records) / sizeof(records[0]));
    EXPECT_EQ(LookupCodepage(bstring("koi8-u"), db), -1);
    EXPECT_EQ(LookupCodepage(bstring("to-empty"), db), -1);
    EXPECT_TRUE(Lines().empty()) << "an empty key is not a missing key";

    // The fallback compares the name first asked for; the trace names the alias.
    EXPECT_EQ(LookupCodepage(bstring("gb18030"), db), 54936);
    EXPECT_EQ(Lines(), (std::vector<std::string>{
                           "RegOpenKeyEx failed to locate charset info at "
                           "HKEY_CLASSES_ROOT\\MIME\\Database\\Charset\\gb-missing and returned "
                           "error code=2",
                           "GB18030 codepage is 54936"}));

    EXPECT_EQ(LookupCodepage(bstring("TIS-620"), db), 874);
    EXPECT_TRUE(Lines().empty());
    EXPECT_EQ(LookupCodepage(bstring("loop-a"), db), -1);
}

// ---- ConvertCodepage -----------------------------------------------------------

TEST(ConvertCodepageTest, Table) {
    struct Case {
        std::string src;
        int32_t from, to;
        std::string expected;
    };
    const Case cases[] = {
        // 1252 keeps its bytes unless the destination is UTF-8 or UTF-7.
        {"caf\xe9", 1252, 1251, "caf\xe9"},
        {"caf\xe9", 1252, 932, "caf\xe9"},
        {"caf\xe9", 1252, 65001, "caf\xc3\xa9"},
        {"caf\xe9", 1252, 65000, "caf+AOk-"},
        {"\x80", 1252, 65001, "\xe2\x82\xac"},
        // Unknown or equal code pages copy.
        {std::string("\xff\x00\x80", 3), -1, 65001, std::string("\xff\x00\x80", 3)},
        {"\xc3", 65001, 65001, "\xc3"},
        {"\xe9", 28591, 28591, "\xe9"},
        // Other negative numbers are the default code page.
        {"\xe9", -2, 65001, "\xc3\xa9"},
        {"\xc3\xa9", 65001, -7, "\xe9"},
        {"\xc3\xa9", 65001, 0, "\xe9"},
        // Real conversions.
        {"\xd0\x96", 65001, 1251, "\xc6"},
        {"\xc6", 1251, 65001, "\xd0\x96"},
        {"\xc6", 1251, 20866, "\xf6"},
        {"\x82\xa0", 932, 65001, "\xe3\x81\x82"},
        {"\xe3\x81\x82", 65001, 932, "\x82\xa0"},
        {"\xd0\x96", 65001, 1252, "?"},  // unmappable: the default character
        {"\xff", 65001, 1252, "?"},        // invalid UTF-8 becomes U+FFFD first
        // UTF-16LE, with and without the byte-order mark, and an odd byte.
        {std::string("h\0i\0", 4), 1200, 65001, "hi"},
        {std::string("\xff\xfeh\0i\0", 6), 1200, 65001, "hi"},
        {std::string("\xff\xfeh\0i\0!", 7), 1200, 65001, "hi"},
        {std::string("\x3d\xd8\x00\xde", 4), 1200, 65001, "\xf0\x9f\x98\x80"},
        {"hi", 65001, 1200, std::string("h\0i\0", 4)},
        // Nothing to convert: the source stays.
        {"", 65001, 1252, ""},
        {"\xff\xfe", 1200, 65001, "\xff\xfe"},
        {"x", 1200, 65001, "x"},
        // A code page nobody knows keeps the source.
        {"abc\xe9", 12345, 65001, "abc\xe9"},
        {"abc", 65001, 12345, "abc"},
    };
    for (const Case& c : cases) {
        bstring dest("stale");
        ConvertCodepage(dest, Bytes(c.src), c.from, c.to);
        EXPECT_EQ(Str(dest), c.expected) << c.from << "->" << c.to << " [" << c.src << "]";
        // In place gives the same.
        bstring same = Bytes(c.src);
        ConvertCodepage(same, same, c.from, c.to);
        EXPECT_EQ(Str(same), c.expected) << "in place " << c.from << "->" << c.to;
    }
}

TEST(ConvertCodepageTest, SourceMayBeAView) {
    std::string owner = "xx\xd0\x96yy";
    bstring view;
    view.borrow(owner.data() + 2, 2);
    bstring dest;
    ConvertCodepage(dest, view, 65001, 1251);
    EXPECT_EQ(Str(dest), "\xc6");
    ConvertCodepage(view, view, 65001, 1251);
    EXPECT_EQ(Str(view), "\xc6");
    EXPECT_EQ(owner, "xx\xd0\x96yy") << "a view's owner is never written";
}

TEST_F(CharsetTraceTest, FailedDecodeTracesTheCodepageAndError) {
    bstring dest;
    ConvertCodepage(dest, bstring("abc"), 12345, 65001);
    ConvertCodepage(dest, bstring("abc"), 65001, 12345);  // fails on the way out: no line
    std::vector<std::string> lines = Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "MultiByteToWideChar failed for codepage=12345 with GetLastError()=87");
}

TEST(DetectUnicodeBomTest, Table) {
    struct Case {
        std::string bytes;
        int32_t codepage, expected;
    };
    const Case cases[] = {
        {"\xff\xfe", 65001, 1200}, {"\xff\xfeZ", -1, 1200}, {"\xfe\xff", 65001, 65001},
        {"\xff", 28591, 28591},    {"", 932, 932},          {"\xef\xbb\xbf", 1252, 1252},
    };
    for (const Case& c : cases) EXPECT_EQ(DetectUnicodeBom(Bytes(c.bytes), c.codepage), c.expected);
}

// ---- TokenizeTagAttributes and GetTagAttribute -----------------------------------

struct TokenCase {
    std::string tag;
    std::vector<std::string> tokens;
};

const TokenCase kTokenCases[] = {
    {"a b=c d=\"e f\" g", {"a", "", "b", "=c", "d", "=e f"}},
    {"a=b", {"a"}},
    {"ab=cd", {"ab", "=cd"}},
    {"meta charset='koi8-r'", {"meta", "", "charset", "=koi8-r"}},
    {"img src = \"x.gif\"  alt=''", {"img", "", "src", "=x.gif", "alt", "="}},
    {"p  class=x  hidden  ", {"p", "", "class", "=x", "hidden"}},
    {"input disabled checked", {"input", "", "disabled", "", "checked"}},
    {"input disabled c", {"input", "", "disabled"}},
    {"input disabled c ", {"input", "", "disabled", "", "c"}},
    {"a='x\"y' b=\"p'q\"", {"a", "=x\"y", "b", "=p'q"}},
    {"a='unterminated", {"a"}},
    {"a==b c", {"a", "=b"}},
    {"=x y", {"=x"}},
    {"a\tb\r\nc\fd=e", {"a", "", "b", "", "c", "", "d"}},
    {"", {}},
    {" ", {}},
    {"x", {}},
    {"xy", {"xy"}},
    {"'q'", {"q"}},
};

TEST(TokenizeTagAttributesTest, Table) {
    for (const TokenCase& c : kTokenCases) {
        bstring_vector tokens{bstring("left over")};
        TokenizeTagAttributes(Bytes(c.tag), tokens);
        EXPECT_EQ(Strs(tokens), c.tokens) << c.tag;
    }
}

TEST(TokenizeTagAttributesTest, WideFormFollowsTheSameRules) {
    for (const TokenCase& c : kTokenCases) {
        wbstring_vector tokens;
        TokenizeTagAttributes(Wide(Ascii16(c.tag)), tokens);
        ASSERT_EQ(tokens.size(), c.tokens.size()) << c.tag;
        for (size_t i = 0; i < tokens.size(); ++i) EXPECT_EQ(Str(tokens[i]), Ascii16(c.tokens[i]));
    }
    wbstring_vector tokens;
    TokenizeTagAttributes(Wide(u"meta name=\u0416\u0416 x"), tokens);
    ASSERT_EQ(tokens.size(), 4u);
    EXPECT_EQ(Str(tokens[3]), u"=\u0416\u0416");
}

TEST(GetTagAttributeTest, Table) {
    bstring_vector tokens;
    TokenizeTagAttributes(bstring("img SRC=\"a.gif\" alt=x border width=\"\" =z y"), tokens);
    struct Case {
        const char* name;
        const char* expected;
    };
    const Case cases[] = {
        {"src", "a.gif"},  {"SRC", "a.gif"}, {"alt", "x"},  {"border", ""}, {"width", ""},
        {"img", ""},       {"missing", ""},  {"=x", "order"},  // values are names too
        {"=z", ""},  // the last entry has nothing behind it
    };
    for (const Case& c : cases) {
        bstring result("stale");
        EXPECT_EQ(Str(GetTagAttribute(tokens, c.name, result)), c.expected) << c.name;
    }
    wbstring_vector wide;
    TokenizeTagAttributes(Wide(u"a HREF='\u0416.html' b"), wide);
    wbstring result;
    EXPECT_EQ(Str(GetTagAttribute(wide, u"href", result)), u"\u0416.html");
    EXPECT_EQ(Str(GetTagAttribute(wide, u"nothing", result)), u"");
}

// ---- FindMetaCharset and RemoveMetaCharset -----------------------------------

TEST(FindMetaCharsetTest, Table) {
    struct Case {
        std::string html;
        std::string charset;
        std::string removed;  // the text after a search with remove
    };
    const std::string content_tag =
        "<meta http-equiv=\"Content-Type\" content=\"text/html; charset=utf-8\">";
    const Case cases[] = {
        {"<html>" + content_tag + "</html>", "utf-8", "<html></html>"},
        {"x<meta charset='koi8-r'>y", "koi8-r", "xy"},
        {"x<META CHARSET=KOI8-R>y", "koi8-r", "xy"},
        {"x<meta content=\"text/html;charset = 'Shift_JIS' \">", "shift_jis", "x"},
        {"x<meta content='text/html; charset=\" windows-1251 \"; x=y'>", "windows-1251", "x"},
        {"x<meta content=\"text/html; CharSet=iso-8859-2; charset=utf-8\">", "iso-8859-2", "x"},
        // A tag at offset 0 is not recognised.
        {content_tag, "", content_tag},
        // "charset" outside a meta tag, or without a tag around it.
        {"<p>the charset=utf-8 text</p>", "", "<p>the charset=utf-8 text</p>"},
        {"x charset=utf-8 here", "", "x charset=utf-8 here"},
        {"x<meta charset=utf-8", "", "x<meta charset=utf-8"},
        {"x<link charset=utf-8>", "", "x<link charset=utf-8>"},
        // Too close to the end: fewer than 8 bytes from the word's start.
        {"x<meta charset", "", "x<meta charset"},
        {"x<meta charset>", "", "x<meta charset>"},
        // A content without a charset piece ends that candidate.
        {"x<meta content=\"text/html\" charset=utf-8>", "", "x<meta content=\"text/html\" charset=utf-8>"},
        {"x<meta content=\"text/html; charset=\">", "", "x<meta content=\"text/html; charset=\">"},
        // The first tag that yields a value wins; later ones stay.
        {"x<meta name=charset-less><meta charset=big5><meta charset=gb2312>", "big5",
         "x<meta name=charset-less><meta charset=gb2312>"},
        {"x<meta charset=\"\"><meta charset=big5>", "big5", "x<meta charset=\"\">"},
        {"", "", ""},
        {"charset", "", "charset"},
    };
    for (const Case& c : cases) {
        bstring html = Bytes(c.html), result("stale");
        FindMetaCharset(html, false, result);
        EXPECT_EQ(Str(result), c.charset) << c.html;
        EXPECT_EQ(Str(html), c.html) << "without remove the text stays";
        FindMetaCharset(html, true, result);
        EXPECT_EQ(Str(result), c.charset) << c.html;
        EXPECT_EQ(Str(html), c.removed) << c.html;
    }
}

TEST(FindMetaCharsetTest, ManyCandidatesBeforeTheRealTag) {
    std::string html = "x";
    for (int i = 0; i < 5000; ++i) html += "<p charset><meta name=charset>";
    html += "<meta charset=utf-8>";
    bstring text = Bytes(html), result;
    EXPECT_EQ(Str(FindMetaCharset(text, false, result)), "utf-8");
}

TEST(FindMetaCharsetTest, OverlappingMetaTags) {
    // Each "<meta charset " opens a tag that runs to the one ">" at the end,
    // and none yields a value: a search that tokenized every one of them
    // whole would take billions of steps here.
    std::string overlapping = "x";
    for (int i = 0; i < 40000; ++i) overlapping += "<meta charset ";
    overlapping += "<meta charset>";
    bstring text = Bytes(overlapping), result("stale");
    FindMetaCharset(text, true, result);
    EXPECT_EQ(Str(result), "");
    EXPECT_EQ(text.nSize, int32_t(overlapping.size()));
    // The first tag reaches a value at its far end.
    text = Bytes("x<meta charset <meta charset <meta charset=big5>");
    EXPECT_EQ(Str(FindMetaCharset(text, true, result)), "big5");
    EXPECT_EQ(Str(text), "x");
}

TEST(FindMetaCharsetTest, RemovingFromAViewLeavesTheOwnerAlone) {
    std::string owner = "ab<meta charset=utf-8>cd";
    bstring view;
    view.borrow(owner.data(), int32_t(owner.size()));
    bstring result;
    FindMetaCharset(view, true, result);
    EXPECT_EQ(Str(result), "utf-8");
    EXPECT_EQ(Str(view), "abcd");
    EXPECT_EQ(owner, "ab<meta charset=utf-8>cd");
}

TEST(RemoveMetaCharsetTest, OnlyTheContentFormCountsAndTheTagAlwaysGoes) {
    struct Case {
        std::u16string body, charset, after;
    };
    const Case cases[] = {
        {u"<p>\u0416</p><meta http-equiv=Content-Type content=\"text/html; charset=KOI8-R\">!",
         u"koi8-r", u"<p>\u0416</p>!"},
        {u"x<meta charset='koi8-r'>", u"", u"x<meta charset='koi8-r'>"},
        {u"<meta content='text/html; charset=utf-8'>", u"", u"<meta content='text/html; charset=utf-8'>"},
        {u"\u0416<META CONTENT='charset=x'>\u0416", u"x", u"\u0416\u0416"},
        {u"", u"", u""},
    };
    for (const Case& c : cases) {
        wbstring body = Wide(c.body), result(u"stale");
        RemoveMetaCharset(body, result);
        EXPECT_EQ(Str(result), c.charset);
        EXPECT_EQ(Str(body), c.after);
    }
}

// ---- the message's conversion methods ------------------------------------------

// Bytes as the automation boundary carries them: one character per byte.
wbstring FromBytes(const std::string& bytes) {
    wbstring w;
    w.import_bstring(Bytes(bytes), 0);
    return w;
}
std::string ToBytes(const wbstring& w) {
    wbstring copy(w);
    bstring b;
    copy.export_bstring(b, 0);
    return Str(b);
}

TEST(ConvertCharsetTextTest, Table) {
    struct Case {
        std::u16string src;
        const char *from, *to;
        std::u16string expected;
    };
    const Case cases[] = {
        // Both empty: a copy, unpaired surrogates included.
        {u"a\xd800" u"b\xdc00", "", "", u"a\xd800" u"b\xdc00"},
        // Both given: bytes to bytes.
        {u"\x00c6", "windows-1251", "koi8-r", u"\x00f6"},
        {u"caf\x00e9", "iso-8859-1", "utf-8", u"caf\x00c3\x00a9"},
        {u"caf\x00e9", "windows-1252", "koi8-r", u"caf\x00e9"},  // 1252 keeps its bytes
        {u"caf\x00e9", "no-such", "utf-8", u"caf\x00e9"},        // unknown source keeps them
        // Only the source: decoded to text.
        {u"\x00c6", "windows-1251", "", u"\u0416"},
        {u"\x00d0\u2013", "utf-8", "", u"\u0416"},  // D0 96 as 1252 characters
        {u"\x00e9", "no-such", "", u"\x00e9"},  // the default code page
        // Only the destination: encoded, one character per byte.
        {u"\u0416", "", "windows-1251", u"\x00c6"},
        {u"\u0416", "", "utf-8", u"\x00d0\u2013"},
        {u"\u0416", "", "iso-8859-1", u"?"},
        {u"\x00e9", "", "no-such", u"\x00e9"},
    };
    for (const Case& c : cases) {
        wbstring dest(u"stale");
        ConvertCharsetText(Wide(c.src), bstring(c.from), bstring(c.to), dest);
        EXPECT_EQ(Str(dest), c.expected) << c.from << "->" << c.to;
    }
}

TEST(ConvertTextToUTF8Test, Table) {
    struct Case {
        std::u16string src;
        const char* charset;
        std::string utf8;
    };
    const Case cases[] = {
        {u"\u0416\x00e9\U0001F600", "", "\xd0\x96\xc3\xa9\xf0\x9f\x98\x80"},
        {u"\x00c6", "windows-1251", "\xd0\x96"},
        {u"\x00e9", "iso-8859-1", "\xc3\xa9"},
        {u"\x00e9", "windows-1252", "\xc3\xa9"},
        {u"\x00e9", "no-such", "\xe9"},
        {u"", "utf-8", ""},
        {u"", "", ""},
    };
    for (const Case& c : cases) {
        wbstring dest(u"stale");
        ConvertTextToUTF8(Wide(c.src), bstring(c.charset), dest);
        EXPECT_EQ(ToBytes(dest), c.utf8) << c.charset;
    }
}

// ---- Python's codecs as the oracle ---------------------------------------------

// Each sample: a charset name as a message would carry it, the Python codec of
// the code page our lookup gives, and whether our encoder's bytes may differ
// (stateful encodings and the byte-order mark).
struct OracleCharset {
    const char* name;
    const char* codec;
    bool decode_only;
};

constexpr OracleCharset kOracleCharsets[] = {
    {"us-ascii", "ascii", false},        {"utf-8", "utf-8", false},
    {"utf-7", "utf-7", true},            {"unicode", "utf-16-le", false},
    {"utf-16", "utf-16", true},          {"iso-8859-1", "latin-1", false},
    {"latin1", "latin-1", false},        {"iso-8859-2", "iso8859_2", false},
    {"iso-8859-4", "iso8859_4", false},  {"iso-8859-5", "iso8859_5", false},
    {"iso-8859-6", "iso8859_6", false},  {"iso-8859-7", "iso8859_7", false},
    {"iso-8859-8", "iso8859_8", false},  {"iso-8859-9", "iso8859_9", false},
    {"ISO-8859-13", "cp1257", false},    {"iso-8859-15", "iso8859_15", false},
    {"windows-1250", "cp1250", false},   {"windows-1251", "cp1251", false},
    {"windows-1252", "cp1252", false},   {"windows-1253", "cp1253", false},
    {"windows-1254", "cp1254", false},   {"windows-1255", "cp1255", false},
    {"windows-1256", "cp1256", false},   {"windows-1257", "cp1257", false},
    {"windows-1258", "cp1258", false},   {"windows-874", "cp874", false},
    {"TIS-620", "cp874", false},         {"koi8-r", "koi8_r", false},
    {"koi8-u", "koi8_u", false},         {"ibm866", "cp866", false},
    {"ibm850", "cp850", false},          {"437", "cp437", false},
    {"macintosh", "mac_roman", false},   {"x-mac-cyrillic", "mac_cyrillic", false},
    {"shift_jis", "cp932", false},       {"x-sjis", "cp932", false},
    {"euc-jp", "euc_jp", false},         {"iso-2022-jp", "iso2022_jp", true},
    {"gb2312", "gbk", false},            {"GB18030", "gb18030", false},
    {"big5", "cp950", false},            {"ks_c_5601-1987", "cp949", false},
    {"euc-kr", "euc_kr", false},         {"iso-2022-kr", "iso2022_kr", true},
};

// Texts in many scripts; Python keeps, for each charset, those it can encode.
constexpr const char* kOracleScript = R"PY(
import sys
texts = [
    "Hello, world. Plain ASCII with digits 0123456789 and (a+b)*c = d; e/f <g> [h] {i} @j #k $l %m & ?!",
    "Line one\r\nLine two\twith a tab\r\n",
    "",
    "Grüße aus Köln, déjà vu, naïve façade, smørrebrød, Ångström, ¡Olé! ¿Qué? ½ ± ©",
    "Ação e coração em São Paulo; niño, año, mañana.",
    "L'œuvre coûte 5 € à Noël; Šárka, Žofie.",
    "Þetta er íslenska: ð, æ, ö.",
    "Zażółć gęślą jaźń. Příliš žluťoučký kůň úpěl ďábelské ódy. Árvíztűrő tükörfúrógép.",
    "Съешь же ещё этих мягких французских булок, да выпей чаю.",
    "Привет, мир! Ёлка.",
    "Гей, ґава їсть пшеницю; Європа і Україна.",
    "Ξεσκεπάζω την ψυχοφθόρα βδελυγμία.",
    "דג סקרן שט בים מאוכזב ולפתע מצא חברה",
    "نص حكيم له سر قاطع وذو شأن عظيم",
    "Pijamalı hasta yağız şoföre çabucak güvendi.",
    "Įlinkdama fechtuotojo špaga sublykčiojusi pragręžė apvalų arbūzą. Ļoti ņiprs ģīmis.",
    "เป็นมนุษย์สุดประเสริฐเลิศคุณค่า",
    "Tie\u0302\u0301ng Vie\u0323\u0302t co\u0301 da\u0302\u0301u",
    "いろはにほへと ちりぬるを 色は匂へど散りぬるを、カタカナ・漢字テスト。",
    "我能吞下玻璃而不伤身体。中文简体测试，标点符号！",
    "我能吞下玻璃而不傷身體。繁體中文測試",
    "나는 유리를 먹을 수 있어요. 그래도 아프지 않아요",
    "Euro € and quotes “curly” ‘single’ – dash — em … ellipsis ™ •",
    "Mixed: Latin é, Cyrillic ж, Greek λ, CJK 漢, emoji 😀 and 𠀋",
]
for index, codec in enumerate(sys.argv[1:]):
    for number, text in enumerate(texts):
        try:
            encoded = text.encode(codec)
        except UnicodeEncodeError:
            continue
        print(index, number, encoded.hex() or "-", text.encode("utf-8").hex() or "-",
              text.encode("utf-16-le").hex() or "-")
)PY";

std::string Unhex(const std::string& hex) {
    std::string out;
    if (hex == "-") return out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        out += char(std::stoi(hex.substr(i, 2), nullptr, 16));
    return out;
}

std::u16string Utf16FromLe(const std::string& bytes) {
    std::u16string out;
    for (size_t i = 0; i + 1 < bytes.size(); i += 2)
        out += char16_t(uint8_t(bytes[i]) | (uint8_t(bytes[i + 1]) << 8));
    return out;
}

struct OracleSample {
    const OracleCharset* charset;
    int text;
    std::string encoded, utf8;
    std::u16string text16;
};

std::vector<OracleSample> RunOracle() {
    std::vector<OracleSample> samples;
    char path[] = "/tmp/kvcharsetoracleXXXXXX";
    int fd = mkstemp(path);
    if (fd < 0) return samples;
    close(fd);
    {
        std::ofstream script(path);
        script << kOracleScript;
    }
    std::string cmd = std::string("/usr/bin/python3 ") + path;
    for (const OracleCharset& c : kOracleCharsets) cmd += std::string(" ") + c.codec;
    FILE* pipe = popen(cmd.c_str(), "r");
    std::string out;
    if (pipe) {
        char buf[8192];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, pipe)) > 0) out.append(buf, n);
        pclose(pipe);
    }
    unlink(path);
    std::istringstream lines(out);
    size_t index;
    int text;
    std::string enc, utf8, utf16;
    while (lines >> index >> text >> enc >> utf8 >> utf16) {
        if (index >= std::size(kOracleCharsets)) break;
        // An empty text in UTF-16 is a lone byte-order mark, which no
        // conversion turns into anything: a conversion of nothing keeps it.
        if (text == 2 && std::string(kOracleCharsets[index].codec) == "utf-16") continue;
        samples.push_back({&kOracleCharsets[index], text, Unhex(enc), Unhex(utf8),
                           Utf16FromLe(Unhex(utf16))});
    }
    return samples;
}

class CharsetOracleTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (access("/usr/bin/python3", X_OK) == 0) samples_ = new std::vector<OracleSample>(RunOracle());
    }
    static void TearDownTestSuite() {
        delete samples_;
        samples_ = nullptr;
    }
    void SetUp() override {
        if (!samples_) GTEST_SKIP() << "/usr/bin/python3 is not installed";
        // A broken pipe or a missing codec must not pass as "nothing to check".
        for (const OracleCharset& c : kOracleCharsets) {
            int n = 0;
            for (const OracleSample& s : *samples_) n += s.charset == &c;
            ASSERT_GE(n, 3) << c.name << ": the oracle gave too few samples";
        }
    }
    static std::vector<OracleSample>* samples_;
};
std::vector<OracleSample>* CharsetOracleTest::samples_ = nullptr;

TEST_F(CharsetOracleTest, ConvertCodepageDecodesToPythonsUtf8) {
    for (const OracleSample& s : *samples_) {
        bstring dest;
        ConvertCodepage(dest, Bytes(s.encoded), LookupCodepage(bstring(s.charset->name)), 65001);
        EXPECT_EQ(Str(dest), s.utf8) << s.charset->name << " text " << s.text;
    }
}

TEST_F(CharsetOracleTest, ConvertCodepageEncodesAsPythonDoes) {
    for (const OracleSample& s : *samples_) {
        int32_t cp = LookupCodepage(bstring(s.charset->name));
        bstring encoded, back;
        ConvertCodepage(encoded, Bytes(s.utf8), 65001, cp);
        if (s.charset->decode_only) {
            // Escape sequences and shifts may be placed differently; the text
            // must still come back.
            ConvertCodepage(back, encoded, cp, 65001);
            EXPECT_EQ(Str(back), s.utf8) << s.charset->name << " text " << s.text;
        } else if (s.utf8.empty()) {
            EXPECT_EQ(Str(encoded), "");
        } else {
            EXPECT_EQ(Str(encoded), s.encoded) << s.charset->name << " text " << s.text;
        }
    }
}

TEST_F(CharsetOracleTest, ToUTF8GivesPythonsUtf8AsOneCharacterPerByte) {
    for (const OracleSample& s : *samples_) {
        wbstring dest;
        ConvertTextToUTF8(FromBytes(s.encoded), bstring(s.charset->name), dest);
        EXPECT_EQ(ToBytes(dest), s.utf8) << s.charset->name << " text " << s.text;
        ConvertTextToUTF8(Wide(s.text16), bstring(""), dest);
        EXPECT_EQ(ToBytes(dest), s.utf8) << "no charset, text " << s.text;
    }
}

TEST_F(CharsetOracleTest, ConvertCharsetMatchesPythonInEveryDirection) {
    for (const OracleSample& s : *samples_) {
        const bstring name(s.charset->name);
        wbstring text, bytes_to_bytes, encoded;
        ConvertCharsetText(FromBytes(s.encoded), name, bstring(""), text);
        // The wide import keeps a byte-order mark as U+FEFF.
        std::u16string expected = s.text16;
        if (std::string(s.charset->codec) == "utf-16") expected.insert(0, 1, u'\xFEFF');
        EXPECT_EQ(Str(text), expected) << s.charset->name << " decode, text " << s.text;
        ConvertCharsetText(FromBytes(s.encoded), name, bstring("utf-8"), bytes_to_bytes);
        EXPECT_EQ(ToBytes(bytes_to_bytes), s.utf8) << s.charset->name << " to utf-8, text " << s.text;
        ConvertCharsetText(FromBytes(s.utf8), bstring("utf-8"), name, bytes_to_bytes);
        ConvertCharsetText(Wide(s.text16), bstring(""), name, encoded);
        if (!s.charset->decode_only && !s.utf8.empty()) {
            EXPECT_EQ(ToBytes(bytes_to_bytes), s.encoded) << s.charset->name << " from utf-8, text " << s.text;
            EXPECT_EQ(ToBytes(encoded), s.encoded) << s.charset->name << " encode, text " << s.text;
        }
    }
}

}  // namespace
}  // namespace kv
