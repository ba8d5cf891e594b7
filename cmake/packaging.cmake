# Packaging: pkg-config files, the reference documentation and a Debian
# package built by CPack (`cpack -G DEB` in the build folder).

# pkg-config. The files find the prefix from their own folder, so an install
# tree works wherever it is moved or unpacked.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  message(FATAL_ERROR "zelm's install tree is relocatable: CMAKE_INSTALL_LIBDIR must be relative")
endif()
file(RELATIVE_PATH ZELM_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
string(REGEX REPLACE "/$" "" ZELM_PC_TO_PREFIX "${ZELM_PC_TO_PREFIX}")
foreach(pc zelm zelcore)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${pc}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

# The reference documentation, as checked in.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR})

# Debian package: the runtime libraries and the development files in one
# package, `zelm`, depending on Debian's package of the OpenMP runtime that
# the libraries were linked against.
set(ZELM_OMP_PACKAGE "")
find_program(ZELM_DPKG_QUERY dpkg-query)
if(ZELM_DPKG_QUERY)
  file(REAL_PATH ${ZELM_LIBOMP} ZELM_LIBOMP_REAL)
  execute_process(COMMAND ${ZELM_DPKG_QUERY} -S ${ZELM_LIBOMP_REAL}
    OUTPUT_VARIABLE ZELM_OMP_OWNER ERROR_QUIET OUTPUT_STRIP_TRAILING_WHITESPACE)
  # "libomp5-14:amd64: /usr/lib/llvm-14/lib/libomp.so.5"
  if(ZELM_OMP_OWNER MATCHES "^([^:, ]+)")
    set(ZELM_OMP_PACKAGE ${CMAKE_MATCH_1})
  endif()
endif()
if(ZELM_OMP_PACKAGE STREQUAL "" OR ZELM_OMP_PACKAGE MATCHES "-dev$")
  set(ZELM_OMP_PACKAGE libomp5-14)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zelm)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "numerics on very many small dense matrices and vectors")
set(CPACK_PACKAGE_DESCRIPTION
  "zelm (libzelmw7) does element-wise arithmetic, products, norms, factorisations and solves, inversion, \
determinants, eigenproblems and 4x4 geometry on millions of small matrices and vectors in one call, \
in float and double, in three storage forms. The package holds the libraries libzelmw7 and libzelcore, \
the C header, the CMake package (find_package(zelm)), the pkg-config files and the reference.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "zelm developers <zelm@localhost>")
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
# dpkg-shlibdeps adds the OpenMP runtime's package with the C and C++
# runtimes; without it the package is named here.
find_program(ZELM_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(ZELM_DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
else()
  set(CPACK_DEBIAN_PACKAGE_DEPENDS ${ZELM_OMP_PACKAGE})
endif()
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
endif()
include(CPack)
