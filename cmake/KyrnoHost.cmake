# kyrno-host: opens the library as an interpreter would, from the folder that it lies in itself.
# Tests and benchmarks open it the same way: kyrno_host_core is the host without its main function.
# GnuTLS is there for the host's own sake: the demo makes its certificates with it.

file(GLOB host_sources CONFIGURE_DEPENDS host/*.cpp)
list(REMOVE_ITEM host_sources ${PROJECT_SOURCE_DIR}/host/main.cpp)
if(host_sources)
  find_package(nlohmann_json REQUIRED)
  find_package(CLI11 REQUIRED)
  add_library(kyrno_host_core OBJECT ${host_sources})
  target_link_libraries(kyrno_host_core PUBLIC
    kyrno_flags nlohmann_json::nlohmann_json CLI11::CLI11 Threads::Threads gnutls)

  add_executable(kyrno-host host/main.cpp)
  target_link_libraries(kyrno-host PRIVATE kyrno_host_core)
  kyrno_opens_library(kyrno-host)
endif()
