# The tool's smoke tests run the kwz executable and read README.md.
target_compile_definitions(${_name} PRIVATE KWZ_README="${PROJECT_SOURCE_DIR}/README.md")
if(TARGET kwz)
  add_dependencies(${_name} kwz)
  target_compile_definitions(${_name} PRIVATE KWZ_TOOL="$<TARGET_FILE:kwz>")
endif()
