# The test programs, one per layer, and what CTest knows of them. The label is the layer's name:
# unit, host, end2end, interop, browser or stress.

find_package(GTest REQUIRED)
include(GoogleTest)

# Tests see a home of their own: no configuration file of the user's reaches them.
set(test_home ${PROJECT_BINARY_DIR}/home)
file(MAKE_DIRECTORY ${test_home})
set(test_environment
  HOME=${test_home}
  KYRNO_LIBRARY=${PROJECT_BINARY_DIR}/kyrno32_64.so
  ${KYRNO_SANITIZER_ENVIRONMENT})
if(KYRNO_SANITIZE)
  # Sanitizers look for rare interleavings: a minute for the two stress tests.
  list(APPEND test_environment KYRNO_STRESS_SECONDS=30)
endif()

# CTest reads this file when it runs: gtest_discover_tests itself cannot pass on a list.
set(test_properties ${PROJECT_BINARY_DIR}/test_properties.cmake)
file(WRITE ${test_properties} "")

# kyrno_tests(<layer> <timeout in seconds> <sources>...): the program kyrno_<layer>_tests.
function(kyrno_tests layer timeout)
  set(program kyrno_${layer}_tests)
  set(serial FALSE)
  if(layer STREQUAL "stress")
    set(serial TRUE)  # it wants all processors, and would starve the others of time
  endif()

  add_executable(${program} ${ARGN})
  target_link_libraries(${program} PRIVATE GTest::gtest_main Threads::Threads)
  kyrno_opens_library(${program})
  gtest_discover_tests(${program}
    NO_PRETTY_VALUES
    DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT 60
    TEST_LIST ${layer}_test_names
    PROPERTIES LABELS ${layer} TIMEOUT ${timeout} RUN_SERIAL ${serial})
  file(APPEND ${test_properties}
    "set_tests_properties(\${${layer}_test_names} PROPERTIES ENVIRONMENT \"${test_environment}\")\n")
endfunction()

# Unit tests reach names that the library does not export: they are linked with its objects.
file(GLOB_RECURSE unit_tests CONFIGURE_DEPENDS
  tests/sys/*_test.cpp tests/util/*_test.cpp tests/decimal/*_test.cpp tests/kyrno/*_test.cpp
  tests/Apl/*_test.cpp)
if(unit_tests)
  kyrno_tests(unit 60 ${unit_tests})
  target_link_libraries(kyrno_unit_tests PRIVATE kyrno_no_rtti kyrno_core)
endif()

# Decimal numbers against another arithmetic, which no sanitizer has to look at.
if(TARGET kyrno_core AND NOT KYRNO_SANITIZE)
  add_executable(kyrno_decimal_values tests/decimal/values.cpp)
  target_link_libraries(kyrno_decimal_values PRIVATE kyrno_no_rtti kyrno_core)
  add_test(NAME Decimal128.ConvertsAsPythonDoes
    COMMAND python3 ${PROJECT_SOURCE_DIR}/tests/decimal/compare.py
      $<TARGET_FILE:kyrno_decimal_values>)
  set_tests_properties(Decimal128.ConvertsAsPythonDoes PROPERTIES LABELS unit TIMEOUT 300)
endif()

file(GLOB host_tests CONFIGURE_DEPENDS tests/host/*_test.cpp)
if(host_tests)
  kyrno_tests(host 60 ${host_tests})
  target_link_libraries(kyrno_host_tests PRIVATE kyrno_host_core)
endif()

# The other layers open the library as an interpreter does and share no code with it.
file(GLOB support_sources CONFIGURE_DEPENDS tests/support/*.cpp)
foreach(layer IN ITEMS end2end interop browser stress)
  file(GLOB_RECURSE layer_tests CONFIGURE_DEPENDS tests/${layer}/*_test.cpp)
  if(layer_tests)
    kyrno_tests(${layer} 300 ${layer_tests} ${support_sources})
    target_link_libraries(kyrno_${layer}_tests PRIVATE kyrno_host_core)
    add_dependencies(kyrno_${layer}_tests kyrno-host)
    # Scripts and documents that they go by stay where they are.
    target_compile_definitions(kyrno_${layer}_tests
      PRIVATE KYRNO_SOURCES="${PROJECT_SOURCE_DIR}")
  endif()
endforeach()

# Behind the lists of tests, whose names it uses.
set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${test_properties})

# What a finished library exports and needs; a sanitizer adds names of its own.
if(TARGET kyrno32_64 AND NOT KYRNO_SANITIZE AND NOT KYRNO_COVERAGE)
  add_test(NAME Exports COMMAND ${PROJECT_SOURCE_DIR}/scripts/check_exports.sh ${PROJECT_BINARY_DIR})
  set_tests_properties(Exports PROPERTIES LABELS unit)
endif()
