// Reading the half-link lists of a run of nodes ahead of their use.  A node's
// list is a chain of records spread over the graph's blocks, so walking one
// list waits for each record in turn; walking the lists of a run of nodes side
// by side overlaps those waits.  The searches then go through the gathered
// half-links in exactly the order of the lists, so nothing they produce
// changes.
#pragma once

#include <VomKwz.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kwz::graph {

inline void Prefetch(const void* p) { __builtin_prefetch(p, 1, 3); }
// Both ends of a half-link record, which may lie on two cache lines.
inline void PrefetchRecord(const TGraphLink* h) {
    Prefetch(h);
    Prefetch(&h->mark);
}

class LinkGather {
public:
    static constexpr size_t kRun = 16;  // nodes gathered at once

    // Gathers the lists of nodes[0..count), count <= kRun; a null node has no
    // list.  A list whose length differs from its node's linkCount is not
    // gathered (Whole false): the caller walks it itself.
    void Load(TGraphNode const* const* nodes, size_t count) {
        uint32_t total = 0;
        for (size_t i = 0; i < count; ++i) {
            start_[i] = total;
            total += nodes[i] ? nodes[i]->linkCount : 0;
        }
        start_[count] = total;
        if (halves_.size() < size_t(total) + 1) halves_.resize(size_t(total) + 1);
        halves_[total] = nullptr;
        TGraphLink* cur[kRun];
        uint32_t fill[kRun];
        for (size_t i = 0; i < count; ++i) {
            cur[i] = nodes[i] ? nodes[i]->linkFirst : nullptr;
            fill[i] = start_[i];
            whole_[i] = true;
        }
        for (bool more = true; more;) {
            more = false;
            for (size_t i = 0; i < count; ++i) {
                TGraphLink* h = cur[i];
                if (!h) continue;
                if (fill[i] == start_[i + 1]) {  // longer than its count
                    whole_[i] = false;
                    cur[i] = nullptr;
                    continue;
                }
                halves_[fill[i]++] = h;
                Prefetch(h->pair);
                cur[i] = h->next;
                more = true;
            }
        }
        for (size_t i = 0; i < count; ++i)
            if (fill[i] != start_[i + 1]) {
                whole_[i] = false;
                while (fill[i] != start_[i + 1]) halves_[fill[i]++] = nullptr;
            }
    }

    bool Whole(size_t i) const { return whole_[i]; }
    uint32_t Begin(size_t i) const { return start_[i]; }
    uint32_t End(size_t i) const { return start_[i + 1]; }
    // Entry j of the run; entries past the last, and those of lists not
    // gathered, may be null.
    TGraphLink* At(size_t j) const { return halves_[j]; }
    uint32_t Total(size_t count) const { return start_[count]; }

    // Fetches the neighbour that visiting entry j + kAhead will read (the
    // pairs were fetched while gathering).
    template <size_t kAhead = 6>
    void Ahead(size_t j, size_t total) const {
        if (j + kAhead < total)
            if (TGraphLink* h = halves_[j + kAhead]) Prefetch(h->pair->owner);
    }
    // The neighbour at entry j, or null when there is none.
    TGraphNode const* FarAt(size_t j, size_t total) const {
        if (j >= total || !halves_[j]) return nullptr;
        return halves_[j]->pair->owner;
    }

private:
    std::vector<TGraphLink*> halves_;
    uint32_t start_[kRun + 1] = {};
    bool whole_[kRun] = {};
};

}  // namespace kwz::graph
