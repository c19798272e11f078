// SAFEARRAY: the runtime's counted array, in the 64-bit Windows layout. This
// runtime makes one-dimensional arrays (bytes, variants, strings, numbers,
// references) with any lower bound; that is what crosses the boundary here.
#pragma once

#include <cstdint>

#include "automation/variant.h"

struct SAFEARRAYBOUND {
    uint32_t cElements;
    int32_t lLbound;
};

struct SAFEARRAY {
    uint16_t cDims;
    uint16_t fFeatures;
    uint32_t cbElements;
    uint32_t cLocks;
    void* pvData;
    SAFEARRAYBOUND rgsabound[1];
};

static_assert(sizeof(SAFEARRAY) == 32, "SAFEARRAY must keep the 64-bit Windows layout");

// fFeatures
enum : uint16_t {
    FADF_HAVEVARTYPE = 0x0080,
    FADF_BSTR = 0x0100,
    FADF_UNKNOWN = 0x0200,
    FADF_DISPATCH = 0x0400,
    FADF_VARIANT = 0x0800,
};

extern "C" {
// Only cDims 1 is made; others give null. Elements start zeroed (VT_EMPTY, null).
SAFEARRAY* SafeArrayCreate(VARTYPE vt, uint32_t cDims, const SAFEARRAYBOUND* rgsabound);
SAFEARRAY* SafeArrayCreateVector(VARTYPE vt, int32_t lLbound, uint32_t cElements);
// Frees the elements it owns and the array. DISP_E_ARRAYISLOCKED while locked.
HRESULT SafeArrayDestroy(SAFEARRAY* psa);
HRESULT SafeArrayCopy(SAFEARRAY* psa, SAFEARRAY** ppsaOut);
uint32_t SafeArrayGetDim(SAFEARRAY* psa);
uint32_t SafeArrayGetElemsize(SAFEARRAY* psa);
HRESULT SafeArrayGetVartype(SAFEARRAY* psa, VARTYPE* pvt);
// nDim counts from 1. DISP_E_BADINDEX for a dimension the array lacks.
HRESULT SafeArrayGetLBound(SAFEARRAY* psa, uint32_t nDim, int32_t* plLbound);
HRESULT SafeArrayGetUBound(SAFEARRAY* psa, uint32_t nDim, int32_t* plUbound);
HRESULT SafeArrayLock(SAFEARRAY* psa);
HRESULT SafeArrayUnlock(SAFEARRAY* psa);
// Locks and gives the element storage; UnaccessData unlocks.
HRESULT SafeArrayAccessData(SAFEARRAY* psa, void** ppvData);
HRESULT SafeArrayUnaccessData(SAFEARRAY* psa);
// rgIndices holds one index per dimension, bounds included. GetElement copies
// out (a string is duplicated, a reference added, a variant deep-copied, and the
// caller owns the copy); PutElement copies in and frees what the slot held.
HRESULT SafeArrayGetElement(SAFEARRAY* psa, const int32_t* rgIndices, void* pv);
HRESULT SafeArrayPutElement(SAFEARRAY* psa, const int32_t* rgIndices, const void* pv);
}
