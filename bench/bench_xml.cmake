# XML parsing against pugixml and tinyxml2 (peers linked here only).
if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/bench_xml.cpp)
  find_package(pugixml REQUIRED)
  find_package(tinyxml2 REQUIRED)
  kwz_bench(bench_xml)
  target_link_libraries(bench_xml PRIVATE pugixml::pugixml tinyxml2::tinyxml2)
endif()
