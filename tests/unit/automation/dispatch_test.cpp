// Invoke, GetIDsOfNames and the member tables, through the test class.
#include <gtest/gtest.h>

#include <vector>

#include "automation/catalogue.h"
#include "automation/enum_variant.h"
#include "automation/object.h"
#include "automation/test_object.h"

using namespace kv::automation;

namespace {

class DispatchTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(RegisterTestClasses(), S_OK);
        live_ = LiveObjects();
        ASSERT_EQ(Catalogue::Instance().CreateObject("Korvane.TestObject", &obj_), S_OK);
    }
    void TearDown() override {
        EXPECT_EQ(obj_->Release(), 0u);
        EXPECT_EQ(LiveObjects(), live_) << "an object was leaked";
    }

    DISPID Id(const char16_t* name) {
        OLECHAR* names[1] = {const_cast<OLECHAR*>(name)};
        DISPID id = 12345;
        EXPECT_EQ(obj_->GetIDsOfNames(GUID_NULL, names, 1, 0, &id), S_OK) << "no member";
        return id;
    }

    // args in call order; takes ownership of them.
    HRESULT Call(DISPID id, uint16_t flags, std::vector<VARIANT> args, VARIANT* result = nullptr,
                 uint32_t* arg_err = nullptr, EXCEPINFO* ei = nullptr) {
        std::vector<VARIANT> rev(args.rbegin(), args.rend());
        DISPID put = DISPID_PROPERTYPUT;
        bool is_put = flags & (DISPATCH_PROPERTYPUT | DISPATCH_PROPERTYPUTREF);
        DISPPARAMS dp{rev.data(), is_put ? &put : nullptr, uint32_t(rev.size()), is_put ? 1u : 0u};
        if (result) VariantInit(result);
        HRESULT hr = obj_->Invoke(id, GUID_NULL, 0, flags, &dp, result, ei, arg_err);
        for (VARIANT& v : args) VariantClear(&v);
        return hr;
    }

    IDispatch* obj_ = nullptr;
    long live_ = 0;
};

}  // namespace

TEST_F(DispatchTest, NamesAreFoundIgnoringCase) {
    struct Case {
        const char16_t* name;
        DISPID id;
    } cases[] = {{u"Add", 20}, {u"add", 20}, {u"ADD", 20}, {u"item", 0}, {u"_newenum", DISPID_NEWENUM}, {u"LastTicks", 14}};
    for (const Case& c : cases) EXPECT_EQ(Id(c.name), c.id);
    OLECHAR* names[3] = {const_cast<OLECHAR*>(u"Join"), const_cast<OLECHAR*>(u"sep"), const_cast<OLECHAR*>(u"nope")};
    DISPID ids[3];
    EXPECT_EQ(obj_->GetIDsOfNames(GUID_NULL, names, 3, 0, ids), DISP_E_UNKNOWNNAME);
    EXPECT_EQ(ids[0], 21);
    EXPECT_EQ(ids[1], 2);  // parameter names give their positions
    EXPECT_EQ(ids[2], DISPID_UNKNOWN);
    names[0] = const_cast<OLECHAR*>(u"Missing");
    EXPECT_EQ(obj_->GetIDsOfNames(GUID_NULL, names, 1, 0, ids), DISP_E_UNKNOWNNAME);
    EXPECT_EQ(ids[0], DISPID_UNKNOWN);
}

TEST_F(DispatchTest, ArgumentsAreCoercedAsTheStandardDispatchDoes) {
    struct Case {
        const char* what;
        DISPID id;
        std::vector<VARIANT> args;
        HRESULT hr;
        int32_t want;       // result of Add
        uint32_t arg_err;   // 99: left alone
    };
    std::vector<Case> cases;
    cases.push_back({"two longs", 20, {MakeI4(2), MakeI4(3)}, S_OK, 5, 99});
    cases.push_back({"string for long", 20, {MakeBstr("5"), MakeI4(1)}, S_OK, 6, 99});
    cases.push_back({"real for long", 20, {MakeR8(5.0), MakeR8(2.5)}, S_OK, 7, 99});
    cases.push_back({"bool for long", 20, {MakeBool(true), MakeI4(1)}, S_OK, 0, 99});
    cases.push_back({"optional left out", 20, {MakeI4(1)}, S_OK, 11, 99});
    cases.push_back({"optional passed missing", 20, {MakeI4(1), MakeMissing()}, S_OK, 11, 99});
    cases.push_back({"required passed missing", 20, {MakeMissing(), MakeI4(1)}, DISP_E_PARAMNOTOPTIONAL, 0, 1});
    cases.push_back({"too many", 20, {MakeI4(1), MakeI4(2), MakeI4(3)}, DISP_E_BADPARAMCOUNT, 0, 99});
    cases.push_back({"too few", 20, {}, DISP_E_BADPARAMCOUNT, 0, 99});
    cases.push_back({"text for long", 20, {MakeI4(1), MakeBstr("five")}, DISP_E_TYPEMISMATCH, 0, 0});
    cases.push_back({"overflow", 20, {MakeR8(1e12)}, DISP_E_OVERFLOW, 0, 0});
    cases.push_back({"member fails", 20, {MakeI4(2147483647), MakeI4(1)}, DISP_E_EXCEPTION, 0, 99});
    for (Case& c : cases) {
        VARIANT r;
        uint32_t arg_err = 99;
        HRESULT hr = Call(c.id, DISPATCH_METHOD, std::move(c.args), &r, &arg_err);
        EXPECT_EQ(hr, c.hr) << c.what;
        EXPECT_EQ(arg_err, c.arg_err) << c.what;  // index into rgvarg, as Invoke reports it
        if (hr == S_OK) {
            EXPECT_EQ(r.vt, VT_I4) << c.what;
            EXPECT_EQ(r.lVal, c.want) << c.what;
        }
        VariantClear(&r);
    }
}

TEST_F(DispatchTest, DefaultsOfEveryKindAreFilledIn) {
    VARIANT r;
    ASSERT_EQ(Call(21, DISPATCH_METHOD, {MakeBstr("a")}, &r), S_OK);
    EXPECT_EQ(std::u16string(r.bstrVal), u"a");
    VariantClear(&r);
    ASSERT_EQ(Call(21, DISPATCH_METHOD, {MakeBstr("a"), MakeBstr("b")}, &r), S_OK);
    EXPECT_EQ(std::u16string(r.bstrVal), u"a-b");
    VariantClear(&r);
    ASSERT_EQ(Call(31, DISPATCH_METHOD, {}, &r), S_OK);
    EXPECT_EQ(r.vt, VT_BOOL);
    EXPECT_EQ(r.boolVal, VARIANT_TRUE);
    // An optional VARIANT without a default arrives as "missing".
    ASSERT_EQ(Call(23, DISPATCH_METHOD, {}, &r), S_OK);
    EXPECT_EQ(std::u16string(r.bstrVal), u"missing");
    VariantClear(&r);
    ASSERT_EQ(Call(23, DISPATCH_METHOD, {MakeI4(1)}, &r), S_OK);
    EXPECT_EQ(std::u16string(r.bstrVal), u"vt 3");
    VariantClear(&r);
}

TEST_F(DispatchTest, NamedArgumentsGoToTheirParameters) {
    VARIANT args[2] = {MakeBstr("+"), MakeBstr("x")};  // rgvarg: Sep (named), then A
    DISPID named[1] = {2};
    DISPPARAMS dp{args, named, 2, 1};
    VARIANT r;
    VariantInit(&r);
    ASSERT_EQ(obj_->Invoke(21, GUID_NULL, 0, DISPATCH_METHOD, &dp, &r, nullptr, nullptr), S_OK);
    EXPECT_EQ(std::u16string(r.bstrVal), u"x");  // B defaulted to "", so no separator
    VariantClear(&r);
    named[0] = 7;
    uint32_t err = 99;
    EXPECT_EQ(obj_->Invoke(21, GUID_NULL, 0, DISPATCH_METHOD, &dp, &r, nullptr, &err), DISP_E_PARAMNOTFOUND);
    EXPECT_EQ(err, 0u);
    named[0] = 0;  // A named and positional at once
    EXPECT_EQ(obj_->Invoke(21, GUID_NULL, 0, DISPATCH_METHOD, &dp, &r, nullptr, nullptr), DISP_E_PARAMNOTFOUND);
    for (VARIANT& v : args) VariantClear(&v);
}

TEST_F(DispatchTest, PropertiesOfEveryTypeKeepWhatWasPut) {
    struct Case {
        DISPID id;
        VARIANT put;
        VARTYPE vt;
        int64_t bits;  // the first bytes of the union after the get
    };
    std::vector<Case> cases = {
        {3, MakeBstr("-7"), VT_I4, uint32_t(-7)},
        {4, MakeI4(300), VT_I2, 300},
        {5, MakeR8(254.6), VT_UI1, 255},
        {8, MakeI4(2), VT_BOOL, uint16_t(VARIANT_TRUE)},
        {9, MakeBstr("2023-03-15"), VT_DATE, 0},
        {10, MakeR8(1.5), VT_CY, 15000},
    };
    for (Case& c : cases) {
        ASSERT_EQ(Call(c.id, DISPATCH_PROPERTYPUT, {c.put}), S_OK) << c.id;
        VARIANT r;
        ASSERT_EQ(Call(c.id, DISPATCH_PROPERTYGET, {}, &r), S_OK);
        EXPECT_EQ(r.vt, c.vt) << c.id;
        if (c.vt == VT_DATE) {
            EXPECT_EQ(r.date, 45000.0);
        } else if (c.vt == VT_I4) {
            EXPECT_EQ(uint32_t(r.lVal), uint64_t(c.bits));
        } else if (c.vt == VT_CY) {
            EXPECT_EQ(r.cyVal.int64, c.bits);
        } else {
            EXPECT_EQ(uint16_t(r.iVal) & (c.vt == VT_UI1 ? 0xFF : 0xFFFF), c.bits) << c.id;
        }
    }
    // A get-only property refuses a put; a get with a wrong flag is not found.
    EXPECT_EQ(Call(1, DISPATCH_PROPERTYPUT, {MakeI4(1)}), DISP_E_MEMBERNOTFOUND);
    EXPECT_EQ(Call(3, DISPATCH_METHOD, {}), DISP_E_MEMBERNOTFOUND);
    EXPECT_EQ(Call(999, DISPATCH_METHOD, {}), DISP_E_MEMBERNOTFOUND);
    // A script that can't tell asks METHOD|PROPERTYGET.
    VARIANT r;
    ASSERT_EQ(Call(3, DISPATCH_METHOD | DISPATCH_PROPERTYGET, {}, &r), S_OK);
    EXPECT_EQ(r.lVal, -7);
}

TEST_F(DispatchTest, ObjectsPassInAndOutWithTheirReferences) {
    VARIANT item;
    ASSERT_EQ(Call(24, DISPATCH_METHOD, {MakeBstr("first")}, &item), S_OK);
    ASSERT_EQ(item.vt, VT_DISPATCH);
    // Let and Set both reach the putref-only Child.
    VARIANT copy;
    VariantInit(&copy);
    VariantCopy(&copy, &item);
    ASSERT_EQ(Call(12, DISPATCH_PROPERTYPUT, {copy}), S_OK);
    VARIANT child;
    ASSERT_EQ(Call(12, DISPATCH_PROPERTYGET, {}, &child), S_OK);
    EXPECT_EQ(child.pdispVal, item.pdispVal);
    VARIANT same;
    ASSERT_EQ(Call(29, DISPATCH_METHOD, {child}, &same), S_OK);
    EXPECT_EQ(same.boolVal, VARIANT_FALSE);  // the child is not the object itself
    VARIANT self;
    VariantInit(&self);
    self.vt = VT_DISPATCH;
    self.pdispVal = obj_;
    obj_->AddRef();
    ASSERT_EQ(Call(29, DISPATCH_METHOD, {self}, &same), S_OK);
    EXPECT_EQ(same.boolVal, VARIANT_TRUE);
    // An empty argument for an object parameter is a null reference.
    ASSERT_EQ(Call(12, DISPATCH_PROPERTYPUTREF, {VARIANT{}}), S_OK);
    ASSERT_EQ(Call(12, DISPATCH_PROPERTYGET, {}, &child), S_OK);
    EXPECT_EQ(child.pdispVal, nullptr);
    VariantClear(&item);
}

TEST_F(DispatchTest, FailingMembersReportThroughExcepinfo) {
    EXCEPINFO ei{};
    EXPECT_EQ(Call(26, DISPATCH_METHOD, {MakeBstr("it broke")}, nullptr, nullptr, &ei), DISP_E_EXCEPTION);
    EXPECT_EQ(ei.scode, E_FAIL);
    EXPECT_EQ(std::u16string(ei.bstrDescription), u"it broke");
    EXPECT_EQ(std::u16string(ei.bstrSource), u"Korvane.TestObject");
    SysFreeString(ei.bstrDescription);
    SysFreeString(ei.bstrSource);
    // Collections: Item counts from 1; below is an invalid argument, past the end a failure.
    struct Case {
        int32_t index;
        SCODE scode;
    } cases[] = {{0, E_INVALIDARG}, {1, E_FAIL}};
    for (const Case& c : cases) {
        EXCEPINFO e{};
        VARIANT r;
        EXPECT_EQ(Call(0, DISPATCH_PROPERTYGET, {MakeI4(c.index)}, &r, nullptr, &e), DISP_E_EXCEPTION);
        EXPECT_EQ(e.scode, c.scode) << c.index;
        SysFreeString(e.bstrDescription);
        SysFreeString(e.bstrSource);
    }
}

TEST_F(DispatchTest, CollectionsEnumerateASnapshot) {
    VARIANT r;
    for (const char* n : {"a", "b", "c"}) {
        ASSERT_EQ(Call(24, DISPATCH_METHOD, {MakeBstr(n)}, &r), S_OK);
        VariantClear(&r);
    }
    ASSERT_EQ(Call(DISPID_NEWENUM, DISPATCH_PROPERTYGET, {}, &r), S_OK);
    ASSERT_EQ(r.vt, VT_UNKNOWN);
    IEnumVARIANT* e = nullptr;
    ASSERT_EQ(r.punkVal->QueryInterface(IID_IEnumVARIANT, reinterpret_cast<void**>(&e)), S_OK);
    VariantClear(&r);
    VARIANT items[4];
    uint32_t got = 0;
    EXPECT_EQ(e->Next(2, items, &got), S_OK);
    EXPECT_EQ(got, 2u);
    IEnumVARIANT* clone = nullptr;
    ASSERT_EQ(e->Clone(&clone), S_OK);
    EXPECT_EQ(e->Next(2, items + 2, &got), S_FALSE);
    EXPECT_EQ(got, 1u);
    EXPECT_EQ(clone->Skip(5), S_FALSE);
    EXPECT_EQ(clone->Reset(), S_OK);
    EXPECT_EQ(clone->Skip(3), S_OK);
    VARIANT name;
    VariantInit(&name);
    ASSERT_EQ(VariantChangeType(&name, &items[2], 0, VT_BSTR), S_OK);  // the item's default member
    EXPECT_EQ(std::u16string(name.bstrVal), u"c");
    VariantClear(&name);
    for (int i = 0; i < 3; ++i) VariantClear(&items[i]);
    e->Release();
    clone->Release();
}

TEST_F(DispatchTest, InterfaceIdentityAndTypeInformation) {
    IUnknown *a = nullptr, *b = nullptr;
    IConnectionPointContainer* cpc = nullptr;
    ASSERT_EQ(obj_->QueryInterface(IID_IConnectionPointContainer, reinterpret_cast<void**>(&cpc)), S_OK);
    ASSERT_EQ(obj_->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&a)), S_OK);
    ASSERT_EQ(cpc->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&b)), S_OK);
    EXPECT_EQ(a, b);
    void* none = reinterpret_cast<void*>(1);
    EXPECT_EQ(obj_->QueryInterface(IID_IClassFactory, &none), E_NOINTERFACE);
    EXPECT_EQ(none, nullptr);
    a->Release();
    b->Release();
    cpc->Release();

    uint32_t n = 0;
    ASSERT_EQ(obj_->GetTypeInfoCount(&n), S_OK);
    EXPECT_EQ(n, 1u);
    ITypeInfo* ti = nullptr;
    EXPECT_EQ(obj_->GetTypeInfo(1, 0, &ti), DISP_E_BADINDEX);
    ASSERT_EQ(obj_->GetTypeInfo(0, 0, &ti), S_OK);
    const InterfaceInfo* info = ti->GetInterfaceInfo();
    EXPECT_STREQ(info->name(), "ITestObject");
    const MemberInfo* join = info->Find(21);
    ASSERT_NE(join, nullptr);
    EXPECT_EQ(join->Kinds(), DISPATCH_METHOD);
    EXPECT_EQ(join->RequiredCount(), 1u);
    EXPECT_STREQ(join->params[2].name, "Sep");
    EXPECT_EQ(info->Find(2)->Kinds(), DISPATCH_PROPERTYGET | DISPATCH_PROPERTYPUT);
    EXPECT_EQ(info->Find(12)->Kinds(), DISPATCH_PROPERTYGET | DISPATCH_PROPERTYPUTREF);
    ti->Release();
}

// Tables whose bindings disagree with what they declare are refused at registration.
namespace {

class CBad : public ObjectBase {
public:
    HRESULT get_Long(int32_t* out) { return *out = 1, S_OK; }
    HRESULT Two(int32_t, BSTR, int32_t* out) { return *out = 2, S_OK; }
    HRESULT NoResult(int32_t) { return S_OK; }
};

constexpr IID kBadIID = {0x11111111, 0, 0, {0, 0, 0, 0, 0, 0, 0, 1}};

}  // namespace

TEST(MemberTable, MismatchedTablesAreRefused) {
    struct Case {
        const char* what;
        InterfaceInfo* iface;
        const char* complaint;
    };
    InterfaceInfo wrong_type("IBad", kBadIID, {Property(1, "Long", VT_BSTR, Bind<&CBad::get_Long>())});
    InterfaceInfo wrong_count("IBad", kBadIID, {Method(1, "Two", VT_I4, Bind<&CBad::Two>(), {Arg("A", VT_I4)})});
    InterfaceInfo wrong_param("IBad", kBadIID,
                              {Method(1, "Two", VT_I4, Bind<&CBad::Two>(), {Arg("A", VT_I4), Arg("B", VT_I4)})});
    InterfaceInfo wrong_result("IBad", kBadIID, {Method(1, "NoResult", VT_I4, Bind<&CBad::NoResult>(), {Arg("A", VT_I4)})});
    InterfaceInfo same_id("IBad", kBadIID, {Property(1, "A", VT_I4, Bind<&CBad::get_Long>()),
                                            Property(1, "B", VT_I4, Bind<&CBad::get_Long>())});
    InterfaceInfo same_name("IBad", kBadIID, {Property(1, "Long", VT_I4, Bind<&CBad::get_Long>()),
                                              Property(2, "LONG", VT_I4, Bind<&CBad::get_Long>())});
    InterfaceInfo order("IBad", kBadIID,
                        {Method(1, "Two", VT_I4, Bind<&CBad::Two>(), {Opt("A", VT_I4, 1), Arg("B", VT_BSTR)})});
    InterfaceInfo bad_default("IBad", kBadIID,
                              {Method(1, "Two", VT_I4, Bind<&CBad::Two>(), {Arg("A", VT_I4), Opt("B", VT_BSTR, "x")}),
                               Method(2, "NoResult", VT_EMPTY, Bind<&CBad::NoResult>(), {Opt("A", VT_I4, "many")})});
    Case cases[] = {
        {"property type", &wrong_type, "result has the wrong C++ type"},
        {"parameter count", &wrong_count, "function takes 2 arguments, table says 1"},
        {"parameter type", &wrong_param, "parameter B has the wrong C++ type"},
        {"result presence", &wrong_result, "result does not match"},
        {"duplicate id", &same_id, "DISPID 1 twice"},
        {"duplicate name", &same_name, "a name is used twice"},
        {"optional order", &order, "required parameter after an optional one"},
        {"default type", &bad_default, "default of A does not fit"},
    };
    for (const Case& c : cases) {
        std::string err = c.iface->Validate();
        EXPECT_NE(err.find(c.complaint), std::string::npos) << c.what << ": " << err;
        ClassInfo cls{"CBad", "Korvane.Bad", "Bad", {0x22222222, 0, 0, {}}, c.iface, nullptr, false, nullptr};
        std::string why;
        EXPECT_EQ(Catalogue::Instance().Register(cls, &why), E_INVALIDARG) << c.what;
        EXPECT_EQ(Catalogue::Instance().FindProgID("Korvane.Bad"), nullptr);
    }
}
