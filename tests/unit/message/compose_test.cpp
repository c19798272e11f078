#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

#include "../support/dispatch.h"
#include "../support/text.h"
#include "automation/bstr.h"
#include "message/message.h"
#include "platform/random.h"
#include "platform/timezone.h"
#include "shell/classes.h"

namespace kv {
namespace {

using kv::testing::ReadFile;

using automation::Bstr;

std::string GoldenPath(const std::string& name) {
    return std::string(KV_SOURCE_DIR) + "/tests/data/compose/" + name + ".eml";
}

// Composes with the clock, the zone, the random generator and the
// Message-ID pinned, so that the bytes are fixed.
class ComposeTest : public ::testing::Test {
protected:
    void SetUp() override {
        shell::RegisterCatalogue();
        old_tz_ = getenv("TZ") ? getenv("TZ") : "";
        setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        tzset();
        // 2024-03-05 12:34:56 UTC in 100 ns ticks since 1601.
        platform::PinCurrentTimeForTesting((int64_t(1709642096) + 11644473600LL) * 10000000LL);
        platform::SRand(12345);
        msg_ = CMessage::New();
        Put("MessageId", "<pinned@test>");
    }
    void TearDown() override {
        msg_->Release();
        platform::PinCurrentTimeForTesting(-1);
        setenv("TZ", old_tz_.c_str(), 1);
        tzset();
    }
    void Put(const char* property, const std::string& utf8) {
        EXPECT_EQ(kv::testing::PutText(msg_, property, utf8), S_OK) << property;
    }
    void Put(const char* property, VARIANT value) {
        EXPECT_EQ(kv::testing::PutProperty(msg_, property, value), S_OK) << property;
    }
    std::string Raw() {
        BSTR raw = nullptr;
        msg_->get_RawBody(&raw);
        bstring b;
        b.assign_bstr(raw);
        SysFreeString(raw);
        return std::string(b.pData ? b.pData : "", size_t(b.nSize));
    }
    void AddMemory(const std::string& bytes, const std::string& name, const std::string& type,
                   const std::string& id) {
        SAFEARRAY* array = SafeArrayCreateVector(VT_UI1, 0, uint32_t(bytes.size()));
        void* data = nullptr;
        SafeArrayAccessData(array, &data);
        if (!bytes.empty()) memcpy(data, bytes.data(), bytes.size());
        SafeArrayUnaccessData(array);
        VARIANT v;
        VariantInit(&v);
        v.vt = VT_ARRAY | VT_UI1;
        v.parray = array;
        VARIANT_BOOL ok;
        msg_->AddMemoryAttachment(v, Bstr::FromUtf8(name).get(), Bstr::FromUtf8(type).get(),
                                  Bstr::FromUtf8(id).get(), &ok);
        VariantClear(&v);
    }
    void ExpectGolden(const std::string& name, const std::string& raw) {
        if (getenv("KV_UPDATE_GOLDEN")) {
            std::ofstream(GoldenPath(name), std::ios::binary) << raw;
            return;
        }
        std::string expected = ReadFile(GoldenPath(name));
        ASSERT_FALSE(expected.empty()) << "missing golden file " << name;
        EXPECT_EQ(raw, expected) << name;
    }

    CMessage* msg_ = nullptr;
    std::string old_tz_;
};

// Every shape of the tree: M other attachments, R inline ones, A alternative.
TEST_F(ComposeTest, EveryShapeMatchesItsGoldenFile) {
    struct Shape {
        const char* name;
        bool mixed, related, alternative;
    } shapes[] = {
        {"plain", false, false, false},       {"mixed", true, false, false},
        {"related", false, true, false},      {"alternative", false, false, true},
        {"mixed_related", true, true, false}, {"mixed_alternative", true, false, true},
        {"related_alternative", false, true, true},
        {"mixed_related_alternative", true, true, true},
    };
    for (const Shape& s : shapes) {
        TearDown();
        SetUp();
        Put("FromAddr", "J\u00f6rg M\u00fcller <jm@example.de>");
        Put("ToAddr", "Ann <ann@example.org>, bob@example.org");
        Put("CCAddr", "cc@example.org");
        Put("Subject", "Quarterly figures \u2013 Gr\u00fc\u00dfe");
        Put("BodyFormat", automation::MakeI4(s.alternative ? 1 : 0));
        Put("BodyText", s.alternative ? "<p>The figures, \u00e0 la carte.</p>"
                                                   : "The figures, \u00e0 la carte.\r\nLine 2");
        if (s.alternative) Put("AltBodyText", "The figures, \u00e0 la carte.");
        if (s.mixed) AddMemory(std::string("%PDF-1.4\0\x01\xff", 11), "report \"Q1\".pdf", "", "");
        if (s.related) AddMemory("\x89PNG\r\n\x1a\n", "logo.png", "", "<logo@example>");
        VARIANT_BOOL ok;
        msg_->AddHeader(Bstr::FromUtf8("X-Tag").get(), Bstr::FromUtf8("caf\u00e9").get(), &ok);
        ExpectGolden(s.name, Raw());
        EXPECT_EQ(msg_->m_bMultipart, s.mixed || s.related || s.alternative) << s.name;
        EXPECT_EQ(msg_->m_nNesting, int(s.mixed) + int(s.related) + int(s.alternative)) << s.name;
    }
}

TEST_F(ComposeTest, SpecialBodyAndOptions) {
    struct Case {
        const char* name;
        std::function<void()> setup;
    } cases[] = {
        {"special_body",
         [&] {
             Put("BodyText", "see the invitation");
             Put("SpecialBodyText", "BEGIN:VCALENDAR\r\nEND:VCALENDAR");
             Put("SpecialBodyContentType", "text/calendar; method=REQUEST");
             Put("SpecialBodyHeaders", "Content-Class: urn:content-classes:calendarmessage\r\n");
         }},
        {"no_charset_8bit",
         [&] {
             Put("Charset", "");
             Put("Subject", "Gr\u00fc\u00dfe");
             Put("BodyText", "caf\u00e9");
             Put("BodyEncoding", automation::MakeI4(1));
             Put("Enable8bitEncoding", automation::MakeBool(true));
         }},
        {"return_path_and_no_mailer",
         [&] {
             Put("ReturnPath", "<a@example>\r\n\r\n<b@example>");
             Put("XMailer", "");
             Put("BCCAddr", "hidden@example.org");
             Put("BodyEncoding", automation::MakeI4(0));
             Put("BodyText", "body");
         }},
        {"base64_latin1",
         [&] {
             Put("Charset", "iso-8859-1");
             Put("BodyEncoding", automation::MakeI4(3));
             Put("BodyText", "caf\u00e9 cr\u00e8me");
             Put("Subject", "caf\u00e9");
         }},
        {"multipart_override_and_nameless_message",
         [&] {
             msg_->SetMultipartContentType(Bstr::FromUtf8("multipart/report").get(),
                                           Bstr::FromUtf8("report-type=delivery-status").get());
             Put("BodyText", "report");
             AddMemory("Subject: inner\r\n\r\nhi", "", "message/rfc822", "");
         }},
    };
    for (const auto& c : cases) {
        TearDown();
        SetUp();
        c.setup();
        ExpectGolden(c.name, Raw());
    }
}

TEST_F(ComposeTest, RulesOfTheHeaderBlock) {
    Put("ToAddr", "x@example.org");
    Put("BodyText", "hello");
    std::string raw = Raw();
    EXPECT_EQ(raw.find("From:"), std::string::npos);
    EXPECT_NE(raw.find("Content-Type: text/plain; charset=\"utf-8\"\r\n"
                       "Content-Transfer-Encoding: quoted-printable\r\n"
                       "X-Mailer: Korvane Objects (ActiveX) 9.4\r\n"
                       "Date: Tue, 5 Mar 2024 13:34:56 +0100\r\n"
                       "Message-ID: <pinned@test>\r\n\r\nhello"),
              std::string::npos)
        << raw;
}

TEST_F(ComposeTest, AltBodyWithPlainFormatIsIgnored) {
    Put("BodyText", "plain");
    Put("AltBodyText", "never sent");
    std::string raw = Raw();
    EXPECT_EQ(raw.find("multipart"), std::string::npos);
    EXPECT_EQ(raw.find("never sent"), std::string::npos);
}

TEST_F(ComposeTest, ExplicitDateAndMessageIdLiveThroughOneRebuild) {
    Put("Date", "Mon, 1 Jan 2024 00:00:00 +0000");
    Put("BodyText", "x");
    EXPECT_NE(Raw().find("Date: Mon, 1 Jan 2024 00:00:00 +0000"), std::string::npos);
    Put("BodyText", "y");
    std::string second = Raw();
    EXPECT_NE(second.find("Date: Tue, 5 Mar 2024 13:34:56 +0100"), std::string::npos);
    // The Message-ID is generated anew: "<" pid address rand rand "@" host ">".
    EXPECT_EQ(second.find("<pinned@test>"), std::string::npos);
    size_t at = second.find("Message-ID: <");
    ASSERT_NE(at, std::string::npos);
    std::string id = second.substr(at + 13, second.find('>', at) - at - 13);
    EXPECT_NE(id.find('@'), std::string::npos);
    for (char c : id.substr(0, id.find('@'))) EXPECT_TRUE(isdigit(static_cast<unsigned char>(c)));
}

TEST_F(ComposeTest, RemovingAttachmentsKeepsTheMessageMultipart) {
    Put("BodyText", "x");
    AddMemory("abc", "a.bin", "", "");
    Raw();
    VARIANT_BOOL ok;
    msg_->m_pAttachments->Remove(1, &ok);
    std::string raw = Raw();
    EXPECT_NE(raw.find("Content-Type: multipart/mixed"), std::string::npos);
    EXPECT_EQ(raw.find("a.bin"), std::string::npos);
    EXPECT_EQ(raw.substr(raw.size() - 2), "--");
}

TEST_F(ComposeTest, InlineAttachmentWithPlainBodyIsRelatedToTextPlain) {
    Put("BodyText", "see image");
    AddMemory("img", "i.gif", "", "<<id@x>>");
    std::string raw = Raw();
    EXPECT_NE(raw.find("multipart/related;\r\n\ttype=\"text/plain\""), std::string::npos);
    EXPECT_NE(raw.find("Content-ID: <<id@x>>\r\n"), std::string::npos) << "one pair is stripped";
    EXPECT_EQ(raw.find("Content-Disposition"), std::string::npos);
}

TEST_F(ComposeTest, TwoRebuildsDifferInBoundaries) {
    Put("BodyText", "x");
    AddMemory("abc", "a.bin", "", "");
    std::string first = Raw();
    Put("BodyText", "x");
    std::string second = Raw();
    auto boundary = [](const std::string& raw) {
        size_t at = raw.find("boundary=\"");
        return raw.substr(at, raw.find('"', at + 10) - at);
    };
    EXPECT_NE(boundary(first), boundary(second));
    EXPECT_EQ(boundary(first).size(), boundary(second).size());
}

TEST_F(ComposeTest, MinimalRebuildTouchesOnlyTheHeaderBlock) {
    std::string body = "\r\n\r\n--b\r\nContent-Type: text/plain\r\n\r\nbody bytes \xff\r\n--b--";
    msg_->m_bsRawBody.assign(body.data(), int32_t(body.size()));
    CMIMEHeader* h = CMIMEHeader::New();
    h->m_bsKey.assign("X-Mailer");
    h->m_wsValue.assign(u"old");
    h->m_bStandard = true;
    msg_->m_pHeaders->Add(h);
    CMIMEHeader* s = CMIMEHeader::New();
    s->m_bsKey.assign("Subject");
    s->m_bsWireValue.assign("=?utf-8?Q?x?=");
    s->m_bStandard = true;
    msg_->m_pHeaders->Add(s);
    msg_->m_wsSubject.assign(u"x");
    msg_->m_bsReceived.assign("from a\r\nfrom b");
    Put("MinimalRebuild", automation::MakeBool(true));
    VARIANT_BOOL ok;
    msg_->RemoveHeader(Bstr::FromUtf8("X-Mailer").get(), &ok);
    EXPECT_EQ(ok, VARIANT_TRUE);
    std::string raw = Raw();
    EXPECT_EQ(raw, "Received: from a\r\nReceived: from b\r\nSubject: =?utf-8?Q?x?=" + body);
}

}  // namespace
}  // namespace kv
