#include "automation/variant.h"

#include <cctype>
#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "automation/interfaces.h"
#include "automation/safearray.h"

namespace kv::automation {

uint32_t ElementSize(VARTYPE vt) {
    switch (vt) {
        case VT_I1:
        case VT_UI1: return 1;
        case VT_I2:
        case VT_UI2:
        case VT_BOOL: return 2;
        case VT_I4:
        case VT_UI4:
        case VT_INT:
        case VT_UINT:
        case VT_R4:
        case VT_ERROR: return 4;
        case VT_I8:
        case VT_UI8:
        case VT_R8:
        case VT_CY:
        case VT_DATE: return 8;
        case VT_BSTR:
        case VT_DISPATCH:
        case VT_UNKNOWN: return sizeof(void*);
        case VT_VARIANT: return sizeof(VARIANT);
        default: return 0;
    }
}

namespace {

// Days from 0000-03-01 based civil calendar (proleptic Gregorian).
int64_t DaysFromCivil(int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = unsigned(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + int64_t(doe) - 719468;
}

void CivilFromDays(int64_t z, int* y, int* m, int* d) {
    z += 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = unsigned(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    *d = int(doy - (153 * mp + 2) / 5 + 1);
    *m = int(mp < 10 ? mp + 3 : mp - 9);
    *y = int(int64_t(yoe) + era * 400 + (*m <= 2));
}

const int64_t kEpoch = DaysFromCivil(1899, 12, 30);

// The runtime's range of dates: years 100 to 9999.
constexpr double kMinDate = -657434.0;
constexpr double kMaxDate = 2958465.99999999;

}  // namespace

bool DateFromParts(const DateParts& p, DATE* out) {
    if (p.year < 100 || p.year > 9999 || p.month < 1 || p.month > 12 || p.day < 1 || p.hour < 0 ||
        p.hour > 23 || p.minute < 0 || p.minute > 59 || p.second < 0 || p.second > 59 ||
        p.millisecond < 0 || p.millisecond > 999)
        return false;
    static const int kMonthDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    bool leap = (p.year % 4 == 0 && p.year % 100 != 0) || p.year % 400 == 0;
    if (p.day > kMonthDays[p.month - 1] + (p.month == 2 && leap)) return false;
    int64_t days = DaysFromCivil(p.year, unsigned(p.month), unsigned(p.day)) - kEpoch;
    double frac = (p.hour * 3600000.0 + p.minute * 60000.0 + p.second * 1000.0 + p.millisecond) /
                  86400000.0;
    *out = days >= 0 ? double(days) + frac : double(days) - frac;
    return true;
}

bool PartsFromDate(DATE d, DateParts* out) {
    if (!(d >= kMinDate && d <= kMaxDate + 1e-9)) return false;
    double whole = std::trunc(d);
    auto days = int64_t(whole);
    auto ms = int64_t(std::llround(std::fabs(d - whole) * 86400000.0));
    if (ms >= 86400000) {
        ms -= 86400000;
        ++days;
    }
    CivilFromDays(days + kEpoch, &out->year, &out->month, &out->day);
    out->hour = int(ms / 3600000);
    out->minute = int(ms / 60000 % 60);
    out->second = int(ms / 1000 % 60);
    out->millisecond = int(ms % 1000);
    return true;
}

VARIANT MakeI4(int32_t v) {
    VARIANT r;
    VariantInit(&r);
    r.vt = VT_I4;
    r.lVal = v;
    return r;
}

VARIANT MakeBool(bool v) {
    VARIANT r;
    VariantInit(&r);
    r.vt = VT_BOOL;
    r.boolVal = v ? VARIANT_TRUE : VARIANT_FALSE;
    return r;
}

VARIANT MakeR8(double v) {
    VARIANT r;
    VariantInit(&r);
    r.vt = VT_R8;
    r.dblVal = v;
    return r;
}

VARIANT MakeBstr(const char* utf8) {
    VARIANT r;
    VariantInit(&r);
    r.vt = VT_BSTR;
    r.bstrVal = Bstr::FromUtf8(utf8 ? utf8 : "").Detach();
    return r;
}

VARIANT MakeMissing() {
    VARIANT r;
    VariantInit(&r);
    r.vt = VT_ERROR;
    r.scode = DISP_E_PARAMNOTFOUND;
    return r;
}

bool IsMissing(const VARIANT& v) { return v.vt == VT_ERROR && v.scode == DISP_E_PARAMNOTFOUND; }

}  // namespace kv::automation

using namespace kv::automation;

namespace {

bool KnownBase(VARTYPE t) {
    switch (t) {
        case VT_EMPTY:
        case VT_NULL:
        case VT_I2:
        case VT_I4:
        case VT_R4:
        case VT_R8:
        case VT_CY:
        case VT_DATE:
        case VT_BSTR:
        case VT_DISPATCH:
        case VT_ERROR:
        case VT_BOOL:
        case VT_VARIANT:
        case VT_UNKNOWN:
        case VT_I1:
        case VT_UI1:
        case VT_UI2:
        case VT_UI4:
        case VT_I8:
        case VT_UI8:
        case VT_INT:
        case VT_UINT: return true;
        default: return false;
    }
}

// A number on its way between two types: exact integers stay integers.
struct Number {
    bool is_int;
    int64_t i;
    double d;
    double value() const { return is_int ? double(i) : d; }
};

Number Int(int64_t i) { return {true, i, 0}; }
Number Real(double d) { return {false, 0, d}; }

std::string Narrow(BSTR s) {
    std::string out;
    uint32_t n = SysStringLen(s);
    out.reserve(n);
    for (uint32_t k = 0; k < n; ++k) out.push_back(s[k] < 0x80 ? char(s[k]) : '\x01');
    return out;
}

std::string Trim(const std::string& s) {
    size_t b = 0, e = s.size();
    while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
    return s.substr(b, e - b);
}

bool EqualsNoCase(const std::string& a, const char* b) {
    size_t n = std::strlen(b);
    if (a.size() != n) return false;
    for (size_t k = 0; k < n; ++k)
        if (std::tolower(static_cast<unsigned char>(a[k])) != b[k]) return false;
    return true;
}

// Numeric text as the runtime reads it in en-US: blanks around, a sign, digits
// with thousands separators, a decimal point, an exponent; or &H / &O integers.
bool ParseNumber(BSTR s, Number* out) {
    std::string t = Trim(Narrow(s));
    if (t.empty()) return false;
    if (t.size() > 2 && t[0] == '&' && (t[1] == 'H' || t[1] == 'h' || t[1] == 'O' || t[1] == 'o')) {
        int base = (t[1] == 'H' || t[1] == 'h') ? 16 : 8;
        uint64_t v = 0;
        for (size_t k = 2; k < t.size(); ++k) {
            int c = std::tolower(static_cast<unsigned char>(t[k]));
            int dgt = std::isdigit(c) ? c - '0' : (c >= 'a' && c <= 'f') ? c - 'a' + 10 : 99;
            if (dgt >= base || v > (UINT64_MAX >> 4)) return false;
            v = v * uint64_t(base) + uint64_t(dgt);
        }
        // Hexadecimal literals of up to 32 bits are signed 32-bit values, as in scripts.
        *out = v <= 0xFFFFFFFFu ? Int(int32_t(uint32_t(v))) : Int(int64_t(v));
        return true;
    }
    std::string clean;
    size_t k = 0;
    if (t[k] == '+' || t[k] == '-') clean.push_back(t[k++]);
    bool digits = false, fraction = false, exponent = false;
    for (; k < t.size(); ++k) {
        char c = t[k];
        if (std::isdigit(static_cast<unsigned char>(c))) {
            digits = true;
            clean.push_back(c);
        } else if (c == ',' && digits && !fraction && !exponent) {
            continue;
        } else if (c == '.' && !fraction && !exponent) {
            fraction = true;
            clean.push_back(c);
        } else if ((c == 'e' || c == 'E') && digits && !exponent) {
            exponent = true;
            clean.push_back(c);
            if (k + 1 < t.size() && (t[k + 1] == '+' || t[k + 1] == '-')) clean.push_back(t[++k]);
            if (k + 1 >= t.size()) return false;
        } else {
            return false;
        }
    }
    if (!digits) return false;
    if (!fraction && !exponent) {
        errno = 0;
        char* end;
        long long v = std::strtoll(clean.c_str(), &end, 10);
        if (errno == 0 && *end == 0) {
            *out = Int(v);
            return true;
        }
    }
    char* end;
    double d = std::strtod(clean.c_str(), &end);
    if (*end) return false;
    *out = Real(d);
    return true;
}

int ParseInt(const std::string& s, size_t* pos, int max_digits) {
    int v = 0, n = 0;
    while (*pos < s.size() && n < max_digits && std::isdigit(static_cast<unsigned char>(s[*pos]))) {
        v = v * 10 + (s[*pos] - '0');
        ++*pos;
        ++n;
    }
    return n ? v : -1;
}

// Time of day: h:mm[:ss] with an optional AM or PM.
bool ParseTime(const std::string& s, size_t pos, DateParts* p) {
    while (pos < s.size() && s[pos] == ' ') ++pos;
    if (pos == s.size()) return true;
    int h = ParseInt(s, &pos, 2);
    if (h < 0 || pos >= s.size() || s[pos] != ':') return false;
    ++pos;
    int m = ParseInt(s, &pos, 2), sec = 0;
    if (m < 0) return false;
    if (pos < s.size() && s[pos] == ':') {
        ++pos;
        if ((sec = ParseInt(s, &pos, 2)) < 0) return false;
    }
    while (pos < s.size() && s[pos] == ' ') ++pos;
    std::string rest = s.substr(pos);
    if (EqualsNoCase(rest, "am") || EqualsNoCase(rest, "pm")) {
        if (h < 1 || h > 12) return false;
        h %= 12;
        if (EqualsNoCase(rest, "pm")) h += 12;
    } else if (!rest.empty()) {
        return false;
    }
    p->hour = h;
    p->minute = m;
    p->second = sec;
    return true;
}

int FullYear(int y, int digits) { return digits <= 2 ? (y < 30 ? 2000 + y : 1900 + y) : y; }

// Dates in the invariant forms: "yyyy-mm-dd[ hh:mm[:ss]]" (also with 'T'),
// "m/d/yyyy[ h:mm[:ss][ AM|PM]]", or a time of day alone.
bool ParseDate(BSTR s, DATE* out) {
    std::string t = Trim(Narrow(s));
    DateParts p{1899, 12, 30, 0, 0, 0, 0};
    size_t pos = 0;
    int a = ParseInt(t, &pos, 4);
    if (a < 0) return false;
    size_t after_first = pos;
    if (pos < t.size() && t[pos] == '-' && after_first == 4) {
        ++pos;
        int m = ParseInt(t, &pos, 2);
        if (m < 0 || pos >= t.size() || t[pos] != '-') return false;
        ++pos;
        int d = ParseInt(t, &pos, 2);
        if (d < 0) return false;
        p.year = a, p.month = m, p.day = d;
        if (pos < t.size() && (t[pos] == 'T' || t[pos] == 't')) ++pos;
        else if (pos < t.size() && t[pos] != ' ') return false;
        if (!ParseTime(t, pos, &p)) return false;
    } else if (pos < t.size() && t[pos] == '/') {
        ++pos;
        int d = ParseInt(t, &pos, 2);
        if (d < 0 || pos >= t.size() || t[pos] != '/') return false;
        ++pos;
        size_t ystart = pos;
        int y = ParseInt(t, &pos, 4);
        if (y < 0) return false;
        p.year = FullYear(y, int(pos - ystart)), p.month = a, p.day = d;
        if (pos < t.size() && t[pos] != ' ') return false;
        if (!ParseTime(t, pos, &p)) return false;
    } else if (pos < t.size() && t[pos] == ':') {
        if (!ParseTime(t, 0, &p)) return false;
    } else {
        return false;
    }
    return DateFromParts(p, out);
}

std::string FormatDate(DATE d) {
    DateParts p;
    if (!PartsFromDate(d, &p)) return std::string();
    char buf[64];
    bool has_date = std::trunc(d) != 0;
    bool has_time = p.hour || p.minute || p.second;
    int h12 = p.hour % 12 == 0 ? 12 : p.hour % 12;
    const char* ampm = p.hour < 12 ? "AM" : "PM";
    if (has_date && !has_time)
        std::snprintf(buf, sizeof buf, "%d/%d/%d", p.month, p.day, p.year);
    else if (!has_date)
        std::snprintf(buf, sizeof buf, "%d:%02d:%02d %s", h12, p.minute, p.second, ampm);
    else
        std::snprintf(buf, sizeof buf, "%d/%d/%d %d:%02d:%02d %s", p.month, p.day, p.year, h12,
                      p.minute, p.second, ampm);
    return buf;
}

std::string FormatReal(double d, int digits) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.*G", digits, d);
    return buf;
}

std::string FormatCurrency(int64_t cy) {
    char buf[48];
    uint64_t mag = cy < 0 ? uint64_t(0) - uint64_t(cy) : uint64_t(cy);
    int n = std::snprintf(buf, sizeof buf, "%s%llu.%04llu", cy < 0 ? "-" : "",
                          static_cast<unsigned long long>(mag / 10000),
                          static_cast<unsigned long long>(mag % 10000));
    std::string s(buf, size_t(n));
    while (s.back() == '0') s.pop_back();
    if (s.back() == '.') s.pop_back();
    return s;
}

HRESULT SetString(VARIANT* out, const std::string& ascii) {
    std::u16string w(ascii.begin(), ascii.end());
    BSTR b = SysAllocStringLen(w.data(), uint32_t(w.size()));
    if (!b) return E_OUTOFMEMORY;
    out->vt = VT_BSTR;
    out->bstrVal = b;
    return S_OK;
}

// Reads any scalar as a number. DISP_E_TYPEMISMATCH for what has no number.
HRESULT ToNumber(const VARIANT& s, Number* n) {
    switch (s.vt) {
        case VT_EMPTY: *n = Int(0); return S_OK;
        case VT_BOOL: *n = Int(s.boolVal ? -1 : 0); return S_OK;
        case VT_I1: *n = Int(static_cast<signed char>(s.cVal)); return S_OK;
        case VT_UI1: *n = Int(s.bVal); return S_OK;
        case VT_I2: *n = Int(s.iVal); return S_OK;
        case VT_UI2: *n = Int(s.uiVal); return S_OK;
        case VT_I4:
        case VT_INT: *n = Int(s.lVal); return S_OK;
        case VT_UI4:
        case VT_UINT: *n = Int(s.ulVal); return S_OK;
        case VT_I8: *n = Int(s.llVal); return S_OK;
        case VT_UI8:
            *n = s.ullVal <= uint64_t(INT64_MAX) ? Int(int64_t(s.ullVal)) : Real(double(s.ullVal));
            return S_OK;
        case VT_R4: *n = Real(s.fltVal); return S_OK;
        case VT_R8:
        case VT_DATE: *n = Real(s.dblVal); return S_OK;
        case VT_CY:
            *n = s.cyVal.int64 % 10000 == 0 ? Int(s.cyVal.int64 / 10000)
                                            : Real(double(s.cyVal.int64) / 10000.0);
            return S_OK;
        case VT_BSTR: return ParseNumber(s.bstrVal, n) ? S_OK : DISP_E_TYPEMISMATCH;
        default: return DISP_E_TYPEMISMATCH;
    }
}

// Rounds half to even and checks the range [lo, hi].
HRESULT ToInteger(const Number& n, double lo, double hi, int64_t* out) {
    if (n.is_int) {
        if (double(n.i) < lo || double(n.i) > hi) return DISP_E_OVERFLOW;
        *out = n.i;
        return S_OK;
    }
    double r = std::nearbyint(n.d);
    if (!(r >= lo && r <= hi)) return DISP_E_OVERFLOW;
    *out = int64_t(r);
    return S_OK;
}

HRESULT FromNumber(const Number& n, VARTYPE vt, VARIANT* out) {
    int64_t i = 0;
    HRESULT hr = S_OK;
    switch (vt) {
        case VT_I1: hr = ToInteger(n, -128, 127, &i); out->cVal = char(i); break;
        case VT_UI1: hr = ToInteger(n, 0, 255, &i); out->bVal = uint8_t(i); break;
        case VT_I2: hr = ToInteger(n, -32768, 32767, &i); out->iVal = int16_t(i); break;
        case VT_UI2: hr = ToInteger(n, 0, 65535, &i); out->uiVal = uint16_t(i); break;
        case VT_I4:
        case VT_INT:
        case VT_ERROR: hr = ToInteger(n, -2147483648.0, 2147483647.0, &i); out->lVal = int32_t(i); break;
        case VT_UI4:
        case VT_UINT: hr = ToInteger(n, 0, 4294967295.0, &i); out->ulVal = uint32_t(i); break;
        case VT_I8:
            if (n.is_int) {
                out->llVal = n.i;
            } else {
                double r = std::nearbyint(n.d);
                if (!(r >= -9223372036854775808.0 && r < 9223372036854775808.0)) return DISP_E_OVERFLOW;
                out->llVal = int64_t(r);
            }
            break;
        case VT_UI8:
            if (n.is_int) {
                if (n.i < 0) return DISP_E_OVERFLOW;
                out->ullVal = uint64_t(n.i);
            } else {
                double r = std::nearbyint(n.d);
                if (!(r >= 0 && r < 18446744073709551616.0)) return DISP_E_OVERFLOW;
                out->ullVal = uint64_t(r);
            }
            break;
        case VT_R4: {
            double d = n.value();
            if (std::isfinite(d) && std::fabs(d) > FLT_MAX) return DISP_E_OVERFLOW;
            out->fltVal = float(d);
            break;
        }
        case VT_R8: out->dblVal = n.value(); break;
        case VT_DATE: {
            double d = n.value();
            if (!(d >= kMinDate && d <= kMaxDate)) return DISP_E_OVERFLOW;
            out->date = d;
            break;
        }
        case VT_CY: {
            double d = n.is_int ? double(n.i) * 10000.0 : std::nearbyint(n.d * 10000.0);
            if (!(d >= -9223372036854775808.0 && d < 9223372036854775808.0)) return DISP_E_OVERFLOW;
            out->cyVal.int64 = n.is_int ? n.i * 10000 : int64_t(d);
            break;
        }
        case VT_BOOL: out->boolVal = (n.is_int ? n.i != 0 : n.d != 0) ? VARIANT_TRUE : VARIANT_FALSE; break;
        default: return DISP_E_TYPEMISMATCH;
    }
    if (FAILED(hr)) return hr;
    out->vt = vt;
    return S_OK;
}

HRESULT ToString(const VARIANT& s, uint16_t flags, VARIANT* out) {
    switch (s.vt) {
        case VT_EMPTY: return SetString(out, "");
        case VT_BOOL:
            if (flags & VARIANT_ALPHABOOL) return SetString(out, s.boolVal ? "True" : "False");
            return SetString(out, s.boolVal ? "-1" : "0");
        case VT_R4: return SetString(out, FormatReal(s.fltVal, 7));
        case VT_R8: return SetString(out, FormatReal(s.dblVal, 15));
        case VT_CY: return SetString(out, FormatCurrency(s.cyVal.int64));
        case VT_DATE: {
            std::string t = FormatDate(s.date);
            if (t.empty()) return DISP_E_OVERFLOW;
            return SetString(out, t);
        }
        case VT_UI8: return SetString(out, std::to_string(s.ullVal));
        case VT_ARRAY | VT_UI1: {
            // The bytes become the string's bytes, as the runtime does for byte arrays.
            SAFEARRAY* psa = s.parray;
            uint32_t n = psa ? psa->rgsabound[0].cElements : 0;
            BSTR b = SysAllocStringByteLen(psa ? static_cast<const char*>(psa->pvData) : nullptr, n);
            if (!b) return E_OUTOFMEMORY;
            out->vt = VT_BSTR;
            out->bstrVal = b;
            return S_OK;
        }
        default: {
            Number n;
            if (HRESULT hr = ToNumber(s, &n); FAILED(hr)) return hr;
            return SetString(out, std::to_string(n.i));
        }
    }
}

HRESULT Convert(VARIANT* out, const VARIANT& s, uint16_t flags, VARTYPE vt);

// An object stands for its default member's value.
HRESULT ConvertObject(VARIANT* out, const VARIANT& s, uint16_t flags, VARTYPE vt) {
    if (flags & VARIANT_NOVALUEPROP || !s.punkVal) return DISP_E_TYPEMISMATCH;
    IDispatch* disp = nullptr;
    if (FAILED(s.punkVal->QueryInterface(IID_IDispatch, reinterpret_cast<void**>(&disp))))
        return DISP_E_TYPEMISMATCH;
    DISPPARAMS none{nullptr, nullptr, 0, 0};
    VARIANT value;
    VariantInit(&value);
    HRESULT hr = disp->Invoke(DISPID_VALUE, GUID_NULL, 0, DISPATCH_PROPERTYGET, &none, &value,
                              nullptr, nullptr);
    disp->Release();
    if (FAILED(hr)) return DISP_E_TYPEMISMATCH;
    // An object whose value is an object again would loop; stop there.
    hr = (value.vt == VT_DISPATCH || value.vt == VT_UNKNOWN) ? DISP_E_TYPEMISMATCH
                                                               : Convert(out, value, flags, vt);
    VariantClear(&value);
    return hr;
}

HRESULT Convert(VARIANT* out, const VARIANT& s, uint16_t flags, VARTYPE vt) {
    if (s.vt == vt) return VariantCopy(out, &s);
    if (vt & VT_ARRAY) {
        if (vt == (VT_ARRAY | VT_UI1) && s.vt == VT_BSTR) {
            uint32_t n = SysStringByteLen(s.bstrVal);
            SAFEARRAY* psa = SafeArrayCreateVector(VT_UI1, 0, n);
            if (!psa) return E_OUTOFMEMORY;
            if (n) std::memcpy(psa->pvData, s.bstrVal, n);
            out->vt = vt;
            out->parray = psa;
            return S_OK;
        }
        return DISP_E_TYPEMISMATCH;
    }
    switch (vt) {
        case VT_EMPTY:
        case VT_NULL:
            if (s.vt == VT_EMPTY || s.vt == VT_NULL) return out->vt = vt, S_OK;
            return DISP_E_TYPEMISMATCH;
        case VT_DISPATCH:
        case VT_UNKNOWN:
            if (s.vt == VT_EMPTY) {
                out->vt = vt;
                out->punkVal = nullptr;
                return S_OK;
            }
            if (s.vt == VT_DISPATCH || s.vt == VT_UNKNOWN) {
                void* p = nullptr;
                if (s.punkVal &&
                    FAILED(s.punkVal->QueryInterface(vt == VT_DISPATCH ? IID_IDispatch : IID_IUnknown, &p)))
                    return DISP_E_TYPEMISMATCH;
                out->vt = vt;
                out->byref = p;
                return S_OK;
            }
            return DISP_E_TYPEMISMATCH;
        default: break;
    }
    if (s.vt == VT_NULL || (s.vt & VT_ARRAY && vt != VT_BSTR)) return DISP_E_TYPEMISMATCH;
    if (s.vt == VT_DISPATCH || s.vt == VT_UNKNOWN) return ConvertObject(out, s, flags, vt);
    if (s.vt == VT_ERROR) return DISP_E_TYPEMISMATCH;
    if (vt == VT_BSTR) return ToString(s, flags, out);
    if (s.vt == VT_BSTR && vt == VT_BOOL) {
        std::string t = Trim(Narrow(s.bstrVal));
        if (EqualsNoCase(t, "true") || EqualsNoCase(t, "#true#")) return FromNumber(Int(-1), vt, out);
        if (EqualsNoCase(t, "false") || EqualsNoCase(t, "#false#")) return FromNumber(Int(0), vt, out);
    }
    if (s.vt == VT_BSTR && vt == VT_DATE) {
        DATE d;
        if (ParseDate(s.bstrVal, &d)) {
            out->vt = VT_DATE;
            out->date = d;
            return S_OK;
        }
    }
    if (vt == VT_ERROR && s.vt != VT_I4 && s.vt != VT_I2 && s.vt != VT_UI1) return DISP_E_TYPEMISMATCH;
    Number n;
    if (HRESULT hr = ToNumber(s, &n); FAILED(hr)) return hr;
    return FromNumber(n, vt, out);
}

}  // namespace

extern "C" {

void VariantInit(VARIANT* v) {
    if (!v) return;
    v->vt = VT_EMPTY;
    v->wReserved1 = v->wReserved2 = v->wReserved3 = 0;
    v->brecVal.pvRecord = nullptr;
    v->brecVal.pRecInfo = nullptr;
}

HRESULT VariantClear(VARIANT* v) {
    if (!v) return E_INVALIDARG;
    VARTYPE base = v->vt & VT_TYPEMASK;
    if ((v->vt & ~(VT_TYPEMASK | VT_ARRAY | VT_BYREF)) || !KnownBase(base)) return DISP_E_BADVARTYPE;
    if (!(v->vt & VT_BYREF)) {
        if (v->vt & VT_ARRAY) {
            if (HRESULT hr = SafeArrayDestroy(v->parray); FAILED(hr)) return hr;
        } else if (v->vt == VT_BSTR) {
            SysFreeString(v->bstrVal);
        } else if ((v->vt == VT_DISPATCH || v->vt == VT_UNKNOWN) && v->punkVal) {
            v->punkVal->Release();
        }
    }
    VariantInit(v);
    return S_OK;
}

HRESULT VariantCopy(VARIANT* dest, const VARIANT* src) {
    if (!dest || !src) return E_INVALIDARG;
    if (dest == src) return S_OK;
    VARIANT tmp = *src;
    VARTYPE base = src->vt & VT_TYPEMASK;
    if ((src->vt & ~(VT_TYPEMASK | VT_ARRAY | VT_BYREF)) || !KnownBase(base)) return DISP_E_BADVARTYPE;
    if (!(src->vt & VT_BYREF)) {
        if (src->vt & VT_ARRAY) {
            if (HRESULT hr = SafeArrayCopy(src->parray, &tmp.parray); FAILED(hr)) return hr;
        } else if (src->vt == VT_BSTR && src->bstrVal) {
            tmp.bstrVal = SysAllocStringByteLen(reinterpret_cast<const char*>(src->bstrVal),
                                                SysStringByteLen(src->bstrVal));
            if (!tmp.bstrVal) return E_OUTOFMEMORY;
        } else if ((src->vt == VT_DISPATCH || src->vt == VT_UNKNOWN) && src->punkVal) {
            src->punkVal->AddRef();
        }
    }
    if (HRESULT hr = VariantClear(dest); FAILED(hr)) {
        VariantClear(&tmp);
        return hr;
    }
    *dest = tmp;
    return S_OK;
}

HRESULT VariantCopyInd(VARIANT* dest, const VARIANT* src) {
    if (!dest || !src) return E_INVALIDARG;
    if (!(src->vt & VT_BYREF)) return VariantCopy(dest, src);
    if (!src->byref) return E_INVALIDARG;
    VARIANT v;
    VariantInit(&v);
    VARTYPE t = src->vt & ~VT_BYREF;
    if (t == VT_VARIANT) {
        // A variant by reference may itself hold a reference; one level is followed.
        const VARIANT* inner = src->pvarVal;
        if (inner->vt & VT_BYREF) return E_INVALIDARG;
        return VariantCopy(dest, inner);
    }
    v.vt = t;
    if (t & VT_ARRAY) {
        v.parray = *src->pparray;
    } else {
        uint32_t size = ElementSize(t);
        if (size == 0) return DISP_E_BADVARTYPE;
        std::memcpy(&v.llVal, src->byref, size);
    }
    // v borrows; VariantCopy makes the owned copy.
    return VariantCopy(dest, &v);
}

HRESULT VariantChangeTypeEx(VARIANT* dest, const VARIANT* src, LCID, uint16_t flags, VARTYPE vt) {
    if (!dest || !src) return E_INVALIDARG;
    if (vt & VT_BYREF || (vt & ~VT_ARRAY) > VT_TYPEMASK || vt == VT_VARIANT ||
        !KnownBase(vt & VT_TYPEMASK))
        return DISP_E_BADVARTYPE;
    VARIANT s;
    VariantInit(&s);
    if (HRESULT hr = VariantCopyInd(&s, src); FAILED(hr)) return hr;
    VARIANT out;
    VariantInit(&out);
    HRESULT hr = Convert(&out, s, flags, vt);
    VariantClear(&s);
    if (FAILED(hr)) {
        VariantClear(&out);
        return hr;
    }
    if (HRESULT c = VariantClear(dest); FAILED(c)) {
        VariantClear(&out);
        return c;
    }
    *dest = out;
    return S_OK;
}

HRESULT VariantChangeType(VARIANT* dest, const VARIANT* src, uint16_t flags, VARTYPE vt) {
    return VariantChangeTypeEx(dest, src, 1033, flags, vt);
}
}
