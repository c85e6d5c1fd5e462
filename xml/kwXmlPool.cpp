// The node pool: nodes and attributes are cut from 64 KB slabs, one slab at a
// time per thread, instead of one heap block each.  A slab counts the objects
// cut from it that still live, plus one while it is its thread's current
// slab; it goes back to the heap when the count reaches 0.  Parsing and
// freeing a large document thus costs a few hundred heap calls instead of
// millions.  A slab stays while any of its objects lives: a long-lived tree
// that keeps one node of a slab keeps the 64 KB.
//
//   slab:   | refs | used | size | object | object | ... |
//   object: | slab pointer (16 bytes, keeps 16-byte alignment) | the node |
//
// Objects may be freed on any thread (the count is atomic).
#include <VomKwz.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "base/kwMem.h"

// Under AddressSanitizer every object gets a slab of its own that no thread
// holds, so that a leaked or freed node is seen exactly as a heap block is.
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define KWZ_POISON(p, n) ASAN_POISON_MEMORY_REGION(p, n)
#define KWZ_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION(p, n)
constexpr bool kSlabPerObject = true;
#else
#define KWZ_POISON(p, n) ((void)(p), (void)(n))
#define KWZ_UNPOISON(p, n) ((void)(p), (void)(n))
constexpr bool kSlabPerObject = false;
#endif

namespace {

constexpr size_t kSlabBytes = 64 * 1024;
constexpr size_t kHeader = 16;

struct Slab {
    std::atomic<int64_t> refs;
    size_t used;
    size_t size;
    alignas(16) char data[1];
};

void Release(Slab* slab) noexcept {
    if (slab && slab->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        KWZ_UNPOISON(slab->data, slab->size);
        std::free(slab);
    }
}

// The thread's current slab; the thread's hold on it ends with the thread.
struct Current {
    Slab* slab = nullptr;
    ~Current() {
        Release(slab);
        slab = nullptr;
    }
};
thread_local Current t_current;

size_t RoundUp(size_t n) { return (n + 15) & ~size_t{15}; }

void* PoolAlloc(size_t size) {
    // Each object counts as one allocation for the fault-injection tests.
    if (kwz::FaultCheck()) throw std::bad_alloc();
    const size_t need = kHeader + RoundUp(size);
    Slab* slab = kSlabPerObject ? nullptr : t_current.slab;
    if (!slab || slab->size - slab->used < need) {
        const size_t room = need > kSlabBytes || kSlabPerObject ? need : kSlabBytes;
        auto* fresh = static_cast<Slab*>(std::malloc(offsetof(Slab, data) + room));
        if (!fresh) throw std::bad_alloc();
        new (&fresh->refs) std::atomic<int64_t>(1);
        fresh->used = 0;
        fresh->size = room;
        if (kSlabPerObject) {
            fresh->refs.store(0, std::memory_order_relaxed);  // no thread holds it
            slab = fresh;
        } else {
            Release(slab);
            t_current.slab = slab = fresh;
        }
    }
    char* block = slab->data + slab->used;
    slab->used += need;
    slab->refs.fetch_add(1, std::memory_order_relaxed);
    *reinterpret_cast<Slab**>(block) = slab;
    return block + kHeader;
}

void PoolFree(void* block, size_t size) noexcept {
    if (!block) return;
    char* start = static_cast<char*>(block) - kHeader;
    Slab* slab = *reinterpret_cast<Slab**>(start);
    KWZ_POISON(start, kHeader + RoundUp(size));
    Release(slab);
}

}  // namespace

void* _tagXMLNode::operator new(size_t size) { return PoolAlloc(size); }
void _tagXMLNode::operator delete(void* block, size_t size) noexcept { PoolFree(block, size); }
void* _tagXMLAttr::operator new(size_t size) { return PoolAlloc(size); }
void _tagXMLAttr::operator delete(void* block, size_t size) noexcept { PoolFree(block, size); }
