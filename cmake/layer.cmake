# kandb_layer(NAME SOURCES file... [PUBLIC layer...] [PRIVATE layer...])
#
# One static library for one folder of src/. Its headers are reached only through an include root of its own
# (layers/NAME/NAME is a link to src/NAME), so a folder can include nothing but the layers it names:
# PUBLIC for layers whose headers its own headers include, PRIVATE for those that only its sources use.
# Once installed (cmake/install.cmake) the layers share one include root, and NAME is called kandb::NAME.
function(kandb_layer name)
  cmake_parse_arguments(arg "" "" "SOURCES;PUBLIC;PRIVATE" ${ARGN})
  set(include_root ${PROJECT_BINARY_DIR}/layers/${name})
  file(MAKE_DIRECTORY ${include_root})
  file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR}/${name} ${include_root}/${name} SYMBOLIC)

  list(TRANSFORM arg_SOURCES PREPEND ${name}/)
  list(TRANSFORM arg_PUBLIC PREPEND kandb_)
  list(TRANSFORM arg_PRIVATE PREPEND kandb_)
  add_library(kandb_${name} STATIC ${arg_SOURCES})
  set_target_properties(kandb_${name} PROPERTIES EXPORT_NAME ${name})
  target_compile_features(kandb_${name} PUBLIC cxx_std_20)
  target_include_directories(kandb_${name} PUBLIC
    $<BUILD_INTERFACE:${include_root}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/kandb>)
  target_link_libraries(kandb_${name} PUBLIC ${arg_PUBLIC} Threads::Threads PRIVATE ${arg_PRIVATE})
endfunction()
