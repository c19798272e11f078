#include "shell/registration.h"

#include <dlfcn.h>

#include "automation/catalogue.h"
#include "automation/guid.h"
#include "automation/object.h"
#include "platform/keystore.h"
#include "shell/classes.h"
#include "shell/identifiers.h"

namespace kv::shell {

using automation::GuidFromString;
using automation::GuidToString;

namespace {

constexpr const char* kTypeLibHelp = "Korvane Objects 9.4 Type Library";

std::string Directory(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

// Dual interfaces of the implemented classes, for the Interface keys.
void InterfaceKeys(platform::KeyStore& store, bool add) {
    std::string libid = GuidToString(LIBID_Korvane);
    for (const ClassInfo* cls : CatalogueClasses()) {
        if (!cls->iface) continue;
        std::string key = "Interface\\" + GuidToString(cls->iface->iid());
        if (!add) {
            store.DeleteTree(key);
            continue;
        }
        store.SetValue(key, "", cls->iface->name());
        store.SetValue(key + "\\TypeLib", "", libid);
        store.SetValue(key + "\\TypeLib", "Version", "1.0");
    }
}

HRESULT Update(const std::string& store_path, bool add) {
    RegisterCatalogue();
    platform::KeyStore store;
    if (!store.Load(store_path)) return E_FAIL;
    std::string library = LibraryPath();
    std::string libid = GuidToString(LIBID_Korvane);
    store.CreateKey("CLSID");  // never removed
    for (const ClassInfo* cls : CatalogueClasses()) {
        std::string progid = cls->progid;
        std::string versioned = progid + ".1";
        std::string clsid = GuidToString(cls->clsid);
        std::string class_key = "CLSID\\" + clsid;
        store.DeleteTree(versioned);
        store.DeleteTree(progid);
        store.DeleteTree(class_key);
        if (!add) continue;
        store.SetValue(versioned, "", cls->description);
        store.SetValue(versioned + "\\CLSID", "", clsid);
        store.SetValue(progid, "", cls->description);
        store.SetValue(progid + "\\CLSID", "", clsid);
        store.SetValue(progid + "\\CurVer", "", versioned);
        store.SetValue(class_key, "", cls->description);
        store.SetValue(class_key + "\\ProgID", "", versioned);
        store.SetValue(class_key + "\\VersionIndependentProgID", "", progid);
        store.CreateKey(class_key + "\\Programmable");
        store.SetValue(class_key + "\\InprocServer32", "", library);
        store.SetValue(class_key + "\\InprocServer32", "ThreadingModel", "Apartment");
        store.SetValue(class_key + "\\TypeLib", "", libid);
    }
    std::string typelib = "TypeLib\\" + libid;
    store.DeleteTree(typelib);
    InterfaceKeys(store, add);
    if (add) {
        store.SetValue(typelib + "\\1.0", "", kTypeLibHelp);
        store.SetValue(typelib + "\\1.0\\409\\linux64", "", library);
        store.SetValue(typelib + "\\1.0\\FLAGS", "", "0");
        store.SetValue(typelib + "\\1.0\\HELPDIR", "", Directory(library));
    }
    return store.Save(store_path) ? S_OK : E_FAIL;
}

// ProgID (either form) -> CLSID value -> InprocServer32 of that class.
HRESULT ResolveFromStore(const char* store_path, const char* progid, CLSID* clsid,
                         std::string* library) {
    platform::KeyStore store;
    std::string path = store_path && *store_path ? store_path : platform::DefaultKeyStorePath();
    if (!store.Load(path)) return REGDB_E_CLASSNOTREG;
    std::string text;
    if (!store.GetValue(std::string(progid) + "\\CLSID", "", text) || !GuidFromString(text, clsid))
        return REGDB_E_CLASSNOTREG;
    std::string server;
    if (!store.GetValue("CLSID\\" + GuidToString(*clsid) + "\\InprocServer32", "", server))
        return REGDB_E_CLASSNOTREG;
    *library = server == LibraryPath() ? std::string() : server;
    return S_OK;
}

}  // namespace

std::string LibraryPath() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&LibraryPath), &info) && info.dli_fname)
        return info.dli_fname;
    return std::string();
}

HRESULT RegisterServer(const std::string& store_path) { return Update(store_path, true); }
HRESULT UnregisterServer(const std::string& store_path) { return Update(store_path, false); }

void InstallStoreResolver() { automation::SetRegisteredResolver(&ResolveFromStore); }

}  // namespace kv::shell

// ---- the library's entry points --------------------------------------------------------

using kv::shell::RegisterCatalogue;

extern "C" __attribute__((visibility("default"))) HRESULT DllGetClassObject(REFCLSID clsid,
                                                                           REFIID riid,
                                                                           void** ppv) {
    RegisterCatalogue();
    return kv::automation::Catalogue::Instance().GetClassObject(clsid, riid, ppv);
}

extern "C" __attribute__((visibility("default"))) HRESULT DllCanUnloadNow() {
    return kv::automation::LiveObjects() == 0 && kv::automation::ServerLocks() == 0 ? S_OK
                                                                                    : S_FALSE;
}

extern "C" __attribute__((visibility("default"))) HRESULT DllRegisterServer() {
    return kv::shell::RegisterServer(kv::platform::DefaultKeyStorePath());
}

extern "C" __attribute__((visibility("default"))) HRESULT DllUnregisterServer() {
    return kv::shell::UnregisterServer(kv::platform::DefaultKeyStorePath());
}

extern "C" __attribute__((visibility("default"))) int kv_register_server(const char* store) {
    return kv::shell::RegisterServer(store && *store ? store : kv::platform::DefaultKeyStorePath());
}

extern "C" __attribute__((visibility("default"))) int kv_unregister_server(const char* store) {
    return kv::shell::UnregisterServer(store && *store ? store
                                                       : kv::platform::DefaultKeyStorePath());
}
