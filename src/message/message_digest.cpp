// The digest members of the message: MD5 of a text or of a byte array, as
// 32 lower-case hexadecimal digits.
#include <cstring>
#include <vector>

#include "automation/safearray.h"
#include "codecs/digest.h"
#include "message/message.h"

namespace kv {

namespace {

BSTR HexBstr(const char hex[33]) {
    bstring text(hex, 32);
    return text.to_bstr(0);
}

// The array inside a variant, directly or behind one reference.
SAFEARRAY* ArrayOf(const VARIANT& data) {
    const VARIANT* v = &data;
    if (v->vt == (VT_BYREF | VT_VARIANT)) {
        v = v->pvarVal;
        if (!v) return nullptr;
    }
    if (!(v->vt & VT_ARRAY)) return nullptr;
    if (v->vt & VT_BYREF) return v->pparray ? *v->pparray : nullptr;
    return v->parray;
}

}  // namespace

HRESULT CMessage::GetMD5Digest(BSTR text, int32_t codepage, BSTR* out) {
    wbstring wide;
    wide.assign_bstr(text);
    bstring bytes;
    wide.export_bstring(bytes, codepage < 0 ? 0 : codepage);
    char hex[33];
    Md5Hex(hex, bytes.pData, bytes.nSize);
    *out = HexBstr(hex);
    return S_OK;
}

HRESULT CMessage::GetMD5DigestOfArray(const VARIANT& data, BSTR* out) {
    *out = nullptr;
    SAFEARRAY* array = ArrayOf(data);
    if (!array) return S_OK;
    int32_t lower = 0, upper = -1;
    if (FAILED(SafeArrayGetLBound(array, 1, &lower)) || FAILED(SafeArrayGetUBound(array, 1, &upper)))
        return S_OK;
    int64_t count = int64_t(upper) - lower + 1;
    if (count < 0 || count > 0x7FFFFFF0) return S_OK;
    uint32_t element = SafeArrayGetElemsize(array);
    // Elements of any other size give a buffer of that length whose bytes
    // nobody set: zeros here.
    std::vector<unsigned char> bytes(size_t(count), 0);
    void* items = nullptr;
    if (count > 0 && (element == 1 || element == sizeof(VARIANT)) &&
        SUCCEEDED(SafeArrayAccessData(array, &items)) && items) {
        const unsigned char* p = static_cast<const unsigned char*>(items);
        if (element == 1)
            std::memcpy(bytes.data(), p, size_t(count));
        else
            for (int64_t i = 0; i < count; ++i) bytes[size_t(i)] = p[i * int64_t(sizeof(VARIANT)) + 8];
        SafeArrayUnaccessData(array);
    }
    char hex[33];
    Md5Hex(hex, bytes.data(), int32_t(count));
    *out = HexBstr(hex);
    return S_OK;
}

}  // namespace kv
