# Keeps the shared state with its owners: each writer accessor named in the "Who writes the shared
# state" table of ARCHITECTURE.md may be called only from files of the folder its row names. Everyone
# else reads the state through its const accessor.
#   cmake -DSOURCE_DIR=<tree holding src/> [-DARCHITECTURE=<file>] -P CheckStateOwners.cmake
include(${CMAKE_CURRENT_LIST_DIR}/ArchitectureTable.cmake)

# The table: "| `State` | `folder/` | `WriteAccessor()` |" rows.
architecture_table_rows("Who writes the shared state" rows)
set(writers "")
foreach(line IN LISTS rows)
  if(line MATCHES "^\\| `[A-Za-z_]+` \\| `([a-z_]+)/` \\| `([A-Za-z_]+)\\(\\)` \\|")
    list(APPEND writers ${CMAKE_MATCH_2})
    set(owner_${CMAKE_MATCH_2} ${CMAKE_MATCH_1})
  endif()
endforeach()

file(GLOB_RECURSE files RELATIVE ${SOURCE_DIR}/src ${SOURCE_DIR}/src/*.h ${SOURCE_DIR}/src/*.cpp)
list(SORT files)
set(problems "")
foreach(f IN LISTS files)
  string(REGEX MATCH "^[^/]+" folder "${f}")
  file(STRINGS ${SOURCE_DIR}/src/${f} lines)
  foreach(writer IN LISTS writers)
    if(folder STREQUAL owner_${writer})
      continue()
    endif()
    foreach(line IN LISTS lines)
      # The accessor's own declaration (in the state's header) is not a call.
      if(line MATCHES "[^A-Za-z_]${writer}\\(\\)" AND NOT line MATCHES "& ${writer}\\(\\) \\{")
        list(APPEND problems "src/${f} calls ${writer}(): only ${owner_${writer}}/ writes that state")
        break()
      endif()
    endforeach()
  endforeach()
endforeach()
list(LENGTH files count)
if(problems)
  string(REPLACE ";" "\n" text "${problems}")
  message(NOTICE "Writes of shared state outside its owner in ${SOURCE_DIR}:\n${text}")
  list(LENGTH problems n)
  message(FATAL_ERROR "${n} problems")
endif()
message(STATUS "The shared state of ${count} files is written by its owners only")
