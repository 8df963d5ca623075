# Sources of third-party libraries that the plug-in links statically, taken from Debian's source
# packages: the same release as the binary package installed here, downloaded once through
# tools/debian-apt.sh (a private apt configuration derived from the machine's own apt sources) and
# kept, with the parts unpacked, under KAVRIN_DEPENDENCY_CACHE so that every build tree and
# every later build reuses them.
#
#   kavrin_debian_source(<var> BINARY <installed binary package> [NESTED <tarball glob>]
#                        PATHS <pattern>...)
#
# Sets <var> to the unpacked upstream folder holding the files that match the PATHS patterns
# (paths below the upstream top folder, wildcards allowed). NESTED names a tarball inside the
# upstream tarball that holds the real sources (GCC's). Fails the configuration with the reason
# when the package cannot be had.

if(DEFINED ENV{XDG_CACHE_HOME} AND NOT "$ENV{XDG_CACHE_HOME}" STREQUAL "")
  set(_kavrin_cache_default "$ENV{XDG_CACHE_HOME}/kavrin")
else()
  set(_kavrin_cache_default "$ENV{HOME}/.cache/kavrin")
endif()
set(KAVRIN_DEPENDENCY_CACHE "${_kavrin_cache_default}" CACHE PATH
  "Where the Debian source packages linked into the plug-in are downloaded and unpacked, shared by all build trees")

function(kavrin_debian_source var)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "BINARY;NESTED" "PATHS")
  execute_process(COMMAND dpkg-query -W "-f=\${source:Package} \${source:Version}" ${arg_BINARY}
    OUTPUT_VARIABLE _query RESULT_VARIABLE _rc ERROR_QUIET)
  if(NOT _rc EQUAL 0 OR NOT _query MATCHES "^([^ ]+) (.+)$")
    message(FATAL_ERROR "Kavrin: the Debian package ${arg_BINARY} is not installed; run tools/install-deps.sh")
  endif()
  set(_package "${CMAKE_MATCH_1}")
  set(_version "${CMAKE_MATCH_2}")
  string(REGEX REPLACE "^[0-9]+:" "" _plain_version "${_version}")
  set(_dir "${KAVRIN_DEPENDENCY_CACHE}/${_package}_${_plain_version}")
  set(_stamp "${_dir}/src/.unpacked")
  string(JOIN ";" _wanted ${arg_NESTED} ${arg_PATHS})

  file(MAKE_DIRECTORY "${KAVRIN_DEPENDENCY_CACHE}")
  file(LOCK "${KAVRIN_DEPENDENCY_CACHE}/${_package}.lock" GUARD FUNCTION TIMEOUT 3600)
  set(_have "")
  if(EXISTS "${_stamp}")
    file(READ "${_stamp}" _have)
  endif()
  if(NOT _have STREQUAL _wanted)
    file(GLOB _orig "${_dir}/downloads/*.orig.tar.*")
    if(NOT _orig)
      message(STATUS "Kavrin: downloading the Debian source package ${_package} ${_version} into ${_dir}")
      file(MAKE_DIRECTORY "${_dir}/downloads")
      execute_process(COMMAND bash "${PROJECT_SOURCE_DIR}/tools/debian-apt.sh" source "${_package}=${_version}" "${_dir}/downloads"
        RESULT_VARIABLE _rc)
      file(GLOB _orig "${_dir}/downloads/*.orig.tar.*")
      if(NOT _rc EQUAL 0 OR NOT _orig)
        message(FATAL_ERROR "Kavrin: could not download the Debian source package ${_package} ${_version}, "
          "which the plug-in links statically (see the message above)")
      endif()
    endif()
    file(REMOVE_RECURSE "${_dir}/src")
    set(_archive "${_orig}")
    if(arg_NESTED)
      file(ARCHIVE_EXTRACT INPUT "${_orig}" DESTINATION "${_dir}/nested" PATTERNS "*/${arg_NESTED}")
      file(GLOB_RECURSE _archive "${_dir}/nested/${arg_NESTED}")
    endif()
    set(_patterns)
    foreach(_path ${arg_PATHS})
      list(APPEND _patterns "*/${_path}")
    endforeach()
    message(STATUS "Kavrin: unpacking ${arg_PATHS} of ${_package} ${_version}")
    file(ARCHIVE_EXTRACT INPUT "${_archive}" DESTINATION "${_dir}/src" PATTERNS ${_patterns})
    file(REMOVE_RECURSE "${_dir}/nested")
    file(WRITE "${_stamp}" "${_wanted}")
  endif()
  file(GLOB _top LIST_DIRECTORIES true "${_dir}/src/*")
  list(FILTER _top EXCLUDE REGEX "/\\.unpacked$")
  list(LENGTH _top _count)
  if(NOT _count EQUAL 1)
    message(FATAL_ERROR "Kavrin: ${_dir}/src should hold one upstream folder; remove ${_dir} to unpack again")
  endif()
  set(${var} "${_top}" PARENT_SCOPE)
  set(${var}_VERSION "${_version}" PARENT_SCOPE)
endfunction()
