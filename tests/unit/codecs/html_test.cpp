// HTML to plain text and back: tables of HTML in and text out for each
// option bit, entities, lists, tables, links, scripts and broken HTML, and
// real-world HTML mail with reviewed expected text under tests/data/html/.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "../support/text.h"
#include "../support/trace_capture.h"
#include "codecs/html_to_plain.h"
#include "codecs/plain_to_html.h"
#include "foundation/trace.h"
#include "platform/codepage.h"

namespace kv {
namespace {

using kv::testing::ReadFile;
using kv::testing::Str;
using kv::testing::Wide;

namespace fs = std::filesystem;

std::u16string FromUtf8(const std::string& s) {
    if (s.empty()) return {};
    int n = platform::MultiByteToWideChar(65001, 0, s.data(), int(s.size()), nullptr, 0);
    std::u16string out(size_t(n), u'\0');
    platform::MultiByteToWideChar(65001, 0, s.data(), int(s.size()), out.data(), n);
    return out;
}

std::string ToUtf8(const std::u16string& w) {
    if (w.empty()) return {};
    int n = platform::WideCharToMultiByte(65001, 0, w.data(), int(w.size()), nullptr, 0);
    std::string out(size_t(n), '\0');
    platform::WideCharToMultiByte(65001, 0, w.data(), int(w.size()), out.data(), n);
    return out;
}

// Converts UTF-8 HTML and gives the text as UTF-8.
std::string Plain(const std::string& html, int32_t options = 1, int32_t codepage = 0,
                  const std::string& suffix = "") {
    wbstring result(u"stale");
    ConvertHtmlToPlain(result, Wide(FromUtf8(html)), codepage, options, Wide(FromUtf8(suffix)));
    return ToUtf8(Str(result));
}

std::string Html(const std::string& text, const std::string& title, bool inner) {
    wbstring result(u"stale");
    GetHtmlFromPlain(result, Wide(FromUtf8(text)), Wide(FromUtf8(title)), inner);
    return ToUtf8(Str(result));
}

struct Case {
    std::string html;
    std::string text;
};

void RunTable(const std::vector<Case>& cases, int32_t options, int32_t codepage = 0,
              const std::string& suffix = "") {
    for (const Case& c : cases)
        EXPECT_EQ(Plain(c.html, options, codepage, suffix), c.text)
            << "options " << options << ", html: " << c.html;
}

// ---- structure: head, breaks, white space -------------------------------------------

TEST(HtmlToPlainTest, HeadIsDroppedWithEverythingBeforeIt) {
    RunTable({
        {"<html><head><title>t</title></head><body>a</body></html>", "a"},
        {"x<head></head>y", "y"},
        {"<head>a", "a"},                               // no "</head": behind "<head"'s ">"
        {"<HEAD><STYLE>p{}</STYLE></HEAD>b", "b"},      // found in any case
        {"<head><title>a>b</title></head>c", "c"},      // the ">" behind "</head" counts
        {"<head", ""},
        {"a<head x", ""},
        {"<head></head", ""},
        {"<header>x</header>y", "y"},                   // "<head" is all it looks for
        {"", ""},
    }, 1);
}

TEST(HtmlToPlainTest, BlockTagsAndBreaks) {
    RunTable({
        {"a<br>b", "a\r\nb"},
        {"a<BR/>b", "a\r\nb"},
        {"a</br>b", "ab"},                              // br only opening
        {"a<br><br>b", "a\r\n\r\nb"},
        {"<p>a</p><p>b</p>", "a\r\n\r\nb\r\n\r\n"},
        {"<div>a</div><div>b</div>", "a\r\nb\r\n"},
        {"<div>a</div><p>b", "a\r\n\r\nb"},             // the div's one, one more for p
        {"a<p>b", "a\r\n\r\nb"},
        {"a<br><p>b", "a\r\n\r\nb"},                    // br paid one of the two
        {"a<pre>b</pre>c", "abc"},                      // not a block tag
        {"a<h1>b</h1>c", "abc"},
        {"a<P1>b", "ab"},                               // names compare exactly
        {"a<tr >b", "a\r\nb"},
        {"a</ p>b", "ab"},                              // no name behind "/"
        {"<div><div><div>a", "a"},                      // nothing owed before text
        {"a<div><div><div>b", "a\r\nb"},
        {"a<p><p><p>b", "a\r\n\r\nb"},
    }, 1);
}

TEST(HtmlToPlainTest, ListsAndTables) {
    RunTable({
        {"<ul><li>one</li><li>two</li></ul>after", "one\r\ntwo\r\nafter"},
        {"<ol>\n  <li>one\n  <li>two\n</ol>", "one\r\ntwo\r\n"},
        {"<p>intro</p><ul><li>x</li></ul>", "intro\r\n\r\nx\r\n"},
        {"<table><tr><td>a</td><td>b</td></tr><tr><td>c</td></tr></table>", "ab\r\nc\r\n"},
        {"<table>\n<tr><td>a</td> <td>b</td></tr>\n</table>end", "a b\r\nend"},
        {"<TABLE><TR><TH>h</TH></TR></TABLE><P>p", "h\r\n\r\np"},
    }, 1);
}

TEST(HtmlToPlainTest, WhiteSpaceCollapsesAndIsTakenBackBeforeBreaks) {
    RunTable({
        {"a   b", "a b"},
        {"a\r\n b", "a b"},
        {"a\t\f\nb", "a b"},
        {"   a", "a"},
        {"a   ", "a "},
        {"a  <p>b", "a\r\n\r\nb"},
        {"a <br> b", "a\r\nb"},
        {"<p>  a  </p>", "a\r\n\r\n"},
        {"a <b>c</b> d", "a c d"},
        // A tag between two runs keeps both blanks.
        {"a <b> c", "a  c"},
        {"a\u00a0b", "a\u00a0b"},                       // no-break space is text
    }, 1);
}

// ---- broken HTML -------------------------------------------------------------------

TEST(HtmlToPlainTest, BrokenHtmlKeepsItsText) {
    RunTable({
        {"a < b", "a < b"},
        {"1<2 and 3>2", "1<2 and 3>2"},
        {"a <b", "a <b"},                               // a tag that never closes
        {"a<div class=x", "a<div class=x"},
        {"text <a href='x'>more", "text more"},
        {"a <", "a <"},
        {"a<", "a<"},
        {"<<b>x", "<<b>x"},                             // the second "<" is text too
        {"<<<>>>", "<<<>>>"},
        {"<a<b>>c", ">c"},
        {"a</>b", "ab"},
        {"<b title=\"a>b\">c", "b\">c"},                // quotes protect nothing
        {"x<!-- a -- b -->y", "xy"},
        {"<!-- x > y -->z", "z"},
        {"<!---->x", "x"},
        {"<!-->x", "x"},
        {"<!--->x", "x"},
        {"<!-- never closed <p> x", "<!-- never closed <p> x"},
        {"<!DOCTYPE html>a", "a"},
        {"<!DOCTYPE a--b>x-->y", "y"},                  // "--" makes it a comment
        {"<?xml version=\"1.0\"?>a", "a"},
        {"a<1b>c", "a<1b>c"},
        {"<B>bold</B> <I>it</I>", "bold it"},
        {"a<p\nclass=x>b", "a\r\n\r\nb"},
        {"a<\u212a>b", "ab"},                           // the Kelvin sign lowers to "k"
        {"a<\u00c9>b", "a<\u00c9>b"},                     // no ASCII letter
    }, 1);
}

TEST(HtmlToPlainTest, ScriptsStylesTitlesAndTextareasComeOutAsText) {
    RunTable({
        {"<script>if (a < b) x();</script>y", "if (a < b) x();y"},
        {"<style>p { color: red; }</style><p>x", "p { color: red; }\r\n\r\nx"},
        {"<head><script>hidden()</script></head>shown", "shown"},
        {"<title>t</title>x", "tx"},
        {"<textarea>a &amp; b</textarea>", "a & b"},
        {"<script><!-- hidden --></script>", ""},
    }, 1);
}

// ---- entities -----------------------------------------------------------------------

TEST(HtmlToPlainTest, NamedEntities) {
    RunTable({
        {"&quot;&amp;&lt;&gt;", "\"&<>"},
        {"&AMP;&Lt;&gT", "&<>"},                        // any case, no ";" needed
        {"&amp;amp;", "&amp;"},
        {"&nbsp;&nbsp;a", "  a"},                        // text, never collapsed
        {"a&shy;b", "a-b"},
        {"&notin;", "\u00acin;"},                        // "not" is a prefix
        {"&copy;&reg;&deg;&frac12;&iquest;", "\u00a9\u00ae\u00b0\u00bd\u00bf"},
        {"&brvbar;&brkbar;&uml;&dir;&macr;&hibar;", "\u00a6\u00a6\u00a8\u00a8\u00af\u00af"},
        {"&cent;&pound;&curren;&yen;&sect;&ordf;&laquo;&raquo;", "\u00a2\u00a3\u00a4\u00a5\u00a7\u00aa\u00ab\u00bb"},
        {"&plusmn;&sup1;&sup2;&sup3;&acute;&micro;&para;&middot;&cedil;&ordm;",
         "\u00b1\u00b9\u00b2\u00b3\u00b4\u00b5\u00b6\u00b7\u00b8\u00ba"},
        {"&frac14;&frac34;&times;&divide;&szlig;&yuml;", "\u00bc\u00be\u00d7\u00f7\u00df\u00ff"},
        {"&agrave;&Agrave;&eacute;&Eacute;&EACUTE;&eTH;&ETH;", "\u00e0\u00c0\u00e9\u00c9\u00c9\u00f0\u00d0"},
        {"&aelig;&AElig;&ccedil;&Ccedil;&ntilde;&Ntilde;&ouml;&Ouml;",
         "\u00e6\u00c6\u00e7\u00c7\u00f1\u00d1\u00f6\u00d6"},
        {"&oslash;&Oslash;&uuml;&Uuml;&thorn;&THORN;&yacute;&Yacute;",
         "\u00f8\u00d8\u00fc\u00dc\u00fe\u00de\u00fd\u00dd"},
        // No capital form: the value stays.
        {"&SZLIG;&Yuml;&Divide;&Times;", "\u00df\u00ff\u00f7\u00d7"},
        // In the default code page each byte is its own character.
        {"&bull;", "\u0095"},
    }, 1);
}

TEST(HtmlToPlainTest, NumericEntities) {
    RunTable({
        {"&#65;&#66", "AB"},
        {"&#233;", "\u00e9"},
        {"&#8364;", "\u20ac"},
        {"&#00065;", "A"},
        {"&#x41;", std::string("\0x41;", 5)},            // atoi reads 0
        {"&#;x", std::string("\0x", 2)},                 // the ";" ends it at once
        {"&#65536;", std::string("\0", 1)},              // low 16 bits
        {"&#99999999999;", "\uffff"},                    // clamped to 32 bits first
        {"&#-1;", "\u00ff-1;"},                          // a byte value below 256
        {"&# 65;", "A 65;"},                             // atoi skips the blank, the end does not
        {"&#65x", "Ax"},
    }, 1);
}

TEST(HtmlToPlainTest, BrokenEntities) {
    RunTable({
        {"&foo;bar", "?bar"},
        {"&verylongnotanentity;", "?verylongnotanentity;"},
        {"&abcdefghi;", "?"},                            // ";" is the 10th character
        {"&abcdefghij;", "?abcdefghij;"},                // and the 11th is too far
        {"&foo;;x", "?x"},                               // a ";" at the end is eaten too
        {"a & b", "a ? b"},
        {"x&;y", "x?y"},
        {"a&", "a&"},                                    // fewer than three characters left
        {"a&b", "a&b"},
        {"a&#", "a&#"},
        {"&lt", "<"},
        {"&l", "&l"},
        {"&&amp;", "?"},                                // the ";" of the next one is near
        {"&;", "&;"},
        {"&am", "?am"},                                  // a name must be whole
    }, 1);
}

TEST(HtmlToPlainTest, EntityBytesAreReadInTheCodePage) {
    // Byte 233 is a Cyrillic letter in 1251, an e acute in 1252.
    EXPECT_EQ(Plain("&eacute;&#233;", 1, 1251), "\u0439\u0439");
    EXPECT_EQ(Plain("&eacute;&#233;", 1, 1252), "\u00e9\u00e9");
    EXPECT_EQ(Plain("&bull;&#150;", 1, 1252), "\u2022\u2013");
    EXPECT_EQ(Plain("&#8364;", 1, 1251), "\u20ac");       // 256 and up: the character itself
    EXPECT_EQ(Plain("&amp;&nbsp;", 1, 1251), "& ");
    // A byte that is no character alone, and a code page nobody knows.
    EXPECT_EQ(Plain("&eacute;&amp;", 1, 65001), "\ufffd&");
    EXPECT_EQ(Plain("&eacute;", 1, 12345), "\u00e9");
    EXPECT_EQ(Plain("&eacute;", 1, -1), "\u00e9");
    // Plain text is never reinterpreted.
    EXPECT_EQ(Plain("\u00e9", 1, 1251), "\u00e9");
}

// ---- options -----------------------------------------------------------------------

TEST(HtmlToPlainTest, LowTwoBitsDoNotChangeTheText) {
    const std::string html = "<p>a &amp; <a href=\"u v\">t</a><img alt=\"z\" src=x></p>";
    const std::string text = "a & t\r\n\r\n";
    for (int32_t options : {0, 1, 2, 3}) EXPECT_EQ(Plain(html, options), text) << options;
}

TEST(HtmlToPlainTest, KeepLinks) {
    RunTable({
        {"<a href=\"http-text\">text</a>", "text <http-text> "},
        {"see <a href=\"http://x\">here</a>.", "see here <http://x> ."},
        {"<a href=\"http://x\">http://x</a>", "http://x"},
        {"<a href=\"HTTP://X\">http://x</a>", "http://x"},   // compared ignoring case
        {"<a href=\"u\"> u\t</a>", "u "},                     // trimmed of blanks and tabs
        {"<a href=\"u\">u<b></b></a>", "u <u> "},              // a tag inside differs
        {"<a href=x>t</a>", "t"},                             // too few tokens
        {"<a name=\"top\">t</a>", "t"},                       // no href
        {"<A HREF='x y' CLASS=c>t</A>", "t <x y> "},
        {"a</a>b", "ab"},
        {"<a href=\"1\" x>a</a><a href=\"2\" x>b</a>", "a <1> b <2> "},
        {"<a href=\"u\" x>t</a><p>n", "t <u> \r\n\r\nn"},     // that blank stays
        {"<a href=\"u\" x>t", "t"},                           // never closed: nothing owed
        {"<a href=\"u\" x>t</a", "t</a"},
    }, 4);
}

TEST(HtmlToPlainTest, ImageAltText) {
    RunTable({
        {"<img src=a.gif alt=\"pic\">", "pic"},
        {"x<IMG SRC=\"a\" ALT='a b'>y", "xa by"},
        {"<img src=\"a\">", ""},
        {"<img alt=p>", ""},                                  // too few tokens
        {"<img src=a alt=\"pic\"><p>x", "pic\r\n\r\nx"},
        {"<img src=a alt=\"&amp;\">", "&amp;"},               // written as it stands
    }, 8);
    EXPECT_EQ(Plain("<img src=a.gif alt=\"pic\">", 4), "");
}

TEST(HtmlToPlainTest, HtmlLinksWithSuffix) {
    RunTable({
        {"<a href=\"x y\">t</a>", "<a href=\"x y\">t</a>"},
        {"<a href='a\"b' x>t</a>", "<a href='a\"b'>t</a>"},
        {"a<br>b", "a\r\nb"},
        {"x<p>y", "x <br>  <br> y"},
        {"<div>a</div><div>b</div>", "a <br> b <br> "},
        {"a&amp;b", "a&amp;b"},
        {"a & b&#65;", "a & b&#65;"},
        {"<a href=\"x\">x</a>", "<a href=\"x\">x</a>"},
    }, 4 | 16);
    RunTable({{"<a href=\"x y\">t</a>", "<a href=\"x y\" target=_blank>t</a>"}}, 4 | 16, 0,
             "target=_blank");
    // Without 4 the links are plain text; without options above 0 too.
    EXPECT_EQ(Plain("<a href=\"x y\">t</a>&amp;", 16), "t&amp;");
    EXPECT_EQ(Plain("x<a href=\"x y\">t</a><p>y&amp;", -1), "xt <br>  <br> y&amp;");
}

TEST(HtmlToPlainTest, OutputGrowsPastTheReservationForLongSuffixes) {
    const std::string suffix(300, 's');
    std::string html, expected;
    for (int i = 0; i < 200; ++i) {
        html += "<a href=\"u v\">t</a>";
        expected += "<a href=\"u v\" " + suffix + ">t</a>";
    }
    EXPECT_EQ(Plain(html, 4 | 16, 0, suffix), expected);
    EXPECT_EQ(Plain("<img src=a alt=\"" + suffix + "\">", 8), suffix);
}

TEST(HtmlToPlainTest, ResultMayBeTheSource) {
    wbstring text(u"<p>a&lt;b</p>");
    ConvertHtmlToPlain(text, text, 0, 1, wbstring());
    EXPECT_EQ(Str(text), u"a<b\r\n\r\n");
}

TEST(HtmlToPlainTest, NulAndSurrogatesPassThrough) {
    const std::u16string html = std::u16string(u"a\0b<p>", 6) + u"\xd83d\xde00";
    wbstring result;
    ConvertHtmlToPlain(result, Wide(html), 0, 1, wbstring());
    EXPECT_EQ(Str(result), std::u16string(u"a\0b\r\n\r\n", 7) + u"\xd83d\xde00");
}

// ---- the trace ------------------------------------------------------------------

class HtmlTraceTest : public kv::testing::TraceCapture {};

TEST_F(HtmlTraceTest, ReservationIsFourThirdsOfTheTextBehindTheHead) {
    EXPECT_EQ(Plain("<head></head>" + std::string(30, 'x')), std::string(30, 'x'));
    EXPECT_EQ(Lines(), (std::vector<std::string>{"ConvertHtmlToPlain will reserve 40",
                                                 "ConvertHtmlToPlain reserved"}));
}

TEST_F(HtmlTraceTest, HeadWithoutEndReturnsEarly) {
    EXPECT_EQ(Plain("text<head"), "");
    EXPECT_EQ(Lines(), std::vector<std::string>{"ConvertHtmlToPlain returned early"});
}

// ---- plain to HTML --------------------------------------------------------------

TEST(GetHtmlFromPlainTest, FrameTitleAndEscapes) {
    struct HtmlCase {
        std::string text, title;
        bool inner;
        std::string html;
    };
    const HtmlCase cases[] = {
        {"", "", false, "<html>\r\n<head></head>\r\n<body></body></html>"},
        {"", "", true, ""},
        {"", "T", true, ""},
        {"a<b", "T", true, "<pre>\r\na&lt;b\r\n</pre>"},
        {"x", "a<b", false,
         "<html>\r\n<head><title>a<b</title></head>\r\n<body><pre>\r\nx\r\n</pre></body></html>"},
        {"\"q\" & <t> 'a'", "", true, "<pre>\r\n&quot;q&quot; &amp; &lt;t&gt; 'a'\r\n</pre>"},
        {"l1\r\n\tl2 \u00e9\u20ac", "", true, "<pre>\r\nl1\r\n\tl2 \u00e9\u20ac\r\n</pre>"},
        {"&amp;", "", true, "<pre>\r\n&amp;amp;\r\n</pre>"},
    };
    for (const HtmlCase& c : cases)
        EXPECT_EQ(Html(c.text, c.title, c.inner), c.html) << c.text << " / " << c.title;
}

TEST(GetHtmlFromPlainTest, LongRunsOfEscapesAndAliasing) {
    const std::string quotes(100000, '"');
    std::string expected = "<pre>\r\n";
    for (size_t i = 0; i < quotes.size(); ++i) expected += "&quot;";
    expected += "\r\n</pre>";
    EXPECT_EQ(Html(quotes, "", true), expected);

    wbstring text(u"a&b");
    GetHtmlFromPlain(text, text, text, false);
    EXPECT_EQ(Str(text),
              u"<html>\r\n<head><title>a&b</title></head>\r\n<body><pre>\r\na&amp;b\r\n</pre></body></html>");
}

TEST(GetHtmlFromPlainTest, RoundTripThroughThePlainConverter) {
    const std::string text = "if (a < b && c > \"d\") { x(); }";
    EXPECT_EQ(Plain(Html(text, "t", false)), text + " ");
}

// ---- real-world HTML mail ---------------------------------------------------------

// tests/data/html/NAME.html with NAME.oN.txt: the text expected with options
// N. Set KV_UPDATE_GOLDEN=1 to write what the converter gives instead (to be
// read and judged before it is committed).
TEST(HtmlToPlainGoldenTest, RealWorldMail) {
    const fs::path dir = fs::path(KV_SOURCE_DIR) / "tests" / "data" / "html";
    ASSERT_TRUE(fs::is_directory(dir)) << dir;
    const bool update = std::getenv("KV_UPDATE_GOLDEN") != nullptr;
    std::vector<fs::path> expected_files;
    for (const auto& entry : fs::directory_iterator(dir))
        if (entry.path().extension() == ".txt") expected_files.push_back(entry.path());
    std::sort(expected_files.begin(), expected_files.end());
    ASSERT_GE(expected_files.size(), 10u);
    for (const fs::path& expected_path : expected_files) {
        // NAME.oN.txt
        const std::string stem = expected_path.stem().string();
        const size_t dot = stem.rfind(".o");
        ASSERT_NE(dot, std::string::npos) << expected_path;
        const std::string name = stem.substr(0, dot);
        const int32_t options = std::atoi(stem.c_str() + dot + 2);
        const fs::path html_path = dir / (name + ".html");
        ASSERT_TRUE(fs::exists(html_path)) << html_path;
        const std::string actual = Plain(ReadFile(html_path), options);
        if (update) {
            std::ofstream(expected_path, std::ios::binary) << actual;
            continue;
        }
        EXPECT_EQ(actual, ReadFile(expected_path)) << expected_path;
    }
}

}  // namespace
}  // namespace kv
