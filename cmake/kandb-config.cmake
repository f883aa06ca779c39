# Read by find_package(kandb) in other projects; installed by cmake/install.cmake.
include(CMakeFindDependencyMacro)
find_dependency(Threads)
include(${CMAKE_CURRENT_LIST_DIR}/kandb-targets.cmake)
