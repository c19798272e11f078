#include "platform/random.h"

#include <unistd.h>

namespace kv::platform {

namespace {
thread_local uint32_t t_state = 1;
}

int Rand() {
    t_state = t_state * 214013u + 2531011u;
    return int((t_state >> 16) & 0x7FFF);
}

void SRand(uint32_t state) { t_state = state; }

uint32_t ProcessId() { return uint32_t(getpid()); }

const char* HostName(char* buffer, int size) {
    if (!buffer || size <= 0) return "";
    if (gethostname(buffer, size_t(size)) != 0) buffer[0] = 0;
    buffer[size - 1] = 0;
    return buffer;
}

}  // namespace kv::platform
