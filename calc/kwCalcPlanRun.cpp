// The loops that run plans.  Each operation gives the bits the operator
// module gives for those tags: Int wraps, "/" divides as doubles,
// comparisons follow IEEE (NaN unordered), a zero divisor gives up.
//
// A flow plan keeps its frames in one array of 8-byte words, the first ones
// on the C stack and the rest on the heap when a recursion goes deeper:
//
//   [frame 0 registers][ret op | caller plan | caller offset << 8 | dst][frame 1 registers] ...
//
// A frame's registers are its variables, its temporaries and its literals
// (MakePlans numbers them so); the three words before a callee's registers
// say where its result goes and where the caller goes on.
#include <cmath>
#include <cstring>
#include <new>

#include <algorithm>
#include <cstdint>

#include "calc/kwCalcEngine.h"
#include "calc/kwCalcFastCode.h"
#include "calc/kwCalcPlan.h"

namespace kwz::calc {
namespace {

using namespace plan;

// The registers hold doubles as their bits; sincos writes them through this.
using AliasDbl = double __attribute__((may_alias));

inline double D(uint64_t b) { return PlanDbl(b); }
inline uint64_t B(double d) { return PlanBits(d); }

template <typename T>
bool Compare(uint8_t op, T a, T b) {
    switch (op) {
    case 65: return a == b;
    case 66: return a != b;
    case 67: return a < b;
    case 68: return a <= b;
    case 69: return a > b;
    default: return a >= b;  // 70
    }
}

constexpr int kFrameHeader = 3;

// The stack and depth FlowPlansOff marks on this thread (none: null).
thread_local const KWCalcStack* tOffStack = nullptr;
thread_local int32_t tOffDepth = 0;
constexpr size_t kInlineWords = 1024;  // the C stack's part: 8 KiB, used once, at the innermost call

}  // namespace

// The operations on numbers both loops share; the loop defines A, BB, X
// (registers a, b, dst of op o), NEXT and GIVE_UP (a zero divisor).
#define KW_PLAN_ARITH                                                          \
    addI: X = A + BB; NEXT();                                                  \
    subI: X = A - BB; NEXT();                                                  \
    mulI: X = A * BB; NEXT();                                                  \
    divII:                                                                     \
        if (BB == 0) GIVE_UP;                                                  \
        X = B(double(int64_t(A)) / double(int64_t(BB)));                       \
        NEXT();                                                                \
    diviI: /* INT64_MIN \ -1 wraps */                                          \
        if (BB == 0) GIVE_UP;                                                  \
        X = int64_t(BB) == -1 ? 0 - A : uint64_t(int64_t(A) / int64_t(BB));    \
        NEXT();                                                                \
    modI:                                                                      \
        if (BB == 0) GIVE_UP;                                                  \
        X = int64_t(BB) == -1 ? 0 : uint64_t(int64_t(A) % int64_t(BB));        \
        NEXT();                                                                \
    cmpI: X = Compare(o->op, int64_t(A), int64_t(BB)); NEXT();                 \
    addD: X = B(AddDbl(D(A), D(BB))); NEXT();                                  \
    subD: X = B(D(A) - D(BB)); NEXT();                                         \
    mulD: X = B(MulDbl(D(A), D(BB))); NEXT();                                  \
    divD:                                                                      \
        if (D(BB) == 0) GIVE_UP;                                               \
    divDK:                                                                     \
        X = B(D(A) / D(BB));                                                   \
        NEXT();                                                                \
    cmpD: X = Compare(o->op, D(A), D(BB)); NEXT();                             \
    i2d: X = B(double(int64_t(A))); NEXT();                                    \
    negI: X = 0 - A; NEXT();                                                   \
    negD: X = B(-D(A)); NEXT();                                                \
    math: {                                                                    \
        double y = 0;                                                          \
        MathOne(o->op, D(A), y);                                               \
        X = B(y);                                                              \
        NEXT();                                                                \
    }                                                                          \
    mov: X = A; NEXT();                                                        \
    sin: X = B(std::sin(D(A))); NEXT();                                        \
    cos: X = B(std::cos(D(A))); NEXT();                                        \
    sqrt: X = B(std::sqrt(D(A))); NEXT();                                      \
    sincos: /* straight into the registers: no copy between the call and its users */ \
        ::sincos(D(A), reinterpret_cast<AliasDbl*>(&X), reinterpret_cast<AliasDbl*>(&BB)); \
        NEXT();

int32_t RunPlan(const Plan& p, CVar* args, KWCalcStack* s, int64_t steps) noexcept {
    // Threaded: every operation jumps to the next one's code itself, so
    // each has its own place in the branch predictor.  In PlanCode order;
    // the flow plans' codes never occur here.
    static void* const kCode[] = {
        &&addI, &&subI, &&mulI, &&divII, &&diviI, &&modI, &&cmpI,
        &&addD, &&subD, &&mulD, &&divD, &&cmpD,
        &&i2d, &&negI, &&negD, &&math, &&mov,
        &&sin, &&cos, &&sqrt, &&sincos, &&divDK,
        &&addDR, &&subDR, &&mulDR, &&divDR, &&divDKR, &&done,
    };
    static_assert(sizeof kCode / sizeof kCode[0] == kDone + 1, "one label per operation");
    // The registers, then the stack, the count and the slot the end stores:
    // in memory, as they are needed only there, and a register kept across
    // the math calls costs a save and a restore.
    uint64_t r[kPlanConstBase + kPlanConsts + 3];
    r[kPlanConstBase + kPlanConsts] = reinterpret_cast<uintptr_t>(s);
    r[kPlanConstBase + kPlanConsts + 1] = uint64_t(steps);
    r[kPlanConstBase + kPlanConsts + 2] = reinterpret_cast<uintptr_t>(args);
    r[0] = uint64_t(NumOf(args).bits);
    if (p.params > 1) {  // two to four, unrolled: the loop costs more than the loads
        switch (p.params) {
        case 4: r[3] = uint64_t(NumOf(args + 3).bits); [[fallthrough]];
        case 3: r[2] = uint64_t(NumOf(args + 2).bits); [[fallthrough]];
        default: r[1] = uint64_t(NumOf(args + 1).bits);
        }
    }
    // The literals: two words in one copy, the common case, else all.
    if (p.constCount > 2) std::memcpy(r + kPlanConstBase, p.consts, sizeof p.consts);
    else if (p.constCount) std::memcpy(r + kPlanConstBase, p.consts, 2 * sizeof p.consts[0]);
    const PlanOp* o = p.ops.data();
#define GIVE_UP return kNoPlan
#define A r[o->a]
#define BB r[o->b]
#define X r[o->dst]
#define NEXT() goto* kCode[(++o)->code]
#define RESULT_SLOT reinterpret_cast<CVar*>(r[kPlanConstBase + kPlanConsts + 2])
#define DONE_OK                                                                                \
    do {                                                                                       \
        reinterpret_cast<KWCalcStack*>(r[kPlanConstBase + kPlanConsts])->steps =               \
            int64_t(r[kPlanConstBase + kPlanConsts + 1]);                                      \
        return kOk;                                                                            \
    } while (0)
    goto* kCode[o->code];
    KW_PLAN_ARITH
addDR: PutDbl(RESULT_SLOT, AddDbl(D(A), D(BB))); DONE_OK;
subDR: PutDbl(RESULT_SLOT, D(A) - D(BB)); DONE_OK;
mulDR: PutDbl(RESULT_SLOT, MulDbl(D(A), D(BB))); DONE_OK;
divDR:
    if (D(BB) == 0) return kNoPlan;
divDKR:
    PutDbl(RESULT_SLOT, D(A) / D(BB));
    DONE_OK;
done:  // op: the result's tag, a: its register
    if (o->op == kEmpty) Wipe(RESULT_SLOT);
    else PutBits(RESULT_SLOT, o->op, A);
    DONE_OK;
#undef RESULT_SLOT
#undef DONE_OK
#undef NEXT
#undef GIVE_UP
}

// Aligned, so that the timing of its loops does not depend on the size of
// the code before it (a shift of the threaded code by a few bytes changed a
// loop's speed by a third).
__attribute__((aligned(64))) PlanEnd RunFlowPlan(const Plan* plans, const Plan& first, CVar* args,
                                                 const std::atomic<uint32_t>& flags, int64_t limit,
                                                 int32_t maxNest, bool depthBound, int64_t* stepsOut) {
    static void* const kCode[] = {
        &&addI, &&subI, &&mulI, &&divII, &&diviI, &&modI, &&cmpI,
        &&addD, &&subD, &&mulD, &&divD, &&cmpD,
        &&i2d, &&negI, &&negD, &&math, &&mov,
        &&sin, &&cos, &&sqrt, &&sincos, &&divDK,
        &&bad, &&bad, &&bad, &&bad, &&bad, &&bad,
        &&steps, &&jmp, &&jmpBack, &&jfI, &&jfD,
        &&eqJfI, &&neJfI, &&ltJfI, &&leJfI, &&gtJfI, &&geJfI, &&cmpJfD,
        &&call, &&ret,
    };
    static_assert(sizeof kCode / sizeof kCode[0] == kPlanCodes, "one label per operation");
    uint64_t inlineWords[kInlineWords];
    std::vector<uint64_t> heap;  // the frames once they outgrow the C stack's part
    uint64_t* buf = inlineWords;
    size_t cap = kInlineWords;
    const Plan* p = &first;
    uint64_t* r = buf;
    switch (p->params) {
    case 4: r[3] = uint64_t(NumOf(args + 3).bits); [[fallthrough]];
    case 3: r[2] = uint64_t(NumOf(args + 2).bits); [[fallthrough]];
    case 2: r[1] = uint64_t(NumOf(args + 1).bits); [[fallthrough]];
    default: r[0] = uint64_t(NumOf(args).bits);
    }
    for (int i = 0; i < p->constCount; ++i) r[p->constBase + i] = p->consts[i];
    const PlanOp* ops = p->ops.data();
    const PlanOp* o = ops;
    int64_t n = 0;
    int32_t level = 0;
#define GIVE_UP return PlanEnd::kGiveUp
#define NEXT() goto* kCode[(++o)->code]
#define JUMP() goto* kCode[(o = ops + o->target)->code]
#define BRANCH(cond)      \
    n += o->steps;        \
    if (cond) NEXT();     \
    JUMP();
    goto* kCode[o->code];
    KW_PLAN_ARITH
#undef KW_PLAN_ARITH
steps:
    n += o->steps;
    NEXT();
jmp:
    n += o->steps;
    JUMP();
jmpBack:
    n += o->steps;
    if (n > limit) return PlanEnd::kSteps;
    if (flags.load(std::memory_order_relaxed) & kStopBit) GIVE_UP;
    JUMP();
jfI: BRANCH(A != 0)
jfD: BRANCH(!(D(A) > -1.0 && D(A) < 1.0))  // the truth of a Dbl: non-zero once truncated (NaN too)
eqJfI: BRANCH(A == BB)
neJfI: BRANCH(A != BB)
ltJfI: BRANCH(int64_t(A) < int64_t(BB))
leJfI: BRANCH(int64_t(A) <= int64_t(BB))
gtJfI: BRANCH(int64_t(A) > int64_t(BB))
geJfI: BRANCH(int64_t(A) >= int64_t(BB))
cmpJfD: BRANCH(Compare(o->op, D(A), D(BB)))
call: {
    n += o->steps;
    if (n > limit) return PlanEnd::kSteps;
    if (level >= maxNest) {
        *stepsOut = n;
        return depthBound ? PlanEnd::kDepth : PlanEnd::kGiveUp;
    }
    if (flags.load(std::memory_order_relaxed) & kStopBit) GIVE_UP;
    const Plan* q = plans + o->target;
    const size_t at = size_t(r - buf) + p->window;  // the callee's header
    const size_t need = at + kFrameHeader + q->window;
    if (need > cap) {
        try {
            const size_t grown = need * 2;
            if (heap.empty()) {
                heap.resize(grown);
                std::memcpy(heap.data(), buf, at * sizeof(uint64_t));
            } else {
                heap.resize(grown);
            }
        } catch (const std::bad_alloc&) {
            GIVE_UP;
        }
        buf = heap.data();
        cap = heap.size();
        r = buf + (at - p->window);
    }
    uint64_t* h = buf + at;
    h[0] = reinterpret_cast<uintptr_t>(o + 1);
    h[1] = reinterpret_cast<uintptr_t>(p);
    h[2] = (uint64_t(r - buf) << 8) | o->dst;
    uint64_t* nr = h + kFrameHeader;
    switch (q->params) {
    case 4: nr[3] = r[o->d]; [[fallthrough]];
    case 3: nr[2] = r[o->c]; [[fallthrough]];
    case 2: nr[1] = r[o->b]; [[fallthrough]];
    default: nr[0] = r[o->a];
    }
    for (int i = 0; i < q->constCount; ++i) nr[q->constBase + i] = q->consts[i];
    r = nr;
    p = q;
    ops = o = q->ops.data();
    ++level;
    goto* kCode[o->code];
}
ret: {
    n += o->steps;
    if (n > limit) return PlanEnd::kSteps;
    const uint64_t v = r[o->a];
    if (level == 0) {
        if (p->resultType == kEmpty) Wipe(args);
        else PutBits(args, p->resultType, v);
        *stepsOut = n;
        return PlanEnd::kDone;
    }
    const uint64_t* h = r - kFrameHeader;
    o = reinterpret_cast<const PlanOp*>(uintptr_t(h[0]));
    p = reinterpret_cast<const Plan*>(uintptr_t(h[1]));
    r = buf + (h[2] >> 8);
    r[h[2] & 0xff] = v;
    ops = p->ops.data();
    --level;
    goto* kCode[o->code];
}
bad:  // the straight plans' fused returns: never in a flow plan
    GIVE_UP;
#undef A
#undef BB
#undef X
#undef NEXT
#undef JUMP
#undef BRANCH
#undef GIVE_UP
}

FlowPlansOff::FlowPlansOff(const KWCalcStack* s) : stack_(tOffStack), depth_(tOffDepth) {
    tOffStack = s;
    tOffDepth = s->depth;
}

FlowPlansOff::~FlowPlansOff() {
    tOffStack = stack_;
    tOffDepth = depth_;
}

__attribute__((noinline)) int32_t FlowPlanCall(KWCalcStack* s, KWCalcNameDef* e, const Plan& p, int32_t nargs,
                                               int32_t depthLimit) {
    if (tOffStack == s && s->depth > tOffDepth) return kNoPlan;
    const FastCode* fc = e->fast.get();
    const KWFunDef* f = static_cast<const KWFunDef*>(e->data);
    CVar* const args = s->slots + s->top - nargs;
    const int64_t maxSteps = s->calculator ? s->calculator->maxSteps : 0;
    const int64_t base = s->depth == 0 ? 0 : s->steps;  // the outermost call starts the count
    // A plan calls the function through its own externals: only while they
    // still lead back to this entry (a relink or a deletion may have changed
    // them since the plan was made).
    for (const uint16_t x : fc->planSelf)
        if (x >= e->externals.size() || e->externals[x] != e) return kNoPlan;
    // Nested calls the interpreter could make: the depth limit, and the
    // stack room each frame's test asks for (a frame starts at most
    // stackNeed slots above its caller's; a bound, so the plan gives up
    // there rather than fail).
    const int64_t inc = f->stackNeed > 0 ? f->stackNeed : 1;
    const int64_t room = int64_t(s->capacity) - 1 - (s->top - nargs) - 2 * int64_t(nargs) - f->stackNeed;
    const int64_t byDepth = int64_t(depthLimit) - 1 - s->depth;
    const int64_t byStack = std::max<int64_t>(room / inc, 0);
    const int64_t nest = std::min(byDepth, byStack);
    int64_t ran = 0;
    const int64_t limit = maxSteps ? maxSteps - base : INT64_MAX;
    const PlanEnd end = RunFlowPlan(fc->plans.data(), p, args, s->flags, limit,
                                    int32_t(std::min<int64_t>(nest, INT32_MAX)), byDepth <= byStack, &ran);
    if (end == PlanEnd::kGiveUp) return kPlanGaveUp;
    if (end != PlanEnd::kDone) {
        // -50 stops at the first instruction beyond the budget, -52 at the call.
        s->steps = end == PlanEnd::kSteps ? maxSteps + 1 : base + (maxSteps ? ran : 0);
        for (int32_t i = 0; i < nargs; ++i) Wipe(args + i);  // numbers: nothing to free
        s->top -= nargs;
        return end == PlanEnd::kSteps ? kStepLimit : kDepthLimit;
    }
    s->steps = base + (maxSteps ? ran : 0);
    for (int32_t i = 1; i < nargs; ++i) Wipe(args + i);
    s->top -= nargs - 1;
    return kOk;
}

}  // namespace kwz::calc
