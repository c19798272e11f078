// What the benchmarks share to reach objects the way a host does.
#pragma once

#include <cstring>
#include <string>

#include "automation/bstr.h"
#include "automation/interfaces.h"
#include "automation/variant.h"

namespace bench {

// Writes a text property the way a host does, through the object's dispatch.
inline void PutText(IDispatch* object, const char* name, const std::string& value) {
    std::u16string wide(name, name + std::strlen(name));
    OLECHAR* names[] = {wide.data()};
    DISPID id = 0;
    object->GetIDsOfNames(GUID_NULL, names, 1, 0, &id);
    VARIANT v;
    VariantInit(&v);
    v.vt = VT_BSTR;
    v.bstrVal = kv::automation::Bstr::FromUtf8(value).Detach();
    DISPID named = DISPID_PROPERTYPUT;
    DISPPARAMS dp{&v, &named, 1, 1};
    object->Invoke(id, GUID_NULL, 0, DISPATCH_PROPERTYPUT, &dp, nullptr, nullptr, nullptr);
    VariantClear(&v);
}

}  // namespace bench
