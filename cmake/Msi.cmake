# The Windows Installer package of tdacli.exe, built by wixl (msitools) from packaging/msi/tdacli.wxs.
#
# Included: tdacli_msi(TARGET name OUTPUT file EXE file REVISION n) adds a target that builds the
# package for the project's version and the given build revision (the program's version resource
# takes both from the same place).
# Run as a script (cmake -P Msi.cmake with -D WIXL, WXS, OUT, VERSION, PRODUCT_CODE, EXE, MARKER):
# runs wixl and fails on any warning it prints, so that an element wixl does not understand never
# slips silently out of the package.

if(CMAKE_SCRIPT_MODE_FILE)
  # wixl looks for every Source beside the .wxs and takes no absolute path: stage them together.
  set(stage ${OUT}.stage)
  file(REMOVE_RECURSE ${stage})
  file(MAKE_DIRECTORY ${stage})
  file(COPY ${WXS} DESTINATION ${stage})
  file(COPY_FILE ${EXE} ${stage}/tdacli.exe)
  file(COPY_FILE ${MARKER} ${stage}/thinterminal.dat)
  get_filename_component(wxs_name ${WXS} NAME)
  execute_process(
    COMMAND ${WIXL} -a x64 -D Version=${VERSION} -D ProductCode=${PRODUCT_CODE} -D ExeSource=tdacli.exe
            -D MarkerSource=thinterminal.dat -o ${OUT}.tmp ${wxs_name}
    WORKING_DIRECTORY ${stage}
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  file(REMOVE_RECURSE ${stage})
  if(NOT rc EQUAL 0 OR NOT "${out}${err}" STREQUAL "")
    file(REMOVE ${OUT}.tmp)
    message(FATAL_ERROR "wixl failed (exit ${rc}); its warnings count as errors:\n${out}${err}")
  endif()
  file(RENAME ${OUT}.tmp ${OUT})
  return()
endif()

# Any fixed UUID: the namespace of the product codes derived from the version.
set(TDACLI_MSI_CODE_NAMESPACE 5B5FB088-7452-41AA-A947-FB5B93A45F95)

function(tdacli_msi)
  cmake_parse_arguments(MSI "" "TARGET;OUTPUT;EXE;REVISION;EXE_TARGET" "" ${ARGN})
  find_program(TDACLI_WIXL wixl REQUIRED)
  math(EXPR build "${PROJECT_VERSION_PATCH} * 1000 + ${MSI_REVISION}")
  set(version ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}.${build})
  string(UUID product_code NAMESPACE ${TDACLI_MSI_CODE_NAMESPACE} NAME "tdacli-msi-${version}" TYPE SHA1 UPPER)
  set(marker ${CMAKE_BINARY_DIR}/msi/thinterminal.dat)
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/msi)
  if(NOT EXISTS ${marker})
    file(WRITE ${marker} "")
  endif()
  set(wxs ${CMAKE_SOURCE_DIR}/packaging/msi/tdacli.wxs)
  add_custom_command(
    OUTPUT ${MSI_OUTPUT}
    COMMAND ${CMAKE_COMMAND} -D WIXL=${TDACLI_WIXL} -D WXS=${wxs} -D OUT=${MSI_OUTPUT} -D VERSION=${version}
            -D PRODUCT_CODE=${product_code} -D EXE=${MSI_EXE} -D MARKER=${marker}
            -P ${CMAKE_SOURCE_DIR}/cmake/Msi.cmake
    DEPENDS ${wxs} ${CMAKE_SOURCE_DIR}/cmake/Msi.cmake ${MSI_EXE_TARGET}
    COMMENT "Building the Windows Installer package ${MSI_OUTPUT} (version ${version})"
    VERBATIM)
  add_custom_target(${MSI_TARGET} ALL DEPENDS ${MSI_OUTPUT})
  set(${MSI_TARGET}_VERSION ${version} PARENT_SCOPE)
  set(${MSI_TARGET}_PRODUCT_CODE ${product_code} PARENT_SCOPE)
endfunction()
