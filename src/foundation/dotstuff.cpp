#include "foundation/dotstuff.h"

#include <cstring>

#include "foundation/find.h"

namespace kv {

int32_t Unstuff(const char* data, int32_t size, char* out) {
    const char* at = data;
    const char* end = data + (size > 0 ? size : 0);
    char* write = out;
    while (at < end) {
        const char* hit = FindBytes(at, size_t(end - at), "\r\n..", 4);
        const char* stop = hit ? hit + 3 : end;  // through "\r\n."
        if (write != at) std::memmove(write, at, size_t(stop - at));
        write += stop - at;
        at = hit ? stop + 1 : end;
    }
    return int32_t(write - out);
}

}  // namespace kv
