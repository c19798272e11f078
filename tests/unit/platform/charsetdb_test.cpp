#include "platform/charsetdb.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace kv::platform {
namespace {

std::string Lower(std::string s) {
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = char(c + 32);
    return s;
}

// Follows aliases the way a lookup does; -1 for a dangling alias or a loop.
int32_t Resolve(const CharsetDatabase& db, std::string name) {
    for (int hop = 0; hop < 8; ++hop) {
        CharsetKey key = db.Open(name);
        if (key.kind == CharsetKeyKind::kCodepage) return key.codepage;
        if (key.kind != CharsetKeyKind::kAlias) return -1;
        name = std::string(key.alias);
    }
    return -1;
}

TEST(CharsetDatabaseTest, BuiltinKeysAreWellFormedAndEveryAliasReachesACodepage) {
    const CharsetDatabase& db = CharsetDatabase::Builtin();
    ASSERT_GT(db.size(), 200u);
    std::set<std::string> seen;
    for (size_t i = 0; i < db.size(); ++i) {
        const CharsetRecord& r = db.record(i);
        std::string name = r.name;
        SCOPED_TRACE(name);
        EXPECT_FALSE(name.empty());
        // Room for the key prefix within a 260-byte path.
        EXPECT_LT(name.size(), 238u);
        EXPECT_TRUE(seen.insert(Lower(name)).second) << "duplicate key";
        EXPECT_TRUE(r.codepage > 0 || r.alias) << "the built-in table has no empty keys";
        EXPECT_GT(Resolve(db, name), 0) << "dangling or looping alias";
        if (i > 0) {
            EXPECT_LT(Lower(db.record(i - 1).name), Lower(name)) << "index out of order";
        }
    }
}

// The codec's fallback table answers these only when the database has no key.
TEST(CharsetDatabaseTest, FallbackNamesHaveNoKey) {
    const CharsetDatabase& db = CharsetDatabase::Builtin();
    for (const char* name : {"ISO-8859-13", "iso-8859-15", "TIS-620", "iso-8859-11", "koi8-u",
                             "KOI8-RU", "gb18030"}) {
        CharsetKey key = db.Open(name);
        EXPECT_EQ(key.kind, CharsetKeyKind::kNoKey) << name;
        EXPECT_EQ(key.error, kErrorFileNotFound) << name;
    }
}

TEST(CharsetDatabaseTest, OpenGivesEachKindOfKey) {
    struct Case {
        const char* name;
        CharsetKeyKind kind;
        int32_t codepage;
        const char* alias;
    };
    const Case cases[] = {
        {"utf-8", CharsetKeyKind::kCodepage, 65001, ""},
        {"UTF-8", CharsetKeyKind::kCodepage, 65001, ""},
        {"Shift_JIS", CharsetKeyKind::kCodepage, 932, ""},
        {"iso-2022-jp", CharsetKeyKind::kCodepage, 50220, ""},
        {"_iso-2022-jp$ESC", CharsetKeyKind::kCodepage, 50221, ""},
        {"latin1", CharsetKeyKind::kAlias, -1, "iso-8859-1"},
        {"X-SJIS", CharsetKeyKind::kAlias, -1, "shift_jis"},
        {"utf-8x", CharsetKeyKind::kNoKey, -1, ""},
        {"utf-", CharsetKeyKind::kNoKey, -1, ""},
        {"", CharsetKeyKind::kNoKey, -1, ""},
        {"\xff\xfe", CharsetKeyKind::kNoKey, -1, ""},
    };
    const CharsetDatabase& db = CharsetDatabase::Builtin();
    for (const Case& c : cases) {
        CharsetKey key = db.Open(c.name);
        EXPECT_EQ(key.kind, c.kind) << c.name;
        EXPECT_EQ(key.codepage, c.codepage) << c.name;
        EXPECT_EQ(key.alias, c.alias) << c.name;
        EXPECT_EQ(key.error, c.kind == CharsetKeyKind::kNoKey ? kErrorFileNotFound : 0u) << c.name;
    }
}

TEST(CharsetDatabaseTest, NulEndsTheKeyName) {
    const CharsetDatabase& db = CharsetDatabase::Builtin();
    EXPECT_EQ(db.Open(std::string_view("utf-8\0junk", 10)).codepage, 65001);
    EXPECT_EQ(db.Open(std::string_view("\0utf-8", 6)).kind, CharsetKeyKind::kNoKey);
}

TEST(CharsetDatabaseTest, WellKnownNamesResolve) {
    struct Case {
        const char* name;
        int32_t codepage;
    };
    const Case cases[] = {
        {"us-ascii", 20127},      {"ascii", 20127},          {"ANSI_X3.4-1968", 20127},
        {"utf-7", 65000},         {"unicode-1-1-utf-7", 65000},
        {"unicode", 1200},        {"utf-16", 1200},          {"unicodeFFFE", 1201},
        {"iso-8859-1", 28591},    {"ISO_8859-1:1987", 28591}, {"cp819", 28591},
        {"iso-8859-2", 28592},    {"latin2", 28592},         {"iso-8859-5", 28595},
        {"cyrillic", 28595},      {"greek", 28597},          {"hebrew", 28598},
        {"iso-8859-8-i", 38598},  {"latin5", 28599},         {"windows-1250", 1250},
        {"x-cp1251", 1251},       {"windows-1252", 1252},    {"windows-1258", 1258},
        {"windows-874", 874},     {"koi8-r", 20866},         {"csKOI8R", 20866},
        {"shift_jis", 932},       {"ms_kanji", 932},         {"csWindows31J", 932},
        {"euc-jp", 51932},        {"x-euc-jp", 51932},       {"iso-2022-jp", 50220},
        {"gb2312", 936},          {"GBK", 936},              {"chinese", 936},
        {"hz-gb-2312", 52936},    {"big5", 950},             {"cn-big5", 950},
        {"ks_c_5601-1987", 949},  {"korean", 949},           {"KSC5601", 949},
        {"euc-kr", 51949},        {"iso-2022-kr", 50225},    {"csISO2022KR", 50225},
        {"macintosh", 10000},     {"x-mac-ce", 10029},       {"ibm866", 866},
        {"437", 437},             {"IBM037", 37},            {"DIN_66003", 20106},
    };
    for (const Case& c : cases) EXPECT_EQ(Resolve(CharsetDatabase::Builtin(), c.name), c.codepage) << c.name;
}

TEST(CharsetDatabaseTest, OwnTableKeepsTheFirstOfDuplicatesAndKnowsEmptyKeys) {
    const CharsetRecord records[] = {
        {"b", 0, nullptr},
        {"A", 5, nullptr},
        {"a", 6, nullptr},
        {nullptr, 7, nullptr},
        {"c", 0, "a"},
    };
    CharsetDatabase db(records, 5);
    EXPECT_EQ(db.size(), 3u);
    EXPECT_EQ(db.Open("a").codepage, 5);
    EXPECT_EQ(db.Open("B").kind, CharsetKeyKind::kEmpty);
    EXPECT_EQ(db.Open("B").error, 0u);
    EXPECT_EQ(db.Open("c").alias, "a");
    EXPECT_EQ(db.Open("d").kind, CharsetKeyKind::kNoKey);
}

}  // namespace
}  // namespace kv::platform
