#include "automation/object.h"

#include <cstring>

#include "automation/catalogue.h"
#include "automation/error.h"

namespace kv::automation {

namespace {
std::atomic<long> g_live{0};
}

long LiveObjects() { return g_live.load(); }
LiveCount::LiveCount() { ++g_live; }
LiveCount::LiveCount(const LiveCount&) { ++g_live; }
LiveCount::~LiveCount() { --g_live; }

namespace {

class TypeInfo final : public UnknownImpl<ITypeInfo, IID_IKvTypeInfo> {
public:
    explicit TypeInfo(const InterfaceInfo& iface) : iface_(iface) {}
    const InterfaceInfo* GetInterfaceInfo() override { return &iface_; }

private:
    ~TypeInfo() = default;
    const InterfaceInfo& iface_;
};

const char* DescribeFailure(HRESULT hr) {
    switch (hr) {
        case E_INVALIDARG: return "Invalid argument";
        case E_OUTOFMEMORY: return "Out of memory";
        case E_NOTIMPL: return "Not implemented";
        case E_ACCESSDENIED: return "Access denied";
        default: return "Unspecified error";
    }
}

constexpr size_t kMaxArgs = 17;  // 16 parameters and a put's value

}  // namespace

ITypeInfo* NewTypeInfo(const InterfaceInfo& iface) { return new TypeInfo(iface); }

HRESULT DispatchGetIDsOfNames(const InterfaceInfo& iface, OLECHAR** names, uint32_t count, DISPID* ids) {
    if (!names || !ids) return E_POINTER;
    if (count == 0) return S_OK;
    HRESULT hr = S_OK;
    std::u16string_view first = names[0] ? std::u16string_view(names[0]) : std::u16string_view();
    const MemberInfo* m = iface.Find(first);
    ids[0] = m ? m->dispid : DISPID_UNKNOWN;
    if (!m) hr = DISP_E_UNKNOWNNAME;
    // The other names are parameters of that member; their ids are positions.
    for (uint32_t i = 1; i < count; ++i) {
        ids[i] = DISPID_UNKNOWN;
        if (!m || !names[i]) {
            hr = DISP_E_UNKNOWNNAME;
            continue;
        }
        std::string want = FoldName(names[i]);
        for (size_t k = 0; k < m->params.size(); ++k) {
            std::u16string wide;
            for (const char* p = m->params[k].name; *p; ++p) wide.push_back(char16_t(static_cast<unsigned char>(*p)));
            if (FoldName(wide) == want) ids[i] = DISPID(k);
        }
        if (ids[i] == DISPID_UNKNOWN) hr = DISP_E_UNKNOWNNAME;
    }
    return hr;
}

HRESULT DispatchInvoke(ObjectBase* self, const InterfaceInfo& iface, const char* source, DISPID id,
                       uint16_t flags, DISPPARAMS* params, VARIANT* result, EXCEPINFO* excep,
                       uint32_t* arg_err) {
    const MemberInfo* m = iface.Find(id);
    if (!m) return DISP_E_MEMBERNOTFOUND;
    DISPPARAMS none{nullptr, nullptr, 0, 0};
    if (!params) params = &none;
    if ((params->cArgs && !params->rgvarg) || params->cNamedArgs > params->cArgs ||
        (params->cNamedArgs && !params->rgdispidNamedArgs))
        return E_INVALIDARG;

    const Binding* b = nullptr;
    bool is_put = false;
    if ((flags & DISPATCH_METHOD) && m->method) {
        b = &m->method;
    } else if ((flags & DISPATCH_PROPERTYGET) && m->get) {
        b = &m->get;
    } else if (flags & (DISPATCH_PROPERTYPUT | DISPATCH_PROPERTYPUTREF)) {
        // A script's Set and Let both reach a property that has only one of them.
        if ((flags & DISPATCH_PROPERTYPUTREF) && m->putref)
            b = &m->putref;
        else if (m->put)
            b = &m->put;
        else if (m->putref)
            b = &m->putref;
        is_put = b != nullptr;
    }
    if (!b) {
        // Listed in the table but not bound: its subsystem is not in this build.
        if (!m->get && !m->put && !m->putref && !m->method) {
            if (excep) {
                std::memset(excep, 0, sizeof *excep);
                excep->scode = E_NOTIMPL;
                excep->bstrSource = Bstr::FromUtf8(source ? source : "").Detach();
                excep->bstrDescription =
                    Bstr::FromUtf8(std::string(m->name) + " is not available in this build").Detach();
            }
            return DISP_E_EXCEPTION;
        }
        return DISP_E_MEMBERNOTFOUND;
    }

    const size_t np = m->params.size();
    const size_t total = np + (is_put ? 1 : 0);
    const uint32_t nargs = params->cArgs, named = params->cNamedArgs;
    uint32_t positional = nargs - named;
    int slot[kMaxArgs];
    for (int& s : slot) s = -1;
    const VARIANT* rg = params->rgvarg;

    for (uint32_t j = 0; j < named; ++j) {
        DISPID pid = params->rgdispidNamedArgs[j];
        if (pid == DISPID_PROPERTYPUT && is_put) {
            slot[np] = int(j);
        } else if (pid < 0 || size_t(pid) >= np || slot[pid] != -1) {
            if (arg_err) *arg_err = j;
            return DISP_E_PARAMNOTFOUND;
        } else {
            slot[pid] = int(j);
        }
    }
    if (is_put && slot[np] == -1) {
        // No named value: it is the last positional argument, rgvarg[named].
        if (positional == 0) return DISP_E_BADPARAMCOUNT;
        slot[np] = int(named);
        --positional;
    }
    if (positional > np) return DISP_E_BADPARAMCOUNT;
    for (uint32_t i = 0; i < positional; ++i) {
        if (slot[i] != -1) return DISP_E_PARAMNOTFOUND;  // named and positional at once
        slot[i] = int(nargs - 1 - i);
    }

    VARIANT args[kMaxArgs];
    bool owned[kMaxArgs] = {};
    auto cleanup = [&] {
        for (size_t i = 0; i < total; ++i)
            if (owned[i]) VariantClear(&args[i]);
    };
    for (size_t i = 0; i < total; ++i) {
        const ParamInfo* p = i < np ? &m->params[i] : nullptr;
        VARTYPE vt = p ? p->vt : m->type;
        const VARIANT* src = slot[i] == -1 ? nullptr : &rg[slot[i]];
        if (!src || IsMissing(*src)) {
            if (!p || !p->optional) {
                cleanup();
                if (src && arg_err) *arg_err = uint32_t(slot[i]);
                return src ? DISP_E_PARAMNOTOPTIONAL : DISP_E_BADPARAMCOUNT;
            }
            if (HRESULT hr = MakeDefault(*p, &args[i]); FAILED(hr)) {
                cleanup();
                return hr;
            }
            owned[i] = true;
            continue;
        }
        if (vt == VT_VARIANT || src->vt == vt) {
            args[i] = *src;  // borrowed: the caller owns it through the call
            continue;
        }
        if (vt & VT_BYREF) {  // [in,out] parameters take only their exact type
            cleanup();
            if (arg_err) *arg_err = uint32_t(slot[i]);
            return DISP_E_TYPEMISMATCH;
        }
        VariantInit(&args[i]);
        owned[i] = true;
        if (HRESULT hr = VariantChangeType(&args[i], src, 0, vt); FAILED(hr)) {
            owned[i] = false;
            cleanup();
            if (arg_err) *arg_err = uint32_t(slot[i]);
            return hr;
        }
    }

    VARIANT r;
    VariantInit(&r);
    TakeReportedError();
    HRESULT hr = b->thunk(self, args, &r);
    cleanup();
    if (FAILED(hr)) {
        VariantClear(&r);
        std::string text = TakeReportedError();
        if (excep) {
            std::memset(excep, 0, sizeof *excep);
            excep->scode = hr;
            excep->bstrSource = Bstr::FromUtf8(source ? source : "").Detach();
            excep->bstrDescription = Bstr::FromUtf8(text.empty() ? DescribeFailure(hr) : text).Detach();
        }
        return DISP_E_EXCEPTION;
    }
    if (b->sig->has_result && b->sig->result != ArgKind::Variant) r.vt = m->type;
    if (result)
        *result = r;
    else
        VariantClear(&r);
    return S_OK;
}

ObjectBase::ObjectBase(const ClassInfo& cls) : cls_(cls) {
    if (cls.events) events_ = std::make_unique<ConnectionPoint>(&container_, cls.events->iid());
}

ObjectBase::~ObjectBase() = default;

HRESULT ObjectBase::QueryInterface(REFIID riid, void** ppv) {
    if (!ppv) return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IDispatch || riid == IID_IKvObject ||
        (cls_.iface && riid == cls_.iface->iid())) {
        *ppv = static_cast<IDispatch*>(this);
    } else if (riid == IID_IConnectionPointContainer && events_) {
        *ppv = static_cast<IConnectionPointContainer*>(&container_);
    } else {
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
}

uint32_t ObjectBase::AddRef() { return ++refs_; }

uint32_t ObjectBase::Release() {
    uint32_t n = --refs_;
    if (n == 0) delete this;
    return n;
}

HRESULT ObjectBase::GetTypeInfoCount(uint32_t* pctinfo) {
    if (!pctinfo) return E_POINTER;
    *pctinfo = cls_.iface ? 1 : 0;
    return S_OK;
}

HRESULT ObjectBase::GetTypeInfo(uint32_t iTInfo, LCID, ITypeInfo** ppTInfo) {
    if (!ppTInfo) return E_POINTER;
    *ppTInfo = nullptr;
    if (iTInfo != 0 || !cls_.iface) return DISP_E_BADINDEX;
    *ppTInfo = NewTypeInfo(*cls_.iface);
    return S_OK;
}

HRESULT ObjectBase::GetIDsOfNames(REFIID, OLECHAR** rgszNames, uint32_t cNames, LCID, DISPID* rgDispId) {
    if (!cls_.iface) return DISP_E_UNKNOWNNAME;
    return DispatchGetIDsOfNames(*cls_.iface, rgszNames, cNames, rgDispId);
}

HRESULT ObjectBase::Invoke(DISPID dispIdMember, REFIID, LCID, uint16_t wFlags, DISPPARAMS* pDispParams,
                           VARIANT* pVarResult, EXCEPINFO* pExcepInfo, uint32_t* puArgErr) {
    if (!cls_.iface) return DISP_E_MEMBERNOTFOUND;
    // The caller may not drop the last reference to us from inside a member.
    ComPtr<IDispatch> keep(this);
    return DispatchInvoke(this, *cls_.iface, cls_.progid, dispIdMember, wFlags, pDispParams, pVarResult,
                          pExcepInfo, puArgErr);
}

HRESULT ObjectBase::Container::EnumConnectionPoints(void** ppEnum) {
    if (ppEnum) *ppEnum = nullptr;
    return E_NOTIMPL;
}

HRESULT ObjectBase::Container::FindConnectionPoint(REFIID riid, IConnectionPoint** ppCP) {
    if (!ppCP) return E_POINTER;
    *ppCP = nullptr;
    ConnectionPoint* cp = owner_->events_.get();
    if (!cp || riid != owner_->cls_.events->iid()) return CONNECT_E_NOCONNECTION;
    cp->AddRef();
    *ppCP = cp;
    return S_OK;
}

}  // namespace kv::automation
