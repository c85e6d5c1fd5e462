# The shared library libVomKwz_x64.so.1.  Every module folder contributes its
# .cpp files; only the functions marked KWZ_API in include/VomKwz.h are exported.

set(KWZ_MODULE_DIRS rec sock client calc graph xml crypto text)
set(KWZ_LIB_SOURCES "")
foreach(_dir IN LISTS KWZ_MODULE_DIRS)
  file(GLOB _src CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/${_dir}/*.cpp")
  list(APPEND KWZ_LIB_SOURCES ${_src})
endforeach()

add_library(VomKwz SHARED ${KWZ_LIB_SOURCES})
add_library(VomKwz::VomKwz ALIAS VomKwz)
set_target_properties(VomKwz PROPERTIES
  OUTPUT_NAME VomKwz_x64
  VERSION 1
  SOVERSION 1
  C_VISIBILITY_PRESET hidden
  CXX_VISIBILITY_PRESET hidden
  VISIBILITY_INLINES_HIDDEN ON)
target_include_directories(VomKwz
  PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
  PRIVATE
    ${PROJECT_SOURCE_DIR})
target_compile_definitions(VomKwz PRIVATE KWZ_BUILDING_LIBRARY _GNU_SOURCE)
target_link_libraries(VomKwz PRIVATE kwz_warnings PkgConfig::LZO2 Threads::Threads)
target_link_options(VomKwz PRIVATE -Wl,--exclude-libs,ALL)
if(NOT KWZ_SANITIZE AND NOT KWZ_BUILD_FUZZERS)
  # Every symbol the library needs must be resolved by its own dependencies.
  target_link_options(VomKwz PRIVATE -Wl,--no-undefined)
endif()

# Export exactly the functions that the header marks KWZ_API: -fvisibility=hidden
# alone still lets weak instantiations of std:: templates out, so a version
# script generated from the header closes the interface.
file(STRINGS "${PROJECT_SOURCE_DIR}/include/VomKwz.h" _kwz_api_lines REGEX "^[^#]*KWZ_API [^(]*\\(")
set(_kwz_exports "")
foreach(_line IN LISTS _kwz_api_lines)
  string(REGEX MATCH "([A-Za-z_][A-Za-z_0-9]*)\\(" _m "${_line}")
  string(APPEND _kwz_exports "    ${CMAKE_MATCH_1};\n")
endforeach()
set(KWZ_VERSION_SCRIPT "${PROJECT_BINARY_DIR}/VomKwz.map")
file(WRITE "${KWZ_VERSION_SCRIPT}.in" "{\n  global:\n${_kwz_exports}  local: *;\n};\n")
configure_file("${KWZ_VERSION_SCRIPT}.in" "${KWZ_VERSION_SCRIPT}" COPYONLY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/include/VomKwz.h")
target_link_options(VomKwz PRIVATE "-Wl,--version-script=${KWZ_VERSION_SCRIPT}")
set_property(TARGET VomKwz APPEND PROPERTY LINK_DEPENDS "${KWZ_VERSION_SCRIPT}")
