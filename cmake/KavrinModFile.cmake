# Kavrin.mod, the Maya module description: one entry per Maya version, each naming that version's
# own folder (Kavrin/maya<year>: plug-ins/) and the shared scripts/ and icons/ (the entry text is
# scripts/Kavrin.mod.in).
#
#   kavrin_write_mod_entry(<mod file> <maya year> <module version>)
#
# Adds the entry for <maya year> on Linux to <mod file>, or replaces the one already there in its
# place; every other line (other versions' entries, comments) is kept as it was. Used by the
# build tree's staging and by `cmake --install`, so that installing builds for several Maya
# versions into one folder gathers all of them in one file.

set(_kavrin_mod_template "${CMAKE_CURRENT_LIST_DIR}/../scripts/Kavrin.mod.in")

function(kavrin_write_mod_entry mod_file maya_year module_version)
  set(KAVRIN_MAYA_VERSION "${maya_year}")
  set(PROJECT_VERSION "${module_version}")
  file(READ "${_kavrin_mod_template}" _entry)
  string(CONFIGURE "${_entry}" _entry @ONLY)

  set(_lines)
  if(EXISTS "${mod_file}")
    file(READ "${mod_file}" _text)
    string(REGEX REPLACE "\n$" "" _text "${_text}")
    string(REPLACE ";" "\\;" _text "${_text}")
    string(REPLACE "\n" ";" _lines "${_text}")
  endif()
  # Copy the file line by line; the lines of this version's old entry (its "+" line and the lines
  # up to the next "+" line) give way to the new entry, at the old one's place.
  set(_out "")
  set(_skipping OFF)
  set(_placed OFF)
  foreach(_line IN LISTS _lines)
    if(_line MATCHES "^\\+ ")
      set(_skipping OFF)
      if(_line MATCHES "^\\+ .*MAYAVERSION:${maya_year} .*PLATFORM:linux Kavrin ")
        set(_skipping ON)
        if(NOT _placed)
          string(APPEND _out "${_entry}")
          set(_placed ON)
        endif()
      endif()
    endif()
    if(NOT _skipping)
      string(APPEND _out "${_line}\n")
    endif()
  endforeach()
  if(NOT _placed)
    string(APPEND _out "${_entry}")
  endif()
  get_filename_component(_dir "${mod_file}" DIRECTORY)
  file(MAKE_DIRECTORY "${_dir}")
  file(WRITE "${mod_file}" "${_out}")
  message(STATUS "Kavrin: Maya ${maya_year} entry written to ${mod_file}")
endfunction()
