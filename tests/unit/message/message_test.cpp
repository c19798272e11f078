#include "message/message.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "../support/dispatch.h"
#include "automation/bstr.h"
#include "automation/catalogue.h"
#include "automation/object.h"
#include "automation/variant.h"
#include "shell/classes.h"

namespace kv {
namespace {

using automation::Bstr;
using automation::MakeBool;
using automation::MakeBstr;
using automation::MakeI4;
using kv::testing::GetText;
using kv::testing::PutProperty;
using kv::testing::PutText;

// A message created the way a host creates one, released at the end.
class MessageTest : public ::testing::Test {
protected:
    void SetUp() override {
        shell::RegisterCatalogue();
        msg_ = CMessage::New();
    }
    void TearDown() override { msg_->Release(); }

    static std::string Utf8(BSTR s) {
        std::string out = automation::Utf16ToUtf8(std::u16string_view(s ? s : u"", SysStringLen(s)));
        SysFreeString(s);
        return out;
    }
    std::string Get(HRESULT (CMessage::*getter)(BSTR*)) {
        BSTR out = nullptr;
        EXPECT_EQ((msg_->*getter)(&out), S_OK);
        return Utf8(out);
    }
    bool AddHeader(const char* name, const char* value) {
        VARIANT_BOOL ok = 0;
        msg_->AddHeader(Bstr::FromUtf8(name).get(), Bstr::FromUtf8(value).get(), &ok);
        return ok != 0;
    }
    bool RemoveHeader(const char* name) {
        VARIANT_BOOL ok = 0;
        msg_->RemoveHeader(Bstr::FromUtf8(name).get(), &ok);
        return ok != 0;
    }
    int32_t AttachmentCount() { return msg_->m_pAttachments->CountInternal(); }

    CMessage* msg_ = nullptr;
};

// The defaults a script sees are checked through the host; these are the
// ones it cannot see.
TEST_F(MessageTest, DefaultsOfANewMessage) {
    EXPECT_TRUE(msg_->m_bNeedsRebuild);
    EXPECT_EQ(msg_->m_nTopCodepage, -1);
    EXPECT_EQ(msg_->m_bsBoundaryTail.nCapacity, 40);
}

// Which writes mark the raw text stale, starting from a message in step.
TEST_F(MessageTest, RebuildMarks) {
    struct Case {
        const char* property;
        VARIANT value;
        bool marks;
    } cases[] = {
        {"BodyText", MakeBstr("x"), true},
        {"Subject", MakeBstr("x"), true},
        {"FromAddr", MakeBstr("x"), true},
        {"BCCAddr", MakeBstr("x"), false},
        {"AltBodyOptions", MakeI4(7), false},
        {"AltBodyHRefSuffix", MakeBstr("x"), false},
        {"MinimalRebuild", MakeBool(true), false},
        {"AddressDelimiter", MakeBstr("x"), false},
        {"BodyFormat", MakeI4(4), false},  // out of range: ignored
        {"BodyFormat", MakeI4(1), true},
        {"BodyEncoding", MakeI4(-1), false},  // ignored
        {"BodyEncoding", MakeI4(3), true},
        {"Locked", MakeBool(true), false},
        {"Date", MakeBstr("x"), true},
        {"MessageId", MakeBstr("x"), true},
        {"Charset", MakeBstr("x"), true},
        {"CodepageMode", MakeI4(5), false},
    };
    for (auto& c : cases) {
        msg_->EnsureRawBody();
        ASSERT_FALSE(msg_->m_bNeedsRebuild);
        EXPECT_EQ(PutProperty(msg_, c.property, c.value), S_OK) << c.property;
        EXPECT_EQ(msg_->m_bNeedsRebuild, c.marks) << c.property;
    }
    msg_->EnsureRawBody();
    Bstr x = Bstr::FromUtf8("x");
    msg_->SetMultipartContentType(x.get(), x.get());
    EXPECT_FALSE(msg_->m_bNeedsRebuild) << "SetMultipartContentType";
}

TEST_F(MessageTest, AssignedRawBodyReadsBackWithoutRebuild) {
    Bstr raw = Bstr::FromUtf8("Subject: hi\r\n\r\nbody");
    msg_->put_RawBody(raw.get());
    EXPECT_FALSE(msg_->m_bNeedsRebuild);
    EXPECT_EQ(Get(&CMessage::get_RawBody), "Subject: hi\r\n\r\nbody");
    EXPECT_EQ(Get(&CMessage::get_RawHeader), "Subject: hi");
    int32_t size = 0;
    msg_->get_Size(&size);
    EXPECT_EQ(size, 19);
    // Bcc does not reach the text: still in step.
    PutText(msg_, "BCCAddr", "Subject: hi\r\n\r\nbody");
    EXPECT_FALSE(msg_->m_bNeedsRebuild);
}

TEST_F(MessageTest, HeadersOnlySizeIsTheServersUntilARebuild) {
    msg_->m_bsRawBody.assign("Subject: x\r\n\r\n");
    msg_->ImportRawMessage(true, 5000);
    int32_t size = 0;
    msg_->get_Size(&size);
    EXPECT_EQ(size, 5000);
    EXPECT_TRUE(msg_->m_bHeadersOnly);
    PutText(msg_, "Subject", "changed");
    msg_->get_Size(&size);
    EXPECT_FALSE(msg_->m_bHeadersOnly);
    EXPECT_NE(size, 5000);
    msg_->m_bsRawBody.assign("abc");
    msg_->ImportRawMessage(false, 5000);
    msg_->get_Size(&size);
    EXPECT_EQ(size, 3);
}

TEST_F(MessageTest, AttachmentRemovalMarksTheRawTextStale) {
    VARIANT_BOOL ok;
    msg_->AddStringAttachment(Bstr::FromUtf8("a").get(), VARIANT_FALSE,
                              Bstr::FromUtf8("a.txt").get(), Bstr::FromUtf8("").get(),
                              Bstr::FromUtf8("").get(), &ok);
    msg_->EnsureRawBody();
    msg_->m_pAttachments->Remove(1, &ok);
    EXPECT_EQ(ok, VARIANT_TRUE);
    EXPECT_TRUE(msg_->m_pAttachments->m_bModified);
    msg_->EnsureRawBody();
    EXPECT_FALSE(msg_->m_pAttachments->m_bModified);
}

TEST_F(MessageTest, AddHeaderRules) {
    EXPECT_FALSE(AddHeader("", "x"));
    EXPECT_FALSE(AddHeader("Subject", "no"));
    EXPECT_FALSE(AddHeader("CONTENT-TYPE", "no"));
    EXPECT_TRUE(AddHeader("X-Tag", "one"));
    EXPECT_TRUE(AddHeader("x-tag", "two"));
    ASSERT_EQ(msg_->m_pHeaders->m_coll.size(), 1u);
    EXPECT_EQ(std::string(msg_->m_pHeaders->m_coll[0]->m_bsKey.pData, 5), "X-Tag");
    BSTR value = nullptr;
    msg_->GetHeader(Bstr::FromUtf8("X-TAG").get(), &value);
    EXPECT_EQ(Utf8(value), "two");
    EXPECT_FALSE(msg_->m_pHeaders->m_coll[0]->m_bStandard);

    PutProperty(msg_, "MinimalRebuild", MakeBool(true));
    EXPECT_TRUE(AddHeader("Subject", "allowed"));
    EXPECT_TRUE(RemoveHeader("subject"));
}

TEST_F(MessageTest, AddHeaderEmptiesTheWireValueOfAnExistingRecord) {
    AddHeader("X-A", "1");
    msg_->m_pHeaders->m_coll[0]->m_bsWireValue.assign("=?utf-8?q?1?=");
    AddHeader("X-A", "2");
    EXPECT_EQ(msg_->m_pHeaders->m_coll[0]->m_bsWireValue.nSize, 0);
}

TEST_F(MessageTest, RemoveHeaderRules) {
    EXPECT_TRUE(RemoveHeader("Received"));  // even with none
    EXPECT_FALSE(RemoveHeader(""));
    EXPECT_FALSE(RemoveHeader("X-Missing"));
    AddHeader("X-A", "1");
    msg_->EnsureRawBody();
    EXPECT_TRUE(RemoveHeader("x-a"));
    EXPECT_TRUE(msg_->m_bNeedsRebuild);
    EXPECT_TRUE(msg_->m_pHeaders->m_coll.empty());
    msg_->m_bsReceived.assign("from a\r\nfrom b");
    EXPECT_TRUE(RemoveHeader("RECEIVED"));
    EXPECT_EQ(msg_->m_bsReceived.nSize, 0);
}

TEST_F(MessageTest, GetHeaderOfAMissingNameIsNull) {
    BSTR value = reinterpret_cast<BSTR>(1);
    msg_->GetHeader(Bstr::FromUtf8("X-None").get(), &value);
    EXPECT_EQ(value, nullptr);
    msg_->get_ContentType(&value);
    EXPECT_EQ(value, nullptr);
}

TEST_F(MessageTest, AddressPutDropsItsRecordAndPureCache) {
    CMIMEHeader* record = CMIMEHeader::New();
    record->m_bsKey.assign("To");
    msg_->m_pHeaders->Add(record);
    msg_->m_wsPureToAddr.assign(u"old@x");
    PutText(msg_, "ToAddr", "New <new@x>");
    EXPECT_FALSE(msg_->m_pHeaders->Contains("to"));
    EXPECT_EQ(msg_->m_wsPureToAddr.nSize, 0);
    EXPECT_EQ(GetText(msg_, "ToAddr"), "New <new@x>");
}

TEST_F(MessageTest, CharsetPutEmptiesOnlyANonAsciiFromWire) {
    const char* wires[] = {"=?utf-8?q?J=C3=B6rg?= <j@x>", "J\xC3\xB6rg <j@x>"};
    CMIMEHeader* from = CMIMEHeader::New();
    from->m_bsKey.assign("From");
    CMIMEHeader* subject = CMIMEHeader::New();
    subject->m_bsKey.assign("Subject");
    subject->m_bsWireValue.assign("S\xC3\xBC");
    msg_->m_pHeaders->Add(from);
    msg_->m_pHeaders->Add(subject);
    from->m_bsWireValue.assign(wires[0]);
    PutText(msg_, "Charset", "iso-8859-1");
    EXPECT_GT(from->m_bsWireValue.nSize, 0);
    from->m_bsWireValue.assign(wires[1]);
    PutText(msg_, "Charset", "iso-8859-1");
    EXPECT_EQ(from->m_bsWireValue.nSize, 0);
    EXPECT_EQ(subject->m_bsWireValue.nSize, 3);  // the subject is not re-encoded
}

TEST_F(MessageTest, DateAndMessageDateShareAField) {
    PutText(msg_, "MessageDate", "Mon, 1 Jan 2024 00:00:00 +0000");
    EXPECT_EQ(GetText(msg_, "Date"), "Mon, 1 Jan 2024 00:00:00 +0000");
    EXPECT_FALSE(msg_->m_bDateSet);
    PutText(msg_, "Date", "Tue, 2 Jan 2024 00:00:00 +0000");
    EXPECT_EQ(GetText(msg_, "MessageDate"), "Tue, 2 Jan 2024 00:00:00 +0000");
    EXPECT_TRUE(msg_->m_bDateSet);
}

TEST_F(MessageTest, IsRtlBodyFollowsTheOriginalCodepage) {
    struct Case {
        int32_t cp;
        bool rtl;
    } cases[] = {{862, true}, {864, true}, {1255, true}, {1256, true}, {1252, false}, {0, false}};
    for (const auto& c : cases) {
        msg_->m_nCodepageOriginal = c.cp;
        VARIANT_BOOL b = 0;
        msg_->get_IsRtlBody(&b);
        EXPECT_EQ(b != 0, c.rtl) << c.cp;
    }
}

class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/kvmsgXXXXXX";
        path_ = mkdtemp(pattern);
    }
    ~TempDir() { std::filesystem::remove_all(path_); }
    std::string File(const std::string& name, const std::string& content) const {
        std::string full = path_ + "/" + name;
        std::ofstream(full, std::ios::binary) << content;
        return full;
    }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

TEST_F(MessageTest, AddAttachmentFromFile) {
    TempDir dir;
    std::string pdf = dir.File("report.PDF", std::string("%PDF\0\x01\xff", 7));
    struct Case {
        std::string path;
        const char* content_type;
        const char* content_id;
        const char* name;
        bool ok;
        const char* stored_name;
        const char* stored_type;
        bool is_inline;
    } cases[] = {
        {pdf, "", "", "", true, "report.PDF", "application/pdf", false},
        {pdf, "text/plain", "", "given.txt", true, "given.txt", "text/plain", false},
        {pdf, "", "<img1>", "<NONE>", true, "", "application/octet-stream", true},
        {pdf, "MESSAGE/RFC822", "", "m.eml", true, "m.eml", "MESSAGE/RFC822", false},
        {dir.path() + "/missing.bin", "", "", "", false, nullptr, nullptr, false},
    };
    int32_t expected_count = 0;
    for (const auto& c : cases) {
        VARIANT_BOOL ok = 0;
        msg_->EnsureRawBody();
        msg_->AddAttachment(Bstr::FromUtf8(c.path).get(), Bstr::FromUtf8(c.content_type).get(),
                            Bstr::FromUtf8(c.content_id).get(), Bstr::FromUtf8(c.name).get(), &ok);
        EXPECT_EQ(ok != 0, c.ok) << c.name;
        EXPECT_TRUE(msg_->m_bNeedsRebuild);  // marked even when the read fails
        if (!c.ok) continue;
        ASSERT_EQ(AttachmentCount(), ++expected_count);
        CAttachment* a = msg_->m_pAttachments->m_coll.back();
        EXPECT_EQ(automation::Utf16ToUtf8(std::u16string_view(a->m_wsFilename.pData ? a->m_wsFilename.pData : u"",
                                                              size_t(a->m_wsFilename.nSize))),
                  c.stored_name);
        EXPECT_EQ(std::string(a->m_bsContentType.pData, size_t(a->m_bsContentType.nSize)),
                  c.stored_type);
        EXPECT_EQ(a->m_bInline, c.is_inline);
        EXPECT_EQ(a->m_bMessage, std::string(c.stored_type) == "MESSAGE/RFC822");
        EXPECT_EQ(a->m_nOrdinal, expected_count - 1);
        EXPECT_EQ(std::string(a->m_bsContent.pData, 7), std::string("%PDF\0\x01\xff", 7));
    }
    EXPECT_FALSE(msg_->m_bHasAttachments);  // follows parses only
}

TEST_F(MessageTest, AddMemoryAttachmentAcceptsOnlyByteArrays) {
    SAFEARRAY* bytes = SafeArrayCreateVector(VT_UI1, 5, 3);  // lower bound 5
    void* data = nullptr;
    SafeArrayAccessData(bytes, &data);
    std::memcpy(data, "xyz", 3);
    SafeArrayUnaccessData(bytes);
    VARIANT direct;
    VariantInit(&direct);
    direct.vt = VT_ARRAY | VT_UI1;
    direct.parray = bytes;
    VARIANT byref;
    VariantInit(&byref);
    byref.vt = VT_BYREF | VT_VARIANT;
    byref.pvarVal = &direct;
    VARIANT text;
    VariantInit(&text);
    text.vt = VT_BSTR;
    text.bstrVal = SysAllocString(u"xyz");
    VARIANT refbytes;
    VariantInit(&refbytes);
    refbytes.vt = VT_BYREF | VT_ARRAY | VT_UI1;
    refbytes.pparray = &bytes;

    struct Case {
        const char* name;
        const VARIANT* v;
        bool ok;
    } cases[] = {
        {"direct", &direct, true},
        {"by reference to a variant", &byref, true},
        {"string", &text, false},
        {"reference to an array", &refbytes, false},
    };
    for (const auto& c : cases) {
        VARIANT_BOOL ok = 0;
        msg_->AddMemoryAttachment(*c.v, Bstr::FromUtf8("").get(), Bstr::FromUtf8("").get(),
                                  Bstr::FromUtf8("").get(), &ok);
        EXPECT_EQ(ok != 0, c.ok) << c.name;
    }
    ASSERT_EQ(AttachmentCount(), 2);
    CAttachment* a = msg_->m_pAttachments->m_coll[0];
    EXPECT_EQ(std::string(a->m_bsContent.pData, 3), "xyz");
    EXPECT_EQ(a->m_wsFilename.nSize, 0);  // no path to take a name from
    EXPECT_EQ(std::string(a->m_bsContentType.pData, size_t(a->m_bsContentType.nSize)),
              "application/octet-stream");
    VariantClear(&direct);
    VariantClear(&text);
}

TEST_F(MessageTest, AddStringAttachmentEncodesAsAsked) {
    VARIANT_BOOL ok = 0;
    Bstr data(u"\u00e9");
    msg_->AddStringAttachment(data.get(), VARIANT_TRUE, Bstr::FromUtf8("u.txt").get(),
                              Bstr::FromUtf8("").get(), Bstr::FromUtf8("").get(), &ok);
    msg_->AddStringAttachment(data.get(), VARIANT_FALSE, Bstr::FromUtf8("a.txt").get(),
                              Bstr::FromUtf8("").get(), Bstr::FromUtf8("").get(), &ok);
    ASSERT_EQ(AttachmentCount(), 2);
    EXPECT_EQ(std::string(msg_->m_pAttachments->m_coll[0]->m_bsContent.pData, 2), "\xC3\xA9");
    EXPECT_EQ(msg_->m_pAttachments->m_coll[1]->m_bsContent.nSize, 1);
    EXPECT_EQ(std::string(msg_->m_pAttachments->m_coll[1]->m_bsContentType.pData, 10), "text/plain");
}

TEST_F(MessageTest, CloneCopiesOnlyTheRawTextMarkedStale) {
    msg_->put_RawBody(Bstr::FromUtf8("Subject: a\r\n\r\nb").get());
    msg_->m_wsSubject.assign(u"parsed");
    IDispatch* copy = nullptr;
    ASSERT_EQ(msg_->Clone(&copy), S_OK);
    CMessage* clone = CMessage::FromDispatch(copy);
    ASSERT_NE(clone, nullptr);
    EXPECT_NE(clone, msg_);
    EXPECT_EQ(clone->m_wsSubject.nSize, 0);
    EXPECT_TRUE(clone->m_bNeedsRebuild);
    EXPECT_EQ(std::string(clone->m_bsRawBody.pData, size_t(clone->m_bsRawBody.nSize)),
              "Subject: a\r\n\r\nb");
    copy->Release();
}

TEST_F(MessageTest, FromDispatchRefusesOtherObjects) {
    EXPECT_EQ(CMessage::FromDispatch(nullptr), nullptr);
    EXPECT_EQ(CMessage::FromDispatch(msg_->m_pAttachments), nullptr);
    EXPECT_EQ(CMessage::FromDispatch(msg_), msg_);
    int64_t address = 0;
    msg_->get_GetObject(&address);
    EXPECT_EQ(reinterpret_cast<CMessage*>(address), msg_);
}

TEST(MessageLifetime, ObjectsAreReleasedWithTheMessage) {
    shell::RegisterCatalogue();
    long before = automation::LiveObjects();
    CMessage* msg = CMessage::New();
    VARIANT_BOOL ok;
    msg->AddStringAttachment(Bstr::FromUtf8("a").get(), VARIANT_FALSE, Bstr::FromUtf8("a").get(),
                             Bstr::FromUtf8("").get(), Bstr::FromUtf8("").get(), &ok);
    msg->AddHeader(Bstr::FromUtf8("X-A").get(), Bstr::FromUtf8("1").get(), &ok);
    VARIANT attachments = testing::GetProperty(msg, "Attachments");
    EXPECT_GT(automation::LiveObjects(), before + 3);
    msg->Release();
    EXPECT_GT(automation::LiveObjects(), before);  // the script still holds the collection
    VariantClear(&attachments);
    EXPECT_EQ(automation::LiveObjects(), before);
}

}  // namespace
}  // namespace kv
