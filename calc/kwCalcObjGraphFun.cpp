// The graph functions of the calculator: CGraphNew, CGraphAddNode, ... as
// calculators get them and as the library exports them.  Argument 0 is the
// graph and the function's result replaces it.  Missing nodes are no error:
// the functions answer 0 or an empty array.
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "base/kwGuard.h"
#include "calc/kwCalcEngine.h"
#include "calc/kwCalcObjGraph.h"
#include "calc/kwCalcStack.h"

namespace kwz::calc {
namespace graphfn {
namespace {

// The arguments of one call: the graph, then the identifiers.
struct Args {
    CVar* out = nullptr;  // argument 0, which takes the result
    TGraphItem* graph = nullptr;
    uint32_t id[2] = {0, 0};
};

// Argument 0 must be a graph and arguments 1..ids Ints; -44 otherwise.
int32_t Take(KWCalcStack* s, int32_t ids, Args* a) {
    a->out = s ? StackArg(s, 0) : nullptr;
    a->graph = a->out ? GraphOf(a->out) : nullptr;
    if (!a->graph) return kNotSupported;
    for (int32_t i = 0; i < ids; ++i) {
        const CVar* v = StackArg(s, i + 1);
        if (!v || v->type != kInt) return kNotSupported;
        a->id[i] = static_cast<uint32_t>(static_cast<uint64_t>(v->v.i));  // the low 32 bits
    }
    return kOk;
}

int32_t Answer(const Args& a, bool yes) {
    SetInt(a.out, yes ? 1 : 0);
    return kOk;
}

// An array of Ints; -21 (out unchanged) when memory runs out.
int32_t AnswerIds(const Args& a, const std::vector<uint32_t>& ids) {
    CVar r{};
    if (SetArr(&r, int32_t(ids.size())) != kOk) return kNoMem;
    for (size_t i = 0; i < ids.size(); ++i) SetInt(&r.v.a[i], ids[i]);
    Move(a.out, &r);
    return kOk;
}

int32_t AnswerEmptyArr(const Args& a) { return AnswerIds(a, {}); }

// Some answers are a new graph: it replaces argument 0 as a value of its own.
int32_t AnswerGraph(const Args& a, TGraphItem&& result) {
    SetGraph(a.out, std::make_unique<TGraphItem>(std::move(result)));
    return kOk;
}

// Link between nodes a and b, both of which must exist: AppendLink or
// AppendLinkFirst.
int32_t Link(KWCalcStack* s, bool first) {
    Args a;
    if (const int32_t st = Take(s, 2, &a); st != kOk) return st;
    TGraphNode* x = a.graph->FindNode(a.id[0]);
    TGraphNode* y = a.graph->FindNode(a.id[1]);
    if (!x || !y) return Answer(a, false);
    return Answer(a, (first ? a.graph->AppendLinkFirst(*x, *y) : a.graph->AppendLink(*x, *y)) != nullptr);
}

}  // namespace

int32_t New(KWCalcStack* s) {
    CVar* out = s ? StackArg(s, 0) : nullptr;
    if (!out) return kNotSupported;
    SetNewGraph(out);
    return kOk;
}

int32_t NodeCount(KWCalcStack* s) {
    Args a;
    if (const int32_t st = Take(s, 0, &a); st != kOk) return st;
    SetInt(a.out, a.graph->nodeCount);
    return kOk;
}

int32_t Nodes(KWCalcStack* s) {
    Args a;
    if (const int32_t st = Take(s, 0, &a); st != kOk) return st;
    std::vector<uint32_t> ids;
    ids.reserve(a.graph->nodeCount);
    for (const TGraphNode* n = a.graph->nodeFirst; n; n = n->nodeNext) ids.push_back(n->id);
    return AnswerIds(a, ids);
}

int32_t HasNode(KWCalcStack* s) {
    Args a;
    if (const int32_t st = Take(s, 1, &a); st != kOk) return st;
    return Answer(a, a.graph->FindNode(a.id[0]) != nullptr);
}

int32_t AddNode(KWCalcStack* s) {
    Args a;
    if (const int32_t st = Take(s, 1, &a); st != kOk) return st;
    a.graph->AppendNode(a.id[0]);
    return Answer(a, true);
}

int32_t DelNode(KWCalcStack* s) {
    Args a;
    if (const int32_t st = Take(s, 1, &a); st != kOk) return st;
    a.graph->DeleteNode(a.id[0]);
    return Answer(a, true);
}

int32_t RenameNode(KWCalcStack* s) {
    Args a;
    if (const int32_t st = Take(s, 2, &a); st != kOk) return st;
    TGraphNode* n = a.graph->FindNode(a.id[0]);
    return Answer(a, n && a.graph->RenameNode(*n, a.id[1]));
}

int32_t RenameGroup(KWCalcStack* s) {
    Args a;
    if (const int32_t st = Take(s, 2, &a); st != kOk) return st;
    TGraphNode* n = a.graph->FindNode(a.id[0]);
    return Answer(a, n && a.graph->RenameGroup(*n, a.id[1]));
}

int32_t LinkCount(KWCalcStack* s) {
    Args a;
    if (const int32_t st = Take(s, 0, &a); st != kOk) return st;
    SetInt(a.out, a.graph->linkCount);
    return kOk;
}

int32_t HasLink(KWCalcStack* s) {
    Args a;
    if (const int32_t st = Take(s, 2, &a); st != kOk) return st;
    const TGraphNode* n = a.graph->FindNode(a.id[0]);
    return Answer(a, n && a.graph->FindLink(*n, a.id[1]));
}

int32_t AddLink(KWCalcStack* s) { return Link(s, false); }
int32_t AddLinkFirst(KWCalcStack* s) { return Link(s, true); }

int32_t MoveLinkFirst(KWCalcStack* s) {
    Args a;
    if (const int32_t st = Take(s, 2, &a); st != kOk) return st;
    const TGraphNode* n = a.graph->FindNode(a.id[0]);
    TGraphLink* link = n ? a.graph->FindLink(*n, a.id[1]) : nullptr;
    if (link) a.graph->MoveLinkFirst(*link);
    return Answer(a, link != nullptr);
}

int32_t DelLink(KWCalcStack* s) {
    Args a;
    if (const int32_t st = Take(s, 2, &a); st != kOk) return st;
    const TGraphNode* n = a.graph->FindNode(a.id[0]);
    TGraphLink* link = n ? a.graph->FindLink(*n, a.id[1]) : nullptr;
    if (link) a.graph->DeleteLink(*link);
    return Answer(a, link != nullptr);
}

int32_t NodeLinkCount(KWCalcStack* s) {
    Args a;
    if (const int32_t st = Take(s, 1, &a); st != kOk) return st;
    const TGraphNode* n = a.graph->FindNode(a.id[0]);
    SetInt(a.out, n ? n->linkCount : 0);
    return kOk;
}

int32_t NodeLinks(KWCalcStack* s) {
    Args a;
    if (const int32_t st = Take(s, 1, &a); st != kOk) return st;
    std::vector<uint32_t> ids;
    if (const TGraphNode* n = a.graph->FindNode(a.id[0])) {
        ids.reserve(n->linkCount);
        for (const TGraphLink* l = n->linkFirst; l; l = l->next) ids.push_back(l->pair->owner->id);
    }
    return AnswerIds(a, ids);
}

int32_t HasGroup(KWCalcStack* s) {
    Args a;
    if (const int32_t st = Take(s, 1, &a); st != kOk) return st;
    const TGraphNode* n = a.graph->FindNode(a.id[0]);
    return Answer(a, n && n->groupFirst);
}

int32_t GroupNodes(KWCalcStack* s) {
    Args a;
    if (const int32_t st = Take(s, 1, &a); st != kOk) return st;
    std::vector<uint32_t> ids;
    if (const TGraphNode* n = a.graph->FindNode(a.id[0]))
        for (const TGraphNode* m = n->groupFirst; m; m = m->groupFirst) ids.push_back(m->id);
    return AnswerIds(a, ids);
}

// The three group functions answer an empty array, not 0, for a missing
// node: scripts tell "no such node" from "not a member" by the type.
int32_t GroupHasNode(KWCalcStack* s) {
    Args a;
    if (const int32_t st = Take(s, 2, &a); st != kOk) return st;
    const TGraphNode* n = a.graph->FindNode(a.id[0]);
    if (!n) return AnswerEmptyArr(a);
    const TGraphNode* m = n->groupFirst;
    while (m && m->id != a.id[1]) m = m->groupFirst;
    return Answer(a, m != nullptr);
}

int32_t GroupAddNode(KWCalcStack* s) {
    Args a;
    if (const int32_t st = Take(s, 2, &a); st != kOk) return st;
    TGraphNode* n = a.graph->FindNode(a.id[0]);
    if (!n) return AnswerEmptyArr(a);
    a.graph->AppendGroupNode(*n, a.id[1]);
    return Answer(a, true);
}

int32_t GroupDelNode(KWCalcStack* s) {
    Args a;
    if (const int32_t st = Take(s, 2, &a); st != kOk) return st;
    TGraphNode* n = a.graph->FindNode(a.id[0]);
    if (!n) return AnswerEmptyArr(a);
    a.graph->DeleteGroupNode(*n, a.id[1]);
    return Answer(a, true);
}

// The meeting search from both ends (BuildPathCut), not BuildPath.
int32_t BuildPath(KWCalcStack* s) {
    Args a;
    if (const int32_t st = Take(s, 2, &a); st != kOk) return st;
    TGraphNode* x = a.graph->FindNode(a.id[0]);
    TGraphNode* y = a.graph->FindNode(a.id[1]);
    if (!x || !y) return AnswerGraph(a, TGraphItem());
    return AnswerGraph(a, a.graph->BuildPathCut(*x, *y));
}

int32_t BuildBord(KWCalcStack* s) {
    Args a;
    if (const int32_t st = Take(s, 0, &a); st != kOk) return st;
    TGraphItem* part[3] = {};
    for (int32_t i = 0; i < 3; ++i) {
        const CVar* v = StackArg(s, i + 1);
        if (!v || !(part[i] = GraphOf(v))) return kNotSupported;
    }
    return AnswerGraph(a, a.graph->BuildBord(*part[0], *part[1], *part[2]));
}

}  // namespace graphfn

int32_t GraphGuarded(const char* tag, int32_t (*fn)(KWCalcStack*), KWCalcStack* s) {
    return kwz::CEdge(tag, kNoMem, kNotSupported, [&] { return fn(s); });
}

namespace {

template <int32_t (*F)(KWCalcStack*)>
int32_t InCalc(KWCalcStack* s) {
    return GraphGuarded("Kwz.kwCalc.CGraph", F, s);
}

struct CalcFun {
    const char* name;
    int32_t argc;
    KWCalcFn fn;
};

// What every calculator gets.  CGraphAddLinkFirst and CGraphMoveLinkFirst
// are exported for hosts but not among them: scripts do not see them.
const CalcFun kCalcFuns[] = {
    {"CGraphNew", 0, &InCalc<graphfn::New>},
    {"CGraphNodeCount", 1, &InCalc<graphfn::NodeCount>},
    {"CGraphNodes", 1, &InCalc<graphfn::Nodes>},
    {"CGraphHasNode", 2, &InCalc<graphfn::HasNode>},
    {"CGraphAddNode", 2, &InCalc<graphfn::AddNode>},
    {"CGraphDelNode", 2, &InCalc<graphfn::DelNode>},
    {"CGraphRenameNode", 3, &InCalc<graphfn::RenameNode>},
    {"CGraphRenameGroup", 3, &InCalc<graphfn::RenameGroup>},
    {"CGraphLinkCount", 1, &InCalc<graphfn::LinkCount>},
    {"CGraphHasLink", 3, &InCalc<graphfn::HasLink>},
    {"CGraphAddLink", 3, &InCalc<graphfn::AddLink>},
    {"CGraphDelLink", 3, &InCalc<graphfn::DelLink>},
    {"CGraphNodeLinkCount", 2, &InCalc<graphfn::NodeLinkCount>},
    {"CGraphNodeLinks", 2, &InCalc<graphfn::NodeLinks>},
    {"CGraphHasGroup", 2, &InCalc<graphfn::HasGroup>},
    {"CGraphGroupNodes", 2, &InCalc<graphfn::GroupNodes>},
    {"CGraphGroupHasNode", 3, &InCalc<graphfn::GroupHasNode>},
    {"CGraphGroupAddNode", 3, &InCalc<graphfn::GroupAddNode>},
    {"CGraphGroupDelNode", 3, &InCalc<graphfn::GroupDelNode>},
    {"CGraphBuildPath", 3, &InCalc<graphfn::BuildPath>},
    {"CGraphBuildBord", 4, &InCalc<graphfn::BuildBord>},
};

}  // namespace

void GraphCalcCreate(KWCalcDef* calc) {
    // A name the host registered already keeps its function (-27 ignored).
    for (const CalcFun& f : kCalcFuns) FunAdd(calc, f.name, f.argc, f.fn, nullptr, nullptr);
}

}  // namespace kwz::calc

#define KWZ_CGRAPH_EDGE(Name)                                                                \
    KWZ_API int32_t CGraph##Name(KWCalcStack* stack) {                                       \
        return kwz::calc::GraphGuarded("Kwz.kwCalc.CGraph" #Name, &kwz::calc::graphfn::Name, \
                                       stack);                                               \
    }

extern "C" {

KWZ_CGRAPH_EDGE(New)
KWZ_CGRAPH_EDGE(NodeCount)
KWZ_CGRAPH_EDGE(Nodes)
KWZ_CGRAPH_EDGE(HasNode)
KWZ_CGRAPH_EDGE(AddNode)
KWZ_CGRAPH_EDGE(DelNode)
KWZ_CGRAPH_EDGE(RenameNode)
KWZ_CGRAPH_EDGE(RenameGroup)
KWZ_CGRAPH_EDGE(LinkCount)
KWZ_CGRAPH_EDGE(HasLink)
KWZ_CGRAPH_EDGE(AddLink)
KWZ_CGRAPH_EDGE(AddLinkFirst)
KWZ_CGRAPH_EDGE(MoveLinkFirst)
KWZ_CGRAPH_EDGE(DelLink)
KWZ_CGRAPH_EDGE(NodeLinkCount)
KWZ_CGRAPH_EDGE(NodeLinks)
KWZ_CGRAPH_EDGE(HasGroup)
KWZ_CGRAPH_EDGE(GroupNodes)
KWZ_CGRAPH_EDGE(GroupHasNode)
KWZ_CGRAPH_EDGE(GroupAddNode)
KWZ_CGRAPH_EDGE(GroupDelNode)
KWZ_CGRAPH_EDGE(BuildPath)
KWZ_CGRAPH_EDGE(BuildBord)

}  // extern "C"
