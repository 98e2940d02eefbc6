# The sandbox and the command; the library and the card model are made in CMakeLists.txt.
find_package(CLI11 REQUIRED)

add_library(cardsim_sandbox STATIC src/sandbox.cpp src/sandbox_calls.cpp src/sandbox_root.cpp)
target_include_directories(cardsim_sandbox PUBLIC src)
target_link_libraries(cardsim_sandbox PRIVATE bootup_fpd_build_flags)

add_executable(cardsim_command
  src/cardsim_main.cpp
  src/card_place.cpp
  src/images.cpp
  src/power.cpp
  src/scripts.cpp
  src/show.cpp
  src/template.cpp)
target_link_libraries(cardsim_command PRIVATE cardsim_model cardsim_sandbox bootup_fpd_build_flags CLI11::CLI11)
set_target_properties(cardsim_command PROPERTIES OUTPUT_NAME cardsim)
install(TARGETS cardsim_command RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT cardsim)
