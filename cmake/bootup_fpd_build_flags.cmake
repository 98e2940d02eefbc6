# Warnings, hardening and sanitizers, the same for everything that is built here.
include(CheckPIESupported)
check_pie_supported()

# Warnings are errors where a preset says so (CMAKE_COMPILE_WARNING_AS_ERROR), the developers' alone: another compiler, or
# another optimization, has warnings of its own.
add_library(bootup_fpd_build_flags INTERFACE)
target_compile_options(bootup_fpd_build_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion
  -fstack-protector-strong -fstack-clash-protection)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # gcc 12 sees overlapping copies in std::string's operator+ and, under sanitizers or optimized, uninitialized members in
  # std::regex and std::optional where there are none.
  target_compile_options(bootup_fpd_build_flags INTERFACE -Wno-restrict -Wno-maybe-uninitialized)
endif()
target_link_options(bootup_fpd_build_flags INTERFACE -Wl,-z,relro,-z,now -Wl,--as-needed)

if(CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
  target_compile_options(bootup_fpd_build_flags INTERFACE -fcf-protection)
endif()

# What a target is to the tests, by its property BOOTUP_FPD_TEST_PART: nothing for what is tested, "inside" for tests in whose
# process it runs, "outside" for those that start it as a program. Options of a target stand before these, and lose.
set(tested $<STREQUAL:$<TARGET_PROPERTY:BOOTUP_FPD_TEST_PART>,>)
set(inside $<STREQUAL:$<TARGET_PROPERTY:BOOTUP_FPD_TEST_PART>,inside>)
set(outside $<STREQUAL:$<TARGET_PROPERTY:BOOTUP_FPD_TEST_PART>,outside>)

if(BOOTUP_FPD_SANITIZE)
  # Sanitizing takes as long again as compiling, and it is what is tested that must be free of errors. Fortified wrappers
  # hide from the sanitizers what the plain functions do.
  set(sanitized -fsanitize=${BOOTUP_FPD_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_compile_options(bootup_fpd_build_flags INTERFACE
    "$<$<NOT:${outside}>:${sanitized}>" $<${inside}:-fno-sanitize=undefined> -U_FORTIFY_SOURCE)
  target_link_options(bootup_fpd_build_flags INTERFACE $<$<NOT:${outside}>:-fsanitize=${BOOTUP_FPD_SANITIZE}>)
else()
  # What is shipped, of whichever optimized kind.
  set(shipped_options -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3 -D_GLIBCXX_ASSERTIONS -ftrivial-auto-var-init=zero)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 16)
    list(APPEND shipped_options -enable-trivial-auto-var-init-zero-knowing-it-will-be-removed-from-clang)
  endif()
  set(optimized $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
  target_compile_options(bootup_fpd_build_flags INTERFACE "$<$<AND:${tested},${optimized}>:${shipped_options}>")
endif()
# To optimize the tests takes longer than it saves when they run.
target_compile_options(bootup_fpd_build_flags INTERFACE $<$<NOT:${tested}>:-O0>)

# What waits for people or for the card all the time: to optimize it takes longer than it saves.
add_library(bootup_fpd_quick_to_build INTERFACE)
target_compile_options(bootup_fpd_quick_to_build INTERFACE $<$<CONFIG:Release>:-Og>)

# For each program in which threads are cancelled.
set(sanitizer_options ${CMAKE_CURRENT_LIST_DIR}/sanitizer_options.cpp)
function(bootup_fpd_sanitizer_options target)
  if(BOOTUP_FPD_SANITIZE)
    target_sources(${target} PRIVATE ${sanitizer_options})
  endif()
endfunction()

# For what the tool is made of. Workers count too: atomically.
function(bootup_fpd_coverage target)
  if(BOOTUP_FPD_COVERAGE)
    target_compile_options(${target} PRIVATE --coverage -fprofile-update=atomic)
    target_link_options(${target} PUBLIC --coverage -Wl,--undefined=__gcov_dump)
  endif()
endfunction()

# A program, or a library, of tests; `part` is "inside" or "outside".
function(bootup_fpd_test_part target part)
  set_target_properties(${target} PROPERTIES BOOTUP_FPD_TEST_PART ${part})
endfunction()

# A test program. Most of the time that it takes to compile goes into these headers: they are compiled once for all.
set(test_headers_source ${CMAKE_CURRENT_LIST_DIR}/test_headers.cpp)
function(bootup_fpd_test_program target part)
  bootup_fpd_test_part(${target} ${part})
  set(headers test_headers)
  if(BOOTUP_FPD_SANITIZE)
    set(headers test_headers_${part})
  endif()
  if(NOT TARGET ${headers})
    # A program, as what is compiled once for programs only programs can use.
    add_executable(${headers} EXCLUDE_FROM_ALL ${test_headers_source})
    target_link_libraries(${headers} PRIVATE bootup_fpd_build_flags GTest::gmock)
    target_precompile_headers(${headers} PRIVATE
      <gmock/gmock.h> <gtest/gtest.h> <algorithm> <chrono> <filesystem> <fstream> <functional> <string> <thread> <vector>)
    bootup_fpd_test_part(${headers} ${part})
  endif()
  target_precompile_headers(${target} REUSE_FROM ${headers})
endfunction()
