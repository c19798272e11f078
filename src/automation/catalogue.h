// The catalogue of classes: ProgID to class identifier to class factory, and
// CreateObject by ProgID, as a host reaches the objects of the library.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "automation/interfaces.h"
#include "automation/members.h"

namespace kv::automation {

struct ClassInfo {
    const char* name;         // the C++ class, e.g. "CMessage"
    const char* progid;       // version-independent, e.g. "Korvane.Message"
    const char* description;  // e.g. "Message Class"
    CLSID clsid;
    const InterfaceInfo* iface;   // default dispatch interface
    const InterfaceInfo* events;  // default event interface, or null
    bool creatable;               // the mark a type library sets for hosts
    // Makes a new object holding one reference. Null while the class is not
    // available yet: its factory then answers CLASS_E_CLASSNOTAVAILABLE.
    HRESULT (*create)(IDispatch** out);
};

class Catalogue {
public:
    static Catalogue& Instance();

    // Adds a class, known afterwards by its ProgID, by "ProgID.1" and by its
    // class identifier. The member tables are checked first: E_INVALIDARG with
    // *why set when they disagree with their bindings or a name or identifier is
    // taken by another class. Registering the same ClassInfo again is a no-op.
    HRESULT Register(const ClassInfo& cls, std::string* why = nullptr);
    // ProgIDs compare ignoring case.
    const ClassInfo* FindProgID(std::string_view progid) const;
    const ClassInfo* FindClsid(const CLSID& clsid) const;
    // In registration order.
    std::vector<const ClassInfo*> Classes() const;

    // The class factory of a class (CLASS_E_CLASSNOTAVAILABLE if unknown).
    HRESULT GetClassObject(REFCLSID clsid, REFIID riid, void** ppv) const;
    // CO_E_CLASSSTRING for an unknown ProgID; the factory's status otherwise.
    HRESULT CreateObject(std::string_view progid, IDispatch** out) const;

private:
    Catalogue() = default;
    std::vector<const ClassInfo*> classes_;
};

// Class factory locks held now (IClassFactory::LockServer).
long ServerLocks();

// Creation through the key store, as the runtime does it: the resolver reads
// the store for a ProgID and gives the class identifier and the library that
// serves it. An empty library, or this library itself, means the in-process
// catalogue; another library is loaded and asked through DllGetClassObject.
using RegisteredResolver = HRESULT (*)(const char* store, const char* progid, CLSID* clsid,
                                       std::string* library);
void SetRegisteredResolver(RegisteredResolver resolver);
// REGDB_E_CLASSNOTREG while no resolver is set.
HRESULT CreateRegistered(const char* store, const char* progid, IDispatch** out);

}  // namespace kv::automation
