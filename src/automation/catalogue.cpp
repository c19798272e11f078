#include "automation/catalogue.h"

#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <mutex>

#include "automation/object.h"

namespace kv::automation {

namespace {

std::mutex g_mutex;  // guards the catalogue's list and the resolver
std::atomic<long> g_locks{0};
RegisteredResolver g_resolver = nullptr;

bool SameProgID(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

// "P" or "P.1": the version-dependent name has the number 1 for every class.
bool MatchesProgID(const ClassInfo& cls, std::string_view name) {
    std::string_view p = cls.progid;
    if (SameProgID(name, p)) return true;
    return name.size() == p.size() + 2 && name.substr(p.size()) == ".1" &&
           SameProgID(name.substr(0, p.size()), p);
}

class ClassFactory final : public UnknownImpl<IClassFactory, IID_IClassFactory> {
public:
    explicit ClassFactory(const ClassInfo& cls) : cls_(cls) {}
    HRESULT CreateInstance(IUnknown* outer, REFIID riid, void** ppv) override {
        if (!ppv) return E_POINTER;
        *ppv = nullptr;
        if (outer) return CLASS_E_NOAGGREGATION;
        if (!cls_.create) return CLASS_E_CLASSNOTAVAILABLE;
        IDispatch* obj = nullptr;
        if (HRESULT hr = cls_.create(&obj); FAILED(hr)) return hr;
        HRESULT hr = obj->QueryInterface(riid, ppv);
        obj->Release();
        return hr;
    }
    HRESULT LockServer(int32_t lock) override {
        if (lock)
            ++g_locks;
        else if (g_locks.load() > 0)
            --g_locks;
        return S_OK;
    }

private:
    ~ClassFactory() = default;
    const ClassInfo& cls_;
};

}  // namespace

long ServerLocks() { return g_locks.load(); }

Catalogue& Catalogue::Instance() {
    static Catalogue* c = new Catalogue();  // never destroyed: objects may outlive static teardown
    return *c;
}

HRESULT Catalogue::Register(const ClassInfo& cls, std::string* why) {
    auto fail = [&](std::string text) {
        if (why) *why = std::string(cls.progid ? cls.progid : "?") + ": " + text;
        return E_INVALIDARG;
    };
    if (!cls.progid || !cls.name || !cls.iface) return fail("incomplete class");
    for (const InterfaceInfo* i : {cls.iface, cls.events}) {
        if (!i) continue;
        std::string err = i->Validate();
        if (!err.empty()) return fail(err);
    }
    std::lock_guard<std::mutex> lock(g_mutex);
    for (const ClassInfo* c : classes_) {
        if (c == &cls) return S_OK;
        if (SameProgID(c->progid, cls.progid)) return fail("ProgID taken");
        if (c->clsid == cls.clsid) return fail("class identifier taken");
    }
    classes_.push_back(&cls);
    return S_OK;
}

const ClassInfo* Catalogue::FindProgID(std::string_view progid) const {
    std::lock_guard<std::mutex> lock(g_mutex);
    for (const ClassInfo* c : classes_)
        if (MatchesProgID(*c, progid)) return c;
    return nullptr;
}

const ClassInfo* Catalogue::FindClsid(const CLSID& clsid) const {
    std::lock_guard<std::mutex> lock(g_mutex);
    for (const ClassInfo* c : classes_)
        if (c->clsid == clsid) return c;
    return nullptr;
}

std::vector<const ClassInfo*> Catalogue::Classes() const {
    std::lock_guard<std::mutex> lock(g_mutex);
    return classes_;
}

HRESULT Catalogue::GetClassObject(REFCLSID clsid, REFIID riid, void** ppv) const {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    const ClassInfo* cls = FindClsid(clsid);
    if (!cls) return CLASS_E_CLASSNOTAVAILABLE;
    auto* f = new ClassFactory(*cls);
    HRESULT hr = f->QueryInterface(riid, ppv);
    f->Release();
    return hr;
}

HRESULT Catalogue::CreateObject(std::string_view progid, IDispatch** out) const {
    if (!out) return E_POINTER;
    *out = nullptr;
    const ClassInfo* cls = FindProgID(progid);
    if (!cls) return CO_E_CLASSSTRING;
    IClassFactory* f = nullptr;
    if (HRESULT hr = GetClassObject(cls->clsid, IID_IClassFactory, reinterpret_cast<void**>(&f)); FAILED(hr))
        return hr;
    HRESULT hr = f->CreateInstance(nullptr, IID_IDispatch, reinterpret_cast<void**>(out));
    f->Release();
    return hr;
}

void SetRegisteredResolver(RegisteredResolver resolver) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_resolver = resolver;
}

namespace {

// Where this code was loaded from, to tell "our own library" from another.
std::string OwnLibrary() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&OwnLibrary), &info) && info.dli_fname) return info.dli_fname;
    return std::string();
}

}  // namespace

HRESULT CreateRegistered(const char* store, const char* progid, IDispatch** out) {
    if (!out || !progid) return E_POINTER;
    *out = nullptr;
    RegisteredResolver resolver;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        resolver = g_resolver;
    }
    if (!resolver) return REGDB_E_CLASSNOTREG;
    CLSID clsid{};
    std::string library;
    if (HRESULT hr = resolver(store, progid, &clsid, &library); FAILED(hr)) return hr;
    IClassFactory* f = nullptr;
    HRESULT hr;
    if (library.empty() || library == OwnLibrary()) {
        hr = Catalogue::Instance().GetClassObject(clsid, IID_IClassFactory, reinterpret_cast<void**>(&f));
    } else {
        // Kept loaded, as the runtime keeps a server while it may have objects out.
        void* handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!handle) return REGDB_E_CLASSNOTREG;
        using GetClassObjectFn = HRESULT (*)(REFCLSID, REFIID, void**);
        auto entry = reinterpret_cast<GetClassObjectFn>(dlsym(handle, "DllGetClassObject"));
        if (!entry) return REGDB_E_CLASSNOTREG;
        hr = entry(clsid, IID_IClassFactory, reinterpret_cast<void**>(&f));
    }
    if (FAILED(hr)) return hr;
    hr = f->CreateInstance(nullptr, IID_IDispatch, reinterpret_cast<void**>(out));
    f->Release();
    return hr;
}

}  // namespace kv::automation
