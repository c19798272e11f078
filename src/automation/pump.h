// The host's pump hook of events mode: the socket layer waits in short slices
// and runs the hook after each, so that a host can dispatch its own messages
// (and so deliver events and Abort) while a call is blocked.
#pragma once

namespace kv::automation {

using PumpHook = void (*)(void* ctx);

// Null removes the hook. The hook is process-wide.
void SetPump(PumpHook hook, void* ctx);
// Runs the hook, if any, on the calling thread. Safe against a concurrent SetPump.
void RunPump();

}  // namespace kv::automation
