# Kavrin.mod as successive installs leave it: one entry per Maya version, a reinstall replacing its
# own entry in place, everything else in the file kept. Run with -DWORK_DIR=<scratch folder>.
include("${CMAKE_CURRENT_LIST_DIR}/../../cmake/KavrinModFile.cmake")
set(mod "${WORK_DIR}/Kavrin.mod")
file(REMOVE_RECURSE "${WORK_DIR}")

function(entry year version)
  set(entry "+ MAYAVERSION:${year} PLATFORM:linux Kavrin ${version} ./Kavrin/maya${year}\nscripts: ../scripts\nicons: ../icons\n" PARENT_SCOPE)
endfunction()
function(expect_file expected step)
  file(READ "${mod}" actual)
  if(NOT actual STREQUAL expected)
    message(FATAL_ERROR "${step}:\n--- expected\n${expected}--- found\n${actual}---")
  endif()
endfunction()

entry(2018 1.0)
set(e2018 "${entry}")
entry(2022 1.0)
set(e2022 "${entry}")
entry(2018 1.1)
set(e2018new "${entry}")

kavrin_write_mod_entry("${mod}" 2018 1.0)
expect_file("${e2018}" "first install")
kavrin_write_mod_entry("${mod}" 2022 1.0)
expect_file("${e2018}${e2022}" "second Maya version")
kavrin_write_mod_entry("${mod}" 2018 1.1)
expect_file("${e2018new}${e2022}" "reinstall of the first version")

# A studio's own lines, another platform's entry and blank lines stay as they are.
set(foreign "# studio: keep\n\n+ MAYAVERSION:2022 PLATFORM:win64 Kavrin 1.0 ./win\nPATH+:=bin;lib\n")
file(WRITE "${mod}" "${foreign}${e2022}")
kavrin_write_mod_entry("${mod}" 2022 1.1)
entry(2022 1.1)
expect_file("${foreign}${entry}" "foreign lines")
