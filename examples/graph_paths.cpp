// graph_paths.cpp - shortest paths in a graph, through the C++ class.
//
// A 6 x 4 grid of numbered nodes (node r * 10 + c), with two walls cut out
// of it.  BuildPathCut gives exactly the links of all shortest paths between
// two nodes; a breadth-first walk over that small result then counts the
// paths and prints one.  The operator ^ gives what one node reaches.
//
//   c++ -std=c++17 graph_paths.cpp $(pkg-config --cflags --libs VomKwz) -o graph_paths
#include <VomKwz.h>

#include <cstdio>
#include <map>
#include <new>
#include <queue>
#include <vector>

namespace {

constexpr unsigned kRows = 4, kColumns = 6;

unsigned Id(unsigned row, unsigned column) { return row * 10 + column + 1; }

// The neighbours of a node, through its half-links.
std::vector<unsigned> Neighbours(const TGraphItem& g, unsigned id) {
    std::vector<unsigned> out;
    const TGraphNode* node = g.FindNode(id);
    for (const TGraphLink* l = node ? node->linkFirst : nullptr; l; l = l->next) out.push_back(l->pair->owner->id);
    return out;
}

int Run() {
    TGraphItem grid;  // on the shared storage pool; methods throw std::bad_alloc
    for (unsigned r = 0; r < kRows; ++r)
        for (unsigned c = 0; c < kColumns; ++c) {
            TGraphNode* here = grid.AppendNode(Id(r, c));
            // A wall between columns 2 and 3 in rows 0..2, and below row 1 in column 5.
            if (c > 0 && !(c == 3 && r < 3)) grid.AppendLink(*here, *grid.FindNode(Id(r, c - 1)));
            if (r > 0 && !(r == 2 && c == 5)) grid.AppendLink(*here, *grid.FindNode(Id(r - 1, c)));
        }
    std::printf("grid: %u nodes, %u links\n", grid.nodeCount, grid.linkCount);

    const unsigned from = Id(0, 0), to = Id(0, 5);
    TGraphItem paths = grid.BuildPathCut(*grid.FindNode(from), *grid.FindNode(to));
    if (paths.nodeCount == 0) {
        std::printf("%u and %u are not connected\n", from, to);
        return 1;
    }

    // Levels from the start and the number of ways to reach each node.
    std::map<unsigned, unsigned> level{{from, 0}};
    std::map<unsigned, unsigned long> ways{{from, 1}};
    std::queue<unsigned> queue;
    queue.push(from);
    while (!queue.empty()) {
        const unsigned id = queue.front();
        queue.pop();
        for (unsigned next : Neighbours(paths, id)) {
            if (!level.count(next)) {
                level[next] = level[id] + 1;
                queue.push(next);
            }
            if (level[next] == level[id] + 1) ways[next] += ways[id];
        }
    }
    std::printf("from %u to %u: %u steps, %lu shortest paths over %u links\n", from, to, level[to], ways[to],
                paths.linkCount);

    // One of them, walked back from the end.
    std::vector<unsigned> path{to};
    while (path.back() != from)
        for (unsigned prev : Neighbours(paths, path.back()))
            if (level.count(prev) && level[prev] + 1 == level[path.back()]) {
                path.push_back(prev);
                break;
            }
    std::printf("one of them:");
    for (auto it = path.rbegin(); it != path.rend(); ++it) std::printf(" %u", *it);
    std::printf("\n");

    // a ^ b: every node that the nodes of a reach through b's links.
    // Cutting two links closes the corner {26, 36} off from the rest.
    for (unsigned other : {Id(3, 4), Id(2, 4)}) {
        const unsigned corner = other == Id(3, 4) ? Id(3, 5) : Id(2, 5);
        TGraphLink* link = grid.FindLink(*grid.FindNode(corner), other);
        if (!link) return 1;
        grid.DeleteLink(*link);
    }
    TGraphItem start;
    start.AppendNode(Id(3, 5));
    const TGraphItem reached = start ^ grid;
    std::printf("after cutting 25-26 and 35-36, node %u reaches %u nodes\n", Id(3, 5), reached.nodeCount);
    return 0;
}

}  // namespace

int main() {
    try {
        return Run();
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "graph_paths: out of memory\n");
        return 1;
    }
}
