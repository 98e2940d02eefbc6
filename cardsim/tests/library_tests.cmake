# The card's description and state, and its library as a program loads it.
add_executable(cardsim_library_tests
  tests/description_test.cpp
  tests/library_calls_test.cpp
  tests/library_strictness_test.cpp
  tests/library_test_support.cpp
  tests/library_upgrade_test.cpp
  tests/library_utility_test.cpp
  tests/printable_test.cpp
  tests/state_directory_test.cpp
  tests/state_test.cpp)
target_link_libraries(cardsim_library_tests PRIVATE
  cardsim_model tests_support bootup_fpd_build_flags GTest::gmock_main Threads::Threads ${CMAKE_DL_LIBS})
bootup_fpd_test_program(cardsim_library_tests inside)
bootup_fpd_sanitizer_options(cardsim_library_tests)
# The library is loaded at run time, a fresh copy for each test: a process has but one card.
add_dependencies(cardsim_library_tests cardsim)
target_compile_definitions(cardsim_library_tests PRIVATE CARDSIM_LIBRARY="$<TARGET_FILE:cardsim>")
target_link_options(cardsim_library_tests PRIVATE -Wl,--export-dynamic-symbol=bootup_fpd_time_div)
gtest_discover_tests(cardsim_library_tests NO_PRETTY_VALUES DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 60)
