// The graph object type: scripts that build, read, call and combine graphs,
// sharing on copy, every error code, registration with its constants, the
// buffer form, and graphs inside value images.  Values are compared as text:
// "Int 1", "[Int 3,Int 2]", and a graph as its sorted nodes, links and group
// lists: "G(1,2,3|1-2,2-3|2:8,7)" (members in list order).
#include <gtest/gtest.h>

#include <VomKwz.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "test_calc_util.h"

using namespace calctest;

namespace {

constexpr int32_t kGraph = 30;
constexpr uint32_t kMagic = 0x12358D0;

// A graph value's holder: the graph and the number of values sharing it.
struct Holder {
    TGraphItem* graph;
    int32_t references;
};
Holder* HolderOf(const CVar* v) { return static_cast<Holder*>(v->v.p); }

std::string ShowGraph(const TGraphItem* g) {
    std::vector<uint32_t> nodes;
    std::set<std::pair<uint32_t, uint32_t>> links;
    std::string groups;
    for (const TGraphNode* n = g->nodeFirst; n; n = n->nodeNext) nodes.push_back(n->id);
    std::sort(nodes.begin(), nodes.end());
    for (uint32_t id : nodes) {
        const TGraphNode* n = GraphFindNode(const_cast<TGraphItem*>(g), id);
        for (const TGraphLink* l = n->linkFirst; l; l = l->next) {
            const uint32_t m = l->pair->owner->id;
            links.insert({std::min(id, m), std::max(id, m)});
        }
        if (!n->groupFirst) continue;
        groups += (groups.empty() ? "|" : " ") + std::to_string(id) + ":";
        for (const TGraphNode* e = n->groupFirst; e; e = e->groupFirst)
            groups += std::to_string(e->id) + (e->groupFirst ? "," : "");
    }
    std::string s = "G(";
    for (size_t i = 0; i < nodes.size(); ++i) s += (i ? "," : "") + std::to_string(nodes[i]);
    s += "|";
    bool first = true;
    for (const auto& l : links) {
        s += (first ? "" : ",") + std::to_string(l.first) + "-" + std::to_string(l.second);
        first = false;
    }
    return s + groups + ")";
}

std::string Show(const CVar* v) {
    switch (v->type) {
    case 0: return "Empty";
    case 1: return "Int " + std::to_string(v->v.i + 0);
    case 3: return "Str '" + Text(v) + "'";
    case 4: {
        std::string s = "[";
        for (int32_t i = 0; i < v->count; ++i) s += (i ? "," : "") + Show(&v->v.a[i]);
        return s + "]";
    }
    case kGraph: return HolderOf(v) ? ShowGraph(HolderOf(v)->graph) : "G(null)";
    default: return "tag " + std::to_string(v->type);
    }
}

// Scripts the rows build their graphs with.  line(n) is the path 1-2-..-n
// (nodes pushed at the head of the node list, so listed n..1); grp() is
// line(3) with 7 and then 8 in node 2's group list; ring() is 1-2-3-4-9-1.
const char* const kScripts[] = {
    "line(n){var g,i;g=CGraphNew();i=1;while(i<=n){CGraphAddNode(g,i);"
    "if(i>1){CGraphAddLink(g,i-1,i);}i=i+1;}Result=g;}",
    "grp(){var g;g=line(3);CGraphGroupAddNode(g,2,7);CGraphGroupAddNode(g,2,8);Result=g;}",
    "docex(){var g;g=line(2);CGraphGroupAddNode(g,2,9);Result=g;}",
    "ring(){var g;g=line(4);CGraphAddNode(g,9);CGraphAddLink(g,9,1);CGraphAddLink(g,9,4);Result=g;}",
    "pair(){var g;g=CGraphNew();CGraphAddNode(g,2);CGraphAddNode(g,3);CGraphAddNode(g,7);"
    "CGraphAddLink(g,2,3);CGraphAddLink(g,3,7);Result=g;}",
    // [answer, graph afterwards] of one change to line(3).
    "mut(op,a,b){var g,r;g=line(3);"
    "if(op==1){r=CGraphRenameNode(g,a,b);}if(op==2){r=CGraphRenameGroup(g,a,b);}"
    "if(op==3){r=CGraphAddLink(g,a,b);}if(op==4){r=CGraphDelLink(g,a,b);}"
    "if(op==5){r=CGraphDelNode(g,a);}if(op==6){r=CGraphAddNode(g,a);}"
    "if(op==7){r=CGraphGroupDelNode(g,a,b);}Result=[r,g];}",
    // [answer, node count, link count] of a method call on line(3).
    "cm(m,arg){var g,r;g=line(3);r=call(g,m,arg);Result=[r,CGraphNodeCount(g),CGraphLinkCount(g)];}",
    // A copy shares the graph.
    "share(){var a,b;a=CGraphNew();b=a;CGraphAddNode(b,5);Result=CGraphHasNode(a,5);}",
    // Properties read through an object variable with one and more indexes.
    "props(){var g;g=grp();Result=[g[1],g[\"nodes\"],g[6,2],g[\"GroupNodes\",2],g[5,1,2],g[10,2,8]];}",
    // Graph values copied, overwritten, put in arrays and combined in a loop.
    "churn(n){var a,b,c,i;i=0;while(i<n){a=line(3);b=a;c=[a,b,[a]];a=b+a;b=0;c=a;"
    "CGraphAddNode(c,i+10);i=i+1;}Result=CGraphNodeCount(a);}",
};

class calcGraph : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(KWCalcConstCreate(&constants_, 64), 0);
        ASSERT_NE(GraphObjTypeReg(kGraph, constants_), nullptr);
        ASSERT_EQ(KWCalcCreate(&calc_, nullptr, nullptr), 0);
        for (const char* s : kScripts) ASSERT_EQ(KWCalcFunAddI(calc_, s, nullptr, 0, 0), 0) << s;
        ASSERT_EQ(KWCalcStackCreate(calc_, &stack_, 16), 0);
    }
    void TearDown() override {
        KWCalcStackFree(stack_);
        KWCalcDestroy(calc_);
        GraphObjTypeReg(0, nullptr);
        KWCalcConstDestroy(constants_);
    }
    // "status" or the value.
    std::string Eval(const std::string& text) {
        Val r;
        const int32_t st = KWCalcFormula(text.c_str(), &r.v, calc_, 0);
        return st ? std::to_string(st) : Show(&r.v);
    }
    // A graph value made by a script.
    void Make(const char* text, CVar* out) {
        ASSERT_EQ(KWCalcFormula(text, out, calc_, 0), 0) << text;
        ASSERT_EQ(out->type, kGraph) << text;
    }
    void Frame(const std::vector<const CVar*>& values) {
        KWCalcStackClear(stack_);
        for (const CVar* v : values) CVarCopy(KWCalcStackPush(stack_), v);
    }
    KWCalcConst* constants_ = nullptr;
    KWCalcDef* calc_ = nullptr;
    KWCalcStack* stack_ = nullptr;
};

struct Row {
    const char* text;
    std::string result;
};

}  // namespace

TEST_F(calcGraph, FunctionsBuildAndRead) {
    const std::vector<Row> rows = {
        {"CGraphNew()", "G(|)"},
        {"line(3)", "G(1,2,3|1-2,2-3)"},
        {"grp()", "G(1,2,3|1-2,2-3|2:8,7)"},
        {"CGraphNodeCount(CGraphNew())", "Int 0"},
        {"CGraphNodeCount(line(3))", "Int 3"},
        {"CGraphNodes(line(3))", "[Int 3,Int 2,Int 1]"},
        {"CGraphNodes(CGraphNew())", "[]"},
        {"CGraphLinkCount(line(4))", "Int 3"},
        {"CGraphHasNode(line(3), 2)", "Int 1"},
        {"CGraphHasNode(line(3), 4294967298)", "Int 1"},  // the low 32 bits name the node
        {"CGraphHasNode(line(3), 5)", "Int 0"},
        {"CGraphHasLink(line(3), 1, 2)", "Int 1"},
        {"CGraphHasLink(line(3), 2, 1)", "Int 1"},
        {"CGraphHasLink(line(3), 1, 3)", "Int 0"},
        {"CGraphHasLink(line(3), 9, 1)", "Int 0"},
        {"CGraphNodeLinkCount(line(3), 2)", "Int 2"},
        {"CGraphNodeLinkCount(line(3), 9)", "Int 0"},
        {"CGraphNodeLinks(line(3), 2)", "[Int 1,Int 3]"},
        {"CGraphNodeLinks(line(3), 9)", "[]"},
        {"CGraphHasGroup(grp(), 2)", "Int 1"},
        {"CGraphHasGroup(grp(), 1)", "Int 0"},
        {"CGraphHasGroup(grp(), 9)", "Int 0"},
        {"CGraphGroupNodes(grp(), 2)", "[Int 8,Int 7]"},
        {"CGraphGroupNodes(grp(), 1)", "[]"},
        {"CGraphGroupNodes(grp(), 9)", "[]"},
        {"CGraphGroupHasNode(grp(), 2, 7)", "Int 1"},
        {"CGraphGroupHasNode(grp(), 2, 9)", "Int 0"},
        {"CGraphGroupHasNode(grp(), 9, 7)", "[]"},  // a missing node: an empty array, not 0
        {"CGraphGroupAddNode(line(3), 9, 1)", "[]"},
        {"CGraphGroupDelNode(line(3), 9, 1)", "[]"},
        {"CGraphGroupAddNode(line(3), 1, 5)", "Int 1"},
        // Changes, with the graph afterwards.
        {"mut(1, 1, 5)", "[Int 1,G(2,3,5|2-3,2-5)]"},
        {"mut(1, 1, 1)", "[Int 1,G(1,2,3|1-2,2-3)]"},
        {"mut(1, 1, 2)", "[Int 0,G(1,2,3|1-2,2-3)]"},
        {"mut(1, 9, 5)", "[Int 0,G(1,2,3|1-2,2-3)]"},
        {"mut(2, 1, 5)", "[Int 1,G(2,3,5|2-3,2-5|5:1)]"},
        {"mut(2, 9, 5)", "[Int 0,G(1,2,3|1-2,2-3)]"},
        {"mut(3, 1, 3)", "[Int 1,G(1,2,3|1-2,1-3,2-3)]"},
        {"mut(3, 1, 2)", "[Int 1,G(1,2,3|1-2,2-3)]"},
        {"mut(3, 1, 1)", "[Int 0,G(1,2,3|1-2,2-3)]"},
        {"mut(3, 1, 9)", "[Int 0,G(1,2,3|1-2,2-3)]"},  // nodes are never made
        {"mut(4, 2, 1)", "[Int 1,G(1,2,3|2-3)]"},
        {"mut(4, 1, 3)", "[Int 0,G(1,2,3|1-2,2-3)]"},
        {"mut(4, 9, 3)", "[Int 0,G(1,2,3|1-2,2-3)]"},
        {"mut(5, 2, 0)", "[Int 1,G(1,3|)]"},
        {"mut(5, 9, 0)", "[Int 1,G(1,2,3|1-2,2-3)]"},
        {"mut(6, 3, 0)", "[Int 1,G(1,2,3|1-2,2-3)]"},
        {"mut(6, 7, 0)", "[Int 1,G(1,2,3,7|1-2,2-3)]"},
        {"mut(7, 2, 7)", "[Int 1,G(1,2,3|1-2,2-3)]"},
        // Paths: the meeting search between the two nodes.
        {"CGraphBuildPath(ring(), 1, 2)", "G(1,2|1-2)"},
        {"CGraphBuildPath(line(4), 1, 4)", "G(1,2,3,4|1-2,2-3,3-4)"},
        {"CGraphBuildPath(line(4), 1, 9)", "G(|)"},
        {"CGraphBuildPath(line(4), 9, 1)", "G(|)"},
        {"share()", "Int 1"},
        {"props()", "[Int 3,[Int 3,Int 2,Int 1],Int 2,[Int 8,Int 7],Int 1,Int 1]"},
        {"typename(CGraphNew())", "Str 'Graph'"},
        {"type(CGraphNew())", "Int 30"},
        {"new(\"graph\", 5)", "G(|)"},
        {"new(30, [])", "G(|)"},
    };
    for (const Row& r : rows) EXPECT_EQ(Eval(r.text), r.result) << r.text;
}

TEST_F(calcGraph, ErrorCodes) {
    const std::vector<Row> rows = {
        // -44: not a graph, or an identifier that is not an Int.
        {"CGraphNodeCount(1)", "-44"},
        {"CGraphNodes(\"g\")", "-44"},
        {"CGraphHasNode(line(2), 1.0)", "-44"},
        {"CGraphAddNode(line(2), \"1\")", "-44"},
        {"CGraphAddLink(line(2), 1, [2])", "-44"},
        {"CGraphGroupHasNode(grp(), 2, 7.5)", "-44"},
        {"CGraphBuildPath(line(2), 1, 2.0)", "-44"},
        {"CGraphBuildBord(line(3), line(1), CGraphNew(), 0)", "-44"},
        {"CGraphBuildBord(line(3), 1, CGraphNew(), CGraphNew())", "-44"},
        {"try(CGraphNodeCount(2))", "Int -44"},
        {"int(line(2))", "-44"},
        {"line(2) + 1", "-44"},
        {"1 - line(2)", "-44"},
        {"line(2) == 0", "-44"},
        {"line(2) < line(2)", "-44"},  // no slot
        {"-line(2)", "-44"},
        // -45: numeric built-ins, and the exported functions calculators lack.
        {"sqrt(line(2))", "-45"},
        {"round(CGraphNew(), 1)", "-45"},
        {"CGraphAddLinkFirst(line(3), 1, 2)", "-45"},
        {"CGraphMoveLinkFirst(line(3), 1, 2)", "-45"},
        // Property reads: -48 unknown, -44 a selector of no kind or a name where
        // an identifier is expected.
        {"get(line(3), 1)", "Int 3"},
        {"get(line(3), 2)", "[Int 3,Int 2,Int 1]"},
        {"get(line(3), 3)", "Int 1"},  // property 3 by number: has node 3
        {"get(line(2), 3)", "Int 0"},
        {"get(line(3), 4)", "Int 2"},
        {"get(line(3), 5)", "-48"},
        {"get(line(3), 0)", "-48"},
        {"get(line(3), \"NODECOUNT\")", "Int 3"},
        {"get(line(3), \"nodes\")", "[Int 3,Int 2,Int 1]"},
        {"get(line(3), \"LinkCount\")", "Int 2"},
        {"get(line(3), \"HasNode\")", "-44"},
        {"get(line(3), \"Node\")", "-48"},
        {"get(line(3), \"NodeCounts\")", "-48"},
        {"get(line(3), \"GroupNodes\")", "-48"},
        {"get(line(3), \"\")", "-48"},
        {"get(line(3), 1.5)", "-44"},
        {"get(1, 1)", "-44"},
        {"get(grp(), [6, 2])", "Int 2"},
        {"get(grp(), [\"NodeLinks\", 2])", "[Int 1,Int 3]"},
        {"get(grp(), [\"nodelinkcount\", 9])", "Int 0"},
        {"get(grp(), [8, 2])", "Int 1"},
        {"get(grp(), [\"HasGroup\", 3])", "Int 0"},
        {"get(grp(), [9, 2])", "[Int 8,Int 7]"},
        {"get(grp(), [\"GroupNodes\", 9])", "[]"},
        {"get(grp(), [6, \"2\"])", "-48"},
        {"get(grp(), [5, 2])", "-48"},
        {"get(grp(), [\"Nodes\", 2])", "-48"},
        {"get(grp(), [5, 1, 2])", "Int 1"},
        {"get(grp(), [\"hasLink\", 1, 3])", "Int 0"},
        {"get(grp(), [10, 2, 8])", "Int 1"},
        {"get(grp(), [\"GroupHasNode\", 9, 8])", "[]"},
        {"get(grp(), [6, 1, 2])", "-48"},
        {"get(grp(), [5, 1, 2.0])", "-48"},
        {"get(grp(), [1])", "-48"},
        {"get(grp(), [])", "-48"},
        {"get(grp(), [5, 1, 2, 3])", "-48"},
        // Method calls: [answer, node count, link count] on line(3).
        {"cm(1, 5)", "[Int 1,Int 4,Int 2]"},
        {"cm(1, \"5\")", "-44"},
        {"cm(1, [5])", "-44"},
        {"cm(2, [1, 0])", "-48"},  // DelNode is not callable by number
        {"cm(2, 1)", "-48"},
        {"cm(3, [1, 9])", "[Int 1,Int 3,Int 2]"},
        {"cm(4, [1, 9])", "[Int 1,Int 3,Int 2]"},
        {"cm(5, [1, 3])", "[Int 1,Int 3,Int 3]"},
        {"cm(6, [1, 3])", "-48"},
        {"cm(7, [1, 2])", "-48"},
        {"cm(8, [1, 2])", "[Int 1,Int 3,Int 1]"},
        {"cm(9, [2, 7])", "[Int 1,Int 3,Int 2]"},
        {"cm(10, [2, 7])", "[Int 1,Int 3,Int 2]"},
        {"cm(9, [9, 7])", "[[],Int 3,Int 2]"},
        {"cm(11, [1, 2])", "-48"},
        {"cm(0, [1, 2])", "-48"},
        {"cm(5, [1])", "-48"},
        {"cm(5, [1, 2, 3])", "-48"},
        {"cm(5, 1)", "-48"},
        {"cm(5, [1, \"3\"])", "-44"},
        {"cm(\"AddNode\", 5)", "[Int 1,Int 4,Int 2]"},
        {"cm(\"ADDNODE\", 5)", "[Int 1,Int 4,Int 2]"},
        {"cm(\"DelNode\", 2)", "[Int 1,Int 2,Int 0]"},  // by name it works
        {"cm(\"delnode\", \"2\")", "-44"},
        {"cm(\"AddLink\", [1, 3])", "-44"},  // run on the frame as it stands
        {"cm(\"GroupAddNode\", [2, 7])", "-44"},
        {"cm(\"RenameNode\", [1, 9])", "-44"},
        {"cm(\"AddLinkFirst\", [1, 3])", "-48"},  // the prefix of AddLink
        {"cm(\"AddNodes\", 5)", "-48"},
        {"cm(\"MoveLinkFirst\", [1, 2])", "-44"},
        {"cm(\"Nothing\", 1)", "-44"},
        {"cm(1.5, 1)", "[G(1,2,3|1-2,2-3),Int 3,Int 2]"},  // nothing done, no error
        {"cm([], 1)", "[G(1,2,3|1-2,2-3),Int 3,Int 2]"},
        {"call(1, 1, 5)", "-44"},
    };
    for (const Row& r : rows) EXPECT_EQ(Eval(r.text), r.result) << r.text;

    // -47: a three-element selector needs three slots.
    Val g, sel;
    Make("grp()", &g.v);
    ASSERT_EQ(KWCalcFormula("[5, 1, 2]", &sel.v, calc_, 0), 0);
    KWCalcStack* small = nullptr;
    ASSERT_EQ(KWCalcStackCreate(calc_, &small, 2), 0);
    CVarCopy(KWCalcStackPush(small), &g.v);
    CVarCopy(KWCalcStackPush(small), &sel.v);
    EXPECT_EQ(KWCalcObjType(kGraph)->Get(small), -47);
    KWCalcStackFree(small);
    EXPECT_EQ(HolderOf(&g.v)->references, 1);
}

TEST_F(calcGraph, OperatorsMatchTheGraphAlgebra) {
    using GraphOp = TGraphItem* (*)(TGraphItem*, TGraphItem*);
    struct OpRow { const char* op; GraphOp fn; };
    const std::vector<OpRow> ops = {{"+", GraphAdd}, {"-", GraphSub}, {"*", GraphMul},
                                    {"/", GraphDiv}, {"&", GraphAnd}, {"^", GraphXor}};
    const std::vector<std::pair<const char*, const char*>> operands = {
        {"ring()", "pair()"}, {"pair()", "ring()"}, {"line(3)", "line(3)"}, {"grp()", "ring()"}};
    for (const OpRow& o : ops)
        for (const auto& [a, b] : operands) {
            Val x, y;
            Make(a, &x.v);
            Make(b, &y.v);
            // The result is copied into the new value's graph.
            TGraphItem* result = o.fn(HolderOf(&x.v)->graph, HolderOf(&y.v)->graph);
            ASSERT_NE(result, nullptr);
            TGraphItem* expected = GraphNew(result);
            GraphDelete(result);
            const std::string text = std::string(a) + " " + o.op + " " + b;
            EXPECT_EQ(Eval(text), ShowGraph(expected)) << text;
            GraphDelete(expected);
        }
    // The result is a new graph: the operands keep theirs.
    const std::vector<Row> rows = {
        {"line(3) == line(3)", "Int 1"},
        {"line(3) != line(3)", "Int 0"},
        {"line(3) == line(2)", "Int 0"},
        {"grp() == line(3)", "Int 0"},  // one has a group list, the other none
        {"line(3) != ring()", "Int 1"},
        {"CGraphNodeCount(line(2) + ring())", "Int 5"},
        {"CGraphNodeCount((line(2) + pair()) + line(4))", "Int 5"},
    };
    for (const Row& r : rows) EXPECT_EQ(Eval(r.text), r.result) << r.text;

    // BuildBord: as the graph's own, with the three graphs as arguments.
    Val g, seeds, barrier, border;
    Make("ring()", &g.v);
    Make("line(1)", &seeds.v);
    Make("CGraphNew()", &barrier.v);
    Make("line(2)", &border.v);
    TGraphItem* expected = GraphBuildBord(HolderOf(&g.v)->graph, HolderOf(&seeds.v)->graph,
                                          HolderOf(&barrier.v)->graph, HolderOf(&border.v)->graph);
    ASSERT_NE(expected, nullptr);
    EXPECT_EQ(Eval("CGraphBuildBord(ring(), line(1), CGraphNew(), line(2))"), ShowGraph(expected));
    GraphDelete(expected);
}

TEST_F(calcGraph, CopiesShareOneHolder) {
    Val a, b, c;
    Make("line(2)", &a.v);
    Holder* h = HolderOf(&a.v);
    EXPECT_EQ(h->references, 1);
    CVarCopy(&b.v, &a.v);
    CVarCopyRef(&c.v, &a.v);
    EXPECT_EQ(HolderOf(&b.v), h);
    EXPECT_EQ(HolderOf(&c.v), h);
    EXPECT_EQ(h->references, 3);
    // A change through the copy is seen through the first value.
    Frame({&b.v});
    CVarSetInt(KWCalcStackPush(stack_), 5);
    ASSERT_EQ(CGraphAddNode(stack_), 0);
    Frame({&a.v});
    CVarSetInt(KWCalcStackPush(stack_), 5);
    ASSERT_EQ(CGraphHasNode(stack_), 0);
    EXPECT_EQ(Show(KWCalcStackArg(stack_, 0)), "Int 1");
    EXPECT_EQ(h->references, 3);
    // Freeing and overwriting drop one reference each; the tag becomes 0.
    CVarSetEmpty(&c.v);
    EXPECT_EQ(c->type, 0);
    CVarSetInt(&b.v, 1);
    EXPECT_EQ(h->references, 1);
    // Copying a graph over a graph releases the destination's.
    Val d;
    Make("line(4)", &d.v);
    CVarCopy(&d.v, &a.v);
    EXPECT_EQ(h->references, 2);
    EXPECT_EQ(Show(&d.v), "G(1,2,5|1-2)");
    // Casts: only to the type itself.
    EXPECT_EQ(CVarCast(&d.v, kGraph), 0);
    EXPECT_EQ(CVarCast(&d.v, 1), -44);
    EXPECT_EQ(CVarCast(&d.v, 3), -44);
    Val i;
    CVarSetInt(&i.v, 1);
    EXPECT_EQ(CVarCast(&i.v, kGraph), -44);
    EXPECT_EQ(KWCalcObjType(kGraph)->UndefFun(&d.v, "round"), -45);
}

TEST_F(calcGraph, ExportedFunctionsAndTheirChecks) {
    Val g;
    Make("line(3)", &g.v);
    Val two, three, one, text;
    CVarSetInt(&two.v, 2);
    CVarSetInt(&three.v, 3);
    CVarSetInt(&one.v, 1);
    CVarSetStr(&text.v, "2", 1);
    using Fn = int32_t (*)(KWCalcStack*);
    struct ExRow { Fn fn; std::vector<const CVar*> args; int32_t status; std::string result; };
    const std::vector<ExRow> rows = {
        {CGraphNodeLinks, {&g.v, &two.v}, 0, "[Int 1,Int 3]"},
        {CGraphAddLinkFirst, {&g.v, &two.v, &three.v}, 0, "Int 1"},  // existing: moved first
        {CGraphNodeLinks, {&g.v, &two.v}, 0, "[Int 3,Int 1]"},
        {CGraphMoveLinkFirst, {&g.v, &two.v, &one.v}, 0, "Int 1"},
        {CGraphNodeLinks, {&g.v, &two.v}, 0, "[Int 1,Int 3]"},
        {CGraphMoveLinkFirst, {&g.v, &one.v, &three.v}, 0, "Int 0"},
        {CGraphAddLinkFirst, {&g.v, &one.v, &three.v}, 0, "Int 1"},
        {CGraphNodeLinks, {&g.v, &one.v}, 0, "[Int 3,Int 2]"},
        {CGraphAddLinkFirst, {&g.v, &one.v, &one.v}, 0, "Int 0"},
        {CGraphAddLinkFirst, {&g.v, &one.v, &text.v}, -44, "Empty"},
        {CGraphMoveLinkFirst, {&two.v, &one.v, &three.v}, -44, "Empty"},
        {CGraphNew, {}, 0, "G(|)"},
        {CGraphNodeCount, {&two.v}, -44, "Int 2"},
    };
    for (size_t i = 0; i < rows.size(); ++i) {
        const ExRow& r = rows[i];
        Frame(r.args);
        if (r.args.empty()) KWCalcStackPush(stack_);
        EXPECT_EQ(r.fn(stack_), r.status) << i;
        if (r.status == 0) {
            EXPECT_EQ(Show(KWCalcStackArg(stack_, 0)), r.result) << i;
        }
    }
    EXPECT_EQ(HolderOf(&g.v)->references, 1);
    KWCalcStackClear(stack_);
    EXPECT_EQ(CGraphNew(nullptr), -44);
}

TEST_F(calcGraph, RegistrationAndItsConstants) {
    struct ConstRow { const char* name; std::string value; };
    const std::vector<ConstRow> rows = {
        {"itGraph", "Int 30"}, {"stGraph", "Str 'Graph'"},
        {"ipGraph_NodeCount", "Int 1"}, {"spGraph_NodeCount", "Str 'NodeCount'"},
        {"ipGraph_Nodes", "Int 2"}, {"spGraph_Nodes", "Str 'Nodes'"},
        {"ipGraph_HasNode", "Int 3"}, {"spGraph_HasNode", "Str 'HasNode'"},
        {"ipGraph_LinkCount", "Int 4"}, {"spGraph_LinkCount", "Str 'LinkCount'"},
        {"ipGraph_HasLink", "Int 5"}, {"spGraph_HasLink", "Str 'HasLink'"},
        {"ipGraph_NodeLinkCount", "Int 6"}, {"spGraph_NodeLinkCount", "Str 'NodeLinkCount'"},
        {"ipGraph_NodeLinks", "Int 7"}, {"spGraph_NodeLinks", "Str 'NodeLinks'"},
        {"ipGraph_HasGroup", "Int 8"}, {"spGraph_HasGroup", "Str 'HasGroup'"},
        {"ipGraph_GroupNodes", "Int 9"}, {"spGraph_GroupNodes", "none"},
        {"ipGraph_GroupHasNode", "Int 10"}, {"spGraph_GroupHasNode", "Str 'GroupHasNode'"},
        {"imGraph_AddNode", "Int 1"}, {"smGraph_AddNode", "Str 'AddNode'"},
        {"imGraph_DelNode", "Int 2"}, {"smGraph_DelNode", "Str 'DelNode'"},
        {"imGraph_RenameNode", "Int 3"}, {"smXml_RenameNode", "Str 'RenameNode'"},
        {"imGraph_RenameGroup", "Int 4"}, {"smXml_RenameGroup", "Str 'RenameGroup'"},
        {"imGraph_AddLink", "Int 5"}, {"smXml_AddLink", "Str 'AddLink'"},
        {"imGraph_AddLinkFirst", "Int 6"}, {"smXml_AddLinkFirst", "Str 'AddLinkFirst'"},
        {"imGraph_MoveLinkFirst", "Int 7"}, {"smXml_MoveLinkFirst", "Str 'MoveLinkFirst'"},
        {"imGraph_DelLink", "Int 8"}, {"smXml_DelLink", "Str 'DelLink'"},
        {"imGraph_GroupAddNode", "Int 9"}, {"smXml_GroupAddNode", "Str 'GroupAddNode'"},
        {"imGraph_GroupDelNode", "Int 10"}, {"smXml_GroupDelNode", "Str 'GroupDelNode'"},
        {"smGraph_RenameNode", "none"},
    };
    for (const ConstRow& r : rows) {
        CVar* v = nullptr;
        const bool found = KWCalcConstGet(constants_, r.name, &v) == 1;
        EXPECT_EQ(found ? Show(v) : "none", r.value) << r.name;
    }
    // Scripts compiled with the table see them as literals.
    KWFunDef* f = nullptr;
    ASSERT_EQ(KWFunCompile("f(g){result = get(g, ipGraph_GroupHasNode) + itGraph;}", &f, 0, constants_), 0);
    char* text = KWFunDisassemble(f);
    ASSERT_NE(text, nullptr);
    const std::string code = text;
    KWMemFree(text);
    KWFunFree(f);
    EXPECT_NE(code.find("int     10\n"), std::string::npos) << code;
    EXPECT_NE(code.find("int     30\n"), std::string::npos) << code;

    // The current tag: the descriptor at once; a taken tag: null, unregistered.
    KWCalcObjDef* def = KWCalcObjType(kGraph);
    ASSERT_NE(def, nullptr);
    EXPECT_STREQ(def->name, "Graph");
    EXPECT_EQ(KWCalcObjTypeFromName("GRAPH"), def);
    EXPECT_EQ(GraphObjTypeReg(kGraph, nullptr), def);
    EXPECT_EQ(def->Put, nullptr);
    EXPECT_EQ(def->CalcDestroy, nullptr);
    EXPECT_EQ(def->Mod, nullptr);
    EXPECT_EQ(def->BOr, nullptr);
    ASSERT_NE(IntSObjTypeReg(31, nullptr), nullptr);
    EXPECT_EQ(GraphObjTypeReg(31, nullptr), nullptr);
    EXPECT_EQ(KWCalcObjType(kGraph), nullptr);
    EXPECT_EQ(GraphObjTypeReg(256, nullptr), nullptr);
    IntSObjTypeReg(0, nullptr);
    EXPECT_EQ(GraphObjTypeReg(32, nullptr), def);
    EXPECT_EQ(KWCalcObjType(32), def);
    EXPECT_EQ(GraphObjTypeReg(kGraph, nullptr), def);  // moves back
    EXPECT_EQ(KWCalcObjType(32), nullptr);

    // Unregistering with the table deletes the XML type's tag and name too.
    ASSERT_EQ(KWCalcConstInt(constants_, "itXml", 40, nullptr), 0);
    ASSERT_EQ(KWCalcConstStr(constants_, "stXml", "Xml", 3, nullptr), 0);
    ASSERT_EQ(KWCalcConstInt(constants_, "itIntS", 31, nullptr), 0);
    EXPECT_EQ(GraphObjTypeReg(0, constants_), nullptr);
    EXPECT_EQ(KWCalcObjType(kGraph), nullptr);
    for (const ConstRow& r : rows) EXPECT_EQ(KWCalcConstGet(constants_, r.name, nullptr), 0) << r.name;
    EXPECT_EQ(KWCalcConstGet(constants_, "itXml", nullptr), 0);
    EXPECT_EQ(KWCalcConstGet(constants_, "stXml", nullptr), 0);
    EXPECT_EQ(KWCalcConstGet(constants_, "itIntS", nullptr), 1);
    // New calculators lack the functions; the one made before keeps them but
    // their values are no graphs any more.
    Val r;
    EXPECT_EQ(KWCalcFormula("CGraphNew()", &r.v, nullptr, 0), -45);
    EXPECT_EQ(Eval("CGraphNodeCount(1)"), "-44");
    ASSERT_NE(GraphObjTypeReg(kGraph, nullptr), nullptr);
}

TEST_F(calcGraph, BufferForm) {
    const KWCalcObjDef* def = KWCalcObjType(kGraph);
    struct FormRow { const char* script; std::vector<uint32_t> words; };
    const std::vector<FormRow> rows = {
        // n, ids; k, (owner, neighbour) per half-link; g, records; one word more.
        {"CGraphNew()", {24, kMagic, 0, 0, 0}},
        {"line(3)", {68, kMagic, 3, 3, 2, 1, 2, 3, 2, 2, 1, 2, 3, 1, 2, 0}},
        {"grp()", {84, kMagic, 3, 3, 2, 1, 2, 3, 2, 2, 1, 2, 3, 1, 2, 1, 3, 2, 8, 7}},
        {"docex()", {60, kMagic, 2, 2, 1, 1, 2, 1, 1, 2, 1, 2, 2, 9}},  // doc/formats/graph-value.md
    };
    for (const FormRow& r : rows) {
        Val g;
        Make(r.script, &g.v);
        const int32_t size = def->ToBuff(&g.v, nullptr, 0);
        ASSERT_EQ(size, int32_t(4 * (r.words.size() + 1))) << r.script;
        std::vector<uint32_t> out(r.words.size() + 2, 0xAAAAAAAAu);
        EXPECT_EQ(def->ToBuff(&g.v, out.data(), size - 1), 0) << r.script;
        EXPECT_EQ(out[0], 0xAAAAAAAAu) << "nothing written when the room is short";
        EXPECT_EQ(def->ToBuff(&g.v, out.data(), size), size) << r.script;
        EXPECT_EQ(std::vector<uint32_t>(out.begin(), out.begin() + long(r.words.size())), r.words) << r.script;
        EXPECT_EQ(out[r.words.size()], 0xAAAAAAAAu) << "the declared last word stays unwritten";
        // Read back: members come back reversed (each pushed at the head).
        Val back;
        EXPECT_EQ(def->FromBuff(&back.v, out.data()), size) << r.script;
        std::string expected = Show(&g.v);
        if (std::string(r.script) == "grp()") expected = "G(1,2,3|1-2,2-3|2:7,8)";  // members reversed
        EXPECT_EQ(Show(&back.v), expected) << r.script;
    }
    // Refusals: no source, a size below 20, another magic.
    struct BadRow { std::vector<uint32_t> words; };
    const std::vector<BadRow> bad = {
        {{19, kMagic, 0, 0, 0}}, {{24, kMagic + 1, 0, 0, 0}},
    };
    Val v;
    EXPECT_EQ(def->FromBuff(&v.v, nullptr), 0);
    for (const BadRow& b : bad) EXPECT_EQ(def->FromBuff(&v.v, b.words.data()), 0);
    // Links to missing nodes are skipped; group records of missing nodes too.
    const std::vector<uint32_t> odd = {60, kMagic, 2, 1, 2, /*k*/ 1, 1, 9, 1, 2, /*g*/ 1, 2, 9, 5, 0};
    Val o;
    ASSERT_EQ(def->FromBuff(&o.v, odd.data()), 60);
    EXPECT_EQ(Show(&o.v), "G(1,2|1-2)");
}

TEST_F(calcGraph, GraphsInsideValueImages) {
    Val v;
    ASSERT_EQ(KWCalcFormula("[1, grp(), [line(2)], \"x\"]", &v.v, calc_, 0), 0);
    const std::vector<uint8_t> image = Image(&v.v);
    // 04 N=4 | 01 int | 1e graph 84 bytes | 04 N=1 1e graph 48 bytes | 03 1 'x'
    ASSERT_EQ(image.size(), size_t(5 + 9 + 85 + 5 + 49 + 6));
    EXPECT_EQ(ToHex(std::vector<uint8_t>(image.begin() + 14, image.begin() + 23)), "1e 54 00 00 00 d0 58 23 01");
    // The forms' declared last words are left unwritten by the type and read
    // as zero in the image, so that images of equal values are equal.
    for (size_t at : {size_t(95), size_t(149)})
        EXPECT_EQ(ToHex(std::vector<uint8_t>(image.begin() + at, image.begin() + at + 4)), "00 00 00 00") << at;
    for (bool bounded : {false, true}) {
        Val back;
        const int32_t n = bounded ? CVarFromBuffN(&back.v, image.data(), int32_t(image.size()))
                                  : CVarFromBuff(&back.v, image.data());
        EXPECT_EQ(n, int32_t(image.size()));
        EXPECT_EQ(Show(&back.v), "[Int 1,G(1,2,3|1-2,2-3|2:7,8),[G(1,2|1-2)],Str 'x']");
        EXPECT_EQ(HolderOf(&back->v.a[1])->references, 1);
    }
    // A cut image is refused without reading past its end.
    for (size_t cut : {size_t(15), size_t(20), size_t(60), size_t(98), image.size() - 7}) {
        Val back;
        EXPECT_EQ(CVarFromBuffN(&back.v, image.data(), int32_t(cut)), 0) << cut;
        EXPECT_EQ(back->type, 0);
    }
}

TEST_F(calcGraph, NoLeakWhenValuesChurn) {
    EXPECT_EQ(Eval("churn(200)"), "Int 4");
    Val a, b;
    Make("ring()", &a.v);
    Holder* h = HolderOf(&a.v);
    for (int i = 0; i < 500; ++i) {
        Val arr;
        CVarSetArr(&arr.v, 3);
        CVarCopy(&arr->v.a[0], &a.v);
        CVarCopy(&arr->v.a[1], &arr->v.a[0]);
        CVarCopy(&b.v, &arr.v);            // the array's graphs share too
        CVarCopy(&arr->v.a[2], &arr.v);    // an array into its own element
        if (i % 2) CVarSetInt(&b.v, i);
    }
    CVarSetEmpty(&b.v);
    EXPECT_EQ(h->references, 1);
}
