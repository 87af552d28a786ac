# Compiler and linker flags: kyrno_flags for everything, kyrno_library_flags for library code.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release)
endif()

# Assertions stay on in every build: NDEBUG is never defined.
set(optimisation -O2)
if(KYRNO_SANITIZE)
  set(optimisation "-O1 -fno-omit-frame-pointer")
elseif(KYRNO_COVERAGE)
  set(optimisation "-O0")
endif()
foreach(language C CXX)
  set(CMAKE_${language}_FLAGS_RELEASE "${optimisation} -g1")
endforeach()

find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_C_COMPILER_LAUNCHER ${CCACHE})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()

add_library(kyrno_flags INTERFACE)
target_include_directories(kyrno_flags INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(kyrno_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -fvisibility=hidden
  $<$<BOOL:${KYRNO_WERROR}>:-Werror>)

if(KYRNO_COVERAGE)
  target_compile_options(kyrno_flags INTERFACE --coverage)
  target_link_options(kyrno_flags INTERFACE --coverage)
else()
  # Names in assertions and reports start at the repository's root, wherever that lies.
  target_compile_options(kyrno_flags INTERFACE -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)
endif()

if(KYRNO_SANITIZE)
  target_compile_options(kyrno_flags INTERFACE
    -fsanitize=${KYRNO_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(kyrno_flags INTERFACE -fsanitize=${KYRNO_SANITIZE})
endif()

# An allocation that is too large gives null here as it does elsewhere: the library tests for it.
# The leak check does not follow the thread-local storage of modules opened at run time: clang 14
# takes its places from a layout that the C library has given up, and reads there.
set(KYRNO_SANITIZER_ENVIRONMENT
  ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1:intercept_tls_get_addr=0
  UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
  TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:allocator_may_return_null=1)

if(KYRNO_FUZZ)
  target_compile_options(kyrno_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()

# Programs that share objects with the library and derive from its classes do without run-time type
# information too: the base classes have none to refer to.
add_library(kyrno_no_rtti INTERFACE)
target_link_libraries(kyrno_no_rtti INTERFACE kyrno_flags)
target_compile_options(kyrno_no_rtti INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-fno-rtti>)

add_library(kyrno_library_flags INTERFACE)
target_link_libraries(kyrno_library_flags INTERFACE kyrno_no_rtti)
target_compile_options(kyrno_library_flags INTERFACE
  -fno-exceptions
  $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
