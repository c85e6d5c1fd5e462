// kwz graph: an edge list (or saved buffers) in, a path search, a border, the
// connected parts or statistics out, as an edge list or Graphviz text.
#include <VomKwz.h>

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "command.h"
#include "kwz_util.h"

namespace {

using namespace kwz::tool;

using GraphPtr = std::unique_ptr<TGraphItem, void (*)(TGraphItem*)>;
GraphPtr MakeGraph(TGraphItem* g) { return GraphPtr(g, &GraphDelete); }

bool ParseId(const std::string& text, uint32_t* id) {
    int64_t v = 0;
    if (!ParseInt(text, 0, UINT32_MAX, &v)) return false;
    *id = uint32_t(v);
    return true;
}

// "a b" per line links two nodes, a lone id is a node without links, '#'
// starts a comment.  False after a message naming the line.
bool ReadEdges(const std::string& file, TGraphItem* g) {
    std::vector<uint8_t> bytes;
    if (!ReadInput(file, &bytes)) return false;
    std::istringstream in(std::string(bytes.begin(), bytes.end()));
    size_t number = 0;
    for (std::string line; std::getline(in, line);) {
        ++number;
        const std::string where = InputName(file) + ":" + std::to_string(number);
        line = line.substr(0, line.find('#'));
        std::istringstream words(line);
        std::vector<std::string> ids;
        for (std::string w; words >> w;) ids.push_back(w);
        if (ids.empty()) continue;
        if (ids.size() > 2) {
            Fail(where, "expected \"a b\" or one node id, found " + std::to_string(ids.size()) + " words");
            return false;
        }
        uint32_t a = 0, b = 0;
        for (size_t i = 0; i < ids.size(); ++i) {
            if (!ParseId(ids[i], i ? &b : &a)) {
                Fail(where, "\"" + ids[i] + "\" is not a node id in 0..4294967295");
                return false;
            }
        }
        TGraphNode* na = GraphAppendNode(g, a);
        if (!na) {
            Fail(where, "out of memory");
            return false;
        }
        if (ids.size() == 1) continue;
        if (a == b) {
            Note(where, "a node is not linked to itself; the line adds node " + ids[0] + " only");
            continue;
        }
        TGraphNode* nb = GraphAppendNode(g, b);
        if (!nb || !GraphAppendLink(g, na, nb)) {
            Fail(where, "out of memory");
            return false;
        }
    }
    return true;
}

// Comma-separated ids into a graph of nodes; a usage error names the option.
GraphPtr IdList(const char* option, const std::string& text) {
    GraphPtr g = MakeGraph(GraphNew(nullptr));
    std::istringstream in(text);
    for (std::string id; std::getline(in, id, ',');) {
        uint32_t v = 0;
        if (!ParseId(id, &v)) UsageError(option, "\"" + id + "\" is not a node id in 0..4294967295");
        if (g && !GraphAppendNode(g.get(), v)) return MakeGraph(nullptr);
    }
    return g;
}

struct Sorted {
    std::vector<uint32_t> nodes;                       // ascending
    std::vector<std::pair<uint32_t, uint32_t>> links;  // (lower, higher), ascending
    std::vector<uint32_t> lone;                        // nodes without links
};
Sorted SortGraph(TGraphItem* g) {
    Sorted s;
    for (TGraphNode* n = GraphNodeFirst(g); n; n = GraphNodeNodeNext(n)) {
        const uint32_t id = GraphNodeId(n);
        s.nodes.push_back(id);
        if (!GraphNodeLinkFirst(n)) s.lone.push_back(id);
        for (TGraphLink* l = GraphNodeLinkFirst(n); l; l = GraphLinkNext(l)) {
            const uint32_t other = GraphNodeId(GraphLinkPair(l));
            if (id < other) s.links.emplace_back(id, other);
        }
    }
    std::sort(s.nodes.begin(), s.nodes.end());
    std::sort(s.links.begin(), s.links.end());
    std::sort(s.lone.begin(), s.lone.end());
    return s;
}

// A group node's members: its own id and its group list, ascending.
std::vector<uint32_t> Members(TGraphNode* n) {
    std::set<uint32_t> ids{GraphNodeId(n)};
    for (TGraphNode* e = GraphNodeGroupNext(n); e; e = GraphNodeGroupNext(e)) ids.insert(GraphNodeId(e));
    return std::vector<uint32_t>(ids.begin(), ids.end());
}

// The result in the input's own form: "a b" lines, then lone nodes.
void PrintEdges(TGraphItem* g, const std::string& title) {
    const Sorted s = SortGraph(g);
    std::printf("# %s: %zu nodes, %zu links\n", title.c_str(), s.nodes.size(), s.links.size());
    for (const auto& l : s.links) std::printf("%u %u\n", l.first, l.second);
    for (uint32_t id : s.lone) std::printf("%u\n", id);
}

// Graphviz text; a group node is labelled with its members.
void PrintDot(TGraphItem* g, const std::string& title) {
    const Sorted s = SortGraph(g);
    std::printf("graph kwz {\n  label=\"%s\";\n", title.c_str());
    for (uint32_t id : s.nodes) {
        TGraphNode* n = GraphFindNode(g, id);
        if (GraphNodeGroupNext(n)) {
            std::string label;
            for (uint32_t m : Members(n)) label += (label.empty() ? "" : " ") + std::to_string(m);
            std::printf("  n%u [label=\"%s\"];\n", id, label.c_str());
        } else {
            std::printf("  n%u [label=\"%u\"];\n", id, id);
        }
    }
    for (const auto& l : s.links) std::printf("  n%u -- n%u;\n", l.first, l.second);
    std::printf("}\n");
}

// Connected parts: a / a contracts each connected part of the graph into
// one node whose group list holds the others (a ^ seeds would need one call
// per part).
GraphPtr Components(TGraphItem* g) { return MakeGraph(GraphDiv(g, g)); }

void PrintComponents(TGraphItem* parts) {
    std::vector<std::vector<uint32_t>> all;
    for (TGraphNode* n = GraphNodeFirst(parts); n; n = GraphNodeNodeNext(n)) all.push_back(Members(n));
    std::sort(all.begin(), all.end());
    std::printf("# %zu connected parts\n", all.size());
    for (const auto& m : all) {
        std::printf("%zu:", m.size());
        for (uint32_t id : m) std::printf(" %u", id);
        std::printf("\n");
    }
}

int PrintStats(TGraphItem* g) {
    const Sorted s = SortGraph(g);
    uint32_t maxDegree = 0, groupNodes = 0;
    for (TGraphNode* n = GraphNodeFirst(g); n; n = GraphNodeNodeNext(n)) {
        maxDegree = std::max(maxDegree, GraphNodeLinkCount(n));
        groupNodes += GraphNodeGroupNext(n) != nullptr;
    }
    GraphPtr parts = Components(g);
    if (!parts) return Fail("graph", "out of memory");
    std::printf("nodes            %u\n", GraphNodeCount(g));
    std::printf("links            %u\n", GraphLinkCount(g));
    std::printf("nodes alone      %zu\n", s.lone.size());
    std::printf("largest degree   %u\n", maxDegree);
    const double average = s.nodes.empty() ? 0.0 : 2.0 * double(s.links.size()) / double(s.nodes.size());
    std::printf("average degree   %.3f\n", average);
    std::printf("connected parts  %u\n", GraphNodeCount(parts.get()));
    std::printf("group nodes      %u\n", groupNodes);
    return kExitOk;
}

const char* const kBufferSuffix[3] = {".nodes", ".links", ".groups"};

bool Exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

bool Save(TGraphItem* g, const std::string& prefix, bool force) {
    void* blocks[3] = {};
    GraphDataSave(g, &blocks[0], &blocks[1], &blocks[2]);
    if (!blocks[0] || !blocks[1]) {
        Fail(prefix, "out of memory");
        return false;
    }
    uint64_t members = 0, groups = 0;
    for (TGraphNode* n = GraphNodeFirst(g); n; n = GraphNodeNodeNext(n)) {
        if (!GraphNodeGroupNext(n)) continue;
        ++groups;
        for (TGraphNode* e = GraphNodeGroupNext(n); e; e = GraphNodeGroupNext(e)) ++members;
    }
    const uint64_t sizes[3] = {8 + 4ull * Load32(static_cast<uint8_t*>(blocks[0]) + 4),
                               8 + 8ull * Load32(static_cast<uint8_t*>(blocks[1]) + 4),
                               4 * (members + 2 * groups + 2)};
    bool ok = true;
    for (int i = 0; i < 3 && ok; ++i) {
        const std::string path = prefix + kBufferSuffix[i];
        if (blocks[i]) {
            ok = WriteFile(path, blocks[i], size_t(sizes[i]), force);
        } else if (Exists(path)) {
            // a stale groups file would be loaded with the new buffers
            if (!force) ok = (Fail(path, "exists (-f removes it)"), false);
            else if (std::remove(path.c_str()) != 0) ok = (Fail(path, "cannot be removed"), false);
        }
        if (ok) std::fprintf(stderr, "%s: %s\n", path.c_str(), blocks[i] ? "written" : "not needed (no group node)");
    }
    for (void* b : blocks) KWMemFree(b);
    return ok;
}

bool Load(TGraphItem* g, const std::string& prefix) {
    std::vector<uint8_t> bytes[3];
    for (int i = 0; i < 3; ++i) {
        const std::string path = prefix + kBufferSuffix[i];
        if (i == 2 && !Exists(path)) break;  // written only for graphs with group nodes
        if (!ReadInput(path, &bytes[i])) return false;
    }
    if (!GraphDataLoadN(g, bytes[0].data(), bytes[0].size(), bytes[1].data(), bytes[1].size(),
                        bytes[2].empty() ? nullptr : bytes[2].data(), bytes[2].size())) {
        Fail(prefix, "the saved buffers are damaged or do not belong together");
        return false;
    }
    return true;
}

TGraphNode* NodeArg(const Call& call, TGraphItem* g, size_t i, const char* what) {
    const auto id = uint32_t(call.NumberArg(i, what, 0, UINT32_MAX));
    TGraphNode* n = GraphFindNode(g, id);
    if (!n) Fail(call.Arg(i), "no such node in the graph");
    return n;
}

}  // namespace

KWZ_COMMAND(graph, {500, "graphs", "graph",
                    "FILE|- [--stats] [--dot] [--save PREFIX [-f]]\n"
                    "FILE|- --path A B | --all-paths A B [--dot]\n"
                    "FILE|- --border SEEDS [--barrier IDS] [--border-set IDS] [--dot]\n"
                    "FILE|- --components [--dot]\n"
                    "--load PREFIX [any of the above without FILE]",
                    "search paths, borders and connected parts of an edge-list graph", 0, 3,
                    {{"--path", nullptr, nullptr, "the links of all shortest paths between A and B"},
                     {"--all-paths", nullptr, nullptr, "the paths collected wave by wave between A and B"},
                     {"--border", nullptr, "SEEDS", "border nodes reachable from SEEDS (ids a,b,...)"},
                     {"--barrier", nullptr, "IDS", "nodes --border does not enter"},
                     {"--border-set", nullptr, "IDS", "the border nodes --border collects"},
                     {"--components", nullptr, nullptr, "the connected parts, each contracted (a / a)"},
                     {"--stats", nullptr, nullptr, "counts and degrees (the default)"},
                     {"--dot", nullptr, nullptr, "write the result as Graphviz text"},
                     {"--save", nullptr, "PREFIX", "write the result to PREFIX.nodes, .links, .groups"},
                     {"--load", nullptr, "PREFIX", "read the graph from saved buffers instead of FILE"},
                     kForceOption},
                    "FILE has \"a b\" per line for a link, a lone id for a node without links and '#'\n"
                    "comments; ids are numbers 0..4294967295.  A and B follow FILE.  Results print as\n"
                    "the same edge list (links sorted, then nodes without links) after a '#' title;\n"
                    "--components prints each part's size and members.  --save writes the input\n"
                    "graph, or the result of a search; .groups only when a node holds a group."}) {
    const bool path = call.Has("--path"), allPaths = call.Has("--all-paths");
    const bool border = call.Has("--border"), components = call.Has("--components");
    const int actions = int(path) + int(allPaths) + int(border) + int(components) + int(call.Has("--stats"));
    if (actions > 1) UsageError("graph", "give one of --path, --all-paths, --border, --components, --stats");
    for (const char* o : {"--barrier", "--border-set"})
        if (call.Has(o) && !border) UsageError(o, "goes with --border only");
    const bool load = call.Has("--load");
    const size_t ids = (path || allPaths) ? 2 : 0;
    const size_t files = load ? 0 : 1;
    if (call.Count() != ids + files) {
        if (call.Count() < ids + files)
            UsageError("arguments",
                       std::to_string(ids + files) + " expected, " + std::to_string(call.Count()) + " given");
        UsageError(call.Arg(ids + files), "unexpected argument");
    }
    if (call.Has("--force") && !call.Has("--save")) UsageError("--force", "goes with --save only");

    GraphPtr g = MakeGraph(GraphNew(nullptr));
    if (!g) return Fail("graph", "out of memory");
    if (load ? !Load(g.get(), call.Value("--load")) : !ReadEdges(call.Arg(0), g.get())) return kExitFailure;

    GraphPtr result = MakeGraph(nullptr);
    std::string title;
    if (path || allPaths) {
        TGraphNode* a = NodeArg(call, g.get(), files, "A");
        TGraphNode* b = a ? NodeArg(call, g.get(), files + 1, "B") : nullptr;
        if (!a || !b) return kExitFailure;
        result.reset(path ? GraphBuildPathCut(g.get(), a, b) : GraphBuildPath(g.get(), a, b));
        title = std::string(path ? "shortest paths" : "paths") + " from " + call.Arg(files) + " to " +
                call.Arg(files + 1);
    } else if (border) {
        GraphPtr seeds = IdList("--border", call.Value("--border"));
        GraphPtr barrier = IdList("--barrier", call.Value("--barrier"));
        GraphPtr set = IdList("--border-set", call.Value("--border-set"));
        if (!seeds || !barrier || !set) return Fail("graph", "out of memory");
        result.reset(GraphBuildBord(g.get(), seeds.get(), barrier.get(), set.get()));
        title = "border reached from " + call.Value("--border");
    } else if (components) {
        result = Components(g.get());
        title = "connected parts";
    }
    if ((path || allPaths || border || components) && !result) return Fail("graph", "out of memory");
    TGraphItem* shown = result ? result.get() : g.get();
    if (call.Has("--save") && !Save(shown, call.Value("--save"), call.Has("--force"))) return kExitFailure;

    if (call.Has("--dot")) {
        PrintDot(shown, result ? title : "graph");
    } else if (components) {
        PrintComponents(shown);
    } else if (result) {
        PrintEdges(shown, title);
    } else if (call.Has("--stats") || !call.Has("--save")) {
        return PrintStats(g.get());
    }
    return kExitOk;
}
