# The headers of others that cost most, read once and not by every source (MVPN_PRECOMPILE).
#
# ALL, of the address sanitizer's build: without optimisation reading headers is half of what compiling costs.
# TESTS, of the release build: its tests are not optimised either. What is optimised does without, so that a missing include
# is found and a compilation depends on nothing that was made in its folder.
set(source ${CMAKE_CURRENT_BINARY_DIR}/precompiled.cc)
file(CONFIGURE OUTPUT ${source} CONTENT "int main() {}\n")
if(MVPN_PRECOMPILE STREQUAL "ALL")
  find_package(nlohmann_json REQUIRED)
  add_library(precompiled OBJECT ${source})
  target_link_libraries(precompiled PRIVATE nlohmann_json::nlohmann_json)
  target_precompile_headers(precompiled PRIVATE <nlohmann/json.hpp>)
  set(types "(OBJECT|STATIC|SHARED)_LIBRARY|EXECUTABLE")
else()
  # A program, for the code model of those that use its header.
  add_executable(precompiled ${source})
  set_target_properties(precompiled PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
  set(types "EXECUTABLE")
endif()
target_link_libraries(precompiled PRIVATE project_flags)
target_precompile_headers(precompiled PRIVATE
  <algorithm> <array> <chrono> <condition_variable> <cstring> <deque> <filesystem> <fstream> <functional> <map> <memory>
  <mutex> <optional> <set> <span> <sstream> <stdexcept> <string> <string_view> <thread> <unordered_map> <utility> <variant>
  <vector>)
if(BUILD_TESTING)
  find_package(GTest REQUIRED)
  target_link_libraries(precompiled PRIVATE GTest::gtest)
  target_precompile_headers(precompiled PRIVATE <gtest/gtest.h>)
endif()
# The compiler cache knows a precompiled header by its content, which must not have a time in it; and it looks for the
# header's name in what GCC's preprocessor puts out.
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
    if(type MATCHES "${types}" AND sources MATCHES "\\.cc" AND NOT optimised)
      target_precompile_headers(${target} REUSE_FROM precompiled)
      target_compile_options(${target} PRIVATE $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-fpch-preprocess>)
    endif()
  endforeach()
  get_property(folders DIRECTORY ${folder} PROPERTY SUBDIRECTORIES)
  foreach(below IN LISTS folders)
    reuse_precompiled(${below})
  endforeach()
endfunction()
reuse_precompiled(${CMAKE_CURRENT_SOURCE_DIR})
