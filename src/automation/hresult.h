// HRESULT: the automation runtime's status word, with the Windows values, so
// that a host that knows them reads ours unchanged.
#pragma once

#include <cstdint>

typedef int32_t HRESULT;
typedef int32_t SCODE;

#define KV_HR(x) static_cast<HRESULT>(x##u)

inline constexpr HRESULT S_OK = 0;
inline constexpr HRESULT S_FALSE = 1;
inline constexpr HRESULT E_NOTIMPL = KV_HR(0x80004001);
inline constexpr HRESULT E_NOINTERFACE = KV_HR(0x80004002);
inline constexpr HRESULT E_POINTER = KV_HR(0x80004003);
inline constexpr HRESULT E_FAIL = KV_HR(0x80004005);
inline constexpr HRESULT E_UNEXPECTED = KV_HR(0x8000FFFF);
inline constexpr HRESULT E_ACCESSDENIED = KV_HR(0x80070005);
inline constexpr HRESULT E_OUTOFMEMORY = KV_HR(0x8007000E);
inline constexpr HRESULT E_INVALIDARG = KV_HR(0x80070057);

inline constexpr HRESULT DISP_E_UNKNOWNINTERFACE = KV_HR(0x80020001);
inline constexpr HRESULT DISP_E_MEMBERNOTFOUND = KV_HR(0x80020003);
inline constexpr HRESULT DISP_E_PARAMNOTFOUND = KV_HR(0x80020004);
inline constexpr HRESULT DISP_E_TYPEMISMATCH = KV_HR(0x80020005);
inline constexpr HRESULT DISP_E_UNKNOWNNAME = KV_HR(0x80020006);
inline constexpr HRESULT DISP_E_NONAMEDARGS = KV_HR(0x80020007);
inline constexpr HRESULT DISP_E_BADVARTYPE = KV_HR(0x80020008);
inline constexpr HRESULT DISP_E_EXCEPTION = KV_HR(0x80020009);
inline constexpr HRESULT DISP_E_OVERFLOW = KV_HR(0x8002000A);
inline constexpr HRESULT DISP_E_BADINDEX = KV_HR(0x8002000B);
inline constexpr HRESULT DISP_E_ARRAYISLOCKED = KV_HR(0x8002000D);
inline constexpr HRESULT DISP_E_BADPARAMCOUNT = KV_HR(0x8002000E);
inline constexpr HRESULT DISP_E_PARAMNOTOPTIONAL = KV_HR(0x8002000F);

inline constexpr HRESULT CLASS_E_NOAGGREGATION = KV_HR(0x80040110);
inline constexpr HRESULT CLASS_E_CLASSNOTAVAILABLE = KV_HR(0x80040111);
inline constexpr HRESULT REGDB_E_CLASSNOTREG = KV_HR(0x80040154);
inline constexpr HRESULT CO_E_CLASSSTRING = KV_HR(0x800401F3);
inline constexpr HRESULT CONNECT_E_NOCONNECTION = KV_HR(0x80040200);
inline constexpr HRESULT CONNECT_E_CANNOTCONNECT = KV_HR(0x80040202);

#undef KV_HR

inline constexpr bool SUCCEEDED(HRESULT hr) { return hr >= 0; }
inline constexpr bool FAILED(HRESULT hr) { return hr < 0; }
