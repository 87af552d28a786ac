# One libFuzzer program per fuzz/<name>_fuzz.cpp, with its seeds in fuzz/corpus/<name>/.
#
# libFuzzer writes what it finds to the first folder it is given and only reads the others: the
# seeds stay as they are in the repository.

set(KYRNO_FUZZ_SECONDS 10 CACHE STRING "Time that CTest gives each fuzz target")
set(findings ${PROJECT_BINARY_DIR}/findings)
file(MAKE_DIRECTORY ${findings})

file(GLOB fuzz_sources CONFIGURE_DEPENDS fuzz/*_fuzz.cpp)
foreach(source IN LISTS fuzz_sources)
  cmake_path(GET source STEM program)
  string(REGEX REPLACE "_fuzz$" "" name ${program})
  set(grown ${PROJECT_BINARY_DIR}/corpus/${name})
  set(seeds ${PROJECT_SOURCE_DIR}/fuzz/corpus/${name})
  file(MAKE_DIRECTORY ${grown})
  if(NOT EXISTS ${seeds})
    set(seeds "")
  endif()

  add_executable(${program} ${source})
  target_link_libraries(${program} PRIVATE kyrno_no_rtti kyrno_core)
  target_link_options(${program} PRIVATE -fsanitize=fuzzer)
  kyrno_opens_library(${program})

  add_test(NAME Fuzz.${name} COMMAND ${program}
    -max_total_time=${KYRNO_FUZZ_SECONDS} -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
    -artifact_prefix=${findings}/${name}- ${grown} ${seeds})
  set_tests_properties(Fuzz.${name} PROPERTIES LABELS fuzz
    ENVIRONMENT "HOME=${findings};${KYRNO_SANITIZER_ENVIRONMENT}")
endforeach()
