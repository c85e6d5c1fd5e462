// The pre-decoded fast loop: the byte code read once into FastOps, and the
// loop that runs them.  Every op does what the byte-code fast loop does with
// the instructions it stands for; where that loop would stop, or run a group
// piece by piece (a type it leaves to the operator module, a budget that
// does not cover the whole group, a full stack), this one stops at the
// group's first instruction and leaves the rest to it.
#include "calc/kwCalcFastCode.h"

#include <new>

#include "calc/kwCalcEngine.h"
#include "calc/kwCalcOps.h"

namespace kwz::calc {
namespace {

using namespace kwz::calcl;

enum FastKind : uint8_t {
    kLeave = kFastLeave,  // not run here
    kLoad,       // push variable a
    kConst,      // push k
    kNil,        // push an empty value
    kDrop,       // drop the top
    kStore,      // top into variable to
    kStoreDrop,  // top into variable to, dropped
    kBin,        // operator on the top two
    kBinJf,      // comparison on the top two and its jf
    kNeg,
    kMath,       // one-argument math built-in on the top
    kCall,
    kJump,
    kTest,       // andt, ort, jf (op holds which)
    kDebug,
    kEnd,        // exit, end: the caller finishes
    kCmpJf,      // a op b(k), jf
    kCalcStore,    // to = a op b(k);
    kCalcPush,     // push a op b(k)
    kMove,       // to = a;
    kLoadMath,   // push math(a)
    kConstBin,   // top op k
    kArgCall,     // push a op b(k), call (jumpPc: the call's offset)
    kBinStore,   // operator on the top two, into variable to, dropped
};

inline size_t Target(const uint8_t* code, size_t pc) {
    return size_t(int64_t(pc + 1) + Load<int32_t>(code + pc + 1));
}
inline bool IsLoad(const uint8_t* p) {
    return (*p == kOpLoadParam || *p == kOpLoadLocal) && Load<uint16_t>(p + 3) == 0;
}
inline bool IsLiteral(const uint8_t* p) { return *p == kOpInt || *p == kOpDbl; }
inline Num Literal(const uint8_t* p) {
    return *p == kOpInt ? IntNum(Load<int64_t>(p + 1)) : DblNum(Load<double>(p + 1));
}
inline bool IsBinary(uint8_t o) { return o >= 49 && o <= 70; }
inline bool IsCompare(uint8_t o) { return o >= 65 && o <= 70; }
inline bool IsMathOne(uint8_t o) { return o >= 113 && o <= 123 && o != 120; }
// "x = top;" and its drop.
inline bool IsStoreDrop(const uint8_t* p) {
    return (*p == kOpStoreParam || *p == kOpStoreLocal) && Load<uint16_t>(p + 3) == 0 &&
           p[5] == kOpCollapse && Load<uint16_t>(p + 6) == 0;
}

// Empties a variable that holds a block before a number goes in; the top is
// written back first, as an object type's code may throw.
inline void Clean(KWCalcStack* s, CVar* sp, CVar* var) {
    s->top = int32_t(sp - s->slots);
    SetEmpty(var);
}

class Builder {
public:
    explicit Builder(const uint8_t* code) : code_(code) {}

    bool Build(FastCode* out) {
        // The instructions up to the end, and every offset a jump reaches:
        // no group spans one, so a jump always lands on an op's start.
        std::vector<size_t> starts;
        for (size_t pc = 0;;) {
            const size_t n = OpLength(code_ + pc);
            if (n == 0) return false;
            starts.push_back(pc);
            const uint8_t o = code_[pc];
            if (o == kOpJump || o == kOpAndTest || o == kOpOrTest || o == kOpJumpFalse) Mark(Target(code_, pc));
            if (o == kOpTry) Mark(Load<uint32_t>(code_ + pc + 1));
            if (o == kOpEnd) break;
            pc += n;
        }
        out->at.assign(starts.back() + 1, -1);
        for (size_t i = 0; i < starts.size();) {
            const size_t pc = starts[i];
            FastOp op{};
            op.pc = uint32_t(pc);
            size_t used = Decode(starts, i, &op);
            // The last statement of a loop body goes on to the jump back in
            // the same op.
            if ((op.kind == kCalcStore || op.kind == kMove || op.kind == kStoreDrop || op.kind == kBinStore) &&
                Joinable(starts, i, used + 1) && code_[starts[i + used]] == kOpJump) {
                op.thenJump = 1;
                op.jmpAt = uint32_t(starts[i + used]);
                op.jumpPc = uint32_t(Target(code_, op.jmpAt));
                ++op.steps;
                ++used;
            }
            out->at[pc] = int32_t(out->ops.size());
            out->ops.push_back(op);
            i += used;
        }
        for (FastOp& op : out->ops)
            if (op.kind == kJump || op.kind == kTest || op.kind == kBinJf || op.kind == kCmpJf || op.thenJump)
                op.jump = out->Index(op.jumpPc);
        return true;
    }

private:
    void Mark(size_t pc) {
        if (targets_.size() <= pc) targets_.resize(pc + 1, false);
        targets_[pc] = true;
    }
    bool Target_(size_t pc) const { return pc < targets_.size() && targets_[pc]; }
    // Instructions i+1 .. i+n-1 exist and none is a jump target.
    bool Joinable(const std::vector<size_t>& starts, size_t i, size_t n) const {
        if (i + n > starts.size()) return false;
        for (size_t j = i + 1; j < i + n; ++j)
            if (Target_(starts[j])) return false;
        return true;
    }

    // Operator op->op, instruction i + j, fused with what follows it: a
    // comparison with a jump-if-false (kind jf), or a store and drop (kind
    // store).  Returns how many instructions op then takes from i, or 0.
    size_t FuseAfter(const std::vector<size_t>& starts, size_t i, size_t j, FastOp* op, uint8_t jf,
                     uint8_t store) const {
        size_t n = 0;
        if (IsCompare(op->op) && Joinable(starts, i, j + 2) && code_[starts[i + j + 1]] == kOpJumpFalse) {
            op->kind = jf;
            op->jumpPc = uint32_t(Target(code_, starts[i + j + 1]));
            n = j + 2;
        } else if (Joinable(starts, i, j + 3) && IsStoreDrop(code_ + starts[i + j + 1])) {
            op->kind = store;
            op->to = Load<uint16_t>(code_ + starts[i + j + 1] + 1);
            n = j + 3;
        } else {
            return 0;
        }
        op->steps = uint8_t(n);
        return n;
    }

    // Fills op from instruction i (and those it fuses); returns how many it took.
    size_t Decode(const std::vector<size_t>& starts, size_t i, FastOp* op) {
        const uint8_t* p = code_ + starts[i];
        auto at = [&](size_t j) { return code_ + starts[i + j]; };
        if (IsLoad(p)) {
            op->a = Load<uint16_t>(p + 1);
            // load, load or literal, operator [, jf | store, drop]
            if (Joinable(starts, i, 3) && (IsLoad(at(1)) || IsLiteral(at(1))) && IsBinary(*at(2))) {
                op->op = *at(2);
                if (IsLoad(at(1))) {
                    op->b = Load<uint16_t>(at(1) + 1);
                } else {
                    op->constB = 1;
                    op->k = Literal(at(1));
                }
                if (const size_t n = FuseAfter(starts, i, 2, op, kCmpJf, kCalcStore)) return n;
                if (Joinable(starts, i, 4) && *at(3) == calcl::kOpCall) {
                    op->kind = kArgCall;
                    op->steps = 4;
                    op->ext = Load<uint16_t>(at(3) + 1);
                    op->jumpPc = uint32_t(starts[i + 3]);
                    return 4;
                }
                op->kind = kCalcPush;
                op->steps = 3;
                return 3;
            }
            if (Joinable(starts, i, 3) && IsStoreDrop(at(1))) {
                op->kind = kMove;
                op->steps = 3;
                op->to = Load<uint16_t>(at(1) + 1);
                return 3;
            }
            if (Joinable(starts, i, 2) && IsMathOne(*at(1))) {
                op->kind = kLoadMath;
                op->steps = 2;
                op->op = *at(1);
                return 2;
            }
            op->kind = kLoad;
            op->steps = 1;
            return 1;
        }
        op->steps = 1;
        switch (*p) {
        case kOpInt:
        case kOpDbl:
            op->k = Literal(p);
            if (Joinable(starts, i, 2) && IsBinary(*at(1))) {
                op->kind = kConstBin;
                op->op = *at(1);
                op->steps = 2;
                return 2;
            }
            op->kind = kConst;
            return 1;
        case kOpEmpty: op->kind = kNil; return 1;
        case kOpCollapse: op->kind = Load<uint16_t>(p + 1) == 0 ? kDrop : kLeave; return 1;
        case kOpStoreParam:
        case kOpStoreLocal:
            if (Load<uint16_t>(p + 3) != 0) {
                op->kind = kLeave;
                return 1;
            }
            op->to = Load<uint16_t>(p + 1);
            if (Joinable(starts, i, 2) && IsStoreDrop(p)) {
                op->kind = kStoreDrop;
                op->steps = 2;
                return 2;
            }
            op->kind = kStore;
            return 1;
        case kOpNeg: op->kind = kNeg; return 1;
        case calcl::kOpCall:
            op->kind = kCall;
            op->ext = Load<uint16_t>(p + 1);
            return 1;
        case kOpJump:
            op->kind = kJump;
            op->jumpPc = uint32_t(Target(code_, starts[i]));
            return 1;
        case kOpAndTest:
        case kOpOrTest:
        case kOpJumpFalse:
            op->kind = kTest;
            op->op = *p;
            op->jumpPc = uint32_t(Target(code_, starts[i]));
            return 1;
        case kOpDebug: op->kind = kDebug; return 1;
        case kOpExit:
        case kOpEnd: op->kind = kEnd; return 1;
        default: break;
        }
        if (IsBinary(*p)) {
            op->op = *p;
            if (const size_t n = FuseAfter(starts, i, 0, op, kBinJf, kBinStore)) return n;
            op->kind = kBin;
            return 1;
        }
        if (IsMathOne(*p)) {
            op->kind = kMath;
            op->op = *p;
            return 1;
        }
        op->kind = kLeave;
        return 1;
    }

    const uint8_t* code_;
    std::vector<bool> targets_;
};

}  // namespace

std::shared_ptr<const FastCode> MakeFastCode(const KWFunDef* f) {
    if (!f || !f->code) return nullptr;
    try {
        auto fc = std::make_shared<FastCode>();
        if (!Builder(f->code).Build(fc.get())) return nullptr;
        fc->plans = MakePlans(f, &fc->planSelf);
        fc->stackNeed = f->stackNeed;
        if (f->paramCount == 1 && fc->plans.size() == 2)
            for (int t = 0; t < 2; ++t)
                if (fc->plans[t].ok && !fc->plans[t].flow) fc->straight |= uint8_t(1u << t);
        while (f->code[fc->prologue] == kOpEmpty) ++fc->prologue;
        return fc;
    } catch (const std::bad_alloc&) {
        return nullptr;  // the byte-code loop serves alone
    }
}

bool FastCodeRun(const FastCode& fc, size_t* pcAt, CVar* frame, CVar** spAt, CVar* limit, KWCalcStack* s,
                 KWCalcNameDef* entry, int32_t floor, int64_t maxSteps, int32_t* status) {
    const FastOp* const ops = fc.ops.data();
    int32_t i = fc.Index(*pcAt);
    CVar* sp = *spAt;
    bool running = true;
    const FastOp* o = nullptr;
    if (i < 0) goto out;
    for (;;) {
        o = &ops[i];
        // A group runs only when the budget covers all of it, so the budget
        // runs out at the same instruction as one by one.
        if (maxSteps && s->steps + o->steps > maxSteps) goto leave;
        switch (o->kind) {
        case kLoad: {
            const CVar* var = frame + o->a;
            if (!IsNumber(var) || sp >= limit) goto leave;
            CopyNum(sp++, var);
            break;
        }
        case kConst:
            if (sp >= limit) goto leave;
            PutNum(sp++, o->k);
            break;
        case kNil:
            if (sp >= limit) goto leave;
            Wipe(sp++);
            break;
        case kDrop:
            if (!Plain(sp - 1)) goto leave;
            Wipe(--sp);
            break;
        case kStore:
        case kStoreDrop: {
            if (!IsNumber(sp - 1)) goto leave;
            CVar* var = frame + o->to;
            if (!Plain(var)) Clean(s, sp, var);
            CopyNum(var, sp - 1);
            if (o->kind == kStoreDrop) Wipe(--sp);
            break;
        }
        case kBin:
            if (!FastBinary(o->op, sp - 2)) goto leave;
            --sp;
            break;
        case kBinJf: {
            if (!FastBinary(o->op, sp - 2)) goto leave;
            const bool t = sp[-2].v.i != 0;
            Wipe(sp - 2);
            sp -= 2;
            if (maxSteps) s->steps += o->steps;
            if (t) {
                ++i;
                continue;
            }
            i = o->jump;
            if (i < 0) goto jumpOut;
            continue;
        }
        case kNeg:
            if (sp[-1].type == kInt) PutInt(sp - 1, int64_t(0 - uint64_t(sp[-1].v.i)));
            else if (sp[-1].type == kDbl) PutDbl(sp - 1, -sp[-1].v.d);
            else goto leave;
            break;
        case kMath:
            if (!(sp - 1 >= frame && FastMath(o->op, sp - 1))) goto leave;
            break;
        case kCall:
        case kArgCall: {
            KWCalcNameDef* callee = o->ext < entry->externals.size() ? entry->externals[o->ext] : nullptr;
            if (!callee) goto leave;
            if (o->kind == kArgCall) {
                // The argument first, as its three instructions would.
                const CVar* x = frame + o->a;
                if (!IsNumber(x) || sp + 1 >= limit) goto leave;
                Num y, r;
                if (o->constB) {
                    y = o->k;
                } else {
                    const CVar* v = frame + o->b;
                    if (!IsNumber(v)) goto leave;
                    y = NumOf(v);
                }
                if (!Compute(o->op, NumOf(x), y, &r)) goto leave;
                PutNum(sp++, r);
            }
            if (maxSteps) s->steps += o->steps;
            s->top = int32_t(sp - s->slots);
            const int32_t st = CallEntry(s, callee, callee->argc > 0 ? callee->argc : 1);
            if (st != kOk) {
                if (s->top < floor) s->top = floor;  // never below the locals
                *status = st;
                sp = s->slots + s->top;
                *pcAt = o->kind == kArgCall ? o->jumpPc : o->pc;  // at the call
                *spAt = sp;
                return running;
            }
            sp = s->slots + s->top;
            // Host code may have asked to stop.
            if (s->flags.load(std::memory_order_relaxed) & kStopBit) {
                running = false;
                ++i;
                goto next;
            }
            ++i;
            continue;
        }
        case kBinStore: {
            if (!FastBinary(o->op, sp - 2)) goto leave;
            --sp;
            CVar* var = frame + o->to;
            if (!Plain(var)) Clean(s, sp, var);
            CopyNum(var, sp - 1);
            Wipe(--sp);
            break;
        }
        case kJump:
            if (s->flags.load(std::memory_order_relaxed) & kStopBit) {
                running = false;
                goto leave;
            }
            if (maxSteps) ++s->steps;
            i = o->jump;
            if (i < 0) goto jumpOut;
            continue;
        case kTest: {
            if (!Plain(sp - 1)) goto leave;
            if (maxSteps) ++s->steps;
            const bool t = PlainTruth(sp - 1);
            const bool jump = o->op == kOpOrTest ? t : !t;
            if (o->op == kOpJumpFalse) Wipe(--sp);
            if (!jump) {
                ++i;
                continue;
            }
            i = o->jump;
            if (i < 0) goto jumpOut;
            continue;
        }
        case kDebug: break;
        case kCmpJf:
        case kCalcStore:
        case kCalcPush: {
            const CVar* x = frame + o->a;
            if (!IsNumber(x) || sp + 1 >= limit) goto leave;
            Num y;
            if (o->constB) {
                y = o->k;
            } else {
                const CVar* v = frame + o->b;
                if (!IsNumber(v)) goto leave;
                y = NumOf(v);
            }
            Num r;
            if (!Compute(o->op, NumOf(x), y, &r)) goto leave;
            if (maxSteps) s->steps += o->steps;
            if (o->kind == kCmpJf) {
                if (r.bits != 0) {
                    ++i;
                    continue;
                }
                i = o->jump;
                if (i < 0) goto jumpOut;
                continue;
            }
            if (o->kind == kCalcStore) {
                CVar* to = frame + o->to;
                if (!Plain(to)) Clean(s, sp, to);
                PutNum(to, r);
                if (o->thenJump) {
                    if (maxSteps) --s->steps;  // the jump counts once it is taken
                    goto jumpBack;
                }
            } else {
                PutNum(sp++, r);
            }
            ++i;
            continue;
        }
        case kMove: {
            const CVar* var = frame + o->a;
            if (!IsNumber(var) || sp >= limit) goto leave;
            CVar* to = frame + o->to;
            if (!Plain(to)) Clean(s, sp, to);
            CopyNum(to, var);
            break;
        }
        case kLoadMath: {
            const CVar* var = frame + o->a;
            double r;
            if (!IsNumber(var) || sp >= limit || !MathOne(o->op, NumDbl(var), r)) goto leave;
            PutDbl(sp++, r);
            break;
        }
        case kConstBin: {
            // The literal is never pushed: the operator takes it from the op.
            Num r;
            if (sp >= limit || !Compute(o->op, NumOf(sp - 1), o->k, &r)) goto leave;
            PutNum(sp - 1, r);
            break;
        }
        default: goto leave;  // kLeave, kEnd
        }
        if (!o->thenJump) {
            if (maxSteps) s->steps += o->steps;
            ++i;
            continue;
        }
        if (maxSteps) s->steps += o->steps - 1;
    jumpBack:
        if (s->flags.load(std::memory_order_relaxed) & kStopBit) {
            *pcAt = o->jmpAt;
            *spAt = sp;
            return false;
        }
        if (maxSteps) ++s->steps;
        i = o->jump;
        if (i < 0) goto jumpOut;
    }
next:
    *pcAt = ops[i].pc;
    *spAt = sp;
    return running;
jumpOut:
    *pcAt = o->jumpPc;
    *spAt = sp;
    return running;
leave:
    *pcAt = o->pc;
out:
    *spAt = sp;
    return running;
}

}  // namespace kwz::calc
