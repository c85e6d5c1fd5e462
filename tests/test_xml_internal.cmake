# The two 100 MB tests run alone (RUN_SERIAL: each holds a few hundred MB) and
# carry the label "large" beside the module's.  Test names exist only once
# gtest_discover_tests has listed them, so a script that CTest reads after
# the discovered list sets the properties; it is registered when this
# directory is done, after the discovery of this executable.
set(_kwz_xml_large_script "${CMAKE_CURRENT_BINARY_DIR}/${_name}_large.cmake")
file(WRITE "${_kwz_xml_large_script}" "foreach(_t IN ITEMS xml_internal.HundredMegabyteDocument xml_internal.HundredMegabyteValues)
  list(FIND ${_name}_TESTS \${_t} _i)
  if(NOT _i EQUAL -1)
    set_tests_properties(\${_t} PROPERTIES RUN_SERIAL ON LABELS \"xml_internal;large\")
  endif()
endforeach()
")
cmake_language(DEFER CALL set_property DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES
               "${_kwz_xml_large_script}")
