// What a host installs to watch or steer runs: the stop request, the debug
// and error hooks of a stack, the calculator's call hook with the per-entry
// flag that routes calls through it, and the constant table its compiles
// see.  The engine reads them.
#include "base/kwGuard.h"
#include "calc/kwCalcEngine.h"
#include "calc/kwCalcStack.h"
#include "calc/kwCalcVar.h"

using namespace kwz::calc;

namespace {

using ErrorHook = int32_t (*)(KWCalcStack* stack, int32_t position, int32_t status);

}  // namespace

extern "C" {

KWZ_API void KWCalcStackStop(KWCalcStack* stack) {
    kwz::CEdgeVoid("Kwz.kwCalc.KWCalcStackStop", [&] {
        // The only header field another thread may touch while a run goes on.
        if (stack) stack->flags.fetch_or(kStopBit);
    });
}

KWZ_API void KWCalcStackSetHooks(KWCalcStack* stack, KWCalcFn debugHook,
                                 int32_t (*errorHook)(KWCalcStack* stack, int32_t position,
                                                      int32_t status)) {
    kwz::CEdgeVoid("Kwz.kwCalc.KWCalcStackSetHooks", [&] {
        if (!stack) return;
        stack->debugHook = debugHook;
        // The header keeps the error hook untyped; the engine casts it back.
        stack->errorHook = reinterpret_cast<void*>(static_cast<ErrorHook>(errorHook));
    });
}

KWZ_API void KWCalcSetCallHook(KWCalcDef* calculator, KWCalcFn hook) {
    kwz::CEdgeVoid("Kwz.kwCalc.KWCalcSetCallHook", [&] {
        if (calculator) calculator->callHook = hook;
    });
}

KWZ_API void KWCalcSetConstants(KWCalcDef* calculator, KWCalcConst* constants) {
    kwz::CEdgeVoid("Kwz.kwCalc.KWCalcSetConstants", [&] {
        if (calculator) calculator->constants = constants;
    });
}

KWZ_API int32_t KWCalcFunSetHook(KWCalcDef* calculator, const char* name, int32_t on) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcFunSetHook", kNoMem, kNotSupported, [&] {
        if (!calculator || !name) return kNotSupported;
        KWCalcNameDef* e = NameFind(calculator, name, nullptr);
        if (!e) return kUnknownFun;
        e->hook = on != 0;
        return kOk;
    });
}

}  // extern "C"
