// Member tables: for each dispatch interface, the DISPID, name, kind, type and
// parameters of every member, bound to the C++ functions that implement it.
// Invoke, GetIDsOfNames and the type information all read the same table.
//
//   const InterfaceInfo kIThing("IThing", IID_IThing, {
//       Property(1, "Name", VT_BSTR, Bind<&CThing::get_Name>(), Bind<&CThing::put_Name>()),
//       Method(2, "Add", VT_I4, Bind<&CThing::Add>(), {Arg("A", VT_I4), Opt("B", VT_I4, 10)}),
//   });
//
// A bound function returns HRESULT and takes the coerced arguments in
// declaration order, then, for a get or a method with a result, a pointer for
// the result. Argument types: BSTR (borrowed), int32_t, int16_t (also
// VARIANT_BOOL), uint8_t, double (also DATE), float, int64_t (also CY),
// IDispatch* (borrowed, may be null), IUnknown*, const VARIANT& (as passed, or
// "missing" when an optional VARIANT was left out), SAFEARRAY* (borrowed).
// Result pointers: BSTR*, int32_t*, int16_t*, uint8_t*, double*, float*,
// int64_t*, IDispatch** (one reference handed over), IUnknown**, SAFEARRAY**,
// VARIANT* (the callee sets the type).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "automation/interfaces.h"
#include "automation/safearray.h"

namespace kv::automation {

class ObjectBase;

// The default of an optional parameter, as the type library would state it.
struct DefaultValue {
    enum Kind : uint8_t { kNone, kInt, kReal, kText } kind = kNone;
    int64_t i = 0;
    double d = 0;
    const char* text = nullptr;
};

struct ParamInfo {
    const char* name;
    VARTYPE vt;  // VT_VARIANT takes the argument as passed; VT_BYREF marks [in,out]
    bool optional = false;
    DefaultValue def;  // kNone on an optional parameter: it arrives "missing"
};

inline ParamInfo Arg(const char* name, VARTYPE vt) { return {name, vt, false, {}}; }
inline ParamInfo Opt(const char* name, VARTYPE vt) { return {name, vt, true, {}}; }
inline ParamInfo Opt(const char* name, VARTYPE vt, int v) {
    return {name, vt, true, {DefaultValue::kInt, v, 0, nullptr}};
}
inline ParamInfo Opt(const char* name, VARTYPE vt, bool v) {
    return {name, vt, true, {DefaultValue::kInt, v ? -1 : 0, 0, nullptr}};
}
inline ParamInfo Opt(const char* name, VARTYPE vt, double v) {
    return {name, vt, true, {DefaultValue::kReal, 0, v, nullptr}};
}
inline ParamInfo Opt(const char* name, VARTYPE vt, const char* v) {
    return {name, vt, true, {DefaultValue::kText, 0, 0, v}};
}

// Writes the default of p into *out, coerced to p.vt. Object parameters
// default to a null reference.
HRESULT MakeDefault(const ParamInfo& p, VARIANT* out);

enum class ArgKind : uint8_t { Bstr, I4, I2, UI1, R8, R4, I8, Dispatch, Unknown, Variant, Array };

// True when a value of type vt is carried in a C++ argument of this kind.
bool KindFits(ArgKind kind, VARTYPE vt);

struct Signature {
    uint8_t ninputs;
    bool has_result;
    ArgKind inputs[16];
    ArgKind result;
};

using Thunk = HRESULT (*)(ObjectBase* self, VARIANT* args, VARIANT* result);

struct Binding {
    Thunk thunk = nullptr;
    const Signature* sig = nullptr;
    explicit operator bool() const { return thunk != nullptr; }
};

struct MemberInfo {
    DISPID dispid;
    const char* name;
    VARTYPE type;  // property type or method result; VT_EMPTY when there is none
    Binding get, put, putref, method;
    std::vector<ParamInfo> params;  // for a put, the value comes after these
    // DISPATCH_* bits this member answers. An event (no bindings) is a method.
    uint16_t Kinds() const;
    size_t RequiredCount() const;
};

MemberInfo Property(DISPID id, const char* name, VARTYPE type, Binding get, Binding put = {},
                    std::vector<ParamInfo> params = {});
// A property whose put takes an object reference (Set in a script).
MemberInfo PropertyRef(DISPID id, const char* name, VARTYPE type, Binding get, Binding putref);
MemberInfo Method(DISPID id, const char* name, VARTYPE result, Binding fn,
                  std::vector<ParamInfo> params = {});
// A member of an event interface: the sinks implement it.
MemberInfo Event(DISPID id, const char* name, std::vector<ParamInfo> params = {});

class InterfaceInfo {
public:
    InterfaceInfo(const char* name, const IID& iid, std::vector<MemberInfo> members);
    InterfaceInfo(const InterfaceInfo&) = delete;

    const char* name() const { return name_; }
    const IID& iid() const { return iid_; }
    const std::vector<MemberInfo>& members() const { return members_; }
    const MemberInfo* Find(DISPID id) const;
    // Member names compare ignoring case (ASCII letters).
    const MemberInfo* Find(std::u16string_view name) const;
    // Checks each binding against the declared types and counts; returns the
    // first disagreement, or an empty string.
    std::string Validate() const;

private:
    const char* name_;
    IID iid_;
    std::vector<MemberInfo> members_;
    std::vector<std::pair<DISPID, size_t>> by_id_;
    std::unordered_map<std::string, size_t> by_name_;
};

std::string FoldName(std::u16string_view name);

// ---- binding machinery ----

namespace detail {

template <class T>
struct In;
template <>
struct In<BSTR> {
    static constexpr ArgKind kind = ArgKind::Bstr;
    static BSTR Get(VARIANT& v) { return v.bstrVal; }
};
template <>
struct In<int32_t> {
    static constexpr ArgKind kind = ArgKind::I4;
    static int32_t Get(VARIANT& v) { return v.lVal; }
};
template <>
struct In<int16_t> {
    static constexpr ArgKind kind = ArgKind::I2;
    static int16_t Get(VARIANT& v) { return v.iVal; }
};
template <>
struct In<uint8_t> {
    static constexpr ArgKind kind = ArgKind::UI1;
    static uint8_t Get(VARIANT& v) { return v.bVal; }
};
template <>
struct In<double> {
    static constexpr ArgKind kind = ArgKind::R8;
    static double Get(VARIANT& v) { return v.dblVal; }
};
template <>
struct In<float> {
    static constexpr ArgKind kind = ArgKind::R4;
    static float Get(VARIANT& v) { return v.fltVal; }
};
template <>
struct In<int64_t> {
    static constexpr ArgKind kind = ArgKind::I8;
    static int64_t Get(VARIANT& v) { return v.llVal; }
};
template <>
struct In<IDispatch*> {
    static constexpr ArgKind kind = ArgKind::Dispatch;
    static IDispatch* Get(VARIANT& v) { return v.pdispVal; }
};
template <>
struct In<IUnknown*> {
    static constexpr ArgKind kind = ArgKind::Unknown;
    static IUnknown* Get(VARIANT& v) { return v.punkVal; }
};
template <>
struct In<const VARIANT&> {
    static constexpr ArgKind kind = ArgKind::Variant;
    static const VARIANT& Get(VARIANT& v) { return v; }
};
template <>
struct In<SAFEARRAY*> {
    static constexpr ArgKind kind = ArgKind::Array;
    static SAFEARRAY* Get(VARIANT& v) { return v.parray; }
};

template <class T>
struct Out {
    static constexpr bool valid = false;
};
#define KV_OUT(T, K, FIELD)                                   \
    template <>                                               \
    struct Out<T*> {                                          \
        static constexpr bool valid = true;                   \
        static constexpr ArgKind kind = ArgKind::K;           \
        static T* Slot(VARIANT* r) { return &r->FIELD; }      \
    }
KV_OUT(BSTR, Bstr, bstrVal);
KV_OUT(int32_t, I4, lVal);
KV_OUT(int16_t, I2, iVal);
KV_OUT(uint8_t, UI1, bVal);
KV_OUT(double, R8, dblVal);
KV_OUT(float, R4, fltVal);
KV_OUT(int64_t, I8, llVal);
KV_OUT(IDispatch*, Dispatch, pdispVal);
KV_OUT(IUnknown*, Unknown, punkVal);
KV_OUT(SAFEARRAY*, Array, parray);
#undef KV_OUT
template <>
struct Out<VARIANT*> {
    static constexpr bool valid = true;
    static constexpr ArgKind kind = ArgKind::Variant;
    static VARIANT* Slot(VARIANT* r) { return r; }
};

template <class... A>
constexpr bool LastIsResult() {
    if constexpr (sizeof...(A) == 0)
        return false;
    else
        return Out<std::tuple_element_t<sizeof...(A) - 1, std::tuple<A...>>>::valid;
}

template <class C, class... A>
constexpr Signature MakeSignature() {
    Signature s{};
    constexpr bool result = LastIsResult<A...>();
    constexpr size_t n = sizeof...(A) - (result ? 1 : 0);
    static_assert(n <= 16, "too many parameters");
    s.ninputs = uint8_t(n);
    s.has_result = result;
    if constexpr (result)
        s.result = Out<std::tuple_element_t<n, std::tuple<A...>>>::kind;
    [&]<size_t... I>(std::index_sequence<I...>) {
        ((s.inputs[I] = In<std::tuple_element_t<I, std::tuple<A...>>>::kind), ...);
    }(std::make_index_sequence<n>());
    return s;
}

template <auto F, class C, class... A>
struct Bound {
    static constexpr bool kResult = LastIsResult<A...>();
    static constexpr size_t kInputs = sizeof...(A) - (kResult ? 1 : 0);
    static constexpr Signature kSig = MakeSignature<C, A...>();

    template <size_t... I>
    static HRESULT Call(ObjectBase* self, VARIANT* args, VARIANT* result, std::index_sequence<I...>) {
        C* obj = static_cast<C*>(self);
        if constexpr (kResult) {
            using R = std::tuple_element_t<kInputs, std::tuple<A...>>;
            return (obj->*F)(In<std::tuple_element_t<I, std::tuple<A...>>>::Get(args[I])...,
                             Out<R>::Slot(result));
        } else {
            return (obj->*F)(In<std::tuple_element_t<I, std::tuple<A...>>>::Get(args[I])...);
        }
    }
    static HRESULT Thunk(ObjectBase* self, VARIANT* args, VARIANT* result) {
        return Call(self, args, result, std::make_index_sequence<kInputs>());
    }
};

template <auto F, class C, class... A>
Binding BindMember(HRESULT (C::*)(A...)) {
    using B = Bound<F, C, A...>;
    return Binding{&B::Thunk, &B::kSig};
}

}  // namespace detail

template <auto F>
Binding Bind() {
    return detail::BindMember<F>(F);
}

}  // namespace kv::automation
