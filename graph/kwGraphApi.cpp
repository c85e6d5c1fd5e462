// The flat Graph... interface: argument checks, then the C++ core, every body
// through the C edge.  Failures are reported as NULL or false (out of memory
// included); the graphs given are left as they were.
#include <memory>
#include <utility>

#include "base/kwGuard.h"
#include "graph/kwGraph.h"
#include "graph/kwGraphData.h"

namespace {

#define KWG_TAG(name) "Kwz.kwGraph." name

// True when node is a node of g (not a group entry, not another graph's).
bool Owns(TGraphItem const* g, TGraphNode const* node) {
    return g && node && g->FindNode(node->id) == node;
}

bool OwnsLink(TGraphItem const* g, TGraphLink const* link) { return link && Owns(g, link->owner); }

TGraphItem* Handle(TGraphItem&& g) { return std::make_unique<TGraphItem>(std::move(g)).release(); }

template <typename Op>
TGraphItem* MakeGraph(const char* tag, Op&& op) {
    return kwz::CEdge<TGraphItem*>(tag, nullptr, nullptr, [&]() -> TGraphItem* { return Handle(op()); });
}

}  // namespace

extern "C" {

KWZ_API TGraphItem* GraphNew(TGraphItem* source) {
    return kwz::CEdge<TGraphItem*>(KWG_TAG("GraphNew"), nullptr, nullptr, [&] {
        return source ? std::make_unique<TGraphItem>(*source).release()
                      : std::make_unique<TGraphItem>().release();
    });
}

KWZ_API void GraphDelete(TGraphItem* graph) {
    kwz::CEdgeVoid(KWG_TAG("GraphDelete"), [&] { std::unique_ptr<TGraphItem> owned(graph); });
}

KWZ_API void GraphCopy(TGraphItem* destination, TGraphItem* source) {
    kwz::CEdgeVoid(KWG_TAG("GraphCopy"), [&] {
        if (destination && source) destination->Copy(*source);
    });
}

KWZ_API void GraphCopyWithoutGroup(TGraphItem* destination, TGraphItem* source) {
    kwz::CEdgeVoid(KWG_TAG("GraphCopyWithoutGroup"), [&] {
        if (destination && source) destination->CopyWithoutGroup(*source);
    });
}

KWZ_API void GraphClear(TGraphItem* graph) {
    kwz::CEdgeVoid(KWG_TAG("GraphClear"), [&] {
        if (graph) graph->Clear();
    });
}

KWZ_API void GraphClearTemp(TGraphItem* graph) {
    kwz::CEdgeVoid(KWG_TAG("GraphClearTemp"), [&] {
        if (graph) graph->ClearTemp();
    });
}

KWZ_API bool GraphEqual(TGraphItem* a, TGraphItem* b) {
    return kwz::CEdge(KWG_TAG("GraphEqual"), false, false, [&] { return a && b && *a == *b; });
}

#define KWG_BINARY(Name, expr)                                               \
    KWZ_API TGraphItem* Name(TGraphItem* a, TGraphItem* b) {                 \
        if (!a || !b) return nullptr;                                        \
        return MakeGraph(KWG_TAG(#Name), [&] { return expr; });              \
    }

KWG_BINARY(GraphAdd, *a + *b)
KWG_BINARY(GraphSub, *a - *b)
KWG_BINARY(GraphMul, *a * *b)
KWG_BINARY(GraphAnd, *a & *b)
KWG_BINARY(GraphXor, *a ^ *b)
KWG_BINARY(GraphDiv, *a / *b)
#undef KWG_BINARY

KWZ_API TGraphItem* GraphMulSel(TGraphItem* a, TGraphItem* b, GraphLinkFilter filter, void* context) {
    if (!a || !b) return nullptr;
    return MakeGraph(KWG_TAG("GraphMulSel"), [&] { return a->MulSel(*b, filter, context); });
}

KWZ_API TGraphItem* GraphXorSel(TGraphItem* a, TGraphItem* b, GraphLinkFilter filter, void* context) {
    if (!a || !b || !filter) return nullptr;
    return MakeGraph(KWG_TAG("GraphXorSel"), [&] { return a->XorSel(*b, filter, context); });
}

KWZ_API TGraphItem* GraphBuildBord(TGraphItem* graph, TGraphItem* seeds, TGraphItem* barrier,
                                   TGraphItem* border) {
    if (!graph || !seeds) return nullptr;
    return MakeGraph(KWG_TAG("GraphBuildBord"), [&] {
        TGraphItem none;
        return graph->BuildBord(*seeds, barrier ? *barrier : none, border ? *border : none);
    });
}

KWZ_API TGraphItem* GraphBuildPath(TGraphItem* graph, TGraphNode* from, TGraphNode* to) {
    if (!Owns(graph, from) || !Owns(graph, to)) return nullptr;
    return MakeGraph(KWG_TAG("GraphBuildPath"), [&] { return graph->BuildPath(*from, *to); });
}

KWZ_API TGraphItem* GraphBuildPathCut(TGraphItem* graph, TGraphNode* from, TGraphNode* to) {
    if (!Owns(graph, from) || !Owns(graph, to)) return nullptr;
    return MakeGraph(KWG_TAG("GraphBuildPathCut"), [&] { return graph->BuildPathCut(*from, *to); });
}

KWZ_API uint32_t GraphNodeCount(TGraphItem* graph) { return graph ? graph->nodeCount : 0; }

KWZ_API TGraphNode* GraphNodeFirst(TGraphItem* graph) { return graph ? graph->nodeFirst : nullptr; }

KWZ_API TGraphNode* GraphFindNode(TGraphItem* graph, uint32_t id) {
    return graph ? graph->FindNode(id) : nullptr;
}

KWZ_API TGraphNode* GraphAppendNode(TGraphItem* graph, uint32_t id) {
    if (!graph) return nullptr;
    return kwz::CEdge<TGraphNode*>(KWG_TAG("GraphAppendNode"), nullptr, nullptr,
                                   [&] { return graph->AppendNode(id); });
}

KWZ_API void GraphDeleteNode(TGraphItem* graph, uint32_t id) {
    if (graph) graph->DeleteNode(id);
}

KWZ_API bool GraphRenameNode(TGraphItem* graph, TGraphNode* node, uint32_t id) {
    return Owns(graph, node) && graph->RenameNode(*node, id);
}

KWZ_API bool GraphRenameGroup(TGraphItem* graph, TGraphNode* node, uint32_t id) {
    if (!Owns(graph, node)) return false;
    return kwz::CEdge(KWG_TAG("GraphRenameGroup"), false, false,
                      [&] { return graph->RenameGroup(*node, id); });
}

KWZ_API void GraphAppendGroupNode(TGraphItem* graph, TGraphNode* node, uint32_t id) {
    kwz::CEdgeVoid(KWG_TAG("GraphAppendGroupNode"), [&] {
        if (Owns(graph, node)) graph->AppendGroupNode(*node, id);
    });
}

KWZ_API void GraphDeleteGroupNode(TGraphItem* graph, TGraphNode* node, uint32_t id) {
    if (Owns(graph, node)) graph->DeleteGroupNode(*node, id);
}

KWZ_API uint32_t GraphLinkCount(TGraphItem* graph) { return graph ? graph->linkCount : 0; }

KWZ_API TGraphLink* GraphFindLink(TGraphItem* graph, TGraphNode* a, TGraphNode* b) {
    return graph && a && b ? graph->FindLink(*a, *b) : nullptr;
}

KWZ_API TGraphLink* GraphFindLinkId(TGraphItem* graph, TGraphNode* a, uint32_t id) {
    return graph && a ? graph->FindLink(*a, id) : nullptr;
}

KWZ_API TGraphLink* GraphAppendLink(TGraphItem* graph, TGraphNode* a, TGraphNode* b) {
    if (!Owns(graph, a) || !Owns(graph, b)) return nullptr;
    return kwz::CEdge<TGraphLink*>(KWG_TAG("GraphAppendLink"), nullptr, nullptr,
                                   [&] { return graph->AppendLink(*a, *b); });
}

KWZ_API TGraphLink* GraphAppendLinkFirst(TGraphItem* graph, TGraphNode* a, TGraphNode* b) {
    if (!Owns(graph, a) || !Owns(graph, b)) return nullptr;
    return kwz::CEdge<TGraphLink*>(KWG_TAG("GraphAppendLinkFirst"), nullptr, nullptr,
                                   [&] { return graph->AppendLinkFirst(*a, *b); });
}

KWZ_API void GraphMoveLinkFirst(TGraphItem* graph, TGraphLink* link) {
    if (OwnsLink(graph, link)) graph->MoveLinkFirst(*link);
}

KWZ_API void GraphDeleteLink(TGraphItem* graph, TGraphLink* link) {
    if (OwnsLink(graph, link)) graph->DeleteLink(*link);
}

KWZ_API uint32_t GraphGetHashSize(TGraphItem* graph) { return graph ? graph->GetHashSize() : 0; }

KWZ_API uint32_t GraphSetHashSize(TGraphItem* graph, uint32_t size) {
    return graph ? graph->SetHashSize(size) : 0;
}

KWZ_API uint32_t GraphNodeId(TGraphNode* node) { return node ? node->id : 0; }
KWZ_API uint32_t GraphNodeLinkCount(TGraphNode* node) { return node ? node->linkCount : 0; }
KWZ_API TGraphLink* GraphNodeLinkFirst(TGraphNode* node) { return node ? node->linkFirst : nullptr; }
KWZ_API TGraphNode* GraphNodeGroupNext(TGraphNode* node) { return node ? node->groupFirst : nullptr; }
KWZ_API TGraphNode* GraphNodeNodeNext(TGraphNode* node) { return node ? node->nodeNext : nullptr; }
KWZ_API TGraphNode* GraphLinkOwner(TGraphLink* link) { return link ? link->owner : nullptr; }
KWZ_API TGraphNode* GraphLinkPair(TGraphLink* link) { return link ? link->pair->owner : nullptr; }
KWZ_API TGraphLink* GraphLinkLinkPair(TGraphLink* link) { return link ? link->pair : nullptr; }
KWZ_API TGraphLink* GraphLinkNext(TGraphLink* link) { return link ? link->next : nullptr; }
KWZ_API uint32_t GraphLinkMark(TGraphLink* link) { return link ? link->mark : 0; }

KWZ_API void GraphHeapClear(void) {
    kwz::CEdgeVoid(KWG_TAG("GraphHeapClear"), [] { kwz::graph::SharedHeap().Clear(true); });
}

KWZ_API void GraphDataSave(TGraphItem* graph, void** nodes, void** links, void** groups) {
    // Outputs stay NULL unless the whole save succeeds.
    for (void** out : {nodes, links, groups})
        if (out) *out = nullptr;
    if (!graph) return;
    kwz::CEdgeVoid(KWG_TAG("GraphDataSave"), [&] { kwz::graph::Save(*graph, nodes, links, groups); });
}

KWZ_API void GraphDataLoad(TGraphItem* graph, const void* nodes, const void* links, const void* groups) {
    if (!graph) return;
    kwz::CEdgeVoid(KWG_TAG("GraphDataLoad"), [&] {
        kwz::graph::Load(*graph, nodes, UINT64_MAX, links, UINT64_MAX, groups, UINT64_MAX);
    });
}

KWZ_API bool GraphDataLoadN(TGraphItem* graph, const void* nodes, uint64_t nodesLength,
                            const void* links, uint64_t linksLength, const void* groups,
                            uint64_t groupsLength) {
    if (!graph) return false;
    return kwz::CEdge(KWG_TAG("GraphDataLoadN"), false, false, [&] {
        using kwz::graph::LoadResult;
        return kwz::graph::Load(*graph, nodes, nodesLength, links, linksLength, groups,
                                groupsLength) != LoadResult::kMalformed;
    });
}

}  // extern "C"
