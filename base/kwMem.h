// The library's allocator, and the fault injection that tests use to fail
// the n-th allocation.
#pragma once

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
bool FaultCheck();
bool FaultFired();

}  // namespace kwz
