// Internals of the graphs: the storage blocks, the shared pool and the
// scratch state of the path searches.  The records and TGraphItem itself are
// in the public header.
#pragma once

#include <VomKwz.h>

#include "base/kwPages.h"
#include "graph/kwGraphGather.h"

#include <cstdint>
#include <mutex>
#include <vector>

// A storage block: a next-block pointer and 1,024 records.  Init zeroes the
// records and chains each to the next through its free-list link.
constexpr uint32_t kGraphBlockRecords = 1024;

struct TNodeHeap {
    TNodeHeap* next;
    TGraphNode nodes[kGraphBlockRecords];
    void Init();
};

struct TLinkHeap {
    TLinkHeap* next;
    TGraphLink links[kGraphBlockRecords];
    void Init();
};

// The pool of storage blocks shared by every graph made on it.  Only the pool
// is locked; the graphs themselves are not.
struct TGraphHeap {
    std::mutex mutex;
    uint32_t spareNodeCount = 0;
    TNodeHeap* spareNodeHeaps = nullptr;
    uint32_t spareLinkCount = 0;
    TLinkHeap* spareLinkHeaps = nullptr;

    TGraphHeap() = default;
    TGraphHeap(TGraphHeap const&) = delete;
    TGraphHeap& operator=(TGraphHeap const&) = delete;
    ~TGraphHeap();

    // Throw std::bad_alloc when a new block cannot be had.
    TNodeHeap* GetNodeHeap();
    TLinkHeap* GetLinkHeap();
    void PutNodeHeap(TNodeHeap* block);
    void PutLinkHeap(TLinkHeap* block);
    void Clear(bool lock);

    // Blocks handed back while the spare count was at most 128: counted as
    // spare but never drawn from again (see PutNodeHeap); kept reachable here
    // so that Clear frees them.
    TNodeHeap* retiredNodeHeaps = nullptr;
    TLinkHeap* retiredLinkHeaps = nullptr;
};

// What the last path search on a graph marked: every node whose mark it set
// (touched), and every link whose halves it marked, named by the half marked
// 1 (links; its pair was marked 2).  A search that does not keep the link
// list (allExpanded) has its link marks cleared through all the half-links of
// the touched nodes.
// The frontiers and the gathered lists of BuildPathCut live here too, so that
// searches in a row reuse their room.
// Arrays of a search on a large graph reach megabytes: from 2 MB on they
// are mapped on huge pages (base/kwPages.h).
using ScratchNodes = std::vector<TGraphNode*, kwz::LargeAllocator<TGraphNode*>>;
using ScratchLinks = std::vector<TGraphLink*, kwz::LargeAllocator<TGraphLink*>>;

struct TGraphScratch {
    ScratchNodes touched;
    ScratchLinks links;
    bool allExpanded = false;
    ScratchNodes first, second, wave, expanded;
    kwz::graph::LinkGather gather;
    void Reset() {
        touched.clear();
        links.clear();
    }
};

namespace kwz::graph {

// The library's pool "_Heap": the graph module's one piece of state.
TGraphHeap& SharedHeap();

// Grows the hash when the node count has reached its limit, as every
// AppendNode call does first; throws std::bad_alloc when g has no hash at all.
void GrowHash(TGraphItem& g);

// Takes a node with source's id, known to be absent, into g with a copy of
// source's group list (reversed, as AppendNode(source) gives); all or nothing.
TGraphNode* AppendAbsentNode(TGraphItem& g, TGraphNode const& source);

// Links a and b, known not to be linked yet and distinct; a's half-link.
TGraphLink* AppendNewLink(TGraphItem& g, TGraphNode& a, TGraphNode& b);

}  // namespace kwz::graph
