# kyrno-bench, and the native peers that it is measured against, each bench/peers/<name>.cpp a
# program peers/<name> in the build directory. The target bench builds all of them; the peers are
# outside the default build, because only they need the packages of other messaging libraries.

add_custom_target(bench)

file(GLOB bench_sources CONFIGURE_DEPENDS bench/*.cpp)
if(bench_sources)
  add_executable(kyrno-bench ${bench_sources})
  target_link_libraries(kyrno-bench PRIVATE kyrno_host_core)
  kyrno_opens_library(kyrno-bench)
  add_dependencies(bench kyrno-bench)
endif()

file(GLOB peer_sources CONFIGURE_DEPENDS bench/peers/*.cpp)
foreach(source IN LISTS peer_sources)
  cmake_path(GET source STEM name)
  add_executable(peer-${name} EXCLUDE_FROM_ALL ${source})
  target_link_libraries(peer-${name} PRIVATE
    kyrno_flags nlohmann_json::nlohmann_json Threads::Threads)
  if(name MATCHES "_zmq$")
    target_link_libraries(peer-${name} PRIVATE zmq)
  elseif(name MATCHES "_lws$")
    target_link_libraries(peer-${name} PRIVATE websockets)
  elseif(name MATCHES "_nng$")
    target_link_libraries(peer-${name} PRIVATE nng)
  elseif(name MATCHES "_gnutls$")
    target_link_libraries(peer-${name} PRIVATE gnutls)
  elseif(name MATCHES "_openssl$")
    target_link_libraries(peer-${name} PRIVATE ssl crypto)
  endif()
  set_target_properties(peer-${name} PROPERTIES
    OUTPUT_NAME ${name} RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/peers)
  add_dependencies(bench peer-${name})
endforeach()

# Scripts for other programs lie beside the peers.
foreach(script node.js wrk.lua)
  configure_file(${PROJECT_SOURCE_DIR}/bench/peers/${script}
    ${PROJECT_BINARY_DIR}/peers/${script} COPYONLY)
endforeach()
