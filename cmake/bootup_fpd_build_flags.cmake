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

# Most of the time that a test takes to compile goes into these headers.
function(bootup_fpd_precompile_test_headers target)
  target_precompile_headers(${target} PRIVATE
    <gmock/gmock.h> <gtest/gtest.h> <algorithm> <chrono> <filesystem> <fstream> <functional> <string> <thread> <vector>)
  if(BOOTUP_FPD_SANITIZE MATCHES "undefined")
    # It is what is tested that must be free of undefined behaviour; the tests alone would double the time to build.
    target_compile_options(${target} PRIVATE -fno-sanitize=undefined)
  endif()
endfunction()
