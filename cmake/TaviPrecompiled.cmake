# Headers that most files read, compiled once for all targets. That is only for speed: every file includes what it uses,
# and TAVI_PCH=OFF builds without.
option(TAVI_PCH "Precompile the headers of the C++ library and of dependencies" ON)

set(taviCommonHeaders <algorithm> <array> <atomic> <chrono> <condition_variable> <cstdint> <deque> <filesystem> <fstream>
  <functional> <iostream> <map> <memory> <mutex> <optional> <sstream> <string> <string_view> <thread> <utility> <variant>
  <vector> <fmt/format.h>)

# A set of headers: tavi_precompiled_headers(<name> HEADERS ... LIBRARIES ...), with the common ones first.
function(tavi_precompiled_headers name)
  if(NOT TAVI_PCH)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "HEADERS;LIBRARIES" ${ARGN})
  set(source ${CMAKE_CURRENT_BINARY_DIR}/${name}.cpp)
  if(NOT EXISTS ${source})
    file(WRITE ${source} "// The compiler wants a file to precompile headers for.\n")
  endif()
  add_library(${name} OBJECT ${source})
  target_link_libraries(${name} PRIVATE TaviBuild fmt::fmt ${ARG_LIBRARIES})
  # As ccache must have it to look into them.
  target_compile_options(${name} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-fpch-preprocess>)
  target_precompile_headers(${name} PRIVATE ${taviCommonHeaders} ${ARG_HEADERS})
endfunction()

# Gives that set to targets.
function(tavi_use_precompiled name)
  if(NOT TAVI_PCH)
    return()
  endif()
  foreach(target ${ARGN})
    target_precompile_headers(${target} REUSE_FROM ${name})
  endforeach()
endfunction()

# The compiler takes them only where nothing is defined otherwise: what fmt and pthread define, all targets do.
target_compile_definitions(TaviBuild INTERFACE $<TARGET_PROPERTY:fmt::fmt,INTERFACE_COMPILE_DEFINITIONS>)
target_compile_options(TaviBuild INTERFACE -pthread)

tavi_precompiled_headers(CommonHeaders)
tavi_precompiled_headers(MediaHeaders HEADERS <gst/gst.h> LIBRARIES PkgConfig::GStreamer)
tavi_precompiled_headers(JsonHeaders HEADERS <nlohmann/json.hpp> LIBRARIES nlohmann_json::nlohmann_json)

# Files that read a command line, once a start: CLI11 is most of what they are, and optimising it would be the longest
# single thing in the build.
function(tavi_command_line)
  set_source_files_properties(${ARGN} PROPERTIES SKIP_PRECOMPILE_HEADERS ON
    COMPILE_OPTIONS $<$<CONFIG:Release>:-O0>)
endfunction()

# Targets that read and write text a few times an event: the optimiser's last steps would take a fifth of their build.
function(tavi_seldom_run)
  foreach(target ${ARGN})
    target_compile_options(${target} PRIVATE $<$<CONFIG:Release>:-O1>)
  endforeach()
endfunction()

# Several files of a target in one go: a build from nothing takes half the processor time, one after a change takes more. For who
# builds once: a fresh machine, a package, the tests' run. Names in unnamed namespaces of one target must differ then, or their files
# are compiled apart.
option(TAVI_UNITY "Compile several files of a target at once" OFF)
set(CMAKE_UNITY_BUILD ${TAVI_UNITY})
set(CMAKE_UNITY_BUILD_BATCH_SIZE 8)
if(TAVI_UNITY AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
  # It takes a class with a member of an unnamed namespace for one of a header, as it comes by an include.
  target_compile_options(TaviBuild INTERFACE -Wno-subobject-linkage)
endif()

function(tavi_compile_apart)
  set_source_files_properties(${ARGN} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
endfunction()
