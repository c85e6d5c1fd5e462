// Graph algebra: union, difference, intersection, one-step and transitive
// expansion along another graph's links, contraction, and the border search.
// Node identity across graphs is the id; taking a node into a result copies
// its group list when the result's node has none.
#include <unordered_set>

#include "graph/kwGraph.h"

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

// Expands the nodes of r from its head down to (not including) stop along b's
// links that the filter lets in; new nodes are pushed at r's head.
void ExpandOnce(TGraphItem& r, TGraphNode* head, TGraphNode* stop, TGraphItem const& b,
                GraphLinkFilter filter, void* context) {
    for (TGraphNode* f = head; f != stop; f = f->nodeNext) {
        TGraphNode* nb = b.FindNode(f->id);
        if (!nb) continue;
        for (TGraphLink* h = nb->linkFirst; h; h = h->next) {
            TGraphNode const& far = *h->pair->owner;
            if (!filter(f->id, far.id, context)) continue;
            LinkTo(r, *f, far);
        }
    }
}

// Transitive expansion: each pass expands the nodes the previous pass added
// (the frontier runs from the head down to the previous head).
TGraphItem Expand(TGraphItem const& a, TGraphItem const& b, GraphLinkFilter filter, void* context) {
    TGraphItem r(a);
    TGraphNode* stop = nullptr;
    for (TGraphNode* head = r.nodeFirst; head != stop;) {
        ExpandOnce(r, head, stop, b, filter, context);
        stop = head;
        head = r.nodeFirst;
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
