# cmake --install: the library, the header, VomKwz.pc and a CMake package
# (find_package(VomKwz) gives VomKwz::VomKwz).
include(CMakePackageConfigHelpers)

install(TARGETS VomKwz EXPORT VomKwzTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/VomKwz.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(KWZ_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/VomKwz)
install(EXPORT VomKwzTargets NAMESPACE VomKwz:: DESTINATION ${KWZ_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/VomKwzConfig.cmake.in
  ${PROJECT_BINARY_DIR}/VomKwzConfig.cmake INSTALL_DESTINATION ${KWZ_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VomKwzConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VomKwzConfig.cmake ${PROJECT_BINARY_DIR}/VomKwzConfigVersion.cmake
  DESTINATION ${KWZ_CMAKE_DIR})

# The .pc file finds its prefix from its own place, so the tree can move.
file(RELATIVE_PATH KWZ_PC_TO_PREFIX "/kwz/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/kwz")
configure_file(${PROJECT_SOURCE_DIR}/cmake/VomKwz.pc.in ${PROJECT_BINARY_DIR}/VomKwz.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/VomKwz.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
