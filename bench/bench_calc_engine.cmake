# The engine against Lua 5.4 (loops, recursion, strings, a host-driven
# formula) and muparser (the formula).
pkg_check_modules(LUA54 REQUIRED IMPORTED_TARGET lua5.4)
kwz_bench(bench_calc_engine)
target_link_libraries(bench_calc_engine PRIVATE PkgConfig::LUA54 muparser)
