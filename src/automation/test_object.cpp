#include "automation/test_object.h"

#include <vector>

#include "automation/enum_variant.h"
#include "automation/error.h"
#include "automation/object.h"

namespace kv::automation {

namespace {

constexpr IID IID_ITestObject = {0x3D0C5A10, 0x7B21, 0x4E55, {0x8A, 0x10, 0x52, 0x6B, 0x1D, 0x90, 0x00, 0x01}};
constexpr IID IID_ITestObjectEvents = {0x3D0C5A10, 0x7B21, 0x4E55, {0x8A, 0x10, 0x52, 0x6B, 0x1D, 0x90, 0x00, 0x02}};
constexpr IID IID_ITestItem = {0x3D0C5A10, 0x7B21, 0x4E55, {0x8A, 0x10, 0x52, 0x6B, 0x1D, 0x90, 0x00, 0x03}};

class CTestItem : public ObjectBase {
public:
    CTestItem() : ObjectBase(kTestItemClass) {}
    static HRESULT Create(IDispatch** out) {
        *out = new CTestItem();
        return S_OK;
    }
    HRESULT get_Name(BSTR* out) {
        *out = name_.Copy();
        return S_OK;
    }
    HRESULT put_Name(BSTR v) {
        name_ = Bstr(v, SysStringLen(v));
        return S_OK;
    }

private:
    Bstr name_ = Bstr(u"");
};

class CTestObject : public ObjectBase {
public:
    CTestObject() : ObjectBase(kTestObjectClass) {
        VariantInit(&value_);
        VariantInit(&data_);
    }
    ~CTestObject() override {
        VariantClear(&value_);
        VariantClear(&data_);
        for (IDispatch* d : items_) d->Release();
        if (child_) child_->Release();
    }
    static HRESULT Create(IDispatch** out) {
        *out = new CTestObject();
        return S_OK;
    }

    // The collection.
    HRESULT get_Item(int32_t index, VARIANT* out) {
        if (index < 1) return ReportError(E_INVALIDARG, "Index counts from 1");
        if (size_t(index) > items_.size()) return ReportError(E_FAIL, "Index past the end");
        out->vt = VT_DISPATCH;
        out->pdispVal = items_[size_t(index) - 1];
        out->pdispVal->AddRef();
        return S_OK;
    }
    HRESULT get_Count(int32_t* out) {
        *out = int32_t(items_.size());
        return S_OK;
    }
    HRESULT get__NewEnum(IUnknown** out) {
        std::vector<VARIANT> v(items_.size());
        for (size_t i = 0; i < items_.size(); ++i) {
            VariantInit(&v[i]);
            v[i].vt = VT_DISPATCH;
            v[i].pdispVal = items_[i];  // borrowed; the enumerator copies
        }
        *out = NewVariantEnumerator(v.data(), v.size());
        return *out ? S_OK : E_OUTOFMEMORY;
    }

    // One property per type.
    HRESULT get_Text(BSTR* out) { return *out = text_.Copy(), S_OK; }
    HRESULT put_Text(BSTR v) { return text_ = Bstr(v, SysStringLen(v)), S_OK; }
    HRESULT get_Long(int32_t* out) { return *out = long_, S_OK; }
    HRESULT put_Long(int32_t v) { return long_ = v, S_OK; }
    HRESULT get_Short(int16_t* out) { return *out = short_, S_OK; }
    HRESULT put_Short(int16_t v) { return short_ = v, S_OK; }
    HRESULT get_Byte(uint8_t* out) { return *out = byte_, S_OK; }
    HRESULT put_Byte(uint8_t v) { return byte_ = v, S_OK; }
    HRESULT get_Double(double* out) { return *out = double_, S_OK; }
    HRESULT put_Double(double v) { return double_ = v, S_OK; }
    HRESULT get_Single(float* out) { return *out = single_, S_OK; }
    HRESULT put_Single(float v) { return single_ = v, S_OK; }
    HRESULT get_Flag(int16_t* out) { return *out = flag_, S_OK; }
    HRESULT put_Flag(int16_t v) { return flag_ = v ? VARIANT_TRUE : VARIANT_FALSE, S_OK; }
    HRESULT get_When(double* out) { return *out = when_, S_OK; }
    HRESULT put_When(double v) { return when_ = v, S_OK; }
    HRESULT get_Money(int64_t* out) { return *out = money_, S_OK; }
    HRESULT put_Money(int64_t v) { return money_ = v, S_OK; }
    HRESULT get_Value(VARIANT* out) { return VariantCopy(out, &value_); }
    HRESULT put_Value(const VARIANT& v) { return VariantCopyInd(&value_, &v); }
    HRESULT get_Child(IDispatch** out) {
        if ((*out = child_)) child_->AddRef();
        return S_OK;
    }
    HRESULT putref_Child(IDispatch* v) {
        if (v) v->AddRef();
        if (child_) child_->Release();
        child_ = v;
        return S_OK;
    }
    HRESULT get_Data(SAFEARRAY** out) {
        if (data_.vt == VT_EMPTY) return *out = SafeArrayCreateVector(VT_UI1, 0, 0), S_OK;
        return SafeArrayCopy(data_.parray, out);
    }
    HRESULT put_Data(SAFEARRAY* v) {
        VARIANT in;
        VariantInit(&in);
        in.vt = VT_ARRAY | VT_UI1;
        in.parray = v;
        return VariantCopy(&data_, &in);
    }
    HRESULT get_LastTicks(int32_t* out) { return *out = last_ticks_, S_OK; }

    // Methods.
    HRESULT Add(int32_t a, int32_t b, int32_t* out) {
        int64_t sum = int64_t(a) + b;
        if (sum != int32_t(sum)) return ReportError(E_INVALIDARG, "Sum out of range");
        *out = int32_t(sum);
        return S_OK;
    }
    HRESULT Join(BSTR a, BSTR b, BSTR sep, BSTR* out) {
        std::u16string s(a, SysStringLen(a));
        if (SysStringLen(b)) s.append(sep, SysStringLen(sep)).append(b, SysStringLen(b));
        *out = SysAllocStringLen(s.data(), uint32_t(s.size()));
        return S_OK;
    }
    HRESULT Echo(const VARIANT& v, VARIANT* out) { return VariantCopyInd(out, &v); }
    HRESULT Describe(const VARIANT& v, BSTR* out) {
        std::string s = IsMissing(v) ? "missing" : "vt " + std::to_string(v.vt);
        *out = Bstr::FromUtf8(s).Detach();
        return S_OK;
    }
    HRESULT AddItem(BSTR name, IDispatch** out) {
        auto* item = new CTestItem();
        item->put_Name(name);
        items_.push_back(item);
        item->AddRef();
        *out = item;
        return S_OK;
    }
    HRESULT Fire(int32_t count, int16_t* out) {
        last_ticks_ = 0;
        bool proceed = true;
        for (int32_t i = 1; i <= count && proceed; ++i) {
            ++last_ticks_;
            proceed = Events()->FireWithProceed(kTestOnTick, {MakeI4(i)});
        }
        Events()->Fire(kTestOnDone, {MakeI4(last_ticks_)});
        *out = proceed ? VARIANT_TRUE : VARIANT_FALSE;
        return S_OK;
    }
    HRESULT Fail(BSTR message) {
        return ReportError(E_FAIL, Bstr(message, SysStringLen(message)).Utf8());
    }
    HRESULT Sum(const VARIANT& values, double* out) {
        VARIANT v;
        VariantInit(&v);
        if (HRESULT hr = VariantCopyInd(&v, &values); FAILED(hr)) return hr;
        if (v.vt != (VT_ARRAY | VT_VARIANT)) {
            VariantClear(&v);
            return ReportError(E_INVALIDARG, "Values must be an array");
        }
        int32_t lo, hi;
        SafeArrayGetLBound(v.parray, 1, &lo);
        SafeArrayGetUBound(v.parray, 1, &hi);
        double sum = 0;
        HRESULT hr = S_OK;
        for (int32_t i = lo; i <= hi && SUCCEEDED(hr); ++i) {
            VARIANT e, d;
            VariantInit(&d);
            SafeArrayGetElement(v.parray, &i, &e);
            hr = VariantChangeType(&d, &e, 0, VT_R8);
            sum += d.dblVal;
            VariantClear(&e);
        }
        VariantClear(&v);
        *out = sum;
        return hr;
    }
    HRESULT Range(int32_t count, int32_t lower, VARIANT* out) {
        if (count < 0) return ReportError(E_INVALIDARG, "Count below 0");
        SAFEARRAY* psa = SafeArrayCreateVector(VT_VARIANT, lower, uint32_t(count));
        for (int32_t i = 0; i < count; ++i) {
            VARIANT e = MakeI4(lower + i);
            int32_t idx = lower + i;
            SafeArrayPutElement(psa, &idx, &e);
        }
        out->vt = VT_ARRAY | VT_VARIANT;
        out->parray = psa;
        return S_OK;
    }
    HRESULT IsSame(IDispatch* other, int16_t* out) {
        IUnknown *a = nullptr, *b = nullptr;
        QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&a));
        if (other) other->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&b));
        *out = a == b ? VARIANT_TRUE : VARIANT_FALSE;
        if (a) a->Release();
        if (b) b->Release();
        return S_OK;
    }
    HRESULT Notify(BSTR text, int16_t* out) {
        VARIANT t, item;
        VariantInit(&t);
        VariantInit(&item);
        t.vt = VT_BSTR;
        t.bstrVal = text;
        item.vt = VT_DISPATCH;
        item.pdispVal = items_.empty() ? nullptr : items_[0];
        *out = Events()->FireWithProceed(kTestOnNote, {t, item}) ? VARIANT_TRUE : VARIANT_FALSE;
        return S_OK;
    }
    HRESULT Toggle(int16_t on, int16_t* out) {
        flag_ = on ? VARIANT_TRUE : VARIANT_FALSE;
        *out = flag_;
        return S_OK;
    }

private:
    Bstr text_ = Bstr(u"");
    int32_t long_ = 0;
    int16_t short_ = 0;
    uint8_t byte_ = 0;
    double double_ = 0;
    float single_ = 0;
    VARIANT_BOOL flag_ = VARIANT_FALSE;
    DATE when_ = 0;
    int64_t money_ = 0;
    VARIANT value_;
    VARIANT data_;
    IDispatch* child_ = nullptr;
    std::vector<IDispatch*> items_;
    int32_t last_ticks_ = 0;
};

const InterfaceInfo kITestObject("ITestObject", IID_ITestObject, {
    Property(0, "Item", VT_VARIANT, Bind<&CTestObject::get_Item>(), {}, {Arg("Index", VT_I4)}),
    Property(1, "Count", VT_I4, Bind<&CTestObject::get_Count>()),
    Property(DISPID_NEWENUM, "_NewEnum", VT_UNKNOWN, Bind<&CTestObject::get__NewEnum>()),
    Property(2, "Text", VT_BSTR, Bind<&CTestObject::get_Text>(), Bind<&CTestObject::put_Text>()),
    Property(3, "Long", VT_I4, Bind<&CTestObject::get_Long>(), Bind<&CTestObject::put_Long>()),
    Property(4, "Short", VT_I2, Bind<&CTestObject::get_Short>(), Bind<&CTestObject::put_Short>()),
    Property(5, "Byte", VT_UI1, Bind<&CTestObject::get_Byte>(), Bind<&CTestObject::put_Byte>()),
    Property(6, "Double", VT_R8, Bind<&CTestObject::get_Double>(), Bind<&CTestObject::put_Double>()),
    Property(7, "Single", VT_R4, Bind<&CTestObject::get_Single>(), Bind<&CTestObject::put_Single>()),
    Property(8, "Flag", VT_BOOL, Bind<&CTestObject::get_Flag>(), Bind<&CTestObject::put_Flag>()),
    Property(9, "When", VT_DATE, Bind<&CTestObject::get_When>(), Bind<&CTestObject::put_When>()),
    Property(10, "Money", VT_CY, Bind<&CTestObject::get_Money>(), Bind<&CTestObject::put_Money>()),
    Property(11, "Value", VT_VARIANT, Bind<&CTestObject::get_Value>(), Bind<&CTestObject::put_Value>()),
    PropertyRef(12, "Child", VT_DISPATCH, Bind<&CTestObject::get_Child>(), Bind<&CTestObject::putref_Child>()),
    Property(13, "Data", VT_ARRAY | VT_UI1, Bind<&CTestObject::get_Data>(), Bind<&CTestObject::put_Data>()),
    Property(14, "LastTicks", VT_I4, Bind<&CTestObject::get_LastTicks>()),
    Method(20, "Add", VT_I4, Bind<&CTestObject::Add>(), {Arg("A", VT_I4), Opt("B", VT_I4, 10)}),
    Method(21, "Join", VT_BSTR, Bind<&CTestObject::Join>(),
           {Arg("A", VT_BSTR), Opt("B", VT_BSTR, ""), Opt("Sep", VT_BSTR, "-")}),
    Method(22, "Echo", VT_VARIANT, Bind<&CTestObject::Echo>(), {Arg("V", VT_VARIANT)}),
    Method(23, "Describe", VT_BSTR, Bind<&CTestObject::Describe>(), {Opt("V", VT_VARIANT)}),
    Method(24, "AddItem", VT_DISPATCH, Bind<&CTestObject::AddItem>(), {Arg("Name", VT_BSTR)}),
    Method(25, "Fire", VT_BOOL, Bind<&CTestObject::Fire>(), {Arg("Count", VT_I4)}),
    Method(26, "Fail", VT_EMPTY, Bind<&CTestObject::Fail>(), {Arg("Message", VT_BSTR)}),
    Method(27, "Sum", VT_R8, Bind<&CTestObject::Sum>(), {Arg("Values", VT_VARIANT)}),
    Method(28, "Range", VT_VARIANT, Bind<&CTestObject::Range>(), {Arg("Count", VT_I4), Opt("Lower", VT_I4, 0)}),
    Method(29, "IsSame", VT_BOOL, Bind<&CTestObject::IsSame>(), {Arg("Other", VT_DISPATCH)}),
    Method(30, "Notify", VT_BOOL, Bind<&CTestObject::Notify>(), {Arg("Text", VT_BSTR)}),
    Method(31, "Toggle", VT_BOOL, Bind<&CTestObject::Toggle>(), {Opt("On", VT_BOOL, true)}),
});

const InterfaceInfo kITestObjectEvents("_ITestObjectEvents", IID_ITestObjectEvents, {
    Event(kTestOnTick, "OnTick", {Arg("Index", VT_I4), Arg("Proceed", VT_BYREF | VT_BOOL)}),
    Event(kTestOnDone, "OnDone", {Arg("Ticks", VT_I4)}),
    Event(kTestOnNote, "OnNote", {Arg("Text", VT_BSTR), Arg("Item", VT_DISPATCH), Arg("Proceed", VT_BYREF | VT_BOOL)}),
});

const InterfaceInfo kITestItem("ITestItem", IID_ITestItem, {
    Property(0, "Value", VT_BSTR, Bind<&CTestItem::get_Name>()),
    Property(1, "Name", VT_BSTR, Bind<&CTestItem::get_Name>(), Bind<&CTestItem::put_Name>()),
});

}  // namespace

const ClassInfo kTestObjectClass = {
    "CTestObject", "Korvane.TestObject", "TestObject Class",
    {0x3D0C5A10, 0x7B21, 0x4E55, {0x8A, 0x10, 0x52, 0x6B, 0x1D, 0x90, 0x01, 0x01}},
    &kITestObject, &kITestObjectEvents, true, &CTestObject::Create};

const ClassInfo kTestItemClass = {
    "CTestItem", "Korvane.TestItem", "TestItem Class",
    {0x3D0C5A10, 0x7B21, 0x4E55, {0x8A, 0x10, 0x52, 0x6B, 0x1D, 0x90, 0x01, 0x02}},
    &kITestItem, nullptr, false, &CTestItem::Create};

HRESULT RegisterTestClasses() {
    if (HRESULT hr = Catalogue::Instance().Register(kTestObjectClass); FAILED(hr)) return hr;
    return Catalogue::Instance().Register(kTestItemClass);
}

}  // namespace kv::automation
