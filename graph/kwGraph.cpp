// The graph model: nodes found through a bucket hash, half-link lists,
// group lists, records drawn from the graph's own free lists and storage
// blocks from the pool.
#include <cstring>
#include <new>
#include <utility>

#include "base/kwMem.h"
#include "base/kwPages.h"
#include "graph/kwGraph.h"

namespace {

constexpr uint32_t kMinHashSize = 1024;

// A node record from the free list, taking a new block when it is empty.
// Free records are zero but for their free-list link.
TGraphNode* TakeNode(TGraphItem& g) {
    if (!g.freeNodes) {
        TNodeHeap* block = g.heap->GetNodeHeap();
        block->next = g.nodeHeaps;
        g.nodeHeaps = block;
        g.freeNodes = &block->nodes[0];
    }
    TGraphNode* node = g.freeNodes;
    g.freeNodes = node->nodeNext;
    node->nodeNext = nullptr;
    return node;
}

void FreeNodeRecord(TGraphItem& g, TGraphNode* node) {
    std::memset(static_cast<void*>(node), 0, sizeof *node);
    node->nodeNext = g.freeNodes;
    g.freeNodes = node;
}

// Makes sure that two half-link records can be taken without a block
// allocation, so that a link is made whole or not at all.  The outcome is the
// one of taking them one by one: a lone free record goes first, then the new
// block's records in order.
void ReserveLinks(TGraphItem& g) {
    auto attach = [&g]() {
        TLinkHeap* block = g.heap->GetLinkHeap();
        block->next = g.linkHeaps;
        g.linkHeaps = block;
        return &block->links[0];
    };
    if (!g.freeLinks) g.freeLinks = attach();
    if (!g.freeLinks->next) g.freeLinks->next = attach();
}

TGraphLink* TakeLink(TGraphItem& g) {
    TGraphLink* link = g.freeLinks;
    g.freeLinks = link->next;
    return link;
}

// Inserts h right after the first half-link of n's list, or as the first in
// an empty list: ordinary appends never displace a node's first link.
void InsertSecond(TGraphNode& n, TGraphLink* h) {
    TGraphLink* first = n.linkFirst;
    if (!first) {
        h->prev = h->next = nullptr;
        n.linkFirst = h;
    } else {
        h->prev = first;
        h->next = first->next;
        if (first->next) first->next->prev = h;
        first->next = h;
    }
    ++n.linkCount;
}

void PushFirst(TGraphNode& n, TGraphLink* h) {
    h->prev = nullptr;
    h->next = n.linkFirst;
    if (n.linkFirst) n.linkFirst->prev = h;
    n.linkFirst = h;
    ++n.linkCount;
}

void Unlink(TGraphLink* h) {
    if (h->prev)
        h->prev->next = h->next;
    else
        h->owner->linkFirst = h->next;
    if (h->next) h->next->prev = h->prev;
}

// Two half-link records for a new link a-b (a's first); the caller places them.
std::pair<TGraphLink*, TGraphLink*> NewHalves(TGraphItem& g, TGraphNode& a, TGraphNode& b) {
    ReserveLinks(g);
    TGraphLink* ha = TakeLink(g);
    TGraphLink* hb = TakeLink(g);
    *ha = TGraphLink{&a, hb, nullptr, nullptr, 0};
    *hb = TGraphLink{&b, ha, nullptr, nullptr, 0};
    ++g.linkCount;
    return {ha, hb};
}

// A chain of copies of the group entries from `first` on, taken whole or not
// at all: in the same order, or reversed.  Returns head and tail.
std::pair<TGraphNode*, TGraphNode*> CopyGroupChain(TGraphItem& g, const TGraphNode* first,
                                                   bool reversed) {
    TGraphNode* head = nullptr;
    TGraphNode* tail = nullptr;
    try {
        for (const TGraphNode* e = first; e; e = e->groupFirst) {
            TGraphNode* copy = TakeNode(g);
            copy->id = e->id;
            if (reversed) {
                copy->groupFirst = head;
                head = copy;
                if (!tail) tail = copy;
            } else {
                if (tail)
                    tail->groupFirst = copy;
                else
                    head = copy;
                tail = copy;
            }
        }
    } catch (...) {
        while (TGraphNode* e = head) {
            head = e->groupFirst;
            FreeNodeRecord(g, e);
        }
        throw;
    }
    return {head, tail};
}

// Bucket count for growth: nodeCount rounded up to 256, then 1,024, the next
// power of two up to 131,072, or whole steps of 131,072 beyond.
uint32_t GrownHashSize(uint32_t nodeCount) {
    const uint64_t r = (uint64_t(nodeCount) + 255) & ~uint64_t(255);
    if (r < 1024) return 1024;
    if (r < 131072) {
        uint32_t size = 2048;
        while (size <= r) size <<= 1;
        return size;
    }
    return (nodeCount & ~uint32_t(0x1FFFF)) + 131072;
}

}  // namespace

namespace kwz::graph {

TGraphLink* AppendNewLink(TGraphItem& g, TGraphNode& a, TGraphNode& b) {
    auto [ha, hb] = NewHalves(g, a, b);
    InsertSecond(a, ha);
    InsertSecond(b, hb);
    return ha;
}

}  // namespace kwz::graph

TGraphItem::TGraphItem() : scratch_(nullptr) { Init(kwz::graph::SharedHeap()); }

TGraphItem::TGraphItem(TGraphHeap& pool) : scratch_(nullptr) { Init(pool); }

TGraphItem::TGraphItem(TGraphItem const& source) : scratch_(nullptr) {
    Init(*source.heap);
    Copy(source);
}

namespace {

// Every field of source into g; source is left empty on its own pool.  The
// caller has freed what g held.
void TakeOver(TGraphItem& g, TGraphItem& source, TGraphScratch*& scratch, TGraphScratch*& sourceScratch) {
    g.mark = source.mark;
    g.heap = source.heap;
    g.hashTable = source.hashTable;
    g.hashSize = source.hashSize;
    g.hashLimit = source.hashLimit;
    g.nodeCount = source.nodeCount;
    g.freeNodes = source.freeNodes;
    g.nodeFirst = source.nodeFirst;
    g.nodeHeaps = source.nodeHeaps;
    g.linkCount = source.linkCount;
    g.freeLinks = source.freeLinks;
    g.linkHeaps = source.linkHeaps;
    scratch = std::exchange(sourceScratch, nullptr);
    source.Init(*source.heap);
}

}  // namespace

TGraphItem::TGraphItem(TGraphItem&& source) noexcept : scratch_(nullptr) {
    TakeOver(*this, source, scratch_, source.scratch_);
}

TGraphItem& TGraphItem::operator=(TGraphItem const& source) {
    Copy(source);
    return *this;
}

TGraphItem& TGraphItem::operator=(TGraphItem&& source) noexcept {
    if (this != &source) {
        Clear();
        delete scratch_;
        TakeOver(*this, source, scratch_, source.scratch_);
    }
    return *this;
}

TGraphItem::~TGraphItem() {
    Clear();
    delete scratch_;
}

void TGraphItem::Init(TGraphHeap& pool) {
    mark = 0;
    heap = &pool;
    hashTable = nullptr;
    hashSize = hashLimit = nodeCount = linkCount = 0;
    freeNodes = nodeFirst = nullptr;
    nodeHeaps = nullptr;
    freeLinks = nullptr;
    linkHeaps = nullptr;
    if (scratch_) scratch_->Reset();
}

void TGraphItem::Clear() {
    while (TNodeHeap* block = nodeHeaps) {
        nodeHeaps = block->next;
        heap->PutNodeHeap(block);
    }
    while (TLinkHeap* block = linkHeaps) {
        linkHeaps = block->next;
        heap->PutLinkHeap(block);
    }
    kwz::LargeFree(hashTable, size_t(hashSize) * sizeof(TGraphNode*));
    hashTable = nullptr;
    hashSize = hashLimit = nodeCount = linkCount = 0;
    freeNodes = nodeFirst = nullptr;
    freeLinks = nullptr;
    if (scratch_) scratch_->Reset();
}

void TGraphItem::ClearTemp() {
    mark = 0;
    for (TGraphNode* n = nodeFirst; n; n = n->nodeNext) {
        n->mark = 0;
        for (TGraphLink* h = n->linkFirst; h; h = h->next) h->mark = 0;
    }
    if (scratch_) scratch_->Reset();
}

TGraphNode* TGraphItem::FindNode(unsigned int id, unsigned int& bucket) const {
    if (!hashTable) {
        bucket = 0;
        return nullptr;
    }
    bucket = id % hashSize;
    for (TGraphNode* n = hashTable[bucket]; n; n = n->hashNext)
        if (n->id == id) return n;
    return nullptr;
}

TGraphNode* TGraphItem::FindNode(unsigned int id) const {
    unsigned int bucket;
    return FindNode(id, bucket);
}

// Walks the shorter of the two lists.  Two nodes are linked at most once and
// every link is a pair of halves, one in each list, so b's half toward a,
// when there is one, is the pair of a's half toward b: the answer (a's half)
// is the same whichever list is read.
TGraphLink* TGraphItem::FindLink(TGraphNode const& a, TGraphNode const& b) const {
    if (b.linkCount < a.linkCount) {
        for (TGraphLink* h = b.linkFirst; h; h = h->next)
            if (h->pair->owner == &a) return h->pair;
        return nullptr;
    }
    for (TGraphLink* h = a.linkFirst; h; h = h->next)
        if (h->pair->owner == &b) return h;
    return nullptr;
}

TGraphLink* TGraphItem::FindLink(TGraphNode const& a, unsigned int id) const {
    for (TGraphLink* h = a.linkFirst; h; h = h->next)
        if (h->pair->owner->id == id) return h;
    return nullptr;
}

namespace {

}  // namespace

namespace kwz::graph {

void GrowHash(TGraphItem& g) {
    if (g.nodeCount >= g.hashLimit) g.SetHashSize(GrownHashSize(g.nodeCount));
    if (!g.hashTable) throw std::bad_alloc();  // not even the first bucket array
}

}  // namespace kwz::graph

namespace {

using kwz::graph::GrowHash;

// A new node with that id, at the head of the node list and of its bucket.
TGraphNode* InsertNode(TGraphItem& g, unsigned int id, unsigned int bucket) {
    TGraphNode* node = TakeNode(g);
    node->id = id;
    node->hashNext = g.hashTable[bucket];
    g.hashTable[bucket] = node;
    node->nodePrev = nullptr;
    node->nodeNext = g.nodeFirst;
    if (g.nodeFirst) g.nodeFirst->nodePrev = node;
    g.nodeFirst = node;
    ++g.nodeCount;
    return node;
}

// The node with that id, created when absent (created tells which).
TGraphNode* FindOrCreate(TGraphItem& g, unsigned int id, bool& created) {
    GrowHash(g);
    unsigned int bucket;
    created = false;
    if (TGraphNode* found = g.FindNode(id, bucket)) return found;
    created = true;
    return InsertNode(g, id, bucket);
}

}  // namespace

namespace kwz::graph {

TGraphNode* AppendAbsentNode(TGraphItem& g, TGraphNode const& source) {
    GrowHash(g);
    TGraphNode* node = InsertNode(g, source.id, source.id % g.hashSize);
    if (!source.groupFirst) return node;
    try {
        node->groupFirst = CopyGroupChain(g, source.groupFirst, true).first;
    } catch (...) {
        g.DeleteNode(source.id);
        throw;
    }
    return node;
}

}  // namespace kwz::graph

namespace {

}  // namespace

TGraphNode* TGraphItem::AppendNode(unsigned int id) {
    bool created;
    return FindOrCreate(*this, id, created);
}

TGraphNode* TGraphItem::AppendNode(TGraphNode const& source) {
    bool created;
    TGraphNode* node = FindOrCreate(*this, source.id, created);
    if (node->groupFirst || !source.groupFirst) return node;
    try {
        // Copied entries are pushed at the head one by one: reversed.
        node->groupFirst = CopyGroupChain(*this, source.groupFirst, true).first;
    } catch (...) {
        if (created) DeleteNode(source.id);  // all or nothing
        throw;
    }
    return node;
}

void TGraphItem::DeleteNode(unsigned int id) {
    if (!hashTable) return;
    TGraphNode** at = &hashTable[id % hashSize];
    while (*at && (*at)->id != id) at = &(*at)->hashNext;
    TGraphNode* node = *at;
    if (!node) return;
    *at = node->hashNext;
    while (node->linkFirst) DeleteLink(*node->linkFirst);
    while (TGraphNode* e = node->groupFirst) {
        node->groupFirst = e->groupFirst;
        FreeNodeRecord(*this, e);
    }
    if (node->nodeNext) node->nodeNext->nodePrev = node->nodePrev;
    if (node->nodePrev)
        node->nodePrev->nodeNext = node->nodeNext;
    else
        nodeFirst = node->nodeNext;
    FreeNodeRecord(*this, node);
    --nodeCount;
}

bool TGraphItem::RenameNode(TGraphNode& node, unsigned int id) {
    if (node.id == id) return true;
    if (FindNode(id)) return false;
    const unsigned int from = node.id % hashSize;
    const unsigned int to = id % hashSize;
    node.id = id;
    if (from != to) {
        TGraphNode** at = &hashTable[from];
        while (*at != &node) at = &(*at)->hashNext;
        *at = node.hashNext;
        node.hashNext = hashTable[to];
        hashTable[to] = &node;
    }
    return true;
}

bool TGraphItem::RenameGroup(TGraphNode& node, unsigned int id) {
    if (node.id == id) return true;
    if (FindNode(id)) return false;
    // The entry for the old id is taken first, so a failure changes nothing.
    TGraphNode* entry = TakeNode(*this);
    const unsigned int old = node.id;
    RenameNode(node, id);
    entry->id = old;
    entry->groupFirst = node.groupFirst;
    node.groupFirst = entry;
    return true;
}

void TGraphItem::AppendGroupNode(TGraphNode& node, unsigned int id) {
    TGraphNode* entry = TakeNode(*this);
    entry->id = id;
    entry->groupFirst = node.groupFirst;
    node.groupFirst = entry;
}

void TGraphItem::DeleteGroupNode(TGraphNode& node, unsigned int id) {
    for (TGraphNode** at = &node.groupFirst; *at; at = &(*at)->groupFirst) {
        if ((*at)->id == id) {
            TGraphNode* entry = *at;
            *at = entry->groupFirst;
            FreeNodeRecord(*this, entry);
            return;
        }
    }
}

void TGraphItem::CopyGroupNode(TGraphNode& destination, TGraphNode& source) {
    if (!source.groupFirst) return;
    auto [head, tail] = CopyGroupChain(*this, source.groupFirst, false);
    tail->groupFirst = destination.groupFirst;
    destination.groupFirst = head;
}

TGraphLink* TGraphItem::AppendLink(TGraphNode& a, TGraphNode& b) {
    if (&a == &b) return nullptr;
    if (TGraphLink* h = FindLink(a, b)) return h;
    return kwz::graph::AppendNewLink(*this, a, b);
}

TGraphLink* TGraphItem::AppendLinkFirst(TGraphNode& a, TGraphNode& b) {
    if (&a == &b) return nullptr;
    if (TGraphLink* h = FindLink(a, b)) {
        MoveLinkFirst(*h);
        return h;
    }
    auto [ha, hb] = NewHalves(*this, a, b);
    PushFirst(a, ha);
    InsertSecond(b, hb);
    return ha;
}

void TGraphItem::MoveLinkFirst(TGraphLink& h) {
    if (!h.prev) return;
    Unlink(&h);
    --h.owner->linkCount;
    PushFirst(*h.owner, &h);
}

void TGraphItem::DeleteLink(TGraphLink& h) {
    // Both halves go to the free list as they are: a record is set in full
    // when it is taken again.
    for (TGraphLink* half : {h.pair, &h}) {
        Unlink(half);
        --half->owner->linkCount;
        half->next = freeLinks;
        freeLinks = half;
    }
    --linkCount;
}

unsigned int TGraphItem::GetHashSize() const { return hashSize; }

unsigned int TGraphItem::SetHashSize(unsigned int n) {
    uint64_t size = (uint64_t(n) + 255) & ~uint64_t(255);
    if (size < kMinHashSize) size = kMinHashSize;
    if (size > 0xFFFFFF00u) size = 0xFFFFFF00u;
    if (size == hashSize) return hashSize;
    auto* table = static_cast<TGraphNode**>(kwz::LargeAlloc(size * sizeof(TGraphNode*)));
    if (!table) return hashSize;  // the old hash stays in force
    std::memset(static_cast<void*>(table), 0, size * sizeof(TGraphNode*));
    kwz::LargeFree(hashTable, size_t(hashSize) * sizeof(TGraphNode*));
    hashTable = table;
    for (TGraphNode* node = nodeFirst; node; node = node->nodeNext) {
        TGraphNode*& head = table[node->id % size];
        node->hashNext = head;
        head = node;
    }
    uint64_t limit = size * 8;
    if (limit < nodeCount) limit = (nodeCount & ~uint32_t(0xFF)) + 256ull;
    hashLimit = uint32_t(limit > UINT32_MAX ? UINT32_MAX : limit);
    hashSize = uint32_t(size);
    return hashSize;
}

bool TGraphItem::operator==(TGraphItem const& other) const {
    if (nodeCount != other.nodeCount || linkCount != other.linkCount) return false;
    for (TGraphNode* n = nodeFirst; n; n = n->nodeNext) {
        TGraphNode* m = other.FindNode(n->id);
        if (!m || m->linkCount != n->linkCount) return false;
        if (!n->groupFirst != !m->groupFirst) return false;
        for (TGraphLink* h = n->linkFirst; h; h = h->next)
            if (!other.FindLink(*m, h->pair->owner->id)) return false;
    }
    return true;
}

namespace {

// The copy walk: each source node, then its neighbours, each link placed as
// first where it is first in the source.  Built aside and taken over at the
// end, so that running out of memory leaves the destination as it was.
template <typename Create>
void CopyWalk(TGraphItem& destination, TGraphItem const& source, Create create) {
    TGraphItem copy(*destination.heap);
    for (TGraphNode* s = source.nodeFirst; s; s = s->nodeNext) {
        TGraphNode* t = create(copy, *s);
        for (TGraphLink* h = s->linkFirst; h; h = h->next) {
            TGraphNode* n = create(copy, *h->pair->owner);
            if (!h->prev)
                copy.AppendLinkFirst(*t, *n);
            else
                copy.AppendLink(*t, *n);
        }
    }
    const uint32_t mark = destination.mark;
    destination = std::move(copy);
    destination.mark = mark;
}

}  // namespace

void TGraphItem::Copy(TGraphItem const& source) {
    if (&source == this) return;
    CopyWalk(*this, source, [](TGraphItem& g, TGraphNode const& n) { return g.AppendNode(n); });
}

void TGraphItem::CopyWithoutGroup(TGraphItem const& source) {
    if (&source == this) return;
    CopyWalk(*this, source, [](TGraphItem& g, TGraphNode const& n) { return g.AppendNode(n.id); });
}
