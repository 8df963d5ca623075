# Finds a Maya devkit on Linux: the headers and the libraries a plug-in links against.
#
# Looks under MAYA_DEVKIT_LOCATION and MAYA_LOCATION (CMake variables first, then the
# environment): headers in include/ or devkit/include/, libraries in lib/ or devkit/lib/.
# Call as find_package(Maya 2018) to require Maya 2018 or later.
#
# Sets Maya_FOUND, Maya_VERSION (the release year, such as 2018), MAYA_API_VERSION (as in
# maya/MTypes.h), MAYA_INCLUDE_DIR (the folder holding maya/*.h), MAYA_LIBRARIES, and the
# imported target Maya::Maya carrying the headers (as system headers), the libraries OpenMaya,
# OpenMayaAnim, OpenMayaUI, OpenMayaRender, OpenMayaFX and Foundation, and the devkit's Linux
# definitions.

set(_maya_roots)
foreach(_var MAYA_DEVKIT_LOCATION MAYA_LOCATION)
  if(${_var})
    list(APPEND _maya_roots "${${_var}}")
  elseif(DEFINED ENV{${_var}})
    list(APPEND _maya_roots "$ENV{${_var}}")
  endif()
endforeach()

find_path(MAYA_INCLUDE_DIR maya/MFn.h
  HINTS ${_maya_roots}
  PATH_SUFFIXES include devkit/include
  NO_DEFAULT_PATH)

set(_maya_library_vars)
foreach(_lib OpenMaya OpenMayaAnim OpenMayaUI OpenMayaRender OpenMayaFX Foundation)
  find_library(MAYA_${_lib}_LIBRARY ${_lib}
    HINTS ${_maya_roots}
    PATH_SUFFIXES lib devkit/lib
    NO_DEFAULT_PATH)
  list(APPEND _maya_library_vars MAYA_${_lib}_LIBRARY)
  mark_as_advanced(MAYA_${_lib}_LIBRARY)
endforeach()

# The Maya release year and API version that the headers in <include_dir>/maya are for:
# MAYA_API_VERSION is YYYYMMPP.. since 2018 (20180000) and YYYYPP before (201602).
function(kavrin_maya_headers_version include_dir year_var api_var)
  unset(_year)
  unset(_api)
  if(EXISTS "${include_dir}/maya/MTypes.h")
    file(STRINGS "${include_dir}/maya/MTypes.h" _line REGEX "^#define[ \t]+MAYA_API_VERSION[ \t]+[0-9]+")
    string(REGEX MATCH "[0-9]+$" _api "${_line}")
    if(_api GREATER 9999999)
      math(EXPR _year "${_api} / 10000")
    elseif(_api)
      math(EXPR _year "${_api} / 100")
    endif()
  endif()
  set(${year_var} "${_year}" PARENT_SCOPE)
  set(${api_var} "${_api}" PARENT_SCOPE)
endfunction()

unset(Maya_VERSION)
unset(MAYA_API_VERSION)
if(MAYA_INCLUDE_DIR)
  kavrin_maya_headers_version("${MAYA_INCLUDE_DIR}" Maya_VERSION MAYA_API_VERSION)
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Maya
  REQUIRED_VARS MAYA_INCLUDE_DIR ${_maya_library_vars}
  VERSION_VAR Maya_VERSION)

if(Maya_FOUND)
  set(MAYA_LIBRARIES)
  foreach(_var ${_maya_library_vars})
    list(APPEND MAYA_LIBRARIES "${${_var}}")
  endforeach()
  if(NOT TARGET Maya::Maya)
    add_library(Maya::Maya INTERFACE IMPORTED)
    set_target_properties(Maya::Maya PROPERTIES
      INTERFACE_INCLUDE_DIRECTORIES "${MAYA_INCLUDE_DIR}"
      INTERFACE_COMPILE_DEFINITIONS "LINUX;LINUX_64;Bits64_;_BOOL;REQUIRE_IOSTREAM;FUNCPROTO;_GNU_SOURCE"
      INTERFACE_LINK_LIBRARIES "${MAYA_LIBRARIES}")
  endif()
endif()
mark_as_advanced(MAYA_INCLUDE_DIR)
