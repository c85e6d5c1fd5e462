// "StrS": a string with a 32-bit Sign.  It owns its text (freed through Free,
// copied deeply through Copy); + appends and the comparisons order texts
// bytewise, by the promotion tables below.
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

// +: StrS + Str and StrS + StrS append to the StrS; Str + StrS appends to the
// plain Str, which must own its text.
constexpr Table kSum = MakeTable(kKStrS, {
    {kKStrS, kKStr, C(Out::kStrS, Dom::kText, Sg::kA)},
    {kKStrS, kKStrS, C(Out::kStrS, Dom::kText, Sg::kOr)},
    {kKStr, kKStrS, C(Out::kStr, Dom::kText, Sg::kNone, kOwnedA)},
});
// Comparisons by CStrCmp.  StrS == StrS needs equal signs too; Str == StrS is
// A <= B, kept as it stands like the IntS one; against Empty nothing holds
// but inequality, without an error.
constexpr Table kCompare = MakeTable(kKStrS, {
    {kKStrS, kKStr, C(Out::kInt, Dom::kText)},
    {kKStrS, kKStrS, C(Out::kInt, Dom::kText, Sg::kNone, kSignEq)},
    {kKStr, kKStrS, C(Out::kInt, Dom::kText, Sg::kNone, kEqALeB)},
    {kKStrS, kKEmpty, C(Out::kInt, Dom::kNone)},
    {kKEmpty, kKStrS, C(Out::kInt, Dom::kNone)},
});

int32_t Sum(CVar* a) { return Dispatch(kSum, Op::kAdd, a); }
int32_t LE(CVar* a) { return Dispatch(kCompare, Op::kLE, a); }
int32_t LNE(CVar* a) { return Dispatch(kCompare, Op::kLNE, a); }
int32_t LL(CVar* a) { return Dispatch(kCompare, Op::kLL, a); }
int32_t LLE(CVar* a) { return Dispatch(kCompare, Op::kLLE, a); }
int32_t LG(CVar* a) { return Dispatch(kCompare, Op::kLG, a); }
int32_t LGE(CVar* a) { return Dispatch(kCompare, Op::kLGE, a); }

void Free(CVar* v) {
    if (v->ref == 0 && v->v.s) StrBlockFree(v->v.s);
    v->v.s = nullptr;
    v->count = 0;
}

// A new owned text and the sign; out of memory leaves an empty text.
void CopySlot(CVar* d, const CVar* s) {
    const int32_t n = s->count > 0 ? s->count : 0;
    char* block = StrBlock(n);
    if (block && n > 0) std::memcpy(block, TextOf(s), size_t(n));
    d->v.s = block;
    d->count = block ? n : 0;
    d->ref = 0;
    d->spare = s->spare;
}

// A Str (owned) made a StrS with the sign, in place.
int32_t StrToStrS(CVar* v, int32_t sign) {
    if (const int32_t st = Own(v); st != kOk) return st;
    v->spare = sign;
    v->type = StrSTypeNum;
    return kOk;
}

int32_t CastFromStrS(CVar* v, int32_t to) {
    const int32_t sign = v->spare;
    if (to == StrSTypeNum) return Own(v);
    switch (to) {
    case kEmpty: SetEmpty(v); return kOk;
    case kInt: SetInt(v, std::strtol(TextOf(v), nullptr, 10)); return kOk;
    case kDbl: SetDbl(v, std::strtod(TextOf(v), nullptr)); return kOk;
    case kStr:
        if (const int32_t st = Own(v); st != kOk) return st;
        v->spare = 0;
        v->type = kStr;
        return kOk;
    case kArr: {
        CVar text{};
        if (SetStr(&text, TextOf(v), v->count) != kOk) return kNoMem;
        return PairArr(v, &text, sign);
    }
    default: break;
    }
    if (to != 0 && to == IntSTypeNum) {
        const int64_t i = std::strtol(TextOf(v), nullptr, 10);
        SetEmpty(v);
        v->v.i = i;
        v->count = sign;
        v->type = IntSTypeNum;
        return kOk;
    }
    if (to != 0 && to == DblSTypeNum) {
        CDblSSet_(v, sign, std::strtod(TextOf(v), nullptr));
        return kOk;
    }
    return kNotSupported;
}

int32_t CastToStrS(CVar* v) {
    switch (v->type) {
    case kEmpty: return CStrSSet_(v, "", 0, 0);
    case kInt: return PrintInto(v, false, v->v.i, 0, 0, false, true);
    case kDbl: return PrintInto(v, true, 0, v->v.d, 0, false, true);
    case kStr: return StrToStrS(v, 0);
    case kArr: {
        CVar text{};
        int64_t sign = 0;
        if (const int32_t st = ArrToPair(v, kStr, &text, &sign); st != kOk) return st;
        StrToStrS(&text, int32_t(sign));  // the cast made it owned
        Move(v, &text);
        return kOk;
    }
    default: return kNotSupported;
    }
}

int32_t CastSlot(CVar* v, int32_t to) {
    if (!StrSTypeNum) return kNotSupported;
    if (v->type == StrSTypeNum) return CastFromStrS(v, to);
    return to == StrSTypeNum ? CastToStrS(v) : kNotSupported;
}

// new("StrS", x): numbers printed ("%lld", "%f"), texts copied, [value, sign],
// S objects with their sign.
int32_t New(KWCalcStack* s) {
    CVar* out = StackArg(s, 0);
    const CVar* src = StackArg(s, 1);
    if (!out || !src) return kNotSupported;
    const int32_t sign = SignOf(src);
    CVar r{};
    int32_t st;
    switch (KindOf(src)) {
    case kKInt:
    case kKIntS: st = PrintInto(&r, false, src->v.i, 0, sign, false, true); break;
    case kKDbl:
    case kKDblS: st = PrintInto(&r, true, 0, src->v.d, sign, false, true); break;
    case kKStr:
    case kKStrS: st = CStrSSet_(&r, TextOf(src), src->count, sign); break;
    case kKArr: {
        const CVar* e = src->v.a;
        if (src->count > 0 && e[0].type != kInt && e[0].type != kDbl && e[0].type != kStr) return kNotSupported;
        if (src->count > 1 && e[1].type != kInt) return kNotSupported;
        int64_t sg = 0;
        if ((st = ArrToPair(src, kStr, &r, &sg)) == kOk) st = StrToStrS(&r, int32_t(sg));
        break;
    }
    default: return kNotSupported;
    }
    if (st != kOk) {
        SetEmpty(&r);
        return st;
    }
    Move(out, &r);
    return kOk;
}

int32_t Get(KWCalcStack* s) {
    CVar* obj = StackArg(s, 0);
    const CVar* sel = StackArg(s, 1);
    if (!obj || !sel || KindOf(obj) != kKStrS) return kNotSupported;
    const int32_t p = PropertyOf(sel);
    if (p < 0) return kNotSupported;
    if (p == 0) return kNoProp;
    if (p == 2) {
        SetInt(obj, obj->spare);
        return kOk;
    }
    return CastFromStrS(obj, kStr);
}

int32_t Put(KWCalcStack* s) {
    CVar* obj = StackArg(s, 0);
    const CVar* sel = StackArg(s, 1);
    const CVar* value = StackArg(s, 2);
    if (!obj || !sel || !value || KindOf(obj) != kKStrS) return kNotSupported;
    const int32_t p = PropertyOf(sel);
    if (p < 0) return kNotSupported;
    if (p == 0) return kNoProp;
    if (p == 2) {
        int64_t x = 0;
        if (const int32_t st = IntArg(value, &x); st != kOk) return Failed(st, kNoProp);
        obj->spare = int32_t(uint32_t(uint64_t(x)));
        return kOk;
    }
    CVar text{};
    if (const int32_t st = CastCopy(value, kStr, &text); st != kOk || text.type != kStr) {
        SetEmpty(&text);
        return Failed(st, kNoProp);
    }
    StrToStrS(&text, obj->spare);  // the cast of a copy owns its text
    Move(obj, &text);
    return kOk;
}

int32_t UndefFun(CVar* v, const char* name) {
    if (!v || !name || KindOf(v) != kKStrS) return kNotSupported;
    return kUnknownFun;
}

// Image body: int32 sign | int32 length L | L bytes of text, 8 + L bytes.
int32_t ToBuff(const CVar* v, void* dest, int32_t room) {
    const int32_t n = v->v.s && v->count > 0 ? v->count : 0;
    if (n > INT32_MAX - 8) return 0;
    if (dest) {
        if (room < 8 + n) return 0;
        auto* p = static_cast<uint8_t*>(dest);
        kwz::Store<int32_t>(p, v->spare);
        kwz::Store<int32_t>(p + 4, n);
        if (n) std::memcpy(p + 8, TextOf(v), size_t(n));
    }
    return 8 + n;
}
int32_t FromBuff(CVar* v, const void* src) {
    const size_t left = ImageBytesLeft();
    if (left < 8) return 0;
    const auto* p = static_cast<const uint8_t*>(src);
    const int32_t sign = kwz::Load<int32_t>(p);
    const int32_t n = kwz::Load<int32_t>(p + 4);
    if (n < 0 || size_t(n) > left - 8 || n > INT32_MAX - 8) return 0;
    char* block = StrBlock(n);
    if (!block) return 0;
    if (n) std::memcpy(block, p + 8, size_t(n));
    v->v.s = block;
    v->count = n;
    v->ref = 0;
    v->spare = sign;
    return 8 + n;
}

// StrS(text, sign).
int32_t Make(KWCalcStack* s) {
    CVar* a = StackArg(s, 0);
    const CVar* b = StackArg(s, 1);
    CVar text{};
    int64_t sign = 0;
    if (!a || !b || !StrSTypeNum) return kNotSupported;
    if (const int32_t st = IntArg(b, &sign); st != kOk) return st;
    if (const int32_t st = CastCopy(a, kStr, &text); st != kOk || text.type != kStr) {
        SetEmpty(&text);
        return Failed(st, kNotSupported);
    }
    StrToStrS(&text, int32_t(sign));
    Move(a, &text);
    return kOk;
}

// Val and Sign of the StrS version take nothing but a StrS.
int32_t Val(KWCalcStack* s) {
    CVar* v = StackArg(s, 0);
    if (!v || KindOf(v) != kKStrS) return kNotSupported;
    return CastFromStrS(v, kStr);
}
int32_t Sign(KWCalcStack* s) {
    CVar* v = StackArg(s, 0);
    if (!v || KindOf(v) != kKStrS) return kNotSupported;
    SetInt(v, v->spare);
    return kOk;
}

void CalcCreate(KWCalcDef* calc) {
    FunAdd(calc, "StrS", 2, &Make, nullptr, nullptr);
    AddShared(calc, &Val, &Sign);
}

constexpr KWCalcObjDef MakeDef() {
    KWCalcObjDef d{};
    d.name = "StrS";
    d.CalcCreate = &CalcCreate;
    d.Free = &Free;
    d.Copy = &CopySlot;
    d.Cast = &CastSlot;
    d.New = &New;
    d.Get = &Get;
    d.Put = &Put;
    d.UndefFun = &UndefFun;
    d.ToBuff = &ToBuff;
    d.FromBuff = &FromBuff;
    d.Sum = &Sum;
    d.LE = &LE;
    d.LNE = &LNE;
    d.LL = &LL;
    d.LLE = &LLE;
    d.LG = &LG;
    d.LGE = &LGE;
    return d;
}

KWCalcObjDef g_def = MakeDef();

}  // namespace
}  // namespace kwz::calc

extern "C" {

KWZ_API KWCalcObjDef* StrSObjTypeReg(int32_t tag, KWCalcConst* constants) {
    return kwz::CEdge("Kwz.kwCalc.StrSObjTypeReg", static_cast<KWCalcObjDef*>(nullptr),
                      static_cast<KWCalcObjDef*>(nullptr), [&] {
                          return kwz::calc::RegisterS(&kwz::calc::g_def, &kwz::calc::StrSTypeNum, tag,
                                                      constants);
                      });
}

}  // extern "C"
