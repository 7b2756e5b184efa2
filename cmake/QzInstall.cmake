# Installation: libqz with its headers, qzrun and qzuai, libqzhost (for
# foreign-function hosts such as the Python package), a CMake package
# (find_package(qz), target qz::qz) and qz.pc for pkg-config. Everything
# installed is relocatable: the executables, the package files and qz.pc
# find the library relative to their own place.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(QZ_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/qz)

file(RELATIVE_PATH QZ_BIN_TO_LIB ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set_target_properties(qzrun qzuai PROPERTIES INSTALL_RPATH "$ORIGIN/${QZ_BIN_TO_LIB}")

install(TARGETS qz EXPORT qzTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS qzhost LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS qzrun qzuai RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/src/include/vm_wrapper DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/src/include/QZ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT qzTargets NAMESPACE qz:: DESTINATION ${QZ_INSTALL_CMAKEDIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/qzConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/qzConfig.cmake
                              INSTALL_DESTINATION ${QZ_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qzConfigVersion.cmake
                                 VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qzConfig.cmake ${PROJECT_BINARY_DIR}/qzConfigVersion.cmake
        DESTINATION ${QZ_INSTALL_CMAKEDIR})

# The headers carry OpenMP pragmas and calls: users compile and link with it.
file(RELATIVE_PATH QZ_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" QZ_PC_TO_PREFIX "${QZ_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/qz.pc.in ${PROJECT_BINARY_DIR}/qz.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qz.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(QZ_BUILD_TESTS)
  # Installs into a scratch prefix and builds a small outside program
  # against it, once through the CMake package and once through pkg-config.
  add_test(NAME install_package
           COMMAND ${CMAKE_COMMAND}
                   -DQZ_BUILD_DIR=${PROJECT_BINARY_DIR}
                   -DQZ_SOURCE_DIR=${PROJECT_SOURCE_DIR}
                   -DQZ_WORK_DIR=${PROJECT_BINARY_DIR}/install_test
                   -DQZ_CXX=${CMAKE_CXX_COMPILER}
                   -DQZ_LIBDIR=${CMAKE_INSTALL_LIBDIR}
                   -P ${PROJECT_SOURCE_DIR}/tests/install/check_install.cmake)
  set_tests_properties(install_package PROPERTIES TIMEOUT 600)
endif()
