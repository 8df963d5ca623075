# Locates CHOLMOD from the distribution's SuiteSparse packages and exposes it as the imported
# target SuiteSparse::Cholmod.
find_path(SUITESPARSE_INCLUDE_DIR cholmod.h PATH_SUFFIXES suitesparse)
find_library(CHOLMOD_LIBRARY cholmod)
find_library(SUITESPARSECONFIG_LIBRARY suitesparseconfig)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(SuiteSparseKavrin
  REQUIRED_VARS SUITESPARSE_INCLUDE_DIR CHOLMOD_LIBRARY SUITESPARSECONFIG_LIBRARY)

if(SuiteSparseKavrin_FOUND AND NOT TARGET SuiteSparse::Cholmod)
  add_library(SuiteSparse::Cholmod INTERFACE IMPORTED)
  set_target_properties(SuiteSparse::Cholmod PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${SUITESPARSE_INCLUDE_DIR}"
    INTERFACE_LINK_LIBRARIES "${CHOLMOD_LIBRARY};${SUITESPARSECONFIG_LIBRARY}")
endif()
mark_as_advanced(SUITESPARSE_INCLUDE_DIR CHOLMOD_LIBRARY SUITESPARSECONFIG_LIBRARY)
