// Checks of promises between our own functions, in every build: a violated one ends the process
// before anything wrong is written. Bytes from outside get a Status, never a check.
#pragma once

#include <sstream>

namespace kandb {

// Prints "file:line: check failed: condition (values)" on standard error and aborts.
[[noreturn]] void CheckFailed(const char* file, int line, const char* condition,
                              const std::ostringstream& values);

}  // namespace kandb

// KANDB_CHECK(condition, values): `values` are what a reader of the message needs to see, joined by
// <<, and are evaluated only after a violation. The condition has no side effects.
#define KANDB_CHECK(condition, values)                                                \
  do {                                                                                \
    if (!(condition)) [[unlikely]] {                                                  \
      std::ostringstream check_values;                                                \
      check_values << values; /* NOLINT(bugprone-macro-parentheses): a chain of << */ \
      ::kandb::CheckFailed(__FILE__, __LINE__, #condition, check_values);             \
    }                                                                                 \
  } while (false)
