// Casts between the built-in types and through object types, and the type
// built-ins ("type", "typename").  A cast either succeeds completely or leaves
// the value as it was.
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/kwGuard.h"
#include "calc/kwCalcVar.h"

namespace kwz::calc {
namespace {

constexpr const char* kBuiltinNames[] = {"Empty", "Int", "Dbl", "Str", "Arr"};

// Replaces the value by a string, or leaves it as it was when memory runs out.
int32_t StrInto(CVar* v, const char* bytes, int32_t length) {
    CVar text{};
    if (SetStr(&text, bytes, length) != kOk) return kNoMem;
    Move(v, &text);
    return kOk;
}

// A string holding printf's text for the value.
int32_t SetPrinted(CVar* v, const char* format, ...) __attribute__((format(printf, 2, 3)));
int32_t SetPrinted(CVar* v, const char* format, ...) {
    char small[64];
    va_list args;
    va_start(args, format);
    const int n = std::vsnprintf(small, sizeof small, format, args);
    va_end(args);
    if (n < 0) return kNotSupported;
    if (size_t(n) < sizeof small) return StrInto(v, small, n);
    // Only "%f" of a large double gets here (up to 317 characters).
    CVar text{};
    if (SetStr(&text, nullptr, n) != kOk) return kNoMem;
    va_start(args, format);
    std::vsnprintf(text.v.s, size_t(n) + 1, format, args);
    va_end(args);
    Move(v, &text);
    return kOk;
}

// A one-element array holding the value (moved in).
int32_t Wrap(CVar* v) {
    CVar* items = AllocVars(1);
    if (!items) return kNoMem;
    if (const int32_t status = Own(v); status != kOk) {  // a referenced text moves in owned
        FreeVars(items);
        return status;
    }
    Move(&items[0], v);
    v->type = kArr;
    v->v.a = items;
    v->count = 1;
    v->ref = 0;
    return kOk;
}

// The table of casts between tags 0..4.
int32_t CastBuiltin(CVar* v, int32_t to) {
    const int32_t from = v->type;
    if (from == to) return Own(v);  // a referenced Str or Arr becomes owned
    if (to == kEmpty) {
        SetEmpty(v);
        return kOk;
    }
    if (to == kArr) {
        if (from == kEmpty) return SetArr(v, 0);
        return Wrap(v);
    }
    switch (from) {
    case kEmpty:
        if (to == kInt) SetInt(v, 0);
        else if (to == kDbl) SetDbl(v, 0.0);
        else return StrInto(v, "", 0);
        return kOk;
    case kInt:
        if (to == kDbl) SetDbl(v, double(v->v.i));
        else return SetPrinted(v, "%lld", static_cast<long long>(v->v.i));
        return kOk;
    case kDbl:
        if (to == kInt) SetInt(v, DblToInt32(v->v.d));
        else return SetPrinted(v, "%f", v->v.d);
        return kOk;
    case kStr: {
        const char* text = v->count > 0 && v->v.s ? v->v.s : nullptr;
        if (to == kInt) SetInt(v, text ? std::strtol(text, nullptr, 10) : 0);
        else SetDbl(v, text ? std::strtod(text, nullptr) : 0.0);
        return kOk;
    }
    default:  // an array converts to nothing but Empty and Arr
        return kNotSupported;
    }
}

}  // namespace

// The 32-bit width is deliberate: scripts depend on 3e9 becoming -2147483648.
int32_t DblToInt32(double d) {
    if (!(d > -2147483649.0 && d < 2147483648.0)) return INT32_MIN;
    return static_cast<int32_t>(d);
}

int32_t Cast(CVar* v, int32_t to) {
    const int32_t from = v->type;
    if (from >= kEmpty && from <= kArr) {
        if (to >= kEmpty && to <= kArr) return CastBuiltin(v, to);
        const KWCalcObjDef* def = ObjType(to);
        return def && def->Cast ? def->Cast(v, to) : kNotSupported;
    }
    const KWCalcObjDef* def = ObjType(from);
    if (def && def->Cast) return def->Cast(v, to);
    return IsObjTag(from) && to == from ? kOk : kNotSupported;
}

const char* TagName(int32_t tag) {
    if (tag >= kEmpty && tag <= kArr) return kBuiltinNames[tag];
    const KWCalcObjDef* def = ObjType(tag);
    return def ? def->name : nullptr;
}

int32_t TypeOf(CVar* v) {
    if (!TagName(v->type)) return kNotSupported;
    SetInt(v, v->type);
    return kOk;
}

int32_t TypeNameOf(CVar* v) {
    const char* name = TagName(v->type);
    if (!name) return kNotSupported;
    CVar text{};
    if (SetStr(&text, name, int32_t(std::strlen(name))) != kOk) return kNoMem;
    Move(v, &text);
    return kOk;
}

}  // namespace kwz::calc

using namespace kwz::calc;

extern "C" {

KWZ_API int32_t CVarCast(CVar* value, int32_t tag) {
    return kwz::CEdge("Kwz.kwCalc.CVarCast", kNoMem, kNotSupported, [&] {
        if (!value) return kNotSupported;
        const int32_t status = Cast(value, tag);
        if (status == kNoMem) kwz::Log(2, "Kwz.kwCalc.CVarCast", "SE_NOMEM value unchanged");
        return status;
    });
}

KWZ_API int32_t CVar_Type(CVar* value) {
    return kwz::CEdge("Kwz.kwCalc.CVar_Type", kNoMem, kNotSupported,
                      [&] { return value ? TypeOf(value) : kNotSupported; });
}

KWZ_API int32_t CVar_TypeName(CVar* value) {
    return kwz::CEdge("Kwz.kwCalc.CVar_TypeName", kNoMem, kNotSupported,
                      [&] { return value ? TypeNameOf(value) : kNotSupported; });
}

}  // extern "C"
