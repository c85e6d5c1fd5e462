/* Graphs: numbered nodes and undirected links, the links of all shortest
   paths between two nodes, and what one node reaches. */
#include <VomKwz.h>
#include <stdio.h>

int main(void) {
    TGraphItem* g = GraphNew(NULL);
    if (!g) return 1;
    /* A ring 1-2-3-4-5-6-1 with a chord 2-5. */
    static const uint32_t links[][2] = {{1, 2}, {2, 3}, {3, 4}, {4, 5}, {5, 6}, {6, 1}, {2, 5}};
    for (int i = 0; i < 7; ++i) {
        TGraphNode* a = GraphAppendNode(g, links[i][0]); /* made when absent */
        TGraphNode* b = GraphAppendNode(g, links[i][1]);
        if (!a || !b || !GraphAppendLink(g, a, b)) goto fail;
    }
    TGraphItem* paths = GraphBuildPathCut(g, GraphFindNode(g, 1), GraphFindNode(g, 4));
    if (!paths) goto fail;
    printf("%u nodes, %u links; shortest paths 1..4 use %u links over %u nodes\n", GraphNodeCount(g),
           GraphLinkCount(g), GraphLinkCount(paths), GraphNodeCount(paths));
    GraphDelete(paths); /* results are new graphs: delete each */

    TGraphItem* seed = GraphNew(NULL);
    TGraphItem* reached = seed && GraphAppendNode(seed, 3) ? GraphXor(seed, g) : NULL; /* seed ^ g */
    if (!reached) {
        GraphDelete(seed);
        goto fail;
    }
    printf("node 3 reaches %u nodes\n", GraphNodeCount(reached));
    GraphDelete(reached);
    GraphDelete(seed);
    GraphDelete(g);
    return 0;
fail:
    GraphDelete(g);
    return 1;
}
