# The shared library libVomKwz_x64.so.1, built from one object library per
# module.  Only the functions marked KWZ_API in include/VomKwz.h are exported.
#
# Layers: each module sees the headers of the modules below it and no others.
#   base                     memory, logging, ticks, time, lists, sorting, C edge
#   rec     -> base          record types, records, image, record arrays
#   crypto  -> rec           "#LZ2" container, data helpers, MD5, RC4
#   sock    -> rec           the record transport
#   graph   -> base          graphs
#   text    -> base          KString
#   xml     -> text          XML documents
#   calc    -> graph         the calculator and its object types
#   client  -> sock          client sessions
# The rule is enforced by the include path: a module's sources are compiled
# with one include root per module it may see (a folder holding a link named
# after the module), never with the project root, so "#include "calc/x.h""
# from graph/ does not find the file.

set(KWZ_MODULES base rec crypto sock graph text xml calc client)
set(KWZ_DEPS_rec base)
set(KWZ_DEPS_crypto rec)
set(KWZ_DEPS_sock rec)
set(KWZ_DEPS_graph base)
set(KWZ_DEPS_text base)
set(KWZ_DEPS_xml text)
set(KWZ_DEPS_calc graph base)
set(KWZ_DEPS_client sock)

set(KWZ_LIB_OBJECTS "")
foreach(_mod IN LISTS KWZ_MODULES)
  file(GLOB _src CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/${_mod}/*.cpp")
  if(NOT _src)
    continue()
  endif()
  set(_root "${PROJECT_BINARY_DIR}/kwz_include/${_mod}")
  file(MAKE_DIRECTORY "${_root}")
  file(CREATE_LINK "${PROJECT_SOURCE_DIR}/${_mod}" "${_root}/${_mod}" SYMBOLIC)
  add_library(kwz_${_mod} OBJECT ${_src})
  set_target_properties(kwz_${_mod} PROPERTIES
    POSITION_INDEPENDENT_CODE ON
    C_VISIBILITY_PRESET hidden
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  target_include_directories(kwz_${_mod}
    PUBLIC "${_root}" "${PROJECT_SOURCE_DIR}/include")
  target_compile_definitions(kwz_${_mod} PUBLIC KWZ_BUILDING_LIBRARY _GNU_SOURCE)
  target_link_libraries(kwz_${_mod} PRIVATE kwz_warnings)
  foreach(_dep IN LISTS KWZ_DEPS_${_mod})
    if(TARGET kwz_${_dep})
      target_link_libraries(kwz_${_mod} PUBLIC kwz_${_dep})
    endif()
  endforeach()
  list(APPEND KWZ_LIB_OBJECTS $<TARGET_OBJECTS:kwz_${_mod}>)
endforeach()
target_link_libraries(kwz_crypto PRIVATE PkgConfig::LZO2)
if(TARGET kwz_sock)
  target_link_libraries(kwz_sock PRIVATE Threads::Threads)
  target_compile_options(kwz_sock PRIVATE $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety -Werror>)
endif()

add_library(VomKwz SHARED ${KWZ_LIB_OBJECTS})
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
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_link_libraries(VomKwz PRIVATE kwz_warnings PkgConfig::LZO2 Threads::Threads)
target_link_options(VomKwz PRIVATE -Wl,--exclude-libs,ALL)
if(NOT KWZ_SANITIZE AND NOT KWZ_BUILD_FUZZERS)
  # Every symbol the library needs must be resolved by its own dependencies.
  target_link_options(VomKwz PRIVATE -Wl,--no-undefined)
endif()

# Tests that reach inside the library (fault injection, internal classes) link
# this static copy of the same objects instead of the shared object.
add_library(kwz_internal STATIC ${KWZ_LIB_OBJECTS})
target_include_directories(kwz_internal INTERFACE "${PROJECT_SOURCE_DIR}/include")
foreach(_mod IN LISTS KWZ_MODULES)
  if(TARGET kwz_${_mod})
    target_include_directories(kwz_internal INTERFACE "${PROJECT_BINARY_DIR}/kwz_include/${_mod}")
  endif()
endforeach()
target_compile_definitions(kwz_internal INTERFACE KWZ_BUILDING_LIBRARY _GNU_SOURCE)
target_link_libraries(kwz_internal PUBLIC PkgConfig::LZO2 Threads::Threads)

# Export exactly the functions that the header marks KWZ_API: -fvisibility=hidden
# alone still lets weak instantiations of std:: templates out, so a version
# script generated from the header closes the interface.
file(STRINGS "${PROJECT_SOURCE_DIR}/include/VomKwz.h" _kwz_api_lines REGEX "^[^#]*KWZ_API [^(]*\\(")
set(_kwz_exports "")
foreach(_line IN LISTS _kwz_api_lines)
  string(REGEX MATCH "([A-Za-z_][A-Za-z_0-9]*)\\(" _m "${_line}")
  string(APPEND _kwz_exports "    ${CMAKE_MATCH_1};\n")
endforeach()
# The C++ classes the header declares "class KWZ_API Name" / "struct KWZ_API
# Name" leave the library with their members, vtables and type information.
file(STRINGS "${PROJECT_SOURCE_DIR}/include/VomKwz.h" _kwz_class_lines
     REGEX "^(class|struct) KWZ_API [A-Za-z_][A-Za-z_0-9]*")
set(_kwz_cxx "")
foreach(_line IN LISTS _kwz_class_lines)
  string(REGEX MATCH "KWZ_API ([A-Za-z_][A-Za-z_0-9]*)" _m "${_line}")
  set(_c "${CMAKE_MATCH_1}")
  string(APPEND _kwz_cxx "      ${_c}::*;\n      \"vtable for ${_c}\";\n"
         "      \"typeinfo for ${_c}\";\n      \"typeinfo name for ${_c}\";\n")
endforeach()
if(_kwz_cxx)
  string(APPEND _kwz_exports "    extern \"C++\" {\n${_kwz_cxx}    };\n")
endif()
set(KWZ_VERSION_SCRIPT "${PROJECT_BINARY_DIR}/VomKwz.map")
file(WRITE "${KWZ_VERSION_SCRIPT}.in" "{\n  global:\n${_kwz_exports}  local: *;\n};\n")
configure_file("${KWZ_VERSION_SCRIPT}.in" "${KWZ_VERSION_SCRIPT}" COPYONLY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/include/VomKwz.h")
target_link_options(VomKwz PRIVATE "-Wl,--version-script=${KWZ_VERSION_SCRIPT}")
set_property(TARGET VomKwz APPEND PROPERTY LINK_DEPENDS "${KWZ_VERSION_SCRIPT}")
