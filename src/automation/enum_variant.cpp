#include "automation/enum_variant.h"

#include <atomic>

#include "automation/object.h"

namespace kv::automation {

namespace {

struct Items {
    std::vector<VARIANT> v;
    ~Items() {
        for (VARIANT& x : v) VariantClear(&x);
    }
};

class VariantEnumerator final : public UnknownImpl<IEnumVARIANT, IID_IEnumVARIANT> {
public:
    explicit VariantEnumerator(std::shared_ptr<Items> items) : items_(std::move(items)) {}
    HRESULT Next(uint32_t celt, VARIANT* rgVar, uint32_t* fetched) override {
        if (!rgVar && celt) return E_POINTER;
        uint32_t n = 0;
        while (n < celt && pos_ < items_->v.size()) {
            VariantInit(&rgVar[n]);
            if (HRESULT hr = VariantCopy(&rgVar[n], &items_->v[pos_]); FAILED(hr)) {
                while (n) VariantClear(&rgVar[--n]);
                return hr;
            }
            ++n, ++pos_;
        }
        if (fetched) *fetched = n;
        return n == celt ? S_OK : S_FALSE;
    }
    HRESULT Skip(uint32_t celt) override {
        size_t left = items_->v.size() - pos_;
        pos_ += celt < left ? celt : left;
        return celt <= left ? S_OK : S_FALSE;
    }
    HRESULT Reset() override {
        pos_ = 0;
        return S_OK;
    }
    HRESULT Clone(IEnumVARIANT** out) override {
        if (!out) return E_POINTER;
        auto* e = new VariantEnumerator(items_);
        e->pos_ = pos_;
        *out = e;
        return S_OK;
    }

private:
    ~VariantEnumerator() = default;
    std::shared_ptr<Items> items_;
    size_t pos_ = 0;
};

}  // namespace

IEnumVARIANT* NewVariantEnumerator(const VARIANT* items, size_t count) {
    auto copy = std::make_shared<Items>();
    copy->v.resize(count);
    for (VARIANT& x : copy->v) VariantInit(&x);
    for (size_t i = 0; i < count; ++i)
        if (FAILED(VariantCopy(&copy->v[i], &items[i]))) return nullptr;
    return new VariantEnumerator(std::move(copy));
}

}  // namespace kv::automation
