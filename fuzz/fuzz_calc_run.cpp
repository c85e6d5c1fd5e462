// Arbitrary text compiled and run under small budgets: the text holds
// function definitions separated by "\n\n"; every one that compiles is
// registered, then each registered script is called with one argument.  No
// crash, no leak, no hang: the instruction, memory and depth budgets end
// every run.
#include <VomKwz.h>

#include <cstdint>
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
            for (int32_t i = 0; i < 3; ++i)
                if (CVar* a = KWCalcStackPush(s)) CVarSetInt(a, 5 + i);
            if (KWCalcFun1(s, e) == 0) KWCalcStackPop(s, nullptr);
            KWCalcStackClear(s);
        }
        KWCalcStackFree(s);
    }
    CVar v{};
    KWCalcFormula(parts[0].c_str(), &v, calc, 0);
    CVarSetEmpty(&v);
    KWCalcDestroy(calc);
    return 0;
}
