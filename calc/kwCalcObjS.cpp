// The parts the scalar object types share: setters, operand kinds, the
// dispatcher of the promotion tables, property selectors, printing, the shared
// script functions and registration.
#include "calc/kwCalcObjS.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "base/kwSort.h"
#include "calc/kwCalcEngine.h"
#include "calc/kwCalcStack.h"

namespace kwz::calc {

int32_t IntSTypeNum = 0;
int32_t DblSTypeNum = 0;
int32_t StrSTypeNum = 0;

const char* const kPropNames[2] = {"Val", "Sign"};

namespace {

int32_t Low32(int64_t x) { return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(x))); }
int64_t Wrap(uint64_t u) { return static_cast<int64_t>(u); }

int64_t IntOf(const CVar* v) { return v->v.i; }  // Int and IntS
double DblOf(const CVar* v, Kind k) { return k == kKInt || k == kKIntS ? double(v->v.i) : v->v.d; }
bool Truth(const CVar* v, Kind k) {
    // A double is true when it truncates to a non-zero integer, as the jumps
    // of && and || take it.
    return k == kKInt || k == kKIntS ? v->v.i != 0 : Trunc64(v->v.d) != 0;
}

// The integer operators.  The remainder is not guarded against a zero divisor
// (no -43, unlike division); it is kept defined: x % 0 leaves x (the
// quotient counts as 0) and INT64_MIN % -1 is 0.
int32_t IntOp(Op op, int64_t x, int64_t y, uint8_t flags, int64_t* r) {
    switch (op) {
    case Op::kAdd: *r = Wrap(uint64_t(x) + uint64_t(y)); return kOk;
    case Op::kSub: *r = Wrap(uint64_t(x) - uint64_t(y)); return kOk;
    case Op::kMul: *r = Wrap(uint64_t(x) * uint64_t(y)); return kOk;
    case Op::kDivI:
        if (y == 0 && (flags & kZeroDiv)) return kDivZero;
        if (y == 0) *r = 0;
        else *r = y == -1 ? Wrap(0 - uint64_t(x)) : x / y;  // INT64_MIN \ -1 wraps
        return kOk;
    case Op::kMod: *r = y == 0 ? x : y == -1 ? 0 : x % y; return kOk;
    case Op::kBAnd: *r = x & y; return kOk;
    case Op::kBXor: *r = x ^ y; return kOk;
    case Op::kBOr: *r = x | y; return kOk;
    case Op::kShl: *r = Wrap(uint64_t(x) << (y & 63)); return kOk;
    case Op::kShr: *r = x >> (y & 63); return kOk;
    default: return kNotSupported;
    }
}

int32_t DblOp(Op op, double x, double y, uint8_t flags, double* r) {
    if ((flags & kZeroDiv) && y == 0) return kDivZero;
    switch (op) {
    case Op::kAdd: *r = AddDbl(x, y); return kOk;
    case Op::kSub: *r = x - y; return kOk;
    case Op::kMul: *r = MulDbl(x, y); return kOk;
    case Op::kDiv:
    case Op::kDivI: *r = x / y; return kOk;
    case Op::kMod: *r = std::fmod(x, y); return kOk;
    default: return kNotSupported;
    }
}

bool IsCompare(Op op) { return op >= Op::kLE && op <= Op::kLGE; }

// A comparison from the three-way result c (unordered: a NaN took part).
bool Compare(Op op, const Cell& cell, int c, bool unordered, const CVar* a, const CVar* b) {
    bool eq;
    if (cell.flags & kEqBGtA) eq = !unordered && c < 0;  // B > A: kept as it stands
    else if (cell.flags & kEqALeB) eq = !unordered && c <= 0;
    else eq = !unordered && c == 0 && (!(cell.flags & kSignEq) || SignOf(a) == SignOf(b));
    const bool lt = !unordered && c < 0, le = !unordered && c <= 0;
    switch (op) {
    case Op::kLE: return eq;
    case Op::kLNE: return !eq;
    case Op::kLL: return lt;
    case Op::kLLE: return le;
    case Op::kLG: return !le;
    default: return !lt;
    }
}

// B's text appended to A's into r.
int32_t Append(const CVar* a, const CVar* b, CVar* r) {
    const int64_t n = int64_t(a->count) + b->count;
    if (a->count < 0 || b->count < 0 || n > INT32_MAX - 256) return kNoMem;
    if (SetStr(r, nullptr, int32_t(n)) != kOk) return kNoMem;
    if (a->count) std::memcpy(r->v.s, TextOf(a), size_t(a->count));
    if (b->count) std::memcpy(r->v.s + a->count, TextOf(b), size_t(b->count));
    return kOk;
}

// Makes the numeric result of a cell; -44 when its type is not registered.
int32_t Build(const Cell& cell, int64_t i, double d, int32_t sign, CVar* r) {
    switch (cell.out) {
    case Out::kIntS:
        if (!IntSTypeNum) return kNotSupported;
        r->type = IntSTypeNum;
        r->v.i = i;
        r->count = sign;
        return kOk;
    case Out::kIntS32:
    case Out::kIntSTrunc:
        if (!IntSTypeNum) return kNotSupported;
        CIntSSet_(r, cell.out == Out::kIntS32 ? Low32(i) : DblToInt32(d), sign);
        return kOk;
    case Out::kDblS:
        if (!DblSTypeNum) return kNotSupported;
        CDblSSet_(r, sign, d);
        return kOk;
    default:
        return kNotSupported;
    }
}

}  // namespace

void CIntSSet_(CVar* v, int32_t i, int32_t sign) {
    SetEmpty(v);
    v->v.i = i;
    v->count = sign;
    v->type = IntSTypeNum;
}

void CDblSSet_(CVar* v, int32_t sign, double d) {
    SetEmpty(v);
    v->v.d = d;
    v->count = sign;
    v->type = DblSTypeNum;
}

int32_t CStrSSet_(CVar* v, const char* bytes, int32_t length, int32_t sign) {
    CVar r{};
    if (SetStr(&r, bytes, length < 0 ? 0 : length) != kOk) {
        SetEmpty(v);
        return kNoMem;
    }
    r.spare = sign;
    r.type = StrSTypeNum;
    Move(v, &r);
    return kOk;
}

Kind KindOf(const CVar* v) {
    const int32_t t = v->type;
    if (t >= kEmpty && t <= kArr) return Kind(t);
    if (t == IntSTypeNum) return kKIntS;
    if (t == DblSTypeNum) return kKDblS;
    if (t == StrSTypeNum) return kKStrS;
    return kKOther;
}

int32_t SignOf(const CVar* v) {
    switch (KindOf(v)) {
    case kKIntS:
    case kKDblS: return v->count;
    case kKStrS: return v->spare;
    default: return 0;
    }
}

const char* TextOf(const CVar* v) { return v->v.s ? v->v.s : ""; }

int64_t Trunc64(double d) {
    if (!(d >= -9223372036854775808.0 && d < 9223372036854775808.0)) return INT64_MIN;
    return static_cast<int64_t>(d);
}

int32_t Dispatch(const Table& table, Op op, CVar* a) {
    CVar* b = a + 1;
    const Kind ka = KindOf(a), kb = KindOf(b);
    const Cell& cell = table.cell[ka][kb];
    if (cell.out == Out::kNotMine) return kOk;
    if (cell.out == Out::kFail) return kNotSupported;
    const int32_t sign = cell.sign == Sg::kA ? SignOf(a)
                       : cell.sign == Sg::kB ? SignOf(b)
                       : cell.sign == Sg::kOr ? SignOf(a) | SignOf(b) : 0;
    CVar r{};
    int32_t st = kOk;
    switch (cell.dom) {
    case Dom::kNone:  // StrS against Empty: unequal, nothing orders
        SetInt(&r, op == Op::kLNE ? 1 : 0);
        break;
    case Dom::kTruth: {
        const bool x = Truth(a, ka), y = Truth(b, kb);
        SetInt(&r, (op == Op::kLAnd ? x && y : x || y) ? 1 : 0);
        break;
    }
    case Dom::kInt: {
        const int64_t x = IntOf(a);
        const int64_t y = (cell.flags & kB32) && kb == kKInt ? Low32(IntOf(b)) : IntOf(b);
        if (IsCompare(op)) {
            SetInt(&r, Compare(op, cell, x < y ? -1 : x > y ? 1 : 0, false, a, b) ? 1 : 0);
            break;
        }
        int64_t i = 0;
        if ((st = IntOp(op, x, y, cell.flags, &i)) == kOk) st = Build(cell, i, 0, sign, &r);
        break;
    }
    case Dom::kDbl: {
        const double x = DblOf(a, ka), y = DblOf(b, kb);
        if (IsCompare(op)) {
            const bool unordered = std::isnan(x) || std::isnan(y);
            SetInt(&r, Compare(op, cell, x < y ? -1 : x > y ? 1 : 0, unordered, a, b) ? 1 : 0);
            break;
        }
        double d = 0;
        if ((st = DblOp(op, x, y, cell.flags, &d)) == kOk) st = Build(cell, 0, d, sign, &r);
        break;
    }
    case Dom::kText:
        if (IsCompare(op)) {
            const int32_t c = StrCmp(TextOf(a), a->count, TextOf(b), b->count);
            SetInt(&r, Compare(op, cell, c < 0 ? -1 : c > 0 ? 1 : 0, false, a, b) ? 1 : 0);
            break;
        }
        if ((cell.flags & kOwnedA) && a->ref != 0) return kNotSupported;
        if (cell.out == Out::kStrS && !StrSTypeNum) return kNotSupported;
        if ((st = Append(a, b, &r)) != kOk) break;
        if (cell.out == Out::kStrS) {
            r.spare = sign;
            r.type = StrSTypeNum;
        }
        break;
    }
    if (st != kOk) {
        SetEmpty(&r);
        return st;
    }
    Move(a, &r);
    return kOk;
}

int32_t PropertyOf(const CVar* sel) {
    if (sel->type == kInt) return sel->v.i == 1 || sel->v.i == 2 ? int32_t(sel->v.i) : 0;
    if (sel->type != kStr) return -1;
    // Names as a whole, ignoring case: "Signal" is no property.
    for (int32_t i = 0; i < 2; ++i)
        if (sel->count == int32_t(std::strlen(kPropNames[i])) &&
            PropNameToInt(TextOf(sel)) == PropNameToInt(kPropNames[i]))
            return i + 1;
    return 0;
}

int32_t CastCopy(const CVar* v, int32_t tag, CVar* out) {
    int32_t st = Copy(out, v);
    if (st == kOk) st = Cast(out, tag);
    if (st != kOk) SetEmpty(out);
    return st;
}

int32_t IntArg(const CVar* v, int64_t* out) {
    if (v->type == kInt) {
        *out = v->v.i;
        return kOk;
    }
    CVar c{};
    const int32_t st = CastCopy(v, kInt, &c);
    if (st == kOk && c.type == kInt) {
        *out = c.v.i;
        return kOk;
    }
    SetEmpty(&c);
    return Failed(st, kNotSupported);
}

int32_t PairArr(CVar* v, CVar* value, int32_t sign) {
    CVar r{};
    if (SetArr(&r, 2) != kOk) return kNoMem;
    Move(&r.v.a[0], value);
    SetInt(&r.v.a[1], sign);
    Move(v, &r);
    return kOk;
}

int32_t ArrToPair(const CVar* arr, int32_t valueTag, CVar* value, int64_t* sign) {
    *sign = 0;
    const CVar none{};
    int32_t st = CastCopy(arr->count > 0 ? &arr->v.a[0] : &none, valueTag, value);
    if (st != kOk) return Failed(st, kNotSupported);
    if (arr->count > 1 && (st = IntArg(&arr->v.a[1], sign)) != kOk) {
        SetEmpty(value);
        return st;
    }
    return kOk;
}

int32_t PrintInto(CVar* v, bool isDbl, int64_t i, double d, int32_t sign, bool withSign, bool asStrS) {
    // "%f" of the largest double is 317 characters.
    char text[400];
    int n = isDbl ? std::snprintf(text, sizeof text, "%f", d)
                  : std::snprintf(text, sizeof text, "%lld", static_cast<long long>(i));
    if (n < 0 || size_t(n) >= sizeof text) return kNotSupported;
    if (withSign) {
        const int m = std::snprintf(text + n, sizeof text - size_t(n), " 0x%x", static_cast<unsigned>(sign));
        if (m < 0 || size_t(n + m) >= sizeof text) return kNotSupported;
        n += m;
    }
    CVar r{};
    if (SetStr(&r, text, n) != kOk) return kNoMem;
    if (asStrS) {
        if (!StrSTypeNum) {
            SetEmpty(&r);
            return kNotSupported;
        }
        r.spare = sign;
        r.type = StrSTypeNum;
    }
    Move(v, &r);
    return kOk;
}

void AddShared(KWCalcDef* calc, KWCalcFn val, KWCalcFn sign) {
    if (!NameFind(calc, kPropNames[0], nullptr)) FunAdd(calc, kPropNames[0], 1, val, nullptr, nullptr);
    if (!NameFind(calc, kPropNames[1], nullptr)) FunAdd(calc, kPropNames[1], 1, sign, nullptr, nullptr);
}

int32_t NumSVal(KWCalcStack* s) {
    CVar* v = StackArg(s, 0);
    if (!v) return kNotSupported;
    switch (KindOf(v)) {
    case kKIntS: SetInt(v, v->v.i); return kOk;
    case kKDblS: SetDbl(v, v->v.d); return kOk;
    default: return kNotSupported;
    }
}

int32_t NumSSign(KWCalcStack* s) {
    CVar* v = StackArg(s, 0);
    if (!v) return kNotSupported;
    switch (KindOf(v)) {
    case kKIntS:
    case kKDblS: SetInt(v, v->count); return kOk;
    default: return kNotSupported;
    }
}

KWCalcObjDef* RegisterS(KWCalcObjDef* def, int32_t* tag, int32_t wanted, KWCalcConst* constants) {
    const ObjTypeInfo info{def, tag, kPropNames, 2};
    return RegisterObjType(info, wanted, constants);
}

}  // namespace kwz::calc
