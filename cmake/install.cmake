# Install rules: headers, libraries, pkg-config file and CMake package.
include(CMakePackageConfigHelpers)

install(TARGETS dvs hostlibs configstorec EXPORT dvsTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

file(GLOB DVS_PUBLIC_HEADERS ${PROJECT_SOURCE_DIR}/include/*.h)
install(FILES ${DVS_PUBLIC_HEADERS} ${PROJECT_SOURCE_DIR}/platform/hostlibs/hostlibs.h
  ${PROJECT_SOURCE_DIR}/platform/configstore/configstore.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT dvsTargets NAMESPACE dvs:: FILE dvsTargets.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/dvs)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/dvsConfig.cmake.in
  ${PROJECT_BINARY_DIR}/dvsConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/dvs)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/dvsConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/dvsConfig.cmake ${PROJECT_BINARY_DIR}/dvsConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/dvs)

# The pkg-config file finds its prefix relative to where it is installed,
# so that an install moved or made with --prefix still works.
file(RELATIVE_PATH DVS_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" DVS_PC_TO_PREFIX "${DVS_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/dvs.pc.in ${PROJECT_BINARY_DIR}/dvs.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/dvs.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
