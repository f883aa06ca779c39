#include "common/check.h"

#include <cstdio>
#include <cstdlib>

namespace kandb {

void CheckFailed(const char* file, int line, const char* condition,
                 const std::ostringstream& values) {
  std::fprintf(stderr, "%s:%d: check failed: %s (%s)\n", file, line, condition,
               values.str().c_str());
  std::abort();
}

}  // namespace kandb
