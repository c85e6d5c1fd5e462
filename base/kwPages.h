// Memory on huge pages: fixed-size slots cut from 2 MB chunks, and large
// arrays, both taken from the system with mmap, aligned to 2 MB and advised
// with MADV_HUGEPAGE so that the kernel backs them with huge pages where it
// can.  Records that a search reads at random (the graph blocks, the node
// hash) then cost one TLB entry per 2 MB instead of one per 4 KB.  A slot
// pool's first chunk is not advised: small users keep small pages.
//
// A chunk goes back to the system as soon as its last slot is given back, and
// a large array as soon as it is freed: nothing is kept in reserve.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <new>

#include "base/kwSanitize.h"

namespace kwz {

constexpr size_t kPageChunkBytes = size_t{2} << 20;
// Arrays of at least this many bytes are mapped on their own; smaller ones
// are ordinary heap blocks.
constexpr size_t kPageLargeBytes = kPageChunkBytes;

// Under AddressSanitizer every slot and array is an ordinary heap block, so
// that leak detection and the use-after-free checks see each record.
constexpr bool kPagesFromHeap = kAddressSanitizer;

// Slots of one size (rounded up to 64 bytes, at most a chunk less 64 bytes),
// 64-byte aligned (as malloc aligns when they are heap blocks).  Thread-safe.  Each Take counts as one allocation for the
// fault injection of base/kwMem.h.  A slot's content is undefined when taken.
class PageSlots {
public:
    explicit PageSlots(size_t slotBytes);
    PageSlots(PageSlots const&) = delete;
    PageSlots& operator=(PageSlots const&) = delete;
    // Every slot must have been given back; the pool's chunks are not freed
    // here.
    ~PageSlots() = default;

    // A slot, or null when the system refuses memory or an injected fault
    // fires.
    void* Take();
    // Gives back a slot taken from this pool; null is ignored.
    void Give(void* slot);

    size_t SlotBytes() const { return slotBytes_; }
    size_t SlotsPerChunk() const { return perChunk_; }
    // Chunks mapped now (0 when slots are heap blocks).
    size_t Chunks();

    struct Chunk;

private:
    Chunk* NewChunk();
    void Open(Chunk* c);
    void Close(Chunk* c);

    std::mutex mutex_;
    size_t slotBytes_;
    size_t perChunk_;
    Chunk* open_ = nullptr;  // chunks with a free slot or room to cut one
    size_t chunks_ = 0;
};

// A block of bytes: mapped on its own (rounded up to 2 MB) when bytes >=
// kPageLargeBytes, a heap block (MemAlloc) below.  Null when memory runs out
// or an injected fault fires (one allocation either way).  LargeFree takes
// the same byte count; null is ignored.
void* LargeAlloc(size_t bytes);
void LargeFree(void* block, size_t bytes);

// Bytes mapped now by every slot pool and large array.
size_t PagesMappedBytes();

// std::vector's allocator for arrays that may grow large: below
// kPageLargeBytes it is the global operator new (exactly as std::allocator);
// from there on LargeAlloc, throwing std::bad_alloc on failure.
template <typename T>
struct LargeAllocator {
    using value_type = T;
    LargeAllocator() = default;
    template <typename U>
    LargeAllocator(LargeAllocator<U> const&) {}

    T* allocate(size_t n) {
        if (n > SIZE_MAX / sizeof(T)) throw std::bad_alloc();
        const size_t bytes = n * sizeof(T);
        if (bytes < kPageLargeBytes) return static_cast<T*>(::operator new(bytes));
        void* p = LargeAlloc(bytes);
        if (!p) throw std::bad_alloc();
        return static_cast<T*>(p);
    }
    void deallocate(T* p, size_t n) {
        const size_t bytes = n * sizeof(T);
        if (bytes < kPageLargeBytes)
            ::operator delete(p);
        else
            LargeFree(p, bytes);
    }
    template <typename U>
    bool operator==(LargeAllocator<U> const&) const { return true; }
    template <typename U>
    bool operator!=(LargeAllocator<U> const&) const { return false; }
};

}  // namespace kwz
