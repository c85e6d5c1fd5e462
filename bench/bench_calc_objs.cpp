// The cost of the object path: one script loop of 1,000,000 additions, the
// accumulator a plain Int in one run and an IntS in the other (IntS + Int and
// IntS + IntS), the loop counter a plain Int in all.  The ratio of the medians
// is the figure to watch.
#include <VomKwz.h>
#include <benchmark/benchmark.h>

#include <cstdlib>

namespace {

struct Engine {
    KWCalcDef* calc = nullptr;
    KWCalcStack* stack = nullptr;
    Engine() {
        if (!IntSObjTypeReg(20, nullptr)) std::abort();
        KWCalcCreate(&calc, nullptr, nullptr);
        const char* const kFunctions[] = {
            "addint(n){var i,s;i=0;s=0;while(i<n){i=i+1;s=s+1;}Result=s;}",
            "addints(n){var i,s;i=0;s=IntS(0,1);while(i<n){i=i+1;s=s+1;}Result=Val(s);}",
            "addintsints(n){var i,s,one;i=0;s=IntS(0,1);one=IntS(1,2);"
            "while(i<n){i=i+1;s=s+one;}Result=Val(s);}",
        };
        for (const char* f : kFunctions)
            if (KWCalcFunAddI(calc, f, nullptr, 0, 0) != 0) std::abort();
        KWCalcStackCreate(calc, &stack, 512);
    }
    ~Engine() {
        KWCalcStackFree(stack);
        KWCalcDestroy(calc);
        IntSObjTypeReg(0, nullptr);
    }
    int64_t Call(const char* name, int64_t n) {
        CVarSetInt(KWCalcStackPush(stack), n);
        if (KWCalcFun2(stack, name) != 0) std::abort();
        CVar out{};
        KWCalcStackPop(stack, &out);
        if (out.type != 1 || out.v.i != n) std::abort();
        return out.v.i;
    }
};

void Run(benchmark::State& st, const char* name) {
    Engine e;
    for (auto _ : st) benchmark::DoNotOptimize(e.Call(name, 1000000));
    st.SetItemsProcessed(int64_t(st.iterations()) * 1000000);
}

void BM_Loop_IntAdd(benchmark::State& st) { Run(st, "addint"); }
void BM_Loop_IntSAddInt(benchmark::State& st) { Run(st, "addints"); }
void BM_Loop_IntSAddIntS(benchmark::State& st) { Run(st, "addintsints"); }

}  // namespace

BENCHMARK(BM_Loop_IntAdd)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Loop_IntSAddInt)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Loop_IntSAddIntS)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
