#include "automation/pump.h"

#include <mutex>

namespace kv::automation {

namespace {
std::mutex g_mutex;
PumpHook g_hook = nullptr;
void* g_ctx = nullptr;
}  // namespace

void SetPump(PumpHook hook, void* ctx) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_hook = hook;
    g_ctx = hook ? ctx : nullptr;
}

void RunPump() {
    PumpHook hook;
    void* ctx;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        hook = g_hook;
        ctx = g_ctx;
    }
    // Called outside the lock: the hook may itself change the pump.
    if (hook) hook(ctx);
}

}  // namespace kv::automation
