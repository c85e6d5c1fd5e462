// Graphs against the Boost Graph Library on one random graph of 1,000,000
// nodes and 4,000,000 distinct links (fixed seed), in the same run.
//
//   build      append every link (nodes made on first sight), against
//              adjacency_list<vecS, vecS, undirectedS> with the id -> vertex
//              map that numbered nodes need there; memory per link is the
//              growth of the resident set size over the build (both sides
//              measured the same way, see Resident below)
//   pathcut    GraphBuildPathCut between two far nodes, against a
//              bidirectional breadth-first search on Boost's graph that
//              returns the same links (all shortest paths; same_links = 1
//              says that they are the same set)
//   component  GraphXor of a one-node graph (the node's connected part, built
//              as a new graph), against breadth_first_search from the node
//              collecting the part's vertices, against a search that builds
//              the part as a new Boost graph with its id map (the same work),
//              and against connected_components over the whole graph
//   save/load  GraphDataSave / GraphDataLoad of nodes and links, against
//              writing the edge array and building a Boost graph from it
//
// The graph is big: each case runs once (the path searches 20 times), with
// --benchmark_repetitions=1.
#include <VomKwz.h>
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <boost/graph/adjacency_list.hpp>
#include <boost/graph/breadth_first_search.hpp>
#include <boost/graph/connected_components.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <set>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace {

using BoostGraph = boost::adjacency_list<boost::vecS, boost::vecS, boost::undirectedS>;
using Vertex = BoostGraph::vertex_descriptor;

// KWZ_BENCH_GRAPH_NODES=n runs on n nodes and 4n links (short runs).
uint32_t NodeCount() {
    const char* v = std::getenv("KWZ_BENCH_GRAPH_NODES");
    const unsigned long n = v ? std::strtoul(v, nullptr, 10) : 0;
    return n >= 1000 && n <= 10000000 ? uint32_t(n) : 1000000;
}
const uint32_t kNodes = NodeCount();
const uint32_t kLinks = 4 * kNodes;

struct Data {
    std::vector<uint32_t> ids;                          // node ids, scattered
    std::vector<std::pair<uint32_t, uint32_t>> links;  // distinct, by id
};

const Data& TheData() {
    static const Data data = [] {
        Data d;
        std::mt19937_64 rng(20261125);
        d.ids.resize(kNodes);
        std::unordered_set<uint32_t> seen;
        for (auto& id : d.ids) {
            do id = uint32_t(rng()); while (!seen.insert(id).second);
        }
        std::unordered_set<uint64_t> pairs;
        pairs.reserve(kLinks * 2);
        while (d.links.size() < kLinks) {
            uint32_t a = uint32_t(rng() % kNodes), b = uint32_t(rng() % kNodes);
            if (a == b) continue;
            if (a > b) std::swap(a, b);
            if (pairs.insert(uint64_t(a) << 32 | b).second) d.links.emplace_back(d.ids[a], d.ids[b]);
        }
        return d;
    }();
    return data;
}

// Resident bytes of the process, with the free memory malloc keeps handed
// back first (malloc_trim), so that only pages in use count.  The graph
// blocks live on their own 2 MB mappings, which mallinfo2 does not see; the
// resident set sees both sides alike, the malloc heap and the mappings,
// with each huge page counted whole.
size_t Resident() {
    malloc_trim(0);
    unsigned long size = 0, resident = 0;
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%lu %lu", &size, &resident) != 2) resident = 0;
        std::fclose(f);
    }
    return size_t(resident) * size_t(sysconf(_SC_PAGESIZE));
}

TGraphItem* BuildOurs(const Data& d) {
    TGraphItem* g = GraphNew(nullptr);
    for (auto [a, b] : d.links) GraphAppendLink(g, GraphAppendNode(g, a), GraphAppendNode(g, b));
    return g;
}

struct Peer {
    BoostGraph g;
    std::unordered_map<uint32_t, Vertex> index;
    std::vector<uint32_t> idOf;
};

void BuildPeer(const Data& d, Peer& p) {
    auto vertex = [&p](uint32_t id) {
        auto [it, added] = p.index.emplace(id, 0);
        if (added) {
            it->second = boost::add_vertex(p.g);
            p.idOf.push_back(id);
        }
        return it->second;
    };
    for (auto [a, b] : d.links) boost::add_edge(vertex(a), vertex(b), p.g);
}

TGraphItem* Ours() {
    static TGraphItem* g = BuildOurs(TheData());
    return g;
}

Peer& ThePeer() {
    static Peer* p = [] {
        auto* peer = new Peer;
        BuildPeer(TheData(), *peer);
        return peer;
    }();
    return *p;
}

// Two far nodes: the start, and a node at the largest distance from it.
std::pair<uint32_t, uint32_t> FarPair() {
    static const std::pair<uint32_t, uint32_t> pair = [] {
        Peer& p = ThePeer();
        std::vector<int> dist(boost::num_vertices(p.g), -1);
        std::vector<Vertex> queue{0};
        dist[0] = 0;
        for (size_t i = 0; i < queue.size(); ++i)
            for (auto [e, end] = boost::out_edges(queue[i], p.g); e != end; ++e) {
                Vertex v = boost::target(*e, p.g);
                if (dist[v] < 0) {
                    dist[v] = dist[queue[i]] + 1;
                    queue.push_back(v);
                }
            }
        return std::pair<uint32_t, uint32_t>{p.idOf[0], p.idOf[queue.back()]};
    }();
    return pair;
}

// The peer's working arrays: distances from each end and the on-path flags,
// one entry per vertex.  PathCut_Boost makes them afresh for every search, as
// a BGL search does with its maps; PathCut_BoostReuse keeps them between
// searches and resets only the entries a search touched, as BuildPathCut
// keeps its own scratch state.
struct PeerWork {
    std::vector<int> dist[2];
    std::vector<char> onPath;
    std::vector<Vertex> touched, pathNodes;
};

// Bidirectional level-synchronous search on Boost's graph, then the links of
// all shortest paths by walking back level by level from the meeting edges.
size_t PeerPathCut(Peer& p, Vertex s, Vertex t, std::vector<std::pair<Vertex, Vertex>>& out, PeerWork& w) {
    const size_t n = boost::num_vertices(p.g);
    if (w.onPath.size() != n) {
        w.dist[0].assign(n, -1);
        w.dist[1].assign(n, -1);
        w.onPath.assign(n, 0);
    }
    auto& dist = w.dist;
    auto reset = [&] {
        for (Vertex v : w.touched) dist[0][v] = dist[1][v] = -1;
        for (Vertex v : w.pathNodes) w.onPath[v] = 0;
        w.touched.clear();
        w.pathNodes.clear();
    };
    std::vector<Vertex> frontier[2] = {{s}, {t}};
    dist[0][s] = 0;
    dist[1][t] = 0;
    w.touched.push_back(s);
    w.touched.push_back(t);
    out.clear();
    std::vector<std::pair<Vertex, Vertex>> meet;
    for (int side = 0; !frontier[0].empty() && !frontier[1].empty(); side ^= 1) {
        std::vector<Vertex> next;
        for (Vertex x : frontier[side])
            for (auto [e, end] = boost::out_edges(x, p.g); e != end; ++e) {
                Vertex y = boost::target(*e, p.g);
                if (dist[side ^ 1][y] >= 0)
                    meet.emplace_back(x, y);
                else if (dist[side][y] < 0) {
                    dist[side][y] = dist[side][x] + 1;
                    next.push_back(y);
                    w.touched.push_back(y);
                }
            }
        if (!meet.empty()) {
            // Keep the meeting edges of the shortest total length.
            int best = INT32_MAX;
            for (auto [x, y] : meet) best = std::min(best, dist[side][x] + 1 + dist[side ^ 1][y]);
            std::vector<char>& onPath = w.onPath;
            auto enter = [&](Vertex v, std::vector<Vertex>& list) {
                if (onPath[v]) return;
                onPath[v] = 1;
                w.pathNodes.push_back(v);
                list.push_back(v);
            };
            std::vector<Vertex> level[2];
            for (auto [x, y] : meet)
                if (dist[side][x] + 1 + dist[side ^ 1][y] == best) {
                    out.emplace_back(x, y);
                    enter(x, level[side]);
                    enter(y, level[side ^ 1]);
                }
            for (int k = 0; k < 2; ++k)
                while (!level[k].empty()) {
                    std::vector<Vertex> below;
                    for (Vertex u : level[k])
                        for (auto [e, end] = boost::out_edges(u, p.g); e != end; ++e) {
                            Vertex v = boost::target(*e, p.g);
                            if (dist[k][v] >= 0 && dist[k][v] == dist[k][u] - 1) {
                                out.emplace_back(u, v);
                                enter(v, below);
                            }
                        }
                    level[k].swap(below);
                }
            reset();
            return out.size();
        }
        frontier[side].swap(next);
    }
    reset();
    return 0;
}

void Build_Ours(benchmark::State& state) {
    const Data& d = TheData();
    for (auto _ : state) {
        state.PauseTiming();
        const size_t before = Resident();
        state.ResumeTiming();
        TGraphItem* g = BuildOurs(d);
        state.PauseTiming();
        state.counters["bytes_per_link"] = double(Resident() - before) / kLinks;
        GraphDelete(g);
        GraphHeapClear();
        state.ResumeTiming();
    }
}

// The same with the hash sized for the node count first, as loading does.
void Build_OursPresized(benchmark::State& state) {
    const Data& d = TheData();
    for (auto _ : state) {
        state.PauseTiming();
        const size_t before = Resident();
        state.ResumeTiming();
        TGraphItem* g = GraphNew(nullptr);
        GraphSetHashSize(g, kNodes);
        for (auto [a, b] : d.links) GraphAppendLink(g, GraphAppendNode(g, a), GraphAppendNode(g, b));
        state.PauseTiming();
        state.counters["bytes_per_link"] = double(Resident() - before) / kLinks;
        GraphDelete(g);
        GraphHeapClear();
        state.ResumeTiming();
    }
}

void Build_Boost(benchmark::State& state) {
    const Data& d = TheData();
    for (auto _ : state) {
        state.PauseTiming();
        const size_t before = Resident();
        state.ResumeTiming();
        auto* p = new Peer;
        BuildPeer(d, *p);
        state.PauseTiming();
        const size_t grown = Resident() - before;
        state.counters["bytes_per_link"] = double(grown) / kLinks;
        state.counters["bytes_per_link_without_map"] =
            double(grown - p->index.size() * 32 - p->idOf.capacity() * 4) / kLinks;
        delete p;
        state.ResumeTiming();
    }
}

// The links of a result, as ordered id pairs.
std::set<std::pair<uint32_t, uint32_t>> LinksOf(TGraphItem* r) {
    std::set<std::pair<uint32_t, uint32_t>> links;
    for (TGraphNode* n = GraphNodeFirst(r); n; n = GraphNodeNodeNext(n))
        for (TGraphLink* h = GraphNodeLinkFirst(n); h; h = GraphLinkNext(h)) {
            const uint32_t a = GraphNodeId(n), b = GraphNodeId(GraphLinkPair(h));
            links.emplace(std::min(a, b), std::max(a, b));
        }
    return links;
}

void PathCut_Ours(benchmark::State& state) {
    TGraphItem* g = Ours();
    auto [s, t] = FarPair();
    TGraphNode *from = GraphFindNode(g, s), *to = GraphFindNode(g, t);
    for (auto _ : state) {
        TGraphItem* r = GraphBuildPathCut(g, from, to);
        state.counters["links"] = GraphLinkCount(r);
        GraphDelete(r);
    }
    // The peer must find the same links: same_links is 1 when it does (after
    // the timed loop).
    Peer& p = ThePeer();
    std::vector<std::pair<Vertex, Vertex>> out;
    PeerWork w;
    PeerPathCut(p, p.index.at(s), p.index.at(t), out, w);
    std::set<std::pair<uint32_t, uint32_t>> peer;
    for (auto [x, y] : out) peer.emplace(std::min(p.idOf[x], p.idOf[y]), std::max(p.idOf[x], p.idOf[y]));
    TGraphItem* r = GraphBuildPathCut(g, from, to);
    state.counters["same_links"] = LinksOf(r) == peer && peer.size() == out.size();
    GraphDelete(r);
}

void PathCut_Boost(benchmark::State& state) {
    Peer& p = ThePeer();
    auto [s, t] = FarPair();
    std::vector<std::pair<Vertex, Vertex>> out;
    for (auto _ : state) {
        PeerWork w;
        state.counters["links"] = double(PeerPathCut(p, p.index.at(s), p.index.at(t), out, w));
    }
}

void PathCut_BoostReuse(benchmark::State& state) {
    Peer& p = ThePeer();
    auto [s, t] = FarPair();
    std::vector<std::pair<Vertex, Vertex>> out;
    PeerWork w;
    PeerPathCut(p, p.index.at(s), p.index.at(t), out, w);  // the arrays made once, untimed
    for (auto _ : state) state.counters["links"] = double(PeerPathCut(p, p.index.at(s), p.index.at(t), out, w));
}

void Component_Ours(benchmark::State& state) {
    TGraphItem* g = Ours();
    TGraphItem* seed = GraphNew(nullptr);
    GraphAppendNode(seed, FarPair().first);
    for (auto _ : state) {
        TGraphItem* r = GraphXor(seed, g);
        state.counters["nodes"] = GraphNodeCount(r);
        state.counters["links"] = GraphLinkCount(r);
        GraphDelete(r);
    }
    GraphDelete(seed);
}

struct Collect : boost::default_bfs_visitor {
    std::vector<Vertex>* seen;
    void discover_vertex(Vertex v, const BoostGraph&) const { seen->push_back(v); }
};

void Component_BoostBfs(benchmark::State& state) {
    Peer& p = ThePeer();
    const Vertex s = p.index.at(FarPair().first);
    for (auto _ : state) {
        std::vector<Vertex> seen;
        Collect visitor;
        visitor.seen = &seen;
        std::vector<boost::default_color_type> color(boost::num_vertices(p.g));
        boost::breadth_first_search(p.g, s,
                                    boost::visitor(visitor).color_map(boost::make_iterator_property_map(
                                        color.begin(), boost::get(boost::vertex_index, p.g))));
        state.counters["nodes"] = double(seen.size());
    }
}

// The same work as GraphXor: a breadth-first search that builds the part as
// a new graph, with its id map, each link added once.
void Component_BoostBuild(benchmark::State& state) {
    Peer& p = ThePeer();
    const Vertex s = p.index.at(FarPair().first);
    for (auto _ : state) {
        Peer part;
        std::vector<uint8_t> stateOf(boost::num_vertices(p.g), 0);  // 1 queued, 2 expanded
        std::vector<Vertex> copyOf(boost::num_vertices(p.g));
        auto take = [&](Vertex v) {
            const uint32_t id = p.idOf[v];
            copyOf[v] = part.index.emplace(id, boost::add_vertex(part.g)).first->second;
            part.idOf.push_back(id);
            stateOf[v] = 1;
        };
        std::vector<Vertex> queue{s};
        take(s);
        for (size_t i = 0; i < queue.size(); ++i) {
            const Vertex u = queue[i];
            for (auto [e, end] = boost::out_edges(u, p.g); e != end; ++e) {
                const Vertex v = boost::target(*e, p.g);
                if (stateOf[v] == 0) {
                    take(v);
                    queue.push_back(v);
                }
                if (stateOf[v] != 2) boost::add_edge(copyOf[u], copyOf[v], part.g);
            }
            stateOf[u] = 2;
        }
        state.counters["nodes"] = double(boost::num_vertices(part.g));
        state.counters["links"] = double(boost::num_edges(part.g));
    }
}

void Component_BoostAll(benchmark::State& state) {
    Peer& p = ThePeer();
    for (auto _ : state) {
        std::vector<int> component(boost::num_vertices(p.g));
        state.counters["parts"] = boost::connected_components(p.g, component.data());
    }
}

void Save_Ours(benchmark::State& state) {
    TGraphItem* g = Ours();
    for (auto _ : state) {
        void *nodes, *links;
        GraphDataSave(g, &nodes, &links, nullptr);
        KWMemFree(nodes);
        KWMemFree(links);
    }
}

void Load_Ours(benchmark::State& state) {
    void *nodes, *links;
    GraphDataSave(Ours(), &nodes, &links, nullptr);
    for (auto _ : state) {
        TGraphItem* g = GraphNew(nullptr);
        GraphDataLoad(g, nodes, links, nullptr);
        state.PauseTiming();
        GraphDelete(g);
        state.ResumeTiming();
    }
    KWMemFree(nodes);
    KWMemFree(links);
}

void Save_Boost(benchmark::State& state) {
    Peer& p = ThePeer();
    for (auto _ : state) {
        std::vector<uint32_t> edges;
        edges.reserve(2 * boost::num_edges(p.g));
        for (auto [e, end] = boost::edges(p.g); e != end; ++e) {
            edges.push_back(p.idOf[boost::source(*e, p.g)]);
            edges.push_back(p.idOf[boost::target(*e, p.g)]);
        }
        benchmark::DoNotOptimize(edges.data());
    }
}

void Load_Boost(benchmark::State& state) {
    const Data& d = TheData();
    for (auto _ : state) {
        auto* p = new Peer;
        BuildPeer(d, *p);
        state.PauseTiming();
        delete p;
        state.ResumeTiming();
    }
}

#define KWG_BENCH(f) BENCHMARK(f)->Iterations(1)->Unit(benchmark::kMillisecond)
KWG_BENCH(Build_Ours);
KWG_BENCH(Build_OursPresized);
KWG_BENCH(Build_Boost);
BENCHMARK(PathCut_Ours)->Iterations(20)->Unit(benchmark::kMillisecond);
BENCHMARK(PathCut_Boost)->Iterations(20)->Unit(benchmark::kMillisecond);
BENCHMARK(PathCut_BoostReuse)->Iterations(20)->Unit(benchmark::kMillisecond);
KWG_BENCH(Component_Ours);
KWG_BENCH(Component_BoostBfs);
KWG_BENCH(Component_BoostBuild);
KWG_BENCH(Component_BoostAll);
KWG_BENCH(Save_Ours);
KWG_BENCH(Save_Boost);
KWG_BENCH(Load_Ours);
KWG_BENCH(Load_Boost);

}  // namespace

BENCHMARK_MAIN();
