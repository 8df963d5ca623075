# The third-party libraries the plug-in carries inside Kavrin.so, built here as position-independent
# static archives from Debian's source packages (see KavrinDebianSource.cmake), so that a
# workstation needs nothing but Maya:
#
#   KavrinCholmodStatic  CHOLMOD's Core and Cholesky modules with the AMD and COLAMD orderings and
#                        SuiteSparse_config: the simplicial factorisation only (no Supernodal
#                        module, so no BLAS or LAPACK; no Partition module, so no METIS). Its
#                        users see NGPL, NCHECK and NPARTITION, so cholmod.h declares only what
#                        is there and NSUPERNODAL is defined.
#   KavrinOpenMPStatic   -fopenmp for the compile, GCC's own OpenMP runtime (libgomp, from the
#                        source of the installed compiler) for the link.

include(KavrinDebianSource)
enable_language(C)

function(kavrin_static_cholmod)
  if(TARGET KavrinCholmodStatic)
    return()
  endif()
  kavrin_debian_source(_ss BINARY libcholmod3 PATHS
    SuiteSparse_config/SuiteSparse_config.c SuiteSparse_config/SuiteSparse_config.h
    AMD/Include AMD/Source COLAMD/Include COLAMD/Source
    CHOLMOD/Include CHOLMOD/Core CHOLMOD/Cholesky)
  file(GLOB _sources
    "${_ss}/SuiteSparse_config/SuiteSparse_config.c"
    "${_ss}/AMD/Source/amd_*.c"
    "${_ss}/COLAMD/Source/colamd.c"
    "${_ss}/CHOLMOD/Core/cholmod_*.c"
    "${_ss}/CHOLMOD/Cholesky/cholmod_*.c")
  add_library(KavrinCholmodStatic STATIC ${_sources})
  set_target_properties(KavrinCholmodStatic PROPERTIES POSITION_INDEPENDENT_CODE ON C_VISIBILITY_PRESET hidden)
  target_include_directories(KavrinCholmodStatic SYSTEM PUBLIC "${_ss}/CHOLMOD/Include" "${_ss}/SuiteSparse_config")
  target_include_directories(KavrinCholmodStatic PRIVATE "${_ss}/AMD/Include" "${_ss}/COLAMD/Include")
  target_compile_definitions(KavrinCholmodStatic PUBLIC NGPL NCHECK NPARTITION PRIVATE NDEBUG NPRINT)
  target_compile_options(KavrinCholmodStatic PRIVATE -w)  # upstream code, upstream's warnings
  target_link_libraries(KavrinCholmodStatic PUBLIC m)
  message(STATUS "Kavrin: CHOLMOD (simplicial) from suitesparse ${_ss_VERSION}, built static at ${_ss}")
endfunction()

function(kavrin_static_openmp)
  if(TARGET KavrinOpenMPStatic)
    return()
  endif()
  kavrin_debian_source(_gcc BINARY libgomp1 NESTED "gcc-*.tar.xz" PATHS
    libgomp include config.guess config.sub install-sh ltmain.sh missing config-ml.in depcomp compile)
  include(ExternalProject)
  set(_build "${CMAKE_CURRENT_BINARY_DIR}/libgomp")
  if(CMAKE_GENERATOR MATCHES "Makefiles")
    set(_make "$(MAKE)")  # share the outer make's job slots
  else()
    set(_make make)
  endif()
  ExternalProject_Add(kavrin_libgomp_build
    SOURCE_DIR "${_gcc}/libgomp"
    BINARY_DIR "${_build}"
    CONFIGURE_COMMAND "${_gcc}/libgomp/configure" --disable-multilib --enable-static --disable-shared
      --with-pic --disable-werror "CC=${CMAKE_C_COMPILER}" "CFLAGS=-O2"
    BUILD_COMMAND ${_make} libgomp.la
    INSTALL_COMMAND ""
    BUILD_BYPRODUCTS "${_build}/.libs/libgomp.a"
    LOG_CONFIGURE ON LOG_BUILD ON LOG_OUTPUT_ON_FAILURE ON)
  add_library(kavrin_libgomp STATIC IMPORTED GLOBAL)
  set_target_properties(kavrin_libgomp PROPERTIES IMPORTED_LOCATION "${_build}/.libs/libgomp.a")
  add_dependencies(kavrin_libgomp kavrin_libgomp_build)
  add_library(KavrinOpenMPStatic INTERFACE)
  target_compile_options(KavrinOpenMPStatic INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-fopenmp>)
  target_link_libraries(KavrinOpenMPStatic INTERFACE kavrin_libgomp)
  message(STATUS "Kavrin: OpenMP runtime from gcc ${_gcc_VERSION}, built static at ${_build}")
endfunction()
