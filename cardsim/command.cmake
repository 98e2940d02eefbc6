# The sandbox and the command; the library and the card model are made in CMakeLists.txt.
find_package(CLI11 REQUIRED)

add_library(cardsim_sandbox STATIC src/sandbox.cpp src/sandbox_root.cpp)
target_include_directories(cardsim_sandbox PUBLIC src)
target_link_libraries(cardsim_sandbox PRIVATE bootup_fpd_build_flags)
