// The interfaces of the automation runtime, as plain abstract classes whose
// virtual functions stand in the Windows vtable order, so that a C host can walk
// the same slots. Reference counts are 32-bit; Release returns the new count.
#pragma once

#include <cstdint>

#include "automation/guid.h"
#include "automation/variant.h"

typedef int32_t DISPID;

inline constexpr DISPID DISPID_UNKNOWN = -1;
inline constexpr DISPID DISPID_VALUE = 0;
inline constexpr DISPID DISPID_PROPERTYPUT = -3;
inline constexpr DISPID DISPID_NEWENUM = -4;

// Invoke's wFlags.
enum : uint16_t {
    DISPATCH_METHOD = 1,
    DISPATCH_PROPERTYGET = 2,
    DISPATCH_PROPERTYPUT = 4,
    DISPATCH_PROPERTYPUTREF = 8,
};

// Arguments of Invoke: rgvarg holds them in reverse order (the last argument
// first); the first cNamedArgs of them are named by rgdispidNamedArgs.
struct DISPPARAMS {
    VARIANTARG* rgvarg;
    DISPID* rgdispidNamedArgs;
    uint32_t cArgs;
    uint32_t cNamedArgs;
};

// What Invoke fills when it returns DISP_E_EXCEPTION. The caller frees the strings.
struct EXCEPINFO {
    uint16_t wCode;
    uint16_t wReserved;
    BSTR bstrSource;
    BSTR bstrDescription;
    BSTR bstrHelpFile;
    uint32_t dwHelpContext;
    void* pvReserved;
    HRESULT (*pfnDeferredFillIn)(EXCEPINFO*);
    SCODE scode;
};

struct IUnknown {
    virtual HRESULT QueryInterface(REFIID riid, void** ppv) = 0;
    virtual uint32_t AddRef() = 0;
    virtual uint32_t Release() = 0;

protected:
    ~IUnknown() = default;
};

namespace kv::automation {
class InterfaceInfo;
}

// Type information as this runtime gives it: one interface, its identifier and
// its member table, which a host can walk to learn names, kinds and parameters.
// Narrower than the Windows interface of the same name; its identifier is ours.
inline constexpr IID IID_IKvTypeInfo = {
    0x6B0F3A51, 0x2C7E, 0x4D1A, {0x9E, 0x43, 0x1F, 0x58, 0xA2, 0x0C, 0x77, 0x31}};
struct ITypeInfo : IUnknown {
    virtual const kv::automation::InterfaceInfo* GetInterfaceInfo() = 0;

protected:
    ~ITypeInfo() = default;
};

struct IDispatch : IUnknown {
    virtual HRESULT GetTypeInfoCount(uint32_t* pctinfo) = 0;
    virtual HRESULT GetTypeInfo(uint32_t iTInfo, LCID lcid, ITypeInfo** ppTInfo) = 0;
    virtual HRESULT GetIDsOfNames(REFIID riid, OLECHAR** rgszNames, uint32_t cNames, LCID lcid,
                                  DISPID* rgDispId) = 0;
    virtual HRESULT Invoke(DISPID dispIdMember, REFIID riid, LCID lcid, uint16_t wFlags,
                           DISPPARAMS* pDispParams, VARIANT* pVarResult, EXCEPINFO* pExcepInfo,
                           uint32_t* puArgErr) = 0;

protected:
    ~IDispatch() = default;
};

struct IClassFactory : IUnknown {
    virtual HRESULT CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv) = 0;
    virtual HRESULT LockServer(int32_t fLock) = 0;

protected:
    ~IClassFactory() = default;
};

struct IConnectionPoint;
struct IConnectionPointContainer : IUnknown {
    // Enumeration of the points is not offered: a host asks for the event
    // interface it knows (E_NOTIMPL).
    virtual HRESULT EnumConnectionPoints(void** ppEnum) = 0;
    virtual HRESULT FindConnectionPoint(REFIID riid, IConnectionPoint** ppCP) = 0;

protected:
    ~IConnectionPointContainer() = default;
};

struct IConnectionPoint : IUnknown {
    virtual HRESULT GetConnectionInterface(IID* pIID) = 0;
    virtual HRESULT GetConnectionPointContainer(IConnectionPointContainer** ppCPC) = 0;
    // The sink must answer QueryInterface for the event interface or IDispatch.
    // Cookies start at 1 and are never reused by one point.
    virtual HRESULT Advise(IUnknown* pUnkSink, uint32_t* pdwCookie) = 0;
    virtual HRESULT Unadvise(uint32_t dwCookie) = 0;
    // Enumeration of the connections is not offered (E_NOTIMPL, which the
    // interface allows).
    virtual HRESULT EnumConnections(void** ppEnum) = 0;

protected:
    ~IConnectionPoint() = default;
};

inline constexpr IID IID_IEnumVARIANT = {0x00020404, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};

// What a collection's _NewEnum (DISPID_NEWENUM) hands out.
struct IEnumVARIANT : IUnknown {
    // Copies up to celt items into rgVar (the caller owns them); S_FALSE when
    // fewer than celt were left.
    virtual HRESULT Next(uint32_t celt, VARIANT* rgVar, uint32_t* pCeltFetched) = 0;
    virtual HRESULT Skip(uint32_t celt) = 0;
    virtual HRESULT Reset() = 0;
    virtual HRESULT Clone(IEnumVARIANT** ppEnum) = 0;

protected:
    ~IEnumVARIANT() = default;
};

namespace kv::automation {

// Holds one reference; releases it on destruction.
template <class T>
class ComPtr {
public:
    ComPtr() = default;
    ComPtr(T* p) : p_(p) {  // adds a reference
        if (p_) p_->AddRef();
    }
    ComPtr(const ComPtr& o) : ComPtr(o.p_) {}
    ComPtr(ComPtr&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
    ComPtr& operator=(ComPtr o) noexcept {
        T* t = p_;
        p_ = o.p_;
        o.p_ = t;
        return *this;
    }
    ~ComPtr() {
        if (p_) p_->Release();
    }
    static ComPtr Attach(T* p) {  // takes over a reference the caller holds
        ComPtr c;
        c.p_ = p;
        return c;
    }
    T* Detach() {
        T* p = p_;
        p_ = nullptr;
        return p;
    }
    T** Receive() {
        *this = ComPtr();
        return &p_;
    }
    T* get() const { return p_; }
    T* operator->() const { return p_; }
    explicit operator bool() const { return p_ != nullptr; }

private:
    T* p_ = nullptr;
};

}  // namespace kv::automation
