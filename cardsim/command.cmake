# The sandbox and the command; the library and the card model are made in CMakeLists.txt.
find_package(CLI11 REQUIRED)
set(CURSES_NEED_NCURSES TRUE)
set(CURSES_NEED_WIDE TRUE)
find_package(Curses REQUIRED)

add_library(cardsim_sandbox STATIC
  src/sandbox/sandbox.cpp
  src/sandbox/sandbox_calls.cpp
  src/sandbox/sandbox_root.cpp)
target_include_directories(cardsim_sandbox PUBLIC src/sandbox)
target_link_libraries(cardsim_sandbox PUBLIC cardsim_system PRIVATE bootup_fpd_build_flags bootup_fpd_quick_to_build)
target_precompile_headers(cardsim_sandbox REUSE_FROM cardsim_system)

# All of the command but its options, also for the tests.
add_library(cardsim_parts STATIC
  src/command/card_place.cpp
  src/command/check_libraries.cpp
  src/command/check_libraries_card.cpp
  src/command/check_libraries_inside.cpp
  src/command/check_libraries_records.cpp
  src/command/check_libraries_report.cpp
  src/command/check_libraries_run.cpp
  src/command/check_libraries_upgrade.cpp
  src/command/check_libraries_wrong_calls.cpp
  src/command/compare.cpp
  src/command/documents.cpp
  src/command/life.cpp
  src/command/life_text.cpp
  src/command/live_view.cpp
  src/command/plan.cpp
  src/command/power.cpp
  src/command/scripts.cpp
  src/command/show.cpp
  src/command/template.cpp
  src/command/terminal_screen.cpp
  src/command/text_table.cpp)
target_include_directories(cardsim_parts PUBLIC src/command)
target_include_directories(cardsim_parts SYSTEM PRIVATE ${CURSES_INCLUDE_DIRS})
target_link_libraries(cardsim_parts
  PUBLIC cardsim_model cardsim_sandbox fpd_log_reader
  PRIVATE fpd_run_json bootup_fpd_build_flags bootup_fpd_quick_to_build ${CURSES_LIBRARIES} Threads::Threads ${CMAKE_DL_LIBS})
target_precompile_headers(cardsim_parts REUSE_FROM cardsim_system)
set_source_files_properties(src/command/check_libraries_card.cpp PROPERTIES
  COMPILE_DEFINITIONS "BOOTUP_FPD_BOARD_TYPES=\"${BOOTUP_FPD_BOARD_TYPES}\""
  OBJECT_DEPENDS "${BOOTUP_FPD_BOARD_TYPES}")

add_executable(cardsim_command src/command/cardsim_main.cpp)
target_link_libraries(cardsim_command PRIVATE
  cardsim_parts bootup_fpd_build_flags bootup_fpd_quick_to_build CLI11::CLI11)
target_compile_definitions(cardsim_command PRIVATE CARDSIM_VERSION="${PROJECT_VERSION}")
set_target_properties(cardsim_command PROPERTIES OUTPUT_NAME cardsim)
# The processes of check-libraries have of the tool what a library may name.
target_link_options(cardsim_command PRIVATE
  -Wl,--export-dynamic-symbol=fpd_upg_handler -Wl,--export-dynamic-symbol=bootup_fpd_time_div)
install(TARGETS cardsim_command RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT cardsim)
