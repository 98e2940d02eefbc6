# Tests of the sandbox and of the command.
add_executable(cardsim_sandbox_test tests/sandbox_test.cpp)
target_link_libraries(cardsim_sandbox_test PRIVATE cardsim_sandbox tests_support bootup_fpd_build_flags GTest::gtest_main)
bootup_fpd_test_program(cardsim_sandbox_test inside)
gtest_discover_tests(cardsim_sandbox_test NO_PRETTY_VALUES DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 60)

add_executable(cardsim_command_test tests/command_test.cpp)
target_link_libraries(cardsim_command_test PRIVATE tests_support bootup_fpd_build_flags GTest::gmock_main)
bootup_fpd_test_program(cardsim_command_test outside)
target_compile_definitions(cardsim_command_test PRIVATE
  CARDSIM_COMMAND="$<TARGET_FILE:cardsim_command>"
  CARDSIM_CARDS="${CMAKE_CURRENT_SOURCE_DIR}/cards"
  CARDSIM_VERSION="${PROJECT_VERSION}")
add_dependencies(cardsim_command_test cardsim_command)
gtest_discover_tests(cardsim_command_test NO_PRETTY_VALUES DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 60)

# What the command shows.
add_executable(cardsim_view_test tests/view_test.cpp)
target_link_libraries(cardsim_view_test PRIVATE cardsim_parts bootup_fpd_build_flags GTest::gmock_main)
bootup_fpd_test_program(cardsim_view_test inside)
gtest_discover_tests(cardsim_view_test NO_PRETTY_VALUES DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 60)

# Libraries with one fault each, and what check-libraries makes of them.
set(faults
  changes_the_marks counts_negative crashes forgets_the_status hangs_at_its_end has_a_wild_text has_no_end ignores_err_len
  makes_a_wrong_version needs_what_is_not_there never_returns reports_backwards reports_elsewhere reports_nothing
  runs_one_command_at_a_time takes_any_sum upgrades_anything upgrades_for_ever writes_before writes_beyond)
foreach(fault IN LISTS faults)
  add_library(faulty_${fault} SHARED tests/faulty_library.c)
  target_link_libraries(faulty_${fault} PRIVATE bootup_fpd_platform_headers)
  target_compile_options(faulty_${fault} PRIVATE -Wall -Wextra)
  target_compile_definitions(faulty_${fault} PRIVATE FAULT_${fault})
  set_target_properties(faulty_${fault} PROPERTIES
    C_STANDARD 11 C_VISIBILITY_PRESET default LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/faulty)
  list(APPEND faulty_libraries faulty_${fault})
endforeach()

add_executable(cardsim_check_libraries_test tests/check_libraries_test.cpp)
target_link_libraries(cardsim_check_libraries_test PRIVATE tests_support bootup_fpd_build_flags GTest::gmock_main)
bootup_fpd_test_program(cardsim_check_libraries_test outside)
target_compile_definitions(cardsim_check_libraries_test PRIVATE
  CARDSIM_COMMAND="$<TARGET_FILE:cardsim_command>"
  CARDSIM_LIBRARY="$<TARGET_FILE:cardsim>"
  FAULTY_LIBRARIES="${CMAKE_CURRENT_BINARY_DIR}/faulty")
add_dependencies(cardsim_check_libraries_test cardsim cardsim_command ${faulty_libraries})
# tsan is for data races: of the faults it has those that bring threads or locks.
if(NOT BOOTUP_FPD_SINGLE_THREAD_TESTS)
  set(with_threads CheckLibraries.*:*/reports_elsewhere:*/runs_one_command_at_a_time)
endif()
gtest_discover_tests(cardsim_check_libraries_test NO_PRETTY_VALUES DISCOVERY_MODE PRE_TEST TEST_FILTER "${with_threads}"
  PROPERTIES TIMEOUT 60)
