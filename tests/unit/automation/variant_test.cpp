#include "automation/variant.h"

#include <gtest/gtest.h>

#include <cmath>

#include "automation/catalogue.h"
#include "automation/object.h"
#include "automation/safearray.h"
#include "automation/test_object.h"

using namespace kv::automation;

namespace {

VARIANT Of(VARTYPE vt, int64_t bits) {
    VARIANT v;
    VariantInit(&v);
    v.vt = vt;
    v.llVal = bits;
    return v;
}
VARIANT I2(int16_t x) { VARIANT v = Of(VT_I2, 0); v.iVal = x; return v; }
VARIANT UI1(uint8_t x) { VARIANT v = Of(VT_UI1, 0); v.bVal = x; return v; }
VARIANT R4(float x) { VARIANT v = Of(VT_R4, 0); v.fltVal = x; return v; }
VARIANT Date(double x) { VARIANT v = Of(VT_DATE, 0); v.date = x; return v; }
VARIANT Cy(int64_t scaled) { return Of(VT_CY, scaled); }
VARIANT I8(int64_t x) { return Of(VT_I8, x); }
VARIANT Empty() { return Of(VT_EMPTY, 0); }
VARIANT Null() { return Of(VT_NULL, 0); }

std::string Show(const VARIANT& v) {
    switch (v.vt) {
        case VT_BSTR: return "BSTR \"" + Bstr(v.bstrVal, SysStringLen(v.bstrVal)).Utf8() + "\"";
        case VT_I2: return "I2 " + std::to_string(v.iVal);
        case VT_I4: return "I4 " + std::to_string(v.lVal);
        case VT_UI1: return "UI1 " + std::to_string(v.bVal);
        case VT_BOOL: return "BOOL " + std::to_string(v.boolVal);
        case VT_R8: return "R8 " + std::to_string(v.dblVal);
        case VT_R4: return "R4 " + std::to_string(v.fltVal);
        case VT_DATE: return "DATE " + std::to_string(v.date);
        case VT_CY: return "CY " + std::to_string(v.cyVal.int64);
        case VT_I8: return "I8 " + std::to_string(v.llVal);
        case VT_ERROR: return "ERROR " + std::to_string(v.scode);
        default: return "vt " + std::to_string(v.vt);
    }
}

struct Coercion {
    VARIANT from;
    VARTYPE to;
    HRESULT hr;
    VARIANT want;  // compared when hr is S_OK
};

// Clears the table's variants afterwards.
void RunTable(std::vector<Coercion> table, uint16_t flags = 0) {
    for (size_t i = 0; i < table.size(); ++i) {
        const Coercion& c = table[i];
        VARIANT out;
        VariantInit(&out);
        HRESULT hr = VariantChangeType(&out, &c.from, flags, c.to);
        EXPECT_EQ(hr, c.hr) << "case " << i << ": " << Show(c.from) << " -> " << c.to;
        if (hr == S_OK) {
            EXPECT_EQ(Show(out), Show(c.want)) << "case " << i << ": " << Show(c.from);
        } else {
            EXPECT_EQ(out.vt, VT_EMPTY) << "case " << i << ": dest touched on failure";
        }
        VariantClear(&out);
    }
    for (Coercion& c : table) {
        VariantClear(&c.from);
        VariantClear(&c.want);
    }
}

}  // namespace

TEST(VariantLayout, MatchesWindows64) {
    EXPECT_EQ(sizeof(VARIANT), 24u);
    EXPECT_EQ(offsetof(VARIANT, bstrVal), 8u);
    EXPECT_EQ(offsetof(VARIANT, brecVal.pRecInfo), 16u);
    EXPECT_EQ(sizeof(SAFEARRAY), 32u);
    EXPECT_EQ(offsetof(SAFEARRAY, pvData), 16u);
}

TEST(VariantChangeType, NumbersRoundHalfToEvenAndCheckRange) {
    RunTable({
        {MakeR8(2.5), VT_I4, S_OK, MakeI4(2)},
        {MakeR8(3.5), VT_I4, S_OK, MakeI4(4)},
        {MakeR8(-2.5), VT_I4, S_OK, MakeI4(-2)},
        {MakeR8(2.4999), VT_I4, S_OK, MakeI4(2)},
        {MakeR8(2147483647.4), VT_I4, S_OK, MakeI4(2147483647)},
        {MakeR8(2147483647.5), VT_I4, DISP_E_OVERFLOW, {}},
        {MakeR8(NAN), VT_I4, DISP_E_OVERFLOW, {}},
        {MakeI4(32768), VT_I2, DISP_E_OVERFLOW, {}},
        {MakeI4(-32768), VT_I2, S_OK, I2(-32768)},
        {MakeI4(256), VT_UI1, DISP_E_OVERFLOW, {}},
        {MakeI4(-1), VT_UI1, DISP_E_OVERFLOW, {}},
        {MakeI4(255), VT_UI1, S_OK, UI1(255)},
        {I8(int64_t(1) << 40), VT_I4, DISP_E_OVERFLOW, {}},
        {MakeI4(7), VT_R8, S_OK, MakeR8(7)},
        {MakeR8(1e39), VT_R4, DISP_E_OVERFLOW, {}},
        {MakeR8(0.5), VT_R4, S_OK, R4(0.5f)},
        {Cy(25000), VT_I4, S_OK, MakeI4(2)},   // 2.5 rounds to 2
        {Cy(35000), VT_I4, S_OK, MakeI4(4)},
        {MakeR8(1.23456), VT_CY, S_OK, Cy(12346)},
        {MakeI4(3), VT_CY, S_OK, Cy(30000)},
        {MakeR8(45000.5), VT_DATE, S_OK, Date(45000.5)},
        {MakeR8(3e6), VT_DATE, DISP_E_OVERFLOW, {}},
        {Empty(), VT_I4, S_OK, MakeI4(0)},
        {Empty(), VT_R8, S_OK, MakeR8(0)},
        {Null(), VT_I4, DISP_E_TYPEMISMATCH, {}},
        {MakeMissing(), VT_I4, DISP_E_TYPEMISMATCH, {}},
    });
}

TEST(VariantChangeType, BooleansAreMinusOneAndZero) {
    RunTable({
        {MakeBool(true), VT_I4, S_OK, MakeI4(-1)},
        {MakeBool(false), VT_I4, S_OK, MakeI4(0)},
        {MakeI4(-1), VT_BOOL, S_OK, MakeBool(true)},
        {MakeI4(5), VT_BOOL, S_OK, MakeBool(true)},
        {MakeI4(0), VT_BOOL, S_OK, MakeBool(false)},
        {MakeR8(0.1), VT_BOOL, S_OK, MakeBool(true)},
        {MakeBstr("True"), VT_BOOL, S_OK, MakeBool(true)},
        {MakeBstr(" false "), VT_BOOL, S_OK, MakeBool(false)},
        {MakeBstr("-1"), VT_BOOL, S_OK, MakeBool(true)},
        {MakeBstr("0"), VT_BOOL, S_OK, MakeBool(false)},
        {MakeBstr("yes"), VT_BOOL, DISP_E_TYPEMISMATCH, {}},
        {MakeBool(true), VT_BSTR, S_OK, MakeBstr("-1")},
        {MakeBool(false), VT_BSTR, S_OK, MakeBstr("0")},
        {MakeBool(true), VT_UI1, DISP_E_OVERFLOW, {}},
    });
    RunTable({{MakeBool(true), VT_BSTR, S_OK, MakeBstr("True")},
              {MakeBool(false), VT_BSTR, S_OK, MakeBstr("False")}},
             VARIANT_ALPHABOOL);
}

TEST(VariantChangeType, StringsParseAsScriptsWriteThem) {
    RunTable({
        {MakeBstr("5"), VT_I4, S_OK, MakeI4(5)},
        {MakeBstr("  -42 "), VT_I4, S_OK, MakeI4(-42)},
        {MakeBstr("+7"), VT_I2, S_OK, I2(7)},
        {MakeBstr("5.0"), VT_I4, S_OK, MakeI4(5)},
        {MakeBstr("2.5"), VT_I4, S_OK, MakeI4(2)},
        {MakeBstr("1,000"), VT_I4, S_OK, MakeI4(1000)},
        {MakeBstr("1e3"), VT_I4, S_OK, MakeI4(1000)},
        {MakeBstr("&HFF"), VT_I4, S_OK, MakeI4(255)},
        {MakeBstr("&HFFFFFFFF"), VT_I4, S_OK, MakeI4(-1)},
        {MakeBstr("&O17"), VT_I4, S_OK, MakeI4(15)},
        {MakeBstr("0.25"), VT_R8, S_OK, MakeR8(0.25)},
        {MakeBstr("99999999999"), VT_I4, DISP_E_OVERFLOW, {}},
        {MakeBstr(""), VT_I4, DISP_E_TYPEMISMATCH, {}},
        {MakeBstr("abc"), VT_I4, DISP_E_TYPEMISMATCH, {}},
        {MakeBstr("5x"), VT_I4, DISP_E_TYPEMISMATCH, {}},
        {MakeBstr("1e"), VT_R8, DISP_E_TYPEMISMATCH, {}},
        {MakeBstr("&HG"), VT_I4, DISP_E_TYPEMISMATCH, {}},
        {MakeBstr("-"), VT_I4, DISP_E_TYPEMISMATCH, {}},
        {MakeBstr("x"), VT_DISPATCH, DISP_E_TYPEMISMATCH, {}},
        {MakeBstr("x"), VT_NULL, DISP_E_TYPEMISMATCH, {}},
    });
}

TEST(VariantChangeType, NumbersAndDatesFormatInTheInvariantForm) {
    RunTable({
        {MakeI4(-12), VT_BSTR, S_OK, MakeBstr("-12")},
        {MakeR8(0.5), VT_BSTR, S_OK, MakeBstr("0.5")},
        {MakeR8(1.0 / 3), VT_BSTR, S_OK, MakeBstr("0.333333333333333")},
        {MakeR8(1e20), VT_BSTR, S_OK, MakeBstr("1E+20")},
        {R4(0.1f), VT_BSTR, S_OK, MakeBstr("0.1")},
        {Cy(12345), VT_BSTR, S_OK, MakeBstr("1.2345")},
        {Cy(-20000), VT_BSTR, S_OK, MakeBstr("-2")},
        {Empty(), VT_BSTR, S_OK, MakeBstr("")},
        {Null(), VT_BSTR, DISP_E_TYPEMISMATCH, {}},
        {Date(45000), VT_BSTR, S_OK, MakeBstr("3/15/2023")},
        {Date(45000.75), VT_BSTR, S_OK, MakeBstr("3/15/2023 6:00:00 PM")},
        {Date(0.5), VT_BSTR, S_OK, MakeBstr("12:00:00 PM")},
        {Date(0), VT_BSTR, S_OK, MakeBstr("12:00:00 AM")},
        {MakeBstr("2023-03-15"), VT_DATE, S_OK, Date(45000)},
        {MakeBstr("2023-03-15T18:00"), VT_DATE, S_OK, Date(45000.75)},
        {MakeBstr("3/15/2023 6:00:00 PM"), VT_DATE, S_OK, Date(45000.75)},
        {MakeBstr("3/15/23"), VT_DATE, S_OK, Date(45000)},
        {MakeBstr("12:00 AM"), VT_DATE, S_OK, Date(0)},
        {MakeBstr("2023-02-30"), VT_DATE, DISP_E_TYPEMISMATCH, {}},
        {MakeBstr("13:00 PM"), VT_DATE, DISP_E_TYPEMISMATCH, {}},
        {MakeBstr("soon"), VT_DATE, DISP_E_TYPEMISMATCH, {}},
    });
}

TEST(VariantDate, NegativeDatesCountTheTimeForward) {
    struct Case {
        DATE d;
        DateParts parts;
    } cases[] = {
        {0, {1899, 12, 30, 0, 0, 0, 0}},
        {1.5, {1899, 12, 31, 12, 0, 0, 0}},
        {-1.25, {1899, 12, 29, 6, 0, 0, 0}},
        {-0.5, {1899, 12, 30, 12, 0, 0, 0}},
        {2, {1900, 1, 1, 0, 0, 0, 0}},
        {60, {1900, 2, 28, 0, 0, 0, 0}},  // no phantom 1900-02-29 in DATE
        {61, {1900, 3, 1, 0, 0, 0, 0}},
        {-657434, {100, 1, 1, 0, 0, 0, 0}},
        {2958465, {9999, 12, 31, 0, 0, 0, 0}},
    };
    for (const Case& c : cases) {
        DateParts p{};
        ASSERT_TRUE(PartsFromDate(c.d, &p)) << c.d;
        EXPECT_EQ(std::tie(p.year, p.month, p.day, p.hour, p.minute, p.second),
                  std::tie(c.parts.year, c.parts.month, c.parts.day, c.parts.hour, c.parts.minute, c.parts.second))
            << c.d;
        DATE back = 0;
        ASSERT_TRUE(DateFromParts(p, &back));
        // -0.5 and 0.5 name the same moment; the forward form is the canonical one.
        EXPECT_DOUBLE_EQ(back, c.d == -0.5 ? 0.5 : c.d);
    }
    DateParts p;
    EXPECT_FALSE(PartsFromDate(-657435, &p));
    DATE d = 0;
    EXPECT_FALSE(DateFromParts({2023, 2, 29, 0, 0, 0, 0}, &d));
    EXPECT_TRUE(DateFromParts({2024, 2, 29, 0, 0, 0, 0}, &d));
    EXPECT_FALSE(DateFromParts({2024, 1, 1, 24, 0, 0, 0}, &d));
}

TEST(VariantChangeType, ByteArraysAndStringsShareTheirBytes) {
    VARIANT s;
    VariantInit(&s);
    s.vt = VT_BSTR;
    s.bstrVal = SysAllocStringByteLen("\x01\x02\x03", 3);
    VARIANT a;
    VariantInit(&a);
    ASSERT_EQ(VariantChangeType(&a, &s, 0, VT_ARRAY | VT_UI1), S_OK);
    ASSERT_EQ(a.vt, VT_ARRAY | VT_UI1);
    EXPECT_EQ(a.parray->rgsabound[0].cElements, 3u);
    EXPECT_EQ(static_cast<uint8_t*>(a.parray->pvData)[2], 3);
    VARIANT back;
    VariantInit(&back);
    ASSERT_EQ(VariantChangeType(&back, &a, 0, VT_BSTR), S_OK);
    EXPECT_EQ(SysStringByteLen(back.bstrVal), 3u);
    // A number array has no string form.
    VARIANT nums;
    VariantInit(&nums);
    nums.vt = VT_ARRAY | VT_I4;
    nums.parray = SafeArrayCreateVector(VT_I4, 0, 1);
    VARIANT out;
    VariantInit(&out);
    EXPECT_EQ(VariantChangeType(&out, &nums, 0, VT_BSTR), DISP_E_TYPEMISMATCH);
    EXPECT_EQ(VariantChangeType(&out, &nums, 0, VT_ARRAY | VT_UI1), DISP_E_TYPEMISMATCH);
    for (VARIANT* v : {&s, &a, &back, &nums}) VariantClear(v);
}

TEST(VariantChangeType, ByReferenceSourcesAreReadThrough) {
    int32_t n = 41;
    VARIANT_BOOL b = VARIANT_TRUE;
    BSTR str = SysAllocString(u"12");
    VARIANT inner = MakeR8(2.5);
    VARIANT cases[4];
    for (VARIANT& v : cases) VariantInit(&v);
    cases[0].vt = VT_BYREF | VT_I4, cases[0].plVal = &n;
    cases[1].vt = VT_BYREF | VT_BOOL, cases[1].pboolVal = &b;
    cases[2].vt = VT_BYREF | VT_BSTR, cases[2].pbstrVal = &str;
    cases[3].vt = VT_BYREF | VT_VARIANT, cases[3].pvarVal = &inner;
    int32_t want[] = {41, -1, 12, 2};
    for (int i = 0; i < 4; ++i) {
        VARIANT out;
        VariantInit(&out);
        ASSERT_EQ(VariantChangeType(&out, &cases[i], 0, VT_I4), S_OK) << i;
        EXPECT_EQ(out.lVal, want[i]) << i;
        // Clearing a by-reference variant frees nothing it points at.
        EXPECT_EQ(VariantClear(&cases[i]), S_OK);
    }
    EXPECT_EQ(SysStringLen(str), 2u);
    SysFreeString(str);
    VARIANT target;
    VariantInit(&target);
    EXPECT_EQ(VariantChangeType(&target, &inner, 0, VT_BYREF | VT_I4), DISP_E_BADVARTYPE);
    EXPECT_EQ(VariantChangeType(&target, &inner, 0, VT_VARIANT), DISP_E_BADVARTYPE);
}

TEST(VariantChangeType, InPlaceConversionReplacesTheValue) {
    VARIANT v = MakeBstr("17");
    ASSERT_EQ(VariantChangeType(&v, &v, 0, VT_I4), S_OK);
    EXPECT_EQ(v.vt, VT_I4);
    EXPECT_EQ(v.lVal, 17);
    v = MakeBstr("seventeen");
    EXPECT_EQ(VariantChangeType(&v, &v, 0, VT_I4), DISP_E_TYPEMISMATCH);
    EXPECT_EQ(v.vt, VT_BSTR);  // intact after a failure
    VariantClear(&v);
}

TEST(VariantChangeType, ObjectsGiveTheirDefaultValue) {
    ASSERT_EQ(RegisterTestClasses(), S_OK);
    IDispatch* item = nullptr;
    ASSERT_EQ(Catalogue::Instance().CreateObject("Korvane.TestItem", &item), S_OK);
    VARIANT name = MakeBstr("42");
    DISPID put = DISPID_PROPERTYPUT;
    DISPPARAMS dp{&name, &put, 1, 1};
    ASSERT_EQ(item->Invoke(1, GUID_NULL, 0, DISPATCH_PROPERTYPUT, &dp, nullptr, nullptr, nullptr), S_OK);
    VariantClear(&name);
    VARIANT obj;
    VariantInit(&obj);
    obj.vt = VT_DISPATCH;
    obj.pdispVal = item;
    VARIANT out;
    VariantInit(&out);
    ASSERT_EQ(VariantChangeType(&out, &obj, 0, VT_I4), S_OK);
    EXPECT_EQ(out.lVal, 42);
    EXPECT_EQ(VariantChangeType(&out, &obj, VARIANT_NOVALUEPROP, VT_I4), DISP_E_TYPEMISMATCH);
    // Dispatch to unknown and back keeps the object.
    ASSERT_EQ(VariantChangeType(&out, &obj, 0, VT_UNKNOWN), S_OK);
    EXPECT_EQ(out.vt, VT_UNKNOWN);
    VariantClear(&out);
    VARIANT none = Empty();
    ASSERT_EQ(VariantChangeType(&out, &none, 0, VT_DISPATCH), S_OK);
    EXPECT_EQ(out.pdispVal, nullptr);
    long live = LiveObjects();
    VariantClear(&obj);  // the variant's reference was the last
    EXPECT_EQ(LiveObjects(), live - 1);
}

TEST(VariantCopy, DeepCopiesAndCountsReferences) {
    VARIANT s = MakeBstr("text");
    VARIANT d = MakeI4(1);
    ASSERT_EQ(VariantCopy(&d, &s), S_OK);
    EXPECT_NE(d.bstrVal, s.bstrVal);
    EXPECT_EQ(std::u16string(d.bstrVal), u"text");
    // A by-reference variant copies as the pointer; CopyInd follows it.
    VARIANT ref;
    VariantInit(&ref);
    ref.vt = VT_BYREF | VT_BSTR;
    ref.pbstrVal = &s.bstrVal;
    VARIANT shallow, deep;
    VariantInit(&shallow);
    VariantInit(&deep);
    ASSERT_EQ(VariantCopy(&shallow, &ref), S_OK);
    EXPECT_EQ(shallow.pbstrVal, &s.bstrVal);
    ASSERT_EQ(VariantCopyInd(&deep, &ref), S_OK);
    EXPECT_EQ(deep.vt, VT_BSTR);
    EXPECT_NE(deep.bstrVal, s.bstrVal);
    VARIANT bad = Of(0x7F, 0);
    EXPECT_EQ(VariantCopy(&d, &bad), DISP_E_BADVARTYPE);
    EXPECT_EQ(VariantClear(&bad), DISP_E_BADVARTYPE);
    for (VARIANT* v : {&s, &d, &shallow, &deep}) EXPECT_EQ(VariantClear(v), S_OK);
}
