// The C interface as a C host uses it: create, look up, invoke, events,
// byte arrays, type information, the catalogue behind it.
#include "korvane.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "automation/catalogue.h"
#include "automation/hresult.h"
#include "automation/pump.h"

namespace {

class CApiTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(kv_register_test_class(), 0);
        live_ = kv_live_objects();
        ASSERT_EQ(kv_create("korvane.testobject.1", &o_), 0) << kv_last_error();
    }
    void TearDown() override {
        kv_release(o_);
        EXPECT_EQ(kv_live_objects(), live_);
    }
    int32_t Id(const char* name) {
        int32_t id = -99;
        EXPECT_EQ(kv_get_id(o_, name, &id), 0) << kv_last_error();
        return id;
    }
    kv_variant Str(const char* s) {
        kv_variant v;
        kv_variant_init(&v);
        v.vt = 8;
        v.bstrVal = kv_bstr_from_utf8(s);
        return v;
    }
    kv_variant I4(int32_t x) {
        kv_variant v;
        kv_variant_init(&v);
        v.vt = 3;
        v.lVal = x;
        return v;
    }
    kv_object* o_ = nullptr;
    long live_ = 0;
};

}  // namespace

TEST_F(CApiTest, CreateFailsCleanlyForUnknownNames) {
    kv_object* x = reinterpret_cast<kv_object*>(1);
    EXPECT_EQ(kv_create("Korvane.NoSuchThing", &x), CO_E_CLASSSTRING);
    EXPECT_EQ(x, nullptr);
    EXPECT_NE(std::string(kv_last_error()).find("Korvane.NoSuchThing"), std::string::npos);
    EXPECT_EQ(kv_create("Korvane.TestObject.2", &x), CO_E_CLASSSTRING);
    EXPECT_EQ(kv_create(nullptr, &x), E_POINTER);
}

TEST_F(CApiTest, InvokeTakesArgumentsInCallOrder) {
    kv_variant args[3] = {Str("a"), Str("b"), Str("/")};
    kv_variant r;
    ASSERT_EQ(kv_invoke(o_, Id("join"), KV_METHOD, args, 3, &r), 0) << kv_last_error();
    EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(r.bstrVal)), u"a/b");
    kv_variant_clear(&r);
    // Put: the value is the last argument.
    kv_variant five = Str("5");
    ASSERT_EQ(kv_invoke(o_, Id("Long"), KV_PUT, &five, 1, nullptr), 0);
    ASSERT_EQ(kv_invoke(o_, Id("Long"), KV_GET, nullptr, 0, &r), 0);
    EXPECT_EQ(r.vt, 3);
    EXPECT_EQ(r.lVal, 5);
    // An optional argument passed as missing takes its default.
    kv_variant two[2] = {I4(1), kv_variant_missing()};
    ASSERT_EQ(kv_invoke(o_, Id("Add"), KV_METHOD, two, 2, &r), 0);
    EXPECT_EQ(r.lVal, 11);
    for (kv_variant& v : args) kv_variant_clear(&v);
    kv_variant_clear(&five);
}

TEST_F(CApiTest, FailuresExplainThemselves) {
    struct Case {
        const char* member;
        int kind;
        std::vector<kv_variant> args;
        int status;
        const char* message;
    };
    std::vector<Case> cases;
    cases.push_back({"Add", KV_METHOD, {I4(1), I4(2), I4(3)}, DISP_E_BADPARAMCOUNT,
                     "wrong number of arguments for 'Add' of Korvane.TestObject: 3 given, 1 to 2 expected"});
    cases.push_back({"Add", KV_METHOD, {I4(1), Str("x")}, DISP_E_TYPEMISMATCH,
                     "argument 2 (B) of 'Add' has a type that cannot be converted"});
    cases.push_back({"Add", KV_METHOD, {kv_variant_missing()}, DISP_E_PARAMNOTOPTIONAL,
                     "argument 1 (A) of 'Add' is not optional"});
    cases.push_back({"Byte", KV_PUT, {I4(300)}, DISP_E_OVERFLOW, "the value of 'Byte' is out of range for its type"});
    cases.push_back({"Count", KV_PUT, {I4(1)}, DISP_E_MEMBERNOTFOUND,
                     "'Count' of Korvane.TestObject cannot be called as a property put"});
    cases.push_back({"Fail", KV_METHOD, {Str("no luck")}, DISP_E_EXCEPTION,
                     "Korvane.TestObject.Fail failed (0x80004005): no luck"});
    for (Case& c : cases) {
        int status = kv_invoke(o_, Id(c.member), c.kind, c.args.data(), int(c.args.size()), nullptr);
        EXPECT_EQ(status, c.status) << c.member;
        EXPECT_EQ(std::string(kv_last_error()), c.message);
        for (kv_variant& v : c.args) kv_variant_clear(&v);
    }
    EXPECT_EQ(kv_last_scode(), E_FAIL);
    int32_t id;
    EXPECT_EQ(kv_get_id(o_, "Nope", &id), DISP_E_UNKNOWNNAME);
    EXPECT_EQ(std::string(kv_last_error()), "Korvane.TestObject has no member named 'Nope'");
}

TEST_F(CApiTest, ByteArraysCrossBothWays) {
    const char raw[] = "\x00\x01\xFFpayload";
    kv_variant v;
    ASSERT_EQ(kv_bytes_to_variant(raw, sizeof raw - 1, &v), 0);
    ASSERT_EQ(kv_invoke(o_, Id("Data"), KV_PUT, &v, 1, nullptr), 0) << kv_last_error();
    kv_variant_clear(&v);
    kv_variant r;
    ASSERT_EQ(kv_invoke(o_, Id("Data"), KV_GET, nullptr, 0, &r), 0);
    EXPECT_EQ(r.vt, 0x2011);
    const uint8_t* data;
    size_t len;
    ASSERT_EQ(kv_variant_bytes(&r, &data, &len), 0);
    ASSERT_EQ(len, sizeof raw - 1);
    EXPECT_EQ(std::memcmp(data, raw, len), 0);
    // By reference too.
    kv_variant ref;
    kv_variant_init(&ref);
    ref.vt = 0x4000 | 0x2011;
    ref.byref = &r.parray;
    ASSERT_EQ(kv_variant_bytes(&ref, &data, &len), 0);
    EXPECT_EQ(len, sizeof raw - 1);
    kv_variant_clear(&r);
    kv_variant s = Str("x");
    EXPECT_EQ(kv_variant_bytes(&s, &data, &len), DISP_E_TYPEMISMATCH);
    kv_variant_clear(&s);
}

TEST_F(CApiTest, VariantArraysKeepTheirLowerBound) {
    kv_variant args[2] = {I4(3), I4(5)};
    kv_variant r;
    ASSERT_EQ(kv_invoke(o_, Id("Range"), KV_METHOD, args, 2, &r), 0);
    int32_t lower, count;
    ASSERT_EQ(kv_variant_array_bounds(&r, &lower, &count), 0);
    EXPECT_EQ(lower, 5);
    EXPECT_EQ(count, 3);
    kv_variant e;
    ASSERT_EQ(kv_variant_array_get(&r, 7, &e), 0);
    EXPECT_EQ(e.lVal, 7);
    EXPECT_EQ(kv_variant_array_get(&r, 4, &e), DISP_E_BADINDEX);
    kv_variant_clear(&r);
    kv_variant items[3] = {I4(1), Str("2.5"), I4(3)};
    kv_variant arr;
    ASSERT_EQ(kv_array_to_variant(items, 3, &arr), 0);
    ASSERT_EQ(kv_invoke(o_, Id("Sum"), KV_METHOD, &arr, 1, &r), 0) << kv_last_error();
    EXPECT_EQ(r.dblVal, 6.5);
    kv_variant_clear(&arr);
    kv_variant_clear(&items[1]);
}

TEST_F(CApiTest, TypeInformationListsMembersAndParameters) {
    const char* name = nullptr;
    ASSERT_EQ(kv_type_name(o_, 0, &name), 0);
    EXPECT_STREQ(name, "ITestObject");
    ASSERT_EQ(kv_type_name(o_, 1, &name), 0);
    EXPECT_STREQ(name, "_ITestObjectEvents");
    int count = 0;
    ASSERT_EQ(kv_member_count(o_, 0, &count), 0);
    bool found = false;
    for (int i = 0; i < count; ++i) {
        kv_member_info m;
        ASSERT_EQ(kv_member_at(o_, 0, i, &m), 0);
        if (std::strcmp(m.name, "Join") != 0) continue;
        found = true;
        EXPECT_EQ(m.dispid, 21);
        EXPECT_EQ(m.kinds, KV_METHOD);
        EXPECT_EQ(m.nparams, 3);
        EXPECT_EQ(m.noptional, 2);
        kv_param_info p;
        kv_variant def;
        ASSERT_EQ(kv_param_at(o_, 0, i, 2, &p, &def), 0);
        EXPECT_STREQ(p.name, "Sep");
        EXPECT_EQ(def.vt, 8);
        EXPECT_EQ(kv_bstr_len(def.bstrVal), 1u);
        kv_variant_clear(&def);
        EXPECT_EQ(kv_param_at(o_, 0, i, 3, &p, nullptr), DISP_E_BADINDEX);
    }
    EXPECT_TRUE(found);
    kv_member_info m;
    EXPECT_EQ(kv_member_at(o_, 0, count, &m), DISP_E_BADINDEX);
    kv_object* item = nullptr;
    ASSERT_EQ(kv_create("Korvane.TestItem", &item), 0);
    EXPECT_EQ(kv_type_name(item, 1, &name), E_NOINTERFACE);
    uint32_t cookie;
    EXPECT_EQ(kv_advise(item, [](void*, int32_t, kv_variant*, int) { return 0; }, nullptr, &cookie),
              CONNECT_E_NOCONNECTION);
    kv_release(item);
}

namespace {
struct Heard {
    std::vector<int32_t> ids;
    int veto_at = -1;
};
int Record(void* ctx, int32_t dispid, kv_variant* args, int nargs) {
    auto* h = static_cast<Heard*>(ctx);
    h->ids.push_back(dispid);
    // OnTick(Index, Proceed) arrives as [Proceed, Index].
    if (dispid == 1 && nargs == 2 && args[1].lVal == h->veto_at) *args[0].pboolVal = 0;
    return 0;
}
}  // namespace

TEST_F(CApiTest, CallbackSinksHearEventsAndCancel) {
    Heard h;
    h.veto_at = 2;
    uint32_t cookie = 0;
    ASSERT_EQ(kv_advise(o_, Record, &h, &cookie), 0);
    EXPECT_EQ(kv_live_objects(), live_ + 2);  // the object and the sink
    kv_variant n = I4(5), r;
    ASSERT_EQ(kv_invoke(o_, Id("Fire"), KV_METHOD, &n, 1, &r), 0);
    EXPECT_EQ(r.boolVal, 0);
    EXPECT_EQ(h.ids, (std::vector<int32_t>{1, 1, 2}));
    ASSERT_EQ(kv_unadvise(o_, cookie), 0);
    EXPECT_EQ(kv_unadvise(o_, cookie), CONNECT_E_NOCONNECTION);
    EXPECT_EQ(kv_live_objects(), live_ + 1);
    ASSERT_EQ(kv_invoke(o_, Id("Fire"), KV_METHOD, &n, 1, &r), 0);
    EXPECT_EQ(r.boolVal, -1);
    EXPECT_EQ(h.ids.size(), 3u);
}

TEST_F(CApiTest, ObjectsKeepIdentityAcrossTheBoundary) {
    kv_variant name = Str("it"), item;
    ASSERT_EQ(kv_invoke(o_, Id("AddItem"), KV_METHOD, &name, 1, &item), 0);
    kv_variant_clear(&name);
    kv_variant idx = I4(1), again;
    ASSERT_EQ(kv_invoke(o_, Id("Item"), KV_GET, &idx, 1, &again), 0);
    EXPECT_TRUE(kv_same_object(item.pdispVal, again.pdispVal));
    EXPECT_FALSE(kv_same_object(item.pdispVal, o_));
    kv_variant_clear(&item);
    kv_variant_clear(&again);
}

TEST(CApi, PumpHookRunsWhenTheSocketLayerAsks) {
    int runs = 0;
    kv_set_pump([](void* ctx) { ++*static_cast<int*>(ctx); }, &runs);
    kv::automation::RunPump();
    kv::automation::RunPump();
    kv_set_pump(nullptr, nullptr);
    kv::automation::RunPump();
    EXPECT_EQ(runs, 2);
}

namespace {
HRESULT ResolveTestClass(const char* store, const char* progid, CLSID* clsid, std::string* library) {
    if (std::string(store ? store : "") != "test-store") return REGDB_E_CLASSNOTREG;
    const kv::automation::ClassInfo* c = kv::automation::Catalogue::Instance().FindProgID(progid);
    if (!c) return REGDB_E_CLASSNOTREG;
    *clsid = c->clsid;
    library->clear();
    return S_OK;
}
}  // namespace

TEST(CApi, CreationThroughTheKeyStoreUsesTheResolver) {
    ASSERT_EQ(kv_register_test_class(), 0);
    kv_object* o = nullptr;
    kv::automation::SetRegisteredResolver(nullptr);
    EXPECT_EQ(kv_create_registered("test-store", "Korvane.TestObject", &o), REGDB_E_CLASSNOTREG);
    kv::automation::SetRegisteredResolver(ResolveTestClass);
    EXPECT_EQ(kv_create_registered("other", "Korvane.TestObject", &o), REGDB_E_CLASSNOTREG);
    ASSERT_EQ(kv_create_registered("test-store", "Korvane.TestObject", &o), 0) << kv_last_error();
    const char* name;
    kv_type_name(o, 0, &name);
    EXPECT_STREQ(name, "ITestObject");
    kv_release(o);
    kv::automation::SetRegisteredResolver(nullptr);
}

TEST(CApi, CatalogueFactoriesAndLocks) {
    using namespace kv::automation;
    ASSERT_EQ(kv_register_test_class(), 0);
    const ClassInfo* cls = Catalogue::Instance().FindProgID("KORVANE.TESTITEM");
    ASSERT_NE(cls, nullptr);
    EXPECT_EQ(Catalogue::Instance().FindClsid(cls->clsid), cls);
    // Registering another class under a taken name is refused.
    ClassInfo clash = *cls;
    clash.clsid.Data1 ^= 1;
    std::string why;
    EXPECT_EQ(Catalogue::Instance().Register(clash, &why), E_INVALIDARG);
    EXPECT_NE(why.find("ProgID taken"), std::string::npos);
    IClassFactory* f = nullptr;
    ASSERT_EQ(Catalogue::Instance().GetClassObject(cls->clsid, IID_IClassFactory, reinterpret_cast<void**>(&f)), S_OK);
    IDispatch* obj = nullptr;
    // Any outer object asks for aggregation, which these classes refuse.
    EXPECT_EQ(f->CreateInstance(f, IID_IDispatch, reinterpret_cast<void**>(&obj)),
              CLASS_E_NOAGGREGATION);
    EXPECT_EQ(f->CreateInstance(nullptr, IID_IConnectionPointContainer, reinterpret_cast<void**>(&obj)), E_NOINTERFACE);
    long locks = ServerLocks();
    f->LockServer(1);
    EXPECT_EQ(ServerLocks(), locks + 1);
    f->LockServer(0);
    EXPECT_EQ(ServerLocks(), locks);
    f->Release();
    GUID unknown{1, 2, 3, {4}};
    EXPECT_EQ(Catalogue::Instance().GetClassObject(unknown, IID_IClassFactory, reinterpret_cast<void**>(&f)),
              CLASS_E_CLASSNOTAVAILABLE);
}

TEST(Guid, TextFormRoundTrips) {
    using namespace kv::automation;
    struct Case {
        const char* text;
        bool ok;
    } cases[] = {
        {"{00020400-0000-0000-C000-000000000046}", true},
        {"00020400-0000-0000-c000-000000000046", true},
        {"{00020400-0000-0000-C000-00000000004}", false},
        {"{00020400-0000-0000-C000-00000000004G}", false},
        {"(00020400-0000-0000-C000-000000000046)", false},
    };
    for (const Case& c : cases) {
        GUID g = GUID_NULL;
        EXPECT_EQ(GuidFromString(c.text, &g), c.ok) << c.text;
        if (c.ok) {
            EXPECT_EQ(g, IID_IDispatch) << c.text;
            EXPECT_EQ(GuidToString(g), "{00020400-0000-0000-C000-000000000046}");
        }
    }
}
