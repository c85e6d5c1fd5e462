// Graphs from inside: the pool's block accounting, class methods that the
// flat interface does not reach, and allocation-failure runs of building,
// algebra, path search, save and load.
#include <gtest/gtest.h>

#include <VomKwz.h>

#include <functional>
#include <iterator>
#include <random>
#include <vector>

#include "base/kwPages.h"
#include "fault_harness.h"
#include "graph/kwGraph.h"
#include "test_graph_util.h"

using namespace graphtest;

namespace {

// A fingerprint of everything observable in a graph (node order, link order,
// group lists, counts), computed without allocating, so that it can be taken
// while an allocation failure is armed.
uint64_t Print(TGraphItem* g) {
    uint64_t h = 1469598103934665603ull;
    auto mix = [&h](uint64_t v) { h = (h ^ v) * 1099511628211ull; };
    mix(GraphNodeCount(g));
    mix(GraphLinkCount(g));
    for (TGraphNode* n = GraphNodeFirst(g); n; n = GraphNodeNodeNext(n)) {
        mix(GraphNodeId(n));
        for (TGraphLink* l = GraphNodeLinkFirst(n); l; l = GraphLinkNext(l)) mix(GraphNodeId(GraphLinkPair(l)) + 7);
        for (TGraphNode* e = GraphNodeGroupNext(n); e; e = GraphNodeGroupNext(e)) mix(GraphNodeId(e) + 13);
    }
    return h;
}

}  // namespace

TEST(graph_internal, PoolCountsBlocksHandedBackButDoesNotReuseThem) {
    TGraphHeap pool;
    {
        TGraphItem g(pool);
        for (uint32_t id = 0; id < 1500; ++id) g.AppendNode(id);  // two node blocks
        g.AppendLink(*g.FindNode(1), *g.FindNode(2));              // one link block
    }
    EXPECT_EQ(pool.spareNodeCount, 2u);
    EXPECT_EQ(pool.spareLinkCount, 1u);
    EXPECT_EQ(pool.spareNodeHeaps, nullptr);  // counted, never drawn from
    TNodeHeap* fresh = pool.GetNodeHeap();
    EXPECT_NE(fresh, nullptr);
    EXPECT_EQ(fresh->nodes[0].nodeNext, &fresh->nodes[1]);
    EXPECT_EQ(fresh->nodes[kGraphBlockRecords - 1].nodeNext, nullptr);
    for (int i = 0; i < 200; ++i) pool.PutNodeHeap(i ? pool.GetNodeHeap() : fresh);
    EXPECT_EQ(pool.spareNodeCount, 129u);  // kept while the count was at most 128, then freed
    pool.Clear(true);
    EXPECT_EQ(pool.spareNodeCount, 0u);
    EXPECT_EQ(pool.spareLinkCount, 0u);
}

TEST(graph_internal, BlocksFreedByThePoolGoBackToTheSystem) {
    // Graphs on a pool of their own; whatever they mapped (blocks, a large
    // hash) is unmapped once the graph is gone and the pool cleared.
    struct Row {
        uint32_t nodes, linksPerNode, hashSize;
    };
    const Row rows[] = {
        {1500, 1, 0},
        {20000, 4, 0},
        {5000, 2, 300000},  // a 2.4 MB bucket array
    };
    for (const Row& row : rows) {
        const size_t before = kwz::PagesMappedBytes();
        TGraphHeap pool;
        {
            TGraphItem g(pool);
            if (row.hashSize) g.SetHashSize(row.hashSize);
            for (uint32_t id = 0; id < row.nodes; ++id) {
                TGraphNode* a = g.AppendNode(id);
                for (uint32_t k = 1; k <= row.linksPerNode; ++k) g.AppendLink(*a, *g.AppendNode((id * 31 + k) % row.nodes));
            }
            if (!kwz::kPagesFromHeap) {
                EXPECT_GT(kwz::PagesMappedBytes(), before) << row.nodes;
            }
        }
        pool.Clear(true);
        EXPECT_EQ(kwz::PagesMappedBytes(), before) << row.nodes;
    }

    // Past the 129 blocks a pool keeps, a block handed back is freed, and a
    // chunk whose blocks are all freed is unmapped at once.
    const size_t before = kwz::PagesMappedBytes();
    TGraphHeap pool;
    std::vector<TNodeHeap*> blocks;
    for (int i = 0; i < 250; ++i) blocks.push_back(pool.GetNodeHeap());
    const size_t peak = kwz::PagesMappedBytes();
    for (TNodeHeap* block : blocks) pool.PutNodeHeap(block);
    EXPECT_EQ(pool.spareNodeCount, 129u);
    if (!kwz::kPagesFromHeap) {
        EXPECT_LT(kwz::PagesMappedBytes(), peak);
    }
    pool.Clear(true);
    EXPECT_EQ(kwz::PagesMappedBytes(), before);
}

TEST(graph_internal, ClassMethods) {
    TGraphItem g;
    TGraphNode* a = g.AppendNode(1);
    TGraphNode* b = g.AppendNode(2);
    for (uint32_t id : {10, 11, 12}) g.AppendGroupNode(*b, id);  // b: 12 11 10
    g.AppendGroupNode(*a, 5);
    g.CopyGroupNode(*a, *b);  // ahead of a's own, in b's order
    EXPECT_EQ(Group(&g, 1), (Ids{12, 11, 10, 5}));
    g.CopyGroupNode(*a, *g.AppendNode(3));  // no group: nothing
    EXPECT_EQ(Group(&g, 1), (Ids{12, 11, 10, 5}));

    TGraphItem other;
    TGraphNode* copy = other.AppendNode(*b);  // copied entries are pushed: reversed
    EXPECT_EQ(Group(&other, 2), (Ids{10, 11, 12}));
    other.AppendGroupNode(*copy, 99);
    other.AppendNode(*a);
    other.AppendNode(*b);  // has a group already: left as it is
    EXPECT_EQ(Group(&other, 2), (Ids{99, 10, 11, 12}));

    g.AppendLink(*a, *b);
    TGraphItem moved(std::move(g));
    EXPECT_EQ(g.nodeCount, 0u);
    EXPECT_EQ(g.nodeFirst, nullptr);
    EXPECT_EQ(moved.nodeCount, 3u);
    EXPECT_EQ(moved.FindNode(1), a);
    TGraphItem sum = moved + other;
    EXPECT_EQ(sum.nodeCount, 3u);
    EXPECT_TRUE(sum != other);
    sum = other;
    EXPECT_TRUE(sum == other);
    g.AppendNode(7);  // the emptied source is usable
    EXPECT_EQ(g.nodeCount, 1u);
}

TEST(graph_internal, AllocationFailuresChangeNothingAndLeakNothing) {
    Graph a = Make("1-2 2-3 3-4 4-1 4-5 5-6 7 8-9 9-1"), b = Make("2-3 3-4 9-10 10-11 5-6");
    GraphAppendGroupNode(a.get(), GraphFindNode(a.get(), 7), 70);
    // Large enough to need several blocks and a grown hash.
    Graph big = Make();
    for (uint32_t i = 0; i < 3000; ++i)
        GraphAppendLink(big.get(), GraphAppendNode(big.get(), i), GraphAppendNode(big.get(), (i * 13 + 5) % 3001));
    void *nodes, *links, *groups;
    GraphDataSave(big.get(), &nodes, &links, &groups);
    const uint64_t nodesLength = 8 + 4ull * GraphNodeCount(big.get()),
                   linksLength = 8 + 8ull * GraphLinkCount(big.get());

    using Make1 = std::function<TGraphItem*()>;
    struct Row {
        const char* name;
        Make1 op;
    };
    TGraphNode *from = GraphFindNode(big.get(), 0), *to = GraphFindNode(big.get(), 1500);
    const Row rows[] = {
        {"new copy", [&] { return GraphNew(big.get()); }},
        {"+", [&] { return GraphAdd(a.get(), big.get()); }},
        {"-", [&] { return GraphSub(big.get(), b.get()); }},
        {"&", [&] { return GraphAnd(big.get(), a.get()); }},
        {"*", [&] { return GraphMul(a.get(), big.get()); }},
        {"^", [&] { return GraphXor(a.get(), b.get()); }},
        {"/", [&] { return GraphDiv(a.get(), b.get()); }},
        {"border", [&] { return GraphBuildBord(big.get(), b.get(), nullptr, a.get()); }},
        {"path cut", [&] { return GraphBuildPathCut(big.get(), from, to); }},
        {"path", [&] { return GraphBuildPath(a.get(), GraphFindNode(a.get(), 1), GraphFindNode(a.get(), 6)); }},
    };
    const uint64_t printA = Print(a.get()), printB = Print(b.get()), printBig = Print(big.get());
    for (const Row& row : rows) {
        TGraphItem* reference = row.op();
        ASSERT_TRUE(reference) << row.name;
        const uint64_t want = Print(reference);
        GraphDelete(reference);
        const int64_t failures = kwz::test::ForEachAllocationFailure([&](auto fired) {
            // A failure that the operation can absorb (a hash that could
            // not grow) still gives the whole result.
            TGraphItem* r = row.op();
            if (r) {
                EXPECT_EQ(Print(r), want) << row.name;
            } else {
                EXPECT_TRUE(fired()) << row.name;
            }
            GraphDelete(r);
            EXPECT_EQ(Print(a.get()), printA) << row.name;
            EXPECT_EQ(Print(b.get()), printB) << row.name;
            EXPECT_EQ(Print(big.get()), printBig) << row.name;
        });
        EXPECT_GT(failures, 0) << row.name;
    }

    // Operations that change the graph given: all or nothing.
    using Change = std::function<bool(TGraphItem*)>;
    struct ChangeRow {
        const char* name;
        Change op;
    };
    const ChangeRow changes[] = {
        {"append node", [](TGraphItem* g) { return GraphAppendNode(g, 5000) != nullptr; }},
        {"append link", [](TGraphItem* g) {
             return GraphAppendLink(g, GraphFindNode(g, 3), GraphFindNode(g, 5)) != nullptr;
         }},
        {"rename group", [](TGraphItem* g) { return GraphRenameGroup(g, GraphFindNode(g, 3), 6000); }},
        {"copy", [&](TGraphItem* g) {
             GraphCopy(g, a.get());
             return GraphNodeCount(g) == GraphNodeCount(a.get());
         }},
        {"load", [&](TGraphItem* g) {
             return GraphDataLoadN(g, nodes, nodesLength, links, linksLength, nullptr, 0);
         }},
    };
    for (const ChangeRow& row : changes) {
        const ChangeRow* current = &row;
        kwz::test::ForEachAllocationFailure([&](auto fired) {
            // A fresh graph in one block, whose next record or link needs a new block.
            TGraphItem* g = GraphNew(nullptr);
            if (!g) return;
            for (uint32_t i = 0; i < 1024; ++i) {
                if (!GraphAppendNode(g, i)) {
                    GraphDelete(g);
                    return;
                }
            }
            for (uint32_t i = 0; i + 1 < 1024 && GraphLinkCount(g) < 1023; i += 2)
                GraphAppendLink(g, GraphFindNode(g, i), GraphFindNode(g, i + 1));
            if (GraphNodeCount(g) != 1024 || GraphLinkCount(g) != 512) {
                GraphDelete(g);  // the failure hit the setting up
                return;
            }
            const uint64_t before = Print(g);
            const bool ok = current->op(g);
            if (!ok) {
                EXPECT_TRUE(fired()) << current->name;
                EXPECT_EQ(Print(g), before) << current->name;
            }
            GraphDelete(g);
        });
    }

    // Saving: every output NULL on failure.
    kwz::test::ForEachAllocationFailure([&](auto fired) {
        void *n = nullptr, *l = nullptr, *g = nullptr;
        GraphDataSave(a.get(), &n, &l, &g);
        // All or nothing (a shrink that fails keeps the larger block).
        const int made = !!n + !!l + !!g;
        EXPECT_TRUE(made == 3 || (made == 0 && fired())) << made;
        KWMemFree(n);
        KWMemFree(l);
        KWMemFree(g);
    });
    KWMemFree(nodes);
    KWMemFree(links);
    KWMemFree(groups);
}

namespace {

// Transitive expansion written with the plain operations: pass after pass,
// each node the previous pass added takes in every far end of its links in b
// through AppendNode(far) and AppendLink.  The fast expansion must give the
// very same graph (node order, link order, group lists, hash size).
TGraphItem PlainExpand(TGraphItem const& a, TGraphItem const& b, GraphLinkFilter filter) {
    TGraphItem r(a);
    TGraphNode* stop = nullptr;
    for (TGraphNode* head = r.nodeFirst; head != stop;) {
        for (TGraphNode* f = head; f != stop; f = f->nodeNext) {
            TGraphNode* nb = b.FindNode(f->id);
            if (!nb) continue;
            for (TGraphLink* h = nb->linkFirst; h; h = h->next)
                if (!filter || filter(f->id, h->pair->owner->id, nullptr))
                    r.AppendLink(*f, *r.AppendNode(*h->pair->owner));
        }
        stop = head;
        head = r.nodeFirst;
    }
    return r;
}

bool Skip(uint32_t from, uint32_t to, void*) { return (from * 31 + to) % 3 != 0; }

// Random links among ids below `range`; every fifth node gets a group list.
void Fill(TGraphItem& g, std::mt19937& rng, uint32_t range, uint32_t links) {
    for (uint32_t i = 0; i < links; ++i) {
        TGraphNode* x = g.AppendNode(uint32_t(rng() % range));
        TGraphNode* y = g.AppendNode(uint32_t(rng() % range));
        g.AppendLink(*x, *y);
        if (rng() % 5 == 0) g.AppendGroupNode(*x, 100000 + i);
    }
}

}  // namespace

TEST(graph_internal, ExpansionGivesWhatThePlainOperationsGive) {
    // (range, links of a, links of b): a with links of its own, and a lone seed
    // in a graph large enough for the result's hash to grow several times.
    const struct {
        uint32_t range, linksA, linksB;
    } rows[] = {{300, 40, 500}, {2000, 300, 2500}, {20000, 0, 60000}, {20000, 5, 30000}};
    std::mt19937 rng(18);
    for (auto row : rows) {
        TGraphItem a, b;
        Fill(a, rng, row.range, row.linksA);
        if (!a.nodeCount) a.AppendNode(7);
        Fill(b, rng, row.range, row.linksB);
        for (GraphLinkFilter filter : {GraphLinkFilter(nullptr), GraphLinkFilter(Skip)}) {
            TGraphItem fast = filter ? a.XorSel(b, filter, nullptr) : a ^ b;
            TGraphItem plain = PlainExpand(a, b, filter);
            EXPECT_EQ(Print(&fast), Print(&plain)) << row.range << (filter ? " filtered" : "");
            EXPECT_EQ(fast.GetHashSize(), plain.GetHashSize()) << row.range;
            EXPECT_GT(fast.nodeCount, a.nodeCount) << row.range;
        }
    }
}

TEST(graph_internal, GatheredListsMatchTheListsOrAreLeftToTheWalk) {
    // (links of the node, change to its linkCount, gathered whole): a list
    // whose length disagrees with its count is not gathered; the searches then
    // walk it themselves.  Node 0 of the table stands for a null entry.
    const struct {
        uint32_t links;
        int countChange;
        bool whole;
    } rows[] = {{3, 0, true}, {0, 0, true}, {1, 0, true},  {20, 0, true},  {5, 1, false},
                {5, -1, false}, {2, 0, true}, {1, -1, false}, {0, 2, false}, {7, 0, true}};
    TGraphItem g;
    std::vector<TGraphNode const*> run;
    uint32_t next = 1000;
    for (auto const& row : rows) {
        TGraphNode* n = g.AppendNode(next++);
        for (uint32_t k = 0; k < row.links; ++k) g.AppendLink(*n, *g.AppendNode(next++));
        run.push_back(n);
    }
    run.insert(run.begin() + 3, nullptr);  // a node B does not hold
    kwz::graph::LinkGather gather;
    for (int pass = 0; pass < 2; ++pass) {  // the second reuses the room of the first
        for (size_t r = 0; r < std::size(rows); ++r)
            const_cast<TGraphNode*>(run[r < 3 ? r : r + 1])->linkCount += pass == 0 ? rows[r].countChange : 0;
        gather.Load(run.data(), run.size());
        for (size_t i = 0; i < run.size(); ++i) {
            const bool isNull = i == 3;
            const size_t r = i < 3 ? i : i - 1;
            const bool whole = isNull || rows[r].whole || pass == 1;
            ASSERT_EQ(gather.Whole(i), whole) << "pass " << pass << " node " << i;
            if (!whole) continue;
            std::vector<TGraphLink*> want;
            if (!isNull)
                for (TGraphLink* h = run[i]->linkFirst; h; h = h->next) want.push_back(h);
            std::vector<TGraphLink*> got;
            for (size_t j = gather.Begin(i); j < gather.End(i); ++j) got.push_back(gather.At(j));
            EXPECT_EQ(got, want) << "pass " << pass << " node " << i;
        }
        for (size_t r = 0; r < std::size(rows); ++r)
            const_cast<TGraphNode*>(run[r < 3 ? r : r + 1])->linkCount -= pass == 0 ? rows[r].countChange : 0;
    }
}
