#include "codecs/address.h"

#include <gtest/gtest.h>

#include <string>

#include "../support/text.h"
#include "automation/bstr.h"

namespace kv {
namespace {

using kv::testing::Str;
using kv::testing::Utf8;
using kv::testing::WideFromUtf8;

std::string Pure(const std::string& text) {
    std::vector<bstring> list;
    ParsePureAddresses(bstring(text.data(), int32_t(text.size())), list);
    std::string joined;
    for (size_t i = 0; i < list.size(); ++i) {
        if (i) joined += '|';
        joined += Str(list[i]);
    }
    return joined;
}

std::string Names(const std::string& text) {
    std::vector<wbstring> list;
    ParseFriendlyNames(WideFromUtf8(text), list);
    std::string joined;
    for (size_t i = 0; i < list.size(); ++i) {
        if (i) joined += '|';
        joined += Utf8(list[i]);
    }
    return joined;
}

TEST(AddressLists, PureAndFriendlyForms) {
    struct Case {
        const char* text;
        const char* pure;
        const char* names;
    } cases[] = {
        {"John Smith <js@example>, \"Doe, Jane\" <jd@example>; x@y", "js@example|jd@example|x@y",
         "John Smith|Doe, Jane|x@y"},
        {"Smith, John <a@b>", "a@b", "Smith, John"},
        {"Smith, a@b", "Smith, a@b", "Smith, a@b"},
        {"(just a comment)", "", "just a comment"},
        {"<a@b", "<a@b", "<a@b"},
        {"a@b (John)", "a@b", "John"},
        {"John <a@b> (Boss)", "a@b", "John"},
        {"<a@b>", "a@b", "a@b"},
        {"\"Quoted\" <q@x>", "q@x", "Quoted"},
        {"(c1) a@b (c2)", "a@b", "c1 c2"},
        {"[x] <a@b>", "a@b", "[x]"},
        {"a@b,,c@d", "a@b|c@d", "a@b|c@d"},
        {"", "", ""},
        {"Jörg Müller <jm@example.de>", "jm@example.de", "Jörg Müller"},
        {"undisclosed-recipients:;", "undisclosed-recipients:;", "undisclosed-recipients:;"},
        // Brackets inside a quoted phrase count once the rescan walks it
        // unprotected: the first angle-bracketed token wins.
        {"\"a <b>\" x", "b", "\"a"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Pure(c.text), c.pure) << c.text;
        EXPECT_EQ(Names(c.text), c.names) << c.text;
    }
}

TEST(AddressLists, RealWorldHeaders) {
    // Values as mail programs wrote them.
    struct Case {
        const char* text;
        const char* pure;
    } cases[] = {
        {"James Hillyerd <jamehi03@jamehi03lx.noa.com>, Andre Pirard <PIRARD@vm1.ulg.ac.be>",
         "jamehi03@jamehi03lx.noa.com|PIRARD@vm1.ulg.ac.be"},
        {"\"Barry A. Warsaw\" <barry@python.org>", "barry@python.org"},
        {"bperson@dom.ain (Bob Person)", "bperson@dom.ain"},
        {"Dilbert <dilbert@example.com>,\r\n\tDogbert <dogbert@example.com>",
         "dilbert@example.com|dogbert@example.com"},
        {"\"Lastname, Firstname\" <user@example.com>; other@example.com",
         "user@example.com|other@example.com"},
    };
    for (const auto& c : cases) EXPECT_EQ(Pure(c.text), c.pure) << c.text;
}

TEST(AddressSyntax, Levels) {
    struct Case {
        const char* address;
        int level;
    } cases[] = {
        {"a@b.c", 1},          {"a@b", 1},         {"a@b.c1", 0},       {"a@@b", 0},
        {"a..b@c", 1},         {"a@b..c", 0},      {"a@[1.2.3.4]", 2},  {"a@[1.2.3]", 0},
        {"-a@b.c", 0},         {"_a@b.c", 1},      {"ab", 0},           {"a b@c.d", 0},
        {"a@b-", 0},           {"a@-b", 0},        {"a@[999.1.1.1]", 2}, {"a@b.c-d", 1},
        {"first.last+tag@example.co.uk", 1},       {"a@b.c.", 0},       {"a@", 0},
        {"a@b@c", 0},          {"abc", 0},         {"a@[1.2.3.4", 0},   {"a@b_c.de", 1},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ValidateAddressSyntax(bstring(c.address)), c.level) << c.address;
}

TEST(AddressSyntax, HostAndValidation) {
    bstring host;
    EXPECT_TRUE(GetAddressHost(bstring("a@b@example.org"), host));
    EXPECT_EQ(Str(host), "example.org");
    EXPECT_FALSE(GetAddressHost(bstring("a@"), host));
    EXPECT_FALSE(GetAddressHost(bstring("nohost"), host));
    EXPECT_TRUE(ValidateEmailAddress(bstring("a@b.c"), 0, bstring()));
    EXPECT_FALSE(ValidateEmailAddress(bstring("a@b.c1"), 0, bstring()));
    EXPECT_FALSE(ValidateEmailAddress(bstring("a@b@@c"), 1, bstring()));
}

}  // namespace
}  // namespace kv
