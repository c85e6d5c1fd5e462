// The calculator and its name table: registration of host and compiled
// functions, links between compiled callers and their callees, deletion.
#include <algorithm>
#include <cstring>
#include <new>

#include "base/kwGuard.h"
#include "base/kwSort.h"
#include "calc/kwCalcEngine.h"
#include "calc/kwCalcFastCode.h"
#include "calc/kwCalcVar.h"
#include "calc/kwCalcl.h"

namespace kwz::calc {
namespace {

// A compiled entry owns its KWFunDef; unlinks it from its callees' lists and
// from its callers' external tables.
void Unlink(KWCalcNameDef* e) {
    for (KWCalcNameDef* callee : e->externals) {
        if (!callee) continue;
        auto& c = callee->callers;
        c.erase(std::remove(c.begin(), c.end(), e), c.end());
    }
    e->externals.clear();
    for (KWCalcNameDef* caller : e->callers)
        for (KWCalcNameDef*& x : caller->externals)
            if (x == e) x = nullptr;
    e->callers.clear();
}

void Release(KWCalcNameDef* e) {
    if (e->compiled) kwz::calcl::FunFree(static_cast<KWFunDef*>(e->data));
    e->fast.reset();
    e->compiled = false;
    e->data = nullptr;
}

}  // namespace

KWCalcNameDef* NameFind(KWCalcDef* calc, const char* name, int32_t* index) {
    if (index) *index = -1;
    if (!calc || !name) return nullptr;
    for (size_t i = 0; i < calc->names.size(); ++i) {
        if (kwz::StrICmpRus(calc->names[i]->name.c_str(), name) == 0) {
            if (index) *index = int32_t(i);
            return calc->names[i].get();
        }
    }
    return nullptr;
}

// Finds the name or makes an entry without a function.
static int32_t FindOrMake(KWCalcDef* calc, const char* name, int32_t argc, KWCalcNameDef** out) {
    KWCalcNameDef* e = NameFind(calc, name, nullptr);
    if (e) {
        if (e->argc != argc) return kArgCount;
        *out = e;
        return kOk;
    }
    auto made = std::make_unique<KWCalcNameDef>();
    made->name = name;
    made->argc = argc;
    made->calculator = calc;
    calc->names.push_back(std::move(made));
    *out = calc->names.back().get();
    return kOk;
}

int32_t FunAdd(KWCalcDef* calc, const char* name, int32_t argc, KWCalcFn fn, void* data,
               KWCalcNameDef** entry) {
    if (entry) *entry = nullptr;
    if (!calc || !name || !*name || argc < 0) return kNotSupported;
    if (KWCalcNameDef* e = NameFind(calc, name, nullptr)) {
        if (e->fn) return kHasFunction;
        if (e->argc != argc) return kArgCount;
    }
    KWCalcNameDef* e = nullptr;
    if (const int32_t st = FindOrMake(calc, name, argc, &e); st != kOk) return st;
    e->fn = fn;
    e->data = data;
    if (fn) ++calc->hostCount;
    if (entry) *entry = e;
    return kOk;
}

int32_t FunLink(KWCalcNameDef* entry, const char* name, int32_t argc, KWCalcNameDef** callee) {
    if (callee) *callee = nullptr;
    if (!entry || !name) return kNotSupported;
    if (!entry->fn) return kNotCallable;
    KWCalcNameDef* c = nullptr;
    if (const int32_t st = FindOrMake(entry->calculator, name, argc, &c); st != kOk) return st;
    c->callers.reserve((c->callers.size() + 4) & ~size_t(3));
    c->callers.push_back(entry);
    entry->externals.push_back(c);
    if (callee) *callee = c;
    return kOk;
}

int32_t FunDel(KWCalcDef* calc, const char* name) {
    int32_t index = -1;
    KWCalcNameDef* e = NameFind(calc, name, &index);
    if (!e) return kUnknownFun;
    Unlink(e);
    Release(e);
    if (e->fn) --calc->hostCount;
    calc->names.erase(calc->names.begin() + index);
    return kOk;
}

int32_t FunAddI(KWCalcDef* calc, const char* text, KWCalcNameDef** entry, int32_t debug) {
    if (entry) *entry = nullptr;
    if (!calc || !text) return kNotSupported;
    KWFunDef* f = nullptr;
    const int32_t code = kwz::calcl::FunCompile(text, &f, debug, calc->constants);
    if (code != 0) {
        kwz::calcl::FunFree(f);
        return code;
    }
    // The code is ours until the entry takes it.
    std::unique_ptr<KWFunDef, void (*)(KWFunDef*)> owned(f, &kwz::calcl::FunFree);
    KWCalcNameDef* e = nullptr;
    int32_t st = FunAdd(calc, f->name, f->paramCount, &KWFunProc, f, &e);
    if (st != kOk) return st;
    e->compiled = true;
    owned.release();
    e->fast = MakeFastCode(f);
    const auto* ext = static_cast<const KWFunExtern*>(f->externNames);
    try {
        for (int32_t i = 0; i < f->externCount; ++i) {
            // A call without arguments passes one empty value but links as 0.
            st = FunLink(e, ext[i].name, ext[i].argCount, nullptr);
            if (st != kOk) break;
        }
    } catch (...) {
        FunDel(calc, f->name);
        throw;
    }
    if (st != kOk) {
        FunDel(calc, e->name.c_str());
        return st;
    }
    if (entry) *entry = e;
    return kOk;
}

std::unique_ptr<KWCalcDef> CalcCreate(KWCalcFn defaultHandler, void* hostData) {
    auto c = std::make_unique<KWCalcDef>();
    c->names.reserve(128);
    c->defaultHandler = defaultHandler;
    c->hostData = hostData;
    for (int32_t tag = kFirstObj; tag <= kLastTag; ++tag)
        if (const KWCalcObjDef* def = ObjType(tag))
            if (def->CalcCreate) def->CalcCreate(c.get());
    return c;
}

void CalcDestroy(KWCalcDef* calculator) {
    if (!calculator) return;
    std::unique_ptr<KWCalcDef> c(calculator);
    for (int32_t tag = kFirstObj; tag <= kLastTag; ++tag)
        if (const KWCalcObjDef* def = ObjType(tag))
            if (def->CalcDestroy) def->CalcDestroy(calculator);
    for (auto& e : c->names) Release(e.get());
}

}  // namespace kwz::calc

using namespace kwz::calc;

extern "C" {

KWZ_API int32_t KWCalcCreate(KWCalcDef** calculator, KWCalcFn defaultHandler, void* hostData) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcCreate", kNoMem, kNotSupported, [&] {
        if (!calculator) return kNotSupported;
        *calculator = nullptr;
        *calculator = CalcCreate(defaultHandler, hostData).release();
        return kOk;
    });
}

KWZ_API void KWCalcDestroy(KWCalcDef* calculator) {
    kwz::CEdgeVoid("Kwz.kwCalc.KWCalcDestroy", [&] { CalcDestroy(calculator); });
}

KWZ_API int32_t KWCalcFunAdd(KWCalcDef* calculator, const char* name, int32_t argc,
                             KWCalcFn function, void* data, KWCalcNameDef** entry) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcFunAdd", kNoMem, kNotSupported,
                      [&] { return FunAdd(calculator, name, argc, function, data, entry); });
}

KWZ_API int32_t KWCalcFunAddI(KWCalcDef* calculator, const char* text, KWCalcNameDef** entry,
                              int32_t options, int32_t debug) {
    (void)options;
    return kwz::CEdge("Kwz.kwCalc.KWCalcFunAddI", kNoMem, kNotSupported,
                      [&] { return FunAddI(calculator, text, entry, debug); });
}

KWZ_API int32_t KWCalcFunLink(KWCalcNameDef* entry, const char* name, int32_t argc,
                              KWCalcNameDef** callee) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcFunLink", kNoMem, kNotSupported,
                      [&] { return FunLink(entry, name, argc, callee); });
}

KWZ_API int32_t KWCalcFunDel(KWCalcDef* calculator, const char* name) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcFunDel", kNoMem, kNotSupported,
                      [&] { return FunDel(calculator, name); });
}

KWZ_API KWCalcNameDef* KWCalcNameFind(KWCalcDef* calculator, const char* name, int32_t* index) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcNameFind", static_cast<KWCalcNameDef*>(nullptr),
                      static_cast<KWCalcNameDef*>(nullptr),
                      [&] { return NameFind(calculator, name, index); });
}

KWZ_API int32_t KWCalcSetLimits(KWCalcDef* calculator, int64_t instructions, int64_t memoryBytes,
                                int32_t callDepth) {
    return kwz::CEdge("Kwz.kwCalc.KWCalcSetLimits", kNoMem, kNotSupported, [&] {
        if (!calculator || instructions < 0 || memoryBytes < 0 || callDepth < 0) return kNotSupported;
        calculator->maxSteps = instructions;
        calculator->maxMemory = memoryBytes;
        calculator->maxDepth = callDepth;
        return kOk;
    });
}

}  // extern "C"
