// "DblS": a double with a 32-bit Sign that travels with it through
// arithmetic.  Every arithmetic result is a DblS; its operators read the
// promotion tables below.
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

// + - * /: a DblS; a plain operand leaves the DblS's sign, an S one is OR-ed.
constexpr Table ArithTable(uint8_t flags) {
    return MakeTable(kKDblS, {
        {kKDblS, kKInt, C(Out::kDblS, Dom::kDbl, Sg::kA, flags)},
        {kKDblS, kKDbl, C(Out::kDblS, Dom::kDbl, Sg::kA, flags)},
        {kKDblS, kKIntS, C(Out::kDblS, Dom::kDbl, Sg::kOr, flags)},
        {kKDblS, kKDblS, C(Out::kDblS, Dom::kDbl, Sg::kOr, flags)},
        {kKInt, kKDblS, C(Out::kDblS, Dom::kDbl, Sg::kB, flags)},
        {kKDbl, kKDblS, C(Out::kDblS, Dom::kDbl, Sg::kB, flags)},
        {kKIntS, kKDblS, C(Out::kDblS, Dom::kDbl, Sg::kOr, flags)},
    });
}
constexpr Table kArith = ArithTable(0);
constexpr Table kDiv = ArithTable(kZeroDiv);
// \: DblS by a plain Int only, truncated toward zero into an IntS.
constexpr Table kDivI = MakeTable(kKDblS, {
    {kKDblS, kKInt, C(Out::kIntSTrunc, Dom::kDbl, Sg::kA, kZeroDiv)},
});
// %: fmod, DblS on the left only, no zero check.
constexpr Table kMod = MakeTable(kKDblS, {
    {kKDblS, kKInt, C(Out::kDblS, Dom::kDbl, Sg::kA)},
    {kKDblS, kKDbl, C(Out::kDblS, Dom::kDbl, Sg::kA)},
    {kKDblS, kKIntS, C(Out::kDblS, Dom::kDbl, Sg::kOr)},
    {kKDblS, kKDblS, C(Out::kDblS, Dom::kDbl, Sg::kOr)},
});
// Comparisons as doubles; DblS == DblS needs equal signs too; Dbl == DblS is
// B > A, kept as it stands like the IntS one.
constexpr Table kCompare = MakeTable(kKDblS, {
    {kKDblS, kKInt, C(Out::kInt, Dom::kDbl)},
    {kKDblS, kKDbl, C(Out::kInt, Dom::kDbl)},
    {kKDblS, kKIntS, C(Out::kInt, Dom::kDbl)},
    {kKDblS, kKDblS, C(Out::kInt, Dom::kDbl, Sg::kNone, kSignEq)},
    {kKInt, kKDblS, C(Out::kInt, Dom::kDbl)},
    {kKIntS, kKDblS, C(Out::kInt, Dom::kDbl)},
    {kKDbl, kKDblS, C(Out::kInt, Dom::kDbl, Sg::kNone, kEqBGtA)},
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

int32_t UMin(CVar* a) {
    if (KindOf(a) == kKDblS) a->v.d = -a->v.d;
    return kOk;
}

int32_t CastFromDblS(CVar* v, int32_t to) {
    const double d = v->v.d;
    const int32_t sign = v->count;
    if (to == DblSTypeNum) return kOk;
    switch (to) {
    case kEmpty: SetEmpty(v); return kOk;
    case kInt: SetInt(v, Trunc64(d)); return kOk;
    case kDbl: SetDbl(v, d); return kOk;
    case kStr: return PrintInto(v, true, 0, d, sign, true, false);
    case kArr: {
        CVar first{};
        SetDbl(&first, d);
        return PairArr(v, &first, sign);
    }
    default: break;
    }
    if (to != 0 && to == IntSTypeNum) {
        const int64_t i = Trunc64(d);
        SetEmpty(v);
        v->v.i = i;
        v->count = sign;
        v->type = IntSTypeNum;
        return kOk;
    }
    if (to != 0 && to == StrSTypeNum) return PrintInto(v, true, 0, d, sign, false, true);
    return kNotSupported;
}

int32_t CastToDblS(CVar* v) {
    double d = 0;
    int64_t sign = 0;
    switch (v->type) {
    case kEmpty: break;
    case kInt: d = double(v->v.i); break;
    case kDbl: d = v->v.d; break;
    case kStr: d = std::strtod(TextOf(v), nullptr); break;
    case kArr: {
        CVar value{};
        if (const int32_t st = ArrToPair(v, kDbl, &value, &sign); st != kOk) return st;
        d = value.v.d;
        break;
    }
    default: return kNotSupported;
    }
    CDblSSet_(v, int32_t(sign), d);
    return kOk;
}

int32_t CastSlot(CVar* v, int32_t to) {
    if (!DblSTypeNum) return kNotSupported;
    if (v->type == DblSTypeNum) return CastFromDblS(v, to);
    return to == DblSTypeNum ? CastToDblS(v) : kNotSupported;
}

// new("DblS", x): from Int, Dbl, Str, [value, sign] or an S object.
int32_t New(KWCalcStack* s) {
    CVar* out = StackArg(s, 0);
    const CVar* src = StackArg(s, 1);
    if (!out || !src) return kNotSupported;
    double d = 0;
    int32_t sign = SignOf(src);
    switch (KindOf(src)) {
    case kKInt:
    case kKIntS: d = double(src->v.i); break;
    case kKDbl:
    case kKDblS: d = src->v.d; break;
    case kKStr:
    case kKStrS: d = std::strtod(TextOf(src), nullptr); break;
    case kKArr: {
        const CVar* e = src->v.a;
        if (src->count > 0 && e[0].type != kInt && e[0].type != kDbl) return kNotSupported;
        if (src->count > 1 && e[1].type != kInt) return kNotSupported;
        d = src->count == 0 ? 0.0 : e[0].type == kInt ? double(e[0].v.i) : e[0].v.d;
        sign = src->count > 1 ? int32_t(e[1].v.i) : 0;
        break;
    }
    default: return kNotSupported;
    }
    CDblSSet_(out, sign, d);
    return kOk;
}

int32_t Get(KWCalcStack* s) {
    CVar* obj = StackArg(s, 0);
    const CVar* sel = StackArg(s, 1);
    if (!obj || !sel || KindOf(obj) != kKDblS) return kNotSupported;
    const int32_t p = PropertyOf(sel);
    if (p < 0) return kNotSupported;
    if (p == 0) return kNoProp;
    if (p == 1) SetDbl(obj, obj->v.d);
    else SetInt(obj, obj->count);
    return kOk;
}

int32_t Put(KWCalcStack* s) {
    CVar* obj = StackArg(s, 0);
    const CVar* sel = StackArg(s, 1);
    const CVar* value = StackArg(s, 2);
    if (!obj || !sel || !value || KindOf(obj) != kKDblS) return kNotSupported;
    const int32_t p = PropertyOf(sel);
    if (p < 0) return kNotSupported;
    if (p == 0) return kNoProp;
    if (p == 2) {
        int64_t x = 0;
        if (const int32_t st = IntArg(value, &x); st != kOk) return Failed(st, kNoProp);
        obj->count = int32_t(uint32_t(uint64_t(x)));
        return kOk;
    }
    CVar d{};
    if (const int32_t st = CastCopy(value, kDbl, &d); st != kOk || d.type != kDbl) {
        SetEmpty(&d);
        return Failed(st, kNoProp);
    }
    obj->v.d = d.v.d;
    return kOk;
}

// round(x, n) rounds to n digits as the built-in does, reading n from the
// value after x on the stack; sqrt takes the root.  Both keep type and sign.
int32_t UndefFun(CVar* v, const char* name) {
    if (!v || !name || KindOf(v) != kKDblS) return kNotSupported;
    if (std::strcmp(name, "round") == 0) {
        int64_t n = 0;
        if (const int32_t st = IntArg(v + 1, &n); st != kOk) return st;
        v->v.d = RoundDigits(v->v.d, n);
        return kOk;
    }
    if (std::strcmp(name, "sqrt") == 0) {
        v->v.d = std::sqrt(v->v.d);
        return kOk;
    }
    return kUnknownFun;
}

// Image body: double bits | int32 sign, 12 bytes.
int32_t ToBuff(const CVar* v, void* dest, int32_t room) {
    if (dest) {
        if (room < 12) return 0;
        kwz::Store<double>(dest, v->v.d);
        kwz::Store<int32_t>(static_cast<uint8_t*>(dest) + 8, v->count);
    }
    return 12;
}
int32_t FromBuff(CVar* v, const void* src) {
    if (ImageBytesLeft() < 12) return 0;
    v->v.d = kwz::Load<double>(src);
    v->count = kwz::Load<int32_t>(static_cast<const uint8_t*>(src) + 8);
    return 12;
}

// DblS(value, sign).
int32_t Make(KWCalcStack* s) {
    CVar* a = StackArg(s, 0);
    const CVar* b = StackArg(s, 1);
    CVar d{};
    int64_t sign = 0;
    if (!a || !b || !DblSTypeNum) return kNotSupported;
    if (const int32_t st = IntArg(b, &sign); st != kOk) return st;
    if (const int32_t st = CastCopy(a, kDbl, &d); st != kOk || d.type != kDbl) {
        SetEmpty(&d);
        return Failed(st, kNotSupported);
    }
    CDblSSet_(a, int32_t(sign), d.v.d);
    return kOk;
}

void CalcCreate(KWCalcDef* calc) {
    FunAdd(calc, "DblS", 2, &Make, nullptr, nullptr);
    AddShared(calc, &NumSVal, &NumSSign);
}

constexpr KWCalcObjDef MakeDef() {
    KWCalcObjDef d{};
    d.name = "DblS";
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
    return d;
}

KWCalcObjDef g_def = MakeDef();

}  // namespace

}  // namespace kwz::calc

extern "C" {

KWZ_API KWCalcObjDef* DblSObjTypeReg(int32_t tag, KWCalcConst* constants) {
    return kwz::CEdge("Kwz.kwCalc.DblSObjTypeReg", static_cast<KWCalcObjDef*>(nullptr),
                      static_cast<KWCalcObjDef*>(nullptr), [&] {
                          return kwz::calc::RegisterS(&kwz::calc::g_def, &kwz::calc::DblSTypeNum, tag,
                                                      constants);
                      });
}

}  // extern "C"
