# The build settings of every target of this project. Applied per target, so that GoogleTest and
# other foreign code keep their own warnings.

# A compiler cache, where there is one, shared by all checkouts: paths are hashed relative to the tree.
find_program(QV_CCACHE ccache)
if(QV_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER
    ${CMAKE_COMMAND} -E env CCACHE_BASEDIR=${PROJECT_SOURCE_DIR} CCACHE_NOHASHDIR=1
      CCACHE_SLOPPINESS=pch_defines,time_macros ${QV_CCACHE})
  set(CMAKE_C_COMPILER_LAUNCHER ${CMAKE_CXX_COMPILER_LAUNCHER})
endif()

# No path of the build machine in a binary.
add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)

# Sanitizers cover foreign code too: a half-instrumented program reports false races. Not vptr: it
# needs the run-time type information that lib/ and tool/ are built without.
if(QV_SANITIZE)
  add_compile_options(-fsanitize=${QV_SANITIZE} -fno-sanitize=vptr -fno-sanitize-recover=all
    -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${QV_SANITIZE})
endif()

add_library(qv_warnings INTERFACE)
target_compile_options(qv_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow
  $<$<COMPILE_LANGUAGE:CXX>:-Wconversion>
  $<$<BOOL:${QV_WERROR}>:-Werror>)

# lib/ and tool/: no exceptions, no run-time type information.
add_library(qv_plain_cpp INTERFACE)
target_compile_options(qv_plain_cpp INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions> $<$<COMPILE_LANGUAGE:CXX>:-fno-rtti>)
target_link_libraries(qv_plain_cpp INTERFACE qv_warnings)

# Sources that are all template headers (command lines, TOML, JSON) and run for milliseconds: their
# optimisation costs minutes over all configurations and gains nothing. Fuzzing runs them for hours;
# where sources are compiled together, each template is made once.
function(qv_compile_quickly)
  if(QV_FUZZ OR CMAKE_UNITY_BUILD)
    return()
  endif()
  set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS "-O0;-g1")
endfunction()

# Sources of a fuzzer differ in what is checked; precompiled headers of one kind do not fit
# another.
if(QV_FUZZ)
  set(CMAKE_DISABLE_PRECOMPILE_HEADERS ON)
endif()

# The cards under the fuzzed code: they do not guide the fuzzer and are not checked, so that a run is
# several times faster. What they write into a caller's memory is checked nevertheless, because the
# sanitizer provides the copying function.
function(qv_scenery)
  if(QV_FUZZ)
    set_property(SOURCE ${ARGN} APPEND PROPERTY COMPILE_OPTIONS -fno-sanitize=all)
  endif()
endfunction()

# Sources that are checked and do not guide a fuzzer.
function(qv_unguided)
  if(QV_FUZZ)
    set_property(SOURCE ${ARGN} APPEND PROPERTY COMPILE_OPTIONS -fno-sanitize=fuzzer-no-link)
  endif()
endfunction()
