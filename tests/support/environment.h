// Numbers from the environment, for longer runs and to repeat one.
#pragma once

#include <cstdint>
#include <cstdlib>

namespace kandb::testing {

inline std::uint64_t FromEnvironment(const char* name, std::uint64_t otherwise) {
  const char* text = std::getenv(name);
  return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

}  // namespace kandb::testing
