// The built-in functions.  Each takes its arguments from the top of the
// stack (a built-in without arguments finds one empty value there) and
// leaves one value in the place of the first.
#include <cmath>
#include <cstring>

#include "base/kwSort.h"
#include "calc/kwCalcEngine.h"
#include "calc/kwCalcStack.h"
#include "calc/kwCalcVar.h"
#include "calc/kwCalclToken.h"

namespace kwz::calc {
namespace {

bool IsNum(const CVar* v) { return v->type == kInt || v->type == kDbl; }
double AsDbl(const CVar* v) { return v->type == kInt ? double(v->v.i) : v->v.d; }
const char* Text(const CVar* v) { return v->v.s ? v->v.s : ""; }

// A number argument: Int and Dbl as they are, an object through its type's
// UndefFun under the built-in's name, anything else cast.
int32_t Number(CVar* v, const char* name) {
    if (IsNum(v)) return kOk;
    if (IsObjTag(v->type)) {
        const KWCalcObjDef* def = ObjType(v->type);
        if (!def || !def->UndefFun) return kNotSupported;
        const int32_t st = def->UndefFun(v, name);
        return st == kOk && !IsNum(v) ? kNotSupported : st;
    }
    if (v->type == kStr) return Cast(v, kDbl);
    return kNotSupported;
}

// A built-in of one number applied to an object: the type's UndefFun does
// the built-in's work and leaves its result (of any type) in v; "round"
// finds its digit count in v[1].
int32_t ObjectFun(CVar* v, const char* name) {
    const KWCalcObjDef* def = ObjType(v->type);
    return def && def->UndefFun ? def->UndefFun(v, name) : kNotSupported;
}

int32_t ToInt(CVar* v, int64_t* out) {
    if (v->type == kInt) {
        *out = v->v.i;
        return kOk;
    }
    if (v->type == kDbl) {
        const double d = v->v.d;
        *out = d >= -9223372036854775808.0 && d < 9223372036854775808.0 ? int64_t(d) : INT64_MIN;
        return kOk;
    }
    CVar c{};
    int32_t st = Copy(&c, v);
    if (st == kOk) st = Cast(&c, kInt);
    if (st == kOk) *out = c.v.i;
    SetEmpty(&c);
    return st;
}

int32_t Str(CVar* v) { return v->type == kStr ? kOk : kNotSupported; }

int32_t SetText(CVar* v, const char* bytes, int64_t n) {
    CVar r{};
    if (SetStr(&r, bytes, int32_t(n)) != kOk) return kNoMem;
    Move(v, &r);
    return kOk;
}

int32_t Math(int32_t code, CVar* a) {
    static const char* const kNames[] = {"sin", "cos", "tan", "asin", "acos", "atan", "exp",
                                         "ldexp", "log", "log10", "sqrt", "pow"};
    const char* name = kNames[code - 113];
    if (IsObjTag(a->type)) return ObjectFun(a, name);
    if (const int32_t st = Number(a, name); st != kOk) return st;
    double r = 0;
    if (!MathOne(uint8_t(code), AsDbl(a), r)) r = std::sqrt(AsDbl(a));
    SetDbl(a, r);
    return kOk;
}

int64_t Clamp(int64_t v, int64_t lo, int64_t hi) { return v < lo ? lo : v > hi ? hi : v; }

int32_t Find(const CVar* s, const CVar* sub, bool fold) {
    const int32_t n = s->count, m = sub->count;
    const char* a = Text(s);
    const char* b = Text(sub);
    for (int32_t i = 0; i + m <= n; ++i) {
        int32_t k = 0;
        while (k < m && (fold ? FoldCaseRus(uint8_t(a[i + k])) == FoldCaseRus(uint8_t(b[k]))
                              : a[i + k] == b[k]))
            ++k;
        if (k == m) return i;
    }
    return -1;
}

// Windows-1251: А..Я = 0xC0..0xDF, а..я = 0xE0..0xFF, Ё 0xA8, ё 0xB8.
uint8_t Upper(uint8_t c) {
    if (c >= 'a' && c <= 'z') return uint8_t(c - 32);
    if (c >= 0xE0) return uint8_t(c - 32);
    if (c == 0xB8) return 0xA8;
    return c;
}
uint8_t Lower(uint8_t c) {
    if (c >= 'A' && c <= 'Z') return uint8_t(c + 32);
    if (c >= 0xC0 && c <= 0xDF) return uint8_t(c + 32);
    if (c == 0xA8) return 0xB8;
    return c;
}

// Runs one built-in on args a[0..n-1]; the result goes to a[0].
int32_t Apply(int32_t code, CVar* a) {
    int32_t st = kOk;
    switch (code) {
    case 97: {  // iif
        int64_t c = 0;
        if ((st = ToInt(&a[0], &c)) != kOk) return st;
        Move(&a[0], c ? &a[1] : &a[2]);
        return kOk;
    }
    case 98:  // abs
        if (IsObjTag(a[0].type)) return ObjectFun(&a[0], "abs");
        if ((st = Number(&a[0], "abs")) != kOk) return st;
        if (a[0].type == kInt) a[0].v.i = a[0].v.i < 0 ? int64_t(0 - uint64_t(a[0].v.i)) : a[0].v.i;
        else a[0].v.d = std::fabs(a[0].v.d);
        return kOk;
    case 99:
    case 100: {  // min, max
        bool second;
        if (a[0].type == kStr && a[1].type == kStr) {
            const int32_t c = StrCmp(Text(&a[0]), a[0].count, Text(&a[1]), a[1].count);
            second = code == 99 ? c > 0 : c < 0;
        } else {
            const char* name = code == 99 ? "min" : "max";
            if ((st = Number(&a[0], name)) != kOk || (st = Number(&a[1], name)) != kOk) return st;
            if (a[0].type == kInt && a[1].type == kInt) {
                second = code == 99 ? a[1].v.i < a[0].v.i : a[1].v.i > a[0].v.i;
            } else {
                const double x = AsDbl(&a[0]), y = AsDbl(&a[1]);
                SetDbl(&a[0], code == 99 ? std::fmin(x, y) : std::fmax(x, y));
                return kOk;
            }
        }
        if (second) Move(&a[0], &a[1]);
        return kOk;
    }
    case 101: {  // round(x, n)
        int64_t n = 0;
        if (IsObjTag(a[0].type)) return ObjectFun(&a[0], "round");
        if ((st = Number(&a[0], "round")) != kOk || (st = ToInt(&a[1], &n)) != kOk) return st;
        SetDbl(&a[0], RoundDigits(AsDbl(&a[0]), n));
        return kOk;
    }
    case 102: {  // abort(n)
        int64_t n = 0;
        if ((st = ToInt(&a[0], &n)) != kOk) return st;
        return n < 0 && n >= INT32_MIN ? int32_t(n) : kAbort;
    }
    case 113: case 114: case 115: case 116: case 117: case 118: case 119:
    case 121: case 122: case 123:
        return Math(code, a);
    case 129: return TypeOf(&a[0]);
    case 130: return TypeNameOf(&a[0]);
    case 131: return Cast(&a[0], kInt);
    case 132: return Cast(&a[0], kDbl);
    case 133: return Cast(&a[0], kStr);
    case 134: return Cast(&a[0], kArr);
    case 135: SetEmpty(&a[0]); return kOk;
    case 145:  // len
        if (a[0].type != kStr && a[0].type != kArr) return kNotSupported;
        SetInt(&a[0], a[0].count);
        return kOk;
    case 146:
    case 150:
    case 151: {  // mid(s, start, count), left(s, n), right(s, n)
        if ((st = Str(&a[0])) != kOk) return st;
        int64_t x = 0, y = 0;
        if ((st = ToInt(&a[1], &x)) != kOk) return st;
        if (code == 146 && (st = ToInt(&a[2], &y)) != kOk) return st;
        const int64_t len = a[0].count;
        int64_t from, n;
        if (code == 146) {
            from = Clamp(x, 0, len);
            n = Clamp(y, 0, len - from);
        } else if (code == 150) {
            from = 0;
            n = Clamp(x, 0, len);
        } else {
            n = Clamp(x, 0, len);
            from = len - n;
        }
        return SetText(&a[0], Text(&a[0]) + from, n);
    }
    case 147:
    case 148: {  // cmp, cmpi
        if ((st = Str(&a[0])) != kOk || (st = Str(&a[1])) != kOk) return st;
        const int32_t c = code == 147 ? StrCmp(Text(&a[0]), a[0].count, Text(&a[1]), a[1].count)
                                      : StrCmpI(Text(&a[0]), a[0].count, Text(&a[1]), a[1].count);
        SetInt(&a[0], c < 0 ? -1 : c > 0 ? 1 : 0);
        return kOk;
    }
    case 149:
    case 156:  // pos, posi
        if ((st = Str(&a[0])) != kOk || (st = Str(&a[1])) != kOk) return st;
        SetInt(&a[0], Find(&a[0], &a[1], code == 156));
        return kOk;
    case 152: {  // chr
        int64_t n = 0;
        if ((st = ToInt(&a[0], &n)) != kOk) return st;
        const char c = char(uint8_t(n));
        return SetText(&a[0], &c, 1);
    }
    case 153:  // ord
        if ((st = Str(&a[0])) != kOk) return st;
        SetInt(&a[0], a[0].count ? uint8_t(Text(&a[0])[0]) : 0);
        return kOk;
    case 157:
    case 158:  // toupper, tolower
        if ((st = Str(&a[0])) != kOk) return st;
        if ((st = Own(&a[0])) != kOk) return st;
        for (int32_t i = 0; i < a[0].count; ++i)
            a[0].v.s[i] = char(code == 157 ? Upper(uint8_t(a[0].v.s[i])) : Lower(uint8_t(a[0].v.s[i])));
        return kOk;
    default:
        if (code >= 161 && code <= 175) return TimeBuiltin(code, a);
        if (code == 154) return Printf(a);
        if (code == 155) return Scanf(a);
        return kNotSupported;
    }
}

// new(type, value), get(object, selector), put(object, selector, value)
// returning the changed object, call(object, method, arguments) through the
// type's Call slot.  Each runs the type with a frame over its arguments.
int32_t Object(KWCalcStack* s, int32_t code) {
    const int32_t n = code == 177 || code == 178 ? 2 : 3;
    if (s->top - n < s->base) return kStackSmall;
    const int32_t first = s->top - n;
    CVar* a = &s->slots[first];
    const int32_t base = s->base;
    int32_t st;
    if (code == 177) {
        s->base = first;
        st = NewObject(s);
    } else {
        const KWCalcObjDef* def = ObjType(a[0].type);
        if (!def) return kNotSupported;
        if (code == 180) {
            if (!def->Call) return kNotSupported;
            s->base = first;
            st = def->Call(s);
        } else {
            // The frame starts at the selector; the object stays below it.
            s->base = first + 1;
            st = code == 178 ? GetObjVar(s, &a[0], 1) : PutObjVar(s, &a[0], 1);
            s->base = base;
            if (st != kOk) return st;
            if (code == 178) Move(&a[0], &a[1]);
            Clear(a + 1, s->top - first - 1);
            s->top = first + 1;
            return kOk;
        }
    }
    s->base = base;
    if (st != kOk) return st;
    if (s->top < first + 1) s->top = first + 1;
    Clear(a + 1, s->top - first - 1);
    s->top = first + 1;
    return kOk;
}

}  // namespace

double RoundDigits(double x, int64_t n) {
    n = Clamp(n, -308, 308);
    const double scale = std::pow(10.0, double(n < 0 ? -n : n));
    const double r = n >= 0 ? std::round(x * scale) / scale : std::round(x / scale) * scale;
    return std::isfinite(r) ? r : x;
}

int32_t Builtin(KWCalcStack* s, int32_t code, int32_t floor) {
    // pow and ldexp consume two values; ldexp declares one argument, so it
    // reads one value more than its call pushed (kept on purpose: scripts
    // pass the exponent before the call).  The mantissa is the argument.
    if (code == 124 || code == 120) {
        if (s->top - 2 < floor) return kStackSmall;
        CVar* a = &s->slots[s->top - 2];
        int32_t st;
        if (code == 124) {
            if ((st = Number(&a[0], "pow")) != kOk || (st = Number(&a[1], "pow")) != kOk) return st;
            SetDbl(&a[0], std::pow(AsDbl(&a[0]), AsDbl(&a[1])));
        } else {
            int64_t e = 0;
            if ((st = Number(&a[1], "ldexp")) != kOk || (st = ToInt(&a[0], &e)) != kOk) return st;
            SetDbl(&a[0], std::ldexp(AsDbl(&a[1]), int(Clamp(e, -100000, 100000))));
        }
        SetEmpty(&a[1]);
        s->top -= 1;
        return kOk;
    }
    if (code >= 177 && code <= 180) return Object(s, code);
    // tmmake consumes six values: its seven arguments become one value in the
    // first one's place (the year's slot is reused for the result), which is
    // how the compiler counts it too.
    const kwz::calcl::Builtin* b = kwz::calcl::BuiltinByCode(code);
    if (!b) return kNotSupported;
    const int32_t n = b->args > 0 ? b->args : 1;
    if (s->top - n < s->base) return kStackSmall;
    CVar* a = &s->slots[s->top - n];
    // Arguments may be references to variables: a built-in that changes its
    // argument in place owns it first (toupper, tolower; casts do it).
    const int32_t st = Apply(code, a);
    if (st != kOk) return st;
    Clear(a + 1, n - 1);
    s->top -= n - 1;
    return kOk;
}

}  // namespace kwz::calc
