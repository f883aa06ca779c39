# Warnings and sanitizers, for every target of the project.

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release)
endif()

# At -O3 g++ 12 warns of code in its own standard library.
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")

# A failed check names its file as it stands in the repository, wherever that was built.
add_compile_options(-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=
  -fmacro-prefix-map=${PROJECT_BINARY_DIR}/layers/=)
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  add_compile_options(-Wthread-safety)
endif()

# A list such as "address,undefined" or "thread"; the presets asan and tsan set it.
set(KANDB_SANITIZE "" CACHE STRING "Sanitizers to build with")
if(KANDB_SANITIZE)
  add_compile_options(-fsanitize=${KANDB_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${KANDB_SANITIZE})
endif()

# kandb_build_at_once(TARGET): under the sanitizers, compiles the files of a target in a few large ones. Most of the time
# goes into the templates of libraries, which each file would compile again. A compiler cache does better with single
# files. Names in unnamed namespaces must differ within a target. The other builds compile every file by itself, so that
# a missing #include is noticed.
function(kandb_build_at_once target)
  if(KANDB_SANITIZE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 12)
  endif()
endfunction()
