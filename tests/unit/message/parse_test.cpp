#include "message/parse.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "../support/text.h"
#include "automation/bstr.h"
#include "message/message.h"
#include "shell/classes.h"

namespace kv {
namespace {

using kv::testing::Bytes;
using kv::testing::ReadFile;
using kv::testing::Str;

std::string Utf8(const wbstring& s) {
    return automation::Utf16ToUtf8(std::u16string_view(s.pData ? s.pData : u"", size_t(s.nSize > 0 ? s.nSize : 0)));
}

// CRLF line ends for readable literals.
std::string Crlf(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '\n') out += '\r';
        out += c;
    }
    return out;
}

class ParseTest : public ::testing::Test {
protected:
    void SetUp() override {
        shell::RegisterCatalogue();
        msg_ = CMessage::New();
    }
    void TearDown() override { msg_->Release(); }

    void Parse(const std::string& raw) {
        msg_->m_bsRawBody.assign(raw.data(), int32_t(raw.size()));
        msg_->RawBodyToMessage();
    }
    CAttachment& Attachment(size_t i) { return *msg_->m_pAttachments->m_coll.at(i); }
    size_t AttachmentCount() { return msg_->m_pAttachments->m_coll.size(); }
    std::string Header(const char* name) {
        CMIMEHeader* h = msg_->m_pHeaders->Find(name);
        return h ? Str(h->m_bsRawValue) : "<none>";
    }

    CMessage* msg_ = nullptr;
};

// ---- SplitMultipart ----------------------------------------------------------------

struct SplitCase {
    const char* name;
    const char* body;
    const char* boundary;
    std::vector<std::string> parts;
};

TEST(SplitMultipartTest, Table) {
    const SplitCase cases[] = {
        {"two parts and epilogue", "pre\r\n--b\r\nA\r\n--b\r\nB\r\n--b--\r\nepi", "b", {"\r\nA", "\r\nB"}},
        {"boundary at the very start", "--b\r\nA\r\n--b--\r\n", "b", {"\r\nA"}},
        {"lost closing boundary keeps the last part", "--b\r\nA\r\n--b\r\nB tail", "b", {"\r\nA", "\r\nB tail"}},
        {"boundary nowhere gives the whole body", "just text", "zz", {"just text"}},
        {"empty boundary gives nothing", "--\r\nA", "", {}},
        {"text behind the boundary string is no boundary line", "--b\r\nA --bx\r\nB\r\n--b--\r\n", "b",
         {"\r\nA --bx\r\nB"}},
        {"boundary not at a line start is skipped", "--b\r\nx--b\r\n--b--\r\n", "b", {"\r\nx--b"}},
        {"any number of dashes, also none", "b\r\nA\r\n----b\r\nB\r\nb--\r\n", "b", {"\r\nA", "\r\nB"}},
        {"blanks behind the boundary line", "--b \t\r\nA\r\n--b--  \r\n", "b", {"\r\nA"}},
        {"empty parts are skipped", "--b\r\n--b\r\nA\r\n--b--", "b", {"\r\nA"}},
        {"boundary ending in a dash never closes", "--b-\r\nA\r\n--b---\r\nB", "b-", {"\r\nA", "\r\nB"}},
        {"closing line followed by text keeps the part", "--b\r\nA\r\n--b--x\r\nB", "b", {"\r\nA\r\n--b--x\r\nB"}},
        {"boundary at the end of the buffer", "--b\r\nA\r\n--b", "b", {"\r\nA"}},
        {"bare LF lines are not boundary lines", "--b\nA\n--b--\n", "b", {"--b\nA\n--b--\n"}},
    };
    for (const SplitCase& c : cases) {
        std::vector<bstring> parts;
        bstring body(c.body), boundary(c.boundary);
        SplitMultipart(parts, body, boundary);
        std::vector<std::string> got;
        for (const bstring& p : parts) {
            EXPECT_TRUE(p.is_view()) << c.name;
            EXPECT_GE(p.pData, body.pData) << c.name;
            EXPECT_LE(p.pData + p.nSize, body.pData + body.nSize) << c.name;
            got.push_back(Str(p));
        }
        EXPECT_EQ(got, c.parts) << c.name;
    }
}

TEST(SplitMultipartTest, PartLimitKeepsTheRestInTheLastPart) {
    std::string body;
    for (int i = 0; i < 10; ++i) body += "--b\r\npart" + std::to_string(i) + "\r\n";
    std::vector<bstring> parts;
    bstring text = Bytes(body), boundary("b");
    SplitMultipart(parts, text, boundary, 3);
    ASSERT_EQ(parts.size(), 3u);
    EXPECT_EQ(Str(parts[0]), "\r\npart0");
    EXPECT_EQ(Str(parts[1]), "\r\npart1");
    EXPECT_NE(Str(parts[2]).find("part9"), std::string::npos);
}

// ---- ParseHeaderSection ------------------------------------------------------------------

struct HeaderCase {
    const char* name;
    const char* text;
    // key=raw|wire per record, in order
    std::vector<std::string> records;
};

TEST(ParseHeaderSectionTest, Table) {
    const HeaderCase cases[] = {
        {"plain", "Subject: hi\r\nFrom:x", {"Subject=hi|hi", "From=x|x"}},
        {"one blank or tab after the colon is skipped", "A:\t  v\r\nB:  w", {"A=  v|  v", "B= w| w"}},
        {"continuation with a blank keeps one blank", "Subject: a\r\n  b", {"Subject=a  b|a\r\n  b"}},
        {"continuation with a tab joins with nothing", "Subject: a\r\n\tb", {"Subject=ab|a\r\n\tb"}},
        {"Content-Type keeps the line break", "Content-Type: text/plain;\r\n\tcharset=x",
         {"Content-Type=text/plain;\r\n\tcharset=x|text/plain;\r\n\tcharset=x"}},
        {"Received joins with a blank", "Received: a\r\n\tb", {"Received=a b|a\r\n\tb"}},
        {"two To lines are one list", "To: a@x\r\nto: b@x", {"To=a@x, b@x|a@x\r\n\tb@x"}},
        {"two Subject lines are one record of two lines", "Subject: a\r\nSubject: b", {"Subject=a\r\nb|a\r\n\tb"}},
        {"Received, Content-Type, Content-Transfer-Encoding repeat",
         "Received: 1\r\nReceived: 2\r\nContent-Type: a\r\nContent-Type: b",
         {"Received=1|1", "Received=2|2", "Content-Type=a|a", "Content-Type=b|b"}},
        {"bad names and colon-less lines are dropped; continuation stays with the last good one",
         "X: 1\r\nbad line\r\n: v\r\nBad Name: v\r\n cont", {"X=1 cont|1\r\n cont"}},
        {"name characters . $ _ are allowed", "X.a$b_c-d: v", {"X.a$b_c-d=v|v"}},
        {"leading continuation without a header is skipped", " orphan\r\n\r\nA: b", {"A=b|b"}},
        {"empty text gives nothing", "", {}},
    };
    for (const HeaderCase& c : cases) {
        CMIMEHeaders* headers = CMIMEHeaders::New();
        ParseHeaderSection(*headers, bstring(c.text));
        std::vector<std::string> got;
        for (CMIMEHeader* h : headers->m_coll)
            got.push_back(Str(h->m_bsKey) + "=" + Str(h->m_bsRawValue) + "|" +
                          Str(h->m_bsWireValue));
        EXPECT_EQ(got, c.records) << c.name;
        headers->Release();
    }
}

// ---- header parameters ----------------------------------------------------------------------

struct ParamCase {
    const char* name;
    const char* value;
    const char* main;
    std::vector<std::string> params;  // name=value in map order
};

TEST(SplitHeaderParametersTest, Table) {
    const ParamCase cases[] = {
        {"main value lower-cased and trimmed", " Text/HTML ; Charset=\"UTF-8\"", "text/html", {"charset=UTF-8"}},
        {"semicolon inside quotes", "a/b; name=\"x;y\"; q=1", "a/b", {"q=1", "name=x;y"}},
        {"empty name or value dropped, further = kept", "a/b;=x; n=; k=v=w", "a/b", {"k=v=w"}},
        {"last of two values wins", "a/b; n=1; N=2", "a/b", {"n=2"}},
        {"continuation of an encoded value is marked encoded", "a; filename*0*=utf-8''a; filename*1=b", "a",
         {"filename*0*=utf-8''a", "filename*1*=b"}},
        {"folded extended value is whole again", "a; name*=\"ab\r\n cd\"", "a", {"name*=ab cd"}},
        {"no parameters", "inline", "inline", {}},
        {"empty value", "", "", {}},
    };
    for (const ParamCase& c : cases) {
        CMIMEHeader* h = CMIMEHeader::New();
        h->m_bsKey.assign("Content-Type");
        h->m_bsRawValue.assign(c.value);
        SplitHeaderParameters(*h);
        EXPECT_EQ(Str(h->m_bsMainValue), c.main) << c.name;
        std::vector<std::string> got;
        for (auto& [k, v] : h->m_mapParams) got.push_back(Str(k) + "=" + Str(v));
        EXPECT_EQ(got, c.params) << c.name;
        h->Release();
    }
}

struct ExtendedCase {
    const char* value;
    bool assembled;
    const char* wide;
};

TEST(GetHeaderParameterTest, Table) {
    const ExtendedCase cases[] = {
        {"a; filename*0*=utf-8''a%20; filename*1=b", true, "a b"},
        {"a; filename*=UTF-8''%E2%9C%93.txt", true, "\xE2\x9C\x93.txt"},
        {"a; filename*=''x", true, "x"},
        {"a; filename*0=\"plain \"; filename*1=\"part\"", true, "plain part"},
        {"a; filename*0=\"=?utf-8?B?w6k=?=\"", true, "\xC3\xA9"},
        {"a; filename*=iso-8859-1'en'%E9t%E9", true, "\xC3\xA9t\xC3\xA9"},
        {"a; filename=plain.txt", false, ""},
        {"a; filename*=", false, ""},
    };
    for (const ExtendedCase& c : cases) {
        CMIMEHeader* h = CMIMEHeader::New();
        h->m_bsKey.assign("Content-Disposition");
        h->m_bsRawValue.assign(c.value);
        SplitHeaderParameters(*h);
        EXPECT_EQ(GetHeaderParameter(*h, "filename"), c.assembled) << c.value;
        if (c.assembled != (h->m_mapWideParams.size() > 0)) ADD_FAILURE() << c.value;
        auto it = h->m_mapWideParams.find(bstring("filename"));
        EXPECT_EQ(it == h->m_mapWideParams.end() ? "" : Utf8(it->second), c.wide) << c.value;
        for (auto& [k, v] : h->m_mapParams) EXPECT_FALSE(k.nSize >= 9 && k.equals_prefix("filename*", 9)) << c.value;
        h->Release();
    }
}

// ---- the whole parse: the edge cases that catch real faults -----------------------------

TEST_F(ParseTest, NoBlankLineMeansAllHeaderAndAnEmptyBody) {
    msg_->m_wsBodyText.assign(u"old");
    Parse("Subject: x\r\nFrom: a@b");
    EXPECT_EQ(Utf8(msg_->m_wsSubject), "x");
    EXPECT_EQ(Utf8(msg_->m_wsBodyText), "");
    EXPECT_EQ(AttachmentCount(), 0u);
}

TEST_F(ParseTest, EmptyRawBodyGivesAnEmptyBody) {
    msg_->m_wsBodyText.assign(u"old");
    Parse("");
    EXPECT_EQ(Utf8(msg_->m_wsBodyText), "");
    EXPECT_EQ(msg_->m_pHeaders->m_coll.size(), 0u);
}

TEST_F(ParseTest, HtmlWithPdfGetsAGeneratedPlainAlternative) {
    Parse(Crlf("Content-Type: multipart/mixed; boundary=B\n\n--B\nContent-Type: text/html\n\n"
               "<p>Hello <b>world</b></p>\n--B\nContent-Type: application/pdf\n"
               "Content-Transfer-Encoding: base64\n\nJVBERg==\n--B--\n"));
    EXPECT_EQ(msg_->m_nBodyFormat, 1);
    EXPECT_EQ(Utf8(msg_->m_wsBodyText), "<p>Hello <b>world</b></p>");
    EXPECT_NE(Utf8(msg_->m_wsAltBodyText).find("Hello world"), std::string::npos);
    ASSERT_EQ(AttachmentCount(), 1u);
    EXPECT_EQ(Str(Attachment(0).m_bsContent), "%PDF");
    EXPECT_EQ(Utf8(Attachment(0).m_wsFilename), "");  // Filename fills it in by its default rule
    EXPECT_EQ(Utf8(Attachment(0).DefaultFilename()), "att0.dat");
    EXPECT_TRUE(msg_->m_bHasAttachments);
}

TEST_F(ParseTest, AlternativeGivesHtmlBodyAndPlainAlternative) {
    for (int options : {0, 1, 2, 3}) {
        msg_->m_nAltBodyOptions = options;
        Parse(Crlf("Content-Type: multipart/alternative; boundary=\"=_x\"\n\n--=_x\n"
                   "Content-Type: text/plain; charset=iso-8859-1\nContent-Transfer-Encoding: quoted-printable\n\n"
                   "caf=E9\n--=_x\nContent-Type: text/html\n\n<i>HTML</i>\n--=_x--\n"));
        EXPECT_EQ(msg_->m_nBodyFormat, 1);
        EXPECT_EQ(Utf8(msg_->m_wsBodyText), "<i>HTML</i>");
        EXPECT_EQ(Utf8(msg_->m_wsAltBodyText), options == 2 ? "HTML" : "caf\xC3\xA9") << options;
        EXPECT_EQ(Str(msg_->m_bsCharset), "iso-8859-1");
        EXPECT_FALSE(msg_->m_bHasAttachments);
    }
}

TEST_F(ParseTest, HtmlOnlyAlternativeDependsOnOptions) {
    const std::string raw = Crlf("Content-Type: text/html; charset=utf-8\n\n<p>x</p>");
    msg_->m_nAltBodyOptions = 0;
    msg_->m_wsAltBodyText.assign(u"stale");
    Parse(raw);
    EXPECT_EQ(Utf8(msg_->m_wsAltBodyText), "");
    msg_->m_nAltBodyOptions = 1;
    Parse(raw);
    EXPECT_EQ(Utf8(msg_->m_wsAltBodyText).substr(0, 1), "x");
    EXPECT_EQ(msg_->m_nCodepageOriginal, 65001);
    EXPECT_EQ(Str(msg_->m_bsCharsetOriginal), "utf-8");
}

TEST_F(ParseTest, TextPartsAreGlued) {
    Parse(Crlf("Content-Type: multipart/mixed; boundary=B\n\n--B\nContent-Type: text/html\n\n<a>\n"
               "--B\nContent-Type: text/plain\n\none\n--B\nContent-Type: image/gif; name=x.gif\n\nGIF\n"
               "--B\nContent-Type: text/html\n\n<b>\n--B\n\ntwo\n--B--\n"));
    EXPECT_EQ(Utf8(msg_->m_wsBodyText), "<a>\r\n<hr/><!-- NEXT BODY PART -->\r\n<b>");
    EXPECT_EQ(Utf8(msg_->m_wsAltBodyText), "one\r\n\r\ntwo");
    ASSERT_EQ(AttachmentCount(), 1u);
    EXPECT_EQ(Utf8(Attachment(0).m_wsFilename), "x.gif");
}

TEST_F(ParseTest, CalendarBecomesTheSpecialBody) {
    Parse(Crlf("Content-Type: multipart/alternative; boundary=B\n\n--B\nContent-Type: text/plain\n\nplain\n"
               "--B\nContent-Type: text/calendar; method=REQUEST;\n charset=utf-8\n\nBEGIN:VCALENDAR\n--B--\n"));
    EXPECT_EQ(Utf8(msg_->m_wsBodyText), "plain");
    EXPECT_EQ(Utf8(msg_->m_wsSpecialBodyText), "BEGIN:VCALENDAR");
    EXPECT_EQ(Str(msg_->m_bsSpecialBodyContentType),
              "text/calendar; method=REQUEST;\r\n charset=utf-8");
}

TEST_F(ParseTest, EmbeddedMessageIsAnAttachmentNotParsed) {
    Parse(Crlf("Subject: outer\nContent-Type: multipart/mixed; boundary=B\n\n--B\n\nbody\n"
               "--B\nContent-Type: message/rfc822\n\nSubject: inner\n\ninner body\n--B--\n"));
    EXPECT_EQ(Utf8(msg_->m_wsSubject), "outer");
    EXPECT_EQ(Utf8(msg_->m_wsBodyText), "body");
    ASSERT_EQ(AttachmentCount(), 1u);
    EXPECT_TRUE(Attachment(0).m_bMessage);
    EXPECT_TRUE(Attachment(0).m_bInline);
    EXPECT_EQ(Str(Attachment(0).m_bsContent), "Subject: inner\r\n\r\ninner body");
    EXPECT_EQ(Utf8(Attachment(0).DefaultFilename()), "att0.eml");
}

struct AttachmentCase {
    const char* name;
    const char* headers;
    const char* filename;
    bool attachment;
    bool is_inline;
};

TEST_F(ParseTest, AttachmentOrTextTable) {
    const AttachmentCase cases[] = {
        {"path characters become underscores", "Content-Type: text/plain; name=\"..\\a/b:c.txt\"", ".._a_b_c.txt", true, true},
        {"a file name makes text an attachment", "Content-Disposition: inline; filename=a.txt", "a.txt", true, true},
        {"explicit attachment without a name", "Content-Disposition: attachment", "", true, false},
        {"inline html without a name is text", "Content-Type: text/html\nContent-Disposition: inline", nullptr, false, false},
        {"bare word text is text", "Content-Type: text", nullptr, false, false},
        {"unknown type is an attachment", "Content-Type: application/x-thing", "", true, true},
        {"encoded words in a name", "Content-Type: a/b; name=\"=?utf-8?Q?caf=C3=A9?=.txt\"", "caf\xC3\xA9.txt", true, true},
        {"RFC 2231 name wins over Content-Type's name",
         "Content-Type: a/b; name=ct.bin\nContent-Disposition: attachment; filename*=utf-8''d%C3%A9.bin", "d\xC3\xA9.bin", true, false},
        {"location is the name of last resort", "Content-Type: image/png\nContent-Location: http://x/a%20b.png", "http___x_a b.png", true, true},
        {"location without a scheme keeps %20", "Content-Type: image/png\nContent-Location: a%20b.png", "a%20b.png", true, true},
    };
    for (const AttachmentCase& c : cases) {
        Parse(Crlf(std::string("Content-Type: multipart/mixed; boundary=B\n\n--B\n") + c.headers + "\n\ndata\n--B--\n"));
        ASSERT_EQ(AttachmentCount(), c.attachment ? 1u : 0u) << c.name;
        if (!c.attachment) {
            EXPECT_EQ(Utf8(msg_->m_wsBodyText), "data") << c.name;
            continue;
        }
        EXPECT_EQ(Utf8(Attachment(0).m_wsFilename), c.filename) << c.name;
        EXPECT_EQ(Attachment(0).m_bInline, c.is_inline) << c.name;
        EXPECT_EQ(Str(Attachment(0).m_bsContent), "data") << c.name;
        EXPECT_EQ(Attachment(0).m_nOrdinal, 0) << c.name;
    }
}

TEST_F(ParseTest, TransferEncodingsAreDecoded) {
    struct {
        const char* encoding;
        const char* body;
        const char* decoded;
    } cases[] = {
        {"base64", "aGVs\r\nbG8=", "hello"},
        {" Quoted-Printable ", "a=3Db=\r\nc_d", "a=bc_d"},
        {"x-uuencode", "begin 644 f\r\n%:&5L;&\\`\r\n`\r\nend", "hello"},
        {"7bit", "as is=3D", "as is=3D"},
    };
    for (auto& c : cases) {
        Parse(std::string("Content-Type: application/octet-stream\r\nContent-Transfer-Encoding: ") + c.encoding +
              "\r\n\r\n" + c.body);
        ASSERT_EQ(AttachmentCount(), 1u) << c.encoding;
        EXPECT_EQ(Str(Attachment(0).m_bsContent), c.decoded) << c.encoding;
    }
}

TEST_F(ParseTest, UuencodedFilesInAPlainMailBody) {
    Parse(Crlf("Subject: uu\n\nbefore\nbegin 644 hi.txt\n%:&5L;&\\`\n`\nend\nafter\n"));
    ASSERT_EQ(AttachmentCount(), 1u);
    EXPECT_EQ(Utf8(Attachment(0).m_wsFilename), "hi.txt");
    EXPECT_EQ(Str(Attachment(0).m_bsContent), "hello");
    EXPECT_FALSE(Attachment(0).m_bInline);
    EXPECT_EQ(Utf8(msg_->m_wsBodyText), "before\r\nafter\r\n");

    // Not at a line start, or in a mail with a Content-Type: plain text.
    for (const char* raw : {"Subject: uu\r\n\r\nsee begin 644 hi.txt\r\nM\r\nend\r\nxxxxxxxx",
                            "Content-Type: text/plain\r\n\r\nbegin 644 hi.txt\r\nM\r\nend\r\nxxxxxxxx"}) {
        Parse(raw);
        EXPECT_EQ(AttachmentCount(), 0u) << raw;
    }
}

TEST_F(ParseTest, MultipartWithoutItsBoundaryIsOneTextPart) {
    // The sub-part is the whole body; its first stretch up to a blank line is
    // taken for its header section.
    Parse(Crlf("Content-Type: multipart/mixed; boundary=nowhere\n\nfirst line\n\nplain words"));
    EXPECT_EQ(AttachmentCount(), 0u);
    EXPECT_EQ(Utf8(msg_->m_wsBodyText), "plain words");
}

TEST_F(ParseTest, CharsetInheritanceAndHeaderCodepage) {
    // No charset at the top: headers are decoded in the body's code page.
    Parse("Subject: caf\xE9\r\nContent-Type: multipart/mixed; boundary=B\r\n\r\n--B\r\n"
          "Content-Type: text/plain; charset=iso-8859-1\r\n\r\na\r\n--B\r\n\r\n\xE9t\xE9\r\n--B--\r\n");
    EXPECT_EQ(Utf8(msg_->m_wsSubject), "caf\xC3\xA9");
    EXPECT_EQ(Utf8(msg_->m_wsBodyText), "a\r\n\r\n\xC3\xA9t\xC3\xA9");
    EXPECT_EQ(msg_->m_nTopCodepage, -1);

    // A charset at the top is the headers' own.
    Parse("Subject: \xC3\xA9\r\nContent-Type: text/plain; charset=utf-8\r\n\r\nx");
    EXPECT_EQ(Utf8(msg_->m_wsSubject), "\xC3\xA9");
    EXPECT_EQ(msg_->m_nTopCodepage, 65001);
}

TEST_F(ParseTest, HeaderPropertiesAndReceived) {
    msg_->m_wsBCCAddr.assign(u"kept@x");
    Parse(Crlf("Received: from a\n\tby b\nReceived: from c\nFrom: A <a@x>\nTo: b@x\nCC: c@x\nTo: d@x\n"
               "Reply-To: r@x\nReturn-Path: <rp@x>\nDate: Mon, 1 Jan 2024 00:00:00 +0000\n"
               "Message-ID: <id@x>\nSubject: =?utf-8?B?4pyT?= =?utf-8?B?4pyT?=\nX-Custom: v\n\nbody"));
    EXPECT_EQ(Utf8(msg_->m_wsFromAddr), "A <a@x>");
    EXPECT_EQ(Utf8(msg_->m_wsToAddr), "b@x, d@x");
    EXPECT_EQ(Utf8(msg_->m_wsCCAddr), "c@x");
    EXPECT_EQ(Utf8(msg_->m_wsReplyToAddr), "r@x");
    EXPECT_EQ(Utf8(msg_->m_wsSubject), "\xE2\x9C\x93\xE2\x9C\x93");
    EXPECT_EQ(Utf8(msg_->m_wsBCCAddr), "kept@x");
    EXPECT_EQ(Str(msg_->m_bsReturnPath), "<rp@x>");
    EXPECT_EQ(Str(msg_->m_bsMessageId), "<id@x>");
    EXPECT_EQ(Str(msg_->m_bsXMailer), "");  // a missing header empties the field
    EXPECT_EQ(Str(msg_->m_bsReceived), "from a by b\r\nfrom c");
    EXPECT_EQ(Header("Received"), "<none>");
    EXPECT_TRUE(msg_->m_pHeaders->Find("to")->m_bStandard);
    EXPECT_FALSE(msg_->m_pHeaders->Find("x-custom")->m_bStandard);
}

TEST_F(ParseTest, HeadersOnlyMessageJudgesAttachmentsByType) {
    struct {
        const char* type;
        bool has;
    } cases[] = {{"Multipart/Mixed; boundary=x", true}, {"multipart/alternative; boundary=x", false},
                 {"text/plain", false}, {nullptr, false}};
    for (auto& c : cases) {
        msg_->m_bHeadersOnly = true;
        Parse(c.type ? std::string("Content-Type: ") + c.type + "\r\n\r\n" : "Subject: x\r\n\r\n");
        EXPECT_EQ(msg_->m_bHasAttachments, c.has) << (c.type ? c.type : "none");
    }
    msg_->m_bHeadersOnly = false;
}

TEST_F(ParseTest, ParsingTwiceGivesTheSameProperties) {
    const std::string raw = Crlf("From: a@x\nSubject: s\nContent-Type: multipart/mixed; boundary=B\n\n"
                                 "--B\nContent-Type: text/plain\n\nhello\n--B\nContent-Type: a/b; name=n\n\nz\n--B--\n");
    Parse(raw);
    std::string first = Utf8(msg_->m_wsBodyText) + Utf8(msg_->m_wsSubject) + std::to_string(AttachmentCount());
    Parse(raw);
    EXPECT_EQ(Utf8(msg_->m_wsBodyText) + Utf8(msg_->m_wsSubject) + std::to_string(AttachmentCount()), first);
    EXPECT_EQ(msg_->m_pHeaders->m_coll.size(), 3u);
}

// ---- hostile input --------------------------------------------------------------------------

TEST_F(ParseTest, DeepNestingIsBoundedAndKeepsTheInnermostBytes) {
    std::string raw = "Content-Type: multipart/mixed; boundary=b0\r\n\r\n";
    const int depth = 500;
    for (int i = 1; i <= depth; ++i)
        raw += "--b" + std::to_string(i - 1) + "\r\nContent-Type: multipart/mixed; boundary=b" + std::to_string(i) + "\r\n\r\n";
    raw += "--b" + std::to_string(depth) + "\r\nContent-Type: text/plain\r\n\r\ndeep text\r\n";
    Parse(raw);
    // The level past the limit is one attachment holding all the rest.
    ASSERT_EQ(AttachmentCount(), 1u);
    EXPECT_NE(Str(Attachment(0).m_bsContent).find("deep text"), std::string::npos);
}

TEST_F(ParseTest, PartCountIsBounded) {
    std::string raw = "Content-Type: multipart/mixed; boundary=b\r\n\r\n";
    for (int i = 0; i < kMaxParts + 50; ++i) raw += "--b\r\nContent-Type: a/b\r\n\r\nx\r\n";
    raw += "--b\r\nContent-Type: a/b\r\n\r\nlast\r\n--b--\r\n";
    Parse(raw);
    ASSERT_EQ(AttachmentCount(), size_t(kMaxParts));
    EXPECT_NE(Str(Attachment(kMaxParts - 1).m_bsContent).find("last"), std::string::npos);
}

TEST_F(ParseTest, RepeatedHeadersAndLongBoundariesStayLinear) {
    // Quadratic work here would take minutes; linear takes milliseconds.
    std::string raw;
    for (int i = 0; i < 200000; ++i) raw += "To: a@b\r\n";
    for (int i = 0; i < 50000; ++i) raw += "X-" + std::to_string(i) + ": v\r\n";
    raw += "Content-Type: multipart/mixed; boundary=" + std::string(100000, 'a') + "\r\n\r\n" +
           std::string(400000, 'a');
    Parse(raw);
    EXPECT_EQ(Utf8(msg_->m_wsToAddr).size(), 200000u * 3 + 199999u * 2);
    EXPECT_EQ(msg_->m_pHeaders->m_coll.size(), 50002u);
}

TEST_F(ParseTest, TruncationAtEveryPointNeverBreaks) {
    const std::string raw = Crlf(
        "From: =?utf-8?Q?J=C3=BCrgen?= <j@x>\nSubject: t\nContent-Type: multipart/mixed; boundary=\"B\"\n\n"
        "--B\nContent-Type: multipart/alternative; boundary=C\n\n--C\nContent-Type: text/plain; charset=utf-8\n"
        "Content-Transfer-Encoding: quoted-printable\n\nh=C3=A9\n--C\nContent-Type: text/html\n\n<p>h</p>\n--C--\n"
        "--B\nContent-Type: image/png; name*=utf-8''p%C3%A9.png\nContent-Transfer-Encoding: base64\n\n"
        "iVBORw0KGgo=\n--B\nContent-Type: message/rfc822\n\nSubject: in\n\nx\n--B--\n");
    for (size_t n = 0; n <= raw.size(); ++n) {
        Parse(raw.substr(0, n));
        for (size_t i = 0; i < AttachmentCount(); ++i) EXPECT_GE(Attachment(i).m_bsContent.nSize, 0);
    }
    EXPECT_EQ(AttachmentCount(), 2u);
    EXPECT_EQ(Utf8(Attachment(0).m_wsFilename), "p\xC3\xA9.png");
}

// ---- real messages that we did not write ------------------------------------------------------

TEST_F(ParseTest, MimeKitSamplesParse) {
    const std::filesystem::path dir = std::filesystem::path(KV_SOURCE_DIR) / "tests/data/messages/mimekit";
    ASSERT_TRUE(std::filesystem::exists(dir));
    struct Expect {
        const char* file;
        size_t attachments;
        int format;
        const char* body_start;
    } cases[] = {
        {"simple-multipart.eml", 1, 0, "This is the message body."},
        {"simple-embedded-message.eml", 1, 0, "This is the message body."},
        {"empty-multipart.txt", 1, 0, ""},  // the empty alternative is kept as a part
        {"epilogue.txt", 1, 0, ""},
        {"multipart-related-mhtml.txt", 1, 1, "<!DOCTYPE"},
        {"delivery-status.txt", 2, 0, ""},
    };
    for (auto& c : cases) {
        std::string raw = ReadFile(dir / c.file);
        if (raw.find("\r\n") == std::string::npos) raw = Crlf(raw);
        // Without a text part the body keeps what it held: start clean.
        msg_->m_nBodyFormat = 0;
        msg_->m_wsBodyText.nSize = 0;
        Parse(raw);
        EXPECT_EQ(AttachmentCount(), c.attachments) << c.file;
        EXPECT_EQ(msg_->m_nBodyFormat, c.format) << c.file;
        EXPECT_EQ(Utf8(msg_->m_wsBodyText).rfind(c.body_start, 0), 0u) << c.file;
    }
    // Every sample parses, whatever its line ends.
    for (auto& entry : std::filesystem::directory_iterator(dir)) {
        std::string raw = ReadFile(entry.path());
        Parse(raw);
        Parse(Crlf(raw));
    }
}

}  // namespace
}  // namespace kv
