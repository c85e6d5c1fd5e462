// Graph model, algebra edge cases, path searches on small graphs, and the
// saved buffers, through the flat interface.
#include <gtest/gtest.h>

#include <VomKwz.h>

#include <cstring>

#include "test_graph_util.h"

using namespace graphtest;

namespace {

std::vector<uint8_t> Bytes(const void* p, size_t n) {
    auto* b = static_cast<const uint8_t*>(p);
    return {b, b + n};
}

// u32 values as the little-endian bytes of a buffer.
std::vector<uint8_t> Words(std::initializer_list<uint32_t> words) {
    std::vector<uint8_t> out;
    for (uint32_t w : words)
        for (int i = 0; i < 4; ++i) out.push_back(uint8_t(w >> (8 * i)));
    return out;
}

}  // namespace

TEST(graph_model, HashSizesGrowAndRound) {
    Graph g = Make();
    EXPECT_EQ(GraphGetHashSize(g.get()), 0u);
    GraphAppendNode(g.get(), 1);
    EXPECT_EQ(GraphGetHashSize(g.get()), 1024u);
    // size asked -> size in force
    const std::pair<uint32_t, uint32_t> rounding[] = {
        {1, 1024}, {1025, 1280}, {1280, 1280}, {4096, 4096}, {4097, 4352}, {0, 1024}};
    for (auto [ask, got] : rounding) EXPECT_EQ(GraphSetHashSize(g.get(), ask), got) << ask;
    EXPECT_EQ(GraphFindNode(g.get(), 1) != nullptr, true);

    Graph big = Make();
    for (uint32_t id = 0; id < 8192; ++id) GraphAppendNode(big.get(), id * 7);
    EXPECT_EQ(GraphGetHashSize(big.get()), 1024u);
    GraphAppendNode(big.get(), 1);  // the 8193rd node: past the limit of 8 per bucket
    EXPECT_EQ(GraphGetHashSize(big.get()), 16384u);
    for (uint32_t id = 0; id < 8192; ++id) ASSERT_TRUE(GraphFindNode(big.get(), id * 7));
    EXPECT_EQ(Broken(big.get()), "");
}

TEST(graph_model, NodesAndLinks) {
    Graph g = Make();
    TGraphNode* a = GraphAppendNode(g.get(), 10);
    EXPECT_EQ(GraphAppendNode(g.get(), 10), a);
    EXPECT_EQ(GraphNodeCount(g.get()), 1u);
    TGraphNode* b = GraphAppendNode(g.get(), 20);
    TGraphLink* ab = GraphAppendLink(g.get(), a, b);
    ASSERT_TRUE(ab);
    EXPECT_EQ(GraphLinkPair(ab), b);
    EXPECT_EQ(GraphAppendLink(g.get(), b, a), GraphLinkLinkPair(ab));
    EXPECT_EQ(GraphLinkCount(g.get()), 1u);
    EXPECT_EQ(GraphNodeLinkCount(a), 1u);
    EXPECT_EQ(GraphNodeLinkCount(b), 1u);
    EXPECT_EQ(GraphAppendLink(g.get(), a, a), nullptr);
    EXPECT_EQ(GraphAppendLinkFirst(g.get(), a, a), nullptr);
    EXPECT_EQ(GraphFindLink(g.get(), a, b), ab);
    EXPECT_EQ(GraphFindLinkId(g.get(), b, 10), GraphLinkLinkPair(ab));
    EXPECT_EQ(GraphFindLinkId(g.get(), b, 30), nullptr);
    // Newest node first.
    EXPECT_EQ(Nodes(g.get()), (Ids{20, 10}));

    // A node of another graph is refused.
    Graph other = Make("10-20");
    EXPECT_EQ(GraphAppendLink(g.get(), a, GraphFindNode(other.get(), 20)), nullptr);
    EXPECT_EQ(Broken(g.get()), "");
}

TEST(graph_model, FindLinkFromEitherEnd) {
    // A hub 1 linked to 2..41, node 2 also linked to 50, and 60-61 apart; the
    // search reads the shorter list, so a lookup whose ends differ greatly in
    // length must still give a's half, or null.
    std::string links = "2-50 60-61";
    for (int k = 2; k <= 41; ++k) links += " 1-" + std::to_string(k);
    Graph g = Make(links.c_str());
    struct Row {
        uint32_t a, b;
        bool linked;
    };
    const Row rows[] = {
        {1, 2, true},  {2, 1, true},   {1, 41, true}, {41, 1, true},  {1, 50, false},
        {50, 1, false}, {2, 50, true}, {50, 2, true}, {1, 60, false}, {61, 60, true},
    };
    for (const Row& row : rows) {
        TGraphNode* a = GraphFindNode(g.get(), row.a);
        TGraphNode* b = GraphFindNode(g.get(), row.b);
        TGraphLink* h = GraphFindLink(g.get(), a, b);
        ASSERT_EQ(h != nullptr, row.linked) << row.a << "-" << row.b;
        if (!h) continue;
        EXPECT_EQ(GraphLinkOwner(h), a) << row.a << "-" << row.b;
        EXPECT_EQ(GraphLinkPair(h), b) << row.a << "-" << row.b;
        // An existing link is found, not made again, from either side.
        EXPECT_EQ(GraphAppendLink(g.get(), a, b), h);
        EXPECT_EQ(GraphAppendLink(g.get(), b, a), GraphLinkLinkPair(h));
    }
    EXPECT_EQ(GraphLinkCount(g.get()), 42u);
    EXPECT_EQ(Broken(g.get()), "");
}

TEST(graph_model, LinkOrderKeepsTheFirstLink) {
    // operations on node 1 -> its neighbours in list order
    struct Row {
        const char* links;
        const char* first;  // then AppendLinkFirst(1, first) when not null
        Ids near;
    };
    const Row rows[] = {
        {"1-2 1-3 1-4", nullptr, {2, 4, 3}},
        {"1-2 1-3 1-4", "5", {5, 2, 4, 3}},
        {"1-2 1-3 1-4", "4", {4, 2, 3}},
        {"1-2 1-3 1-4", "2", {2, 4, 3}},
    };
    for (const Row& row : rows) {
        Graph g = Make(row.links);
        if (row.first) {
            TGraphNode* far = GraphAppendNode(g.get(), uint32_t(std::stoul(row.first)));
            GraphAppendLinkFirst(g.get(), GraphFindNode(g.get(), 1), far);
            // The other end gets it second, as an ordinary append.
            if (GraphNodeLinkCount(far) > 1) {
                EXPECT_EQ(Near(g.get(), GraphNodeId(far))[1], 1u);
            }
        }
        EXPECT_EQ(Near(g.get(), 1), row.near) << row.links << " first " << (row.first ? row.first : "-");
        EXPECT_EQ(Broken(g.get()), "");
    }
    Graph g = Make("1-2 1-3 1-4");
    GraphMoveLinkFirst(g.get(), GraphFindLinkId(g.get(), GraphFindNode(g.get(), 1), 3));
    EXPECT_EQ(Near(g.get(), 1), (Ids{3, 2, 4}));
    EXPECT_EQ(Near(g.get(), 3), (Ids{1}));
}

TEST(graph_model, DeleteNodeAndLink) {
    Graph g = Make("1-2 1-3 2-3 3-4");
    GraphDeleteNode(g.get(), 3);
    GraphDeleteNode(g.get(), 99);
    EXPECT_EQ(Links(g.get()), (LinkSet{{1, 2}}));
    EXPECT_EQ(GraphNodeLinkCount(GraphFindNode(g.get(), 4)), 0u);
    EXPECT_EQ(GraphNodeLinkCount(GraphFindNode(g.get(), 1)), 1u);
    EXPECT_EQ(Nodes(g.get()), (Ids{4, 2, 1}));
    GraphDeleteLink(g.get(), GraphFindLinkId(g.get(), GraphFindNode(g.get(), 2), 1));
    EXPECT_EQ(GraphLinkCount(g.get()), 0u);
    // Freed records are reused and come back clean.
    Add(g.get(), "5-6 6-1");
    EXPECT_EQ(Links(g.get()), (LinkSet{{5, 6}, {1, 6}}));
    EXPECT_EQ(Broken(g.get()), "");
}

TEST(graph_model, RenameAndGroups) {
    Graph g = Make("5-1 2");
    TGraphNode* five = GraphFindNode(g.get(), 5);
    EXPECT_TRUE(GraphRenameGroup(g.get(), five, 7));
    EXPECT_EQ(GraphFindNode(g.get(), 7), five);
    EXPECT_EQ(GraphFindNode(g.get(), 5), nullptr);
    EXPECT_EQ(Group(g.get(), 7), (Ids{5}));
    EXPECT_TRUE(GraphRenameGroup(g.get(), five, 7));  // unchanged: no new entry
    EXPECT_EQ(Group(g.get(), 7), (Ids{5}));
    EXPECT_FALSE(GraphRenameNode(g.get(), five, 2));
    EXPECT_FALSE(GraphRenameGroup(g.get(), five, 1));
    EXPECT_EQ(GraphNodeId(five), 7u);
    // A rename across buckets and back keeps the node findable.
    EXPECT_TRUE(GraphRenameNode(g.get(), five, 7 + 1024));
    EXPECT_TRUE(GraphRenameNode(g.get(), five, 7 + 2048));
    EXPECT_EQ(GraphFindNode(g.get(), 7 + 2048), five);
    EXPECT_EQ(Near(g.get(), 1), (Ids{7 + 2048}));

    GraphAppendGroupNode(g.get(), five, 8);
    GraphAppendGroupNode(g.get(), five, 9);
    GraphAppendGroupNode(g.get(), five, 8);
    EXPECT_EQ(Group(g.get(), 7 + 2048), (Ids{8, 9, 8, 5}));
    GraphDeleteGroupNode(g.get(), five, 8);
    GraphDeleteGroupNode(g.get(), five, 42);
    EXPECT_EQ(Group(g.get(), 7 + 2048), (Ids{9, 8, 5}));
    EXPECT_EQ(GraphNodeCount(g.get()), 3u);  // entries are not nodes
    EXPECT_EQ(Broken(g.get()), "");
}

TEST(graph_model, EqualityAndCopy) {
    Graph a = Make("1-2 2-3 4");
    Graph b = Make("4 3-2 1-2");
    EXPECT_TRUE(GraphEqual(a.get(), b.get()));
    GraphAppendGroupNode(a.get(), GraphFindNode(a.get(), 4), 50);
    EXPECT_FALSE(GraphEqual(a.get(), b.get()));  // group node against plain node
    GraphAppendGroupNode(b.get(), GraphFindNode(b.get(), 4), 60);
    EXPECT_TRUE(GraphEqual(a.get(), b.get()));  // members are not compared
    Graph c = Make("1-2 2-4 3");
    EXPECT_FALSE(GraphEqual(a.get(), c.get()));

    GraphCopy(a.get(), a.get());
    EXPECT_EQ(ShapeOf(a.get()), ShapeOf(b.get()));
    // The copy keeps each node's first link first.
    Graph d = Make("1-2 1-3 1-4 3-4");
    GraphAppendLinkFirst(d.get(), GraphFindNode(d.get(), 4), GraphFindNode(d.get(), 1));
    Graph copy(GraphNew(d.get()));
    for (uint32_t id : {1, 2, 3, 4}) EXPECT_EQ(Near(copy.get(), id)[0], Near(d.get(), id)[0]) << id;
    EXPECT_TRUE(GraphEqual(copy.get(), d.get()));

    GraphCopy(d.get(), a.get());
    EXPECT_EQ(Group(d.get(), 4), (Ids{50}));
    GraphCopyWithoutGroup(d.get(), a.get());
    EXPECT_EQ(Group(d.get(), 4), Ids{});
    EXPECT_EQ(ShapeOf(d.get()), ShapeOf(a.get()));
    GraphClear(d.get());
    EXPECT_EQ(GraphNodeCount(d.get()), 0u);
    EXPECT_EQ(GraphGetHashSize(d.get()), 0u);
    Add(d.get(), "1-2");
    EXPECT_EQ(Broken(d.get()), "");
}

TEST(graph_model, NullHandles) {
    EXPECT_EQ(GraphAdd(nullptr, nullptr), nullptr);
    EXPECT_EQ(GraphAppendNode(nullptr, 1), nullptr);
    EXPECT_EQ(GraphNodeCount(nullptr), 0u);
    EXPECT_FALSE(GraphEqual(nullptr, nullptr));
    EXPECT_EQ(GraphLinkMark(nullptr), 0u);
    Graph g = Make("1-2");
    EXPECT_EQ(GraphXorSel(g.get(), g.get(), nullptr, nullptr), nullptr);
    EXPECT_EQ(GraphBuildPathCut(g.get(), GraphFindNode(g.get(), 1), nullptr), nullptr);
    GraphDelete(nullptr);
    GraphClear(nullptr);
    GraphDataLoad(nullptr, nullptr, nullptr, nullptr);
    EXPECT_FALSE(GraphDataLoadN(nullptr, nullptr, 0, nullptr, 0, nullptr, 0));
}

// ---- algebra ---------------------------------------------------------------

TEST(graph_algebra, SmallCases) {
    using Op = TGraphItem* (*)(TGraphItem*, TGraphItem*);
    struct Row {
        const char* name;
        Op op;
        const char *a, *b, *result;
    };
    const Row rows[] = {
        {"a + empty", GraphAdd, "1-2 3", "", "1-2 3"},
        {"a + b", GraphAdd, "1-2 3", "3-4 5", "1-2 3-4 5"},
        {"a - a", GraphSub, "1-2 3", "1-2 3", ""},
        {"a - b", GraphSub, "1-2 2-3 3-4", "3", "1-2 4"},
        {"a & empty", GraphAnd, "1-2 3", "", ""},
        {"a & a", GraphAnd, "1-2 2-3", "1-2 2-3", "1-2 2-3"},
        {"a & b keeps common links", GraphAnd, "1-2 2-3 3-1", "1-2 2-3 1-4", "1-2 2-3"},
        {"a * b one step", GraphMul, "1", "1-2 2-3 1-4", "1-2 1-4"},
        {"a ^ b to the end", GraphXor, "1", "1-2 2-3 3-4 5-6", "1-2 2-3 3-4"},
        {"a ^ b keeps a", GraphXor, "7-8 1", "1-2", "7-8 1-2"},
        {"a / b nothing shared", GraphDiv, "1-2", "3-4", "1-2"},
    };
    for (const Row& row : rows) {
        Graph a = Make(row.a), b = Make(row.b), want = Make(row.result);
        Graph r(row.op(a.get(), b.get()));
        ASSERT_TRUE(r) << row.name;
        EXPECT_EQ(ShapeOf(r.get()), ShapeOf(want.get())) << row.name;
        EXPECT_EQ(Broken(r.get()), "") << row.name;
    }
}

TEST(graph_algebra, GroupListsFollowTheirNodes) {
    Graph a = Make("1-2 3"), b = Make("1 2 3");
    GraphAppendGroupNode(a.get(), GraphFindNode(a.get(), 1), 100);
    GraphAppendGroupNode(b.get(), GraphFindNode(b.get(), 2), 200);
    GraphAppendGroupNode(b.get(), GraphFindNode(b.get(), 1), 300);
    Graph both(GraphAnd(a.get(), b.get()));
    EXPECT_EQ(Group(both.get(), 1), (Ids{100}));  // a's list wins
    EXPECT_EQ(Group(both.get(), 2), (Ids{200}));  // b's when a has none
    Graph sum(GraphAdd(a.get(), b.get()));
    EXPECT_EQ(Group(sum.get(), 1), (Ids{100}));
    EXPECT_EQ(Group(sum.get(), 2), (Ids{200}));
    Graph diff(GraphSub(a.get(), b.get()));
    EXPECT_EQ(GraphNodeCount(diff.get()), 0u);
}

TEST(graph_algebra, ContractionOfAPath) {
    // a: the path 1-2-3 with outside neighbours; b shares the path.
    Graph a = Make("10-1 1-2 2-3 3-30 2-20 40");
    Graph b = Make("3-2 2-1");
    Graph t(GraphAnd(a.get(), b.get()));
    const uint32_t survivor = Nodes(t.get())[0];
    Graph r(GraphDiv(a.get(), b.get()));
    ASSERT_TRUE(r);
    std::set<uint32_t> path{1, 2, 3};
    path.erase(survivor);
    EXPECT_EQ(NodeSet(r.get()), (std::set<uint32_t>{survivor, 10, 20, 30, 40}));
    const Ids group = Group(r.get(), survivor);
    EXPECT_EQ(std::set<uint32_t>(group.begin(), group.end()), path);
    EXPECT_EQ(Links(r.get()), (LinkSet{Ordered(survivor, 10), Ordered(survivor, 20), Ordered(survivor, 30)}));
    EXPECT_EQ(Broken(r.get()), "");
}

TEST(graph_algebra, Filters) {
    auto even = [](uint32_t, uint32_t to, void*) { return to % 2 == 0; };
    Graph a = Make("1"), b = Make("1-2 1-3 2-4 2-5 4-6");
    Graph mul(GraphMulSel(a.get(), b.get(), even, nullptr));
    EXPECT_EQ(ShapeOf(mul.get()), ShapeOf(Make("1-2").get()));
    Graph all(GraphMulSel(a.get(), b.get(), nullptr, nullptr));
    EXPECT_EQ(ShapeOf(all.get()), ShapeOf(Make("1-2 1-3").get()));
    int calls = 0;
    auto counting = [](uint32_t, uint32_t to, void* context) {
        ++*static_cast<int*>(context);
        return to % 2 == 0;
    };
    Graph xr(GraphXorSel(a.get(), b.get(), counting, &calls));
    EXPECT_EQ(ShapeOf(xr.get()), ShapeOf(Make("1-2 2-4 4-6").get()));
    EXPECT_GT(calls, 0);
}

TEST(graph_algebra, Border) {
    struct Row {
        const char *graph, *seeds, *barrier, *border, *result;
    };
    const Row rows[] = {
        {"1-2", "1", "", "2", "2"},                      // border next to a seed
        {"1-3 3-2", "1", "3", "2", ""},                  // hidden behind a barrier
        {"1-3 3-2 2-4 4-5", "1", "", "2 5", "2"},        // not entered past the border
        {"1-2 2-3", "1 2", "", "2 3", "3"},              // seeds never in the result
        {"1-2 2-3 3-4 5-6", "1", "", "4 6", "4"},        // unreachable border
        {"1-2", "9", "", "2", ""},                       // seed not in the graph
    };
    for (const Row& row : rows) {
        Graph g = Make(row.graph), seeds = Make(row.seeds), barrier = Make(row.barrier),
              border = Make(row.border);
        Graph r(GraphBuildBord(g.get(), seeds.get(), barrier.get(), border.get()));
        ASSERT_TRUE(r);
        EXPECT_EQ(NodeSet(r.get()), NodeSet(Make(row.result).get())) << row.graph << " / " << row.border;
        EXPECT_EQ(GraphLinkCount(r.get()), 0u);
    }
}

// ---- paths -----------------------------------------------------------------

TEST(graph_path, SmallCases) {
    using Build = TGraphItem* (*)(TGraphItem*, TGraphNode*, TGraphNode*);
    struct Row {
        const char* name;
        Build build;
        const char* graph;
        uint32_t from, to;
        const char* result;
    };
    const Row rows[] = {
        {"cut: adjacent", GraphBuildPathCut, "1-2 2-3", 1, 2, "1-2"},
        {"cut: one side without links", GraphBuildPathCut, "1-2 3", 1, 3, ""},
        {"cut: no path", GraphBuildPathCut, "1-2 3-4", 1, 4, ""},
        {"cut: same node", GraphBuildPathCut, "1-2", 1, 1, ""},
        {"cut: square, both ways", GraphBuildPathCut, "1-2 2-4 1-3 3-4", 1, 4, "1-2 2-4 1-3 3-4"},
        {"cut: shortcut wins", GraphBuildPathCut, "1-2 2-3 3-4 1-5 5-4", 1, 4, "1-5 5-4"},
        // 2-3 joins two nodes of one wave: on no shortest path.
        {"cut: same-wave link left out", GraphBuildPathCut, "1-2 1-3 2-3 2-4 3-4", 1, 4,
         "1-2 1-3 2-4 3-4"},
        {"path: one side without links", GraphBuildPath, "1-2 3", 1, 3, ""},
        {"path: a line", GraphBuildPath, "1-2 2-3 3-4 9", 1, 4, "1-2 2-3 3-4"},
    };
    for (const Row& row : rows) {
        Graph g = Make(row.graph);
        Graph r(row.build(g.get(), GraphFindNode(g.get(), row.from), GraphFindNode(g.get(), row.to)));
        ASSERT_TRUE(r) << row.name;
        EXPECT_EQ(ShapeOf(r.get()), ShapeOf(Make(row.result).get())) << row.name;
    }
}

TEST(graph_path, CutMarksPointFromTheStart) {
    Graph g = Make("1-2 2-3 3-4 4-5");
    for (auto [from, to] : {std::pair<uint32_t, uint32_t>{1, 2}, {1, 5}, {5, 1}, {2, 4}}) {
        Graph r(GraphBuildPathCut(g.get(), GraphFindNode(g.get(), from), GraphFindNode(g.get(), to)));
        ASSERT_GT(GraphLinkCount(r.get()), 0u);
        for (TGraphNode* n = GraphNodeFirst(r.get()); n; n = GraphNodeNodeNext(n)) {
            for (TGraphLink* h = GraphNodeLinkFirst(n); h; h = GraphLinkNext(h)) {
                // The end nearer `from` is marked 1: the end with the id nearer from's.
                const uint32_t self = GraphNodeId(n), far = GraphNodeId(GraphLinkPair(h));
                const bool nearer = (from < to) == (self < far);
                EXPECT_EQ(GraphLinkMark(h), nearer ? 1u : 2u) << from << "->" << to << " at " << self;
            }
        }
    }
}

// A search after the graph changed (a freed link record reused) sees none of
// the earlier search's marks; ClearTemp zeroes every mark.  Marks left by a
// search are checked against a fresh one in the reference tests.
TEST(graph_path, SearchesLeaveNoStaleMarks) {
    Graph g = Make("1-2 2-3 3-4 4-1 4-5 5-6 6-7 7-4 8-9");
    auto cut = [&](uint32_t a, uint32_t b) {
        Graph r(GraphBuildPathCut(g.get(), GraphFindNode(g.get(), a), GraphFindNode(g.get(), b)));
        return Links(r.get());
    };
    EXPECT_EQ(cut(1, 6), (LinkSet{{1, 4}, {4, 5}, {5, 6}, {4, 7}, {6, 7}}));
    Graph(GraphBuildPath(g.get(), GraphFindNode(g.get(), 1), GraphFindNode(g.get(), 3)));
    GraphDeleteLink(g.get(), GraphFindLinkId(g.get(), GraphFindNode(g.get(), 4), 5));
    GraphAppendLink(g.get(), GraphFindNode(g.get(), 8), GraphFindNode(g.get(), 5));
    EXPECT_EQ(cut(8, 6), (LinkSet{{5, 8}, {5, 6}}));
    GraphClearTemp(g.get());
    for (TGraphNode* n = GraphNodeFirst(g.get()); n; n = GraphNodeNodeNext(n))
        for (TGraphLink* h = GraphNodeLinkFirst(n); h; h = GraphLinkNext(h)) EXPECT_EQ(GraphLinkMark(h), 0u);
}

// ---- saved buffers -----------------------------------------------------------

TEST(graph_data, SavedBytes) {
    Graph g = Make("3-1 1-2 2-3 7");
    TGraphNode* seven = GraphFindNode(g.get(), 7);
    for (uint32_t member : {70, 71, 72}) GraphAppendGroupNode(g.get(), seven, member);
    void *nodes, *links, *groups;
    GraphDataSave(g.get(), &nodes, &links, &groups);
    ASSERT_TRUE(nodes && links && groups);
    EXPECT_EQ(Bytes(nodes, 24), Words({0x12358D1, 4, 7, 2, 1, 3}));
    EXPECT_EQ(Bytes(links, 32), Words({0x12358D2, 3, 1, 2, 1, 3, 2, 3}));
    // Three members: the count field is ((3 + 1) >> 2) - 1 = 0.
    EXPECT_EQ(Bytes(groups, 28), Words({0x12358D3, 1, 7, 0, 72, 71, 70}));
    KWMemFree(nodes);
    KWMemFree(links);
    KWMemFree(groups);

    // count field for m members (kept as the readers of saved groups expect)
    const std::pair<uint32_t, uint32_t> fields[] = {{1, 0xFFFFFFFF}, {2, 0xFFFFFFFF}, {3, 0}, {7, 1}, {8, 1}};
    for (auto [m, field] : fields) {
        Graph one = Make("5");
        for (uint32_t i = 0; i < m; ++i) GraphAppendGroupNode(one.get(), GraphFindNode(one.get(), 5), i);
        void* buffer = nullptr;
        GraphDataSave(one.get(), nullptr, nullptr, &buffer);
        ASSERT_TRUE(buffer);
        EXPECT_EQ(Bytes(static_cast<uint8_t*>(buffer) + 12, 4), Words({field})) << m;
        KWMemFree(buffer);
    }

    // No group node: the groups pointer becomes NULL; a link once per pair.
    Graph plain = Make("9-8 8-7 7-9 9-6");
    void* none = &none;
    GraphDataSave(plain.get(), nullptr, &links, &none);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(Bytes(links, 40), Words({0x12358D2, 4, 6, 9, 7, 8, 7, 9, 8, 9}));
    KWMemFree(links);
}

TEST(graph_data, RoundTripAndMalformedBuffers) {
    Graph g = Make("1-2 2-3 3-1 3-4 10 11-12");
    void *nodes, *links;
    GraphDataSave(g.get(), &nodes, &links, nullptr);
    const std::vector<uint8_t> n = Bytes(nodes, 8 + 4 * 7), l = Bytes(links, 8 + 8 * 5);
    KWMemFree(nodes);
    KWMemFree(links);

    Graph back = Make("99");
    GraphDataLoad(back.get(), n.data(), l.data(), nullptr);
    EXPECT_TRUE(GraphEqual(back.get(), g.get()));
    const Ids order = Nodes(g.get());
    EXPECT_EQ(Nodes(back.get()), Ids(order.rbegin(), order.rend()));
    Graph checked = Make("99");
    EXPECT_TRUE(GraphDataLoadN(checked.get(), n.data(), n.size(), l.data(), l.size(), nullptr, 0));
    EXPECT_TRUE(GraphEqual(checked.get(), g.get()));

    auto with = [](std::vector<uint8_t> bytes, size_t at, uint32_t value) {
        std::memcpy(bytes.data() + at, &value, 4);
        return bytes;
    };
    const std::vector<uint8_t> groups = Words({0x12358D3, 2, 1, 2, 50, 51, 77, 0});
    struct Row {
        const char* name;
        std::vector<uint8_t> nodes, links, groups;
        bool ok;
        size_t nodeCount, linkCount;
    };
    const Row rows[] = {
        {"whole", n, l, {}, true, 7, 5},
        {"nodes only", n, {}, {}, true, 7, 0},
        {"nodes cut short", {n.begin(), n.end() - 1}, l, {}, false, 0, 0},
        {"links cut short", n, {l.begin(), l.end() - 4}, {}, false, 0, 0},
        {"node count too large", with(n, 4, 1u << 30), l, {}, false, 0, 0},
        {"wrong node magic", with(n, 0, 0x12358D2), l, {}, false, 0, 0},
        {"wrong link magic", n, with(l, 0, 0), {}, false, 0, 0},
        {"unknown node in a pair", n, with(l, 8, 555), {}, true, 7, 4},
        {"groups", n, l, groups, true, 7, 5},
        {"group count too large", n, l, with(groups, 12, 0x40000000), false, 0, 0},
        {"group records missing", n, l, with(groups, 4, 3), false, 0, 0},
        {"no magic at all", {1, 2, 3}, {}, {}, false, 0, 0},
    };
    for (const Row& row : rows) {
        Graph t = Make("42-43");
        const bool ok = GraphDataLoadN(t.get(), row.nodes.data(), row.nodes.size(),
                                       row.links.empty() ? nullptr : row.links.data(), row.links.size(),
                                       row.groups.empty() ? nullptr : row.groups.data(), row.groups.size());
        EXPECT_EQ(ok, row.ok) << row.name;
        EXPECT_EQ(GraphNodeCount(t.get()), row.nodeCount) << row.name;
        EXPECT_EQ(GraphLinkCount(t.get()), row.linkCount) << row.name;
        EXPECT_EQ(Broken(t.get()), "") << row.name;
    }
    // Group records as read: node 1 gets 50 and 51 (reversed), node 77 is unknown.
    Graph t = Make();
    ASSERT_TRUE(GraphDataLoadN(t.get(), n.data(), n.size(), nullptr, 0, groups.data(), groups.size()));
    EXPECT_EQ(Group(t.get(), 1), (Ids{51, 50}));
    // The trusted loader with a wrong magic leaves the graph empty.
    GraphDataLoad(t.get(), with(n, 0, 1).data(), nullptr, nullptr);
    EXPECT_EQ(GraphNodeCount(t.get()), 0u);
}
