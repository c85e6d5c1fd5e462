// The interpreter's fast loop: runs without a memory rule, on the
// instructions that touch nothing but numbers and on calls, and hands every
// other one to the full loop in kwCalcRun.cpp.  Its few live values stay in registers,
// which the full loop, with all its cases, cannot afford.
//
// Loop statements run as groups in one pass when the instruction budget
// allows all of the group:
//   load, load or literal, operator [, jf | store, drop]
//   load, store, drop
// Every value in between is a number, so no rule could look at it.
#include "calc/kwCalcEngine.h"
#include "calc/kwCalcFast.h"
#include "calc/kwCalcOps.h"

namespace kwz::calc {
namespace {

using namespace kwz::calcl;

// The target of the jump at pc (the offset counts from its field).
inline size_t Target(const uint8_t* code, size_t pc) {
    return size_t(int64_t(pc + 1) + Load<int32_t>(code + pc + 1));
}

// At pc: "x = top;", a store without indexes and a drop of its value.
inline bool StoreDrop(const uint8_t* code, size_t pc) {
    const uint8_t o = code[pc];
    return (o == kOpStoreParam || o == kOpStoreLocal) && Load<uint16_t>(code + pc + 3) == 0 &&
           code[pc + 5] == kOpCollapse && code[pc + 6] == 0 && code[pc + 7] == 0;
}

// Empties a variable that holds a block before a number goes in; the top is
// written back first, as an object type's code may throw.
inline void Clean(KWCalcStack* s, CVar* sp, CVar* var) {
    s->top = int32_t(sp - s->slots);
    SetEmpty(var);
}

// A number operand: a load without indexes of a number, or a literal.
// False otherwise; *next is past it either way.
inline bool Operand(const uint8_t* code, size_t pc, const CVar* frame, Num* n, size_t* next) {
    const uint8_t o = code[pc];
    if ((o == kOpLoadParam || o == kOpLoadLocal) && Load<uint16_t>(code + pc + 3) == 0) {
        *next = pc + 5;
        const CVar* v = frame + Load<uint16_t>(code + pc + 1);
        *n = NumOf(v);
        return IsNumber(v);
    }
    *next = pc + 9;
    if (o == kOpInt) {
        *n = IntNum(Load<int64_t>(code + pc + 1));
        return true;
    }
    if (o == kOpDbl) {
        *n = DblNum(Load<double>(code + pc + 1));
        return true;
    }
    *next = pc;
    return false;
}

}  // namespace

bool FastRun(const uint8_t* code, size_t* pcAt, CVar* frame, CVar** spAt, CVar* limit, KWCalcStack* s,
             KWCalcNameDef* entry, int32_t floor, int64_t maxSteps, int32_t* status) {
    size_t pc = *pcAt;
    CVar* sp = *spAt;
    bool running = true;
    // With a budget every instruction counts; a group runs fused only when
    // all of it fits, so the budget runs out at the same instruction.
    auto fits = [&](int64_t k) { return !maxSteps || s->steps + k <= maxSteps; };
    auto count = [&](int64_t k) {
        if (maxSteps) s->steps += k;
    };
    for (;;) {
        if (!fits(1)) goto leave;  // the full loop fails at this instruction
        const uint8_t op = code[pc];
        switch (op) {
        case kOpLoadParam:
        case kOpLoadLocal: {
            const CVar* var = frame + Load<uint16_t>(code + pc + 1);
            if (Load<uint16_t>(code + pc + 3) != 0 || !IsNumber(var) || sp >= limit) goto leave;
            pc += 5;
            Num y, r;
            size_t q;
            if (Operand(code, pc, frame, &y, &q) && code[q] >= 49 && code[q] <= 70 && sp + 1 < limit &&
                fits(3) && Compute(code[q], NumOf(var), y, &r)) {
                const uint8_t o = code[q];
                pc = q + 1;
                if (o >= 65 && code[pc] == kOpJumpFalse && fits(4)) {
                    count(4);
                    pc = r.bits != 0 ? pc + 5 : Target(code, pc);
                    continue;
                }
                if (StoreDrop(code, pc) && fits(5)) {
                    count(5);
                    CVar* to = frame + Load<uint16_t>(code + pc + 1);
                    if (!Plain(to)) Clean(s, sp, to);
                    PutNum(to, r);
                    pc += 8;
                    goto statementEnd;
                }
                count(3);
                PutNum(sp++, r);
                continue;
            }
            if (StoreDrop(code, pc) && fits(3)) {
                count(3);
                CVar* to = frame + Load<uint16_t>(code + pc + 1);
                if (!Plain(to)) Clean(s, sp, to);
                CopyNum(to, var);
                pc += 8;
                goto statementEnd;
            }
            count(1);
            CopyNum(sp++, var);
            continue;
        }
        case kOpStoreParam:
        case kOpStoreLocal: {
            if (Load<uint16_t>(code + pc + 3) != 0 || !IsNumber(sp - 1)) goto leave;
            count(1);
            CVar* var = frame + Load<uint16_t>(code + pc + 1);
            if (!Plain(var)) Clean(s, sp, var);
            CopyNum(var, sp - 1);
            pc += 5;
            if (code[pc] == kOpCollapse && code[pc + 1] == 0 && code[pc + 2] == 0 && fits(1)) {
                count(1);
                pc += 3;
                Wipe(--sp);
            }
            continue;
        }
        case kOpEmpty:
            if (sp >= limit) goto leave;
            count(1);
            Wipe(sp++);
            pc += 1;
            continue;
        case kOpInt:
            if (sp >= limit) goto leave;
            count(1);
            PutInt(sp++, Load<int64_t>(code + pc + 1));
            pc += 9;
            continue;
        case kOpDbl:
            if (sp >= limit) goto leave;
            count(1);
            PutDbl(sp++, Load<double>(code + pc + 1));
            pc += 9;
            continue;
        case kOpCollapse:
            if (Load<uint16_t>(code + pc + 1) != 0 || !Plain(sp - 1)) goto leave;
            count(1);
            Wipe(--sp);
            pc += 3;
            continue;
        case kOpDebug:
            count(1);
            pc += 7;
            continue;
        case kOpCall: {
            const uint16_t i = Load<uint16_t>(code + pc + 1);
            KWCalcNameDef* callee = i < entry->externals.size() ? entry->externals[i] : nullptr;
            if (!callee) goto leave;
            count(1);
            s->top = int32_t(sp - s->slots);
            const int32_t st = CallEntry(s, callee, callee->argc > 0 ? callee->argc : 1);
            if (st != kOk) {
                if (s->top < floor) s->top = floor;  // never below the locals
                *status = st;
                sp = s->slots + s->top;
                goto leave;
            }
            sp = s->slots + s->top;
            pc += 3;
            // Host code may have asked to stop.
            if (s->flags.load(std::memory_order_relaxed) & kStopBit) {
                running = false;
                goto leave;
            }
            continue;
        }
        case kOpJump:
            if (s->flags.load(std::memory_order_relaxed) & kStopBit) {
                running = false;
                goto leave;
            }
            count(1);
            pc = Target(code, pc);
            continue;
        case kOpAndTest:
        case kOpOrTest:
        case kOpJumpFalse: {
            if (!Plain(sp - 1)) goto leave;
            count(1);
            const bool t = PlainTruth(sp - 1);
            const bool jump = op == kOpOrTest ? t : !t;
            if (op == kOpJumpFalse) Wipe(--sp);
            pc = jump ? Target(code, pc) : pc + 5;
            continue;
        }
        default:
            if (op >= 49 && op <= 70) {
                if (!FastBinary(op, sp - 2)) goto leave;
                count(1);
                --sp;
                pc += 1;
                // A comparison feeding "jf" jumps at once.
                if (op >= 65 && code[pc] == kOpJumpFalse && fits(1)) {
                    count(1);
                    const bool t = sp[-1].v.i != 0;
                    Wipe(--sp);
                    pc = t ? pc + 5 : Target(code, pc);
                }
                continue;
            }
            if (op == kOpNeg && sp[-1].type == kInt) {
                count(1);
                PutInt(sp - 1, int64_t(0 - uint64_t(sp[-1].v.i)));
                pc += 1;
                continue;
            }
            if (op == kOpNeg && sp[-1].type == kDbl) {
                count(1);
                PutDbl(sp - 1, -sp[-1].v.d);
                pc += 1;
                continue;
            }
            if (op >= 113 && op <= 123 && sp - 1 >= frame && FastMath(op, sp - 1)) {
                count(1);
                pc += 1;
                continue;
            }
            goto leave;
        }
    statementEnd:
        // The last statement of a loop body goes straight on to the jump
        // back.
        if (code[pc] == kOpJump && fits(1)) {
            if (s->flags.load(std::memory_order_relaxed) & kStopBit) {
                running = false;
                goto leave;
            }
            count(1);
            pc = Target(code, pc);
        }
    }
leave:
    *pcAt = pc;
    *spAt = sp;
    return running;
}

}  // namespace kwz::calc
