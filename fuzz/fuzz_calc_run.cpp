// Arbitrary text compiled and run under small budgets: the text holds
// function definitions separated by "\n\n"; every one that compiles is
// registered, then each registered script is called with one argument.  No
// crash, no leak, no hang: the instruction, memory and depth budgets end
// every run.  Each call runs twice, with the memory budget (the interpreter's
// full loop) and without it (its fast loop): unless the first ran out of
// memory, both must end alike.
#include <VomKwz.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

int32_t HostEcho(KWCalcStack* s) {  // echo(x): x, after calling the script "cb" when there
    CVar* x = KWCalcStackArg(s, 0);
    if (x->type == 1 && x->v.i % 3 == 0) {
        CVar* a = KWCalcStackPush(s);
        if (!a) return -47;
        CVarSetInt(a, x->v.i + 1);
        const int32_t st = KWCalcFun2(s, "cb");
        if (st != 0) return st;
        return KWCalcStackPop(s, x);
    }
    return 0;
}

// The same value: tags, numbers bit for bit, texts, arrays element by element.
bool Same(const CVar* a, const CVar* b, int depth) {
    if (a->type != b->type) return false;
    switch (a->type) {
    case 1:
    case 2: return std::memcmp(&a->v, &b->v, 8) == 0;
    case 3: return a->count == b->count && (a->count <= 0 || std::memcmp(a->v.s, b->v.s, size_t(a->count)) == 0);
    case 4:
        if (a->count != b->count) return false;
        for (int32_t i = 0; depth < 64 && i < a->count; ++i)
            if (!Same(&a->v.a[i], &b->v.a[i], depth + 1)) return false;
        return true;
    default: return true;
    }
}

// Calls e with the arguments 5, 6, 7 (as Dbl 5.5, 6.25, -7.5 when dbl); its
// status, and its result in *out.
int32_t Call(KWCalcStack* s, KWCalcNameDef* e, bool dbl, CVar* out) {
    static const double kDbls[] = {5.5, 6.25, -7.5};
    for (int32_t i = 0; i < 3; ++i) {
        if (CVar* a = KWCalcStackPush(s)) {
            if (dbl) CVarSetDbl(a, kDbls[i]);
            else CVarSetInt(a, 5 + i);
        }
    }
    const int32_t st = KWCalcFun1(s, e);
    if (st == 0) KWCalcStackPop(s, out);
    KWCalcStackClear(s);
    return st;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> parts;
    for (size_t at = 0; at <= text.size();) {
        size_t end = text.find("\n\n", at);
        if (end == std::string::npos) end = text.size();
        parts.push_back(text.substr(at, end - at));
        at = end + 2;
    }
    KWCalcDef* calc = nullptr;
    if (KWCalcCreate(&calc, nullptr, nullptr) != 0) return 0;
    KWCalcSetLimits(calc, 20000, 1 << 20, 40);
    KWCalcFunAdd(calc, "echo", 1, &HostEcho, nullptr, nullptr);
    for (const std::string& p : parts) KWCalcFunAddI(calc, p.c_str(), nullptr, 0, int32_t(p.size() & 1));
    KWCalcStack* s = nullptr;
    if (KWCalcStackCreate(calc, &s, 256) == 0) {
        for (const std::string& p : parts) {
            // Each part's own name, when it compiled; three arguments on the
            // stack serve every function of up to three parameters.
            const std::string name = p.substr(0, p.find_first_of("({"));
            KWCalcNameDef* e = KWCalcNameFind(calc, name.c_str(), nullptr);
            if (!e) continue;
            for (const bool dbl : {false, true}) {
                CVar full{}, fast{};
                const int32_t fullSt = Call(s, e, dbl, &full);
                if (fullSt != -51) {  // (a run that ran out of memory is not repeated without the budget)
                    KWCalcSetLimits(calc, 20000, 0, 40);
                    const int32_t fastSt = Call(s, e, dbl, &fast);
                    KWCalcSetLimits(calc, 20000, 1 << 20, 40);
                    if (fullSt != fastSt || !Same(&full, &fast, 0)) std::abort();
                }
                CVarSetEmpty(&full);
                CVarSetEmpty(&fast);
            }
        }
        KWCalcStackFree(s);
    }
    CVar v{};
    KWCalcFormula(parts[0].c_str(), &v, calc, 0);
    CVarSetEmpty(&v);
    KWCalcDestroy(calc);
    return 0;
}
