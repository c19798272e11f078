#include "automation/connection_point.h"

namespace kv::automation {

ConnectionPoint::ConnectionPoint(IConnectionPointContainer* owner, const IID& events)
    : owner_(owner), iid_(events) {}

ConnectionPoint::~ConnectionPoint() {
    for (auto& s : sinks_) s.second->Release();
}

HRESULT ConnectionPoint::QueryInterface(REFIID riid, void** ppv) {
    if (!ppv) return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IConnectionPoint) {
        *ppv = static_cast<IConnectionPoint*>(this);
        AddRef();
        return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
}

uint32_t ConnectionPoint::AddRef() { return owner_->AddRef(); }
uint32_t ConnectionPoint::Release() { return owner_->Release(); }

HRESULT ConnectionPoint::GetConnectionInterface(IID* pIID) {
    if (!pIID) return E_POINTER;
    *pIID = iid_;
    return S_OK;
}

HRESULT ConnectionPoint::GetConnectionPointContainer(IConnectionPointContainer** ppCPC) {
    if (!ppCPC) return E_POINTER;
    owner_->AddRef();
    *ppCPC = owner_;
    return S_OK;
}

HRESULT ConnectionPoint::Advise(IUnknown* pUnkSink, uint32_t* pdwCookie) {
    if (!pUnkSink || !pdwCookie) return E_POINTER;
    *pdwCookie = 0;
    IDispatch* sink = nullptr;
    if (FAILED(pUnkSink->QueryInterface(iid_, reinterpret_cast<void**>(&sink))) &&
        FAILED(pUnkSink->QueryInterface(IID_IDispatch, reinterpret_cast<void**>(&sink))))
        return CONNECT_E_CANNOTCONNECT;
    std::lock_guard<std::mutex> lock(mutex_);
    *pdwCookie = next_cookie_++;
    sinks_.emplace_back(*pdwCookie, sink);
    return S_OK;
}

HRESULT ConnectionPoint::Unadvise(uint32_t dwCookie) {
    IDispatch* sink = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto it = sinks_.begin(); it != sinks_.end(); ++it) {
            if (it->first == dwCookie) {
                sink = it->second;
                sinks_.erase(it);
                break;
            }
        }
    }
    if (!sink) return CONNECT_E_NOCONNECTION;
    // Released outside the lock: the sink's destructor may call back into us.
    sink->Release();
    return S_OK;
}

HRESULT ConnectionPoint::EnumConnections(void** ppEnum) {
    if (ppEnum) *ppEnum = nullptr;
    return E_NOTIMPL;
}

size_t ConnectionPoint::SinkCount() {
    std::lock_guard<std::mutex> lock(mutex_);
    return sinks_.size();
}

void ConnectionPoint::FireParams(DISPID id, std::initializer_list<VARIANT> args, VARIANT_BOOL* proceed) {
    std::vector<IDispatch*> snapshot;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        snapshot.reserve(sinks_.size());
        for (auto& s : sinks_) {
            s.second->AddRef();
            snapshot.push_back(s.second);
        }
    }
    if (snapshot.empty()) return;
    std::vector<VARIANT> reversed;
    reversed.reserve(args.size() + 1);
    if (proceed) {
        VARIANT p;
        VariantInit(&p);
        p.vt = VT_BYREF | VT_BOOL;
        p.pboolVal = proceed;
        reversed.push_back(p);
    }
    for (auto it = args.end(); it != args.begin();) reversed.push_back(*--it);
    for (IDispatch* sink : snapshot) {
        // Each sink gets the arguments afresh: a sink may not keep or change them,
        // but a careless one must not spoil them for the next.
        std::vector<VARIANT> call(reversed);
        DISPPARAMS dp{call.data(), nullptr, uint32_t(call.size()), 0};
        sink->Invoke(id, GUID_NULL, 0, DISPATCH_METHOD, &dp, nullptr, nullptr, nullptr);
    }
    for (IDispatch* sink : snapshot) sink->Release();
}

void ConnectionPoint::Fire(DISPID id, std::initializer_list<VARIANT> args) { FireParams(id, args, nullptr); }

bool ConnectionPoint::FireWithProceed(DISPID id, std::initializer_list<VARIANT> args) {
    VARIANT_BOOL proceed = VARIANT_TRUE;
    FireParams(id, args, &proceed);
    return proceed != VARIANT_FALSE;
}

}  // namespace kv::automation
