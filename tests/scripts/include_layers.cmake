# The folders of src/ stay layered as ARCHITECTURE.md's "Who may include whom" table says; the check
# is also run on a small tree that breaks both rules, so that it is known to catch them.
if(NOT WIN32)
  add_test(NAME IncludeLayers.Source
    COMMAND ${CMAKE_COMMAND} -DSOURCE_DIR=${CMAKE_SOURCE_DIR} -P ${CMAKE_SOURCE_DIR}/cmake/CheckIncludes.cmake)
  set_tests_properties(IncludeLayers.Source PROPERTIES PASS_REGULAR_EXPRESSION "Includes of [0-9]+ files follow the layers")

  add_test(NAME IncludeLayers.CatchesUpwardIncludesAndCycles
    COMMAND ${CMAKE_COMMAND} -DSOURCE_DIR=${CMAKE_CURRENT_SOURCE_DIR}/data/layers
      -P ${CMAKE_SOURCE_DIR}/cmake/CheckIncludes.cmake)
  set_tests_properties(IncludeLayers.CatchesUpwardIncludesAndCycles PROPERTIES
    PASS_REGULAR_EXPRESSION "Includes against the layers of [^\n]*:\nsrc/low/base.h includes high/top.h: low/ may not include high/\nsrc/mid/ring_a.h is on an include cycle\nsrc/mid/ring_b.h is on an include cycle\n")
endif()

# The shared state is written only by the rooms ARCHITECTURE.md's "Who writes the shared state" table
# names; the check is also run on a small tree that breaks the rule.
if(NOT WIN32)
  add_test(NAME StateOwners.Source
    COMMAND ${CMAKE_COMMAND} -DSOURCE_DIR=${CMAKE_SOURCE_DIR} -P ${CMAKE_SOURCE_DIR}/cmake/CheckStateOwners.cmake)
  set_tests_properties(StateOwners.Source PROPERTIES PASS_REGULAR_EXPRESSION "The shared state of [0-9]+ files is written by its owners only")

  add_test(NAME StateOwners.CatchesWritesOutsideTheOwner
    COMMAND ${CMAKE_COMMAND} -DSOURCE_DIR=${CMAKE_CURRENT_SOURCE_DIR}/data/owners
      -P ${CMAKE_SOURCE_DIR}/cmake/CheckStateOwners.cmake)
  set_tests_properties(StateOwners.CatchesWritesOutsideTheOwner PROPERTIES
    PASS_REGULAR_EXPRESSION "Writes of shared state outside its owner in [^\n]*:\nsrc/bad/intruder.cpp calls WriteThing\\(\\): only good/ writes that state\n")
endif()
