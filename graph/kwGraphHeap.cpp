// The storage pool of the graphs: blocks of 1,024 node or half-link records,
// handed out and taken back under the pool's mutex.  The blocks themselves
// are slots on huge pages (base/kwPages.h), one slot pool per block size
// shared by every graph pool; a block freed here goes back to its slot pool,
// which returns a chunk to the system once its last block is back.
#include <cstring>
#include <new>

#include "base/kwPages.h"
#include "graph/kwGraph.h"

namespace {

// Made on first use and never destroyed, as the shared graph pool.
template <typename Block>
kwz::PageSlots& SlotsOf() {
    static kwz::PageSlots* slots = new kwz::PageSlots(sizeof(Block));
    return *slots;
}

// Spare count up to which a block handed back is kept rather than freed.
constexpr uint32_t kSpareKept = 128;

template <typename Block>
Block* NewBlock() {
    auto* block = static_cast<Block*>(SlotsOf<Block>().Take());
    if (!block) throw std::bad_alloc();
    block->Init();
    return block;
}

template <typename Block>
void FreeChain(Block*& head) {
    while (Block* block = head) {
        head = block->next;
        SlotsOf<Block>().Give(block);
    }
}

template <typename Block>
Block* Take(std::mutex& mutex, Block*& spare, uint32_t& count) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (Block* block = spare) {
            spare = block->next;
            --count;
            block->next = nullptr;
            return block;
        }
    }
    return NewBlock<Block>();
}

// A block handed back while the spare count is at most 128 is counted as
// spare but not put where Take finds it: the spare list keeps its head, so the
// block is neither reused nor freed until Clear, and new blocks keep being
// allocated while the list is empty.  Callers size their memory by that rule.
template <typename Block>
// No block handed back is ever handed out again, so none is set up again.
void Give(std::mutex& mutex, Block* block, Block*& spare, uint32_t& count, Block*& retired) {
    std::lock_guard<std::mutex> lock(mutex);
    if (count <= kSpareKept) {
        (void)spare;
        block->next = retired;
        retired = block;
        ++count;
    } else {
        SlotsOf<Block>().Give(block);
    }
}

}  // namespace

void TNodeHeap::Init() {
    std::memset(nodes, 0, sizeof nodes);
    for (uint32_t k = 0; k + 1 < kGraphBlockRecords; ++k) nodes[k].nodeNext = &nodes[k + 1];
}

void TLinkHeap::Init() {
    std::memset(links, 0, sizeof links);
    for (uint32_t k = 0; k + 1 < kGraphBlockRecords; ++k) links[k].next = &links[k + 1];
}

TGraphHeap::~TGraphHeap() { Clear(false); }

TNodeHeap* TGraphHeap::GetNodeHeap() { return Take(mutex, spareNodeHeaps, spareNodeCount); }
TLinkHeap* TGraphHeap::GetLinkHeap() { return Take(mutex, spareLinkHeaps, spareLinkCount); }

void TGraphHeap::PutNodeHeap(TNodeHeap* block) {
    Give(mutex, block, spareNodeHeaps, spareNodeCount, retiredNodeHeaps);
}

void TGraphHeap::PutLinkHeap(TLinkHeap* block) {
    Give(mutex, block, spareLinkHeaps, spareLinkCount, retiredLinkHeaps);
}

void TGraphHeap::Clear(bool lock) {
    std::unique_lock<std::mutex> guard(mutex, std::defer_lock);
    if (lock) guard.lock();
    FreeChain(spareNodeHeaps);
    FreeChain(retiredNodeHeaps);
    FreeChain(spareLinkHeaps);
    FreeChain(retiredLinkHeaps);
    spareNodeCount = 0;
    spareLinkCount = 0;
}

namespace kwz::graph {

TGraphHeap& SharedHeap() {
    // Built on first use and never destroyed, so that graphs in other static
    // objects can be made and destroyed at any point of start-up and exit.
    static TGraphHeap* heap = new TGraphHeap;
    return *heap;
}

}  // namespace kwz::graph
