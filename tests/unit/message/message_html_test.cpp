// The message's HTML members at the C++ surface: what MakeAltBody reads and
// writes on the object, which a script cannot see directly.
#include <gtest/gtest.h>

#include <string>

#include "../support/text.h"
#include "automation/bstr.h"
#include "message/message.h"
#include "shell/classes.h"

namespace kv {
namespace {

using kv::testing::Str;

class MessageHtmlTest : public ::testing::Test {
protected:
    void SetUp() override {
        shell::RegisterCatalogue();
        msg_ = CMessage::New();
        msg_->m_wsBodyText.assign(u"x<a href=\"u v\">t</a><br>&amp;");
        msg_->m_wsAltBodyText.assign(u"old");
        msg_->m_bNeedsRebuild = false;
    }
    void TearDown() override { msg_->Release(); }
    CMessage* msg_ = nullptr;
};

TEST_F(MessageHtmlTest, MakeAltBodyLeavesNonHtmlBodiesAlone) {
    for (int32_t format : {0, 2, 3, 7, -1}) {
        msg_->m_nBodyFormat = format;
        VARIANT_BOOL made = VARIANT_TRUE;
        EXPECT_EQ(msg_->MakeAltBody(&made), S_OK);
        EXPECT_EQ(made, VARIANT_FALSE) << format;
        EXPECT_EQ(Str(msg_->m_wsAltBodyText), u"old");
        EXPECT_FALSE(msg_->m_bNeedsRebuild);
    }
}

TEST_F(MessageHtmlTest, MakeAltBodyConvertsWithTheMessageOptionsAndMarksForRebuild) {
    msg_->m_nBodyFormat = 1;
    msg_->m_nAltBodyOptions = 4 | 16;
    msg_->m_wsAltBodyHRefSuffix.assign(u"target=_blank");
    VARIANT_BOOL made = VARIANT_FALSE;
    EXPECT_EQ(msg_->MakeAltBody(&made), S_OK);
    EXPECT_EQ(made, VARIANT_TRUE);
    EXPECT_EQ(Str(msg_->m_wsAltBodyText), u"x<a href=\"u v\" target=_blank>t</a>\r\n&amp;");
    EXPECT_TRUE(msg_->m_bNeedsRebuild);
    EXPECT_EQ(Str(msg_->m_wsBodyText), u"x<a href=\"u v\">t</a><br>&amp;");
}

TEST_F(MessageHtmlTest, ConversionsNeedNoMessageStateAndChangeNone) {
    msg_->m_nAltBodyOptions = 4;
    BSTR plain = nullptr;
    BSTR html = SysAllocString(u"<a href=\"u v\">t</a>");
    EXPECT_EQ(msg_->GetPlainFromHtml(html, &plain), S_OK);
    EXPECT_EQ(std::u16string(plain, SysStringLen(plain)), u"t <u v> ");
    SysFreeString(plain);
    SysFreeString(html);

    BSTR out = nullptr;
    EXPECT_EQ(msg_->GetHtmlFromPlain(nullptr, nullptr, VARIANT_TRUE, &out), S_OK);
    ASSERT_NE(out, nullptr);  // an empty string, never null
    EXPECT_EQ(SysStringLen(out), 0u);
    SysFreeString(out);
    EXPECT_FALSE(msg_->m_bNeedsRebuild);
    EXPECT_EQ(Str(msg_->m_wsAltBodyText), u"old");
}

}  // namespace
}  // namespace kv
