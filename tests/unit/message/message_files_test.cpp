#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "../support/text.h"
#include "automation/bstr.h"
#include "automation/safearray.h"
#include "automation/variant.h"
#include "codecs/digest.h"
#include "message/embedded.h"
#include "message/files.h"
#include "message/message.h"
#include "shell/classes.h"

namespace kv {
namespace {

using kv::testing::ReadFile;
using kv::testing::Utf8;

namespace fs = std::filesystem;
using automation::Bstr;

std::string Utf8(BSTR s) {
    std::string out = automation::Utf16ToUtf8(std::u16string_view(s ? s : u"", SysStringLen(s)));
    SysFreeString(s);
    return out;
}
void Write(const fs::path& p, const std::string& text) { std::ofstream(p, std::ios::binary) << text; }
wbstring W(const std::string& s) {
    wbstring w;
    w.import_bstring(bstring(s.data(), int32_t(s.size())), 65001);
    return w;
}

class MessageFilesTest : public ::testing::Test {
protected:
    void SetUp() override {
        shell::RegisterCatalogue();
        msg_ = CMessage::New();
        dir_ = fs::temp_directory_path() / ("kv_files_" + std::to_string(getpid()) + "_" +
                                            ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir_);
        fs::create_directories(dir_);
    }
    void TearDown() override {
        msg_->Release();
        fs::remove_all(dir_);
    }
    Bstr S(const std::string& s) { return Bstr::FromUtf8(s.c_str()); }
    bool Ok(VARIANT_BOOL b) { return b == VARIANT_TRUE; }

    CMessage* msg_ = nullptr;
    fs::path dir_;
};

// ---- digests --------------------------------------------------------------------------------

TEST(DigestTest, KnownValues) {
    struct {
        const char* text;
        const char* hex;
    } cases[] = {{"", "d41d8cd98f00b204e9800998ecf8427e"},
                 {"abc", "900150983cd24fb0d6963f7d28e17f72"},
                 {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"}};
    for (auto& c : cases) {
        char hex[33];
        Md5Hex(hex, c.text, int32_t(std::strlen(c.text)));
        EXPECT_STREQ(hex, c.hex);
    }
    // RFC 2202 test case 2 for HMAC-MD5.
    char mac[33];
    HmacMd5Hex(mac, "what do ya want for nothing?", 28, "Jefe", 4);
    EXPECT_STREQ(mac, "750c783e6ab0b503eaa86e310a5db738");
}

TEST(DigestTest, LongKeyIsReplacedByItsDigest) {
    std::string key(65, 'k');
    unsigned char short_key[16], a[16], b[16];
    Md5Bytes(key.data(), 65, short_key);
    HmacMd5("text", 4, key.data(), 65, a);
    HmacMd5("text", 4, short_key, 16, b);
    EXPECT_EQ(std::memcmp(a, b, 16), 0);
    std::string key64(64, 'k');
    HmacMd5("text", 4, key64.data(), 64, b);
    EXPECT_NE(std::memcmp(a, b, 16), 0);
}

TEST_F(MessageFilesTest, DigestMembers) {
    BSTR out = nullptr;
    msg_->GetMD5Digest(S("abc").get(), 65001, &out);
    EXPECT_EQ(Utf8(out), "900150983cd24fb0d6963f7d28e17f72");
    std::string utf8, latin1;
    msg_->GetMD5Digest(S("\xC3\xA9").get(), 65001, &out);
    utf8 = Utf8(out);
    msg_->GetMD5Digest(S("\xC3\xA9").get(), 1252, &out);
    latin1 = Utf8(out);
    EXPECT_NE(utf8, latin1);

    SAFEARRAY* bytes = SafeArrayCreateVector(VT_UI1, 0, 3);
    void* data = nullptr;
    SafeArrayAccessData(bytes, &data);
    std::memcpy(data, "abc", 3);
    SafeArrayUnaccessData(bytes);
    VARIANT v;
    VariantInit(&v);
    v.vt = VT_ARRAY | VT_UI1;
    v.parray = bytes;
    msg_->GetMD5DigestOfArray(v, &out);
    EXPECT_EQ(Utf8(out), "900150983cd24fb0d6963f7d28e17f72");
    VariantClear(&v);

    VARIANT text;
    VariantInit(&text);
    text.vt = VT_BSTR;
    text.bstrVal = SysAllocString(u"abc");
    out = reinterpret_cast<BSTR>(1);
    msg_->GetMD5DigestOfArray(text, &out);
    EXPECT_EQ(out, nullptr);
    VariantClear(&text);
}

// ---- files ------------------------------------------------------------------------------------

TEST_F(MessageFilesTest, ImportSaveAndReimport) {
    const std::string raw = "Subject: s\r\nContent-Type: text/plain\r\n\r\nbody";
    Write(dir_ / "in.eml", raw);
    VARIANT_BOOL ok = 0;
    msg_->ImportFromFile(S((dir_ / "in.eml").string()).get(), &ok);
    ASSERT_TRUE(Ok(ok));
    EXPECT_EQ(Utf8(msg_->m_wsBodyText), "body");
    EXPECT_FALSE(msg_->m_bNeedsRebuild);
    msg_->SaveMessage(S((dir_ / "out.eml").string()).get(), &ok);
    EXPECT_TRUE(Ok(ok));
    EXPECT_EQ(ReadFile(dir_ / "out.eml"), raw);  // no dot-stuffing, no line end added

    // A missing file: False, the raw text is gone, the properties stay.
    msg_->ImportFromFile(S((dir_ / "missing.eml").string()).get(), &ok);
    EXPECT_FALSE(Ok(ok));
    EXPECT_EQ(msg_->m_bsRawBody.nSize, 0);
    EXPECT_EQ(Utf8(msg_->m_wsSubject), "s");
}

TEST_F(MessageFilesTest, ImportFromMemoryTakesOnlyByteArrays) {
    msg_->m_wsSubject.assign(u"kept");
    VARIANT text;
    VariantInit(&text);
    text.vt = VT_BSTR;
    text.bstrVal = SysAllocString(u"Subject: no");
    VARIANT_BOOL ok = VARIANT_TRUE;
    msg_->ImportFromMemory(text, &ok);
    EXPECT_FALSE(Ok(ok));
    EXPECT_EQ(Utf8(msg_->m_wsSubject), "kept");
    VariantClear(&text);

    Write(dir_ / "m.eml", "Subject: yes\r\n\r\nx");
    VARIANT array;
    msg_->GetFileAsArray(S((dir_ / "m.eml").string()).get(), &array);
    ASSERT_EQ(array.vt, VT_ARRAY | VT_UI1);
    msg_->ImportFromMemory(array, &ok);
    EXPECT_TRUE(Ok(ok));
    EXPECT_EQ(Utf8(msg_->m_wsSubject), "yes");
    VariantClear(&array);

    msg_->GetFileAsArray(S((dir_ / "none").string()).get(), &array);
    EXPECT_EQ(array.vt, VT_EMPTY);
}

TEST_F(MessageFilesTest, WriteStringToFileAppendsUnlessOverwrite) {
    const std::string path = (dir_ / "t.txt").string();
    VARIANT_BOOL ok = 0;
    msg_->WriteStringToFile(S(path).get(), S("a\xC3\xA9").get(), VARIANT_FALSE, 65001, &ok);
    msg_->WriteStringToFile(S(path).get(), S("b\xC3\xA9").get(), VARIANT_FALSE, 1252, &ok);
    EXPECT_TRUE(Ok(ok));
    EXPECT_EQ(ReadFile(path),
              "a\xC3\xA9"
              "b\xE9");
    msg_->WriteStringToFile(S(path).get(), S("c").get(), VARIANT_TRUE, -5, &ok);
    EXPECT_EQ(ReadFile(path), "c");
    msg_->WriteStringToFile(S("").get(), S("c").get(), VARIANT_TRUE, 0, &ok);
    EXPECT_FALSE(Ok(ok));
}

TEST_F(MessageFilesTest, ImportBodyTextPlainHtmlAndAlt) {
    Write(dir_ / "p.txt", "caf\xE9");
    Write(dir_ / "pic.gif", "GIF89a");
    Write(dir_ / "h.html", "<html><head><meta http-equiv=\"Content-Type\" content=\"text/html; charset=iso-8859-1\">"
                           "</head><body>caf\xE9<img src=\"pic.gif\"><img src='pic.gif'><img src=\"nope.gif\"></body></html>");
    VARIANT_BOOL ok = 0;
    msg_->ImportBodyText(S((dir_ / "p.txt").string()).get(), VARIANT_FALSE, VARIANT_FALSE, S("iso-8859-1").get(), 0, &ok);
    EXPECT_TRUE(Ok(ok));
    EXPECT_EQ(Utf8(msg_->m_wsBodyText), "caf\xC3\xA9");

    msg_->ImportBodyText(S((dir_ / "h.html").string()).get(), VARIANT_TRUE, VARIANT_TRUE, S("").get(), 2, &ok);
    EXPECT_TRUE(Ok(ok));
    EXPECT_EQ(msg_->m_nBodyFormat, 1);
    std::string body = Utf8(msg_->m_wsBodyText);
    EXPECT_EQ(body.rfind("caf\xC3\xA9<html>", 0), 0u);   // appended behind the old body
    EXPECT_EQ(body.find("<meta"), std::string::npos);    // the charset tag is removed
    EXPECT_NE(body.find("src=\"nope.gif\""), std::string::npos);
    EXPECT_EQ(std::string(msg_->m_bsCharset.pData, size_t(msg_->m_bsCharset.nSize)), "iso-8859-1");
    ASSERT_EQ(msg_->m_pAttachments->CountInternal(), 1);  // one file, referenced twice
    std::string id = Utf8(msg_->m_pAttachments->m_coll[0]->m_wsContentID);
    size_t first = body.find("src=\"cid:" + id + "\"");
    ASSERT_NE(first, std::string::npos);
    EXPECT_NE(body.find("src=\"cid:" + id + "\"", first + 1), std::string::npos);

    msg_->m_nBodyFormat = 0;
    msg_->ImportBodyText(S((dir_ / "missing.html").string()).get(), VARIANT_TRUE, VARIANT_FALSE, S("").get(), 0, &ok);
    EXPECT_FALSE(Ok(ok));
    EXPECT_EQ(msg_->m_nBodyFormat, 1);

    // The alternative ignores its charset argument: the system code page.
    msg_->ImportAltBodyText(S((dir_ / "p.txt").string()).get(), VARIANT_FALSE, S("shift_jis").get(), &ok);
    EXPECT_TRUE(Ok(ok));
    EXPECT_EQ(Utf8(msg_->m_wsAltBodyText), "caf\xC3\xA9");
}

TEST_F(MessageFilesTest, OpenAndLockFile) {
    int fd = OpenAndLockFile(W((dir_ / "lock").string()));
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(fs::exists(dir_ / "lock"));
    close(fd);
    EXPECT_EQ(OpenAndLockFile(W((dir_ / "no/such/dir").string())), -1);
}

// ---- message directories ------------------------------------------------------------------------

TEST(EmbeddedTest, UrlEscapeNameAndContentIds) {
    wbstring out;
    EXPECT_EQ(Utf8(UrlEscapeName(W("a b\n\xC3\xA9.-_Z9"), out)), "a%20b%a%c3%a9.-_Z9");
    EXPECT_EQ(Utf8(UrlEscapeName(W(""), out)), "");
    std::string id = Utf8(MakeContentId(7, out));
    ASSERT_EQ(id.size(), 12u);
    EXPECT_EQ(id.substr(10), "-7");
    for (int i = 0; i < 10; ++i) EXPECT_TRUE(isdigit(static_cast<unsigned char>(id[size_t(i)])));
}

class MessageDirectoryTest : public MessageFilesTest {
protected:
    std::string Body(const char* virtual_path = "", int mode = 0, const char* name = "m") {
        BSTR out = nullptr;
        msg_->GetBodyWithEmbeddedObjectsEx(S(dir_.string()).get(), S(virtual_path).get(), S(name).get(), mode, 0,
                                           nullptr, &out);
        return Utf8(out);
    }
    void Add(const char* name, const char* type, const char* id, const char* location, const char* bytes) {
        CAttachment* a = CAttachment::New();
        a->m_wsFilename = W(name);
        a->m_bsContentType.assign(type);
        a->m_wsContentID = W(id);
        a->m_wsContentLocation = W(location);
        a->m_bsContent.assign(bytes);
        msg_->m_pAttachments->Add(a);
    }
};

TEST_F(MessageDirectoryTest, PlainBodyMakesNoDirectory) {
    msg_->m_nBodyFormat = 0;
    msg_->m_wsBodyText = W("plain cid:abc");
    Add("a.gif", "image/gif", "<abc>", "", "GIF");
    EXPECT_EQ(Body(), "plain cid:abc");
    EXPECT_FALSE(fs::exists(dir_ / "m"));
    BSTR out = nullptr;
    msg_->GetMessageDirectoryPath(&out);
    EXPECT_EQ(Utf8(out), "");
}

TEST_F(MessageDirectoryTest, CidAndLocationReferencesAreRewritten) {
    msg_->m_nBodyFormat = 1;
    msg_->m_wsBodyText = W("<img src=cid:abc> abc <img src=\"a.gif\"><img src=\"xa.gif\"> <b src='CID: longidentifier'>"
                           " longidentifier");
    Add("pic.gif", "image/gif", "<abc>", "", "ONE");
    Add("", "image/png", "", "a.gif", "TWO");
    Add("third.gif", "image/gif", "", "xa.gif", "THREE");
    Add("../../evil", "image/gif", "\"longidentifier\"", "", "FOUR");
    const std::string d = (dir_ / "m").string() + "/";
    EXPECT_EQ(Body(), "<img src=\"" + d + "pic.gif\"> abc <img src=\"" + d + "2.png\"><img src=\"" + d +
                          "third.gif\"> <b src='" + d + "4.gif'> \"" + d + "4.gif\"");
    EXPECT_EQ(ReadFile(dir_ / "m" / "pic.gif"), "ONE");
    EXPECT_EQ(ReadFile(dir_ / "m" / "2.png"), "TWO");
    EXPECT_EQ(ReadFile(dir_ / "m" / "4.gif"),
              "FOUR");  // a name with a path is numbered, never followed
    EXPECT_FALSE(fs::exists(dir_ / "evil"));

    VARIANT_BOOL ok = 0;
    msg_->MessageDirectoryExists(S("").get(), &ok);
    EXPECT_TRUE(Ok(ok));
    msg_->RemoveMessageDirectory(S("").get(), VARIANT_TRUE, &ok);
    EXPECT_TRUE(Ok(ok));
    EXPECT_TRUE(fs::exists(dir_ / "m"));
    EXPECT_TRUE(fs::is_empty(dir_ / "m"));
    msg_->RemoveMessageDirectory(S("").get(), VARIANT_FALSE, &ok);
    EXPECT_TRUE(Ok(ok));
    EXPECT_FALSE(fs::exists(dir_ / "m"));
}

TEST_F(MessageDirectoryTest, PathBuildingModes) {
    msg_->m_nBodyFormat = 1;
    struct {
        int mode;
        const char* expected;
    } cases[] = {
        {0, "\"http://h/v/m/a b.gif\""},
        {1, "\"http://h/v/m/a%20b.gif\""},
        {2, "\"http://h/v/m/1.gif\""},
        {3, "\"http://h/v&dir_id=m&file_id=1.gif\""},
        {4, "\"http://h/v/m/a%20b%5b1%5d.gif\""},
    };
    for (auto& c : cases) {
        msg_->m_wsBodyText = W("cid:k1");
        msg_->m_pAttachments->Clear();
        Add("a b.gif", "image/gif", "k1", "", "X");
        EXPECT_EQ(Body("http://h/v", c.mode), c.expected) << c.mode;
    }
}

TEST_F(MessageDirectoryTest, DirectoryQueriesWithoutACall) {
    VARIANT_BOOL ok = 0;
    msg_->RemoveMessageDirectory(S("").get(), VARIANT_FALSE, &ok);
    EXPECT_TRUE(Ok(ok));
    msg_->MessageDirectoryExists(S(dir_.string()).get(), &ok);  // the stored path is tested, not the argument
    EXPECT_FALSE(Ok(ok));
    Write(dir_ / "file", "x");
    msg_->m_nBodyFormat = 1;
    msg_->m_wsBodyText = W("<p>");
    EXPECT_EQ(Body("", 0, "file"), "");  // a file in the directory's place
}

}  // namespace
}  // namespace kv
