// The event source of an object: sinks advise and unadvise with cookies, and
// the object fires events into every sink connected at that moment.
#pragma once

#include <initializer_list>
#include <mutex>
#include <utility>
#include <vector>

#include "automation/interfaces.h"

namespace kv::automation {

class ConnectionPoint final : public IConnectionPoint {
public:
    // owner keeps this point alive and gives it its reference count.
    ConnectionPoint(IConnectionPointContainer* owner, const IID& events);
    ~ConnectionPoint();
    ConnectionPoint(const ConnectionPoint&) = delete;

    HRESULT QueryInterface(REFIID riid, void** ppv) override;
    uint32_t AddRef() override;
    uint32_t Release() override;
    HRESULT GetConnectionInterface(IID* pIID) override;
    HRESULT GetConnectionPointContainer(IConnectionPointContainer** ppCPC) override;
    HRESULT Advise(IUnknown* pUnkSink, uint32_t* pdwCookie) override;
    HRESULT Unadvise(uint32_t dwCookie) override;
    HRESULT EnumConnections(void** ppEnum) override;

    // Invokes event id on every sink connected now, in the order they advised,
    // on the calling thread, with DISPATCH_METHOD. args are in declaration order
    // and borrowed; the sinks receive them reversed. A sink that advises or
    // unadvises meanwhile changes the next firing, not this one. Sink failures
    // are ignored.
    void Fire(DISPID id, std::initializer_list<VARIANT> args);
    // As Fire, with a last [in,out] VARIANT_BOOL Proceed, true at the start and
    // shared by all sinks; returns its final value.
    bool FireWithProceed(DISPID id, std::initializer_list<VARIANT> args);
    size_t SinkCount();

private:
    void FireParams(DISPID id, std::initializer_list<VARIANT> args, VARIANT_BOOL* proceed);

    IConnectionPointContainer* owner_;
    IID iid_;
    std::mutex mutex_;  // guards sinks_ and next_cookie_ only
    std::vector<std::pair<uint32_t, IDispatch*>> sinks_;
    uint32_t next_cookie_ = 1;
};

}  // namespace kv::automation
