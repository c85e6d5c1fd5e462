// Decoding plans: the operand stack followed symbolically, so a load costs
// nothing and an operator names its operands' registers, and the tags
// followed along every edge of the code, so that each operation knows its
// operands' tags.  The loops that run plans are in kwCalcPlanRun.cpp.
#include "calc/kwCalcPlan.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <map>
#include <utility>

#include "base/kwSort.h"
#include "calc/kwCalcEngine.h"
#include "calc/kwCalcOps.h"

namespace kwz::calc {
namespace {

using namespace plan;
using namespace kwz::calcl;

constexpr int kMaxVars = 24;
constexpr int kMaxDepth = 16;
constexpr int kMaxConsts = kPlanConsts;
// A variable whose tags disagree where paths meet: it may not be read.
constexpr int32_t kMixed = -1;
// Functions with jumps or calls longer than this get no plans: the decoder
// may go over the code a few times for each combination of tags.
constexpr size_t kMaxFlowCode = 16384;
// Bytes of code all decodings of one function may go over together; what is
// not decoded by then gets no plan, so adding a function stays quick.
constexpr size_t kMaxDecodeWork = size_t(1) << 20;

inline double D(uint64_t b) { return PlanDbl(b); }
inline uint64_t B(double d) { return PlanBits(d); }

inline size_t JumpTarget(const uint8_t* code, size_t pc) {
    return size_t(int64_t(pc + 1) + Load<int32_t>(code + pc + 1));
}

// What the decoder learns of a function once, for all combinations of tags:
// where instructions start, which offsets jumps reach (2: from a later
// jump), which externals are the function itself.
struct Shape {
    const uint8_t* code = nullptr;
    int32_t params = 0;
    bool flow = false;               // jumps or calls
    size_t length = 0;               // bytes up to the end
    std::vector<uint8_t> target;     // by offset: 0, 1 a jump target, 2 a back edge's target
    std::vector<uint8_t> self;       // by external index: 1 when it is this function
    bool Make(const KWFunDef* f) {
        code = f->code;
        params = f->paramCount;
        size_t pc = 0;
        std::vector<uint8_t> start;
        for (;;) {
            const size_t n = OpLength(code + pc);
            if (n == 0) return false;
            if (start.size() < pc + n) start.resize(pc + n, 0);
            start[pc] = 1;
            const uint8_t o = code[pc];
            if (o == kOpJump || o == kOpJumpFalse || o == kOpCall) flow = true;
            if (o == kOpAndTest || o == kOpOrTest || o == kOpTry) return false;  // values kept across jumps
            if (o == kOpEnd) break;
            pc += n;
        }
        length = start.size();
        if (!flow) return true;
        if (length > kMaxFlowCode) return false;
        target.assign(start.size(), 0);
        for (pc = 0; pc < start.size(); pc += OpLength(code + pc)) {
            const uint8_t o = code[pc];
            if (o != kOpJump && o != kOpJumpFalse) continue;
            const size_t t = JumpTarget(code, pc);
            if (t >= start.size() || !start[t]) return false;
            target[t] = std::max<uint8_t>(target[t], t <= pc ? 2 : 1);
        }
        const auto* ext = static_cast<const KWFunExtern*>(f->externNames);
        self.assign(size_t(std::max(f->externCount, 0)), 0);
        for (size_t i = 0; i < self.size(); ++i)
            self[i] = ext && ext[i].name && f->name && StrICmpRus(ext[i].name, f->name) == 0 &&
                      ext[i].argCount == params;
        return true;
    }
};

// Why a decoding failed: for good, or for want of another plan's result
// tag (it may be known on a later pass), or for a loop whose back edge
// brings a variable with another tag (decoded again with it mixed there).
enum class Outcome { kOk, kNo, kLater, kAgain };

// One value of the symbolic operand stack: the register holding it, its tag,
// and whether that register is a variable's (which a later store changes).
struct Slot {
    uint8_t reg;
    int32_t type;
    bool var;
};

class Decoder {
public:
    // known: the result tag of each combination's plan (kUnknown: not yet
    // known, kMixed: none); guess: the result tag assumed for a call of this
    // same combination; mixed: (offset, variable) pairs taken as mixed at a
    // jump target, which Run extends when it returns kAgain.
    static constexpr int32_t kUnknown = -2;
    Decoder(const Shape& sh, uint32_t mask, Plan* p, const int32_t* known, int32_t guess,
            std::vector<std::pair<size_t, int32_t>>* mixed)
        : code_(sh.code), params_(sh.params), mask_(mask), p_(p), sh_(sh), known_(known), guess_(guess),
          mixed_(mixed) {}

    bool usedGuess() const { return usedGuess_; }

    Outcome Run() {
        size_t pc = 0;
        int32_t locals = 0;
        while (code_[pc] == kOpEmpty) {  // the prologue: "result" and the vars
            ++locals;
            ++pc;
        }
        vars_ = params_ + locals;
        if (locals < 1 || vars_ > kMaxVars) return Outcome::kNo;
        for (int32_t i = 0; i < vars_; ++i) types_[i] = i < params_ ? ((mask_ >> i) & 1 ? kDbl : kInt) : kEmpty;
        p_->params = uint8_t(params_);
        p_->result = uint8_t(params_);
        if (sh_.flow) return RunFlow(pc, locals);
        p_->steps = locals;
        for (;;) {
            const uint8_t o = code_[pc];
            const size_t len = OpLength(code_ + pc);
            if (len == 0) return Outcome::kNo;
            ++p_->steps;
            if (!Step(o, code_ + pc)) return Outcome::kNo;
            if (o == kOpExit || o == kOpEnd) break;
            pc += len;
        }
        p_->resultType = types_[params_];
        static_assert(kMaxVars + kMaxDepth == kPlanConstBase, "the runner copies the literals there");
        p_->constBase = uint8_t(kPlanConstBase);
        p_->regs = uint8_t(p_->constBase + p_->constCount);
        FuseSinCos();
        FuseReturn();
        // The end carries the result's register and tag itself: the runner
        // then needs nothing of the plan once it has started.
        Emit(kDone, 0, p_->result, 0, uint8_t(p_->resultType));
        p_->ok = true;
        return Outcome::kOk;
    }

private:
    // The tags where paths meet at offset pc: each variable keeps its tag
    // when every edge brings the same one, and is mixed otherwise.
    struct Edges {
        bool any = false;
        int32_t types[kMaxVars];
    };
    void Meet(Edges* e) const {
        if (!e->any) {
            std::copy(types_, types_ + vars_, e->types);
            e->any = true;
            return;
        }
        for (int32_t i = 0; i < vars_; ++i)
            if (e->types[i] != types_[i]) e->types[i] = kMixed;
    }

    // The body with jumps and calls: the instructions in order, the tags
    // carried along each edge.  Every block counts its instructions at the
    // op that ends it (a jump, a call, the end) or at a kSteps op where it
    // falls into a jump target.
    Outcome RunFlow(size_t pc, int32_t locals) {
        pending_ = locals;
        int32_t exitType = kUnknown;
        std::map<size_t, Edges> ahead;                       // forward edges by target
        std::map<size_t, std::vector<int32_t>> loopEntry;    // tags where a back edge lands
        std::map<size_t, int32_t> opAt;                      // op index of each reached target
        std::vector<std::pair<size_t, size_t>> patches;      // forward jump op, target offset
        bool live = true;
        for (;;) {
            const uint8_t o = code_[pc];
            const size_t len = OpLength(code_ + pc);
            if (pc < sh_.target.size() && sh_.target[pc]) {
                if (live && !stack_.empty()) return Outcome::kNo;
                if (live && pending_ > 0) EmitCount(kSteps);
                Edges in;
                if (live) Meet(&in);
                if (auto it = ahead.find(pc); it != ahead.end()) {
                    if (!in.any) in = it->second;
                    else
                        for (int32_t i = 0; i < vars_; ++i)
                            if (in.types[i] != it->second.types[i]) in.types[i] = kMixed;
                }
                live = in.any;
                if (live) {
                    std::copy(in.types, in.types + vars_, types_);
                    for (const auto& m : *mixed_)
                        if (m.first == pc) types_[m.second] = kMixed;
                    opAt[pc] = int32_t(p_->ops.size());
                    if (sh_.target[pc] == 2) loopEntry[pc].assign(types_, types_ + vars_);
                }
            }
            if (!live) {  // nothing reaches it: left out
                if (o == kOpEnd) break;
                pc += len;
                continue;
            }
            ++pending_;
            if (o == kOpJump || o == kOpJumpFalse) {
                const size_t t = JumpTarget(code_, pc);
                if (o == kOpJumpFalse) {
                    if (stack_.size() != 1) return Outcome::kNo;
                    if (t <= pc) return Outcome::kNo;
                    EmitBranch();
                } else {
                    if (!stack_.empty()) return Outcome::kNo;
                    EmitCount(t <= pc ? kJmpBack : kJmp);
                }
                if (t > pc) {
                    Meet(&ahead[t]);
                    patches.emplace_back(p_->ops.size() - 1, t);
                } else {
                    // A back edge must bring the tags the loop started with;
                    // where it does not, the variable is mixed there.
                    const auto it = loopEntry.find(t);
                    if (it == loopEntry.end()) return Outcome::kNo;
                    bool again = false;
                    for (int32_t i = 0; i < vars_; ++i) {
                        if (it->second[size_t(i)] != kMixed && it->second[size_t(i)] != types_[i]) {
                            mixed_->emplace_back(t, i);
                            again = true;
                        }
                    }
                    if (again) return mixed_->size() > 64 ? Outcome::kNo : Outcome::kAgain;
                    p_->ops.back().target = opAt[t];
                }
                live = o == kOpJumpFalse;
            } else if (o == kOpCall) {
                if (!Call(Load<uint16_t>(code_ + pc + 1))) return why_;
            } else if (o == kOpExit || o == kOpEnd) {
                const int32_t t = types_[params_];
                if (t == kMixed || (exitType != kUnknown && exitType != t)) return Outcome::kNo;
                exitType = t;
                EmitCount(kRet);
                p_->ops.back().a = uint8_t(params_);
                live = false;
                if (o == kOpEnd) break;
            } else if (!Step(o, code_ + pc)) {
                return Outcome::kNo;
            }
            pc += len;
        }
        if (exitType == kUnknown) return Outcome::kNo;
        for (const auto& [op, t] : patches) {
            const auto it = opAt.find(t);
            if (it == opAt.end()) return Outcome::kNo;
            p_->ops[op].target = it->second;
        }
        p_->flow = true;
        p_->resultType = exitType;
        Renumber();
        p_->ok = true;
        return Outcome::kOk;
    }

    // An op that ends a block: it adds the block's instructions.
    void EmitCount(uint8_t code) {
        Emit(code, 0, 0);
        p_->ops.back().steps = pending_;
        pending_ = 0;
    }

    // jf on the one value left: a comparison made just before fuses with it.
    void EmitBranch() {
        const Slot c = stack_.back();
        stack_.pop_back();
        PlanOp* last = p_->ops.empty() ? nullptr : &p_->ops.back();
        if (!c.var && last && last->dst == c.reg && c.reg == Temp(0) && (last->code == kCmpI || last->code == kCmpD)) {
            last->code = last->code == kCmpI ? uint8_t(kEqJfI + (last->op - 65)) : uint8_t(kCmpJfD);
            last->dst = 0;
            last->steps = pending_;
            pending_ = 0;
            return;
        }
        EmitCount(c.type == kInt ? kJfI : kJfD);
        p_->ops.back().a = c.reg;
    }

    // A call of external ext: the function itself with its own argument
    // count, on arguments whose tags select a plan with a known result tag.
    bool Call(uint16_t ext) {
        why_ = Outcome::kNo;
        if (ext >= sh_.self.size() || !sh_.self[ext] || stack_.size() < size_t(params_)) return false;
        const size_t d = stack_.size() - size_t(params_);
        uint32_t mask = 0;
        uint8_t regs[4] = {};
        for (int32_t i = 0; i < params_; ++i) {
            const Slot& a = stack_[d + size_t(i)];
            if (a.type == kDbl) mask |= 1u << i;
            regs[i] = a.reg;
        }
        int32_t type = known_[mask];
        if (mask == mask_) {
            type = guess_;
            usedGuess_ = true;
        }
        if (type == kUnknown) why_ = Outcome::kLater;
        if (type != kInt && type != kDbl) return false;
        EmitCount(kCall);
        PlanOp& op = p_->ops.back();
        op.dst = Temp(d);
        op.a = regs[0];
        op.b = regs[1];
        op.c = regs[2];
        op.d = regs[3];
        op.target = int32_t(mask);
        stack_.resize(d);
        stack_.push_back(Slot{Temp(d), type, false});
        return true;
    }

    // A frame holds only what its plan uses: the variables, then the
    // temporaries up to the deepest, then the literals.
    void Renumber() {
        int32_t temps = 0;
        auto seen = [&](uint8_t r) {
            if (r >= kMaxVars && r < kMaxVars + kMaxDepth) temps = std::max(temps, r - kMaxVars + 1);
        };
        for (const PlanOp& o : p_->ops) {
            seen(o.dst), seen(o.a), seen(o.b), seen(o.c), seen(o.d);
        }
        auto map = [&](uint8_t& r) {
            if (r >= kMaxVars + kMaxDepth) r = uint8_t(vars_ + temps + (r - kMaxVars - kMaxDepth));
            else if (r >= kMaxVars) r = uint8_t(vars_ + (r - kMaxVars));
        };
        for (PlanOp& o : p_->ops) {
            map(o.dst), map(o.a), map(o.b), map(o.c), map(o.d);
        }
        p_->constBase = uint8_t(vars_ + temps);
        p_->window = p_->regs = uint8_t(p_->constBase + p_->constCount);
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
                        ops[i] = PlanOp{kSinCos, 0, s, x, c, 0, 0, 0, 0, 0};
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
    // The register of a literal: one for equal bits.
    int ConstReg(uint64_t bits) {
        for (int i = 0; i < p_->constCount; ++i)
            if (p_->consts[i] == bits) return kMaxVars + kMaxDepth + i;
        if (p_->constCount >= kMaxConsts) return -1;
        p_->consts[p_->constCount++] = bits;
        return kMaxVars + kMaxDepth + p_->constCount - 1;
    }
    bool Const(uint64_t bits, int32_t type) {
        const int reg = ConstReg(bits);
        if (reg < 0) return false;
        stack_.push_back(Slot{uint8_t(reg), type, false});
        return true;
    }
    void Emit(uint8_t code, uint8_t dst, uint8_t a, uint8_t b = 0, uint8_t op = 0) {
        p_->ops.push_back(PlanOp{code, op, dst, a, b, 0, 0, 0, 0, 0});
    }
    // The slot at depth d as a Dbl: a literal is converted now, anything else
    // by an operation into the temporary of its depth.
    Slot AsDbl(Slot v, size_t d) {
        if (v.type == kDbl) return v;
        if (v.reg >= kMaxVars + kMaxDepth) {
            const int reg = ConstReg(B(double(int64_t(p_->consts[v.reg - kMaxVars - kMaxDepth]))));
            if (reg >= 0) return Slot{uint8_t(reg), kDbl, false};
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
    const Shape& sh_;
    const int32_t* known_;
    int32_t guess_;
    std::vector<std::pair<size_t, int32_t>>* mixed_;
    bool usedGuess_ = false;
    int32_t pending_ = 0;  // instructions not yet counted by an op
    Outcome why_ = Outcome::kNo;
    int32_t vars_ = 0;
    int32_t types_[kMaxVars] = {};
    std::vector<Slot> stack_;
};

}  // namespace

std::vector<Plan> MakePlans(const KWFunDef* f, std::vector<uint16_t>* selfCalls) {
    std::vector<Plan> plans;
    selfCalls->clear();
    Shape sh;
    if (!f || !f->code || f->paramCount < 1 || f->paramCount > 4 || !sh.Make(f)) return plans;
    const uint32_t count = 1u << f->paramCount;
    plans.resize(count);
    // A plan calling another combination needs that one's result tag: the
    // combinations are decoded in passes until no more become known.
    int32_t known[16];
    std::fill(known, known + 16, Decoder::kUnknown);
    bool any = false;
    size_t work = 0;
    for (bool progress = true; progress && work <= kMaxDecodeWork;) {
        progress = false;
        for (uint32_t mask = 0; mask < count; ++mask) {
            if (known[mask] != Decoder::kUnknown) continue;
            bool later = false;
            // A call of this same combination: its result tag is guessed,
            // and the guess holds when the plan's own result has that tag.
            for (const int32_t guess : {int32_t(kInt), int32_t(kDbl)}) {
                Plan p;
                std::vector<std::pair<size_t, int32_t>> mixed;
                Outcome out = Outcome::kNo;
                bool guessed = false;
                do {
                    work += sh.length;
                    if (work > kMaxDecodeWork) {
                        out = Outcome::kNo;
                        break;
                    }
                    p = Plan();
                    Decoder d(sh, mask, &p, known, guess, &mixed);
                    out = d.Run();
                    guessed = d.usedGuess();
                } while (out == Outcome::kAgain);
                if (out == Outcome::kLater) later = true;
                if (out == Outcome::kOk && (!guessed || p.resultType == guess)) {
                    known[mask] = p.resultType;
                    plans[mask] = std::move(p);
                    any = progress = true;
                    break;
                }
                if (!guessed) break;  // the guess played no part: another gives the same
            }
            if (known[mask] == Decoder::kUnknown && !later) known[mask] = kMixed;
        }
    }
    if (!any) {
        plans.clear();
        return plans;
    }
    for (size_t i = 0; i < sh.self.size(); ++i)
        if (sh.self[i]) selfCalls->push_back(uint16_t(i));
    return plans;
}

}  // namespace kwz::calc
