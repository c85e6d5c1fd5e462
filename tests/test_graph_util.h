// Helpers of the graph tests: graphs built from edge-list text, and read back
// as plain values through the flat interface.
#pragma once

#include <VomKwz.h>

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace graphtest {

struct Deleter {
    void operator()(TGraphItem* g) const { GraphDelete(g); }
};
using Graph = std::unique_ptr<TGraphItem, Deleter>;
using Ids = std::vector<uint32_t>;
using Link = std::pair<uint32_t, uint32_t>;  // lower id first
using LinkSet = std::set<Link>;

inline Link Ordered(uint32_t a, uint32_t b) { return a < b ? Link{a, b} : Link{b, a}; }

// "1-2 2-3 7" : links 1-2 and 2-3, and a lone node 7; nodes are made in the
// order they appear.
inline void Add(TGraphItem* g, const std::string& text) {
    std::istringstream in(text);
    std::string item;
    while (in >> item) {
        const auto dash = item.find('-');
        TGraphNode* a = GraphAppendNode(g, uint32_t(std::stoul(item.substr(0, dash))));
        if (dash != std::string::npos) {
            TGraphNode* b = GraphAppendNode(g, uint32_t(std::stoul(item.substr(dash + 1))));
            GraphAppendLink(g, a, b);
        }
    }
}

inline Graph Make(const std::string& text = "") {
    Graph g(GraphNew(nullptr));
    Add(g.get(), text);
    return g;
}

inline Ids Nodes(TGraphItem* g) {
    Ids ids;
    for (TGraphNode* n = GraphNodeFirst(g); n; n = GraphNodeNodeNext(n)) ids.push_back(GraphNodeId(n));
    return ids;
}

inline std::set<uint32_t> NodeSet(TGraphItem* g) {
    const Ids ids = Nodes(g);
    return {ids.begin(), ids.end()};
}

// Neighbours of a node in its list order.
inline Ids Near(TGraphItem* g, uint32_t id) {
    Ids ids;
    for (TGraphLink* h = GraphNodeLinkFirst(GraphFindNode(g, id)); h; h = GraphLinkNext(h))
        ids.push_back(GraphNodeId(GraphLinkPair(h)));
    return ids;
}

inline Ids Group(TGraphItem* g, uint32_t id) {
    Ids ids;
    for (TGraphNode* e = GraphNodeGroupNext(GraphFindNode(g, id)); e; e = GraphNodeGroupNext(e))
        ids.push_back(GraphNodeId(e));
    return ids;
}

inline LinkSet Links(TGraphItem* g) {
    LinkSet links;
    for (TGraphNode* n = GraphNodeFirst(g); n; n = GraphNodeNodeNext(n))
        for (TGraphLink* h = GraphNodeLinkFirst(n); h; h = GraphLinkNext(h))
            links.insert(Ordered(GraphNodeId(n), GraphNodeId(GraphLinkPair(h))));
    return links;
}

// The invariants of the model, as seen through the flat interface; empty
// when they hold, else what broke.
inline std::string Broken(TGraphItem* g) {
    uint64_t halves = 0, nodes = 0;
    std::set<uint32_t> seen;
    for (TGraphNode* n = GraphNodeFirst(g); n; n = GraphNodeNodeNext(n), ++nodes) {
        const uint32_t id = GraphNodeId(n);
        if (!seen.insert(id).second) return "node twice " + std::to_string(id);
        if (GraphFindNode(g, id) != n) return "not found by id " + std::to_string(id);
        uint32_t count = 0;
        std::set<TGraphNode*> near;
        for (TGraphLink* h = GraphNodeLinkFirst(n); h; h = GraphLinkNext(h), ++count) {
            if (GraphLinkOwner(h) != n) return "owner of a half-link of " + std::to_string(id);
            if (GraphLinkLinkPair(GraphLinkLinkPair(h)) != h) return "pair of pair";
            if (GraphLinkPair(h) == n) return "self link at " + std::to_string(id);
            if (!near.insert(GraphLinkPair(h)).second) return "double link at " + std::to_string(id);
        }
        if (count != GraphNodeLinkCount(n)) return "link count of " + std::to_string(id);
        halves += count;
    }
    if (nodes != GraphNodeCount(g)) return "node count";
    if (halves != 2ull * GraphLinkCount(g)) return "graph link count";
    return "";
}

// Graph content as values, for comparisons with a reference.
struct Shape {
    std::set<uint32_t> nodes;
    LinkSet links;
    bool operator==(const Shape& o) const { return nodes == o.nodes && links == o.links; }
};

inline Shape ShapeOf(TGraphItem* g) { return {NodeSet(g), Links(g)}; }

}  // namespace graphtest
