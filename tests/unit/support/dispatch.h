// Properties read and written by name through IDispatch (GetIDsOfNames, then
// Invoke), the way a host reaches them.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "automation/bstr.h"
#include "automation/interfaces.h"
#include "automation/variant.h"

namespace kv::testing {

inline DISPID DispidOf(IDispatch* o, const char* name) {
    std::u16string wide(name, name + std::char_traits<char>::length(name));
    OLECHAR* names[] = {wide.data()};
    DISPID id = DISPID_UNKNOWN;
    EXPECT_EQ(o->GetIDsOfNames(GUID_NULL, names, 1, 0, &id), S_OK) << name;
    return id;
}

// Writes value to the property and clears it; the status of the write.
inline HRESULT PutProperty(IDispatch* o, const char* name, VARIANT value) {
    DISPID named = DISPID_PROPERTYPUT;
    DISPPARAMS dp{&value, &named, 1, 1};
    HRESULT hr = o->Invoke(DispidOf(o, name), GUID_NULL, 0, DISPATCH_PROPERTYPUT, &dp, nullptr, nullptr,
                           nullptr);
    VariantClear(&value);
    return hr;
}
inline HRESULT PutText(IDispatch* o, const char* name, const std::string& utf8) {
    return PutProperty(o, name, automation::MakeBstr(utf8.c_str()));
}

// The value read, for the caller to clear; a failed read fails the test.
inline VARIANT GetProperty(IDispatch* o, const char* name) {
    DISPPARAMS dp{nullptr, nullptr, 0, 0};
    VARIANT r;
    VariantInit(&r);
    EXPECT_EQ(o->Invoke(DispidOf(o, name), GUID_NULL, 0, DISPATCH_PROPERTYGET, &dp, &r, nullptr, nullptr),
              S_OK)
        << name;
    return r;
}
// A text property as UTF-8, a null string as "".
inline std::string GetText(IDispatch* o, const char* name) {
    VARIANT v = GetProperty(o, name);
    EXPECT_EQ(v.vt, VT_BSTR) << name;
    std::string text = v.vt == VT_BSTR ? automation::Utf16ToUtf8(std::u16string_view(
                                             v.bstrVal ? v.bstrVal : u"", SysStringLen(v.bstrVal)))
                                       : std::string();
    VariantClear(&v);
    return text;
}

}  // namespace kv::testing
