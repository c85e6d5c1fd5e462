// The graph object type on untrusted bytes.  The input is up to four value
// images (read with CVarFromBuffN; graph values carry the tag 0x1e) followed
// by operations of three bytes each (what, operands, argument) on those four
// values: the operators, property reads, method calls, the graph functions,
// copies, image round trips and arrays of graphs.  Nothing may crash, read
// out of bounds or leak, and every graph value keeps a sane holder count.
#include <VomKwz.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr int32_t kGraph = 30;
constexpr uint32_t kMaxNodes = 2000;   // larger graphs are not combined further
constexpr int32_t kMaxImage = 1 << 14;  // larger values are not nested further

void Check(bool ok) {
    if (!ok) std::abort();
}

struct Holder {
    TGraphItem* graph;
    int32_t references;
};

uint32_t Nodes(const CVar* v) {
    return v->type == kGraph ? GraphNodeCount(static_cast<const Holder*>(v->v.p)->graph) : 0;
}

using Slot = int32_t (*KWCalcObjDef::*)(CVar*);
const Slot kSlots[] = {&KWCalcObjDef::Sum, &KWCalcObjDef::Sub, &KWCalcObjDef::Mul, &KWCalcObjDef::Div,
                       &KWCalcObjDef::BAnd, &KWCalcObjDef::BXor, &KWCalcObjDef::LE, &KWCalcObjDef::LNE};
constexpr int kSlotCount = int(sizeof kSlots / sizeof kSlots[0]);

using Fn = int32_t (*)(KWCalcStack*);
struct Function {
    Fn fn;
    int ids;  // identifier arguments after the graph
};
const Function kFunctions[] = {
    {CGraphNodeCount, 0}, {CGraphNodes, 0},         {CGraphHasNode, 1},      {CGraphAddNode, 1},
    {CGraphDelNode, 1},   {CGraphRenameNode, 2},    {CGraphRenameGroup, 2},  {CGraphLinkCount, 0},
    {CGraphHasLink, 2},   {CGraphAddLink, 2},       {CGraphAddLinkFirst, 2}, {CGraphMoveLinkFirst, 2},
    {CGraphDelLink, 2},   {CGraphNodeLinkCount, 1}, {CGraphNodeLinks, 1},    {CGraphHasGroup, 1},
    {CGraphGroupNodes, 1}, {CGraphGroupHasNode, 2}, {CGraphGroupAddNode, 2}, {CGraphGroupDelNode, 2},
    {CGraphBuildPath, 2},
};
constexpr int kFunctionCount = int(sizeof kFunctions / sizeof kFunctions[0]);

// x := x op y through the graph type's slot, as the engine calls it.
void Operate(int which, CVar* x, const CVar* y) {
    if (Nodes(x) > kMaxNodes || Nodes(y) > kMaxNodes) return;
    CVar pair[2] = {};
    CVarCopy(&pair[0], x);
    CVarCopy(&pair[1], y);
    const KWCalcObjDef* def = KWCalcObjType(kGraph);
    if ((def->*kSlots[which])(pair) == 0) CVarMove(x, &pair[0]);
    CVarClear(pair, 2);
}

// One graph function with x as the graph: its answer replaces x only when it
// is a graph (so that the pool keeps its graphs).
void CallFunction(KWCalcStack* s, int which, CVar* x, uint8_t arg) {
    const Function& f = kFunctions[which];
    KWCalcStackClear(s);
    CVarCopy(KWCalcStackPush(s), x);
    for (int i = 0; i < f.ids; ++i) CVarSetInt(KWCalcStackPush(s), i == 0 ? arg & 15 : arg >> 4);
    if (f.fn(s) == 0 && KWCalcStackArg(s, 0)->type == kGraph) CVarMove(x, KWCalcStackArg(s, 0));
    KWCalcStackClear(s);
}

// A selector of the property protocol, or a method and its argument.
void Selector(CVar* v, uint8_t o, uint8_t arg) {
    static const char* const kNames[] = {"NodeCount", "nodes", "HasNode", "LinkCount", "AddNode",
                                         "DelNode",   "AddLink", "Node"};
    switch (o & 3) {
    case 0: CVarSetInt(v, arg & 15); break;
    case 1: CVarSetStr(v, kNames[arg & 7], int32_t(std::strlen(kNames[arg & 7]))); break;
    case 2:
    case 3: {
        const int32_t n = 1 + (o & 1) + (arg >> 7);
        CVarSetArr(v, n);
        if (v->count != n) return;
        CVarSetInt(&v->v.a[0], (arg & 15) % 11);
        for (int32_t i = 1; i < n; ++i) CVarSetInt(&v->v.a[i], (arg >> (2 * i)) & 7);
        break;
    }
    }
}

void Property(KWCalcStack* s, CVar* x, uint8_t o, uint8_t arg) {
    KWCalcStackClear(s);
    Selector(KWCalcStackPush(s), o >> 2, arg);
    CVarGetObjVar(s, x, 1);
    KWCalcStackClear(s);
}

void Method(KWCalcStack* s, CVar* x, uint8_t o, uint8_t arg) {
    if (x->type != kGraph) return;
    KWCalcStackClear(s);
    CVarCopy(KWCalcStackPush(s), x);
    Selector(KWCalcStackPush(s), o >> 2, arg);
    Selector(KWCalcStackPush(s), o >> 4, uint8_t(arg * 7));
    KWCalcObjType(kGraph)->Call(s);
    KWCalcStackClear(s);
}

std::vector<uint8_t> ImageOf(const CVar* v) {
    const int32_t n = CVarToBuff(v, nullptr, 0);
    std::vector<uint8_t> out(size_t(n > 0 ? n : 0));
    if (n > 0) Check(CVarToBuff(v, out.data(), n) == n);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool registered = GraphObjTypeReg(kGraph, nullptr) != nullptr;
    Check(registered);
    if (size > 1 << 16) return 0;
    // A copy of exactly `size` bytes, so that the sanitizer sees any read past it.
    std::vector<uint8_t> bytes(data, data + size);
    const uint8_t* p = bytes.data();
    size_t left = size;
    CVar pool[4] = {};
    int filled = 0;
    if (left > 0) {
        const int wanted = 1 + (*p & 3);
        ++p;
        --left;
        for (; filled < wanted && left > 0; ++filled) {
            const int32_t n = CVarFromBuffN(&pool[filled], p, int32_t(left));
            if (n == 0) {
                Check(pool[filled].type == 0);
                break;
            }
            Check(n > 0 && size_t(n) <= left);
            p += n;
            left -= size_t(n);
        }
    }
    KWCalcStack* stack = nullptr;
    Check(KWCalcStackCreate(nullptr, &stack, 8) == 0);
    for (int steps = 0; left >= 3 && steps < 256; ++steps, p += 3, left -= 3) {
        const uint8_t what = p[0], o = p[1], arg = p[2];
        CVar* x = &pool[o & 3];
        CVar* y = &pool[(o >> 2) & 3];
        const int kind = what % 40;
        if (kind < kSlotCount) {
            if (x->type == kGraph && y->type == kGraph) Operate(kind, x, y);
        } else if (kind < kSlotCount + kFunctionCount) {
            if (x->type == kGraph && Nodes(x) <= kMaxNodes) CallFunction(stack, kind - kSlotCount, x, arg);
        } else if (kind == 29) {
            Property(stack, x, o, arg);
        } else if (kind == 30) {
            Method(stack, x, o, arg);
        } else if (kind == 31) {
            // Round trip: the size comes back, the graph reads back equal.
            const std::vector<uint8_t> image = ImageOf(x);
            CVar back{};
            const int32_t n = CVarFromBuffN(&back, image.data(), int32_t(image.size()));
            Check(n == int32_t(image.size()));
            if (x->type == kGraph && n > 0)
                Check(GraphEqual(static_cast<Holder*>(x->v.p)->graph, static_cast<Holder*>(back.v.p)->graph));
            CVarSetEmpty(&back);
        } else if (kind == 32) {
            if (x != y) CVarCopy(x, y);
        } else if (kind == 33) {
            // A graph's reference copy shares the holder; a Str or Arr
            // reference must not outlive what it aliases, so only graphs.
            if (y->type == kGraph) CVarCopyRef(x, y);
        } else if (kind == 34) {
            CVar arr{};
            CVarSetArr(&arr, 2);
            const int32_t nx = CVarToBuff(x, nullptr, 0), ny = CVarToBuff(y, nullptr, 0);
            if (arr.count == 2 && nx > 0 && ny > 0 && nx + ny <= kMaxImage) {
                CVarCopy(&arr.v.a[0], x);
                CVarCopy(&arr.v.a[1], y);
                CVarMove(x, &arr);
            }
            CVarSetEmpty(&arr);
        } else if (kind == 35) {
            KWCalcStackClear(stack);
            CVarSetStr(KWCalcStackPush(stack), "graph", 5);
            CVarCopy(KWCalcStackPush(stack), y);
            if (CVar_New(stack) == 0) CVarMove(x, KWCalcStackArg(stack, 0));
            KWCalcStackClear(stack);
        } else {
            CVarSetEmpty(x);
        }
        for (const CVar& v : pool)
            if (v.type == kGraph) Check(static_cast<const Holder*>(v.v.p)->references >= 1);
    }
    KWCalcStackFree(stack);
    CVarClear(pool, 4);
    return 0;
}
