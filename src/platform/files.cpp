#include "platform/files.h"

#include <cerrno>

#include "platform/codepage.h"

namespace kv::platform {

std::string PathFromWide(const char16_t* path, int32_t units) {
    if (!path || units <= 0) return std::string();
    int32_t n = 0;
    while (n < units && path[n]) ++n;
    if (n == 0) return std::string();
    int count = WideCharToMultiByte(65001, 0, path, n, nullptr, 0);
    if (count <= 0) return std::string();
    std::string out(size_t(count), '\0');
    WideCharToMultiByte(65001, 0, path, n, out.data(), count);
    return out;
}

std::string PathFromWide(const wbstring& path) { return PathFromWide(path.pData, path.nSize); }

FILE* OpenFile(const wbstring& path, const char* mode) {
    std::string name = PathFromWide(path);
    if (name.empty()) {
        errno = ENOENT;
        return nullptr;
    }
    return std::fopen(name.c_str(), mode);
}

}  // namespace kv::platform
