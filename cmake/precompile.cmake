# Every C++ target takes the headers of others that cost most from one precompiled header (MVPN_PRECOMPILE).
#
# Only the address sanitizer's build does: there, without optimisation, reading headers is half of what compiling costs. The
# optimised build does without, so that a missing include is found, and so that the compiler cache serves every clone: a
# precompiled header belongs to the folder that it was made in.
find_package(nlohmann_json REQUIRED)
set(source ${PROJECT_BINARY_DIR}/precompiled.cc)
file(CONFIGURE OUTPUT ${source} CONTENT "")
add_library(precompiled OBJECT ${source})
target_link_libraries(precompiled PRIVATE nlohmann_json::nlohmann_json project_flags)
target_precompile_headers(precompiled PRIVATE
  <algorithm> <array> <chrono> <condition_variable> <cstring> <deque> <filesystem> <fstream> <functional> <map> <memory>
  <mutex> <optional> <set> <span> <sstream> <stdexcept> <string> <string_view> <thread> <unordered_map> <utility> <variant>
  <vector>
  <nlohmann/json.hpp>)
if(BUILD_TESTING)
  find_package(GTest REQUIRED)
  target_link_libraries(precompiled PRIVATE GTest::gtest)
  target_precompile_headers(precompiled PRIVATE <gtest/gtest.h>)
endif()
# The compiler cache knows a precompiled header by its content, which must not have a time in it.
target_compile_options(precompiled PRIVATE $<$<CXX_COMPILER_ID:Clang>:SHELL:-Xclang -fno-pch-timestamp>)

# Left out: C, and what is compiled otherwise than the header: the module, which hides its names and includes little; the
# generated code, which no sanitizer looks at; the output, whose library of patterns has another model of threads (-pthread);
# what is optimised.
function(reuse_precompiled folder)
  get_property(targets DIRECTORY ${folder} PROPERTY BUILDSYSTEM_TARGETS)
  list(REMOVE_ITEM targets precompiled mvpn_objects forwarder_protocol host_output)
  foreach(target IN LISTS targets)
    get_target_property(type ${target} TYPE)
    get_target_property(sources ${target} SOURCES)
    get_target_property(optimised ${target} MVPN_RUNS_LONG)
    if(type MATCHES "(OBJECT|STATIC|SHARED)_LIBRARY|EXECUTABLE" AND sources MATCHES "\\.cc" AND NOT optimised)
      target_precompile_headers(${target} REUSE_FROM precompiled)
    endif()
  endforeach()
  get_property(folders DIRECTORY ${folder} PROPERTY SUBDIRECTORIES)
  foreach(below IN LISTS folders)
    reuse_precompiled(${below})
  endforeach()
endfunction()
reuse_precompiled(${PROJECT_SOURCE_DIR})
