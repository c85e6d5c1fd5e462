// Plans for pure-arithmetic functions: decoding (the operand stack followed
// symbolically, so a load costs nothing and an operator names its operands'
// registers) and the loop that runs them.  Each operation gives the bits the
// operator module gives for those tags: Int wraps, "/" divides as doubles,
// comparisons follow IEEE (NaN unordered), a zero divisor is a failure.
#include "calc/kwCalcPlan.h"

#include <cmath>
#include <cstddef>
#include <cstring>

#include "calc/kwCalcEngine.h"
#include "calc/kwCalcOps.h"

namespace kwz::calc {
namespace {

using namespace kwz::calcl;

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
    kDone,              // ends every plan
};

constexpr int kMaxVars = 24;
constexpr int kMaxDepth = 16;
constexpr int kMaxConsts = kPlanConsts;
constexpr int kMaxRegs = kMaxVars + kMaxDepth + kMaxConsts;

inline double D(uint64_t b) {
    double d;
    std::memcpy(&d, &b, 8);
    return d;
}
inline uint64_t B(double d) {
    uint64_t b;
    std::memcpy(&b, &d, 8);
    return b;
}

// The registers hold doubles as their bits; sincos writes them through this.
using AliasDbl = double __attribute__((may_alias));

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

// One value of the symbolic operand stack: the register holding it, its tag,
// and whether that register is a variable's (which a later store changes).
struct Slot {
    uint8_t reg;
    int32_t type;
    bool var;
};

class Decoder {
public:
    Decoder(const uint8_t* code, int32_t params, uint32_t mask, Plan* p)
        : code_(code), params_(params), mask_(mask), p_(p) {}

    bool Run() {
        size_t pc = 0;
        int32_t locals = 0;
        while (code_[pc] == kOpEmpty) {  // the prologue: "result" and the vars
            ++locals;
            ++pc;
        }
        vars_ = params_ + locals;
        if (locals < 1 || vars_ > kMaxVars) return false;
        for (int32_t i = 0; i < vars_; ++i) types_[i] = i < params_ ? ((mask_ >> i) & 1 ? kDbl : kInt) : kEmpty;
        p_->steps = locals;
        for (;;) {
            const uint8_t o = code_[pc];
            const size_t len = OpLength(code_ + pc);
            if (len == 0) return false;
            ++p_->steps;
            if (!Step(o, code_ + pc)) return false;
            if (o == kOpExit || o == kOpEnd) break;
            pc += len;
        }
        p_->params = uint8_t(params_);
        p_->result = uint8_t(params_);
        p_->resultType = types_[params_];
        p_->constBase = uint8_t(kMaxVars + kMaxDepth);
        p_->regs = uint8_t(p_->constBase + p_->constCount);
        FuseSinCos();
        FuseReturn();
        Emit(kDone, 0, 0);
        p_->ok = true;
        return true;
    }

private:
    static bool ReadsB(uint8_t code) { return code <= kCmpD || (code >= kDivDK && code <= kDivDKR); }
    static bool Reads(const PlanOp& o, uint8_t reg) { return o.a == reg || (ReadsB(o.code) && o.b == reg); }
    static bool Writes(const PlanOp& o, uint8_t reg) { return o.dst == reg || (o.code == kSinCos && o.b == reg); }

    // sin and cos of the same register become one sincos call, which gives
    // the same bits from one argument reduction (a test holds the C library
    // to that).  The later of the two moves up to the earlier one: nothing in
    // between may change the argument or touch the later one's register.
    void FuseSinCos() {
        std::vector<PlanOp>& ops = p_->ops;
        for (size_t i = 0; i < ops.size(); ++i) {
            if (ops[i].code != kSin && ops[i].code != kCos) continue;
            const uint8_t other = ops[i].code == kSin ? kCos : kSin;
            const uint8_t x = ops[i].a;
            if (ops[i].dst == x) continue;
            for (size_t j = i + 1; j < ops.size(); ++j) {
                const PlanOp q = ops[j];
                if (q.code == other && q.a == x) {
                    bool free = q.dst != ops[i].dst;
                    for (size_t k = i + 1; free && k < j; ++k) free = !Reads(ops[k], q.dst) && !Writes(ops[k], q.dst);
                    if (free) {
                        const uint8_t s = ops[i].code == kSin ? ops[i].dst : q.dst;
                        const uint8_t c = ops[i].code == kSin ? q.dst : ops[i].dst;
                        ops[i] = PlanOp{kSinCos, 0, s, x, c};
                        ops.erase(ops.begin() + std::ptrdiff_t(j));
                    }
                    break;
                }
                if (Writes(q, x)) break;
            }
        }
    }

    static bool IsConst(uint8_t reg) { return reg >= kMaxVars + kMaxDepth; }
    uint64_t ConstBits(uint8_t reg) const { return p_->consts[reg - kMaxVars - kMaxDepth]; }
    void FuseReturn() {
        if (p_->ops.empty() || p_->resultType != kDbl) return;
        PlanOp& last = p_->ops.back();
        if (last.dst != p_->result) return;
        switch (last.code) {
        case kAddD: last.code = kAddDR; break;
        case kSubD: last.code = kSubDR; break;
        case kMulD: last.code = kMulDR; break;
        case kDivD: last.code = kDivDR; break;
        case kDivDK: last.code = kDivDKR; break;
        default: break;
        }
    }

    uint8_t Temp(size_t depth) const { return uint8_t(kMaxVars + depth); }
    bool Const(uint64_t bits, int32_t type) {
        if (p_->constCount >= kMaxConsts) return false;
        p_->consts[p_->constCount++] = bits;
        stack_.push_back(Slot{uint8_t(kMaxVars + kMaxDepth + p_->constCount - 1), type, false});
        return true;
    }
    void Emit(uint8_t code, uint8_t dst, uint8_t a, uint8_t b = 0, uint8_t op = 0) {
        p_->ops.push_back(PlanOp{code, op, dst, a, b});
    }
    // The slot at depth d as a Dbl: a literal is converted now, anything else
    // by an operation into the temporary of its depth.
    Slot AsDbl(Slot v, size_t d) {
        if (v.type == kDbl) return v;
        if (v.reg >= kMaxVars + kMaxDepth && p_->constCount < kMaxConsts) {
            const double x = double(int64_t(p_->consts[v.reg - kMaxVars - kMaxDepth]));
            p_->consts[p_->constCount++] = B(x);
            return Slot{uint8_t(kMaxVars + kMaxDepth + p_->constCount - 1), kDbl, false};
        }
        Emit(kI2D, Temp(d), v.reg);
        return Slot{Temp(d), kDbl, false};
    }

    bool Step(uint8_t o, const uint8_t* p) {
        switch (o) {
        case kOpLoadParam:
        case kOpLoadLocal: {
            const uint16_t i = Load<uint16_t>(p + 1);
            if (Load<uint16_t>(p + 3) != 0 || i >= vars_) return false;
            if (types_[i] != kInt && types_[i] != kDbl) return false;  // the operators decide on Empty
            if (stack_.size() >= kMaxDepth) return false;
            stack_.push_back(Slot{uint8_t(i), types_[i], true});
            return true;
        }
        case kOpInt: return stack_.size() < kMaxDepth && Const(uint64_t(Load<int64_t>(p + 1)), kInt);
        case kOpDbl: return stack_.size() < kMaxDepth && Const(B(Load<double>(p + 1)), kDbl);
        case kOpStoreParam:
        case kOpStoreLocal: {
            const uint16_t i = Load<uint16_t>(p + 3) == 0 ? Load<uint16_t>(p + 1) : 0xffff;
            if (i >= vars_ || stack_.empty()) return false;
            const Slot top = stack_.back();
            // Values still waiting on the stack that read this variable keep
            // the value they had.
            for (size_t d = 0; d + 1 < stack_.size(); ++d) {
                if (stack_[d].var && stack_[d].reg == i) {
                    Emit(kMov, Temp(d), uint8_t(i));
                    stack_[d] = Slot{Temp(d), stack_[d].type, false};
                }
            }
            types_[i] = top.type;
            if (top.reg == i) return true;
            // "x = a op b;": the operation writes x itself when its value is
            // dropped at once.
            const size_t d = stack_.size() - 1;
            if (!top.var && top.reg == Temp(d) && !p_->ops.empty() && p_->ops.back().dst == Temp(d) &&
                p[5] == kOpCollapse && Load<uint16_t>(p + 6) == 0) {
                p_->ops.back().dst = uint8_t(i);
                stack_.back() = Slot{uint8_t(i), top.type, true};
                return true;
            }
            Emit(kMov, uint8_t(i), top.reg);
            return true;
        }
        case kOpCollapse:
            if (Load<uint16_t>(p + 1) != 0 || stack_.empty()) return false;
            stack_.pop_back();
            return true;
        case kOpDebug: return true;
        case kOpExit:
        case kOpEnd: return true;
        case kOpNeg: {
            if (stack_.empty()) return false;
            const size_t d = stack_.size() - 1;
            const Slot a = stack_[d];
            Emit(a.type == kInt ? kNegI : kNegD, Temp(d), a.reg);
            stack_[d] = Slot{Temp(d), a.type, false};
            return true;
        }
        default: break;
        }
        if (o >= 113 && o <= 123 && o != 120) {  // the one-argument math built-ins
            if (stack_.empty()) return false;
            const size_t d = stack_.size() - 1;
            const Slot a = AsDbl(stack_[d], d);
            Emit(o == 113 ? kSin : o == 114 ? kCos : o == 123 ? kSqrt : kMath, Temp(d), a.reg, 0, o);
            stack_[d] = Slot{Temp(d), kDbl, false};
            return true;
        }
        if (o >= 49 && o <= 70 && (o <= 54 || o >= 65)) {
            if (stack_.size() < 2) return false;
            const size_t d = stack_.size() - 2;
            Slot a = stack_[d], b = stack_[d + 1];
            stack_.pop_back();
            int32_t type = kInt;
            if (a.type == kInt && b.type == kInt) {
                static const uint8_t kInts[] = {kAddI, kSubI, kMulI, kDivII, kDiviI, kModI};
                if (o <= 54) {
                    Emit(kInts[o - 49], Temp(d), a.reg, b.reg);
                    if (o == 52) type = kDbl;
                } else {
                    Emit(kCmpI, Temp(d), a.reg, b.reg, o);
                }
            } else {
                if (o == 53 || o == 54) return false;  // "\" and "%" with a Dbl: the module casts
                a = AsDbl(a, d);
                b = AsDbl(b, d + 1);
                static const uint8_t kDbls[] = {kAddD, kSubD, kMulD, kDivD};
                if (o == 52 && IsConst(b.reg) && D(ConstBits(b.reg)) != 0) {
                    Emit(kDivDK, Temp(d), a.reg, b.reg);
                    type = kDbl;
                } else if (o <= 52) {
                    Emit(kDbls[o - 49], Temp(d), a.reg, b.reg);
                    type = kDbl;
                } else {
                    Emit(kCmpD, Temp(d), a.reg, b.reg, o);
                }
            }
            stack_[d] = Slot{Temp(d), type, false};
            return true;
        }
        return false;  // anything else leaves the function to the interpreter
    }

    const uint8_t* code_;
    int32_t params_;
    uint32_t mask_;
    Plan* p_;
    int32_t vars_ = 0;
    int32_t types_[kMaxVars] = {};
    std::vector<Slot> stack_;
};

}  // namespace

std::vector<Plan> MakePlans(const uint8_t* code, int32_t params) {
    std::vector<Plan> plans;
    if (!code || params < 1 || params > 4) return plans;
    plans.resize(size_t(1) << params);
    bool any = false;
    for (uint32_t mask = 0; mask < plans.size(); ++mask) {
        Plan p;
        if (Decoder(code, params, mask, &p).Run()) {
            plans[mask] = std::move(p);
            any = true;
        }
    }
    if (!any) plans.clear();
    return plans;
}

bool RunPlan(const Plan& p, CVar* args) {
    // Threaded: every operation jumps to the next one's code itself, so
    // each has its own place in the branch predictor.  In PlanCode order.
    static void* const kCode[] = {
        &&addI, &&subI, &&mulI, &&divII, &&diviI, &&modI, &&cmpI,
        &&addD, &&subD, &&mulD, &&divD, &&cmpD,
        &&i2d, &&negI, &&negD, &&math, &&mov,
        &&sin, &&cos, &&sqrt, &&sincos, &&divDK,
        &&addDR, &&subDR, &&mulDR, &&divDR, &&divDKR, &&done,
    };
    static_assert(sizeof kCode / sizeof kCode[0] == kDone + 1, "one label per operation");
    uint64_t r[kMaxRegs];
    switch (p.params) {  // one to four, unrolled: the loop costs more than the loads
    case 4: r[3] = uint64_t(NumOf(args + 3).bits); [[fallthrough]];
    case 3: r[2] = uint64_t(NumOf(args + 2).bits); [[fallthrough]];
    case 2: r[1] = uint64_t(NumOf(args + 1).bits); [[fallthrough]];
    default: r[0] = uint64_t(NumOf(args).bits);
    }
    if (p.constCount) std::memcpy(r + kMaxVars + kMaxDepth, p.consts, sizeof p.consts);
    const PlanOp* o = p.ops.data();
#define A r[o->a]
#define BB r[o->b]
#define X r[o->dst]
#define NEXT() goto* kCode[(++o)->code]
    goto* kCode[o->code];
addI: X = A + BB; NEXT();
subI: X = A - BB; NEXT();
mulI: X = A * BB; NEXT();
divII:
    if (BB == 0) return false;
    X = B(double(int64_t(A)) / double(int64_t(BB)));
    NEXT();
diviI:
    if (BB == 0) return false;
    X = int64_t(BB) == -1 ? 0 - A : uint64_t(int64_t(A) / int64_t(BB));  // INT64_MIN \ -1 wraps
    NEXT();
modI:
    if (BB == 0) return false;
    X = int64_t(BB) == -1 ? 0 : uint64_t(int64_t(A) % int64_t(BB));
    NEXT();
cmpI: X = Compare(o->op, int64_t(A), int64_t(BB)); NEXT();
addD: X = B(D(A) + D(BB)); NEXT();
subD: X = B(D(A) - D(BB)); NEXT();
mulD: X = B(D(A) * D(BB)); NEXT();
divD:
    if (D(BB) == 0) return false;
divDK:
    X = B(D(A) / D(BB));
    NEXT();
cmpD: X = Compare(o->op, D(A), D(BB)); NEXT();
i2d: X = B(double(int64_t(A))); NEXT();
negI: X = 0 - A; NEXT();
negD: X = B(-D(A)); NEXT();
math: {
    double y = 0;
    MathOne(o->op, D(A), y);
    X = B(y);
    NEXT();
}
mov: X = A; NEXT();
sin: X = B(std::sin(D(A))); NEXT();
cos: X = B(std::cos(D(A))); NEXT();
sqrt: X = B(std::sqrt(D(A))); NEXT();
sincos:  // straight into the registers: no copy between the call and its users
    ::sincos(D(A), reinterpret_cast<AliasDbl*>(&X), reinterpret_cast<AliasDbl*>(&BB));
    NEXT();
addDR: PutDbl(args, D(A) + D(BB)); return true;
subDR: PutDbl(args, D(A) - D(BB)); return true;
mulDR: PutDbl(args, D(A) * D(BB)); return true;
divDR:
    if (D(BB) == 0) return false;
divDKR:
    PutDbl(args, D(A) / D(BB));
    return true;
done:
#undef A
#undef BB
#undef X
#undef NEXT
    if (p.resultType == kEmpty) Wipe(args);
    else PutBits(args, p.resultType, r[p.result]);
    return true;
}

}  // namespace kwz::calc
