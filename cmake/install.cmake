# Installation: the library, the headers in include/memm/, a CMake package
# (memmConfig.cmake, memmConfigVersion.cmake, memmTargets.cmake) and memm.pc.
include(CMakePackageConfigHelpers)

set(MEMM_INSTALL_LIBDIR ${CMAKE_INSTALL_LIBDIR})
set(MEMM_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/memm)

install(TARGETS memm EXPORT memmTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES
  ${PROJECT_SOURCE_DIR}/include/memm.h
  ${PROJECT_SOURCE_DIR}/include/memm.hpp
  ${PROJECT_SOURCE_DIR}/include/dynstr.h
  ${PROJECT_SOURCE_DIR}/include/llist.h
  ${PROJECT_SOURCE_DIR}/include/strlist.h
  ${PROJECT_BINARY_DIR}/include/memm_version.h
  DESTINATION ${MEMM_INSTALL_INCLUDEDIR})

install(EXPORT memmTargets NAMESPACE memm:: DESTINATION ${MEMM_INSTALL_CMAKEDIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/memmConfig.cmake.in
  ${PROJECT_BINARY_DIR}/memmConfig.cmake
  INSTALL_DESTINATION ${MEMM_INSTALL_CMAKEDIR})
# The SONAME carries only the major version, so any 0.y >= the requested one
# serves a program built against 0.2.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/memmConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/memmConfig.cmake
  ${PROJECT_BINARY_DIR}/memmConfigVersion.cmake
  DESTINATION ${MEMM_INSTALL_CMAKEDIR})

# memm.pc names the prefix the files are installed into, which is only known
# at install time ("cmake --install build --prefix /opt/memm"): the build
# fills in everything else and leaves @MEMM_PC_PREFIX@ for the install step.
# DESTDIR staging keeps the prefix, as it should.
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${MEMM_INSTALL_${dir}}")
    set(MEMM_PC_${dir} "${MEMM_INSTALL_${dir}}")
  else()
    set(MEMM_PC_${dir} "\${prefix}/${MEMM_INSTALL_${dir}}")
  endif()
endforeach()
set(MEMM_PC_PREFIX "@MEMM_PC_PREFIX@")
configure_file(${PROJECT_SOURCE_DIR}/cmake/memm.pc.in ${PROJECT_BINARY_DIR}/memm.pc.in @ONLY)
install(CODE "
  set(MEMM_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  configure_file(\"${PROJECT_BINARY_DIR}/memm.pc.in\" \"${PROJECT_BINARY_DIR}/memm.pc\" @ONLY)
")
install(FILES ${PROJECT_BINARY_DIR}/memm.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
