# Calculator values: copies, reference copies and the value image, against
# std::vector<std::variant<...>> and msgpack-c/-cxx on the same data.
# msgpack-cxx is header-only; its Boost parts are not needed here.
find_path(KWZ_MSGPACK_CXX_INCLUDE msgpack.hpp REQUIRED)
kwz_bench(bench_calc)
target_include_directories(bench_calc SYSTEM PRIVATE ${KWZ_MSGPACK_CXX_INCLUDE})
target_compile_definitions(bench_calc PRIVATE MSGPACK_NO_BOOST)
