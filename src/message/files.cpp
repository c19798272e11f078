#include "message/files.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "automation/safearray.h"
#include "foundation/trace.h"
#include "platform/files.h"

namespace kv {

bool AppendFileToBString(const wbstring& path, bstring& destination) {
    Trace("AppendFileToBString started");
    FILE* file = platform::OpenFile(path, "rb");
    int error = file ? 0 : errno;
    TraceBegin();
    TraceAppend("WinAPI GetLastError = ");
    TraceAppendInt(error);
    Trace();
    std::string name = platform::PathFromWide(path);
    TraceBegin();
    TraceAppend("Filename was: [");
    Trace();
    Trace(name.data(), int32_t(name.size()));
    Trace("]");
    if (!file) {
        Trace("AppendFileToBString failed");
        return false;
    }
    long length = -1;
    if (std::fseek(file, 0, SEEK_END) == 0) length = std::ftell(file);
    std::rewind(file);
    if (length < 0 || length > 0x7FFFFFF0L - (destination.nSize > 0 ? destination.nSize : 0)) {
        std::fclose(file);
        Trace("AppendFileToBString failed");
        return false;
    }
    if (destination.nSize < 0) destination.nSize = 0;
    destination.reserve(destination.nSize + int32_t(length));
    if (length > 0 && destination.pData) {
        size_t got = std::fread(destination.pData + destination.nSize, 1, size_t(length), file);
        // The size grows by the file's length whatever the read gave; a short
        // read leaves zeros rather than stale bytes.
        if (got < size_t(length))
            std::memset(destination.pData + destination.nSize + got, 0, size_t(length) - got);
        destination.nSize += int32_t(length);
    }
    std::fclose(file);
    Trace("AppendFileToBString succeeded");
    return true;
}

bool BytesFromArrayVariant(const VARIANT& data, bstring& destination) {
    const VARIANT* v = &data;
    SAFEARRAY* array = nullptr;
    if ((v->vt & VT_BYREF) && (v->vt & 12)) {
        // Only a reference to a variant can hold the array.
        const VARIANT* inner = (v->vt & ~VT_BYREF) == VT_VARIANT ? v->pvarVal : nullptr;
        if (!inner || inner->vt != (VT_ARRAY | VT_UI1)) return false;
        array = inner->parray;
    } else if (v->vt == (VT_ARRAY | VT_UI1)) {
        array = v->parray;
    } else {
        return false;
    }
    int32_t lower = 0, upper = -1;
    if (!array || FAILED(SafeArrayGetLBound(array, 1, &lower)) ||
        FAILED(SafeArrayGetUBound(array, 1, &upper)))
        return false;
    int64_t count = int64_t(upper) - lower + 1;
    if (count < 0 || count > 0x7FFFFFF0) return false;
    void* bytes = nullptr;
    if (FAILED(SafeArrayAccessData(array, &bytes))) return false;
    destination.nSize = 0;
    destination.reserve(int32_t(count));
    if (count > 0 && destination.pData) std::memcpy(destination.pData, bytes, size_t(count));
    destination.nSize = destination.pData ? int32_t(count) : 0;
    SafeArrayUnaccessData(array);
    return true;
}

HRESULT BytesToArrayVariant(const bstring& bytes, VARIANT* out) {
    uint32_t size = uint32_t(bytes.nSize > 0 ? bytes.nSize : 0);
    SAFEARRAY* array = SafeArrayCreateVector(VT_UI1, 0, size);
    if (!array) return E_OUTOFMEMORY;
    if (size) std::memcpy(array->pvData, bytes.pData, size);
    out->vt = VT_ARRAY | VT_UI1;
    out->parray = array;
    return S_OK;
}

}  // namespace kv
