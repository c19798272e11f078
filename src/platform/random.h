// The runtime's small random generator, which boundaries and message
// identifiers draw from: a state per thread, state = state * 214013 + 2531011,
// each draw bits 16 to 30 of the state (0 to 0x7FFF). A thread starts from
// state 1; the library sets the loading thread's state from the time.
#pragma once

#include <cstdint>

namespace kv::platform {

int Rand();
void SRand(uint32_t state);

// The process identifier and the local host name ("" when unknown).
uint32_t ProcessId();
const char* HostName(char* buffer, int size);

}  // namespace kv::platform
