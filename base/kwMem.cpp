// Memory wrappers: every block the library hands to a caller is released with
// KWMemFree, so callers never have to know which allocator made it.
#include "base/kwMem.h"

#include <atomic>
#include <cstdlib>

#include "base/kwBase.h"

namespace {

std::atomic<bool> g_faultFired{false};

}  // namespace

namespace kwz {

std::atomic<int64_t> g_faultCountdown{0};

void FaultArm(int64_t n) {
    g_faultFired.store(false, std::memory_order_relaxed);
    g_faultCountdown.store(n > 0 ? n : 0, std::memory_order_relaxed);
}

bool FaultCheckArmed() {
    if (g_faultCountdown.fetch_sub(1, std::memory_order_relaxed) != 1) return false;
    g_faultFired.store(true, std::memory_order_relaxed);
    return true;
}

bool FaultFired() { return g_faultFired.load(std::memory_order_relaxed); }

void* MemAlloc(size_t size) { return FaultCheck() ? nullptr : std::malloc(size); }

void* MemReAlloc(void* block, size_t size) {
    return FaultCheck() ? nullptr : std::realloc(block, size);
}

void MemFree(void* block) { std::free(block); }

}  // namespace kwz

extern "C" {

KWZ_API void* KWMemAlloc(uint32_t size, void** var) {
    void* block = kwz::MemAlloc(size);
    if (var) *var = block;
    return block;
}

KWZ_API void* KWMemReAlloc(uint32_t size, void** var) {
    if (!var) return nullptr;
    void* block = kwz::MemReAlloc(*var, size);
    // On failure the caller's variable no longer reaches the old block; that
    // is the documented contract, kept so that callers test one pointer.
    *var = block;
    return block;
}

KWZ_API void KWMemFree(void* block) { kwz::MemFree(block); }

}  // extern "C"
