// "IntS": a 64-bit integer with a 32-bit Sign that travels with it through
// arithmetic.  Its operators read the promotion tables below; results made
// through CIntSSet_ are narrowed to 32 bits on purpose.
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "base/kwBase.h"
#include "base/kwGuard.h"
#include "calc/kwCalcEngine.h"
#include "calc/kwCalcObjS.h"
#include "calc/kwCalcStack.h"

namespace kwz::calc {
namespace {

constexpr Cell C(Out out, Dom dom, Sg sign = Sg::kNone, uint8_t flags = 0) { return Cell{out, dom, sign, flags}; }

// + - *: a plain Int counts with its low 32 bits; Int op IntS is narrowed.
constexpr Table kArith = MakeTable(kKIntS, {
    {kKIntS, kKInt, C(Out::kIntS, Dom::kInt, Sg::kA, kB32)},
    {kKIntS, kKDbl, C(Out::kDblS, Dom::kDbl, Sg::kA)},
    {kKIntS, kKIntS, C(Out::kIntS, Dom::kInt, Sg::kOr)},
    {kKIntS, kKDblS, C(Out::kDblS, Dom::kDbl, Sg::kOr)},
    {kKInt, kKIntS, C(Out::kIntS32, Dom::kInt, Sg::kB)},
    {kKDbl, kKIntS, C(Out::kDblS, Dom::kDbl, Sg::kB)},
    {kKDblS, kKIntS, C(Out::kDblS, Dom::kDbl, Sg::kOr)},
});
// /: always a DblS.
constexpr Table kDiv = MakeTable(kKIntS, {
    {kKIntS, kKInt, C(Out::kDblS, Dom::kDbl, Sg::kA, kZeroDiv)},
    {kKIntS, kKDbl, C(Out::kDblS, Dom::kDbl, Sg::kA, kZeroDiv)},
    {kKIntS, kKIntS, C(Out::kDblS, Dom::kDbl, Sg::kOr, kZeroDiv)},
    {kKIntS, kKDblS, C(Out::kDblS, Dom::kDbl, Sg::kOr, kZeroDiv)},
    {kKInt, kKIntS, C(Out::kDblS, Dom::kDbl, Sg::kB, kZeroDiv)},
    {kKDbl, kKIntS, C(Out::kDblS, Dom::kDbl, Sg::kB, kZeroDiv)},
    {kKDblS, kKIntS, C(Out::kDblS, Dom::kDbl, Sg::kOr, kZeroDiv)},
});
// \: IntS by a plain Int only, by its low 32 bits.
constexpr Table kDivI = MakeTable(kKIntS, {
    {kKIntS, kKInt, C(Out::kIntS, Dom::kInt, Sg::kA, kB32 | kZeroDiv)},
});
// %: IntS on the left only, no zero check.
constexpr Table kMod = MakeTable(kKIntS, {
    {kKIntS, kKInt, C(Out::kIntS, Dom::kInt, Sg::kA)},
    {kKIntS, kKIntS, C(Out::kIntS, Dom::kInt, Sg::kOr)},
    {kKIntS, kKDbl, C(Out::kDblS, Dom::kDbl, Sg::kA)},
    {kKIntS, kKDblS, C(Out::kDblS, Dom::kDbl, Sg::kOr)},
});
// == != < <= > >=: a plain Int 0 or 1.  IntS == IntS needs equal signs too;
// Dbl == IntS is B > A, kept as it stands because scripts test it that way.
constexpr Table kCompare = MakeTable(kKIntS, {
    {kKIntS, kKInt, C(Out::kInt, Dom::kInt)},
    {kKInt, kKIntS, C(Out::kInt, Dom::kInt)},
    {kKIntS, kKIntS, C(Out::kInt, Dom::kInt, Sg::kNone, kSignEq)},
    {kKIntS, kKDbl, C(Out::kInt, Dom::kDbl)},
    {kKIntS, kKDblS, C(Out::kInt, Dom::kDbl)},
    {kKDblS, kKIntS, C(Out::kInt, Dom::kDbl)},
    {kKDbl, kKIntS, C(Out::kInt, Dom::kDbl, Sg::kNone, kEqBGtA)},
});
// && ||: a plain Int 0 or 1.
constexpr Table kLogic = MakeTable(kKIntS, {
    {kKIntS, kKInt, C(Out::kInt, Dom::kTruth)},
    {kKIntS, kKDbl, C(Out::kInt, Dom::kTruth)},
    {kKIntS, kKIntS, C(Out::kInt, Dom::kTruth)},
    {kKIntS, kKDblS, C(Out::kInt, Dom::kTruth)},
    {kKInt, kKIntS, C(Out::kInt, Dom::kTruth)},
});
// & ^ | << >>: 64-bit in place; Int op IntS is narrowed.
constexpr Table kBits = MakeTable(kKIntS, {
    {kKIntS, kKInt, C(Out::kIntS, Dom::kInt, Sg::kA)},
    {kKIntS, kKIntS, C(Out::kIntS, Dom::kInt, Sg::kOr)},
    {kKInt, kKIntS, C(Out::kIntS32, Dom::kInt, Sg::kB)},
});

int32_t Sum(CVar* a) { return Dispatch(kArith, Op::kAdd, a); }
int32_t Sub(CVar* a) { return Dispatch(kArith, Op::kSub, a); }
int32_t Mul(CVar* a) { return Dispatch(kArith, Op::kMul, a); }
int32_t Div(CVar* a) { return Dispatch(kDiv, Op::kDiv, a); }
int32_t DivI(CVar* a) { return Dispatch(kDivI, Op::kDivI, a); }
int32_t Mod(CVar* a) { return Dispatch(kMod, Op::kMod, a); }
int32_t LE(CVar* a) { return Dispatch(kCompare, Op::kLE, a); }
int32_t LNE(CVar* a) { return Dispatch(kCompare, Op::kLNE, a); }
int32_t LL(CVar* a) { return Dispatch(kCompare, Op::kLL, a); }
int32_t LLE(CVar* a) { return Dispatch(kCompare, Op::kLLE, a); }
int32_t LG(CVar* a) { return Dispatch(kCompare, Op::kLG, a); }
int32_t LGE(CVar* a) { return Dispatch(kCompare, Op::kLGE, a); }
int32_t LAnd(CVar* a) { return Dispatch(kLogic, Op::kLAnd, a); }
int32_t LOr(CVar* a) { return Dispatch(kLogic, Op::kLOr, a); }
int32_t BAnd(CVar* a) { return Dispatch(kBits, Op::kBAnd, a); }
int32_t BXor(CVar* a) { return Dispatch(kBits, Op::kBXor, a); }
int32_t BOr(CVar* a) { return Dispatch(kBits, Op::kBOr, a); }
int32_t Shl(CVar* a) { return Dispatch(kBits, Op::kShl, a); }
int32_t Shr(CVar* a) { return Dispatch(kBits, Op::kShr, a); }

// Unary operators work in place and keep the sign.
int32_t UMin(CVar* a) {
    if (KindOf(a) == kKIntS) a->v.i = int64_t(0 - uint64_t(a->v.i));
    return kOk;
}
int32_t LNot(CVar* a) {
    if (KindOf(a) == kKIntS) a->v.i = a->v.i == 0 ? 1 : 0;
    return kOk;
}
int32_t BDop(CVar* a) {
    if (KindOf(a) == kKIntS) a->v.i = ~a->v.i;
    return kOk;
}

void SetIntS64(CVar* v, int64_t i, int32_t sign) {
    SetEmpty(v);
    v->v.i = i;
    v->count = sign;
    v->type = IntSTypeNum;
}

int32_t CastFromIntS(CVar* v, int32_t to) {
    const int64_t x = v->v.i;
    const int32_t sign = v->count;
    if (to == IntSTypeNum) return kOk;
    switch (to) {
    case kEmpty: SetEmpty(v); return kOk;
    case kInt: SetInt(v, x); return kOk;
    case kDbl: SetDbl(v, double(x)); return kOk;
    case kStr: return PrintInto(v, false, x, 0, sign, true, false);
    case kArr: {
        CVar first{};
        SetInt(&first, x);
        return PairArr(v, &first, sign);
    }
    default: break;
    }
    if (to != 0 && to == DblSTypeNum) {
        CDblSSet_(v, sign, double(x));
        return kOk;
    }
    if (to != 0 && to == StrSTypeNum) return PrintInto(v, false, x, 0, sign, false, true);
    return kNotSupported;
}

int32_t CastToIntS(CVar* v) {
    switch (v->type) {
    case kEmpty: SetIntS64(v, 0, 0); return kOk;
    case kInt: SetIntS64(v, v->v.i, 0); return kOk;
    case kDbl: SetIntS64(v, Trunc64(v->v.d), 0); return kOk;
    case kStr: SetIntS64(v, std::strtol(TextOf(v), nullptr, 10), 0); return kOk;
    case kArr: {
        CVar value{};
        int64_t sign = 0;
        if (const int32_t st = ArrToPair(v, kInt, &value, &sign); st != kOk) return st;
        SetIntS64(v, value.v.i, int32_t(sign));
        return kOk;
    }
    default: return kNotSupported;
    }
}

int32_t CastSlot(CVar* v, int32_t to) {
    if (!IntSTypeNum) return kNotSupported;
    if (v->type == IntSTypeNum) return CastFromIntS(v, to);
    return to == IntSTypeNum ? CastToIntS(v) : kNotSupported;
}

// new("IntS", x): from Int, Dbl, Str, [value, sign] or an S object, made
// through CIntSSet_ (32 bits).
int32_t New(KWCalcStack* s) {
    CVar* out = StackArg(s, 0);
    const CVar* src = StackArg(s, 1);
    if (!out || !src) return kNotSupported;
    int64_t x = 0;
    int32_t sign = SignOf(src);
    switch (KindOf(src)) {
    case kKInt:
    case kKIntS: x = src->v.i; break;
    case kKDbl:
    case kKDblS: x = DblToInt32(src->v.d); break;
    case kKStr:
    case kKStrS: x = std::strtol(TextOf(src), nullptr, 10); break;
    case kKArr: {
        const CVar* e = src->v.a;
        if (src->count > 0 && e[0].type != kInt && e[0].type != kDbl) return kNotSupported;
        if (src->count > 1 && e[1].type != kInt) return kNotSupported;
        x = src->count == 0 ? 0 : e[0].type == kInt ? e[0].v.i : DblToInt32(e[0].v.d);
        sign = src->count > 1 ? int32_t(e[1].v.i) : 0;
        break;
    }
    default: return kNotSupported;
    }
    CIntSSet_(out, int32_t(uint32_t(uint64_t(x))), sign);
    return kOk;
}

int32_t Get(KWCalcStack* s) {
    CVar* obj = StackArg(s, 0);
    const CVar* sel = StackArg(s, 1);
    if (!obj || !sel || KindOf(obj) != kKIntS) return kNotSupported;
    const int32_t p = PropertyOf(sel);
    if (p < 0) return kNotSupported;
    if (p == 0) return kNoProp;
    SetInt(obj, p == 1 ? obj->v.i : obj->count);
    return kOk;
}

// Both properties store the low 32 bits of the new value's Int cast.
int32_t Put(KWCalcStack* s) {
    CVar* obj = StackArg(s, 0);
    const CVar* sel = StackArg(s, 1);
    const CVar* value = StackArg(s, 2);
    if (!obj || !sel || !value || KindOf(obj) != kKIntS) return kNotSupported;
    const int32_t p = PropertyOf(sel);
    if (p < 0) return kNotSupported;
    int64_t x = 0;
    if (p == 0) return kNoProp;
    if (const int32_t st = IntArg(value, &x); st != kOk) return Failed(st, kNoProp);
    const int32_t low = int32_t(uint32_t(uint64_t(x)));
    if (p == 1) obj->v.i = low;
    else obj->count = low;
    return kOk;
}

// round leaves the integer as it is; sqrt makes a DblS with the same sign.
int32_t UndefFun(CVar* v, const char* name) {
    if (!v || !name || KindOf(v) != kKIntS) return kNotSupported;
    if (std::strcmp(name, "round") == 0) return kOk;
    if (std::strcmp(name, "sqrt") == 0) {
        if (!DblSTypeNum) return kNotSupported;
        CDblSSet_(v, v->count, std::sqrt(double(v->v.i)));
        return kOk;
    }
    return kUnknownFun;
}

// Image body: int64 value | int32 sign, 12 bytes.
int32_t ToBuff(const CVar* v, void* dest, int32_t room) {
    if (dest) {
        if (room < 12) return 0;
        kwz::Store<int64_t>(dest, v->v.i);
        kwz::Store<int32_t>(static_cast<uint8_t*>(dest) + 8, v->count);
    }
    return 12;
}
int32_t FromBuff(CVar* v, const void* src) {
    if (ImageBytesLeft() < 12) return 0;
    v->v.i = kwz::Load<int64_t>(src);
    v->count = kwz::Load<int32_t>(static_cast<const uint8_t*>(src) + 8);
    return 12;
}

// Script functions: IntS(value, sign), and Val / Sign when IntS provides them.
int32_t Make(KWCalcStack* s) {
    CVar* a = StackArg(s, 0);
    const CVar* b = StackArg(s, 1);
    int64_t x = 0, sign = 0;
    if (!a || !b) return kNotSupported;
    int32_t st = IntArg(a, &x);
    if (st != kOk || (st = IntArg(b, &sign)) != kOk) return st;
    if (!IntSTypeNum) return kNotSupported;
    CIntSSet_(a, int32_t(uint32_t(uint64_t(x))), int32_t(sign));
    return kOk;
}

void CalcCreate(KWCalcDef* calc) {
    FunAdd(calc, "IntS", 2, &Make, nullptr, nullptr);
    AddShared(calc, &NumSVal, &NumSSign);
}

constexpr KWCalcObjDef MakeDef() {
    KWCalcObjDef d{};
    d.name = "IntS";
    d.CalcCreate = &CalcCreate;
    d.Cast = &CastSlot;
    d.New = &New;
    d.Get = &Get;
    d.Put = &Put;
    d.UndefFun = &UndefFun;
    d.ToBuff = &ToBuff;
    d.FromBuff = &FromBuff;
    d.Sum = &Sum;
    d.Sub = &Sub;
    d.Mul = &Mul;
    d.Div = &Div;
    d.DivI = &DivI;
    d.Mod = &Mod;
    d.LE = &LE;
    d.LNE = &LNE;
    d.LL = &LL;
    d.LLE = &LLE;
    d.LG = &LG;
    d.LGE = &LGE;
    d.UMin = &UMin;
    d.LNot = &LNot;
    d.BDop = &BDop;
    d.LAnd = &LAnd;
    d.LOr = &LOr;
    d.BAnd = &BAnd;
    d.BXor = &BXor;
    d.BOr = &BOr;
    d.Shl = &Shl;
    d.Shr = &Shr;
    return d;
}

KWCalcObjDef g_def = MakeDef();

}  // namespace

}  // namespace kwz::calc

extern "C" {

KWZ_API KWCalcObjDef* IntSObjTypeReg(int32_t tag, KWCalcConst* constants) {
    return kwz::CEdge("Kwz.kwCalc.IntSObjTypeReg", static_cast<KWCalcObjDef*>(nullptr),
                      static_cast<KWCalcObjDef*>(nullptr), [&] {
                          return kwz::calc::RegisterS(&kwz::calc::g_def, &kwz::calc::IntSTypeNum, tag,
                                                      constants);
                      });
}

}  // extern "C"
