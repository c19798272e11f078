// Media types: the format table, the extension table in its order, and the
// extensions of media types, texts exactly as listed.
#include "codecs/mediatype.h"

#include <gtest/gtest.h>

#include <string>

#include "../support/text.h"

namespace kv {
namespace {

using kv::testing::Str;

std::string FormatType(int32_t format, const char* before = "unchanged") {
    bstring out(before);
    GetFormatMediaType(out, format);
    return Str(out);
}

std::string TypeOf(const char16_t* name) {
    bstring out("unchanged");
    GetMediaTypeFromFileName(out, wbstring(name));
    return Str(out);
}

std::u16string ExtensionOf(const char* type, bool useDefault) {
    wbstring out(u"unchanged");
    GetExtensionFromMediaType(out, bstring(type), useDefault);
    return Str(out);
}

TEST(GetFormatMediaType, EveryNumber) {
    EXPECT_EQ(FormatType(0), "text/plain");
    EXPECT_EQ(FormatType(1), "text/html");
    EXPECT_EQ(FormatType(2), "text/rtf");
    EXPECT_EQ(FormatType(3), "text/xml");
    EXPECT_EQ(FormatType(4), "multipart/mixed");
    EXPECT_EQ(FormatType(5), "multipart/related");
    EXPECT_EQ(FormatType(6), "multipart/alternative");
    EXPECT_EQ(FormatType(7), "text/plain");
    for (int32_t n = 8; n <= 15; ++n) EXPECT_EQ(FormatType(n), "") << n;
    EXPECT_EQ(FormatType(16),
              "application/pkcs7-mime; name=\"smime.p7m\"\r\n"
              "Content-Disposition: attachment; filename=\"smime.p7m\"");
    EXPECT_EQ(FormatType(17), "multipart/signed; application/pkcs7-signature");
    // Numbers above 17 leave the destination as it is.
    EXPECT_EQ(FormatType(18), "unchanged");
    EXPECT_EQ(FormatType(1000), "unchanged");
    EXPECT_EQ(FormatType(-1), "unchanged");
}

TEST(GetFormatFromMediaType, IgnoresCase) {
    struct Case {
        const char* type;
        int32_t want;
    } cases[] = {
        {"", 0},
        {"text/plain", 0},
        {"TEXT/PLAIN", 0},
        {"text", 0},
        {"Text", 0},
        {"text/html", 1},
        {"TEXT/HTML", 1},
        {"text/rtf", 2},
        {"Text/Rtf", 2},
        {"text/xml", 3},
        {"application/pdf", 7},
        {"text/enriched", 7},
        {" text/html", 7},
        {"text/html; charset=utf-8", 7},
        {"multipart/mixed", 7},
    };
    for (const auto& c : cases)
        EXPECT_EQ(GetFormatFromMediaType(bstring(c.type)), c.want) << c.type;
}

TEST(IsMultipartFormat, FourFiveSix) {
    for (int32_t n = -1; n <= 20; ++n) EXPECT_EQ(IsMultipartFormat(n), n >= 4 && n <= 6) << n;
}

TEST(GetMediaTypeFromFileName, ExtensionTable) {
    struct Case {
        const char16_t* name;
        const char* want;
    } cases[] = {
        {u"a.gif", "image/gif"},
        {u"A.GIF", "image/gif"},
        {u"a.png", "image/png"},
        {u"a.jpg", "image/jpeg"},
        {u"a.jpe", "image/jpeg"},
        {u"a.JPEG", "image/jpeg"},
        {u"a.tif", "image/tiff"},
        {u"a.tiff", "image/tiff"},
        {u"a.bin", "application/octet-stream"},
        {u"a.dms", "application/octet-stream"},
        {u"a.lha", "application/octet-stream"},
        {u"a.lzh", "application/octet-stream"},
        {u"a.exe", "application/octet-stream"},
        {u"a.class", "application/octet-stream"},
        {u"a.dll", "application/octet-stream"},
        {u"a.js", "application/x-javascript"},
        {u"a.swf", "application/x-shockwave-flash"},
        {u"a.doc", "application/msword"},
        {u"a.zip", "application/zip"},
        {u"a.ai", "application/postscript"},
        {u"a.eps", "application/postscript"},
        {u"a.ps", "application/postscript"},
        {u"a.pdf", "application/pdf"},
        {u"a.rtf", "application/rtf"},
        {u"a.ppt", "application/vnd.ms-powerpoint"},
        {u"a.htm", "text/html"},
        {u"a.html", "text/html"},
        {u"a.css", "text/css"},
        {u"a.rtx", "text/richtext"},
        {u"a.txt", "text/plain"},
        {u"a.asc", "text/plain"},
        {u"a.xml", "text/xml"},
        {u"a.wav", "audio/x-wav"},
        {u"a.mid", "audio/midi"},
        {u"a.midi", "audio/midi"},
        {u"a.mpga", "audio/mpeg"},
        {u"a.mp2", "audio/mpeg"},
        {u"a.mp3", "audio/mpeg"},
        {u"a.aif", "audio/x-aiff"},
        {u"a.aiff", "audio/x-aiff"},
        {u"a.ra", "audio/x-realaudio"},
        {u"a.mpeg", "video/mpeg"},
        {u"a.mpg", "video/mpeg"},
        {u"a.mpe", "video/mpeg"},
        {u"a.qt", "video/quicktime"},
        {u"a.mov", "video/quicktime"},
        {u"a.avi", "video/x-msvideo"},
        // What stands behind the last dot decides.
        {u"archive.tar.gz", "application/octet-stream"},
        {u"photo.backup.png", "image/png"},
        {u"/tmp/dir.d/report.PDF", "application/pdf"},
        {u"noext", "application/octet-stream"},
        {u"name.", "application/octet-stream"},
        {u".png", "image/png"},
        {u"", "application/octet-stream"},
        {u"a.docx", "application/octet-stream"},
        {u"a.pn", "application/octet-stream"},
        // An extension outside code page 1252 cannot match.
        {u"a.\u0433if", "application/octet-stream"},
        {u"\u65e5\u672c.jpg", "image/jpeg"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(TypeOf(c.name), c.want) << std::string(c.want);
    }
}

TEST(GetExtensionFromMediaType, Table) {
    EXPECT_EQ(ExtensionOf("message/rfc822", false), u"eml");
    EXPECT_EQ(ExtensionOf("message/", true), u"eml");
    EXPECT_EQ(ExtensionOf("image/gif", false), u"gif");
    EXPECT_EQ(ExtensionOf("IMAGE/GIF", false), u"gif");
    EXPECT_EQ(ExtensionOf("image/jpeg", false), u"jpg");
    EXPECT_EQ(ExtensionOf("image/png", true), u"png");
    EXPECT_EQ(ExtensionOf("text/html", false), u"html");
    EXPECT_EQ(ExtensionOf("Text/HTML", false), u"html");
    // The "message/" test is exact about case: callers lower-case first.
    EXPECT_EQ(ExtensionOf("Message/rfc822", true), u"dat");
    EXPECT_EQ(ExtensionOf("Message/rfc822", false), u"");
    EXPECT_EQ(ExtensionOf("xmessage/rfc822", false), u"");
    // Any other type: "dat" with useDefault, else empty.
    EXPECT_EQ(ExtensionOf("application/pdf", true), u"dat");
    EXPECT_EQ(ExtensionOf("application/pdf", false), u"");
    EXPECT_EQ(ExtensionOf("", true), u"dat");
    EXPECT_EQ(ExtensionOf("", false), u"");
    EXPECT_EQ(ExtensionOf("image/gif; name=x", false), u"");
}

}  // namespace
}  // namespace kv
