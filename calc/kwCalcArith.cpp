// The operators on values, from one table: each operator code names a rule
// for the built-in tags and the object type slot that takes an object
// operand.
//
//   + - *      Int,Int -> Int (64-bit, wrapping); a Dbl side -> Dbl;
//              Str + Str -> Str (both texts)
//   NaN        + - * / with two NaN operands give the left one's NaN,
//              quieted (sign and payload kept); with one, that NaN quieted.
//              "-" and "/" get it from the hardware as they are written;
//              "+" and "*" through AddDbl/MulDbl (kwCalcEngine.h), which
//              every path uses, as the compiler may swap their operands.
//   /          as doubles -> Dbl
//   \          Int by Int truncating (a Dbl is cast to Int); INT64_MIN \ -1 wraps
//   %          Int by Int truncating; a Dbl side -> fmod, Dbl
//   zero divisor of / \ %: -43
//   == != < <= > >=   numbers numerically (Int against Dbl as doubles, NaN
//              false except !=), Str by CStrCmp, Empty equals only Empty
//   & ^ | << >> ~    on Int (a Dbl cast to Int); shift counts masked with
//              63, >> arithmetic
//   unary -    Int wraps;   !  1 for 0, 0.0, Empty and an empty Str
//   any other pairing: -44
#include <cmath>
#include <cstring>

#include "calc/kwCalcEngine.h"
#include "calc/kwCalcVar.h"

namespace kwz::calc {
namespace {

enum class Rule : uint8_t { kNone, kArith, kDiv, kDivI, kMod, kCompare, kBits, kNeg, kNot, kBNot, kLogic };

struct OpRule {
    Rule rule;
    // The descriptor slot that takes an object operand.
    int32_t (*KWCalcObjDef::*slot)(CVar*);
};

// Dbl to Int64 truncating; out of range and NaN give INT64_MIN.
int64_t DblToI64(double d) {
    if (!(d >= -9223372036854775808.0 && d < 9223372036854775808.0)) return INT64_MIN;
    return static_cast<int64_t>(d);
}

bool IsNum(const CVar* v) { return v->type == kInt || v->type == kDbl; }
double AsDbl(const CVar* v) { return v->type == kInt ? double(v->v.i) : v->v.d; }
int64_t AsInt(const CVar* v) { return v->type == kInt ? v->v.i : DblToI64(v->v.d); }

int64_t Wrap(uint64_t u) {
    int64_t r;
    std::memcpy(&r, &u, 8);
    return r;
}

const char* Text(const CVar* v) { return v->v.s ? v->v.s : ""; }

int32_t Arith(int32_t op, CVar* a) {
    CVar* b = a + 1;
    if (a->type == kStr && b->type == kStr) {
        if (op != 49) return kNotSupported;
        const int64_t n = int64_t(a->count) + b->count;
        if (n > INT32_MAX - 256) return kNoMem;
        CVar r{};
        if (SetStr(&r, nullptr, int32_t(n)) != kOk) return kNoMem;
        if (a->count) std::memcpy(r.v.s, Text(a), size_t(a->count));
        if (b->count) std::memcpy(r.v.s + a->count, Text(b), size_t(b->count));
        SetEmpty(b);
        Move(a, &r);
        return kOk;
    }
    if (!IsNum(a) || !IsNum(b)) return kNotSupported;
    if (a->type == kInt && b->type == kInt) {
        const uint64_t x = uint64_t(a->v.i), y = uint64_t(b->v.i);
        a->v.i = Wrap(op == 49 ? x + y : op == 50 ? x - y : x * y);
    } else {
        const double x = AsDbl(a), y = AsDbl(b);
        SetDbl(a, op == 49 ? AddDbl(x, y) : op == 50 ? x - y : MulDbl(x, y));
    }
    SetEmpty(b);
    return kOk;
}

int32_t Divide(Rule rule, CVar* a) {
    CVar* b = a + 1;
    if (!IsNum(a) || !IsNum(b)) return kNotSupported;
    if (rule == Rule::kDiv || (rule == Rule::kMod && (a->type == kDbl || b->type == kDbl))) {
        const double x = AsDbl(a), y = AsDbl(b);
        if (y == 0) return kDivZero;
        SetDbl(a, rule == Rule::kDiv ? x / y : std::fmod(x, y));
    } else {
        const int64_t x = AsInt(a), y = AsInt(b);
        if (y == 0) return kDivZero;
        int64_t r;
        if (y == -1)
            r = rule == Rule::kDivI ? Wrap(0 - uint64_t(x)) : 0;  // INT64_MIN \ -1 wraps
        else
            r = rule == Rule::kDivI ? x / y : x % y;
        SetInt(a, r);
    }
    SetEmpty(b);
    return kOk;
}

int32_t Compare(int32_t op, CVar* a) {
    CVar* b = a + 1;
    int c;          // <0, 0, >0
    bool unordered = false;
    if (IsNum(a) && IsNum(b)) {
        if (a->type == kInt && b->type == kInt) {
            c = a->v.i < b->v.i ? -1 : a->v.i > b->v.i ? 1 : 0;
        } else {
            const double x = AsDbl(a), y = AsDbl(b);
            unordered = std::isnan(x) || std::isnan(y);
            c = x < y ? -1 : x > y ? 1 : 0;
        }
    } else if (a->type == kStr && b->type == kStr) {
        c = StrCmp(Text(a), a->count, Text(b), b->count);
    } else if (a->type == kEmpty || b->type == kEmpty) {
        if (op != 65 && op != 66) return kNotSupported;
        c = a->type == b->type ? 0 : 1;
    } else {
        return kNotSupported;
    }
    bool r;
    switch (op) {
    case 65: r = !unordered && c == 0; break;
    case 66: r = unordered || c != 0; break;
    case 67: r = !unordered && c < 0; break;
    case 68: r = !unordered && c <= 0; break;
    case 69: r = !unordered && c > 0; break;
    default: r = !unordered && c >= 0; break;
    }
    SetEmpty(b);
    SetInt(a, r ? 1 : 0);
    return kOk;
}

int32_t Bits(int32_t op, CVar* a) {
    CVar* b = a + 1;
    if (!IsNum(a) || !IsNum(b)) return kNotSupported;
    const int64_t x = AsInt(a), y = AsInt(b);
    int64_t r;
    switch (op) {
    case 86: r = x & y; break;
    case 87: r = x ^ y; break;
    case 88: r = x | y; break;
    case 89: r = Wrap(uint64_t(x) << (y & 63)); break;
    default: r = x >> (y & 63); break;
    }
    SetEmpty(b);
    SetInt(a, r);
    return kOk;
}

const OpRule* RuleOf(int32_t op) {
    static const auto table = [] {
        struct T {
            OpRule r[91];
        } t{};
        auto set = [&](int32_t op, Rule rule, int32_t (*KWCalcObjDef::*slot)(CVar*)) {
            t.r[op] = OpRule{rule, slot};
        };
        set(49, Rule::kArith, &KWCalcObjDef::Sum);
        set(50, Rule::kArith, &KWCalcObjDef::Sub);
        set(51, Rule::kArith, &KWCalcObjDef::Mul);
        set(52, Rule::kDiv, &KWCalcObjDef::Div);
        set(53, Rule::kDivI, &KWCalcObjDef::DivI);
        set(54, Rule::kMod, &KWCalcObjDef::Mod);
        set(65, Rule::kCompare, &KWCalcObjDef::LE);
        set(66, Rule::kCompare, &KWCalcObjDef::LNE);
        set(67, Rule::kCompare, &KWCalcObjDef::LL);
        set(68, Rule::kCompare, &KWCalcObjDef::LLE);
        set(69, Rule::kCompare, &KWCalcObjDef::LG);
        set(70, Rule::kCompare, &KWCalcObjDef::LGE);
        set(81, Rule::kNeg, &KWCalcObjDef::UMin);
        set(82, Rule::kNot, &KWCalcObjDef::LNot);
        set(83, Rule::kBNot, &KWCalcObjDef::BDop);
        set(84, Rule::kLogic, &KWCalcObjDef::LAnd);
        set(85, Rule::kLogic, &KWCalcObjDef::LOr);
        set(86, Rule::kBits, &KWCalcObjDef::BAnd);
        set(87, Rule::kBits, &KWCalcObjDef::BXor);
        set(88, Rule::kBits, &KWCalcObjDef::BOr);
        set(89, Rule::kBits, &KWCalcObjDef::Shl);
        set(90, Rule::kBits, &KWCalcObjDef::Shr);
        return t;
    }();
    return op >= 0 && op <= 90 && table.r[op].rule != Rule::kNone ? &table.r[op] : nullptr;
}

}  // namespace

bool IsUnary(int32_t op) { return op >= 81 && op <= 83; }

int32_t Truth(const CVar* v, bool* out) {
    switch (v->type) {
    case kEmpty: *out = false; return kOk;
    case kInt: *out = v->v.i != 0; return kOk;
    case kDbl: *out = AsInt(v) != 0; return kOk;
    case kStr: {
        CVar c{};
        if (const int32_t st = Copy(&c, v); st != kOk) return st;
        const int32_t st = Cast(&c, kInt);
        *out = st == kOk && c.type == kInt && c.v.i != 0;
        SetEmpty(&c);
        return st;
    }
    default: {
        CVar c{};
        if (const int32_t st = Copy(&c, v); st != kOk) return st;
        const int32_t st = Cast(&c, kInt);
        *out = st == kOk && c.type == kInt && c.v.i != 0;
        SetEmpty(&c);
        return st;
    }
    }
}

int32_t Operate(int32_t op, CVar* a) {
    const OpRule* r = RuleOf(op);
    if (!r) return kNotSupported;
    // An object on either side goes to its type's slot.
    const bool unary = IsUnary(op);
    const CVar* obj = IsObjTag(a->type) ? a : (!unary && IsObjTag(a[1].type) ? a + 1 : nullptr);
    if (obj) {
        const KWCalcObjDef* def = ObjType(obj->type);
        if (!def || !(def->*(r->slot))) return kNotSupported;
        const int32_t st = (def->*(r->slot))(a);
        if (!unary) SetEmpty(a + 1);
        return st;
    }
    switch (r->rule) {
    case Rule::kArith: return Arith(op, a);
    case Rule::kDiv:
    case Rule::kDivI:
    case Rule::kMod: return Divide(r->rule, a);
    case Rule::kCompare: return Compare(op, a);
    case Rule::kBits: return Bits(op, a);
    case Rule::kNeg:
        if (a->type == kInt) a->v.i = Wrap(0 - uint64_t(a->v.i));
        else if (a->type == kDbl) a->v.d = -a->v.d;
        else return kNotSupported;
        return kOk;
    case Rule::kNot: {
        bool f;
        if (a->type == kEmpty) f = true;
        else if (a->type == kInt) f = a->v.i == 0;
        else if (a->type == kDbl) f = a->v.d == 0;
        else if (a->type == kStr) f = a->count == 0;
        else return kNotSupported;
        SetInt(a, f ? 1 : 0);
        return kOk;
    }
    case Rule::kBNot:
        if (!IsNum(a)) return kNotSupported;
        SetInt(a, ~AsInt(a));
        return kOk;
    case Rule::kLogic: {
        // Reached only when the left operand did not decide: the right one's
        // truth is the result.
        bool t;
        if (const int32_t st = Truth(a + 1, &t); st != kOk) return st;
        SetEmpty(a + 1);
        SetInt(a, t ? 1 : 0);
        return kOk;
    }
    default: return kNotSupported;
    }
}

}  // namespace kwz::calc
