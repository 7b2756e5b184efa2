# Installs the build into a scratch prefix and uses it from outside: the
# files in place, a CMake project with find_package(qz) and qz::qz, a compile
# through pkg-config, and the installed qzrun and qzuai.
#
# cmake -DQZ_BUILD_DIR=... -DQZ_SOURCE_DIR=... -DQZ_WORK_DIR=... -DQZ_CXX=... -DQZ_LIBDIR=lib
#       -P check_install.cmake

set(prefix ${QZ_WORK_DIR}/prefix)
set(expected_output "version=10068 KXX=4 LAM=1 edges=4")

function(run)
  cmake_parse_arguments(R "" "OUTPUT" "COMMAND" ${ARGN})
  execute_process(COMMAND ${R_COMMAND} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    string(REPLACE ";" " " shown "${R_COMMAND}")
    message(FATAL_ERROR "failed (${rc}): ${shown}\n${out}\n${err}")
  endif()
  if(R_OUTPUT)
    string(STRIP "${out}" out)
    set(${R_OUTPUT} "${out}" PARENT_SCOPE)
  endif()
endfunction()

function(expect_output what actual)
  if(NOT actual STREQUAL expected_output)
    message(FATAL_ERROR "${what} printed '${actual}', expected '${expected_output}'")
  endif()
endfunction()

file(REMOVE_RECURSE ${QZ_WORK_DIR})
run(COMMAND ${CMAKE_COMMAND} --install ${QZ_BUILD_DIR} --prefix ${prefix})

set(libdir ${prefix}/${QZ_LIBDIR})
foreach(f include/vm_wrapper include/QZ/QZMISC include/QZ/QZIO bin/qzrun bin/qzuai
          ${QZ_LIBDIR}/libqz.so ${QZ_LIBDIR}/libqzhost.so
          ${QZ_LIBDIR}/cmake/qz/qzConfig.cmake ${QZ_LIBDIR}/cmake/qz/qzConfigVersion.cmake
          ${QZ_LIBDIR}/cmake/qz/qzTargets.cmake ${QZ_LIBDIR}/pkgconfig/qz.pc)
  if(NOT EXISTS ${prefix}/${f})
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()

# The CMake package.
run(COMMAND ${CMAKE_COMMAND} -S ${QZ_SOURCE_DIR}/tests/install/app -B ${QZ_WORK_DIR}/app
            -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_COMPILER=${QZ_CXX})
run(COMMAND ${CMAKE_COMMAND} --build ${QZ_WORK_DIR}/app)
run(COMMAND ${QZ_WORK_DIR}/app/app OUTPUT out)
expect_output("the program built with find_package(qz)" "${out}")

# pkg-config, with the installed qz.pc relocated to the scratch prefix.
find_program(PKG_CONFIG NAMES pkg-config pkgconf REQUIRED)
run(COMMAND ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${libdir}/pkgconfig
            ${PKG_CONFIG} --cflags --libs qz OUTPUT flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
run(COMMAND ${QZ_CXX} -std=c++17 ${QZ_SOURCE_DIR}/tests/install/app/main.cpp -o ${QZ_WORK_DIR}/app_pc ${flags})
run(COMMAND ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${libdir} ${QZ_WORK_DIR}/app_pc OUTPUT out)
expect_output("the program built with pkg-config" "${out}")

# The installed tools find the installed library by themselves.
run(COMMAND ${prefix}/bin/qzrun ${QZ_SOURCE_DIR}/examples/count.qz -p GP0 -p KXX OUTPUT out)
if(NOT out STREQUAL "GP0=5\nKXX=10")
  message(FATAL_ERROR "installed qzrun printed '${out}'")
endif()
run(COMMAND ${prefix}/bin/qzuai --help)
run(COMMAND readelf -d ${prefix}/bin/qzrun OUTPUT dyn)
if(NOT dyn MATCHES "\\$ORIGIN/\\.\\./${QZ_LIBDIR}" OR dyn MATCHES "${QZ_BUILD_DIR}")
  message(FATAL_ERROR "installed qzrun does not look for the library beside it:\n${dyn}")
endif()
