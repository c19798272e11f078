// VARIANT: the tagged value that crosses the automation boundary, with the
// Windows type numbers and the 64-bit Windows layout (24 bytes: the type, three
// reserved words, a 16-byte union), so that a C host can hand us its own.
#pragma once

#include <cstddef>
#include <cstdint>

#include "automation/bstr.h"
#include "automation/hresult.h"

typedef uint16_t VARTYPE;
typedef int16_t VARIANT_BOOL;
typedef double DATE;
typedef uint32_t LCID;

inline constexpr VARIANT_BOOL VARIANT_TRUE = -1;
inline constexpr VARIANT_BOOL VARIANT_FALSE = 0;

enum VARENUM : VARTYPE {
    VT_EMPTY = 0,
    VT_NULL = 1,
    VT_I2 = 2,
    VT_I4 = 3,
    VT_R4 = 4,
    VT_R8 = 5,
    VT_CY = 6,
    VT_DATE = 7,
    VT_BSTR = 8,
    VT_DISPATCH = 9,
    VT_ERROR = 10,
    VT_BOOL = 11,
    VT_VARIANT = 12,
    VT_UNKNOWN = 13,
    VT_DECIMAL = 14,
    VT_I1 = 16,
    VT_UI1 = 17,
    VT_UI2 = 18,
    VT_UI4 = 19,
    VT_I8 = 20,
    VT_UI8 = 21,
    VT_INT = 22,
    VT_UINT = 23,
    VT_VOID = 24,
    VT_HRESULT = 25,
    VT_RECORD = 36,
    VT_ARRAY = 0x2000,
    VT_BYREF = 0x4000,
    VT_TYPEMASK = 0x0FFF,
};

// Flags of VariantChangeType.
enum : uint16_t {
    VARIANT_NOVALUEPROP = 0x01,  // don't ask an object for its default value
    VARIANT_ALPHABOOL = 0x02,    // booleans become "True"/"False" rather than "-1"/"0"
};

struct IUnknown;
struct IDispatch;
struct SAFEARRAY;

// Currency: a 64-bit integer scaled by 10,000.
union CY {
    int64_t int64;
};

struct VARIANT {
    VARTYPE vt;
    uint16_t wReserved1;
    uint16_t wReserved2;
    uint16_t wReserved3;
    union {
        int64_t llVal;
        int32_t lVal;
        uint8_t bVal;
        int16_t iVal;
        float fltVal;
        double dblVal;
        VARIANT_BOOL boolVal;
        SCODE scode;
        CY cyVal;
        DATE date;
        BSTR bstrVal;
        IUnknown* punkVal;
        IDispatch* pdispVal;
        SAFEARRAY* parray;
        uint8_t* pbVal;
        int16_t* piVal;
        int32_t* plVal;
        int64_t* pllVal;
        float* pfltVal;
        double* pdblVal;
        VARIANT_BOOL* pboolVal;
        SCODE* pscode;
        CY* pcyVal;
        DATE* pdate;
        BSTR* pbstrVal;
        IUnknown** ppunkVal;
        IDispatch** ppdispVal;
        SAFEARRAY** pparray;
        VARIANT* pvarVal;
        void* byref;
        char cVal;
        uint16_t uiVal;
        uint32_t ulVal;
        uint64_t ullVal;
        int32_t intVal;
        uint32_t uintVal;
        char* pcVal;
        uint16_t* puiVal;
        uint32_t* pulVal;
        uint64_t* pullVal;
        struct {
            void* pvRecord;
            void* pRecInfo;
        } brecVal;
    };
};
typedef VARIANT VARIANTARG;

static_assert(sizeof(VARIANT) == 24 && offsetof(VARIANT, llVal) == 8,
              "VARIANT must keep the 64-bit Windows layout");

extern "C" {
void VariantInit(VARIANT* v);
// Frees what v owns (string, reference, array) and leaves it VT_EMPTY. A
// by-reference variant owns nothing. Fails on an unknown type or a locked array,
// leaving v as it was.
HRESULT VariantClear(VARIANT* v);
// Deep copy: strings and arrays are duplicated, references added. By-reference
// variants are copied as the pointer they are. dest is cleared first.
HRESULT VariantCopy(VARIANT* dest, const VARIANT* src);
// As VariantCopy, but a by-reference source is copied as the value it points at.
HRESULT VariantCopyInd(VARIANT* dest, const VARIANT* src);
// Coerces src to vt into dest (which may be src itself). Fails with
// DISP_E_TYPEMISMATCH when no conversion exists, DISP_E_OVERFLOW when the value
// does not fit; dest is then untouched. Numbers are rounded half to even, as the
// runtime does; strings are parsed in the invariant (en-US) form.
HRESULT VariantChangeType(VARIANT* dest, const VARIANT* src, uint16_t flags, VARTYPE vt);
HRESULT VariantChangeTypeEx(VARIANT* dest, const VARIANT* src, LCID lcid, uint16_t flags,
                            VARTYPE vt);
}

namespace kv::automation {

// Bytes that one element of this base type takes in an array; 0 if unknown.
uint32_t ElementSize(VARTYPE vt);

// DATE <-> calendar. DATE counts days from 1899-12-30; before that day the
// fraction still runs forward from midnight (-1.25 is 1899-12-29 06:00).
struct DateParts {
    int year, month, day, hour, minute, second, millisecond;
};
bool DateFromParts(const DateParts& parts, DATE* out);
bool PartsFromDate(DATE d, DateParts* out);

// Small constructors for C++ callers. The string forms take UTF-8.
VARIANT MakeI4(int32_t v);
VARIANT MakeBool(bool v);
VARIANT MakeR8(double v);
VARIANT MakeBstr(const char* utf8);
VARIANT MakeMissing();  // an omitted optional argument: VT_ERROR, DISP_E_PARAMNOTFOUND
bool IsMissing(const VARIANT& v);

}  // namespace kv::automation
