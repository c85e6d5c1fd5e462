# Graphs: build, shortest paths, connected part, save and load; against the
# Boost Graph Library (adjacency_list<vecS, vecS, undirectedS>).
if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/bench_graph.cpp)
  find_package(Boost REQUIRED)
  kwz_bench(bench_graph)
  target_link_libraries(bench_graph PRIVATE Boost::boost)
endif()
