# The formula compiler against Lua 5.4's loader on an equivalent chunk.
pkg_check_modules(LUA54 REQUIRED IMPORTED_TARGET lua5.4)
kwz_bench(bench_calc_compile)
target_link_libraries(bench_calc_compile PRIVATE PkgConfig::LUA54)
