// The wrapped crossings of fields.h (the plain ones are covered by the
// session members' test): each field written and read through Invoke.
#include "automation/fields.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "../support/dispatch.h"
#include "../support/text.h"
#include "automation/catalogue.h"
#include "automation/object.h"

namespace kv {
namespace {

using namespace automation;
using testing::GetProperty;
using testing::PutProperty;
using testing::Str;

extern const ClassInfo kWiredClass;

class CWired : public ObjectBase {
public:
    CWired() : ObjectBase(kWiredClass) {}
    int32_t Flag = 0;
    double Expiry = 0;
    bstring Issuer;
    int32_t Codepage = 1252;
    bstring Name;
    int32_t Level = 2;
    CWired* Child = nullptr;
};

const IID IID_IWired = {0x5D1C7A20, 0x3E4F, 0x4B6A, {0x81, 0x22, 0x6E, 0x0F, 0x9A, 0x33, 0x00, 0x02}};
const InterfaceInfo kIWired("IWired", IID_IWired, {
    Field<CWired, AsBool<&CWired::Flag>>(1, "Flag"),
    FieldGet<CWired, AsDate<&CWired::Expiry>>(2, "Expiry"),
    Field<CWired, AsUtf8<&CWired::Issuer>>(3, "Issuer"),
    FieldGet<CWired, NullWhileEmpty<AsUtf8<&CWired::Issuer>>>(4, "IssuerOrNull"),
    FieldGet<CWired, InCodepage<&CWired::Name, &CWired::Codepage>>(5, "Name"),
    Field<CWired, &CWired::Level, InRange<0, 3>>(6, "Level"),
    FieldGet<CWired, &CWired::Child>(7, "Child"),
});
const ClassInfo kWiredClass = {"CWired", "Korvane.Wired", "Wired Class",
                               {0x5D1C7A20, 0x3E4F, 0x4B6A, {0x81, 0x22, 0x6E, 0x0F, 0x9A, 0x33, 0x01, 0x02}},
                               &kIWired, nullptr, false, nullptr};

// A value read, as text: "BOOL -1", "DATE 1.5", "BSTR null", "BSTR caf\u00e9".
std::string Show(VARIANT v) {
    std::string shown;
    switch (v.vt) {
        case VT_BOOL: shown = "BOOL " + std::to_string(v.boolVal); break;
        case VT_DATE: shown = "DATE " + std::to_string(v.date); break;
        case VT_I4: shown = "I4 " + std::to_string(v.lVal); break;
        case VT_BSTR:
            shown = v.bstrVal ? "BSTR " + Utf16ToUtf8(std::u16string_view(v.bstrVal, SysStringLen(v.bstrVal)))
                              : "BSTR null";
            break;
        default: shown = "vt " + std::to_string(v.vt);
    }
    VariantClear(&v);
    return shown;
}

std::string FlagOf(CWired& o) { return std::to_string(o.Flag); }
std::string IssuerOf(CWired& o) { return Str(o.Issuer); }
std::string LevelOf(CWired& o) { return std::to_string(o.Level); }

TEST(FieldCrossings, EachReadsAndWritesAsItsWrapperSays) {
    EXPECT_EQ(kIWired.Validate(), "");
    struct Case {
        const char* property;
        std::function<void(CWired&)> arrange;  // fields set before, or nothing
        VARIANT put;                           // VT_EMPTY: read only
        std::string (*stored)(CWired&);        // the field after the write
        const char* want_stored;
        const char* read;
    } cases[] = {
        {"Flag", {}, MakeBool(true), FlagOf, "1", "BOOL -1"},
        {"Flag", {}, MakeBool(false), FlagOf, "0", "BOOL 0"},
        {"Flag", {}, MakeI4(5), FlagOf, "1", "BOOL -1"},
        {"Expiry", [](CWired& o) { o.Expiry = 45000.25; }, {}, nullptr, "", "DATE 45000.250000"},
        {"Issuer", {}, MakeBstr("caf\u00e9"), IssuerOf, "caf\xc3\xa9", "BSTR caf\u00e9"},
        {"Issuer", {}, MakeBstr(""), IssuerOf, "", "BSTR "},
        {"IssuerOrNull", {}, {}, nullptr, "", "BSTR null"},
        {"IssuerOrNull", [](CWired& o) { o.Issuer.assign("\xc3\xa9"); }, {}, nullptr, "", "BSTR \u00e9"},
        {"Name", [](CWired& o) { o.Name.assign("\xe9"); }, {}, nullptr, "", "BSTR \u00e9"},
        {"Name",
         [](CWired& o) {
             o.Codepage = 65001;
             o.Name.assign("\xc3\xa9");
         },
         {}, nullptr, "", "BSTR \u00e9"},
        {"Level", {}, MakeI4(4), LevelOf, "2", "I4 2"},  // refused: the field stays
        {"Level", {}, MakeI4(3), LevelOf, "3", "I4 3"},
    };
    auto* o = new CWired();
    for (Case& c : cases) {
        SCOPED_TRACE(std::string(c.property) + " case " + std::to_string(&c - cases));
        if (c.arrange) c.arrange(*o);
        if (c.put.vt != VT_EMPTY) {
            EXPECT_EQ(PutProperty(o, c.property, c.put), S_OK);
            EXPECT_EQ(c.stored(*o), c.want_stored);
        }
        EXPECT_EQ(Show(GetProperty(o, c.property)), c.read);
    }

    // An object field is handed out with a reference of its own.
    o->Child = new CWired();
    VARIANT child = GetProperty(o, "Child");
    ASSERT_EQ(child.vt, VT_DISPATCH);
    EXPECT_EQ(child.pdispVal, static_cast<IDispatch*>(o->Child));
    EXPECT_EQ(o->Child->Release(), 1u) << "the reader's reference is left";
    VariantClear(&child);
    o->Release();
}

}  // namespace
}  // namespace kv
