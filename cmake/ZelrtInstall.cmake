# Install rules: headers, library, CMake package, pkg-config file.

include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zelrt)

install(TARGETS zelrt EXPORT zelrt
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT zelrt NAMESPACE zelrt:: FILE zelrtConfig.cmake DESTINATION ${package_dir})

write_basic_package_version_file(${PROJECT_BINARY_DIR}/zelrtConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zelrtConfigVersion.cmake DESTINATION ${package_dir})

# The pkg-config file finds the tree from where it lies itself, so that the tree can be moved. A
# directory that was given as absolute stays so: appending it replaces what was there.
set(pc_libdir "\${prefix}")
cmake_path(APPEND pc_libdir ${CMAKE_INSTALL_LIBDIR})
set(pc_includedir "\${prefix}")
cmake_path(APPEND pc_includedir ${CMAKE_INSTALL_INCLUDEDIR})
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX
  BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig OUTPUT_VARIABLE pc_to_prefix)
set(pc_prefix "\${pcfiledir}/${pc_to_prefix}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/zelrt.pc.in ${PROJECT_BINARY_DIR}/zelrt.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zelrt.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
