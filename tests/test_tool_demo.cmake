# The demo's tests run the kwz executable.
if(TARGET kwz)
  add_dependencies(${_name} kwz)
  target_compile_definitions(${_name} PRIVATE KWZ_TOOL="$<TARGET_FILE:kwz>")
endif()
