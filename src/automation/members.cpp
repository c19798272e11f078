#include "automation/members.h"

#include <algorithm>

namespace kv::automation {

HRESULT MakeDefault(const ParamInfo& p, VARIANT* out) {
    VariantInit(out);
    VARTYPE vt = p.vt & ~VT_BYREF;
    if (vt == VT_DISPATCH || vt == VT_UNKNOWN) {
        out->vt = vt;
        out->punkVal = nullptr;
        return S_OK;
    }
    VARIANT given;
    switch (p.def.kind) {
        case DefaultValue::kNone: *out = MakeMissing(); return S_OK;
        case DefaultValue::kInt:
            VariantInit(&given);
            if (vt == VT_BOOL) {
                given = MakeBool(p.def.i != 0);
            } else if (p.def.i >= INT32_MIN && p.def.i <= INT32_MAX) {
                given = MakeI4(int32_t(p.def.i));
            } else {
                given.vt = VT_I8;
                given.llVal = p.def.i;
            }
            break;
        case DefaultValue::kReal: given = MakeR8(p.def.d); break;
        case DefaultValue::kText: given = MakeBstr(p.def.text); break;
    }
    HRESULT hr = vt == VT_VARIANT ? VariantCopy(out, &given) : VariantChangeType(out, &given, 0, vt);
    VariantClear(&given);
    return hr;
}

bool KindFits(ArgKind kind, VARTYPE vt) {
    if (vt & VT_BYREF) return false;
    if (vt & VT_ARRAY) return kind == ArgKind::Array;
    switch (kind) {
        case ArgKind::Bstr: return vt == VT_BSTR;
        case ArgKind::I4: return vt == VT_I4 || vt == VT_INT || vt == VT_UI4 || vt == VT_UINT || vt == VT_ERROR;
        case ArgKind::I2: return vt == VT_I2 || vt == VT_UI2 || vt == VT_BOOL;
        case ArgKind::UI1: return vt == VT_UI1 || vt == VT_I1;
        case ArgKind::R8: return vt == VT_R8 || vt == VT_DATE;
        case ArgKind::R4: return vt == VT_R4;
        case ArgKind::I8: return vt == VT_I8 || vt == VT_UI8 || vt == VT_CY;
        case ArgKind::Dispatch: return vt == VT_DISPATCH;
        case ArgKind::Unknown: return vt == VT_UNKNOWN;
        case ArgKind::Variant: return vt == VT_VARIANT;
        case ArgKind::Array: return false;
    }
    return false;
}

uint16_t MemberInfo::Kinds() const {
    uint16_t k = 0;
    if (method) k |= DISPATCH_METHOD;
    if (get) k |= DISPATCH_PROPERTYGET;
    if (put) k |= DISPATCH_PROPERTYPUT;
    if (putref) k |= DISPATCH_PROPERTYPUTREF;
    return k ? k : uint16_t(DISPATCH_METHOD);
}

size_t MemberInfo::RequiredCount() const {
    size_t n = 0;
    for (const ParamInfo& p : params)
        if (!p.optional) ++n;
    return n;
}

MemberInfo Property(DISPID id, const char* name, VARTYPE type, Binding get, Binding put,
                    std::vector<ParamInfo> params) {
    MemberInfo m{id, name, type, get, put, {}, {}, std::move(params)};
    return m;
}

MemberInfo PropertyRef(DISPID id, const char* name, VARTYPE type, Binding get, Binding putref) {
    return MemberInfo{id, name, type, get, {}, putref, {}, {}};
}

MemberInfo Method(DISPID id, const char* name, VARTYPE result, Binding fn, std::vector<ParamInfo> params) {
    return MemberInfo{id, name, result, {}, {}, {}, fn, std::move(params)};
}

MemberInfo Event(DISPID id, const char* name, std::vector<ParamInfo> params) {
    return MemberInfo{id, name, VT_EMPTY, {}, {}, {}, {}, std::move(params)};
}

std::string FoldName(std::u16string_view name) {
    std::string out;
    out.reserve(name.size());
    for (char16_t c : name) {
        if (c >= u'A' && c <= u'Z')
            out.push_back(char(c - u'A' + 'a'));
        else if (c < 0x80)
            out.push_back(char(c));
        else  // other letters keep their units, so they only match themselves
            out.append({char(0x80 | (c >> 8)), char(c & 0xFF)});
    }
    return out;
}

InterfaceInfo::InterfaceInfo(const char* name, const IID& iid, std::vector<MemberInfo> members)
    : name_(name), iid_(iid), members_(std::move(members)) {
    for (size_t i = 0; i < members_.size(); ++i) {
        by_id_.emplace_back(members_[i].dispid, i);
        std::u16string wide;
        for (const char* p = members_[i].name; *p; ++p) wide.push_back(char16_t(static_cast<unsigned char>(*p)));
        by_name_.emplace(FoldName(wide), i);
    }
    std::sort(by_id_.begin(), by_id_.end());
}

const MemberInfo* InterfaceInfo::Find(DISPID id) const {
    auto it = std::lower_bound(by_id_.begin(), by_id_.end(), std::make_pair(id, size_t(0)));
    return it != by_id_.end() && it->first == id ? &members_[it->second] : nullptr;
}

const MemberInfo* InterfaceInfo::Find(std::u16string_view name) const {
    auto it = by_name_.find(FoldName(name));
    return it == by_name_.end() ? nullptr : &members_[it->second];
}

namespace {

std::string CheckInputs(const MemberInfo& m, const char* what, const Signature& sig,
                        size_t expected, VARTYPE value_type) {
    std::string where = std::string(m.name) + " (" + what + "): ";
    if (sig.ninputs != expected)
        return where + "function takes " + std::to_string(sig.ninputs) + " arguments, table says " +
               std::to_string(expected);
    for (size_t i = 0; i < m.params.size() && i < expected; ++i)
        if (!KindFits(sig.inputs[i], m.params[i].vt))
            return where + "parameter " + m.params[i].name + " has the wrong C++ type";
    if (expected == m.params.size() + 1 && !KindFits(sig.inputs[expected - 1], value_type))
        return where + "value has the wrong C++ type";
    return std::string();
}

}  // namespace

std::string InterfaceInfo::Validate() const {
    for (size_t i = 1; i < by_id_.size(); ++i)
        if (by_id_[i].first == by_id_[i - 1].first)
            return std::string(name_) + ": DISPID " + std::to_string(by_id_[i].first) + " twice";
    if (by_name_.size() != members_.size()) return std::string(name_) + ": a name is used twice";
    for (const MemberInfo& m : members_) {
        bool seen_optional = false;
        for (const ParamInfo& p : m.params) {
            if (seen_optional && !p.optional)
                return std::string(m.name) + ": required parameter after an optional one";
            seen_optional |= p.optional;
            if (p.optional && p.def.kind != DefaultValue::kNone) {
                VARIANT v;
                if (FAILED(MakeDefault(p, &v)))
                    return std::string(m.name) + ": default of " + p.name + " does not fit its type";
                VariantClear(&v);
            }
        }
        std::string err;
        if (m.method) {
            if (m.method.sig->has_result != (m.type != VT_EMPTY))
                return std::string(m.name) + " (method): result does not match the table";
            if (m.method.sig->has_result && !KindFits(m.method.sig->result, m.type))
                return std::string(m.name) + " (method): result has the wrong C++ type";
            err = CheckInputs(m, "method", *m.method.sig, m.params.size(), m.type);
        }
        if (err.empty() && m.get) {
            if (!m.get.sig->has_result || !KindFits(m.get.sig->result, m.type))
                return std::string(m.name) + " (get): result has the wrong C++ type";
            err = CheckInputs(m, "get", *m.get.sig, m.params.size(), m.type);
        }
        for (const Binding* b : {&m.put, &m.putref}) {
            if (!err.empty() || !*b) continue;
            if (b->sig->has_result) return std::string(m.name) + " (put): a put has no result";
            err = CheckInputs(m, "put", *b->sig, m.params.size() + 1, m.type);
        }
        if (!err.empty()) return err;
    }
    return std::string();
}

}  // namespace kv::automation
