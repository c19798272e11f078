// A stack-held event sink for the session tests: a dispatch object whose
// reference count is not tracked (the test outlives the connection) and
// whose type information is absent. A test overrides Invoke only.
#pragma once

#include "automation/interfaces.h"

namespace kv::testing {

class EventSink : public IDispatch {
public:
    HRESULT QueryInterface(REFIID, void** ppv) override {
        *ppv = static_cast<IDispatch*>(this);
        return S_OK;
    }
    uint32_t AddRef() override { return 2; }
    uint32_t Release() override { return 1; }
    HRESULT GetTypeInfoCount(uint32_t*) override { return E_NOTIMPL; }
    HRESULT GetTypeInfo(uint32_t, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT GetIDsOfNames(REFIID, OLECHAR**, uint32_t, LCID, DISPID*) override { return E_NOTIMPL; }
};

}  // namespace kv::testing
