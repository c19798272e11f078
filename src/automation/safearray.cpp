#include "automation/safearray.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "automation/interfaces.h"

namespace {

// The element type sits in the four bytes before the descriptor, where the
// runtime keeps it for SafeArrayGetVartype.
struct Block {
    uint32_t reserved[3];
    uint32_t vt;
    SAFEARRAY sa;
};

Block* BlockOf(SAFEARRAY* psa) {
    return reinterpret_cast<Block*>(reinterpret_cast<char*>(psa) - offsetof(Block, sa));
}

uint16_t FeaturesFor(VARTYPE vt) {
    switch (vt) {
        case VT_BSTR: return FADF_HAVEVARTYPE | FADF_BSTR;
        case VT_VARIANT: return FADF_HAVEVARTYPE | FADF_VARIANT;
        case VT_DISPATCH: return FADF_HAVEVARTYPE | FADF_DISPATCH;
        case VT_UNKNOWN: return FADF_HAVEVARTYPE | FADF_UNKNOWN;
        default: return FADF_HAVEVARTYPE;
    }
}

// Releases what the elements own and zeroes them.
void ClearElements(SAFEARRAY* psa) {
    uint32_t n = psa->rgsabound[0].cElements;
    if (psa->fFeatures & FADF_BSTR) {
        auto* p = static_cast<BSTR*>(psa->pvData);
        for (uint32_t i = 0; i < n; ++i) SysFreeString(p[i]), p[i] = nullptr;
    } else if (psa->fFeatures & (FADF_UNKNOWN | FADF_DISPATCH)) {
        auto* p = static_cast<IUnknown**>(psa->pvData);
        for (uint32_t i = 0; i < n; ++i)
            if (p[i]) p[i]->Release(), p[i] = nullptr;
    } else if (psa->fFeatures & FADF_VARIANT) {
        auto* p = static_cast<VARIANT*>(psa->pvData);
        for (uint32_t i = 0; i < n; ++i) VariantClear(&p[i]);
    }
}

HRESULT Offset(SAFEARRAY* psa, const int32_t* idx, void** slot) {
    if (!psa || !idx) return E_INVALIDARG;
    int64_t off = int64_t(idx[0]) - psa->rgsabound[0].lLbound;
    if (off < 0 || off >= int64_t(psa->rgsabound[0].cElements)) return DISP_E_BADINDEX;
    *slot = static_cast<char*>(psa->pvData) + off * psa->cbElements;
    return S_OK;
}

}  // namespace

extern "C" {

SAFEARRAY* SafeArrayCreate(VARTYPE vt, uint32_t cDims, const SAFEARRAYBOUND* rgsabound) {
    if (cDims != 1 || !rgsabound) return nullptr;
    uint32_t size = kv::automation::ElementSize(vt);
    if (size == 0) return nullptr;
    uint64_t bytes = uint64_t(size) * rgsabound[0].cElements;
    if (bytes > 0x7FFFFFFFu) return nullptr;
    auto* block = static_cast<Block*>(std::calloc(1, sizeof(Block)));
    if (!block) return nullptr;
    void* data = std::calloc(bytes ? size_t(bytes) : 1, 1);
    if (!data) {
        std::free(block);
        return nullptr;
    }
    block->vt = vt;
    SAFEARRAY* psa = &block->sa;
    psa->cDims = 1;
    psa->fFeatures = FeaturesFor(vt);
    psa->cbElements = size;
    psa->pvData = data;
    psa->rgsabound[0] = rgsabound[0];
    return psa;
}

SAFEARRAY* SafeArrayCreateVector(VARTYPE vt, int32_t lLbound, uint32_t cElements) {
    SAFEARRAYBOUND bound{cElements, lLbound};
    return SafeArrayCreate(vt, 1, &bound);
}

HRESULT SafeArrayDestroy(SAFEARRAY* psa) {
    if (!psa) return S_OK;
    if (psa->cLocks) return DISP_E_ARRAYISLOCKED;
    ClearElements(psa);
    std::free(psa->pvData);
    std::free(BlockOf(psa));
    return S_OK;
}

HRESULT SafeArrayCopy(SAFEARRAY* psa, SAFEARRAY** ppsaOut) {
    if (!ppsaOut) return E_INVALIDARG;
    *ppsaOut = nullptr;
    if (!psa) return S_OK;
    VARTYPE vt;
    if (HRESULT hr = SafeArrayGetVartype(psa, &vt); FAILED(hr)) return hr;
    SAFEARRAY* copy = SafeArrayCreate(vt, 1, psa->rgsabound);
    if (!copy) return E_OUTOFMEMORY;
    uint32_t n = psa->rgsabound[0].cElements;
    if (psa->fFeatures & FADF_BSTR) {
        auto* s = static_cast<BSTR*>(psa->pvData);
        auto* d = static_cast<BSTR*>(copy->pvData);
        for (uint32_t i = 0; i < n; ++i) {
            if (!s[i]) continue;
            d[i] = SysAllocStringByteLen(reinterpret_cast<const char*>(s[i]), SysStringByteLen(s[i]));
            if (!d[i]) return SafeArrayDestroy(copy), E_OUTOFMEMORY;
        }
    } else if (psa->fFeatures & FADF_VARIANT) {
        auto* s = static_cast<VARIANT*>(psa->pvData);
        auto* d = static_cast<VARIANT*>(copy->pvData);
        for (uint32_t i = 0; i < n; ++i)
            if (HRESULT hr = VariantCopy(&d[i], &s[i]); FAILED(hr)) return SafeArrayDestroy(copy), hr;
    } else {
        std::memcpy(copy->pvData, psa->pvData, size_t(n) * psa->cbElements);
        if (psa->fFeatures & (FADF_UNKNOWN | FADF_DISPATCH)) {
            auto* d = static_cast<IUnknown**>(copy->pvData);
            for (uint32_t i = 0; i < n; ++i)
                if (d[i]) d[i]->AddRef();
        }
    }
    *ppsaOut = copy;
    return S_OK;
}

uint32_t SafeArrayGetDim(SAFEARRAY* psa) { return psa ? psa->cDims : 0; }
uint32_t SafeArrayGetElemsize(SAFEARRAY* psa) { return psa ? psa->cbElements : 0; }

HRESULT SafeArrayGetVartype(SAFEARRAY* psa, VARTYPE* pvt) {
    if (!psa || !pvt) return E_INVALIDARG;
    if (psa->fFeatures & FADF_HAVEVARTYPE) {
        *pvt = VARTYPE(BlockOf(psa)->vt);
        return S_OK;
    }
    if (psa->fFeatures & FADF_BSTR) return *pvt = VT_BSTR, S_OK;
    if (psa->fFeatures & FADF_VARIANT) return *pvt = VT_VARIANT, S_OK;
    if (psa->fFeatures & FADF_DISPATCH) return *pvt = VT_DISPATCH, S_OK;
    if (psa->fFeatures & FADF_UNKNOWN) return *pvt = VT_UNKNOWN, S_OK;
    return E_INVALIDARG;
}

HRESULT SafeArrayGetLBound(SAFEARRAY* psa, uint32_t nDim, int32_t* plLbound) {
    if (!psa || !plLbound) return E_INVALIDARG;
    if (nDim < 1 || nDim > psa->cDims) return DISP_E_BADINDEX;
    // Windows stores the bounds in reverse order of the dimensions.
    *plLbound = psa->rgsabound[psa->cDims - nDim].lLbound;
    return S_OK;
}

HRESULT SafeArrayGetUBound(SAFEARRAY* psa, uint32_t nDim, int32_t* plUbound) {
    if (!psa || !plUbound) return E_INVALIDARG;
    if (nDim < 1 || nDim > psa->cDims) return DISP_E_BADINDEX;
    const SAFEARRAYBOUND& b = psa->rgsabound[psa->cDims - nDim];
    *plUbound = int32_t(int64_t(b.lLbound) + int64_t(b.cElements) - 1);
    return S_OK;
}

HRESULT SafeArrayLock(SAFEARRAY* psa) {
    if (!psa) return E_INVALIDARG;
    if (psa->cLocks == 0xFFFF) return E_UNEXPECTED;
    ++psa->cLocks;
    return S_OK;
}

HRESULT SafeArrayUnlock(SAFEARRAY* psa) {
    if (!psa) return E_INVALIDARG;
    if (psa->cLocks == 0) return E_UNEXPECTED;
    --psa->cLocks;
    return S_OK;
}

HRESULT SafeArrayAccessData(SAFEARRAY* psa, void** ppvData) {
    if (!psa || !ppvData) return E_INVALIDARG;
    if (HRESULT hr = SafeArrayLock(psa); FAILED(hr)) return hr;
    *ppvData = psa->pvData;
    return S_OK;
}

HRESULT SafeArrayUnaccessData(SAFEARRAY* psa) { return SafeArrayUnlock(psa); }

HRESULT SafeArrayGetElement(SAFEARRAY* psa, const int32_t* rgIndices, void* pv) {
    void* slot;
    if (HRESULT hr = Offset(psa, rgIndices, &slot); FAILED(hr)) return hr;
    if (!pv) return E_INVALIDARG;
    if (psa->fFeatures & FADF_BSTR) {
        BSTR s = *static_cast<BSTR*>(slot);
        BSTR copy = nullptr;
        if (s && !(copy = SysAllocStringByteLen(reinterpret_cast<const char*>(s), SysStringByteLen(s))))
            return E_OUTOFMEMORY;
        *static_cast<BSTR*>(pv) = copy;
    } else if (psa->fFeatures & FADF_VARIANT) {
        auto* out = static_cast<VARIANT*>(pv);
        VariantInit(out);
        return VariantCopy(out, static_cast<VARIANT*>(slot));
    } else {
        std::memcpy(pv, slot, psa->cbElements);
        if (psa->fFeatures & (FADF_UNKNOWN | FADF_DISPATCH)) {
            IUnknown* p = *static_cast<IUnknown**>(pv);
            if (p) p->AddRef();
        }
    }
    return S_OK;
}

HRESULT SafeArrayPutElement(SAFEARRAY* psa, const int32_t* rgIndices, const void* pv) {
    void* slot;
    if (HRESULT hr = Offset(psa, rgIndices, &slot); FAILED(hr)) return hr;
    if (psa->cLocks) return DISP_E_ARRAYISLOCKED;
    if (psa->fFeatures & FADF_BSTR) {
        // The string itself is passed, not its address.
        auto s = static_cast<BSTR>(const_cast<void*>(pv));
        BSTR copy = nullptr;
        if (s && !(copy = SysAllocStringByteLen(reinterpret_cast<const char*>(s), SysStringByteLen(s))))
            return E_OUTOFMEMORY;
        SysFreeString(*static_cast<BSTR*>(slot));
        *static_cast<BSTR*>(slot) = copy;
    } else if (psa->fFeatures & (FADF_UNKNOWN | FADF_DISPATCH)) {
        // Likewise the reference itself.
        auto* p = static_cast<IUnknown*>(const_cast<void*>(pv));
        if (p) p->AddRef();
        IUnknown*& old = *static_cast<IUnknown**>(slot);
        if (old) old->Release();
        old = p;
    } else if (psa->fFeatures & FADF_VARIANT) {
        if (!pv) return E_INVALIDARG;
        return VariantCopy(static_cast<VARIANT*>(slot), static_cast<const VARIANT*>(pv));
    } else {
        if (!pv) return E_INVALIDARG;
        std::memcpy(slot, pv, psa->cbElements);
    }
    return S_OK;
}
}
