// Calls and the interpreter of compiled code, and the exported calling
// functions.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "base/kwGuard.h"
#include "calc/kwCalcEngine.h"
#include "calc/kwCalcFast.h"
#include "calc/kwCalcFastCode.h"
#include "calc/kwCalcOps.h"
#include "calc/kwCalcVar.h"

namespace kwz::calc {
namespace {

using ErrorHook = int32_t (*)(KWCalcStack*, int32_t position, int32_t status);

// Empties slots [from, s->top) and makes `from` the top.
void DropTo(KWCalcStack* s, int32_t from) {
    if (s->top > from) Clear(s->slots + from, s->top - from);
    s->top = from;
}

int32_t DepthLimit(const KWCalcStack* s) {
    const KWCalcDef* c = s->calculator;
    return c && c->maxDepth > 0 ? c->maxDepth : kDefaultDepth;
}

// Bytes held by a value's strings and arrays (nesting counted to a bound).
int64_t HeldBy(const CVar* v, int32_t depth) {
    if (v->ref != 0) return 0;
    if (v->type == kStr && v->v.s) return int64_t(StrCapacity(v->count));
    if (v->type != kArr || !v->v.a) return 0;
    int64_t n = int64_t(v->count) * int64_t(sizeof(CVar));
    if (depth < 64)
        for (int32_t i = 0; i < v->count; ++i) n += HeldBy(&v->v.a[i], depth + 1);
    return n;
}

int32_t CheckMemory(const KWCalcStack* s) {
    const int64_t limit = s->calculator ? s->calculator->maxMemory : 0;
    if (limit <= 0) return kOk;
    int64_t held = 0;
    for (int32_t i = 0; i < s->top; ++i) held += HeldBy(&s->slots[i], 0);
    return held > limit ? kMemLimit : kOk;
}

// The fast loops from *pc: the pre-decoded one where an op starts there,
// then the byte-code one from where it stopped (it may run part of a group
// the other left whole); FastRun's contract.
inline __attribute__((always_inline)) bool RunFast(KWCalcNameDef* entry, const uint8_t* code, size_t* pc, CVar* frame, CVar** sp, CVar* limit,
             KWCalcStack* s, int32_t floor, int64_t maxSteps, int32_t* status) {
    using namespace kwz::calcl;
    if (const FastCode* fc = entry->fast.get(); fc && fc->Index(*pc) >= 0) {
        if (!FastCodeRun(*fc, pc, frame, sp, limit, s, entry, floor, maxSteps, status)) return false;
        if (*status != kOk || code[*pc] == kOpEnd || code[*pc] == kOpExit) return true;
    }
    return FastRun(code, pc, frame, sp, limit, s, entry, floor, maxSteps, status);
}

struct TryRecord {
    uint32_t target;  // offset of its 251
    int32_t top;      // the top when the try began
    int32_t status;   // 0 until its argument fails
};

// Loads the variable at `var` (n indexes on the top) and leaves its value
// where the first index was (or pushes it for n = 0).
int32_t LoadVar(KWCalcStack* s, CVar* var, int32_t n) {
    if (n == 0) {
        if (s->top >= s->capacity) return kStackSmall;
        CVar* d = &s->slots[s->top++];
        if (var->type == kInt || var->type == kDbl) {
            *d = *var;  // the slot above the top is empty: nothing to free
            return kOk;
        }
        CopyRef(d, var);
        return kOk;
    }
    CVar* idx = s->slots + s->top - n;
    CVar out{};
    int32_t st = kOk;
    if (var->type == kStr) {
        if (n != 1) return kBadIndex;
        st = GetChar(&out, var, idx);
    } else if (var->type == kArr) {
        CVar* item = ArrItm(var, idx, n, &st);
        if (!item) return st == kOk ? kBadIndex : st;
        CopyRef(&out, item);
    } else if (IsObjTag(var->type)) {
        // The type reads its selectors from a frame starting at them.
        const int32_t base = s->base;
        s->base = s->top - n;
        st = GetObjVar(s, var, n);
        s->base = base;
        if (st != kOk) return st;
        return kOk;  // the frame left the one result where the first index was
    } else {
        return kBadIndex;
    }
    if (st != kOk) {
        SetEmpty(&out);
        return st;
    }
    DropTo(s, s->top - n);
    Move(&s->slots[s->top++], &out);
    return kOk;
}

// Stores the top value into the variable (n indexes below it); the value
// stays on the stack as the expression's value, in the first index's place.
int32_t StoreVar(KWCalcStack* s, CVar* var, int32_t n) {
    CVar* value = &s->slots[s->top - 1];
    if (n == 0) {
        if (value->type == kInt || value->type == kDbl) {
            if (var->type != kInt && var->type != kDbl) SetEmpty(var);
            *var = *value;
            return kOk;
        }
        CVar copy{};
        if (const int32_t st = Copy(&copy, value); st != kOk) return st;
        Move(var, &copy);
        return kOk;
    }
    CVar* idx = value - n;
    int32_t st = kOk;
    if (var->type == kStr) {
        if (n != 1) return kBadIndex;
        if ((st = Own(var)) != kOk) return st;
        st = PutChar(var, idx, value);
    } else if (var->type == kArr) {
        if ((st = Own(var)) != kOk) return st;
        CVar* item = ArrItm(var, idx, n, &st);
        if (!item) return st == kOk ? kBadIndex : st;
        CVar copy{};
        if ((st = Copy(&copy, value)) != kOk) return st;
        Move(item, &copy);
    } else if (IsObjTag(var->type)) {
        CVar keep{};
        if ((st = Copy(&keep, value)) != kOk) return st;
        const int32_t base = s->base;
        s->base = s->top - n - 1;
        st = PutObjVar(s, var, n);
        s->base = base;
        if (st != kOk) {
            SetEmpty(&keep);
            return st;
        }
        Move(&s->slots[s->top - 1], &keep);
        return kOk;
    } else {
        return kBadIndex;
    }
    if (st != kOk) return st;
    CVar v{};
    Move(&v, value);
    DropTo(s, s->top - 1 - n);
    Move(&s->slots[s->top++], &v);
    return kOk;
}

// 248: indexes applied to a computed value below them.
int32_t IndexValue(KWCalcStack* s, int32_t n) {
    CVar* holder = &s->slots[s->top - n - 1];
    CVar value{};
    Move(&value, holder);
    SetEmpty(holder);
    // The value is loaded as a variable through a temporary slot.
    const int32_t st = LoadVar(s, &value, n);
    if (st == kOk) {
        Move(holder, &s->slots[s->top - 1]);
        // LoadVar left the result where the indexes began; own it before the
        // value it may alias goes.
        if ((holder->type == kStr || holder->type == kArr) && holder->ref) {
            CVar own{};
            const int32_t c = Copy(&own, holder);
            SetEmpty(holder);
            if (c != kOk) {
                SetEmpty(&value);
                DropTo(s, s->top - 1);
                return c;
            }
            Move(holder, &own);
        }
        DropTo(s, s->top - 1);
    }
    SetEmpty(&value);
    return st;
}

// 252 exit and 253 end: "result" (the first local) goes to the frame's first
// slot, the rest of the frame is emptied.
inline __attribute__((always_inline)) int32_t Finish(KWCalcStack* s, int32_t params) {
    CVar* const frame = s->slots + s->base;
    CVar* const top = s->slots + s->top;
    CVar* const res = frame + params;
    if (res < top && Plain(res)) {
        // Numbers need no freeing: the frame is emptied in place.
        CVar result;
        CopyNum(&result, res);
        for (CVar* v = frame; v < top; ++v) {
            if (Plain(v)) Wipe(v);
            else SetEmpty(v);
        }
        CopyNum(frame, &result);
        s->top = s->base + 1;
        return kOk;
    }
    CVar result{};
    Move(&result, res);
    DropTo(s, s->base);
    Move(&s->slots[s->top++], &result);
    return kOk;
}

// The full interpreter, from pc with the frame set up by Run; `pending` is
// the status of a call the fast loop made at pc (0: none).  The top lives in
// `sp` while the loop runs; it is written back to the stack before anything
// that reads it (SYNC) and read again after (RELOAD).  The stop bit is read
// at entry, at jumps and after calls and the slow paths (anything that may
// run host code): a loop cannot go round, nor host code be re-entered,
// without passing one of them.
int32_t Interpret(KWCalcStack* s, KWCalcNameDef* entry, size_t pc, int32_t floor, int32_t pending) {
    using namespace kwz::calcl;
    const KWFunDef* f = static_cast<const KWFunDef*>(entry->data);
    const int32_t params = f->paramCount;
    const int32_t base = s->base;
    CVar* const slots = s->slots;
    CVar* const frame = slots + base;
    CVar* const limit = slots + s->capacity;
    const int64_t maxSteps = s->calculator ? s->calculator->maxSteps : 0;
    const bool memory = s->calculator && s->calculator->maxMemory > 0;
    const uint8_t* const code = f->code;
    std::vector<TryRecord> tries;
    CVar* sp = slots + s->top;
    // Without a memory rule the fast loop runs what it can; this loop runs
    // the instruction it stops at.
    const bool fast = !memory;
#define SYNC() (s->top = int32_t(sp - slots))
#define RELOAD() (sp = slots + s->top)
    for (;;) {
        // A call the fast loop made may have failed: its status is handled
        // here, at its position.
        int32_t st = pending;
        pending = kOk;
        if (st == kOk && fast && !RunFast(entry, code, &pc, frame, &sp, limit, s, floor, maxSteps, &st)) {
            SYNC();
            return kStopped;
        }
        if (st == kOk && maxSteps && ++s->steps > maxSteps) {  // (a failed call was counted)
            SYNC();
            return kStepLimit;
        }
        const size_t at = pc;
        const uint8_t op = code[pc];
        if (st == kOk) switch (op) {
        case kOpLoadParam:
        case kOpLoadLocal: {
            const uint16_t i = Load<uint16_t>(code + pc + 1), n = Load<uint16_t>(code + pc + 3);
            pc += 5;
            CVar* var = frame + i;
            if (n == 0 && IsNumber(var) && sp < limit) {
                CopyNum(sp++, var);
                continue;
            }
            SYNC();
            st = LoadVar(s, var, n);
            RELOAD();
            break;
        }
        case kOpStoreParam:
        case kOpStoreLocal: {
            const uint16_t i = Load<uint16_t>(code + pc + 1), n = Load<uint16_t>(code + pc + 3);
            pc += 5;
            CVar* var = frame + i;
            CVar* value = sp - 1;
            // "var = value;" stores and drops: an owned Str moves instead of
            // being copied and dropped (no memory budget sees the moment
            // between).
            const bool dropNext = !memory && code[pc] == kOpCollapse && code[pc + 1] == 0 &&
                                  code[pc + 2] == 0;
            const bool number = n == 0 && IsNumber(value);
            // Below, anything out of line may end in an exception (an object
            // type's code): the stack's top is current before it.
            SYNC();
            if (number) {
                if (!Plain(var)) SetEmpty(var);
                CopyNum(var, value);
            } else if (n == 0 && dropNext && value->type == kStr && value->ref == 0) {
                Move(var, value);
            } else {
                st = StoreVar(s, var, n);
                RELOAD();
                if (st != kOk) break;
            }
            if (dropNext) {
                if (maxSteps && ++s->steps > maxSteps) {
                    SYNC();
                    return kStepLimit;
                }
                pc += 3;
                --sp;
                if (Plain(sp)) Wipe(sp);
                else SetEmpty(sp);
                break;
            }
            if (number) continue;
            break;
        }
        case kOpEmpty:
            pc += 1;
            if (sp >= limit) { st = kStackSmall; break; }
            Wipe(sp++);
            continue;
        case kOpInt:
            if (sp >= limit) { st = kStackSmall; break; }
            PutInt(sp++, Load<int64_t>(code + pc + 1));
            pc += 9;
            continue;
        case kOpDbl:
            if (sp >= limit) { st = kStackSmall; break; }
            PutDbl(sp++, Load<double>(code + pc + 1));
            pc += 9;
            continue;
        case kOpStr: {
            const uint16_t n = Load<uint16_t>(code + pc + 1);
            if (sp >= limit) { st = kStackSmall; break; }
            SYNC();
            st = SetStr(sp++, reinterpret_cast<const char*>(code + pc + 3), n);
            pc += 3 + size_t(n) + 1;
            break;
        }
        case kOpCollapse: {
            const uint16_t c = Load<uint16_t>(code + pc + 1);
            pc += 3;
            SYNC();
            if (c == 0) {
                --sp;
                if (Plain(sp)) Wipe(sp);
                else SetEmpty(sp);
            } else {
                CVar keep{};
                Move(&keep, sp - 1);
                SYNC();
                DropTo(s, s->top - 1 - c);
                RELOAD();
                Move(sp++, &keep);
            }
            break;
        }
        case kOpDebug:
            pc += 7;
            continue;
        case kOpCall: {
            const uint16_t i = Load<uint16_t>(code + pc + 1);
            pc += 3;
            KWCalcNameDef* callee = i < entry->externals.size() ? entry->externals[i] : nullptr;
            if (!callee) { st = kUnknownFun; break; }
            SYNC();
            st = CallEntry(s, callee, callee->argc > 0 ? callee->argc : 1);
            if (st != kOk && s->top < floor) s->top = floor;  // never below the locals
            RELOAD();
            break;
        }
        case kOpJump:
            if (s->flags.load(std::memory_order_relaxed) & kStopBit) {
                SYNC();
                return kStopped;
            }
            pc = size_t(int64_t(pc + 1) + Load<int32_t>(code + pc + 1));
            continue;
        case kOpAndTest:
        case kOpOrTest:
        case kOpJumpFalse: {
            bool t = false;
            SYNC();
            if (Plain(sp - 1)) {
                t = PlainTruth(sp - 1);
            } else if ((st = Truth(sp - 1, &t)) != kOk) {
                break;
            }
            const bool jump = op == kOpOrTest ? t : !t;
            if (op == kOpJumpFalse) {
                --sp;
                if (Plain(sp)) Wipe(sp);
                else SetEmpty(sp);
            }
            pc = jump ? size_t(int64_t(pc + 1) + Load<int32_t>(code + pc + 1)) : pc + 5;
            break;
        }
        case kOpIndex: {
            const uint16_t n = Load<uint16_t>(code + pc + 1);
            pc += 3;
            SYNC();
            st = IndexValue(s, n);
            RELOAD();
            break;
        }
        case kOpArray: {
            const uint32_t n = Load<uint32_t>(code + pc + 1);
            pc += 5;
            SYNC();
            if (n == 0) {
                if (sp >= limit) { st = kStackSmall; break; }
                st = SetArr(sp++, 0);
            } else {
                st = ArrCopy(sp - int32_t(n), int32_t(n));
                if (st == kOk) sp -= int32_t(n) - 1;
            }
            break;
        }
        case kOpTry:
            SYNC();
            tries.push_back(TryRecord{Load<uint32_t>(code + pc + 1), int32_t(sp - slots), 0});
            pc += 5;
            break;
        case kOpEndTry: {
            pc += 1;
            const TryRecord r = tries.back();
            tries.pop_back();
            SYNC();
            DropTo(s, r.top);
            RELOAD();
            PutInt(sp++, r.status);
            break;
        }
        case kOpExit:
        case kOpEnd:
            SYNC();
            return Finish(s, params);
        default:
            if (op >= 49 && op <= 90) {
                pc += 1;
                if (op >= 81 && op <= 83) {  // unary
                    CVar* x = sp - 1;
                    if (op == 81 && x->type == kInt) {
                        x->v.i = int64_t(0 - uint64_t(x->v.i));
                        continue;
                    }
                    if (op == 81 && x->type == kDbl) {
                        x->v.d = -x->v.d;
                        continue;
                    }
                    SYNC();
                    st = Operate(op, x);
                    break;
                }
                CVar* x = sp - 2;
                if (FastBinary(op, x)) {
                    --sp;
                    continue;
                }
                SYNC();
                if ((st = Operate(op, x)) == kOk) --sp;
            } else if (op >= 97 && op <= 180) {
                pc += 1;
                if (op >= 113 && op <= 123 && sp - 1 >= frame && FastMath(op, sp - 1)) continue;
                SYNC();
                st = Builtin(s, op, floor);
                RELOAD();
            } else {
                st = kNotSupported;  // not an instruction: damaged code
            }
            break;
        }
        if (st == kOk) {
            if (memory && sp > slots) {
                const CVar* t = sp - 1;
                if ((t->type == kStr || t->type == kArr) && t->ref == 0) {
                    SYNC();
                    st = CheckMemory(s);
                }
            }
            if (st == kOk) {
                // Host code (calls, object types) may have asked to stop.
                if (s->flags.load(std::memory_order_relaxed) & kStopBit) {
                    SYNC();
                    return kStopped;
                }
                continue;
            }
        }
        SYNC();
        if (st == kStopped || IsBudget(st) || tries.empty()) {
            if (!IsBudget(st) && s->errorHook)
                reinterpret_cast<ErrorHook>(s->errorHook)(s, int32_t(at), st);
            return st;
        }
        TryRecord& r = tries.back();
        r.status = st;
        DropTo(s, r.top);
        RELOAD();
        pc = r.target;
        if (s->flags.load(std::memory_order_relaxed) & kStopBit) return kStopped;
    }
#undef SYNC
#undef RELOAD
}

// KWFunProc: sets up the frame, runs the fast loop and finishes there when
// it reaches the end; anything else goes on in the full loop.
int32_t Run(KWCalcStack* s, KWCalcNameDef* entry) {
    using namespace kwz::calcl;
    const KWFunDef* f = static_cast<const KWFunDef*>(entry->data);
    if (!f || !f->code) return kNotSupported;
    const int32_t params = f->paramCount;
    // A call without arguments passed one empty value: a function without
    // parameters starts its frame at it, so its "result" takes that slot.
    if (params == 0) DropTo(s, s->base);
    if (!(f->stackNeed + params < s->capacity - s->top)) return kStackSmall;
    if (s->flags.load(std::memory_order_relaxed) & kStopBit) return kStopped;
    CVar* const slots = s->slots;
    const int64_t maxSteps = s->calculator ? s->calculator->maxSteps : 0;
    const uint8_t* const code = f->code;
    size_t pc = 0;
    // The prologue pushes "result" and the vars; the locals end after them,
    // and a built-in that reads beyond its arguments (ldexp) must not reach them.
    int32_t floor = s->base + params;
    // The prologue at once when it fits (the loop below fails at the exact
    // empty otherwise).
    if (const FastCode* fc = entry->fast.get(); fc && fc->prologue > 0 && s->top + fc->prologue <= s->capacity &&
                                                (!maxSteps || s->steps + fc->prologue <= maxSteps)) {
        for (int32_t i = 0; i < fc->prologue; ++i) Wipe(&slots[s->top + i]);  // above the top: nothing to free
        if (maxSteps) s->steps += fc->prologue;
        s->top += fc->prologue;
        floor = s->top;
        pc = size_t(fc->prologue);
    }
    while (code[pc] == kOpEmpty) {
        if (maxSteps && ++s->steps > maxSteps) return kStepLimit;
        if (s->top >= s->capacity) {
            if (s->errorHook) reinterpret_cast<ErrorHook>(s->errorHook)(s, int32_t(pc), kStackSmall);
            return kStackSmall;
        }
        Wipe(&slots[s->top++]);  // above the top: nothing to free
        floor = s->top;
        ++pc;
    }
    if (s->calculator && s->calculator->maxMemory > 0) return Interpret(s, entry, pc, floor, kOk);
    CVar* sp = slots + s->top;
    int32_t st = kOk;
    const bool running =
        RunFast(entry, code, &pc, slots + s->base, &sp, slots + s->capacity, s, floor, maxSteps, &st);
    s->top = int32_t(sp - slots);
    if (!running) return kStopped;
    if (st == kOk && (code[pc] == kOpEnd || code[pc] == kOpExit) && !(maxSteps && s->steps >= maxSteps)) {
        if (maxSteps) ++s->steps;
        return Finish(s, params);
    }
    return Interpret(s, entry, pc, floor, st);
}

}  // namespace

int32_t FunProc(KWCalcStack* s) {
    if (!s || !s->entry) return kNotSupported;
    return Run(s, s->entry);
}

// The result in the first argument's slot: the others are emptied.
inline void KeepFirst(KWCalcStack* s, CVar* args, int32_t nargs) {
    for (int32_t i = 1; i < nargs; ++i) Wipe(args + i);  // numbers: nothing to free
    s->top -= nargs - 1;
}

// A call whose whole run a plan gives (kwCalcPlan.h): no hook would see it,
// no memory rule applies, nothing stops it, depth, stack and budget suffice,
// and the arguments' tags have a plan.  Leaves what a run through Run would
// leave (the result in the first argument's slot, the same step count) and
// returns 0; kNoPlan or kPlanGaveUp, with nothing changed, for everything
// else, which the interpreter then runs from the start to the same outcome.
// A plan that passes the budget or the depth limit fails the call as the
// interpreter would there (-50, -52: no hook sees those, no try catches
// them).  StraightHostCall below makes the same checks for a host's call of
// one argument: a new condition belongs in both.
static int32_t PlanCall(KWCalcStack* s, KWCalcNameDef* e, int32_t nargs) {
    const FastCode* fc = e->fast.get();
    if (!fc || fc->plans.empty() || s->debugHook || e->fn != &KWFunProc) return kNoPlan;
    const KWCalcDef* c = s->calculator;
    if (c && ((e->hook && c->callHook) || c->maxMemory > 0)) return kNoPlan;
    const KWFunDef* f = static_cast<const KWFunDef*>(e->data);
    if (!f || nargs != f->paramCount || s->depth >= DepthLimit(s)) return kNoPlan;
    if (!(f->stackNeed + nargs < s->capacity - s->top)) return kNoPlan;
    if (s->flags.load(std::memory_order_relaxed) & kStopBit) return kNoPlan;
    CVar* const args = s->slots + s->top - nargs;
    const Plan* p = PlanFor(fc->plans, args, nargs);
    if (!p) return kNoPlan;
    if (__builtin_expect(p->flow, 0)) return FlowPlanCall(s, e, *p, nargs, DepthLimit(s));
    const int64_t maxSteps = c ? c->maxSteps : 0;
    const int64_t base = s->depth == 0 ? 0 : s->steps;
    const int64_t steps = base + (maxSteps ? p->steps : 0);
    if (maxSteps && steps > maxSteps) return kNoPlan;
    if (RunPlan(*p, args, s, steps) != kOk) return kNoPlan;  // a zero divisor: the interpreter reports it
    KeepFirst(s, args, nargs);
    return kOk;
}

// CallEntry for everything a plan does not run.
static int32_t CallGeneral(KWCalcStack* s, KWCalcNameDef* e, int32_t nargs);

int32_t CallEntry(KWCalcStack* s, KWCalcNameDef* e, int32_t nargs) {
    if (s->top - nargs >= 0) {
        const int32_t st = PlanCall(s, e, nargs);
        if (st <= kOk) return st;
        if (st == kPlanGaveUp) {
            FlowPlansOff off(s);
            return CallGeneral(s, e, nargs);
        }
    }
    return CallGeneral(s, e, nargs);
}

static __attribute__((noinline)) int32_t CallGeneral(KWCalcStack* s, KWCalcNameDef* e, int32_t nargs) {
    if (s->top - nargs < 0) return kStackSmall;
    const bool outermost = s->depth == 0;
    if (outermost) s->steps = 0;
    const int32_t base = s->base;
    const int32_t argBase = s->top - nargs;
    KWCalcNameDef* const oldEntry = s->entry;
    void* const oldData = s->data;
    int32_t st;
    if (s->depth >= DepthLimit(s)) {
        st = kDepthLimit;
    } else {
        ++s->depth;
        s->base = argBase;
        s->entry = e;
        s->data = e->data;
        st = kOk;
        if (s->debugHook) {
            s->flags.fetch_or(kDebugRunning);
            st = s->debugHook(s);
            s->flags.fetch_and(~kDebugRunning);
        }
        if (st == kOk) {
            KWCalcDef* c = s->calculator;
            KWCalcFn fn = e->fn;
            if (e->hook && c && c->callHook) fn = c->callHook;
            else if (!fn && c) fn = c->defaultHandler;
            try {
                if (!fn) st = kUnknownFun;
                else if (fn == &KWFunProc) st = Run(s, e);
                else st = fn(s);
            } catch (const std::bad_alloc&) {
                st = kNoMemRun;
            } catch (...) {
                // A host function that throws ends its call with a status; the
                // budgets of nested runs keep theirs (they are plain codes).
                st = kHostThrew;
            }
        }
        if (st == kOk && s->debugHook) {
            s->flags.fetch_or(kDebugRunning);
            st = s->debugHook(s);
            s->flags.fetch_and(~kDebugRunning);
        }
        --s->depth;
    }
    if (st == kOk) {
        if (s->top <= argBase) s->top = argBase + 1;  // the result slot is the first argument's
        DropTo(s, argBase + 1);
    } else {
        DropTo(s, argBase);
    }
    s->base = base;
    s->entry = oldEntry;
    s->data = oldData;
    return st;
}

// PlanCall for a host's call of a one-parameter entry, with what it reads
// gathered on few cache lines (FastCode's head) and nothing kept across the
// plan's run: the same conditions (no hook, no memory rule, no stop request,
// depth, stack room and budget suffice, a straight plan for the argument's
// tag) and the same outcome; kNoPlan, with nothing changed, otherwise.
static inline int32_t StraightHostCall(KWCalcStack* s, KWCalcNameDef* e) {
    const FastCode* fc = e->fast.get();
    if (!fc || e->fn != &KWFunProc || s->debugHook) return kNoPlan;
    const int32_t top = s->top;
    if (top < 1 || !(fc->stackNeed + 1 < s->capacity - top)) return kNoPlan;
    CVar* const arg = s->slots + top - 1;
    const uint32_t tag = uint32_t(arg->type) - uint32_t(kInt);  // 0 Int, 1 Dbl
    if (tag > 1 || !((fc->straight >> tag) & 1)) return kNoPlan;
    const Plan* p = fc->plans.data();
    if (tag) ++p;  // a select, not a multiply by the plan's size
    const KWCalcDef* c = s->calculator;
    int32_t depthLimit = kDefaultDepth;
    int64_t maxSteps = 0;
    if (c) {
        if ((e->hook && c->callHook) || c->maxMemory > 0) return kNoPlan;
        if (c->maxDepth > 0) depthLimit = c->maxDepth;
        maxSteps = c->maxSteps;
    }
    if (s->depth >= depthLimit || (s->flags.load(std::memory_order_relaxed) & kStopBit)) return kNoPlan;
    int64_t steps = s->depth == 0 ? 0 : s->steps;  // the outermost call starts the count
    if (maxSteps) {
        steps += p->steps;
        if (steps > maxSteps) return kNoPlan;
    }
    return RunPlan(*p, arg, s, steps);
}

// HostCall's straight plan first: its code then keeps no register across
// the plan's run, the general path being out of line.
static int32_t HostCallGeneral(KWCalcStack* s);
static inline int32_t HostCallEntry(KWCalcStack* s, KWCalcNameDef* e) {
    if (e->argc == 1) {
        const int32_t st = StraightHostCall(s, e);
        if (st != kNoPlan) return st;
    }
    return HostCallGeneral(s);
}

// Calls the stack's current entry with its arguments on the top; an entry
// without parameters gets the one empty value that calls pass then.
int32_t HostCall(KWCalcStack* s) {
    KWCalcNameDef* e = s->entry;
    if (!e) return kUnknownFun;
    return HostCallEntry(s, e);
}

static __attribute__((noinline)) int32_t HostCallGeneral(KWCalcStack* s) {
    KWCalcNameDef* e = s->entry;
    if (e->argc == 0) {
        if (s->top >= s->capacity) return kStackSmall;
        SetEmpty(&s->slots[s->top++]);
    }
    return CallEntry(s, e, e->argc > 0 ? e->argc : 1);
}

}  // namespace kwz::calc

using namespace kwz::calc;

extern "C" {

KWZ_API int32_t KWCalcFun0(KWCalcStack* stack) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcFun0", kNoMemRun, kHostThrew,
                      [&] { return stack ? HostCall(stack) : kNotSupported; });
}

KWZ_API int32_t KWCalcFun1(KWCalcStack* stack, KWCalcNameDef* entry) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcFun1", kNoMemRun, kHostThrew, [&] {
        if (!stack || !entry) return kNotSupported;
        stack->entry = entry;
        stack->data = entry->data;
        return HostCallEntry(stack, entry);
    });
}

KWZ_API int32_t KWCalcFun2(KWCalcStack* stack, const char* name) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcFun2", kNoMemRun, kHostThrew, [&] {
        if (!stack) return kNotSupported;
        KWCalcNameDef* e = NameFind(stack->calculator, name, nullptr);
        if (!e) return kUnknownFun;
        stack->entry = e;
        stack->data = e->data;
        return HostCallEntry(stack, e);
    });
}

KWZ_API int32_t KWFunProc(KWCalcStack* stack) {
    return kwz::CEdge("Kwz.kwCalc.KWFunProc", kNoMemRun, kHostThrew,
                      [&] { return FunProc(stack); });
}

}  // extern "C"
