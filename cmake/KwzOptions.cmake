# Compiler settings shared by every target of the project.

# Warnings: applied to our own targets through this interface library.
add_library(kwz_warnings INTERFACE)
target_compile_options(kwz_warnings INTERFACE -Wall -Wextra $<$<BOOL:${KWZ_WERROR}>:-Werror>)

if(KWZ_SANITIZE)
  set(_kwz_san_flags -fsanitize=${KWZ_SANITIZE} -fno-omit-frame-pointer)
  if(KWZ_SANITIZE MATCHES "undefined")
    list(APPEND _kwz_san_flags -fno-sanitize-recover=undefined)
  endif()
  add_compile_options(${_kwz_san_flags})
  add_link_options(${_kwz_san_flags})
endif()

if(KWZ_BUILD_FUZZERS)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "KWZ_BUILD_FUZZERS needs clang (CC=clang CXX=clang++)")
  endif()
  # Coverage for everything, the fuzzer main only for the fuzz targets.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# Test code (tests, seed replays, helper programs) is compiled for build speed:
# it runs the library, whose own flags stay those of the build type, and three
# builds of the suite must fit in the test command's time.
set(KWZ_TEST_COMPILE_OPTIONS -O1 -g1)
