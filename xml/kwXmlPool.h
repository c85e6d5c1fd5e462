// The node pool: nodes, attributes, texts and small arrays of a tree are cut
// from slabs, with no heap block each.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>

#include "base/kwMem.h"
#include "base/kwSanitize.h"

namespace kwz::xml {

// Blocks above this size are heap blocks; below it they come from slabs.
constexpr size_t kPoolLargest = 4096;
// Slabs are this large and aligned to their size.
constexpr size_t kSlabBytes = size_t{256} << 10;

// Under AddressSanitizer every block is a heap block of its own, so that a
// leaked or freed node is seen exactly as a heap block is.
constexpr bool kHeapBlocks = kwz::kAddressSanitizer;

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
// Blocks given back on this thread, not yet taken from their slabs' counts:
// a tree is freed in about the order in which it was made, so most blocks
// in a row belong to a few slabs (the current one, and those of the names
// that the parse shares) and cost no atomic operation each.  Each slab has
// one place of a small table, by its address; a count is settled when a
// block of another slab takes its place, or when the thread ends (a few
// slabs may thus stay mapped until then).
constexpr size_t kPendingSlots = 8;
struct PoolPending {
    void* slab[kPendingSlots];
    long n[kPendingSlots];
    bool registered;  // the thread's settling at exit is set up
};
extern __thread PoolPending t_poolPending __attribute__((tls_model("initial-exec")));

inline size_t PendingSlot(const void* slab) {
    return (reinterpret_cast<uintptr_t>(slab) / kSlabBytes) % kPendingSlots;
}

// PoolGive when the block's slab has no place in the table yet.
void PoolGiveSlow(void* block) noexcept;
// Place i of the table for slab (its former count settled), at 0.
void PoolTake(void* slab, size_t i) noexcept;

// Gives a block of PoolCut back.
inline void PoolGive(void* block) noexcept {
    if (!block) return;
    if (!kHeapBlocks) {
        void* slab = reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(block) & ~(uintptr_t{kSlabBytes} - 1));
        PoolPending& p = t_poolPending;
        const size_t i = PendingSlot(slab);
        if (p.slab[i] == slab) {
            ++p.n[i];
            return;
        }
    }
    PoolGiveSlow(block);
}
// One more owner of the block: it is given back once more.  False when the
// pool cannot share (then the caller copies).
bool PoolShare(const void* block) noexcept;

// PoolShare with the count kept in the thread's table (no atomic operation)
// until PoolSettle.  Only for a block that an owner counted in its slab keeps
// alive on this thread until then: an uncounted share must never meet a
// slab's last give on another thread.  The parser shares the names of the
// tree it builds this way and settles before the tree leaves it.
inline bool PoolShareLater(const void* block) noexcept {
    if (kHeapBlocks) return false;
    void* slab = reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(block) & ~(uintptr_t{kSlabBytes} - 1));
    PoolPending& p = t_poolPending;
    const size_t i = PendingSlot(slab);
    if (p.slab[i] != slab) PoolTake(slab, i);
    --p.n[i];
    return true;
}
// Settles the shares counted in the thread's table with the slabs' counts.
void PoolSettle() noexcept;

// Bytes of the slabs in use (mapped and not kept spare).
long PoolBytes() noexcept;

}  // namespace kwz::xml
