# Installation: the library (with its SONAME), the headers, the qel program and its
# manual page, a pkg-config file (qel.pc) and a CMake package (find_package(Qel) giving
# the imported target Qel::qel), all relative to the chosen prefix.
include(CMakePackageConfigHelpers)

install(TARGETS qel EXPORT QelTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS qel_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/docs/qel.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

file(RELATIVE_PATH QEL_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" QEL_PC_TO_PREFIX "${QEL_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/qel.pc.in ${PROJECT_BINARY_DIR}/qel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

set(QEL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Qel)
install(EXPORT QelTargets NAMESPACE Qel:: DESTINATION ${QEL_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/QelConfig.cmake.in ${PROJECT_BINARY_DIR}/QelConfig.cmake
  INSTALL_DESTINATION ${QEL_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QelConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/QelConfig.cmake ${PROJECT_BINARY_DIR}/QelConfigVersion.cmake DESTINATION ${QEL_CMAKE_DIR})
