# How our own sources are compiled. Everything here is private to our targets, so that nothing leaks into a
# product that links the libraries or builds them as a sub-project.

# Language and warnings, for every target of ours.
add_library(reticor_options INTERFACE)
target_compile_features(reticor_options INTERFACE cxx_std_17)
target_compile_options(reticor_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion
  $<$<BOOL:${RETICOR_WERROR}>:-Werror>
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
  # Assertions are part of the behaviour in every build type.
  -UNDEBUG
  # Debug information, log lines and assertions name sources from the project's root. What the last two leave out of a
  # path is in Wings.cmake: with -ffile-prefix-map here, g++ would ignore those maps.
  -fdebug-prefix-map=${PROJECT_SOURCE_DIR}/=
  -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)

if(RETICOR_HELD_LOCKS)
  target_compile_definitions(reticor_options INTERFACE RETICOR_HELD_LOCKS=1)
  target_include_directories(reticor_options INTERFACE ${PROJECT_SOURCE_DIR}/foundation/inner)
endif()
if(RETICOR_SANITIZE)
  target_compile_options(reticor_options INTERFACE
    -fsanitize=${RETICOR_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(reticor_options INTERFACE -fsanitize=${RETICOR_SANITIZE})
  # This one looks at memory through a pipe, and so raises a false alarm where a test has used up the descriptors.
  target_compile_options(reticor_options INTERFACE -fno-sanitize=vptr)
endif()
if(RETICOR_COVERAGE)
  target_compile_options(reticor_options INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(reticor_options INTERFACE --coverage)
endif()

# Mistakes of memory are harder to misuse with these. Not beside sanitizers, which have checks of their own.
#
# For the libraries: functions of the C library that check the room they write to, which needs an optimising compiler.
# That no table of functions stays writable is in Libraries.cmake.
add_library(reticor_hardening INTERFACE)
# For objects that read foreign text also canaries in stack frames. The rest of the library goes without, and all of it
# without marks on the targets of indirect jumps, since the limit is 1 % of the instructions of an event (callgrind,
# g++ 12; echo: of the library alone, for a request; messages: of the whole benchmark):
#
#                                    echo    messages
#   -fstack-protector-strong        +5.5 %     +8.7 %
#   -fcf-protection=full            +3.6 %     +3.9 %
#   -D_FORTIFY_SOURCE=2             +0.1 %      0.0 %
add_library(reticor_guards INTERFACE)
if(NOT RETICOR_SANITIZE)
  target_compile_options(reticor_hardening INTERFACE
    "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
  target_compile_options(reticor_guards INTERFACE -fstack-protector-strong)
endif()
set(RETICOR_GUARDED_OBJECTS wing_r3_server wing_socket_address wing_tool_text)

# Objects of a library: hidden unless marked, position-independent. Calls inside the library are bound
# inside it: nobody replaces a function of ours from outside.
function(reticor_library_objects name)
  target_link_libraries(${name} PRIVATE reticor_options reticor_hardening PUBLIC Threads::Threads)
  if(name IN_LIST RETICOR_GUARDED_OBJECTS)
    target_link_libraries(${name} PRIVATE reticor_guards)
  endif()
  target_compile_options(${name} PRIVATE -fno-semantic-interposition)
  set_target_properties(${name} PROPERTIES
    CXX_EXTENSIONS OFF
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    POSITION_INDEPENDENT_CODE ON)
endfunction()

# A program of ours (test, benchmark).
function(reticor_program name)
  target_link_libraries(${name} PRIVATE reticor_options Threads::Threads)
  set_target_properties(${name} PROPERTIES CXX_EXTENSIONS OFF)
endfunction()

# A program for users, which reads foreign bytes (example, tool): hardened as the libraries are, every function of it with a
# canary, since its own work is small beside theirs. Position-independent by these words and not by the property, which would give
# precompiled headers, an object library, other ones.
function(reticor_hardened_program name)
  reticor_program(${name})
  target_link_libraries(${name} PRIVATE reticor_hardening)
  target_compile_options(${name} PRIVATE -fPIE)
  if(NOT RETICOR_SANITIZE)
    target_compile_options(${name} PRIVATE -fstack-protector-all)
  endif()
  target_link_options(${name} PRIVATE -pie -Wl,-z,relro,-z,now)
endfunction()

# A program whose options are parsed by a large library: that one is precompiled once for all of them, where tests are
# precompiled, and only for the sources that name it, since it makes all that include it slow to compile. Sanitizers and
# tests in batches look at what a program does, not at how fast it is: without optimising, the parser alone compiles in
# a third of the time. The C library's checked calls want some.
function(reticor_precompiled_program name)
  if(RETICOR_SANITIZE)
    set(optimisation -O0)
  elseif(RETICOR_TEST_BATCHES)
    set(optimisation -O1)
  else()
    set(optimisation "")
  endif()
  target_compile_options(${name} PRIVATE ${optimisation})
  if(NOT RETICOR_TEST_PCH)
    return()
  endif()
  if(NOT TARGET reticor_program_pch)
    reticor_precompiled_headers(reticor_program_pch <CLI/CLI.hpp>)
    reticor_hardened_program(reticor_program_pch)
    target_compile_options(reticor_program_pch PRIVATE ${optimisation})
  endif()
  target_precompile_headers(${name} REUSE_FROM reticor_program_pch)
  get_target_property(sources ${name} SOURCES)
  foreach(source IN LISTS sources)
    file(STRINGS ${source} found REGEX "^#include <CLI/" LIMIT_COUNT 1)
    if(NOT found)
      set_source_files_properties(${source} PROPERTIES SKIP_PRECOMPILE_HEADERS ON)
    endif()
  endforeach()
endfunction()

# Sixteen sources at a time, which halves the time to compile them.
function(reticor_in_batches name)
  set_target_properties(${name} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 16)
  # No file is the main one, and what is local to one is global to the next.
  set_property(TARGET ${name} PROPERTY UNITY_BUILD_CODE_BEFORE_INCLUDE "#pragma GCC diagnostic ignored \"-Wshadow\"")
  target_compile_options(${name} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
endfunction()

# An object library whose headers are precompiled, for others to take over.
function(reticor_precompiled_headers name)
  if(NOT EXISTS ${PROJECT_BINARY_DIR}/generated/${name}.cpp)
    file(WRITE ${PROJECT_BINARY_DIR}/generated/${name}.cpp "")
  endif()
  add_library(${name} OBJECT ${PROJECT_BINARY_DIR}/generated/${name}.cpp)
  target_precompile_headers(${name} PRIVATE ${ARGN})
endfunction()
