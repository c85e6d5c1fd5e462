// The one-call formula evaluator: the text wrapped into a function of its
// own, compiled, called once and deleted again.
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "base/kwGuard.h"
#include "calc/kwCalcEngine.h"
#include "calc/kwCalcStack.h"
#include "calc/kwCalcVar.h"

namespace kwz::calc {

int32_t Formula(const char* text, CVar* result, KWCalcDef* calc, int32_t debug) {
    if (result) SetEmpty(result);
    if (!text) return kNotSupported;
    std::unique_ptr<KWCalcDef, void (*)(KWCalcDef*)> temp(nullptr, &CalcDestroy);
    if (!calc) {
        try {
            temp.reset(CalcCreate(nullptr, nullptr).release());
        } catch (const std::bad_alloc&) {
            return kNoMem;
        }
        calc = temp.get();
    }
    std::string source;
    try {
        source.reserve(std::strlen(text) + 100);
        source = "___formula___(){Result=";
        source += text;
        source += ";}";
    } catch (const std::bad_alloc&) {
        return kNoMemRun;
    }
    KWCalcNameDef* e = nullptr;
    if (const int32_t st = FunAddI(calc, source.c_str(), &e, debug); st != kOk) return st;
    struct Guard {
        KWCalcDef* c;
        KWCalcStack* s = nullptr;
        ~Guard() {
            StackFree(s);
            FunDel(c, "___formula___");
        }
    } guard{calc};
    if (const int32_t st = StackCreate(calc, &guard.s, 512); st != kOk) return st;
    guard.s->entry = e;
    const int32_t st = HostCall(guard.s);
    if (st == kOk && result) Move(result, &guard.s->slots[guard.s->top - 1]);
    return st;
}

}  // namespace kwz::calc

using namespace kwz::calc;

namespace {

// A formula's value cast to one scalar tag; *out is 0 unless it succeeds.
template <typename T>
int32_t FormulaAs(const char* text, int32_t tag, T* out) {
    if (out) *out = 0;
    CVar v{};
    int32_t st = Formula(text, &v, nullptr, 0);
    if (st == kOk && v.type != tag) st = Cast(&v, tag);
    if (st == kOk && out) *out = tag == kInt ? static_cast<T>(v.v.i) : static_cast<T>(v.v.d);
    SetEmpty(&v);
    return st;
}

}  // namespace

extern "C" {

KWZ_API int32_t KWCalcFormula(const char* text, CVar* result, KWCalcDef* calculator, int32_t debug) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcFormula", kNoMemRun, kHostThrew,
                      [&] { return Formula(text, result, calculator, debug); });
}

KWZ_API int32_t KWCalcFormulaInt(const char* text, int64_t* out) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcFormulaInt", kNoMemRun, kHostThrew,
                      [&] { return FormulaAs(text, kInt, out); });
}

KWZ_API int32_t KWCalcFormulaDbl(const char* text, double* out) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcFormulaDbl", kNoMemRun, kHostThrew,
                      [&] { return FormulaAs(text, kDbl, out); });
}

}  // extern "C"
