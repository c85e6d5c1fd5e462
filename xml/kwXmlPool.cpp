// The node pool.  Blocks are cut in turn from the thread's current slab of
// 256 KB; a slab counts the blocks cut from it that still live, and goes back
// to the system when the count reaches 0 after its thread has moved on to
// another slab.  A tree of millions of nodes thus costs a few hundred system
// calls, and 0 bytes of bookkeeping per block: a slab is aligned to its size,
// so the address of a block finds its slab.  A slab stays while any of its
// blocks lives: a long-lived tree that keeps one node of a slab keeps 256 KB.
//
//   slab: | count (8 bytes) | padding to 16 | block | block | ... |
//
// The count starts at a large bias while the slab is its thread's current
// one, so that cutting a block costs no atomic operation: the thread counts
// its cuts privately and settles them with the bias when it moves on.  Blocks
// may be given back on any thread (the count is atomic).
#include "xml/kwXmlPool.h"

#include <VomKwz.h>

#include <sys/mman.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <new>

#include "base/kwMem.h"

namespace kwz::xml {
namespace {

constexpr size_t kSlabHeader = 16;
constexpr int64_t kBias = int64_t{1} << 48;

struct Slab {
    std::atomic<int64_t> count;
};

Slab* SlabOf(const void* block) {
    return reinterpret_cast<Slab*>(reinterpret_cast<uintptr_t>(block) & ~(uintptr_t{kSlabBytes} - 1));
}

// Empty slabs kept for the next parse (8 MB at most), so that parsing and
// freeing small documents in turn does not map and unmap all the time.
constexpr size_t kSpareSlabs = 32;
struct Spares {
    std::mutex lock;
    Slab* slabs[kSpareSlabs];
    size_t count = 0;
};
Spares& TheSpares() {
    static Spares* spares = new Spares;  // never destroyed: threads may end after exit
    return *spares;
}

std::atomic<long> g_slabsInUse{0};

void Unmap(Slab* slab) noexcept {
    g_slabsInUse.fetch_sub(1, std::memory_order_relaxed);
    Spares& spares = TheSpares();
    {
        std::lock_guard<std::mutex> hold(spares.lock);
        if (spares.count < kSpareSlabs) {
            spares.slabs[spares.count++] = slab;
            return;
        }
    }
    munmap(slab, kSlabBytes);
}

// A fresh slab aligned to its size: a spare one, or twice the size is mapped
// and the unaligned ends are given back.
Slab* Map() {
    g_slabsInUse.fetch_add(1, std::memory_order_relaxed);
    {
        Spares& spares = TheSpares();
        std::lock_guard<std::mutex> hold(spares.lock);
        if (spares.count) {
            Slab* slab = spares.slabs[--spares.count];
            slab->count.store(kBias, std::memory_order_relaxed);
            return slab;
        }
    }
    void* area = mmap(nullptr, 2 * kSlabBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (area == MAP_FAILED) {
        g_slabsInUse.fetch_sub(1, std::memory_order_relaxed);
        throw std::bad_alloc();
    }
    const uintptr_t start = reinterpret_cast<uintptr_t>(area);
    const uintptr_t aligned = (start + kSlabBytes - 1) & ~(uintptr_t{kSlabBytes} - 1);
    if (aligned > start) munmap(area, aligned - start);
    const uintptr_t tail = aligned + kSlabBytes;
    if (start + 2 * kSlabBytes > tail) munmap(reinterpret_cast<void*>(tail), start + 2 * kSlabBytes - tail);
    auto* slab = reinterpret_cast<Slab*>(aligned);
    new (&slab->count) std::atomic<int64_t>(kBias);
    return slab;
}

// n may be below 0: shares counted in a table (PoolShareLater).
void Drop(Slab* slab, int64_t n) noexcept {
    if (n == 0) return;
    if (slab->count.fetch_sub(n, std::memory_order_acq_rel) == n) Unmap(slab);
}

// Settles the thread's current slab and leaves the cursor empty.
void Retire(PoolCursor& c) noexcept {
    if (c.slab) Drop(static_cast<Slab*>(c.slab), kBias - c.cut);
    c.slab = nullptr;
    c.next = c.end = nullptr;
    c.cut = 0;
}

void SettleAll(PoolPending& p) noexcept {
    for (size_t i = 0; i < kPendingSlots; ++i) {
        if (p.slab[i]) Drop(static_cast<Slab*>(p.slab[i]), p.n[i]);
        p.slab[i] = nullptr;
        p.n[i] = 0;
    }
}

// The thread's hold on its current slab and its pending counts end with the thread.
struct Holder {
    ~Holder() {
        SettleAll(t_poolPending);
        Retire(t_poolCursor);
    }
};
thread_local Holder t_holder;

}  // namespace

void PoolTake(void* slab, size_t i) noexcept {
    PoolPending& p = t_poolPending;
    if (p.slab[i]) {
        Drop(static_cast<Slab*>(p.slab[i]), p.n[i]);
    } else if (!p.registered) {
        static_cast<void>(&t_holder);  // registers the settling at thread exit
        p.registered = true;
    }
    p.slab[i] = slab;
    p.n[i] = 0;
}

void PoolGiveSlow(void* block) noexcept {
    if (kHeapBlocks) {
        std::free(block);
        return;
    }
    Slab* slab = SlabOf(block);
    const size_t i = PendingSlot(slab);
    PoolTake(slab, i);
    t_poolPending.n[i] = 1;
}

void PoolSettle() noexcept {
    // Only the shares must be settled; gives may wait (a slab then stays a
    // little longer), so a parse of a small text costs no atomic operation
    // for them.
    PoolPending& p = t_poolPending;
    for (size_t i = 0; i < kPendingSlots; ++i) {
        if (p.n[i] < 0) {
            Drop(static_cast<Slab*>(p.slab[i]), p.n[i]);
            p.n[i] = 0;
        }
    }
}

// Plain data, with the initial-exec model: the library is loaded with the
// program, and reaching the cursor is an offset from the thread pointer.
__thread PoolCursor t_poolCursor __attribute__((tls_model("initial-exec"))) = {nullptr, nullptr, nullptr, 0};
__thread PoolPending t_poolPending __attribute__((tls_model("initial-exec"))) = {{}, {}, false};

void* PoolCutSlow(size_t bytes) {
    if (kHeapBlocks) {
        void* block = std::malloc(bytes);
        if (!block) throw std::bad_alloc();
        return block;
    }
    PoolCursor& c = t_poolCursor;
    Slab* fresh = Map();
    static_cast<void>(&t_holder);  // registers the release at thread exit
    Retire(c);
    c.slab = fresh;
    c.next = reinterpret_cast<char*>(fresh) + kSlabHeader + bytes;
    c.end = reinterpret_cast<char*>(fresh) + kSlabBytes;
    c.cut = 1;
    return reinterpret_cast<char*>(fresh) + kSlabHeader;
}

bool PoolShare(const void* block) noexcept {
    if (kHeapBlocks) return false;
    Slab* slab = SlabOf(block);
    PoolCursor& c = t_poolCursor;
    if (slab == c.slab) {
        ++c.cut;
    } else {
        slab->count.fetch_add(1, std::memory_order_relaxed);
    }
    return true;
}

long PoolBytes() noexcept { return g_slabsInUse.load(std::memory_order_relaxed) * static_cast<long>(kSlabBytes); }

}  // namespace kwz::xml

void* _tagXMLNode::operator new(size_t size) { return kwz::xml::PoolCut(size); }
void _tagXMLNode::operator delete(void* block, size_t) noexcept { kwz::xml::PoolGive(block); }
void* _tagXMLAttr::operator new(size_t size) { return kwz::xml::PoolCut(size); }
void _tagXMLAttr::operator delete(void* block, size_t) noexcept { kwz::xml::PoolGive(block); }
