// The engine against Lua 5.4 and muparser on the same work: (a) a while loop
// summing 1..10,000,000, (b) recursive fib(27), (c) a string of 100,000
// pieces, (d) "sin(x)*cos(x)+x*x/3" for 1,000,000 values of x set by the host.
#include <VomKwz.h>
#include <benchmark/benchmark.h>
#include <lua.hpp>
#include <muParser.h>

#include <cstdlib>
#include <type_traits>

namespace {

struct Engine {
    KWCalcDef* calc = nullptr;
    KWCalcStack* stack = nullptr;
    Engine() {
        KWCalcCreate(&calc, nullptr, nullptr);
        KWCalcFunAddI(calc, "sum(n){var i,s;i=0;s=0;while(i<n){i=i+1;s=s+i;}Result=s;}", nullptr, 0, 0);
        KWCalcFunAddI(calc, "fib(n){if(n<2){Result=n;exit;}Result=fib(n-1)+fib(n-2);}", nullptr, 0, 0);
        KWCalcFunAddI(calc, "build(n){var s,i;s=\"\";i=0;while(i<n){s=s+\"ab\";i=i+1;}Result=len(s);}",
                      nullptr, 0, 0);
        KWCalcFunAddI(calc, "f(x){Result=sin(x)*cos(x)+x*x/3;}", nullptr, 0, 0);
        KWCalcStackCreate(calc, &stack, 4096);
    }
    ~Engine() {
        KWCalcStackFree(stack);
        KWCalcDestroy(calc);
    }
    int64_t Call(const char* name, int64_t n) {
        CVarSetInt(KWCalcStackPush(stack), n);
        if (KWCalcFun2(stack, name) != 0) std::abort();
        CVar out{};
        KWCalcStackPop(stack, &out);
        return out.v.i;
    }
};

const char* const kLua =
    "function sum(n) local i, s = 0, 0 while i < n do i = i + 1 s = s + i end return s end\n"
    "function fib(n) if n < 2 then return n end return fib(n-1) + fib(n-2) end\n"
    "function build(n) local s = '' for i = 1, n do s = s .. 'ab' end return #s end\n"
    "function f(x) return math.sin(x)*math.cos(x)+x*x/3 end\n";

struct Lua {
    lua_State* L = luaL_newstate();
    Lua() {
        luaL_openlibs(L);
        if (luaL_dostring(L, kLua) != 0) std::abort();
    }
    ~Lua() { lua_close(L); }
    // Integer work runs on Lua integers, as the engine's runs on Int: a
    // float argument would make Lua add floats and compare int with float.
    // T is int64_t or double; the result comes back as the same type.
    template <typename T>
    T Call(const char* name, T x) {
        lua_getglobal(L, name);
        if constexpr (std::is_integral_v<T>) lua_pushinteger(L, x);
        else lua_pushnumber(L, x);
        lua_call(L, 1, 1);
        const T r = std::is_integral_v<T> ? T(lua_tointeger(L, -1)) : T(lua_tonumber(L, -1));
        lua_pop(L, 1);
        return r;
    }
};

void Args(benchmark::internal::Benchmark* b) { b->Unit(benchmark::kMillisecond); }

void BM_Engine_Sum(benchmark::State& st) {
    Engine e;
    for (auto _ : st) benchmark::DoNotOptimize(e.Call("sum", 10000000));
}
void BM_Lua_Sum(benchmark::State& st) {
    Lua l;
    for (auto _ : st) benchmark::DoNotOptimize(l.Call<int64_t>("sum", 10000000));
}
void BM_Engine_Fib(benchmark::State& st) {
    Engine e;
    for (auto _ : st) benchmark::DoNotOptimize(e.Call("fib", 27));
}
void BM_Lua_Fib(benchmark::State& st) {
    Lua l;
    for (auto _ : st) benchmark::DoNotOptimize(l.Call<int64_t>("fib", 27));
}
void BM_Engine_String(benchmark::State& st) {
    Engine e;
    for (auto _ : st) benchmark::DoNotOptimize(e.Call("build", 100000));
}
void BM_Lua_String(benchmark::State& st) {
    Lua l;
    for (auto _ : st) benchmark::DoNotOptimize(l.Call<int64_t>("build", 100000));
}
void BM_Engine_Formula(benchmark::State& st) {
    Engine e;
    KWCalcNameDef* f = KWCalcNameFind(e.calc, "f", nullptr);
    for (auto _ : st) {
        double sum = 0;
        for (int i = 0; i < 1000000; ++i) {
            CVarSetDbl(KWCalcStackPush(e.stack), i * 1e-6);
            KWCalcFun1(e.stack, f);
            CVar out{};
            KWCalcStackPop(e.stack, &out);
            sum += out.v.d;
        }
        benchmark::DoNotOptimize(sum);
    }
}
void BM_Lua_Formula(benchmark::State& st) {
    Lua l;
    for (auto _ : st) {
        double sum = 0;
        for (int i = 0; i < 1000000; ++i) sum += l.Call<double>("f", i * 1e-6);
        benchmark::DoNotOptimize(sum);
    }
}
void BM_MuParser_Formula(benchmark::State& st) {
    mu::Parser p;
    double x = 0;
    p.DefineVar("x", &x);
    p.SetExpr("sin(x)*cos(x)+x*x/3");
    p.Eval();
    for (auto _ : st) {
        double sum = 0;
        for (int i = 0; i < 1000000; ++i) {
            x = i * 1e-6;
            sum += p.Eval();
        }
        benchmark::DoNotOptimize(sum);
    }
}

}  // namespace

BENCHMARK(BM_Engine_Sum)->Apply(Args);
BENCHMARK(BM_Lua_Sum)->Apply(Args);
BENCHMARK(BM_Engine_Fib)->Apply(Args);
BENCHMARK(BM_Lua_Fib)->Apply(Args);
BENCHMARK(BM_Engine_String)->Apply(Args);
BENCHMARK(BM_Lua_String)->Apply(Args);
BENCHMARK(BM_Engine_Formula)->Apply(Args);
BENCHMARK(BM_Lua_Formula)->Apply(Args);
BENCHMARK(BM_MuParser_Formula)->Apply(Args);
BENCHMARK_MAIN();
