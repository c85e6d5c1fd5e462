// Compiling a 200-line function, against Lua 5.4 loading the same program
// (luaL_loadbuffer: lexing, parsing and code generation, no run) in the same
// run.  Both texts are generated from one list of statements.
#include <VomKwz.h>
#include <benchmark/benchmark.h>
#include <lua.hpp>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr int kLines = 200;

// Line k of the body in both languages.
void Line(int k, std::string* calc, std::string* lua) {
    char c[256], l[256];
    switch (k % 5) {
    case 0:
        std::snprintf(c, sizeof c, "  s = s + g(i, \"text %d\") * 2.5 - (a << 2) %% 7;\n", k);
        std::snprintf(l, sizeof l, "  s = s + g(i, \"text %d\") * 2.5 - (a << 2) %% 7\n", k);
        break;
    case 1:
        std::snprintf(c, sizeof c, "  if (i %% 3 == 1 && b != %d) s = s - i; elseif (i > 10) s = s * 2; else s = [s, i][0];\n", k);
        std::snprintf(l, sizeof l, "  if i %% 3 == 1 and b ~= %d then s = s - i elseif i > 10 then s = s * 2 else s = ({s, i})[1] end\n", k);
        break;
    case 2:
        std::snprintf(c, sizeof c, "  while (i < %d) { i = i + 1; if (i == 5) break; }\n", k);
        std::snprintf(l, sizeof l, "  while i < %d do i = i + 1; if i == 5 then break end end\n", k);
        break;
    case 3:
        std::snprintf(c, sizeof c, "  t = [a, b, \"x\", %d.25, sin(s), min(a, %d)];\n", k, k);
        std::snprintf(l, sizeof l, "  t = {a, b, \"x\", %d.25, math.sin(s), math.min(a, %d)}\n", k, k);
        break;
    default:
        std::snprintf(c, sizeof c, "  result = t[1] + len(t) + h(s, i, %d) / (1 + abs(s));\n", k);
        std::snprintf(l, sizeof l, "  result = t[2] + #t + h(s, i, %d) / (1 + math.abs(s))\n", k);
        break;
    }
    *calc += c;
    *lua += l;
}

struct Texts {
    std::string calc, lua;
    Texts() {
        calc = "f(a, b){\n  var i, s, t;\n  i = 0; s = 0;\n";
        lua = "return function(a, b)\n  local i, s, t, result = 0, 0, nil, nil\n";
        for (int k = 0; k < kLines - 5; ++k) Line(k, &calc, &lua);
        calc += "}\n";
        lua += "  return result\nend\n";
    }
};

const Texts& TheTexts() {
    static const Texts texts;
    return texts;
}

void BM_CalcCompile(benchmark::State& state) {
    const std::string& text = TheTexts().calc;
    for (auto _ : state) {
        KWFunDef* f = nullptr;
        if (KWFunCompile(text.c_str(), &f, 0, nullptr) != 0) {
            state.SkipWithError(f && f->code ? reinterpret_cast<const char*>(f->code) : "failed");
            KWFunFree(f);
            return;
        }
        benchmark::DoNotOptimize(f->code);
        KWFunFree(f);
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(text.size()));
}

void BM_LuaLoad(benchmark::State& state) {
    const std::string& text = TheTexts().lua;
    lua_State* L = luaL_newstate();
    for (auto _ : state) {
        if (luaL_loadbuffer(L, text.data(), text.size(), "chunk") != LUA_OK) {
            state.SkipWithError(lua_tostring(L, -1));
            break;
        }
        lua_pop(L, 1);
    }
    lua_close(L);
    state.SetItemsProcessed(int64_t(state.iterations()));
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(text.size()));
}

}  // namespace

BENCHMARK(BM_CalcCompile);
BENCHMARK(BM_LuaLoad);

BENCHMARK_MAIN();
