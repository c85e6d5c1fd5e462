// Slots and large arrays on 2 MB-aligned mappings advised for huge pages.
#include "base/kwPages.h"

#include <sys/mman.h>

#include <atomic>
#include <cstring>

#include "base/kwMem.h"

namespace {

constexpr size_t kSlotAlign = 64;

std::atomic<size_t> g_mappedBytes{0};

constexpr size_t RoundUp(size_t n, size_t to) { return (n + to - 1) / to * to; }

// bytes (a multiple of 2 MB) at a 2 MB boundary, advised for huge pages when
// `huge`; null when the system refuses.  The mapping is made 2 MB larger and
// trimmed at both ends.
void* MapAligned(size_t bytes, bool huge = true) {
    const size_t span = bytes + kwz::kPageChunkBytes;
    void* raw = mmap(nullptr, span, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (raw == MAP_FAILED) return nullptr;
    const auto base = reinterpret_cast<uintptr_t>(raw);
    const uintptr_t start = RoundUp(base, kwz::kPageChunkBytes);
    if (start > base) munmap(raw, start - base);
    const uintptr_t tail = start + bytes;
    if (base + span > tail) munmap(reinterpret_cast<void*>(tail), base + span - tail);
    void* p = reinterpret_cast<void*>(start);
    // Only advice: without huge pages the mapping works the same.
    if (huge) (void)madvise(p, bytes, MADV_HUGEPAGE);
    g_mappedBytes.fetch_add(bytes, std::memory_order_relaxed);
    return p;
}

void Unmap(void* p, size_t bytes) {
    munmap(p, bytes);
    g_mappedBytes.fetch_sub(bytes, std::memory_order_relaxed);
}

}  // namespace

namespace kwz {

// At the start of each chunk; the slots follow at kSlotAlign.  prev and next
// chain the chunks that can hand out a slot (open).
struct PageSlots::Chunk {
    Chunk* prev;
    Chunk* next;
    void* free;      // slots given back, chained through their first word
    uint32_t used;   // slots handed out
    uint32_t cut;    // slots cut so far, in address order
    bool open;
};

namespace {

constexpr size_t kHeaderBytes = RoundUp(sizeof(PageSlots::Chunk), kSlotAlign);

char* SlotBase(PageSlots::Chunk* c) { return reinterpret_cast<char*>(c) + kHeaderBytes; }

PageSlots::Chunk* ChunkOf(void* slot) {
    return reinterpret_cast<PageSlots::Chunk*>(reinterpret_cast<uintptr_t>(slot) & ~(kPageChunkBytes - 1));
}

}  // namespace

PageSlots::PageSlots(size_t slotBytes) : slotBytes_(RoundUp(slotBytes ? slotBytes : 1, kSlotAlign)) {
    if (slotBytes_ > kPageChunkBytes - kHeaderBytes) throw std::bad_alloc();
    perChunk_ = (kPageChunkBytes - kHeaderBytes) / slotBytes_;
}

void PageSlots::Open(Chunk* c) {
    c->open = true;
    c->prev = nullptr;
    c->next = open_;
    if (open_) open_->prev = c;
    open_ = c;
}

void PageSlots::Close(Chunk* c) {
    c->open = false;
    if (c->prev)
        c->prev->next = c->next;
    else
        open_ = c->next;
    if (c->next) c->next->prev = c->prev;
    c->prev = c->next = nullptr;
}

PageSlots::Chunk* PageSlots::NewChunk() {
    // A pool's first chunk stays on small pages: a program with a few small
    // graphs keeps only the pages it touches, instead of a whole huge page
    // per pool.  Chunks beyond it serve large graphs, where huge pages pay.
    auto* c = static_cast<Chunk*>(MapAligned(kPageChunkBytes, chunks_ > 0));
    if (!c) return nullptr;
    // A fresh mapping is zero: no free slot, none cut yet.
    ++chunks_;
    Open(c);
    return c;
}

void* PageSlots::Take() {
    if (kPagesFromHeap) return MemAlloc(slotBytes_);
    if (FaultCheck()) return nullptr;
    std::lock_guard<std::mutex> lock(mutex_);
    Chunk* c = open_;
    if (!c && !(c = NewChunk())) return nullptr;
    void* slot;
    if (c->free) {
        slot = c->free;
        c->free = *static_cast<void**>(slot);
    } else {
        slot = SlotBase(c) + size_t(c->cut++) * slotBytes_;
    }
    ++c->used;
    if (!c->free && c->cut == perChunk_) Close(c);
    return slot;
}

void PageSlots::Give(void* slot) {
    if (!slot) return;
    if (kPagesFromHeap) return MemFree(slot);
    std::lock_guard<std::mutex> lock(mutex_);
    Chunk* c = ChunkOf(slot);
    *static_cast<void**>(slot) = c->free;
    c->free = slot;
    if (--c->used == 0) {
        if (c->open) Close(c);
        --chunks_;
        Unmap(c, kPageChunkBytes);
    } else if (!c->open) {
        Open(c);
    }
}

size_t PageSlots::Chunks() {
    std::lock_guard<std::mutex> lock(mutex_);
    return chunks_;
}

void* LargeAlloc(size_t bytes) {
    if (kPagesFromHeap || bytes < kPageLargeBytes) return MemAlloc(bytes);
    if (FaultCheck() || bytes > SIZE_MAX - 2 * kPageChunkBytes) return nullptr;
    return MapAligned(RoundUp(bytes, kPageChunkBytes));
}

void LargeFree(void* block, size_t bytes) {
    if (!block) return;
    if (kPagesFromHeap || bytes < kPageLargeBytes) return MemFree(block);
    Unmap(block, RoundUp(bytes, kPageChunkBytes));
}

size_t PagesMappedBytes() { return g_mappedBytes.load(std::memory_order_relaxed); }

}  // namespace kwz
