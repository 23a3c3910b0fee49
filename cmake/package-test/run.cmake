# Installs the build tree into a scratch prefix, then builds and runs the
# consumers against it: through find_package(qimra) and through pkg-config.
cmake_minimum_required(VERSION 3.21)

function(step what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}\n${err}")
  endif()
  message(STATUS "${what}: ok")
  set(STEP_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
step("install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(f include/qimra/qimra.h include/qimra/qimra.hpp ${LIBDIR}/libqimra.so ${LIBDIR}/libqimra.a
          ${LIBDIR}/pkgconfig/qimra.pc ${LIBDIR}/cmake/qimra/qimraConfig.cmake)
  if(NOT EXISTS ${prefix}/${f})
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()

# The CMake package.
step("configure against find_package(qimra)" ${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/cmake-build
  -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_C_COMPILER=${CC}
  "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}" "-DCMAKE_C_FLAGS=${C_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${LINK_FLAGS}")
step("build with the CMake package" ${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
step("run the C++ consumer (CMake)" ${WORK_DIR}/cmake-build/consumer_cpp)
step("run the C consumer (CMake)" ${WORK_DIR}/cmake-build/consumer_c)

# pkg-config.
set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
step("pkg-config" pkg-config --cflags --libs qimra)
string(STRIP "${STEP_OUTPUT}" pc_flags)
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
separate_arguments(cxx_flags UNIX_COMMAND "${CXX_FLAGS} ${LINK_FLAGS}")
separate_arguments(c_flags UNIX_COMMAND "${C_FLAGS} ${LINK_FLAGS}")
step("build the C++ consumer with pkg-config" ${CXX} -std=c++20 ${cxx_flags} ${CONSUMER_DIR}/consumer.cpp ${pc_flags}
  -o ${WORK_DIR}/consumer_cpp_pc)
step("build the C consumer with pkg-config" ${CC} ${c_flags} ${CONSUMER_DIR}/consumer.c ${pc_flags}
  -o ${WORK_DIR}/consumer_c_pc)
set(ENV{LD_LIBRARY_PATH} ${prefix}/${LIBDIR})
step("run the C++ consumer (pkg-config)" ${WORK_DIR}/consumer_cpp_pc)
step("run the C consumer (pkg-config)" ${WORK_DIR}/consumer_c_pc)
unset(ENV{LD_LIBRARY_PATH})

# The installed tool finds its library on its own.
if(WITH_TOOL)
  step("run the installed tool" ${prefix}/bin/qimra --help)
endif()
