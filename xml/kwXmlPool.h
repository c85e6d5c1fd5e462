// The node pool: nodes, attributes, texts and small arrays of a tree are cut
// from slabs, with no heap block each.
#pragma once

#include <cstddef>
#include <new>

#include "base/kwMem.h"

namespace kwz::xml {

// Blocks above this size are heap blocks; below it they come from slabs.
constexpr size_t kPoolLargest = 4096;

// The thread's place in its current slab (see kwXmlPool.cpp).
struct PoolCursor {
    void* slab;
    char* next;
    char* end;
    long cut;  // blocks cut from slab, not yet settled
};
extern __thread PoolCursor t_poolCursor __attribute__((tls_model("initial-exec")));

// PoolCut when the current slab has no room (or blocks are heap blocks).
void* PoolCutSlow(size_t bytes);

// A block of bytes (<= kPoolLargest) aligned to 8, or std::bad_alloc.  Each
// call counts as one allocation for the fault-injection tests.
inline void* PoolCut(size_t bytes) {
    if (kwz::FaultCheck()) throw std::bad_alloc();
    bytes = (bytes + 7) & ~size_t{7};
    PoolCursor& c = t_poolCursor;
    if (static_cast<size_t>(c.end - c.next) < bytes) return PoolCutSlow(bytes);
    void* block = c.next;
    c.next += bytes;
    ++c.cut;
    return block;
}
// Gives a block of PoolCut back.
void PoolGive(void* block) noexcept;
// One more owner of the block: it is given back once more.  False when the
// pool cannot share (then the caller copies).
bool PoolShare(const void* block) noexcept;

// Bytes of the slabs in use (mapped and not kept spare).
long PoolBytes() noexcept;

}  // namespace kwz::xml
