// The base of every automation object of the library: reference counting,
// interface identity, the table-driven IDispatch of its class, type
// information, and, for a class with an event interface, its event source.
//
// A class derives from ObjectBase, passes its ClassInfo (which names its
// member table), and implements the functions the table binds. A new object
// holds one reference, its creator's; the last Release deletes it.
#pragma once

#include <atomic>
#include <memory>

#include "automation/connection_point.h"
#include "automation/interfaces.h"
#include "automation/members.h"

namespace kv::automation {

struct ClassInfo;

// Objects of this library alive now: automation objects, class factories and
// the sinks made for hosts. What DllCanUnloadNow and leak checks read.
long LiveObjects();

// Counts one live object for as long as it exists.
class LiveCount {
public:
    LiveCount();
    LiveCount(const LiveCount&);
    ~LiveCount();
};

// The IUnknown of a small object behind one interface I, which answers to
// IUnknown and to the identifiers Iids: reference counted from 1, deleted at
// the last Release, counted as live.
template <class I, const IID&... Iids>
class UnknownImpl : public I {
public:
    HRESULT QueryInterface(REFIID riid, void** ppv) override {
        if (!ppv) return E_POINTER;
        if (riid == IID_IUnknown || ((riid == Iids) || ...)) {
            *ppv = static_cast<I*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    uint32_t AddRef() override { return ++refs_; }
    uint32_t Release() override {
        uint32_t n = --refs_;
        if (n == 0) delete this;
        return n;
    }

protected:
    UnknownImpl() = default;
    virtual ~UnknownImpl() = default;

private:
    std::atomic<uint32_t> refs_{1};
    LiveCount live_;
};

// QueryInterface with this identifier gives the ObjectBase behind any of our
// interface pointers (one reference added), so that code inside the library
// can reach the object and its class from what a host handed back.
inline constexpr IID IID_IKvObject = {
    0x6B0F3A50, 0x2C7E, 0x4D1A, {0x9E, 0x43, 0x1F, 0x58, 0xA2, 0x0C, 0x77, 0x31}};

// The standard dispatch over a member table, for any implementation of
// IDispatch: finds the member, picks the operation the flags ask for, places
// positional and named arguments, fills defaults for omitted optional ones,
// coerces each to its declared type, calls, and turns a failing member into
// DISP_E_EXCEPTION with the member's reported text. source names the object
// in EXCEPINFO.
HRESULT DispatchInvoke(ObjectBase* self, const InterfaceInfo& iface, const char* source, DISPID id,
                       uint16_t flags, DISPPARAMS* params, VARIANT* result, EXCEPINFO* excep,
                       uint32_t* arg_err);
HRESULT DispatchGetIDsOfNames(const InterfaceInfo& iface, OLECHAR** names, uint32_t count, DISPID* ids);
// A type information object (one reference) for the interface.
ITypeInfo* NewTypeInfo(const InterfaceInfo& iface);

class ObjectBase : public IDispatch {
public:
    explicit ObjectBase(const ClassInfo& cls);
    ObjectBase(const ObjectBase&) = delete;
    ObjectBase& operator=(const ObjectBase&) = delete;

    HRESULT QueryInterface(REFIID riid, void** ppv) override;
    uint32_t AddRef() override;
    uint32_t Release() override;
    HRESULT GetTypeInfoCount(uint32_t* pctinfo) override;
    HRESULT GetTypeInfo(uint32_t iTInfo, LCID lcid, ITypeInfo** ppTInfo) override;
    HRESULT GetIDsOfNames(REFIID riid, OLECHAR** rgszNames, uint32_t cNames, LCID lcid,
                          DISPID* rgDispId) override;
    HRESULT Invoke(DISPID dispIdMember, REFIID riid, LCID lcid, uint16_t wFlags,
                   DISPPARAMS* pDispParams, VARIANT* pVarResult, EXCEPINFO* pExcepInfo,
                   uint32_t* puArgErr) override;

    const ClassInfo& Class() const { return cls_; }
    // The event source; null when the class has no event interface.
    ConnectionPoint* Events() { return events_.get(); }

protected:
    virtual ~ObjectBase();

private:
    class Container final : public IConnectionPointContainer {
    public:
        explicit Container(ObjectBase* owner) : owner_(owner) {}
        HRESULT QueryInterface(REFIID riid, void** ppv) override { return owner_->QueryInterface(riid, ppv); }
        uint32_t AddRef() override { return owner_->AddRef(); }
        uint32_t Release() override { return owner_->Release(); }
        HRESULT EnumConnectionPoints(void** ppEnum) override;
        HRESULT FindConnectionPoint(REFIID riid, IConnectionPoint** ppCP) override;

    private:
        ObjectBase* owner_;
    };

    const ClassInfo& cls_;
    std::atomic<uint32_t> refs_{1};
    LiveCount live_;
    Container container_{this};
    std::unique_ptr<ConnectionPoint> events_;
};

}  // namespace kv::automation
