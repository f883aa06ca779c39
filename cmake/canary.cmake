# A harness that finds nothing may be one that looks at nothing. With KANDB_CANARY one fault is planted for each of
# them, in a copy of a source file that is compiled instead of it, and scripts/check sees that they are found.
option(KANDB_CANARY "Plant the faults that the fuzz and crash harnesses must find" OFF)

# kandb_plant(LAYER FILE TEXT REPLACEMENT): TEXT must occur in FILE of src/LAYER.
function(kandb_plant layer file text replacement)
  set(copy ${PROJECT_BINARY_DIR}/canary/${layer}/${file})
  if(NOT EXISTS ${copy})
    set(copied ${PROJECT_SOURCE_DIR}/src/${layer}/${file})
  else()
    set(copied ${copy})
  endif()
  file(READ ${copied} content)
  string(FIND "${content}" "${text}" place)
  if(place EQUAL -1)
    message(FATAL_ERROR "the canary \"${replacement}\" needs \"${text}\" in ${file}")
  endif()
  string(REPLACE "${text}" "${replacement}" content "${content}")
  file(WRITE ${copy} "${content}")
  get_target_property(sources kandb_${layer} SOURCES)
  list(REMOVE_ITEM sources ${layer}/${file} ${copy})
  set_target_properties(kandb_${layer} PROPERTIES SOURCES "${sources};${copy}")
endfunction()

if(KANDB_CANARY)
  file(REMOVE_RECURSE ${PROJECT_BINARY_DIR}/canary)
  # Damaged records are replayed: log_fuzz.
  kandb_plant(lsm wal.cc "if (crypto::Crc32c(payload) != crc)" "if (crypto::Crc32c(payload) == ~crc)")
  # What is acknowledged is not synced: lsm_crash_test.
  kandb_plant(lsm wal.cc "if (file_calls.fdatasync(file.get()) != 0)" "if (file.get() < 0)")
endif()
