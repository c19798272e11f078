// Properties bound straight to fields, so that a plain property is written
// once, in its table row:
//
//   FieldGet<CThing, &CThing::Count>(12, "Count"),                 // read only
//   Field<CThing, &CThing::Name>(13, "Name"),                      // read, write
//   Field<CThing, &CThing::Port, NonNegative>(14, "Port"),          // a refused value is ignored
//   Field<CThing, &CThing::Level, InRange<0, 3>>(15, "Level"),
//   Field<CThing, &CThing::Path, nullptr, &CThing::PathChanged>(16, "Path"),  // told after a write
//
// The field may be a data member of C or of a base of C, or a member function
// of C returning a reference to the value (for a value held deeper inside).
// How a field crosses: int32_t as I4; bool as BOOL; bstring as BSTR byte for
// byte through code page 1252 (raw text, as the message's raw side), empty as
// null; wbstring as BSTR unit for unit, empty as empty; a pointer to one of
// our objects as a new reference (read only). Where the type does not say
// it, the row wraps the field:
//
//   Field<CThing, AsBool<&CThing::Flag>>(17, "Flag"),                 // int32_t 0/1 as BOOL
//   FieldGet<CThing, AsDate<&CThing::Expiry>>(18, "Expiry"),           // double as DATE
//   Field<CThing, AsUtf8<&CThing::Issuer>>(19, "Issuer"),              // bstring as UTF-8
//   FieldGet<CThing, NullWhileEmpty<AsUtf8<&CThing::Issuer>>>(20, "Issuer"),  // empty as null
//   FieldGet<CThing, InCodepage<&CThing::Name, &CThing::Codepage>>(21, "Name"),
//       // a bstring through the code page another field holds (read only)
//
// A check is a function bool(T) that accepts a written value; a refused value
// leaves the field as it was and the write still succeeds, as the objects'
// properties behave. The change hook is a member function void() of C, called
// after an accepted write.
//
// BindOn<C, &Base::Member>() binds a member function that a base of C
// implements (Bind deduces the class from the pointer, which must then be C).
#pragma once

#include <cstdint>
#include <type_traits>

#include "automation/members.h"
#include "foundation/bstring.h"

namespace kv::automation {

inline bool NonNegative(int32_t v) { return v >= 0; }
template <int32_t Lo, int32_t Hi>
bool InRange(int32_t v) {
    return v >= Lo && v <= Hi;
}

namespace detail {

// A wire says how a value crosses: Wire, the C++ type Invoke hands over; vt;
// Out(field), or Out(object, field), for a read; In(wire) for a write.
template <class T>
struct FieldWire;
template <>
struct FieldWire<int32_t> {
    using Wire = int32_t;
    static constexpr VARTYPE vt = VT_I4;
    static Wire Out(const int32_t& f) { return f; }
    static int32_t In(Wire w) { return w; }
};
template <>
struct FieldWire<bool> {
    using Wire = int16_t;
    static constexpr VARTYPE vt = VT_BOOL;
    static Wire Out(const bool& f) { return f ? VARIANT_TRUE : VARIANT_FALSE; }
    static bool In(Wire w) { return w != 0; }
};
// bstring text through a code page both ways; 0 is the raw road.
template <int Codepage>
struct TextWire {
    using Wire = BSTR;
    static constexpr VARTYPE vt = VT_BSTR;
    static Wire Out(const bstring& f) { return f.to_bstr(Codepage); }
    static bstring In(Wire w) {
        bstring s;
        s.assign_bstr_cp(w, Codepage);
        return s;
    }
};
template <>
struct FieldWire<bstring> : TextWire<0> {};
template <>
struct FieldWire<wbstring> {
    using Wire = BSTR;
    static constexpr VARTYPE vt = VT_BSTR;
    static Wire Out(const wbstring& f) { return f.to_bstr(); }
    static wbstring In(Wire w) {
        wbstring s;
        s.assign_bstr(w);
        return s;
    }
};
template <class T>
    requires std::is_base_of_v<IDispatch, T>
struct FieldWire<T*> {
    using Wire = IDispatch*;
    static constexpr VARTYPE vt = VT_DISPATCH;
    static Wire Out(T* f) {
        if (f) f->AddRef();
        return f;
    }
};

struct FlagWire {
    using Wire = int16_t;
    static constexpr VARTYPE vt = VT_BOOL;
    static Wire Out(const int32_t& f) { return f ? VARIANT_TRUE : VARIANT_FALSE; }
    static int32_t In(Wire w) { return w ? 1 : 0; }
};
struct DateWire {
    using Wire = double;
    static constexpr VARTYPE vt = VT_DATE;
    static Wire Out(const double& f) { return f; }
    static double In(Wire w) { return w; }
};
struct NullWhileEmptyTag {};
template <class Inner>
struct NullWhileEmptyWire : Inner {
    template <class T>
    static typename Inner::Wire Out(const T& f) {
        return f.nSize > 0 ? Inner::Out(f) : nullptr;
    }
};
template <auto Codepage>
struct CodepageWire {
    using Wire = BSTR;
    static constexpr VARTYPE vt = VT_BSTR;
    template <class C>
    static Wire Out(C& c, const bstring& f) {
        return f.to_bstr(c.*Codepage);
    }
};

// The field F crossing as Wire instead of as its type says. The value carries
// nothing: both live in the type, so that it can stand as a template argument.
template <class Wire, auto F>
struct Crossing {
    static constexpr auto field = F;
    using wire = Wire;
};
template <class T>
inline constexpr bool kIsCrossingType = false;
template <class W, auto F>
inline constexpr bool kIsCrossingType<Crossing<W, F>> = true;
// An object standing as a template argument is const to some compilers and
// not to others.
template <class T>
inline constexpr bool kIsCrossing = kIsCrossingType<std::remove_cv_t<T>>;

// The value F names inside an object of C.
template <class C, auto F>
decltype(auto) FieldOf(C& c) {
    if constexpr (kIsCrossing<decltype(F)>)
        return FieldOf<C, std::remove_cv_t<decltype(F)>::field>(c);
    else if constexpr (std::is_member_object_pointer_v<decltype(F)>)
        return (c.*F);
    else
        return (c.*F)();
}

template <class C, auto F>
using FieldType = std::remove_cvref_t<decltype(FieldOf<C, F>(std::declval<C&>()))>;

template <class C, auto F>
auto WireOf() {
    if constexpr (kIsCrossing<decltype(F)>) {
        using Wire = typename std::remove_cv_t<decltype(F)>::wire;
        if constexpr (std::is_same_v<Wire, NullWhileEmptyTag>)
            return NullWhileEmptyWire<decltype(WireOf<C, std::remove_cv_t<decltype(F)>::field>())>{};
        else
            return Wire{};
    } else {
        return FieldWire<FieldType<C, F>>{};
    }
}

template <class C, auto F, auto Check, auto Changed>
struct FieldBinder {
    using T = FieldType<C, F>;
    using W = decltype(WireOf<C, F>());
    using Wire = typename W::Wire;
    static constexpr Signature kGetSig{0, true, {}, Out<Wire*>::kind};
    static constexpr Signature kPutSig{1, false, {In<Wire>::kind}, ArgKind::I4};

    static HRESULT Get(ObjectBase* self, VARIANT*, VARIANT* result) {
        C& c = *static_cast<C*>(self);
        if constexpr (requires { W::Out(c, FieldOf<C, F>(c)); })
            *Out<Wire*>::Slot(result) = W::Out(c, FieldOf<C, F>(c));
        else
            *Out<Wire*>::Slot(result) = W::Out(FieldOf<C, F>(c));
        return S_OK;
    }
    static HRESULT Put(ObjectBase* self, VARIANT* args, VARIANT*) {
        C& c = *static_cast<C*>(self);
        T value = W::In(In<Wire>::Get(args[0]));
        if constexpr (!std::is_null_pointer_v<decltype(Check)>)
            if (!Check(value)) return S_OK;
        FieldOf<C, F>(c) = std::move(value);
        if constexpr (!std::is_null_pointer_v<decltype(Changed)>) (c.*Changed)();
        return S_OK;
    }
};

template <class C, auto F, class B, class... A>
Binding BindOnMember(HRESULT (B::*)(A...)) {
    static_assert(std::is_base_of_v<B, C>);
    using Bd = Bound<F, C, A...>;
    return Binding{&Bd::Thunk, &Bd::kSig};
}

}  // namespace detail

template <auto F>
inline constexpr detail::Crossing<detail::FlagWire, F> AsBool{};
template <auto F>
inline constexpr detail::Crossing<detail::DateWire, F> AsDate{};
template <auto F>
inline constexpr detail::Crossing<detail::TextWire<65001>, F> AsUtf8{};
// F a string field, or a string field wrapped as above.
template <auto F>
inline constexpr detail::Crossing<detail::NullWhileEmptyTag, F> NullWhileEmpty{};
template <auto F, auto Codepage>
inline constexpr detail::Crossing<detail::CodepageWire<Codepage>, F> InCodepage{};

template <class C, auto F>
MemberInfo FieldGet(DISPID id, const char* name) {
    using B = detail::FieldBinder<C, F, nullptr, nullptr>;
    return Property(id, name, B::W::vt, Binding{&B::Get, &B::kGetSig});
}

template <class C, auto F, auto Check = nullptr, auto Changed = nullptr>
MemberInfo Field(DISPID id, const char* name) {
    using B = detail::FieldBinder<C, F, Check, Changed>;
    return Property(id, name, B::W::vt, Binding{&B::Get, &B::kGetSig}, Binding{&B::Put, &B::kPutSig});
}

template <class C, auto F>
Binding BindOn() {
    return detail::BindOnMember<C, F>(F);
}

}  // namespace kv::automation
