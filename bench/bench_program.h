// Shared by the benchmark programs that print tables of their own.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

namespace kandb::bench {

// A failure ends the program: a benchmark has nothing to recover.
inline void Check(bool good, const std::string& what) {
  if (!good) throw std::runtime_error(what);
}

// Returns the exit status of `body`; 1 after a failure, which it prints on standard error.
inline int RunProgram(int argc, char** argv, int (*body)(int argc, char** argv)) try {
  return body(argc, argv);
} catch (const std::exception& failure) {
  std::fprintf(stderr, "%s: %s\n", argv[0], failure.what());
  return 1;
}

// Of at least one value; the upper one of two in the middle.
inline double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace kandb::bench
