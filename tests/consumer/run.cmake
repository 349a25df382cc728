# Installs the build BUILD_DIR into a fresh prefix under WORK_DIR, then
# builds and runs the example programs as other projects would build them:
#   find_package(memm 0.2 REQUIRED) and memm::memm   (C++, examples/sessions.cc)
#   pkg-config --cflags --libs memm                   (C99, examples/pool_records.c,
#                                                      which includes every public header)
#   add_subdirectory() of the source tree            (C++, examples/sessions.cc)
# In a cross build they are built with the same toolchain file and run
# through the same emulator as the suite.
#
# Input (-D): BUILD_DIR, WORK_DIR, SOURCE_DIR (the library's sources),
# VERSION, LIBDIR (relative to the prefix), GENERATOR, MAKE_PROGRAM,
# C_COMPILER, CXX_COMPILER, BUILD_TYPE, PKG_CONFIG, and optionally
# TOOLCHAIN_FILE, EMULATOR ("|"-separated command), FLAGS (compile and link
# flags every program of the build needs, such as the sanitizers').
cmake_minimum_required(VERSION 3.15)

set(consumer_dir ${SOURCE_DIR}/tests/consumer)
set(prefix ${WORK_DIR}/prefix)
string(REPLACE "|" ";" emulator "${EMULATOR}")
separate_arguments(flags UNIX_COMMAND "${FLAGS}")
# Any report file a consumer program writes stays in the work folder.
set(ENV{MEMM_REPORT_DIR} ${WORK_DIR})

# run(STEP command...): runs the command, stops the test with its output if
# it fails, and leaves its output in `output`.
function(run step)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${step} failed (${rc}):\n${out}")
  endif()
  set(output "${out}" PARENT_SCOPE)
endfunction()

function(check_output step expected)
  if(NOT output MATCHES "${expected}")
    message(FATAL_ERROR "${step}: expected output matching '${expected}', got:\n${output}")
  endif()
  message(STATUS "${step}: ran")
endfunction()

if(NOT PKG_CONFIG)
  message(FATAL_ERROR "pkg-config was not found when the build was configured (Debian package pkg-config)")
endif()
if(TOOLCHAIN_FILE)
  get_filename_component(TOOLCHAIN_FILE ${TOOLCHAIN_FILE} ABSOLUTE BASE_DIR ${BUILD_DIR})
endif()

file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

# ---- Install ----
run("install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
string(REGEX MATCH "^[0-9]+" major "${VERSION}")
foreach(file
    ${LIBDIR}/libmemm.so.${VERSION} ${LIBDIR}/libmemm.so.${major} ${LIBDIR}/libmemm.so
    include/memm/memm.h include/memm/dynstr.h include/memm/llist.h include/memm/strlist.h
    include/memm/memm_version.h
    ${LIBDIR}/cmake/memm/memmConfig.cmake ${LIBDIR}/cmake/memm/memmConfigVersion.cmake
    ${LIBDIR}/pkgconfig/memm.pc)
  if(NOT EXISTS ${prefix}/${file})
    message(FATAL_ERROR "install: ${file} is missing")
  endif()
endforeach()
file(STRINGS ${prefix}/include/memm/memm_version.h version_line REGEX "define MEMM_VERSION_STRING")
if(NOT version_line MATCHES "\"${VERSION}\"")
  message(FATAL_ERROR "install: memm_version.h does not say ${VERSION}: ${version_line}")
endif()

set(configure_args -G ${GENERATOR} -DCMAKE_BUILD_TYPE=${BUILD_TYPE})
if(MAKE_PROGRAM)
  list(APPEND configure_args -DCMAKE_MAKE_PROGRAM=${MAKE_PROGRAM})
endif()
if(TOOLCHAIN_FILE)
  list(APPEND configure_args -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN_FILE})
else()
  list(APPEND configure_args -DCMAKE_C_COMPILER=${C_COMPILER} -DCMAKE_CXX_COMPILER=${CXX_COMPILER})
endif()
set(flag_args)
if(FLAGS)
  list(APPEND flag_args "-DCMAKE_C_FLAGS=${FLAGS}" "-DCMAKE_CXX_FLAGS=${FLAGS}"
    "-DCMAKE_EXE_LINKER_FLAGS=${FLAGS}" "-DCMAKE_SHARED_LINKER_FLAGS=${FLAGS}")
endif()

# ---- find_package ----
if(TOOLCHAIN_FILE)
  # A cross build searches packages only below its target root; name the
  # package folder itself.
  set(where -Dmemm_DIR=${prefix}/${LIBDIR}/cmake/memm)
else()
  set(where -DCMAKE_PREFIX_PATH=${prefix})
endif()
run("find_package consumer: configure" ${CMAKE_COMMAND} -S ${consumer_dir}/find_package
  -B ${WORK_DIR}/find_package ${configure_args} ${flag_args} ${where} -DMEMM_EXAMPLES_DIR=${SOURCE_DIR}/examples)
run("find_package consumer: build" ${CMAKE_COMMAND} --build ${WORK_DIR}/find_package)
run("find_package consumer: run" ${emulator} ${WORK_DIR}/find_package/consumer)
check_output("find_package consumer" "Total usage")

# ---- pkg-config ----
if(TOOLCHAIN_FILE)
  # Only the prefix: no .pc file of the build machine may answer.
  set(ENV{PKG_CONFIG_LIBDIR} ${prefix}/${LIBDIR}/pkgconfig)
else()
  set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
endif()
run("pkg-config --modversion" ${PKG_CONFIG} --modversion memm)
string(STRIP "${output}" pc_version)
if(NOT pc_version STREQUAL VERSION)
  message(FATAL_ERROR "pkg-config reports version ${pc_version}, the build is ${VERSION}")
endif()
run("pkg-config --static --libs" ${PKG_CONFIG} --static --libs memm)
if(NOT output MATCHES "-pthread")
  message(FATAL_ERROR "pkg-config --static --libs memm lacks -pthread: ${output}")
endif()
run("pkg-config --cflags --libs" ${PKG_CONFIG} --cflags --libs memm)
separate_arguments(pc_flags UNIX_COMMAND "${output}")
run("pkg-config --variable=libdir" ${PKG_CONFIG} --variable=libdir memm)
string(STRIP "${output}" pc_libdir)
run("pkg-config consumer: build" ${C_COMPILER} -std=c99 -Wall -Wextra -Wpedantic -Werror ${flags}
  ${SOURCE_DIR}/examples/pool_records.c -o ${WORK_DIR}/pkg_config_consumer
  ${pc_flags} -Wl,-rpath,${pc_libdir})
run("pkg-config consumer: run" ${emulator} ${WORK_DIR}/pkg_config_consumer)
check_output("pkg-config consumer" "sessions closed; [0-9]+ pools exist")

# ---- add_subdirectory ----
# A build of its own (FLAGS do not apply). GoogleTest and Google Benchmark are
# made unfindable: the library alone must not need them.
run("add_subdirectory consumer: configure" ${CMAKE_COMMAND} -S ${consumer_dir}/subdirectory
  -B ${WORK_DIR}/subdirectory ${configure_args} -DMEMM_SOURCE_DIR=${SOURCE_DIR}
  -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON)
run("add_subdirectory consumer: build" ${CMAKE_COMMAND} --build ${WORK_DIR}/subdirectory)
run("add_subdirectory consumer: run" ${emulator} ${WORK_DIR}/subdirectory/consumer)
check_output("add_subdirectory consumer" "Total usage")
