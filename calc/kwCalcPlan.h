// Plans: a pure function (numbers, arguments, locals, operators, the
// one-argument math built-ins, jumps, exit, and calls of the function
// itself) decoded once for each combination of Int and Dbl arguments into
// register operations on unboxed 8-byte values, with every tag known in
// advance.  A call whose arguments match runs the plan instead of the
// interpreter: same result bits, same instruction count.  Anything rare (a
// zero divisor, the budget, the stop bit, the depth, the stack room) makes
// the plan give up with nothing changed; the interpreter then runs the call
// from its start and reaches the same outcome, as the plan had no effect.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <vector>

#include "calc/kwCalcFast.h"

namespace kwz::calc {

// The operations (their own namespace: the fast loop has ops of the same names).
namespace plan {
enum PlanCode : uint8_t {
    kAddI, kSubI, kMulI, kDivII, kDiviI, kModI, kCmpI,
    kAddD, kSubD, kMulD, kDivD, kCmpD,
    kI2D, kNegI, kNegD, kMath, kMov,
    kSin, kCos, kSqrt,  // the commonest built-ins without the second dispatch
    kSinCos,            // sin into dst, cos into b, of the same a
    kDivDK,             // "/" by a literal other than zero: no divisor check
    // The last operation of a plan whose value is the Dbl result: it goes
    // straight into the result's slot, without the end's dispatch.
    kAddDR, kSubDR, kMulDR, kDivDR, kDivDKR,
    kDone,              // ends every straight plan
    // Plans with jumps and calls (flow plans) only.  Each adds `steps`, the
    // instructions since the previous count, before it acts.
    kSteps,             // a block falls into a jump target
    kJmp, kJmpBack,     // to op `target`; a back edge checks budget and stop bit
    kJfI, kJfD,         // jump when a is false
    kEqJfI, kNeJfI, kLtJfI, kLeJfI, kGtJfI, kGeJfI,  // Int comparison of a, b; jump when false
    kCmpJfD,            // Dbl comparison `op` of a, b; jump when false
    kCall,              // the plan `target` on a, b, c, d; its result into dst
    kRet,               // exit or end: a holds "result"
    kPlanCodes
};
}  // namespace plan

struct PlanOp {
    uint8_t code;    // PlanCode
    uint8_t op;      // comparison or math built-in
    uint8_t dst;
    uint8_t a;
    uint8_t b;
    uint8_t c;       // third and fourth arguments of a call
    uint8_t d;
    uint8_t spare;
    int32_t target;  // op index of a jump, plan index of a call
    int32_t steps;   // instructions counted at this op (flow plans)
};

// A register's bits as a double and back.
inline double PlanDbl(uint64_t b) {
    double d;
    std::memcpy(&d, &b, 8);
    return d;
}
inline uint64_t PlanBits(double d) {
    uint64_t b;
    std::memcpy(&b, &d, 8);
    return b;
}

// Literals a plan holds (more send the function to the interpreter).
constexpr int kPlanConsts = 8;
// The register of a straight plan's first literal (after 24 variables and
// 16 temporaries).
constexpr int kPlanConstBase = 40;

struct Plan {
    bool ok = false;             // false: this combination of tags runs in the interpreter
    bool flow = false;           // jumps or calls: RunFlowPlan runs it
    uint8_t params = 0;
    uint8_t regs = 0;            // registers used
    uint8_t constBase = 0;       // the literals' registers start here
    uint8_t result = 0;          // register of "result" at the end
    uint8_t window = 0;          // flow plans: the registers of one frame
    int32_t resultType = 0;      // its tag (Empty, Int, Dbl)
    int64_t steps = 0;           // straight plans: instructions the interpreter would run, the end included
    uint8_t constCount = 0;
    uint64_t consts[kPlanConsts] = {};  // copied whole into the registers: no loop, no call
    std::vector<PlanOp> ops;
};

// Plans for every combination of argument tags (bit i set: argument i is a
// Dbl), or none when the body is not pure or has more than four parameters.
// The externals a plan treats as calls of the function itself go to
// *selfCalls: a plan may run only while each of them is linked to the
// function's own entry.  Never throws but bad_alloc.
std::vector<Plan> MakePlans(const KWFunDef* f, std::vector<uint16_t>* selfCalls);

// How a flow plan ended.  A plan that passes the budget or the depth limit
// knows the interpreter would end the run there too (nothing else can fail
// in between: a zero divisor gives up at once), so the call fails without
// running the interpreter again, which could otherwise take time beyond the
// budget once for every level of a recursion.
enum class PlanEnd { kDone, kGiveUp, kSteps, kDepth };

// Runs flow plan p of the family `plans` (MakePlans' vector) the same way.
// At most `limit` instructions (the budget left; kSteps past it), at most
// `maxNest` nested self-calls (kDepth past it when depthBound, else
// kGiveUp); kGiveUp, with nothing changed, on a zero divisor, when the stop
// bit is found set at a back edge or a call, or when memory for the frames
// runs out.  *steps: the instructions run (kDone, kDepth).
PlanEnd RunFlowPlan(const Plan* plans, const Plan& p, CVar* args, const std::atomic<uint32_t>& flags,
                    int64_t limit, int32_t maxNest, bool depthBound, int64_t* steps);

// What FlowPlanCall returns when no plan runs the call: none was tried, or
// one gave up part of the way.
constexpr int32_t kNoPlan = 1;
constexpr int32_t kPlanGaveUp = 2;

// Runs straight plan p on the arguments args of a call on s (Int or Dbl, as
// the plan's tags): 0 with the result in the first argument's slot and
// s->steps set to steps (stored here, so that callers keep nothing across
// the run), or kNoPlan with nothing changed (a zero divisor, which the
// interpreter then reports).
int32_t RunPlan(const Plan& p, CVar* args, KWCalcStack* s, int64_t steps) noexcept;

// Runs flow plan p of compiled entry e on the top nargs values of s (its
// arguments, whose tags select p), under the stack's budget, stop bit and
// depthLimit, as the interpreter would run the call: 0 with the result in
// the first argument's slot, or -50 / -52 with the arguments gone and the
// step count where the interpreter would stop; kNoPlan or kPlanGaveUp, with
// nothing changed, when no plan ran it.  Out of line, so that the straight
// plans' path stays small enough to be inlined into the host's call.
int32_t FlowPlanCall(KWCalcStack* s, KWCalcNameDef* e, const Plan& p, int32_t nargs, int32_t depthLimit);

// While the interpreter runs a call whose plan gave up, the calls it makes
// on that stack do not try flow plans: they would give up at the same point
// again, once for every level of a recursion.  Marks s from its present
// depth for the object's life (one thread: the marker is per thread).
class FlowPlansOff {
public:
    explicit FlowPlansOff(const KWCalcStack* s);
    ~FlowPlansOff();
    FlowPlansOff(const FlowPlansOff&) = delete;
    FlowPlansOff& operator=(const FlowPlansOff&) = delete;

private:
    const KWCalcStack* stack_;
    int32_t depth_;
};

// The plan for these arguments, or null.
inline const Plan* PlanFor(const std::vector<Plan>& plans, const CVar* args, int32_t params) {
    if (plans.empty()) return nullptr;
    if (params == 1) {  // the common case without the loop
        const int32_t t = args[0].type;
        if (t != kInt && t != kDbl) return nullptr;
        const Plan& p = plans[t == kDbl];
        return p.ok ? &p : nullptr;
    }
    uint32_t mask = 0;
    for (int32_t i = 0; i < params; ++i) {
        if (args[i].type == kDbl) mask |= 1u << i;
        else if (args[i].type != kInt) return nullptr;
    }
    const Plan& p = plans[mask];
    return p.ok ? &p : nullptr;
}

}  // namespace kwz::calc
