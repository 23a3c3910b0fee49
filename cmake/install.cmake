# Installation: the library, its headers, the tool, a CMake package
# (find_package(qimra) gives qimra::qimra) and a pkg-config file.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# qimra.hpp is C++20; the C header is plain C.
target_compile_features(qimra INTERFACE cxx_std_20)

install(TARGETS qimra qimra_static EXPORT qimraTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/qimra DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp")

if(TARGET qimra_cli)
  # The tool finds the library beside it, wherever the tree is installed.
  file(RELATIVE_PATH _qimra_bin_to_lib "/${CMAKE_INSTALL_BINDIR}" "/${CMAKE_INSTALL_LIBDIR}")
  set_target_properties(qimra_cli PROPERTIES INSTALL_RPATH "$ORIGIN/${_qimra_bin_to_lib}")
  install(TARGETS qimra_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

set(_qimra_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/qimra)
install(EXPORT qimraTargets NAMESPACE qimra:: DESTINATION ${_qimra_cmake_dir})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/qimraConfig.cmake.in
  ${CMAKE_BINARY_DIR}/qimraConfig.cmake INSTALL_DESTINATION ${_qimra_cmake_dir})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/qimraConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/qimraConfig.cmake ${CMAKE_BINARY_DIR}/qimraConfigVersion.cmake
  DESTINATION ${_qimra_cmake_dir})

# The pkg-config file finds its prefix from its own place, so the tree
# can be installed anywhere (cmake --install --prefix DIR).
file(RELATIVE_PATH QIMRA_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" QIMRA_PC_TO_PREFIX "${QIMRA_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/qimra.pc.in ${CMAKE_BINARY_DIR}/qimra.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/qimra.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# A consumer built against the installed tree, both ways.
if(QIMRA_BUILD_TESTS AND NOT CMAKE_CROSSCOMPILING)
  add_test(NAME Package.ConsumersBuildAgainstTheInstalledTree
    COMMAND ${CMAKE_COMMAND}
      -DBUILD_DIR=${CMAKE_BINARY_DIR}
      -DWORK_DIR=${CMAKE_BINARY_DIR}/package-test
      -DCONSUMER_DIR=${CMAKE_CURRENT_LIST_DIR}/package-test
      -DCXX=${CMAKE_CXX_COMPILER}
      -DCC=${CMAKE_C_COMPILER}
      "-DCXX_FLAGS=${CMAKE_CXX_FLAGS}"
      "-DC_FLAGS=${CMAKE_C_FLAGS}"
      "-DLINK_FLAGS=${CMAKE_EXE_LINKER_FLAGS}"
      -DLIBDIR=${CMAKE_INSTALL_LIBDIR}
      -DWITH_TOOL=$<TARGET_EXISTS:qimra_cli>
      -P ${CMAKE_CURRENT_LIST_DIR}/package-test/run.cmake)
  set_tests_properties(Package.ConsumersBuildAgainstTheInstalledTree PROPERTIES TIMEOUT 300 RUN_SERIAL TRUE
    ENVIRONMENT "LSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/tests/lsan.supp:print_suppressions=0")
endif()
