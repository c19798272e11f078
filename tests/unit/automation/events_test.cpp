// Connection points: advise, unadvise, firing order, the shared Proceed.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "automation/catalogue.h"
#include "automation/object.h"
#include "automation/test_object.h"

using namespace kv::automation;

namespace {

// A sink that records every call and runs an optional reaction.
class RecordingSink final : public IDispatch {
public:
    struct Call {
        DISPID id;
        std::vector<VARTYPE> types;  // as received: reversed
        int32_t first_i4;
    };
    std::vector<Call> calls;
    std::function<void(DISPPARAMS*)> react;
    uint32_t refs = 1;

    HRESULT QueryInterface(REFIID riid, void** ppv) override {
        if (riid == IID_IUnknown || riid == IID_IDispatch) {
            *ppv = static_cast<IDispatch*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    uint32_t AddRef() override { return ++refs; }
    uint32_t Release() override { return --refs; }  // lives on the test's stack
    HRESULT GetTypeInfoCount(uint32_t*) override { return E_NOTIMPL; }
    HRESULT GetTypeInfo(uint32_t, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT GetIDsOfNames(REFIID, OLECHAR**, uint32_t, LCID, DISPID*) override { return E_NOTIMPL; }
    HRESULT Invoke(DISPID id, REFIID, LCID, uint16_t flags, DISPPARAMS* dp, VARIANT*, EXCEPINFO*, uint32_t*) override {
        EXPECT_EQ(flags, DISPATCH_METHOD);
        Call c{id, {}, 0};
        for (uint32_t i = 0; i < dp->cArgs; ++i) c.types.push_back(dp->rgvarg[i].vt);
        c.first_i4 = dp->cArgs > 1 && dp->rgvarg[dp->cArgs - 1].vt == VT_I4 ? dp->rgvarg[dp->cArgs - 1].lVal : 0;
        calls.push_back(c);
        if (react) react(dp);
        return S_OK;
    }
};

class EventsTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(RegisterTestClasses(), S_OK);
        ASSERT_EQ(Catalogue::Instance().CreateObject("Korvane.TestObject", &obj_), S_OK);
        IConnectionPointContainer* cpc = nullptr;
        ASSERT_EQ(obj_->QueryInterface(IID_IConnectionPointContainer, reinterpret_cast<void**>(&cpc)), S_OK);
        EXPECT_EQ(cpc->FindConnectionPoint(IID_IDispatch, &cp_), CONNECT_E_NOCONNECTION);
        ASSERT_EQ(cpc->FindConnectionPoint(kTestObjectClass.events->iid(), &cp_), S_OK);
        cpc->Release();
    }
    void TearDown() override {
        cp_->Release();
        EXPECT_EQ(obj_->Release(), 0u);
    }
    bool Fire(int32_t count) {
        VARIANT arg = MakeI4(count), r;
        VariantInit(&r);
        DISPPARAMS dp{&arg, nullptr, 1, 0};
        EXPECT_EQ(obj_->Invoke(25, GUID_NULL, 0, DISPATCH_METHOD, &dp, &r, nullptr, nullptr), S_OK);
        return r.boolVal != VARIANT_FALSE;
    }
    IDispatch* obj_ = nullptr;
    IConnectionPoint* cp_ = nullptr;
};

}  // namespace

TEST_F(EventsTest, SinksHearEventsInOrderWithArgumentsReversed) {
    RecordingSink a, b;
    uint32_t ca = 0, cb = 0;
    ASSERT_EQ(cp_->Advise(&a, &ca), S_OK);
    ASSERT_EQ(cp_->Advise(&b, &cb), S_OK);
    EXPECT_NE(ca, cb);
    EXPECT_EQ(a.refs, 2u);  // the point holds a reference
    EXPECT_TRUE(Fire(2));
    ASSERT_EQ(a.calls.size(), 3u);  // OnTick 1, OnTick 2, OnDone
    EXPECT_EQ(a.calls[0].id, kTestOnTick);
    EXPECT_EQ(a.calls[0].types, (std::vector<VARTYPE>{VT_BYREF | VT_BOOL, VT_I4}));  // Proceed first
    EXPECT_EQ(a.calls[1].first_i4, 2);
    EXPECT_EQ(a.calls[2].id, kTestOnDone);
    EXPECT_EQ(a.calls[2].types, (std::vector<VARTYPE>{VT_I4}));
    EXPECT_EQ(b.calls.size(), 3u);
    ASSERT_EQ(cp_->Unadvise(ca), S_OK);
    EXPECT_EQ(a.refs, 1u);
    EXPECT_EQ(cp_->Unadvise(ca), CONNECT_E_NOCONNECTION);
    Fire(1);
    EXPECT_EQ(a.calls.size(), 3u);
    EXPECT_EQ(b.calls.size(), 5u);
    ASSERT_EQ(cp_->Unadvise(cb), S_OK);
}

TEST_F(EventsTest, ProceedIsSharedAndFalseCancels) {
    RecordingSink veto, after;
    std::vector<VARIANT_BOOL> seen_by_after;
    veto.react = [&](DISPPARAMS* dp) {
        if (dp->cArgs == 2 && dp->rgvarg[1].lVal == 2) *dp->rgvarg[0].pboolVal = VARIANT_FALSE;
    };
    after.react = [&](DISPPARAMS* dp) {
        if (dp->cArgs == 2) seen_by_after.push_back(*dp->rgvarg[0].pboolVal);
    };
    uint32_t c1, c2;
    cp_->Advise(&veto, &c1);
    cp_->Advise(&after, &c2);
    EXPECT_FALSE(Fire(5));
    // The second sink still heard tick 2, and saw the first sink's answer.
    EXPECT_EQ(seen_by_after, (std::vector<VARIANT_BOOL>{VARIANT_TRUE, VARIANT_FALSE}));
    VARIANT r;
    VariantInit(&r);
    DISPPARAMS none{nullptr, nullptr, 0, 0};
    obj_->Invoke(14, GUID_NULL, 0, DISPATCH_PROPERTYGET, &none, &r, nullptr, nullptr);
    EXPECT_EQ(r.lVal, 2);  // LastTicks: stopped after the vetoed tick
    cp_->Unadvise(c1);
    cp_->Unadvise(c2);
}

TEST_F(EventsTest, FiringUsesASnapshotOfTheSinks) {
    RecordingSink first, second, late;
    uint32_t c1, c2, c3 = 0;
    // The first sink unadvises the second and advises a third while an event is delivered.
    first.react = [&](DISPPARAMS*) {
        if (c3 == 0) {
            cp_->Unadvise(c2);
            cp_->Advise(&late, &c3);
        }
    };
    cp_->Advise(&first, &c1);
    cp_->Advise(&second, &c2);
    Fire(1);
    // OnTick went to both (the snapshot); OnDone to first and late.
    EXPECT_EQ(second.calls.size(), 1u);
    EXPECT_EQ(late.calls.size(), 1u);
    EXPECT_EQ(late.calls[0].id, kTestOnDone);
    EXPECT_EQ(second.refs, 1u);  // released after the firing ended
    cp_->Unadvise(c1);
    cp_->Unadvise(c3);
}

TEST_F(EventsTest, AdviseNeedsADispatchSinkAndReleasesOnDestruction) {
    struct NotASink final : IUnknown {
        HRESULT QueryInterface(REFIID, void** ppv) override { return *ppv = nullptr, E_NOINTERFACE; }
        uint32_t AddRef() override { return 2; }
        uint32_t Release() override { return 1; }
    } plain;
    uint32_t cookie = 7;
    EXPECT_EQ(cp_->Advise(&plain, &cookie), CONNECT_E_CANNOTCONNECT);
    EXPECT_EQ(cookie, 0u);
    IID iid;
    ASSERT_EQ(cp_->GetConnectionInterface(&iid), S_OK);
    EXPECT_EQ(iid, kTestObjectClass.events->iid());
    // A sink still connected when the source dies is released by it.
    IDispatch* other = nullptr;
    ASSERT_EQ(Catalogue::Instance().CreateObject("Korvane.TestObject", &other), S_OK);
    IConnectionPointContainer* cpc = nullptr;
    other->QueryInterface(IID_IConnectionPointContainer, reinterpret_cast<void**>(&cpc));
    IConnectionPoint* cp = nullptr;
    cpc->FindConnectionPoint(kTestObjectClass.events->iid(), &cp);
    cpc->Release();
    RecordingSink sink;
    cp->Advise(&sink, &cookie);
    cp->Release();
    EXPECT_EQ(sink.refs, 2u);
    EXPECT_EQ(other->Release(), 0u);
    EXPECT_EQ(sink.refs, 1u);
}
