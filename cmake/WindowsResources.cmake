# Windows resources of tdacli.exe: VERSIONINFO, application manifest and the event-log message table.
# windmc compiles packaging/messages.mc; windres compiles packaging/tdacli.rc (which includes the
# generated messages.rc) into an object file that is linked into the executable. The resource compiler
# is driven directly so that the C++ warning options of the project never reach it.

function(tdacli_windows_resources out_var)
  set(pkg ${CMAKE_SOURCE_DIR}/packaging)
  set(gen ${CMAKE_BINARY_DIR}/resources)
  if(NOT CMAKE_MC_COMPILER)
    set(CMAKE_MC_COMPILER x86_64-w64-mingw32-windmc)
  endif()
  set(rc_compiler ${CMAKE_RC_COMPILER})
  if(NOT rc_compiler)
    set(rc_compiler x86_64-w64-mingw32-windres)
  endif()
  file(MAKE_DIRECTORY ${gen})

  add_custom_command(
    OUTPUT ${gen}/messages.rc ${gen}/messages.h ${gen}/MSG00409.bin
    COMMAND ${CMAKE_MC_COMPILER} -r ${gen} -h ${gen} ${pkg}/messages.mc
    DEPENDS ${pkg}/messages.mc
    COMMENT "Compiling the event-log message table"
    VERBATIM)

  add_custom_command(
    OUTPUT ${gen}/tdacli_res.o
    COMMAND ${rc_compiler} -O coff
            -DTDACLI_VERSION_MAJOR=${PROJECT_VERSION_MAJOR} -DTDACLI_VERSION_MINOR=${PROJECT_VERSION_MINOR}
            -DTDACLI_VERSION_PATCH=${PROJECT_VERSION_PATCH} -DTDACLI_REVISION=${TDACLI_REVISION}
            -I ${gen} -I ${pkg}
            -i ${pkg}/tdacli.rc -o ${gen}/tdacli_res.o
    WORKING_DIRECTORY ${gen}
    DEPENDS ${pkg}/tdacli.rc ${pkg}/tdacli.manifest ${gen}/messages.rc ${gen}/MSG00409.bin
    COMMENT "Compiling the Windows resources (revision ${TDACLI_REVISION})"
    VERBATIM)

  set_source_files_properties(${gen}/tdacli_res.o PROPERTIES EXTERNAL_OBJECT TRUE GENERATED TRUE)
  set(${out_var} ${gen}/tdacli_res.o PARENT_SCOPE)
endfunction()
