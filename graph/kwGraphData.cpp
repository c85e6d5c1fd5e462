// Saving a graph into three flat buffers and loading it back.
//
//   nodes:  u32 0x012358D1 | u32 n | n x u32 id            (node-list order)
//   links:  u32 0x012358D2 | u32 k | k x (u32 lo, u32 hi)  (sorted, lo < hi)
//   groups: u32 0x012358D3 | u32 g | g x (u32 id, u32 field, members...)
//
// Integers are in the machine's byte order (little-endian here).  The group
// record's count field holds ((m + 1) >> 2) - 1 for m members, not m: readers
// of saved groups depend on that exact value, so it is kept; the loader steps
// over `field` members, as those readers do.
#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "base/kwBase.h"
#include "base/kwMem.h"
#include "graph/kwGraph.h"
#include "graph/kwGraphData.h"
#include "graph/kwGraphGather.h"

namespace kwz::graph {
namespace {

constexpr uint32_t kNodesMagic = 0x12358D1;
constexpr uint32_t kLinksMagic = 0x12358D2;
constexpr uint32_t kGroupsMagic = 0x12358D3;

// A block of the library's allocator, freed unless released.
struct Block {
    void* data = nullptr;
    explicit Block(size_t size) : data(MemAlloc(size)) {
        if (!data) throw std::bad_alloc();
    }
    ~Block() { MemFree(data); }
    Block(Block const&) = delete;
    Block& operator=(Block const&) = delete;
    uint8_t* bytes() { return static_cast<uint8_t*>(data); }
    void* release() { return std::exchange(data, nullptr); }
};

void* SaveNodes(TGraphItem const& g) {
    Block block(8 + 4 * size_t(g.nodeCount));
    uint8_t* p = block.bytes();
    StoreU32(p, kNodesMagic);
    StoreU32(p + 4, g.nodeCount);
    p += 8;
    for (TGraphNode* n = g.nodeFirst; n; n = n->nodeNext, p += 4) StoreU32(p, n->id);
    return block.release();
}

// Sorts 64-bit keys: least significant 16 bits first, a stable scatter per
// digit, digits that all keys share skipped.
void RadixSort(uint64_t* keys, size_t count) {
    if (count < 2) return;
    std::vector<uint64_t> other(count);
    std::vector<uint32_t> counts(4 * 65536, 0);
    for (size_t i = 0; i < count; ++i)
        for (int d = 0; d < 4; ++d) ++counts[d * 65536 + ((keys[i] >> (16 * d)) & 0xFFFF)];
    uint64_t* from = keys;
    uint64_t* to = other.data();
    for (int d = 0; d < 4; ++d) {
        uint32_t* c = &counts[d * 65536];
        if (c[(from[0] >> (16 * d)) & 0xFFFF] == count) continue;
        uint32_t sum = 0;
        for (size_t b = 0; b < 65536; ++b) sum += std::exchange(c[b], sum);
        for (size_t i = 0; i < count; ++i) to[c[(from[i] >> (16 * d)) & 0xFFFF]++] = from[i];
        std::swap(from, to);
    }
    if (from != keys) std::memcpy(keys, from, count * sizeof *keys);
}

// Each link once, as (lower id, higher id): collected as a 64-bit key (lower
// id in the high half), sorted, then laid out as pairs.
void* SaveLinks(TGraphItem const& g) {
    const size_t k = g.linkCount;
    Block block(8 * k + 8);
    uint8_t* p = block.bytes();
    StoreU32(p, kLinksMagic);
    StoreU32(p + 4, g.linkCount);
    std::vector<uint64_t> keys;
    keys.reserve(k);
    // The sort makes the order of collection irrelevant, so the link blocks
    // are read in memory order: a record in use (it has an owner and is not
    // on the free list) that lies before its pair stands for its link.
    std::vector<TGraphLink const*> free;
    for (TGraphLink const* h = g.freeLinks; h; h = h->next) free.push_back(h);
    std::sort(free.begin(), free.end(), std::less<TGraphLink const*>());
    auto inUse = [&free](TGraphLink const* h) {
        return h->owner && h->pair && std::less<TGraphLink const*>()(h, h->pair) &&
               (free.empty() || !std::binary_search(free.begin(), free.end(), h, std::less<TGraphLink const*>()));
    };
    for (TLinkHeap const* block = g.linkHeaps; block; block = block->next)
        for (uint32_t k = 0; k < kGraphBlockRecords; ++k) {
            if (k + 8 < kGraphBlockRecords) {
                TGraphLink const& ahead = block->links[k + 8];
                if (ahead.owner && ahead.pair) {
                    Prefetch(ahead.owner);
                    Prefetch(ahead.pair);
                }
            }
            if (k + 4 < kGraphBlockRecords) {
                TGraphLink const& ahead = block->links[k + 4];
                if (ahead.owner && ahead.pair && ahead.pair->owner) Prefetch(ahead.pair->owner);
            }
            TGraphLink const* h = &block->links[k];
            if (!inUse(h)) continue;
            const uint32_t a = h->owner->id, b = h->pair->owner->id;
            keys.push_back(a < b ? uint64_t(a) << 32 | b : uint64_t(b) << 32 | a);
        }
    // A graph whose blocks and lists disagree (only a damaged one) is read
    // through its lists instead.
    if (keys.size() != k) {
        keys.clear();
        for (TGraphNode const* n = g.nodeFirst; n; n = n->nodeNext)
            for (TGraphLink const* h = n->linkFirst; h; h = h->next) {
                const uint32_t far = h->pair->owner->id;
                if (far > n->id) keys.push_back(uint64_t(n->id) << 32 | far);
            }
    }
    RadixSort(keys.data(), keys.size());
    for (size_t i = 0; i < k && i < keys.size(); ++i) {
        StoreU32(p + 8 + 8 * i, uint32_t(keys[i] >> 32));
        StoreU32(p + 12 + 8 * i, uint32_t(keys[i]));
    }
    return block.release();
}

void* SaveGroups(TGraphItem const& g) {
    size_t groups = 0, members = 0;
    for (TGraphNode* n = g.nodeFirst; n; n = n->nodeNext) {
        if (!n->groupFirst) continue;
        ++groups;
        for (TGraphNode* e = n->groupFirst; e; e = e->groupFirst) ++members;
    }
    if (!groups) return nullptr;
    Block block(4 * (members + 2 * groups + 2));
    uint8_t* p = block.bytes();
    StoreU32(p, kGroupsMagic);
    StoreU32(p + 4, uint32_t(groups));
    p += 8;
    for (TGraphNode* n = g.nodeFirst; n; n = n->nodeNext) {
        if (!n->groupFirst) continue;
        uint32_t m = 0;
        for (TGraphNode* e = n->groupFirst; e; e = e->groupFirst) ++m;
        StoreU32(p, n->id);
        StoreU32(p + 4, ((m + 1) >> 2) - 1);
        p += 8;
        for (TGraphNode* e = n->groupFirst; e; e = e->groupFirst, p += 4) StoreU32(p, e->id);
    }
    return block.release();
}

// Bytes of one buffer, read with bounds.
struct Reader {
    const uint8_t* p;
    uint64_t left;
    bool Has(uint64_t n) const { return n <= left; }
    uint32_t U32() {
        const uint32_t v = LoadU32(p);
        p += 4;
        left -= 4;
        return v;
    }
};

bool Starts(const void* data, uint64_t length, uint32_t magic) {
    return length >= 8 && LoadU32(data) == magic;
}

}  // namespace

void Save(TGraphItem const& g, void** nodes, void** links, void** groups) {
    using Owned = std::unique_ptr<void, void (*)(void*)>;
    Owned n(nodes ? SaveNodes(g) : nullptr, MemFree);
    Owned l(links ? SaveLinks(g) : nullptr, MemFree);
    Owned gr(groups ? SaveGroups(g) : nullptr, MemFree);
    if (nodes) *nodes = n.release();
    if (links) *links = l.release();
    if (groups) *groups = gr.release();
}

LoadResult Load(TGraphItem& graph, const void* nodes, uint64_t nodesLength, const void* links,
                uint64_t linksLength, const void* groups, uint64_t groupsLength) {
    TGraphItem g(*graph.heap);
    LoadResult result = LoadResult::kLoaded;
    if (!nodes) {
        result = LoadResult::kNoNodes;
    } else if (!Starts(nodes, nodesLength, kNodesMagic) ||
               (links && !Starts(links, linksLength, kLinksMagic)) ||
               (groups && !Starts(groups, groupsLength, kGroupsMagic))) {
        result = LoadResult::kMalformed;
    } else {
        Reader rn{static_cast<const uint8_t*>(nodes) + 4, nodesLength - 4};
        const uint32_t n = rn.U32();
        if (!rn.Has(4 * uint64_t(n))) {
            result = LoadResult::kMalformed;
        } else {
            g.SetHashSize(n);
            for (uint32_t i = 0; i < n; ++i) g.AppendNode(rn.U32());
        }
        if (result == LoadResult::kLoaded && links) {
            Reader rl{static_cast<const uint8_t*>(links) + 4, linksLength - 4};
            const uint32_t k = rl.U32();
            if (!rl.Has(8 * uint64_t(k))) {
                result = LoadResult::kMalformed;
            } else {
                for (uint32_t i = 0; i < k; ++i) {
                    TGraphNode* a = g.FindNode(rl.U32());
                    TGraphNode* b = g.FindNode(rl.U32());
                    if (a && b) g.AppendLink(*a, *b);
                }
            }
        }
        if (result == LoadResult::kLoaded && groups) {
            Reader rg{static_cast<const uint8_t*>(groups) + 4, groupsLength - 4};
            const uint32_t count = rg.U32();
            for (uint32_t i = 0; i < count && result == LoadResult::kLoaded; ++i) {
                if (!rg.Has(8)) {
                    result = LoadResult::kMalformed;
                    break;
                }
                TGraphNode* node = g.FindNode(rg.U32());
                const uint32_t c = rg.U32();
                if (!rg.Has(4 * uint64_t(c))) {
                    result = LoadResult::kMalformed;
                    break;
                }
                for (uint32_t j = 0; j < c; ++j) {
                    const uint32_t member = rg.U32();
                    if (node) g.AppendGroupNode(*node, member);
                }
            }
        }
    }
    if (result == LoadResult::kLoaded) {
        const uint32_t mark = graph.mark;
        graph = std::move(g);
        graph.mark = mark;
    } else {
        graph.Clear();
    }
    return result;
}

}  // namespace kwz::graph
