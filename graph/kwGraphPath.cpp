// Path searches: BuildPath (wave passes from each start, build step back along
// the marked half-links) and BuildPathCut (meeting search from both ends).
// Both write the marks of this graph's nodes and half-links.  A search clears
// only what the previous search marked (the nodes it touched and their
// half-links), so that a query between near nodes of a large graph costs what
// it visits; no mark of an earlier search is ever left behind.
#include <algorithm>
#include <unordered_set>
#include <utility>
#include <vector>

#include "graph/kwGraph.h"
#include "graph/kwGraphGather.h"

namespace {

using kwz::graph::SharedHeap;
using Nodes = ScratchNodes;

constexpr uint32_t kSpent = 0xFFFFFFFFu;

void ZeroMarks(TGraphScratch& s) {
    for (size_t i = 0, e = s.touched.size(); i < e; ++i) {
        if (i + 16 < e) kwz::graph::Prefetch(s.touched[i + 16]);
        TGraphNode* n = s.touched[i];
        n->mark = 0;
        if (s.allExpanded)
            for (TGraphLink* h = n->linkFirst; h; h = h->next) h->mark = 0;
    }
    // One entry per link pair: the half marked 1; its pair was marked 2.  The
    // records are asked for 16 entries ahead and the pairs 8 ahead, when the
    // half that names them has arrived.
    if (!s.allExpanded)
        for (size_t i = 0, e = s.links.size(); i < e; ++i) {
            if (i + 16 < e) kwz::graph::PrefetchRecord(s.links[i + 16]);
            if (i + 8 < e) kwz::graph::PrefetchRecord(s.links[i + 8]->pair);
            TGraphLink* h = s.links[i];
            h->mark = 0;
            h->pair->mark = 0;
        }
    s.Reset();
}

// Sets a node's mark, remembering the node the first time it is marked.
struct Marker {
    Nodes& touched;
    void Set(TGraphNode* n, uint32_t mark) {
        if (!n->mark) touched.push_back(n);
        n->mark = mark;
    }
};

// Clears what the previous search marked and gives the lists to fill.
TGraphScratch& TGraphScratchBegin(TGraphItem& g, TGraphScratch*& scratch, bool allExpanded) {
    if (!scratch) scratch = new TGraphScratch;
    ZeroMarks(*scratch);
    scratch->allExpanded = allExpanded;
    g.mark = 0;
    return *scratch;
}

// ---- BuildPath -------------------------------------------------------------

struct PathSearch {
    TGraphItem& g;
    Marker marker;
    TGraphItem& w;  // nodes still to start from or to reach, by id
    TGraphItem& r;
    Nodes wave, next;
    uint32_t depth = 0;
    std::unordered_set<uint32_t> started;  // ids that have been the start of a pass

    // One pass from W's head: waves outward; a node of W met on the way is a
    // target reached (its mark is raised past c + 1).
    bool Pass() {
        const uint32_t c = ++g.mark;
        for (TGraphNode* wn = w.nodeFirst; wn; wn = wn->nodeNext) {
            TGraphNode* n = g.FindNode(wn->id);
            if (!n) continue;
            marker.Set(n, c + 1);
            for (TGraphLink* h = n->linkFirst; h; h = h->next) h->mark = 0;
        }
        wave.assign(1, g.FindNode(w.nodeFirst->id));
        depth = 1;
        bool reached = false;
        while (!wave.empty()) {
            next.clear();
            for (TGraphNode* x : wave) {
                for (TGraphLink* h = x->linkFirst; h; h = h->next) {
                    if (h->mark) continue;
                    TGraphNode* y = h->pair->owner;
                    if (y->mark < c) {
                        next.push_back(y);
                        marker.Set(y, c);
                        for (TGraphLink* hy = y->linkFirst; hy; hy = hy->next) hy->mark = 0;
                    } else if (y->mark > c) {
                        ++y->mark;
                        reached = true;
                    }
                    h->mark = 1;
                    h->pair->mark = 2;
                }
            }
            wave.swap(next);
            ++depth;
        }
        return reached;
    }

    struct Frame {
        TGraphNode* node;
        TGraphNode* copy;  // the node in R
        TGraphLink* next;
        uint32_t unspent;
    };

    // From each reached target, depth-first back along the half-links marked
    // 2, spending each link followed.  A node left with unspent links stays
    // in W (a later pass may join paths through it); others leave W.
    void Build() {
        const uint32_t c = g.mark;
        std::vector<uint32_t> targets;
        for (TGraphNode* wn = w.nodeFirst; wn; wn = wn->nodeNext) {
            if (wn == w.nodeFirst) continue;
            TGraphNode* n = g.FindNode(wn->id);
            if (n && n->mark != c + 1) targets.push_back(wn->id);
        }
        std::vector<Frame> stack;
        stack.reserve(depth + 1);
        for (uint32_t id : targets) {
            if (!w.FindNode(id)) continue;
            TGraphNode* start = g.FindNode(id);
            stack.push_back({start, r.AppendNode(id), start->linkFirst, 0});
            while (!stack.empty()) {
                Frame& f = stack.back();
                TGraphLink* h = f.next;
                if (!h) {
                    const uint32_t nodeId = f.node->id;
                    const bool keep = f.unspent != 0;
                    stack.pop_back();
                    if (keep && !started.count(nodeId))
                        w.AppendNode(nodeId);
                    else
                        w.DeleteNode(nodeId);
                    continue;
                }
                f.next = h->next;
                if (h->mark != 2) {
                    if (h->mark != kSpent) ++f.unspent;
                    continue;
                }
                TGraphNode* v = h->pair->owner;
                TGraphNode* copy = r.AppendNode(v->id);
                r.AppendLink(*f.copy, *copy);
                h->mark = h->pair->mark = kSpent;
                stack.push_back({v, copy, v->linkFirst, 0});
            }
        }
    }
};

// ---- BuildPathCut ------------------------------------------------------------
//
// While the search runs, a node's mark holds its side (1: reached from
// `from`, 2: from `to`) in the low two bits; a node whose links a wave has
// gone through (expanded) also holds its wave level above them, written as
// the wave reads it.  At the end only the side is left.  The level lets the
// build step follow exactly the links of shortest paths: a half-link marked 2
// may also join two nodes of one wave (the link was first met from the other
// end), and such a link lies on no shortest path, so the walk takes a step
// only to a node one level nearer its side's end.  A step follows a
// half-link marked 2, whose pair was marked by its neighbour's wave: every
// node the walk enters by a step was expanded and holds its level.  The
// nodes only reached (most of them, the last waves) keep their side alone,
// so the pass that leaves the side in each mark goes through the expanded
// nodes and the meeting nodes only.

constexpr uint32_t kVisited = 0x80000000u;
constexpr uint32_t Side(uint32_t mark) { return mark & 3; }
constexpr uint32_t Level(uint32_t mark) { return (mark & ~kVisited) >> 2; }
constexpr uint32_t Mark(uint32_t side, uint32_t level) { return side | (level << 2); }

struct CutSearch {
    TGraphItem& g;
    Marker marker;
    ScratchLinks& links;  // each half marked 1 (pair 2), for the next search to clear
    TGraphItem& r;
    Nodes& scratch;
    Nodes& expanded;  // the nodes whose level was written, and the meeting nodes
    kwz::graph::LinkGather& gather;

    // Half-link h of a frontier node of the side given.
    void Visit(TGraphLink* h, uint32_t side, uint32_t& meet) {
        if (h->mark) return;
        TGraphNode* y = h->pair->owner;
        if (!y->mark) {
            scratch.push_back(y);
            marker.touched.push_back(y);
            y->mark = side;
        } else if (Side(y->mark) != side) {
            scratch.push_back(y);
            meet = side;
        }
        links.push_back(h);
        h->mark = 1;
        h->pair->mark = 2;
    }

    // One wave on frontier f, whose nodes lie at the level given; the meeting
    // side, or 0.  The frontier is read a run of nodes at a time, their lists
    // gathered first (same order).
    uint32_t Wave(Nodes& f, uint32_t level) {
        using kwz::graph::LinkGather;
        scratch.clear();
        expanded.insert(expanded.end(), f.begin(), f.end());
        uint32_t meet = 0;
        for (size_t b = 0; b < f.size(); b += LinkGather::kRun) {
            const size_t count = std::min(LinkGather::kRun, f.size() - b);
            for (size_t i = b + LinkGather::kRun, e = std::min(f.size(), i + LinkGather::kRun); i < e; ++i)
                kwz::graph::Prefetch(f[i]);
            gather.Load(&f[b], count);
            const size_t total = gather.Total(count);
            for (size_t i = 0; i < count; ++i) {
                TGraphNode* x = f[b + i];
                const uint32_t side = Side(x->mark);
                x->mark = Mark(side, level);
                if (!gather.Whole(i)) {
                    for (TGraphLink* h = x->linkFirst; h; h = h->next) Visit(h, side, meet);
                    continue;
                }
                for (size_t j = gather.Begin(i), e = gather.End(i); j < e; ++j) {
                    gather.Ahead(j, total);
                    Visit(gather.At(j), side, meet);
                }
            }
        }
        if (!meet) {
            f.swap(scratch);
            return 0;
        }
        f.clear();
        for (TGraphNode* y : scratch)
            if (Side(y->mark) != meet) f.push_back(y);
        return meet;
    }

    struct Frame {
        TGraphNode* node;
        TGraphNode* copy;
        TGraphLink* next;
        uint32_t level;  // the level the next step must reach, plus one
    };

    // Depth-first from z toward side t, one level at a time; each node is
    // entered once (the visited bit), each link met is taken into R and
    // marked 1 at the end nearer `from`, 2 at the end nearer `to`.
    void Walk(TGraphNode* z, TGraphNode* zCopy, uint32_t t, uint32_t level, std::vector<Frame>& stack) {
        stack.clear();
        stack.push_back({z, zCopy, z->linkFirst, level});
        while (!stack.empty()) {
            Frame& f = stack.back();
            TGraphLink* h = f.next;
            if (!h || f.level == 0) {
                stack.pop_back();
                continue;
            }
            f.next = h->next;
            if (h->mark != 2) continue;
            TGraphNode* v = h->pair->owner;
            if (Side(v->mark) != t || Level(v->mark) != f.level - 1) continue;
            TGraphNode* copy = r.AppendNode(*v);
            TGraphLink* link = r.AppendLink(*f.copy, *copy);
            link->mark = t == 1 ? 2 : 1;
            link->pair->mark = t == 1 ? 1 : 2;
            if (v->mark & kVisited) continue;
            v->mark |= kVisited;
            const uint32_t below = f.level - 1;
            stack.push_back({v, copy, v->linkFirst, below});
        }
    }

    // The meeting nodes (other side, not expanded, at level zLevel) were
    // reached from frontier nodes of side s at level sLevel.
    void Build(Nodes& meeting, uint32_t s, uint32_t sLevel, uint32_t zLevel) {
        std::vector<Frame> stack;
        for (TGraphNode* z : meeting) {
            if (z->mark & kVisited) continue;  // met from several nodes
            z->mark |= kVisited;
            expanded.push_back(z);
            TGraphNode* copy = r.AppendNode(z->id);
            // Toward 1, then toward 2.
            for (uint32_t t = 1; t <= 2; ++t)
                Walk(z, copy, t, t == s ? sLevel + 1 : zLevel, stack);
        }
    }
};

}  // namespace

TGraphItem TGraphItem::BuildPath(TGraphNode& from, TGraphNode& to) {
    TGraphItem r(SharedHeap());
    if (!from.linkCount || !to.linkCount) return r;
    TGraphItem w(SharedHeap());
    w.AppendNode(to.id);
    w.AppendNode(from.id);
    // Passes clear and mark the links of the nodes they reach: the clearing
    // walks every touched node's half-links.
    TGraphScratch& marked = TGraphScratchBegin(*this, scratch_, true);
    try {
        PathSearch search{*this, Marker{marked.touched}, w, r, {}, {}, 0, {}};
        search.wave.reserve(256);
        search.next.reserve(256);
        while (w.nodeCount >= 2) {
            // The pass's start leaves W after it, for good: the build step
            // may push nodes at W's head, so the start is named by its id,
            // and a node that has been a start is never taken back into W.
            // Without both, W can cycle through the same nodes forever (a
            // node keeps unspent links, since each pass clears the marks of
            // what it visits).
            const uint32_t start = w.nodeFirst->id;
            search.started.insert(start);
            if (search.Pass()) search.Build();
            w.DeleteNode(start);
        }
    } catch (...) {
        ZeroMarks(marked);
        mark = 0;
        throw;
    }
    return r;
}

TGraphItem TGraphItem::BuildPathCut(TGraphNode& from, TGraphNode& to) {
    TGraphItem r(SharedHeap());
    if (!from.linkCount || !to.linkCount) return r;
    TGraphScratch& marked = TGraphScratchBegin(*this, scratch_, false);
    try {
        marked.expanded.clear();
        CutSearch search{*this, Marker{marked.touched}, marked.links, r,
                         marked.wave, marked.expanded, marked.gather};
        search.marker.Set(&from, Mark(1, 0));
        search.marker.Set(&to, Mark(2, 0));
        Nodes& first = marked.first;
        Nodes& second = marked.second;
        first.assign(1, &from);
        second.assign(1, &to);
        // Level `level` of each side is expanded in turn: the first side's
        // meeting nodes lie on the second's frontier (level `level`), the
        // second side's on the first's (level + 1).
        for (uint32_t level = 0;; ++level) {
            if (search.Wave(first, level)) {
                search.Build(first, 1, level, level);
                break;
            }
            if (first.empty()) break;
            if (search.Wave(second, level)) {
                search.Build(second, 2, level, level + 1);
                break;
            }
            if (second.empty()) break;
        }
        for (TGraphNode* n : marked.expanded) n->mark = Side(n->mark);
    } catch (...) {
        ZeroMarks(marked);
        throw;
    }
    return r;
}
