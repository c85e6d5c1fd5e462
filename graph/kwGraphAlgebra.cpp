// Graph algebra: union, difference, intersection, one-step and transitive
// expansion along another graph's links, contraction, and the border search.
// Node identity across graphs is the id; taking a node into a result copies
// its group list when the result's node has none.
#include <algorithm>
#include <iterator>
#include <unordered_set>
#include <vector>

#include "graph/kwGraph.h"
#include "graph/kwGraphGather.h"

namespace {

using kwz::graph::SharedHeap;

bool PassAll(uint32_t, uint32_t, void*) { return true; }

// Takes `far` into r and links n to it; a node that was not there yet can
// have no link, so the search for an existing one is skipped.
void LinkTo(TGraphItem& r, TGraphNode& n, TGraphNode const& far) {
    const uint32_t before = r.nodeCount;
    TGraphNode* to = r.AppendNode(far);
    if (r.nodeCount != before)
        kwz::graph::AppendNewLink(r, n, *to);
    else
        r.AppendLink(n, *to);
}

// Indexes by id, with open addressing: the expansion's look-ups, cheaper
// than the result's own bucket chains (up to 8 deep on average).
class IdIndex {
public:
    static constexpr uint32_t kNone = UINT32_MAX;
    // The bit of an index that tells that its node has been expanded.
    static constexpr uint32_t kExpanded = 0x80000000u;
    // The index stored for id, with its kExpanded bit; kNone when absent.
    uint32_t& Find(uint32_t id) {
        none_ = kNone;
        if (slots_.empty()) return none_;
        for (size_t i = Slot(id);; i = (i + 1) & mask_) {
            Entry& e = slots_[i];
            if (e.index == kNone) return none_;
            if (e.id == id) return e.index;
        }
    }
    // Fetches the slot where the search for id starts.
    void Prefetch(uint32_t id) const {
        if (!slots_.empty()) kwz::graph::Prefetch(&slots_[Slot(id)]);
    }
    // id is not in the map yet.
    void Insert(uint32_t id, uint32_t index) {
        if (2 * (count_ + 1) > slots_.size()) Grow();
        Place({id, index});
        ++count_;
    }

private:
    struct Entry {
        uint32_t id;
        uint32_t index;
    };
    size_t Slot(uint32_t id) const { return size_t((id * 0x9E3779B97F4A7C15ull) >> shift_) & mask_; }
    void Place(Entry e) {
        size_t i = Slot(e.id);
        while (slots_[i].index != kNone) i = (i + 1) & mask_;
        slots_[i] = e;
    }
    void Grow() {
        std::vector<Entry> old(slots_.size() ? 2 * slots_.size() : 1024, Entry{0, kNone});
        old.swap(slots_);
        mask_ = slots_.size() - 1;
        shift_ = 64;
        for (size_t s = slots_.size(); s > 1; s >>= 1) --shift_;
        for (const Entry& e : old)
            if (e.index != kNone) Place(e);
    }
    std::vector<Entry> slots_;
    size_t mask_ = 0;
    unsigned shift_ = 64;
    size_t count_ = 0;
    uint32_t none_ = kNone;  // what Find gives for an absent id
};

// Transitive expansion: each pass expands the nodes the previous pass added;
// a pass runs down r's node list from its head to the previous pass's head,
// new nodes being pushed at the head to wait for the next pass.  The first
// pass covers a's nodes in list order, each later one the nodes made by the
// pass before, newest first.  Each far end is taken into r as AppendNode(far)
// would and linked as AppendLink would, without the searches where their
// outcome is known: a node made here has no link yet but those made here; a
// link toward a node already expanded exists when every link passes (that
// node's expansion made it), and otherwise may; only between two nodes that
// came with a can another one exist.
TGraphItem Expand(TGraphItem const& a, TGraphItem const& b, GraphLinkFilter filter, void* context) {
    TGraphItem r(a);
    const bool all = filter == PassAll;
    struct Entry {
        TGraphNode* node;
        TGraphNode const* inB;
        bool fromA;
    };
    std::vector<Entry> nodes;
    IdIndex index;
    nodes.reserve(r.nodeCount);
    for (TGraphNode* n = r.nodeFirst; n; n = n->nodeNext) {
        index.Insert(n->id, uint32_t(nodes.size()));
        nodes.push_back({n, b.FindNode(n->id), true});
    }
    // One half-link h of B's copy of the frontier node nodes[fi].
    auto visit = [&](size_t fi, TGraphLink const* h) {
        TGraphNode* f = nodes[fi].node;
        TGraphNode const& far = *h->pair->owner;
        if (!filter(f->id, far.id, context)) return;
        if (r.nodeCount >= r.hashLimit) kwz::graph::GrowHash(r);
        const uint32_t ti = index.Find(far.id);
        if (ti == IdIndex::kNone) {
            TGraphNode* to = kwz::graph::AppendAbsentNode(r, far);
            index.Insert(far.id, uint32_t(nodes.size()));
            nodes.push_back({to, &far, false});
            kwz::graph::AppendNewLink(r, *f, *to);
            return;
        }
        if (all && (ti & IdIndex::kExpanded) && !far.groupFirst) return;  // linked already
        Entry const& t = nodes[ti & ~IdIndex::kExpanded];
        if (far.groupFirst && !t.node->groupFirst) r.AppendNode(far);  // takes far's group list
        if (ti & IdIndex::kExpanded) {
            if (!all) r.AppendLink(*f, *t.node);
        } else if (nodes[fi].fromA && t.fromA) {
            r.AppendLink(*f, *t.node);
        } else {
            kwz::graph::AppendNewLink(r, *f, *t.node);
        }
    };
    // Expands the frontier nodes at the indexes given, in that order, their
    // lists in B gathered first; what each visit reads is fetched a few
    // half-links ahead.
    kwz::graph::LinkGather gather;
    TGraphNode* ahead[4] = {};  // r's nodes of the far ends of the next entries
    auto expandRun = [&](size_t const* run, size_t count) {
        TGraphNode const* inB[kwz::graph::LinkGather::kRun] = {};
        for (size_t k = 0; k < count; ++k) inB[k] = nodes[run[k]].inB;
        gather.Load(inB, count);
        const size_t total = gather.Total(count);
        std::fill(std::begin(ahead), std::end(ahead), nullptr);
        for (size_t k = 0; k < count; ++k) {
            const size_t fi = run[k];
            if (!gather.Whole(k)) {
                if (inB[k])
                    for (TGraphLink* h = inB[k]->linkFirst; h; h = h->next) visit(fi, h);
            } else {
                for (size_t j = gather.Begin(k), e = gather.End(k); j < e; ++j) {
                    // Far node, its index slot, its record in r, the first
                    // two half-links of that record's list (where a link
                    // to it is inserted): each a step nearer.
                    gather.Ahead<10>(j, total);
                    if (TGraphNode const* far = gather.FarAt(j + 7, total)) index.Prefetch(far->id);
                    TGraphNode*& slot = ahead[j & 3];
                    if (TGraphNode const* far = gather.FarAt(j + 4, total)) {
                        const uint32_t ti = index.Find(far->id);
                        slot = ti == IdIndex::kNone ? nullptr : nodes[ti & ~IdIndex::kExpanded].node;
                        if (slot) kwz::graph::Prefetch(slot);
                    } else {
                        slot = nullptr;
                    }
                    if (TGraphNode* t = ahead[(j + 2) & 3])
                        if (t->linkFirst) kwz::graph::Prefetch(t->linkFirst);
                    if (TGraphNode* t = ahead[(j + 1) & 3])
                        if (t->linkFirst && t->linkFirst->next) kwz::graph::Prefetch(t->linkFirst->next);
                    visit(fi, gather.At(j));
                }
            }
            index.Find(nodes[fi].node->id) |= IdIndex::kExpanded;
        }
    };
    // The first pass goes up a's nodes, each later one down the nodes that
    // the pass before added.
    auto pass = [&](size_t from, size_t to, bool down) {
        size_t run[kwz::graph::LinkGather::kRun] = {};
        size_t count = 0;
        for (size_t n = from; n < to; ++n) {
            run[count++] = down ? to - 1 - (n - from) : n;
            if (count == kwz::graph::LinkGather::kRun) {
                expandRun(run, count);
                count = 0;
            }
        }
        if (count) expandRun(run, count);
    };
    size_t done = nodes.size();
    pass(0, done, false);
    while (done < nodes.size()) {
        const size_t from = done;
        done = nodes.size();
        pass(from, done, true);
    }
    return r;
}

// Merges node y into x: x takes y's links (none to itself) and group entries
// (moved one by one, so reversed), y is deleted and its id joins x's group.
// `near` holds x's neighbours and stands in for the linear search of
// AppendLink; links are added in the same order that search would give.
void Merge(TGraphItem& g, TGraphNode& x, TGraphNode& y, std::unordered_set<TGraphNode*>& near) {
    for (TGraphLink* h = y.linkFirst; h; h = h->next) {
        TGraphNode* v = h->pair->owner;
        if (v == &x || !near.insert(v).second) continue;
        kwz::graph::AppendNewLink(g, x, *v);
    }
    while (TGraphNode* e = y.groupFirst) {
        y.groupFirst = e->groupFirst;
        e->groupFirst = x.groupFirst;
        x.groupFirst = e;
    }
    const uint32_t id = y.id;
    near.erase(&y);
    g.DeleteNode(id);
    g.AppendGroupNode(x, id);
}

void Neighbours(TGraphNode const& n, std::unordered_set<TGraphNode*>& near) {
    near.clear();
    for (TGraphLink* h = n.linkFirst; h; h = h->next) near.insert(h->pair->owner);
}

}  // namespace

TGraphItem TGraphItem::operator+(TGraphItem const& b) const {
    TGraphItem r(*this);
    for (TGraphNode* nb = b.nodeFirst; nb; nb = nb->nodeNext) {
        TGraphNode* rn = r.AppendNode(*nb);
        for (TGraphLink* h = nb->linkFirst; h; h = h->next) LinkTo(r, *rn, *h->pair->owner);
    }
    return r;
}

TGraphItem TGraphItem::operator-(TGraphItem const& b) const {
    TGraphItem r(SharedHeap());
    for (TGraphNode* n = nodeFirst; n; n = n->nodeNext)
        if (!b.FindNode(n->id)) r.AppendNode(*n);
    for (TGraphNode* n = nodeFirst; n; n = n->nodeNext) {
        TGraphNode* rn = r.FindNode(n->id);
        if (!rn) continue;
        for (TGraphLink* h = n->linkFirst; h; h = h->next)
            if (TGraphNode* rv = r.FindNode(h->pair->owner->id)) r.AppendLink(*rn, *rv);
    }
    return r;
}

TGraphItem TGraphItem::operator&(TGraphItem const& b) const {
    TGraphItem r(SharedHeap());
    for (TGraphNode* n = nodeFirst; n; n = n->nodeNext)
        if (TGraphNode* nb = b.FindNode(n->id)) r.AppendNode(n->groupFirst ? *n : *nb);
    for (TGraphNode* n = nodeFirst; n; n = n->nodeNext) {
        TGraphNode* rn = r.FindNode(n->id);
        if (!rn) continue;
        TGraphNode* nb = b.FindNode(n->id);
        for (TGraphLink* h = n->linkFirst; h; h = h->next) {
            const uint32_t far = h->pair->owner->id;
            TGraphNode* rv = r.FindNode(far);
            if (rv && b.FindLink(*nb, far)) r.AppendLink(*rn, *rv);
        }
    }
    return r;
}

TGraphItem TGraphItem::operator*(TGraphItem const& b) const { return MulSel(b, nullptr, nullptr); }

TGraphItem TGraphItem::MulSel(TGraphItem const& b, GraphLinkFilter filter, void* context) const {
    if (!filter) filter = PassAll;
    TGraphItem r(*this);
    // Only A's nodes start links: the far ends that this adds are not expanded.
    for (TGraphNode* n = nodeFirst; n; n = n->nodeNext) {
        TGraphNode* nb = b.FindNode(n->id);
        if (!nb || !nb->linkCount) continue;
        TGraphNode* rn = r.FindNode(n->id);
        for (TGraphLink* h = nb->linkFirst; h; h = h->next) {
            TGraphNode const& far = *h->pair->owner;
            if (filter(rn->id, far.id, context)) LinkTo(r, *rn, far);
        }
    }
    return r;
}

TGraphItem TGraphItem::operator^(TGraphItem const& b) const { return Expand(*this, b, PassAll, nullptr); }

// The filter is required here (unlike MulSel, where null means every link);
// the flat GraphXorSel refuses a null one.
TGraphItem TGraphItem::XorSel(TGraphItem const& b, GraphLinkFilter filter, void* context) const {
    return Expand(*this, b, filter, context);
}

TGraphItem TGraphItem::operator/(TGraphItem const& b) const {
    TGraphItem r(*this);
    TGraphItem t = *this & b;
    std::unordered_set<TGraphNode*> nearT, nearR;
    for (TGraphNode* tn = t.nodeFirst; tn; tn = tn->nodeNext) {
        if (!tn->linkFirst) continue;
        TGraphNode* a = r.FindNode(tn->id);
        Neighbours(*tn, nearT);
        Neighbours(*a, nearR);
        while (tn->linkFirst) {
            TGraphNode* u = tn->linkFirst->pair->owner;
            TGraphNode* rb = r.FindNode(u->id);
            Merge(t, *tn, *u, nearT);
            Merge(r, *a, *rb, nearR);
        }
    }
    return r;
}

TGraphItem TGraphItem::BuildBord(TGraphItem& seeds, TGraphItem& barrier, TGraphItem& border) const {
    TGraphItem r(SharedHeap());
    TGraphItem w(seeds);
    TGraphNode* stop = nullptr;
    for (TGraphNode* head = w.nodeFirst; head != stop;) {
        for (TGraphNode* wn = head; wn != stop; wn = wn->nodeNext) {
            TGraphNode* g = FindNode(wn->id);
            if (!g) continue;
            for (TGraphLink* h = g->linkFirst; h; h = h->next) {
                TGraphNode const& v = *h->pair->owner;
                if (border.FindNode(v.id))
                    r.AppendNode(v);  // collected, not entered
                else if (!barrier.FindNode(v.id))
                    w.AppendLink(*wn, *w.AppendNode(v));
            }
        }
        stop = head;
        head = w.nodeFirst;
    }
    for (TGraphNode* s = seeds.nodeFirst; s; s = s->nodeNext) r.DeleteNode(s->id);
    return r;
}
