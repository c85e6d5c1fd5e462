// kwz demo, the server's side of the data: the keyed record array the
// parcels are collected into, the derived column by a calculator script,
// lookups by key, pack, compress, hash, the depot graph with its shortest
// path, and the XML report.
#include <VomKwz.h>

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "cmd_demo.h"
#include "kwz_util.h"

namespace kwz::tool::demo {

namespace {

// ------------------------------------------------------------ value cells

KWRVal IntCell(int32_t v) {
    KWRVal cell;
    std::memset(&cell, 0, sizeof cell);
    cell.type = iFldType_Int32;
    std::memcpy(cell.value, &v, sizeof v);
    return cell;
}

// A text cell points at the caller's bytes: length at value[0..3], pointer at 4..11.
KWRVal TextCell(const std::string& text) {
    KWRVal cell;
    std::memset(&cell, 0, sizeof cell);
    cell.type = iFldType_Char;
    const auto length = uint32_t(text.size());
    const char* p = text.c_str();
    std::memcpy(cell.value, &length, sizeof length);
    std::memcpy(cell.value + 4, &p, sizeof p);
    return cell;
}

std::string Text(const KWRField* field, const KWRData* rec) {
    const char* text = nullptr;
    uint32_t length = 0;
    if (KWRGetTextRef(field, rec, &length, &text) != 0 || !text) return "";
    return std::string(text, length);
}

int32_t Int(const KWRField* field, const KWRData* rec) {
    int32_t v = 0;
    KWRGetAsInt32(field, rec, &v);
    return v;
}

double Dbl(const KWRField* field, const KWRData* rec) {
    double v = 0;
    KWRGetAsDouble(field, rec, &v);
    return v;
}

// ------------------------------------------------------------ derive

// What the calculator's status codes mean to someone who typed a formula.
std::string CalcProblem(int32_t status) {
    switch (status) {
    case -21: case -41: return "out of memory";
    case -22: return "a function called with the wrong number of arguments";
    case -43: return "division by zero";
    case -44: return "an operation the operands' types do not support";
    case -45: return "an unknown function";
    case -47: return "the execution stack is too small";
    case -50: return "more than the instruction budget";
    case -51: return "more than the memory budget";
    case -52: return "calls nested too deep";
    default: return "status " + std::to_string(status);
    }
}

// dist(a, b): the host function the script calls, the distance of two
// depots around the ring; the depot count comes as the entry's data.
int32_t HostDist(KWCalcStack* stack) {
    const auto* depots = static_cast<const uint32_t*>(KWCalcStackData(stack));
    CVar* a = KWCalcStackArg(stack, 0);
    CVar* b = KWCalcStackArg(stack, 1);
    if (!depots || a->type != 1 || b->type != 1) return -44;
    CVarSetInt(a, RingDistance(uint32_t(a->v.i), uint32_t(b->v.i), *depots));
    return 0;
}

struct CalcOwner {
    KWCalcDef* calc = nullptr;
    KWCalcStack* stack = nullptr;
    ~CalcOwner() {
        KWCalcStackFree(stack);
        KWCalcDestroy(calc);
    }
};

// The script's text: the default function, or the formula given in its place.
std::string ScriptText(const std::string& formula, size_t* bodyAt) {
    static const char head[] = "cost(Id, Customer, From, To, Weight, Priority){Result = ";
    if (formula.empty()) {
        *bodyAt = 0;
        return kDefaultFormula;
    }
    *bodyAt = sizeof head - 1;
    return head + formula + ";}";
}

}  // namespace

bool CheckFormula(const std::string& formula) {
    size_t bodyAt = 0;
    const std::string text = ScriptText(formula, &bodyAt);
    const char* what = formula.empty() ? "script" : "--formula";
    // Compiled on its own, for the compiler's message and place.
    KWFunDef* probe = nullptr;
    const int32_t compiled = KWFunCompile(text.c_str(), &probe, 0, nullptr);
    if (compiled != 0) {
        static const char* const kCompileProblems[] = {"",
                                                       "out of memory",
                                                       "syntax error",
                                                       "bad literal",
                                                       "missing \")\"",
                                                       "missing \"]\"",
                                                       "missing expression",
                                                       "wrong argument count",
                                                       "duplicate name"};
        std::string problem = compiled >= -8 && compiled <= -1 ? kCompileProblems[-compiled] : "does not compile";
        const int64_t at = probe ? std::max<int64_t>(int64_t(probe->externCount) - int64_t(bodyAt), 0) : 0;
        if (probe && probe->code) problem += " (\"" + std::string(reinterpret_cast<const char*>(probe->code)) + "\")";
        KWFunFree(probe);
        return Fail(what, problem + " at byte " + std::to_string(at)), false;
    }
    KWFunFree(probe);

    return true;
}

namespace {

std::string Shorter(const std::string& text) {
    return text.size() <= 40 ? text : text.substr(0, 37) + "...";
}

bool Derive(Table& t, const std::string& formula, Results* r) {
    const auto start = Clock::now();
    size_t bodyAt = 0;
    const std::string text = ScriptText(formula, &bodyAt);
    const char* what = formula.empty() ? "script" : "--formula";
    if (!CheckFormula(formula)) return false;

    CalcOwner c;
    KWCalcNameDef* entry = nullptr;
    if (KWCalcCreate(&c.calc, nullptr, nullptr) != 0 ||
        KWCalcFunAdd(c.calc, "dist", 2, HostDist, &r->depots, nullptr) != 0 ||
        KWCalcSetLimits(c.calc, 1000000, 1 << 20, 0) != 0 || KWCalcStackCreate(c.calc, &c.stack, 256) != 0)
        return Fail("calculator", "cannot be made"), false;
    if (const int32_t st = KWCalcFunAddI(c.calc, text.c_str(), &entry, 0, 0); st != 0)
        return Fail(what, "cannot be registered: " + CalcProblem(st)), false;

    const int32_t n = KWARecCount(t.array);
    Progress bar("derive", uint64_t(n));
    double sum = 0;
    for (int32_t i = 0; i < n; ++i) {
        KWRData* rec = KWARec(t.array, 0, i);
        const std::string customer = Text(t.customer, rec);
        CVarSetInt(KWCalcStackPush(c.stack), Int(t.id, rec));
        CVarSetStr(KWCalcStackPush(c.stack), customer.data(), int32_t(customer.size()));
        CVarSetInt(KWCalcStackPush(c.stack), Int(t.from, rec));
        CVarSetInt(KWCalcStackPush(c.stack), Int(t.to, rec));
        CVarSetDbl(KWCalcStackPush(c.stack), Dbl(t.weight, rec));
        CVarSetInt(KWCalcStackPush(c.stack), Int(t.priority, rec));
        CVar out;
        CVarInit(&out, 1);
        int32_t st = KWCalcFun1(c.stack, entry);
        if (st == 0) st = KWCalcStackPop(c.stack, &out);
        const int32_t type = out.type;
        if (st == 0 && (type == 1 || type == 2)) st = CVarCast(&out, 2);
        const double cost = out.v.d;
        CVarSetEmpty(&out);
        KWCalcStackClear(c.stack);
        const std::string where = "record Id " + std::to_string(Int(t.id, rec));
        if (st != 0) return Fail(what, where + ": " + CalcProblem(st)), false;
        if (type != 1 && type != 2) return Fail(what, where + ": the result is not a number"), false;
        if (KWRSetAsDouble(t.cost, rec, cost) != 0 || KWARecPost(rec, nullptr) != 0)
            return Fail("Cost", where + ": cannot be stored"), false;
        r->costMin = i ? std::min(r->costMin, cost) : cost;
        r->costMax = i ? std::max(r->costMax, cost) : cost;
        sum += cost;
        bar.Update(uint64_t(i) + 1);
    }
    bar.Clear();
    r->costMean = n ? sum / n : 0;
    char line[160];
    std::snprintf(line, sizeof line, "Cost of %s records by %s: %.2f .. %.2f, mean %.2f",
                  Thousands(uint64_t(n)).c_str(),
                  formula.empty() ? "the script cost(), calling host dist()" : ("the formula " + Shorter(formula)).c_str(),
                  r->costMin, r->costMax, r->costMean);
    StepLine("derive", line, MsSince(start));
    return true;
}

// ------------------------------------------------------------ lookups

bool Lookups(Table& t, Results* r) {
    const auto start = Clock::now();
    const int32_t n = KWARecCount(t.array);
    const int32_t wanted = (n + 1) / 2;
    const KWRVal idCell = IntCell(wanted);
    int32_t pos = -1;
    KWRData* rec = KWARecSeekV(t.array, 0, &idCell, &pos);
    if (!rec) return Fail("lookup", "Id " + std::to_string(wanted) + " not found"), false;
    // Every parcel of one customer, named in capitals: key 1 ignores case,
    // and a lower bound before and after the customer's Ids counts them.
    std::string name = Text(t.customer, rec);
    std::string shout = name;
    for (char& ch : shout) ch = char(std::toupper(static_cast<unsigned char>(ch)));
    const KWRVal lo[2] = {TextCell(shout), IntCell(INT32_MIN)};
    const KWRVal hi[2] = {TextCell(shout), IntCell(INT32_MAX)};
    int32_t first = -1, end = -1;
    KWARecSeekV(t.array, 1, lo, &first);
    KWARecSeekV(t.array, 1, hi, &end);
    char line[200];
    std::snprintf(line, sizeof line, "Id %d: %s, depot %d -> %d, %.1f kg, cost %.2f; \"%s\": %s parcel%s (key 1, case ignored)",
                  wanted, name.c_str(), Int(t.from, rec), Int(t.to, rec), Dbl(t.weight, rec), Dbl(t.cost, rec),
                  shout.c_str(), Thousands(uint64_t(end - first)).c_str(), end - first == 1 ? "" : "s");
    r->lookupText = line;
    StepLine("lookup", line, MsSince(start));
    return end - first > 0;
}

// Per customer, in the order of key 1: its parcels and their total cost.
void Customers(Table& t, Results* r) {
    const int32_t n = KWARecCount(t.array);
    for (int32_t i = 0; i < n; ++i) {
        KWRData* rec = KWARec(t.array, 1, i);
        const std::string name = Text(t.customer, rec);
        if (r->customers.empty() || stricmp_rus(r->customers.back().name.c_str(), name.c_str()) != 0)
            r->customers.push_back({name, 0, 0});
        r->customers.back().parcels += 1;
        r->customers.back().cost += Dbl(t.cost, rec);
    }
}

// ------------------------------------------------------------ pack, compress, hash

struct Block {
    void* p = nullptr;
    ~Block() { KWMemFree(p); }
};

bool PackCompressHash(Table& t, const OutFiles& out, Results* r) {
    auto start = Clock::now();
    Block table;
    r->tableBytes = KWAPack(t.array, &table.p);
    if (r->tableBytes == 0 || !table.p) return Fail("pack", "the array does not pack"), false;
    if (!WriteFile(out.Path("parcels.ra2"), table.p, r->tableBytes, out.force)) return false;
    StepLine("pack", "packed table \"#RA2\": " + Thousands(r->tableBytes) + " bytes, in key 0 order -> parcels.ra2",
             MsSince(start));

    start = Clock::now();
    Block container;
    int32_t length = 0;
    if (r->tableBytes > INT32_MAX || KWZDataCompress(int32_t(r->tableBytes), table.p, &length, &container.p) != 0)
        return Fail("compress", "the table does not compress"), false;
    r->containerBytes = uint64_t(length);
    if (!WriteFile(out.Path("parcels.ra2.lz2"), container.p, r->containerBytes, out.force)) return false;
    // Read back as a reader of outside bytes would: bounded by the length.
    KWArray* back = nullptr;
    const bool ok = KWACreate(&back, nullptr) == 0 &&
                    KWZArrayUnPackN(back, container.p, r->containerBytes, true) == 0 &&
                    KWARecCount(back) == KWARecCount(t.array);
    KWADestroy(back);
    if (!ok) return Fail("compress", "the container does not read back"), false;
    char line[160];
    std::snprintf(line, sizeof line, "container \"#LZ2\": %s bytes (%.0f%% of the table), read back whole -> parcels.ra2.lz2",
                  Thousands(r->containerBytes).c_str(), 100.0 * double(r->containerBytes) / double(r->tableBytes));
    StepLine("compress", line, MsSince(start));

    start = Clock::now();
    char hash[33] = {};
    if (KWZDataHash(length, container.p, hash, nullptr) != 0) return Fail("hash", "failed"), false;
    r->hash = hash;
    StepLine("hash", std::string("of the container: ") + hash + " (kwz hash parcels.ra2.lz2 shows it too)",
             MsSince(start));
    return true;
}

// ------------------------------------------------------------ graph

using GraphPtr = std::unique_ptr<TGraphItem, void (*)(TGraphItem*)>;

std::vector<uint32_t> Neighbours(TGraphItem* g, uint32_t id) {
    std::vector<uint32_t> out;
    TGraphNode* node = GraphFindNode(g, id);
    for (TGraphLink* l = node ? GraphNodeLinkFirst(node) : nullptr; l; l = GraphLinkNext(l))
        out.push_back(GraphNodeId(GraphLinkPair(l)));
    std::sort(out.begin(), out.end());
    return out;
}

// In the graph of all shortest paths: their count, and the one that takes
// the lowest-numbered depot at each step.
void WalkPaths(TGraphItem* paths, uint32_t from, uint32_t to, Results* r) {
    std::map<uint32_t, uint32_t> level{{from, 0}};
    std::map<uint32_t, uint64_t> ways{{from, 1}};
    std::deque<uint32_t> queue{from};
    while (!queue.empty()) {
        const uint32_t id = queue.front();
        queue.pop_front();
        for (uint32_t next : Neighbours(paths, id)) {
            if (!level.count(next)) {
                level[next] = level[id] + 1;
                queue.push_back(next);
            }
            if (level[next] == level[id] + 1) ways[next] += ways[id];
        }
    }
    if (!level.count(to)) return;
    r->hops = level[to];
    r->shortestPaths = ways[to];
    // Back from the end, always to a neighbour one level nearer the start.
    std::vector<uint32_t> path{to};
    while (path.back() != from) {
        for (uint32_t prev : Neighbours(paths, path.back()))
            if (level.count(prev) && level[prev] + 1 == level[path.back()]) {
                path.push_back(prev);
                break;
            }
    }
    r->path.assign(path.rbegin(), path.rend());
}

bool Graph(Table& t, const OutFiles& out, Results* r) {
    const auto start = Clock::now();
    GraphPtr g(GraphNew(nullptr), GraphDelete);
    if (!g) return Fail("graph", "out of memory"), false;
    std::set<std::pair<uint32_t, uint32_t>> links;
    const int32_t n = KWARecCount(t.array);
    for (int32_t i = 0; i < n; ++i) {
        KWRData* rec = KWARec(t.array, 0, i);
        const auto a = uint32_t(Int(t.from, rec)), b = uint32_t(Int(t.to, rec));
        TGraphNode* na = GraphAppendNode(g.get(), a);
        TGraphNode* nb = GraphAppendNode(g.get(), b);
        if (!na || !nb || (a != b && !GraphAppendLink(g.get(), na, nb))) return Fail("graph", "out of memory"), false;
        if (a != b) links.insert({std::min(a, b), std::max(a, b)});
    }
    r->graphNodes = GraphNodeCount(g.get());
    r->graphLinks = GraphLinkCount(g.get());
    std::string edges = "# depots linked by the parcels' routes: kwz graph depots.txt --path A B\n";
    for (const auto& l : links) edges += std::to_string(l.first) + " " + std::to_string(l.second) + "\n";
    if (!WriteFile(out.Path("depots.txt"), edges.data(), edges.size(), out.force)) return false;

    r->pathFrom = 1;
    r->pathTo = r->depots / 2 + 1;
    TGraphNode* from = GraphFindNode(g.get(), r->pathFrom);
    TGraphNode* to = GraphFindNode(g.get(), r->pathTo);
    if (from && to) {
        GraphPtr paths(GraphBuildPathCut(g.get(), from, to), GraphDelete);
        if (!paths) return Fail("graph", "the path search failed"), false;
        WalkPaths(paths.get(), r->pathFrom, r->pathTo, r);
    }
    std::string line = Thousands(r->graphNodes) + " depots, " + Thousands(r->graphLinks) + " links; ";
    if (r->path.empty()) {
        line += "depots " + std::to_string(r->pathFrom) + " and " + std::to_string(r->pathTo) + " are not connected";
    } else {
        line += "shortest path " + std::to_string(r->pathFrom) + " -> " + std::to_string(r->pathTo) + ": " +
                std::to_string(r->hops) + " hops (" +
                (r->shortestPaths == 1 ? std::string("the only one") : Thousands(r->shortestPaths) + " as short") + "): ";
        for (size_t i = 0; i < r->path.size(); ++i) {
            if (i == 4 && r->path.size() > 7) {
                line += " .. ";
                i = r->path.size() - 3;
            } else if (i) {
                line += "-";
            }
            line += std::to_string(r->path[i]);
        }
    }
    StepLine("graph", line, MsSince(start));
    return true;
}

}  // namespace

// ------------------------------------------------------------ the table

Table::Table() { KWRTypInit(&type); }

Table::~Table() {
    KWADestroy(array);
    KWRTypFree(&type);
}

bool Table::Build(const std::string& definition) {
    if (KWRTypSet(&type, kParcelId, definition.c_str()) != 0)
        return Fail("type", "the client's definition is refused: " + DiagnoseDefinition(definition)), false;
    // The array takes the parcel's fields and one of its own, the derived Cost.
    KWRFieldDef costDef;
    std::memset(&costDef, 0, sizeof costDef);
    std::strcpy(costDef.name, "Cost");
    costDef.type = iFldType_Double;
    KWAKeyDef keys[2];
    std::memset(keys, 0, sizeof keys);
    std::strcpy(keys[0].expression, "Id");
    keys[0].options = iKeyOpt_Primary | iKeyOpt_Unique;
    std::strcpy(keys[1].expression, "Customer;Id");
    keys[1].options = iKeyOpt_CaseInsensitive;
    if (KWACreate(&array, &type) != 0 || KWAFldAdd(array, 1, &costDef) != 0 || KWAKeyAdd(array, 2, keys) != 0)
        return Fail("array", "the parcel type does not make the demo's table (it needs Id, Customer, From, To, "
                             "Weight and Priority)"), false;
    const KWRType* own = KWAType(array);
    id = KWRFldByName(own, "Id");
    customer = KWRFldByName(own, "Customer");
    from = KWRFldByName(own, "From");
    to = KWRFldByName(own, "To");
    weight = KWRFldByName(own, "Weight");
    priority = KWRFldByName(own, "Priority");
    cost = KWRFldByName(own, "Cost");
    if (!id || !customer || !from || !to || !weight || !priority || !cost || own->fieldCount != type.fieldCount + 1)
        return Fail("type", "the parcel type lacks one of Id, Customer, From, To, Weight, Priority"), false;
    return true;
}

bool Table::Add(const KWRData& record, uint32_t* priorityOut) {
    if (KWRRecCheck(&type, &record) != 0) return Fail("collect", "a received image is not a sound Parcel"), false;
    KWRVal cells[256];
    std::memset(cells, 0, sizeof cells);
    if (KWRGetRec(&type, &record, cells) != 0) return Fail("collect", "a received record does not read"), false;
    cells[type.fieldCount].type = iFldType_Double;  // Cost: null until derived
    cells[type.fieldCount].isNull = 1;
    KWRData* member = KWARecAdd(array, cells);
    if (!member) return Fail("collect", "a parcel is refused by the array (a duplicate Id?)"), false;
    *priorityOut = uint32_t(Int(priority, member));
    return true;
}

bool ServerSteps(Table& table, const std::string& formula, const OutFiles& out, Results* results) {
    if (!Derive(table, formula, results) || !Lookups(table, results)) return false;
    Customers(table, results);
    return PackCompressHash(table, out, results) && Graph(table, out, results) && WriteReport(formula, out, results);
}

}  // namespace kwz::tool::demo
