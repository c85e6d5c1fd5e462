// The library's allocator, and the fault injection that tests use to fail
// the n-th allocation.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace kwz {

// malloc/realloc/free behind KWMemAlloc, KWMemReAlloc and KWMemFree.  Every
// block the library hands to a caller comes from MemAlloc or MemReAlloc.
void* MemAlloc(size_t size);
void* MemReAlloc(void* block, size_t size);
void MemFree(void* block);

// Fault injection, for tests.  FaultArm(n) makes the n-th allocation from
// now on fail (n >= 1), and only that one; FaultArm(0) switches it off.
// FaultCheck() counts one allocation and tells whether it must fail: MemAlloc
// and MemReAlloc call it, and so does the test build's operator new.
// FaultFired() tells whether the armed allocation was reached.  The counter
// is process-wide; tests that arm it run one thread at a time.
void FaultArm(int64_t n);
bool FaultFired();

// Allocations left before the armed failure; 0 when nothing is armed.
extern std::atomic<int64_t> g_faultCountdown;
// FaultCheck once something is armed.
bool FaultCheckArmed();
// Inline, so that the unarmed case (every allocation outside the fault
// tests) costs one relaxed load and no call: the XML pool checks once per
// block it cuts.
inline bool FaultCheck() {
    return g_faultCountdown.load(std::memory_order_relaxed) != 0 && FaultCheckArmed();
}

}  // namespace kwz
