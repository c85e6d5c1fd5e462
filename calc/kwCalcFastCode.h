// The pre-decoded form of a compiled function, made once when the function
// is added: its instructions with their operands read out, and the groups
// that loop statements and expressions are made of fused into one step each
// (a comparison with its jump, "x = a op b;", "x = a;", a load and a math
// built-in, a literal and its operator).  It runs what the byte-code fast
// loop (kwCalcFast.h) runs, with the same results, budget counts and stop
// checks, without decoding the bytes again on every pass.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "calc/kwCalcFast.h"
#include "calc/kwCalcPlan.h"

namespace kwz::calc {

struct FastOp {
    uint8_t kind;      // FastKind
    uint8_t op;        // operator (49..70) or built-in code
    uint8_t steps;     // instructions it stands for, all counted against the budget
    uint8_t constB;    // the second operand is k, not variable b
    uint16_t a;        // first variable (frame offset)
    uint16_t b;        // second variable
    uint16_t to;       // variable stored into
    uint16_t ext;      // external index of a call
    uint8_t thenJump;  // a statement op ends with the jump back of its loop (at jmpAt)
    uint32_t jmpAt;
    uint32_t pc;       // offset of its first instruction
    uint32_t jumpPc;   // offset a jump goes to
    int32_t jump;      // index of the op there, -1 when none starts there
    Num k;             // literal
};

// The kind of an op that stands for an instruction the byte-code loop runs.
constexpr uint8_t kFastLeave = 0;

struct FastCode {
    // What the host's call of a one-parameter function reads first, on one
    // cache line: which of plans[0] (Int argument) and plans[1] (Dbl) is a
    // straight plan (bit 0, bit 1; none for other parameter counts), the
    // stack room its code needs, and the plans.
    uint8_t straight = 0;
    int32_t stackNeed = 0;
    // By the mask of Dbl arguments (kwCalcPlan.h); empty when the body is
    // not pure arithmetic.
    std::vector<Plan> plans;
    std::vector<FastOp> ops;
    std::vector<int32_t> at;  // byte offset -> index of the op starting there, or -1
    int32_t prologue = 0;     // the empties ("result" and the vars) the code starts with
    // The externals the plans call as the function itself: a plan runs only
    // while each is still linked to the function's own entry.
    std::vector<uint16_t> planSelf;
    int32_t Index(size_t pc) const { return pc < at.size() ? at[pc] : -1; }
    // No plans from now on (the straight bits go with them).
    void DropPlans() {
        plans.clear();
        planSelf.clear();
        straight = 0;
    }
};

// The form of f's code, or null when it has none (memory runs out, or the
// code holds no end); never throws.
std::shared_ptr<const FastCode> MakeFastCode(const KWFunDef* f);

// FastRun (kwCalcFast.h) on the pre-decoded form from *pc, which must start
// an op; the same contract.
bool FastCodeRun(const FastCode& fc, size_t* pc, CVar* frame, CVar** sp, CVar* limit, KWCalcStack* s,
                 KWCalcNameDef* entry, int32_t floor, int64_t maxSteps, int32_t* status);

}  // namespace kwz::calc
