#include "platform/charsetdb.h"

#include <algorithm>

namespace kv::platform {

namespace {

constexpr CharsetRecord kBuiltin[] = {
    // Detection pseudo-charsets and the JIS variants of the mail reader.
    {"_autodetect", 50932, nullptr},
    {"_autodetect_all", 50001, nullptr},
    {"_autodetect_kr", 50949, nullptr},
    {"_iso-2022-jp$ESC", 50221, nullptr},
    {"_iso-2022-jp$SIO", 50222, nullptr},

    // Unicode.
    {"unicode", 1200, nullptr},
    {"unicodeFFFE", 1201, nullptr},
    {"utf-16", 0, "unicode"},
    {"ucs-2", 0, "unicode"},
    {"ISO-10646-UCS-2", 0, "unicode"},
    {"utf-32", 12000, nullptr},
    {"utf-32BE", 12001, nullptr},
    {"utf-7", 65000, nullptr},
    {"csUnicode11UTF7", 0, "utf-7"},
    {"unicode-1-1-utf-7", 0, "utf-7"},
    {"unicode-2-0-utf-7", 0, "utf-7"},
    {"x-unicode-1-1-utf-7", 0, "utf-7"},
    {"x-unicode-2-0-utf-7", 0, "utf-7"},
    {"utf-8", 65001, nullptr},
    {"unicode-1-1-utf-8", 0, "utf-8"},
    {"unicode-2-0-utf-8", 0, "utf-8"},
    {"x-unicode-1-1-utf-8", 0, "utf-8"},
    {"x-unicode-2-0-utf-8", 0, "utf-8"},

    // ASCII and its many names.
    {"us-ascii", 20127, nullptr},
    {"ANSI_X3.4-1968", 0, "us-ascii"},
    {"ANSI_X3.4-1986", 0, "us-ascii"},
    {"ascii", 0, "us-ascii"},
    {"cp367", 0, "us-ascii"},
    {"csASCII", 0, "us-ascii"},
    {"IBM367", 0, "us-ascii"},
    {"iso-ir-6", 0, "us-ascii"},
    {"ISO646-US", 0, "us-ascii"},
    {"ISO_646.irv:1991", 0, "us-ascii"},
    {"us", 0, "us-ascii"},

    // ISO 8859.
    {"iso-8859-1", 28591, nullptr},
    {"cp819", 0, "iso-8859-1"},
    {"csISOLatin1", 0, "iso-8859-1"},
    {"ibm819", 0, "iso-8859-1"},
    {"iso-ir-100", 0, "iso-8859-1"},
    {"iso8859-1", 0, "iso-8859-1"},
    {"iso_8859-1", 0, "iso-8859-1"},
    {"iso_8859-1:1987", 0, "iso-8859-1"},
    {"l1", 0, "iso-8859-1"},
    {"latin1", 0, "iso-8859-1"},
    {"iso-8859-2", 28592, nullptr},
    {"csISOLatin2", 0, "iso-8859-2"},
    {"iso-ir-101", 0, "iso-8859-2"},
    {"iso8859-2", 0, "iso-8859-2"},
    {"iso_8859-2", 0, "iso-8859-2"},
    {"iso_8859-2:1987", 0, "iso-8859-2"},
    {"l2", 0, "iso-8859-2"},
    {"latin2", 0, "iso-8859-2"},
    {"iso-8859-3", 28593, nullptr},
    {"csISOLatin3", 0, "iso-8859-3"},
    {"iso-ir-109", 0, "iso-8859-3"},
    {"iso_8859-3", 0, "iso-8859-3"},
    {"iso_8859-3:1988", 0, "iso-8859-3"},
    {"l3", 0, "iso-8859-3"},
    {"latin3", 0, "iso-8859-3"},
    {"iso-8859-4", 28594, nullptr},
    {"csISOLatin4", 0, "iso-8859-4"},
    {"iso-ir-110", 0, "iso-8859-4"},
    {"iso_8859-4", 0, "iso-8859-4"},
    {"iso_8859-4:1988", 0, "iso-8859-4"},
    {"l4", 0, "iso-8859-4"},
    {"latin4", 0, "iso-8859-4"},
    {"iso-8859-5", 28595, nullptr},
    {"csISOLatinCyrillic", 0, "iso-8859-5"},
    {"cyrillic", 0, "iso-8859-5"},
    {"iso-ir-144", 0, "iso-8859-5"},
    {"iso_8859-5", 0, "iso-8859-5"},
    {"iso_8859-5:1988", 0, "iso-8859-5"},
    {"iso-8859-6", 28596, nullptr},
    {"arabic", 0, "iso-8859-6"},
    {"csISOLatinArabic", 0, "iso-8859-6"},
    {"ECMA-114", 0, "iso-8859-6"},
    {"iso-ir-127", 0, "iso-8859-6"},
    {"iso_8859-6", 0, "iso-8859-6"},
    {"iso_8859-6:1987", 0, "iso-8859-6"},
    {"iso-8859-7", 28597, nullptr},
    {"csISOLatinGreek", 0, "iso-8859-7"},
    {"ECMA-118", 0, "iso-8859-7"},
    {"ELOT_928", 0, "iso-8859-7"},
    {"greek", 0, "iso-8859-7"},
    {"greek8", 0, "iso-8859-7"},
    {"iso-ir-126", 0, "iso-8859-7"},
    {"iso_8859-7", 0, "iso-8859-7"},
    {"iso_8859-7:1987", 0, "iso-8859-7"},
    {"iso-8859-8", 28598, nullptr},
    {"csISOLatinHebrew", 0, "iso-8859-8"},
    {"hebrew", 0, "iso-8859-8"},
    {"iso-ir-138", 0, "iso-8859-8"},
    {"iso_8859-8", 0, "iso-8859-8"},
    {"iso_8859-8:1988", 0, "iso-8859-8"},
    {"visual", 0, "iso-8859-8"},
    {"iso-8859-8-i", 38598, nullptr},
    {"logical", 0, "iso-8859-8-i"},
    {"iso-8859-9", 28599, nullptr},
    {"csISOLatin5", 0, "iso-8859-9"},
    {"iso-ir-148", 0, "iso-8859-9"},
    {"iso_8859-9", 0, "iso-8859-9"},
    {"iso_8859-9:1989", 0, "iso-8859-9"},
    {"l5", 0, "iso-8859-9"},
    {"latin5", 0, "iso-8859-9"},

    // Windows code pages.
    {"windows-874", 874, nullptr},
    {"DOS-874", 0, "windows-874"},
    {"windows-1250", 1250, nullptr},
    {"x-cp1250", 0, "windows-1250"},
    {"windows-1251", 1251, nullptr},
    {"x-cp1251", 0, "windows-1251"},
    {"windows-1252", 1252, nullptr},
    {"windows-1253", 1253, nullptr},
    {"windows-1254", 1254, nullptr},
    {"windows-1255", 1255, nullptr},
    {"windows-1256", 1256, nullptr},
    {"windows-1257", 1257, nullptr},
    {"windows-1258", 1258, nullptr},

    // DOS, IBM and EBCDIC pages.
    {"437", 437, nullptr},
    {"IBM437", 0, "437"},
    {"cp437", 0, "437"},
    {"csPC8CodePage437", 0, "437"},
    {"ASMO-708", 708, nullptr},
    {"DOS-720", 720, nullptr},
    {"ibm737", 737, nullptr},
    {"ibm775", 775, nullptr},
    {"ibm850", 850, nullptr},
    {"cp850", 0, "ibm850"},
    {"ibm852", 852, nullptr},
    {"cp852", 0, "ibm852"},
    {"IBM855", 855, nullptr},
    {"ibm857", 857, nullptr},
    {"IBM00858", 858, nullptr},
    {"IBM860", 860, nullptr},
    {"ibm861", 861, nullptr},
    {"DOS-862", 862, nullptr},
    {"IBM863", 863, nullptr},
    {"IBM864", 864, nullptr},
    {"IBM865", 865, nullptr},
    {"cp866", 866, nullptr},
    {"ibm866", 0, "cp866"},
    {"ibm869", 869, nullptr},
    {"IBM037", 37, nullptr},
    {"ebcdic-cp-us", 0, "IBM037"},
    {"IBM500", 500, nullptr},
    {"IBM870", 870, nullptr},
    {"cp870", 0, "IBM870"},
    {"cp875", 875, nullptr},
    {"IBM1026", 1026, nullptr},
    {"IBM01047", 1047, nullptr},
    {"IBM01140", 1140, nullptr},
    {"IBM01141", 1141, nullptr},
    {"IBM01142", 1142, nullptr},
    {"IBM01143", 1143, nullptr},
    {"IBM01144", 1144, nullptr},
    {"IBM01145", 1145, nullptr},
    {"IBM01146", 1146, nullptr},
    {"IBM01147", 1147, nullptr},
    {"IBM01148", 1148, nullptr},
    {"IBM01149", 1149, nullptr},
    {"IBM273", 20273, nullptr},
    {"IBM277", 20277, nullptr},
    {"IBM278", 20278, nullptr},
    {"IBM280", 20280, nullptr},
    {"IBM284", 20284, nullptr},
    {"IBM285", 20285, nullptr},
    {"IBM290", 20290, nullptr},
    {"IBM297", 20297, nullptr},
    {"IBM420", 20420, nullptr},
    {"IBM423", 20423, nullptr},
    {"IBM424", 20424, nullptr},
    {"x-EBCDIC-KoreanExtended", 20833, nullptr},
    {"IBM-Thai", 20838, nullptr},
    {"IBM871", 20871, nullptr},
    {"IBM880", 20880, nullptr},
    {"IBM905", 20905, nullptr},
    {"IBM00924", 20924, nullptr},
    {"cp1025", 21025, nullptr},

    // Cyrillic.
    {"koi8-r", 20866, nullptr},
    {"csKOI8R", 0, "koi8-r"},
    {"koi", 0, "koi8-r"},
    {"koi8", 0, "koi8-r"},
    {"koi8r", 0, "koi8-r"},

    // Japanese.
    {"shift_jis", 932, nullptr},
    {"csShiftJIS", 0, "shift_jis"},
    {"csWindows31J", 0, "shift_jis"},
    {"ms_Kanji", 0, "shift_jis"},
    {"shift-jis", 0, "shift_jis"},
    {"x-ms-cp932", 0, "shift_jis"},
    {"x-sjis", 0, "shift_jis"},
    {"euc-jp", 51932, nullptr},
    {"csEUCPkdFmtJapanese", 0, "euc-jp"},
    {"Extended_UNIX_Code_Packed_Format_for_Japanese", 0, "euc-jp"},
    {"x-euc", 0, "euc-jp"},
    {"x-euc-jp", 0, "euc-jp"},
    {"iso-2022-jp", 50220, nullptr},
    {"csISO2022JP", 0, "iso-2022-jp"},
    {"x-mac-japanese", 10001, nullptr},

    // Chinese.
    {"gb2312", 936, nullptr},
    {"chinese", 0, "gb2312"},
    {"CN-GB", 0, "gb2312"},
    {"csGB2312", 0, "gb2312"},
    {"csGB231280", 0, "gb2312"},
    {"csISO58GB231280", 0, "gb2312"},
    {"euc-cn", 0, "gb2312"},
    {"GB_2312-80", 0, "gb2312"},
    {"GBK", 0, "gb2312"},
    {"iso-ir-58", 0, "gb2312"},
    {"x-euc-cn", 0, "gb2312"},
    {"hz-gb-2312", 52936, nullptr},
    {"x-cp20936", 20936, nullptr},
    {"x-cp50227", 50227, nullptr},
    {"big5", 950, nullptr},
    {"cn-big5", 0, "big5"},
    {"csbig5", 0, "big5"},
    {"x-x-big5", 0, "big5"},
    {"x-Chinese-CNS", 20000, nullptr},
    {"x-cp20001", 20001, nullptr},
    {"x-Chinese-Eten", 20002, nullptr},
    {"x-cp20003", 20003, nullptr},
    {"x-cp20004", 20004, nullptr},
    {"x-cp20005", 20005, nullptr},
    {"x-mac-chinesetrad", 10002, nullptr},
    {"x-mac-chinesesimp", 10008, nullptr},

    // Korean.
    {"ks_c_5601-1987", 949, nullptr},
    {"csKSC56011987", 0, "ks_c_5601-1987"},
    {"iso-ir-149", 0, "ks_c_5601-1987"},
    {"korean", 0, "ks_c_5601-1987"},
    {"ks-c-5601", 0, "ks_c_5601-1987"},
    {"ks-c5601", 0, "ks_c_5601-1987"},
    {"KSC5601", 0, "ks_c_5601-1987"},
    {"KSC_5601", 0, "ks_c_5601-1987"},
    {"ks_c_5601", 0, "ks_c_5601-1987"},
    {"ks_c_5601-1989", 0, "ks_c_5601-1987"},
    {"ks_c_5601_1987", 0, "ks_c_5601-1987"},
    {"euc-kr", 51949, nullptr},
    {"csEUCKR", 0, "euc-kr"},
    {"iso-2022-kr", 50225, nullptr},
    {"csISO2022KR", 0, "iso-2022-kr"},
    {"Johab", 1361, nullptr},
    {"x-cp20949", 20949, nullptr},
    {"x-mac-korean", 10003, nullptr},

    // Macintosh.
    {"macintosh", 10000, nullptr},
    {"x-mac-arabic", 10004, nullptr},
    {"x-mac-hebrew", 10005, nullptr},
    {"x-mac-greek", 10006, nullptr},
    {"x-mac-cyrillic", 10007, nullptr},
    {"x-mac-romanian", 10010, nullptr},
    {"x-mac-ukrainian", 10017, nullptr},
    {"x-mac-thai", 10021, nullptr},
    {"x-mac-ce", 10029, nullptr},
    {"x-mac-icelandic", 10079, nullptr},
    {"x-mac-turkish", 10081, nullptr},
    {"x-mac-croatian", 10082, nullptr},

    // 7-bit national variants, ISCII and the rest.
    {"x-IA5", 20105, nullptr},
    {"x-IA5-German", 20106, nullptr},
    {"DIN_66003", 0, "x-IA5-German"},
    {"x-IA5-Swedish", 20107, nullptr},
    {"SEN_850200_B", 0, "x-IA5-Swedish"},
    {"x-IA5-Norwegian", 20108, nullptr},
    {"NS_4551-1", 0, "x-IA5-Norwegian"},
    {"x-cp20261", 20261, nullptr},
    {"x-cp20269", 20269, nullptr},
    {"x-Europa", 29001, nullptr},
    {"x-iscii-de", 57002, nullptr},
    {"x-iscii-be", 57003, nullptr},
    {"x-iscii-ta", 57004, nullptr},
    {"x-iscii-te", 57005, nullptr},
    {"x-iscii-as", 57006, nullptr},
    {"x-iscii-or", 57007, nullptr},
    {"x-iscii-ka", 57008, nullptr},
    {"x-iscii-ma", 57009, nullptr},
    {"x-iscii-gu", 57010, nullptr},
    {"x-iscii-pa", 57011, nullptr},
    {"x-user-defined", 50000, nullptr},
};

inline unsigned char Fold(char c) {
    unsigned char u = static_cast<unsigned char>(c);
    return (u >= 'A' && u <= 'Z') ? static_cast<unsigned char>(u + 32) : u;
}

// Case-blind order of two names; a NUL in either ends it.
int CompareNames(std::string_view a, std::string_view b) {
    size_t n = std::min(a.size(), b.size());
    for (size_t i = 0; i < n; ++i) {
        unsigned char x = Fold(a[i]), y = Fold(b[i]);
        if (x != y) return x < y ? -1 : 1;
    }
    if (a.size() == b.size()) return 0;
    return a.size() < b.size() ? -1 : 1;
}

std::string_view KeyName(std::string_view name) {
    size_t nul = name.find('\0');
    return nul == std::string_view::npos ? name : name.substr(0, nul);
}

}  // namespace

CharsetDatabase::CharsetDatabase(const CharsetRecord* records, size_t count) {
    index_.reserve(count);
    for (size_t i = 0; i < count; ++i)
        if (records[i].name) index_.push_back(&records[i]);
    std::stable_sort(index_.begin(), index_.end(), [](const CharsetRecord* a, const CharsetRecord* b) {
        return CompareNames(a->name, b->name) < 0;
    });
    auto last = std::unique(index_.begin(), index_.end(),
                            [](const CharsetRecord* a, const CharsetRecord* b) {
                                return CompareNames(a->name, b->name) == 0;
                            });
    index_.erase(last, index_.end());
}

CharsetKey CharsetDatabase::Open(std::string_view name) const {
    CharsetKey key;
    name = KeyName(name);
    if (name.empty()) return key;
    auto it = std::lower_bound(index_.begin(), index_.end(), name,
                               [](const CharsetRecord* r, std::string_view n) {
                                   return CompareNames(r->name, n) < 0;
                               });
    if (it == index_.end() || CompareNames((*it)->name, name) != 0) return key;
    const CharsetRecord& r = **it;
    key.error = 0;
    if (r.codepage > 0) {
        key.kind = CharsetKeyKind::kCodepage;
        key.codepage = r.codepage;
    } else if (r.alias) {
        key.kind = CharsetKeyKind::kAlias;
        key.alias = r.alias;
    } else {
        key.kind = CharsetKeyKind::kEmpty;
    }
    return key;
}

const CharsetDatabase& CharsetDatabase::Builtin() {
    static const CharsetDatabase db(kBuiltin, sizeof(kBuiltin) / sizeof(kBuiltin[0]));
    return db;
}

}  // namespace kv::platform
