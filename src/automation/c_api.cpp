// The C interface of include/korvane.h over the automation layer. Each entry
// point catches everything, so that no C++ exception crosses into a host, and
// leaves a message for kv_last_error when it fails.
#include "korvane.h"

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "automation/catalogue.h"
#include "automation/object.h"
#include "automation/pump.h"
#include "automation/safearray.h"
#include "automation/test_object.h"

using namespace kv::automation;

static_assert(sizeof(kv_variant) == sizeof(VARIANT) && offsetof(kv_variant, llVal) == offsetof(VARIANT, llVal),
              "kv_variant and VARIANT must share their layout");

namespace {

thread_local std::string t_error;
thread_local int32_t t_scode = 0;

IDispatch* D(kv_object* o) { return reinterpret_cast<IDispatch*>(o); }
kv_object* K(IDispatch* d) { return reinterpret_cast<kv_object*>(d); }
VARIANT* V(kv_variant* v) { return reinterpret_cast<VARIANT*>(v); }
const VARIANT* V(const kv_variant* v) { return reinterpret_cast<const VARIANT*>(v); }

int Fail(HRESULT hr, std::string message) {
    t_error = std::move(message);
    return hr;
}

std::string Hex(HRESULT hr) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%08X", static_cast<unsigned>(hr));
    return buf;
}

// Runs body, turning any C++ exception into a failing status.
template <class F>
int Guard(F&& body) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return Fail(E_OUTOFMEMORY, "out of memory");
    } catch (const std::exception& e) {
        return Fail(E_UNEXPECTED, std::string("internal error: ") + e.what());
    } catch (...) {
        return Fail(E_UNEXPECTED, "internal error");
    }
}

// The library's own object behind o, or null for a foreign IDispatch.
ComPtr<ObjectBase> Ours(kv_object* o) {
    ObjectBase* p = nullptr;
    if (o && SUCCEEDED(D(o)->QueryInterface(IID_IKvObject, reinterpret_cast<void**>(&p))))
        return ComPtr<ObjectBase>::Attach(p);
    return ComPtr<ObjectBase>();
}

const InterfaceInfo* Interface(kv_object* o, int which) {
    if (ComPtr<ObjectBase> obj = Ours(o)) return which == 0 ? obj->Class().iface : obj->Class().events;
    if (which != 0 || !o) return nullptr;
    ITypeInfo* ti = nullptr;
    if (FAILED(D(o)->GetTypeInfo(0, 1033, &ti)) || !ti) return nullptr;
    const InterfaceInfo* info = ti->GetInterfaceInfo();
    ti->Release();
    return info;
}

std::string ObjectName(kv_object* o) {
    if (ComPtr<ObjectBase> obj = Ours(o)) return obj->Class().progid;
    const InterfaceInfo* i = Interface(o, 0);
    return i ? i->name() : "the object";
}

const char* KindName(int kind) {
    if (kind & KV_METHOD) return "a method";
    if (kind & KV_GET) return "a property get";
    if (kind & KV_PUTREF) return "a property putref";
    return "a property put";
}

std::string InvokeMessage(kv_object* o, int32_t dispid, int kind, int nargs, HRESULT hr,
                          uint32_t arg_err, const EXCEPINFO& ei) {
    const InterfaceInfo* iface = Interface(o, 0);
    const MemberInfo* m = iface ? iface->Find(dispid) : nullptr;
    std::string who = ObjectName(o);
    std::string name = m ? std::string("'") + m->name + "'" : "member " + std::to_string(dispid);
    bool put = (kind & (KV_PUT | KV_PUTREF)) && !(kind & (KV_METHOD | KV_GET));
    int given = put ? nargs - 1 : nargs;
    // The argument Invoke blamed, in call order.
    int index = arg_err < uint32_t(nargs) ? nargs - 1 - int(arg_err) : -1;
    std::string arg = "argument";
    if (index >= 0) {
        arg.append(" ").append(std::to_string(index + 1));
        if (m && size_t(index) < m->params.size())
            arg.append(" (").append(m->params[size_t(index)].name).append(")");
        else if (put)
            arg = "the value";
    }
    switch (hr) {
        case DISP_E_MEMBERNOTFOUND:
            if (m) return name + " of " + who + " cannot be called as " + KindName(kind);
            return who + " has no member with id " + std::to_string(dispid);
        case DISP_E_BADPARAMCOUNT:
            if (m) {
                size_t lo = m->RequiredCount(), hi = m->params.size();
                return "wrong number of arguments for " + name + " of " + who + ": " +
                       std::to_string(given) + " given, " +
                       (lo == hi ? std::to_string(lo) : std::to_string(lo) + " to " + std::to_string(hi)) +
                       " expected";
            }
            return "wrong number of arguments for " + name;
        case DISP_E_PARAMNOTOPTIONAL: return arg + " of " + name + " is not optional";
        case DISP_E_TYPEMISMATCH: return arg + " of " + name + " has a type that cannot be converted";
        case DISP_E_OVERFLOW: return arg + " of " + name + " is out of range for its type";
        case DISP_E_PARAMNOTFOUND: return "a named argument of " + name + " is unknown or given twice";
        case DISP_E_EXCEPTION: {
            std::string text = ei.bstrDescription ? Bstr(ei.bstrDescription, SysStringLen(ei.bstrDescription)).Utf8() : "";
            std::string src = ei.bstrSource ? Bstr(ei.bstrSource, SysStringLen(ei.bstrSource)).Utf8() : who;
            return src + "." + (m ? m->name : std::to_string(dispid)) + " failed (" + Hex(ei.scode) + "): " + text;
        }
        default: return name + " of " + who + " failed with " + Hex(hr);
    }
}

// A sink object that forwards each event to a C callback.
class CallbackSink final : public UnknownImpl<IDispatch, IID_IDispatch> {
public:
    CallbackSink(kv_sink fn, void* ctx) : fn_(fn), ctx_(ctx) {}
    HRESULT GetTypeInfoCount(uint32_t* n) override {
        if (n) *n = 0;
        return S_OK;
    }
    HRESULT GetTypeInfo(uint32_t, LCID, ITypeInfo** p) override {
        if (p) *p = nullptr;
        return DISP_E_BADINDEX;
    }
    HRESULT GetIDsOfNames(REFIID, OLECHAR**, uint32_t, LCID, DISPID*) override { return DISP_E_UNKNOWNNAME; }
    HRESULT Invoke(DISPID id, REFIID, LCID, uint16_t, DISPPARAMS* dp, VARIANT*, EXCEPINFO*, uint32_t*) override {
        fn_(ctx_, id, dp ? reinterpret_cast<kv_variant*>(dp->rgvarg) : nullptr, dp ? int(dp->cArgs) : 0);
        return S_OK;
    }

private:
    ~CallbackSink() = default;
    kv_sink fn_;
    void* ctx_;
};

HRESULT FindPoint(kv_object* o, IConnectionPoint** cp) {
    ComPtr<ObjectBase> obj = Ours(o);
    if (!obj || !obj->Class().events) return CONNECT_E_NOCONNECTION;
    IConnectionPointContainer* cpc = nullptr;
    HRESULT hr = obj->QueryInterface(IID_IConnectionPointContainer, reinterpret_cast<void**>(&cpc));
    if (FAILED(hr)) return CONNECT_E_NOCONNECTION;
    hr = cpc->FindConnectionPoint(obj->Class().events->iid(), cp);
    cpc->Release();
    return hr;
}

SAFEARRAY* ArrayOf(const VARIANT* v) {
    if (!v || !(v->vt & VT_ARRAY)) return nullptr;
    if (v->vt & VT_BYREF) return v->pparray ? *v->pparray : nullptr;
    return v->parray;
}

}  // namespace

extern "C" {

int kv_create(const char* progid, kv_object** out) {
    return Guard([&] {
        if (!progid || !out) return Fail(E_POINTER, "kv_create: null argument");
        *out = nullptr;
        IDispatch* d = nullptr;
        HRESULT hr = Catalogue::Instance().CreateObject(progid, &d);
        if (hr == CO_E_CLASSSTRING) return Fail(hr, std::string("unknown ProgID '") + progid + "'");
        if (FAILED(hr)) return Fail(hr, std::string("cannot create '") + progid + "': " + Hex(hr));
        *out = K(d);
        return int(S_OK);
    });
}

int kv_create_registered(const char* store, const char* progid, kv_object** out) {
    return Guard([&] {
        if (!progid || !out) return Fail(E_POINTER, "kv_create_registered: null argument");
        *out = nullptr;
        IDispatch* d = nullptr;
        HRESULT hr = CreateRegistered(store, progid, &d);
        if (FAILED(hr))
            return Fail(hr, std::string("cannot create '") + progid + "' through the key store: " + Hex(hr));
        *out = K(d);
        return int(S_OK);
    });
}

void kv_addref(kv_object* o) {
    if (o) D(o)->AddRef();
}

void kv_release(kv_object* o) {
    if (o) D(o)->Release();
}

long kv_live_objects(void) { return LiveObjects(); }

int kv_same_object(kv_object* a, kv_object* b) {
    if (!a || !b) return a == b;
    IUnknown *ua = nullptr, *ub = nullptr;
    D(a)->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&ua));
    D(b)->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&ub));
    int same = ua && ua == ub;
    if (ua) ua->Release();
    if (ub) ub->Release();
    return same;
}

int kv_get_id(kv_object* o, const char* name, int32_t* dispid) {
    return Guard([&] {
        if (!o || !name || !dispid) return Fail(E_POINTER, "kv_get_id: null argument");
        std::u16string wide = Utf8ToUtf16(name);
        OLECHAR* names[1] = {wide.data()};
        HRESULT hr = D(o)->GetIDsOfNames(GUID_NULL, names, 1, 1033, dispid);
        if (FAILED(hr)) return Fail(hr, ObjectName(o) + " has no member named '" + name + "'");
        return int(S_OK);
    });
}

int kv_invoke(kv_object* o, int32_t dispid, int kind, kv_variant* args, int nargs, kv_variant* result) {
    return Guard([&] {
        if (!o) return Fail(E_POINTER, "kv_invoke: null object");
        if (nargs < 0 || (nargs && !args)) return Fail(E_INVALIDARG, "kv_invoke: bad argument list");
        bool put = (kind & (KV_PUT | KV_PUTREF)) != 0;
        if (put && nargs == 0) return Fail(DISP_E_BADPARAMCOUNT, "kv_invoke: a put needs its value");
        VARIANT local[8];
        std::vector<VARIANT> heap;
        VARIANT* rev = local;
        if (nargs > 8) {
            heap.resize(size_t(nargs));
            rev = heap.data();
        }
        for (int i = 0; i < nargs; ++i) rev[i] = *V(&args[nargs - 1 - i]);
        DISPID named = DISPID_PROPERTYPUT;
        DISPPARAMS dp{rev, put ? &named : nullptr, uint32_t(nargs), put ? 1u : 0u};
        EXCEPINFO ei{};
        uint32_t arg_err = UINT32_MAX;
        VARIANT r;
        VariantInit(&r);
        HRESULT hr = D(o)->Invoke(dispid, GUID_NULL, 1033, uint16_t(kind), &dp, result ? &r : nullptr, &ei, &arg_err);
        if (FAILED(hr)) {
            t_scode = hr == DISP_E_EXCEPTION ? ei.scode : hr;
            std::string msg = InvokeMessage(o, dispid, kind, nargs, hr, arg_err, ei);
            SysFreeString(ei.bstrSource);
            SysFreeString(ei.bstrDescription);
            SysFreeString(ei.bstrHelpFile);
            return Fail(hr, std::move(msg));
        }
        if (result) *V(result) = r;
        return int(S_OK);
    });
}

int32_t kv_last_scode(void) { return t_scode; }
const char* kv_last_error(void) { return t_error.c_str(); }

int kv_type_name(kv_object* o, int which, const char** name) {
    return Guard([&] {
        if (!name) return Fail(E_POINTER, "kv_type_name: null argument");
        const InterfaceInfo* i = Interface(o, which);
        if (!i) return Fail(E_NOINTERFACE, "no type information for that interface");
        *name = i->name();
        return int(S_OK);
    });
}

int kv_member_count(kv_object* o, int which, int* count) {
    return Guard([&] {
        if (!count) return Fail(E_POINTER, "kv_member_count: null argument");
        const InterfaceInfo* i = Interface(o, which);
        if (!i) return Fail(E_NOINTERFACE, "no type information for that interface");
        *count = int(i->members().size());
        return int(S_OK);
    });
}

int kv_member_at(kv_object* o, int which, int index, kv_member_info* info) {
    return Guard([&] {
        if (!info) return Fail(E_POINTER, "kv_member_at: null argument");
        const InterfaceInfo* i = Interface(o, which);
        if (!i) return Fail(E_NOINTERFACE, "no type information for that interface");
        if (index < 0 || size_t(index) >= i->members().size()) return Fail(DISP_E_BADINDEX, "member index out of range");
        const MemberInfo& m = i->members()[size_t(index)];
        info->dispid = m.dispid;
        info->name = m.name;
        info->kinds = m.Kinds();
        info->vt = m.type;
        info->nparams = int(m.params.size());
        info->noptional = int(m.params.size() - m.RequiredCount());
        return int(S_OK);
    });
}

int kv_param_at(kv_object* o, int which, int member_index, int param, kv_param_info* info, kv_variant* def) {
    return Guard([&] {
        if (!info) return Fail(E_POINTER, "kv_param_at: null argument");
        const InterfaceInfo* i = Interface(o, which);
        if (!i) return Fail(E_NOINTERFACE, "no type information for that interface");
        if (member_index < 0 || size_t(member_index) >= i->members().size())
            return Fail(DISP_E_BADINDEX, "member index out of range");
        const MemberInfo& m = i->members()[size_t(member_index)];
        if (param < 0 || size_t(param) >= m.params.size()) return Fail(DISP_E_BADINDEX, "parameter index out of range");
        const ParamInfo& p = m.params[size_t(param)];
        info->name = p.name;
        info->vt = p.vt;
        info->optional = p.optional;
        if (def) {
            HRESULT hr = p.optional ? MakeDefault(p, V(def)) : (*V(def) = MakeMissing(), S_OK);
            if (FAILED(hr)) return Fail(hr, "default value cannot be made");
        }
        return int(S_OK);
    });
}

int kv_advise(kv_object* source, kv_sink sink, void* ctx, uint32_t* cookie) {
    return Guard([&] {
        if (!source || !sink || !cookie) return Fail(E_POINTER, "kv_advise: null argument");
        *cookie = 0;
        IConnectionPoint* cp = nullptr;
        HRESULT hr = FindPoint(source, &cp);
        if (FAILED(hr)) return Fail(hr, ObjectName(source) + " fires no events");
        auto* s = new CallbackSink(sink, ctx);
        hr = cp->Advise(s, cookie);
        s->Release();
        cp->Release();
        if (FAILED(hr)) return Fail(hr, "advise failed: " + Hex(hr));
        return int(S_OK);
    });
}

int kv_unadvise(kv_object* source, uint32_t cookie) {
    return Guard([&] {
        if (!source) return Fail(E_POINTER, "kv_unadvise: null object");
        IConnectionPoint* cp = nullptr;
        HRESULT hr = FindPoint(source, &cp);
        if (FAILED(hr)) return Fail(hr, ObjectName(source) + " fires no events");
        hr = cp->Unadvise(cookie);
        cp->Release();
        if (FAILED(hr)) return Fail(hr, "no connection with cookie " + std::to_string(cookie));
        return int(S_OK);
    });
}

void kv_set_pump(void (*pump)(void* ctx), void* ctx) { SetPump(pump, ctx); }

uint16_t* kv_bstr_alloc(const uint16_t* s, uint32_t len) {
    return reinterpret_cast<uint16_t*>(SysAllocStringLen(reinterpret_cast<const OLECHAR*>(s), len));
}

uint16_t* kv_bstr_from_utf8(const char* s) {
    if (!s) return nullptr;
    try {
        return reinterpret_cast<uint16_t*>(Bstr::FromUtf8(s).Detach());
    } catch (...) {
        return nullptr;
    }
}

uint32_t kv_bstr_len(const uint16_t* b) { return SysStringLen(reinterpret_cast<BSTR>(const_cast<uint16_t*>(b))); }
void kv_bstr_free(uint16_t* b) { SysFreeString(reinterpret_cast<BSTR>(b)); }

void kv_variant_init(kv_variant* v) { VariantInit(V(v)); }

int kv_variant_clear(kv_variant* v) {
    HRESULT hr = VariantClear(V(v));
    return FAILED(hr) ? Fail(hr, "variant cannot be cleared: " + Hex(hr)) : int(hr);
}

int kv_variant_copy(kv_variant* dst, const kv_variant* src) {
    HRESULT hr = VariantCopy(V(dst), V(src));
    return FAILED(hr) ? Fail(hr, "variant cannot be copied: " + Hex(hr)) : int(hr);
}

int kv_variant_change_type(kv_variant* dst, const kv_variant* src, uint16_t vt) {
    HRESULT hr = VariantChangeType(V(dst), V(src), 0, vt);
    if (FAILED(hr))
        return Fail(hr, "cannot convert type " + std::to_string(src ? src->vt : 0) + " to " + std::to_string(vt));
    return int(hr);
}

kv_variant kv_variant_missing(void) {
    VARIANT m = MakeMissing();
    kv_variant out;
    std::memcpy(&out, &m, sizeof out);
    return out;
}

int kv_bytes_to_variant(const void* data, size_t len, kv_variant* v) {
    if (!v || (len && !data)) return Fail(E_POINTER, "kv_bytes_to_variant: null argument");
    if (len > 0x7FFFFFFF) return Fail(E_INVALIDARG, "byte array too large");
    SAFEARRAY* psa = SafeArrayCreateVector(VT_UI1, 0, uint32_t(len));
    if (!psa) return Fail(E_OUTOFMEMORY, "out of memory");
    if (len) std::memcpy(psa->pvData, data, len);
    VariantInit(V(v));
    v->vt = VT_ARRAY | VT_UI1;
    v->parray = psa;
    return S_OK;
}

int kv_variant_bytes(const kv_variant* v, const uint8_t** data, size_t* len) {
    if (!v || !data || !len) return Fail(E_POINTER, "kv_variant_bytes: null argument");
    SAFEARRAY* psa = ArrayOf(V(v));
    if ((v->vt & ~VT_BYREF) != (VT_ARRAY | VT_UI1)) return Fail(DISP_E_TYPEMISMATCH, "not a byte array");
    *data = psa ? static_cast<const uint8_t*>(psa->pvData) : nullptr;
    *len = psa ? psa->rgsabound[0].cElements : 0;
    return S_OK;
}

int kv_array_to_variant(const kv_variant* items, int count, kv_variant* v) {
    if (!v || count < 0 || (count && !items)) return Fail(E_POINTER, "kv_array_to_variant: bad argument");
    SAFEARRAY* psa = SafeArrayCreateVector(VT_VARIANT, 0, uint32_t(count));
    if (!psa) return Fail(E_OUTOFMEMORY, "out of memory");
    for (int32_t i = 0; i < count; ++i) {
        if (HRESULT hr = SafeArrayPutElement(psa, &i, V(&items[i])); FAILED(hr)) {
            SafeArrayDestroy(psa);
            return Fail(hr, "array element cannot be copied");
        }
    }
    VariantInit(V(v));
    v->vt = VT_ARRAY | VT_VARIANT;
    v->parray = psa;
    return S_OK;
}

int kv_variant_array_bounds(const kv_variant* v, int32_t* lower, int32_t* count) {
    if (!v || !lower || !count) return Fail(E_POINTER, "kv_variant_array_bounds: null argument");
    SAFEARRAY* psa = ArrayOf(V(v));
    if (!psa || psa->cDims != 1) return Fail(DISP_E_TYPEMISMATCH, "not a one-dimensional array");
    *lower = psa->rgsabound[0].lLbound;
    *count = int32_t(psa->rgsabound[0].cElements);
    return S_OK;
}

int kv_variant_array_get(const kv_variant* v, int32_t index, kv_variant* out) {
    if (!v || !out) return Fail(E_POINTER, "kv_variant_array_get: null argument");
    SAFEARRAY* psa = ArrayOf(V(v));
    if (!psa) return Fail(DISP_E_TYPEMISMATCH, "not an array");
    VARTYPE vt;
    if (HRESULT hr = SafeArrayGetVartype(psa, &vt); FAILED(hr)) return Fail(hr, "array of unknown type");
    VARIANT* o = V(out);
    VariantInit(o);
    HRESULT hr = vt == VT_VARIANT ? SafeArrayGetElement(psa, &index, o) : SafeArrayGetElement(psa, &index, &o->llVal);
    if (FAILED(hr)) return Fail(hr, "array index " + std::to_string(index) + " out of bounds");
    if (vt != VT_VARIANT) o->vt = vt;
    return S_OK;
}

int kv_register_test_class(void) {
    return Guard([] {
        HRESULT hr = RegisterTestClasses();
        return FAILED(hr) ? Fail(hr, "test classes cannot be registered") : int(hr);
    });
}
}
