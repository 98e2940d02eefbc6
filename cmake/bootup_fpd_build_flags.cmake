# Warnings, hardening and sanitizers, the same for everything that is built here.
include(CheckPIESupported)
check_pie_supported()

add_library(bootup_fpd_build_flags INTERFACE)
target_compile_options(bootup_fpd_build_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror
  -fstack-protector-strong -fstack-clash-protection)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # gcc 12 sees overlapping copies in std::string's operator+ and, under sanitizers, uninitialized members in std::regex
  # where there are none.
  target_compile_options(bootup_fpd_build_flags INTERFACE -Wno-restrict)
  if(BOOTUP_FPD_SANITIZE)
    target_compile_options(bootup_fpd_build_flags INTERFACE -Wno-maybe-uninitialized)
  endif()
endif()
target_link_options(bootup_fpd_build_flags INTERFACE -Wl,-z,relro,-z,now -Wl,--as-needed)

if(CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
  target_compile_options(bootup_fpd_build_flags INTERFACE -fcf-protection)
endif()

if(BOOTUP_FPD_SANITIZE)
  # Fortified wrappers hide from the sanitizers what the plain functions do.
  target_compile_options(bootup_fpd_build_flags INTERFACE
    -fsanitize=${BOOTUP_FPD_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -U_FORTIFY_SOURCE)
  target_link_options(bootup_fpd_build_flags INTERFACE -fsanitize=${BOOTUP_FPD_SANITIZE})
elseif(CMAKE_BUILD_TYPE STREQUAL "Release")
  target_compile_options(bootup_fpd_build_flags INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()

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

# Most of the time that a test takes to compile goes into these headers: they are compiled once for all test programs.
set(test_headers_source ${CMAKE_CURRENT_LIST_DIR}/test_headers.cpp)
function(bootup_fpd_precompile_test_headers target)
  if(NOT TARGET test_headers)
    # A program, as what is compiled once for programs only programs can use.
    add_executable(test_headers EXCLUDE_FROM_ALL ${test_headers_source})
    target_link_libraries(test_headers PRIVATE bootup_fpd_build_flags GTest::gmock)
    target_precompile_headers(test_headers PRIVATE
      <gmock/gmock.h> <gtest/gtest.h> <algorithm> <chrono> <filesystem> <fstream> <functional> <string> <thread> <vector>)
    bootup_fpd_test_options(test_headers)
  endif()
  target_precompile_headers(${target} REUSE_FROM test_headers)
  bootup_fpd_test_options(${target})
endfunction()

function(bootup_fpd_test_options target)
  if(BOOTUP_FPD_SANITIZE MATCHES "undefined")
    # It is what is tested that must be free of undefined behaviour; the tests alone would double the time to build.
    target_compile_options(${target} PRIVATE -fno-sanitize=undefined)
  endif()
endfunction()
