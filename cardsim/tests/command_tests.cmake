# Tests of the sandbox and of the command.
add_executable(cardsim_sandbox_test tests/sandbox_test.cpp tests/test_files.cpp)
target_link_libraries(cardsim_sandbox_test PRIVATE cardsim_sandbox bootup_fpd_build_flags GTest::gtest_main)
bootup_fpd_test_program(cardsim_sandbox_test inside)
gtest_discover_tests(cardsim_sandbox_test NO_PRETTY_VALUES DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 60)

add_executable(cardsim_command_test tests/command_test.cpp tests/test_files.cpp)
target_link_libraries(cardsim_command_test PRIVATE bootup_fpd_build_flags GTest::gmock_main)
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
