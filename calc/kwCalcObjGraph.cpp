// "Graph": the descriptor of the graph type, its registration with the
// script constants, property reads and method calls, the operators and the
// buffer form.  The functions calculators get are in kwCalcObjGraphFun.cpp.
#include "calc/kwCalcObjGraph.h"

#include <cstring>
#include <initializer_list>
#include <memory>
#include <new>
#include <utility>

#include "base/kwBase.h"
#include "base/kwGuard.h"
#include "calc/kwCalcConst.h"
#include "calc/kwCalcEngine.h"
#include "calc/kwCalcStack.h"

namespace kwz::calc {

int32_t GraphTypeNum = 0;

namespace {

constexpr const char* kTypeName = "Graph";

GraphHolder* HolderOf(const CVar* v) { return static_cast<GraphHolder*>(v->v.p); }

// Drops v's reference (the graph goes with the last one) and leaves v empty.
void Release(CVar* v) {
    if (GraphHolder* h = HolderOf(v); h && --h->references <= 0) {
        delete h->graph;
        delete h;
    }
    std::memset(v, 0, sizeof *v);
}

// Runs a slot body with running out of memory reported as -21.
template <typename Fn>
int32_t Guard(const char* tag, Fn&& body) {
    return kwz::CEdge(tag, kNoMem, kNotSupported, std::forward<Fn>(body));
}

}  // namespace

bool IsGraph(const CVar* v) { return GraphTypeNum != 0 && v->type == GraphTypeNum && HolderOf(v); }

TGraphItem* GraphOf(const CVar* v) { return IsGraph(v) ? HolderOf(v)->graph : nullptr; }

void SetGraph(CVar* v, std::unique_ptr<TGraphItem> graph) {
    auto holder = std::make_unique<GraphHolder>(GraphHolder{graph.get(), 1});
    graph.release();
    SetEmpty(v);
    v->v.p = holder.release();
    v->type = GraphTypeNum;
}

void SetNewGraph(CVar* v) { SetGraph(v, std::make_unique<TGraphItem>()); }

namespace {

// --- descriptor slots ------------------------------------------------------------

void Free(CVar* v) { Release(v); }

// The copy shares the holder: both values denote the same graph.
void CopySlot(CVar* dst, const CVar* src) {
    if (dst->type != kEmpty) SetEmpty(dst);
    std::memcpy(dst, src, sizeof *dst);
    if (GraphHolder* h = HolderOf(dst)) ++h->references;
}

int32_t Cast(CVar* v, int32_t to) { return to == v->type ? kOk : kNotSupported; }

// new("Graph", anything): a new empty graph, as CGraphNew.
int32_t New(KWCalcStack* s) { return GraphGuarded("Kwz.kwCalc.mGraphNew", &graphfn::New, s); }

int32_t UndefFun(CVar*, const char*) { return kUnknownFun; }

// --- names -------------------------------------------------------------------------

// Property and method names are found in two steps, which scripts rely on: the
// first four letters (PropNameToInt) choose the candidates, which are then
// compared whole, ignoring case.
enum : int32_t { kNoPrefix = -2, kNoWhole = -1 };

struct Name {
    const char* text;
    int32_t number;
};

int32_t FindName(const CVar* sel, std::initializer_list<Name> names) {
    const char* text = sel->v.s ? sel->v.s : "";
    const uint32_t key = PropNameToInt(text);
    int32_t found = kNoPrefix;
    for (const Name& n : names) {
        if (PropNameToInt(n.text) != key) continue;
        const int32_t len = int32_t(std::strlen(n.text));
        if (sel->count == len && StrCmpI(text, sel->count, n.text, len) == 0) return n.number;
        found = kNoWhole;
    }
    return found;
}

// A property given by number or by name; 0 when it is neither of them.
int32_t PropertyOf(const CVar* sel, std::initializer_list<Name> names) {
    if (sel->type == kInt) {
        for (const Name& n : names)
            if (sel->v.i == n.number) return n.number;
        return 0;
    }
    if (sel->type != kStr) return 0;
    const int32_t p = FindName(sel, names);
    return p > 0 ? p : 0;
}

// The property and method numbers (the "ip" and "im" constants).
enum Prop : int32_t {
    kPNodeCount = 1, kPNodes, kPHasNode, kPLinkCount, kPHasLink, kPNodeLinkCount, kPNodeLinks,
    kPHasGroup, kPGroupNodes, kPGroupHasNode
};
enum Method : int32_t {
    kMAddNode = 1, kMDelNode, kMRenameNode, kMRenameGroup, kMAddLink, kMAddLinkFirst,
    kMMoveLinkFirst, kMDelLink, kMGroupAddNode, kMGroupDelNode
};

using Fn = int32_t (*)(KWCalcStack*);

Fn PropertyFn(int32_t p) {
    switch (p) {
    case kPNodeCount: return &graphfn::NodeCount;
    case kPNodes: return &graphfn::Nodes;
    case kPHasNode: return &graphfn::HasNode;
    case kPLinkCount: return &graphfn::LinkCount;
    case kPHasLink: return &graphfn::HasLink;
    case kPNodeLinkCount: return &graphfn::NodeLinkCount;
    case kPNodeLinks: return &graphfn::NodeLinks;
    case kPHasGroup: return &graphfn::HasGroup;
    case kPGroupNodes: return &graphfn::GroupNodes;
    case kPGroupHasNode: return &graphfn::GroupHasNode;
    default: return nullptr;
    }
}

Fn MethodFn(int32_t m) {
    switch (m) {
    case kMAddNode: return &graphfn::AddNode;
    case kMDelNode: return &graphfn::DelNode;
    case kMRenameNode: return &graphfn::RenameNode;
    case kMRenameGroup: return &graphfn::RenameGroup;
    case kMAddLink: return &graphfn::AddLink;
    case kMDelLink: return &graphfn::DelLink;
    case kMGroupAddNode: return &graphfn::GroupAddNode;
    case kMGroupDelNode: return &graphfn::GroupDelNode;
    default: return nullptr;
    }
}

// --- property read -------------------------------------------------------------------

// Slot 0 the graph, slot 1 the selector: a number 1..4, a name, or an array
// [property, id] or [property, id, id].
int32_t GetBody(KWCalcStack* s) {
    CVar* obj = StackArg(s, 0);
    CVar* sel = StackArg(s, 1);
    if (!obj || !sel || !IsGraph(obj)) return kNotSupported;
    switch (sel->type) {
    case kInt: {
        // Property 3 by bare number reads as "has node 3": the selector itself
        // stands as the identifier, which scripts rely on.
        const Fn fn = sel->v.i >= kPNodeCount && sel->v.i <= kPLinkCount ? PropertyFn(int32_t(sel->v.i)) : nullptr;
        return fn ? fn(s) : kNoProp;
    }
    case kStr: {
        // "HasNode" by name has the name standing as the identifier: -44.
        const int32_t p = FindName(sel, {{"LinkCount", kPLinkCount}, {"NodeCount", kPNodeCount},
                                         {"Nodes", kPNodes}, {"HasNode", kPHasNode}});
        return p > 0 ? PropertyFn(p)(s) : kNoProp;
    }
    case kArr: break;
    default: return kNotSupported;
    }
    const CVar* e = sel->v.a;
    if (sel->count == 2) {
        if (e[1].type != kInt) return kNoProp;
        const int32_t p = PropertyOf(&e[0], {{"NodeLinkCount", kPNodeLinkCount}, {"NodeLinks", kPNodeLinks},
                                             {"HasGroup", kPHasGroup}, {"GroupNodes", kPGroupNodes}});
        if (!p) return kNoProp;
        SetInt(sel, e[1].v.i);
        return PropertyFn(p)(s);
    }
    if (sel->count == 3) {
        if (e[1].type != kInt || e[2].type != kInt) return kNoProp;
        const int32_t p = PropertyOf(&e[0], {{"HasLink", kPHasLink}, {"GroupHasNode", kPGroupHasNode}});
        if (!p) return kNoProp;
        CVar* third = StackArg(s, 2);
        if (!third) return kStackSmall;
        if (s->top < s->base + 3) s->top = s->base + 3;  // so that the frame's end empties it
        const int64_t a = e[1].v.i, b = e[2].v.i;
        SetInt(third, b);
        SetInt(sel, a);
        return PropertyFn(p)(s);
    }
    return kNoProp;
}

int32_t Get(KWCalcStack* s) { return Guard("Kwz.kwCalc.mGraphGet", [&] { return GetBody(s); }); }

// --- method call ----------------------------------------------------------------------

// Slot 0 the graph, slot 1 the method (number or name), slot 2 the argument.
int32_t CallBody(KWCalcStack* s) {
    CVar* obj = StackArg(s, 0);
    CVar* sel = StackArg(s, 1);
    CVar* arg = StackArg(s, 2);
    if (!obj || !sel || !IsGraph(obj)) return kNotSupported;
    if (!arg) return kStackSmall;
    if (s->top < s->base + 3) s->top = s->base + 3;
    if (sel->type == kInt) {
        if (sel->v.i == kMAddNode) {
            if (arg->type != kInt) return kNotSupported;
            Move(sel, arg);
            return graphfn::AddNode(s);
        }
        if (arg->type != kArr || arg->count != 2) return kNoProp;
        CVar first{}, second{};
        int32_t st = Copy(&first, &arg->v.a[0]);
        if (st == kOk) st = Copy(&second, &arg->v.a[1]);
        if (st != kOk) {
            SetEmpty(&first);
            return st;
        }
        const int64_t m = sel->v.i;
        Move(sel, &first);
        Move(arg, &second);
        // DelNode (2) is not callable by number, AddLinkFirst (6) and
        // MoveLinkFirst (7) not at all: kept so, scripts test for -48.
        const Fn fn = m == kMDelNode || m == kMAddLinkFirst || m == kMMoveLinkFirst || m < 1 || m > 10
                          ? nullptr
                          : MethodFn(int32_t(m));
        return fn ? fn(s) : kNoProp;
    }
    if (sel->type != kStr) return kOk;  // nothing to do, and no error
    const int32_t m = FindName(sel, {{"AddNode", kMAddNode}, {"DelNode", kMDelNode},
                                     {"AddLink", kMAddLink}, {"DelLink", kMDelLink},
                                     {"RenameNode", kMRenameNode}, {"RenameGroup", kMRenameGroup},
                                     {"GroupAddNode", kMGroupAddNode}, {"GroupDelNode", kMGroupDelNode}});
    if (m == kNoPrefix) return kNotSupported;
    if (m == kNoWhole) return kNoProp;
    if (m == kMAddNode || m == kMDelNode) {
        if (arg->type != kInt) return kNotSupported;
        Move(sel, arg);
    }
    // The other methods run on the frame as it stands: their name sits where
    // the first identifier is expected, so they answer -44.  Kept as it is.
    return MethodFn(m)(s);
}

int32_t Call(KWCalcStack* s) { return Guard("Kwz.kwCalc.mGraphCall", [&] { return CallBody(s); }); }

// --- operators ---------------------------------------------------------------------------

// A op B of two graphs: the result is copied into a new graph that replaces
// A, whose own reference is released.
int32_t Operator(const char* tag, CVar* a, TGraphItem (TGraphItem::*op)(TGraphItem const&) const) {
    return Guard(tag, [&] {
        const TGraphItem* x = GraphOf(a);
        const TGraphItem* y = GraphOf(a + 1);
        if (!x || !y) return kNotSupported;
        const TGraphItem r = (x->*op)(*y);
        auto g = std::make_unique<TGraphItem>();
        g->Copy(r);
        SetGraph(a, std::move(g));
        return kOk;
    });
}

int32_t OperAdd(CVar* a) { return Operator("Kwz.kwCalc.CGraphOperAdd", a, &TGraphItem::operator+); }
int32_t OperSub(CVar* a) { return Operator("Kwz.kwCalc.CGraphOperSub", a, &TGraphItem::operator-); }
int32_t OperMul(CVar* a) { return Operator("Kwz.kwCalc.CGraphOperMul", a, &TGraphItem::operator*); }
int32_t OperDiv(CVar* a) { return Operator("Kwz.kwCalc.CGraphOperDiv", a, &TGraphItem::operator/); }
int32_t OperAnd(CVar* a) { return Operator("Kwz.kwCalc.CGraphOperAnd", a, &TGraphItem::operator&); }
int32_t OperXor(CVar* a) { return Operator("Kwz.kwCalc.CGraphOperXor", a, &TGraphItem::operator^); }

int32_t Equality(CVar* a, bool equal) {
    const TGraphItem* x = GraphOf(a);
    const TGraphItem* y = GraphOf(a + 1);
    if (!x || !y) return kNotSupported;
    const bool same = *x == *y;
    SetInt(a, same == equal ? 1 : 0);
    return kOk;
}
int32_t OperEq(CVar* a) { return Equality(a, true); }
int32_t OperNEq(CVar* a) { return Equality(a, false); }

// --- buffer form ---------------------------------------------------------------------------
//
// All fields uint32 in the machine's byte order:
//
//   | size | magic 0x012358D0 | n | n node ids | k | 2k (owner, neighbour) |
//   | g | g records: 1 + m, node id, m member ids | (one unwritten word) |
//
// Nodes and their half-links in list order, so each link appears twice.  The
// size counts one word more than is written: readers count that word in the
// size they skip, so it is declared, and it stays unwritten.

constexpr uint32_t kMagic = 0x12358D0;
constexpr uint32_t kHead = 20;

uint64_t FormSize(const TGraphItem& g) {
    uint64_t groups = 0, members = 0;
    for (const TGraphNode* n = g.nodeFirst; n; n = n->nodeNext) {
        if (!n->groupFirst) continue;
        ++groups;
        for (const TGraphNode* m = n->groupFirst; m; m = m->groupFirst) ++members;
    }
    return kHead + 4 * (uint64_t(g.nodeCount) + 4 * uint64_t(g.linkCount)) + 4 * (members + 2 * groups + 1);
}

int32_t ToBuff(const CVar* v, void* dest, int32_t room) {
    const TGraphItem* g = GraphOf(v);
    if (!g) return 0;
    const uint64_t size = FormSize(*g);
    if (size > uint64_t(INT32_MAX)) return 0;  // no image can hold it
    if (!dest) return int32_t(size);
    if (room < 0 || size > uint64_t(room)) return 0;
    auto* p = static_cast<uint8_t*>(dest);
    auto put = [&p](uint32_t x) {
        std::memcpy(p, &x, 4);
        p += 4;
    };
    put(uint32_t(size));
    put(kMagic);
    put(g->nodeCount);
    for (const TGraphNode* n = g->nodeFirst; n; n = n->nodeNext) put(n->id);
    put(g->linkCount);
    for (const TGraphNode* n = g->nodeFirst; n; n = n->nodeNext)
        for (const TGraphLink* l = n->linkFirst; l; l = l->next) {
            put(n->id);
            put(l->pair->owner->id);
        }
    uint32_t groups = 0;
    for (const TGraphNode* n = g->nodeFirst; n; n = n->nodeNext) groups += n->groupFirst ? 1 : 0;
    put(groups);
    for (const TGraphNode* n = g->nodeFirst; n; n = n->nodeNext) {
        if (!n->groupFirst) continue;
        uint32_t m = 0;
        for (const TGraphNode* e = n->groupFirst; e; e = e->groupFirst) ++m;
        put(1 + m);
        put(n->id);
        for (const TGraphNode* e = n->groupFirst; e; e = e->groupFirst) put(e->id);
    }
    return int32_t(size);
}

// Reads words within the form's declared size.
class FormReader {
public:
    FormReader(const uint8_t* p, uint64_t size) : p_(p), left_(size) {}
    bool Word(uint32_t* x) {
        if (left_ < 4) return false;
        std::memcpy(x, p_, 4);
        p_ += 4;
        left_ -= 4;
        return true;
    }
    // A count of items of wordsEach words, all of which must lie within the form.
    bool Count(uint32_t* x, uint64_t wordsEach) { return Word(x) && Fits(uint64_t(*x) * wordsEach); }
    bool Fits(uint64_t words) const { return words * 4 <= left_; }

private:
    const uint8_t* p_;
    uint64_t left_;
};

// The nodes, then the links whose both ends are nodes, then each group record's
// members pushed at the head of the named node's list (skipped when the node
// is missing).  False when a part reaches past the declared size.
bool ReadForm(FormReader& r, TGraphItem& g) {
    uint32_t n = 0, k = 0, groups = 0, id = 0, other = 0;
    if (!r.Count(&n, 1)) return false;
    for (uint32_t i = 0; i < n; ++i) {
        r.Word(&id);
        g.AppendNode(id);
    }
    if (!r.Count(&k, 4)) return false;
    for (uint64_t i = 0; i < 2 * uint64_t(k); ++i) {
        r.Word(&id);
        r.Word(&other);
        TGraphNode* a = g.FindNode(id);
        TGraphNode* b = g.FindNode(other);
        if (a && b) g.AppendLink(*a, *b);
    }
    if (!r.Word(&groups)) return false;
    for (uint32_t i = 0; i < groups; ++i) {
        uint32_t count = 0;
        if (!r.Word(&count) || count == 0 || !r.Word(&id) || !r.Fits(count - 1)) return false;
        TGraphNode* node = g.FindNode(id);
        for (uint32_t j = 0; j + 1 < count; ++j) {
            r.Word(&other);
            if (node) g.AppendGroupNode(*node, other);
        }
    }
    return true;
}

// Replaces v by the graph of the form: its declared size, or 0 for no source,
// a size below 20, another magic, or (a robustness bound) a form that reaches
// past its declared size or past the image it lies in.
int32_t FromBuffBody(CVar* v, const void* src) {
    if (!src) return 0;
    const auto* p = static_cast<const uint8_t*>(src);
    const size_t left = ImageBytesLeft();
    if (left < 8) return 0;
    uint32_t size = 0, magic = 0;
    std::memcpy(&size, p, 4);
    std::memcpy(&magic, p + 4, 4);
    if (size < kHead || magic != kMagic || size > uint32_t(INT32_MAX) || size > left) return 0;
    auto g = std::make_unique<TGraphItem>();
    FormReader r(p + 8, size - 8);
    if (!ReadForm(r, *g)) return 0;
    SetGraph(v, std::move(g));
    return int32_t(size);
}

int32_t FromBuff(CVar* v, const void* src) {
    return Guard("Kwz.kwCalc.CGraphFromBuff", [&] { return FromBuffBody(v, src); });
}

void CalcCreate(KWCalcDef* calc) { GraphCalcCreate(calc); }

constexpr KWCalcObjDef MakeDef() {
    KWCalcObjDef d{};
    d.name = kTypeName;
    d.CalcCreate = &CalcCreate;
    d.Free = &Free;
    d.Copy = &CopySlot;
    d.Cast = &Cast;
    d.New = &New;
    d.Get = &Get;
    d.Call = &Call;
    d.UndefFun = &UndefFun;
    d.ToBuff = &ToBuff;
    d.FromBuff = &FromBuff;
    d.Sum = &OperAdd;
    d.Sub = &OperSub;
    d.Mul = &OperMul;
    d.Div = &OperDiv;
    d.LE = &OperEq;
    d.LNE = &OperNEq;
    d.BAnd = &OperAnd;
    d.BXor = &OperXor;
    return d;
}

KWCalcObjDef g_def = MakeDef();

// --- registration ----------------------------------------------------------------------------

// The script constants after "itGraph" and "stGraph", in their order.  Kept
// exactly as hosts' scripts know them: property 9 has no name constant of its
// own (it sets "spGraph_NodeCount" again, which keeps its first value), and
// the names of methods 3 to 10 begin with "smXml_".
struct Constant {
    const char* name;
    int32_t number;    // the "ip"/"im" constants
    const char* text;  // the "sp"/"sm" constants; null for a number
};
const Constant kConstants[] = {
    {"ipGraph_NodeCount", 1, nullptr},     {"spGraph_NodeCount", 0, "NodeCount"},
    {"ipGraph_Nodes", 2, nullptr},         {"spGraph_Nodes", 0, "Nodes"},
    {"ipGraph_HasNode", 3, nullptr},       {"spGraph_HasNode", 0, "HasNode"},
    {"ipGraph_LinkCount", 4, nullptr},     {"spGraph_LinkCount", 0, "LinkCount"},
    {"ipGraph_HasLink", 5, nullptr},       {"spGraph_HasLink", 0, "HasLink"},
    {"ipGraph_NodeLinkCount", 6, nullptr}, {"spGraph_NodeLinkCount", 0, "NodeLinkCount"},
    {"ipGraph_NodeLinks", 7, nullptr},     {"spGraph_NodeLinks", 0, "NodeLinks"},
    {"ipGraph_HasGroup", 8, nullptr},      {"spGraph_HasGroup", 0, "HasGroup"},
    {"ipGraph_GroupNodes", 9, nullptr},    {"spGraph_NodeCount", 0, "NodeCount"},
    {"ipGraph_GroupHasNode", 10, nullptr}, {"spGraph_GroupHasNode", 0, "GroupHasNode"},
    {"imGraph_AddNode", 1, nullptr},       {"smGraph_AddNode", 0, "AddNode"},
    {"imGraph_DelNode", 2, nullptr},       {"smGraph_DelNode", 0, "DelNode"},
    {"imGraph_RenameNode", 3, nullptr},    {"smXml_RenameNode", 0, "RenameNode"},
    {"imGraph_RenameGroup", 4, nullptr},   {"smXml_RenameGroup", 0, "RenameGroup"},
    {"imGraph_AddLink", 5, nullptr},       {"smXml_AddLink", 0, "AddLink"},
    {"imGraph_AddLinkFirst", 6, nullptr},  {"smXml_AddLinkFirst", 0, "AddLinkFirst"},
    {"imGraph_MoveLinkFirst", 7, nullptr}, {"smXml_MoveLinkFirst", 0, "MoveLinkFirst"},
    {"imGraph_DelLink", 8, nullptr},       {"smXml_DelLink", 0, "DelLink"},
    {"imGraph_GroupAddNode", 9, nullptr},  {"smXml_GroupAddNode", 0, "GroupAddNode"},
    {"imGraph_GroupDelNode", 10, nullptr}, {"smXml_GroupDelNode", 0, "GroupDelNode"},
};

void DefineConstants(KWCalcConst* table, int32_t tag) {
    ConstInt(table, "itGraph", tag, nullptr);
    ConstStr(table, "stGraph", kTypeName, int32_t(std::strlen(kTypeName)), nullptr);
    for (const Constant& c : kConstants) {
        if (c.text) ConstStr(table, c.name, c.text, int32_t(std::strlen(c.text)), nullptr);
        else ConstInt(table, c.name, c.number, nullptr);
    }
}

// Also "itXml" and "stXml", the XML type's: hosts unregister the two types
// together and rely on this one clearing both tags.  "spGraph_NodeCount" is
// deleted twice, the second time finding nothing.
void DeleteConstants(KWCalcConst* table) {
    for (const char* name : {"itXml", "stXml", "itGraph", "stGraph"}) ConstDel(table, name);
    for (const Constant& c : kConstants) ConstDel(table, c.name);
}

void Unregister() {
    TypeReg(GraphTypeNum, nullptr);
    GraphTypeNum = 0;
}

KWCalcObjDef* Register(int32_t tag, KWCalcConst* constants) {
    if (tag == 0) {
        if (GraphTypeNum != 0) {
            Unregister();
            if (constants) DeleteConstants(constants);
        }
        return nullptr;
    }
    if (tag == GraphTypeNum) return &g_def;
    if (GraphTypeNum != 0) Unregister();
    if (!IsObjTag(tag) || ObjType(tag)) return nullptr;
    GraphTypeNum = tag;
    if (constants) {
        try {
            DefineConstants(constants, tag);
        } catch (...) {
            GraphTypeNum = 0;
            throw;
        }
    }
    return TypeReg(tag, &g_def);
}

}  // namespace
}  // namespace kwz::calc

extern "C" {

KWZ_API KWCalcObjDef* GraphObjTypeReg(int32_t tag, KWCalcConst* constants) {
    return kwz::CEdge("Kwz.kwCalc.GraphObjTypeReg", static_cast<KWCalcObjDef*>(nullptr),
                      static_cast<KWCalcObjDef*>(nullptr),
                      [&] { return kwz::calc::Register(tag, constants); });
}

}  // extern "C"
