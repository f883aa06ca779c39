# The Debian package: the programs, their manual pages, and what makes the server a service. What is for the
# system alone, outside of any prefix, is the component system, which `cmake --install` leaves out.

set(CPACK_PACKAGE_CONTACT "kandb-meta developers <kandb-meta@example.org>" CACHE STRING "Maintainer of the package")
set(doc_dir ${CMAKE_INSTALL_DATADIR}/doc/kandb-meta)

# install_compressed(FILE DESTINATION NAME): as NAME.gz, without a time in it.
function(install_compressed file destination name)
  set(compressed ${PROJECT_BINARY_DIR}/packaging/${name}.gz)
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/packaging)
  execute_process(COMMAND gzip -9nc ${file} OUTPUT_FILE ${compressed} COMMAND_ERROR_IS_FATAL ANY)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
  install(FILES ${compressed} DESTINATION ${destination})
endfunction()

install_compressed(${PROJECT_SOURCE_DIR}/packaging/kandb-meta.8 ${CMAKE_INSTALL_MANDIR}/man8 kandb-meta.8)
install(FILES README.md CHANGELOG.md docs/operations.md docs/protocol.md docs/file-formats.md docs/architecture.md
  docs/reliability.md docs/performance.md docs/development.md packaging/copyright
  DESTINATION ${doc_dir})
configure_file(packaging/changelog.in packaging/changelog @ONLY)
install_compressed(${PROJECT_BINARY_DIR}/packaging/changelog ${doc_dir} changelog)
install(DIRECTORY packaging/examples DESTINATION ${doc_dir} USE_SOURCE_PERMISSIONS)
if(KANDB_TOOLS)
  foreach(tool kandb-ctl kandb-sim)
    install_compressed(${PROJECT_SOURCE_DIR}/packaging/${tool}.1 ${CMAKE_INSTALL_MANDIR}/man1 ${tool}.1)
    install(FILES packaging/${tool}.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
      RENAME ${tool})
  endforeach()
  install(FILES packaging/kandb-meta-metrics.service packaging/kandb-meta-metrics.timer
    DESTINATION /lib/systemd/system COMPONENT system EXCLUDE_FROM_ALL)
endif()
install(FILES packaging/kandb-meta.service DESTINATION /lib/systemd/system
  COMPONENT system EXCLUDE_FROM_ALL)
if(KANDB_TOOLS)
  install(FILES packaging/kandb-meta-backup.service packaging/kandb-meta-backup.timer
    DESTINATION /lib/systemd/system COMPONENT system EXCLUDE_FROM_ALL)
endif()
install(PROGRAMS packaging/wait-ready DESTINATION /usr/libexec/kandb-meta
  COMPONENT system EXCLUDE_FROM_ALL)
install(FILES packaging/kandb-meta.default DESTINATION /etc/default RENAME kandb-meta
  COMPONENT system EXCLUDE_FROM_ALL)

set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL server system)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "metadata and placement-driver server of a key-value database")
set(CPACK_PACKAGE_DESCRIPTION
"kandb-meta hands out timestamps and ids, keeps the records of regions and
stores, routes keys to regions and schedules replicas. kandb-ctl talks to a
running server and looks into the state of a stopped one; kandb-sim plays a
cluster against a server and checks its answers.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION database)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS adduser)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/packaging/conffiles ${PROJECT_SOURCE_DIR}/packaging/postinst
  ${PROJECT_SOURCE_DIR}/packaging/prerm ${PROJECT_SOURCE_DIR}/packaging/postrm)
include(CPack)
