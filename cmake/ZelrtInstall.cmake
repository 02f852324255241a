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

configure_file(${CMAKE_CURRENT_LIST_DIR}/zelrt.pc.in ${PROJECT_BINARY_DIR}/zelrt.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zelrt.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
