// Algebra and path searches on random graphs against plain references built
// from std::set and a breadth-first search (fixed seeds, a few thousand nodes).
#include <gtest/gtest.h>

#include <VomKwz.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <functional>
#include <random>

#include "test_graph_util.h"

using namespace graphtest;

namespace {

using Adjacency = std::map<uint32_t, std::set<uint32_t>>;

Adjacency AdjacencyOf(const Shape& s) {
    Adjacency adj;
    for (uint32_t n : s.nodes) adj[n];
    for (auto [a, b] : s.links) {
        adj[a].insert(b);
        adj[b].insert(a);
    }
    return adj;
}

// A random graph of ids below `range`, built in random order (so that node
// and link lists are in no particular order).
Graph Random(std::mt19937& rng, uint32_t range, uint32_t nodes, uint32_t links) {
    Graph g = Make();
    std::uniform_int_distribution<uint32_t> id(0, range - 1);
    std::vector<uint32_t> made;
    for (uint32_t i = 0; i < nodes; ++i) made.push_back(GraphNodeId(GraphAppendNode(g.get(), id(rng))));
    std::uniform_int_distribution<size_t> pick(0, made.size() - 1);
    for (uint32_t i = 0; i < links; ++i)
        GraphAppendLink(g.get(), GraphFindNode(g.get(), made[pick(rng)]), GraphFindNode(g.get(), made[pick(rng)]));
    return g;
}

bool Odd(uint32_t from, uint32_t to, void*) { return (from * 31 + to) % 4 != 0; }

// One step (closure false) or the transitive closure of a along b's links
// that pass the filter, as the reference sees it.
Shape Expand(const Shape& a, const Shape& b, bool closure, GraphLinkFilter filter) {
    const Adjacency adjB = AdjacencyOf(b);
    Shape r = a;
    std::deque<uint32_t> todo(a.nodes.begin(), a.nodes.end());
    while (!todo.empty()) {
        const uint32_t x = todo.front();
        todo.pop_front();
        auto it = adjB.find(x);
        if (it == adjB.end()) continue;
        for (uint32_t y : it->second) {
            if (filter && !filter(x, y, nullptr)) continue;
            r.links.insert(Ordered(x, y));
            if (r.nodes.insert(y).second && closure) todo.push_back(y);
        }
    }
    return r;
}

class GraphReference : public ::testing::TestWithParam<uint32_t> {};

TEST_P(GraphReference, Algebra) {
    std::mt19937 rng(GetParam());
    Graph a = Random(rng, 3000, 2000, 2500), b = Random(rng, 3000, 2000, 1500);
    const Shape sa = ShapeOf(a.get()), sb = ShapeOf(b.get());

    Shape add{sa.nodes, sa.links}, sub, both;
    add.nodes.insert(sb.nodes.begin(), sb.nodes.end());
    add.links.insert(sb.links.begin(), sb.links.end());
    for (uint32_t n : sa.nodes) (sb.nodes.count(n) ? both : sub).nodes.insert(n);
    for (Link l : sa.links) {
        if (sub.nodes.count(l.first) && sub.nodes.count(l.second)) sub.links.insert(l);
        if (sb.links.count(l)) both.links.insert(l);
    }
    Graph seed = Make("7 1500");
    const Shape ss = ShapeOf(seed.get());
    struct Row {
        const char* name;
        Graph result;
        Shape want;
    };
    Row rows[] = {
        {"+", Graph(GraphAdd(a.get(), b.get())), add},
        {"-", Graph(GraphSub(a.get(), b.get())), sub},
        {"&", Graph(GraphAnd(a.get(), b.get())), both},
        {"*", Graph(GraphMul(a.get(), b.get())), Expand(sa, sb, false, nullptr)},
        {"MulSel", Graph(GraphMulSel(a.get(), b.get(), Odd, nullptr)), Expand(sa, sb, false, Odd)},
        {"^", Graph(GraphXor(seed.get(), b.get())), Expand(ss, sb, true, nullptr)},
        {"XorSel", Graph(GraphXorSel(seed.get(), a.get(), Odd, nullptr)), Expand(ss, sa, true, Odd)},
    };
    for (Row& row : rows) {
        ASSERT_TRUE(row.result) << row.name;
        EXPECT_TRUE(ShapeOf(row.result.get()) == row.want) << row.name;
        EXPECT_EQ(Broken(row.result.get()), "") << row.name;
    }
    // The operands are untouched.
    EXPECT_TRUE(ShapeOf(a.get()) == sa);
    EXPECT_TRUE(ShapeOf(b.get()) == sb);
}

TEST_P(GraphReference, Contraction) {
    std::mt19937 rng(GetParam());
    // b shares about a third of a's links, so that a & b has large parts.
    Graph a = Random(rng, 2500, 2000, 2600), b = Random(rng, 2500, 1000, 300);
    const Shape sa = ShapeOf(a.get());
    for (Link l : sa.links)
        if (rng() % 3 == 0) Add(b.get(), std::to_string(l.first) + "-" + std::to_string(l.second));
    Graph t(GraphAnd(a.get(), b.get()));
    const Adjacency adjT = AdjacencyOf(ShapeOf(t.get()));
    Graph r(GraphDiv(a.get(), b.get()));
    ASSERT_TRUE(r);
    ASSERT_EQ(Broken(r.get()), "");
    const std::set<uint32_t> kept = NodeSet(r.get());

    // Each connected part of a & b leaves exactly one of its nodes, whose
    // group holds the others; every link of a goes to the survivors.
    std::map<uint32_t, uint32_t> survivor;
    for (auto& [start, near] : adjT) {
        if (survivor.count(start)) continue;
        std::vector<uint32_t> part{start};
        survivor[start] = start;
        for (size_t i = 0; i < part.size(); ++i)
            for (uint32_t y : adjT.at(part[i]))
                if (survivor.emplace(y, start).second) part.push_back(y);
        std::vector<uint32_t> left;
        for (uint32_t x : part)
            if (kept.count(x)) left.push_back(x);
        ASSERT_EQ(left.size(), 1u) << "part of " << start;
        for (uint32_t x : part) survivor[x] = left[0];
        Ids group = Group(r.get(), left[0]);
        std::sort(group.begin(), group.end());
        std::sort(part.begin(), part.end());
        part.erase(std::find(part.begin(), part.end(), left[0]));
        EXPECT_EQ(group, part);
    }
    Shape want;
    auto to = [&](uint32_t x) { return survivor.count(x) ? survivor[x] : x; };
    for (uint32_t n : sa.nodes) want.nodes.insert(to(n));
    for (auto [x, y] : sa.links)
        if (to(x) != to(y)) want.links.insert(Ordered(to(x), to(y)));
    EXPECT_TRUE(ShapeOf(r.get()) == want);
}

TEST_P(GraphReference, Border) {
    std::mt19937 rng(GetParam());
    Graph g = Random(rng, 3000, 2500, 3500);
    Graph seeds = Random(rng, 3000, 5, 0), barrier = Random(rng, 3000, 300, 0),
          border = Random(rng, 3000, 300, 0);
    const Adjacency adj = AdjacencyOf(ShapeOf(g.get()));
    const std::set<uint32_t> inBarrier = NodeSet(barrier.get()), inBorder = NodeSet(border.get()),
                             inSeeds = NodeSet(seeds.get());
    std::set<uint32_t> entered = inSeeds, found;
    std::deque<uint32_t> todo(inSeeds.begin(), inSeeds.end());
    while (!todo.empty()) {
        const uint32_t x = todo.front();
        todo.pop_front();
        auto it = adj.find(x);
        if (it == adj.end()) continue;
        for (uint32_t y : it->second) {
            if (inBorder.count(y))
                found.insert(y);
            else if (!inBarrier.count(y) && entered.insert(y).second)
                todo.push_back(y);
        }
    }
    for (uint32_t s : inSeeds) found.erase(s);
    Graph r(GraphBuildBord(g.get(), seeds.get(), barrier.get(), border.get()));
    ASSERT_TRUE(r);
    EXPECT_EQ(NodeSet(r.get()), found);
}

// Distances from one node by breadth-first search.
std::map<uint32_t, uint32_t> Distances(const Adjacency& adj, uint32_t from) {
    std::map<uint32_t, uint32_t> d{{from, 0}};
    std::deque<uint32_t> todo{from};
    while (!todo.empty()) {
        const uint32_t x = todo.front();
        todo.pop_front();
        for (uint32_t y : adj.at(x))
            if (d.emplace(y, d[x] + 1).second) todo.push_back(y);
    }
    return d;
}

// (owner, far) -> mark of every half-link on a shortest path from s to t:
// u-v lies on one when d(s, u) + 1 + d(v, t) == d(s, t), and u's half is
// then marked 1.  Empty when there is no such path.
using Halves = std::map<std::pair<uint32_t, uint32_t>, uint32_t>;
Halves ShortestHalves(const Adjacency& adj, uint32_t s, uint32_t t) {
    Halves want;
    const auto ds = Distances(adj, s), dt = Distances(adj, t);
    if (s == t || !ds.count(t) || adj.at(s).empty() || adj.at(t).empty()) return want;
    for (auto& [u, near] : adj)
        for (uint32_t v : near)
            if (ds.count(u) && dt.count(v) && ds.at(u) + 1 + dt.at(v) == ds.at(t)) {
                want[{u, v}] = 1;
                want[{v, u}] = 2;
            }
    return want;
}

TEST_P(GraphReference, ShortestPaths) {
    std::mt19937 rng(GetParam());
    // Sparse enough for long paths with many ties; BuildPath runs a pass from
    // every node it collects, so it gets a smaller graph.
    for (const uint32_t size : {3000u, 600u}) {
        const bool cut = size == 3000;
        Graph g = Random(rng, size * 4 / 3, size, size * 6 / 5);
        const Adjacency adj = AdjacencyOf(ShapeOf(g.get()));
        const Ids ids = Nodes(g.get());
        std::uniform_int_distribution<size_t> pick(0, ids.size() - 1);
        int found = 0;
        for (int query = 0; query < (cut ? 40 : 6); ++query) {
            const uint32_t s = ids[pick(rng)], t = ids[pick(rng)];
            TGraphNode *from = GraphFindNode(g.get(), s), *to = GraphFindNode(g.get(), t);
            Graph r((cut ? GraphBuildPathCut : GraphBuildPath)(g.get(), from, to));
            ASSERT_TRUE(r);
            ASSERT_EQ(Broken(r.get()), "");
            const Halves want = ShortestHalves(adj, s, t);
            found += !want.empty();
            if (cut) {
                Halves got;
                for (TGraphNode* n = GraphNodeFirst(r.get()); n; n = GraphNodeNodeNext(n))
                    for (TGraphLink* h = GraphNodeLinkFirst(n); h; h = GraphLinkNext(h))
                        got[{GraphNodeId(n), GraphNodeId(GraphLinkPair(h))}] = GraphLinkMark(h);
                EXPECT_EQ(got, want) << s << " -> " << t;
                // The searched graph keeps only sides: 0, 1 or 2 on every node and half-link.
                uint32_t worst = 0;
                for (TGraphNode* n = GraphNodeFirst(g.get()); n; n = GraphNodeNodeNext(n)) {
                    worst = std::max(worst, n->mark);
                    for (TGraphLink* h = GraphNodeLinkFirst(n); h; h = GraphLinkNext(h))
                        worst = std::max(worst, GraphLinkMark(h));
                }
                EXPECT_LE(worst, 2u) << s << " -> " << t;
                continue;
            }
            // BuildPath: links of the graph, every shortest path among them.
            const Shape path = ShapeOf(r.get());
            for (Link l : path.links) EXPECT_TRUE(adj.at(l.first).count(l.second));
            for (auto& [halves, mark] : want)
                EXPECT_TRUE(mark == 2 || path.links.count(Ordered(halves.first, halves.second))) << s << " -> " << t;
        }
        EXPECT_GT(found, cut ? 10 : 1);
    }
}

// Every mark of the graph, node by node (the node's own, then its
// half-links').
std::vector<uint32_t> Marks(TGraphItem* g) {
    std::vector<uint32_t> marks;
    for (TGraphNode* n = GraphNodeFirst(g); n; n = GraphNodeNodeNext(n)) {
        marks.push_back(n->mark);
        for (TGraphLink* h = GraphNodeLinkFirst(n); h; h = GraphLinkNext(h)) marks.push_back(GraphLinkMark(h));
    }
    return marks;
}

TEST_P(GraphReference, SearchesClearWhatTheLastOneMarked) {
    // After any earlier searches, the marks a search leaves are those it
    // leaves on a freshly cleared graph: with other ends or the same ones,
    // and after edits between the searches (marked links and nodes deleted,
    // their records taken again by new links).
    std::mt19937 rng(GetParam());
    Graph g = Random(rng, 800, 600, 1000);
    const Ids ids = Nodes(g.get());
    std::uniform_int_distribution<size_t> pick(0, ids.size() - 1);
    auto node = [&] { return GraphFindNode(g.get(), ids[pick(rng)]); };
    using Build = TGraphItem* (*)(TGraphItem*, TGraphNode*, TGraphNode*);
    auto edit = [&](TGraphNode* a) {
        if (TGraphLink* h = GraphNodeLinkFirst(a)) GraphDeleteLink(g.get(), h);
        for (int i = 0; i < 3; ++i) {
            TGraphNode* n = node();
            if (n && n != a) GraphDeleteNode(g.get(), GraphNodeId(n));
        }
        for (int i = 0; i < 40; ++i) {
            TGraphNode *x = node(), *y = node();
            if (x && y) GraphAppendLink(g.get(), x, y);
        }
    };
    for (int round = 0; round < 6; ++round) {
        Build first = round == 0 || round == 4 ? GraphBuildPath : GraphBuildPathCut;
        Build second = round == 0 || round == 5 ? GraphBuildPath : GraphBuildPathCut;
        const bool sameEnds = round % 3 == 1, edits = round % 3 == 2;
        TGraphNode *a = node(), *b = node();
        if (!a || !b) continue;
        Graph(first(g.get(), a, b));
        if (edits) edit(a);
        TGraphNode *c = sameEnds ? a : node(), *d = sameEnds ? b : node();
        // A search between nodes without links returns at once and clears nothing.
        if (!c || !d || !GraphNodeLinkCount(c) || !GraphNodeLinkCount(d)) continue;
        Graph after(second(g.get(), c, d));
        const std::vector<uint32_t> marks = Marks(g.get());
        GraphClearTemp(g.get());
        Graph fresh(second(g.get(), c, d));
        EXPECT_EQ(Marks(g.get()), marks) << round;
        EXPECT_TRUE(ShapeOf(after.get()) == ShapeOf(fresh.get())) << round;
    }
}

TEST_P(GraphReference, SaveAndLoad) {
    std::mt19937 rng(GetParam());
    Graph g = Random(rng, 1u << 31, 3000, 5000);
    const Ids ids = Nodes(g.get());
    // Fresh, then after deletions (records on the free lists) and new links
    // (some of those records taken again).
    for (int round = 0; round < 2; ++round) {
        if (round == 1) {
            for (size_t i = 0; i < ids.size(); i += 7) GraphDeleteNode(g.get(), ids[i]);
            for (TGraphNode* n = GraphNodeFirst(g.get()); n; n = GraphNodeNodeNext(n))
                if (TGraphLink* h = GraphNodeLinkFirst(n); h && rng() % 3 == 0) GraphDeleteLink(g.get(), h);
            for (int i = 0; i < 400; ++i)
                GraphAppendLink(g.get(), GraphAppendNode(g.get(), ids[rng() % ids.size()]),
                                GraphAppendNode(g.get(), ids[rng() % ids.size()]));
        }
        void *nodes, *links;
        GraphDataSave(g.get(), &nodes, &links, nullptr);
        ASSERT_TRUE(nodes && links);
        Graph back = Make();
        GraphDataLoad(back.get(), nodes, links, nullptr);
        EXPECT_TRUE(GraphEqual(back.get(), g.get())) << round;
        EXPECT_TRUE(ShapeOf(back.get()) == ShapeOf(g.get())) << round;
        // The pairs are sorted and each link is there once.
        const uint32_t k = GraphLinkCount(g.get());
        std::vector<uint32_t> words(2ull * k);
        std::memcpy(words.data(), static_cast<uint8_t*>(links) + 8, 8ull * k);
        std::vector<Link> pairs;
        for (size_t i = 0; i < k; ++i) pairs.emplace_back(words[2 * i], words[2 * i + 1]);
        EXPECT_TRUE(std::is_sorted(pairs.begin(), pairs.end())) << round;
        EXPECT_TRUE(LinkSet(pairs.begin(), pairs.end()) == ShapeOf(g.get()).links) << round;
        EXPECT_EQ(LinkSet(pairs.begin(), pairs.end()).size(), k) << round;
        KWMemFree(nodes);
        KWMemFree(links);
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, GraphReference, ::testing::Values(1u, 2u, 3u, 20261125u));

}  // namespace
