// Plans: a function whose body is pure arithmetic (no jumps, calls, strings
// or indexes; numbers, arguments, locals, operators, the one-argument math
// built-ins) decoded once for each combination of Int and Dbl arguments into
// register operations on unboxed 8-byte values, with every tag known in
// advance.  A call whose arguments match runs the plan instead of the
// interpreter: same result bits, same instruction count; a zero divisor
// sends it back to the interpreter, which then fails as it always does.
#pragma once

#include <cstdint>
#include <vector>

#include "calc/kwCalcFast.h"

namespace kwz::calc {

struct PlanOp {
    uint8_t code;  // PlanCode
    uint8_t op;    // comparison or math built-in
    uint8_t dst;
    uint8_t a;
    uint8_t b;
};

// Literals a plan holds (more send the function to the interpreter).
constexpr int kPlanConsts = 8;

struct Plan {
    bool ok = false;             // false: this combination of tags runs in the interpreter
    uint8_t params = 0;
    uint8_t regs = 0;            // registers used
    uint8_t constBase = 0;       // the literals' registers start here
    uint8_t result = 0;          // register of "result" at the end
    int32_t resultType = 0;      // its tag (Empty, Int, Dbl)
    int64_t steps = 0;           // instructions the interpreter would run, the end included
    uint8_t constCount = 0;
    uint64_t consts[kPlanConsts] = {};  // copied whole into the registers: no loop, no call
    std::vector<PlanOp> ops;
};

// Plans for every combination of argument tags (bit i set: argument i is a
// Dbl), or none when the body is not pure arithmetic or has more than four
// parameters; never throws but bad_alloc.
std::vector<Plan> MakePlans(const uint8_t* code, int32_t params);

// Runs a plan on the arguments (Int or Dbl, as the plan's tags) and puts the
// result into the first argument's slot; false on a zero divisor, with
// nothing changed.
bool RunPlan(const Plan& p, CVar* args);

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
