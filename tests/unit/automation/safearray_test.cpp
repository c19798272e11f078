#include "automation/safearray.h"

#include <gtest/gtest.h>

#include "automation/object.h"
#include "automation/test_object.h"

using namespace kv::automation;

TEST(SafeArray, VectorBoundsFollowTheLowerBound) {
    struct Case {
        VARTYPE vt;
        int32_t lower;
        uint32_t count;
        uint32_t elem;
    } cases[] = {{VT_UI1, 0, 5, 1}, {VT_UI1, 1, 3, 1}, {VT_VARIANT, -2, 4, 24},
                 {VT_BSTR, 10, 1, 8}, {VT_I4, 0, 0, 4}, {VT_R8, 5, 2, 8}};
    for (const Case& c : cases) {
        SAFEARRAY* psa = SafeArrayCreateVector(c.vt, c.lower, c.count);
        ASSERT_NE(psa, nullptr);
        int32_t lo = 99, hi = 99;
        EXPECT_EQ(SafeArrayGetLBound(psa, 1, &lo), S_OK);
        EXPECT_EQ(SafeArrayGetUBound(psa, 1, &hi), S_OK);
        EXPECT_EQ(lo, c.lower);
        EXPECT_EQ(hi, c.lower + int32_t(c.count) - 1);
        EXPECT_EQ(SafeArrayGetDim(psa), 1u);
        EXPECT_EQ(SafeArrayGetElemsize(psa), c.elem);
        VARTYPE vt = 0;
        EXPECT_EQ(SafeArrayGetVartype(psa, &vt), S_OK);
        EXPECT_EQ(vt, c.vt);
        EXPECT_EQ(SafeArrayGetLBound(psa, 2, &lo), DISP_E_BADINDEX);
        EXPECT_EQ(SafeArrayGetUBound(psa, 0, &hi), DISP_E_BADINDEX);
        EXPECT_EQ(SafeArrayDestroy(psa), S_OK);
    }
}

TEST(SafeArray, OnlyOneDimensionAndKnownTypesAreMade) {
    SAFEARRAYBOUND two[2] = {{2, 0}, {2, 0}};
    EXPECT_EQ(SafeArrayCreate(VT_UI1, 2, two), nullptr);
    EXPECT_EQ(SafeArrayCreateVector(VT_RECORD, 0, 1), nullptr);
    EXPECT_EQ(SafeArrayCreateVector(VT_EMPTY, 0, 1), nullptr);
}

TEST(SafeArray, ElementIndexesHonourTheLowerBound) {
    SAFEARRAY* psa = SafeArrayCreateVector(VT_I4, 1, 3);
    struct Case {
        int32_t index;
        HRESULT hr;
    } cases[] = {{0, DISP_E_BADINDEX}, {1, S_OK}, {3, S_OK}, {4, DISP_E_BADINDEX}, {-1, DISP_E_BADINDEX}};
    for (const Case& c : cases) {
        int32_t v = c.index * 10;
        EXPECT_EQ(SafeArrayPutElement(psa, &c.index, &v), c.hr) << c.index;
        int32_t got = -1;
        EXPECT_EQ(SafeArrayGetElement(psa, &c.index, &got), c.hr) << c.index;
        if (c.hr == S_OK) {
            EXPECT_EQ(got, v);
        }
    }
    SafeArrayDestroy(psa);
}

TEST(SafeArray, StringsAreCopiedInAndOut) {
    SAFEARRAY* psa = SafeArrayCreateVector(VT_BSTR, 0, 2);
    BSTR s = SysAllocString(u"abc");
    int32_t i = 0;
    ASSERT_EQ(SafeArrayPutElement(psa, &i, s), S_OK);  // the string itself, not its address
    SysFreeString(s);
    BSTR out = nullptr;
    ASSERT_EQ(SafeArrayGetElement(psa, &i, &out), S_OK);
    EXPECT_EQ(std::u16string(out, SysStringLen(out)), u"abc");
    SysFreeString(out);
    // A null element stays null on the way out.
    i = 1;
    out = reinterpret_cast<BSTR>(1);
    ASSERT_EQ(SafeArrayGetElement(psa, &i, &out), S_OK);
    EXPECT_EQ(out, nullptr);
    SafeArrayDestroy(psa);  // frees the stored copy; ASan reports a leak otherwise
}

TEST(SafeArray, ReferencesAreCountedByTheArray) {
    ASSERT_EQ(RegisterTestClasses(), S_OK);
    IDispatch* obj = nullptr;
    ASSERT_EQ(Catalogue::Instance().CreateObject("Korvane.TestItem", &obj), S_OK);
    long live = LiveObjects();
    SAFEARRAY* psa = SafeArrayCreateVector(VT_DISPATCH, 0, 1);
    int32_t i = 0;
    ASSERT_EQ(SafeArrayPutElement(psa, &i, obj), S_OK);
    obj->Release();  // the array's reference keeps it
    EXPECT_EQ(LiveObjects(), live);
    SAFEARRAY* copy = nullptr;
    ASSERT_EQ(SafeArrayCopy(psa, &copy), S_OK);
    SafeArrayDestroy(psa);
    EXPECT_EQ(LiveObjects(), live);  // the copy holds one too
    IDispatch* got = nullptr;
    ASSERT_EQ(SafeArrayGetElement(copy, &i, &got), S_OK);
    EXPECT_EQ(got, obj);
    got->Release();
    SafeArrayDestroy(copy);
    EXPECT_EQ(LiveObjects(), live - 1);
}

TEST(SafeArray, LockedArraysRefuseDestructionAndWrites) {
    SAFEARRAY* psa = SafeArrayCreateVector(VT_UI1, 0, 4);
    void* data = nullptr;
    ASSERT_EQ(SafeArrayAccessData(psa, &data), S_OK);
    static_cast<uint8_t*>(data)[2] = 7;
    EXPECT_EQ(SafeArrayDestroy(psa), DISP_E_ARRAYISLOCKED);
    int32_t i = 2;
    uint8_t b = 9;
    EXPECT_EQ(SafeArrayPutElement(psa, &i, &b), DISP_E_ARRAYISLOCKED);
    VARIANT v;
    VariantInit(&v);
    v.vt = VT_ARRAY | VT_UI1;
    v.parray = psa;
    EXPECT_EQ(VariantClear(&v), DISP_E_ARRAYISLOCKED);
    EXPECT_EQ(v.vt, VT_ARRAY | VT_UI1);  // untouched on failure
    EXPECT_EQ(SafeArrayUnaccessData(psa), S_OK);
    EXPECT_EQ(SafeArrayUnlock(psa), E_UNEXPECTED);
    EXPECT_EQ(SafeArrayGetElement(psa, &i, &b), S_OK);
    EXPECT_EQ(b, 7);
    EXPECT_EQ(VariantClear(&v), S_OK);
}

TEST(SafeArray, VariantElementsAreDeepCopies) {
    SAFEARRAY* psa = SafeArrayCreateVector(VT_VARIANT, 1, 2);
    VARIANT s = MakeBstr("one");
    int32_t i = 1;
    ASSERT_EQ(SafeArrayPutElement(psa, &i, &s), S_OK);
    VariantClear(&s);
    SAFEARRAY* copy = nullptr;
    ASSERT_EQ(SafeArrayCopy(psa, &copy), S_OK);
    SafeArrayDestroy(psa);
    VARIANT out;
    ASSERT_EQ(SafeArrayGetElement(copy, &i, &out), S_OK);
    EXPECT_EQ(out.vt, VT_BSTR);
    EXPECT_EQ(std::u16string(out.bstrVal), u"one");
    VariantClear(&out);
    int32_t lo = 0;
    SafeArrayGetLBound(copy, 1, &lo);
    EXPECT_EQ(lo, 1);
    SafeArrayDestroy(copy);
}
