# The client library for other projects, which say find_package(kandb) and link kandb::client. Its headers
# are included as in this project: "client/pd_client.h".
#
# The programs are the default component, server; the library is the component development.

include(CMakePackageConfigHelpers)

set(client_layers common pdpb rpc client)
list(TRANSFORM client_layers PREPEND kandb_ OUTPUT_VARIABLE client_libraries)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kandb)

# rpc needs crypto to link, but no header of crypto.
install(TARGETS ${client_libraries} kandb_crypto EXPORT kandb-targets COMPONENT development)
foreach(layer IN LISTS client_layers)
  install(DIRECTORY src/${layer} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kandb COMPONENT development
    FILES_MATCHING PATTERN "*.h")
endforeach()

write_basic_package_version_file(${PROJECT_BINARY_DIR}/kandb-config-version.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES cmake/kandb-config.cmake ${PROJECT_BINARY_DIR}/kandb-config-version.cmake
  DESTINATION ${package_dir} COMPONENT development)
install(EXPORT kandb-targets NAMESPACE kandb:: DESTINATION ${package_dir} COMPONENT development)
